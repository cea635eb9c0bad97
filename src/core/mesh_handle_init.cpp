#include "core/mesh_handle_init.h"

#include "core/mesh_handle_child.h"
#include "core/mesh_log.h"
#include "security/mesh_child.h"
#include "security/mesh_com.h"
#include "security/mesh_common.h"
#include "security/mesh_rsa.h"
#include "security/mesh_netlink.h"
#include "security/mesh_parent.h"
#include "state/mesh_netchk.h"
#include "state/mesh_state.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_ie.h"
#include "wlan/mesh_wlan_radio.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "platform/seam_guard.h"

namespace {

// What the first type 1 started; a later one starts none of it again.
std::atomic<bool> l_monitorStarted{false};
std::atomic<bool> l_randomDrawn{false};
std::atomic<bool> l_initDone{false};

// An interface name field of 16 bytes as a terminated text.
void ifNameOf(const char (&field)[16], char (&out)[17]) {
    memcpy(out, field, sizeof field);
    out[16] = '\0';
}

bool carriesMeshBeacon(const MESH_NORMAL_AP& ap) {
    uint32_t enable, flags;
    memcpy(&enable, &ap.enable, sizeof enable);
    memcpy(&flags, &ap.flags, sizeof flags);
    return (flags & 2u) != 0 && enable != 0;
}

// The mesh-settings block of a record, as the network check keeps it.
NETCHK_CONFIG settingsOf(const void* block) {
    NETCHK_CONFIG s;
    memcpy(&s, block, sizeof s);
    return s;
}

// Admits the configured children of `cfg` with empty pairing data.
uint32_t addConfiguredChildren(const MESH_ALL_CONFIG* cfg) {
    for (uint8_t i = 0; i < cfg->childNum && i < MESH_MAX_CHILD; i++) {
        const MESH_CHILD_ENTRY& c = cfg->childList[i];
        MESH_CHILD_RECORD rec{};
        memcpy(rec.mac, c.mac, sizeof rec.mac);
        memcpy(rec.digest, c.digest, sizeof rec.digest);
        rec.data1Len = 0;
        if (mesh_addChildRsaEntry(&rec) != 0) {
            MESH_ERR("add child rsa entry fail");
            return 1;
        }
        if (mesh_wlan_addChild(&rec) != 0) {
            MESH_ERR("add child fail");
            return 1;
        }
        MESH_EVENT("init Add Child %02x-%02x-%02x-%02x-%02x-%02x %s. digest: %02x-%02x", c.mac[0],
                   c.mac[1], c.mac[2], c.mac[3], c.mac[4], c.mac[5], mesh_common_resultStr(0),
                   c.digest[0], c.digest[1]);
    }
    return 0;
}

// Creates the backhaul AP, or brings an existing one up and re-applies its settings.
uint32_t setUpBkhAp(const MESH_ALL_CONFIG* cfg, const MESH_WLAN_CREDENTIALS* cred) {
    MESH_BASIC_WLAN_CFG basic;
    memcpy(&basic, &cfg->basicWlanCfg, sizeof basic);
    uint32_t adv;
    memcpy(&adv, &cfg->advWlanCfg, sizeof adv);
    if (mesh_wlan_checkBkhApExist() == 1) {
        if (mesh_wlan_enableBkhAp(1) != 0) {
            MESH_ERR("enable baakhaul ap failed\n");
            return 1;
        }
        if (mesh_wlan_setBlockNoChild(1) != 0) {
            MESH_ERR("enable mesh flag failed");
            return 1;
        }
        if (mesh_wlan_updateBasicWlanCfg(&basic, &basic, cfg->dfsFlag, 1) != 0) {
            MESH_ERR("update wlan config failed");
            return 1;
        }
        if (mesh_wlan_updateAdvWlanCfg(cred, &adv, &adv, 1) != 0) {
            MESH_ERR("update advance wlan config failed");
            return 1;
        }
        return 0;
    }
    if (mesh_wlan_createBkhAp(cred, cfg->dfsFlag, &basic, &adv, cfg->bkhApParam) != 0) {
        MESH_ERR("create backhaul fail");
        return 1;
    }
    return 0;
}

} // namespace

