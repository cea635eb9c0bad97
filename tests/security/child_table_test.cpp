// The child table: its four slots, and the pairing blocks it encrypts for each child and hands
// to the driver, decrypted here with the child's own private key.
#include "security_fixture.h"

#include "core/mesh_config.h"
#include "security/mesh_child.h"
#include "wlan/mesh_wlan.h"

namespace {

const uint8_t kMacA[6] = {0x02, 0, 0, 0, 0, 0xa1};
const uint8_t kMacB[6] = {0x02, 0, 0, 0, 0, 0xb2};
const uint8_t kMacC[6] = {0x02, 0, 0, 0, 0, 0xc3};
const uint8_t kMacD[6] = {0x02, 0, 0, 0, 0, 0xd4};
const uint8_t kMacE[6] = {0x02, 0, 0, 0, 0, 0xe5};
const uint8_t kSta1[6] = {0x0a, 0x11, 0x11, 0x11, 0x11, 0x11};
const uint8_t kSta2[6] = {0x0a, 0x22, 0x22, 0x22, 0x22, 0x22};

std::string rep(const std::string& hex, size_t n) {
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        out += hex;
    }
    return out;
}

MESH_CHILD_RECORD recordFor(const uint8_t* mac) {
    MESH_CHILD_RECORD r{};
    memcpy(r.mac, mac, 6);
    return r;
}

class ChildTableTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_config_reset();
        mesh_child_resetForTest();
        mesh_wlan_resetForTest();
        ASSERT_EQ(0u, mesh_api_init());
        for (size_t i = 0; i < sizeof g_meshRandom; ++i) {
            g_meshRandom[i] = static_cast<uint8_t>(i);
        }
        strcpy(g_allConfig.controllerIpPort.ip, "10.0.0.2");
        g_allConfig.controllerIpPort.value1 = 443;
        g_allConfig.controllerIpPort.value2 = 7;
        strcpy(g_allConfig.orbpCfg.vintacId, "CTL-1");
        g_allConfig.orbpCfg.verCap = 0x0102;
        fake.takeStdout();
    }
    void TearDown() override {
        mesh_child_resetForTest();
        mesh_config_reset();
        mesh_wlan_resetForTest();
    }
    // Puts the MAC into childList with a digest of 16 times `d`.
    void configure(const uint8_t* mac, uint8_t d) {
        MESH_CHILD_ENTRY& row = g_allConfig.childList[g_allConfig.childNum++];
        memcpy(row.mac, mac, 6);
        memset(row.digest, d, sizeof row.digest);
    }
    // A probe of `mac` carrying the public part of `key`.
    static MESH_CANDIDATE_CHILD heard(const uint8_t* mac, const MESH_RSA_KEY& key) {
        MESH_CANDIDATE_CHILD c{};
        memcpy(c.info.deviceMac, mac, 6);
        c.keyLen = 128;
        memcpy(c.key, key.modulus, 128);
        return c;
    }
    // The driver requests of the child sub-commands, as "add <hex>" / "del <mac hex>".
    Lines childRequests() {
        Lines out;
        for (const auto& r : fake.ioctls(RTPRIV_IOCTL_MESH)) {
            EXPECT_EQ(280u, r.payload.size());
            if (r.flags == MESH_SUBCMD_ADD_CHILD) {
                out.push_back("add " + toHex(r.payload.data(), r.payload.size()));
            } else if (r.flags == MESH_SUBCMD_DEL_CHILD) {
                out.push_back("del " + toHex(r.payload.data(), 6));
            }
        }
        return out;
    }
    // Decrypts one 128-byte block of a child record with the child's private key.
    static std::string decrypted(const MESH_RSA_KEY& key, const uint8_t* block) {
        Bytes plain(MESH_RSA_PLAIN_LEN, 0);
        EXPECT_EQ(0u, mesh_common_rsa_decrypt(&key, plain.data(), block));
        return toHex(plain.data(), plain.size());
    }
    static std::string secretHex() { return "000102030405060708090a0b0c0d0e0f"; }

    FakeOsScope scope;
    FakeOs& fake = scope.fake;
    OpensslDir dir;
};

