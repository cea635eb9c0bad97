// Network check and loop detection under the fake system: kernel lines byte for byte, the
// ARP probe against hand-written frames, and the thread's tick driven with the fake clock.
#include "fake_os.h"
#include "state_test_util.h"

#include "core/mesh_log.h"
#include "state/mesh_netchk.h"
#include "state/mesh_state.h"
#include "state/mesh_state_internal.h"
#include "wlan/mesh_wlan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <map>
#include <pthread.h>
#include <unistd.h>

namespace {

const uint8_t kOwnMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
const uint8_t kGwMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const uint8_t kOtherMac[6] = {0x00, 0x66, 0x77, 0x88, 0x99, 0xaa};
constexpr uint32_t kDevice = 0xC0A8010A;  // 192.168.1.10
constexpr uint32_t kGateway = 0xC0A80101; // 192.168.1.1
constexpr uint32_t kTarget = 0xC0A80114;  // 192.168.1.20
constexpr uint32_t kMask = 0xFFFFFF00;
constexpr int kBridgeIndex = 7;
constexpr int kStaIndex = 12;
constexpr const char* kCount = "/proc/mesh/config_count";
constexpr const char* kLoop = "/proc/mesh/loop_status";

// A kernel line as written: the text and its terminating NUL.
std::string line(const char* text) {
    return std::string(text, strlen(text) + 1);
}

void putBe32(Bytes& b, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        b.push_back(static_cast<uint8_t>(v >> shift));
    }
}
void putMac(Bytes& b, const uint8_t* mac) {
    b.insert(b.end(), mac, mac + 6);
}

// An ARP reply as a host sends it, assembled field by field here in the test.
Bytes arpReply(const uint8_t* fromMac, uint32_t fromIp, const uint8_t* toMac, uint32_t toIp,
               uint8_t op = 2) {
    Bytes f;
    putMac(f, toMac);
    putMac(f, fromMac);
    Bytes fixed = {0x08, 0x06, 0x00, 0x01, 0x08, 0x00, 0x06, 0x04, 0x00, op};
    f.insert(f.end(), fixed.begin(), fixed.end());
    putMac(f, fromMac);
    putBe32(f, fromIp);
    putMac(f, toMac);
    putBe32(f, toIp);
    return f;
}

// The thread body the tests install: it only waits to be cancelled, so that the tests
// drive every tick themselves. Its clean-up handler counts the cancellations.
std::atomic<int> g_bodyStarts{0};
pthread_mutex_t g_cancelMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_cancelCond = PTHREAD_COND_INITIALIZER;
// Changed under g_cancelMutex; atomic as well because race detectors do not see a lock
// taken while a cancelled thread unwinds.
std::atomic<int> g_bodyCancelled{0};

void noteCancelled(void*) {
    pthread_mutex_lock(&g_cancelMutex);
    ++g_bodyCancelled;
    pthread_cond_broadcast(&g_cancelCond);
    pthread_mutex_unlock(&g_cancelMutex);
}

void* parkedBody(void*) {
    ++g_bodyStarts;
    pthread_cleanup_push(noteCancelled, nullptr);
    for (;;) {
        pause();
    }
    pthread_cleanup_pop(0);
    return nullptr;
}

// Waits (at most 10 s, a bound for a broken build only) until `n` bodies were cancelled.
bool cancelledBodies(int n) {
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 10;
    pthread_mutex_lock(&g_cancelMutex);
    int rc = 0;
    while (g_bodyCancelled < n && rc == 0) {
        rc = pthread_cond_timedwait(&g_cancelCond, &g_cancelMutex, &until);
    }
    bool done = g_bodyCancelled >= n;
    pthread_mutex_unlock(&g_cancelMutex);
    return done;
}

NETCHK_CONFIG gatewayConfig() {
    return NETCHK_CONFIG{1, 0, 0, kGateway, kDevice, kMask, 0};
}

