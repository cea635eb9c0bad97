#include "core/mesh_handle_cfg.h"

#include "core/mesh_handle_init.h"
#include "core/mesh_log.h"
#include "security/mesh_child.h"
#include "security/mesh_parent.h"
#include "state/mesh_state.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_radio.h"

#include <cstring>

#include "platform/seam_guard.h"

namespace {

// Stores `len` bytes at `field` while the mesh is disabled, or when enabled and different
// stores them and rebuilds the probe-request element, which carries the field. Called with
// g_configMutex held.
uint32_t storeAdvertised(void* field, const void* value, size_t len) {
    if (g_allConfig.meshEnable != 0 && memcmp(field, value, len) == 0) {
        return 0;
    }
    memcpy(field, value, len);
    if (g_allConfig.meshEnable != 0 && mesh_parentHandler_updateProbeReq() != 0) {
        MESH_ERR("update probe request fail");
        return 1;
    }
    return 0;
}

// While joined to a parent, the backhaul keeps the parent's wireless mode.
void applyParentWlanMode() {
    uint32_t state = MESH_STATE_NORMAL;
    if (mesh_state_getMeshState(&state) != 0) {
        state = MESH_STATE_NORMAL;
    }
    if (state == MESH_STATE_MESH) {
        mesh_wlan_setRuntimeWlanMode(mesh_parentHandler_getParentWlanMode());
    }
}

} // namespace

uint32_t mesh_handle_setControllerIpPort(const uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    MESH_CONTROLLER_IP_PORT addr;
    memcpy(&addr, payload, sizeof addr);
    pthread_mutex_lock(&g_configMutex);
    if (g_allConfig.meshEnable != 0) {
        if (memcmp(&g_allConfig.controllerIpPort, &addr, sizeof addr) == 0) {
            pthread_mutex_unlock(&g_configMutex);
            return 0;
        }
        if (mesh_updateChildRsaControllerIpPort(&addr) != 0) {
            pthread_mutex_unlock(&g_configMutex);
            MESH_ERR("update rsa data fail");
            return 1;
        }
    }
    memcpy(&g_allConfig.controllerIpPort, &addr, sizeof addr);
    pthread_mutex_unlock(&g_configMutex);
    return 0;
}

uint32_t mesh_handle_setOrbpCfg(const uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    MESH_ORBP_CFG id;
    memcpy(&id, payload, sizeof id);
    pthread_mutex_lock(&g_configMutex);
    if (g_allConfig.meshEnable != 0) {
        if (memcmp(&g_allConfig.orbpCfg, &id, sizeof id) == 0) {
            pthread_mutex_unlock(&g_configMutex);
            return 0;
        }
        if (mesh_updateChildRsaOrbpCfg(&id) != 0) {
            pthread_mutex_unlock(&g_configMutex);
            MESH_ERR("update rsa data fail");
            return 1;
        }
    }
    memcpy(&g_allConfig.orbpCfg, &id, sizeof id);
    pthread_mutex_unlock(&g_configMutex);
    return 0;
}

uint32_t mesh_handle_setControllerId(const uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    pthread_mutex_lock(&g_configMutex);
    uint32_t rc =
        storeAdvertised(g_allConfig.controllerId, payload, sizeof g_allConfig.controllerId);
    pthread_mutex_unlock(&g_configMutex);
    return rc;
}

uint32_t mesh_handle_setResetFlag(uint32_t flag) {
    pthread_mutex_lock(&g_configMutex);
    uint32_t rc = storeAdvertised(&g_allConfig.resetFlag, &flag, sizeof flag);
    pthread_mutex_unlock(&g_configMutex);
    return rc;
}

