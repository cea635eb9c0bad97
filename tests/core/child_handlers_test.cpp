// Child management: the candidate list filled from child-probe events, admission and removal
// of children with their driver records, and the online children.
#include "../wlan/wlan_fixture.h"

#include "core/mesh_config.h"
#include "core/mesh_handle_child.h"
#include "core/mesh_log.h"
#include "platform/wireless.h"
#include "security/mesh_netlink.h"
#include "security/mesh_rsa.h"

#include <array>
#include <cstring>

namespace {

using Mac = std::array<uint8_t, 6>;
Mac dev(uint8_t last) {
    return {0x02, 0, 0, 0, 0, last};
}
Mac sta(uint8_t last) {
    return {0x0a, 0, 0, 0, 0, last};
}

class ChildHandlers : public WlanTest {
  protected:
    void SetUp() override {
        WlanTest::SetUp();
        g_allConfig.meshEnable = 1;
        memcpy(g_allConfig.deviceMac, "\x00\x0c\x43\x01\x02\x03", 6);
        fake().onIoctl(SIOCGIWESSID, [this](FakeOs::Ioctl& r) {
            memcpy(r.data, essid.data(), essid.size());
            return 0;
        });
        ASSERT_EQ(0u, mesh_common_rsa_generateKey(&key));
    }
    // A child-probe event of device `d` from station `s`.
    void hear(const Mac& d, const Mac& s, int8_t signal = -60, uint8_t flags = 1) {
        MESH_CHILD_PROBE p{};
        memcpy(p.deviceMac, d.data(), 6);
        memcpy(p.staMac, s.data(), 6);
        p.drv12 = 0x12;
        p.drv13 = signal;
        p.drv14 = 0x14;
        p.drv15 = 0x15;
        p.flags = flags;
        p.probeAttr = 0x07;
        memset(p.controllerId, 0xc1, sizeof p.controllerId);
        strcpy(p.probeText, "attic");
        p.probeTextAttr = 0x09;
        p.keyLen = 128;
        memcpy(p.key, key.modulus, 128);
        memcpy(p.verCap, "\x00\x00\x01\x02", 4);
        mesh_handle_indicateChild(&p);
    }
    // Type 8: one hex entry per candidate.
    Lines candidates() {
        uint8_t reply[MESH_CMD_PAYLOAD_LEN] = {};
        EXPECT_EQ(0u, mesh_handle_getCandidateChild(reply));
        Lines out;
        for (int i = 0; i < reply[0]; ++i) {
            out.push_back(toHex(reply + MESH_CANDIDATE_CHILD_REPLY_OFF + i * 72, 72));
        }
        return out;
    }
    uint32_t add(const Mac& d, uint8_t digest) {
        uint8_t payload[22];
        memcpy(payload, d.data(), 6);
        memset(payload + 6, digest, 16);
        return mesh_handle_addChild(payload);
    }
    // Child requests at the driver: "add <mac> <data1Len><data2Len>" or "del <mac>", each MAC
    // by its last byte.
    Lines driverChildren() {
        Lines out;
        for (const auto& r : fake().ioctls(RTPRIV_IOCTL_MESH)) {
            const std::string m = toHex(&r.payload[5], 1);
            out.push_back(r.flags == MESH_SUBCMD_DEL_CHILD
                              ? "del " + m
                              : "add " + m + " " + toHex(&r.payload[22], 1) +
                                    toHex(&r.payload[151], 1));
        }
        return out;
    }
    // childList as "<last MAC byte><first digest byte> ...".
    static std::string childList() {
        std::string out;
        for (int i = 0; i < g_allConfig.childNum; ++i) {
            out += toHex(g_allConfig.childList[i].mac + 5, 1) +
                   toHex(g_allConfig.childList[i].digest, 1) + " ";
        }
        return out;
    }

