// The RSA key service against an independent implementation, the openssl tool.
#include "security/mesh_rsa.h"
#include "test_util.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace {

Bytes block117(uint8_t seed) {
    Bytes b(MESH_RSA_PLAIN_LEN);
    for (size_t i = 0; i < b.size(); ++i) {
        b[i] = static_cast<uint8_t>(seed + i * 7); // holds zero bytes too
    }
    return b;
}

// A public key as a peer hands it over: n and its length only.
MESH_RSA_KEY publicOnly(const MESH_RSA_KEY& full) {
    MESH_RSA_KEY k{};
    memcpy(k.modulus, full.modulus, sizeof k.modulus);
    k.modulusLen = full.modulusLen;
    return k;
}

// The `openssl` tool runs in the fake's root directory, where the test reads and writes its
// files.
class RsaTest : public ::testing::Test {
  protected:
    Lines errors() { return errorTexts(fake.takeStdout()); }
    bool openssl(const std::string& cmd) {
        return std::system(("cd '" + fake.rooted("") + "' && " + cmd).c_str()) == 0;
    }
    Bytes read(const std::string& name) {
        const std::string text = fake.readFile("/" + name);
        return Bytes(text.begin(), text.end());
    }
    void write(const std::string& name, const Bytes& b) {
        fake.writeFile("/" + name, std::string(b.begin(), b.end()));
    }
    FakeOsScope scope;
    FakeOs& fake = scope.fake;
};

TEST_F(RsaTest, OneFixedNodeKeyAndOpensslEncryptsUnderItForNAndDAlone) {
    // (A fresh generation giving another key shows in the parent handler's other-key rows.)
    MESH_RSA_KEY ours, again;
    memset(&again, 0xAA, sizeof again);
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&ours));
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&again));
    EXPECT_EQ(hexOf(ours), hexOf(again)) << "one key for the node's life";
    const unsigned nLen = ours.modulusLen; // packed: read by value
    EXPECT_EQ(128u, nLen);
    EXPECT_NE(0, ours.modulus[0] & 0x80) << "a full 1024-bit n";
    EXPECT_EQ("010001", toHex(ours.publicExponent, 3));

    // n and e = 65537 as a DER SubjectPublicKeyInfo: the fixed header of a 1024-bit RSA key, a
    // sign byte, n, then e.
    write("pub.der", hexBytes("30819f300d06092a864886f70d010101050003818d0030818902818100" +
                              toHex(ours.modulus, 128) + "0203010001"));
    const Bytes plain = block117(0x80);
    write("pt.bin", plain);
    ASSERT_TRUE(openssl("openssl pkeyutl -encrypt -pubin -keyform DER -inkey pub.der"
                        " -pkeyopt rsa_padding_mode:pkcs1 -in pt.bin -out ct.bin"));
    const Bytes cipher = read("ct.bin");
    ASSERT_EQ(MESH_RSA_CIPHER_LEN, cipher.size());
    memset(ours.publicExponent, 0, sizeof ours.publicExponent); // e is not even consulted
    Bytes back(MESH_RSA_PLAIN_LEN, 0);
    ASSERT_EQ(0u, mesh_common_rsa_decrypt(&ours, back.data(), cipher.data()));
    EXPECT_EQ(plain, back);
    EXPECT_EQ(Lines{}, errors());
}

