// The RSA key service against an independent implementation, the openssl tool.
#include "security/mesh_rsa.h"

#include "error_line.h"
#include "fake_os.h"
#include "openssl_tool.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

std::vector<uint8_t> block117(uint8_t seed) {
    std::vector<uint8_t> b(MESH_RSA_PLAIN_LEN);
    for (size_t i = 0; i < b.size(); ++i) {
        b[i] = static_cast<uint8_t>(seed + i * 7); // holds zero bytes too
    }
    return b;
}

// A public key as a peer hands it over: n and its length only.
MESH_RSA_KEY publicOnly(const MESH_RSA_KEY& full) {
    MESH_RSA_KEY k;
    memset(&k, 0, sizeof k);
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
    MESH_RSA_KEY a;
    MESH_RSA_KEY b;
    memset(&b, 0xAA, sizeof b);
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&a));
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&b));
    EXPECT_EQ(0, memcmp(&a, &b, sizeof a));
    const unsigned nLen = a.modulusLen; // packed fields: compared by value
    const unsigned dLen = a.privateExponentLen;
    EXPECT_EQ(128u, nLen);
    EXPECT_NE(0, a.modulus[0] & 0x80); // a full 1024-bit n
    EXPECT_EQ(Bytes({0x01, 0x00, 0x01}), Bytes(a.publicExponent, a.publicExponent + 3));
    EXPECT_GT(dLen, 100u);
    EXPECT_LE(dLen, 128u);
    EXPECT_EQ(1u, mesh_common_rsa_getSingleton(nullptr));

    // A fresh generation is a different key.
    MESH_RSA_KEY c;
    ASSERT_EQ(0u, mesh_common_rsa_generateKey(&c));
    EXPECT_NE(0, memcmp(a.modulus, c.modulus, sizeof a.modulus));
    EXPECT_EQ(1u, mesh_common_rsa_generateKey(nullptr));
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(RsaTest, BlockEncryptedUnderOpensslKeyModulusDecryptsWithOpensslPkeyutl) {
    MESH_RSA_KEY theirs;
    ASSERT_TRUE(dir.genrsa("key.pem", &theirs));
    std::vector<uint8_t> plain = block117(3);
    MESH_RSA_KEY pub = publicOnly(theirs);
    std::vector<uint8_t> cipher(MESH_RSA_CIPHER_LEN);
    ASSERT_EQ(0u, mesh_common_rsa_encrypt(&pub, cipher.data(), plain.data()));
    dir.write("ct.bin", cipher);
    ASSERT_TRUE(dir.run("openssl pkeyutl -decrypt -inkey key.pem -pkeyopt rsa_padding_mode:pkcs1"
                        " -in ct.bin -out pt.bin"));
    EXPECT_EQ(plain, dir.read("pt.bin"));

    // The openssl key's own n and d (no CRT parameters) decrypt the same block here too.
    std::vector<uint8_t> back(MESH_RSA_PLAIN_LEN, 0);
    ASSERT_EQ(0u, mesh_common_rsa_decrypt(&theirs, back.data(), cipher.data()));
    EXPECT_EQ(plain, back);
}

