// Network check and loop detection under the fake system: the kernel lines byte for byte, the
// ARP probe against hand-written frames, and the thread ticking on the fake clock.
#include "state_fixture.h"

#include "platform/linux_os.h"

namespace {

using NetChk = StateTest;

const char* const kSetUp =
    "2 12 pon0 eth0.1,eth0.2,eth0.3,eth0.4 02:00:00:00:00:01 9abda0c2be18b571f1e3178529b52da8";
const char* const kTargetOn = "1 1 0a:1b:2c:3d:4e:5f";

TEST_F(NetChk, KernelLineFailuresAndLongPortNames) {
    start(config());
    fake().clearRecords();
    fake().failNth("packet-ifindex apclii0", 1, ENODEV);
    EXPECT_EQ(1u, mesh_netChk_setLoopInitConfig());
    fake().failNth(kCountWrite, 1, EIO); // fails after the open: only reported
    EXPECT_EQ(0u, mesh_netChk_setLoopSendConfig());
    EXPECT_EQ((Lines{"get index fail", "write config fail"}), errors());
    EXPECT_EQ(Lines{"4"}, lines());

    // Whole port names only, so that the set-up line stays within 127 characters.
    fake().device().downLinkPortNum = 6;
    for (int i = 0; i < 6; ++i) {
        snprintf(fake().device().downLinkPorts[i], 16, "%c%014d", 'a' + i, i);
    }
    fake().clearRecords();
    ASSERT_EQ(0u, mesh_netChk_setLoopInitConfig());
    EXPECT_EQ(Lines{"2 12 pon0 a00000000000000,b00000000000001,c00000000000002,d00000000000003 "
                    "02:00:00:00:00:01 9abda0c2be18b571f1e3178529b52da8"},
              lines());

    fake().setProc(kCount, "none"); // a counter without a number leaves the count alone
    uint32_t count = 77;
    EXPECT_EQ(0u, mesh_netChk_getTargetCount(&count));
    EXPECT_EQ(77u, count);
}

TEST_F(NetChk, LoopSwitchAndProbes) {
    start(config());
    fake().clearRecords();
    fake().setProc(kLoop, "1");
    fake().failNth(kCountWrite, 1, ENOENT);
    EXPECT_EQ(1u, mesh_netChk_setLoopbackCheck(1)); // the switch stays off: the next call retries
    EXPECT_EQ(0u, mesh_netChk_setLoopbackCheck(1));
    EXPECT_EQ(0u, mesh_netChk_setLoopbackCheck(1)); // a repeat writes nothing
    EXPECT_EQ((Lines{kSetUp, kSetUp, "3 1", "4"}), lines());
    EXPECT_EQ((Lines{"open /proc/mesh/config_count fail", "write config to kernel failed",
                     "init lbd config failed"}),
              errors());
    tick();
    EXPECT_EQ(MESH_LOOP_STATE_ON, mesh_netChk_getLoopState());

    fake().clearRecords();
    EXPECT_EQ(0u, mesh_netChk_setLoopbackCheck(0));
    EXPECT_EQ(MESH_STATE_OFF, mesh_netChk_getLoopState());
    tick(40); // off: no probe, no loop status read
    EXPECT_EQ(0u, reads(kLoop));
    fake().failNth(kCountWrite, 1, ENOENT);
    EXPECT_EQ(1u, mesh_netChk_setLoopbackCheck(1)); // enable line lost: the switch stays off
    EXPECT_EQ(0u, mesh_netChk_setLoopbackCheck(1)); // the set-up only once per run
    EXPECT_EQ((Lines{"3 0", "3 1", "3 1", "4"}), lines());

    fake().setProc(kLoop, "2"); // no loop: any value but 1
    fake().clearRecords();
    auto probes = [&] {
        const Lines l = lines();
        return std::count(l.begin(), l.end(), "4");
    };
    tick(29);
    EXPECT_EQ(0, probes());
    tick();
    EXPECT_EQ(1, probes());
    tick(60);
    EXPECT_EQ(3, probes());
    EXPECT_EQ(90u, reads(kLoop)); // every tick while on
    EXPECT_EQ(MESH_STATE_OFF, mesh_netChk_getLoopState());

    stop(); // a new run writes the set-up again
    start(config());
    fake().clearRecords();
    mesh_netChk_setLoopbackCheck(0);
    mesh_netChk_setLoopbackCheck(1);
    EXPECT_EQ((Lines{"3 0", kSetUp, "3 1", "4"}), lines());
}

TEST_F(NetChk, ArpProbe) {
    start(config()); // the thread sleeps through the probes below: no check is due
    fake().clearRecords();
    uint8_t mac[6] = {};
    ASSERT_EQ(0u, mesh_netChk_checkIpByArp(kDevice, kGateway, mac));
    EXPECT_EQ(toHex(kGwMac.data(), 6), toHex(mac, 6));
    ASSERT_EQ(1u, arps());
    // What the device hands to the kernel for it: family 17, protocol 0x0806 in network
    // order, the bridge's index, every other member 0.
    const sockaddr_ll to = linux_impl::packetAddress(7, 0x0806);
    EXPECT_EQ(hexText("1100 0806 07000000 0000 00 00 0000000000000000"), hexOf(to));
    EXPECT_EQ(hexText("ffffffffffff 020000000001 0806 0001 0800 06 04 0001 020000000001 c0a8010a "
                      "ffffffffffff c0a80101"),
              frames()[0]);
    EXPECT_EQ("packet-open 0x0806", fake().transcript().front());

    fake().failNth("packet-open", 1, EPERM);
    EXPECT_EQ(1u, mesh_netChk_checkIpByArp(kDevice, kGateway, mac));
    fake().failNth("packet-recv", 1, EIO); // ends the probe; the answer stays queued
    EXPECT_EQ(1u, mesh_netChk_checkIpByArp(kDevice, kGateway, mac));
    fake().failNth("packet-send", 1, ENETDOWN); // nothing is read after it
    EXPECT_EQ(1u, mesh_netChk_checkIpByArp(kDevice, kGateway, mac));

    // Only a reply to our MAC and address from the asked address counts: the gateway's answer
    // still queued and the frames below, each differing from the reply in one field, are
    // skipped. The frame cut short lacks only the last byte, which the buffer already holds.
    const uint32_t asked = 0xC0A8020A;
    answering = false;
    const Bytes reply = arp(kGwMac, asked, kOwnMac, kDevice);
    fake().queuePacket(Bytes(reply.begin(), reply.end() - 1));
    fake().queuePacket(arp(kGwMac, asked, kOwnMac, kDevice, 1));
    fake().queuePacket(arp(kGwMac, asked, kHostMac, kDevice));
    fake().queuePacket(arp(kGwMac, kTarget, kOwnMac, kDevice));
    fake().queuePacket(arp(kGwMac, asked, kOwnMac, kTarget));
    fake().queuePacket(arp(kHostMac, asked, kOwnMac, kDevice));
    ASSERT_EQ(0u, mesh_netChk_checkIpByArp(kDevice, asked, mac));
    EXPECT_EQ(toHex(kHostMac.data(), 6), toHex(mac, 6));

    // No answer: 40 waits of 100 ms until 4 s have passed; a failed wait is reported and
    // the probe goes on (one more wait).
    const int fortySecond = fake().failNth("packet-wait", 42, EINTR);
    const int fortieth = fake().failNth("packet-wait", 40, EINTR);
    const uint64_t before = fake().nowMillis();
    EXPECT_EQ(1u, mesh_netChk_checkIpByArp(kDevice, asked, mac));
    EXPECT_EQ(4000u, fake().nowMillis() - before);
    EXPECT_TRUE(fake().fired(fortieth));
    EXPECT_FALSE(fake().fired(fortySecond));
    EXPECT_EQ((Lines{"create socket fail", "select error"}), errors());
}

TEST_F(NetChk, CounterDecidesWhenToProbe) {
    start(config()); // the first tick probes; the answer configures the kernel's counter
    EXPECT_EQ(1u, mesh_netChk_getNetState());
    EXPECT_EQ(Lines{kTargetOn}, lines());
    uint32_t traffic = 100;
    auto busy = [&](int n) { // seconds while the target's traffic moves the counter
        for (int i = 0; i < n; ++i) {
            fake().setProc(kCount, std::to_string(++traffic));
            tick();
        }
    };
    busy(599);
    EXPECT_EQ(1u, arps());
    EXPECT_EQ(20u, reads(kCount)); // after the answer, then every 30 ticks
    busy(1);
    EXPECT_EQ(2u, arps());         // 600 ticks after the last answer
    EXPECT_EQ(1u, lines().size()); // same MAC: the kernel is not told again
    tick(59); // the counter moved up to the check at 30 ticks, and stands at the one at 60
    EXPECT_EQ(2u, arps());
    tick();
    EXPECT_EQ(3u, arps());

    answering = false;
    tick(30); // the check probes; the thread waits for the answer
    EXPECT_EQ(4u, arps());
    EXPECT_EQ(1u, mesh_netChk_getNetState());
    tick(4); // 4 s without an answer
    EXPECT_EQ(2u, mesh_netChk_getNetState());
    EXPECT_EQ((Lines{kTargetOn, "1 0"}), lines());
    tick(29);
    answering = true;
    tick(); // the MAC was forgotten: the next check probes and configures the counter again
    EXPECT_EQ(5u, arps());
    EXPECT_EQ(1u, mesh_netChk_getNetState());
    EXPECT_EQ((Lines{kTargetOn, "1 0", kTargetOn}), lines());

    fake().removeProc(kCount); // an unreadable counter counts as standing still
    tick(30);
    EXPECT_EQ(6u, arps());
    EXPECT_EQ((Lines{"open /proc/mesh/config_count fail", "get count fail"}), errors());
}

TEST_F(NetChk, CheckNowAndReset) {
    start(config());
    tick(6);
    const size_t countReads = reads(kCount);
    fake().setProc(kCount, "101");
    mesh_netChk_checkNetIm();
    tick(); // checks at once: the counter moved, no probe
    EXPECT_EQ(countReads + 1, reads(kCount));
    EXPECT_EQ(1u, arps());
    // The tick of a check-now does not count: the periodic check comes one tick later than
    // the 30 after the first probe.
    tick(23);
    EXPECT_EQ(countReads + 1, reads(kCount));
    tick();
    EXPECT_EQ(countReads + 2, reads(kCount));
    EXPECT_EQ(2u, arps()); // the counter stood still at it

    mesh_netChk_checkNetIm();
    tick(); // the counter stands: probe at once
    EXPECT_EQ(3u, arps());

    EXPECT_EQ(0u, mesh_netChk_reset());
    EXPECT_EQ(2u, mesh_netChk_getNetState());
    tick(); // starts over with a probe
    EXPECT_EQ(4u, arps());
    EXPECT_EQ(1u, mesh_netChk_getNetState());
}

TEST_F(NetChk, TargetSelection) {
    const struct {
        uint32_t set, target, asked;
        int interval;
    } cases[] = {
        {1, kTarget, kTarget, 15},     // in the own subnet
        {1, 0xC0A80214, kGateway, 30}, // outside it
        {1, kGateway, kGateway, 30},   // the gateway itself
        {0, kTarget, kGateway, 30},    // not configured
    };
    hosts[kTarget] = kHostMac;
    start(config());
    for (const auto& c : cases) {
        const NETCHK_CONFIG cfg = config(c.set, c.target);
        ASSERT_EQ(0u, mesh_netChk_setConfig(&cfg)); // starts over with a probe
        fake().clearRecords();
        tick(c.interval);
        EXPECT_EQ(1u, arps()) << ipHex(c.target);
        tick(); // the counter stands still at the first check
        ASSERT_EQ(2u, arps()) << ipHex(c.target);
        EXPECT_EQ(ipHex(c.asked), frames()[1].substr(76, 8));
    }
    NETCHK_CONFIG cfg = config(1, kTarget);
    cfg.deviceIp = 0; // no own address: no probe, not reachable
    ASSERT_EQ(0u, mesh_netChk_setConfig(&cfg));
    fake().clearRecords();
    tick(40);
    EXPECT_EQ(0u, arps());
    EXPECT_EQ(2u, mesh_netChk_getNetState());
}

TEST_F(NetChk, InitAndDestroy) {
    const NETCHK_CONFIG cfg = config();
    fake().failNth("packet-ifindex br0", 1, ENODEV);
    EXPECT_EQ(1u, mesh_netChk_init(&cfg, kOwnMac.data(), "pon0"));
    EXPECT_EQ(Lines{"get bridge interface index fail"}, errors());
    start(cfg);
    start(cfg); // keeps the running thread (still one sleeper), which starts over
    tick();
    ASSERT_EQ(1u, mesh_netChk_getNetState());
    ASSERT_EQ(0u, mesh_netChk_setLoopbackCheck(1));

    fake().clearRecords();
    stop();
    EXPECT_EQ((Lines{"1 0", "3 0"}), lines());
    EXPECT_EQ(2u, mesh_netChk_getNetState());
    start(cfg);
    stop();
    tick(40); // no thread, and the addresses are forgotten
    EXPECT_EQ(1u, arps());
}

TEST_F(NetChk, DestroyDoesNotWaitForAProbe) {
    answering = false;
    start(config()); // the first probe waits for an answer that does not come
    const uint64_t before = fake().nowMillis();
    fake().clearRecords();
    EXPECT_EQ(0u, mesh_netChk_destroy()); // returns at once: no virtual time passed
    EXPECT_EQ(before, fake().nowMillis());
    EXPECT_EQ(1u, fake().sleepers());
    fake().advanceMillis(100); // the thread ends at the end of its wait, writing nothing more
    EXPECT_TRUE(fake().settle(0));
    EXPECT_EQ((Lines{"1 0", "3 0"}), lines());
    EXPECT_EQ(100u, fake().nowMillis() - before);
    mesh_netChk_resetModule();
    EXPECT_EQ(0u, fake().openFds()); // the probe's socket is closed
}

} // namespace
