// The parent handler from the child's side: parent information arriving over netlink, the scan
// that advertises the node, and pairing with a parent whose blocks the test encrypts under
// this node's public key.
#include "security/mesh_parent.h"

#include "../wlan/wlan_fixture.h"
#include "core/mesh_config.h"
#include "security/mesh_netlink.h"
#include "security/mesh_payload.h"
#include "security/mesh_rsa.h"
#include "service_socket.h"
#include "state/mesh_state_internal.h"

#include <thread>

namespace {

const uint8_t kParentMac[6] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
const uint8_t kSecret[16] = {0x5e, 0xc0, 0x00, 0x01, 0xff, 0x80, 0x7f, 0x10,
                             0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x00, 0x99};
const MESH_CONTROLLER_IP_PORT kOwnAddr = {"192.168.1.2", 8080, 1};
const MESH_CONTROLLER_IP_PORT kNewAddr = {"10.0.0.9", 0x0a0b0c0d, 7};

class ParentTest : public WlanTest {
  protected:
    void SetUp() override {
        WlanTest::SetUp();
        setRescanRequest(0);
        g_allConfig.controllerIpPort = kOwnAddr;
        strcpy(g_allConfig.orbpCfg.vintacId, "ctl-9");
        g_allConfig.orbpCfg.verCap = 5;
        ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&ours));
    }
    // The elements installed on the station since the last clear: "probe<flags byte>" (the
    // element starts at byte 15 of the driver's record) or "assoc".
    std::string installed() {
        std::string out;
        for (const auto& r : fake().ioctls(RT_PRIV_IOCTL)) {
            out +=
                r.payload[0] == 2 ? "probe" + std::to_string(r.payload[15 + 18]) + " " : "assoc ";
        }
        return out;
    }
    // What the accessors tell: "<has> <channel> <wireless mode>".
    static std::string stored() {
        return std::to_string(mesh_parentHandler_hasParentInfo()) + " " +
               std::to_string(mesh_parentHandler_getParentChannel()) + " " +
               std::to_string(mesh_parentHandler_getParentWlanMode());
    }
    // Parent information as a parent prepares it: its controller address and (when `id` is
    // given) identity, each encrypted under `addrKey` and `idKey`.
    MESH_PARENT_INFO parent(const MESH_CONTROLLER_IP_PORT& addr, const char* id,
                            const MESH_RSA_KEY& addrKey, const MESH_RSA_KEY& idKey) {
        MESH_PARENT_INFO info{};
        memcpy(info.parentMac, kParentMac, 6);
        info.channel = 36;
        info.wlanMode = 14;
        MESH_PAIR_BLOCK_ADDR a;
        EXPECT_EQ(0u, mesh_payload_buildPairBlockAddr(kSecret, &addr, &a));
        EXPECT_EQ(0u, mesh_common_rsa_encrypt(&addrKey, info.data1, (const uint8_t*)&a));
        if (id != nullptr) {
            MESH_ORBP_CFG o{};
            strcpy(o.vintacId, id);
            o.verCap = 6;
            MESH_PAIR_BLOCK_ID b;
            EXPECT_EQ(0u, mesh_payload_buildPairBlockId(kSecret, &o, &b));
            // A block whose first byte is 0 counts as no block at all (about one in 200
            // encryptions); the padding is random, so encrypting again gives another block.
            uint32_t rc;
            do {
                rc = mesh_common_rsa_encrypt(&idKey, info.data2, (const uint8_t*)&b);
            } while (rc == 0 && info.data2[0] == 0);
            EXPECT_EQ(0u, rc);
            info.data2Len = 128;
        }
        return info;
    }
    MESH_RSA_KEY ours;
};

