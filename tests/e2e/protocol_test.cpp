// The Remote platform against the scripted emulator, over a real socket: every operation
// group of the seam crosses the protocol with its bytes intact, and a vanished emulator
// looks like a vanished driver.
#include "e2e_util.h"
#include "emu_script.h"
#include "platform/hex.h"
#include "platform/remote_os.h"
#include "platform/wireless.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using emu::Bytes;
using hex::hexBytes;

// A real clock the test moves by hand: what the node sleeps is recorded, not slept.
class ManualClock : public RemoteOs::RealClock {
  public:
    uint64_t nowMicros() override { return now; }
    void sleepMicros(uint64_t us) override {
        slept.push_back(us);
        now += us;
    }
    uint64_t now = 1000000;
    std::vector<uint64_t> slept;
};

class RemoteProtocol : public ::testing::Test {
  protected:
    void SetUp() override {
        emu_ = std::make_unique<emu::ScriptEmulator>(root_.path());
        std::string error;
        ASSERT_TRUE(emu_->start(&error)) << error;
    }

    RemoteOs& startNode(uint32_t scale = 1, RemoteOs::RealClock* clock = nullptr) {
        node_ = std::make_unique<RemoteOs>();
        node_->setRealClock(clock);
        EXPECT_EQ(0, node_->start(root_.path().c_str(), scale)) << strerror(errno);
        return *node_;
    }

    std::string rooted(const char* fixed) {
        char buf[256];
        return node_->path(fixed, buf, sizeof buf);
    }

    e2e::TempRoot root_;
    std::unique_ptr<emu::ScriptEmulator> emu_;
    std::unique_ptr<RemoteOs> node_;
};

TEST_F(RemoteProtocol, HelloIntroducesTheNodeAndBringsItsDeviceConfiguration) {
    DeviceConfig& dev = emu_->device();
    snprintf(dev.bkhApIfName, sizeof dev.bkhApIfName, "ra9");
    snprintf(dev.staIfName, sizeof dev.staIfName, "apcli5");
    dev.maxVapNum = 7;
    dev.downLinkPortNum = 2;
    snprintf(dev.downLinkPorts[0], 16, "lan1");
    snprintf(dev.downLinkPorts[1], 16, "lan2");
    emu_->setUptime(500);
    ManualClock clock;
    RemoteOs& node = startNode(20, &clock);

    auto hellos = emu_->hellos();
    ASSERT_EQ(1u, hellos.size());
    EXPECT_EQ(static_cast<uint32_t>(getpid()), hellos[0].pid);
    EXPECT_EQ("main", hellos[0].role);
    EXPECT_EQ(20u, hellos[0].timeScale);
    EXPECT_EQ(1u, hellos[0].connection);

    const DeviceConfig& got = node.deviceConfig();
    EXPECT_STREQ("ra9", got.bkhApIfName);
    EXPECT_STREQ("apcli5", got.staIfName);
    EXPECT_EQ(7u, got.maxVapNum);
    ASSERT_EQ(2u, got.downLinkPortNum);
    EXPECT_STREQ("lan2", got.downLinkPorts[1]);
    EXPECT_EQ(500u, node.uptime());
    EXPECT_EQ(getpid(), node.processId());
    EXPECT_EQ(root_.path() + "/tmp/wireless/mt5g.dat", rooted("/tmp/wireless/mt5g.dat"));
}

TEST_F(RemoteProtocol, TimeScaleShortensSleepsAndWaitsAndSpeedsUpTheClocks) {
    ManualClock clock;
    RemoteOs& node = startNode(20, &clock);
    uint32_t up0 = node.uptime();
    time_t wall0 = node.wallClock();

    node.sleepSeconds(1); // a thread's tick
    node.sleepMillis(100);
    ASSERT_EQ((std::vector<uint64_t>{50000, 5000}), clock.slept);
    EXPECT_EQ(up0 + 1, node.uptime()); // 1.1 s of node time have passed

    clock.now += 1000000; // one real second
    EXPECT_EQ(up0 + 21, node.uptime());
    EXPECT_EQ(wall0 + 21, node.wallClock());

    // A packet wait tells the emulator both times; it waits the real one.
    int fd = node.packetOpen(0x0806);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, node.packetWait(fd, 100));
    auto waits = emu_->packetWaits();
    ASSERT_EQ(1u, waits.size());
    EXPECT_EQ(100u, waits[0].timeoutMs);
    EXPECT_EQ(5u, waits[0].realTimeoutMs);
    node.closeFd(fd);
}

