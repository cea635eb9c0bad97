// Mesh element updates: hands an element payload to the driver, wrapped in the driver's
// element record, for one interface and one frame type (RT_PRIV_IOCTL).
#pragma once

#include "security/mesh_payload.h"

#include <cstddef>
#include <cstdint>

constexpr size_t MESH_VENDOR_OUI_LEN = 3;
// Opens every mesh element body.
extern const uint8_t MESH_VENDOR_OUI[MESH_VENDOR_OUI_LEN];

// Frame types of an element record (frameMask).
constexpr uint32_t MESH_IE_FRAME_BEACON = 1;
constexpr uint32_t MESH_IE_FRAME_PROBE_REQ = 2;
constexpr uint32_t MESH_IE_FRAME_PROBE_RSP = 4;
constexpr uint32_t MESH_IE_FRAME_ASSOC_REQ = 8;

constexpr size_t MESH_IE_BODY_LEN = 255; // what follows the ID and length of an 802.11 element

#pragma pack(push, 1)
// The payload of RT_PRIV_IOCTL; integers in host byte order.
struct MESH_IE_RECORD {
    uint32_t frameMask;
    uint32_t ieLength; // 3 + payload length
    uint8_t oui[MESH_VENDOR_OUI_LEN];
    uint8_t ouiType;              // the payload's first byte
    uint8_t ie[MESH_IE_BODY_LEN]; // MESH_VENDOR_OUI, the payload, zero
};
#pragma pack(pop)
static_assert(sizeof(MESH_IE_RECORD) == 267, "MESH_IE_RECORD is 267 bytes");
static_assert(offsetof(MESH_IE_RECORD, ieLength) == 4, "ieLength at 4");
static_assert(offsetof(MESH_IE_RECORD, oui) == 8, "oui at 8");
static_assert(offsetof(MESH_IE_RECORD, ouiType) == 11, "ouiType at 11");
static_assert(offsetof(MESH_IE_RECORD, ie) == 12, "ie at 12");
static_assert(MESH_VENDOR_OUI_LEN + sizeof(MESH_IE_PROBE_REQ) <= MESH_IE_BODY_LEN,
              "the longest payload fits an element body");

// Each returns 0, or 1 when an argument is missing (no request) or the driver refused the
// request ("call RT_PRIV_IOCTL fail").

// Beacon element of an ordinary AP: install (MESH_IE_SET) or remove (MESH_IE_DELETE).
uint32_t mesh_wlan_updateNormalApBeacon(const char* ifName, const MESH_IE_BASIC* data);
uint32_t mesh_wlan_deleteNormalApBeacon(const char* ifName, const MESH_IE_BASIC* data);
// Beacon element of the backhaul AP.
uint32_t mesh_wlan_updateBkhApBeacon(const MESH_IE_BASIC* data);
// Probe-request and association-request elements of the mesh station.
uint32_t mesh_wlan_updateProbeReq(const MESH_IE_PROBE_REQ* data);
uint32_t mesh_wlan_updateAssocReq(const MESH_IE_BASIC* data);
// Probe-response elements of the backhaul AP: the payload is installed with type 2 and again
// with type 3, written into the caller's byte 0 (3 is left there after success). The caller
// does not share `data` with another thread during the call.
uint32_t mesh_wlan_updateProbeRes(MESH_IE_PROBE_RSP* data);
