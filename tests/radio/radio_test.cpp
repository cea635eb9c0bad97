// Mesh radio operations: command lines, profile rewrites with the real sed, and the
// RTPRIV_IOCTL_MESH requests as the driver receives them.
#include "wlan/mesh_wlan_radio.h"

#include "wlan/mesh_wlan_dat.h"

#include "radio_fixture.h"

#include "platform/wireless.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

using Lines = std::vector<std::string>;

const char* const kProfile = "Default\n"
                             "HT_BW=0\n"
                             "VHT_BW=0\n"
                             "HT_BSSCoexistence=1\n"
                             "HT_EXTCHA=1\n"
                             "AutoChannelSelect=3\n"
                             "Channel=0\n"
                             "AuthMode=OPEN;OPEN;OPEN;OPEN\n"
                             "EncrypType=NONE;NONE;NONE;NONE\n"
                             "RekeyMethod=TIME;TIME;TIME;TIME\n"
                             "HideSSID=0;0;0;0\n"
                             "SSID=\n"
                             "SSID1=home\n"
                             "SSID4=old\n"
                             "WPAPSK=\n"
                             "WPAPSK1=homepass\n"
                             "WPAPSK4=oldpass\n";

// Every character the escaping covers except the backslash, which the double-quoted sed
// script cannot carry (the system's passphrases are hexadecimal).
const char* const kPassphrase = "p/.*[]^$ {}+?|()&;'\"<>=`Z";
const char* const kEscaped =
    "p\\/\\.\\*\\[\\]\\^\\$\\ \\{\\}\\+\\?\\|\\(\\)\\&\\;\\'\\\"\\<\\>\\=\\`Z";

// The words the shell makes of `line`: the program and its arguments, one a line.
std::string shellArgs(const std::string& line) {
    std::string cmd = "set -- " + line + "; for a in \"$@\"; do printf '%s\\n' \"$a\"; done";
    FILE* p = popen(cmd.c_str(), "r");
    std::string out;
    char buf[256];
    size_t n;
    while (p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0) {
        out.append(buf, n);
    }
    if (p != nullptr) {
        pclose(p);
    }
    return out;
}

