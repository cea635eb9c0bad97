#include "core/mesh_handle_child.h"

#include "core/mesh_log.h"
#include "platform/byteorder.h"
#include "security/mesh_common.h"
#include "security/mesh_netlink.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_ie.h"
#include "wlan/mesh_wlan_radio.h"
#include "wlan/mesh_wlan_scan.h"

#include <cstdio>
#include <cstring>

#include "platform/seam_guard.h"

namespace {

constexpr size_t MAC_LEN = 6;

MESH_CANDIDATE_CHILD l_candidateChild[MESH_MAX_CANDIDATE_CHILD];
pthread_mutex_t l_candidateChildMutex = PTHREAD_MUTEX_INITIALIZER;

bool stale(const MESH_CANDIDATE_CHILD& c, uint32_t now) {
    return now - c.lastSeen > MESH_CANDIDATE_STALE_SECS;
}

// First valid record of this MAC, or null. Caller holds l_candidateChildMutex.
MESH_CANDIDATE_CHILD* findCandidate(const uint8_t* mac) {
    for (auto& c : l_candidateChild) {
        if (c.valid != 0 && memcmp(c.info.deviceMac, mac, MAC_LEN) == 0) {
            return &c;
        }
    }
    return nullptr;
}

// The record a new prober goes into: the first free one; when all are in use, an admitted
// child takes over the first record of a prober that is not one. Null: drop the probe.
MESH_CANDIDATE_CHILD* freeCandidate(uint32_t isChild) {
    for (auto& c : l_candidateChild) {
        if (c.valid == 0) {
            return &c;
        }
    }
    if (isChild == 0) {
        return nullptr;
    }
    for (auto& c : l_candidateChild) {
        if (c.isChild == 0) {
            return &c;
        }
    }
    return nullptr;
}

void fillCandidate(MESH_CANDIDATE_CHILD* c, const MESH_CHILD_PROBE* p, uint32_t isChild,
                   uint32_t now) {
    MESH_CANDIDATE_CHILD_INFO& info = c->info;
    memcpy(info.deviceMac, p->deviceMac, MAC_LEN);
    memcpy(info.staMac, p->staMac, MAC_LEN);
    // Text from the air: kept within its field and terminated.
    memcpy(info.probeText, p->probeText, sizeof info.probeText - 1);
    info.probeText[sizeof info.probeText - 1] = '\0';
    memcpy(info.controllerId, p->controllerId, sizeof info.controllerId);
    info.resetFlag = (p->flags & MESH_CHILD_PROBE_RESET) != 0 ? 1 : 0;
    info.probeAttr = p->probeAttr;
    info.drv15 = p->drv15;
    info.probeTextAttr = p->probeTextAttr;
    info.drv12 = p->drv12;
    if (info.drv13Best == 0 || p->drv13 > info.drv13Best ||
        now - c->signalTime > MESH_CANDIDATE_SIGNAL_SECS) {
        info.drv13Best = p->drv13;
        c->signalTime = now;
    }
    info.drv14 = p->drv14;
    info.zero67 = 0;
    info.verCap = get_be32(p->verCap);
    c->lastSeen = now;
    c->keyLen = p->keyLen;
    memcpy(c->key, p->key, sizeof c->key);
    memset(c->zero, 0, sizeof c->zero);
    c->isChild = isChild;
    c->valid = 1;
}

uint32_t meshEnabledLocked() {
    return g_allConfig.meshEnable;
}

// The backhaul AP up: switched on when it exists, else created from the configuration with
// its beacon and probe-response elements. Caller holds g_configMutex.
uint32_t ensureBkhAp() {
    if (mesh_wlan_checkBkhApExist() != 0) {
        if (mesh_wlan_enableBkhAp(1) != 0) {
            MESH_ERR("enable backhaul ap failed\n");
            return 1;
        }
        return 0;
    }
    const uint8_t* m = g_allConfig.deviceMac;
    MESH_WLAN_CREDENTIALS cred;
    memset(&cred, 0, sizeof cred);
    snprintf(cred.ssid, sizeof cred.ssid, "mesh_%02x%02x%02x%02x%02x%02x", m[0], m[1], m[2], m[3],
             m[4], m[5]);
    const uint32_t rc = mesh_common_calcPassphrase(m, g_meshRandom, cred.passphrase);
    if (rc != 0) {
        return rc;
    }
    if (mesh_wlan_createBkhAp(&cred, g_allConfig.dfsFlag, &g_allConfig.basicWlanCfg,
                              &g_allConfig.advWlanCfg, g_allConfig.bkhApParam) != 0) {
        MESH_ERR("create backhaul fail");
        return 1;
    }
    if (mesh_wlan_enableBkhAp(1) != 0) {
        MESH_ERR("enable backhaul ap failed\n");
        return 1;
    }
    MESH_IE_BASIC beacon;
    mesh_payload_buildBeacon(m, &beacon);
    if (mesh_wlan_updateBkhApBeacon(&beacon) != 0) {
        MESH_ERR("update backhaul ap beacon fail");
        return 1;
    }
    MESH_IE_PROBE_RSP rsp;
    mesh_payload_buildProbeRsp(m, &rsp);
    if (mesh_wlan_updateProbeRes(&rsp) != 0) {
        MESH_ERR("update probe response data fail");
        return 1;
    }
    return 0;
}

// Index of the MAC among the first childNum rows of childList, or -1.
int configIndex(const uint8_t* mac) {
    const int n = g_allConfig.childNum < MESH_MAX_CHILD ? g_allConfig.childNum : MESH_MAX_CHILD;
    for (int i = 0; i < n; ++i) {
        if (memcmp(g_allConfig.childList[i].mac, mac, MAC_LEN) == 0) {
            return i;
        }
    }
    return -1;
}

} // namespace