TEST_F(ChildTableTest, FourSlotsClaimedLowestFirstAndReleasedWhole) {
    struct Step {
        const char* what;
        std::function<uint32_t()> op;
        uint32_t rc;
        const char* error; // "" = no error line
    };
    uint8_t sta[6];
    uint8_t probe[6];
    MESH_CHILD_RECORD rA = recordFor(kMacA), rB = recordFor(kMacB), rC = recordFor(kMacC),
                      rD = recordFor(kMacD), rE = recordFor(kMacE);
    const std::vector<Step> steps = {
        {"add A", [&] { return mesh_addChildRsaEntry(&rA); }, 0, ""},
        {"add B", [&] { return mesh_addChildRsaEntry(&rB); }, 0, ""},
        {"add C", [&] { return mesh_addChildRsaEntry(&rC); }, 0, ""},
        {"add D", [&] { return mesh_addChildRsaEntry(&rD); }, 0, ""},
        {"fifth", [&] { return mesh_addChildRsaEntry(&rE); }, 1, "child rsa entry is full"},
        {"del B", [&] { return mesh_delChildRsaEntry(kMacB, sta); }, 0, ""},
        {"dup with a free slot", [&] { return mesh_addChildRsaEntry(&rC); }, 1,
         "it's an existed mac"},
        {"del B again", [&] { return mesh_delChildRsaEntry(kMacB, sta); }, 1,
         "can't find the mac in l_childRsa"},
        {"sta of unknown", [&] { return mesh_getChildStaMac(kMacB, sta); }, 1, ""},
        {"E takes slot 1", [&] { return mesh_addChildRsaEntry(&rE); }, 0, ""},
        {"unknown sta",
         [&] {
             memcpy(probe, kSta1, 6);
             return mesh_getChildMacByStaMac(probe);
         },
         1, ""},
        {"null add", [&] { return mesh_addChildRsaEntry(nullptr); }, 1, ""},
        {"null del", [&] { return mesh_delChildRsaEntry(nullptr, sta); }, 1, ""},
    };
    for (const auto& s : steps) {
        EXPECT_EQ(s.rc, s.op()) << s.what;
        const Lines errs = errorTexts(fake.takeStdout());
        EXPECT_EQ(*s.error != 0 ? Lines{s.error} : Lines{}, errs) << s.what;
    }
    const uint8_t* expect[4] = {kMacA, kMacE, kMacC, kMacD};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(toHex(expect[i], 6), toHex(mesh_child_slot(i)->mac, 6)) << i;
    }
    // A deleted slot was cleared whole: E's slot holds nothing of B.
    const CHILD_RSA_ENTRY* e = mesh_child_slot(1);
    EXPECT_EQ(0, e->keyLen);
    EXPECT_EQ("000000000000", toHex(e->staMac, 6));
}

