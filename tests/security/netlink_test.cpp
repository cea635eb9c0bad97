// The driver's mesh event channel, driven one message at a time through the fake's scripted
// netlink socket.
#include "security/mesh_netlink.h"

#include "test_util.h"

namespace {

Lines g_seen; // "<callback>:<first 8 bytes of the record>"
void onProbe(const void* r) {
    g_seen.push_back("probe:" + toHex(r, 8));
}
void onParent(const void* r) {
    g_seen.push_back("parent:" + toHex(r, 8));
}

// An event message: a header the monitor does not read, the type, the unread word, the record.
Bytes event(uint8_t type, const std::string& record) {
    return hexBytes("ffffffff 1111 2222 33333333 44444444 " + toHex(&type, 1) + "000000 55555555 " +
                    record);
}

class NetlinkTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fake.setProcessId(0x12345);
        ASSERT_EQ(0u, mesh_netlink_monitorOpen(&mon));
    }
    void TearDown() override {
        mesh_netlink_unregisterCallback(1);
        mesh_netlink_unregisterCallback(2);
        g_seen.clear();
    }
    // Delivers one message and returns what the callbacks saw and the error lines.
    Lines step(const Bytes& message) {
        fake.queueNetlink(message);
        mesh_netlink_monitorStep(&mon);
        Lines out = std::exchange(g_seen, {});
        for (const std::string& e : errorTexts(fake.takeStdout())) {
            out.push_back("error:" + e);
        }
        return out;
    }
    FakeOsScope scope;
    FakeOs& fake = scope.fake;
    MESH_NETLINK_MONITOR mon;
};

TEST_F(NetlinkTest, OpeningAnnouncesTheProcessIdAndClearsTheBuffer) {
    const std::string fd = std::to_string(mon.fd);
    EXPECT_EQ((Lines{"netlink-open 38", "netlink-bind " + fd + " 74565",
                     "netlink-send " + hexText("10000000 0000 0000 00000000 45230100")}),
              fake.transcript());
    EXPECT_EQ(Bytes(MESH_NETLINK_BUF_LEN, 0), Bytes(mon.buf, mon.buf + MESH_NETLINK_BUF_LEN));
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(NetlinkTest, EachEventReachesTheCallbackOfItsTypeOverTheOldBytes) {
    ASSERT_EQ(0u, mesh_netlink_registerCallback(1, onProbe));
    ASSERT_EQ(0u, mesh_netlink_registerCallback(2, onParent));
    EXPECT_EQ(Lines{"probe:0102030405060708"}, step(event(1, "0102030405060708 090a")));
    // A shorter message: the bytes beyond it are still those of the one before.
    EXPECT_EQ(Lines{"parent:aabb030405060708"}, step(event(2, "aabb")));
    EXPECT_EQ(Lines{}, step(event(3, "cccc")));
    EXPECT_EQ(Lines{"error:invalid mesh event type"}, step(event(7, "dddd")));
    ASSERT_EQ(0u, mesh_netlink_unregisterCallback(2));
    EXPECT_EQ(Lines{}, step(event(2, "eeee"))) << "no callback: dropped silently";

    // A receive error is reported and the next receive goes on.
    fake.failNth("netlink-recv", 1, EINTR);
    EXPECT_EQ(Lines{"error:receive data error"}, step(event(1, "9999")));
    mesh_netlink_monitorStep(&mon);
    EXPECT_EQ(Lines{"probe:9999030405060708"}, g_seen);

    // At most 304 bytes of a longer message are taken.
    const Bytes longer = event(1, std::string(2 * 376, 'a'));
    step(longer);
    EXPECT_EQ(0xaa, mon.buf[MESH_NETLINK_RECV_MAX - 1]);
    EXPECT_EQ(0x00, mon.buf[MESH_NETLINK_RECV_MAX]);
}

TEST_F(NetlinkTest, RegistrationAcceptsOneCallbackPerType) {
    struct Case {
        char op; // 'r' register, 'u' unregister, 'e' a type-2 event arrives
        int type;
        MESH_NETLINK_CALLBACK cb;
        uint32_t rc;
        Lines out; // what the callbacks saw, error lines
    };
    const Case cases[] = {
        {'r', 3, onProbe, 0, {}},
        {'r', 4, onProbe, 1, {"error:wrong mesh netlink event type"}},
        {'r', 2, nullptr, 1, {"error:callback is empty"}},
        {'r', 2, onParent, 0, {}},
        {'r', 2, onProbe, 1, {"error:the callback of event(2) has been registered"}},
        {'e', 2, nullptr, 0, {"parent:1234000000000000"}}, // the first one stays
        {'u', 4, nullptr, 1, {"error:wrong mesh netlink event type"}},
        {'u', 2, nullptr, 0, {}},
        {'r', 2, onProbe, 0, {}},
        {'e', 2, nullptr, 0, {"probe:1234000000000000"}},
    };
    for (const Case& c : cases) {
        uint32_t rc = 0;
        Lines out;
        if (c.op == 'e') {
            out = step(event(2, "1234"));
        } else {
            rc = c.op == 'r' ? mesh_netlink_registerCallback(c.type, c.cb)
                             : mesh_netlink_unregisterCallback(c.type);
            out = step(event(3, "")); // only collects the error lines
        }
        EXPECT_EQ(c.rc, rc) << c.op << c.type;
        EXPECT_EQ(c.out, out) << c.op << c.type;
    }
}

} // namespace
