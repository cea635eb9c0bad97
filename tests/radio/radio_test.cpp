// Mesh radio operations: command lines, profile rewrites with the real sed, and the
// RTPRIV_IOCTL_MESH requests as the driver receives them.
#include "../wlan/wlan_fixture.h"

#include "wlan/mesh_wlan_radio.h"

#include "platform/wireless.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using RadioTest = WlanTest;

// Every character the escaping covers except the backslash, which the double-quoted sed
// script cannot carry (the system's passphrases are hexadecimal).
const std::string kPassphrase = "p/.*[]^$ {}+?|()&;'\"<>=`Z";
const std::string kEscaped = R"(p\/\.\*\[\]\^\$\ \{\}\+\?\|\(\)\&\;\'\"\<\>\=\`Z)";

Lines without(Lines lines, const std::string& prefix) {
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }),
                lines.end());
    return lines;
}

TEST_F(RadioTest, CreateBkhApRewritesTheProfileWithRealSedAndKeepsThePassphraseExact) {
    const std::string profile0 =
        edited(realisticProfile(), {{"AuthMode=WPA2PSK;", "AuthMode=OPEN;"},
                                    {"RekeyMethod=TIME;TIME;DISABLE;DISABLE", "RekeyMethod=TIME"}});
    fake().writeFile(MTK_DAT_PATH, profile0);
    // What iwpriv receives: the shell takes the backslashes away again.
    const std::string wordFile = fake().rooted("/word");
    fake().onShell("iwpriv rai3 set WPAPSK=", [&](const std::string& line) {
        return std::system(("printf %s " + line.substr(16) + " >" + wordFile).c_str());
    });
    MESH_WLAN_CREDENTIALS cred{};
    strcpy(cred.ssid, "mesh_001122334455");
    memcpy(cred.passphrase, kPassphrase.c_str(), kPassphrase.size());
    MESH_BASIC_WLAN_CFG basic{0, 2, 5745, 14, 0};
    uint32_t adv = 0;
    ASSERT_EQ(0u, mesh_wlan_createBkhAp(&cred, 0, &basic, &adv, 7));

    EXPECT_EQ("WPAPSK=" + kPassphrase, fake().readFile("/word"));
    EXPECT_EQ((Lines{"ifconfig rai3 up", "iwpriv rai3 set HtBw=0", "iwpriv rai3 set VhtBw=0",
                     "iwpriv rai3 set HtBssCoex=0", "iwpriv rai3 set HtExtcha=0",
                     "iwpriv rai3 set AutoChannelSel=0", "iwpriv rai3 set Channel=149",
                     "iwpriv rai3 set ms_blocknochild=1", "iwpriv rai3 set AuthMode=WPA2PSK",
                     "iwpriv rai3 set EncrypType=AES", "iwpriv rai3 set RekeyMethod=DISABLE",
                     "iwpriv rai3 set WPAPSK=" + kEscaped, "iwpriv rai3 set SSID=mesh_001122334455",
                     "iwpriv rai3 set HideSSID=1", "brctl addif br0 rai3"}),
              without(fake().shellLines(), "sed "));
    const std::string expect = edited(
        profile0, {{"\nHT_BW=1\n", "\nHT_BW=0\n"},
                   {"VHT_BW=1\n", "VHT_BW=0\n"},
                   {"HT_BSSCoexistence=0\r\n", "HT_BSSCoexistence=0\n"},
                   {"HT_EXTCHA=1\n", "HT_EXTCHA=0\n"},
                   {"AutoChannelSelect=3\n", "AutoChannelSelect=0\n"},
                   {"Channel=36\r\n", "Channel=149\n"},
                   {"AuthMode=OPEN;WPA2PSK;OPEN;OPEN\n", "AuthMode=OPEN;WPA2PSK;OPEN;WPA2PSK\n"},
                   {"EncrypType=AES;AES;NONE;NONE\r\n", "EncrypType=AES;AES;NONE;AES\n"},
                   {"RekeyMethod=TIME\n", "RekeyMethod=TIME;TIME;TIME;DISABLE\n"},
                   {"HideSSID=0;0;0;0\n", "HideSSID=0;0;0;1\n"},
                   {"SSID4=mesh_000000000000\n", "SSID4=mesh_001122334455\n"},
                   {"WPAPSK4=\n", "WPAPSK4=" + kPassphrase + "\n"}});
    EXPECT_EQ(expect, profile());
    EXPECT_TRUE(errors().empty());
}

