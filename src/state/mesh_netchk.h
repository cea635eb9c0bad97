// Network check and loop detection.
//
// A detached thread answers once a second whether the node still reaches its reachability
// target (the gateway, or a configured address in the own subnet). While the kernel mesh
// module's traffic counter for the target's MAC keeps moving, no packet is sent; when it
// stands still at a check (every 15 or 30 s), or every 600 ticks regardless, an ARP request
// on "br0" decides. The same module drives the kernel's loop detection for the state thread:
// set-up, on/off, a probe every 30 ticks while on, and the loop status read back.
//
// All exchange with the kernel goes through /proc/mesh/config_count (configuration lines,
// each written with its terminating NUL, the file opened anew per line; read: the counter)
// and /proc/mesh/loop_status (read: 1 when a loop was seen).
//
// The module's words are shared between the command thread (init, setConfig, destroy), the
// state thread (reset, checkNetIm, setLoopbackCheck, the getters) and the network-check
// thread; flags and states are single 32-bit words, the address block and the MACs are
// copied under a short module lock.
#pragma once

#include "core/mesh_config.h"

#include <cstddef>
#include <cstdint>

// The mesh-settings block: the first 28 bytes of the configuration record. IPv4 addresses
// have the first octet in the most significant byte.
struct NETCHK_CONFIG {
    uint32_t meshEnable;
    uint32_t netChkTargetSet;
    uint32_t netChkTargetIp; // in the module's copy: the effective target
    uint32_t gatewayIp;
    uint32_t deviceIp;
    uint32_t netmask;
    uint32_t fullSector;
};
static_assert(sizeof(NETCHK_CONFIG) == MESH_SETTINGS_LEN, "settings block is 28 bytes");
static_assert(offsetof(NETCHK_CONFIG, meshEnable) == offsetof(MESH_ALL_CONFIG, meshEnable), "");
static_assert(offsetof(NETCHK_CONFIG, netChkTargetSet) ==
                  offsetof(MESH_ALL_CONFIG, netChkTargetSet),
              "");
static_assert(offsetof(NETCHK_CONFIG, netChkTargetIp) == offsetof(MESH_ALL_CONFIG, netChkTargetIp),
              "");
static_assert(offsetof(NETCHK_CONFIG, gatewayIp) == offsetof(MESH_ALL_CONFIG, gatewayIp), "");
static_assert(offsetof(NETCHK_CONFIG, deviceIp) == offsetof(MESH_ALL_CONFIG, deviceIp), "");
static_assert(offsetof(NETCHK_CONFIG, netmask) == offsetof(MESH_ALL_CONFIG, netmask), "");
static_assert(offsetof(NETCHK_CONFIG, fullSector) == offsetof(MESH_ALL_CONFIG, fullSector), "");

// The ARP request of the reachability probe (42 bytes, multi-byte fields big-endian).
#pragma pack(push, 1)
struct MESH_ARP_FRAME {
    uint8_t ethDst[6];    // ff:ff:ff:ff:ff:ff
    uint8_t ethSrc[6];    // own MAC
    uint8_t etherType[2]; // 0x0806
    uint8_t hwType[2];    // 1, Ethernet
    uint8_t protoType[2]; // 0x0800, IPv4
    uint8_t hwLen;        // 6
    uint8_t protoLen;     // 4
    uint8_t operation[2]; // 1 request, 2 reply
    uint8_t senderMac[6];
    uint8_t senderIp[4];
    uint8_t targetMac[6];
    uint8_t targetIp[4];
};
#pragma pack(pop)
static_assert(sizeof(MESH_ARP_FRAME) == 42, "ARP frame is 42 bytes");
static_assert(offsetof(MESH_ARP_FRAME, ethDst) == 0, "ethDst at 0");
static_assert(offsetof(MESH_ARP_FRAME, ethSrc) == 6, "ethSrc at 6");
static_assert(offsetof(MESH_ARP_FRAME, etherType) == 12, "etherType at 12");
static_assert(offsetof(MESH_ARP_FRAME, hwType) == 14, "hwType at 14");
static_assert(offsetof(MESH_ARP_FRAME, protoType) == 16, "protoType at 16");
static_assert(offsetof(MESH_ARP_FRAME, hwLen) == 18, "hwLen at 18");
static_assert(offsetof(MESH_ARP_FRAME, protoLen) == 19, "protoLen at 19");
static_assert(offsetof(MESH_ARP_FRAME, operation) == 20, "operation at 20");
static_assert(offsetof(MESH_ARP_FRAME, senderMac) == 22, "senderMac at 22");
static_assert(offsetof(MESH_ARP_FRAME, senderIp) == 28, "senderIp at 28");
static_assert(offsetof(MESH_ARP_FRAME, targetMac) == 32, "targetMac at 32");
static_assert(offsetof(MESH_ARP_FRAME, targetIp) == 38, "targetIp at 38");

