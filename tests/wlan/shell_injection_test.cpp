// Hostile text on its way into shell lines: profile contents, caller values and credentials
// that would run a command if they reached a line unescaped. The sed lines run for real on a
// real profile, the iwpriv lines in a real shell with iwpriv stubbed out; nothing may run.
#include "wlan_fixture.h"

#include "wlan/mesh_wlan_radio.h"
#include "wlan/mesh_wlan_scan.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <unistd.h>

namespace {

using ShellInjection = WlanTest;

TEST_F(ShellInjection, HostileTextRunsNothingAndOrdinaryTextKeepsItsLine) {
    // Commands of the injected text land in the working directory: make it the test's own.
    char here[4096];
    ASSERT_NE(nullptr, getcwd(here, sizeof here));
    ASSERT_EQ(0, chdir(fake().rooted("/").c_str()));
    const std::string marker = fake().rooted("/PWNED");
    fake().onShell("iwpriv ", [](const std::string& line) {
        return std::system(("iwpriv() { :; }; " + line).c_str());
    });
    MESH_BASIC_WLAN_CFG basic{0, 2, 0, 14, 0};
    const std::string prof = realisticProfile();
    const auto vap = [](const char* value) {
        return _mtk_wlan_setVapCfg("AuthMode", "AuthMode", "rai3", value, MTK_DATA_STRING,
                                   MTK_APPLY_BOTH);
    };
    // The backhaul AP (`ap`) or the station set up with these credentials.
    const auto join = [&basic](bool ap, const char* ssid, const char* passphrase) {
        MESH_WLAN_CREDENTIALS c{};
        strncpy(c.ssid, ssid, sizeof c.ssid);
        strncpy(c.passphrase, passphrase, sizeof c.passphrase);
        return static_cast<int>(ap ? mesh_wlan_createBkhAp(&c, 0, &basic, nullptr, 0)
                                   : mesh_wlan_configSta(&c, 36));
    };
    const struct {
        const char* what;
        std::string before;
        std::function<int()> act;
        int rc;
        std::string after; // empty: the profile is unchanged
    } cases[] = {
        {"quote in a stored element", "AuthMode=x';touch PWNED;'\n", [&] { return vap("OPEN"); }, 0,
         "AuthMode=x';touch PWNED;';OPEN\n"},
        {"sed e flag in a stored element", "AuthMode=|touch PWNED/e#\n",
         [&] { return vap("OPEN"); }, 0,
         "AuthMode=|touch PWNED/e#;|touch PWNED/e#;|touch PWNED/e#;OPEN\n"},
        {"backslash and ampersand kept exact", "AuthMode=a&b;c\\\n", [&] { return vap("OPEN"); }, 0,
         "AuthMode=a&b;c\\;a&b;OPEN\n"},
        {"line feed in a new element", prof, [&] { return vap("x\ntouch PWNED"); }, 1, ""},
        {"quote in a plain key's text", prof,
         [] {
             return _mtk_wlan_set("SSID3", nullptr, "rai3", "x';touch PWNED;'", MTK_DATA_STRING,
                                  MTK_APPLY_DAT);
         },
         0, edited(prof, {{"SSID3=\n", "SSID3=x';touch PWNED;'\n"}})},
        {"line feed in a plain key's text", prof,
         [] {
             return _mtk_wlan_set("SSID3", "SSID", "rai3", "x/e\ntouch PWNED", MTK_DATA_STRING,
                                  MTK_APPLY_BOTH);
         },
         1, ""},
        {"escaped backslash before the delimiter", prof,
         [] {
             return _mtk_wlan_setVapCfgWithIndex("WPAPSK", "WPAPSK", "rai3",
                                                 R"(\;touch\ PWNED\;\\\/e#)", MTK_DATA_STRING,
                                                 MTK_APPLY_BOTH);
         },
         1, ""},
        {"unescaped text for the double-quoted script", prof,
         [] {
             return _mtk_wlan_setVapCfgWithIndex("WPAPSK", "WPAPSK", "rai3", "$(touch PWNED)",
                                                 MTK_DATA_STRING, MTK_APPLY_BOTH);
         },
         1, ""},
        {"passphrase with a backslash", prof,
         [&] { return join(true, "mesh_001122334455", ";touch PWNED;\\/e#"); }, 1, ""},
        {"passphrase with a line feed", prof,
         [&] { return join(true, "mesh_001122334455", "a\ntouch PWNED"); }, 1, ""},
        {"backhaul ssid with a quote", prof,
         [&] { return join(true, "mesh_\";touch PWNED", "00112233445566778899aabbccddeeff"); }, 1,
         ""},
        {"station passphrase with a semicolon", prof,
         [&] { return join(false, "mesh_001122334455", "x;touch PWNED"); }, 1, ""},
        {"station ssid with a line feed", prof,
         [&] { return join(false, "mesh_\ntouch PWNED", "00112233445566778899aabbccddeeff"); }, 1,
         ""},
    };
    for (const auto& c : cases) {
        fake().writeFile(MTK_DAT_PATH, c.before);
        fake().clearRecords();
        fake().takeStdout();
        EXPECT_EQ(c.rc, c.act()) << c.what;
        EXPECT_NE(0, access(marker.c_str(), F_OK)) << c.what << ": the injected command ran";
        unlink(marker.c_str());
        EXPECT_EQ(c.after.empty() ? c.before : c.after, profile()) << c.what;
        // A refusal says so; an escaped value passes silently.
        EXPECT_EQ(c.rc != 0, !errors().empty()) << c.what;
    }
    ASSERT_EQ(0, chdir(here));
}

TEST(ShellText, EscapedAndPlainTextChecks) {
    FakeOsScope s;
    const struct {
        const char* text;
        bool escaped, plain;
    } cases[] = {
        {"mesh_0a1b2c3d4e5f", true, true},
        {"", true, true},
        {R"(p\/\.\*\[\]\^\$\ \{\}\+\?\|\(\)\&\;\'\"\<\>\=\`Z)", true, false},
        {"a!b#c%d,e:f@g~h", true, false},
        {"a b", false, false},
        {"a/b", false, false},
        {"a\\\\b", false, false}, // an escaped backslash
        {"a\\b", false, false},   // a backslash before a letter
        {"a\\", false, false},
        {"a\\\nb", false, false},
        {"tab\there", false, false},
        {"caf\xc3\xa9", false, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.escaped, _isEscapedShellText(c.text)) << c.text;
        EXPECT_EQ(c.plain, _isPlainShellText(c.text, 64)) << c.text;
    }
    EXPECT_TRUE(_isPlainShellText("abc;", 3)) << "the bound is kept";
    char out[32] = "x";
    EXPECT_EQ(-1, _escapeSedChars(out, "a\nb"));
    EXPECT_STREQ("", out);
    EXPECT_EQ(Lines{"text to escape holds a control character"}, errorTexts(s.fake.takeStdout()));
}

} // namespace
