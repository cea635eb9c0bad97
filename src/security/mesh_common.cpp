#include "security/mesh_common.h"

#include "platform/os.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <openssl/md5.h>
#include <openssl/evp.h>

#include "platform/seam_guard.h"

int32_t mesh_common_system(const char* cmd) {
    if (cmd == nullptr) {
        return 1;
    }
    return os().runShell(cmd);
}

int32_t mesh_common_systemf(const char* fmt, ...) {
    if (fmt == nullptr) {
        return 1;
    }
    char buf[MESH_SYSTEMF_BUF];
    memset(buf, 0, sizeof buf);
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return mesh_common_system(buf);
}

uint32_t mesh_common_hexDigit(uint32_t value, char* out) {
    if (value > 15 || out == nullptr) {
        return 1;
    }
    *out = static_cast<char>(value < 10 ? '0' + value : 'a' + (value - 10));
    return 0;
}

uint32_t mesh_common_ipToStr(uint32_t ip, char* out) {
    if (out == nullptr) {
        return 1;
    }
    if (ip == 0) {
        memset(out, 0, MESH_IP_STR_LEN);
        return 0;
    }
    snprintf(out, MESH_IP_STR_LEN, "%u.%u.%u.%u", ip >> 24, (ip >> 16) & 0xFF, (ip >> 8) & 0xFF,
             ip & 0xFF);
    return 0;
}

uint32_t mesh_common_getUptime(void) {
    return os().uptime();
}

uint32_t mesh_common_md5(const void* data, uint32_t len, uint8_t* out) {
    if (data == nullptr || out == nullptr || len == 0) {
        return 1;
    }
    // EVP keeps this free of deprecation warnings on OpenSSL 3 and works on 1.1 alike.
    unsigned int outLen = 0;
    if (EVP_Digest(data, len, out, &outLen, EVP_md5(), nullptr) != 1 || outLen != MESH_MD5_LEN) {
        return 1;
    }
    return 0;
}

uint32_t mesh_common_md5ToHex(const uint8_t* digest, char* out) {
    if (digest == nullptr || out == nullptr) {
        return 1;
    }
    for (size_t i = 0; i < MESH_MD5_LEN; ++i) {
        if (mesh_common_hexDigit(digest[i] >> 4, &out[2 * i]) != 0 ||
            mesh_common_hexDigit(digest[i] & 0x0F, &out[2 * i + 1]) != 0) {
            return 1;
        }
    }
    out[2 * MESH_MD5_LEN] = '\0';
    return 0;
}

uint32_t mesh_common_calcPassphrase(const uint8_t* mac, const uint8_t* secret, char* out) {
    if (mac == nullptr || secret == nullptr || out == nullptr) {
        return 1;
    }
    uint8_t block[6 + 16];
    memcpy(block, mac, 6);
    memcpy(block + 6, secret, 16);
    uint8_t digest[MESH_MD5_LEN];
    uint32_t rc = mesh_common_md5(block, sizeof block, digest);
    if (rc != 0) {
        return rc;
    }
    for (size_t i = 0; i < MESH_MD5_LEN; ++i) {
        snprintf(out + 2 * i, 3, "%02x", digest[i]);
    }
    out[2 * MESH_MD5_LEN] = '\0';
    return 0;
}

const char* mesh_common_resultStr(uint32_t code) {
    switch (code) {
    case 0:
        return "SUCCESS";
    case 1:
        return "FAIL";
    default:
        return "INVALID";
    }
}
