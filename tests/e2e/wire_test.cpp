// The emulation protocol byte by byte, both ways: handwritten requests against the emulator
// library, and the node's requests as a handwritten emulator receives them. These are the
// worked examples of docs/emulation-protocol.md.
#include "e2e_util.h"
#include "emu_script.h"
#include "platform/hex.h"
#include "platform/remote_os.h"
#include "platform/wireless.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using e2e::Bytes;
using hex::hexBytes;

const Bytes kHelloRequest = hexBytes("01000000 20000000" // hello, 32 bytes
                                     "01000000 39300000" // version 1, pid 12345
                                     "14000000 01000000" // time scale 20, connection 1
                                     "6d61696e000000000000000000000000"); // "main"

class Wire : public ::testing::Test {
  protected:
    void SetUp() override {
        emu_ = std::make_unique<emu::ScriptEmulator>(root_.path());
        emu_->setUptime(300);
        ASSERT_TRUE(emu_->start());
        fd_ = e2e::connectSeqpacket(root_.path() + "/emu.sock");
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override { close(fd_); }

    Bytes ask(const Bytes& request) {
        EXPECT_TRUE(e2e::sendMsg(fd_, request));
        return e2e::recvMsg(fd_);
    }

    e2e::TempRoot root_;
    std::unique_ptr<emu::ScriptEmulator> emu_;
    int fd_ = -1;
};

TEST_F(Wire, HelloReplyCarriesTheDeviceConfiguration) {
    Bytes expected = hexBytes("00000000 00000000 b4000000"          // result 0, errno 0, 180 bytes
                              "01000000 01000000 2c010000"          // version 1, random, uptime 300
                              "72616933000000000000000000000000"    // "rai3"
                              "617063 6c696930 000000000000000000"  // "apclii0"
                              "03000000 04000000"                   // 3 VAPs, 4 ports
                              "657468302e31 00000000000000000000"   // "eth0.1"
                              "657468302e32 00000000000000000000"   // "eth0.2"
                              "657468302e33 00000000000000000000"   // "eth0.3"
                              "657468302e34 00000000000000000000"); // "eth0.4"
    expected.resize(12 + 180, 0);                                   // ports 5..8 empty
    EXPECT_EQ(expected, ask(kHelloRequest));
    ASSERT_EQ(1u, emu_->hellos().size());
    EXPECT_EQ(12345u, emu_->hellos()[0].pid);
}

TEST_F(Wire, RequestsAndRepliesOfTheWorkedExamples) {
    ask(kHelloRequest);

    // Shell line: the reply's result is the wait status.
    emu_->onShell("iwpriv", [](const std::string&) { return 0x100; });
    EXPECT_EQ(hexBytes("00010000 00000000 00000000"),
              ask(hexBytes("02000000 1a000000"
                           "6977707269762072616933207365742048696465535349443d31")));
    EXPECT_EQ("iwpriv rai3 set HideSSID=1", emu_->shellLines().at(0));

    // Kernel-file read of at most 16 bytes.
    emu_->setProc("/proc/mesh/config_count", "5\n");
    EXPECT_EQ(hexBytes("02000000 00000000 02000000 350a"),
              ask(hexBytes("03000000 1b000000 10000000"
                           "2f70726f632f6d6573682f636f6e6669675f636f756e74")));

    // Kernel-file write of "1 0" and its NUL.
    EXPECT_EQ(hexBytes("00000000 00000000 00000000"),
              ask(hexBytes("04000000 1f000000 17000000"
                           "2f70726f632f6d6573682f636f6e6669675f636f756e74 3120 3000")));
    EXPECT_EQ((Bytes{'1', ' ', '0', 0}), emu_->procWrites().at(0).data);

    // Random bytes.
    emu_->queueRandom({0x01, 0x02, 0x03, 0x04});
    EXPECT_EQ(hexBytes("04000000 00000000 04000000 01020304"),
              ask(hexBytes("05000000 04000000 04000000")));

    // Wireless socket, then a private request whose payload the driver rewrites.
    EXPECT_EQ(hexBytes("01000000 00000000 00000000"), ask(hexBytes("06000000 00000000")));
    emu_->onIoctl(0x8BF5, [](emu::IoctlCall& call) {
        call.payload = {0xca, 0xfe, 0x00, 0x00};
        call.length = 2;
        return 0;
    });
    EXPECT_EQ(hexBytes("00000000 00000000 08000000 0200 0000 cafe0000"),
              ask(hexBytes("07000000 24000000 01000000 f58b0000 00000000"
                           "72616933000000000000000000000000 0300 0400 deadbeef")));
    EXPECT_EQ(hexBytes("deadbeef"), emu_->ioctls().at(0).payload);

    // Packet socket: open, index, send, wait, receive, close.
    emu_->setIfIndex("br0", 5);
    emu_->queuePacket(hexBytes("aabbccdd"));
    EXPECT_EQ(hexBytes("02000000 00000000 00000000"), ask(hexBytes("0b000000 04000000 06080000")));
    EXPECT_EQ(hexBytes("05000000 00000000 00000000"),
              ask(hexBytes("0c000000 14000000 02000000 62723000000000000000000000000000")));
    EXPECT_EQ(hexBytes("03000000 00000000 00000000"),
              ask(hexBytes("0d000000 0b000000 02000000 05000000 010203")));
    EXPECT_EQ(hexBytes("01000000 00000000 00000000"),
              ask(hexBytes("0e000000 0c000000 02000000 64000000 05000000")));
    EXPECT_EQ(hexBytes("04000000 00000000 04000000 aabbccdd"),
              ask(hexBytes("0f000000 08000000 02000000 2a000000")));
    EXPECT_EQ(hexBytes("00000000 00000000 00000000"),
              ask(hexBytes("10000000 08000000 02000000 02000000")));

    // Semaphore report of a lock operation {0, -1, SEM_UNDO}, refused with EINTR.
    emu_->onSem([](const emu::SemCall&) { return EINTR; });
    EXPECT_EQ(hexBytes("ffffffff 04000000 00000000"),
              ask(hexBytes("11000000 16000000 04000000 00800000 01000000 00000000"
                           "0000 ffff 0010")));
    auto sem = emu_->semCalls().at(0);
    EXPECT_EQ(0x8000, sem.a);
    ASSERT_EQ(1u, sem.ops.size());
    EXPECT_EQ(0x1000, sem.ops[0].flg);
}

TEST_F(Wire, NetlinkConnectionTurnsIntoAnEventChannel) {
    ask(hexBytes("01000000 20000000 01000000 39300000 01000000 02000000"
                 "6e65746c696e6b000000000000000000")); // "netlink"
    EXPECT_EQ(hexBytes("00000000 00000000 00000000"), ask(hexBytes("08000000 04000000 26000000")));
    EXPECT_EQ(hexBytes("00000000 00000000 00000000"), ask(hexBytes("09000000 04000000 39300000")));
    // The announcement has no reply; afterwards every packet is an event message.
    ASSERT_TRUE(e2e::sendMsg(fd_, hexBytes("0a000000 10000000 10000000 0000 0000 00000000"
                                           "39300000")));
    ASSERT_TRUE(emu_->waitNetlinkReady(2000));
    Bytes event =
        hexBytes("20000000 0000 0000 00000000 00000000 03000000 00000000 0102030405060708");
    ASSERT_EQ(1, emu_->pushNetlink(event));
    EXPECT_EQ(event, e2e::recvMsg(fd_));
}

TEST_F(Wire, MalformedRequestsGetAnErrorAndTheConnectionGoesOn) {
    EXPECT_EQ(hexBytes("ffffffff 47000000 00000000"), ask(hexBytes("01000000"))); // EPROTO
    EXPECT_EQ(hexBytes("ffffffff 47000000 00000000"),
              ask(hexBytes("02000000 02000000 6c73"))); // not a hello first
    // Another protocol version: refused, the reply names ours.
    Bytes v2 = kHelloRequest;
    v2[8] = 2;
    Bytes refusal = hexBytes("ffffffff 5d000000 b4000000 01000000");
    refusal.resize(12 + 180, 0);
    EXPECT_EQ(refusal, ask(v2));

    ask(kHelloRequest);
    EXPECT_EQ(hexBytes("ffffffff 47000000 00000000"),
              ask(hexBytes("02000000 05000000 6c73"))); // length does not match
    EXPECT_EQ(hexBytes("ffffffff 47000000 00000000"),
              ask(hexBytes("0e000000 04000000 02000000"))); // packet wait of 4 bytes
    EXPECT_EQ(hexBytes("ffffffff 26000000 00000000"), ask(hexBytes("63000000 00000000"))); // ENOSYS
    EXPECT_EQ(hexBytes("00000000 00000000 00000000"), ask(hexBytes("02000000 02000000 6c73")));
    EXPECT_EQ(6u, emu_->malformedRequests().size());
}

// A handwritten emulator: answers each request of one connection with the next reply of a
// list and keeps the requests as they arrived.
class RawEmulator {
  public:
    RawEmulator(const std::string& root, std::vector<Bytes> replies)
        : replies_(std::move(replies)) {
        listen_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s/emu.sock", root.c_str());
        EXPECT_EQ(0, bind(listen_, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
        EXPECT_EQ(0, listen(listen_, 4));
        thread_ = std::thread([this] {
            int fd = accept(listen_, nullptr, nullptr);
            for (const Bytes& r : replies_) {
                Bytes req = e2e::recvMsg(fd);
                if (req.empty()) {
                    break;
                }
                requests.push_back(req);
                e2e::sendMsg(fd, r);
            }
            e2e::recvMsg(fd, 2000); // until the node closes or goes quiet
            close(fd);
        });
    }
    ~RawEmulator() {
        if (thread_.joinable()) {
            thread_.join();
        }
        close(listen_);
    }
    void join() { thread_.join(); }
    std::vector<Bytes> requests;

  private:
    int listen_ = -1;
    std::vector<Bytes> replies_;
    std::thread thread_;
};

TEST(WireNode, TheNodeSendsTheDocumentedBytesAndDropsAMalformedReply) {
    e2e::TempRoot root;
    Bytes helloReply = hexBytes("00000000 00000000 b4000000 01000000 00000000 0a000000"
                                "72613000000000000000000000000000" // "ra0"
                                "61706331000000000000000000000000" // "apc1"
                                "01000000 00000000");
    helloReply.resize(12 + 180, 0);
    RawEmulator raw(root.path(), {helloReply, hexBytes("07000000 00000000 00000000"),
                                  hexBytes("00000000 00000000 06000000 0100 0000 cafe"),
                                  hexBytes("00010000 00000000 00000000"), hexBytes("0000")});
    auto node = std::make_unique<RemoteOs>();
    ASSERT_EQ(0, node->start(root.path().c_str(), 5));
    EXPECT_STREQ("apc1", node->deviceConfig().staIfName);
    EXPECT_LE(10u, node->uptime()); // starts at the emulator's 10 s

    int s = node->wlanSocket();
    uint8_t payload[3] = {0x11, 0x22, 0x33};
    iwreq req{};
    snprintf(req.ifr_name, sizeof req.ifr_name, "ra0");
    req.u.data.pointer = payload;
    req.u.data.length = 3;
    req.u.data.flags = 4;
    ASSERT_EQ(0, node->wlanIoctl(s, 0x8BF5, &req));
    EXPECT_EQ((Bytes{0xca, 0xfe, 0x33}), Bytes(payload, payload + 3));
    EXPECT_EQ(1, req.u.data.length);

    EXPECT_EQ(0x100, node->runShell("iwpriv rai3 set HideSSID=1"));
    EXPECT_EQ(1, node->runShell("ifconfig ra0 up")); // the reply is two bytes: gone
    EXPECT_EQ(-1, node->wlanIoctl(s, 0x8BF5, &req));
    EXPECT_EQ(ENODEV, errno);
    node.reset();
    raw.join();

    ASSERT_EQ(5u, raw.requests.size());
    Bytes hello = e2e::cat({hexBytes("01000000 20000000 01000000"),
                            e2e::le32(static_cast<uint32_t>(getpid())),
                            hexBytes("05000000 01000000 6d61696e000000000000000000000000")});
    EXPECT_EQ(hello, raw.requests[0]);
    EXPECT_EQ(hexBytes("06000000 00000000"), raw.requests[1]);
    EXPECT_EQ(hexBytes("07000000 23000000 07000000 f58b0000 00000000"
                       "72613000000000000000000000000000 0400 0300 112233"),
              raw.requests[2]);
    EXPECT_EQ(hexBytes("02000000 1a000000"
                       "6977707269762072616933207365742048696465535349443d31"),
              raw.requests[3]);
}

} // namespace
