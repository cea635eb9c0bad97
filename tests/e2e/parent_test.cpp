// A node brought up as a parent the way the README shows: zormesh-node beside the scriptable
// emulator, the example record of docs/examples sent with zormeshctl; then its netlink
// channel, a child heard, admitted and removed, a re-initialisation, and the mesh taken down
// again.
#include "e2e_util.h"

namespace {

using e2e::Bytes;
using e2e::hexBytes;
using e2e::readFile;
using ::testing::HasSubstr;

const std::string kLabel = "5a13c7029e41b86d33f0278ad4690be5";

class ParentNode : public ::testing::Test {
  protected:
    void SetUp() override {
        emu_.setProc("/proc/mesh/config_count", "0");
        emu_.setProc("/proc/mesh/loop_status", "0");
        emu_.setIfIndex("br0", 5);
        emu_.setIfIndex(emu_.device().staIfName, 7);
        emu_.writeFile("/tmp/wireless/mt5g.dat",
                       "Default\nBssidNum=4\nSSID=\nSSID1=ap\nSSID2=\nSSID3=\nSSID4=\n"
                       "WPAPSK=\nWPAPSK1=\nWPAPSK2=\nWPAPSK3=\nWPAPSK4=\n"
                       "AuthMode=OPEN;OPEN;OPEN;OPEN\nEncrypType=NONE;NONE;NONE;NONE\n"
                       "RekeyMethod=DISABLE;DISABLE;DISABLE;DISABLE\nHideSSID=0;0;0;0\n"
                       "HT_BW=1\nVHT_BW=1\nHT_BSSCoexistence=0\nHT_EXTCHA=0\n"
                       "AutoChannelSelect=3\nChannel=36\n");
        ASSERT_TRUE(emu_.start());
        node_ = std::make_unique<e2e::Child>(std::vector<std::string>{e2e::binPath("zormesh-node"),
                                                                      "--root", root_.path(),
                                                                      "--time-scale", "20"},
                                             root_ + "/node.out", root_ + "/node.err");
        ASSERT_TRUE(e2e::waitForListener(root_ + "/var/run/usock/21.sock", SOCK_STREAM));
    }
    // One command through zormeshctl: its exit status; the reply's payload bytes in *reply.
    int ctl(int type, const std::string& hex = "", Bytes* reply = nullptr) {
        std::vector<std::string> args = {e2e::binPath("zormeshctl"), "--socket",
                                         root_ + "/var/run/usock/21.sock", "raw",
                                         std::to_string(type)};
        if (!hex.empty()) {
            args.push_back(hex);
        }
        int rc = e2e::Child(args, root_ + "/ctl.out", root_ + "/ctl.err").waitExit();
        if (reply != nullptr) {
            std::string line = readFile(root_ + "/ctl.out");
            *reply = hexBytes(line.substr(16, 2 * 1448));
        }
        return rc;
    }
    static std::string exampleRecord() {
        return readFile(std::string(ZORMESH_SOURCE_DIR) + "/docs/examples/parent.hex");
    }
    // The connection (as "cN ") of the first transcript line that contains `text`.
    std::string connectionOf(const std::string& text) {
        for (const auto& l : emu_.transcript()) {
            if (l.find(text) != std::string::npos) {
                return l.substr(0, l.find(' ') + 1);
            }
        }
        return "?";
    }
    bool shellSeen(const std::string& line) {
        auto s = emu_.shellLines();
        return std::find(s.begin(), s.end(), line) != s.end();
    }
    std::string nodeOut() { return readFile(root_ + "/node.out"); }
    // A netlink message as the driver sends it: header, event type, unread word, record.
    static Bytes event(uint32_t type, const std::string& record) {
        const Bytes r = hexBytes(record);
        Bytes m(24 + r.size(), 0);
        const uint32_t len = static_cast<uint32_t>(m.size());
        memcpy(m.data(), &len, 4);
        memcpy(m.data() + 16, &type, 4);
        std::copy(r.begin(), r.end(), m.begin() + 24);
        return m;
    }

