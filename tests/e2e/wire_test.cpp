// The emulation protocol byte by byte on the worked examples of docs/emulation-protocol.md, read
// from the page itself: the node's requests and its reading of the page's replies; and the
// emulator library's answers to malformed requests.
#include "e2e_util.h"

namespace {

using e2e::Bytes;
using e2e::hexBytes;

struct Message {
    std::string kind; // "request", "reply" or "event"
    Bytes bytes;
};

// Every request, reply and event of the page's code blocks, in the page's order. A message
// starts on a line with its kind and goes on over the indented lines below it; on each
// line the bytes end at the first double blank, where the comment starts. "00 x 64" is 64
// zero bytes.
std::vector<Message> docMessages() {
    std::ifstream in(std::string(ZORMESH_SOURCE_DIR) + "/docs/emulation-protocol.md");
    std::vector<Message> out;
    bool inMessage = false;
    for (std::string line; std::getline(in, line);) {
        std::string kind = line.substr(0, line.find(' '));
        bool starts = kind == "request" || kind == "reply" || kind == "event";
        if (!starts && !(inMessage && !line.empty() && line[0] == ' ')) {
            inMessage = false;
            continue;
        }
        size_t from = line.find_first_not_of(' ', starts ? kind.size() : 0);
        std::istringstream fields(
            from == std::string::npos ? "" : line.substr(from, line.find("  ", from) - from));
        Bytes bytes, b;
        for (std::string tok; fields >> tok && hex::parse(tok, &b);) {
            bytes.insert(bytes.end(), b.begin(), b.end());
            size_t n = 0;
            if (fields >> std::ws && fields.peek() == 'x' && fields.get() && fields >> n) {
                bytes.insert(bytes.end(), n - 1, bytes.back());
            }
        }
        if (starts) {
            inMessage = !bytes.empty();
            if (inMessage) {
                out.push_back(Message{kind, bytes});
            }
        } else {
            out.back().bytes.insert(out.back().bytes.end(), bytes.begin(), bytes.end());
        }
    }
    return out;
}

// The page's request of operation `op` and the reply after it.
std::pair<Bytes, Bytes> docExample(uint32_t op) {
    static const std::vector<Message> doc = docMessages();
    for (size_t i = 0; i + 1 < doc.size(); ++i) {
        if (doc[i].kind == "request" && doc[i].bytes[0] == op) {
            return {doc[i].bytes, doc[i + 1].kind == "reply" ? doc[i + 1].bytes : Bytes{}};
        }
    }
    ADD_FAILURE() << "no example of operation " << op;
    return {};
}

// The emulator library's side of the page's examples shows in the scenarios, which run whole
// meshes of nodes against it; here what no node sends: malformed requests.
TEST(Wire, TheEmulatorLibraryRefusesMalformedRequestsAndGoesOn) {
    e2e::TempRoot root;
    emu::ScriptEmulator emu(root.path());
    emu.setUptime(300); // as in the page's hello reply
    emu.setProc("/proc/mesh/config_count", "5\n");
    ASSERT_TRUE(emu.start());
    // Each gets an error and the connection goes on; a read gets no more than it asked for.
    int fd = e2e::connectTo(root + "/emu.sock");
    auto hello = docExample(REMOTE_OP_HELLO);
    Bytes version2 = hello.first;
    version2[8] = 2;
    Bytes refusal = hexBytes("ffffffff 5d000000 b4000000 01000000"); // and our version, 1
    refusal.resize(12 + 180);
    const Bytes eproto = hexBytes("ffffffff 47000000 00000000");
    const std::pair<Bytes, Bytes> cases[] = {
        {hexBytes("01000000"), eproto},                   // half a header
        {hexBytes("02000000 02000000 6c73"), eproto},     // not a hello first
        {version2, refusal},                              // another version
        hello,                                            //
        {hexBytes("02000000 05000000 6c73"), eproto},     // the length is not 2
        {hexBytes("0e000000 04000000 02000000"), eproto}, // a wait of 4 bytes
        {hexBytes("63000000 00000000"), hexBytes("ffffffff 26000000 00000000")}, // ENOSYS
        {hexBytes("03000000 1b000000 01000000 2f70726f632f6d6573682f636f6e6669675f636f756e74"),
         hexBytes("01000000 00000000 01000000 35")},
        {hexBytes("02000000 02000000 6c73"), hexBytes("00000000 00000000 00000000")}, // goes on
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(e2e::sendMsg(fd, c.first));
        EXPECT_EQ(hex::toHex(c.second), hex::toHex(e2e::recvMsg(fd))) << hex::toHex(c.first);
    }
    close(fd);
    EXPECT_EQ(6u, emu.malformedRequests().size());
}

// A handwritten emulator: answers each request, on whichever connection it comes, with the
// next packets of its script, and keeps the requests (as hex) as they arrived. A request
// beyond the script closes its connection.
class RawEmulator {
  public:
    explicit RawEmulator(const std::string& root) : listen_(socket(AF_UNIX, SOCK_SEQPACKET, 0)) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s/emu.sock", root.c_str());
        EXPECT_EQ(0, bind(listen_, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
        EXPECT_EQ(0, listen(listen_, 4));
        thread_ = std::thread([this] { serve(); });
    }
    ~RawEmulator() {
        stop_ = true;
        thread_.join();
    }
    void answer(std::vector<Bytes> packets) {
        std::lock_guard<std::mutex> g(mu_);
        script_.push_back(std::move(packets));
    }
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> g(mu_);
        return std::exchange(requests_, {});
    }

