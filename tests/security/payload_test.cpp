// The element payloads, the child record and the pairing blocks, byte for byte.
#include "security/mesh_payload.h"
#include "security/mesh_rsa.h"

#include "error_line.h"
#include "fake_os.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

const char* const kLabel = "5a 13 c7 02 9e 41 b8 6d 33 f0 27 8a d4 69 0b e5";
const uint8_t kMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

Bytes zeros(size_t n) {
    return Bytes(n, 0);
}
Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}
template <typename T> Bytes bytesOf(const T& v) {
    const auto* p = reinterpret_cast<const uint8_t*>(&v);
    return Bytes(p, p + sizeof v);
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

TEST_F(PayloadTest, BeaconAndAssociationRequestCarryLabelVersionAndMac) {
    Bytes want = hexBytes(std::string("02") + kLabel + "01 00 11 22 33 44 55");
    MESH_IE_BASIC beacon;
    memset(&beacon, 0xEE, sizeof beacon);
    ASSERT_EQ(0u, mesh_payload_buildBeacon(kMac, &beacon));
    EXPECT_EQ(want, bytesOf(beacon));

    MESH_IE_BASIC assoc;
    memset(&assoc, 0xEE, sizeof assoc);
    ASSERT_EQ(0u, fillIntoAssocRequest(&assoc));
    EXPECT_EQ(want, bytesOf(assoc));
    EXPECT_EQ("", fake.takeStdout());

    EXPECT_EQ(1u, fillIntoAssocRequest(nullptr));
    EXPECT_TRUE(errorLine(fake.takeStdout(), "fillIntoAssocRequest", "null pointer\n"));
    EXPECT_EQ(1u, mesh_payload_buildBeacon(nullptr, &beacon));
}

TEST_F(PayloadTest, ProbeRequestFromConfigurationAndKey) {
    g_allConfig.resetFlag = 7;
    g_allConfig.probeAttr = 0x09;
    g_allConfig.vlanId = 0x0102;
    for (int i = 0; i < 16; ++i) {
        g_allConfig.controllerId[i] = static_cast<uint8_t>(0xc0 + i);
        g_allConfig.digest[i] = static_cast<uint8_t>(0xd0 + i);
    }
    // A 40-character text as a command could deliver it: it fills the 32-byte field without a
    // terminator and runs on into the fields behind it.
    const char* text = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcd";
    memcpy(reinterpret_cast<uint8_t*>(&g_allConfig) + offsetof(MESH_ALL_CONFIG, probeText), text,
           40);
    g_allConfig.probeTextAttr = 0x5a;
    g_allConfig.orbpCfg.verCap = 258;

    MESH_IE_PROBE_REQ req;
    memset(&req, 0xEE, sizeof req);
    ASSERT_EQ(0u, fillIntoProbeRequest(&req, 1));

    MESH_RSA_KEY key;
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&key));
    Bytes want = cat({hexBytes(std::string("02") + kLabel +
                               "01"
                               "03"      // searching + reset
                               "09"      // probeAttr
                               "02 01"), // vlanId 0x0102, LE
                      hexBytes("c0 c1 c2 c3 c4 c5 c6 c7 c8 c9 ca cb cc cd ce cf"
                               "d0 d1 d2 d3 d4 d5 d6 d7 d8 d9 da db dc dd de df"
                               "00 11 22 33 44 55"
                               // "ABCDEFGHIJKLMNOPQRSTUVWXYZ01234" and the terminator
                               "41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50"
                               "51 52 53 54 55 56 57 58 59 5a 30 31 32 33 34 00"
                               "5a"   // probeTextAttr
                               "80"), // keyLen
                      Bytes(key.modulus, key.modulus + 128), hexBytes("00 00 01 02")});
    ASSERT_EQ(226u, want.size());
    EXPECT_EQ(want, bytesOf(req));
    EXPECT_EQ(0x80, req.key[0] & 0x80);
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(PayloadTest, ProbeRequestFlagsCombineCallerFlagAndResetFlag) {
    struct Case {
        uint32_t resetFlag;
        uint8_t flag;
        uint8_t want;
    };
    for (Case c : {Case{0, 0, 0}, Case{0, 1, 1}, Case{1, 0, 2}, Case{0x100, 1, 3}}) {
        g_allConfig.resetFlag = c.resetFlag;
        MESH_IE_PROBE_REQ req;
        ASSERT_EQ(0u, fillIntoProbeRequest(&req, c.flag));
        EXPECT_EQ(c.want, req.flags) << "resetFlag " << c.resetFlag << " flag " << int(c.flag);
    }
    EXPECT_EQ(1u, fillIntoProbeRequest(nullptr, 1));
}

