// The byte layouts the daemon builds for the driver: the mesh element payloads (beacons,
// probe requests and responses, association requests), the child admission record and the
// two pairing blocks that are encrypted for a child. Every layout is packed; multi-byte
// integers are big-endian where marked, MACs are 6 raw bytes.
#pragma once

#include "core/mesh_config.h"

#include <cstddef>
#include <cstdint>

constexpr size_t MESH_LABEL_LEN = 16;
// The mesh label: the same constant on every node, in every element payload at offset 1.
extern const uint8_t MESH_LABEL[MESH_LABEL_LEN];

constexpr uint8_t MESH_IE_TYPE_MESH = 2;      // beacons, probe and association requests
constexpr uint8_t MESH_IE_TYPE_PROBE_RSP = 3; // the second probe-response element
constexpr uint8_t MESH_IE_VERSION = 1;
constexpr uint8_t MESH_PROBE_FLAG_SEARCHING = 0x01; // the sender looks for a parent
constexpr uint8_t MESH_PROBE_FLAG_RESET = 0x02;     // resetFlag of the configuration is set
constexpr size_t MESH_PROBE_TEXT_LEN = 32;          // at most 31 characters and a NUL
constexpr size_t MESH_PAIR_DATA_LEN = 128;          // one encrypted pairing block
constexpr size_t MESH_PAIR_BLOCK_LEN = 117;         // a pairing block before encryption
constexpr size_t MESH_PAIR_ADDR_TEXT_LEN = 80;      // at most 79 characters and a NUL
constexpr size_t MESH_PAIR_ID_LEN = 33;             // vintacId: the identity field, copied whole

#pragma pack(push, 1)

// Beacons and the station's association requests.
struct MESH_IE_BASIC {
    uint8_t type;
    uint8_t label[MESH_LABEL_LEN];
    uint8_t version;
    uint8_t deviceMac[6];
};
static_assert(sizeof(MESH_IE_BASIC) == 24, "MESH_IE_BASIC is 24 bytes");
static_assert(offsetof(MESH_IE_BASIC, label) == 1, "label at 1");
static_assert(offsetof(MESH_IE_BASIC, version) == 17, "version at 17");
static_assert(offsetof(MESH_IE_BASIC, deviceMac) == 18, "deviceMac at 18");

// The mesh station's probe requests: introduces the node and its public key to parents.
struct MESH_IE_PROBE_REQ {
    uint8_t type;
    uint8_t label[MESH_LABEL_LEN];
    uint8_t version;
    uint8_t flags;
    uint8_t probeAttr;
    uint8_t vlanId[2]; // the configuration's two bytes as held in memory
    uint8_t controllerId[16];
    uint8_t digest[16];
    uint8_t deviceMac[6];
    char probeText[MESH_PROBE_TEXT_LEN];
    uint8_t probeTextAttr;
    uint8_t keyLen;
    uint8_t key[128];  // RSA modulus, big-endian; e = 65537 is not sent
    uint8_t verCap[4]; // big-endian
};
static_assert(sizeof(MESH_IE_PROBE_REQ) == 226, "MESH_IE_PROBE_REQ is 226 bytes");
static_assert(offsetof(MESH_IE_PROBE_REQ, label) == 1, "label at 1");
static_assert(offsetof(MESH_IE_PROBE_REQ, version) == 17, "version at 17");
static_assert(offsetof(MESH_IE_PROBE_REQ, flags) == 18, "flags at 18");
static_assert(offsetof(MESH_IE_PROBE_REQ, probeAttr) == 19, "probeAttr at 19");
static_assert(offsetof(MESH_IE_PROBE_REQ, vlanId) == 20, "vlanId at 20");
static_assert(offsetof(MESH_IE_PROBE_REQ, controllerId) == 22, "controllerId at 22");
static_assert(offsetof(MESH_IE_PROBE_REQ, digest) == 38, "digest at 38");
static_assert(offsetof(MESH_IE_PROBE_REQ, deviceMac) == 54, "deviceMac at 54");
static_assert(offsetof(MESH_IE_PROBE_REQ, probeText) == 60, "probeText at 60");
static_assert(offsetof(MESH_IE_PROBE_REQ, probeTextAttr) == 92, "probeTextAttr at 92");
static_assert(offsetof(MESH_IE_PROBE_REQ, keyLen) == 93, "keyLen at 93");
static_assert(offsetof(MESH_IE_PROBE_REQ, key) == 94, "key at 94");
static_assert(offsetof(MESH_IE_PROBE_REQ, verCap) == 222, "verCap at 222");

// Template of the backhaul AP's probe responses (installed with type 2 and again with 3).
struct MESH_IE_PROBE_RSP {
    uint8_t type;
    uint8_t label[MESH_LABEL_LEN];
    uint8_t version;
    uint8_t deviceMac[6];
    uint8_t dataLen;
    uint8_t data[MESH_PAIR_DATA_LEN];
};
static_assert(sizeof(MESH_IE_PROBE_RSP) == 153, "MESH_IE_PROBE_RSP is 153 bytes");
static_assert(offsetof(MESH_IE_PROBE_RSP, label) == 1, "label at 1");
static_assert(offsetof(MESH_IE_PROBE_RSP, version) == 17, "version at 17");
static_assert(offsetof(MESH_IE_PROBE_RSP, deviceMac) == 18, "deviceMac at 18");
static_assert(offsetof(MESH_IE_PROBE_RSP, dataLen) == 24, "dataLen at 24");
static_assert(offsetof(MESH_IE_PROBE_RSP, data) == 25, "data at 25");

