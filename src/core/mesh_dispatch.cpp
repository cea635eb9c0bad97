#include "core/mesh_handle_child.h"
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