class NetChk : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_state_resetModule();
        mesh_netChk_resetModule();
        mesh_wlan_resetForTest();
        mesh_netChk_setThreadBody(parkedBody);
        g_bodyStarts = 0;
        pthread_mutex_lock(&g_cancelMutex);
        g_bodyCancelled = 0;
        pthread_mutex_unlock(&g_cancelMutex);
        fake.setIfIndex("br0", kBridgeIndex);
        fake.setIfIndex("apclii0", kStaIndex);
        DeviceConfig& d = fake.device();
        d.downLinkPortNum = 3;
        snprintf(d.downLinkPorts[0], 16, "lan1");
        snprintf(d.downLinkPorts[1], 16, "lan2");
        snprintf(d.downLinkPorts[2], 16, "lan3");
        // Hosts on the bridge answer the requests for their address.
        fake.onPacketSend([this](const FakeOs::Packet& p) {
            if (p.frame.size() != 42 || !answering) {
                return;
            }
            uint32_t asked = static_cast<uint32_t>(p.frame[38]) << 24 |
                             static_cast<uint32_t>(p.frame[39]) << 16 |
                             static_cast<uint32_t>(p.frame[40]) << 8 | p.frame[41];
            auto it = hosts.find(asked);
            if (it != hosts.end()) {
                fake.queuePacket(arpReply(it->second, asked, kOwnMac, kDevice));
            }
        });
        hosts[kGateway] = kGwMac;
    }
    void TearDown() override {
        mesh_netChk_destroy();
        mesh_netChk_setThreadBody(nullptr);
        mesh_netChk_resetModule();
        mesh_state_resetModule();
        if (g_meshLog != nullptr) {
            fclose(g_meshLog);
            g_meshLog = nullptr;
        }
    }

    void start(const NETCHK_CONFIG& cfg) {
        ASSERT_EQ(mesh_netChk_init(&cfg, kOwnMac, "pon0"), 0u);
        fake.clearRecords();
    }
    // One tick of the thread and its one-second sleep.
    void tick(int n = 1) {
        for (int i = 0; i < n; ++i) {
            mesh_netChk_tick(&t);
            fake.advanceSeconds(1);
        }
    }
    std::vector<std::string> kernelLines() {
        std::vector<std::string> out;
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
    size_t probes() {
        auto l = kernelLines();
        return static_cast<size_t>(std::count(l.begin(), l.end(), line("4")));
    }

    FakeOsScope scope;
    FakeOs& fake = scope.fake;
    std::map<uint32_t, const uint8_t*> hosts;
    bool answering = true;
    NETCHK_TICK t;
};

// ---- kernel lines
// ---------------------------------------------------------------------------------

TEST_F(NetChk, KernelLinesByteForByteOneOpenPerLine) {
    start(gatewayConfig());
    EXPECT_EQ(mesh_netChk_setTargetCountConfig(0, nullptr), 0u);
    EXPECT_EQ(mesh_netChk_setTargetCountConfig(1, kGwMac), 0u);
    EXPECT_EQ(mesh_netChk_setTargetCountConfig(1, nullptr), 1u); // needs a MAC: nothing written
    EXPECT_EQ(mesh_netChk_setLoopInitConfig(), 0u);
    EXPECT_EQ(mesh_netChk_setLoopEnableConfig(1), 0u);
    EXPECT_EQ(mesh_netChk_setLoopEnableConfig(0), 0u);
    EXPECT_EQ(mesh_netChk_setLoopSendConfig(), 0u);

    auto writes = fake.procWrites();
    ASSERT_EQ(writes.size(), 6u);
    EXPECT_EQ(writes[0].bytes, Bytes({'1', ' ', '0', 0}));
    // "1 1 00:11:22:33:44:55" and its NUL.
    EXPECT_EQ(writes[1].bytes, hexBytes("31 20 31 20 30 30 3a 31 31 3a 32 32 3a 33 33 3a 34 34 3a "
                                        "35 35 00"));
    EXPECT_EQ(kernelLines()[2], line("2 12 pon0 lan1,lan2,lan3 02:00:00:00:00:01 "
                                     "9abda0c2be18b571f1e3178529b52da8"));
    EXPECT_EQ(writes[3].bytes, Bytes({'3', ' ', '1', 0}));
    EXPECT_EQ(writes[4].bytes, Bytes({'3', ' ', '0', 0}));
    EXPECT_EQ(writes[5].bytes, Bytes({'4', 0}));
    // The set-up line looked up the station interface on a packet socket of its own.
    auto tr = fake.transcript();
    EXPECT_NE(std::find(tr.begin(), tr.end(), "packet-ifindex apclii0"), tr.end());
    EXPECT_EQ(fake.takeStdout(), "");
}

