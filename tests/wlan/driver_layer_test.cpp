// The driver command layer: interface checks, the shared socket, radio settings.
#include "wlan_fixture.h"

#include "platform/wireless.h"

#include <cstring>
#include <thread>

using Lines = std::vector<std::string>;
using DriverLayer = WlanTest;

TEST_F(DriverLayer, StartUpNamesTheInterfaces) {
    EXPECT_STREQ(g_bkhApIfName, "rai3");
    char sta[16];
    memset(sta, 'z', sizeof sta);
    EXPECT_EQ(mesh_wlan_getStaIfname(sta), 0u);
    EXPECT_STREQ(sta, "apclii0");
    EXPECT_EQ(mesh_wlan_getStaIfname(nullptr), 1u);
    EXPECT_EQ(mesh_wlan_getNetlinkProto(), 38);
}

TEST_F(DriverLayer, BackhaulApRunsWhenItsEssidIsAMeshOne) {
    std::string essid;
    fake().onIoctl(SIOCGIWESSID, [&](FakeOs::Ioctl& r) {
        memcpy(r.data, essid.data(), essid.size());
        return 0;
    });
    for (auto [text, running] : {std::pair<std::string, uint32_t>{"mesh_0a1b2c3d4e5f", 1},
                                 {"mesh_", 1},
                                 {"mesh", 0},
                                 {"Mesh_x", 0},
                                 {"", 0}}) {
        essid = text;
        EXPECT_EQ(mesh_wlan_checkBkhApExist(), running) << text;
    }
    auto reqs = fake().ioctls(SIOCGIWESSID);
    ASSERT_EQ(reqs.size(), 5u);
    EXPECT_EQ(reqs[0].ifName, "rai3");
    EXPECT_EQ(reqs[0].flags, 0);
    EXPECT_EQ(reqs[0].payload, Bytes(32, 0)); // a cleared 32-byte buffer
    int h = fake().failNth(FakeOs::Op::Ioctl, "0x8B1B rai3", 1, ENODEV);
    EXPECT_EQ(mesh_wlan_checkBkhApExist(), 0u);
    EXPECT_TRUE(fake().fired(h));
    EXPECT_EQ(errors(), Lines{"ioclt SIOCGIWNAME failed"});
}

TEST_F(DriverLayer, StationExistsWhenItsFlagsCanBeRead) {
    EXPECT_EQ(mesh_wlan_checkStaExist(), 1u);
    fake().failNth(FakeOs::Op::Ioctl, "0x8913 apclii0", 1, ENODEV);
    EXPECT_EQ(mesh_wlan_checkStaExist(), 0u);
    auto reqs = fake().ioctls(SIOCGIFFLAGS);
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[1].ifName, "apclii0");
    EXPECT_TRUE(errors().empty());
}

TEST_F(DriverLayer, SocketIsCreatedOnceAndRetriedAfterAFailure) {
    int h = fake().failNth(FakeOs::Op::WlanSocket, "", 1, EMFILE);
    EXPECT_EQ(_getsocket(), -1);
    EXPECT_TRUE(fake().fired(h));
    EXPECT_EQ(errors(), Lines{"create socket failed"});
    std::vector<int> fds(8, -1);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < fds.size(); ++i) {
        threads.emplace_back([&fds, i] { fds[i] = _getsocket(); });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_GE(fds[0], 0);
    EXPECT_EQ(fds, std::vector<int>(8, fds[0]));
    int created = 0;
    for (const auto& line : fake().transcript()) {
        created += line == "wlan-socket";
    }
    EXPECT_EQ(created, 2); // the failed attempt and exactly one success
}

TEST_F(DriverLayer, WidthClassOfWirelessModes) {
    const int modes[] = {1, 23, 9, 29, 19, 32, 20, 31, 4, 6, 0, 33};
    const int widths[] = {0, 0, 1, 1, 2, 2, 3, 3, -1, -1, -1, -1};
    for (size_t i = 0; i < std::size(modes); ++i) {
        EXPECT_EQ(mesh_wlan_getChwidth(modes[i]), widths[i]) << modes[i];
    }
    EXPECT_EQ(errors(), (Lines{"invalid mode:4\n", "invalid mode:6\n", "invalid mode:0\n",
                               "invalid mode:33\n"}));
}