TEST_F(RsaTest, BlockEncryptedByOpensslPkeyutlDecryptsFromNEAndDAlone) {
    MESH_RSA_KEY ours;
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&ours));
    ASSERT_TRUE(dir.writePublicDer("pub.der", ours));
    std::vector<uint8_t> plain = block117(0x80);
    dir.write("pt.bin", plain);
    ASSERT_TRUE(dir.run("openssl pkeyutl -encrypt -pubin -keyform DER -inkey pub.der"
                        " -pkeyopt rsa_padding_mode:pkcs1 -in pt.bin -out ct.bin"));
    std::vector<uint8_t> cipher = dir.read("ct.bin");
    ASSERT_EQ(MESH_RSA_CIPHER_LEN, cipher.size());

    // The record holds n, e and d only; e is not even consulted.
    MESH_RSA_KEY k = ours;
    memset(k.publicExponent, 0, sizeof k.publicExponent);
    std::vector<uint8_t> back(MESH_RSA_PLAIN_LEN, 0);
    ASSERT_EQ(0u, mesh_common_rsa_decrypt(&k, back.data(), cipher.data()));
    EXPECT_EQ(plain, back);
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(RsaTest, GarbageAndWrongKeyCiphertextsFail) {
    MESH_RSA_KEY ours;
    MESH_RSA_KEY other;
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&ours));
    ASSERT_EQ(0u, mesh_common_rsa_generateKey(&other));

    // c = 1 decrypts to 1 under every key: never a valid PKCS #1 v1.5 block.
    std::vector<uint8_t> one(MESH_RSA_CIPHER_LEN, 0);
    one.back() = 1;
    std::vector<uint8_t> out(MESH_RSA_PLAIN_LEN, 0);
    EXPECT_EQ(1u, mesh_common_rsa_decrypt(&ours, out.data(), one.data()));
    EXPECT_TRUE(
        errorLine(fake.takeStdout(), "mesh_common_rsa_decrypt", "openssl decrypt failed\n"));

    std::vector<uint8_t> plain = block117(9);
    MESH_RSA_KEY pub = publicOnly(other);
    std::vector<uint8_t> cipher(MESH_RSA_CIPHER_LEN);
    ASSERT_EQ(0u, mesh_common_rsa_encrypt(&pub, cipher.data(), plain.data()));
    EXPECT_EQ(1u, mesh_common_rsa_decrypt(&ours, out.data(), cipher.data()));
    EXPECT_TRUE(
        errorLine(fake.takeStdout(), "mesh_common_rsa_decrypt", "openssl decrypt failed\n"));
    // ... and the right key still opens it.
    ASSERT_EQ(0u, mesh_common_rsa_decrypt(&other, out.data(), cipher.data()));
    EXPECT_EQ(plain, out);

    // A public key record without a private exponent cannot decrypt.
    EXPECT_EQ(1u, mesh_common_rsa_decrypt(&pub, out.data(), cipher.data()));
    EXPECT_TRUE(
        errorLine(fake.takeStdout(), "mesh_common_rsa_decrypt", "openssl decrypt failed\n"));
}

TEST_F(RsaTest, UnusableKeysFail) {
    MESH_RSA_KEY k;
    ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&k));
    std::vector<uint8_t> plain = block117(1);
    std::vector<uint8_t> cipher(MESH_RSA_CIPHER_LEN, 0x5C);

    MESH_RSA_KEY empty = k;
    empty.modulusLen = 0;
    EXPECT_EQ(1u, mesh_common_rsa_encrypt(&empty, cipher.data(), plain.data()));
    EXPECT_TRUE(
        errorLine(fake.takeStdout(), "mesh_common_rsa_encrypt", "openssl encrypt failed\n"));

    // A modulus too short for 117 bytes of PKCS #1 v1.5 data.
    MESH_RSA_KEY small = k;
    small.modulusLen = 64;
    EXPECT_EQ(1u, mesh_common_rsa_encrypt(&small, cipher.data(), plain.data()));
    EXPECT_TRUE(
        errorLine(fake.takeStdout(), "mesh_common_rsa_encrypt", "openssl encrypt failed\n"));

    // Lengths beyond the record's fields are refused before anything is read, silently.
    MESH_RSA_KEY wide = k;
    wide.modulusLen = 200;
    EXPECT_EQ(1u, mesh_common_rsa_encrypt(&wide, cipher.data(), plain.data()));
    EXPECT_EQ(1u, mesh_common_rsa_decrypt(&wide, plain.data(), cipher.data()));
    wide = k;
    wide.privateExponentLen = 129;
    EXPECT_EQ(1u, mesh_common_rsa_decrypt(&wide, plain.data(), cipher.data()));
    EXPECT_EQ(Bytes(MESH_RSA_CIPHER_LEN, 0x5C), cipher);
    EXPECT_EQ("", fake.takeStdout());
}

TEST_F(RsaTest, RandomBytesComeFromTheSeam) {
    fake.queueRandom({0xde, 0xad, 0xbe, 0xef});
    uint8_t buf[4] = {};
    ASSERT_EQ(0u, mesh_common_getRandom(4, buf));
    EXPECT_EQ(Bytes({0xde, 0xad, 0xbe, 0xef}), Bytes(buf, buf + 4));

    fake.clearRecords();
    EXPECT_EQ(1u, mesh_common_getRandom(0, buf));
    EXPECT_EQ(1u, mesh_common_getRandom(4, nullptr));
    EXPECT_TRUE(fake.transcript().empty()); // the source is not even opened

    int h = fake.failNth(FakeOs::Op::Random, "", 1, ENOENT);
    EXPECT_EQ(1u, mesh_common_getRandom(16, buf));
    EXPECT_TRUE(fake.fired(h));
    EXPECT_EQ("", fake.takeStdout()); // an unopenable source is not reported
}

} // namespace
