// The profile store against real sed on a real profile file.
#include "wlan_fixture.h"

#include <cstdlib>
#include <cstring>
#include <fstream>

using Lines = std::vector<std::string>;

namespace {
std::string cantFind(const std::string& key) {
    return "Can't find " + key + " in dat /tmp/wireless/mt5g.dat";
}
} // namespace

TEST(DatLine, ParsesKeyValueAndLineEnds) {
    struct Case {
        std::string line;
        int rc;
        std::string key, value;
    } cases[] = {
        {"HT_BW=1\n", 0, "HT_BW", "1"},
        {"SSID2=Guest 5G\r\n", 0, "SSID2", "Guest 5G"},
        {"CountryCode=\n", 0, "CountryCode", ""},
        {"A=b=c\n", 0, "A", "b=c"},
        {"Default\n", -2, "", ""},
        {"# comment, no key\n", -2, "", ""},
        {"Tail=x\r", 0, "Tail", "x\r"},
    };
    for (auto& c : cases) {
        char buf[MTK_DAT_LINE_BUF], key[MTK_DAT_KEY_BUF] = "", value[MTK_DAT_VALUE_BUF] = "";
        snprintf(buf, sizeof buf, "%s", c.line.c_str());
        EXPECT_EQ(_parseDatLineBuf(buf, sizeof buf, key, value), c.rc) << c.line;
        EXPECT_EQ(key, c.key) << c.line;
        EXPECT_EQ(value, c.value) << c.line;
    }
}

TEST(DatLine, EnforcesKeyValueAndTerminatorLimitsWithOrWithoutOutputs) {
    FakeOsScope s;
    std::string key63(63, 'K'), key64(64, 'K');
    std::string ok = key63 + "=v\n", longKey = key64 + "=v\n";
    std::string v9124 = "V=" + std::string(9124, 'x') + "\n";
    std::string v9125 = "V=" + std::string(9125, 'x') + "\n";
    char buf[MTK_DAT_LINE_BUF], key[MTK_DAT_KEY_BUF], value[MTK_DAT_VALUE_BUF];
    auto parse = [&](const std::string& l, bool outputs) {
        memcpy(buf, l.c_str(), l.size() + 1);
        return _parseDatLineBuf(buf, sizeof buf, outputs ? key : nullptr,
                                outputs ? value : nullptr);
    };
    EXPECT_EQ(parse(ok, true), 0);
    EXPECT_EQ(std::string(key), key63);
    EXPECT_EQ(parse(v9124, true), 0);
    EXPECT_EQ(strlen(value), 9124u);
    EXPECT_TRUE(s.fake.takeStdout().empty());
    for (bool outputs : {true, false}) {
        EXPECT_EQ(parse(longKey, outputs), -1);
        EXPECT_EQ(errorTexts(s.fake.takeStdout()),
                  Lines{"The DatKey(" + key64 + ") Exceeding the max key buffer(63)!"});
        EXPECT_EQ(parse(v9125, outputs), -1); // the line feed counts
        // The value itself fills the error line, which the log cuts at its buffer size.
        EXPECT_EQ(errorTexts(s.fake.takeStdout())[0].rfind("The DatValue(xxxxxxxx", 0), 0u);
    }
    memset(buf, 'x', sizeof buf); // no terminator anywhere
    EXPECT_EQ(_parseDatLineBuf(buf, sizeof buf, nullptr, nullptr), -1);
    EXPECT_EQ(errorTexts(s.fake.takeStdout()),
              Lines{"Can't found Terminator! Exceeding the max line buffer(9192)?"});
}

using ProfileStore = WlanTest;

TEST_F(ProfileStore, LookupSkipsOversizedLinesAndFindsTheRest) {
    std::string bigKey(64, 'B');
    fake().writeFile(MTK_DAT_PATH, "# oversized lines first\n" + bigKey + "=1\n" +
                                       "Big=" + std::string(9124, 'y') + "\n" + "Huge=" +
                                       std::string(9125, 'z') + "\n" + realisticProfile());
    char value[MTK_DAT_VALUE_BUF];
    EXPECT_EQ(_getDatKeyValue("Channel", value, MTK_DAT_PATH), 0);
    EXPECT_STREQ(value, "36");
    EXPECT_EQ(_getDatKeyValue("Big", value, MTK_DAT_PATH), 0);
    EXPECT_EQ(std::string(value), std::string(9124, 'y'));
    fake().takeStdout();
    EXPECT_EQ(_getDatKeyValue("Huge", nullptr, MTK_DAT_PATH), 1);
    Lines errs = errors();
    ASSERT_EQ(errs.size(), 3u);
    EXPECT_EQ(errs[0], "The DatKey(" + bigKey + ") Exceeding the max key buffer(63)!");
    EXPECT_EQ(errs[2], "Cannot find key Huge.");
    EXPECT_EQ(_getDatKeyValue("ssid1", nullptr, MTK_DAT_PATH), 1); // keys are case-sensitive
    fake().takeStdout();
    EXPECT_EQ(_getDatKeyValue("HT_BW", nullptr, "/tmp/wireless/none.dat"), 1);
    EXPECT_EQ(errors(), Lines{"Can't open dat file: /tmp/wireless/none.dat"});
}