TEST_F(NetChk, SetUpLineKeepsWholePortNamesWithin127Characters) {
    start(gatewayConfig());
    DeviceConfig& d = fake.device();
    d.downLinkPortNum = 6;
    const char* names[] = {"aaaaaaaaaaaaaa1", "bbbbbbbbbbbbbb2", "ccccccccccccccc",
                           "ddddddddddddddd", "eeeeeeeeeeeeeee", "fffffffffffffff"};
    for (int i = 0; i < 6; ++i) {
        snprintf(d.downLinkPorts[i], 16, "%s", names[i]);
    }
    ASSERT_EQ(mesh_netChk_setLoopInitConfig(), 0u);
    // "2 12 pon0 " and " <mac> <digest>" leave 66 characters: four names of 15 and commas.
    std::string expected = line("2 12 pon0 aaaaaaaaaaaaaa1,bbbbbbbbbbbbbb2,ccccccccccccccc,"
                                "ddddddddddddddd 02:00:00:00:00:01 "
                                "9abda0c2be18b571f1e3178529b52da8");
    auto lines = kernelLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], expected);
    EXPECT_LE(lines[0].size() - 1, 127u);

    // No downlink ports: an empty list between the blanks.
    d.downLinkPortNum = 0;
    fake.clearRecords();
    ASSERT_EQ(mesh_netChk_setLoopInitConfig(), 0u);
    EXPECT_EQ(kernelLines()[0],
              line("2 12 pon0  02:00:00:00:00:01 9abda0c2be18b571f1e3178529b52da8"));
}

TEST_F(NetChk, SetUpLineFailures) {
    start(gatewayConfig());
    int noIndex = fake.failNth(FakeOs::Op::PacketIfIndex, "apclii0", 1, ENODEV);
    EXPECT_EQ(mesh_netChk_setLoopInitConfig(), 1u);
    EXPECT_TRUE(fake.fired(noIndex));
    int noSocket = fake.failNth(FakeOs::Op::PacketOpen, "", 1, EPERM);
    EXPECT_EQ(mesh_netChk_setLoopInitConfig(), 1u);
    EXPECT_TRUE(fake.fired(noSocket));
    EXPECT_TRUE(kernelLines().empty());
    EXPECT_EQ(maskLineNumbers(fake.takeStdout()),
              "[MESH][ERROR](mesh_netChk_setLoopInitConfig) NNNNN: get index fail\r\n"
              "[MESH][ERROR](mesh_netChk_setLoopInitConfig) NNNNN: create socket failed\r\n");
}

TEST_F(NetChk, KernelFileFailures) {
    int gone = fake.failNth(FakeOs::Op::ProcWrite, kCount, 1, ENOENT);
    EXPECT_EQ(mesh_netChk_setLoopEnableConfig(1), 1u);
    EXPECT_TRUE(fake.fired(gone));
    // A write that fails after the open is only reported.
    int broken = fake.failNth(FakeOs::Op::ProcWrite, kCount, 1, EIO);
    EXPECT_EQ(mesh_netChk_setLoopSendConfig(), 0u);
    EXPECT_TRUE(fake.fired(broken));
    EXPECT_EQ(mesh_netChk_writeConfigToKernel(nullptr, 4), 1u);
    EXPECT_EQ(maskLineNumbers(fake.takeStdout()),
              "[MESH][ERROR](mesh_netChk_writeConfigToKernel) NNNNN: open "
              "/proc/mesh/config_count fail\r\n"
              "[MESH][ERROR](mesh_netChk_setLoopEnableConfig) NNNNN: write config to kernel "
              "failed\r\n"
              "[MESH][ERROR](mesh_netChk_writeConfigToKernel) NNNNN: write config fail\r\n"
              "[MESH][ERROR](mesh_netChk_writeConfigToKernel) NNNNN: invalid param\r\n");
}

TEST_F(NetChk, CounterAndLoopStatusReaders) {
    uint32_t count = 77;
    EXPECT_EQ(mesh_netChk_getTargetCount(&count), 1u); // no file
    EXPECT_EQ(count, 77u);
    fake.setProc(kCount, "123\n");
    EXPECT_EQ(mesh_netChk_getTargetCount(&count), 0u);
    EXPECT_EQ(count, 123u);
    fake.setProc(kCount, "none");
    EXPECT_EQ(mesh_netChk_getTargetCount(&count), 0u);
    EXPECT_EQ(count, 123u); // no number: unchanged
    fake.setProc(kCount, "4294967295");
    EXPECT_EQ(mesh_netChk_getTargetCount(&count), 0u);
    EXPECT_EQ(count, 4294967295u);
    EXPECT_EQ(mesh_netChk_getTargetCount(nullptr), 1u);

    EXPECT_EQ(mesh_netChk_getKernelloopStatus(), static_cast<uint32_t>(MESH_STATE_OFF));
    fake.setProc(kLoop, "1\n");
    EXPECT_EQ(mesh_netChk_getKernelloopStatus(), static_cast<uint32_t>(MESH_LOOP_STATE_ON));
    fake.setProc(kLoop, "2");
    EXPECT_EQ(mesh_netChk_getKernelloopStatus(), static_cast<uint32_t>(MESH_STATE_OFF));
    fake.setProc(kLoop, "");
    EXPECT_EQ(mesh_netChk_getKernelloopStatus(), static_cast<uint32_t>(MESH_STATE_OFF));
    EXPECT_EQ(maskLineNumbers(fake.takeStdout()),
              "[MESH][ERROR](mesh_netChk_getTargetCount) NNNNN: open /proc/mesh/config_count "
              "fail\r\n"
              "[MESH][ERROR](mesh_netChk_getKernelloopStatus) NNNNN: open /proc/mesh/loop_status "
              "fail\r\n");
}

