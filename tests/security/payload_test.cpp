// The element payloads, the child record and the pairing blocks, byte for byte.
#include "security/mesh_payload.h"

#include "../wlan/wlan_fixture.h"
#include "core/mesh_config.h"
#include "security/mesh_rsa.h"

namespace {

const std::string kLabel = "5a 13 c7 02 9e 41 b8 6d 33 f0 27 8a d4 69 0b e5";
const uint8_t kMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

// A record full of noise, so that every byte the builder leaves out shows.
template <typename T> T noise() {
    T v;
    memset(&v, 0xEE, sizeof v);
    return v;
}

class PayloadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_config_reset();
        memcpy(g_allConfig.deviceMac, kMac, 6);
    }
    void TearDown() override { mesh_config_reset(); }
    FakeOsScope scope;
    FakeOs& fake = scope.fake;
};

// (The beacon, the probe-response template and a child record without pairing data are
// compared whole as the driver receives them in the mesh life test.)
TEST_F(PayloadTest, AssociationRequest) {
    auto assoc = noise<MESH_IE_BASIC>();
    ASSERT_EQ(0u, fillIntoAssocRequest(&assoc));
    EXPECT_EQ(hexText("02" + kLabel + "01 001122334455"), hexOf(assoc));
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(PayloadTest, ProbeRequestFromConfigurationAndKey) {
    g_allConfig.resetFlag = 7;
    g_allConfig.probeAttr = 0x09;
    g_allConfig.vlanId = 0x0102;
    memcpy(g_allConfig.controllerId, hexBytes("c0c1c2c3c4c5c6c7c8c9cacbcccdcecf").data(), 16);
    memcpy(g_allConfig.digest, hexBytes("d0d1d2d3d4d5d6d7d8d9dadbdcdddedf").data(), 16);
    // A 40-character text as a command could deliver it: it fills the 32-byte field without a
    // terminator and runs on into the fields behind it.
    memcpy(reinterpret_cast<uint8_t*>(&g_allConfig) + offsetof(MESH_ALL_CONFIG, probeText),
           "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcd", 40);
    g_allConfig.probeTextAttr = 0x5a;
    g_allConfig.orbpCfg.verCap = 258;
    auto req = noise<MESH_IE_PROBE_REQ>();
    ASSERT_EQ(0u, fillIntoProbeRequest(&req, 1));
    MESH_RSA_KEY key;
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&key));
    EXPECT_EQ(
        hexText("02" + kLabel +
                "01 03 09 0201" // flags: searching + reset; vlanId LE
                "c0c1c2c3c4c5c6c7c8c9cacbcccdcecf d0d1d2d3d4d5d6d7d8d9dadbdcdddedf 001122334455"
                // "ABCDEFGHIJKLMNOPQRSTUVWXYZ01234" and its terminator, probeTextAttr, keyLen
                "4142434445464748494a4b4c4d4e4f50 5152535455565758595a303132333400 5a 80") +
            toHex(key.modulus, 128) + "00000102",
        hexOf(req));
    EXPECT_EQ("", fake.takeStdout());

    for (auto [resetFlag, flag, want] :
         {std::tuple{0u, 0, 0}, {0u, 1, 1}, {1u, 0, 2}, {0x100u, 1, 3}}) {
        g_allConfig.resetFlag = resetFlag;
        ASSERT_EQ(0u, fillIntoProbeRequest(&req, static_cast<uint8_t>(flag)));
        EXPECT_EQ(want, req.flags) << "resetFlag " << resetFlag << " flag " << flag;
    }
}

TEST_F(PayloadTest, ChildRecordWithPairingData) {
    const uint8_t mac[6] = {0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};
    const Bytes digest = hexBytes("0102030405060708090a0b0c0d0e0f10"), d1(128, 0x11), d2(128, 0x22);
    auto rec = noise<MESH_CHILD_RECORD>();
    ASSERT_EQ(0u, mesh_payload_buildChildRecord(mac, digest.data(), 128, d1.data(), 128, d2.data(),
                                                &rec));
    EXPECT_EQ(hexText("0a0b0c0d0e0f 0102030405060708090a0b0c0d0e0f10 80 11*128 80 22*128"),
              hexOf(rec));
}

TEST_F(PayloadTest, PairingBlocks) {
    const Bytes secret = hexBytes("000102030405060708090a0b0c0d0e0f");
    MESH_CONTROLLER_IP_PORT addr{};
    strcpy(addr.ip, "192.168.1.10");
    addr.value1 = 8080;
    addr.value2 = 0x12345678;
    auto blk = noise<MESH_PAIR_BLOCK_ADDR>();
    ASSERT_EQ(0u, mesh_payload_buildPairBlockAddr(secret.data(), &addr, &blk));
    EXPECT_EQ(hexText("000102030405060708090a0b0c0d0e0f 3139322e3136382e312e3130 00*68 00001f90 "
                      "12345678 00*13"),
              hexOf(blk));
    // 79 characters keep their terminator at offset 95; a field of 80 characters without a
    // terminator is cut to the same 79.
    for (char last : {'\0', 'z'}) {
        memset(addr.ip, 'x', 79);
        addr.ip[79] = last;
        ASSERT_EQ(0u, mesh_payload_buildPairBlockAddr(secret.data(), &addr, &blk));
        EXPECT_EQ(std::string(79, 'x') + '\0', std::string(blk.ip, 80));
        EXPECT_EQ("00001f9012345678", toHex(blk.value1, 8));
    }

    MESH_ORBP_CFG id{};
    strcpy(id.vintacId, "VT-01");
    id.verCap = 258;
    auto idBlk = noise<MESH_PAIR_BLOCK_ID>();
    ASSERT_EQ(0u, mesh_payload_buildPairBlockId(secret.data(), &id, &idBlk));
    EXPECT_EQ(hexText("000102030405060708090a0b0c0d0e0f 56542d3031 00*28 00000102 00*64"),
              hexOf(idBlk));
    // The identity field goes over whole, bytes after a terminator included. (33 characters
    // without a terminator are checked with the child table's blocks.)
    memset(id.vintacId, 'Q', sizeof id.vintacId);
    id.vintacId[3] = '\0';
    ASSERT_EQ(0u, mesh_payload_buildPairBlockId(secret.data(), &id, &idBlk));
    EXPECT_EQ(std::string("QQQ") + '\0' + std::string(29, 'Q'), std::string(idBlk.vintacId, 33));
    EXPECT_EQ("00000102", toHex(idBlk.verCap, 4));
}

} // namespace