TEST_F(ProfileStore, PlainKeyIsAppliedLiveThenInTheProfile) {
    uint32_t u = 4000000000u;
    int32_t i = -7;
    uint16_t h = 65535;
    EXPECT_EQ(_mtk_wlan_set("HT_BW", "HtBw", "rai3", &u, MTK_DATA_UINT32, MTK_APPLY_BOTH), 0);
    EXPECT_EQ(_mtk_wlan_set("Channel", "Channel", "rai3", &i, MTK_DATA_INT32, MTK_APPLY_BOTH), 0);
    EXPECT_EQ(_mtk_wlan_set("BssidNum", nullptr, "rai3", &h, MTK_DATA_UINT16, MTK_APPLY_DAT), 0);
    EXPECT_EQ(_mtk_wlan_set(nullptr, "SSID", "rai3", "a b", MTK_DATA_STRING, MTK_APPLY_IWPRIV), 0);
    EXPECT_EQ(_mtk_wlan_set("SSID3", "SSID", "rai3", "Lab", MTK_DATA_STRING, MTK_APPLY_DAT), 0);
    const std::string p = datPath();
    EXPECT_EQ(fake().shellLines(), (Lines{
                                       "iwpriv rai3 set HtBw=4000000000",
                                       "sed -i 's/^HT_BW=.*$/HT_BW=4000000000/' " + p,
                                       "iwpriv rai3 set Channel=-7",
                                       "sed -i 's/^Channel=.*$/Channel=-7/' " + p,
                                       "sed -i 's/^BssidNum=.*$/BssidNum=65535/' " + p,
                                       "iwpriv rai3 set SSID=a b",
                                       "sed -i 's/^SSID3=.*$/SSID3=Lab/' " + p,
                                   }));
    std::string expect = realisticProfile();
    expect = withLine(expect, "\nHT_BW=1\n", "\nHT_BW=4000000000\n");
    expect = withLine(expect, "Channel=36\r\n", "Channel=-7\n"); // ".*" took the CR along
    expect = withLine(expect, "BssidNum=4\n", "BssidNum=65535\n");
    expect = withLine(expect, "SSID3=\n", "SSID3=Lab\n");
    EXPECT_EQ(profile(), expect);
    EXPECT_TRUE(errors().empty());
}

TEST_F(ProfileStore, RefusalsChangeNothing) {
    uint32_t one = 1;
    const auto bad = static_cast<MTK_DATA_TYPE>(7);
    EXPECT_EQ(_mtk_wlan_set("NoSuchKey", "X", "rai3", &one, MTK_DATA_UINT32, MTK_APPLY_BOTH), 1);
    EXPECT_EQ(errors(), (Lines{"Cannot find key NoSuchKey.", cantFind("NoSuchKey")}));
    EXPECT_EQ(_mtk_wlan_set(nullptr, "HtBw", "rai3", &one, MTK_DATA_UINT32, MTK_APPLY_BOTH), 1);
    EXPECT_EQ(_mtk_wlan_set("HT_BW", nullptr, "rai3", &one, MTK_DATA_UINT32, MTK_APPLY_BOTH), 1);
    EXPECT_EQ(_mtk_wlan_set("HT_BW", "HtBw", nullptr, &one, MTK_DATA_UINT32, MTK_APPLY_DAT), 1);
    EXPECT_EQ(_mtk_wlan_set("HT_BW", "HtBw", "rai3", nullptr, MTK_DATA_UINT32, MTK_APPLY_DAT), 1);
    EXPECT_EQ(errors(), Lines(4, "invalid param."));
    EXPECT_EQ(_mtk_wlan_set("HT_BW", "HtBw", "rai3", &one, bad, MTK_APPLY_BOTH), 1);
    EXPECT_EQ(errors(), (Lines{"Can't support data tpye: 7!", "can't support data type: 7!"}));
    EXPECT_EQ(_mtk_wlan_setVapCfgWithIndex("SSID", "SSID", "rai3", &one, bad, MTK_APPLY_DAT), 1);
    EXPECT_EQ(_mtk_wlan_setVapCfg("HideSSID", "HideSSID", "rai3", &one, bad, MTK_APPLY_DAT), 1);
    EXPECT_EQ(errors(), Lines(2, "can't support data type:7!"));
    // The live command runs before the profile is looked at, and stays in effect.
    EXPECT_EQ(fake().shellLines(), Lines{"iwpriv rai3 set X=1"});
    EXPECT_EQ(profile(), realisticProfile());
}