TEST_F(ParentTest, ParentInformationArrivesOverNetlinkAndAChangedModeAsksForARescan) {
    MESH_NETLINK_MONITOR mon;
    ASSERT_EQ(0u, mesh_netlink_monitorOpen(&mon));
    ASSERT_EQ(0u, mesh_parentHandler_init());
    struct Row {
        uint32_t wlanMode;
        uint8_t channel;
        bool clearFirst; // a scan starts and clears the stored information
        uint32_t rescan;
    } rows[] = {{14, 36, false, 1}, {14, 40, false, 0}, {9, 40, false, 1},
                {0, 44, true, 0},   {0, 44, false, 0},  {9, 44, true, 1}};
    for (const auto& r : rows) {
        if (r.clearFirst) {
            mesh_parentHandler_setParentInfo(nullptr);
            EXPECT_EQ("0 0 0", stored());
        }
        setRescanRequest(0);
        Bytes msg = hexBytes("28010000 0000 0000 00000000 00000000 02000000 00000000");
        msg.resize(24 + 280, 0x5a);
        msg[24 + 12] = r.channel;
        memcpy(&msg[24 + 16], &r.wlanMode, 4);
        fake().queueNetlink(msg);
        mesh_netlink_monitorStep(&mon);
        EXPECT_EQ(r.rescan, getRescanRequest()) << r.wlanMode;
        MESH_PARENT_INFO got;
        ASSERT_EQ(0u, mesh_parentHandler_getParentInfo(&got));
        EXPECT_EQ(toHex(&msg[24], 280), hexOf(got));
        EXPECT_EQ("1 " + std::to_string(r.channel) + " " + std::to_string(r.wlanMode), stored());
    }
    // (Leaving, which frees the type and switches the station off, is in the mesh life test.)
}

// Events on a monitor thread while the command side reads the handler and changes the table:
// every record is stored whole and in order (run under the thread sanitizer, a race shows).
TEST_F(ParentTest, MonitorThreadAndCommandThreadShareTheHandler) {
    MESH_NETLINK_MONITOR mon;
    ASSERT_EQ(0u, mesh_netlink_monitorOpen(&mon));
    ASSERT_EQ(0u, mesh_parentHandler_init());
    constexpr int kEvents = 200;
    for (uint32_t i = 1; i <= kEvents; ++i) {
        Bytes msg = hexBytes("28010000 0000 0000 00000000 00000000 02000000 00000000");
        msg.resize(24 + 280, static_cast<uint8_t>(i));
        memcpy(&msg[24 + 16], &i, 4);
        fake().queueNetlink(msg);
    }
    std::thread monitor([&] {
        for (int i = 0; i < kEvents; ++i) {
            mesh_netlink_monitorStep(&mon);
        }
    });
    uint32_t last = 0;
    MESH_PARENT_INFO got;
    for (int i = 0; i < kEvents; ++i) {
        mesh_netlink_registerCallback(1, [](const void*) {});
        mesh_netlink_unregisterCallback(1);
        if (mesh_parentHandler_getParentInfo(&got) == 0) {
            const uint8_t fill = static_cast<uint8_t>(got.wlanMode); // one record, not two
            EXPECT_TRUE(got.unused0[0] == fill && got.channel == fill && got.unused279 == fill);
            EXPECT_LE(last, got.wlanMode);
            last = got.wlanMode;
        }
    }
    monitor.join();
    EXPECT_EQ("1 200 200", stored());
}

TEST_F(ParentTest, ScanBringsTheStationUpAdvertisesTheNodeAndStartsTheSurvey) {
    const MESH_PARENT_INFO earlier{};
    mesh_parentHandler_setParentInfo(&earlier);
    ASSERT_EQ(0u, mesh_parentHandler_scan());
    EXPECT_EQ(0u, mesh_parentHandler_hasParentInfo());
    EXPECT_EQ((Lines{"ifconfig apclii0 up", "brctl addif br0 apclii0 > /dev/null",
                     "iwpriv apclii0 set ms_checkparent=1", "iwpriv apclii0 set ApCliEnable=0",
                     "iwpriv apclii0 set ms_restorechan=1", "iwpriv apclii0 set SiteSurvey=1"}),
              fake().shellLines());
    EXPECT_EQ("probe1 assoc ", installed()) << "looking for a parent";
    EXPECT_EQ("", fake().takeStdout());

    // Re-advertising after a settings change: only when the station exists, flags 0.
    fake().clearRecords();
    ASSERT_EQ(0u, mesh_parentHandler_updateProbeReq());
    fake().failNth("ioctl 0x8913 apclii0", 1, ENODEV);
    ASSERT_EQ(0u, mesh_parentHandler_updateProbeReq());
    EXPECT_EQ("probe0 ", installed());
}

