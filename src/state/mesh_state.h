// The state vocabulary of the mesh and the entry points of the state module that other
// subsystems call.
//
// Every state is a 32-bit word and every defined value a distinct single bit, so that a rule
// can name a set of acceptable values as a mask and test a state with a bitwise AND. The
// value STATE_ANY (-1, all bits set) means "any value" in a rule and "not measured" in a
// variable, and therefore satisfies every mask.
#pragma once

#include <cstdint>

constexpr uint32_t STATE_ANY = 0xFFFFFFFFu;

enum MESH_STATE : uint32_t {
    MESH_STATE_NORMAL = 1,   // ordinary access point, wired uplink in use
    MESH_STATE_MESH = 2,     // joined to a parent over the mesh station
    MESH_STATE_ISOLATED = 4, // no usable uplink; searching for a parent
};

enum LAN_STATE : uint32_t {
    LAN_ON = 1,  // wired uplink link is up
    LAN_OFF = 2, // wired uplink link is down
};

// Any value other than STA_ON and STA_OFF prints as "STA_DISABLE": no station measurement.
enum STA_STATE : uint32_t {
    STA_ON = 1,  // mesh station is associated with a parent
    STA_OFF = 2, // mesh station is not associated
};

enum ORB_STATE : uint32_t {
    ORB_STATE_MANAGED = 1,   // the node is managed by a controller
    ORB_STATE_UNMANAGED = 2, // the node is not managed
};
// What getOrbState returns when the management-state file holds no number: the caller keeps
// the management state it had.
constexpr uint32_t ORB_STATE_UNREADABLE = 4;
// The value the daemon writes into the management-state file to mark the state unknown.
constexpr int ORB_FILE_UNKNOWN = 7;
constexpr const char* ORB_STATE_PATH = "/tmp/ORB_STATE";

enum NETWORK_STATE : uint32_t {
    NETWORK_STATE_ON = 1,       // the reachability target answers
    NETWORK_STATE_OFF = 2,      // the target has not answered for the whole check time
    NETWORK_STATE_CHECKING = 4, // the target stopped answering; waiting before declaring OFF
};

enum MESH_LOOP_STATE : uint32_t {
    MESH_LOOP_STATE_ON = 1, // the kernel reports a forwarding loop
    MESH_STATE_OFF = 2,     // no loop
};

// Printable names; never null. A value outside the enumeration gives "", except for the
// station state, where every value other than 1 and 2 gives "STA_DISABLE".
const char* getMeshStateStr(uint32_t state);
const char* getLanStateStr(uint32_t state);
const char* getStaStateStr(uint32_t state);
const char* getOrbStateStr(uint32_t state);
const char* getNetStateStr(uint32_t state);
const char* getLoopStateStr(uint32_t state);

// Switches the state thread's evaluation on (non-zero) or off. Returns 0.
uint32_t mesh_state_setEnable(uint32_t enable);
// Copies the current mesh state into *state. Returns 1 for a null pointer, else 0.
uint32_t mesh_state_getMeshState(uint32_t* state);
// Posts (non-zero) or withdraws (0) a request to leave MESH_STATE_MESH and search for a
// parent again. Returns 0.
uint32_t mesh_state_requestRescan(uint32_t request);
// Records the uplink interface (cut to 15 characters), the country code and the DFS flag,
// and starts the state thread the first time it is called; later calls only update the three
// values. 1 for a null name or when the thread cannot be created, else 0.
uint32_t mesh_state_init(const char* lanIfName, uint32_t countryCode, uint32_t dfsFlag);