// ---- loop-detection switch ----------------------------------------------------------------------

TEST_F(NetChk, LoopSwitchWritesSetUpEnableAndProbeInOrderAndNothingOnARepeat) {
    start(gatewayConfig());
    const std::string setUp =
        line("2 12 pon0 lan1,lan2,lan3 02:00:00:00:00:01 9abda0c2be18b571f1e3178529b52da8");

    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    EXPECT_EQ(kernelLines(), (std::vector<std::string>{setUp, line("3 1"), line("4")}));
    fake.clearRecords();
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    EXPECT_TRUE(kernelLines().empty());

    fake.setProc(kLoop, "1");
    tick();
    EXPECT_EQ(mesh_netChk_getLoopState(), static_cast<uint32_t>(MESH_LOOP_STATE_ON));
    fake.clearRecords();
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(0), 0u);
    EXPECT_EQ(kernelLines(), std::vector<std::string>{line("3 0")});
    EXPECT_EQ(mesh_netChk_getLoopState(), static_cast<uint32_t>(MESH_STATE_OFF));
    fake.clearRecords();
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(0), 0u);
    EXPECT_TRUE(kernelLines().empty());

    // On again within the same run: the set-up line is not repeated.
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    EXPECT_EQ(kernelLines(), (std::vector<std::string>{line("3 1"), line("4")}));

    // A new run writes it again.
    mesh_netChk_destroy();
    start(gatewayConfig());
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(0), 0u);
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    EXPECT_EQ(kernelLines(),
              (std::vector<std::string>{line("3 0"), setUp, line("3 1"), line("4")}));
    EXPECT_EQ(fake.takeStdout(), "");
}

TEST_F(NetChk, FailedLoopSwitchKeepsItsMarkSoTheNextCallTriesAgain) {
    start(gatewayConfig());
    int f = fake.failNth(FakeOs::Op::ProcWrite, kCount, 1, ENOENT); // the set-up line
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 1u);
    EXPECT_TRUE(fake.fired(f));
    EXPECT_EQ(kernelLines().size(), 1u);
    EXPECT_EQ(maskLineNumbers(fake.takeStdout()),
              "[MESH][ERROR](mesh_netChk_writeConfigToKernel) NNNNN: open "
              "/proc/mesh/config_count fail\r\n"
              "[MESH][ERROR](mesh_netChk_setLoopInitConfig) NNNNN: write config to kernel "
              "failed\r\n"
              "[MESH][ERROR](mesh_netChk_setLoopbackCheck) NNNNN: init lbd config failed\r\n");

    // The enable line fails next: the set-up is done, the switch is still off.
    fake.clearRecords();
    f = fake.failNth(FakeOs::Op::ProcWrite, kCount, 2, ENOENT);
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 1u);
    EXPECT_TRUE(fake.fired(f));
    EXPECT_NE(maskLineNumbers(fake.takeStdout())
                  .find("(mesh_netChk_setLoopbackCheck) NNNNN: set loop enable config failed\r\n"),
              std::string::npos);
    fake.clearRecords();
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    EXPECT_EQ(kernelLines(), (std::vector<std::string>{line("3 1"), line("4")}));

    // A failed probe line does not undo the switch.
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(0), 0u);
    fake.clearRecords();
    f = fake.failNth(FakeOs::Op::ProcWrite, kCount, 2, ENOENT);
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    EXPECT_TRUE(fake.fired(f));
    EXPECT_NE(maskLineNumbers(fake.takeStdout())
                  .find("(mesh_netChk_setLoopbackCheck) NNNNN: send lbd config failed\r\n"),
              std::string::npos);
    fake.clearRecords();
    EXPECT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    EXPECT_TRUE(kernelLines().empty());
}