// A child as handed to the driver; for a removal only `mac` is filled.
struct MESH_CHILD_RECORD {
    uint8_t mac[6];
    uint8_t digest[16];
    uint8_t data1Len;
    uint8_t data1[MESH_PAIR_DATA_LEN]; // MESH_PAIR_BLOCK_ADDR encrypted for the child
    uint8_t data2Len;
    uint8_t data2[MESH_PAIR_DATA_LEN]; // MESH_PAIR_BLOCK_ID encrypted for the child
};
static_assert(sizeof(MESH_CHILD_RECORD) == 280, "MESH_CHILD_RECORD is 280 bytes");
static_assert(offsetof(MESH_CHILD_RECORD, digest) == 6, "digest at 6");
static_assert(offsetof(MESH_CHILD_RECORD, data1Len) == 22, "data1Len at 22");
static_assert(offsetof(MESH_CHILD_RECORD, data1) == 23, "data1 at 23");
static_assert(offsetof(MESH_CHILD_RECORD, data2Len) == 151, "data2Len at 151");
static_assert(offsetof(MESH_CHILD_RECORD, data2) == 152, "data2 at 152");

// The parent's secret and the controller address, before encryption.
struct MESH_PAIR_BLOCK_ADDR {
    uint8_t secret[16];
    char ip[MESH_PAIR_ADDR_TEXT_LEN];
    uint8_t value1[4]; // big-endian
    uint8_t value2[4]; // big-endian
    uint8_t reserved[13];
};
static_assert(sizeof(MESH_PAIR_BLOCK_ADDR) == MESH_PAIR_BLOCK_LEN, "MESH_PAIR_BLOCK_ADDR is 117");
static_assert(offsetof(MESH_PAIR_BLOCK_ADDR, ip) == 16, "ip at 16");
static_assert(offsetof(MESH_PAIR_BLOCK_ADDR, value1) == 96, "value1 at 96");
static_assert(offsetof(MESH_PAIR_BLOCK_ADDR, value2) == 100, "value2 at 100");
static_assert(offsetof(MESH_PAIR_BLOCK_ADDR, reserved) == 104, "reserved at 104");

// The parent's secret and the controller identity, before encryption.
struct MESH_PAIR_BLOCK_ID {
    uint8_t secret[16];
    char vintacId[MESH_PAIR_ID_LEN]; // the 33 bytes of the configuration's field
    uint8_t verCap[4];               // big-endian
    uint8_t reserved[64];
};
static_assert(sizeof(MESH_PAIR_BLOCK_ID) == MESH_PAIR_BLOCK_LEN, "MESH_PAIR_BLOCK_ID is 117");
static_assert(offsetof(MESH_PAIR_BLOCK_ID, vintacId) == 16, "vintacId at 16");
static_assert(offsetof(MESH_PAIR_BLOCK_ID, verCap) == 49, "verCap at 49");
static_assert(offsetof(MESH_PAIR_BLOCK_ID, reserved) == 53, "reserved at 53");

#pragma pack(pop)

// Association-request payload from g_allConfig. 1 ("null pointer") when `out` is null, else 0.
// Called with g_configMutex held.
uint32_t fillIntoAssocRequest(MESH_IE_BASIC* out);

// Probe-request payload from g_allConfig and the node's RSA public key. `flags` is the
// caller's searching bit (1 while it looks for a parent); bit 1 is added when resetFlag is
// set. 1 when `out` is null or the key pair is unavailable (key, keyLen and verCap then stay
// zero), else 0. Called with g_configMutex held.
uint32_t fillIntoProbeRequest(MESH_IE_PROBE_REQ* out, uint8_t flags);

// The builders below clear `out` first and return 1 (nothing written) when `out` or a
// required input is null, else 0.

// Beacon payload (type 2) of the node with this device MAC.
uint32_t mesh_payload_buildBeacon(const uint8_t* deviceMac, MESH_IE_BASIC* out);

// Probe-response template: type 0, data length 128, zero data.
uint32_t mesh_payload_buildProbeRsp(const uint8_t* deviceMac, MESH_IE_PROBE_RSP* out);

// Child record: MAC, digest and the two encrypted blocks with their lengths as the child
// table holds them (128 once made, else 0). A null block gives length 0 and a zero block, so
// a child not yet heard is still a complete record. Blocks are 128 bytes.
uint32_t mesh_payload_buildChildRecord(const uint8_t* mac, const uint8_t* digest, uint8_t data1Len,
                                       const uint8_t* data1, uint8_t data2Len, const uint8_t* data2,
                                       MESH_CHILD_RECORD* out);

// The two pairing blocks from the 16-byte secret and the controller address or identity.
// The address text is cut to 79 characters and always terminated; the identity is copied as
// its 33 bytes stand.
uint32_t mesh_payload_buildPairBlockAddr(const uint8_t* secret, const MESH_CONTROLLER_IP_PORT* addr,
                                         MESH_PAIR_BLOCK_ADDR* out);
uint32_t mesh_payload_buildPairBlockId(const uint8_t* secret, const MESH_ORBP_CFG* id,
                                       MESH_PAIR_BLOCK_ID* out);