TEST_F(RemoteProtocol, ShellLinesCrossVerbatimAndSedRewritesTheRealProfile) {
    RemoteOs& node = startNode();
    emu_->writeFile("/tmp/wireless/mt5g.dat", "Default\nChannel=36\nHT_BW=1\n");
    std::string sed = "sed -i 's/^Channel=.*$/Channel=149/' " + rooted("/tmp/wireless/mt5g.dat");
    EXPECT_EQ(0, node.runShell(sed.c_str()));
    EXPECT_EQ("Default\nChannel=149\nHT_BW=1\n", emu_->readFile("/tmp/wireless/mt5g.dat"));

    emu_->onShell("iwpriv ", [](const std::string&) { return 3 << 8; });
    EXPECT_EQ(0x300, node.runShell("iwpriv rai3 set HideSSID=1"));
    EXPECT_EQ(0, node.runShell("ifconfig rai3 up"));
    // Lines run for real get the device's empty environment, not the emulator's.
    emu_->runForReal("test ");
    setenv("ZORMESH_PROBE", "inherited", 1);
    EXPECT_EQ(0, node.runShell("test -z \"$ZORMESH_PROBE\""));
    unsetenv("ZORMESH_PROBE");
    EXPECT_EQ(1, node.runShell(nullptr));

    EXPECT_EQ((std::vector<std::string>{sed, "iwpriv rai3 set HideSSID=1", "ifconfig rai3 up",
                                        "test -z \"$ZORMESH_PROBE\""}),
              emu_->shellLines());
}

TEST_F(RemoteProtocol, KernelFilesCrossWithTheirBytesAndErrors) {
    RemoteOs& node = startNode();
    emu_->setProc("/proc/mesh/config_count", "42\n");
    char buf[16] = {};
    ASSERT_EQ(3, node.readProc("/proc/mesh/config_count", buf, sizeof buf));
    EXPECT_EQ(0, memcmp(buf, "42\n", 3));
    EXPECT_EQ(2, node.readProc("/proc/mesh/config_count", buf, 2)); // bounded by the reader
    errno = 0;
    EXPECT_EQ(-1, node.readProc("/proc/gpon/linkstate", buf, sizeof buf));
    EXPECT_EQ(ENOENT, errno);

    // A configuration line goes with its terminating NUL.
    EXPECT_EQ(0, node.writeProc("/proc/mesh/config_count", "1 0", 4));
    emu_->failProcWrite("/proc/mesh/loop_status", EIO);
    EXPECT_EQ(-2, node.writeProc("/proc/mesh/loop_status", "3 1", 4));
    EXPECT_EQ(EIO, errno);
    emu_->failProcWrite("/proc/mesh/loop_status", ENOENT);
    EXPECT_EQ(-1, node.writeProc("/proc/mesh/loop_status", "4", 2));
    EXPECT_EQ(ENOENT, errno);

    auto writes = emu_->procWrites();
    ASSERT_EQ(3u, writes.size());
    EXPECT_EQ("/proc/mesh/config_count", writes[0].path);
    EXPECT_EQ((Bytes{'1', ' ', '0', 0}), writes[0].data);
    EXPECT_EQ((std::vector<std::string>{"/proc/mesh/config_count", "/proc/mesh/config_count",
                                        "/proc/gpon/linkstate"}),
              emu_->procReads());
}

