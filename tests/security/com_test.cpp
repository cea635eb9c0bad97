// Messages to the management services, received by listeners at the service sockets under the
// fake root and compared whole against messages written out by hand. (The controller address
// and identity as a parent hands them over are checked in the parent handler's tests.)
#include "security/mesh_com.h"

#include "../wlan/wlan_fixture.h"
#include "service_socket.h"

#include <functional>

namespace {

TEST(ComTest, EachMessageArrivesWholeAtItsSocketAndFailsAsDocumentedWithoutListener) {
    FakeOsScope scope;
    MESH_CONTROLLER_IP_PORT longest{};
    memset(longest.ip, 'a', 79);
    longest.value1 = 0x11223344;
    longest.value2 = 443;
    const MESH_ORBP_CFG id{"ctl-7", {}, 3};
    struct Case {
        const char* socket;
        std::function<int()> send;
        int noListener; // result when nobody listens
        std::string message;
    };
    const Case cases[] = {
        {"usock/7.sock", [] { return static_cast<int>(mesh_com_notifyMeshState(4)); }, 0,
         hexText("5553434b 02000000 08100000 15000000 0d002800 04000000 04000000", 4120)},
        {"usock/22.sock", mesh_notifyScanDone, -1,
         hexText("5553434b 11000000 50030000 15000000 08000000 01000000", 864)},
        {"usock/22.sock", mesh_com_notifyIsolated, -1,
         hexText("5553434b 11000000 50030000 15000000 01000000 00000000", 864)},
        {"wrp.sock", [] { return static_cast<int>(mesh_com_setMeshStateToSchedule(2)); }, 0,
         hexText("57525051 15001d00 04000000 04000000 02000000")},
        {"wrp.sock", [&] { return static_cast<int>(mesh_com_setDestVintacId(&id)); }, 1,
         hexText("57525051 0f002800 28000000 00000000 63746c2d37 00*31 03000000")},
        {"wrp.sock", [&] { return static_cast<int>(mesh_com_setControllerIpPort(&longest)); }, 1,
         hexText("57525051 03002200 0c010000 00000000 61*79 00*181 44332211 bb010000")},
    };
    for (const Case& c : cases) {
        {
            ServiceSocket service(scope.fake.rooted("/var/run/") + c.socket);
            EXPECT_EQ(0, c.send()) << c.socket;
            EXPECT_EQ(Lines{c.message}, service.take(1)) << c.socket;
        }
        EXPECT_EQ(c.noListener, c.send()) << c.socket << " without a listener";
    }
    EXPECT_EQ("", scope.fake.takeStdout());

    // One character more is refused before anything is sent.
    ServiceSocket wrp(scope.fake.rooted("/var/run/wrp.sock"));
    longest.ip[79] = 'a';
    EXPECT_EQ(1u, mesh_com_setControllerIpPort(&longest));
    EXPECT_EQ(Lines{"invalid controller IP length"}, errorTexts(scope.fake.takeStdout()));
    EXPECT_EQ(Lines{}, wrp.take(0));
}

} // namespace
