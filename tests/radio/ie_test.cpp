// Mesh element updates: the element records exactly as the driver receives them.
#include "../wlan/wlan_fixture.h"

#include "wlan/mesh_wlan_ie.h"

#include <cstring>

namespace {

using IeTest = WlanTest;

const std::string kBeacon = "02 5a13c7029e41b86d33f0278ad4690be5 01 001122334455";

template <typename T> T fromHex(const std::string& text) {
    Bytes b = hexBytes(text);
    EXPECT_EQ(sizeof(T), b.size());
    T v;
    memcpy(&v, b.data(), sizeof v);
    return v;
}

TEST_F(IeTest, BeaconAndStationElements) {
    auto beacon = fromHex<MESH_IE_BASIC>(kBeacon);
    std::string probeHex; // 226 bytes 80 81 82 ...
    for (int i = 0; i < 226; ++i) {
        char b[3];
        snprintf(b, sizeof b, "%02x", (0x80 + i) & 0xFF);
        probeHex += b;
    }
    auto probe = fromHex<MESH_IE_PROBE_REQ>(probeHex);
    EXPECT_EQ(0u, mesh_wlan_updateNormalApBeacon("ra1", &beacon));
    EXPECT_EQ(0u, mesh_wlan_deleteNormalApBeacon("ra1", &beacon));
    EXPECT_EQ(0u, mesh_wlan_updateBkhApBeacon(&beacon));
    EXPECT_EQ(0u, mesh_wlan_updateAssocReq(&beacon));
    EXPECT_EQ(0u, mesh_wlan_updateProbeReq(&probe));

    // Frame mask, ieLength = 3 + payload, OUI, vendor type, OUI again, payload, zeros to 267.
    const std::string body = "1b000000 025ea7 02 025ea7" + kBeacon + "00*228";
    auto reqs = fake().ioctls();
    ASSERT_EQ(5u, reqs.size());
    expectRequest(reqs[0], 0x8BE1, "ra1", 0x867E, "01000000" + body);
    expectRequest(reqs[1], 0x8BE1, "ra1", 0x8680, "01000000" + body);
    expectRequest(reqs[2], 0x8BE1, "rai3", 0x867E, "01000000" + body);
    expectRequest(reqs[3], 0x8BE1, "apclii0", 0x867E, "08000000" + body);
    // The probe request: ieLength 229, the last 26 bytes of the body stay zero.
    expectRequest(reqs[4], 0x8BE1, "apclii0", 0x867E,
                  "02000000 e5000000 025ea7 80 025ea7" + probeHex + "00*26");
    EXPECT_TRUE(errors().empty());
}

TEST_F(IeTest, ProbeResponseInstalledWithType2ThenType3) {
    MESH_IE_PROBE_RSP rsp;
    memset(&rsp, 0, sizeof rsp);
    rsp.type = 0x77;
    rsp.deviceMac[0] = 0x42;
    rsp.dataLen = 128;
    auto record = [](const char* type) {
        return hexText("04000000 9c000000 025ea7" + std::string(type) + "025ea7" + type +
                           "00*17 42 00*5 80",
                       267);
    };
    EXPECT_EQ(0u, mesh_wlan_updateProbeRes(&rsp));
    auto reqs = fake().ioctls();
    ASSERT_EQ(2u, reqs.size());
    expectRequest(reqs[0], 0x8BE1, "rai3", 0x867E, record("02"));
    expectRequest(reqs[1], 0x8BE1, "rai3", 0x867E, record("03"));
    EXPECT_EQ(3, rsp.type);

    // The first refused: no second request, the caller's byte holds 2. The second refused:
    // both were tried, the failure is reported.
    for (int nth : {1, 2}) {
        fake().clearRecords();
        fake().failNth("ioctl 0x8BE1 rai3", nth, EPERM);
        EXPECT_EQ(1u, mesh_wlan_updateProbeRes(&rsp));
        EXPECT_EQ(size_t(nth), fake().ioctls().size());
        EXPECT_EQ(nth + 1, rsp.type);
        EXPECT_EQ(Lines{"call RT_PRIV_IOCTL fail"}, errors());
    }
}

} // namespace
