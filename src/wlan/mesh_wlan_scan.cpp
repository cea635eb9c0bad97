#include "wlan/mesh_wlan_scan.h"

#include "core/mesh_log.h"
#include "platform/byteorder.h"
#include "platform/os.h"
#include "security/mesh_common.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_dat.h"

#include <cerrno>
#include <cstring>

#include "platform/seam_guard.h"

alignas(8) uint8_t g_scanTable[MESH_SCAN_TABLE_LEN];
alignas(8) uint8_t g_staTable[MESH_STA_TABLE_LEN];

namespace {

// Station table entry fields (little-endian).
constexpr size_t kStaRssiOff = 7;
constexpr size_t kStaCounter16Off = 16;
constexpr size_t kStaCounter24Off = 24;
constexpr size_t kStaCounter32Off = 32;
constexpr size_t kStaCounter40Off = 40;
constexpr size_t kStaValue48Off = 48;
constexpr size_t kStaValue52Off = 52;
static_assert(MESH_STA_TABLE_HDR + MESH_MAX_ONLINE_CHILD * MESH_STA_ENTRY_LEN == MESH_STA_TABLE_MIN,
              "a table of 4 entries is 232 bytes");
static_assert(MESH_STA_TABLE_MIN <= MESH_STA_TABLE_LEN, "4 entries fit the table");

constexpr uint8_t kSignalOffset = 95; // dBm + 95 = signal level

uint64_t getLe64(const uint8_t* p) {
    return static_cast<uint64_t>(get_le32(p)) | static_cast<uint64_t>(get_le32(p + 4)) << 32;
}

uint32_t hostU32(const uint8_t* p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

bool allZero(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (p[i] != 0) {
            return false;
        }
    }
    return true;
}

// Asks for the survey table until the driver stops answering "busy". Returns the table
// length, or -1 when all attempts were busy.
int readScanTable(const char* staIf) {
    for (int attempt = 1; attempt <= MESH_SCAN_MAX_ATTEMPTS; ++attempt) {
        uint16_t len = static_cast<uint16_t>(MESH_SCAN_TABLE_LEN);
        if (_mtk_wlan_ioctl(staIf, RTPRIV_IOCTL_SCAN_TABLE, 0, g_scanTable, &len) == 0) {
            return len;
        }
        if (errno != EAGAIN) {
            // Any other refusal leaves the cleared table, which holds no candidate.
            return static_cast<int>(MESH_SCAN_TABLE_LEN);
        }
        MESH_ERR("scan in procss, wait sometime, retry(%d).\n", attempt);
        os().sleepMillis(MESH_SCAN_RETRY_MS);
    }
    return -1;
}

bool hasCandidate(const MESH_SCAN_CANDIDATE* out, uint8_t found, const uint8_t* bssid) {
    for (uint8_t k = 0; k < found; ++k) {
        if (memcmp(out[k].bssid, bssid, sizeof out[k].bssid) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

uint32_t mesh_wlan_startActiveScan(void* /*unused*/) {
    char staIf[MESH_IFNAME_LEN];
    mesh_wlan_getStaIfname(staIf);
    mesh_common_systemf("iwpriv %s set ApCliEnable=0", staIf);
    mesh_common_systemf("iwpriv %s set ms_restorechan=1", staIf);
    mesh_common_systemf("iwpriv %s set SiteSurvey=1", staIf);
    return 0;
}

uint32_t mesh_wlan_configSta(const MESH_WLAN_CREDENTIALS* cred, uint8_t channel) {
    if (cred == nullptr) {
        return 0;
    }
    // Both texts stand unquoted in iwpriv lines: only letters, digits, "-" and "_" pass.
    if (!_isPlainShellText(cred->ssid, sizeof cred->ssid) ||
        !_isPlainShellText(cred->passphrase, sizeof cred->passphrase)) {
        MESH_ERR("station credentials refused: only letters, digits, - and _ are allowed");
        return 1;
    }
    char staIf[MESH_IFNAME_LEN];
    mesh_wlan_getStaIfname(staIf);
    // The record's texts are read with their field bounds.
    const int ssidLen = static_cast<int>(strnlen(cred->ssid, sizeof cred->ssid));
    const int passLen = static_cast<int>(strnlen(cred->passphrase, sizeof cred->passphrase));
    mesh_common_systemf("ifconfig %s up", staIf);
    if ((channel >= 36 && channel <= 48) || (channel >= 149 && channel <= 165)) {
        mesh_common_systemf("iwpriv %s set channel=%d", staIf, channel);
    }
    mesh_common_systemf("iwpriv %s set ApCliEnable=0", staIf);
    mesh_common_systemf("iwpriv %s set ApCliAuthMode=WPA2PSK", staIf);
    mesh_common_systemf("iwpriv %s set ApCliEncrypType=AES", staIf);
    mesh_common_systemf("iwpriv %s set RekeyMethod=DISABLE", staIf);
    mesh_common_systemf("iwpriv %s set ApCliWPAPSK=%.*s", staIf, passLen, cred->passphrase);
    mesh_common_systemf("iwpriv %s set ApCliSsid=%.*s", staIf, ssidLen, cred->ssid);
    mesh_common_systemf("iwpriv %s set ApCliEnable=1", staIf);
    return 0;
}

uint32_t mesh_wlan_scanParentAp(void* /*unused*/, uint8_t* count, MESH_SCAN_CANDIDATE* out) {
    if (count == nullptr || out == nullptr) {
        MESH_ERR("input is NULL\n");
        return 1;
    }
    char staIf[MESH_IFNAME_LEN];
    mesh_wlan_getStaIfname(staIf);
    mesh_common_systemf("iwpriv %s set SiteSurvey=1", staIf);
    os().sleepSeconds(MESH_SCAN_SETTLE_SEC);

    memset(g_scanTable, 0, sizeof g_scanTable);
    const uint32_t ask = MESH_SCAN_REQ_COUNT;
    memcpy(g_scanTable, &ask, sizeof ask);
    int tableLen = readScanTable(staIf);
    if (tableLen < 0) {
        MESH_ERR("retry(%d) exceed %d times, skip parsing\n", MESH_SCAN_MAX_ATTEMPTS + 1,
                 MESH_SCAN_MAX_ATTEMPTS);
        return 1;
    }
    if (static_cast<size_t>(tableLen) < MESH_SCAN_TABLE_HDR + MESH_SCAN_ENTRY_LEN) {
        MESH_ERR("scanAp: too short size.");
        return 1;
    }

    // The driver's length and count bound the walk, and so does our buffer.
    size_t remaining = static_cast<size_t>(tableLen);
    if (remaining > MESH_SCAN_TABLE_LEN) {
        remaining = MESH_SCAN_TABLE_LEN;
    }
    const uint32_t entries = hostU32(g_scanTable);
    uint8_t found = 0;
    for (uint32_t idx = 0; remaining >= MESH_SCAN_TABLE_HDR + MESH_SCAN_ENTRY_LEN && idx < entries;
         ++idx) {
        const uint8_t* e = g_scanTable + MESH_SCAN_TABLE_HDR + idx * MESH_SCAN_ENTRY_LEN;
        remaining -= MESH_SCAN_ENTRY_LEN;
        const uint8_t* bssid = e + MESH_SCAN_ENTRY_BSSID_OFF;
        const uint8_t meshAttr = e[MESH_SCAN_ENTRY_MESH_OFF];
        if (allZero(bssid, 6) || meshAttr == 0 || hasCandidate(out, found, bssid) ||
            found >= MESH_MAX_SCAN_CANDIDATE) {
            continue;
        }
        MESH_SCAN_CANDIDATE& c = out[found++];
        memcpy(c.bssid, bssid, sizeof c.bssid);
        c.entryValue = static_cast<uint8_t>(hostU32(e + MESH_SCAN_ENTRY_VALUE_OFF) & 0xFF);
        const uint8_t rssi = static_cast<uint8_t>(hostU32(e + MESH_SCAN_ENTRY_RSSI_OFF) & 0xFF);
        c.signalLevel = static_cast<uint8_t>(rssi + kSignalOffset);
        c.rssi = rssi;
        c.meshAttr = meshAttr;
    }
    *count = found;
    return 0;
}

uint32_t mesh_wlan_getOnlineChild(uint8_t* count, MESH_ONLINE_CHILD_INFO* out, uint8_t max) {
    if (count == nullptr || out == nullptr) {
        return 1;
    }
    memset(g_staTable, 0, sizeof g_staTable);
    uint16_t len = static_cast<uint16_t>(MESH_STA_TABLE_LEN);
    if (_mtk_wlan_ioctl(g_bkhApIfName, RTPRIV_IOCTL_STA_TABLE, 0, g_staTable, &len) != 0) {
        MESH_ERR("ioctl %s failed, reason: %s\n", g_bkhApIfName, strerror(errno));
        return 1;
    }
    if (len < MESH_STA_TABLE_MIN) {
        MESH_ERR("sta info too short\n");
        return 1;
    }
    const uint32_t entries = get_le32(g_staTable);
    uint8_t i = 0;
    for (; i < entries && i < MESH_MAX_ONLINE_CHILD && i < max; ++i) {
        const uint8_t* e = g_staTable + MESH_STA_TABLE_HDR + i * MESH_STA_ENTRY_LEN;
        MESH_ONLINE_CHILD_INFO& c = out[i];
        memcpy(c.mac, e, sizeof c.mac);
        c.value48Div1000 = get_le32(e + kStaValue48Off) / 1000;
        c.value52Div1000 = get_le32(e + kStaValue52Off) / 1000;
        c.signalLevel = static_cast<uint8_t>(e[kStaRssiOff] + kSignalOffset);
        c.rssi = e[kStaRssiOff];
        c.counter32Low = static_cast<uint32_t>(getLe64(e + kStaCounter32Off));
        c.counter40Low = static_cast<uint32_t>(getLe64(e + kStaCounter40Off));
        c.counter16 = getLe64(e + kStaCounter16Off);
        c.counter24 = getLe64(e + kStaCounter24Off);
    }
    *count = i;
    return 0;
}

uint32_t mesh_wlan_getStaStatus(int32_t* status) {
    if (status == nullptr) {
        return 1;
    }
    char staIf[MESH_IFNAME_LEN];
    mesh_wlan_getStaIfname(staIf);
    uint32_t word = 0;
    uint16_t len = sizeof word;
    if (_mtk_wlan_ioctl(staIf, RTPRIV_IOCTL_MESH, MESH_SUBCMD_GET_STA_STATUS, &word, &len) != 0) {
        MESH_ERR("call RTPRIV_IOCTL_MESH fail(%s)", strerror(errno));
        return 1;
    }
    *status = word != 0 ? 1 : 0;
    return 0;
}