TEST_F(NetChk, ProbesEvery30TicksWhileOnAndLoopStatusReadEachTick) {
    start(gatewayConfig());
    fake.setProc(kCount, "9");
    fake.setProc(kLoop, "0");
    tick(5); // loop detection off: no probe, no status read
    EXPECT_EQ(probes(), 0u);
    EXPECT_EQ(reads(kLoop), 0u);

    ASSERT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    fake.clearRecords();
    std::vector<int> probeTicks;
    for (int i = 1; i <= 95; ++i) {
        size_t before = probes();
        tick();
        if (probes() > before) {
            probeTicks.push_back(i);
        }
    }
    EXPECT_EQ(probeTicks, (std::vector<int>{30, 60, 90}));
    EXPECT_EQ(reads(kLoop), 95u);
    EXPECT_EQ(mesh_netChk_getLoopState(), static_cast<uint32_t>(MESH_STATE_OFF));
    fake.setProc(kLoop, "1");
    tick();
    EXPECT_EQ(mesh_netChk_getLoopState(), static_cast<uint32_t>(MESH_LOOP_STATE_ON));

    // Off: no more probes or reads, and the count starts again when switched on.
    ASSERT_EQ(mesh_netChk_setLoopbackCheck(0), 0u);
    fake.clearRecords();
    tick(40);
    EXPECT_EQ(probes(), 0u);
    EXPECT_EQ(reads(kLoop), 0u);
}

// ---- ARP probe
// -------------------------------------------------------------------------------------

TEST_F(NetChk, ArpRequestBytesAndTheAnswer) {
    start(gatewayConfig());
    uint8_t mac[6] = {};
    ASSERT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 0u);
    EXPECT_EQ(toHex(mac, 6), "001122334455");

    auto sent = fake.packetsSent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].ifIndex, kBridgeIndex);
    EXPECT_EQ(sent[0].frame, hexBytes("ff ff ff ff ff ff  02 00 00 00 00 01  08 06"
                                      "00 01  08 00  06  04  00 01"
                                      "02 00 00 00 00 01  c0 a8 01 0a"
                                      "ff ff ff ff ff ff  c0 a8 01 01"));
    auto tr = fake.transcript();
    EXPECT_EQ(tr.front(), "packet-open 0x0806");
    EXPECT_EQ(fake.takeStdout(), "");
}

TEST_F(NetChk, ArpAnswerFromTheWire) {
    start(gatewayConfig());
    answering = false;
    fake.queuePacket(hexBytes("02 00 00 00 00 01  00 11 22 33 44 55  08 06"
                              "00 01  08 00  06  04  00 02"
                              "00 11 22 33 44 55  c0 a8 01 01"
                              "02 00 00 00 00 01  c0 a8 01 0a"));
    uint8_t mac[6] = {};
    ASSERT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 0u);
    EXPECT_EQ(toHex(mac, 6), "001122334455");
}

TEST_F(NetChk, ArpIgnoresFramesThatAreNotTheAnswer) {
    start(gatewayConfig());
    answering = false;
    const Bytes answer = arpReply(kGwMac, kGateway, kOwnMac, kDevice);
    fake.queuePacket(arpReply(kOwnMac, kDevice, kGwMac, kGateway, 1)); // our own request
    fake.queuePacket(arpReply(kGwMac, kGateway, kOtherMac, kDevice));  // for another MAC
    fake.queuePacket(arpReply(kOtherMac, kTarget, kOwnMac, kDevice));  // another host
    fake.queuePacket(arpReply(kGwMac, kGateway, kOwnMac, kTarget));    // another asker IP
    fake.queuePacket(Bytes(answer.begin(), answer.begin() + 41));      // cut short
    fake.queuePacket(arpReply(kOtherMac, kGateway, kOwnMac, kDevice)); // the one that counts
    uint8_t mac[6] = {};
    ASSERT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 0u);
    EXPECT_EQ(toHex(mac, 6), "0066778899aa");
}

TEST_F(NetChk, ArpWithoutAnswerGivesUpAfterFourSecondsOf100msWaits) {
    start(gatewayConfig());
    answering = false;
    fake.queuePacket(arpReply(kOwnMac, kDevice, kGwMac, kGateway, 1)); // only noise
    uint64_t before = fake.nowMillis();
    uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 1u);
    EXPECT_EQ(fake.nowMillis() - before, 4000u);
    EXPECT_EQ(toHex(mac, 6), "010203040506");
    EXPECT_EQ(fake.takeStdout(), "");
}

