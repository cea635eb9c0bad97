#include "security/mesh_child.h"

#include "core/mesh_log.h"
#include "security/mesh_rsa.h"
#include "wlan/mesh_wlan_radio.h"

#include <cstring>

#include "platform/seam_guard.h"

namespace {

CHILD_RSA_ENTRY l_childRsa[MESH_CHILD_RSA_SLOTS];

constexpr size_t MAC_LEN = 6;

CHILD_RSA_ENTRY* findByMac(const uint8_t* mac) {
    for (auto& e : l_childRsa) {
        if (e.inUse != 0 && memcmp(e.mac, mac, MAC_LEN) == 0) {
            return &e;
        }
    }
    return nullptr;
}

// The child's row among the first childNum entries of childList, or null.
const MESH_CHILD_ENTRY* findConfigRow(const uint8_t* mac) {
    const size_t n = g_allConfig.childNum < MESH_MAX_CHILD ? g_allConfig.childNum : MESH_MAX_CHILD;
    for (size_t i = 0; i < n; ++i) {
        if (memcmp(g_allConfig.childList[i].mac, mac, MAC_LEN) == 0) {
            return &g_allConfig.childList[i];
        }
    }
    return nullptr;
}

// A child's public key: the stored modulus; e = 65537 is implied by the encryption.
void childPublicKey(const uint8_t* modulus, uint8_t len, MESH_RSA_KEY* key) {
    memset(key, 0, sizeof *key);
    const size_t n = len <= sizeof key->modulus ? len : sizeof key->modulus;
    memcpy(key->modulus, modulus, n);
    key->modulusLen = static_cast<uint16_t>(n);
}

void childRecord(const CHILD_RSA_ENTRY& e, const MESH_CHILD_ENTRY& row, MESH_CHILD_RECORD* rec) {
    mesh_payload_buildChildRecord(e.mac, row.digest, e.data1Len, e.data1, e.data2Len, e.data2, rec);
}

// Which pairing block a controller change re-encrypts.
enum class Block { Addr, Id };

// Re-encrypts one block of every keyed child from `src` (a MESH_CONTROLLER_IP_PORT for the
// address block, a MESH_ORBP_CFG for the identity block) and re-admits the child.
uint32_t reencryptAll(Block which, const void* src, const char* func) {
    for (auto& e : l_childRsa) {
        if (e.inUse == 0 || e.keyLen == 0) {
            continue;
        }
        const MESH_CHILD_ENTRY* row = findConfigRow(e.mac);
        if (row == nullptr) {
            mesh_errorLog(func, __LINE__, "coudn't found the entry in g_allConfig");
            return 1;
        }
        MESH_RSA_KEY key;
        childPublicKey(e.childKey, e.keyLen, &key);
        uint8_t plain[MESH_PAIR_BLOCK_LEN];
        uint8_t* dst;
        if (which == Block::Addr) {
            mesh_payload_buildPairBlockAddr(g_meshRandom,
                                            static_cast<const MESH_CONTROLLER_IP_PORT*>(src),
                                            reinterpret_cast<MESH_PAIR_BLOCK_ADDR*>(plain));
            dst = e.data1;
        } else {
            mesh_payload_buildPairBlockId(g_meshRandom, static_cast<const MESH_ORBP_CFG*>(src),
                                          reinterpret_cast<MESH_PAIR_BLOCK_ID*>(plain));
            dst = e.data2;
        }
        const uint32_t rc = mesh_common_rsa_encrypt(&key, dst, plain);
        if (rc != 0) {
            mesh_errorLog(func, __LINE__, "rsa encrypt failed\n");
            return rc;
        }
        (which == Block::Addr ? e.data1Len : e.data2Len) = MESH_PAIR_DATA_LEN;

        MESH_CHILD_RECORD rec;
        childRecord(e, *row, &rec);
        if (mesh_wlan_delChild(rec.mac, e.staMac) != 0) {
            mesh_errorLog(func, __LINE__, "delete child fail ");
            return 1;
        }
        if (mesh_wlan_addChild(&rec) != 0) {
            mesh_errorLog(func, __LINE__, "update child rsa data fail");
            return 1;
        }
    }
    return 0;
}

} // namespace

uint32_t mesh_addChildRsaEntry(const MESH_CHILD_RECORD* record) {
    if (record == nullptr) {
        return 1;
    }
    if (findByMac(record->mac) != nullptr) {
        MESH_ERR("it's an existed mac");
        return 1;
    }
    for (auto& e : l_childRsa) {
        if (e.inUse == 0) {
            memset(&e, 0, sizeof e);
            e.inUse = 1;
            memcpy(e.mac, record->mac, MAC_LEN);
            return 0;
        }
    }
    MESH_ERR("child rsa entry is full");
    return 1;
}

uint32_t mesh_delChildRsaEntry(const uint8_t* mac, uint8_t* staMac) {
    if (mac == nullptr || staMac == nullptr) {
        return 1;
    }
    CHILD_RSA_ENTRY* e = findByMac(mac);
    if (e == nullptr) {
        MESH_ERR("can't find the mac in l_childRsa");
        return 1;
    }
    memcpy(staMac, e->staMac, MAC_LEN);
    memset(e, 0, sizeof *e);
    return 0;
}