  private:
    void serve() {
        std::vector<pollfd> fds{{listen_, POLLIN, 0}}; // then the connections
        while (!stop_) {
            if (poll(fds.data(), fds.size(), 20) <= 0) {
                continue;
            }
            if ((fds[0].revents & POLLIN) != 0) {
                fds.push_back(pollfd{accept(listen_, nullptr, nullptr), POLLIN, 0});
            }
            for (size_t i = 1; i < fds.size(); ++i) {
                if (fds[i].revents == 0) {
                    continue;
                }
                Bytes request = e2e::recvMsg(fds[i].fd, 0);
                std::lock_guard<std::mutex> g(mu_);
                if (!request.empty()) {
                    requests_.push_back(hex::toHex(request));
                }
                if (request.empty() || script_.empty()) {
                    // Closed by the node, or a request not scripted: the node finds the
                    // emulator gone instead of waiting for an answer that never comes.
                    close(fds[i].fd);
                    fds[i].fd = -1;
                    continue;
                }
                for (const Bytes& p : script_.front()) {
                    e2e::sendMsg(fds[i].fd, p);
                }
                script_.pop_front();
            }
        }
        for (const pollfd& c : fds) {
            close(c.fd);
        }
    }

    int listen_;
    std::mutex mu_;
    std::deque<std::vector<Bytes>> script_;
    std::vector<std::string> requests_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// A hello request of this process at a time scale of 20.
std::string helloOf(uint32_t connection, const char* role) {
    Bytes b = hexBytes("01000000 20000000 01000000 00000000 14000000 00000000");
    b.resize(8 + 32);
    for (int i = 0; i < 4; ++i) {
        b[12 + i] = static_cast<uint8_t>(static_cast<uint32_t>(getpid()) >> 8 * i);
        b[20 + i] = static_cast<uint8_t>(connection >> 8 * i);
    }
    memcpy(&b[24], role, strlen(role));
    return hex::toHex(b);
}

TEST(WireNode, TheNodeSendsThePagesRequestsAndTakesItsReplies) {
    e2e::TempRoot root;
    RawEmulator raw(root.path());
    std::vector<std::string> sent; // what the node must have sent, in order
    auto doc = [&](uint32_t op) {
        auto ex = docExample(op);
        raw.answer({ex.second});
        sent.push_back(hex::toHex(ex.first));
    };
    auto own = [&](const char* request, const char* reply) {
        raw.answer({hexBytes(reply)});
        sent.push_back(hex::toHex(hexBytes(request)));
    };

    // Bad arguments, and emulators that turn the node away at the hello: refused, or
    // answered with less than a header.
    auto refused = std::make_unique<RemoteOs>(); // large: its message buffers
    EXPECT_RESULT(-1, EINVAL, refused->start("relative/root", 20));
    EXPECT_RESULT(-1, EINVAL, refused->start(root.path().c_str(), 0));
    EXPECT_EQ(0x5EEF9DEBu, remote_semKeyForRoot("/tmp/node1")); // the page's worked key

    // A refusal fails with the emulator's errno; a reply without the hello body is EPROTO.
    for (auto refusal : {std::make_pair("ffffffff 0d000000 00000000", EACCES),
                         std::make_pair("ffffffff 5d000000 00000000", EPROTONOSUPPORT),
                         std::make_pair("00000000 00000000 00000000", EPROTO),
                         std::make_pair("0000", ECONNREFUSED)}) {
        raw.answer({hexBytes(refusal.first)});
        refused = std::make_unique<RemoteOs>();
        EXPECT_RESULT(-1, refusal.second, refused->start(root.path().c_str(), 20));
        EXPECT_EQ(std::vector<std::string>{helloOf(1, "main")}, raw.take());
    }

    // The hello brings the device configuration and the uptime; at a time scale of 20 a
    // one-second sleep is 50 ms of real time, and the clocks run 20 times faster.
    e2e::ManualClock clock;
    auto node = std::make_unique<RemoteOs>();
    node->setRealClock(&clock);
    raw.answer({docExample(REMOTE_OP_HELLO).second});
    ASSERT_EQ(0, node->start((root + "/").c_str(), 20)); // the trailing '/' is dropped
    EXPECT_EQ(std::vector<std::string>{helloOf(1, "main")}, raw.take());
    const DeviceConfig& dev = node->deviceConfig();
    EXPECT_STREQ("rai3", dev.bkhApIfName);
    EXPECT_STREQ("apclii0", dev.staIfName);
    EXPECT_EQ(3u, dev.maxVapNum);
    ASSERT_EQ(4u, dev.downLinkPortNum);
    EXPECT_STREQ("eth0.4", dev.downLinkPorts[3]);
    char path[128];
    EXPECT_EQ(root + "/tmp/wireless/mt5g.dat", node->path("/tmp/wireless/mt5g.dat", path, 128));
    EXPECT_EQ(300u, node->uptime());
    time_t wall = node->wallClock();
    node->sleepSeconds(1);
    node->sleepMillis(100);
    EXPECT_EQ((std::vector<uint64_t>{50000, 5000}), clock.slept);
    EXPECT_EQ(301u, node->uptime());
    EXPECT_EQ(wall + 1, node->wallClock());

    // The page's examples, and beside them replies longer than the daemon's buffer and a
    // failure that rewrites the payload: the node copies back no more than it sent.
    char buf[304] = {};
    doc(REMOTE_OP_SHELL);
    EXPECT_EQ(0x100, node->runShell("iwpriv rai3 set HideSSID=1"));
    doc(REMOTE_OP_PROC_READ);
    ASSERT_EQ(2, node->readProc("/proc/mesh/config_count", buf, 16));
    own("03000000 1a000000 02000000 2f70726f632f6d6573682f6c6f6f705f737461747573",
        "03000000 00000000 03000000 34320a");
    EXPECT_EQ(2, node->readProc("/proc/mesh/loop_status", buf + 2, 2));
    EXPECT_EQ("5\n42", std::string(buf, 4));
    doc(REMOTE_OP_PROC_WRITE);
    EXPECT_EQ(0, node->writeProc("/proc/mesh/config_count", "1 0", 4));
    doc(REMOTE_OP_RANDOM);
    ASSERT_EQ(4, node->readRandom(buf, 4));
    EXPECT_EQ(hexBytes("01020304"), Bytes(buf, buf + 4));

    doc(REMOTE_OP_WLAN_SOCKET);
    int s = node->wlanSocket();
    uint8_t payload[4] = {0xde, 0xad, 0xbe, 0xef};
    iwreq iw{};
    snprintf(iw.ifr_name, sizeof iw.ifr_name, "rai3");
    iw.u.data.pointer = payload;
    iw.u.data.flags = 3;
    iw.u.data.length = 4;
    doc(REMOTE_OP_IOCTL);
    ASSERT_EQ(0, node->wlanIoctl(s, 0x8BF5, &iw));
    EXPECT_EQ(hexBytes("cafe0000"), Bytes(payload, payload + 4));
    EXPECT_EQ(2, iw.u.data.length);
    iw.u.data.flags = 1;
    own("07000000 22000000 01000000 f58b0000 00000000 72616933000000000000000000000000 0100 0200"
        "cafe",
        "ffffffff 5f000000 08000000 0400 0000 aabbccdd");
    EXPECT_RESULT(-1, EOPNOTSUPP, node->wlanIoctl(s, 0x8BF5, &iw));
    EXPECT_EQ(hexBytes("aabb0000"), Bytes(payload, payload + 4));
    EXPECT_EQ(4, iw.u.data.length);
    ifreq ifr{};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "br0");
    memset(&ifr.ifr_ifru, 0x11, 16);
    own("07000000 30000000 01000000 33890000 01000000 62723000000000000000000000000000 0000 1000"
        "11111111111111111111111111111111",
        "00000000 00000000 08000000 0000 0000 09000000");
    ASSERT_EQ(0, node->wlanIoctl(s, SIOCGIFINDEX, &ifr));
    EXPECT_EQ(9, ifr.ifr_ifindex);
    EXPECT_EQ(0x11, reinterpret_cast<uint8_t*>(&ifr.ifr_ifru)[15]);

