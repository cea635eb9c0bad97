// Network check and loop detection under the fake system: kernel lines byte for byte, the
// ARP probe against hand-written frames, and the thread's tick driven with the fake clock.
#include "fake_os.h"
#include "state_test_util.h"

#include "core/mesh_log.h"
#include "state/mesh_netchk.h"
#include "state/mesh_state_internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

namespace {

const uint8_t kOwnMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
const uint8_t kGwMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const uint8_t kOtherMac[6] = {0x00, 0x66, 0x77, 0x88, 0x99, 0xaa};
constexpr uint32_t kDevice = 0xC0A8010A;  // 192.168.1.10
constexpr uint32_t kGateway = 0xC0A80101; // 192.168.1.1
constexpr uint32_t kTarget = 0xC0A80114;  // 192.168.1.20
constexpr const char* kCount = "/proc/mesh/config_count";
constexpr const char* kLoop = "/proc/mesh/loop_status";
const char* const kSetUp =
    "2 12 pon0 lan1,lan2,lan3 02:00:00:00:00:01 9abda0c2be18b571f1e3178529b52da8";

// A kernel line as written: the text and its terminating NUL.
std::string line(const char* text) {
    return std::string(text, strlen(text) + 1);
}
using Lines = std::vector<std::string>;

// An ARP frame spelled out field by field here in the test.
Bytes arp(const uint8_t* from, uint32_t fromIp, const uint8_t* to, uint32_t toIp, int op = 2) {
    char ip[2][9];
    snprintf(ip[0], sizeof ip[0], "%08x", fromIp);
    snprintf(ip[1], sizeof ip[1], "%08x", toIp);
    return hexBytes(toHex(to, 6) + toHex(from, 6) + "0806 0001 0800 06 04 000" +
                    std::to_string(op) + toHex(from, 6) + ip[0] + toHex(to, 6) + ip[1]);
}

// The thread body the tests install: it waits to be cancelled, so that the tests drive the
// ticks themselves; its clean-up handler counts the cancellations.
std::atomic<int> g_starts{0};
std::atomic<int> g_cancelled{0};
void noteCancelled(void*) {
    ++g_cancelled;
}
void* parkedBody(void*) {
    ++g_starts;
    pthread_cleanup_push(noteCancelled, nullptr);
    for (;;) {
        pause();
    }
    pthread_cleanup_pop(0);
    return nullptr;
}
bool cancelled(int n) { // the cancellation completes on the other thread
    for (long i = 0; i < 100000000L && g_cancelled < n; ++i) {
        sched_yield();
    }
    return g_cancelled >= n;
}

NETCHK_CONFIG config(uint32_t targetSet = 0, uint32_t target = 0) {
    return NETCHK_CONFIG{1, targetSet, target, kGateway, kDevice, 0xFFFFFF00, 0};
}

class NetChk : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_netChk_resetModule();
        mesh_netChk_setThreadBody(parkedBody);
        g_starts = 0;
        g_cancelled = 0;
        fake.setIfIndex("br0", 7);
        fake.setIfIndex("apclii0", 12);
        DeviceConfig& d = fake.device();
        d.downLinkPortNum = 3;
        for (int i = 0; i < 3; ++i) {
            snprintf(d.downLinkPorts[i], 16, "lan%d", i + 1);
        }
        // Hosts on the bridge answer the requests for their address.
        fake.onPacketSend([this](const FakeOs::Packet& p) {
            uint32_t asked = static_cast<uint32_t>(p.frame[38]) << 24 | p.frame[39] << 16 |
                             p.frame[40] << 8 | p.frame[41];
            if (answering && hosts.count(asked) != 0) {
                fake.queuePacket(arp(hosts[asked], asked, kOwnMac, kDevice));
            }
        });
        hosts[kGateway] = kGwMac;
    }
    void TearDown() override {
        mesh_netChk_destroy();
        mesh_netChk_setThreadBody(nullptr);
        mesh_netChk_resetModule();
        if (g_meshLog != nullptr) {
            fclose(g_meshLog);
            g_meshLog = nullptr;
        }
    }
    void start(const NETCHK_CONFIG& cfg) {
        ASSERT_EQ(mesh_netChk_init(&cfg, kOwnMac, "pon0"), 0u);
        fake.clearRecords();
    }
    void tick(int n = 1) { // one tick of the thread and its one-second sleep
        for (int i = 0; i < n; ++i) {
            mesh_netChk_tick(&t);
            fake.advanceSeconds(1);
        }
    }
    Lines lines() {
        Lines out;
        for (const auto& w : fake.procWrites()) {
            EXPECT_EQ(w.path, kCount);
            out.emplace_back(w.bytes.begin(), w.bytes.end());
        }
        return out;
    }
    size_t arps() { return fake.packetsSent().size(); }
    size_t reads(const char* path) {
        auto r = fake.procReads();
        return static_cast<size_t>(std::count(r.begin(), r.end(), std::string(path)));
    }

    FakeOsScope scope;
    FakeOs& fake = scope.fake;
    std::map<uint32_t, const uint8_t*> hosts;
    bool answering = true;
    NETCHK_TICK t;
};