TEST_F(RsaTest, BlockEncryptedUnderAnOpensslKeysModulusDecryptsWithOpensslPkeyutl) {
    // An openssl key; its integers (version, n, e, d, ...) one per line, as hex.
    ASSERT_TRUE(openssl("openssl genrsa -traditional -out key.pem 1024 && openssl asn1parse"
                        " -in key.pem | awk -F: '/INTEGER/{print $NF}' >ints.txt"));
    const Bytes text = read("ints.txt");
    std::istringstream ints(std::string(text.begin(), text.end()));
    std::string version, n, e, d;
    ints >> version >> n >> e >> d;
    ASSERT_EQ(256u, n.size());
    ASSERT_EQ("010001", e);
    MESH_RSA_KEY theirs{}; // n and d only, no CRT parameters
    memcpy(theirs.modulus, hexBytes(n).data(), 128);
    theirs.modulusLen = 128;
    const Bytes db = hexBytes(d);
    memcpy(theirs.privateExponent, db.data(), db.size());
    theirs.privateExponentLen = static_cast<uint16_t>(db.size());

    const Bytes plain = block117(3);
    MESH_RSA_KEY pub = publicOnly(theirs);
    Bytes cipher(MESH_RSA_CIPHER_LEN);
    ASSERT_EQ(0u, mesh_common_rsa_encrypt(&pub, cipher.data(), plain.data()));
    write("ct.bin", cipher);
    ASSERT_TRUE(openssl("openssl pkeyutl -decrypt -inkey key.pem -pkeyopt rsa_padding_mode:pkcs1"
                        " -in ct.bin -out pt.bin"));
    EXPECT_EQ(plain, read("pt.bin"));
    // The openssl key's own n and d decrypt the same block here too.
    Bytes back(MESH_RSA_PLAIN_LEN, 0);
    ASSERT_EQ(0u, mesh_common_rsa_decrypt(&theirs, back.data(), cipher.data()));
    EXPECT_EQ(plain, back);
}

TEST_F(RsaTest, GarbageWrongKeyAndUnusableKeysFail) {
    MESH_RSA_KEY ours, other;
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&ours));
    ASSERT_EQ(0u, mesh_common_rsa_generateKey(&other));
    const Bytes plain = block117(9);
    MESH_RSA_KEY pub = publicOnly(other);
    Bytes cipher(MESH_RSA_CIPHER_LEN), out(MESH_RSA_PLAIN_LEN, 0);
    ASSERT_EQ(0u, mesh_common_rsa_encrypt(&pub, cipher.data(), plain.data()));
    Bytes one(MESH_RSA_CIPHER_LEN, 0); // c = 1 decrypts to 1 under every key: never valid
    one.back() = 1;
    // Garbage, a block for another key, a record without d.
    for (auto [key, in] : {std::pair{&ours, &one}, {&ours, &cipher}, {&pub, &cipher}}) {
        EXPECT_EQ(1u, mesh_common_rsa_decrypt(key, out.data(), in->data()));
        EXPECT_EQ(Lines{"openssl decrypt failed\n"}, errors());
    }
    ASSERT_EQ(0u, mesh_common_rsa_decrypt(&other, out.data(), cipher.data()));
    EXPECT_EQ(plain, out) << "the right key still opens it";

    // No modulus, or one too short for 117 bytes of PKCS #1 v1.5 data.
    for (uint16_t nLen : {0, 64}) {
        MESH_RSA_KEY k = ours;
        k.modulusLen = nLen;
        EXPECT_EQ(1u, mesh_common_rsa_encrypt(&k, cipher.data(), plain.data()));
        EXPECT_EQ(Lines{"openssl encrypt failed\n"}, errors());
    }
    // Lengths beyond the record's fields are refused before anything is read, silently.
    cipher.assign(MESH_RSA_CIPHER_LEN, 0x5C);
    MESH_RSA_KEY wide = ours;
    wide.modulusLen = 200;
    EXPECT_EQ(1u, mesh_common_rsa_encrypt(&wide, cipher.data(), plain.data()));
    EXPECT_EQ(1u, mesh_common_rsa_decrypt(&wide, out.data(), cipher.data()));
    wide = ours;
    wide.privateExponentLen = 129;
    EXPECT_EQ(1u, mesh_common_rsa_decrypt(&wide, out.data(), cipher.data()));
    EXPECT_EQ(Bytes(MESH_RSA_CIPHER_LEN, 0x5C), cipher);
    EXPECT_EQ(Lines{}, errors());
}

} // namespace
