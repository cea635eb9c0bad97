#include "wlan/mesh_wlan_radio.h"

#include "core/mesh_log.h"
#include "security/mesh_common.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_dat.h"

#include <cerrno>
#include <cstring>

#include "platform/seam_guard.h"

namespace {

const uint8_t l_noStation[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

bool missing(const char* ifName) {
    return ifName == nullptr || ifName[0] == '\0';
}

// Copies a text field of `cap` bytes (possibly unterminated) into a terminated buffer of
// `outCap` bytes.
void copyField(char* out, size_t outCap, const char* field, size_t cap) {
    size_t n = strnlen(field, cap);
    if (n > outCap - 1) {
        n = outCap - 1;
    }
    memcpy(out, field, n);
    out[n] = '\0';
}

// A passphrase may hold any printable character but the backslash: escaped, such text is safe
// both in the unquoted iwpriv argument and in the double-quoted sed script.
bool escapablePassphrase(const char* text, size_t cap) {
    for (size_t i = 0; i < cap && text[i] != '\0'; ++i) {
        if (text[i] < 0x20 || text[i] > 0x7E || text[i] == '\\') {
            return false;
        }
    }
    return true;
}

void setVapText(const char* key, const char* value) {
    _mtk_wlan_setVapCfg(key, key, g_bkhApIfName, value, MTK_DATA_STRING, MTK_APPLY_BOTH);
}

} // namespace

uint32_t mesh_wlan_createBkhAp(const MESH_WLAN_CREDENTIALS* cred, uint8_t chanLimit,
                               const MESH_BASIC_WLAN_CFG* basic, const void* /*advCfg*/,
                               uint8_t param) {
    if (cred == nullptr || basic == nullptr) {
        MESH_ERR("pConfig is null\n");
        return 1;
    }
    // Both texts end up in shell lines: anything outside the expected characters is refused
    // before a single line runs.
    if (!_isPlainShellText(cred->ssid, sizeof cred->ssid)) {
        MESH_ERR("ssid refused: only letters, digits, - and _ are allowed");
        return 1;
    }
    if (!escapablePassphrase(cred->passphrase, sizeof cred->passphrase)) {
        MESH_ERR("passphrase refused: backslash or control character");
        return 1;
    }
    const char* ifName = g_bkhApIfName;
    mesh_common_systemf("ifconfig %s up", ifName);
    if (chanLimit != 0) {
        _mtk_wlan_applyChanLimit(ifName, basic, param);
    }
    _mtk_wlan_setWlanMode(ifName, basic);
    _mtk_wlan_setBandwidthChannel(ifName, basic);
    mesh_common_systemf("iwpriv %s set ms_blocknochild=1", ifName);

    // The passphrase goes into a sed script, so every character sed or the shell would
    // interpret is escaped; the shell removes the backslashes again on the iwpriv line.
    // The field holds at most 33 characters; escaped they take at most 67 bytes.
    char passphrase[sizeof cred->passphrase + 1];
    copyField(passphrase, sizeof passphrase, cred->passphrase, sizeof cred->passphrase);
    char work[MESH_WLAN_PSK_WORK_LEN];
    static_assert(2 * sizeof cred->passphrase + 1 <= sizeof work, "escaped passphrase fits");
    if (_escapeSedChars(work, passphrase) != 0) {
        return 1; // not reached: the passphrase was checked above
    }

    setVapText("AuthMode", "WPA2PSK");
    setVapText("EncrypType", "AES");
    setVapText("RekeyMethod", "DISABLE");
    _mtk_wlan_setVapCfgWithIndex("WPAPSK", "WPAPSK", ifName, work, MTK_DATA_STRING, MTK_APPLY_BOTH);
    // The SSID holds only letters, digits, "-" and "_" (checked above): not escaped.
    copyField(work, sizeof work, cred->ssid, sizeof cred->ssid);
    _mtk_wlan_setVapCfgWithIndex("SSID", "SSID", ifName, work, MTK_DATA_STRING, MTK_APPLY_BOTH);
    int32_t hide = 1;
    _mtk_wlan_setVapCfg("HideSSID", "HideSSID", ifName, &hide, MTK_DATA_INT32, MTK_APPLY_BOTH);
    mesh_common_systemf("brctl addif br0 %s", ifName);
    return 0;
}

uint32_t mesh_wlan_createSta(const void* /*unused1*/, const void* /*unused2*/) {
    char sta[MESH_IFNAME_LEN];
    mesh_wlan_getStaIfname(sta);
    if (mesh_wlan_checkStaExist() == 0) {
        MESH_ERR("sta interface %s does not exist\n", sta);
        return 1;
    }
    mesh_common_systemf("ifconfig %s up", sta);
    mesh_common_systemf("brctl addif br0 %s", sta);
    return 0;
}

uint32_t mesh_wlan_setLabel(const uint8_t* label) {
    if (label == nullptr) {
        return 1;
    }
    uint8_t payload[MESH_LABEL_LEN];
    memcpy(payload, label, sizeof payload);
    uint16_t len = sizeof payload;
    if (_mtk_wlan_ioctl(g_bkhApIfName, RTPRIV_IOCTL_MESH, MESH_SUBCMD_SET_LABEL, payload, &len) !=
        0) {
        MESH_ERR("call RTPRIV_IOCTL_MESH fail(%s)", strerror(errno));
        return 1;
    }
    return 0;
}

uint32_t mesh_wlan_setCheckChild(uint32_t on) {
    mesh_common_systemf("iwpriv %s set ms_checkchild=%d", g_bkhApIfName, on != 0 ? 1 : 0);
    return 0;
}

uint32_t mesh_wlan_setVlanId(uint32_t vlanId) {
    mesh_common_systemf("iwpriv %s set ms_vlanid=%d", g_bkhApIfName,
                        static_cast<int>(vlanId & 0xFFFFu));
    return 0;
}

uint32_t mesh_wlan_setFullSector(int32_t value) {
    mesh_common_systemf("iwpriv %s set ms_fullsector=%d", g_bkhApIfName, value);
    return 0;
}

uint32_t mesh_wlan_setCheckParent(uint32_t on) {
    char sta[MESH_IFNAME_LEN];
    mesh_wlan_getStaIfname(sta);
    mesh_common_systemf("iwpriv %s set ms_checkparent=%d", sta, on != 0 ? 1 : 0);
    return 0;
}

uint32_t mesh_wlan_setBlockNoChild(uint32_t on) {
    mesh_common_systemf("iwpriv %s set ms_blocknochild=%d", g_bkhApIfName, on != 0 ? 1 : 0);
    return 0;
}

uint32_t _mtk_wlan_attachIface(const char* ifName, uint32_t on) {
    if (missing(ifName)) {
        return 1;
    }
    if (on != 0) {
        mesh_common_systemf("ifconfig %s up", ifName);
        mesh_common_systemf("brctl addif br0 %s > /dev/null", ifName);
    } else {
        mesh_common_systemf("brctl delif br0 %s > /dev/null", ifName);
        mesh_common_systemf("ifconfig %s down", ifName);
    }
    return 0;
}

uint32_t mesh_wlan_enableBkhAp(uint32_t on) {
    uint32_t r = _mtk_wlan_attachIface(g_bkhApIfName, on);
    if (r == 0 && on != 0) {
        mesh_common_systemf("iwpriv %s set ApMWDS=1", g_bkhApIfName);
    }
    return r;
}

uint32_t mesh_wlan_enableSta(uint32_t on) {
    char sta[MESH_IFNAME_LEN];
    mesh_wlan_getStaIfname(sta);
    return _mtk_wlan_attachIface(sta, on);
}

uint32_t mesh_wlan_addChild(const MESH_CHILD_RECORD* record) {
    if (record == nullptr) {
        return 1;
    }
    MESH_CHILD_RECORD payload;
    memcpy(&payload, record, sizeof payload);
    uint16_t len = MESH_CHILD_REQ_LEN;
    if (_mtk_wlan_ioctl(g_bkhApIfName, RTPRIV_IOCTL_MESH, MESH_SUBCMD_ADD_CHILD, &payload, &len) !=
        0) {
        MESH_ERR("call RTPRIV_IOCTL_MESH fail");
        return 1;
    }
    return 0;
}

uint32_t mesh_wlan_delChild(const uint8_t* childMac, const uint8_t* staMac) {
    if (childMac == nullptr) {
        return 1;
    }
    MESH_CHILD_RECORD payload;
    memset(&payload, 0, sizeof payload);
    memcpy(payload.mac, childMac, sizeof payload.mac);
    uint16_t len = MESH_CHILD_REQ_LEN;
    if (_mtk_wlan_ioctl(g_bkhApIfName, RTPRIV_IOCTL_MESH, MESH_SUBCMD_DEL_CHILD, &payload, &len) !=
        0) {
        MESH_ERR("call RTPRIV_IOCTL_MESH fail");
        return 1;
    }
    if (staMac != nullptr && memcmp(staMac, l_noStation, sizeof l_noStation) == 0) {
        return 0;
    }
    // A child never heard has an all-zero station MAC; it is disconnected like any other.
    return mesh_wlan_kickSta(staMac) != 0 ? 1 : 0;
}

uint32_t mesh_wlan_kickSta(const uint8_t* staMac) {
    if (staMac == nullptr) {
        return 1;
    }
    mesh_common_systemf("iwpriv %s set DisConnectSta=%02x:%02x:%02x:%02x:%02x:%02x", g_bkhApIfName,
                        staMac[0], staMac[1], staMac[2], staMac[3], staMac[4], staMac[5]);
    return 0;
}
