// Mesh radio operations: create and switch the backhaul AP and the mesh station, hand the
// driver the mesh label, its flags and the admitted children, disconnect a station.
//
// Each operation is a short sequence of profile setters, iwpriv command lines or
// RTPRIV_IOCTL_MESH requests on the backhaul AP (g_bkhApIfName) or the mesh station. Shell
// results are never looked at; only a refused ioctl or a missing argument fails. No state is
// kept here: the driver holds the children, the label and the flags.
#pragma once

#include "security/mesh_payload.h"
#include "wlan/mesh_wlan_types.h"

#include <cstddef>
#include <cstdint>

constexpr size_t MESH_WLAN_PSK_WORK_LEN = 129; // 64 characters, each escaped, and the NUL
constexpr size_t MESH_CHILD_REQ_LEN = sizeof(MESH_CHILD_RECORD); // 280

// Creates the hidden WPA2-PSK/AES backhaul AP from the credentials (SSID, passphrase) and the
// basic radio settings, and adds it to br0. `advCfg` (4 bytes) is not read; `param` goes to
// the channel-limit hook when `chanLimit` is set. 0, or 1 ("pConfig is null\n") when the
// credentials or the basic settings are missing. An SSID with a character other than a
// letter, digit, "-" or "_", or a passphrase with a backslash or a control character, is
// refused with an error line before anything runs: 1.
uint32_t mesh_wlan_createBkhAp(const MESH_WLAN_CREDENTIALS* cred, uint8_t chanLimit,
                               const MESH_BASIC_WLAN_CFG* basic, const void* advCfg, uint8_t param);
// Brings the mesh station up and into br0. 0, or 1 ("sta interface %s does not exist\n").
// The two arguments are not read.
uint32_t mesh_wlan_createSta(const void* unused1, const void* unused2);
// Hands the 16-byte mesh label to the driver. 0, or 1 (no label, or the driver refused).
uint32_t mesh_wlan_setLabel(const uint8_t* label);

// Driver flags, each one iwpriv line; always 0.
uint32_t mesh_wlan_setCheckChild(uint32_t on);   // ms_checkchild on the backhaul AP
uint32_t mesh_wlan_setVlanId(uint32_t vlanId);   // ms_vlanid: the low 16 bits
uint32_t mesh_wlan_setFullSector(int32_t value); // ms_fullsector, passed through
uint32_t mesh_wlan_setCheckParent(uint32_t on);  // ms_checkparent on the mesh station
uint32_t mesh_wlan_setBlockNoChild(uint32_t on); // ms_blocknochild on the backhaul AP

// Brings an interface up and into br0 (on), or out of br0 and down (off). 0, or 1 when the
// name is missing or empty.
uint32_t _mtk_wlan_attachIface(const char* ifName, uint32_t on);
// Switches the backhaul AP; switching on also sets ApMWDS=1 (switching off leaves it).
uint32_t mesh_wlan_enableBkhAp(uint32_t on);
// Switches the mesh station.
uint32_t mesh_wlan_enableSta(uint32_t on);

// Admits a child with its pairing data (MESH_SUBCMD_ADD_CHILD). 0, or 1.
uint32_t mesh_wlan_addChild(const MESH_CHILD_RECORD* record);
// Removes a child from the driver (MESH_SUBCMD_DEL_CHILD) and disconnects its station,
// unless `staMac` is ff:ff:ff:ff:ff:ff (no station). 0, or 1 when the child MAC is missing,
// the driver refused, or the disconnect could not be issued.
uint32_t mesh_wlan_delChild(const uint8_t* childMac, const uint8_t* staMac);
// Disconnects a station from the backhaul AP. 0, or 1 when no MAC is given.
uint32_t mesh_wlan_kickSta(const uint8_t* staMac);