TEST_F(ParentTest, ConnectJoinsTheParentWithTheDerivedCredentials) {
    MESH_RSA_KEY other;
    ASSERT_EQ(0u, mesh_common_rsa_generateKey(&other));
    // The identity ("ctl-new", 6; none) and the address (10.0.0.9, 0x0a0b0c0d, 7) operations.
    const std::string newId =
        hexText("57525051 0f002800 28000000 00000000 63746c2d6e6577 00*29 06000000");
    const std::string noId = hexText("57525051 0f002800 28000000 00000000", 56);
    const std::string newAddr =
        hexText("57525051 03002200 0c010000 00000000 31302e302e302e39 00*252 0d0c0b0a 07000000");
    const Lines undecryptable = {"openssl decrypt failed\n", "decrypt failed\n",
                                 "unable to get ssid and passphrase"};
    const std::string changed = "controller ip port cfg is changed",
                      idNew = "controller vintacId: ctl-new, verCap:6";
    const struct {
        MESH_PARENT_INFO info;
        int32_t serviceResult;
        uint32_t rc;
        Lines errors = {}, events = {}, messages = {};
    } rows[] = {
        {parent(kNewAddr, "ctl-new", ours, ours), 0, 0, {}, {changed, idNew}, {newId, newAddr}},
        {parent(kOwnAddr, "ctl-9", ours, ours), 0, 0, {}, {"controller vintacId: ctl-9, verCap:6"}},
        {parent(kOwnAddr, nullptr, ours, ours),
         0,
         0,
         {},
         {"parent ap only support orbpv1, can not sync destId"},
         {noId}},
        {parent(kNewAddr, "ctl-new", ours, ours),
         9,
         0,
         {"set controller ip port cfg fail"},
         {changed, idNew, "set destVintacId fail"},
         {newId, newAddr}}, // the service refuses
        {parent(kNewAddr, "ctl-new", other, ours), 0, 1, undecryptable},
        {parent(kNewAddr, "ctl-new", ours, other), 0, 1, undecryptable, {changed}},
    };
    // The passphrase: md5 of the parent's MAC and the secret, computed with `openssl md5`.
    const std::string sta = "iwpriv apclii0 set ";
    const Lines join = {"ifconfig apclii0 up",
                        sta + "channel=36",
                        sta + "ApCliEnable=0",
                        sta + "ApCliAuthMode=WPA2PSK",
                        sta + "ApCliEncrypType=AES",
                        sta + "RekeyMethod=DISABLE",
                        sta + "ApCliWPAPSK=c947147224c3268c73508b30131cf5d7",
                        sta + "ApCliSsid=mesh_001122aabbcc",
                        sta + "ApCliEnable=1"};
    for (size_t i = 0; i < std::size(rows); ++i) {
        const auto& r = rows[i];
        ServiceSocket service(fake().rooted("/var/run/wrp.sock"), r.serviceResult);
        fake().clearRecords();
        mesh_parentHandler_setParentInfo(&r.info);
        EXPECT_EQ(r.rc, mesh_parentHandler_connect()) << i;
        EXPECT_EQ(r.errors, errors()) << i;
        EXPECT_EQ(r.events, events()) << i;
        EXPECT_EQ(r.messages, service.take(r.messages.size())) << i;
        EXPECT_EQ(r.rc == 0 ? join : Lines{}, fake().shellLines()) << i;
        EXPECT_EQ(r.rc == 0 ? "probe0 " : "", installed()) << i;
    }

    fake().clearRecords();
    mesh_parentHandler_setParentInfo(nullptr);
    EXPECT_EQ(1u, mesh_parentHandler_connect());
    EXPECT_EQ(Lines{}, fake().transcript());
    EXPECT_EQ("", fake().takeStdout());
}

} // namespace