uint32_t mesh_getChildStaMac(const uint8_t* mac, uint8_t* staMac) {
    if (mac == nullptr || staMac == nullptr) {
        return 1;
    }
    const CHILD_RSA_ENTRY* e = findByMac(mac);
    if (e == nullptr) {
        return 1;
    }
    memcpy(staMac, e->staMac, MAC_LEN);
    return 0;
}

uint32_t mesh_setChildStaMac(const uint8_t* mac, const uint8_t* staMac) {
    if (mac == nullptr || staMac == nullptr) {
        return 1;
    }
    CHILD_RSA_ENTRY* e = findByMac(mac);
    if (e == nullptr) {
        return 1;
    }
    memcpy(e->staMac, staMac, MAC_LEN);
    return 0;
}

uint32_t mesh_getChildMacByStaMac(uint8_t* mac) {
    if (mac == nullptr) {
        return 1;
    }
    for (const auto& e : l_childRsa) {
        if (e.inUse != 0 && memcmp(e.staMac, mac, MAC_LEN) == 0) {
            memcpy(mac, e.mac, MAC_LEN);
            return 0;
        }
    }
    return 1;
}

uint32_t mesh_getChildRsaData(const uint8_t* mac, MESH_CHILD_RECORD* record) {
    if (mac == nullptr || record == nullptr) {
        return 1;
    }
    const CHILD_RSA_ENTRY* e = findByMac(mac);
    if (e == nullptr) {
        return 1;
    }
    record->data1Len = e->data1Len;
    memcpy(record->data1, e->data1, sizeof record->data1);
    record->data2Len = e->data2Len;
    memcpy(record->data2, e->data2, sizeof record->data2);
    return 0;
}

uint32_t mesh_updateChildRsaData(const MESH_CANDIDATE_CHILD* candidate, const uint8_t* staMac) {
    if (candidate == nullptr || staMac == nullptr) {
        return 1;
    }
    CHILD_RSA_ENTRY* e = findByMac(candidate->info.deviceMac);
    if (e == nullptr) {
        MESH_ERR("can't find the entry");
        return 1;
    }
    if (memcmp(e->staMac, staMac, MAC_LEN) != 0) {
        memcpy(e->staMac, staMac, MAC_LEN);
    }
    // The key length comes from the air; the stored key is never longer than its field.
    const uint8_t keyLen = candidate->keyLen <= sizeof e->childKey
                               ? candidate->keyLen
                               : static_cast<uint8_t>(sizeof e->childKey);
    if (e->keyLen == keyLen && memcmp(e->childKey, candidate->key, keyLen) == 0) {
        return 0;
    }
    MESH_RSA_KEY key;
    childPublicKey(candidate->key, keyLen, &key);

    MESH_PAIR_BLOCK_ADDR addr;
    mesh_payload_buildPairBlockAddr(g_meshRandom, &g_allConfig.controllerIpPort, &addr);
    e->keyLen = keyLen;
    memcpy(e->childKey, candidate->key, sizeof e->childKey);
    e->data1Len = MESH_PAIR_DATA_LEN;
    uint32_t rc = mesh_common_rsa_encrypt(&key, e->data1, reinterpret_cast<const uint8_t*>(&addr));
    if (rc != 0) {
        MESH_ERR("rsa encrypt failed\n");
        return rc;
    }
    MESH_PAIR_BLOCK_ID id;
    mesh_payload_buildPairBlockId(g_meshRandom, &g_allConfig.orbpCfg, &id);
    e->data2Len = MESH_PAIR_DATA_LEN;
    rc = mesh_common_rsa_encrypt(&key, e->data2, reinterpret_cast<const uint8_t*>(&id));
    if (rc != 0) {
        MESH_ERR("rsa encrypt failed\n");
        return rc;
    }
    const MESH_CHILD_ENTRY* row = findConfigRow(e->mac);
    if (row == nullptr) {
        MESH_ERR("coudn't found the entry in g_allConfig");
        return 1;
    }
    MESH_CHILD_RECORD rec;
    childRecord(*e, *row, &rec);
    if (mesh_wlan_addChild(&rec) != 0) {
        MESH_ERR("update child rsa data fail");
        return 1;
    }
    return 0;
}

uint32_t mesh_updateChildRsaControllerIpPort(const MESH_CONTROLLER_IP_PORT* addr) {
    if (addr == nullptr) {
        return 1;
    }
    return reencryptAll(Block::Addr, addr, __func__);
}

uint32_t mesh_updateChildRsaOrbpCfg(const MESH_ORBP_CFG* id) {
    if (id == nullptr) {
        return 1;
    }
    return reencryptAll(Block::Id, id, __func__);
}

uint32_t mesh_isChildInConfig(const uint8_t* mac) {
    if (mac == nullptr) {
        return 0;
    }
    return findConfigRow(mac) != nullptr ? 1 : 0;
}

const CHILD_RSA_ENTRY* mesh_child_slot(size_t index) {
    return index < MESH_CHILD_RSA_SLOTS ? &l_childRsa[index] : nullptr;
}

void mesh_child_resetForTest(void) {
    memset(l_childRsa, 0, sizeof l_childRsa);
}
