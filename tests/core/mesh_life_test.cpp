// Enabling and disabling the mesh through the dispatcher, as whole transcripts of what the
// driver, the shell and the kernel see; failures part-way; refused counts; and the set
// commands while disabled, unchanged and changed.
#include "../wlan/wlan_fixture.h"

#include "core/mesh_handle_cfg.h"
#include "core/mesh_handle_child.h"
#include "core/mesh_handle_init.h"
#include "core/mesh_log.h"
#include "core/mesh_msg.h"
#include "security/mesh_child.h"
#include "security/mesh_netlink.h"
#include "security/mesh_parent.h"
#include "security/mesh_rsa.h"
#include "state/mesh_netchk.h"
#include "state/mesh_state_internal.h"

#include <algorithm>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

namespace {

const Bytes kMac = hexBytes("021122334455");

class MeshLife : public WlanTest {
  protected:
    void SetUp() override {
        WlanTest::SetUp();
        mesh_handle_resetInit();
        mesh_state_resetModule();
        mesh_netChk_resetModule();
        fake().setIfIndex("br0", 7);
    }
    void TearDown() override {
        mesh_netChk_destroy();
        fake().advanceSeconds(5); // stopped network-check threads wake and end
        mesh_netChk_resetModule();
        mesh_state_resetModule();
        WlanTest::TearDown();
    }

