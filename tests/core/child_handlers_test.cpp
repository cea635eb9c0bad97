// Child management: the candidate list filled from child-probe events, admission and removal
// of children with their driver records, and the online children.
#include "../wlan/wlan_fixture.h"

#include "core/mesh_config.h"
#include "core/mesh_handle_child.h"
#include "core/mesh_log.h"
#include "platform/wireless.h"
#include "security/mesh_netlink.h"
#include "security/mesh_rsa.h"

#include <cstring>

namespace {

using M = std::array<uint8_t, 6>;
M mac(uint8_t last) {
    return {0x02, 0, 0, 0, 0, last};
}
M sta(uint8_t last) {
    return {0x0a, 0, 0, 0, 0, last};
}

class ChildHandlers : public WlanTest {
  protected:
    void SetUp() override {
        WlanTest::SetUp();
        mesh_config_reset();
        mesh_child_resetForTest();
        mesh_handle_clearCandidateChild();
        ASSERT_EQ(0, mesh_log_open());
        g_allConfig.meshEnable = 1;
        memcpy(g_allConfig.deviceMac, "\x00\x0c\x43\x01\x02\x03", 6);
        strcpy(g_allConfig.controllerIpPort.ip, "10.0.0.2");
        fake().onIoctl(SIOCGIWESSID, [this](FakeOs::Ioctl& r) {
            memcpy(r.data, essid.data(), essid.size());
            return 0;
        });
        ASSERT_EQ(0u, mesh_common_rsa_generateKey(&childKey));
    }
    void TearDown() override {
        if (g_meshLog != nullptr) {
            fclose(g_meshLog);
            g_meshLog = nullptr;
        }
        mesh_child_resetForTest();
        mesh_handle_clearCandidateChild();
        mesh_config_reset();
        WlanTest::TearDown();
    }
    // A child-probe event of `dev` sent from `from`.
    MESH_CHILD_PROBE probe(const M& dev, const M& from, int8_t signal, uint8_t flags = 1) {
        MESH_CHILD_PROBE p{};
        memcpy(p.deviceMac, dev.data(), 6);
        memcpy(p.staMac, from.data(), 6);
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
        memcpy(p.key, childKey.modulus, 128);
        memcpy(p.verCap, "\x00\x00\x01\x02", 4);
        return p;
    }
    void hear(const M& dev, const M& from, int8_t signal = -60, uint8_t flags = 1) {
        const MESH_CHILD_PROBE p = probe(dev, from, signal, flags);
        mesh_handle_indicateChild(&p);
    }
    // Type 8: the reply's entries as hex, one per candidate.
    Lines candidates() {
        uint8_t reply[MESH_CMD_PAYLOAD_LEN] = {};
        EXPECT_EQ(0u, mesh_handle_getCandidateChild(reply));
        Lines out;
        for (int i = 0; i < reply[0]; ++i) {
            out.push_back(toHex(reply + MESH_CANDIDATE_CHILD_REPLY_OFF + i * 72, 72));
        }
        return out;
    }
    uint32_t add(const M& dev, uint8_t digest) {
        uint8_t payload[22];
        memcpy(payload, dev.data(), 6);
        memset(payload + 6, digest, 16);
        return mesh_handle_addChild(payload);
    }
    uint32_t del(const M& dev) { return mesh_handle_delChild(dev.data()); }
    // The child sub-commands the driver received: "add <mac> <data1Len> <data2Len>", "del <mac>".
    Lines driverChildren() {
        Lines out;
        for (const auto& r : fake().ioctls(RTPRIV_IOCTL_MESH)) {
            const std::string m = toHex(r.payload.data(), 6);
            if (r.flags == MESH_SUBCMD_ADD_CHILD) {
                out.push_back("add " + m + " " + toHex(&r.payload[22], 1) + " " +
                              toHex(&r.payload[151], 1));
            } else if (r.flags == MESH_SUBCMD_DEL_CHILD) {
                out.push_back("del " + m);
            }
        }
        return out;
    }
    Lines events() {
        Lines out;
        const std::string log = fake().readFile(MESH_LOG_PATH);
        for (size_t pos = 0, end; (end = log.find("\r\n", pos)) != std::string::npos;
             pos = end + 2) {
            out.push_back(log.substr(pos + 21, end - pos - 21)); // without the stamp
        }
        return out;
    }
    std::string childList() {
        std::string out;
        for (int i = 0; i < g_allConfig.childNum; ++i) {
            out += toHex(g_allConfig.childList[i].mac + 5, 1) +
                   toHex(g_allConfig.childList[i].digest, 1) + " ";
        }
        return out;
    }