TEST_F(RadioTest, CreateBkhApRewritesProfileWithRealSedAndKeepsThePassphraseExact) {
    ASSERT_EQ(std::string(kPassphrase).size(), 25u);
    fake.writeFile(MTK_DAT_PATH, kProfile);
    fake.runForReal("sed ");
    std::string iwprivPskArgs;
    fake.onShell("iwpriv rai3 set WPAPSK=", [&](const std::string& line) {
        iwprivPskArgs = shellArgs(line);
        return 0;
    });

    MESH_WLAN_CREDENTIALS cred;
    memset(&cred, 0, sizeof cred);
    strcpy(cred.ssid, "mesh_001122334455");
    strcpy(cred.passphrase, kPassphrase);
    MESH_BASIC_WLAN_CFG basic{0, 5, 5180, 14, 0};
    uint32_t adv = 0;
    ASSERT_EQ(0u, mesh_wlan_createBkhAp(&cred, 0, &basic, &adv, 7));

    EXPECT_EQ("Default\n"
              "HT_BW=1\n"
              "VHT_BW=1\n"
              "HT_BSSCoexistence=0\n"
              "HT_EXTCHA=0\n"
              "AutoChannelSelect=0\n"
              "Channel=36\n"
              "AuthMode=OPEN;OPEN;OPEN;WPA2PSK\n"
              "EncrypType=NONE;NONE;NONE;AES\n"
              "RekeyMethod=TIME;TIME;TIME;DISABLE\n"
              "HideSSID=0;0;0;1\n"
              "SSID=\n"
              "SSID1=home\n"
              "SSID4=mesh_001122334455\n"
              "WPAPSK=\n"
              "WPAPSK1=homepass\n"
              "WPAPSK4=" +
                  std::string(kPassphrase) + "\n",
              fake.readFile(MTK_DAT_PATH));
    // iwpriv receives the same escaped text; the shell takes the backslashes away.
    EXPECT_EQ("iwpriv\nrai3\nset\nWPAPSK=" + std::string(kPassphrase) + "\n", iwprivPskArgs);

    const std::string dat = fake.rooted(MTK_DAT_PATH);
    const std::string esc = kEscaped;
    EXPECT_EQ((Lines{
                  "ifconfig rai3 up",
                  "iwpriv rai3 set HtBw=1",
                  "sed -i 's/^HT_BW=.*$/HT_BW=1/' " + dat,
                  "iwpriv rai3 set VhtBw=1",
                  "sed -i 's/^VHT_BW=.*$/VHT_BW=1/' " + dat,
                  "iwpriv rai3 set HtBssCoex=0",
                  "sed -i 's/^HT_BSSCoexistence=.*$/HT_BSSCoexistence=0/' " + dat,
                  "iwpriv rai3 set HtExtcha=0",
                  "sed -i 's/^HT_EXTCHA=.*$/HT_EXTCHA=0/' " + dat,
                  "iwpriv rai3 set AutoChannelSel=0",
                  "sed -i 's/^AutoChannelSelect=.*$/AutoChannelSelect=0/' " + dat,
                  "iwpriv rai3 set Channel=36",
                  "sed -i 's/^Channel=.*$/Channel=36/' " + dat,
                  "iwpriv rai3 set ms_blocknochild=1",
                  "iwpriv rai3 set AuthMode=WPA2PSK",
                  "sed -i 's/^AuthMode=.*/AuthMode=OPEN;OPEN;OPEN;WPA2PSK/g' " + dat,
                  "iwpriv rai3 set EncrypType=AES",
                  "sed -i 's/^EncrypType=.*/EncrypType=NONE;NONE;NONE;AES/g' " + dat,
                  "iwpriv rai3 set RekeyMethod=DISABLE",
                  "sed -i 's/^RekeyMethod=.*/RekeyMethod=TIME;TIME;TIME;DISABLE/g' " + dat,
                  "iwpriv rai3 set WPAPSK=" + esc,
                  "sed -i \"s/^WPAPSK4=.*$/WPAPSK4=" + esc + "/\" " + dat,
                  "iwpriv rai3 set SSID=mesh_001122334455",
                  "sed -i \"s/^SSID4=.*$/SSID4=mesh_001122334455/\" " + dat,
                  "iwpriv rai3 set HideSSID=1",
                  "sed -i 's/^HideSSID=.*/HideSSID=0;0;0;1/g' " + dat,
                  "brctl addif br0 rai3",
              }),
              fake.shellLines());
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(RadioTest, CreateBkhApGoesOnAfterFailedStepsAndNeedsItsRecords) {
    // No profile at all: every rewrite fails and is reported, the sequence still runs through.
    MESH_WLAN_CREDENTIALS cred;
    memset(&cred, 'k', sizeof cred); // neither text terminated: each is read within its field
    MESH_BASIC_WLAN_CFG basic{0, 2, 0, 14, 0};
    ASSERT_EQ(0u, mesh_wlan_createBkhAp(&cred, 1, &basic, nullptr, 0));
    Lines shell = fake.shellLines();
    ASSERT_FALSE(shell.empty());
    EXPECT_EQ("ifconfig rai3 up", shell.front());
    EXPECT_EQ("brctl addif br0 rai3", shell.back());
    std::string ssid(32, 'k');
    std::string psk(33, 'k');
    EXPECT_NE(shell.end(), std::find(shell.begin(), shell.end(), "iwpriv rai3 set SSID=" + ssid));
    EXPECT_NE(shell.end(), std::find(shell.begin(), shell.end(), "iwpriv rai3 set WPAPSK=" + psk));
    EXPECT_NE(std::string::npos, fake.takeStdout().find("Can't find HideSSID in dat"));

    fake.clearRecords();
    EXPECT_EQ(1u, mesh_wlan_createBkhAp(nullptr, 0, &basic, nullptr, 0));
    EXPECT_TRUE(errorLine(fake.takeStdout(), "mesh_wlan_createBkhAp", "pConfig is null\n"));
    EXPECT_EQ(1u, mesh_wlan_createBkhAp(&cred, 0, nullptr, nullptr, 0));
    EXPECT_TRUE(errorLine(fake.takeStdout(), "mesh_wlan_createBkhAp", "pConfig is null\n"));
    EXPECT_TRUE(fake.shellLines().empty());
}

TEST_F(RadioTest, DriverFlagSettersWriteOneLineEach) {
    struct Case {
        uint32_t (*set)(uint32_t);
        uint32_t arg;
        const char* line;
    };
    const Case cases[] = {
        {mesh_wlan_setCheckChild, 5, "iwpriv rai3 set ms_checkchild=1"},
        {mesh_wlan_setCheckChild, 0, "iwpriv rai3 set ms_checkchild=0"},
        {mesh_wlan_setVlanId, 70000, "iwpriv rai3 set ms_vlanid=4464"},
        {mesh_wlan_setVlanId, 65535, "iwpriv rai3 set ms_vlanid=65535"},
        {mesh_wlan_setCheckParent, 0x100, "iwpriv apclii0 set ms_checkparent=1"},
        {mesh_wlan_setCheckParent, 0, "iwpriv apclii0 set ms_checkparent=0"},
        {mesh_wlan_setBlockNoChild, 1, "iwpriv rai3 set ms_blocknochild=1"},
        {mesh_wlan_setBlockNoChild, 0, "iwpriv rai3 set ms_blocknochild=0"},
    };
    for (const Case& c : cases) {
        fake.clearRecords();
        EXPECT_EQ(0u, c.set(c.arg));
        EXPECT_EQ(Lines{c.line}, fake.shellLines());
    }
    fake.clearRecords();
    EXPECT_EQ(0u, mesh_wlan_setFullSector(-3));
    EXPECT_EQ(0u, mesh_wlan_setFullSector(INT32_MAX));
    EXPECT_EQ(
        (Lines{"iwpriv rai3 set ms_fullsector=-3", "iwpriv rai3 set ms_fullsector=2147483647"}),
        fake.shellLines());

    // A failing command is not noticed.
    int h = fake.failNth(FakeOs::Op::Shell, "ms_vlanid", 1, 256);
    EXPECT_EQ(0u, mesh_wlan_setVlanId(1));
    EXPECT_TRUE(fake.fired(h));
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(RadioTest, SwitchingInterfacesOnAndOff) {
    EXPECT_EQ(0u, mesh_wlan_enableBkhAp(1));
    EXPECT_EQ(
        (Lines{"ifconfig rai3 up", "brctl addif br0 rai3 > /dev/null", "iwpriv rai3 set ApMWDS=1"}),
        fake.shellLines());
    fake.clearRecords();
    EXPECT_EQ(0u, mesh_wlan_enableBkhAp(0));
    EXPECT_EQ((Lines{"brctl delif br0 rai3 > /dev/null", "ifconfig rai3 down"}), fake.shellLines());

    fake.clearRecords();
    EXPECT_EQ(0u, mesh_wlan_enableSta(7));
    EXPECT_EQ(0u, mesh_wlan_enableSta(0));
    EXPECT_EQ((Lines{"ifconfig apclii0 up", "brctl addif br0 apclii0 > /dev/null",
                     "brctl delif br0 apclii0 > /dev/null", "ifconfig apclii0 down"}),
              fake.shellLines());

    // Without an interface name nothing is run.
    fake.clearRecords();
    EXPECT_EQ(1u, _mtk_wlan_attachIface(nullptr, 1));
    EXPECT_EQ(1u, _mtk_wlan_attachIface("", 0));
    mesh_wlan_resetForTest(); // the adapter before mesh_api_init: no backhaul name
    EXPECT_EQ(1u, mesh_wlan_enableBkhAp(1));
    fake.device().staIfName[0] = '\0';
    EXPECT_EQ(1u, mesh_wlan_enableSta(1));
    EXPECT_TRUE(fake.shellLines().empty());
}

TEST_F(RadioTest, CreateStaOnlyWhenTheStationExists) {
    EXPECT_EQ(0u, mesh_wlan_createSta(nullptr, nullptr));
    EXPECT_EQ((Lines{"ifconfig apclii0 up", "brctl addif br0 apclii0"}), fake.shellLines());
    ASSERT_EQ(1u, fake.ioctls(SIOCGIFFLAGS).size());
    EXPECT_EQ("apclii0", fake.ioctls(SIOCGIFFLAGS)[0].ifName);

    fake.clearRecords();
    fake.onIoctl(SIOCGIFFLAGS, [](FakeOs::Ioctl&) { return ENODEV; });
    EXPECT_EQ(1u, mesh_wlan_createSta(nullptr, nullptr));
    EXPECT_TRUE(errorLine(fake.takeStdout(), "mesh_wlan_createSta",
                          "sta interface apclii0 does not exist\n"));
    EXPECT_TRUE(fake.shellLines().empty());
}

TEST_F(RadioTest, LabelGoesToTheBackhaulApAsSixteenBytes) {
    const uint8_t label[16] = {0x5a, 0x13, 0xc7, 0x02, 0x9e, 0x41, 0xb8, 0x6d,
                               0x33, 0xf0, 0x27, 0x8a, 0xd4, 0x69, 0x0b, 0xe5};
    EXPECT_EQ(0u, mesh_wlan_setLabel(label));
    auto reqs = fake.ioctls();
    ASSERT_EQ(1u, reqs.size());
    EXPECT_EQ(0x8BF5u, reqs[0].request);
    EXPECT_EQ("rai3", reqs[0].ifName);
    EXPECT_EQ(3, reqs[0].flags);
    EXPECT_EQ(16, reqs[0].length);
    EXPECT_EQ(hexBytes("5a 13 c7 02 9e 41 b8 6d 33 f0 27 8a d4 69 0b e5"), reqs[0].payload);

    fake.clearRecords();
    int h = fake.failNth(FakeOs::Op::Ioctl, "0x8BF5 rai3", 1, ENODEV);
    EXPECT_EQ(1u, mesh_wlan_setLabel(label));
    EXPECT_TRUE(fake.fired(h));
    EXPECT_TRUE(errorLine(fake.takeStdout(), "mesh_wlan_setLabel",
                          std::string("call RTPRIV_IOCTL_MESH fail(") + strerror(ENODEV) + ")"));
    fake.clearRecords();
    EXPECT_EQ(1u, mesh_wlan_setLabel(nullptr));
    EXPECT_TRUE(fake.ioctls().empty());
}

TEST_F(RadioTest, AddChildHandsTheWholeRecordToTheDriver) {
    MESH_CHILD_RECORD rec;
    for (size_t i = 0; i < sizeof rec; ++i) {
        reinterpret_cast<uint8_t*>(&rec)[i] = static_cast<uint8_t>(i * 3 + 1);
    }
    Bytes want(280);
    for (size_t i = 0; i < want.size(); ++i) {
        want[i] = static_cast<uint8_t>(i * 3 + 1);
    }
    EXPECT_EQ(0u, mesh_wlan_addChild(&rec));
    auto reqs = fake.ioctls();
    ASSERT_EQ(1u, reqs.size());
    EXPECT_EQ(0x8BF5u, reqs[0].request);
    EXPECT_EQ("rai3", reqs[0].ifName);
    EXPECT_EQ(1, reqs[0].flags);
    EXPECT_EQ(280, reqs[0].length);
    EXPECT_EQ(want, reqs[0].payload);

    fake.clearRecords();
    fake.onIoctl(0x8BF5, [](FakeOs::Ioctl&) { return EINVAL; });
    EXPECT_EQ(1u, mesh_wlan_addChild(&rec));
    EXPECT_TRUE(errorLine(fake.takeStdout(), "mesh_wlan_addChild", "call RTPRIV_IOCTL_MESH fail"));
    fake.clearRecords();
    EXPECT_EQ(1u, mesh_wlan_addChild(nullptr));
    EXPECT_TRUE(fake.ioctls().empty());
}

TEST_F(RadioTest, DelChildRemovesFromDriverThenDisconnectsTheStation) {
    const uint8_t child[6] = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
    const Bytes removal = hexBytes("02 aa bb cc dd ee");

    const uint8_t none[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(0u, mesh_wlan_delChild(child, none));
    auto reqs = fake.ioctls();
    ASSERT_EQ(1u, reqs.size());
    EXPECT_EQ(0x8BF5u, reqs[0].request);
    EXPECT_EQ("rai3", reqs[0].ifName);
    EXPECT_EQ(2, reqs[0].flags);
    EXPECT_EQ(280, reqs[0].length);
    Bytes wantPayload = removal;
    wantPayload.resize(280, 0);
    EXPECT_EQ(wantPayload, reqs[0].payload);
    EXPECT_TRUE(fake.shellLines().empty()); // no station to disconnect

    fake.clearRecords();
    const uint8_t sta[6] = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0xff};
    EXPECT_EQ(0u, mesh_wlan_delChild(child, sta));
    EXPECT_EQ(1u, fake.ioctls().size());
    EXPECT_EQ(Lines{"iwpriv rai3 set DisConnectSta=0a:1b:2c:3d:4e:ff"}, fake.shellLines());

    // A child never heard: the all-zero address is disconnected like any other.
    fake.clearRecords();
    const uint8_t zero[6] = {};
    EXPECT_EQ(0u, mesh_wlan_delChild(child, zero));
    EXPECT_EQ(Lines{"iwpriv rai3 set DisConnectSta=00:00:00:00:00:00"}, fake.shellLines());

    // Refused by the driver: reported, and the station stays connected.
    fake.clearRecords();
    int h = fake.failNth(FakeOs::Op::Ioctl, "0x8BF5", 1, EIO);
    EXPECT_EQ(1u, mesh_wlan_delChild(child, sta));
    EXPECT_TRUE(fake.fired(h));
    EXPECT_TRUE(errorLine(fake.takeStdout(), "mesh_wlan_delChild", "call RTPRIV_IOCTL_MESH fail"));
    EXPECT_TRUE(fake.shellLines().empty());

    // No child MAC: nothing at all; no station MAC: removed, but the disconnect fails.
    fake.clearRecords();
    EXPECT_EQ(1u, mesh_wlan_delChild(nullptr, sta));
    EXPECT_TRUE(fake.ioctls().empty());
    EXPECT_EQ(1u, mesh_wlan_delChild(child, nullptr));
    EXPECT_EQ(1u, fake.ioctls().size());
    EXPECT_TRUE(fake.shellLines().empty());
    EXPECT_EQ(1u, mesh_wlan_kickSta(nullptr));
    EXPECT_EQ("", fake.takeStdout());
}

} // namespace
