#include "security/mesh_com.h"

#include "core/mesh_log.h"
#include "platform/unix_sock.h"
#include "platform/wrp.h"

#include <cstring>

#include "platform/seam_guard.h"

namespace {

// The daemon's name with the socket messaging library.
constexpr const char* kSenderName = "mesh";

constexpr size_t kControllerTextMax = 257; // text field of the controller address record
constexpr size_t kControllerValue1Off = 260;
constexpr size_t kControllerValue2Off = 264;
static_assert(kControllerValue2Off + 4 == MESH_COM_CONTROLLER_REC_LEN, "record ends at 268");
static_assert(sizeof(MESH_ORBP_CFG) == 40, "identity is 40 bytes");

void putU32(uint8_t* p, uint32_t v) {
    memcpy(p, &v, sizeof v); // host byte order
}

// One service-22 event: {event, value}, the rest of the 848 bytes zero.
int sendEvent(uint32_t event, uint32_t value) {
    uint8_t body[MESH_COM_EVENT_BODY_LEN];
    memset(body, 0, sizeof body);
    putU32(body, event);
    putU32(body + 4, value);
    return unix_sock_sendDataToSrvWithoutResp(kSenderName, MESH_COM_EVENT_SRV_ID, body,
                                              static_cast<int>(sizeof body),
                                              MESH_COM_EVENT_MSG_CODE);
}

} // namespace

uint32_t mesh_com_setControllerIpPort(const MESH_CONTROLLER_IP_PORT* addr) {
    if (addr == nullptr) {
        return 1;
    }
    const size_t len = strnlen(addr->ip, sizeof addr->ip);
    if (len >= sizeof addr->ip) {
        MESH_ERR("invalid controller IP length");
        return 1;
    }
    uint8_t rec[MESH_COM_CONTROLLER_REC_LEN];
    memset(rec, 0, sizeof rec);
    memcpy(rec, addr->ip, len); // fewer than 80 characters: the terminator is already there
    rec[kControllerTextMax - 1] = '\0';
    putU32(rec + kControllerValue1Off, addr->value1);
    putU32(rec + kControllerValue2Off, addr->value2);
    return static_cast<uint32_t>(wrpOpDo(MESH_WRP_OP_SET_CONTROLLER_IP_PORT, rec,
                                         static_cast<uint32_t>(sizeof rec), nullptr, 0));
}

uint32_t mesh_com_setDestVintacId(const MESH_ORBP_CFG* id) {
    if (id == nullptr) {
        return 1;
    }
    MESH_ORBP_CFG copy;
    memcpy(&copy, id, sizeof copy);
    return wrpOpDo(MESH_WRP_OP_SET_DEST_VINTAC_ID, &copy, static_cast<uint32_t>(sizeof copy),
                   nullptr, 0) == 0
               ? 0
               : 1;
}

uint32_t mesh_com_setMeshStateToSchedule(uint32_t state) {
    uint8_t in[4];
    uint8_t out[4];
    putU32(in, state);
    memset(out, 0, sizeof out);
    (void)wrpOpDo(MESH_WRP_OP_SET_MESH_STATE, in, sizeof in, out, sizeof out);
    return 0;
}

uint32_t mesh_com_notifyMeshState(uint32_t state) {
    uint8_t body[MESH_COM_STATE_BODY_LEN];
    memset(body, 0, sizeof body);
    putU32(body, MESH_COM_STATE_DATA_CODE);
    putU32(body + 4, 4); // data length
    putU32(body + 8, state);
    (void)unix_sock_sendDataToSrvWithoutResp(kSenderName, MESH_COM_STATE_SRV_ID, body,
                                             static_cast<int>(sizeof body),
                                             MESH_COM_STATE_MSG_CODE);
    return 0;
}

int mesh_notifyScanDone(void) {
    return sendEvent(MESH_COM_EVENT_SCAN_DONE, 1);
}

int mesh_com_notifyIsolated(void) {
    return sendEvent(MESH_COM_EVENT_ISOLATED, 0);
}