    std::string essid = "mesh_000c43010203"; // the backhaul AP exists
    MESH_RSA_KEY childKey;
};

TEST_F(ChildHandlers, CandidateRecordAgesOutAfterSixtySecondsAndKeepsTheBestSignal) {
    hear(mac(0xaa), sta(0xaa), -70);
    // Whole entry, written out by hand: MACs, text, controller id, reset flag, attributes and
    // driver values, the best signal, zero, verCap in host order.
    const std::string entry =
        hexText("0200000000aa 0a00000000aa 6174746963" + std::string(54, '0') +
                "c1c1c1c1c1c1c1c1c1c1c1c1c1c1c1c1 00 07 15 09 12 ba 14 00"
                "02010000");
    EXPECT_EQ(Lines{entry}, candidates());

    struct Step {
        uint32_t advance;
        int8_t signal; // 0: no probe
        const char* best;
    };
    const std::vector<Step> steps = {
        {5, -80, "ba"},  // weaker within 10 s: kept
        {5, -65, "bf"},  // stronger: taken
        {10, -90, "bf"}, // exactly 10 s after it was taken: kept
        {1, -90, "a6"},  // older than 10 s: taken whatever it is
    };
    for (const auto& s : steps) {
        fake().advanceSeconds(s.advance);
        hear(mac(0xaa), sta(0xaa), s.signal);
        const Lines c = candidates();
        ASSERT_EQ(1u, c.size());
        EXPECT_EQ(s.best, c[0].substr(130, 2)) << int(s.signal);
    }
    fake().advanceSeconds(60);
    EXPECT_EQ(1u, candidates().size()) << "60 seconds after the last probe: still there";
    fake().advanceSeconds(1);
    EXPECT_TRUE(candidates().empty()) << "61 seconds: stale";
    EXPECT_EQ(0u, mesh_handle_candidateSlot(0)->valid);

    // The reset flag shows at offset 60; a probe that no longer searches removes its record.
    hear(mac(0xaa), sta(0xaa), -60, MESH_CHILD_PROBE_SEARCHING | MESH_CHILD_PROBE_RESET);
    ASSERT_EQ(1u, candidates().size());
    EXPECT_EQ("01", candidates()[0].substr(120, 2));
    hear(mac(0xaa), sta(0xaa), -60, MESH_CHILD_PROBE_RESET);
    EXPECT_TRUE(candidates().empty());
}

TEST_F(ChildHandlers, FullListMakesRoomForAnAdmittedChildOnly) {
    ASSERT_EQ(0u, add(mac(0x01), 0x11));
    for (uint8_t i = 0; i < 20; ++i) {
        hear(mac(0x40 + i), sta(0x40 + i));
    }
    fake().clearRecords();
    hear(mac(0x99), sta(0x99)); // a stranger: dropped
    hear(mac(0x01), sta(0x01)); // the admitted child: takes the first stranger's record
    const Lines c = candidates();
    ASSERT_EQ(20u, c.size());
    EXPECT_EQ("020000000001", c[0].substr(0, 12));
    EXPECT_EQ("020000000041", c[1].substr(0, 12));
    for (const auto& e : c) {
        EXPECT_EQ(std::string::npos, e.find("020000000099"));
    }
    // Its key arrived: the driver has the child again with both blocks.
    EXPECT_EQ(Lines{"add 020000000001 80 80"}, driverChildren());
    EXPECT_EQ(1u, mesh_handle_candidateSlot(0)->isChild);

    // The same key from another station address only moves the station, as does a removal.
    for (uint8_t flags : {1, 0}) {
        fake().clearRecords();
        const M from = sta(flags == 1 ? 0x02 : 0x03);
        hear(mac(0x01), from, -60, flags);
        uint8_t stored[6];
        ASSERT_EQ(0u, mesh_getChildStaMac(mac(0x01).data(), stored));
        EXPECT_EQ(toHex(from.data(), 6), toHex(stored, 6));
        EXPECT_TRUE(driverChildren().empty());
    }
    EXPECT_EQ("", fake().stdoutText());
}

TEST_F(ChildHandlers, AddDeleteAndOnlineKeepListTableAndDriverInStep) {
    hear(mac(0x01), sta(0x01)); // heard before it is admitted
    struct Step {
        const char* what;
        std::function<uint32_t()> op;
        uint32_t rc;
        Lines driver;
        std::string list;
        const char* error;
    };
    const std::vector<Step> steps = {
        {"heard child",
         [&] { return add(mac(0x01), 0x11); },
         0,
         {"add 020000000001 80 80", "add 020000000001 80 80"},
         "0111 ",
         ""},
        {"unheard",
         [&] { return add(mac(0x02), 0x22); },
         0,
         {"add 020000000002 00 00"},
         "0111 0222 ",
         ""},
        {"third",
         [&] { return add(mac(0x03), 0x33); },
         0,
         {"add 020000000003 00 00"},
         "0111 0222 0333 ",
         ""},
        {"fourth",
         [&] { return add(mac(0x04), 0x44); },
         0,
         {"add 020000000004 00 00"},
         "0111 0222 0333 0444 ",
         ""},
        {"fifth",
         [&] { return add(mac(0x05), 0x55); },
         1,
         {},
         "0111 0222 0333 0444 ",
         "exceed the allowed max child num"},
        {"again, new digest",
         [&] { return add(mac(0x01), 0x1f); },
         0,
         {"add 020000000001 80 80"},
         "011f 0222 0333 0444 ",
         ""},
        {"delete the first",
         [&] { return del(mac(0x01)); },
         0,
         {"del 020000000001"},
         "0444 0222 0333 ",
         ""},
        {"delete it again",
         [&] { return del(mac(0x01)); },
         1,
         {},
         "0444 0222 0333 ",
         "can't find the mac in l_childrsa "},
    };
    for (const auto& s : steps) {
        fake().clearRecords();
        EXPECT_EQ(s.rc, s.op()) << s.what;
        EXPECT_EQ(s.driver, driverChildren()) << s.what;
        EXPECT_EQ(s.list, childList()) << s.what;
        EXPECT_EQ(*s.error != 0 ? Lines{s.error} : Lines{}, errors()) << s.what;
        if (s.driver.size() == 1 && s.driver[0].rfind("del", 0) == 0) {
            // A removed child that was heard is disconnected from its station address.
            EXPECT_EQ(Lines{"iwpriv rai3 set DisConnectSta=0a:00:00:00:00:01"},
                      fake().shellLines());
        }
    }
    EXPECT_EQ((Lines{"Add Child 02-00-00-00-00-01 SUCCESS. digest: 11-11",
                     "Add Child 02-00-00-00-00-02 SUCCESS. digest: 22-22",
                     "Add Child 02-00-00-00-00-03 SUCCESS. digest: 33-33",
                     "Add Child 02-00-00-00-00-04 SUCCESS. digest: 44-44",
                     "Add Child 02-00-00-00-00-05 FAIL. digest: 55-55",
                     "Add Child 02-00-00-00-00-01 SUCCESS. digest: 1f-1f",
                     "Del Child:02-00-00-00-00-01 SUCCESS"}),
              events());
    // Child 2 is heard from its station address.
    hear(mac(0x02), sta(0x02));
    fake().clearRecords();

    // Online: the driver reports the admitted child's station and a stranger.
    fake().onIoctl(RTPRIV_IOCTL_STA_TABLE, [](FakeOs::Ioctl& r) {
        memset(r.data, 0, 8 + 2 * 56);
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
    EXPECT_EQ(std::string(112, '0'), toHex(reply + MESH_ONLINE_CHILD_REPLY_OFF + 56, 56));
    EXPECT_EQ(Lines{"iwpriv rai3 set DisConnectSta=0a:00:00:00:00:77"}, fake().shellLines());
    EXPECT_EQ(Lines{"replace wireless mac with device mac fail"}, errors());
}

TEST_F(ChildHandlers, DriverRefusalTakesTheChildOutOfTheListButNotOutOfTheTable) {
    fake().failNth(FakeOs::Op::Ioctl, "0x8BF5 rai3", 1, EIO);
    EXPECT_EQ(1u, add(mac(0x07), 0x70));
    EXPECT_EQ("", childList());
    EXPECT_EQ((Lines{"call RTPRIV_IOCTL_MESH fail", "add child to drvier fail"}), errors());
    EXPECT_EQ(1u, add(mac(0x07), 0x70));
    EXPECT_EQ((Lines{"it's an existed mac", "add child rsa entry fail"}), errors());
    EXPECT_EQ(Lines{"Add Child 02-00-00-00-00-07 FAIL. digest: 70-70"}, events())
        << "a driver refusal writes no event line";
}

TEST_F(ChildHandlers, MissingBackhaulApIsCreatedBeforeTheChild) {
    essid = "";
    ASSERT_EQ(0u, add(mac(0x01), 0x11));
    EXPECT_NE(std::string::npos, profile().find("SSID4=mesh_000c43010203\n")) << profile();
    const Lines reqs = driverChildren();
    EXPECT_EQ(Lines{"add 020000000001 00 00"}, reqs);
}

TEST_F(ChildHandlers, DisabledMeshRefusesEveryChildCommand) {
    g_allConfig.meshEnable = 0;
    uint8_t reply[MESH_CMD_PAYLOAD_LEN];
    memset(reply, 0xee, sizeof reply);
    EXPECT_EQ(1u, add(mac(1), 1));
    EXPECT_EQ(1u, del(mac(1)));
    EXPECT_EQ(1u, mesh_handle_getOnlineChild(reply));
    EXPECT_EQ(0xee, reply[0]) << "type 7 leaves the reply untouched";
    EXPECT_EQ(1u, mesh_handle_getCandidateChild(reply));
    EXPECT_EQ(0, reply[0]);
    EXPECT_TRUE(fake().ioctls(RTPRIV_IOCTL_MESH).empty());
    EXPECT_EQ(Lines{}, events());
}

} // namespace