    std::string essid = "mesh_000c43010203"; // the backhaul AP exists
    MESH_RSA_KEY key;
};

TEST_F(ChildHandlers, CandidateAgesOutAfterSixtySecondsAndKeepsTheBestSignal) {
    hear(dev(0xaa), sta(0xaa), -70);
    EXPECT_EQ(Lines{hexText("0200000000aa 0a00000000aa 6174746963" + std::string(54, '0') +
                            "c1c1c1c1c1c1c1c1c1c1c1c1c1c1c1c1 00 07 15 09 12 ba 14 00 02010000")},
              candidates());
    const struct {
        uint32_t advance;
        int8_t signal;
        const char* best;
    } steps[] = {{5, -80, "ba"}, {5, -65, "bf"}, {10, -90, "bf"}, {1, -90, "a6"}};
    for (const auto& s : steps) { // weaker kept; stronger taken; after 10 s anything taken
        fake().advanceSeconds(s.advance);
        hear(dev(0xaa), sta(0xaa), s.signal);
        EXPECT_EQ(s.best, candidates().at(0).substr(130, 2)) << int(s.signal);
    }
    fake().advanceSeconds(60);
    EXPECT_EQ(1u, candidates().size()) << "60 seconds after the last probe";
    fake().advanceSeconds(1);
    EXPECT_TRUE(candidates().empty()) << "61 seconds";
    EXPECT_EQ(0u, mesh_handle_candidateSlot(0)->valid);

    hear(dev(0xaa), sta(0xaa), -60, MESH_CHILD_PROBE_SEARCHING | MESH_CHILD_PROBE_RESET);
    EXPECT_EQ("01", candidates().at(0).substr(120, 2)) << "reset flag";
    hear(dev(0xaa), sta(0xaa), -60, MESH_CHILD_PROBE_RESET); // no longer searching
    EXPECT_TRUE(candidates().empty());
}

TEST_F(ChildHandlers, FullListMakesRoomForAnAdmittedChildOnly) {
    ASSERT_EQ(0u, add(dev(0x01), 0x11));
    for (uint8_t i = 0; i < 20; ++i) {
        hear(dev(0x40 + i), sta(0x40 + i));
    }
    fake().clearRecords();
    hear(dev(0x99), sta(0x99)); // a stranger: dropped
    hear(dev(0x01), sta(0x01)); // the admitted child: takes the first stranger's record
    const Lines c = candidates();
    ASSERT_EQ(20u, c.size());
    EXPECT_EQ("020000000001", c[0].substr(0, 12));
    EXPECT_EQ("020000000041", c[1].substr(0, 12));
    EXPECT_EQ("020000000053", c[19].substr(0, 12));
    EXPECT_EQ(Lines{"add 01 8080"}, driverChildren()) << "its key made its blocks";

    // The same key from another address, and a removal, only move the station address.
    for (uint8_t flags : {1, 0}) {
        fake().clearRecords();
        hear(dev(0x01), sta(0x10 + flags), -60, flags);
        uint8_t stored[6];
        ASSERT_EQ(0u, mesh_getChildStaMac(dev(0x01).data(), stored));
        EXPECT_EQ(toHex(sta(0x10 + flags).data(), 6), toHex(stored, 6));
        EXPECT_TRUE(driverChildren().empty());
    }
    EXPECT_TRUE(errors().empty());
}

TEST_F(ChildHandlers, AddDeleteAndOnlineKeepListTableAndDriverInStep) {
    hear(dev(0x01), sta(0x01)); // heard before it is admitted
    const struct {
        char op; // 'a': add device `n` with digest bytes `digest`; 'd': delete device `n`
        uint8_t n, digest;
        uint32_t rc;
        Lines driver;
        std::string list;
        const char* error = nullptr;
    } steps[] = {
        // The heard child is re-added by its key's arrival, then admitted with both blocks.
        {'a', 1, 0x11, 0, {"add 01 8080", "add 01 8080"}, "0111 "},
        {'a', 2, 0x22, 0, {"add 02 0000"}, "0111 0222 "},
        {'a', 3, 0x33, 0, {"add 03 0000"}, "0111 0222 0333 "},
        {'a', 4, 0x44, 0, {"add 04 0000"}, "0111 0222 0333 0444 "},
        {'a', 5, 0x55, 1, {}, "0111 0222 0333 0444 ", "exceed the allowed max child num"},
        {'a', 1, 0x1f, 0, {"add 01 8080"}, "011f 0222 0333 0444 "},
        {'d', 1, 0, 0, {"del 01"}, "0444 0222 0333 "},
        {'d', 1, 0, 1, {}, "0444 0222 0333 ", "can't find the mac in l_childrsa "},
    };
    for (const auto& s : steps) {
        fake().clearRecords();
        EXPECT_EQ(s.rc,
                  s.op == 'a' ? add(dev(s.n), s.digest) : mesh_handle_delChild(dev(s.n).data()))
            << s.list;
        EXPECT_EQ(s.driver, driverChildren()) << s.list;
        EXPECT_EQ(s.list, childList());
        EXPECT_EQ(s.error != nullptr ? Lines{s.error} : Lines{}, errors()) << s.list;
    }
    EXPECT_EQ((Lines{"Add Child 02-00-00-00-00-01 SUCCESS. digest: 11-11",
                     "Add Child 02-00-00-00-00-02 SUCCESS. digest: 22-22",
                     "Add Child 02-00-00-00-00-03 SUCCESS. digest: 33-33",
                     "Add Child 02-00-00-00-00-04 SUCCESS. digest: 44-44",
                     "Add Child 02-00-00-00-00-05 FAIL. digest: 55-55",
                     "Add Child 02-00-00-00-00-01 SUCCESS. digest: 1f-1f",
                     "Del Child:02-00-00-00-00-01 SUCCESS"}),
              events());

    // Online: child 2's station and a stranger are associated; the stranger is kicked.
    hear(dev(0x02), sta(0x02));
    fake().clearRecords();
    fake().onIoctl(RTPRIV_IOCTL_STA_TABLE, [](FakeOs::Ioctl& r) {
        memset(r.data, 0, 8 + 4 * 56);
        r.data[0] = 2;
        memcpy(r.data + 8, "\x0a\x00\x00\x00\x00\x02", 6);
        memcpy(r.data + 8 + 56, "\x0a\x00\x00\x00\x00\x77", 6);
        r.length = 8 + 4 * 56;
        return 0;
    });
    uint8_t reply[MESH_CMD_PAYLOAD_LEN] = {};
    ASSERT_EQ(0u, mesh_handle_getOnlineChild(reply));
    EXPECT_EQ(1, reply[0]);
    EXPECT_EQ("020000000002", toHex(reply + MESH_ONLINE_CHILD_REPLY_OFF, 6));
    EXPECT_EQ(Lines{"iwpriv rai3 set DisConnectSta=0a:00:00:00:00:77"}, fake().shellLines());
    EXPECT_EQ(Lines{"replace wireless mac with device mac fail"}, errors());
}

TEST_F(ChildHandlers, DriverRefusalLeavesTheTableEntryAndAMissingApIsCreated) {
    essid = "";
    fake().failNth("ioctl 0x8BF5 rai3", 1, EIO);
    EXPECT_EQ(1u, add(dev(7), 0x70));
    EXPECT_NE(std::string::npos, profile().find("SSID4=mesh_000c43010203\n"));
    EXPECT_EQ("", childList());
    EXPECT_EQ((Lines{"call RTPRIV_IOCTL_MESH fail", "add child to drvier fail"}), errors());
    EXPECT_EQ(1u, add(dev(7), 0x70));
    EXPECT_EQ((Lines{"it's an existed mac", "add child rsa entry fail"}), errors());
    EXPECT_EQ(Lines{"Add Child 02-00-00-00-00-07 FAIL. digest: 70-70"}, events());

    g_allConfig.meshEnable = 0; // (the other commands refused then: the command socket's test)
    uint8_t reply[MESH_CMD_PAYLOAD_LEN] = {0xee};
    EXPECT_EQ(1u, mesh_handle_getCandidateChild(reply));
    EXPECT_EQ(0, reply[0]);
}

} // namespace
