// The Remote platform against the test emulator over a real socket, for what no single
// exchange shows: scripted answers and real sed on the profile, the largest payload, random
// bytes replayed from a seed, the profile lock, and a vanished emulator that looks like a
// vanished driver. (A connection per thread shows in the scenarios: the node's threads block
// on their own connections.)
#include "e2e_util.h"

namespace {

using e2e::Bytes;

class RemoteProtocol : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(emu_.start()); }
    RemoteOs& startNode(RemoteOs::RealClock* clock = nullptr) {
        nodes_.push_back(std::make_unique<RemoteOs>()); // large: its message buffers
        nodes_.back()->setRealClock(clock);
        EXPECT_EQ(0, nodes_.back()->start(root_.path().c_str(), 1)) << strerror(errno);
        return *nodes_.back();
    }

    e2e::TempRoot root_;
    emu::ScriptEmulator emu_{root_.path()};
    std::vector<std::unique_ptr<RemoteOs>> nodes_;
};

TEST_F(RemoteProtocol, ScriptedAnswersReachTheDaemonAndSedChangesTheRealProfile) {
    RemoteOs& node = startNode();
    // sed lines run for real on the file under the root, with the device's empty environment.
    emu_.writeFile("/tmp/wireless/mt5g.dat", "Default\nChannel=36\nHT_BW=1\n");
    char path[256];
    std::string sed = "sed -i 's/^Channel=.*$/Channel=149/' " +
                      std::string(node.path("/tmp/wireless/mt5g.dat", path, sizeof path));
    EXPECT_EQ(0, node.runShell(sed.c_str()));
    EXPECT_EQ("Default\nChannel=149\nHT_BW=1\n", emu_.readFile("/tmp/wireless/mt5g.dat"));
    emu_.runForReal("test ");
    setenv("ZORMESH_PROBE", "inherited", 1);
    EXPECT_EQ(0, node.runShell("test -z \"$ZORMESH_PROBE\""));
    unsetenv("ZORMESH_PROBE");
    EXPECT_EQ(1, node.runShell(nullptr));

    // Kernel files: one never set does not exist; failed writes are -1 (not opened) or -2.
    char buf[16];
    EXPECT_RESULT(-1, ENOENT, node.readProc("/proc/gpon/linkstate", buf, sizeof buf));
    for (int err : {EIO, ENOENT}) {
        emu_.failProcWrite("/proc/mesh/loop_status", err);
        EXPECT_RESULT(err == EIO ? -2 : -1, err,
                      node.writeProc("/proc/mesh/loop_status", "3 1", 4));
    }

    // A frame sent comes back (the emulator echoes it): the wait reports it, then times out.
    emu_.onPacketSend(
        [this](const emu::ScriptEmulator::Packet& pkt) { emu_.queuePacket(pkt.frame); });
    Bytes frame = e2e::hexBytes("ffffffffffff 020000000001 0806 0001 0800 06 04 0001"
                                "020000000001 c0a80102 ffffffffffff c0a80101");
    int p = node.packetOpen(0x0806);
    EXPECT_RESULT(-1, ENODEV, node.packetIfIndex(p, "eth9"));
    ASSERT_EQ(42, node.packetSend(p, 5, 0x0806, frame.data(), frame.size()));
    EXPECT_EQ(1, node.packetWait(p, 100));
    uint8_t got[64];
    ASSERT_EQ(42, node.packetRecv(p, got, sizeof got));
    EXPECT_EQ(frame, Bytes(got, got + 42));
    EXPECT_EQ(0, node.packetWait(p, 20));
    EXPECT_RESULT(-1, EAGAIN, node.packetRecv(p, got, sizeof got));
    node.closeFd(p);
    EXPECT_RESULT(-1, EBADF, node.packetSend(p, 5, 0x0806, frame.data(), frame.size()));

    // The largest table the daemon asks for crosses whole, both ways.
    emu_.onIoctl(0x8BFE, [](emu::IoctlCall& call) {
        for (size_t i = 0; i < call.payload.size(); ++i) {
            call.payload[i] = static_cast<uint8_t>(call.payload[i] + i);
        }
        call.length = 1000;
        return 0;
    });
    std::vector<uint8_t> table(49152, 0xEE);
    iwreq scan{};
    snprintf(scan.ifr_name, sizeof scan.ifr_name, "apclii0");
    scan.u.data.pointer = table.data();
    scan.u.data.length = 49152;
    int s = node.wlanSocket();
    ASSERT_EQ(0, node.wlanIoctl(s, 0x8BFE, &scan));
    EXPECT_EQ(1000, scan.u.data.length);
    for (size_t i = 0; i < table.size(); ++i) {
        ASSERT_EQ(static_cast<uint8_t>(0xEE + i), table[i]) << i;
    }
    EXPECT_RESULT(-1, EBADF, node.wlanIoctl(s + 1000, SIOCGIFFLAGS, &scan));
}

