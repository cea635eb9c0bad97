// The child table: its four slots, and the pairing blocks it encrypts for each child and hands
// to the driver, decrypted here with the child's own private key.
#include "../wlan/wlan_fixture.h"

#include "core/mesh_config.h"
#include "security/mesh_child.h"
#include "security/mesh_rsa.h"

#include <functional>

namespace {

const uint8_t kMac[5][6] = {{2, 0, 0, 0, 0, 0xa1},
                            {2, 0, 0, 0, 0, 0xb2},
                            {2, 0, 0, 0, 0, 0xc3},
                            {2, 0, 0, 0, 0, 0xd4},
                            {2, 0, 0, 0, 0, 0xe5}};
const uint8_t kSta1[6] = {0x0a, 0x11, 0x11, 0x11, 0x11, 0x11};
const uint8_t kSta2[6] = {0x0a, 0x22, 0x22, 0x22, 0x22, 0x22};

class ChildTableTest : public WlanTest {
  protected:
    void SetUp() override {
        WlanTest::SetUp();
        for (size_t i = 0; i < sizeof g_meshRandom; ++i) {
            g_meshRandom[i] = static_cast<uint8_t>(i);
        }
        g_allConfig.controllerIpPort = {"10.0.0.2", 443, 7};
        strcpy(g_allConfig.orbpCfg.vintacId, "CTL-1");
        g_allConfig.orbpCfg.verCap = 0x0102;
    }
    static uint32_t add(const uint8_t* mac) {
        MESH_CHILD_RECORD r{};
        memcpy(r.mac, mac, 6);
        return mesh_addChildRsaEntry(&r);
    }
    // The child-management requests the driver received: "add <record hex>", "del <mac hex>".
    Lines childRequests() {
        Lines out;
        for (const auto& r : fake().ioctls(RTPRIV_IOCTL_MESH)) {
            EXPECT_EQ(280u, r.payload.size());
            out.push_back(r.flags == MESH_SUBCMD_ADD_CHILD
                              ? "add " + toHex(r.payload.data(), r.payload.size())
                              : "del " + toHex(r.payload.data(), 6));
        }
        fake().clearRecords();
        return out;
    }
    static std::string decrypted(const MESH_RSA_KEY& key, const uint8_t* block) {
        Bytes plain(MESH_RSA_PLAIN_LEN, 0);
        EXPECT_EQ(0u, mesh_common_rsa_decrypt(&key, plain.data(), block));
        return toHex(plain.data(), plain.size());
    }

    const std::string secret = "000102030405060708090a0b0c0d0e0f";
};

TEST_F(ChildTableTest, FourSlotsClaimedLowestFirstAndReleasedWhole) {
    uint8_t sta[6];
    const struct {
        std::function<uint32_t()> op;
        uint32_t rc;
        Lines errors;
    } steps[] = {
        {[] { return add(kMac[0]) | add(kMac[1]) | add(kMac[2]) | add(kMac[3]); }, 0, {}},
        {[] { return add(kMac[4]); }, 1, {"child rsa entry is full"}},
        {[&] { return mesh_delChildRsaEntry(kMac[1], sta); }, 0, {}},
        {[] { return add(kMac[2]); }, 1, {"it's an existed mac"}}, // although a slot is free
        {[&] { return mesh_delChildRsaEntry(kMac[1], sta); },
         1,
         {"can't find the mac in l_childRsa"}},
        {[&] { return mesh_getChildStaMac(kMac[1], sta); }, 1, {}},
        {[] { return add(kMac[4]); }, 0, {}}, // into the freed slot 1
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        EXPECT_EQ(steps[i].rc, steps[i].op()) << i;
        EXPECT_EQ(steps[i].errors, errors()) << i;
    }
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(toHex(kMac[i == 1 ? 4 : i], 6), toHex(mesh_child_slot(i)->mac, 6)) << i;
    }
}