    // A parent's record: ordinary APs ra0 (flagged), ra1 (not flagged), ra2 (flagged, off) in
    // the list of 3, and ra5 flagged beyond it; `children` configured children.
    static MESH_ALL_CONFIG record(uint32_t enable, uint8_t children = 0) {
        MESH_ALL_CONFIG c{};
        c.meshEnable = enable;
        c.gatewayIp = 0xC0A80101;
        c.deviceIp = 0xC0A80102;
        c.netmask = 0xFFFFFF00;
        c.fullSector = 3;
        memcpy(c.deviceMac, kMac.data(), 6);
        c.vlanId = 7;
        strcpy(c.lanIfName, "nas0");
        c.normalApNum = 3;
        const struct {
            int slot;
            uint32_t enable, flags;
            const char* name;
        } aps[] = {{0, 1, 2, "ra0"}, {1, 1, 1, "ra1"}, {2, 0, 2, "ra2"}, {5, 1, 3, "ra5"}};
        for (const auto& a : aps) {
            c.normalApList[a.slot].enable = a.enable;
            c.normalApList[a.slot].flags = a.flags;
            strcpy(c.normalApList[a.slot].ifName, a.name);
        }
        c.childNum = children;
        for (uint8_t i = 0; i < children; i++) {
            const uint8_t mac[6] = {0x0a, 0, 0, 0, 0, uint8_t(i + 1)};
            memcpy(c.childList[i].mac, mac, 6);
            memset(c.childList[i].digest, 0xd0 + i, 16);
        }
        c.basicWlanCfg = MESH_BASIC_WLAN_CFG{0, 2, 5745, 14, 0};
        return c;
    }
    uint32_t cmd(int32_t type, const void* payload = nullptr, size_t len = 0) {
        MESH_CMD_MSG msg{};
        msg.type = type;
        if (len != 0) {
            memcpy(msg.payload, payload, len);
        }
        return mesh_cmd_handle(&msg);
    }
    uint32_t enableBlock(uint32_t enable, uint32_t fullSector = 3) {
        MESH_ALL_CONFIG c = record(enable);
        c.fullSector = fullSector;
        return cmd(MESH_CMD_UPDATE_MESH, &c, MESH_SETTINGS_LEN);
    }
    // Everything but the profile rewrites (checked by the adapter's tests), their lock, the
    // socket and the network check's probes (its thread runs beside the command); ioctls
    // without their payload.
    Lines seam() {
        Lines out;
        for (std::string l : fake().transcript()) {
            if (l.rfind("shell sed ", 0) == 0 || l.rfind("sem-", 0) == 0 || l == "wlan-socket" ||
                l.rfind("packet-", 0) == 0) {
                continue;
            }
            if (l.rfind("ioctl ", 0) == 0) {
                l = l.substr(0, l.find(' ', l.find(" len=") + 1));
            }
            out.push_back(l);
        }
        fake().clearRecords();
        return out;
    }
    // Children 1 to 3 configured: 1 admitted and heard (station 06:00:00:00:00:01, a key), 2
    // admitted but not heard, 3 without a slot.
    void admittedChildren() {
        g_allConfig = record(0, 3);
        MESH_RSA_KEY key;
        ASSERT_EQ(0u, mesh_common_rsa_generateKey(&key));
        MESH_CHILD_RECORD r{};
        for (uint8_t i = 0; i < 2; i++) {
            memcpy(r.mac, g_allConfig.childList[i].mac, 6);
            ASSERT_EQ(0u, mesh_addChildRsaEntry(&r));
        }
        MESH_CANDIDATE_CHILD cand{};
        memcpy(cand.info.deviceMac, g_allConfig.childList[0].mac, 6);
        cand.keyLen = static_cast<uint8_t>(key.modulusLen);
        memcpy(cand.key, key.modulus, key.modulusLen);
        ASSERT_EQ(0u, mesh_updateChildRsaData(&cand, hexBytes("060000000001").data()));
        fake().clearRecords();
    }
    void existingBackhaul() {
        fake().onIoctl(0x8B1B, [](FakeOs::Ioctl& io) {
            memcpy(io.data, "mesh_021122334455", 17);
            return 0;
        });
    }
};

// A transcript written as one text: steps separated by '|'; a step that names no other
// operation is a shell line. Ioctl lines carry no payload here; the payloads that matter are
// compared whole below.
Lines steps(const std::string& text) {
    Lines out;
    for (size_t pos = 0, end = 0; end != std::string::npos; pos = end + 1) {
        end = text.find('|', pos);
        std::string step = text.substr(pos, end == std::string::npos ? end : end - pos);
        const bool other = step.rfind("ioctl ", 0) == 0 || step.rfind("proc-write ", 0) == 0;
        out.push_back(other ? step : "shell " + step);
    }
    return out;
}
Lines operator+(Lines a, const Lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const std::string kLabel = "5a13c7029e41b86d33f0278ad4690be5";
const std::string kRadio = "iwpriv rai3 set HtBw=0|iwpriv rai3 set VhtBw=0|iwpriv rai3 set "
                           "HtBssCoex=0|iwpriv rai3 set HtExtcha=0|iwpriv rai3 set "
                           "AutoChannelSel=0|iwpriv rai3 set Channel=149";
const std::string kBkhApOn = "ifconfig rai3 up|brctl addif br0 rai3 > /dev/null|iwpriv rai3 set "
                             "ApMWDS=1";
const Lines kBkhApCreated = steps(
    "ifconfig rai3 up|" + kRadio +
    "|iwpriv rai3 set ms_blocknochild=1|iwpriv rai3 set AuthMode=WPA2PSK|iwpriv rai3 set "
    "EncrypType=AES|iwpriv rai3 set RekeyMethod=DISABLE|iwpriv rai3 set "
    "WPAPSK=5e7af1813fe0bcb244bd96b3e38a737b|iwpriv rai3 set SSID=mesh_021122334455|iwpriv rai3 "
    "set HideSSID=1|brctl addif br0 rai3");
const Lines kBkhApReapplied = steps(kBkhApOn + "|iwpriv rai3 set ms_blocknochild=1|" + kRadio);
// From switching the backhaul AP on to the last of the four children: the same for both.
// ra1 lacks the flag, ra2 is off, ra5 lies beyond normalApNum and is still visited; then the
// backhaul beacon and the probe responses (type 2, type 3).
const Lines kEnableTail = steps(
    kBkhApOn +
    "|ioctl 0x8BF5 rai3 flags=3 len=16|iwpriv rai3 set ms_checkchild=1|iwpriv rai3 set "
    "ms_vlanid=7|iwpriv rai3 set ms_fullsector=3|ioctl 0x8BE1 ra0 flags=34430 len=267|ioctl "
    "0x8BE1 ra5 flags=34430 len=267|ioctl 0x8913 apclii0 flags=0 len=0|iwpriv apclii0 set "
    "ms_checkparent=1|ioctl 0x8BE1 rai3 flags=34430 len=267|ioctl 0x8BE1 rai3 flags=34430 "
    "len=267|ioctl 0x8BE1 rai3 flags=34430 len=267|ioctl 0x8BF5 rai3 flags=1 len=280|ioctl 0x8BF5 "
    "rai3 flags=1 len=280|ioctl 0x8BF5 rai3 flags=1 len=280|ioctl 0x8BF5 rai3 flags=1 len=280");
// Kernel lines of the network check, the parent handler's station off, the beacon of the
// first normalApNum slots only, four children, the backhaul AP off.
const std::string kDelChild = "|ioctl 0x8BF5 rai3 flags=2 len=280|iwpriv rai3 set "
                              "DisConnectSta=00:00:00:00:00:00";
const Lines kDisable =
    steps("proc-write /proc/mesh/config_count 1 0\\x00|proc-write /proc/mesh/config_count 3 "
          "0\\x00|iwpriv rai3 set ms_checkchild=0|iwpriv apclii0 set ms_checkparent=0|ioctl "
          "0x8913 apclii0 flags=0 len=0|brctl delif br0 apclii0 > /dev/null|ifconfig apclii0 "
          "down|ioctl 0x8BE1 ra0 flags=34432 len=267" +
          kDelChild + kDelChild + kDelChild + kDelChild +
          "|brctl delif br0 rai3 > /dev/null|ifconfig rai3 down|iwpriv rai3 set "
          "ms_blocknochild=0");
// The probe-request element rebuilt on the mesh station.
const Lines kProbeReq =
    steps("ioctl 0x8913 apclii0 flags=0 len=0|ioctl 0x8BE1 apclii0 flags=34430 len=267");

TEST_F(MeshLife, EnablingAndDisablingRunInTheirOrderForAFreshAndAnExistingBackhaul) {
    for (bool existing : {false, true}) {
        SCOPED_TRACE(existing ? "existing backhaul" : "fresh backhaul");
        if (existing) {
            existingBackhaul();
        }
        g_allConfig = record(0, 4);
        g_allConfig.childList[3].digest[1] = 0x5c;
        ASSERT_EQ(0u, enableBlock(1));
        const auto req = fake().ioctls();
        auto sent = [&req](size_t i) {
            return toHex(req[i].payload.data(), req[i].payload.size());
        };
        EXPECT_EQ(steps("ioctl 0x8B1B rai3 flags=0 len=32") +
                      (existing ? kBkhApReapplied : kBkhApCreated) + kEnableTail,
                  seam());
        EXPECT_EQ(1u, g_allConfig.meshEnable);
        // The label, the beacon and the probe-response template the handler built, and the
        // last child, as the driver received them (the second template differs only in the
        // type byte the adapter sets).
        ASSERT_EQ(12u, req.size());
        EXPECT_EQ(hexText(kLabel), sent(1));
        EXPECT_EQ(
            hexText("01000000 1b000000 025ea7 02 025ea7 02" + kLabel + "01 021122334455", 267),
            sent(2));
        EXPECT_EQ(
            hexText("04000000 9c000000 025ea7 02 025ea7 02" + kLabel + "01 021122334455 80", 267),
            sent(6));
        EXPECT_EQ(hexText("0a0000000004 d35cd3d3d3d3d3d3d3d3d3d3d3d3d3d3 00", 280), sent(11));
        for (size_t i = 0; i < MESH_CHILD_RSA_SLOTS; i++) {
            EXPECT_EQ(i + 1, mesh_child_slot(i)->mac[5]);
        }

        ASSERT_EQ(0u, enableBlock(0));
        EXPECT_EQ(kDisable, seam());
        EXPECT_EQ(0u, g_allConfig.meshEnable);
        EXPECT_EQ(4u, g_allConfig.childNum); // the list stays as configured
        EXPECT_EQ(0u, mesh_child_slot(0)->inUse);
        EXPECT_TRUE(errors().empty());
    }
    const Lines once = {"mesh changed from disable to enable",
                        "target ip 192.168.1.1 gateway 192.168.1.1 mask 255.255.255.0",
                        "init Add Child 0a-00-00-00-00-01 SUCCESS. digest: d0-d0",
                        "init Add Child 0a-00-00-00-00-02 SUCCESS. digest: d1-d1",
                        "init Add Child 0a-00-00-00-00-03 SUCCESS. digest: d2-d2",
                        "init Add Child 0a-00-00-00-00-04 SUCCESS. digest: d3-5c",
                        "mesh changed from enable to disable"};
    EXPECT_EQ(once + once, events());
}

struct Failure {
    bool disabling;
    const char* match; // the failing ioctl: request and interface
    int nth;
    const char* error;
};
class MeshFailure : public MeshLife, public ::testing::WithParamInterface<Failure> {};

TEST_P(MeshFailure, LeavesMeshEnableAsItWasAndTheLockFree) {
    const Failure& f = GetParam();
    g_allConfig = record(0, 2);
    if (f.disabling) {
        ASSERT_EQ(0u, enableBlock(1));
        fake().takeStdout();
    }
    const int rule = fake().failNth(f.match, f.nth, EIO);
    EXPECT_EQ(1u, enableBlock(f.disabling ? 0 : 1));
    EXPECT_TRUE(fake().fired(rule));
    const Lines e = errors(); // the adapter's line, the step's, and the type 4 summary
    EXPECT_NE(e.end(), std::find(e.begin(), e.end(), f.error));
    EXPECT_EQ(f.disabling ? f.error : "enable mesh fail", e.back());
    EXPECT_EQ(f.disabling ? 1u : 0u, g_allConfig.meshEnable);
    ASSERT_EQ(0, pthread_mutex_trylock(&g_configMutex));
    pthread_mutex_unlock(&g_configMutex);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, MeshFailure,
    ::testing::Values(Failure{false, "ioctl 0x8BF5 rai3", 1, "set label fail"},
                      Failure{false, "ioctl 0x8BE1 ra5", 1, "update beacon for ra5 fail"},
                      Failure{false, "ioctl 0x8BF5 rai3", 3, "add child fail"},
                      Failure{true, "ioctl 0x8BE1 ra0", 1, "delete normal ap beacon fail"},
                      Failure{true, "ioctl 0x8BF5 rai3", 2, "delete child fail"}));

TEST_F(MeshLife, CountsAboveTheListsAreRefusedWhole) {
    g_allConfig = record(0, 1);
    const MESH_ALL_CONFIG before = g_allConfig;
    MESH_ALL_CONFIG tooManyChildren = record(1, 4), tooManyAps = record(1);
    tooManyChildren.childNum = 5;
    tooManyAps.normalApNum = 17;
    MESH_NORMAL_AP_LIST apList{};
    apList.count = 17;
    EXPECT_EQ(1u, cmd(MESH_CMD_INIT_MESH, &tooManyChildren, sizeof tooManyChildren));
    EXPECT_EQ(1u, cmd(MESH_CMD_INIT_MESH, &tooManyAps, sizeof tooManyAps));
    EXPECT_EQ(1u, cmd(MESH_CMD_UPDATE_AP, &apList, sizeof apList));
    EXPECT_EQ((Lines{"invalid child num 5", "invalid ap num 17", "invalid ap num 17"}), errors());
    EXPECT_TRUE(seam().empty());
    EXPECT_EQ(0, memcmp(&before, &g_allConfig, sizeof before));
}

// One setting per row: its command, the stored field, two values, and what the driver sees
// when the second value reaches an enabled mesh.
struct SetCase {
    int32_t type;
    size_t offset, len;
    const char* first;
    const char* second;
    Lines changed;
};

TEST_F(MeshLife, SetCommandsStoreWhileDisabledIgnoreRepeatsAndApplyChanges) {
    // Only the heard child has blocks to encrypt again; it is removed and admitted anew.
    const Lines kReencrypted = {"ioctl 0x8BF5 rai3 flags=2 len=280",
                                "shell iwpriv rai3 set DisConnectSta=06:00:00:00:00:01",
                                "ioctl 0x8BF5 rai3 flags=1 len=280"};
    admittedChildren();
    const MESH_ALL_CONFIG base = g_allConfig;
    const SetCase cases[] = {
        {MESH_CMD_UPDATE_DIGEST, 58, 16, "11111111111111111111111111111111",
         "22222222222222222222222222222222", kProbeReq},
        {MESH_CMD_SET_CONTROLLER_ID, 35, 16, "63312d30303030303030303030303030",
         "63322d30303030303030303030303030", kProbeReq},
        {MESH_CMD_SET_RESET_FLAG, 52, 4, "01000000", "00000000", kProbeReq},
        {MESH_CMD_SET_CONTROLLER_IP_PORT, 616, 88, "31302e302e302e3100", "31302e302e302e3200",
         kReencrypted},
        {MESH_CMD_SET_ORBP_CFG, 740, 40, "6964312d61", "6964322d61", kReencrypted},
        {MESH_CMD_SET_BASIC_WLAN_CFG,
         716,
         20,
         "00000000 02000000 71160000 0e000000 00000000",
         "00000000 02000000 3c140000 0e000000 00000000",
         {"shell iwpriv rai3 set HtBw=0", "shell iwpriv rai3 set VhtBw=0",
          "shell iwpriv rai3 set HtBssCoex=0", "shell iwpriv rai3 set HtExtcha=0",
          "shell iwpriv rai3 set AutoChannelSel=0", "shell iwpriv rai3 set Channel=36"}},
        {MESH_CMD_SET_BASIC_WLAN_CFG,
         716,
         20,
         "00000000 02000000 71160000 0e000000 00000000",
         "00000000 02000000 71160000 0f000000 01000000",
         {}}, // same channel and width
        {MESH_CMD_SET_ADV_WLAN_CFG, 736, 4, "01000000", "02000000", {}},
    };
    for (const SetCase& c : cases) {
        SCOPED_TRACE(c.type);
        const Bytes first = hexBytes(c.first), second = hexBytes(c.second);
        auto stored = [&] {
            return toHex(reinterpret_cast<uint8_t*>(&g_allConfig) + c.offset, first.size());
        };
        g_allConfig = base;
        EXPECT_EQ(0u, cmd(c.type, first.data(), first.size()));
        EXPECT_EQ(toHex(first.data(), first.size()), stored());
        EXPECT_TRUE(seam().empty());
        g_allConfig.meshEnable = 1;
        EXPECT_EQ(0u, cmd(c.type, first.data(), first.size()));
        EXPECT_TRUE(seam().empty());
        EXPECT_EQ(0u, cmd(c.type, second.data(), second.size()));
        EXPECT_EQ(toHex(second.data(), second.size()), stored());
        EXPECT_EQ(c.changed, seam());
    }
    EXPECT_TRUE(errors().empty());
}

TEST_F(MeshLife, AVlanIdActsEvenWhileDisabledAndKicksEachAdmittedChildOnce) {
    admittedChildren();
    const uint16_t vlan = 9;
    EXPECT_EQ(0u, cmd(MESH_CMD_SET_VLAN_ID, &vlan, 2));
    EXPECT_EQ(Lines{"get wireless mac failed"}, errors()); // child 3 has no slot
    const Lines kicks = {"shell iwpriv rai3 set ms_vlanid=9",
                         "shell iwpriv rai3 set DisConnectSta=06:00:00:00:00:01",
                         "shell iwpriv rai3 set DisConnectSta=00:00:00:00:00:00"};
    EXPECT_EQ(kicks + kProbeReq, seam());
    EXPECT_EQ(9u, g_allConfig.vlanId);
    g_allConfig.meshEnable = 1;
    EXPECT_EQ(0u, cmd(MESH_CMD_SET_VLAN_ID, &vlan, 2));
    EXPECT_TRUE(seam().empty());
    EXPECT_EQ(0u, cmd(MESH_CMD_SET_VLAN_ID, "\x0a\xff\x01", 4)); // two bytes are read
    EXPECT_EQ("shell iwpriv rai3 set ms_vlanid=65290", seam().front());
    EXPECT_EQ((Lines{"set vlanid to 9", "set vlanid to 65290"}), events());
}

} // namespace
