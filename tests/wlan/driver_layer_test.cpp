// The driver command layer: interface checks, the shared socket, radio settings.
#include "wlan_fixture.h"

#include "platform/wireless.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace {

using DriverLayer = WlanTest;

TEST_F(DriverLayer, BackhaulApRunsWithAMeshEssid) {
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
        EXPECT_EQ(running, mesh_wlan_checkBkhApExist()) << text;
    }
    expectRequest(fake().ioctls().at(0), SIOCGIWESSID, "rai3", 0, "00*32"); // cleared
    fake().failNth("ioctl 0x8B1B rai3", 1, ENODEV);
    EXPECT_EQ(0u, mesh_wlan_checkBkhApExist());
    EXPECT_EQ(Lines{"ioclt SIOCGIWNAME failed"}, errors());
}

TEST_F(DriverLayer, SocketIsCreatedOnceAndRetriedAfterAFailure) {
    fake().failNth("wlan-socket", 1, EMFILE);
    EXPECT_EQ(-1, _getsocket());
    EXPECT_EQ(Lines{"create socket failed"}, errors());
    std::vector<int> fds(8, -1);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < fds.size(); ++i) {
        threads.emplace_back([&fds, i] { fds[i] = _getsocket(); });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_GE(fds[0], 0);
    EXPECT_EQ(std::vector<int>(8, fds[0]), fds);
    auto t = fake().transcript();
    EXPECT_EQ(2, std::count(t.begin(), t.end(), "wlan-socket")) << "the failure and one success";
}

TEST_F(DriverLayer, BandwidthCodeAndFrequencyGiveTheDriverSettings) {
    const struct {
        uint32_t bandwidth, frequency;
        const char* widths; // HT_BW, VHT_BW, HT_BSSCoexistence
        int channel;        // -1: automatic channel selection
    } cases[] = {{3, 2412, "100", 1},   {4, 2484, "101", 14},  {5, 5180, "110", 36},
                 {6, 5745, "111", 149}, {7, 4920, "000", 184}, {2, 0, "000", -1}};
    for (const auto& c : cases) {
        Lines expect;
        auto add = [&](const std::string& dat, const std::string& iw, int v) {
            expect.push_back("iwpriv rai3 set " + iw + "=" + std::to_string(v));
            expect.push_back("sed -i 's/^" + dat + "=.*$/" + dat + "=" + std::to_string(v) + "/' " +
                             datPath());
        };
        add("HT_BW", "HtBw", c.widths[0] - '0');
        add("VHT_BW", "VhtBw", c.widths[1] - '0');
        add("HT_BSSCoexistence", "HtBssCoex", c.widths[2] - '0');
        if (c.channel < 0) {
            add("AutoChannelSelect", "AutoChannelSel", 3);
        } else {
            add("HT_EXTCHA", "HtExtcha", 0);
            add("AutoChannelSelect", "AutoChannelSel", 0);
            add("Channel", "Channel", c.channel);
        }
        fake().clearRecords();
        MESH_BASIC_WLAN_CFG cfg{0, c.bandwidth, c.frequency, 14, 0};
        EXPECT_EQ(0u, _mtk_wlan_setBandwidthChannel("rai3", &cfg));
        EXPECT_EQ(expect, fake().shellLines()) << c.bandwidth << " " << c.frequency;
        // Real sed rewrote the line; the automatic selection left the last channel alone.
        const int ch = c.channel < 0 ? 184 : c.channel;
        EXPECT_NE(std::string::npos, profile().find("\nChannel=" + std::to_string(ch) + "\n"));
    }
    EXPECT_TRUE(errors().empty());
}

} // namespace
