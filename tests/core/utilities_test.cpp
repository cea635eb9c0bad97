// The common utilities against published MD5 vectors and a digest computed with other tools.
#include "fake_os.h"
#include "security/mesh_common.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

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

TEST(Utilities, RefusalsLeaveTheOutputAlone) {
    uint8_t digest[16];
    memset(digest, 0xAB, sizeof digest);
    char text[33] = "untouched";
    EXPECT_EQ(1u, mesh_common_md5("x", 0, digest));
    EXPECT_EQ(1u, mesh_common_md5(nullptr, 1, digest));
    EXPECT_EQ(1u, mesh_common_md5("x", 1, nullptr));
    EXPECT_EQ(Bytes(16, 0xAB), Bytes(digest, digest + 16));
    EXPECT_EQ(1u, mesh_common_md5ToHex(nullptr, text));
    EXPECT_EQ(1u, mesh_common_md5ToHex(digest, nullptr));
    EXPECT_EQ(1u, mesh_common_calcPassphrase(nullptr, digest, text));
    EXPECT_EQ(1u, mesh_common_calcPassphrase(digest, nullptr, text));
    EXPECT_EQ(1u, mesh_common_calcPassphrase(digest, digest, nullptr));
    EXPECT_EQ(1u, mesh_common_hexDigit(16, &text[0]));
    EXPECT_EQ(1u, mesh_common_hexDigit(3, nullptr));
    EXPECT_EQ(1u, mesh_common_ipToStr(1, nullptr));
    EXPECT_STREQ("untouched", text);
}

TEST(Utilities, DottedAddressAndResultText) {
    char out[16];
    memset(out, 'x', sizeof out);
    ASSERT_EQ(0u, mesh_common_ipToStr(0, out));
    EXPECT_EQ(std::string(16, '\0'), std::string(out, 16)) << "address 0 clears all 16 bytes";
    ASSERT_EQ(0u, mesh_common_ipToStr(0xC0A80001u, out));
    EXPECT_STREQ("192.168.0.1", out);
    ASSERT_EQ(0u, mesh_common_ipToStr(0xFFFFFFFFu, out));
    EXPECT_STREQ("255.255.255.255", out);
    EXPECT_STREQ("SUCCESS", mesh_common_resultStr(0));
    EXPECT_STREQ("FAIL", mesh_common_resultStr(1));
    EXPECT_STREQ("INVALID", mesh_common_resultStr(2));
    EXPECT_STREQ("INVALID", mesh_common_resultStr(0xFFFFFFFFu));
}

TEST(Utilities, SystemfPassesTheWaitStatusAndCutsLongLinesUptimeFollowsTheClock) {
    FakeOsScope s;
    s.fake.onShell("exit ", [](const std::string& line) { return std::stoi(line.substr(5)) << 8; });
    EXPECT_EQ(1 << 8, mesh_common_systemf("exit %d", 1)) << "the wait status, not the exit code";
    EXPECT_EQ(1, mesh_common_systemf(nullptr));
    mesh_common_systemf("echo %s", std::string(600, 'a').c_str());
    EXPECT_EQ((std::vector<std::string>{"exit 1", "echo " + std::string(506, 'a')}),
              s.fake.shellLines())
        << "command lines are cut at 511 characters";
    uint32_t before = mesh_common_getUptime();
    s.fake.advanceSeconds(42);
    EXPECT_EQ(before + 42, mesh_common_getUptime());
}

} // namespace