void mesh_handle_indicateChild(const void* record) {
    if (record == nullptr) {
        return;
    }
    const auto* probe = static_cast<const MESH_CHILD_PROBE*>(record);
    const bool removal = (probe->flags & MESH_CHILD_PROBE_SEARCHING) == 0;

    pthread_mutex_lock(&g_configMutex);
    const uint32_t isChild = mesh_isChildInConfig(probe->deviceMac);
    pthread_mutex_unlock(&g_configMutex);

    const uint32_t now = mesh_common_getUptime();
    pthread_mutex_lock(&l_candidateChildMutex);
    MESH_CANDIDATE_CHILD* c = findCandidate(probe->deviceMac);
    for (auto& r : l_candidateChild) {
        if (r.valid != 0 && stale(r, now)) {
            memset(&r, 0, sizeof r);
        }
    }
    if (removal) {
        if (c != nullptr) {
            memset(c, 0, sizeof *c);
        }
        if (isChild != 0) {
            pthread_mutex_lock(&g_configMutex);
            uint8_t stored[MAC_LEN] = {0};
            if (mesh_getChildStaMac(probe->deviceMac, stored) == 0 &&
                memcmp(stored, probe->staMac, MAC_LEN) != 0) {
                mesh_setChildStaMac(probe->deviceMac, probe->staMac);
            }
            pthread_mutex_unlock(&g_configMutex);
        }
        pthread_mutex_unlock(&l_candidateChildMutex);
        return;
    }
    if (c == nullptr) {
        c = freeCandidate(isChild);
        if (c == nullptr) {
            pthread_mutex_unlock(&l_candidateChildMutex);
            return;
        }
        // A record taken over from another prober keeps nothing of it.
        memset(c, 0, sizeof *c);
    }
    fillCandidate(c, probe, isChild, now);
    if (isChild != 0) {
        pthread_mutex_lock(&g_configMutex);
        if (mesh_updateChildRsaData(c, c->info.staMac) != 0) {
            MESH_ERR("update child rsa data key");
        }
        pthread_mutex_unlock(&g_configMutex);
    }
    pthread_mutex_unlock(&l_candidateChildMutex);
}

uint32_t mesh_handle_getCandidateChild(uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    payload[0] = 0;
    pthread_mutex_lock(&g_configMutex);
    const uint32_t enabled = meshEnabledLocked();
    pthread_mutex_unlock(&g_configMutex);
    if (enabled == 0) {
        return 1;
    }
    pthread_mutex_lock(&l_candidateChildMutex);
    const uint32_t now = mesh_common_getUptime();
    uint8_t count = 0;
    for (auto& c : l_candidateChild) {
        if (c.valid == 0) {
            continue;
        }
        if (stale(c, now)) {
            memset(&c, 0, sizeof c);
            continue;
        }
        memcpy(payload + MESH_CANDIDATE_CHILD_REPLY_OFF + count * sizeof c.info, &c.info,
               sizeof c.info);
        ++count;
    }
    payload[0] = count;
    pthread_mutex_unlock(&l_candidateChildMutex);
    return 0;
}

