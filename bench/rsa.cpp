// The RSA key service: key generation, encryption of one 117-byte block under a modulus
// alone, and decryption of one 128-byte block from n, e and d.
#include "platform/linux_os.h"
#include "security/mesh_rsa.h"

#include <benchmark/benchmark.h>
#include <cstring>

namespace {

// A key pair, its public half and one block encrypted under it.
struct Keys {
    MESH_RSA_KEY key;
    MESH_RSA_KEY pub;
    uint8_t plain[MESH_RSA_PLAIN_LEN];
    uint8_t cipher[MESH_RSA_CIPHER_LEN];
    bool ok;

    static Keys& get() {
        static Keys k;
        return k;
    }

  private:
    Keys() {
        static LinuxOs linuxOs;
        setOs(&linuxOs);
        memset(&pub, 0, sizeof pub);
        ok = mesh_common_rsa_generateKey(&key) == 0;
        memcpy(pub.modulus, key.modulus, sizeof pub.modulus);
        pub.modulusLen = key.modulusLen;
        for (size_t i = 0; i < sizeof plain; ++i) {
            plain[i] = static_cast<uint8_t>(i);
        }
        ok = ok && mesh_common_rsa_encrypt(&pub, cipher, plain) == 0;
    }
};

void RsaGenerateKey(benchmark::State& state) {
    Keys::get();
    MESH_RSA_KEY key;
    for (auto _ : state) {
        if (mesh_common_rsa_generateKey(&key) != 0) {
            state.SkipWithError("key generation failed");
            break;
        }
    }
}
BENCHMARK(RsaGenerateKey)->Unit(benchmark::kMillisecond);

void RsaEncrypt(benchmark::State& state) {
    Keys& k = Keys::get();
    uint8_t cipher[MESH_RSA_CIPHER_LEN];
    for (auto _ : state) {
        if (!k.ok || mesh_common_rsa_encrypt(&k.pub, cipher, k.plain) != 0) {
            state.SkipWithError("encryption failed");
            break;
        }
    }
}
BENCHMARK(RsaEncrypt)->Unit(benchmark::kMicrosecond);

void RsaDecrypt(benchmark::State& state) {
    Keys& k = Keys::get();
    uint8_t back[MESH_RSA_PLAIN_LEN];
    for (auto _ : state) {
        if (!k.ok || mesh_common_rsa_decrypt(&k.key, back, k.cipher) != 0 ||
            memcmp(back, k.plain, sizeof back) != 0) {
            state.SkipWithError("decryption failed");
            break;
        }
    }
}
BENCHMARK(RsaDecrypt)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
