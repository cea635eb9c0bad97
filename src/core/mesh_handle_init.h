// Bringing the mesh up and down: the initialisation command (type 1), the enable switch
// and settings of the running mesh (type 4), the ordinary-AP list (type 2) and the digest
// (type 3), with the enabling and disabling sequences they share.
//
// Enabling: the network check runs, the state thread works, the hidden backhaul AP exists
// and is up with the driver's mesh switches and label, the mesh element is in the beacons
// and probe responses, child probes are listened for and the configured children are
// admitted. Disabling undoes these in its own order. Sequences stop at the first failing
// step and undo nothing; meshEnable of g_allConfig changes only after a whole switch.
#pragma once

#include "core/mesh_config.h"
#include "security/mesh_payload.h"
#include "wlan/mesh_wlan_types.h"

#include <cstdint>

// Type 1: payload = the 788-byte configuration record. The first call starts the netlink
// monitor, draws g_meshRandom and starts the state module; a later call ("mesh reinit")
// starts no thread and keeps the secret: it disables a running mesh, stores the record,
// updates the state module's uplink, country code and DFS flag, and enables the mesh when
// the record says so. A record with childNum above 4 or normalApNum above 16 is refused
// whole. 0 or 1.
uint32_t mesh_handle_initMesh(const uint8_t* payload);
// Type 4: payload = the 28-byte mesh-settings block. Switches the mesh on or off, or hands
// a running mesh its new full-sector and network-check settings. 0 or 1.
uint32_t mesh_handle_updateMesh(const uint8_t* payload);
// Type 2: payload = MESH_NORMAL_AP_LIST. A count above 16 is refused whole. 0 or 1.
uint32_t mesh_handle_updateAp(const uint8_t* payload);
// Type 3: payload = the 16-byte digest. 0 or 1.
uint32_t mesh_handle_updateDigest(const uint8_t* payload);

// The enabling sequence on a whole record (the type 1 payload or a merged copy). Called with
// g_configMutex held. 0 or 1.
uint32_t mesh_enableMesh(const MESH_ALL_CONFIG* cfg);
// The disabling sequence on the stored record. Called with g_configMutex held. 0 or 1.
uint32_t mesh_disableMesh(void);

// The mesh beacon data of the node with this device MAC, as the ordinary APs and the
// backhaul AP carry it; and the backhaul credentials: "mesh_" and the MAC in lowercase hex,
// the passphrase derived from the MAC and g_meshRandom. 1 when the derivation fails.
uint32_t mesh_handle_bkhApCredentials(const uint8_t* deviceMac, MESH_WLAN_CREDENTIALS* cred);

// Back to the state of process start: no thread counted as started, no secret drawn (the
// threads themselves are not stopped). For tests.
void mesh_handle_resetInit(void);