namespace {
// The live and profile lines of one driver setting of the bandwidth/channel group.
Lines setting(const std::string& path, const std::string& dat, const std::string& iw, uint32_t v) {
    std::string s = std::to_string(v);
    return {"iwpriv rai3 set " + iw + "=" + s,
            "sed -i 's/^" + dat + "=.*$/" + dat + "=" + s + "/' " + path};
}
Lines join(std::initializer_list<Lines> parts) {
    Lines out;
    for (const auto& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}
} // namespace

TEST_F(DriverLayer, FrequencyGivesTheChannel) {
    const std::string p = datPath();
    for (auto [freq, ch] : {std::pair<uint32_t, uint32_t>{2412, 1},
                            {2484, 14},
                            {5180, 36},
                            {5745, 149},
                            {4920, 184}}) {
        fake().clearRecords();
        MESH_BASIC_WLAN_CFG cfg{0, 4, freq, 14, 0};
        EXPECT_EQ(_mtk_wlan_setBandwidthChannel("rai3", &cfg), 0u);
        EXPECT_EQ(fake().shellLines(),
                  join({setting(p, "HT_BW", "HtBw", 1), setting(p, "VHT_BW", "VhtBw", 0),
                        setting(p, "HT_BSSCoexistence", "HtBssCoex", 1),
                        setting(p, "HT_EXTCHA", "HtExtcha", 0),
                        setting(p, "AutoChannelSelect", "AutoChannelSel", 0),
                        setting(p, "Channel", "Channel", ch)}))
            << freq;
        EXPECT_NE(profile().find("\nChannel=" + std::to_string(ch) + "\n"), std::string::npos);
    }
    EXPECT_TRUE(errors().empty());
    fake().clearRecords();
    MESH_BASIC_WLAN_CFG autoCfg{0, 2, 0, 14, 0};
    _mtk_wlan_setBandwidthChannel("rai3", &autoCfg);
    EXPECT_EQ(fake().shellLines(),
              join({setting(p, "HT_BW", "HtBw", 0), setting(p, "VHT_BW", "VhtBw", 0),
                    setting(p, "HT_BSSCoexistence", "HtBssCoex", 0),
                    setting(p, "AutoChannelSelect", "AutoChannelSel", 3)}));
    EXPECT_EQ(_mtk_wlan_freqToChannel(0), 0u);
}

TEST_F(DriverLayer, BandwidthCodes) {
    // HtBw, VhtBw, HtBssCoex for the codes 2 to 7.
    const char* expect[] = {"000", "100", "101", "110", "111", "000"};
    for (uint32_t code = 2; code <= 7; ++code) {
        fake().clearRecords();
        MESH_BASIC_WLAN_CFG cfg{0, code, 0, 14, 0};
        _mtk_wlan_setBandwidthChannel("rai3", &cfg);
        Lines l = fake().shellLines();
        ASSERT_EQ(l.size(), 8u);
        std::string got = {l[0].back(), l[2].back(), l[4].back()};
        EXPECT_EQ(got, expect[code - 2]) << code;
    }
}

TEST_F(DriverLayer, BasicSettingsApplyOnlyWhatChanged) {
    const MESH_BASIC_WLAN_CFG base{9, 4, 5180, 14, 9};
    MESH_BASIC_WLAN_CFG other = base;
    other.wlanMode = 15;
    other.reserved0 = 1;
    EXPECT_EQ(mesh_wlan_updateBasicWlanCfg(&base, &base, 1, 0), 0u);
    EXPECT_EQ(mesh_wlan_updateBasicWlanCfg(&other, &base, 0, 0), 0u); // mode: nothing to run
    EXPECT_EQ(mesh_wlan_setRuntimeWlanMode(16), 0u);
    EXPECT_TRUE(fake().shellLines().empty());
    other = base;
    other.frequency = 5745;
    EXPECT_EQ(mesh_wlan_updateBasicWlanCfg(&other, &base, 0, 0), 0u);
    EXPECT_EQ(fake().shellLines().size(), 12u);
    EXPECT_EQ(fake().shellLines()[11].rfind("sed -i 's/^Channel=.*$/Channel=149/' ", 0), 0u);
    fake().clearRecords();
    EXPECT_EQ(mesh_wlan_updateBasicWlanCfg(&base, &base, 0, 1), 0u); // forced
    EXPECT_EQ(fake().shellLines().size(), 12u);
    EXPECT_EQ(mesh_wlan_updateBasicWlanCfg(nullptr, &base, 0, 1), 1u);
    EXPECT_EQ(mesh_wlan_updateBasicWlanCfg(&base, nullptr, 0, 1), 1u);
    EXPECT_EQ(_mtk_wlan_applyChanLimit("rai3", nullptr, 0), 1u);
    EXPECT_EQ(_mtk_wlan_applyChanLimit("rai3", &base, 0), 0u);
}
