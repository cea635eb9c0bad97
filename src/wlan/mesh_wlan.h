// Driver command layer: adapter start-up, the two interfaces of the mesh, the one socket
// through which every wireless ioctl goes, the driver's request numbers and sub-commands,
// and the basic radio settings turned into driver settings.
//
// Wireless requests use the wireless-extensions `iwreq`: the interface name in the first 16
// bytes (the whole request cleared first) and an iw_point descriptor (payload pointer,
// u16 length, u16 flags). The driver's private requests carry a sub-command in the flags.
#pragma once

#include "wlan/mesh_wlan_types.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

// ---- request numbers ---------------------------------------------------------------------
// SIOCGIFFLAGS (0x8913) and SIOCGIWESSID (0x8B1B) come from the system headers.
constexpr unsigned long MESH_SIOCIWFIRSTPRIV = 0x8BE0;                   // first private request
constexpr unsigned long RT_PRIV_IOCTL = MESH_SIOCIWFIRSTPRIV + 0x01;     // 0x8BE1
constexpr unsigned long RTPRIV_IOCTL_MESH = MESH_SIOCIWFIRSTPRIV + 0x15; // 0x8BF5
constexpr unsigned long RTPRIV_IOCTL_STA_TABLE = MESH_SIOCIWFIRSTPRIV + 0x1C;  // 0x8BFC
constexpr unsigned long RTPRIV_IOCTL_SCAN_TABLE = MESH_SIOCIWFIRSTPRIV + 0x1E; // 0x8BFE

// ---- sub-commands (flags of the descriptor) --------------------------------------------------
// RT_PRIV_IOCTL: element record of 267 bytes.
constexpr uint16_t MESH_IE_SET = 0x867E;
constexpr uint16_t MESH_IE_DELETE = 0x8680;
// RTPRIV_IOCTL_MESH.
constexpr uint16_t MESH_SUBCMD_ADD_CHILD = 1;      // 280-byte child record, on the backhaul AP
constexpr uint16_t MESH_SUBCMD_DEL_CHILD = 2;      // 280 bytes, child MAC in 0..5
constexpr uint16_t MESH_SUBCMD_SET_LABEL = 3;      // 16-byte mesh label
constexpr uint16_t MESH_SUBCMD_GET_STA_STATUS = 4; // u32, on the mesh station

constexpr size_t MESH_IFNAME_LEN = 16;
constexpr size_t MESH_ESSID_LEN = 32;
constexpr int MESH_NETLINK_PROTO = 38; // the driver's mesh event channel

// Backhaul AP interface name, from the device configuration at mesh_api_init (empty before).
extern char g_bkhApIfName[MESH_IFNAME_LEN];
// The AF_INET datagram socket for wireless requests; -1 until first use, then kept open.
extern std::atomic<int> g_wlanSock;

// Sets up the profile semaphore and caches the backhaul interface name.
// 0, or 1 ("_initDatSem failed") leaving g_bkhApIfName empty.
uint32_t mesh_api_init(void);

// The wireless socket, created once on first demand (safe when threads race for it).
// Returns the descriptor, or -1 after "create socket failed" (the next call tries again).
int _getsocket(void);

// Issues one wireless request on `ifName` (bound 16) through the shared socket: a cleared
// iwreq whose descriptor points at `data` with `*length` bytes and `flags`. On return
// `*length` holds the length the driver left (also after a failure). 0, or -1 with errno.
int _mtk_wlan_ioctl(const char* ifName, unsigned long request, uint16_t flags, void* data,
                    uint16_t* length);

// 1 when the backhaul AP runs an ESSID beginning "mesh_", else 0.
uint32_t mesh_wlan_checkBkhApExist(void);
// 1 when the mesh station interface exists (SIOCGIFFLAGS succeeds), else 0.
uint32_t mesh_wlan_checkStaExist(void);
// Copies the 16-byte mesh station interface name into `ifName`. 0, or 1 for a null buffer.
uint32_t mesh_wlan_getStaIfname(char* ifName);
// The netlink protocol of the driver's mesh events: 38.
int mesh_wlan_getNetlinkProto(void);
// Channel-width class 0..3 of a wireless mode code, or -1 ("invalid mode:%d\n").
int32_t mesh_wlan_getChwidth(int32_t mode);

// Channel number of a frequency in MHz (0 for 0).
uint32_t _mtk_wlan_freqToChannel(uint32_t freqMhz);
// Writes the bandwidth, coexistence and channel settings of `cfg` live and to the profile.
// Always 0 (the shell's results are not looked at).
uint32_t _mtk_wlan_setBandwidthChannel(const char* ifName, const MESH_BASIC_WLAN_CFG* cfg);
// Hooks where a driver that supports these settings would apply them; this driver needs
// nothing. _mtk_wlan_applyChanLimit: 1 for a missing name or record, else 0.
uint32_t _mtk_wlan_applyChanLimit(const char* ifName, const MESH_BASIC_WLAN_CFG* cfg,
                                  uint8_t param);
uint32_t _mtk_wlan_setWlanMode(const char* ifName, const MESH_BASIC_WLAN_CFG* cfg);
uint32_t mesh_wlan_updateAdvWlanCfg(const MESH_WLAN_CREDENTIALS* cred, const void* newAdv,
                                    const void* oldAdv, uint32_t force);
uint32_t mesh_wlan_initRadioName(const char* radioName);

// Applies what changed between `oldCfg` and `newCfg` (everything when `force` is set) to
// the backhaul AP. 0, or 1 when a record is missing.
uint32_t mesh_wlan_updateBasicWlanCfg(const MESH_BASIC_WLAN_CFG* newCfg,
                                      const MESH_BASIC_WLAN_CFG* oldCfg, uint8_t chanLimit,
                                      uint32_t force);
// Applies a wireless mode code to the backhaul AP at run time.
uint32_t mesh_wlan_setRuntimeWlanMode(uint32_t mode);

// Tests only: forgets the socket, the interface name and the semaphore id, so that the
// next test starts as the process does.
void mesh_wlan_resetForTest(void);
