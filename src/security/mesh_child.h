// The child table: for each child a parent has admitted, the addresses it is known by, the
// RSA public key it advertised and the two pairing blocks encrypted for it. The blocks carry
// the node's secret g_meshRandom with the controller address (data1) or identity (data2);
// the driver hands them to the child in the parent's answers. Every change of a child's
// encrypted data reaches the driver as a removal and a new admission of the child.
//
// The table sits beside childList of g_allConfig; the command handlers keep the two in step.
// Every operation returns 0 for success and 1 for failure and must be called with
// g_configMutex held; none takes a lock itself.
#pragma once

#include "core/mesh_config.h"
#include "core/mesh_msg.h"
#include "security/mesh_payload.h"

#include <cstddef>
#include <cstdint>

constexpr size_t MESH_CHILD_RSA_SLOTS = 4; // the capacity of childList

#pragma pack(push, 1)
// One slot of l_childRsa. A free slot is all zero.
struct CHILD_RSA_ENTRY {
    uint32_t inUse;
    uint8_t mac[6];        // the child's device MAC: the key of the table and of childList
    uint8_t staMac[6];     // its station interface; all zero until the child has been heard
    uint8_t keyLen;        // length of childKey; 0 while no key is known
    uint8_t data1Len;      // 128 once data1 is made, else 0
    uint8_t childKey[128]; // the child's RSA modulus, big-endian (e = 65537)
    uint8_t data1[MESH_PAIR_DATA_LEN]; // MESH_PAIR_BLOCK_ADDR encrypted with childKey
    uint8_t data2Len;                  // 128 once data2 is made, else 0
    uint8_t data2[MESH_PAIR_DATA_LEN]; // MESH_PAIR_BLOCK_ID encrypted with childKey
};

// A would-be child as the candidate list keeps it: the reply entry of command type 8, then
// what only the daemon reads. 20 of them make l_candidateChild.
struct MESH_CANDIDATE_CHILD {
    MESH_CANDIDATE_CHILD_INFO info;
    uint32_t lastSeen;   // uptime of the last probe
    uint32_t signalTime; // uptime when info.drv13Best was last taken
    uint8_t keyLen;      // the prober's RSA modulus
    uint8_t key[128];
    uint8_t zero[3];
    uint32_t isChild; // 1 when the prober was in childList at its last probe
    uint32_t valid;   // 1 = record in use
};
#pragma pack(pop)
static_assert(sizeof(CHILD_RSA_ENTRY) == 403, "child slot is 403 bytes");
static_assert(offsetof(CHILD_RSA_ENTRY, mac) == 4, "mac at 4");
static_assert(offsetof(CHILD_RSA_ENTRY, staMac) == 10, "staMac at 10");
static_assert(offsetof(CHILD_RSA_ENTRY, keyLen) == 16, "keyLen at 16");
static_assert(offsetof(CHILD_RSA_ENTRY, childKey) == 18, "childKey at 18");
static_assert(offsetof(CHILD_RSA_ENTRY, data2Len) == 274, "data2Len at 274");
static_assert(sizeof(MESH_CANDIDATE_CHILD) == 220, "candidate record is 220 bytes");
static_assert(offsetof(MESH_CANDIDATE_CHILD, lastSeen) == 72, "lastSeen at 72");
static_assert(offsetof(MESH_CANDIDATE_CHILD, signalTime) == 76, "signalTime at 76");
static_assert(offsetof(MESH_CANDIDATE_CHILD, keyLen) == 80, "keyLen at 80");
static_assert(offsetof(MESH_CANDIDATE_CHILD, key) == 81, "key at 81");
static_assert(offsetof(MESH_CANDIDATE_CHILD, isChild) == 212, "isChild at 212");
static_assert(offsetof(MESH_CANDIDATE_CHILD, valid) == 216, "valid at 216");

// Claims the lowest free slot for the MAC in the first 6 bytes of `record`. 1 for a null
// argument, a MAC already present ("it's an existed mac") or a full table ("child rsa entry
// is full").
uint32_t mesh_addChildRsaEntry(const MESH_CHILD_RECORD* record);
// Frees the child's slot and copies its station MAC out (all zero when it was never heard).
// 1 for null arguments or an unknown MAC ("can't find the mac in l_childRsa").
uint32_t mesh_delChildRsaEntry(const uint8_t* mac, uint8_t* staMac);
// Copies the station MAC of a child out. 1 without a message for an unknown MAC.
uint32_t mesh_getChildStaMac(const uint8_t* mac, uint8_t* staMac);
// Stores a new station MAC for a child, without touching its key or blocks. 1 for an unknown
// MAC.
uint32_t mesh_setChildStaMac(const uint8_t* mac, const uint8_t* staMac);
// Replaces the station MAC in `mac` by the device MAC of the child it belongs to. 1 when no
// child has that station MAC.
uint32_t mesh_getChildMacByStaMac(uint8_t* mac);
// Fills data1Len, data1, data2Len and data2 of `record` from the slot of `mac`; the other
// fields stay as the caller set them. 1 (record untouched) when no slot holds the MAC.
uint32_t mesh_getChildRsaData(const uint8_t* mac, MESH_CHILD_RECORD* record);
// Records the station MAC and, for a key not seen before, the child's key; encrypts both
// pairing blocks under it from the current configuration and re-admits the child to the
// driver with its childList digest. The same key again only refreshes the station MAC.
uint32_t mesh_updateChildRsaData(const MESH_CANDIDATE_CHILD* candidate, const uint8_t* staMac);
// Re-encrypts data1 of every keyed child for the new controller address (not yet stored in
// g_allConfig) and re-admits the child to the driver; stops at the first failing child.
uint32_t mesh_updateChildRsaControllerIpPort(const MESH_CONTROLLER_IP_PORT* addr);
// The same for data2 and the new controller identity.
uint32_t mesh_updateChildRsaOrbpCfg(const MESH_ORBP_CFG* id);
// 1 when the MAC is among the first childNum entries of childList, else 0 (also for null).
uint32_t mesh_isChildInConfig(const uint8_t* mac);

// Read access to one slot (0..3), for tests and diagnostics; null for an index out of range.
const CHILD_RSA_ENTRY* mesh_child_slot(size_t index);
// Frees every slot; for tests, which run many daemons' worth of commands in one process.
void mesh_child_resetForTest(void);