    doc(REMOTE_OP_PACKET_OPEN);
    int p = node->packetOpen(0x0806);
    doc(REMOTE_OP_PACKET_IFINDEX);
    EXPECT_EQ(5, node->packetIfIndex(p, "br0"));
    doc(REMOTE_OP_PACKET_SEND);
    EXPECT_EQ(3, node->packetSend(p, 5, 0x0806, "\x01\x02\x03", 3));
    doc(REMOTE_OP_PACKET_WAIT);
    EXPECT_EQ(1, node->packetWait(p, 100)); // real 5 ms at K = 20
    doc(REMOTE_OP_PACKET_RECV);
    ASSERT_EQ(4, node->packetRecv(p, buf, 42));
    EXPECT_EQ(hexBytes("aabbccdd"), Bytes(buf, buf + 4));
    own("0f000000 08000000 02000000 02000000", "04000000 00000000 04000000 aabbccdd");
    EXPECT_EQ(2, node->packetRecv(p, buf, 2));
    doc(REMOTE_OP_CLOSE);
    node->closeFd(p);
    doc(REMOTE_OP_SEM); // refused with EINTR: the semaphore is not touched
    sembuf take{0, -1, SEM_UNDO};
    EXPECT_RESULT(-1, EINTR, node->semOp(0x8000, &take, 1));

