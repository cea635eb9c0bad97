// Mesh element updates: the element records exactly as the driver receives them.
#include "wlan/mesh_wlan_ie.h"

#include "radio_fixture.h"

#include <cstring>

namespace {

const char* const kBeacon = "02 5a 13 c7 02 9e 41 b8 6d 33 f0 27 8a d4 69 0b e5 01"
                            "00 11 22 33 44 55";

template <typename T> T fromHex(const char* hex) {
    Bytes b = hexBytes(hex);
    EXPECT_EQ(sizeof(T), b.size());
    T v;
    memcpy(&v, b.data(), sizeof v);
    return v;
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

void expectRequest(const FakeOs::IoctlRecord& r, const char* ifName, uint16_t flags,
                   const Bytes& record) {
    EXPECT_EQ(0x8BE1u, r.request);
    EXPECT_EQ(ifName, r.ifName);
    EXPECT_EQ(flags, r.flags);
    EXPECT_EQ(267, r.length);
    EXPECT_EQ(record, r.payload);
}

using IeTest = RadioTest;

TEST_F(IeTest, BeaconElementOnAnOrdinaryApAndItsRemoval) {
    auto beacon = fromHex<MESH_IE_BASIC>(kBeacon);
    const Bytes record = cat({hexBytes("01 00 00 00  1b 00 00 00  02 5e a7  02  02 5e a7"),
                              hexBytes(kBeacon), Bytes(228, 0)});
    ASSERT_EQ(267u, record.size());

    EXPECT_EQ(0u, mesh_wlan_updateNormalApBeacon("ra1", &beacon));
    EXPECT_EQ(0u, mesh_wlan_deleteNormalApBeacon("ra1", &beacon));
    EXPECT_EQ(0u, mesh_wlan_updateBkhApBeacon(&beacon));
    auto reqs = fake.ioctls();
    ASSERT_EQ(3u, reqs.size());
    expectRequest(reqs[0], "ra1", 0x867E, record);
    expectRequest(reqs[1], "ra1", 0x8680, record);
    expectRequest(reqs[2], "rai3", 0x867E, record);
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(IeTest, StationElementsForProbeAndAssociationRequests) {
    MESH_IE_PROBE_REQ probe;
    for (size_t i = 0; i < sizeof probe; ++i) {
        reinterpret_cast<uint8_t*>(&probe)[i] = static_cast<uint8_t>(0x80 + i);
    }
    Bytes probeBytes(226);
    for (size_t i = 0; i < probeBytes.size(); ++i) {
        probeBytes[i] = static_cast<uint8_t>(0x80 + i);
    }
    EXPECT_EQ(0u, mesh_wlan_updateProbeReq(&probe));
    auto assoc = fromHex<MESH_IE_BASIC>(kBeacon);
    EXPECT_EQ(0u, mesh_wlan_updateAssocReq(&assoc));

    auto reqs = fake.ioctls();
    ASSERT_EQ(2u, reqs.size());
    // ieLength 229; the payload's first byte is the vendor type; the last 26 bytes stay zero.
    expectRequest(reqs[0], "apclii0", 0x867E,
                  cat({hexBytes("02 00 00 00  e5 00 00 00  02 5e a7  80  02 5e a7"), probeBytes,
                       Bytes(26, 0)}));
    expectRequest(reqs[1], "apclii0", 0x867E,
                  cat({hexBytes("08 00 00 00  1b 00 00 00  02 5e a7  02  02 5e a7"),
                       hexBytes(kBeacon), Bytes(228, 0)}));
}

TEST_F(IeTest, ProbeResponseInstalledWithType2ThenType3) {
    MESH_IE_PROBE_RSP rsp;
    memset(&rsp, 0, sizeof rsp);
    rsp.type = 0x77;
    rsp.deviceMac[0] = 0x42;
    rsp.dataLen = 128;
    auto record = [](const char* type) {
        return cat({hexBytes("04 00 00 00  9c 00 00 00  02 5e a7"), hexBytes(type),
                    hexBytes("02 5e a7"), hexBytes(type), Bytes(17, 0), hexBytes("42"), Bytes(5, 0),
                    hexBytes("80"), Bytes(128, 0), Bytes(255 - 3 - 153, 0)});
    };
    EXPECT_EQ(0u, mesh_wlan_updateProbeRes(&rsp));
    auto reqs = fake.ioctls();
    ASSERT_EQ(2u, reqs.size());
    expectRequest(reqs[0], "rai3", 0x867E, record("02"));
    expectRequest(reqs[1], "rai3", 0x867E, record("03"));
    EXPECT_EQ(3, rsp.type);

    // The first refused: no second request, the caller's byte holds 2.
    fake.clearRecords();
    int h = fake.failNth(FakeOs::Op::Ioctl, "0x8BE1 rai3", 1, EPERM);
    EXPECT_EQ(1u, mesh_wlan_updateProbeRes(&rsp));
    EXPECT_TRUE(fake.fired(h));
    EXPECT_EQ(1u, fake.ioctls().size());
    EXPECT_EQ(2, rsp.type);
    EXPECT_TRUE(
        errorLine(fake.takeStdout(), "mesh_wlan_updateProbeRes", "call RT_PRIV_IOCTL fail"));

    // The second refused: both were tried, failure reported.
    fake.clearRecords();
    h = fake.failNth(FakeOs::Op::Ioctl, "0x8BE1 rai3", 2, EPERM);
    EXPECT_EQ(1u, mesh_wlan_updateProbeRes(&rsp));
    EXPECT_TRUE(fake.fired(h));
    EXPECT_EQ(2u, fake.ioctls().size());
    EXPECT_EQ(3, rsp.type);
    EXPECT_TRUE(
        errorLine(fake.takeStdout(), "mesh_wlan_updateProbeRes", "call RT_PRIV_IOCTL fail"));
}

TEST_F(IeTest, RefusedRequestsAndMissingArguments) {
    auto beacon = fromHex<MESH_IE_BASIC>(kBeacon);
    MESH_IE_PROBE_REQ probe;
    memset(&probe, 0, sizeof probe);
    fake.onIoctl(0x8BE1, [](FakeOs::Ioctl&) { return EOPNOTSUPP; });
    EXPECT_EQ(1u, mesh_wlan_updateNormalApBeacon("ra0", &beacon));
    EXPECT_TRUE(
        errorLine(fake.takeStdout(), "mesh_wlan_updateNormalApBeacon", "call RT_PRIV_IOCTL fail"));
    EXPECT_EQ(1u, mesh_wlan_deleteNormalApBeacon("ra0", &beacon));
    EXPECT_TRUE(
        errorLine(fake.takeStdout(), "mesh_wlan_deleteNormalApBeacon", "call RT_PRIV_IOCTL fail"));
    EXPECT_EQ(1u, mesh_wlan_updateProbeReq(&probe));
    EXPECT_TRUE(
        errorLine(fake.takeStdout(), "mesh_wlan_updateProbeReq", "call RT_PRIV_IOCTL fail"));
    EXPECT_EQ(1u, mesh_wlan_updateAssocReq(&beacon));
    EXPECT_TRUE(
        errorLine(fake.takeStdout(), "mesh_wlan_updateAssocReq", "call RT_PRIV_IOCTL fail"));
    EXPECT_EQ(4u, fake.ioctls().size());

    fake.clearRecords();
    EXPECT_EQ(1u, mesh_wlan_updateNormalApBeacon("", &beacon));
    EXPECT_EQ(1u, mesh_wlan_deleteNormalApBeacon("ra0", nullptr));
    EXPECT_EQ(1u, mesh_wlan_updateProbeRes(nullptr));
    EXPECT_TRUE(fake.ioctls().empty());
    EXPECT_EQ("", fake.takeStdout());
}

} // namespace