TEST_F(ProfileStore, NoRewriteWithoutTheLock) {
    uint32_t one = 0;
    mesh_wlan_resetForTest(); // no semaphore set
    EXPECT_EQ(_mtk_wlan_set("HT_BW", "HtBw", "rai3", &one, MTK_DATA_UINT32, MTK_APPLY_BOTH), 1);
    EXPECT_EQ(errors(), (Lines{"lock failed, errno=22 rc=-1", "can't get dat sem lock"}));
    EXPECT_EQ(fake().shellLines(), Lines{"iwpriv rai3 set HtBw=0"}); // the live part stays
    EXPECT_EQ(profile(), realisticProfile());
}

TEST_F(ProfileStore, OverlongCommandLineIsCutAndTheSetterStillSucceeds) {
    std::string longValue(600, 'q');
    EXPECT_EQ(
        _mtk_wlan_set("SSID3", nullptr, "rai3", longValue.c_str(), MTK_DATA_STRING, MTK_APPLY_DAT),
        0);
    ASSERT_EQ(fake().shellLines().size(), 1u);
    EXPECT_EQ(fake().shellLines()[0].size(), 511u);
    EXPECT_EQ(profile(), realisticProfile()); // the shell rejected the cut line
}

TEST_F(ProfileStore, IndexedKeyFollowsTheInterfaceIndex) {
    // The passphrase as the backhaul AP escapes it: it survives sed and the shell intact.
    const std::string pass = "p.a*s[s]^w$o{r}d+?|()&;'\"<>/`= end";
    char esc[2 * 64 + 1];
    _escapeSedChars(esc, pass.c_str());
    EXPECT_EQ(std::string(esc), R"(p\.a\*s\[s\]\^w\$o\{r\}d\+\?\|\(\)\&\;\'\"\<\>\/\`\=\ end)");
    uint32_t n = 42;
    EXPECT_EQ(_mtk_wlan_setVapCfgWithIndex("WPAPSK", "WPAPSK", "rai1", esc, MTK_DATA_STRING,
                                           MTK_APPLY_BOTH),
              0);
    EXPECT_EQ(_mtk_wlan_setVapCfgWithIndex("SSID", nullptr, "rai3", "mesh_0a1b2c3d4e5f",
                                           MTK_DATA_STRING, MTK_APPLY_BOTH),
              0);
    EXPECT_EQ(
        _mtk_wlan_setVapCfgWithIndex(nullptr, "Key", "ra0", &n, MTK_DATA_UINT32, MTK_APPLY_BOTH),
        0);
    const std::string p = datPath();
    EXPECT_EQ(
        fake().shellLines(),
        (Lines{std::string("iwpriv rai1 set WPAPSK=") + esc,
               std::string("sed -i \"s/^WPAPSK2=.*$/WPAPSK2=") + esc + "/\" " + p,
               "sed -i \"s/^SSID4=.*$/SSID4=mesh_0a1b2c3d4e5f/\" " + p, "iwpriv ra0 set Key=42"}));
    std::string expect = withLine(realisticProfile(), "WPAPSK2=\n", "WPAPSK2=" + pass + "\n");
    EXPECT_EQ(profile(),
              withLine(expect, "SSID4=mesh_000000000000\n", "SSID4=mesh_0a1b2c3d4e5f\n"));
    // The live command's value word, as the shell hands it to iwpriv.
    std::string probe = "printf '%s' " + std::string(esc) + " > " + fake().root() + "/word";
    ASSERT_EQ(std::system(probe.c_str()), 0);
    std::ifstream in(fake().root() + "/word");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), pass);
}

TEST_F(ProfileStore, IndexedKeyNeedsTheBareBaseKey) {
    fake().writeFile(MTK_DAT_PATH, "SSID1=a\nSSID2=b\n");
    EXPECT_EQ(
        _mtk_wlan_setVapCfgWithIndex("SSID", "SSID", "rai1", "x", MTK_DATA_STRING, MTK_APPLY_BOTH),
        1);
    EXPECT_EQ(errors(), (Lines{"Cannot find key SSID.", cantFind("SSID")}));
    EXPECT_EQ(fake().shellLines(), Lines{"iwpriv rai1 set SSID=x"});
    EXPECT_EQ(profile(), "SSID1=a\nSSID2=b\n");
}

