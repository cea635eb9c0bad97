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

// Phases of the parent search.
constexpr uint32_t MESH_SEARCH_IDLE = 0;       // start a scan next
constexpr uint32_t MESH_SEARCH_SCANNING = 1;   // wait for a parent, then connect
constexpr uint32_t MESH_SEARCH_CONNECTING = 2; // wait for the association
// Seconds to wait for a parent after a scan; longer when a reset node must wait out DFS.
constexpr uint32_t MESH_SCAN_WAIT = 8;
constexpr uint32_t MESH_SCAN_WAIT_RESET_DFS = 17;
// Seconds a connect may take; longer on the DFS channels 49..148.
constexpr uint32_t MESH_CONNECT_TIMEOUT = 180;
constexpr uint32_t MESH_CONNECT_TIMEOUT_DFS = 240;
constexpr uint32_t MESH_DFS_FIRST_CHANNEL = 49;
constexpr uint32_t MESH_DFS_LAST_CHANNEL = 148;
// Channel-availability waits added to the network check after joining a DFS parent.
constexpr uint32_t MESH_DFS_WAIT = 180;
constexpr uint32_t MESH_DFS_WAIT_WEATHER = 660; // weather-radar block in the long-wait country
constexpr uint32_t MESH_LONG_DFS_COUNTRY = 276;

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

// ---- transitions and parent search -------------------------------------------------------
// Reconfigures the radio for `to`, reports it and records it. 0 when the node is now in
// `to`; non-zero (nothing recorded) when the stored state is not `from`, for NORMAL->MESH,
// an unknown target or a failed step (steps done before are not undone).
uint32_t moveToState(uint32_t from, uint32_t to);
// Switches the backhaul AP; the adapter's non-zero result after "enable backhaul ap fail".
uint32_t enableBkhAp(uint32_t on);
// One step of the parent search: scan, wait for a parent, connect, time out.
void searchParent(PARENT_SEARCH* rec);
void setScanWait(PARENT_SEARCH* rec);                         // 8 s, 17 s with DFS and reset
void setConnectTimeout(PARENT_SEARCH* rec, uint32_t channel); // 180 s, 240 s on 49..148
void resetNetChkTimeout(void);                                // 60 s
void setNetChkTimeout(uint32_t wait);                         // wait + 60 s
// The channel-availability wait of a parent's channel: 0, 180 or 660 s.
uint32_t getDfsWaitTime(uint8_t channel);
// 1 when the channel lies in the weather-radar block for the mode's channel width.
uint32_t isWeatherRadarChannel(uint8_t channel, uint32_t wlanMode);

// ---- the state thread -------------------------------------------------------------------
// One row of the getter table: what is measured in a mesh state (null: not measured, -1).
struct MESH_STATE_FUNC_ENTRY {
    uint32_t state;
    MESH_STATE_GETTER lan;
    MESH_STATE_GETTER sta;
    MESH_STATE_GETTER orb;
    MESH_STATE_GETTER net;
};
// Debounces the raw reachability (1, 2) into NETWORK_STATE through CHECKING; `reset` starts
// a new CHECKING phase. 1 for a null `out`, else 0.
uint32_t transferNetState(uint32_t prev, uint32_t raw, uint32_t reset, uint32_t* out);
// 1 ON->OFF, 2 ON->ON, 4 OFF->ON, 8 OFF->OFF; 8 after "wrong lan state transfer" otherwise.
int32_t getLanLinkStateTran(uint32_t prev, uint32_t cur);
// The thread body: one tick a second, for ever.
void* threadRun(void* arg);

// One tick of the thread's evaluation on the calling thread, with the variables as the thread
// starts them but for the last readable management state, `orbPrev` (fuzzing: the thread
// itself ticks for ever).
void mesh_state_tickForTest(uint32_t orbPrev);

// Stops the state thread, if one runs, after its sleep and waits for it, sleeping meanwhile
// (tests only: the daemon never stops it).
void mesh_state_stopThreadForTest(void);

// Back to the values of process start (tests run many daemons' lives in one process); stops
// the state thread if one runs.
void mesh_state_resetModule(void);
