#include "core/mesh_handle_cfg.h"
#include "core/mesh_handle_child.h"
#include "core/mesh_handle_init.h"
#include "core/mesh_handle_scan.h"
#include "core/mesh_log.h"
#include "core/mesh_msg.h"
#include "state/mesh_state.h"
#include "wlan/mesh_wlan_scan.h"

#include <cstring>

#include "platform/seam_guard.h"

namespace {
[[maybe_unused]] uint32_t payloadU32(const MESH_CMD_MSG* msg) {
    uint32_t v;
    memcpy(&v, msg->payload, sizeof v);
    return v;
}
[[maybe_unused]] uint16_t payloadU16(const MESH_CMD_MSG* msg) {
    uint16_t v;
    memcpy(&v, msg->payload, sizeof v);
    return v;
}
} // namespace

uint32_t mesh_cmd_handle(MESH_CMD_MSG* msg) {
    if (msg == nullptr) {
        return 1;
    }
    int32_t type;
    memcpy(&type, &msg->type, sizeof type);
    [[maybe_unused]] uint8_t* payload = msg->payload;
    switch (type) {
    // Each served type returns its handler's result here. A type whose handler does not
    // exist in this build falls through to the unsupported answer below.
    case MESH_CMD_INIT_MESH:
        return mesh_handle_initMesh(payload);
    case MESH_CMD_UPDATE_AP:
        return mesh_handle_updateAp(payload);
    case MESH_CMD_UPDATE_DIGEST:
        return mesh_handle_updateDigest(payload);
    case MESH_CMD_UPDATE_MESH:
        return mesh_handle_updateMesh(payload);
    case MESH_CMD_ADD_CHILD:
        return mesh_handle_addChild(payload);
    case MESH_CMD_DEL_CHILD:
        return mesh_handle_delChild(payload);
    case MESH_CMD_GET_ONLINE_CHILD:
        return mesh_handle_getOnlineChild(payload);
    case MESH_CMD_GET_CANDIDATE_CHILD:
        return mesh_handle_getCandidateChild(payload);
    case MESH_CMD_SCAN_CANDIDATE_AP:
        return mesh_handle_scanCandidateAp(payload);
    case MESH_CMD_GET_SCAN_STATE:
        return mesh_handle_getScanState(payload);
    case MESH_CMD_GET_SCAN_RESULT:
        return mesh_handle_getScanResult(payload);
    case MESH_CMD_SET_CONTROLLER_IP_PORT:
        return mesh_handle_setControllerIpPort(payload);
    case MESH_CMD_SET_CONTROLLER_ID:
        return mesh_handle_setControllerId(payload);
    case MESH_CMD_SET_SPECIAL:
        return mesh_handle_setSpecial(payloadU32(msg));
    case MESH_CMD_SET_RESET_FLAG: {
        // The reset flag also posts (non-zero) or withdraws (0) a rescan request; the
        // command's result is the request's.
        const uint32_t flag = payloadU32(msg);
        mesh_handle_setResetFlag(flag);
        return mesh_state_requestRescan(flag);
    }
    case MESH_CMD_SET_VLAN_ID:
        return mesh_handle_setVlanId(payloadU16(msg));
    case MESH_CMD_SET_BASIC_WLAN_CFG:
        return mesh_handle_setBasicWlanCfg(payload);
    case MESH_CMD_SET_ADV_WLAN_CFG:
        return mesh_handle_setAdvWlanCfg(payload);
    case MESH_CMD_SET_ORBP_CFG:
        return mesh_handle_setOrbpCfg(payload);
    case MESH_CMD_SYNC_PARENT_WLAN_MODE:
        return mesh_handle_syncParentWlanMode();
    case MESH_CMD_GET_STA_STATUS: {
        // The status word at payload offset 0 keeps its value when the driver refuses.
        int32_t status;
        memcpy(&status, payload, sizeof status);
        uint32_t rc = mesh_wlan_getStaStatus(&status);
        memcpy(payload, &status, sizeof status);
        return rc;
    }
    case MESH_CMD_GET_MESH_STATE: {
        uint32_t state = 0;
        uint32_t rc = mesh_state_getMeshState(&state);
        memcpy(payload, &state, sizeof state);
        return rc;
    }
    case MESH_CMD_REQUEST_RESCAN:
        return mesh_state_requestRescan(payloadU32(msg));
    default:
        break;
    }
    MESH_ERR("unsupported command type");
    return 1;
}
