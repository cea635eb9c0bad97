// The one fixture of the state module's tests: the adapter's fixture (the fake board, the
// adapter started, the other modules fresh, the event log open) with the bridge br0 (index 7),
// the mesh station interface apclii0 (index 12) and hosts on the bridge that answer ARP
// requests for their address. The module's threads run for real on the fake clock: the tests
// move the clock and each thread runs the ticks that fall into that time.
#pragma once

#include "../wlan/wlan_fixture.h"

#include "platform/byteorder.h"
#include "state/mesh_link.h"
#include "state/mesh_netchk.h"
#include "state/mesh_state_internal.h"
#include "wlan/mesh_wlan.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>

constexpr uint32_t kDevice = 0xC0A8010A;  // 192.168.1.10/24
constexpr uint32_t kGateway = 0xC0A80101; // 192.168.1.1
constexpr uint32_t kTarget = 0xC0A80114;  // 192.168.1.20
const Bytes kOwnMac = hexBytes("020000000001");
const Bytes kGwMac = hexBytes("0a1b2c3d4e5f");
const Bytes kHostMac = hexBytes("00667788 99aa");
constexpr const char* kCount = MESH_CONFIG_COUNT_PATH;
constexpr const char* kLoop = MESH_LOOP_STATUS_PATH;
const std::string kCountWrite = std::string("proc-write ") + kCount;

inline std::string ipHex(uint32_t ip) {
    char s[9];
    snprintf(s, sizeof s, "%08x", ip);
    return s;
}
// An ARP frame spelled out field by field, from (MAC, address) to (MAC, address).
inline Bytes arp(const Bytes& from, uint32_t fromIp, const Bytes& to, uint32_t toIp, int op = 2) {
    const std::string f = toHex(from.data(), 6), t = toHex(to.data(), 6);
    return hexBytes(t + f + "0806 0001 0800 06 04 000" + std::to_string(op) + f + ipHex(fromIp) +
                    t + ipHex(toIp));
}

inline NETCHK_CONFIG config(uint32_t targetSet = 0, uint32_t target = 0) {
    return NETCHK_CONFIG{1, targetSet, target, kGateway, kDevice, 0xFFFFFF00, 0};
}

class StateTest : public WlanTest {
  protected:
    void SetUp() override {
        WlanTest::SetUp();
        mesh_state_resetModule();
        mesh_netChk_resetModule();
        fake().setIfIndex("br0", 7);
        fake().setIfIndex("apclii0", 12);
        hosts[kGateway] = kGwMac;
        fake().onPacketSend([this](const FakeOs::Packet& p) {
            const uint32_t asked = get_be32(&p.frame[38]);
            if (answering && hosts.count(asked) != 0) {
                fake().queuePacket(arp(hosts[asked], asked, kOwnMac, kDevice));
            }
        });
    }
    void TearDown() override {
        mesh_state_resetModule(); // stops the state thread
        stop();
        mesh_netChk_resetModule();
        mesh_state_resetModule();
        WlanTest::TearDown();
    }
    // Starts the network check with a kernel counter that stands at 100; returns when the
    // thread's first tick (a probe) is over or waits for an answer. Records start with it.
    void start(const NETCHK_CONFIG& cfg) {
        fake().setProc(kCount, "100");
        fake().clearRecords();
        ASSERT_EQ(0u, mesh_netChk_init(&cfg, kOwnMac.data(), "pon0"));
        ASSERT_TRUE(fake().settle(1));
    }
    // Stops the check; returns when its thread has woken from its sleep and ended.
    void stop() {
        EXPECT_EQ(0u, mesh_netChk_destroy());
        fake().advanceSeconds(1);
        EXPECT_TRUE(fake().settle(0));
    }
    void tick(int n = 1) { fake().advanceSeconds(static_cast<uint32_t>(n)); } // n seconds
    // The lines written to the kernel counter file, each checked for its one terminating NUL.
    Lines lines() {
        Lines out;
        for (const std::string& w : fake().transcriptOf(kCountWrite + " ")) {
            EXPECT_EQ(w.size() - 4, w.find("\\x")) << w;
            out.push_back(w.substr(0, w.size() - 4));
        }
        return out;
    }
    // The frames sent, as hex, each checked to go out on the bridge as ARP.
    Lines frames() {
        Lines out = fake().transcriptOf("packet-send ");
        for (std::string& f : out) {
            EXPECT_EQ("7 0x0806 ", f.substr(0, 9));
            f.erase(0, 9);
        }
        return out;
    }
    size_t arps() { return frames().size(); }
    size_t reads(const std::string& path) {
        const Lines r = fake().procReads();
        return static_cast<size_t>(std::count(r.begin(), r.end(), path));
    }
    std::map<uint32_t, Bytes> hosts; // who answers ARP requests on the bridge
    bool answering = true;
};
