// RSA key service on OpenSSL libcrypto's RSA_* interface.
//
// The boards ship OpenSSL 1.1, this build machine has 3.x. On 3.x the RSA_* calls are marked
// deprecated (in favour of EVP_PKEY); declaring that this file is written against the 1.1
// API keeps them available and free of deprecation warnings there, and is a no-op on 1.1
// itself. It is set here only, so that no other file can slip into the old API unnoticed.
#define OPENSSL_API_COMPAT 0x10100000L

#include "security/mesh_rsa.h"

#include "core/mesh_log.h"
#include "platform/os.h"

#include <cstring>
#include <openssl/bn.h>
#include <openssl/rsa.h>

#include "platform/seam_guard.h"

namespace {

// Every key of the mesh uses e = 65537; rebuilt keys take it from here, not from the record.
const uint8_t l_pubExp[MESH_RSA_PUB_EXP_LEN] = {0x01, 0x00, 0x01};

// OpenSSL 3.2 and later answer a PKCS #1 v1.5 padding error with a synthetic plaintext
// ("implicit rejection") instead of an error. A child must learn that a pairing block was
// not made for its key, so where the library offers it, the explicit-error mode is used; it
// is the same padding on the wire.
#ifdef RSA_PKCS1_NO_IMPLICIT_REJECT_PADDING
constexpr int l_decryptPadding = RSA_PKCS1_NO_IMPLICIT_REJECT_PADDING;
#else
constexpr int l_decryptPadding = RSA_PKCS1_PADDING;
#endif

MESH_RSA_KEY l_rsaKey;
bool l_rsaKeyReady = false;

// Builds an RSA object from big-endian n and e, and d when `d` is given. The object owns the
// numbers afterwards. Returns null when a conversion fails (no message: the caller decides).
RSA* buildKey(RSA* rsa, const uint8_t* n, size_t nLen, const uint8_t* d, size_t dLen) {
    if (nLen > MESH_RSA_MODULUS_LEN || dLen > MESH_RSA_MODULUS_LEN) {
        return nullptr; // a length beyond the record's field cannot be a key of ours
    }
    BIGNUM* bnN = BN_bin2bn(n, static_cast<int>(nLen), nullptr);
    BIGNUM* bnE = BN_bin2bn(l_pubExp, sizeof l_pubExp, nullptr);
    BIGNUM* bnD = d != nullptr ? BN_bin2bn(d, static_cast<int>(dLen), nullptr) : nullptr;
    if (bnN == nullptr || bnE == nullptr || (d != nullptr && bnD == nullptr) ||
        RSA_set0_key(rsa, bnN, bnE, bnD) != 1) {
        BN_free(bnN);
        BN_free(bnE);
        BN_clear_free(bnD);
        return nullptr;
    }
    return rsa;
}

} // namespace

uint32_t mesh_common_getRandom(uint8_t length, uint8_t* buf) {
    if (buf == nullptr || length == 0) {
        return 1;
    }
    int n = os().readRandom(buf, length);
    if (n < 0) {
        return 1; // the source cannot be opened
    }
    if (n < length) {
        MESH_ERR("read random fail");
        return 1;
    }
    return 0;
}