TEST_F(RadioTest, CreateBkhApGoesOnAfterFailedStepsAndNeedsItsRecords) {
    // No profile at all: every rewrite fails and is reported, the sequence still runs through.
    ASSERT_EQ(0, std::remove(datPath().c_str()));
    MESH_WLAN_CREDENTIALS cred;
    memset(&cred, 'k', sizeof cred); // neither text terminated: each is read within its field
    MESH_BASIC_WLAN_CFG basic{0, 2, 0, 14, 0};
    ASSERT_EQ(0u, mesh_wlan_createBkhAp(&cred, 1, &basic, nullptr, 0));
    Lines shell = fake().shellLines();
    EXPECT_EQ("ifconfig rai3 up", shell.front());
    EXPECT_EQ("brctl addif br0 rai3", shell.back());
    for (std::string line : {"iwpriv rai3 set SSID=" + std::string(32, 'k'),
                             "iwpriv rai3 set WPAPSK=" + std::string(33, 'k')}) {
        EXPECT_EQ(1, std::count(shell.begin(), shell.end(), line)) << line;
    }
    EXPECT_NE(std::string::npos, fake().takeStdout().find("Can't find HideSSID in dat"));

    fake().clearRecords();
    EXPECT_EQ(1u, mesh_wlan_createBkhAp(nullptr, 0, &basic, nullptr, 0) &
                      mesh_wlan_createBkhAp(&cred, 0, nullptr, nullptr, 0));
    EXPECT_EQ(Lines(2, "pConfig is null\n"), errors());
    EXPECT_TRUE(fake().shellLines().empty());
}

TEST_F(RadioTest, NothingRunsWithoutAnInterfaceName) {
    // The adapter before mesh_api_init, no station name. (The driver flag setters and the
    // switches of the interfaces show in the whole transcripts of enabling and disabling, a
    // missing station interface with the parent handler's scan.)
    mesh_wlan_resetForTest();
    fake().device().staIfName[0] = '\0';
    EXPECT_EQ(1u, _mtk_wlan_attachIface(nullptr, 1) & _mtk_wlan_attachIface("", 0) &
                      mesh_wlan_enableBkhAp(1) & mesh_wlan_enableSta(1));
    EXPECT_TRUE(fake().shellLines().empty());
}

TEST_F(RadioTest, LabelAndChildrenGoToTheDriverAsWholeRecords) {
    const std::string label = "5a13c7029e41b86d33f0278ad4690be5";
    EXPECT_EQ(0u, mesh_wlan_setLabel(hexBytes(label).data()));
    MESH_CHILD_RECORD rec;
    auto* recBytes = reinterpret_cast<uint8_t*>(&rec);
    for (size_t i = 0; i < sizeof rec; ++i) {
        recBytes[i] = static_cast<uint8_t>(i * 3 + 1); // 01 04 07 ...
    }
    EXPECT_EQ(0u, mesh_wlan_addChild(&rec));
    const Bytes child = hexBytes("02aabbccddee"), sta = hexBytes("0a1b2c3d4eff");
    EXPECT_EQ(0u, mesh_wlan_delChild(child.data(), hexBytes("ffffffffffff").data())); // no station
    EXPECT_EQ(0u, mesh_wlan_delChild(child.data(), Bytes(6, 0).data())); // never heard: kicked too
    EXPECT_EQ(0u, mesh_wlan_delChild(child.data(), sta.data()));
    auto reqs = fake().ioctls();
    ASSERT_EQ(5u, reqs.size());
    expectRequest(reqs[0], 0x8BF5, "rai3", 3, label);
    expectRequest(reqs[1], 0x8BF5, "rai3", 1, toHex(recBytes, 280)); // unchanged
    for (size_t i = 2; i < 5; ++i) {
        expectRequest(reqs[i], 0x8BF5, "rai3", 2, "02aabbccddee 00*274");
    }
    EXPECT_EQ((Lines{"iwpriv rai3 set DisConnectSta=00:00:00:00:00:00",
                     "iwpriv rai3 set DisConnectSta=0a:1b:2c:3d:4e:ff"}),
              fake().shellLines());

    // Refused by the driver: reported; a refused removal leaves the station connected.
    fake().clearRecords();
    fake().onIoctl(0x8BF5, [](FakeOs::Ioctl&) { return ENODEV; });
    EXPECT_EQ(1u, mesh_wlan_setLabel(hexBytes(label).data()));
    EXPECT_EQ(1u, mesh_wlan_addChild(&rec));
    EXPECT_EQ(1u, mesh_wlan_delChild(child.data(), sta.data()));
    EXPECT_EQ((Lines{"call RTPRIV_IOCTL_MESH fail(No such device)", "call RTPRIV_IOCTL_MESH fail",
                     "call RTPRIV_IOCTL_MESH fail"}),
              errors());
    EXPECT_TRUE(fake().shellLines().empty());
}

} // namespace