uint32_t mesh_handle_setVlanId(uint16_t vlan) {
    pthread_mutex_lock(&g_configMutex);
    uint16_t stored;
    memcpy(&stored, &g_allConfig.vlanId, sizeof stored);
    if (vlan == stored) {
        pthread_mutex_unlock(&g_configMutex);
        return 0;
    }
    if (mesh_wlan_setVlanId(vlan) != 0) {
        pthread_mutex_unlock(&g_configMutex);
        MESH_ERR("set vlan id failed");
        return 1;
    }
    // Each admitted child re-associates, and so lands in the new VLAN.
    for (uint8_t i = 0; i < g_allConfig.childNum && i < MESH_MAX_CHILD; i++) {
        uint8_t staMac[6] = {};
        if (mesh_getChildStaMac(g_allConfig.childList[i].mac, staMac) != 0) {
            MESH_ERR("get wireless mac failed");
            continue;
        }
        if (mesh_wlan_kickSta(staMac) != 0) {
            MESH_ERR("kick wireless mac failed");
        }
    }
    memcpy(&g_allConfig.vlanId, &vlan, sizeof vlan);
    if (mesh_parentHandler_updateProbeReq() != 0) {
        pthread_mutex_unlock(&g_configMutex);
        MESH_ERR("update probe request fail");
        return 1;
    }
    MESH_EVENT("set vlanid to %u", vlan);
    pthread_mutex_unlock(&g_configMutex);
    return 0;
}

uint32_t mesh_handle_setBasicWlanCfg(const uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    MESH_BASIC_WLAN_CFG cfg;
    memcpy(&cfg, payload, sizeof cfg);
    pthread_mutex_lock(&g_configMutex);
    MESH_BASIC_WLAN_CFG stored;
    memcpy(&stored, &g_allConfig.basicWlanCfg, sizeof stored);
    if (g_allConfig.meshEnable != 0 && memcmp(&stored, &cfg, sizeof cfg) != 0 &&
        mesh_wlan_updateBasicWlanCfg(&cfg, &stored, g_allConfig.dfsFlag, 0) != 0) {
        pthread_mutex_unlock(&g_configMutex);
        MESH_ERR("update basic wlan config failed");
        return 1;
    }
    memcpy(&g_allConfig.basicWlanCfg, &cfg, sizeof cfg);
    pthread_mutex_unlock(&g_configMutex);
    applyParentWlanMode();
    return 0;
}

uint32_t mesh_handle_setAdvWlanCfg(const uint8_t* payload) {
    if (payload == nullptr) {
        return 1;
    }
    uint32_t adv;
    memcpy(&adv, payload, sizeof adv);
    pthread_mutex_lock(&g_configMutex);
    uint32_t stored;
    memcpy(&stored, &g_allConfig.advWlanCfg, sizeof stored);
    if (g_allConfig.meshEnable != 0 && adv != stored) {
        MESH_WLAN_CREDENTIALS cred;
        if (mesh_handle_bkhApCredentials(g_allConfig.deviceMac, &cred) != 0) {
            pthread_mutex_unlock(&g_configMutex);
            return 1;
        }
        if (mesh_wlan_updateAdvWlanCfg(&cred, &adv, &stored, 0) != 0) {
            pthread_mutex_unlock(&g_configMutex);
            MESH_ERR("update advance wlan config failed");
            return 1;
        }
    }
    memcpy(&g_allConfig.advWlanCfg, &adv, sizeof adv);
    pthread_mutex_unlock(&g_configMutex);
    applyParentWlanMode();
    return 0;
}

uint32_t mesh_handle_setSpecial(uint32_t action) {
    // meshEnable is written only by handlers on this same command thread: no lock needed.
    if (mesh_wlan_checkBkhApExist() != 1 || g_allConfig.meshEnable == 0) {
        return 0;
    }
    if (action == MESH_SPECIAL_BKHAP_RESTART || action == MESH_SPECIAL_BKHAP_DOWN) {
        if (mesh_wlan_enableBkhAp(0) != 0) {
            MESH_ERR("config backhaul ap down fail");
        }
    }
    if (action == MESH_SPECIAL_BKHAP_RESTART || action == MESH_SPECIAL_BKHAP_UP) {
        if (mesh_wlan_enableBkhAp(1) != 0) {
            MESH_ERR("config backhaul ap up fail");
        }
    }
    return 0;
}

uint32_t mesh_handle_syncParentWlanMode(void) {
    applyParentWlanMode();
    return 0;
}