TEST_F(NetChk, KernelLinesByteForByte) {
    start(config());
    EXPECT_EQ(mesh_netChk_setTargetCountConfig(0, nullptr), 0u);
    EXPECT_EQ(mesh_netChk_setTargetCountConfig(1, kGwMac), 0u);
    EXPECT_EQ(mesh_netChk_setTargetCountConfig(1, nullptr), 1u);
    EXPECT_EQ(mesh_netChk_setLoopInitConfig(), 0u);
    EXPECT_EQ(mesh_netChk_setLoopEnableConfig(1), 0u);
    EXPECT_EQ(mesh_netChk_setLoopSendConfig(), 0u);
    auto w = fake.procWrites(); // one open per line
    ASSERT_EQ(w.size(), 5u);
    EXPECT_EQ(w[0].bytes, hexBytes("31 20 30 00"));
    EXPECT_EQ(w[1].bytes, hexBytes("31 20 31 20 30 30 3a 31 31 3a 32 32 3a 33 33 3a 34 34 3a "
                                   "35 35 00"));
    EXPECT_EQ(lines()[2], line(kSetUp));
    EXPECT_EQ(w[3].bytes, hexBytes("33 20 31 00"));
    EXPECT_EQ(w[4].bytes, hexBytes("34 00"));

    // Long port names: whole names only, the line stays within 127 characters.
    DeviceConfig& d = fake.device();
    d.downLinkPortNum = 6;
    for (int i = 0; i < 6; ++i) {
        snprintf(d.downLinkPorts[i], 16, "%c%014d", 'a' + i, i);
    }
    fake.clearRecords();
    ASSERT_EQ(mesh_netChk_setLoopInitConfig(), 0u);
    EXPECT_EQ(lines(), Lines{line("2 12 pon0 a00000000000000,b00000000000001,c00000000000002,"
                                  "d00000000000003 02:00:00:00:00:01 "
                                  "9abda0c2be18b571f1e3178529b52da8")});

    fake.clearRecords();
    fake.failNth(FakeOs::Op::PacketIfIndex, "apclii0", 1, ENODEV);
    EXPECT_EQ(mesh_netChk_setLoopInitConfig(), 1u);
    fake.failNth(FakeOs::Op::ProcWrite, kCount, 1, ENOENT);
    EXPECT_EQ(mesh_netChk_setLoopEnableConfig(0), 1u);
    fake.failNth(FakeOs::Op::ProcWrite, kCount, 1, EIO); // fails after the open: only reported
    EXPECT_EQ(mesh_netChk_setLoopSendConfig(), 0u);
    EXPECT_EQ(maskLineNumbers(fake.takeStdout()),
              "[MESH][ERROR](mesh_netChk_setLoopInitConfig) NNNNN: get index fail\r\n"
              "[MESH][ERROR](mesh_netChk_writeConfigToKernel) NNNNN: open "
              "/proc/mesh/config_count fail\r\n"
              "[MESH][ERROR](mesh_netChk_setLoopEnableConfig) NNNNN: write config to kernel "
              "failed\r\n"
              "[MESH][ERROR](mesh_netChk_writeConfigToKernel) NNNNN: write config fail\r\n");
}