    // Netlink: a connection of its own; after the announcement it carries the driver's
    // events, each read whole or cut at the reader's bound.
    sent.push_back(helloOf(2, "netlink"));
    raw.answer({docExample(REMOTE_OP_HELLO).second});
    doc(REMOTE_OP_NETLINK_OPEN);
    int nl = node->netlinkOpen(38);
    doc(REMOTE_OP_NETLINK_BIND);
    EXPECT_EQ(0, node->netlinkBind(nl, 12345));
    Bytes event = docMessages().back().bytes;
    raw.answer({Bytes(60, 0x5a), event});
    Bytes announce = docExample(REMOTE_OP_NETLINK_SEND).first;
    sent.push_back(hex::toHex(announce));
    EXPECT_EQ(16, node->netlinkSend(nl, announce.data() + 8, 16));
    EXPECT_EQ(24, node->netlinkRecv(nl, buf, 24));
    ASSERT_EQ(32, node->netlinkRecv(nl, buf, sizeof buf));
    EXPECT_EQ(event, Bytes(buf, buf + 32));

    // A reply whose length does not match its body: the emulator is gone for this thread.
    own("02000000 0f000000 6966636f6e66696720726130207570", "00000000 00000000 05000000 00");
    EXPECT_EQ(1, node->runShell("ifconfig ra0 up"));
    EXPECT_RESULT(-1, ENODEV, node->wlanIoctl(s, 0x8BF5, &iw)); // not sent
    EXPECT_EQ(sent, raw.take());
}

} // namespace