TEST_F(NetChk, ArpFailures) {
    start(gatewayConfig());
    uint8_t mac[6] = {};
    EXPECT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, nullptr), 1u);

    int f = fake.failNth(FakeOs::Op::PacketOpen, "", 1, EPERM);
    EXPECT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 1u);
    EXPECT_TRUE(fake.fired(f));

    uint64_t before = fake.nowMillis();
    f = fake.failNth(FakeOs::Op::PacketSend, "", 1, ENETDOWN);
    EXPECT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 1u);
    EXPECT_TRUE(fake.fired(f));
    EXPECT_EQ(fake.nowMillis(), before); // no waiting after a failed send

    f = fake.failNth(FakeOs::Op::PacketRecv, "", 1, EIO);
    EXPECT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 1u);
    EXPECT_TRUE(fake.fired(f));

    // A failed wait is reported and the probe goes on.
    f = fake.failNth(FakeOs::Op::PacketWait, "", 1, EINTR);
    EXPECT_EQ(mesh_netChk_checkIpByArp(kDevice, kGateway, mac), 0u);
    EXPECT_TRUE(fake.fired(f));
    EXPECT_EQ(toHex(mac, 6), "001122334455");

    EXPECT_EQ(maskLineNumbers(fake.takeStdout()),
              "[MESH][ERROR](mesh_netChk_checkIpByArp) NNNNN: invalid param\r\n"
              "[MESH][ERROR](mesh_netChk_checkIpByArp) NNNNN: create socket fail\r\n"
              "[MESH][ERROR](mesh_netChk_checkIpByArp) NNNNN: select error\r\n");
}

// ---- the tick
// ---------------------------------------------------------------------------------------

TEST_F(NetChk, MovingCounterMeansNoArpExceptOnceEvery600Ticks) {
    start(gatewayConfig());
    fake.setProc(kCount, "100");
    tick();
    ASSERT_EQ(arps(), 1u);
    EXPECT_EQ(mesh_netChk_getNetState(), 1u);
    EXPECT_EQ(kernelLines(), std::vector<std::string>{line("1 1 00:11:22:33:44:55")});

    uint32_t traffic = 100;
    auto tickWithTraffic = [&](int n) { // the target's traffic keeps the counter moving
        for (int i = 0; i < n; ++i) {
            fake.setProc(kCount, std::to_string(++traffic));
            tick();
        }
    };
    for (int i = 2; i <= 600; ++i) {
        tickWithTraffic(1);
        ASSERT_EQ(arps(), 1u) << "tick " << i;
        ASSERT_EQ(mesh_netChk_getNetState(), 1u) << "tick " << i;
    }
    // The counter was looked at every 30 ticks (plus once right after the first answer).
    EXPECT_EQ(reads(kCount), 1u + 19u);
    tickWithTraffic(1);
    EXPECT_EQ(arps(), 2u);
    // Same MAC again: the kernel is not told twice.
    EXPECT_EQ(kernelLines().size(), 1u);
    tickWithTraffic(599);
    EXPECT_EQ(arps(), 2u);
    tickWithTraffic(1);
    EXPECT_EQ(arps(), 3u);
    EXPECT_EQ(fake.takeStdout(), "");
}

TEST_F(NetChk, StillCounterAtACheckProbesAtOnce) {
    start(gatewayConfig());
    fake.setProc(kCount, "100");
    tick();
    ASSERT_EQ(arps(), 1u);
    tick(29);
    EXPECT_EQ(arps(), 1u);
    tick(); // the 31st tick checks; the counter has not moved
    EXPECT_EQ(arps(), 2u);
    EXPECT_EQ(mesh_netChk_getNetState(), 1u);
}

TEST_F(NetChk, TargetThatStopsAnsweringTurnsTheStateOffWithinIntervalPlusFourSeconds) {
    start(gatewayConfig());
    fake.setProc(kCount, "100");
    tick();
    ASSERT_EQ(mesh_netChk_getNetState(), 1u);
    answering = false;
    uint64_t stoppedAt = fake.nowMillis();
    int ticks = 0;
    while (mesh_netChk_getNetState() == 1u && ticks < 100) {
        tick();
        ++ticks;
    }
    EXPECT_EQ(mesh_netChk_getNetState(), 2u);
    EXPECT_LE(fake.nowMillis() - stoppedAt, (30u + 4u + 1u) * 1000u);
    EXPECT_EQ(kernelLines(),
              (std::vector<std::string>{line("1 1 00:11:22:33:44:55"), line("1 0")}));

    // Forgotten MAC: every later check probes again, the first that is answered restores it.
    tick(29);
    EXPECT_EQ(arps(), 2u);
    answering = true;
    tick();
    EXPECT_EQ(arps(), 3u);
    EXPECT_EQ(mesh_netChk_getNetState(), 1u);
    EXPECT_EQ(kernelLines().back(), line("1 1 00:11:22:33:44:55"));
}