TEST_F(PayloadTest, ProbeResponseTemplate) {
    MESH_IE_PROBE_RSP rsp;
    memset(&rsp, 0xEE, sizeof rsp);
    ASSERT_EQ(0u, mesh_payload_buildProbeRsp(kMac, &rsp));
    Bytes want =
        cat({hexBytes(std::string("00") + kLabel + "01 00 11 22 33 44 55 80"), zeros(128)});
    EXPECT_EQ(want, bytesOf(rsp));
}

TEST_F(PayloadTest, ChildRecordWithAndWithoutPairingData) {
    const uint8_t digest[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const Bytes head = hexBytes("0a 0b 0c 0d 0e 0f"
                                "01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10");
    const uint8_t mac[6] = {0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};

    // A child not heard yet: lengths 0, zero blocks, still 280 bytes.
    MESH_CHILD_RECORD rec;
    memset(&rec, 0xEE, sizeof rec);
    ASSERT_EQ(0u, mesh_payload_buildChildRecord(mac, digest, 0, nullptr, 0, nullptr, &rec));
    EXPECT_EQ(cat({head, zeros(1 + 128 + 1 + 128)}), bytesOf(rec));

    Bytes d1(128, 0x11);
    Bytes d2(128, 0x22);
    ASSERT_EQ(0u, mesh_payload_buildChildRecord(mac, digest, 128, d1.data(), 128, d2.data(), &rec));
    EXPECT_EQ(cat({head, {0x80}, d1, {0x80}, d2}), bytesOf(rec));

    EXPECT_EQ(1u, mesh_payload_buildChildRecord(nullptr, digest, 0, nullptr, 0, nullptr, &rec));
    EXPECT_EQ(1u, mesh_payload_buildChildRecord(mac, nullptr, 0, nullptr, 0, nullptr, &rec));
}

TEST_F(PayloadTest, AddressPairingBlock) {
    uint8_t secret[16];
    for (int i = 0; i < 16; ++i) {
        secret[i] = static_cast<uint8_t>(i);
    }
    MESH_CONTROLLER_IP_PORT addr;
    memset(&addr, 0, sizeof addr);
    strcpy(addr.ip, "192.168.1.10");
    addr.value1 = 8080;
    addr.value2 = 0x12345678;
    MESH_PAIR_BLOCK_ADDR blk;
    memset(&blk, 0xEE, sizeof blk);
    ASSERT_EQ(0u, mesh_payload_buildPairBlockAddr(secret, &addr, &blk));
    Bytes want = cat({hexBytes("00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f"
                               "31 39 32 2e 31 36 38 2e 31 2e 31 30"),
                      zeros(80 - 12), hexBytes("00 00 1f 90  12 34 56 78"), zeros(13)});
    EXPECT_EQ(want, bytesOf(blk));

    // 79 characters keep their terminator at offset 95; a field of 80 characters without a
    // terminator is cut to the same 79.
    for (char last : {'\0', 'z'}) {
        memset(addr.ip, 'x', 79);
        addr.ip[79] = last;
        ASSERT_EQ(0u, mesh_payload_buildPairBlockAddr(secret, &addr, &blk));
        Bytes b = bytesOf(blk);
        EXPECT_EQ(Bytes(79, 'x'), Bytes(b.begin() + 16, b.begin() + 95));
        EXPECT_EQ(0, b[95]);
        EXPECT_EQ(hexBytes("00 00 1f 90  12 34 56 78"), Bytes(b.begin() + 96, b.begin() + 104));
    }
    EXPECT_EQ(1u, mesh_payload_buildPairBlockAddr(secret, nullptr, &blk));
}

TEST_F(PayloadTest, IdentityPairingBlock) {
    uint8_t secret[16];
    memset(secret, 0xA5, sizeof secret);
    MESH_ORBP_CFG id;
    memset(&id, 0, sizeof id);
    strcpy(id.vintacId, "VT-01");
    id.verCap = 258;
    MESH_PAIR_BLOCK_ID blk;
    memset(&blk, 0xEE, sizeof blk);
    ASSERT_EQ(0u, mesh_payload_buildPairBlockId(secret, &id, &blk));
    Bytes want = cat({Bytes(16, 0xA5), hexBytes("56 54 2d 30 31"), zeros(33 - 5),
                      hexBytes("00 00 01 02"), zeros(64)});
    EXPECT_EQ(want, bytesOf(blk));

    // An identity that fills all 33 bytes is cut to 32 characters and terminated.
    memset(id.vintacId, 'Q', sizeof id.vintacId);
    ASSERT_EQ(0u, mesh_payload_buildPairBlockId(secret, &id, &blk));
    Bytes b = bytesOf(blk);
    EXPECT_EQ(Bytes(32, 'Q'), Bytes(b.begin() + 16, b.begin() + 48));
    EXPECT_EQ(0, b[48]);
    EXPECT_EQ(hexBytes("00 00 01 02"), Bytes(b.begin() + 49, b.begin() + 53));
}

} // namespace