uint32_t mesh_handle_bkhApCredentials(const uint8_t* deviceMac, MESH_WLAN_CREDENTIALS* cred) {
    if (deviceMac == nullptr || cred == nullptr) {
        return 1;
    }
    memset(cred, 0, sizeof *cred);
    snprintf(cred->ssid, sizeof cred->ssid, "mesh_%02x%02x%02x%02x%02x%02x", deviceMac[0],
             deviceMac[1], deviceMac[2], deviceMac[3], deviceMac[4], deviceMac[5]);
    return mesh_common_calcPassphrase(deviceMac, g_meshRandom, cred->passphrase);
}

uint32_t mesh_enableMesh(const MESH_ALL_CONFIG* cfg) {
    if (cfg == nullptr) {
        return 1;
    }
    char lanIfName[17];
    ifNameOf(cfg->lanIfName, lanIfName);
    const NETCHK_CONFIG settings = settingsOf(cfg);
    if (mesh_netChk_init(&settings, cfg->deviceMac, lanIfName) != 0) {
        MESH_ERR("init network check fail");
        return 1;
    }
    if (mesh_state_setEnable(settings.meshEnable) != 0) {
        MESH_ERR("start state check fail");
        return 1;
    }
    MESH_WLAN_CREDENTIALS cred;
    if (mesh_handle_bkhApCredentials(cfg->deviceMac, &cred) != 0) {
        return 1;
    }
    if (setUpBkhAp(cfg, &cred) != 0) {
        return 1;
    }
    if (mesh_wlan_enableBkhAp(1) != 0) {
        MESH_ERR("enable baakhaul ap failed\n");
        return 1;
    }
    if (mesh_wlan_setLabel(MESH_LABEL) != 0) {
        MESH_ERR("set label fail");
        return 1;
    }
    if (mesh_wlan_setCheckChild(1) != 0) {
        MESH_ERR("set child check fail");
        return 1;
    }
    uint16_t vlanId;
    memcpy(&vlanId, &cfg->vlanId, sizeof vlanId);
    if (mesh_wlan_setVlanId(vlanId) != 0) {
        MESH_ERR("set vlan id failed");
        return 1;
    }
    if (mesh_wlan_setFullSector(static_cast<int32_t>(settings.fullSector)) != 0) {
        MESH_ERR("set Full Sector failed");
        return 1;
    }
    // The child-probe callback is not registered yet, so nothing else writes the list now.
    mesh_handle_clearCandidateChild();
    if (mesh_netlink_registerCallback(MESH_NETLINK_EVENT_CHILD_PROBE, mesh_handle_indicateChild) !=
        0) {
        MESH_ERR("register ap handle callback fail");
        return 1;
    }
    MESH_IE_BASIC beacon;
    mesh_payload_buildBeacon(cfg->deviceMac, &beacon);
    // Every slot that asks for the element, whatever normalApNum says.
    for (const MESH_NORMAL_AP& ap : cfg->normalApList) {
        if (!carriesMeshBeacon(ap)) {
            continue;
        }
        char ifName[17];
        ifNameOf(ap.ifName, ifName);
        if (mesh_wlan_updateNormalApBeacon(ifName, &beacon) != 0) {
            MESH_ERR("update beacon for %s fail", ifName);
            return 1;
        }
    }
    if (mesh_parentHandler_init() != 0) {
        MESH_ERR("init parent handler fail");
        return 1;
    }
    if (mesh_wlan_checkStaExist() == 1 && mesh_wlan_setCheckParent(1) != 0) {
        MESH_ERR("enable parent check fail");
        return 1;
    }
    if (mesh_wlan_updateBkhApBeacon(&beacon) != 0) {
        MESH_ERR("update backhaul ap beacon fail");
        return 1;
    }
    MESH_IE_PROBE_RSP rsp;
    mesh_payload_buildProbeRsp(cfg->deviceMac, &rsp);
    if (mesh_wlan_updateProbeRes(&rsp) != 0) {
        MESH_ERR("update probe response data fail");
        return 1;
    }
    return addConfiguredChildren(cfg);
}