TEST_F(RemoteProtocol, RandomBytesComeFromTheEmulatorAndReplayFromItsSeed) {
    auto draw = [this](uint64_t seed) {
        emu_->seed(seed);
        auto node = std::make_unique<RemoteOs>(); // large: its message buffers
        EXPECT_EQ(0, node->start(root_.path().c_str(), 1));
        Bytes b(16);
        EXPECT_EQ(16, node->readRandom(b.data(), b.size()));
        return b;
    };
    Bytes first = draw(7);
    Bytes again = draw(7);
    Bytes other = draw(8);
    EXPECT_EQ(first, again);
    EXPECT_NE(first, other);

    RemoteOs& node = startNode();
    emu_->queueRandom({0xde, 0xad, 0xbe});
    uint8_t b[3];
    ASSERT_EQ(3, node.readRandom(b, sizeof b));
    EXPECT_EQ((Bytes{0xde, 0xad, 0xbe}), Bytes(b, b + 3));
    EXPECT_TRUE(emu_->waitFor("random 3", 0));

    // An emulator that does not offer them leaves the node to its own /dev/urandom.
    emu_->serveRandom(false);
    auto local = std::make_unique<RemoteOs>();
    ASSERT_EQ(0, local->start(root_.path().c_str(), 1));
    emu_->clearRecords();
    EXPECT_EQ(3, local->readRandom(b, sizeof b));
    EXPECT_FALSE(emu_->waitFor("random", 0));
}

TEST_F(RemoteProtocol, IoctlsCarryTheirPayloadBothWays) {
    RemoteOs& node = startNode();
    int s = node.wlanSocket();
    ASSERT_GE(s, 0);

    // A private request: the driver rewrites the payload and shortens the length.
    emu_->onIoctl(0x8BF5, [](emu::IoctlCall& call) {
        std::reverse(call.payload.begin(), call.payload.end());
        call.length = 7;
        return 0;
    });
    uint8_t label[16];
    memcpy(label, "0123456789abcdef", 16);
    iwreq req{};
    snprintf(req.ifr_name, sizeof req.ifr_name, "rai3");
    req.u.data.pointer = label;
    req.u.data.length = 16;
    req.u.data.flags = 3;
    ASSERT_EQ(0, node.wlanIoctl(s, 0x8BF5, &req));
    EXPECT_EQ(0, memcmp(label, "fedcba9876543210", 16));
    EXPECT_EQ(7, req.u.data.length);

    auto calls = emu_->ioctls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(0x8BF5u, calls[0].request);
    EXPECT_EQ(REMOTE_IOCTL_IWPOINT, calls[0].kind);
    EXPECT_EQ("rai3", calls[0].ifName);
    EXPECT_EQ(3, calls[0].flags);
    EXPECT_EQ(16, calls[0].length);
    EXPECT_EQ(hexBytes("30313233343536373839616263646566"), calls[0].payload);

    // A table larger than anything else the daemon asks for.
    emu_->onIoctl(0x8BFE, [](emu::IoctlCall& call) {
        for (size_t i = 0; i < 1000; ++i) {
            call.payload[i] = static_cast<uint8_t>(i * 7);
        }
        call.length = 1000;
        return 0;
    });
    std::vector<uint8_t> table(49152, 0xEE);
    iwreq scan{};
    snprintf(scan.ifr_name, sizeof scan.ifr_name, "apclii0");
    scan.u.data.pointer = table.data();
    scan.u.data.length = 49152;
    ASSERT_EQ(0, node.wlanIoctl(s, 0x8BFE, &scan));
    EXPECT_EQ(1000, scan.u.data.length);
    EXPECT_EQ(static_cast<uint8_t>(999 * 7), table[999]);
    EXPECT_EQ(0xEE, table[1000]); // the rest as the driver left it
    EXPECT_EQ(49152u, emu_->ioctls().back().payload.size());

    // The driver's refusal comes back as the errno.
    emu_->onIoctl(SIOCGIWESSID, [](emu::IoctlCall&) { return EOPNOTSUPP; });
    char essid[32] = {};
    iwreq q{};
    snprintf(q.ifr_name, sizeof q.ifr_name, "rai3");
    q.u.data.pointer = essid;
    q.u.data.length = sizeof essid;
    EXPECT_EQ(-1, node.wlanIoctl(s, SIOCGIWESSID, &q));
    EXPECT_EQ(EOPNOTSUPP, errno);

    // ifreq requests carry the first 16 bytes of the union: the index comes back in it.
    emu_->onIoctl(SIOCGIFINDEX, [](emu::IoctlCall& call) {
        call.payload[0] = 9;
        return 0;
    });
    ifreq ifr{};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "br0");
    ASSERT_EQ(0, node.wlanIoctl(s, SIOCGIFINDEX, &ifr));
    EXPECT_EQ(9, ifr.ifr_ifindex);
    EXPECT_EQ(REMOTE_IOCTL_IFREQ, emu_->ioctls().back().kind);
    EXPECT_EQ(Bytes(16, 0), emu_->ioctls().back().payload);

    EXPECT_EQ(-1, node.wlanIoctl(s + 1000, SIOCGIFFLAGS, &ifr));
    EXPECT_EQ(EBADF, errno);
    node.closeFd(s);
    EXPECT_TRUE(emu_->waitFor("close wlan 1", 2000));
}