TEST_F(NetChk, LoopSwitch) {
    start(config());
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 0u); // a repeat writes nothing
    EXPECT_EQ(lines(), (Lines{line(kSetUp), line("3 1"), line("4")}));
    fake.setProc(kLoop, "1");
    tick();
    EXPECT_EQ(mesh_netChk_getLoopState(), static_cast<uint32_t>(MESH_LOOP_STATE_ON));
    fake.clearRecords();
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(0), 0u);
    EXPECT_EQ(mesh_netChk_getLoopState(), static_cast<uint32_t>(MESH_STATE_OFF));
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 0u); // the set-up only once per run
    EXPECT_EQ(lines(), (Lines{line("3 0"), line("3 1"), line("4")}));

    mesh_netChk_destroy();
    start(config());
    mesh_netChk_setLoopbackCheck(0);
    // A failed set-up leaves the switch off, so that the next call tries again.
    fake.failNth(FakeOs::Op::ProcWrite, kCount, 1, ENOENT);
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 1u);
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    EXPECT_EQ(lines(), (Lines{line("3 0"), line(kSetUp), line(kSetUp), line("3 1"), line("4")}));
    EXPECT_NE(fake.takeStdout().find("init lbd config failed"), std::string::npos);
}

TEST_F(NetChk, ProbesEvery30TicksWhileOn) {
    start(config());
    fake.setProc(kCount, "9");
    tick(5);
    ASSERT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    fake.clearRecords();
    std::vector<int> probeTicks;
    for (int i = 1; i <= 95; ++i) {
        size_t before = lines().size();
        tick();
        if (lines().size() > before && lines().back() == line("4")) {
            probeTicks.push_back(i);
        }
    }
    EXPECT_EQ(probeTicks, (std::vector<int>{30, 60, 90}));
    EXPECT_EQ(reads(kLoop), 95u); // the loop status every tick, none while off
    ASSERT_EQ(mesh_netChk_setLoopbackCheck(0), 0u);
    fake.clearRecords();
    tick(40);
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(reads(kLoop), 0u);
}

TEST_F(NetChk, ArpProbe) {
    start(config());
    uint8_t mac[6] = {};
    ASSERT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 0u);
    EXPECT_EQ(toHex(mac, 6), "001122334455");
    ASSERT_EQ(arps(), 1u);
    EXPECT_EQ(fake.packetsSent()[0].ifIndex, 7);
    EXPECT_EQ(fake.packetsSent()[0].frame,
              hexBytes("ffffffffffff 020000000001 0806 0001 0800 06 04 0001"
                       "020000000001 c0a8010a ffffffffffff c0a80101"));
    EXPECT_EQ(fake.transcript().front(), "packet-open 0x0806");

    // Only a reply to our MAC and address from the target's address counts.
    answering = false;
    fake.queuePacket(arp(kOwnMac, kDevice, kGwMac, kGateway, 1)); // our own request
    fake.queuePacket(arp(kGwMac, kGateway, kOtherMac, kDevice));  // for another MAC
    fake.queuePacket(arp(kOtherMac, kTarget, kOwnMac, kDevice));  // another host
    fake.queuePacket(arp(kGwMac, kGateway, kOwnMac, kTarget));    // another asker
    fake.queuePacket(Bytes(41, 0));                               // cut short
    fake.queuePacket(hexBytes("020000000001 00667788 99aa 0806 0001 0800 06 04 0002"
                              "0066778899aa c0a80101 020000000001 c0a8010a"));
    ASSERT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 0u);
    EXPECT_EQ(toHex(mac, 6), "0066778899aa");

    // No answer: 100 ms waits until 4 s have passed.
    uint64_t before = fake.nowMillis();
    EXPECT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 1u);
    EXPECT_EQ(fake.nowMillis() - before, 4000u);

    answering = true;
    EXPECT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, nullptr), 1u);
    fake.failNth(FakeOs::Op::PacketOpen, "", 1, EPERM);
    EXPECT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 1u);
    fake.failNth(FakeOs::Op::PacketSend, "", 1, ENETDOWN);
    EXPECT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 1u);
    fake.failNth(FakeOs::Op::PacketWait, "", 1, EINTR); // reported, the probe goes on
    EXPECT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 0u);
    EXPECT_EQ(maskLineNumbers(fake.takeStdout()),
              "[MESH][ERROR](mesh_netChk_checkIpByArp) NNNNN: invalid param\r\n"
              "[MESH][ERROR](mesh_netChk_checkIpByArp) NNNNN: create socket fail\r\n"
              "[MESH][ERROR](mesh_netChk_checkIpByArp) NNNNN: select error\r\n");
}