uint32_t mesh_disableMesh(void) {
    if (mesh_state_setEnable(0) != 0) {
        MESH_ERR("destroy state module fail");
        return 1;
    }
    if (mesh_netChk_destroy() != 0) {
        MESH_ERR("destroy network check module fail");
        return 1;
    }
    if (mesh_wlan_setCheckChild(0) != 0) {
        MESH_ERR("disable child check fail");
        return 1;
    }
    if (mesh_wlan_setCheckParent(0) != 0) {
        MESH_ERR("disable parent check fail");
        return 1;
    }
    if (mesh_parentHandler_destroy() != 0) {
        MESH_ERR("destroy parent module fail");
        return 1;
    }
    MESH_IE_BASIC beacon;
    mesh_payload_buildBeacon(g_allConfig.deviceMac, &beacon);
    // Only the slots of the last list; a slot dropped from it keeps its element.
    for (uint8_t i = 0; i < g_allConfig.normalApNum && i < MESH_MAX_NORMAL_AP; i++) {
        const MESH_NORMAL_AP& ap = g_allConfig.normalApList[i];
        if (!carriesMeshBeacon(ap)) {
            continue;
        }
        char ifName[17];
        ifNameOf(ap.ifName, ifName);
        if (mesh_wlan_deleteNormalApBeacon(ifName, &beacon) != 0) {
            MESH_ERR("delete normal ap beacon fail");
            return 1;
        }
    }
    // childList stays as configured: the next enabling admits the same children.
    for (uint8_t i = 0; i < g_allConfig.childNum && i < MESH_MAX_CHILD; i++) {
        const uint8_t* mac = g_allConfig.childList[i].mac;
        uint8_t staMac[6] = {};
        if (mesh_delChildRsaEntry(mac, staMac) != 0) {
            MESH_ERR("can't delete the mac in l_childrsa ");
            return 1;
        }
        if (mesh_wlan_delChild(mac, staMac) != 0) {
            MESH_ERR("delete child fail");
            return 1;
        }
    }
    if (mesh_wlan_enableBkhAp(0) != 0) {
        MESH_ERR("disable mesh backhaul ap fail");
        return 1;
    }
    if (mesh_wlan_setBlockNoChild(0) != 0) {
        MESH_ERR("disable mesh flag failed");
        return 1;
    }
    if (mesh_netlink_unregisterCallback(MESH_NETLINK_EVENT_CHILD_PROBE) != 0) {
        MESH_ERR("unregister ap handle callback fail");
        return 1;
    }
    return 0;
}

uint32_t mesh_handle_initMesh(const uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    MESH_ALL_CONFIG cfg;
    memcpy(&cfg, payload, sizeof cfg);
    // The counts are loop bounds of enabling and disabling: a record out of range is refused
    // before anything happens.
    if (cfg.childNum > MESH_MAX_CHILD) {
        MESH_ERR("invalid child num %u", cfg.childNum);
        return 1;
    }
    if (cfg.normalApNum > MESH_MAX_NORMAL_AP) {
        MESH_ERR("invalid ap num %u", cfg.normalApNum);
        return 1;
    }
    const bool reinit = l_initDone.load();
    if (reinit) {
        MESH_EVENT("mesh reinit");
    }
    char radioName[17];
    ifNameOf(cfg.radioName, radioName);
    if (mesh_wlan_initRadioName(radioName) != 0) {
        MESH_ERR("init radio name failed");
        return 1;
    }
    if (!l_monitorStarted.load()) {
        if (mesh_startNetlinkEventMonitor() != 0) {
            MESH_ERR("start netlink event monitor thread fail");
            return 1;
        }
        l_monitorStarted = true;
    }
    if (!l_randomDrawn.load()) {
        if (mesh_common_getRandom(MESH_RANDOM_LEN, g_meshRandom) != 0) {
            MESH_ERR("generate random fail");
            return 1;
        }
        l_randomDrawn = true;
    }
    char lanIfName[17];
    ifNameOf(cfg.lanIfName, lanIfName);
    uint32_t countryCode;
    memcpy(&countryCode, &cfg.countryCode, sizeof countryCode);
    // Starts the state thread the first time; later only updates the three values.
    if (mesh_state_init(lanIfName, countryCode, cfg.dfsFlag) != 0) {
        MESH_ERR("init state module fail");
        return 1;
    }

    pthread_mutex_lock(&g_configMutex);
    if (reinit && g_allConfig.meshEnable != 0) {
        if (mesh_disableMesh() != 0) {
            pthread_mutex_unlock(&g_configMutex);
            return 1;
        }
        // Disabled now, whatever the enabling below does.
        g_allConfig.meshEnable = 0;
    }
    if (cfg.meshEnable != 0 && mesh_enableMesh(&cfg) != 0) {
        pthread_mutex_unlock(&g_configMutex);
        MESH_ERR("enable mesh failed");
        return 1;
    }
    memcpy(&g_allConfig, &cfg, sizeof cfg);
    pthread_mutex_unlock(&g_configMutex);
    l_initDone = true;

    uint32_t state = 0;
    if (mesh_state_getMeshState(&state) == 0) {
        mesh_com_notifyMeshState(state);
    }
    return 0;
}

