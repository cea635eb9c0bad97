#include "security/mesh_payload.h"

#include "core/mesh_log.h"
#include "platform/byteorder.h"
#include "security/mesh_rsa.h"

#include <cstring>

#include "platform/seam_guard.h"

const uint8_t MESH_LABEL[MESH_LABEL_LEN] = {0x5a, 0x13, 0xc7, 0x02, 0x9e, 0x41, 0xb8, 0x6d,
                                            0x33, 0xf0, 0x27, 0x8a, 0xd4, 0x69, 0x0b, 0xe5};

namespace {

// Copies at most `cap - 1` characters of `src` (read no further than `srcCap` bytes) into a
// zero-filled field of `cap` bytes, so that the field always ends in a terminator.
void copyText(char* dst, size_t cap, const char* src, size_t srcCap) {
    size_t n = strnlen(src, srcCap);
    if (n > cap - 1) {
        n = cap - 1;
    }
    memset(dst, 0, cap);
    memcpy(dst, src, n);
}

} // namespace

uint32_t mesh_payload_buildBeacon(const uint8_t* deviceMac, MESH_IE_BASIC* out) {
    if (deviceMac == nullptr || out == nullptr) {
        return 1;
    }
    memset(out, 0, sizeof *out);
    out->type = MESH_IE_TYPE_MESH;
    memcpy(out->label, MESH_LABEL, MESH_LABEL_LEN);
    out->version = MESH_IE_VERSION;
    memcpy(out->deviceMac, deviceMac, sizeof out->deviceMac);
    return 0;
}

uint32_t mesh_payload_buildProbeRsp(const uint8_t* deviceMac, MESH_IE_PROBE_RSP* out) {
    if (deviceMac == nullptr || out == nullptr) {
        return 1;
    }
    memset(out, 0, sizeof *out);
    // The type byte stays 0: the adapter installs the template once with 2 and once with 3.
    memcpy(out->label, MESH_LABEL, MESH_LABEL_LEN);
    out->version = MESH_IE_VERSION;
    memcpy(out->deviceMac, deviceMac, sizeof out->deviceMac);
    out->dataLen = static_cast<uint8_t>(MESH_PAIR_DATA_LEN);
    return 0;
}

uint32_t mesh_payload_buildChildRecord(const uint8_t* mac, const uint8_t* digest, uint8_t data1Len,
                                       const uint8_t* data1, uint8_t data2Len, const uint8_t* data2,
                                       MESH_CHILD_RECORD* out) {
    if (mac == nullptr || digest == nullptr || out == nullptr) {
        return 1;
    }
    memset(out, 0, sizeof *out);
    memcpy(out->mac, mac, sizeof out->mac);
    memcpy(out->digest, digest, sizeof out->digest);
    if (data1 != nullptr) {
        out->data1Len = data1Len;
        memcpy(out->data1, data1, MESH_PAIR_DATA_LEN);
    }
    if (data2 != nullptr) {
        out->data2Len = data2Len;
        memcpy(out->data2, data2, MESH_PAIR_DATA_LEN);
    }
    return 0;
}

uint32_t mesh_payload_buildPairBlockAddr(const uint8_t* secret, const MESH_CONTROLLER_IP_PORT* addr,
                                         MESH_PAIR_BLOCK_ADDR* out) {
    if (secret == nullptr || addr == nullptr || out == nullptr) {
        return 1;
    }
    memset(out, 0, sizeof *out);
    memcpy(out->secret, secret, sizeof out->secret);
    copyText(out->ip, sizeof out->ip, addr->ip, sizeof addr->ip);
    put_be32(out->value1, addr->value1);
    put_be32(out->value2, addr->value2);
    return 0;
}

uint32_t mesh_payload_buildPairBlockId(const uint8_t* secret, const MESH_ORBP_CFG* id,
                                       MESH_PAIR_BLOCK_ID* out) {
    if (secret == nullptr || id == nullptr || out == nullptr) {
        return 1;
    }
    memset(out, 0, sizeof *out);
    memcpy(out->secret, secret, sizeof out->secret);
    // The identity travels as its 33 bytes stand, bytes after a terminator included.
    memcpy(out->vintacId, id->vintacId, sizeof out->vintacId);
    put_be32(out->verCap, id->verCap);
    return 0;
}

uint32_t fillIntoAssocRequest(MESH_IE_BASIC* out) {
    if (out == nullptr) {
        MESH_ERR("null pointer\n");
        return 1;
    }
    return mesh_payload_buildBeacon(g_allConfig.deviceMac, out);
}

uint32_t fillIntoProbeRequest(MESH_IE_PROBE_REQ* out, uint8_t flags) {
    if (out == nullptr) {
        return 1;
    }
    memset(out, 0, sizeof *out);
    out->type = MESH_IE_TYPE_MESH;
    memcpy(out->label, MESH_LABEL, MESH_LABEL_LEN);
    out->version = MESH_IE_VERSION;
    out->flags = flags;
    if (g_allConfig.resetFlag != 0) {
        out->flags |= MESH_PROBE_FLAG_RESET;
    }
    out->probeAttr = g_allConfig.probeAttr;
    memcpy(out->vlanId, &g_allConfig.vlanId, sizeof out->vlanId);
    memcpy(out->controllerId, g_allConfig.controllerId, sizeof out->controllerId);
    memcpy(out->digest, g_allConfig.digest, sizeof out->digest);
    memcpy(out->deviceMac, g_allConfig.deviceMac, sizeof out->deviceMac);
    copyText(out->probeText, sizeof out->probeText, g_allConfig.probeText,
             sizeof g_allConfig.probeText);
    out->probeTextAttr = g_allConfig.probeTextAttr;

    MESH_RSA_KEY key;
    if (mesh_common_rsa_getSingleton(&key) != 0) {
        MESH_ERR("cannot get rsa public key to fill into probe request\n");
        return 1;
    }
    // A generated key always has a 128-byte modulus; the bound only guards the copy.
    size_t keyLen = key.modulusLen <= sizeof out->key ? key.modulusLen : sizeof out->key;
    out->keyLen = static_cast<uint8_t>(keyLen);
    memcpy(out->key, key.modulus, keyLen);
    put_be32(out->verCap, g_allConfig.orbpCfg.verCap);
    return 0;
}