TEST_F(ChildTableTest, HeardChildGetsBothBlocksUnderItsKeyAndTheSameKeyOnlyMovesTheStation) {
    MESH_RSA_KEY childKey;
    ASSERT_TRUE(dir.genrsa("child.pem", &childKey));
    configure(kMacA, 0x5d);
    MESH_CHILD_RECORD rA = recordFor(kMacA);
    ASSERT_EQ(0u, mesh_addChildRsaEntry(&rA));
    const MESH_CANDIDATE_CHILD cand = heard(kMacA, childKey);

    ASSERT_EQ(0u, mesh_updateChildRsaData(&cand, kSta1));
    Lines reqs = childRequests();
    ASSERT_EQ(1u, reqs.size());
    const Bytes rec = hexBytes(reqs[0].substr(4));
    EXPECT_EQ("0200000000a1" + rep("5d", 16), toHex(rec.data(), 22)) << "MAC then the row's digest";
    EXPECT_EQ(0x80, rec[22]);
    EXPECT_EQ(0x80, rec[151]);
    EXPECT_EQ(secretHex() + "31302e302e302e32" + rep("00", 72) + "000001bb00000007" + rep("00", 13),
              decrypted(childKey, &rec[23])); // address block
    EXPECT_EQ(secretHex() + "43544c2d31" + rep("00", 28) + "00000102" + rep("00", 64),
              decrypted(childKey, &rec[152])); // identity block

    // The same key again from another station address: stored, nothing re-encrypted or sent.
    const CHILD_RSA_ENTRY before = *mesh_child_slot(0);
    fake.clearRecords();
    ASSERT_EQ(0u, mesh_updateChildRsaData(&cand, kSta2));
    EXPECT_TRUE(childRequests().empty());
    const CHILD_RSA_ENTRY* after = mesh_child_slot(0);
    EXPECT_EQ(toHex(kSta2, 6), toHex(after->staMac, 6));
    EXPECT_EQ(toHex(before.data1, 128), toHex(after->data1, 128));
    uint8_t probe[6];
    memcpy(probe, kSta2, 6);
    ASSERT_EQ(0u, mesh_getChildMacByStaMac(probe));
    EXPECT_EQ(toHex(kMacA, 6), toHex(probe, 6));
    MESH_CHILD_RECORD filled;
    memset(&filled, 0xee, sizeof filled);
    ASSERT_EQ(0u, mesh_getChildRsaData(kMacA, &filled));
    EXPECT_EQ(toHex(rec.data() + 22, 258), toHex(&filled.data1Len, 258));
    EXPECT_EQ(std::string(44, 'e'), toHex(&filled, 22)) << "MAC and digest left as they were";
    EXPECT_EQ(1u, mesh_getChildRsaData(kMacB, &filled));
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(ChildTableTest, ControllerChangeReencryptsKeyedChildrenWithTheNewValue) {
    MESH_RSA_KEY keyB;
    ASSERT_TRUE(dir.genrsa("b.pem", &keyB));
    // Slot 0: A, never heard; slot 1: B, keyed.
    configure(kMacA, 0x11);
    configure(kMacB, 0x22);
    MESH_CHILD_RECORD rA = recordFor(kMacA), rB = recordFor(kMacB);
    ASSERT_EQ(0u, mesh_addChildRsaEntry(&rA));
    ASSERT_EQ(0u, mesh_addChildRsaEntry(&rB));
    const MESH_CANDIDATE_CHILD cand = heard(kMacB, keyB);
    ASSERT_EQ(0u, mesh_updateChildRsaData(&cand, kSta1));
    const CHILD_RSA_ENTRY keyed = *mesh_child_slot(1);
    fake.clearRecords();

    // The new address is encrypted although the configuration still holds the old one.
    MESH_CONTROLLER_IP_PORT addr{};
    strcpy(addr.ip, "192.168.9.9");
    addr.value1 = 8443;
    addr.value2 = 1;
    ASSERT_EQ(0u, mesh_updateChildRsaControllerIpPort(&addr));
    Lines reqs = childRequests();
    ASSERT_EQ(2u, reqs.size()) << "only B: removed, then admitted again";
    EXPECT_EQ("del " + toHex(kMacB, 6), reqs[0]);
    Bytes rec = hexBytes(reqs[1].substr(4));
    EXPECT_EQ(secretHex() + "3139322e3136382e392e39" + rep("00", 69) + "000020fb00000001" +
                  rep("00", 13),
              decrypted(keyB, &rec[23]));
    EXPECT_EQ(toHex(&keyed.data2Len, 129), toHex(&rec[151], 129)) << "identity block unchanged";
    EXPECT_EQ("10.0.0.2", std::string(g_allConfig.controllerIpPort.ip));
    EXPECT_EQ(std::vector<std::string>{"iwpriv rai3 set DisConnectSta=0a:11:11:11:11:11"},
              fake.shellLines());

    // A new identity of 33 characters reaches the child whole.
    fake.clearRecords();
    MESH_ORBP_CFG id{};
    memset(id.vintacId, 'Z', sizeof id.vintacId);
    id.verCap = 3;
    ASSERT_EQ(0u, mesh_updateChildRsaOrbpCfg(&id));
    reqs = childRequests();
    ASSERT_EQ(2u, reqs.size());
    rec = hexBytes(reqs[1].substr(4));
    EXPECT_EQ(secretHex() + rep("5a", 33) + "00000003" + rep("00", 64), decrypted(keyB, &rec[152]));
    EXPECT_EQ(0x80, rec[151]);
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(ChildTableTest, ReencryptionStopsAtTheFirstFailingChild) {
    MESH_RSA_KEY key;
    ASSERT_TRUE(dir.genrsa("k.pem", &key));
    configure(kMacA, 1);
    configure(kMacB, 2);
    MESH_CHILD_RECORD rA = recordFor(kMacA), rB = recordFor(kMacB);
    ASSERT_EQ(0u, mesh_addChildRsaEntry(&rA));
    ASSERT_EQ(0u, mesh_addChildRsaEntry(&rB));
    for (const uint8_t* mac : {kMacA, kMacB}) {
        const MESH_CANDIDATE_CHILD c = heard(mac, key);
        ASSERT_EQ(0u, mesh_updateChildRsaData(&c, kSta1));
    }
    MESH_CONTROLLER_IP_PORT addr{};
    strcpy(addr.ip, "1.2.3.4");

    struct Case {
        const char* what;
        std::function<void()> arrange;
        const char* error;
    };
    const std::vector<Case> cases = {
        {"driver refuses the removal", [&] { fake.failNth(FakeOs::Op::Ioctl, "", 1, EIO); },
         "delete child fail "},
        {"driver refuses the new admission", [&] { fake.failNth(FakeOs::Op::Ioctl, "", 2, EIO); },
         "update child rsa data fail"},
        {"child no longer configured", [&] { g_allConfig.childNum = 0; },
         "coudn't found the entry in g_allConfig"},
    };
    for (const auto& c : cases) {
        fake.clearRecords();
        fake.takeStdout();
        c.arrange();
        EXPECT_EQ(1u, mesh_updateChildRsaControllerIpPort(&addr)) << c.what;
        const Lines errs = errorTexts(fake.takeStdout());
        ASSERT_FALSE(errs.empty()) << c.what;
        EXPECT_EQ(c.error, errs.back()) << c.what;
        for (const auto& r : childRequests()) {
            EXPECT_EQ(std::string::npos, r.find(toHex(kMacB, 6))) << c.what << ": B untouched";
        }
    }
}

TEST_F(ChildTableTest, ConfiguredMeansAmongTheFirstChildNumRows) {
    configure(kMacA, 1);
    configure(kMacB, 2);
    g_allConfig.childNum = 1;
    EXPECT_EQ(1u, mesh_isChildInConfig(kMacA));
    EXPECT_EQ(0u, mesh_isChildInConfig(kMacB));
    EXPECT_EQ(0u, mesh_isChildInConfig(nullptr));
}

} // namespace
