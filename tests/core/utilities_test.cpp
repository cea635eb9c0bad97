// The common utilities against published MD5 vectors and values computed with other tools.
#include "fake_os.h"
#include "security/mesh_common.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string md5Hex(const std::string& text) {
    uint8_t digest[16];
    char hex[33];
    EXPECT_EQ(0u, mesh_common_md5(text.data(), static_cast<uint32_t>(text.size()), digest));
    EXPECT_EQ(0u, mesh_common_md5ToHex(digest, hex));
    return std::string(hex);
}

} // namespace

TEST(Md5, PublishedTestVectors) {
    // The test suite of the MD5 definition.
    EXPECT_EQ("0cc175b9c0f1b6a831c399e269772661", md5Hex("a"));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", md5Hex("abc"));
    EXPECT_EQ("f96b697d7cb7938d525a2f31aaf161d0", md5Hex("message digest"));
    EXPECT_EQ("c3fcd3d76192e4007dfb496cca67e13b", md5Hex("abcdefghijklmnopqrstuvwxyz"));
    EXPECT_EQ("d174ab98d277d9f5a5611c2c9f419d9f",
              md5Hex("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"));
    EXPECT_EQ("57edf4a22be3c955ac49da2e2107b67a",
              md5Hex("1234567890123456789012345678901234567890"
                     "1234567890123456789012345678901234567890"));
}

TEST(Md5, RefusesMissingInputAndEmptyData) {
    uint8_t digest[16];
    memset(digest, 0xAB, sizeof digest);
    EXPECT_EQ(1u, mesh_common_md5("x", 0, digest));
    EXPECT_EQ(1u, mesh_common_md5(nullptr, 1, digest));
    EXPECT_EQ(1u, mesh_common_md5("x", 1, nullptr));
    EXPECT_EQ(0xAB, digest[0]) << "a refused call must not touch the output";
    char hex[33];
    EXPECT_EQ(1u, mesh_common_md5ToHex(nullptr, hex));
    EXPECT_EQ(1u, mesh_common_md5ToHex(digest, nullptr));
}

TEST(Passphrase, MatchesDigestComputedByOpensslTool) {
    // printf '\x00\x11\x22\x33\x44\x55\x00\x01...\x0f' | openssl md5
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    uint8_t secret[16];
    for (int i = 0; i < 16; ++i) {
        secret[i] = static_cast<uint8_t>(i);
    }
    char out[33];
    memset(out, 'X', sizeof out);
    ASSERT_EQ(0u, mesh_common_calcPassphrase(mac, secret, out));
    EXPECT_STREQ("15531fe6242edc8518fe842fb0f390df", out);
}

TEST(Passphrase, MacComesBeforeSecret) {
    // md5sum of 02 5e a7 00 00 01 followed by ff ee dd ... 00: the MAC first.
    const uint8_t mac[6] = {0x02, 0x5e, 0xa7, 0x00, 0x00, 0x01};
    uint8_t secret[16];
    for (int i = 0; i < 16; ++i) {
        secret[i] = static_cast<uint8_t>(0xff - 0x11 * i);
    }
    char out[33];
    ASSERT_EQ(0u, mesh_common_calcPassphrase(mac, secret, out));
    EXPECT_STREQ("ce39861fef15beb23ce66a2d6a2d3577", out);
    EXPECT_EQ(1u, mesh_common_calcPassphrase(nullptr, secret, out));
    EXPECT_EQ(1u, mesh_common_calcPassphrase(mac, nullptr, out));
    EXPECT_EQ(1u, mesh_common_calcPassphrase(mac, secret, nullptr));
}

TEST(IpToStr, DottedTextFromMostSignificantByte) {
    char out[16];
    memset(out, 'x', sizeof out);
    ASSERT_EQ(0u, mesh_common_ipToStr(0, out));
    for (char c : out) {
        EXPECT_EQ('\0', c) << "address 0 clears all 16 bytes";
    }
    ASSERT_EQ(0u, mesh_common_ipToStr(0xC0A80001u, out));
    EXPECT_STREQ("192.168.0.1", out);
    ASSERT_EQ(0u, mesh_common_ipToStr(0xFFFFFFFFu, out));
    EXPECT_STREQ("255.255.255.255", out);
    EXPECT_EQ(1u, mesh_common_ipToStr(0x01020304u, nullptr));
}

TEST(HexDigitAndResultText, Limits) {
    char c = '?';
    EXPECT_EQ(0u, mesh_common_hexDigit(0, &c));
    EXPECT_EQ('0', c);
    EXPECT_EQ(0u, mesh_common_hexDigit(10, &c));
    EXPECT_EQ('a', c);
    EXPECT_EQ(0u, mesh_common_hexDigit(15, &c));
    EXPECT_EQ('f', c);
    EXPECT_EQ(1u, mesh_common_hexDigit(16, &c));
    EXPECT_EQ('f', c) << "a refused digit leaves the output alone";
    EXPECT_EQ(1u, mesh_common_hexDigit(3, nullptr));

    EXPECT_STREQ("SUCCESS", mesh_common_resultStr(0));
    EXPECT_STREQ("FAIL", mesh_common_resultStr(1));
    EXPECT_STREQ("INVALID", mesh_common_resultStr(2));
    EXPECT_STREQ("INVALID", mesh_common_resultStr(0xFFFFFFFFu));
}

TEST(Systemf, FormatsBoundedLineAndPassesTheWaitStatusOn) {
    FakeOsScope s;
    s.fake.onShell("exit ", [](const std::string& line) { return std::stoi(line.substr(5)) << 8; });
    EXPECT_EQ(1 << 8, mesh_common_systemf("exit %d", 1)) << "the wait status, not the exit code";
    EXPECT_EQ(1, mesh_common_systemf(nullptr));

    std::string longArg(600, 'a');
    mesh_common_systemf("echo %s", longArg.c_str());
    auto lines = s.fake.shellLines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("exit 1", lines[0]);
    EXPECT_EQ(511u, lines[1].size()) << "command lines are cut at 511 characters";
    EXPECT_EQ(0u, lines[1].rfind("echo aaa", 0));
}

TEST(Uptime, ComesFromTheSeam) {
    FakeOsScope s;
    uint32_t before = mesh_common_getUptime();
    s.fake.advanceSeconds(42);
    EXPECT_EQ(before + 42, mesh_common_getUptime());
}
