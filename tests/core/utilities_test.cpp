// The common utilities: the shell runner with the real /bin/sh, MD5 against published vectors,
// the passphrase against a digest computed with other tools, and the small conversions.
#include "fake_os.h"
#include "platform/linux_os.h"
#include "security/mesh_common.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>

namespace {

class RealShell : public ::testing::Test {
  protected:
    void SetUp() override { setOs(&linux_); }
    void TearDown() override { setOs(nullptr); }
    LinuxOs linux_;
};

std::atomic<int> g_signals{0};

TEST_F(RealShell, ReturnsTheRawWaitStatusOfACommandRunWithAnEmptyEnvironment) {
    EXPECT_EQ(3 << 8, mesh_common_system("exit 3"));
    EXPECT_EQ(0, mesh_common_system("true"));
    int killed = mesh_common_system("kill -TERM $$");
    EXPECT_TRUE(WIFSIGNALED(killed) && WTERMSIG(killed) == SIGTERM) << killed;

    // Neither our variable nor HOME reaches the shell, which still finds its tools.
    setenv("ZORMESH_INHERITED", "visible", 1);
    EXPECT_EQ(7 << 8, mesh_common_system("test -z \"$ZORMESH_INHERITED$HOME\" && "
                                         "sed --version >/dev/null && exit 7"));
    unsetenv("ZORMESH_INHERITED");
}

TEST_F(RealShell, SurvivesSignalsDuringTheWait) {
    struct sigaction sa {
    }, old{};
    sa.sa_handler = [](int) { g_signals++; }; // no SA_RESTART: waitpid sees EINTR
    ASSERT_EQ(0, sigaction(SIGALRM, &sa, &old));
    g_signals = 0;
    itimerval every100ms{{0, 100000}, {0, 100000}}, off{};
    setitimer(ITIMER_REAL, &every100ms, nullptr);
    int st = mesh_common_system("sleep 0.5; exit 4");
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_GE(g_signals.load(), 1) << "the signal must have arrived during the wait";
    EXPECT_EQ(4 << 8, st) << "the child is still waited for";
}

TEST(Utilities, Md5AndPassphraseAgainstPublishedAndIndependentlyComputedDigests) {
    // From the test suite of the MD5 definition; the last one spans two blocks.
    const std::pair<std::string, std::string> vectors[] = {
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"}};
    for (const auto& [text, want] : vectors) {
        uint8_t digest[16];
        char out[33];
        memset(out, 'X', sizeof out);
        ASSERT_EQ(0u, mesh_common_md5(text.data(), static_cast<uint32_t>(text.size()), digest));
        ASSERT_EQ(0u, mesh_common_md5ToHex(digest, out));
        EXPECT_EQ(want + '\0', std::string(out, 33));
    }
    // printf '\x00\x11\x22\x33\x44\x55\x00\x01...\x0f' | openssl md5: the MAC comes first.
    char out[33];
    ASSERT_EQ(0u,
              mesh_common_calcPassphrase(hexBytes("001122334455").data(),
                                         hexBytes("000102030405060708090a0b0c0d0e0f").data(), out));
    EXPECT_STREQ("15531fe6242edc8518fe842fb0f390df", out);
}

} // namespace