TEST_F(NetChk, MovingCounterMeansOneArpPer600Ticks) {
    start(config());
    uint32_t traffic = 100;
    auto tickWithTraffic = [&](int n) {
        for (int i = 0; i < n; ++i) {
            fake.setProc(kCount, std::to_string(++traffic));
            tick();
        }
    };
    tickWithTraffic(1);
    EXPECT_EQ(mesh_netChk_getNetState(), 1u);
    EXPECT_EQ(lines(), Lines{line("1 1 00:11:22:33:44:55")});
    tickWithTraffic(599);
    EXPECT_EQ(arps(), 1u);
    EXPECT_EQ(reads(kCount), 1u + 19u); // after the answer, then every 30 ticks
    tickWithTraffic(1);
    EXPECT_EQ(arps(), 2u);
    EXPECT_EQ(lines().size(), 1u); // same MAC: the kernel is not told again
    tickWithTraffic(600);
    EXPECT_EQ(arps(), 3u);
    EXPECT_EQ(mesh_netChk_getNetState(), 1u);
}

TEST_F(NetChk, StillCounterAndSilentTarget) {
    start(config());
    fake.setProc(kCount, "100");
    tick(30);
    EXPECT_EQ(arps(), 1u);
    uint64_t silentSince = fake.nowMillis();
    answering = false;
    tick(); // the check finds the counter standing: probe at once, no answer
    EXPECT_EQ(arps(), 2u);
    EXPECT_EQ(mesh_netChk_getNetState(), 2u);
    EXPECT_LE(fake.nowMillis() - silentSince, (30u + 4u + 1u) * 1000u);
    EXPECT_EQ(lines(), (Lines{line("1 1 00:11:22:33:44:55"), line("1 0")}));
    tick(29);
    EXPECT_EQ(arps(), 2u);
    answering = true;
    tick(); // the MAC was forgotten: the next check probes again
    EXPECT_EQ(arps(), 3u);
    EXPECT_EQ(mesh_netChk_getNetState(), 1u);
    EXPECT_EQ(lines().back(), line("1 1 00:11:22:33:44:55"));

    fake.removeProc(kCount); // an unreadable counter counts as standing still
    tick(30);
    EXPECT_EQ(arps(), 4u);
    EXPECT_NE(fake.takeStdout().find("get count fail"), std::string::npos);
}