TEST_F(NetChk, UnansweredFirstProbeSwitchesTheCounterOff) {
    start(gatewayConfig());
    answering = false;
    tick();
    EXPECT_EQ(arps(), 1u);
    EXPECT_EQ(mesh_netChk_getNetState(), 2u);
    EXPECT_EQ(kernelLines(), std::vector<std::string>{line("1 0")});
    int f = fake.failNth(FakeOs::Op::ProcWrite, kCount, 1, ENOENT);
    tick(30);
    EXPECT_TRUE(fake.fired(f));
    EXPECT_NE(maskLineNumbers(fake.takeStdout())
                  .find("(mesh_netChk_tick) NNNNN: set target mac failed\r\n"),
              std::string::npos);
}

TEST_F(NetChk, NoProbeWithoutAnAddress) {
    NETCHK_CONFIG cfg = gatewayConfig();
    cfg.deviceIp = 0;
    start(cfg);
    mesh_netChk_setNetState(1);
    tick(100);
    EXPECT_EQ(arps(), 0u);
    EXPECT_EQ(mesh_netChk_getNetState(), 2u);

    cfg = gatewayConfig();
    cfg.gatewayIp = 0;
    ASSERT_EQ(mesh_netChk_setConfig(&cfg), 0u);
    tick(100);
    EXPECT_EQ(arps(), 0u);
}

TEST_F(NetChk, TargetSelectionDecidesAddressAndInterval) {
    struct Case {
        const char* name;
        uint32_t set;
        uint32_t target;
        uint32_t expectedTarget;
        int expectedInterval;
    };
    const Case cases[] = {
        {"separate target in the subnet", 1, kTarget, kTarget, 15},
        {"target outside the subnet", 1, 0xC0A80214, kGateway, 30},
        {"target equal to the gateway", 1, kGateway, kGateway, 30},
        {"no target configured", 0, kTarget, kGateway, 30},
    };
    hosts[kTarget] = kOtherMac;
    hosts[0xC0A80214] = kOtherMac;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        mesh_netChk_destroy();
        t = NETCHK_TICK();
        NETCHK_CONFIG cfg = gatewayConfig();
        cfg.netChkTargetSet = c.set;
        cfg.netChkTargetIp = c.target;
        start(cfg);
        fake.setProc(kCount, "100");
        tick();
        ASSERT_EQ(arps(), 1u);
        Bytes frame = fake.packetsSent()[0].frame;
        Bytes asked(frame.begin() + 38, frame.end());
        Bytes want;
        putBe32(want, c.expectedTarget);
        EXPECT_EQ(asked, want);
        // The standing counter makes the first check probe: it comes after one interval.
        int n = 1;
        while (arps() == 1u && n < 100) {
            tick();
            ++n;
        }
        EXPECT_EQ(n, c.expectedInterval + 1);
    }
}

TEST_F(NetChk, SetConfigSwitchesTheTargetAndStartsOver) {
    start(gatewayConfig());
    fake.setProc(kCount, "100");
    tick(5);
    ASSERT_EQ(arps(), 1u);
    hosts[kTarget] = kOtherMac;
    NETCHK_CONFIG cfg = gatewayConfig();
    cfg.netChkTargetSet = 1;
    cfg.netChkTargetIp = kTarget;
    EXPECT_EQ(mesh_netChk_setConfig(&cfg), 0u);
    EXPECT_EQ(mesh_netChk_setConfig(nullptr), 1u);
    tick();
    ASSERT_EQ(arps(), 2u);
    EXPECT_EQ(fake.packetsSent()[1].frame[41], 0x14);
    EXPECT_EQ(kernelLines().back(), line("1 1 00:66:77:88:99:aa"));
}

TEST_F(NetChk, CheckNowRunsTheCheckAtOnceWithoutAdvancingTheCounters) {
    start(gatewayConfig());
    fake.setProc(kCount, "100");
    tick(6);
    ASSERT_EQ(t.sinceCheck, 6u);
    ASSERT_EQ(t.sinceArp, 6u);
    size_t countReads = reads(kCount);

    fake.setProc(kCount, "101");
    EXPECT_EQ(mesh_netChk_checkNetIm(), 0u);
    tick();
    EXPECT_EQ(reads(kCount), countReads + 1);
    EXPECT_EQ(arps(), 1u); // the counter moved: no probe
    EXPECT_EQ(t.sinceCheck, 6u);
    EXPECT_EQ(t.sinceArp, 6u);
    tick();
    EXPECT_EQ(t.sinceCheck, 7u); // the request is used up
    EXPECT_EQ(reads(kCount), countReads + 1);

    // With the counter standing still the probe runs at once, still without touching them.
    mesh_netChk_checkNetIm();
    tick();
    EXPECT_EQ(arps(), 2u);
    EXPECT_EQ(t.sinceCheck, 7u);
    EXPECT_EQ(t.sinceArp, 7u);
}