    e2e::TempRoot root_;
    emu::ScriptEmulator emu_{root_.path()};
    std::unique_ptr<e2e::Child> node_;
};

TEST_F(ParentNode, TheExampleRecordBringsUpAParentAndTypeFourTakesItDown) {
    ASSERT_EQ(788u, hexBytes(exampleRecord()).size());
    ASSERT_EQ(0, ctl(1, exampleRecord()));

    // The backhaul AP, its switches and label: all before the reply came (the order and
    // the rest are the handler's tests').
    for (const char* line : {"iwpriv rai3 set SSID=mesh_021122334455", "brctl addif br0 rai3",
                             "iwpriv rai3 set ms_checkchild=1"}) {
        EXPECT_TRUE(shellSeen(line)) << line;
    }
    EXPECT_TRUE(emu_.waitFor("ioctl 0x8BF5 rai3 flags=3 len=16 " + kLabel, 0));

    // The netlink channel was announced with the node's process id.
    ASSERT_TRUE(emu_.waitNetlinkReady(e2e::kStartMs));
    const uint32_t pid = static_cast<uint32_t>(node_->pid());
    Bytes hello = hexBytes("10000000 0000 0000 00000000 00000000");
    memcpy(hello.data() + 12, &pid, 4);
    EXPECT_EQ(std::vector<Bytes>{hello}, emu_.netlinkSent());

    // The network check runs on a thread of its own, which disabling ends.
    // Its first step is an ARP probe for the gateway.
    ASSERT_TRUE(emu_.waitFor("packet-open 0x0806", e2e::kStartMs));
    const std::string netChk = connectionOf("packet-open 0x0806");
    ASSERT_EQ(0, ctl(4, "00000000"));
    EXPECT_TRUE(emu_.waitFor(netChk + "bye thread", e2e::kStartMs));
    EXPECT_TRUE(shellSeen("ifconfig rai3 down"));
    EXPECT_TRUE(shellSeen("iwpriv rai3 set ms_blocknochild=0"));
    const std::string log = readFile(root_ + "/tmp/zormesh.log");
    EXPECT_THAT(log, HasSubstr("]mesh changed from enable to disable\r\n"));
    EXPECT_TRUE(node_->running());
}

TEST_F(ParentNode, ASecondRecordReinitialisesWithoutNewThreadsOrANewSecret) {
    ASSERT_EQ(0, ctl(1, exampleRecord()));
    ASSERT_TRUE(emu_.waitNetlinkReady(e2e::kStartMs));
    auto passphrase = [this] {
        for (const auto& l : emu_.shellLines()) {
            if (l.rfind("iwpriv rai3 set WPAPSK=", 0) == 0) {
                return l;
            }
        }
        return std::string("none");
    };
    const std::string first = passphrase();
    EXPECT_TRUE(emu_.waitFor("random 16", 0));
    emu_.clearRecords();
    ASSERT_EQ(0, ctl(1, exampleRecord()));
    // Disabled, then enabled again with the same passphrase: the secret was kept.
    auto shell = emu_.shellLines();
    const auto down = std::find(shell.begin(), shell.end(), "ifconfig rai3 down");
    ASSERT_NE(shell.end(), down);
    EXPECT_NE(shell.end(), std::find(down, shell.end(), "iwpriv rai3 set ms_checkchild=1"));
    EXPECT_EQ(first, passphrase());
    EXPECT_FALSE(emu_.waitFor("random", 0));
    EXPECT_FALSE(emu_.waitFor("hello netlink", 0));
    EXPECT_THAT(readFile(root_ + "/tmp/zormesh.log"), HasSubstr("]mesh reinit\r\n"));
    EXPECT_THAT(nodeOut(), ::testing::Not(HasSubstr("has been registered")));
}

TEST_F(ParentNode, TheNetlinkChannelDispatchesByTypeAndKeepsOldBytes) {
    ASSERT_EQ(0, ctl(1, exampleRecord()));
    ASSERT_TRUE(emu_.waitNetlinkReady(e2e::kStartMs));
    // A whole child probe, then one that carries only a device MAC: the candidate list sees
    // the rest of the first one's bytes again.
    const std::string probe = "0a0000000011 060000000011 01 f0 03 04 01 05" // MACs, driver, flags
                              "63312d30303030303030303030303030"            // controllerId
                              "6669727374207072 6f62657200000000 0000000000000000 0000000000000000"
                              "07 00" +
                              std::string(256, '0') + "00000002";
    ASSERT_EQ(1, emu_.pushNetlink(event(1, probe)));
    ASSERT_EQ(1, emu_.pushNetlink(event(1, "0a0000000022")));
    ASSERT_EQ(1, emu_.pushNetlink(event(7, "00")));
    for (int i = 0; i < 200 && nodeOut().find("invalid mesh event type") == std::string::npos;
         ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_THAT(nodeOut(), HasSubstr("invalid mesh event type\r\n"));

    Bytes list;
    ASSERT_EQ(0, ctl(8, "", &list));
    ASSERT_EQ(2, list[0]);
    const std::string entry = "060000000011" // staMac
                              "6669727374207072 6f62657200000000 0000000000000000 0000000000000000"
                              "63312d30303030303030303030303030"  // controllerId
                              "00 05 04 07 01 f0 03 00 02000000"; // flags, driver values, verCap
    EXPECT_EQ(e2e::hexBytes("0a0000000011" + entry), Bytes(list.begin() + 4, list.begin() + 76));
    EXPECT_EQ(e2e::hexBytes("0a0000000022" + entry), Bytes(list.begin() + 76, list.begin() + 148));
}

TEST_F(ParentNode, AWouldBeChildIsHeardListedAdmittedWithItsBlocksAndRemoved) {
    ASSERT_EQ(0, ctl(1, exampleRecord()));
    ASSERT_TRUE(emu_.waitNetlinkReady(e2e::kStartMs));
    // A child still searching (flags 01) that sends a real 1024-bit RSA modulus.
    const std::string key =
        "9e7ecb6c9228a8003246696d66d49738a09dfdbf42f32e5112d306cb84cac12dff0f98635b615811fed4f8"
        "71451945af79972922f5c755a2498fe758b17941bc0570f9511c6b56d5e6f65a01985576432781c96ef1ce"
        "35c2294e3d4bce184c12f4566a4442eb996ee137fda62db9adc344009e8109af2f22d07712045bd3b4cd";
    ASSERT_EQ(1, emu_.pushNetlink(event(1, "0a0000000033 060000000033 01 f0 03 04 01 05" +
                                               std::string(96, '0') + "00 80" + key + "00000002")));
    Bytes list;
    for (int i = 0; i < 100 && (ctl(8, "", &list) != 0 || list[0] == 0); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_EQ(1, list[0]);
    EXPECT_EQ(hexBytes("0a0000000033 060000000033"), Bytes(list.begin() + 4, list.begin() + 16));

    emu_.clearRecords();
    ASSERT_EQ(0, ctl(5, "0a0000000033 00112233445566778899aabbccddeeff"));
    // The child records handed to the backhaul AP's driver: sub-command 1 adds, 2 removes.
    auto records = [this](uint16_t subCommand) {
        std::vector<Bytes> out;
        for (const auto& io : emu_.ioctls()) {
            if (io.request == 0x8BF5 && io.flags == subCommand) {
                out.push_back(io.payload);
            }
        }
        return out;
    };
    const std::vector<Bytes> adds = records(1);
    // Encrypting for the heard key re-adds the child, then the admission hands over the same
    // record: MAC and digest as sent, two 128-byte blocks encrypted for the child's key.
    ASSERT_EQ(2u, adds.size());
    EXPECT_EQ(adds[0], adds[1]);
    const Bytes& rec = adds[0];
    ASSERT_EQ(280u, rec.size());
    EXPECT_EQ(hexBytes("0a0000000033 00112233445566778899aabbccddeeff 80"),
              Bytes(rec.begin(), rec.begin() + 23));
    EXPECT_EQ(0x80, rec[151]);
    EXPECT_NE(Bytes(128, 0), Bytes(rec.begin() + 23, rec.begin() + 151));
    EXPECT_NE(Bytes(128, 0), Bytes(rec.begin() + 152, rec.end()));

    emu_.clearRecords();
    ASSERT_EQ(0, ctl(6, "0a0000000033"));
    Bytes removal = hexBytes("0a0000000033");
    removal.resize(280);
    EXPECT_EQ(std::vector<Bytes>{removal}, records(2));
    EXPECT_TRUE(shellSeen("iwpriv rai3 set DisConnectSta=06:00:00:00:00:33"));
}

TEST_F(ParentNode, AParentEventReachesTheParentHandlerOfAnIsolatedNode) {
    // No uplink answers: after the network check's time the node is isolated and searches.
    ASSERT_EQ(0, ctl(1, exampleRecord()));
    ASSERT_TRUE(emu_.waitNetlinkReady(e2e::kStartMs));
    const std::string log = root_ + "/tmp/zormesh.log";
    auto waitFor = [](const std::function<bool()>& done) {
        for (int i = 0; i < 1500 && !done(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return done();
    };
    ASSERT_TRUE(waitFor([&] {
        return readFile(log).find("->MESH_STATE_ISOLATED") != std::string::npos;
    })) << readFile(log);
    // The driver answers each site survey with a parent whose pairing block was not made
    // for this node's key: the parent handler stores it and the search fails to decrypt it.
    const std::string info = "000000000000 0a0b0c0d0e0f 24 000000 0e000000 0000" +
                             std::string(256, 'a') + "00" + std::string(256, '0') + "00";
    size_t surveys = 0;
    EXPECT_TRUE(waitFor([&] {
        auto shell = emu_.shellLines();
        const size_t n = static_cast<size_t>(
            std::count(shell.begin(), shell.end(), "iwpriv apclii0 set SiteSurvey=1"));
        if (n > surveys) {
            surveys = n;
            emu_.pushNetlink(event(2, info));
        }
        return nodeOut().find("decrypt failed") != std::string::npos;
    })) << readFile(log);
}

} // namespace