TEST_F(RemoteProtocol, RandomBytesReplayFromTheEmulatorsSeed) {
    auto draw = [this](uint64_t seed) {
        emu_.seed(seed);
        Bytes b(16);
        EXPECT_EQ(16, startNode().readRandom(b.data(), b.size()));
        return b;
    };
    Bytes first = draw(7);
    EXPECT_EQ(first, draw(7));
    EXPECT_NE(first, draw(8));

    // An emulator that does not offer them leaves the node to its own /dev/urandom.
    emu_.serveRandom(false);
    RemoteOs& local = startNode();
    emu_.clearRecords();
    EXPECT_EQ(16, local.readRandom(first.data(), first.size()));
    EXPECT_FALSE(emu_.waitFor("random", 0));
}

TEST_F(RemoteProtocol, SemaphoreCallsAreReportedAndTheLockStaysReal) {
    RemoteOs& node = startNode();
    uint32_t key = node.semKey(); // of the root's own
    EXPECT_EQ(remote_semKeyForRoot(root_.path().c_str()), key);

    int id = node.semGet(key, 1, IPC_CREAT | 0666);
    ASSERT_GE(id, 0);
    ASSERT_EQ(0, node.semSetVal(id, 0, 1));
    sembuf lock{0, -1, SEM_UNDO};
    ASSERT_EQ(0, node.semOp(id, &lock, 1));
    EXPECT_EQ(0, semctl(id, 0, GETVAL));
    // The emulator may make a call fail; the semaphore is then left alone.
    emu_.onSem([](const emu::SemCall& c) { return c.call == REMOTE_SEM_OP ? EINTR : 0; });
    sembuf unlock{0, 1, SEM_UNDO};
    EXPECT_RESULT(-1, EINTR, node.semOp(id, &unlock, 1));
    EXPECT_EQ(0, semctl(id, 0, GETVAL));
    emu_.onSem(nullptr);
    ASSERT_EQ(0, node.semOp(id, &unlock, 1));
    EXPECT_EQ(1, semctl(id, 0, GETVAL));
    EXPECT_EQ(0, node.semRemove(id));

    char get[64];
    snprintf(get, sizeof get, "c1 sem get key=0x%08X nsems=1 flags=0x3B6", key);
    std::string set = std::to_string(id);
    auto lines = emu_.transcript();
    EXPECT_EQ((std::vector<std::string>{
                  get, "c1 sem setval id=" + set + " num=0 value=1",
                  "c1 sem op id=" + set + " 0:-1:0x1000", "c1 sem op id=" + set + " 0:1:0x1000",
                  "c1 sem op id=" + set + " 0:1:0x1000", "c1 sem remove id=" + set}),
              std::vector<std::string>(lines.begin() + 1, lines.end()));
}

TEST_F(RemoteProtocol, AVanishedEmulatorLooksLikeAVanishedDriver) {
    e2e::ManualClock clock;
    RemoteOs& node = startNode(&clock);
    int s = node.wlanSocket();
    int p = node.packetOpen(0x0806);
    int nl = node.netlinkOpen(38);
    ASSERT_GE(nl, 0);
    emu_.stop();

    iwreq req{};
    snprintf(req.ifr_name, sizeof req.ifr_name, "rai3");
    EXPECT_RESULT(-1, ENODEV, node.wlanIoctl(s, SIOCGIWESSID, &req));
    EXPECT_EQ(1, node.runShell("iwpriv rai3 set HideSSID=1"));
    char buf[16];
    EXPECT_RESULT(-1, ENOENT, node.readProc("/proc/mesh/loop_status", buf, sizeof buf));
    EXPECT_RESULT(-1, ENOENT, node.writeProc("/proc/mesh/config_count", "4", 2));
    EXPECT_RESULT(-1, ENODEV, node.packetIfIndex(p, "br0"));
    EXPECT_RESULT(-1, ENETDOWN, node.packetSend(p, 5, 0x0806, buf, 10));
    EXPECT_EQ(0, node.packetWait(p, 100)); // the time-out passes
    EXPECT_EQ(std::vector<uint64_t>{100000}, clock.slept);
    EXPECT_EQ(16, node.readRandom(buf, 16)); // /dev/urandom is still there
    EXPECT_GE(node.wlanSocket(), 0);         // so is the socket; its requests fail
    EXPECT_RESULT(-1, ECONNREFUSED, node.netlinkBind(nl, 1));
    std::thread([&node] {
        EXPECT_EQ(1, node.runShell("ifconfig rai3 up"));
        EXPECT_RESULT(-1, EPROTONOSUPPORT, node.netlinkOpen(38));
    }).join();

    // No events come from a vanished driver: the monitor thread's receive waits until its
    // socket is closed. (Were it to return at once, 50 ms would be ample to see it.)
    auto monitor = std::async(std::launch::async, [&node, nl] {
        uint8_t m[304];
        return node.netlinkRecv(nl, m, sizeof m) == -1 && errno == EBADF;
    });
    EXPECT_EQ(std::future_status::timeout, monitor.wait_for(std::chrono::milliseconds(50)));
    node.closeFd(nl);
    EXPECT_TRUE(monitor.get());
}

} // namespace
