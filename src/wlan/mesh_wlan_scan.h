// Scanning and station status: the mesh station's site survey and its candidate parents,
// the station configuration, the station's association state, and the backhaul AP's
// associated stations (the online children). The candidate and online-child records travel
// unchanged in command replies.
#pragma once

#include "wlan/mesh_wlan_types.h"

#include <cstddef>
#include <cstdint>

// ---- driver tables -------------------------------------------------------------------------
// Site-survey table (RTPRIV_IOCTL_SCAN_TABLE on the station): u32 entry count, then 72-byte
// entries from offset 4.
constexpr size_t MESH_SCAN_TABLE_LEN = 49152;
constexpr size_t MESH_SCAN_TABLE_HDR = 4;
constexpr size_t MESH_SCAN_ENTRY_LEN = 72;
constexpr size_t MESH_SCAN_ENTRY_VALUE_OFF = 40; // u32, its low byte goes into the candidate
constexpr size_t MESH_SCAN_ENTRY_RSSI_OFF = 44;  // s32 dBm
constexpr size_t MESH_SCAN_ENTRY_BSSID_OFF = 64; // 6 bytes; all zero = empty entry
constexpr size_t MESH_SCAN_ENTRY_MESH_OFF = 70;  // meshAttr; 0 = not a mesh candidate
constexpr uint32_t MESH_SCAN_REQ_COUNT = 256;    // written into the count before asking
constexpr int MESH_SCAN_SETTLE_SEC = 6;
constexpr int MESH_SCAN_MAX_ATTEMPTS = 15;
constexpr unsigned MESH_SCAN_RETRY_MS = 500;
constexpr size_t MESH_MAX_SCAN_CANDIDATE = 20;

// Station table (RTPRIV_IOCTL_STA_TABLE on the backhaul AP), little-endian: u32 entry count,
// 4 bytes not read, 56-byte entries from offset 8.
constexpr size_t MESH_STA_TABLE_LEN = 512;
constexpr size_t MESH_STA_TABLE_HDR = 8;
constexpr size_t MESH_STA_ENTRY_LEN = 56;
constexpr size_t MESH_STA_TABLE_MIN = 232; // a table of 4 entries
constexpr size_t MESH_MAX_ONLINE_CHILD = 4;

extern uint8_t g_scanTable[MESH_SCAN_TABLE_LEN];
extern uint8_t g_staTable[MESH_STA_TABLE_LEN];

// ---- reply records ---------------------------------------------------------------------------
#pragma pack(push, 1)
// One candidate parent AP, 10 bytes.
struct MESH_SCAN_CANDIDATE {
    uint8_t bssid[6];
    uint8_t entryValue;  // low byte of the survey entry's u32 at offset 40
    uint8_t signalLevel; // low byte of rssi + 95, modulo 256
    uint8_t rssi;        // low byte of rssi (two's complement dBm)
    uint8_t meshAttr;
};
// One online child, 56 bytes; bytes not listed stay as the caller cleared them.
struct MESH_ONLINE_CHILD_INFO {
    uint8_t mac[6];
    uint8_t reserved6[2];
    uint32_t value48Div1000; // station entry's u32 at 48, / 1000
    uint32_t value52Div1000; // station entry's u32 at 52, / 1000
    uint8_t signalLevel;     // entry byte 7 + 95, modulo 256
    uint8_t rssi;            // entry byte 7 (signed dBm)
    uint8_t reserved18[2];
    uint32_t counter32Low; // low 32 bits of the entry's u64 at 32
    uint32_t counter40Low; // low 32 bits of the entry's u64 at 40
    uint8_t reserved28[4];
    uint64_t counter16; // entry's u64 at 16
    uint64_t counter24; // entry's u64 at 24
    uint8_t reserved48[8];
};
#pragma pack(pop)
static_assert(sizeof(MESH_SCAN_CANDIDATE) == 10, "MESH_SCAN_CANDIDATE is 10 bytes");
static_assert(offsetof(MESH_SCAN_CANDIDATE, entryValue) == 6, "entryValue at 6");
static_assert(offsetof(MESH_SCAN_CANDIDATE, signalLevel) == 7, "signalLevel at 7");
static_assert(offsetof(MESH_SCAN_CANDIDATE, rssi) == 8, "rssi at 8");
static_assert(offsetof(MESH_SCAN_CANDIDATE, meshAttr) == 9, "meshAttr at 9");
static_assert(sizeof(MESH_ONLINE_CHILD_INFO) == 56, "MESH_ONLINE_CHILD_INFO is 56 bytes");
static_assert(offsetof(MESH_ONLINE_CHILD_INFO, value48Div1000) == 8, "offset 8");
static_assert(offsetof(MESH_ONLINE_CHILD_INFO, value52Div1000) == 12, "offset 12");
static_assert(offsetof(MESH_ONLINE_CHILD_INFO, signalLevel) == 16, "offset 16");
static_assert(offsetof(MESH_ONLINE_CHILD_INFO, rssi) == 17, "offset 17");
static_assert(offsetof(MESH_ONLINE_CHILD_INFO, counter32Low) == 20, "offset 20");
static_assert(offsetof(MESH_ONLINE_CHILD_INFO, counter40Low) == 24, "offset 24");
static_assert(offsetof(MESH_ONLINE_CHILD_INFO, counter16) == 32, "offset 32");
static_assert(offsetof(MESH_ONLINE_CHILD_INFO, counter24) == 40, "offset 40");

// ---- operations --------------------------------------------------------------------------------
// Switches the station off and starts a site survey on it. Always 0.
uint32_t mesh_wlan_startActiveScan(void* unused);
// Configures the mesh station for WPA2-PSK/AES with the credentials and connects it; a
// channel of 36..48 or 149..165 is set first. Null credentials: nothing, 0. Credentials
// with a character other than a letter, digit, "-" or "_" are refused: error line, nothing
// runs, 1. Otherwise 0.
uint32_t mesh_wlan_configSta(const MESH_WLAN_CREDENTIALS* cred, uint8_t channel);
// Runs a site survey (6 s settle, up to 15 reads while the driver is busy) and extracts up
// to 20 distinct mesh candidates into `out` (20 entries), their number into `*count`.
// 0, or 1 (missing output, driver still busy, table too short).
uint32_t mesh_wlan_scanParentAp(void* unused, uint8_t* count, MESH_SCAN_CANDIDATE* out);
// Reads the backhaul AP's associated stations: at most 4 and at most `max` entries into
// `out`, their number into `*count`. 0, or 1.
uint32_t mesh_wlan_getOnlineChild(uint8_t* count, MESH_ONLINE_CHILD_INFO* out, uint8_t max);
// `*status` = 1 when the mesh station is associated, else 0. 0, or 1 (null output, or the
// driver refused: `*status` unchanged).
uint32_t mesh_wlan_getStaStatus(int32_t* status);
