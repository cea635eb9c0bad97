// Throughput of the RSA key service: key generations, encryptions of one 117-byte block under
// a modulus, and decryptions of one 128-byte block from n, e and d, each per second.
#include "platform/linux_os.h"
#include "security/mesh_rsa.h"

#include <chrono>
#include <cstdio>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

// Runs `op` until `budget` seconds have passed (at least `minRuns` times); returns runs per
// second, or -1 when an operation failed.
template <typename Op> double rate(double budget, int minRuns, Op op) {
    int runs = 0;
    Clock::time_point start = Clock::now();
    double elapsed = 0;
    while (runs < minRuns || elapsed < budget) {
        if (!op()) {
            return -1;
        }
        ++runs;
        elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    }
    return runs / elapsed;
}

} // namespace

int main() {
    static LinuxOs linuxOs;
    setOs(&linuxOs);

    MESH_RSA_KEY key;
    double gen = rate(3.0, 5, [&] { return mesh_common_rsa_generateKey(&key) == 0; });

    MESH_RSA_KEY pub;
    memset(&pub, 0, sizeof pub);
    memcpy(pub.modulus, key.modulus, sizeof pub.modulus);
    pub.modulusLen = key.modulusLen;
    uint8_t plain[MESH_RSA_PLAIN_LEN];
    for (size_t i = 0; i < sizeof plain; ++i) {
        plain[i] = static_cast<uint8_t>(i);
    }
    uint8_t cipher[MESH_RSA_CIPHER_LEN];
    double enc = rate(2.0, 100, [&] { return mesh_common_rsa_encrypt(&pub, cipher, plain) == 0; });

    uint8_t back[MESH_RSA_PLAIN_LEN];
    double dec = rate(2.0, 20, [&] { return mesh_common_rsa_decrypt(&key, back, cipher) == 0; });
    if (gen < 0 || enc < 0 || dec < 0 || memcmp(back, plain, sizeof plain) != 0) {
        fprintf(stderr, "rsa bench: an operation failed\n");
        return 1;
    }
    printf("rsa 1024: key generations/s %10.1f\n", gen);
    printf("rsa 1024: encryptions/s     %10.1f  (117-byte block, public key n only)\n", enc);
    printf("rsa 1024: decryptions/s     %10.1f  (128-byte block, n, e and d, no CRT)\n", dec);
    return 0;
}