TEST_F(RemoteProtocol, NetlinkAnnouncementAndPushedEventsKeepTheDriverLayout) {
    RemoteOs& node = startNode();
    int fd = node.netlinkOpen(38);
    ASSERT_GE(fd, 0);
    uint32_t pid = static_cast<uint32_t>(getpid());
    ASSERT_EQ(0, node.netlinkBind(fd, pid));
    // The announcement: a bare 16-byte header, length 16 and the port id.
    Bytes announce = e2e::cat({hexBytes("10000000 0000 0000 00000000"), e2e::le32(pid)});
    ASSERT_EQ(16, node.netlinkSend(fd, announce.data(), announce.size()));
    ASSERT_TRUE(emu_->waitNetlinkReady(2000));
    EXPECT_EQ(std::vector<Bytes>{announce}, emu_->netlinkSent());
    EXPECT_TRUE(emu_->waitFor("netlink-open 38", 0));
    EXPECT_TRUE(emu_->waitFor("netlink-bind " + std::to_string(pid), 0));
    EXPECT_EQ("netlink", emu_->hellos().back().role);

    // A parent-information event: header, type 2, a word, the record.
    Bytes event = hexBytes("28000000 0000 0000 00000000 00000000"
                           "02000000 11223344"
                           "a0b1c2d3e4f5 0001 02 03 040506070809");
    ASSERT_EQ(40u, event.size());
    ASSERT_EQ(1, emu_->pushNetlink(event));
    uint8_t buf[304];
    ASSERT_EQ(40, node.netlinkRecv(fd, buf, sizeof buf));
    EXPECT_EQ(event, Bytes(buf, buf + 40));

    // A message longer than the receive bound is cut, as a datagram is.
    ASSERT_EQ(1, emu_->pushNetlink(Bytes(60, 0x5A)));
    EXPECT_EQ(24, node.netlinkRecv(fd, buf, 24));
    ASSERT_EQ(1, emu_->pushNetlink(event));
    EXPECT_EQ(40, node.netlinkRecv(fd, buf, sizeof buf)); // the rest of the long one is gone

    node.closeFd(fd);
    EXPECT_TRUE(emu_->waitFor("bye netlink", 2000));
}

