// The command message: one fixed 1456-byte record per request and per reply.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int MESH_CMD_MSG_LEN = 1456;
constexpr int MESH_CMD_PAYLOAD_LEN = 1448;
constexpr int MESH_CMD_SRV_ID = 21; // the daemon's command server
constexpr int MESH_CMD_SRV_BACKLOG = 5;
constexpr int MESH_CMD_MSG_CODE = 16;     // message code of command traffic
constexpr int MESH_CMD_WAIT_TIMEOUT = 10; // seconds per wait of the serving loop

enum MESH_CMD_TYPE : int32_t {
    MESH_CMD_INIT_MESH = 1,
    MESH_CMD_UPDATE_AP = 2,
    MESH_CMD_UPDATE_DIGEST = 3,
    MESH_CMD_UPDATE_MESH = 4,
    MESH_CMD_ADD_CHILD = 5,
    MESH_CMD_DEL_CHILD = 6,
    MESH_CMD_GET_ONLINE_CHILD = 7,
    MESH_CMD_GET_CANDIDATE_CHILD = 8,
    MESH_CMD_SCAN_CANDIDATE_AP = 9,
    MESH_CMD_GET_SCAN_STATE = 10,
    MESH_CMD_GET_SCAN_RESULT = 11,
    MESH_CMD_SET_CONTROLLER_IP_PORT = 12,
    MESH_CMD_GET_MESH_STATE = 13,
    MESH_CMD_SET_CONTROLLER_ID = 14,
    MESH_CMD_REQUEST_RESCAN = 15,
    MESH_CMD_SET_SPECIAL = 16,
    MESH_CMD_GET_STA_STATUS = 17,
    MESH_CMD_SET_RESET_FLAG = 18,
    MESH_CMD_SET_VLAN_ID = 19,
    MESH_CMD_SET_BASIC_WLAN_CFG = 20,
    MESH_CMD_SET_ADV_WLAN_CFG = 21,
    MESH_CMD_SET_ORBP_CFG = 22,
    // 23 has no command
    MESH_CMD_SYNC_PARENT_WLAN_MODE = 24,
};

struct MESH_CMD_MSG {
    int32_t type;
    uint8_t reserved[4]; // not read or written; comes back as sent
    uint8_t payload[MESH_CMD_PAYLOAD_LEN];
};
static_assert(sizeof(MESH_CMD_MSG) == MESH_CMD_MSG_LEN, "command message is 1456 bytes");
static_assert(offsetof(MESH_CMD_MSG, type) == 0, "type at 0");
static_assert(offsetof(MESH_CMD_MSG, reserved) == 4, "reserved at 4");
static_assert(offsetof(MESH_CMD_MSG, payload) == 8, "payload at 8");

// ---- payload records of requests and replies that are not slices of the configuration ----
constexpr size_t MESH_MAX_CANDIDATE_CHILD = 20;
constexpr size_t MESH_ONLINE_CHILD_REPLY_OFF = 8;    // type 7: u8 count at 0, entries from 8
constexpr size_t MESH_CANDIDATE_CHILD_REPLY_OFF = 4; // type 8: u8 count at 0, entries from 4
constexpr size_t MESH_SCAN_RESULT_REPLY_OFF = 1;     // type 11: u8 count at 0, entries from 1

#pragma pack(push, 1)
// Type 8 reply entry: what the last child-probe event of one would-be child said.
struct MESH_CANDIDATE_CHILD_INFO {
    uint8_t deviceMac[6];
    uint8_t staMac[6];
    char probeText[32];
    uint8_t controllerId[16];
    uint8_t resetFlag; // 1 when the prober's reset flag was set
    uint8_t probeAttr;
    uint8_t drv15; // driver values of the probe event, bytes 15, 12, 13 (best seen) and 14
    uint8_t probeTextAttr;
    uint8_t drv12;
    int8_t drv13Best;
    uint8_t drv14;
    uint8_t zero67;
    uint32_t verCap; // host order
};
// Type 9 request.
struct MESH_SCAN_REQUEST {
    uint32_t word;   // handed to the scan operation, which does not use it
    uint32_t notify; // non-zero: send the scan-done notification at the end
};
#pragma pack(pop)
static_assert(sizeof(MESH_CANDIDATE_CHILD_INFO) == 72, "candidate entry is 72 bytes");
static_assert(offsetof(MESH_CANDIDATE_CHILD_INFO, staMac) == 6, "staMac at 6");
static_assert(offsetof(MESH_CANDIDATE_CHILD_INFO, probeText) == 12, "probeText at 12");
static_assert(offsetof(MESH_CANDIDATE_CHILD_INFO, controllerId) == 44, "controllerId at 44");
static_assert(offsetof(MESH_CANDIDATE_CHILD_INFO, resetFlag) == 60, "resetFlag at 60");
static_assert(offsetof(MESH_CANDIDATE_CHILD_INFO, probeAttr) == 61, "probeAttr at 61");
static_assert(offsetof(MESH_CANDIDATE_CHILD_INFO, drv15) == 62, "byte 62");
static_assert(offsetof(MESH_CANDIDATE_CHILD_INFO, probeTextAttr) == 63, "probeTextAttr at 63");
static_assert(offsetof(MESH_CANDIDATE_CHILD_INFO, drv12) == 64, "byte 64");
static_assert(offsetof(MESH_CANDIDATE_CHILD_INFO, drv13Best) == 65, "byte 65");
static_assert(offsetof(MESH_CANDIDATE_CHILD_INFO, drv14) == 66, "byte 66");
static_assert(offsetof(MESH_CANDIDATE_CHILD_INFO, verCap) == 68, "verCap at 68");
static_assert(sizeof(MESH_SCAN_REQUEST) == 8, "scan request is 8 bytes");

// Dispatches one message to its handler; returns the handler's result, or 1 for a null
// message or a type that is not served.
uint32_t mesh_cmd_handle(MESH_CMD_MSG* msg);
