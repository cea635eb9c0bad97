// Child management on a parent: the would-be children heard in probe requests (the candidate
// list), admission and removal of children, and the children online at the backhaul AP.
//
// l_candidateChild holds 20 records (MESH_CANDIDATE_CHILD) guarded by l_candidateChildMutex.
// Lock order everywhere: l_candidateChildMutex before g_configMutex.
#pragma once

#include "security/mesh_child.h"

#include <cstddef>
#include <cstdint>

constexpr uint32_t MESH_CANDIDATE_STALE_SECS = 60;  // a record older than this is dropped
constexpr uint32_t MESH_CANDIDATE_SIGNAL_SECS = 10; // the best signal value is kept this long
constexpr uint8_t MESH_ONLINE_STA_ASK = 16;         // stations asked from the driver
constexpr size_t MESH_ONLINE_CHILD_REPLY_MAX = 4;   // entries in the type 7 reply

// Netlink callback of event type 1 (record: MESH_CHILD_PROBE), registered while the mesh is
// enabled; runs on the netlink monitor thread. Updates the candidate list and, for an
// admitted child, its key and station MAC in the child table.
void mesh_handle_indicateChild(const void* record);

// Type 5: payload = 6-byte MAC and 16-byte digest. 0, 1, or the code of the passphrase
// derivation when the backhaul AP had to be created.
uint32_t mesh_handle_addChild(const uint8_t* payload);
// Type 6: payload = 6-byte MAC. 0 or 1.
uint32_t mesh_handle_delChild(const uint8_t* payload);
// Type 7: reply u8 count at 0, MESH_ONLINE_CHILD_INFO entries from 8 (at most 4). 1 when the
// mesh is disabled.
uint32_t mesh_handle_getOnlineChild(uint8_t* payload);
// Type 8: reply u8 count at 0, MESH_CANDIDATE_CHILD_INFO entries from 4 (at most 20). 1 when
// the mesh is disabled.
uint32_t mesh_handle_getCandidateChild(uint8_t* payload);

// Clears the whole candidate list without taking its lock. Only for the enabling sequence,
// which runs with g_configMutex held before the child-probe callback is registered.
void mesh_handle_clearCandidateChild(void);
// Read access to one candidate record (0..19), for tests; null out of range.
const MESH_CANDIDATE_CHILD* mesh_handle_candidateSlot(size_t index);