TEST_F(RemoteProtocol, PacketSocketsCarryFramesWaitsAndIndexes) {
    RemoteOs& node = startNode();
    emu_->setIfIndex("br0", 5);
    Bytes request = hexBytes("ffffffffffff 020000000001 0806 0001 0800 06 04 0001"
                             "020000000001 c0a80102 ffffffffffff c0a80101");
    Bytes answer = hexBytes("020000000001 020000000002 0806 0001 0800 06 04 0002"
                            "020000000002 c0a80101 020000000001 c0a80102");
    emu_->onPacketSend(
        [this, answer](const emu::ScriptEmulator::Packet&) { emu_->queuePacket(answer); });

    int fd = node.packetOpen(0x0806);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(5, node.packetIfIndex(fd, "br0"));
    EXPECT_EQ(-1, node.packetIfIndex(fd, "eth9"));
    EXPECT_EQ(ENODEV, errno);
    ASSERT_EQ(42, node.packetSend(fd, 5, request.data(), request.size()));
    auto sent = emu_->packetsSent();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(5, sent[0].ifIndex);
    EXPECT_EQ(request, sent[0].frame);

    EXPECT_EQ(1, node.packetWait(fd, 100));
    uint8_t buf[42];
    ASSERT_EQ(42, node.packetRecv(fd, buf, sizeof buf));
    EXPECT_EQ(answer, Bytes(buf, buf + 42));
    EXPECT_EQ(0, node.packetWait(fd, 20)); // nothing more comes
    EXPECT_EQ(-1, node.packetRecv(fd, buf, sizeof buf));
    EXPECT_EQ(EAGAIN, errno);

    node.closeFd(fd);
    EXPECT_TRUE(emu_->waitFor("packet-open 0x0806", 0));
    EXPECT_TRUE(emu_->waitFor("close packet", 2000));
    EXPECT_EQ(-1, node.packetSend(fd, 5, request.data(), request.size()));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(RemoteProtocol, SemaphoreCallsAreReportedAndTheLockStaysReal) {
    RemoteOs& node = startNode();
    uint32_t key = node.semKey();
    EXPECT_EQ(remote_semKeyForRoot(root_.path().c_str()), key);
    EXPECT_NE(remote_semKeyForRoot("/tmp/other-node"), key);
    EXPECT_NE(0xC11E0761u, key);

    int id = node.semGet(key, 1, IPC_CREAT | 0666);
    ASSERT_GE(id, 0);
    ASSERT_EQ(0, node.semSetVal(id, 0, 1));
    sembuf lock{0, -1, SEM_UNDO};
    ASSERT_EQ(0, node.semOp(id, &lock, 1));
    EXPECT_EQ(0, semctl(id, 0, GETVAL));

    // The emulator may make a call fail; the semaphore is then left alone.
    emu_->onSem([](const emu::SemCall& c) { return c.call == REMOTE_SEM_OP ? EINTR : 0; });
    sembuf unlock{0, 1, SEM_UNDO};
    EXPECT_EQ(-1, node.semOp(id, &unlock, 1));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(0, semctl(id, 0, GETVAL));
    emu_->onSem(nullptr);
    ASSERT_EQ(0, node.semOp(id, &unlock, 1));
    EXPECT_EQ(1, semctl(id, 0, GETVAL));
    EXPECT_EQ(0, node.semRemove(id));

    auto calls = emu_->semCalls();
    ASSERT_EQ(6u, calls.size()); // get, setval, lock, refused unlock, unlock, remove
    EXPECT_EQ(REMOTE_SEM_GET, calls[0].call);
    EXPECT_EQ(static_cast<int32_t>(key), calls[0].a);
    EXPECT_EQ(1, calls[0].b);
    EXPECT_EQ(IPC_CREAT | 0666, calls[0].c);
    EXPECT_EQ(REMOTE_SEM_SETVAL, calls[1].call);
    EXPECT_EQ(1, calls[1].c);
    ASSERT_EQ(1u, calls[2].ops.size());
    EXPECT_EQ(-1, calls[2].ops[0].op);
    EXPECT_EQ(SEM_UNDO, calls[2].ops[0].flg);
    EXPECT_EQ(1, calls[3].ops.at(0).op);
    EXPECT_EQ(REMOTE_SEM_REMOVE, calls[5].call);
    EXPECT_EQ(id, calls[5].a);
}

TEST_F(RemoteProtocol, EveryThreadTalksOnAConnectionOfItsOwn) {
    RemoteOs& node = startNode();
    node.runShell("echo main");
    std::thread([&node] { node.runShell("echo worker"); }).join();
    EXPECT_TRUE(emu_->waitFor("c2 bye thread", 2000)); // released when the thread ended
    std::thread([&node] { node.runShell("echo next"); }).join();

    auto t = emu_->transcript();
    auto has = [&t](const std::string& line) {
        return std::find(t.begin(), t.end(), line) != t.end();
    };
    EXPECT_TRUE(has("c1 shell echo main"));
    EXPECT_TRUE(has("c2 hello thread pid=" + std::to_string(getpid()) + " scale=1"));
    EXPECT_TRUE(has("c2 shell echo worker"));
    EXPECT_TRUE(has("c3 shell echo next"));
}

TEST_F(RemoteProtocol, AVanishedEmulatorLooksLikeAVanishedDriver) {
    RemoteOs& node = startNode();
    int s = node.wlanSocket();
    int p = node.packetOpen(0x0806);
    int nl = node.netlinkOpen(38);
    ASSERT_GE(s, 0);
    ASSERT_GE(p, 0);
    ASSERT_GE(nl, 0);
    emu_->stop();

    iwreq req{};
    snprintf(req.ifr_name, sizeof req.ifr_name, "rai3");
    EXPECT_EQ(-1, node.wlanIoctl(s, SIOCGIWESSID, &req));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(1, node.runShell("iwpriv rai3 set HideSSID=1"));
    char buf[16];
    EXPECT_EQ(-1, node.readProc("/proc/mesh/loop_status", buf, sizeof buf));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, node.writeProc("/proc/mesh/config_count", "4", 2));
    EXPECT_EQ(-1, node.packetIfIndex(p, "br0"));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(-1, node.packetSend(p, 5, buf, 10));
    EXPECT_EQ(16, node.readRandom(buf, 16)); // /dev/urandom is still there
    EXPECT_GE(node.wlanSocket(), 0);         // so is the socket; its requests fail
    std::thread([&node] { EXPECT_EQ(1, node.runShell("ifconfig rai3 up")); }).join();

    // The monitor thread's receive waits (no events from a vanished driver) until its
    // socket is closed.
    std::atomic<bool> closed{false};
    std::thread monitor([&] {
        uint8_t m[304];
        EXPECT_EQ(-1, node.netlinkRecv(nl, m, sizeof m));
        EXPECT_EQ(EBADF, errno);
        EXPECT_TRUE(closed.load()); // it did not give up on its own
    });
    closed = true;
    node.closeFd(nl);
    monitor.join();
}