TEST_F(ProfileStore, VapListElementIsRewritten) {
    int32_t hide = 1;
    EXPECT_EQ(
        _mtk_wlan_setVapCfg("HideSSID", "HideSSID", "rai3", &hide, MTK_DATA_INT32, MTK_APPLY_BOTH),
        0);
    EXPECT_EQ(
        _mtk_wlan_setVapCfg("AuthMode", "AuthMode", "rai1", "SAE", MTK_DATA_STRING, MTK_APPLY_DAT),
        0);
    const std::string p = datPath();
    EXPECT_EQ(
        fake().shellLines(),
        (Lines{"iwpriv rai3 set HideSSID=1", "sed -i 's/^HideSSID=.*/HideSSID=0;0;0;1/g' " + p,
               "sed -i 's/^AuthMode=.*/AuthMode=WPA2PSK;SAE;OPEN;OPEN/g' " + p}));
    std::string expect = withLine(realisticProfile(), "HideSSID=0;0;0;0\n", "HideSSID=0;0;0;1\n");
    EXPECT_EQ(profile(), withLine(expect, "AuthMode=WPA2PSK;WPA2PSK;OPEN;OPEN\n",
                                  "AuthMode=WPA2PSK;SAE;OPEN;OPEN\n"));
}

TEST_F(ProfileStore, VapListIsNormalisedToTheVapCount) {
    fake().writeFile(MTK_DAT_PATH, "A=x;;y\nB=1;2;3;4;5;6\nC=\r\n");
    EXPECT_EQ(_mtk_wlan_setVapCfg("A", nullptr, "rai3", "N", MTK_DATA_STRING, MTK_APPLY_DAT), 0);
    EXPECT_EQ(_mtk_wlan_setVapCfg("B", nullptr, "rai0", "9", MTK_DATA_STRING, MTK_APPLY_DAT), 0);
    uint16_t v = 7;
    EXPECT_EQ(_mtk_wlan_setVapCfg("C", nullptr, "rai2", &v, MTK_DATA_UINT16, MTK_APPLY_DAT), 0);
    EXPECT_EQ(profile(), "A=x;y;x;N\nB=9;2;3;4\nC=;;7;\n");
    // The VAP count is an 8-bit number: 257 + 1 counts as 2.
    fake().device().maxVapNum = 257;
    EXPECT_EQ(_mtk_wlan_setVapCfg("B", nullptr, "ra1", "8", MTK_DATA_STRING, MTK_APPLY_DAT), 0);
    EXPECT_EQ(profile(), "A=x;y;x;N\nB=9;8\nC=;;7;\n");
    EXPECT_TRUE(errors().empty());
}

TEST_F(ProfileStore, VapListRefusals) {
    fake().writeFile(MTK_DAT_PATH, "A=a;b;c;d\nL=a;0123456789abcdef;c;d\n");
    const std::string before = fake().readFile(MTK_DAT_PATH);
    EXPECT_EQ(
        _mtk_wlan_setVapCfg("A", "A", "rai1", "0123456789abcdef", MTK_DATA_STRING, MTK_APPLY_BOTH),
        1);
    EXPECT_EQ(_mtk_wlan_setVapCfg("L", nullptr, "rai0", "x", MTK_DATA_STRING, MTK_APPLY_DAT), 1);
    EXPECT_EQ(_mtk_wlan_setVapCfg("Z", nullptr, "rai0", "x", MTK_DATA_STRING, MTK_APPLY_DAT), 1);
    EXPECT_EQ(_mtk_wlan_setVapCfg("A", "A", "rai4", "x", MTK_DATA_STRING, MTK_APPLY_BOTH), 1);
    fake().device().maxVapNum = 9;
    EXPECT_EQ(_mtk_wlan_setVapCfg("A", "A", "rai0", "x", MTK_DATA_STRING, MTK_APPLY_BOTH), 1);
    EXPECT_EQ(errors(),
              (Lines{"0123456789abcdef exceed buffer size",
                     "vapValue[1]: 0123456789abcdef exceed buffer size", "Cannot find key Z.",
                     cantFind("Z"), "vap index 4 out of range", "vap num 10 out of range"}));
    // Only the live command of the first call ran; out-of-range calls run nothing.
    EXPECT_EQ(fake().shellLines(), Lines{"iwpriv rai1 set A=0123456789abcdef"});
    EXPECT_EQ(profile(), before);
}
