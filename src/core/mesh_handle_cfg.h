// Commands that change single settings of the mesh (types 12, 14, 16, 18 to 22 and 24).
//
// While the mesh is disabled a new value is only stored and takes effect at the next
// enabling; while it is enabled an unchanged value does nothing and a changed one is applied
// to the running mesh. Fields the probe-request element carries (controller identity, reset
// flag) are stored first and the element rebuilt; the others are applied first and stored
// only when that worked. Every handler but setSpecial and syncParentWlanMode holds
// g_configMutex for its whole read-compare-apply-store sequence.
#pragma once

#include "core/mesh_config.h"

#include <cstdint>

// Actions of command type 16 on the backhaul AP.
enum MESH_SPECIAL_ACTION : uint32_t {
    MESH_SPECIAL_BKHAP_RESTART = 1, // off, then on again
    MESH_SPECIAL_BKHAP_DOWN = 2,
    MESH_SPECIAL_BKHAP_UP = 3,
};

// Type 12: the 88-byte controller address block; re-encrypts the children's address blocks.
uint32_t mesh_handle_setControllerIpPort(const uint8_t* payload);
// Type 14: the 16-byte controller identity; rebuilds the probe-request element.
uint32_t mesh_handle_setControllerId(const uint8_t* payload);
// Type 22: the 40-byte management-protocol block; re-encrypts the children's identity blocks.
uint32_t mesh_handle_setOrbpCfg(const uint8_t* payload);
// Type 18: the reset flag; rebuilds the probe-request element.
uint32_t mesh_handle_setResetFlag(uint32_t flag);
// Type 19: the mesh VLAN id. Acts on a changed id also while the mesh is disabled: the
// driver gets the id and every admitted child's station is disconnected once, so that it
// re-associates in the new VLAN.
uint32_t mesh_handle_setVlanId(uint16_t vlan);
// Type 20: the 20-byte basic radio settings.
uint32_t mesh_handle_setBasicWlanCfg(const uint8_t* payload);
// Type 21: the 4-byte advanced radio settings.
uint32_t mesh_handle_setAdvWlanCfg(const uint8_t* payload);
// Type 16: switches an existing backhaul AP of an enabled mesh. Always 0.
uint32_t mesh_handle_setSpecial(uint32_t action);
// Type 24: while the node is joined to a parent (state MESH), applies the parent's wireless
// mode to the backhaul. Always 0.
uint32_t mesh_handle_syncParentWlanMode(void);