uint32_t mesh_handle_updateMesh(const uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    const NETCHK_CONFIG block = settingsOf(payload);
    uint32_t rc = 0;
    pthread_mutex_lock(&g_configMutex);
    const uint32_t stored = g_allConfig.meshEnable;
    const bool changed = stored != block.meshEnable;
    if (stored != 0 && block.meshEnable == 0) {
        MESH_EVENT("mesh changed from enable to disable");
        rc = mesh_disableMesh();
    } else if (stored == 0 && block.meshEnable != 0) {
        MESH_EVENT("mesh changed from disable to enable");
        MESH_ALL_CONFIG merged;
        memcpy(&merged, &g_allConfig, sizeof merged);
        memcpy(&merged, payload, MESH_SETTINGS_LEN);
        if (mesh_enableMesh(&merged) != 0) {
            MESH_ERR("enable mesh fail");
            rc = 1;
        }
    } else if (stored != 0) {
        if (block.fullSector != g_allConfig.fullSector &&
            mesh_wlan_setFullSector(static_cast<int32_t>(block.fullSector)) != 0) {
            MESH_ERR("set Full Sector failed");
            rc = 1;
        } else if (mesh_netChk_setConfig(&block) != 0) {
            MESH_ERR("set net check config fail");
            rc = 1;
        }
    }
    if (rc == 0) {
        memcpy(&g_allConfig, payload, MESH_SETTINGS_LEN);
    }
    pthread_mutex_unlock(&g_configMutex);
    if (changed) {
        mesh_com_notifyMeshState(MESH_STATE_NORMAL);
    }
    return rc;
}

uint32_t mesh_handle_updateAp(const uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    MESH_NORMAL_AP_LIST list;
    memcpy(&list, payload, sizeof list);
    if (list.count > MESH_MAX_NORMAL_AP) {
        MESH_ERR("invalid ap num %u", list.count);
        return 1;
    }
    pthread_mutex_lock(&g_configMutex);
    if (g_allConfig.meshEnable != 0) {
        MESH_IE_BASIC beacon;
        mesh_payload_buildBeacon(g_allConfig.deviceMac, &beacon);
        for (uint8_t i = 0; i < list.count; i++) {
            if (!carriesMeshBeacon(list.list[i])) {
                continue;
            }
            char ifName[17];
            ifNameOf(list.list[i].ifName, ifName);
            if (mesh_wlan_updateNormalApBeacon(ifName, &beacon) != 0) {
                pthread_mutex_unlock(&g_configMutex);
                MESH_ERR("update beacon for mornal ap fail");
                return 1;
            }
        }
    }
    g_allConfig.normalApNum = list.count;
    memcpy(g_allConfig.normalApList, list.list, sizeof g_allConfig.normalApList);
    pthread_mutex_unlock(&g_configMutex);
    return 0;
}

uint32_t mesh_handle_updateDigest(const uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    pthread_mutex_lock(&g_configMutex);
    if (g_allConfig.meshEnable == 0) {
        memcpy(g_allConfig.digest, payload, sizeof g_allConfig.digest);
    } else if (memcmp(g_allConfig.digest, payload, sizeof g_allConfig.digest) != 0) {
        memcpy(g_allConfig.digest, payload, sizeof g_allConfig.digest);
        if (mesh_parentHandler_updateProbeReq() != 0) {
            pthread_mutex_unlock(&g_configMutex);
            MESH_ERR("update probe request fail");
            return 1;
        }
    }
    pthread_mutex_unlock(&g_configMutex);
    return 0;
}

void mesh_handle_resetInit(void) {
    l_monitorStarted = false;
    l_randomDrawn = false;
    l_initDone = false;
    memset(g_meshRandom, 0, sizeof g_meshRandom);
}
