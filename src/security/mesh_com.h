// Messages to the management services of the device: the controller address and identity a
// child received from its parent, the node's mesh state, the end of a candidate-parent scan
// and the isolation notice. None waits for or interprets an answer. Bodies are built on the
// caller's stack; integers in host byte order. docs/platform-libraries.md shows each body.
#pragma once

#include "core/mesh_config.h"

#include <cstddef>
#include <cstdint>

// Operations of the operation wrapper library (wrpOpDo on <run dir>/wrp.sock).
constexpr uint32_t MESH_WRP_OP_SET_CONTROLLER_IP_PORT = 0x00220003; // 268-byte record
constexpr uint32_t MESH_WRP_OP_SET_DEST_VINTAC_ID = 0x0028000F;     // 40-byte identity
constexpr uint32_t MESH_WRP_OP_SET_MESH_STATE = 0x001D0015;         // 4-byte state, 4 out

// One-way messages of the socket messaging library.
constexpr int MESH_COM_STATE_SRV_ID = 7; // mesh-state notification
constexpr int MESH_COM_STATE_MSG_CODE = 2;
constexpr uint32_t MESH_COM_STATE_DATA_CODE = 0x0028000D;
constexpr size_t MESH_COM_STATE_BODY_LEN = 4104;
constexpr int MESH_COM_EVENT_SRV_ID = 22; // scan done, isolated
constexpr int MESH_COM_EVENT_MSG_CODE = 17;
constexpr size_t MESH_COM_EVENT_BODY_LEN = 848;
constexpr uint32_t MESH_COM_EVENT_ISOLATED = 1;
constexpr uint32_t MESH_COM_EVENT_SCAN_DONE = 8;

constexpr size_t MESH_COM_CONTROLLER_REC_LEN = 268;

// 1 for a null argument or an address text of 80 characters or more ("invalid controller IP
// length"); else the result of wrpOpDo.
uint32_t mesh_com_setControllerIpPort(const MESH_CONTROLLER_IP_PORT* addr);
// 1 for a null argument or a non-zero wrpOpDo result; else 0.
uint32_t mesh_com_setDestVintacId(const MESH_ORBP_CFG* id);
// Always 0; the reply is not looked at.
uint32_t mesh_com_setMeshStateToSchedule(uint32_t state);
// Always 0; the send result is not looked at.
uint32_t mesh_com_notifyMeshState(uint32_t state);
// Event 8 {8, 1}: the candidate-parent scan has ended. Returns the send result.
int mesh_notifyScanDone(void);
// Event 1 {1, 0}: the node has become isolated. Returns the send result (callers ignore it).
int mesh_com_notifyIsolated(void);