TEST_F(RemoteProtocol, StartFailsClearlyWithoutAnEmulator) {
    emu_->stop(); // the socket file is gone
    auto remote = std::make_unique<RemoteOs>();
    RemoteOs& node = *remote;
    EXPECT_EQ(-1, node.start(root_.path().c_str(), 1));
    EXPECT_EQ(ENOENT, errno);

    // A socket file nobody listens on any more.
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s/emu.sock", root_.path().c_str());
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    close(fd);
    EXPECT_EQ(-1, node.start(root_.path().c_str(), 1));
    EXPECT_EQ(ECONNREFUSED, errno);

    EXPECT_EQ(-1, node.start("relative/root", 1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, node.start(root_.path().c_str(), 0));
    EXPECT_EQ(EINVAL, errno);
}

// An emulator that turns every node away.
class Refusing : public emu::Handler {
  public:
    emu::HelloAnswer hello(const emu::Peer&) override {
        emu::HelloAnswer a;
        a.accept = false;
        return a;
    }
};

TEST(RemoteHello, ARefusedHelloIsAProtocolError) {
    e2e::TempRoot root;
    Refusing refusing;
    emu::Server server(root.path(), refusing);
    ASSERT_TRUE(server.start(nullptr));
    auto node = std::make_unique<RemoteOs>();
    EXPECT_EQ(-1, node->start(root.path().c_str(), 1));
    EXPECT_EQ(EPROTO, errno);
}

} // namespace
