// RSA key service: the node's own 1024-bit key pair (made on first use, kept for the life of
// the process), the two PKCS #1 v1.5 block operations of the pairing, and the random source.
//
// The key service takes no lock. Its callers that can trigger the first key generation run
// with g_configMutex held, which serialises the generation and the copy-out.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int MESH_RSA_KEY_BITS = 1024;
constexpr size_t MESH_RSA_MODULUS_LEN = 128; // 1024 bits
constexpr size_t MESH_RSA_PUB_EXP_LEN = 3;   // 01 00 01
constexpr uint32_t MESH_RSA_PUB_EXP = 65537; // every key of the mesh
constexpr size_t MESH_RSA_PLAIN_LEN = 117;   // 128 - 11: the PKCS #1 v1.5 maximum
constexpr size_t MESH_RSA_CIPHER_LEN = 128;

#pragma pack(push, 1)
// A key pair, or a peer's public key (then privateExponent is zero). Copied by value.
struct MESH_RSA_KEY {
    uint8_t modulus[MESH_RSA_MODULUS_LEN];         // n, big-endian, modulusLen bytes used
    uint8_t publicExponent[MESH_RSA_PUB_EXP_LEN];  // e, big-endian
    uint8_t privateExponent[MESH_RSA_MODULUS_LEN]; // d, big-endian, privateExponentLen used
    uint16_t modulusLen;
    uint16_t privateExponentLen;
};
#pragma pack(pop)
static_assert(sizeof(MESH_RSA_KEY) == 263, "MESH_RSA_KEY is 263 bytes");
static_assert(offsetof(MESH_RSA_KEY, publicExponent) == 128, "publicExponent at 128");
static_assert(offsetof(MESH_RSA_KEY, privateExponent) == 131, "privateExponent at 131");
static_assert(offsetof(MESH_RSA_KEY, modulusLen) == 259, "modulusLen at 259");
static_assert(offsetof(MESH_RSA_KEY, privateExponentLen) == 261, "privateExponentLen at 261");

// Reads `length` bytes of /dev/urandom into `buf`. 0, or 1 (null buffer, length 0, the source
// cannot be opened, or a short read: "read random fail").
uint32_t mesh_common_getRandom(uint8_t length, uint8_t* buf);

// Generates a fresh 1024-bit key pair with exponent 65537 into `out`. 0, or 1.
uint32_t mesh_common_rsa_generateKey(MESH_RSA_KEY* out);

// Copies the node's key pair into `out`, generating it on the first call. 0, or 1 when it
// could not be generated (the next call tries again).
uint32_t mesh_common_rsa_getSingleton(MESH_RSA_KEY* out);

// Encrypts the 117 bytes at `in` under the public key (n of `key`, e = 65537) into the 128
// bytes at `out`. 0, or 1.
uint32_t mesh_common_rsa_encrypt(const MESH_RSA_KEY* key, uint8_t* out, const uint8_t* in);

// Decrypts the 128 bytes at `in` with n and d of `key` into `out` (at least 117 bytes; the
// plaintext length is not reported, callers clear `out` first). 0, or 1.
uint32_t mesh_common_rsa_decrypt(const MESH_RSA_KEY* key, uint8_t* out, const uint8_t* in);
