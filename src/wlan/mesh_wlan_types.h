// Radio setting records that arrive in commands and live in the configuration record, and
// the credentials record handed to the backhaul AP and the mesh station.
#pragma once

#include <cstddef>
#include <cstdint>

// Basic radio settings: five u32 words in host order.
struct MESH_BASIC_WLAN_CFG {
    uint32_t reserved0; // carried along, not read
    uint32_t bandwidth; // width code 2..6
    uint32_t frequency; // MHz, 0 = automatic channel selection
    uint32_t wlanMode;  // the platform's wireless mode code
    uint32_t reserved4; // carried along, not read
};
static_assert(sizeof(MESH_BASIC_WLAN_CFG) == 20, "MESH_BASIC_WLAN_CFG is 20 bytes");
static_assert(offsetof(MESH_BASIC_WLAN_CFG, bandwidth) == 4, "bandwidth at 4");
static_assert(offsetof(MESH_BASIC_WLAN_CFG, frequency) == 8, "frequency at 8");
static_assert(offsetof(MESH_BASIC_WLAN_CFG, wlanMode) == 12, "wlanMode at 12");

// Backhaul or parent credentials: SSID text then passphrase text, both NUL-terminated.
struct MESH_WLAN_CREDENTIALS {
    char ssid[32];
    char passphrase[33];
};
static_assert(sizeof(MESH_WLAN_CREDENTIALS) == 65, "credentials record is 65 bytes");
static_assert(offsetof(MESH_WLAN_CREDENTIALS, passphrase) == 32, "passphrase at 32");
