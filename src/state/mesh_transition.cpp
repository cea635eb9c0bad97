// What a change of the mesh state does to the radio, the parent search of an isolated node,
// and the DFS waits that lengthen the network check after joining a parent on a radar
// channel. Everything here runs on the state thread.
#include "state/mesh_state_internal.h"

#include "core/mesh_config.h"
#include "core/mesh_log.h"
#include "security/mesh_com.h"
#include "security/mesh_common.h"
#include "security/mesh_parent.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_radio.h"
#include "wlan/mesh_wlan_scan.h"

#include <pthread.h>

#include "platform/seam_guard.h"

namespace {

// Stops the station's configuration (the adapter's switch given no credentials). Returns
// the adapter's result after reporting a failure.
uint32_t stopConfiguringSta(void) {
    uint32_t rc = mesh_wlan_configSta(nullptr, 0);
    if (rc != 0) {
        MESH_ERR("cannot stop configuring sta");
    }
    return rc;
}

uint32_t toMesh(uint32_t from) {
    if (from == MESH_STATE_MESH) {
        return 0;
    }
    // From ISOLATED (NORMAL was refused before): the children get their parent back.
    if (enableBkhAp(1) != 0) {
        return 1;
    }
    mesh_com_notifyMeshState(MESH_STATE_MESH);
    if (getDfsFlag() != 0) {
        setNetChkTimeout(
            getDfsWaitTime(static_cast<uint8_t>(mesh_parentHandler_getParentChannel())));
    }
    return 0;
}

uint32_t toIsolated(void) {
    setScanWait(&l_parentSearch);
    if (uint32_t rc = stopConfiguringSta(); rc != 0) {
        return rc;
    }
    if (enableBkhAp(0) != 0) {
        return 1;
    }
    mesh_com_notifyMeshState(MESH_STATE_ISOLATED);
    (void)mesh_com_notifyIsolated();
    return 0;
}

uint32_t toNormal(uint32_t from) {
    if (from == MESH_STATE_ISOLATED) {
        if (mesh_wlan_enableSta(0) != 0) {
            MESH_ERR("disable sta fail");
            return 1;
        }
        if (enableBkhAp(1) != 0) {
            return 1;
        }
        mesh_com_notifyMeshState(MESH_STATE_NORMAL);
    } else if (from == MESH_STATE_MESH) {
        if (mesh_parentHandler_disconnect() != 0) {
            MESH_ERR("disconnect from parent fail");
            return 1;
        }
        mesh_com_notifyMeshState(MESH_STATE_NORMAL);
    }
    return stopConfiguringSta();
}

} // namespace

uint32_t moveToState(uint32_t from, uint32_t to) {
    uint32_t stored = getMeshState();
    if (stored != from) {
        MESH_ERR("wrong current state[%d %d]", static_cast<int>(from), static_cast<int>(stored));
        return 1;
    }
    if (from == MESH_STATE_NORMAL && to == MESH_STATE_MESH) {
        MESH_ERR("normal->mesh is forbidden");
        return 1;
    }
    if (getDfsFlag() != 0) {
        resetNetChkTimeout();
    }

    uint32_t rc = 1;
    switch (to) {
    case MESH_STATE_MESH:
        rc = toMesh(from);
        break;
    case MESH_STATE_ISOLATED:
        rc = toIsolated();
        break;
    case MESH_STATE_NORMAL:
        rc = toNormal(from);
        break;
    default:
        MESH_ERR("invalid target mesh state");
        return 1;
    }
    if (rc == 0) {
        setMeshState(to);
        if (mesh_com_setMeshStateToSchedule(to) != 0) {
            MESH_ERR("set mesh state to schedule module fail");
        }
    }
    return rc;
}

uint32_t enableBkhAp(uint32_t on) {
    uint32_t rc = mesh_wlan_enableBkhAp(on);
    if (rc != 0) {
        MESH_ERR("enable backhaul ap fail");
    }
    return rc;
}

void searchParent(PARENT_SEARCH* rec) {
    if (rec == nullptr) {
        return;
    }
    const uint32_t now = mesh_common_getUptime();
    switch (rec->phase) {
    case MESH_SEARCH_IDLE:
        if (mesh_parentHandler_scan() == 0) {
            rec->scanStart = now;
            rec->phase = MESH_SEARCH_SCANNING;
        }
        break;
    case MESH_SEARCH_SCANNING:
        if (now - rec->scanStart < rec->scanWait && mesh_parentHandler_hasParentInfo() == 0) {
            break; // no parent yet, and the wait is not over
        }
        if (mesh_parentHandler_connect() == 0) {
            rec->connectStart = now;
            rec->phase = MESH_SEARCH_CONNECTING;
            setConnectTimeout(rec, mesh_parentHandler_getParentChannel());
        } else {
            rec->phase = MESH_SEARCH_IDLE; // scan again on the next tick
        }
        break;
    case MESH_SEARCH_CONNECTING:
        // An association is seen by the state thread (station on), which moves to MESH.
        if (now - rec->connectStart >= rec->connectTimeout) {
            rec->phase = MESH_SEARCH_IDLE;
            MESH_EVENT("connecting timeout, rescan");
        }
        break;
    default:
        rec->phase = MESH_SEARCH_IDLE;
        break;
    }
}

void setScanWait(PARENT_SEARCH* rec) {
    if (rec == nullptr) {
        return;
    }
    pthread_mutex_lock(&g_configMutex);
    const uint32_t resetFlag = g_allConfig.resetFlag;
    pthread_mutex_unlock(&g_configMutex);
    rec->scanWait =
        (getDfsFlag() != 0 && resetFlag != 0) ? MESH_SCAN_WAIT_RESET_DFS : MESH_SCAN_WAIT;
}

void setConnectTimeout(PARENT_SEARCH* rec, uint32_t channel) {
    if (rec == nullptr) {
        return;
    }
    rec->connectTimeout = (channel >= MESH_DFS_FIRST_CHANNEL && channel <= MESH_DFS_LAST_CHANNEL)
                              ? MESH_CONNECT_TIMEOUT_DFS
                              : MESH_CONNECT_TIMEOUT;
}

void resetNetChkTimeout(void) {
    g_netChkTimeout = MESH_NETCHK_BASE_TIMEOUT;
}

void setNetChkTimeout(uint32_t wait) {
    g_netChkTimeout = wait + MESH_NETCHK_BASE_TIMEOUT;
}

uint32_t getDfsWaitTime(uint8_t channel) {
    const uint32_t mode = mesh_parentHandler_getParentWlanMode();
    if (channel < MESH_DFS_FIRST_CHANNEL || channel > MESH_DFS_LAST_CHANNEL) {
        return 0; // 36..48, 149..165 and everything outside the 5 GHz channels: no radar wait
    }
    if (getCountryCode() == MESH_LONG_DFS_COUNTRY && isWeatherRadarChannel(channel, mode) == 1) {
        return MESH_DFS_WAIT_WEATHER;
    }
    return MESH_DFS_WAIT;
}

uint32_t isWeatherRadarChannel(uint8_t channel, uint32_t wlanMode) {
    switch (mesh_wlan_getChwidth(static_cast<int32_t>(wlanMode))) {
    case 0:
        return (channel >= 120 && channel <= 128) ? 1 : 0;
    case 1:
    case 2:
        return (channel >= 116 && channel <= 128) ? 1 : 0;
    default:
        return 0;
    }
}
