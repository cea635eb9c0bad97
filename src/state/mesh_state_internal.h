// Module-internal part of the state module: the variables and operations that the state
// thread, the transition actions and the parent search share. Included only from
// src/state/ and the module's tests.
//
// Concurrency: the current mesh state, the enable flag and the rescan request are single
// 32-bit words read and written without a lock (the command and netlink threads write the
// flags, the state thread reads and clears them and is the only writer of the mesh state).
// Everything else here is used by the state thread alone.
#pragma once

#include "state/mesh_state.h"

#include <cstddef>
#include <cstdint>

constexpr size_t MESH_STATE_IFNAME_LEN = 16;
constexpr size_t MESH_CAUSE_TEXT_LEN = 256;

// One rule of the transition table: in `current`, when the station, management, network
// and loop states each share a bit with their mask, move to `target`.
struct MESH_STATE_TRANS_ENTRY {
    uint32_t current;
    uint32_t staMask;
    uint32_t orbMask;
    uint32_t netMask;
    uint32_t loopMask;
    uint32_t target;
};

// A condition getter: no argument, returns the measured state.
using MESH_STATE_GETTER = uint32_t (*)(void);

// Progress of the parent search while isolated; times are seconds of uptime.
struct PARENT_SEARCH {
    uint32_t scanStart;      // when the last scan was started
    uint32_t connectStart;   // when the last connect was started
    uint32_t phase;          // 0 idle, 1 scanning, 2 connecting
    uint32_t scanWait;       // seconds to wait for a parent after starting a scan
    uint32_t connectTimeout; // seconds a connect may take
};

// Shared by the state thread and the parent search (all zero at start).
extern PARENT_SEARCH l_parentSearch;
// How long NETWORK_STATE_CHECKING lasts before the network counts as OFF (seconds).
extern uint32_t g_netChkTimeout;
// Uptime at which the network state became CHECKING.
extern uint32_t g_netCheckingSince;

constexpr uint32_t MESH_NETCHK_BASE_TIMEOUT = 60;

uint32_t getMeshState(void);
void setMeshState(uint32_t state);
uint32_t getRescanRequest(void);
void setRescanRequest(uint32_t request);
uint32_t getEnable(void);

// Stores the uplink interface name, cut to 15 characters. Returns 1 for null, else 0.
uint32_t setLanIfName(const char* name);
const char* getLanIfName(void);
void setCountryCode(uint32_t code);
uint32_t getCountryCode(void);
void setDfsFlag(uint32_t flag);
uint32_t getDfsFlag(void);

// Condition getters of the state thread.
uint32_t getLanState(void); // LAN_OFF when the wired uplink is down, else LAN_ON
uint32_t getStaState(void); // STA_ON when the mesh station is associated, else STA_OFF
// ORB_STATE_MANAGED for a file value of 3 or 4, ORB_STATE_UNMANAGED for any other number or
// a file that cannot be opened, ORB_STATE_UNREADABLE when the file holds no number.
uint32_t getOrbState(void);
// Writes "7\n" into the management-state file. Returns 1 when it cannot be written, else 0.
uint32_t setOrbStateUnknown(void);

// "<sta> <orb> <net> <loop>": the names of the rule's four masks, in a buffer of the module
// (used by the state thread only).
const char* getTransitionCauseStr(const MESH_STATE_TRANS_ENTRY* row);

// Back to the values of process start (tests run many daemons' lives in one process).
void mesh_state_resetModule(void);
