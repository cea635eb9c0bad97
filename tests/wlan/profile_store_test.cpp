// The profile store against real sed on a real profile file.
#include "wlan_fixture.h"

#include <cstring>

namespace {

std::string cantFind(const std::string& key) {
    return "Can't find " + key + " in dat /tmp/wireless/mt5g.dat";
}

TEST(DatLine, ParsesKeyValueAndLineEndsWithinTheLimitsWithOrWithoutOutputs) {
    FakeOsScope s;
    const std::string k63(63, 'K'), k64(64, 'K'), v9124(9124, 'y'), v9125(9125, 'x');
    const struct {
        std::string line;
        int rc;
        std::string key, value, error;
    } cases[] = {
        {"HT_BW=1\n", 0, "HT_BW", "1", ""},
        {"SSID2=Guest 5G\r\n", 0, "SSID2", "Guest 5G", ""},
        {"CountryCode=\n", 0, "CountryCode", "", ""},
        {"A=b=c\n", 0, "A", "b=c", ""},
        {"Tail=x\r", 0, "Tail", "x\r", ""},
        {"Default\n", -2, "", "", ""},
        {"# comment, no key\n", -2, "", "", ""},
        {k63 + "=v\n", 0, k63, "v", ""},
        {k64 + "=v\n", -1, "", "", "The DatKey(" + k64 + ") Exceeding the max key buffer(63)!"},
        {"V=" + v9124 + "\n", 0, "V", v9124, ""},
        // The line feed counts, and the whole value stands in the error line.
        {"V=" + v9125 + "\n", -1, "", "",
         "The DatValue(" + v9125 + "\n) Exceeding the max value buffer(9125)!"},
    };
    for (const auto& c : cases) {
        for (bool outputs : {true, false}) {
            char buf[MTK_DAT_LINE_BUF], key[MTK_DAT_KEY_BUF] = "", value[MTK_DAT_VALUE_BUF] = "";
            memcpy(buf, c.line.c_str(), c.line.size() + 1);
            EXPECT_EQ(c.rc, _parseDatLineBuf(buf, sizeof buf, outputs ? key : nullptr,
                                             outputs ? value : nullptr))
                << c.line.substr(0, 20);
            EXPECT_EQ(c.error.empty() ? Lines{} : Lines{c.error}, errorTexts(s.fake.takeStdout()));
            if (outputs && c.rc == 0) {
                EXPECT_EQ(c.key, key);
                EXPECT_EQ(c.value, value);
            }
        }
    }
    char buf[MTK_DAT_LINE_BUF];
    memset(buf, 'x', sizeof buf); // no terminator anywhere
    EXPECT_EQ(-1, _parseDatLineBuf(buf, sizeof buf, nullptr, nullptr));
    EXPECT_EQ(Lines{"Can't found Terminator! Exceeding the max line buffer(9192)?"},
              errorTexts(s.fake.takeStdout()));
}

using ProfileStore = WlanTest;

TEST_F(ProfileStore, LookupSkipsOversizedLinesAndFindsTheRest) {
    fake().writeFile(MTK_DAT_PATH, std::string(64, 'B') + "=1\nBig=" + std::string(9124, 'y') +
                                       "\nHuge=" + std::string(9125, 'z') + "\n" +
                                       realisticProfile());
    char value[MTK_DAT_VALUE_BUF];
    EXPECT_EQ(0, _getDatKeyValue("Channel", value, MTK_DAT_PATH));
    EXPECT_STREQ("36", value) << "CRLF dropped";
    EXPECT_EQ(2u, errors().size()) << "both oversized lines are reported and skipped";
    EXPECT_EQ(0, _getDatKeyValue("Big", value, MTK_DAT_PATH));
    EXPECT_EQ(std::string(9124, 'y'), value);
    EXPECT_EQ(1, _getDatKeyValue("Huge", nullptr, MTK_DAT_PATH));
    EXPECT_EQ("Cannot find key Huge.", errors().back());
    EXPECT_EQ(1, _getDatKeyValue("ssid1", nullptr, MTK_DAT_PATH)) << "keys are case-sensitive";
    EXPECT_EQ(1, _getDatKeyValue("HT_BW", nullptr, "/tmp/wireless/none.dat"));
    EXPECT_EQ("Can't open dat file: /tmp/wireless/none.dat", errors().back());
}

TEST_F(ProfileStore, PlainKeyIsAppliedLiveThenInTheProfile) {
    uint32_t u = 4000000000u;
    int32_t i = -7;
    uint16_t h = 65535;
    EXPECT_EQ(0, _mtk_wlan_set("HT_BW", "HtBw", "rai3", &u, MTK_DATA_UINT32, MTK_APPLY_BOTH));
    EXPECT_EQ(0, _mtk_wlan_set("Channel", "Channel", "rai3", &i, MTK_DATA_INT32, MTK_APPLY_BOTH));
    EXPECT_EQ(0, _mtk_wlan_set("BssidNum", nullptr, "rai3", &h, MTK_DATA_UINT16, MTK_APPLY_DAT));
    EXPECT_EQ(0,
              _mtk_wlan_set(nullptr, "SSID", "rai3", "a\\ b", MTK_DATA_STRING, MTK_APPLY_IWPRIV));
    EXPECT_EQ(0, _mtk_wlan_set("SSID3", "SSID", "rai3", "Lab", MTK_DATA_STRING, MTK_APPLY_DAT));
    // A line longer than the formatter's 511 characters is refused, not cut short.
    EXPECT_EQ(1, _mtk_wlan_set("SSID3", nullptr, "rai3", std::string(600, 'q').c_str(),
                               MTK_DATA_STRING, MTK_APPLY_DAT));
    const std::string p = datPath();
    EXPECT_EQ(
        (Lines{"iwpriv rai3 set HtBw=4000000000", "sed -i 's/^HT_BW=.*$/HT_BW=4000000000/' " + p,
               "iwpriv rai3 set Channel=-7", "sed -i 's/^Channel=.*$/Channel=-7/' " + p,
               "sed -i 's/^BssidNum=.*$/BssidNum=65535/' " + p, "iwpriv rai3 set SSID=a\\ b",
               "sed -i 's/^SSID3=.*$/SSID3=Lab/' " + p}),
        fake().shellLines());
    EXPECT_EQ(edited(realisticProfile(), {{"\nHT_BW=1\n", "\nHT_BW=4000000000\n"},
                                          {"Channel=36\r\n", "Channel=-7\n"}, // CR taken along
                                          {"BssidNum=4\n", "BssidNum=65535\n"},
                                          {"SSID3=\n", "SSID3=Lab\n"}}),
              profile());
    EXPECT_EQ(Lines{"command line too long, refused"}, errors());
}

TEST_F(ProfileStore, IndexedKeyFollowsTheInterfaceIndexAndKeepsAnEscapedTextExact) {
    // Every escaped character goes through the shell and sed with the backhaul AP's passphrase;
    // the backslash, which a double-quoted sed script cannot carry, only here.
    char esc[2 * 64 + 1], bs[8];
    _escapeSedChars(bs, "a\\b");
    EXPECT_STREQ("a\\\\b", bs);
    _escapeSedChars(esc, "p/a.s*s");
    EXPECT_STREQ(R"(p\/a\.s\*s)", esc);
    uint32_t n = 42;
    EXPECT_EQ(0, _mtk_wlan_setVapCfgWithIndex("WPAPSK", "WPAPSK", "rai1", esc, MTK_DATA_STRING,
                                              MTK_APPLY_BOTH));
    EXPECT_EQ(0, _mtk_wlan_setVapCfgWithIndex("SSID", nullptr, "rai3", "mesh_0a1b2c3d4e5f",
                                              MTK_DATA_STRING, MTK_APPLY_BOTH));
    EXPECT_EQ(0, _mtk_wlan_setVapCfgWithIndex(nullptr, "Key", "ra0", &n, MTK_DATA_UINT32,
                                              MTK_APPLY_BOTH));
    const std::string p = datPath();
    EXPECT_EQ(
        (Lines{std::string("iwpriv rai1 set WPAPSK=") + esc,
               std::string("sed -i \"s/^WPAPSK2=.*$/WPAPSK2=") + esc + "/\" " + p,
               "sed -i \"s/^SSID4=.*$/SSID4=mesh_0a1b2c3d4e5f/\" " + p, "iwpriv ra0 set Key=42"}),
        fake().shellLines());
    EXPECT_EQ(edited(realisticProfile(), {{"WPAPSK2=\n", "WPAPSK2=p/a.s*s\n"},
                                          {"SSID4=mesh_000000000000", "SSID4=mesh_0a1b2c3d4e5f"}}),
              profile());
}

TEST_F(ProfileStore, RefusalsLeaveTheProfileAlone) {
    uint32_t one = 1;
    EXPECT_EQ(1, _mtk_wlan_set("NoSuchKey", "X", "rai3", &one, MTK_DATA_UINT32, MTK_APPLY_BOTH));
    EXPECT_EQ((Lines{"Cannot find key NoSuchKey.", cantFind("NoSuchKey")}), errors());
    EXPECT_EQ(realisticProfile(), profile());
    // Only the indexed keys SSID1.. but not the bare base key: the live command alone runs.
    const std::string noBase = edited(realisticProfile(), {{"\nSSID=\n", "\n"}});
    fake().writeFile(MTK_DAT_PATH, noBase);
    EXPECT_EQ(1, _mtk_wlan_setVapCfgWithIndex("SSID", "SSID", "rai1", "x", MTK_DATA_STRING,
                                              MTK_APPLY_BOTH));
    EXPECT_EQ((Lines{"Cannot find key SSID.", cantFind("SSID")}), errors());
    // Without the lock no rewrite runs; the live part stays.
    mesh_wlan_resetForTest();
    EXPECT_EQ(1, _mtk_wlan_set("HT_BW", "HtBw", "rai3", &one, MTK_DATA_UINT32, MTK_APPLY_BOTH));
    EXPECT_EQ((Lines{"lock failed, errno=22 rc=-1", "can't get dat sem lock"}), errors());
    EXPECT_EQ((Lines{"iwpriv rai3 set X=1", "iwpriv rai1 set SSID=x", "iwpriv rai3 set HtBw=1"}),
              fake().shellLines());
    EXPECT_EQ(noBase, profile());
}

TEST_F(ProfileStore, VapListElementIsRewrittenAndTheListNormalisedToTheVapCount) {
    int32_t hide = 1;
    EXPECT_EQ(0, _mtk_wlan_setVapCfg("HideSSID", "HideSSID", "rai3", &hide, MTK_DATA_INT32,
                                     MTK_APPLY_BOTH));
    EXPECT_EQ((Lines{"iwpriv rai3 set HideSSID=1",
                     "sed -i 's/^HideSSID=.*/HideSSID=0;0;0;1/g' " + datPath()}),
              fake().shellLines());
    EXPECT_EQ(edited(realisticProfile(), {{"HideSSID=0;0;0;0", "HideSSID=0;0;0;1"}}), profile());
    // Empty pieces are skipped, missing elements take element 0, extra ones are dropped.
    fake().writeFile(MTK_DAT_PATH, "A=x;;y\nB=1;2;3;4;5;6\nC=\r\n");
    uint16_t v = 7;
    EXPECT_EQ(0, _mtk_wlan_setVapCfg("A", nullptr, "rai3", "N", MTK_DATA_STRING, MTK_APPLY_DAT));
    EXPECT_EQ(0, _mtk_wlan_setVapCfg("B", nullptr, "rai0", "9", MTK_DATA_STRING, MTK_APPLY_DAT));
    EXPECT_EQ(0, _mtk_wlan_setVapCfg("C", nullptr, "rai2", &v, MTK_DATA_UINT16, MTK_APPLY_DAT));
    EXPECT_EQ("A=x;y;x;N\nB=9;2;3;4\nC=;;7;\n", profile());
    // The VAP count is an 8-bit number: 257 + 1 counts as 2.
    fake().device().maxVapNum = 257;
    EXPECT_EQ(0, _mtk_wlan_setVapCfg("B", nullptr, "ra1", "8", MTK_DATA_STRING, MTK_APPLY_DAT));
    EXPECT_EQ("A=x;y;x;N\nB=9;8\nC=;;7;\n", profile());
    EXPECT_TRUE(errors().empty());
}

TEST_F(ProfileStore, VapListRefusals) {
    fake().writeFile(MTK_DAT_PATH, "A=a;b;c;d\nL=a;0123456789abcdef;c;d\n");
    const std::string before = profile();
    EXPECT_EQ(1, _mtk_wlan_setVapCfg("A", "A", "rai1", "0123456789abcdef", MTK_DATA_STRING,
                                     MTK_APPLY_BOTH));
    EXPECT_EQ(1, _mtk_wlan_setVapCfg("L", nullptr, "rai0", "x", MTK_DATA_STRING, MTK_APPLY_DAT));
    EXPECT_EQ(1, _mtk_wlan_setVapCfg("Z", nullptr, "rai0", "x", MTK_DATA_STRING, MTK_APPLY_DAT));
    EXPECT_EQ(1, _mtk_wlan_setVapCfg("A", "A", "rai4", "x", MTK_DATA_STRING, MTK_APPLY_BOTH));
    fake().device().maxVapNum = 9;
    EXPECT_EQ(1, _mtk_wlan_setVapCfg("A", "A", "rai0", "x", MTK_DATA_STRING, MTK_APPLY_BOTH));
    EXPECT_EQ((Lines{"0123456789abcdef exceed buffer size",
                     "vapValue[1]: 0123456789abcdef exceed buffer size", "Cannot find key Z.",
                     cantFind("Z"), "vap index 4 out of range", "vap num 10 out of range"}),
              errors());
    // Only the live command of the first call ran; out-of-range calls run nothing.
    EXPECT_EQ(Lines{"iwpriv rai1 set A=0123456789abcdef"}, fake().shellLines());
    EXPECT_EQ(before, profile());
}

} // namespace