uint32_t mesh_handle_addChild(const uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    MESH_CHILD_ENTRY entry;
    memcpy(&entry, payload, sizeof entry);

    pthread_mutex_lock(&l_candidateChildMutex);
    pthread_mutex_lock(&g_configMutex);
    if (meshEnabledLocked() == 0) {
        pthread_mutex_unlock(&g_configMutex);
        pthread_mutex_unlock(&l_candidateChildMutex);
        return 1;
    }
    uint32_t rc = 1;
    const int index = configIndex(entry.mac);
    const bool isNew = index < 0;
    MESH_CHILD_RECORD rec;
    if (isNew && g_allConfig.childNum >= MESH_MAX_CHILD) {
        MESH_ERR("exceed the allowed max child num");
        goto done;
    }
    rc = ensureBkhAp();
    if (rc != 0) {
        goto done;
    }
    rc = 1;
    memset(&rec, 0, sizeof rec);
    memcpy(rec.mac, entry.mac, MAC_LEN);
    memcpy(rec.digest, entry.digest, sizeof rec.digest);
    if (isNew) {
        if (mesh_addChildRsaEntry(&rec) != 0) {
            MESH_ERR("add child rsa entry fail");
            goto done;
        }
        g_allConfig.childList[g_allConfig.childNum] = entry;
        ++g_allConfig.childNum;
        const MESH_CANDIDATE_CHILD* heard = findCandidate(entry.mac);
        if (heard != nullptr) {
            // A child already heard gets its pairing blocks now.
            mesh_updateChildRsaData(heard, heard->info.staMac);
            mesh_getChildRsaData(entry.mac, &rec);
        }
    } else if (mesh_getChildRsaData(entry.mac, &rec) != 0) {
        MESH_ERR("fill child rsa data fail");
        goto done;
    }
    if (mesh_wlan_addChild(&rec) != 0) {
        MESH_ERR("add child to drvier fail");
        if (isNew) {
            --g_allConfig.childNum;
            memset(&g_allConfig.childList[g_allConfig.childNum], 0, sizeof(MESH_CHILD_ENTRY));
        }
        pthread_mutex_unlock(&g_configMutex);
        pthread_mutex_unlock(&l_candidateChildMutex);
        return 1;
    }
    if (!isNew) {
        memcpy(g_allConfig.childList[index].digest, entry.digest, sizeof entry.digest);
    }
    rc = 0;
done:
    pthread_mutex_unlock(&g_configMutex);
    pthread_mutex_unlock(&l_candidateChildMutex);
    const uint8_t* m = entry.mac;
    MESH_EVENT("Add Child %02x-%02x-%02x-%02x-%02x-%02x %s. digest: %02x-%02x", m[0], m[1], m[2],
               m[3], m[4], m[5], mesh_common_resultStr(rc), entry.digest[0], entry.digest[1]);
    return rc;
}

uint32_t mesh_handle_delChild(const uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    uint8_t mac[MAC_LEN];
    memcpy(mac, payload, MAC_LEN);
    pthread_mutex_lock(&g_configMutex);
    if (meshEnabledLocked() == 0) {
        pthread_mutex_unlock(&g_configMutex);
        return 1;
    }
    uint8_t staMac[MAC_LEN] = {0};
    if (mesh_getChildStaMac(mac, staMac) != 0) {
        MESH_ERR("can't find the mac in l_childrsa ");
        pthread_mutex_unlock(&g_configMutex);
        return 1;
    }
    if (mesh_wlan_delChild(mac, staMac) != 0) {
        MESH_ERR("delete child fail");
        pthread_mutex_unlock(&g_configMutex);
        return 1;
    }
    if (mesh_delChildRsaEntry(mac, staMac) != 0) {
        MESH_ERR("can't delete the mac in l_childrsa ");
        pthread_mutex_unlock(&g_configMutex);
        return 1;
    }
    const int i = configIndex(mac);
    if (i >= 0) {
        const int last = g_allConfig.childNum - 1;
        if (i != last) {
            g_allConfig.childList[i] = g_allConfig.childList[last];
        }
        memset(&g_allConfig.childList[last], 0, sizeof(MESH_CHILD_ENTRY));
        --g_allConfig.childNum;
    }
    pthread_mutex_unlock(&g_configMutex);
    MESH_EVENT("Del Child:%02x-%02x-%02x-%02x-%02x-%02x %s", mac[0], mac[1], mac[2], mac[3], mac[4],
               mac[5], mesh_common_resultStr(0));
    return 0;
}

uint32_t mesh_handle_getOnlineChild(uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    pthread_mutex_lock(&g_configMutex);
    if (meshEnabledLocked() == 0) {
        pthread_mutex_unlock(&g_configMutex);
        return 1;
    }
    uint8_t count = 0;
    if (g_allConfig.childNum != 0) {
        MESH_ONLINE_CHILD_INFO stations[MESH_ONLINE_STA_ASK];
        memset(stations, 0, sizeof stations);
        uint8_t n = 0;
        if (mesh_wlan_getOnlineChild(&n, stations, MESH_ONLINE_STA_ASK) != 0) {
            n = 0;
        }
        if (n > MESH_ONLINE_STA_ASK) {
            n = MESH_ONLINE_STA_ASK;
        }
        for (uint8_t i = 0; i < n; ++i) {
            MESH_ONLINE_CHILD_INFO& s = stations[i];
            uint8_t staMac[MAC_LEN];
            memcpy(staMac, s.mac, MAC_LEN);
            if (mesh_getChildMacByStaMac(s.mac) != 0) {
                // A station that is no admitted child has no business on the backhaul AP.
                MESH_ERR("replace wireless mac with device mac fail");
                if (mesh_wlan_kickSta(staMac) != 0) {
                    MESH_ERR("kick station failed");
                }
                continue;
            }
            if (count < MESH_ONLINE_CHILD_REPLY_MAX) {
                memcpy(payload + MESH_ONLINE_CHILD_REPLY_OFF + count * sizeof s, &s, sizeof s);
                ++count;
            }
        }
    }
    payload[0] = count;
    pthread_mutex_unlock(&g_configMutex);
    return 0;
}

void mesh_handle_clearCandidateChild(void) {
    memset(l_candidateChild, 0, sizeof l_candidateChild);
}

const MESH_CANDIDATE_CHILD* mesh_handle_candidateSlot(size_t index) {
    return index < MESH_MAX_CANDIDATE_CHILD ? &l_candidateChild[index] : nullptr;
}
