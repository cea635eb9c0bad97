#include "wlan/mesh_wlan_ie.h"

#include "core/mesh_log.h"
#include "wlan/mesh_wlan.h"

#include <cstring>

#include "platform/seam_guard.h"

const uint8_t MESH_VENDOR_OUI[MESH_VENDOR_OUI_LEN] = {0x02, 0x5E, 0xA7};

namespace {

bool missing(const char* ifName) {
    return ifName == nullptr || ifName[0] == '\0';
}

// One element request: wraps `len` payload bytes in a cleared record and issues it on
// `ifName`. 0, or -1 when the driver refused it (errno set).
int ieRequest(const char* ifName, uint32_t frameMask, const void* payload, size_t len,
              uint16_t flags) {
    static_assert(sizeof(MESH_IE_RECORD) <= UINT16_MAX, "record length fits the descriptor");
    MESH_IE_RECORD rec;
    memset(&rec, 0, sizeof rec);
    if (len > MESH_IE_BODY_LEN - MESH_VENDOR_OUI_LEN) {
        len = MESH_IE_BODY_LEN - MESH_VENDOR_OUI_LEN; // never reached: payloads are fixed
    }
    rec.frameMask = frameMask;
    rec.ieLength = static_cast<uint32_t>(len + MESH_VENDOR_OUI_LEN);
    memcpy(rec.oui, MESH_VENDOR_OUI, MESH_VENDOR_OUI_LEN);
    rec.ouiType = static_cast<const uint8_t*>(payload)[0];
    memcpy(rec.ie, MESH_VENDOR_OUI, MESH_VENDOR_OUI_LEN);
    memcpy(rec.ie + MESH_VENDOR_OUI_LEN, payload, len);
    uint16_t recLen = sizeof rec;
    return _mtk_wlan_ioctl(ifName, RT_PRIV_IOCTL, flags, &rec, &recLen);
}

} // namespace

uint32_t mesh_wlan_updateNormalApBeacon(const char* ifName, const MESH_IE_BASIC* data) {
    if (missing(ifName) || data == nullptr) {
        return 1;
    }
    if (ieRequest(ifName, MESH_IE_FRAME_BEACON, data, sizeof *data, MESH_IE_SET) != 0) {
        MESH_ERR("call RT_PRIV_IOCTL fail");
        return 1;
    }
    return 0;
}

uint32_t mesh_wlan_deleteNormalApBeacon(const char* ifName, const MESH_IE_BASIC* data) {
    if (missing(ifName) || data == nullptr) {
        return 1;
    }
    if (ieRequest(ifName, MESH_IE_FRAME_BEACON, data, sizeof *data, MESH_IE_DELETE) != 0) {
        MESH_ERR("call RT_PRIV_IOCTL fail");
        return 1;
    }
    return 0;
}

uint32_t mesh_wlan_updateBkhApBeacon(const MESH_IE_BASIC* data) {
    if (data == nullptr) {
        return 1;
    }
    return mesh_wlan_updateNormalApBeacon(g_bkhApIfName, data);
}

uint32_t mesh_wlan_updateProbeReq(const MESH_IE_PROBE_REQ* data) {
    if (data == nullptr) {
        return 1;
    }
    char sta[MESH_IFNAME_LEN];
    mesh_wlan_getStaIfname(sta);
    if (ieRequest(sta, MESH_IE_FRAME_PROBE_REQ, data, sizeof *data, MESH_IE_SET) != 0) {
        MESH_ERR("call RT_PRIV_IOCTL fail");
        return 1;
    }
    return 0;
}

uint32_t mesh_wlan_updateAssocReq(const MESH_IE_BASIC* data) {
    if (data == nullptr) {
        return 1;
    }
    char sta[MESH_IFNAME_LEN];
    mesh_wlan_getStaIfname(sta);
    if (ieRequest(sta, MESH_IE_FRAME_ASSOC_REQ, data, sizeof *data, MESH_IE_SET) != 0) {
        MESH_ERR("call RT_PRIV_IOCTL fail");
        return 1;
    }
    return 0;
}

uint32_t mesh_wlan_updateProbeRes(MESH_IE_PROBE_RSP* data) {
    if (data == nullptr) {
        return 1;
    }
    // Two elements with the same payload, told apart by their vendor type.
    data->type = MESH_IE_TYPE_MESH;
    if (ieRequest(g_bkhApIfName, MESH_IE_FRAME_PROBE_RSP, data, sizeof *data, MESH_IE_SET) != 0) {
        MESH_ERR("call RT_PRIV_IOCTL fail");
        return 1;
    }
    data->type = MESH_IE_TYPE_PROBE_RSP;
    if (ieRequest(g_bkhApIfName, MESH_IE_FRAME_PROBE_RSP, data, sizeof *data, MESH_IE_SET) != 0) {
        MESH_ERR("call RT_PRIV_IOCTL fail");
        return 1;
    }
    return 0;
}