constexpr const char* MESH_CONFIG_COUNT_PATH = "/proc/mesh/config_count";
constexpr const char* MESH_LOOP_STATUS_PATH = "/proc/mesh/loop_status";
constexpr const char* MESH_BRIDGE_IFNAME = "br0";

constexpr uint16_t MESH_ETH_P_ARP = 0x0806;
constexpr uint16_t MESH_ETH_P_IP = 0x0800;
constexpr int MESH_ARP_WAIT_MS = 100;                 // one wait for an answer
constexpr int32_t MESH_ARP_LIMIT_S = 4;               // the whole probe
constexpr uint32_t MESH_NETCHK_TARGET_INTERVAL = 15;  // check interval, separate target
constexpr uint32_t MESH_NETCHK_GATEWAY_INTERVAL = 30; // check interval, gateway as target
constexpr uint32_t MESH_NETCHK_ARP_PERIOD = 600;      // ticks between forced ARP probes
constexpr uint32_t MESH_NETCHK_PROBE_PERIOD = 30;     // ticks between loop probes while on

// The network-check thread's own counters (one instance per thread, or per test).
struct NETCHK_TICK {
    uint32_t sinceCheck = 0; // ticks since the last counter check
    uint32_t sinceArp = 0;   // ticks since the last ARP probe that was answered
    uint32_t sinceProbe = 0; // ticks since the last loop probe
    uint32_t needArp = 1;    // the next tick sends an ARP probe
};

// Starts the check: copies the block, the own MAC and the uplink name, looks up "br0" and
// starts the thread. 1 for a null argument or a failure (error line printed), else 0.
uint32_t mesh_netChk_init(const NETCHK_CONFIG* cfg, const uint8_t* ownMac, const char* ifName);
// Replaces the addresses while running and starts over with an ARP probe. 1 for null.
uint32_t mesh_netChk_setConfig(const NETCHK_CONFIG* cfg);
// Stops the check: switches the kernel's target counter and loop detection off, stops the
// thread (it ends at its next sleep or probe wait, doing nothing more; destroy does not wait
// for it) and forgets the addresses. Returns 0.
uint32_t mesh_netChk_destroy(void);
// Starts over with an ARP probe; the network counts as unreachable until it answers.
uint32_t mesh_netChk_reset(void);
// Makes the next tick check at once, whatever the interval.
uint32_t mesh_netChk_checkNetIm(void);

uint32_t mesh_netChk_getNetState(void); // 1 reachable, 2 not
void mesh_netChk_setNetState(uint32_t state);
uint32_t mesh_netChk_getLoopState(void); // MESH_LOOP_STATE_ON or MESH_STATE_OFF

// Switches kernel loop detection on (non-zero) or off; nothing is written when the value
// does not change. 1 when a kernel line could not be written (the switch then stays as it
// was, so the next call tries again), else 0.
uint32_t mesh_netChk_setLoopbackCheck(uint32_t enable);

// Sends an ARP request for targetIp from senderIp on the bridge and waits up to 4 s for
// the answer. 0 with the target's MAC in macOut (6 bytes), 1 when there is none.
uint32_t mesh_netChk_checkIpByArp(uint32_t senderIp, uint32_t targetIp, uint8_t* macOut);

// Reads the kernel's target counter into *count (unchanged when the file holds no
// number). 1 for null or an unreadable file.
uint32_t mesh_netChk_getTargetCount(uint32_t* count);
// MESH_LOOP_STATE_ON when the kernel reports a loop, MESH_STATE_OFF otherwise (also when
// the file cannot be read).
uint32_t mesh_netChk_getKernelloopStatus(void);

// Writes one configuration line of `size` bytes. 1 for null or a file that cannot be
// opened; a write that fails is only reported.
uint32_t mesh_netChk_writeConfigToKernel(const void* buf, uint32_t size);
// "1 0" (count 0) or "1 <count> <mac>": the kernel's counter for the target's MAC.
uint32_t mesh_netChk_setTargetCountConfig(uint32_t count, const uint8_t* mac);
// "2 <sta ifindex> <uplink> <downlink ports> <own mac> <md5 of own mac>".
uint32_t mesh_netChk_setLoopInitConfig(void);
// "3 <enable>".
uint32_t mesh_netChk_setLoopEnableConfig(uint32_t enable);
// "4": send loop-detection probes.
uint32_t mesh_netChk_setLoopSendConfig(void);

// One tick of the network-check thread (everything but its one-second sleep).
void mesh_netChk_tick(NETCHK_TICK* t);
// The thread body: mesh_netChk_tick and a one-second sleep until destroy stops it (checked
// after the sleep and after each of the ARP probe's 100 ms waits). `arg`: the run's
// generation, handed over by init.
void* mesh_netChk_netChkThread(void* arg);

// Back to the values of process start, after a stopped thread has ended (tests; on the fake
// clock the thread ends only once the clock has passed its sleep).
void mesh_netChk_resetModule(void);