TEST_F(NetChk, ResetStartsOverWithAProbe) {
    start(gatewayConfig());
    fake.setProc(kCount, "100");
    tick(10);
    ASSERT_EQ(arps(), 1u);
    EXPECT_EQ(mesh_netChk_reset(), 0u);
    EXPECT_EQ(mesh_netChk_getNetState(), 2u);
    tick();
    EXPECT_EQ(arps(), 2u);
    EXPECT_EQ(mesh_netChk_getNetState(), 1u);
    EXPECT_EQ(t.sinceArp, 1u);
}

TEST_F(NetChk, UnreadableCounterAtACheckLeadsToAProbe) {
    start(gatewayConfig());
    fake.setProc(kCount, "100");
    tick();
    fake.removeProc(kCount);
    tick(30);
    EXPECT_EQ(arps(), 2u);
    EXPECT_NE(maskLineNumbers(fake.takeStdout()).find("(mesh_netChk_tick) NNNNN: get count fail"),
              std::string::npos);
}

// ---- start and stop
// ---------------------------------------------------------------------------------

TEST_F(NetChk, InitStartsOneThreadAndLogsTheTarget) {
    ASSERT_EQ(mesh_log_open(), 0);
    NETCHK_CONFIG cfg = gatewayConfig();
    EXPECT_EQ(mesh_netChk_init(nullptr, kOwnMac, "pon0"), 1u);
    EXPECT_EQ(mesh_netChk_init(&cfg, nullptr, "pon0"), 1u);
    EXPECT_EQ(mesh_netChk_init(&cfg, kOwnMac, nullptr), 1u);
    EXPECT_EQ(g_bodyStarts.load(), 0);

    ASSERT_EQ(mesh_netChk_init(&cfg, kOwnMac, "pon0"), 0u);
    ASSERT_EQ(mesh_netChk_init(&cfg, kOwnMac, "pon0"), 0u);
    EXPECT_EQ(mesh_netChk_getNetState(), 2u);
    cfg.gatewayIp = 0;
    cfg.netmask = 0;
    ASSERT_EQ(mesh_netChk_setConfig(&cfg), 0u);
    std::string log = fake.readFile("/tmp/zormesh.log");
    EXPECT_NE(log.find("]target ip 192.168.1.1 gateway 192.168.1.1 mask 255.255.255.0\r\n"),
              std::string::npos);
    EXPECT_NE(log.find("]target ip  gateway  mask \r\n"), std::string::npos);

    EXPECT_EQ(mesh_netChk_destroy(), 0u);
    EXPECT_TRUE(cancelledBodies(1));
    EXPECT_EQ(g_bodyStarts.load(), 1); // a second init kept the running thread
}

TEST_F(NetChk, InitFailures) {
    NETCHK_CONFIG cfg = gatewayConfig();
    int f = fake.failNth(FakeOs::Op::PacketOpen, "", 1, EPERM);
    EXPECT_EQ(mesh_netChk_init(&cfg, kOwnMac, "pon0"), 1u);
    EXPECT_TRUE(fake.fired(f));
    f = fake.failNth(FakeOs::Op::PacketIfIndex, "br0", 1, ENODEV);
    EXPECT_EQ(mesh_netChk_init(&cfg, kOwnMac, "pon0"), 1u);
    EXPECT_TRUE(fake.fired(f));
    EXPECT_EQ(g_bodyStarts.load(), 0);
    EXPECT_EQ(maskLineNumbers(fake.takeStdout()),
              "[MESH][ERROR](mesh_netChk_init) NNNNN: create socket failed\r\n"
              "[MESH][ERROR](mesh_netChk_init) NNNNN: get bridge interface index fail\r\n");
}

TEST_F(NetChk, DestroyEndsTheThreadAndSwitchesTheKernelOff) {
    start(gatewayConfig());
    fake.setProc(kCount, "100");
    tick();
    ASSERT_EQ(mesh_netChk_getNetState(), 1u);
    ASSERT_EQ(mesh_netChk_setLoopbackCheck(1), 0u);
    fake.clearRecords();

    EXPECT_EQ(mesh_netChk_destroy(), 0u);
    EXPECT_TRUE(cancelledBodies(1));
    EXPECT_EQ(kernelLines(), (std::vector<std::string>{line("1 0"), line("3 0")}));
    EXPECT_EQ(mesh_netChk_getNetState(), 2u);

    // The addresses are forgotten: a tick has nothing to probe.
    fake.clearRecords();
    tick(40);
    EXPECT_EQ(arps(), 0u);
    EXPECT_EQ(mesh_netChk_destroy(), 0u); // again: nothing to cancel
}

} // namespace