TEST_F(NetChk, TargetSelection) {
    struct Case {
        uint32_t set, target, asked;
        int interval;
    };
    const Case cases[] = {
        {1, kTarget, kTarget, 15},     // in the own subnet
        {1, 0xC0A80214, kGateway, 30}, // outside it
        {1, kGateway, kGateway, 30},   // the gateway itself
        {0, kTarget, kGateway, 30},    // not configured
    };
    hosts[kTarget] = kOtherMac;
    for (const Case& c : cases) {
        mesh_netChk_destroy();
        t = NETCHK_TICK();
        start(config(c.set, c.target));
        fake.setProc(kCount, "100");
        tick();
        ASSERT_EQ(arps(), 1u);
        EXPECT_EQ(fake.packetsSent()[0].frame[41], static_cast<uint8_t>(c.asked));
        int n = 1;
        while (arps() == 1u && n < 100) { // the standing counter makes the first check probe
            tick();
            ++n;
        }
        EXPECT_EQ(n, c.interval + 1) << "target " << std::hex << c.target;
    }
    // A new block while running: the new target is probed on the next tick.
    ASSERT_EQ(mesh_netChk_setConfig(nullptr), 1u);
    NETCHK_CONFIG cfg = config(1, kTarget);
    ASSERT_EQ(mesh_netChk_setConfig(&cfg), 0u);
    tick();
    EXPECT_EQ(fake.packetsSent().back().frame[41], 0x14);
    cfg.deviceIp = 0; // no own address: no probe, not reachable
    ASSERT_EQ(mesh_netChk_setConfig(&cfg), 0u);
    size_t before = arps();
    tick(40);
    EXPECT_EQ(arps(), before);
    EXPECT_EQ(mesh_netChk_getNetState(), 2u);
}

TEST_F(NetChk, CheckNowAndReset) {
    start(config());
    fake.setProc(kCount, "100");
    tick(6);
    size_t countReads = reads(kCount);
    fake.setProc(kCount, "101");
    mesh_netChk_checkNetIm();
    tick(); // checks at once, the counters do not move
    EXPECT_EQ(reads(kCount), countReads + 1);
    EXPECT_EQ(arps(), 1u);
    EXPECT_EQ(t.sinceCheck, 6u);
    EXPECT_EQ(t.sinceArp, 6u);
    tick();
    EXPECT_EQ(t.sinceCheck, 7u); // used up
    mesh_netChk_checkNetIm();
    tick(); // standing counter: probe at once, counters still untouched
    EXPECT_EQ(arps(), 2u);
    EXPECT_EQ(t.sinceArp, 7u);

    EXPECT_EQ(mesh_netChk_reset(), 0u);
    EXPECT_EQ(mesh_netChk_getNetState(), 2u);
    tick();
    EXPECT_EQ(arps(), 3u);
    EXPECT_EQ(mesh_netChk_getNetState(), 1u);
    EXPECT_EQ(t.sinceArp, 1u);
}

TEST_F(NetChk, InitAndDestroy) {
    ASSERT_EQ(mesh_log_open(), 0);
    NETCHK_CONFIG cfg = config();
    EXPECT_EQ(mesh_netChk_init(&cfg, nullptr, "pon0"), 1u);
    fake.failNth(FakeOs::Op::PacketIfIndex, "br0", 1, ENODEV);
    EXPECT_EQ(mesh_netChk_init(&cfg, kOwnMac, "pon0"), 1u);
    EXPECT_EQ(g_starts.load(), 0);
    EXPECT_EQ(maskLineNumbers(fake.takeStdout()),
              "[MESH][ERROR](mesh_netChk_init) NNNNN: get bridge interface index fail\r\n");

    ASSERT_EQ(mesh_netChk_init(&cfg, kOwnMac, "pon0"), 0u);
    ASSERT_EQ(mesh_netChk_init(&cfg, kOwnMac, "pon0"), 0u); // keeps the running thread
    EXPECT_NE(fake.readFile("/tmp/zormesh.log")
                  .find("]target ip 192.168.1.1 gateway 192.168.1.1 mask 255.255.255.0\r\n"),
              std::string::npos);
    fake.setProc(kCount, "100");
    tick();
    ASSERT_EQ(mesh_netChk_getNetState(), 1u);
    ASSERT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    fake.clearRecords();

    EXPECT_EQ(mesh_netChk_destroy(), 0u);
    EXPECT_TRUE(cancelled(1));
    EXPECT_EQ(g_starts.load(), 1);
    EXPECT_EQ(lines(), (Lines{line("1 0"), line("3 0")}));
    EXPECT_EQ(mesh_netChk_getNetState(), 2u);
    tick(40); // the addresses are forgotten: nothing to probe
    EXPECT_EQ(arps(), 0u);
}

} // namespace
