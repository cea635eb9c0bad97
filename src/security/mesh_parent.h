// The parent handler: what a node without uplink does to join another node's backhaul AP as
// a station. It advertises the node (probe-request and association-request elements with its
// RSA public key), starts the active scan, keeps the parent information the driver reports
// over netlink, decrypts the pairing blocks the parent made for this node, derives the
// backhaul SSID and passphrase, hands the parent's controller address and identity to the
// management side and connects the station. When to scan and connect is the state thread's
// parent search.
//
// Locks: l_parentInfoMutex guards the stored parent information; g_configMutex is taken
// around element building, decryption and the identity comparison. The two are never held
// together.
#pragma once

#include "core/mesh_config.h"

#include <cstddef>
#include <cstdint>

#pragma pack(push, 1)
// Netlink event type 2: a parent found by the station's scan. Bytes not named are the
// driver's and are not read.
struct MESH_PARENT_INFO {
    uint8_t unused0[6];
    uint8_t parentMac[6]; // the parent's device MAC: names its backhaul SSID, enters its passphrase
    uint8_t channel;
    uint8_t unused13[3];
    uint32_t wlanMode; // host order
    uint8_t unused20[2];
    uint8_t data1[128]; // MESH_PAIR_BLOCK_ADDR encrypted for this node
    uint8_t data2Len;   // non-zero when the parent sent an identity block
    uint8_t data2[128]; // MESH_PAIR_BLOCK_ID encrypted for this node
    uint8_t unused279;
};
#pragma pack(pop)
static_assert(sizeof(MESH_PARENT_INFO) == 280, "MESH_PARENT_INFO is 280 bytes");
static_assert(offsetof(MESH_PARENT_INFO, parentMac) == 6, "parentMac at 6");
static_assert(offsetof(MESH_PARENT_INFO, channel) == 12, "channel at 12");
static_assert(offsetof(MESH_PARENT_INFO, wlanMode) == 16, "wlanMode at 16");
static_assert(offsetof(MESH_PARENT_INFO, data1) == 22, "data1 at 22");
static_assert(offsetof(MESH_PARENT_INFO, data2Len) == 150, "data2Len at 150");
static_assert(offsetof(MESH_PARENT_INFO, data2) == 151, "data2 at 151");

// Clears the parent information and registers handleNetlinkParent for event type 2. 0, or 1
// ("register ap handle callback fail").
uint32_t mesh_parentHandler_init(void);
// Unregisters event type 2 and turns the station off when it exists.
uint32_t mesh_parentHandler_destroy(void);
// Station up with the parent check, elements installed, active scan started. 0 or 1.
uint32_t mesh_parentHandler_scan(void);
// Derives the credentials from the stored parent information and configures the station.
// 1 without a message when no parent information is stored.
uint32_t mesh_parentHandler_connect(void);
// Turns the mesh station off; the adapter's result.
uint32_t mesh_parentHandler_disconnect(void);
// Rebuilds and re-installs the probe-request element when the station exists (0 otherwise).
// Takes no lock: callers hold g_configMutex.
uint32_t mesh_parentHandler_updateProbeReq(void);

// Netlink callback of event type 2 (record: MESH_PARENT_INFO). Stores the record; a changed
// wireless mode raises the state module's rescan request.
void handleNetlinkParent(const void* info);

// Backhaul SSID and passphrase of the parent, its controller address and identity; `changed`
// is set to 1 (never cleared) when the address differs from this node's. Runs with
// g_configMutex held. 0 on success.
uint32_t calcSSIDPassphraseFromParent(const MESH_PARENT_INFO* info, char* ssid, char* passphrase,
                                      uint32_t* changed, MESH_CONTROLLER_IP_PORT* addr,
                                      MESH_ORBP_CFG* id);

// Accessors of the stored parent information, each under l_parentInfoMutex.
uint32_t mesh_parentHandler_getParentInfo(MESH_PARENT_INFO* out);    // 1 when none or out null
void mesh_parentHandler_setParentInfo(const MESH_PARENT_INFO* info); // null clears
uint32_t mesh_parentHandler_hasParentInfo(void);
uint32_t mesh_parentHandler_getParentChannel(void);  // 0 when none
uint32_t mesh_parentHandler_getParentWlanMode(void); // 0 when none

// Back to the state of process start (tests).
void mesh_parentHandler_resetModule(void);