TEST_F(ChildTableTest, BlocksMadeForTheHeardKeyAndRemadeOnControllerChanges) {
    MESH_RSA_KEY key;
    ASSERT_EQ(0u, mesh_common_rsa_generateKey(&key)); // the child's own key
    // Slot 0: never heard; slot 1: heard. Both configured, digests 11.. and 5d..
    g_allConfig.childNum = 2;
    memcpy(g_allConfig.childList[0].mac, kMac[0], 6);
    memcpy(g_allConfig.childList[1].mac, kMac[1], 6);
    memset(g_allConfig.childList[0].digest, 0x11, 16);
    memset(g_allConfig.childList[1].digest, 0x5d, 16);
    ASSERT_EQ(0u, add(kMac[0]) | add(kMac[1]));
    MESH_CANDIDATE_CHILD heard{};
    memcpy(heard.info.deviceMac, kMac[1], 6);
    heard.keyLen = 128;
    memcpy(heard.key, key.modulus, 128);

    ASSERT_EQ(0u, mesh_updateChildRsaData(&heard, kSta1));
    Lines reqs = childRequests();
    ASSERT_EQ(1u, reqs.size());
    Bytes rec = hexBytes(reqs[0].substr(4));
    EXPECT_EQ(hexText("0200000000b2 5d*16 80"), toHex(rec.data(), 23));
    EXPECT_EQ("80", toHex(&rec[151], 1));
    EXPECT_EQ(hexText(secret + "31302e302e302e32 00*72 000001bb00000007 00*13"),
              decrypted(key, &rec[23]));
    EXPECT_EQ(hexText(secret + "43544c2d31 00*28 00000102 00*64"), decrypted(key, &rec[152]));

    // The same key from another station address: stored, nothing sent.
    ASSERT_EQ(0u, mesh_updateChildRsaData(&heard, kSta2));
    EXPECT_EQ(Lines{}, childRequests());
    uint8_t probe[6];
    memcpy(probe, kSta2, 6);
    ASSERT_EQ(0u, mesh_getChildMacByStaMac(probe));
    EXPECT_EQ(toHex(kMac[1], 6), toHex(probe, 6));

    // A new controller address, not yet in the configuration: only the heard child is
    // removed, disconnected and admitted again, with the new address and the old identity.
    const MESH_CONTROLLER_IP_PORT addr = {"192.168.9.9", 8443, 1};
    ASSERT_EQ(0u, mesh_updateChildRsaControllerIpPort(&addr));
    EXPECT_EQ(Lines{"iwpriv rai3 set DisConnectSta=0a:22:22:22:22:22"}, fake().shellLines());
    reqs = childRequests();
    ASSERT_EQ(2u, reqs.size());
    EXPECT_EQ("del 0200000000b2", reqs[0]);
    const Bytes before = rec;
    rec = hexBytes(reqs[1].substr(4));
    EXPECT_EQ(hexText(secret + "3139322e3136382e392e39 00*69 000020fb00000001 00*13"),
              decrypted(key, &rec[23]));
    EXPECT_EQ(toHex(&before[151], 129), toHex(&rec[151], 129));

    // A new identity that fills its 33 bytes reaches the child whole.
    MESH_ORBP_CFG id{};
    memset(id.vintacId, 'Z', sizeof id.vintacId);
    id.verCap = 3;
    ASSERT_EQ(0u, mesh_updateChildRsaOrbpCfg(&id));
    reqs = childRequests();
    ASSERT_EQ(2u, reqs.size());
    rec = hexBytes(reqs[1].substr(4));
    EXPECT_EQ(hexText(secret + "5a*33 00000003 00*64"), decrypted(key, &rec[152]));

    // A heard child that left the configuration stops the re-encryption with an error.
    g_allConfig.childNum = 1;
    EXPECT_EQ(1u, mesh_updateChildRsaOrbpCfg(&id));
    EXPECT_EQ(Lines{"coudn't found the entry in g_allConfig"}, errors());
    EXPECT_EQ(Lines{}, childRequests());
}

} // namespace