uint32_t mesh_common_rsa_generateKey(MESH_RSA_KEY* out) {
    if (out == nullptr) {
        return 1;
    }
    RSA* rsa = RSA_new();
    if (rsa == nullptr) {
        MESH_ERR("RSA_new fail.");
        return 1;
    }
    BIGNUM* exp = BN_new();
    if (exp == nullptr) {
        MESH_ERR("BN_new fail.");
        RSA_free(rsa);
        return 1;
    }
    if (BN_set_word(exp, MESH_RSA_PUB_EXP) != 1 ||
        RSA_generate_key_ex(rsa, MESH_RSA_KEY_BITS, exp, nullptr) != 1) {
        MESH_ERR("RSA_generate_key_ex fail.");
        BN_free(exp);
        RSA_free(rsa);
        return 1;
    }
    BN_free(exp);

    const BIGNUM* n = nullptr;
    const BIGNUM* e = nullptr;
    const BIGNUM* d = nullptr;
    RSA_get0_key(rsa, &n, &e, &d);
    // A 1024-bit key has a 128-byte n and d of at most 128 bytes; e is 65537 as asked for.
    if (BN_num_bytes(n) > static_cast<int>(MESH_RSA_MODULUS_LEN) ||
        BN_num_bytes(e) > static_cast<int>(MESH_RSA_PUB_EXP_LEN) ||
        BN_num_bytes(d) > static_cast<int>(MESH_RSA_MODULUS_LEN)) {
        MESH_ERR("RSA_generate_key_ex fail.");
        RSA_free(rsa);
        return 1;
    }
    memset(out, 0, sizeof *out);
    out->modulusLen = static_cast<uint16_t>(BN_bn2bin(n, out->modulus));
    BN_bn2bin(e, out->publicExponent + (MESH_RSA_PUB_EXP_LEN - BN_num_bytes(e)));
    out->privateExponentLen = static_cast<uint16_t>(BN_bn2bin(d, out->privateExponent));
    RSA_free(rsa);
    return 0;
}

uint32_t mesh_common_rsa_getSingleton(MESH_RSA_KEY* out) {
    if (out == nullptr) {
        return 1;
    }
    if (!l_rsaKeyReady) {
        if (mesh_common_rsa_generateKey(&l_rsaKey) != 0) {
            MESH_ERR("unable to generate rsa key\n");
            return 1;
        }
        l_rsaKeyReady = true;
    }
    memcpy(out, &l_rsaKey, sizeof *out);
    return 0;
}

uint32_t mesh_common_rsa_encrypt(const MESH_RSA_KEY* key, uint8_t* out, const uint8_t* in) {
    if (key == nullptr || out == nullptr || in == nullptr) {
        return 1;
    }
    RSA* rsa = RSA_new();
    if (rsa == nullptr) {
        MESH_ERR("cannot create rsa key");
        return 1;
    }
    if (buildKey(rsa, key->modulus, key->modulusLen, nullptr, 0) == nullptr) {
        RSA_free(rsa);
        return 1;
    }
    // RSA_public_encrypt writes RSA_size() bytes: at most 128 since n is at most 128 bytes.
    int r =
        RSA_public_encrypt(static_cast<int>(MESH_RSA_PLAIN_LEN), in, out, rsa, RSA_PKCS1_PADDING);
    RSA_free(rsa);
    if (r <= 0) {
        MESH_ERR("openssl encrypt failed\n");
        return 1;
    }
    return 0;
}

uint32_t mesh_common_rsa_decrypt(const MESH_RSA_KEY* key, uint8_t* out, const uint8_t* in) {
    if (key == nullptr || out == nullptr || in == nullptr) {
        return 1;
    }
    RSA* rsa = RSA_new();
    if (rsa == nullptr) {
        MESH_ERR("cannot create rsa key");
        return 1;
    }
    // n, e and d only: without CRT parameters OpenSSL exponentiates with d directly.
    if (buildKey(rsa, key->modulus, key->modulusLen, key->privateExponent,
                 key->privateExponentLen) == nullptr) {
        RSA_free(rsa);
        return 1;
    }
    // With PKCS #1 v1.5 the plaintext is at most RSA_size() - 11 = 117 bytes for n of 128
    // bytes, which is what `out` is promised to hold.
    int r =
        RSA_private_decrypt(static_cast<int>(MESH_RSA_CIPHER_LEN), in, out, rsa, l_decryptPadding);
    RSA_free(rsa);
    if (r <= 0) {
        MESH_ERR("openssl decrypt failed\n");
        return 1;
    }
    return 0;
}
