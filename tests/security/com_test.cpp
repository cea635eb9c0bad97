// Messages to the management services, received by listeners at the service sockets under the
// fake root and compared whole against messages written out by hand.
#include "security/mesh_com.h"

#include "security_fixture.h"
#include "service_socket.h"

#include <functional>

namespace {

// `spaced` (hex written by hand), then zero bytes up to `total` bytes.
std::string zeroFilled(const std::string& spaced, size_t total) {
    const std::string h = hexText(spaced);
    return h + std::string(2 * total - h.size(), '0');
}
std::string repeat(const char* hexByte, size_t n) {
    std::string s;
    while (n-- > 0) {
        s += hexByte;
    }
    return s;
}

class ComTest : public ::testing::Test {
  protected:
    FakeOsScope scope;
    FakeOs& fake = scope.fake;
};

TEST_F(ComTest, NotificationsArriveWholeAtTheirServiceSocket) {
    struct Case {
        const char* socket;
        std::function<int()> send;
        bool reportsNoListener;
        std::string message;
    };
    const Case cases[] = {
        {"/var/run/usock/7.sock", [] { return static_cast<int>(mesh_com_notifyMeshState(4)); },
         false, zeroFilled("5553434b 02000000 08100000 15000000 0d002800 04000000 04000000", 4120)},
        {"/var/run/usock/22.sock", mesh_notifyScanDone, true,
         zeroFilled("5553434b 11000000 50030000 15000000 08000000 01000000", 864)},
        {"/var/run/usock/22.sock", mesh_com_notifyIsolated, true,
         zeroFilled("5553434b 11000000 50030000 15000000 01000000 00000000", 864)},
    };
    for (const Case& c : cases) {
        {
            ServiceSocket service(fake.rooted(c.socket));
            ASSERT_TRUE(service.ok());
            EXPECT_EQ(0, c.send());
            EXPECT_EQ(Lines{c.message}, service.take(1)) << c.socket;
        }
        EXPECT_EQ(c.reportsNoListener, c.send() != 0) << c.socket << " without a listener";
    }
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(ComTest, OperationsCarryTheirRecordAndPassOnTheResult) {
    MESH_CONTROLLER_IP_PORT addr{};
    memset(addr.ip, 'a', 79); // the longest text accepted
    addr.value1 = 0x11223344;
    addr.value2 = 443;
    MESH_ORBP_CFG id{};
    strcpy(id.vintacId, "ctl-7");
    id.verCap = 3;
    struct Case {
        std::function<uint32_t()> call;
        uint32_t onZero, onSeven, noListener; // results
        std::string message;
    };
    const Case cases[] = {
        {[&] { return mesh_com_setControllerIpPort(&addr); }, 0, 7, 1,
         hexText("57525051 03002200 0c010000 00000000") + repeat("61", 79) + repeat("00", 181) +
             hexText("44332211 bb010000")},
        {[&] { return mesh_com_setDestVintacId(&id); }, 0, 1, 1,
         hexText("57525051 0f002800 28000000 00000000 63746c2d37") + repeat("00", 31) +
             hexText("03000000")},
        {[] { return mesh_com_setMeshStateToSchedule(2); }, 0, 0, 0,
         hexText("57525051 15001d00 04000000 04000000 02000000")},
    };
    for (int32_t result : {0, 7}) {
        ServiceSocket wrp(fake.rooted("/var/run/wrp.sock"), result);
        ASSERT_TRUE(wrp.ok());
        for (const Case& c : cases) {
            EXPECT_EQ(result == 0 ? c.onZero : c.onSeven, c.call()) << c.message;
            EXPECT_EQ(Lines{c.message}, wrp.take(1));
        }
    }
    for (const Case& c : cases) {
        EXPECT_EQ(c.noListener, c.call()) << "no listener: " << c.message;
    }
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(ComTest, RefusedArgumentsSendNothing) {
    ServiceSocket wrp(fake.rooted("/var/run/wrp.sock"));
    MESH_CONTROLLER_IP_PORT addr{};
    memset(addr.ip, 'a', sizeof addr.ip); // 80 characters
    EXPECT_EQ(1u, mesh_com_setControllerIpPort(&addr));
    EXPECT_TRUE(errorLine(fake.takeStdout(), "mesh_com_setControllerIpPort",
                          "invalid controller IP length"));
    EXPECT_EQ(1u, mesh_com_setControllerIpPort(nullptr));
    EXPECT_EQ(1u, mesh_com_setDestVintacId(nullptr));
    EXPECT_EQ(0u, mesh_com_setMeshStateToSchedule(1)); // the only message that arrives
    EXPECT_EQ(Lines{hexText("57525051 15001d00 04000000 04000000 01000000")}, wrp.take(1));
    EXPECT_EQ("", fake.takeStdout());
}

} // namespace
