// The shell runner with the real /bin/sh. (MD5 is OpenSSL's; the digests the daemon derives
// from it are checked against `openssl md5` in the parent handler's and network check's tests.)
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

} // namespace
