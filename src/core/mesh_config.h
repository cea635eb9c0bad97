// The mesh configuration record: the daemon's single in-memory copy of what the management
// side hands down. Its layout is a wire format (the payload of command type 1).
#pragma once

#include "wlan/mesh_wlan_types.h"

#include <cstddef>
#include <cstdint>
#include <pthread.h>

constexpr int MESH_MAX_CHILD = 4;
constexpr int MESH_MAX_NORMAL_AP = 16;
constexpr size_t MESH_SETTINGS_LEN = 28; // meshEnable .. fullSector, the type 4 payload

#pragma pack(push, 1)

struct MESH_CHILD_ENTRY {
    uint8_t mac[6];
    uint8_t digest[16];
};
static_assert(sizeof(MESH_CHILD_ENTRY) == 22, "child entry is 22 bytes");

struct MESH_NORMAL_AP {
    uint32_t enable;
    uint32_t flags; // bit 1 (value 2): carry the mesh element in this AP's beacon
    char ifName[16];
};
static_assert(sizeof(MESH_NORMAL_AP) == 24, "ordinary AP entry is 24 bytes");

struct MESH_CONTROLLER_IP_PORT {
    char ip[80]; // NUL-terminated, fewer than 80 characters
    uint32_t value1;
    uint32_t value2;
};
static_assert(sizeof(MESH_CONTROLLER_IP_PORT) == 88, "controller address block is 88 bytes");

struct MESH_ORBP_CFG {
    char vintacId[33];
    uint8_t reserved[3];
    uint32_t verCap;
};
static_assert(sizeof(MESH_ORBP_CFG) == 40, "management-protocol block is 40 bytes");
static_assert(offsetof(MESH_ORBP_CFG, verCap) == 36, "verCap at 36");

// Payload of command type 2.
struct MESH_NORMAL_AP_LIST {
    uint8_t count;
    uint8_t reserved[3];
    MESH_NORMAL_AP list[MESH_MAX_NORMAL_AP];
};
static_assert(sizeof(MESH_NORMAL_AP_LIST) == 388, "ordinary-AP list is 388 bytes");

struct MESH_ALL_CONFIG {
    uint32_t meshEnable;
    uint32_t netChkTargetSet;
    uint32_t netChkTargetIp;
    uint32_t gatewayIp;
    uint32_t deviceIp;
    uint32_t netmask;
    uint32_t fullSector;
    uint8_t reserved28;
    uint8_t deviceMac[6];
    uint8_t controllerId[16];
    uint8_t reserved51;
    uint32_t resetFlag;
    uint16_t vlanId;
    uint8_t digest[16];
    char probeText[32];
    uint8_t probeTextAttr;
    char lanIfName[16];
    char radioName[16];
    uint8_t childNum;
    MESH_CHILD_ENTRY childList[MESH_MAX_CHILD];
    uint8_t normalApNum;
    uint8_t reserved229[3];
    MESH_NORMAL_AP normalApList[MESH_MAX_NORMAL_AP];
    MESH_CONTROLLER_IP_PORT controllerIpPort;
    uint8_t dfsFlag;
    uint8_t bkhApParam;
    uint8_t reserved706[2];
    uint32_t countryCode;
    uint8_t probeAttr;
    uint8_t reserved713[3];
    MESH_BASIC_WLAN_CFG basicWlanCfg;
    uint32_t advWlanCfg;
    MESH_ORBP_CFG orbpCfg;
    uint8_t reserved780[8];
};

#pragma pack(pop)

static_assert(sizeof(MESH_ALL_CONFIG) == 788, "configuration record is 788 bytes");
static_assert(offsetof(MESH_ALL_CONFIG, meshEnable) == 0, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, netChkTargetSet) == 4, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, netChkTargetIp) == 8, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, gatewayIp) == 12, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, deviceIp) == 16, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, netmask) == 20, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, fullSector) == 24, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, deviceMac) == 29, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, controllerId) == 35, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, resetFlag) == 52, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, vlanId) == 56, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, digest) == 58, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, probeText) == 74, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, probeTextAttr) == 106, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, lanIfName) == 107, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, radioName) == 123, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, childNum) == 139, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, childList) == 140, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, normalApNum) == 228, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, normalApList) == 232, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, controllerIpPort) == 616, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, dfsFlag) == 704, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, bkhApParam) == 705, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, countryCode) == 708, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, probeAttr) == 712, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, basicWlanCfg) == 716, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, advWlanCfg) == 736, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, orbpCfg) == 740, "layout");
static_assert(offsetof(MESH_ALL_CONFIG, fullSector) + 4 == MESH_SETTINGS_LEN, "settings block");

// The process-wide record (all zero at start) and the plain mutex that guards it.
extern MESH_ALL_CONFIG g_allConfig;
extern pthread_mutex_t g_configMutex;

// The node's secret: 16 random bytes drawn once at the first command type 1. It feeds the
// backhaul passphrase and is the first field of every pairing block the node encrypts.
constexpr size_t MESH_RANDOM_LEN = 16;
extern uint8_t g_meshRandom[MESH_RANDOM_LEN];

// Zeroes the record; for tests, which run many daemons' worth of commands in one process.
void mesh_config_reset();
