// The RSA key service against an independent implementation, the openssl tool.
#include "security_fixture.h"

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

class RsaTest : public ::testing::Test {
  protected:
    FakeOsScope scope;
    FakeOs& fake = scope.fake;
    OpensslDir dir;
};

TEST_F(RsaTest, SingletonIsOneFixed1024BitKeyWithExponent65537) {
    MESH_RSA_KEY a, b, c;
    memset(&b, 0xAA, sizeof b);
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&a));
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&b));
    EXPECT_EQ(hexOf(a), hexOf(b));
    const unsigned nLen = a.modulusLen, dLen = a.privateExponentLen; // packed: read by value
    EXPECT_EQ(128u, nLen);
    EXPECT_NE(0, a.modulus[0] & 0x80) << "a full 1024-bit n";
    EXPECT_EQ("010001", toHex(a.publicExponent, 3));
    EXPECT_TRUE(dLen > 100 && dLen <= 128) << dLen;
    ASSERT_EQ(0u, mesh_common_rsa_generateKey(&c));
    EXPECT_NE(toHex(a.modulus, 128), toHex(c.modulus, 128)) << "a fresh generation differs";
    EXPECT_EQ(1u, mesh_common_rsa_getSingleton(nullptr));
    EXPECT_EQ(1u, mesh_common_rsa_generateKey(nullptr));
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(RsaTest, BlockEncryptedUnderAnOpensslKeysModulusDecryptsWithOpensslPkeyutl) {
    MESH_RSA_KEY theirs;
    ASSERT_TRUE(dir.genrsa("key.pem", &theirs));
    const Bytes plain = block117(3);
    MESH_RSA_KEY pub = publicOnly(theirs);
    Bytes cipher(MESH_RSA_CIPHER_LEN);
    ASSERT_EQ(0u, mesh_common_rsa_encrypt(&pub, cipher.data(), plain.data()));
    dir.write("ct.bin", cipher);
    ASSERT_TRUE(dir.run("openssl pkeyutl -decrypt -inkey key.pem -pkeyopt rsa_padding_mode:pkcs1"
                        " -in ct.bin -out pt.bin"));
    EXPECT_EQ(plain, dir.read("pt.bin"));
    // The openssl key's own n and d (no CRT parameters) decrypt the same block here too.
    Bytes back(MESH_RSA_PLAIN_LEN, 0);
    ASSERT_EQ(0u, mesh_common_rsa_decrypt(&theirs, back.data(), cipher.data()));
    EXPECT_EQ(plain, back);
}

TEST_F(RsaTest, BlockEncryptedByOpensslPkeyutlDecryptsFromNAndDAlone) {
    MESH_RSA_KEY ours;
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&ours));
    dir.writePublicDer("pub.der", ours);
    const Bytes plain = block117(0x80);
    dir.write("pt.bin", plain);
    ASSERT_TRUE(dir.run("openssl pkeyutl -encrypt -pubin -keyform DER -inkey pub.der"
                        " -pkeyopt rsa_padding_mode:pkcs1 -in pt.bin -out ct.bin"));
    const Bytes cipher = dir.read("ct.bin");
    ASSERT_EQ(MESH_RSA_CIPHER_LEN, cipher.size());
    memset(ours.publicExponent, 0, sizeof ours.publicExponent); // e is not even consulted
    Bytes back(MESH_RSA_PLAIN_LEN, 0);
    ASSERT_EQ(0u, mesh_common_rsa_decrypt(&ours, back.data(), cipher.data()));
    EXPECT_EQ(plain, back);
    EXPECT_EQ("", fake.takeStdout());
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
    // Garbage, a block for another key, a record without d: "openssl decrypt failed".
    for (auto [key, in] : {std::pair{&ours, &one}, {&ours, &cipher}, {&pub, &cipher}}) {
        EXPECT_EQ(1u, mesh_common_rsa_decrypt(key, out.data(), in->data()));
        EXPECT_TRUE(
            errorLine(fake.takeStdout(), "mesh_common_rsa_decrypt", "openssl decrypt failed\n"));
    }
    ASSERT_EQ(0u, mesh_common_rsa_decrypt(&other, out.data(), cipher.data()));
    EXPECT_EQ(plain, out) << "the right key still opens it";

    // No modulus, or one too short for 117 bytes of PKCS #1 v1.5 data.
    for (uint16_t nLen : {0, 64}) {
        MESH_RSA_KEY k = ours;
        k.modulusLen = nLen;
        EXPECT_EQ(1u, mesh_common_rsa_encrypt(&k, cipher.data(), plain.data()));
        EXPECT_TRUE(
            errorLine(fake.takeStdout(), "mesh_common_rsa_encrypt", "openssl encrypt failed\n"));
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
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(RsaTest, RandomBytesComeFromTheSeam) {
    fake.queueRandom({0xde, 0xad, 0xbe, 0xef});
    uint8_t buf[16] = {};
    ASSERT_EQ(0u, mesh_common_getRandom(4, buf));
    EXPECT_EQ("deadbeef", toHex(buf, 4));
    fake.clearRecords();
    EXPECT_EQ(1u, mesh_common_getRandom(0, buf));
    EXPECT_EQ(1u, mesh_common_getRandom(4, nullptr));
    EXPECT_TRUE(fake.transcript().empty()) << "the source is not even opened";
    int h = fake.failNth(FakeOs::Op::Random, "", 1, ENOENT);
    EXPECT_EQ(1u, mesh_common_getRandom(16, buf));
    EXPECT_TRUE(fake.fired(h));
    EXPECT_EQ("", fake.takeStdout()) << "an unopenable source is not reported";
}

} // namespace
