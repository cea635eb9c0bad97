#include "wlan/mesh_wlan.h"

#include "core/mesh_log.h"
#include "platform/devcfg.h"
#include "platform/os.h"
#include "platform/wireless.h"
#include "wlan/mesh_wlan_dat.h"

#include <cerrno>
#include <cstring>
#include <mutex>

#include "platform/seam_guard.h"

static_assert(SIOCGIFFLAGS == 0x8913, "SIOCGIFFLAGS");
static_assert(SIOCGIWESSID == 0x8B1B, "SIOCGIWESSID");
static_assert(SIOCIWFIRSTPRIV == MESH_SIOCIWFIRSTPRIV, "first private request");
static_assert(RT_PRIV_IOCTL == 0x8BE1 && RTPRIV_IOCTL_MESH == 0x8BF5 &&
                  RTPRIV_IOCTL_STA_TABLE == 0x8BFC && RTPRIV_IOCTL_SCAN_TABLE == 0x8BFE,
              "driver request numbers");
static_assert(sizeof(iwreq) == 32, "iwreq is 32 bytes");
static_assert(offsetof(iwreq, u) == 16, "descriptor after the 16-byte name");
static_assert(sizeof(ifreq) == 32 || sizeof(ifreq) == 40, "ifreq");
static_assert(IFNAMSIZ == MESH_IFNAME_LEN, "interface names are 16 bytes");

char g_bkhApIfName[MESH_IFNAME_LEN] = {};
std::atomic<int> g_wlanSock{-1};

namespace {
// Serialises only the creation of the socket; readers take the fast path.
std::mutex l_sockMutex;

// Widths of the bandwidth codes: HT_BW, VHT_BW, HT_BSSCoexistence.
struct BandwidthRow {
    uint32_t htBw;
    uint32_t vhtBw;
    uint32_t coex;
};
BandwidthRow bandwidthRow(uint32_t code) {
    switch (code) {
    case 3:
        return {1, 0, 0};
    case 4:
        return {1, 0, 1};
    case 5:
        return {1, 1, 0};
    case 6:
        return {1, 1, 1};
    default: // 2 and every unknown code: 20 MHz
        return {0, 0, 0};
    }
}

void setU32(const char* ifName, const char* datKey, const char* iwprivKey, uint32_t value) {
    _mtk_wlan_set(datKey, iwprivKey, ifName, &value, MTK_DATA_UINT32, MTK_APPLY_BOTH);
}
} // namespace

uint32_t mesh_api_init(void) {
    if (_initDatSem() != 0) {
        MESH_ERR("_initDatSem failed");
        return 1;
    }
    strncpy(g_bkhApIfName, radio_config_getMeshBkhapIfname(), sizeof g_bkhApIfName);
    g_bkhApIfName[sizeof g_bkhApIfName - 1] = '\0';
    return 0;
}

int _getsocket(void) {
    int fd = g_wlanSock.load(std::memory_order_acquire);
    if (fd >= 0) {
        return fd;
    }
    std::lock_guard<std::mutex> g(l_sockMutex);
    fd = g_wlanSock.load(std::memory_order_relaxed);
    if (fd >= 0) {
        return fd; // another thread created it meanwhile
    }
    fd = os().wlanSocket();
    if (fd < 0) {
        MESH_ERR("create socket failed");
        return -1;
    }
    g_wlanSock.store(fd, std::memory_order_release);
    return fd;
}

int _mtk_wlan_ioctl(const char* ifName, unsigned long request, uint16_t flags, void* data,
                    uint16_t* length) {
    iwreq req;
    memset(&req, 0, sizeof req);
    if (ifName != nullptr) {
        strncpy(req.ifr_name, ifName, IFNAMSIZ);
    }
    req.u.data.pointer = data;
    req.u.data.length = length != nullptr ? *length : 0;
    req.u.data.flags = flags;
    // Without a socket the request still goes out and fails there (EBADF), so that the
    // caller reports it like any refused request.
    int rc = os().wlanIoctl(_getsocket(), request, &req);
    int err = errno;
    if (length != nullptr) {
        *length = req.u.data.length;
    }
    errno = err;
    return rc < 0 ? -1 : 0;
}

uint32_t mesh_wlan_checkBkhApExist(void) {
    char essid[MESH_ESSID_LEN + 1];
    memset(essid, 0, sizeof essid);
    uint16_t len = MESH_ESSID_LEN;
    if (_mtk_wlan_ioctl(g_bkhApIfName, SIOCGIWESSID, 0, essid, &len) != 0) {
        MESH_ERR("ioclt SIOCGIWNAME failed");
        return 0;
    }
    return memcmp(essid, "mesh_", 5) == 0 ? 1 : 0;
}

uint32_t mesh_wlan_checkStaExist(void) {
    ifreq req;
    memset(&req, 0, sizeof req);
    strncpy(req.ifr_name, radio_config_getMeshStaIfname(), IFNAMSIZ);
    return os().wlanIoctl(_getsocket(), SIOCGIFFLAGS, &req) == 0 ? 1 : 0;
}

uint32_t mesh_wlan_getStaIfname(char* ifName) {
    if (ifName == nullptr) {
        return 1;
    }
    memcpy(ifName, radio_config_getMeshStaIfname(), MESH_IFNAME_LEN);
    ifName[MESH_IFNAME_LEN - 1] = '\0';
    return 0;
}

int mesh_wlan_getNetlinkProto(void) {
    return MESH_NETLINK_PROTO;
}

int32_t mesh_wlan_getChwidth(int32_t mode) {
    // Width class of each wireless mode code 0..32; -1 marks codes without a width.
    static const int8_t kWidth[33] = {-1, 0, 0, 0, -1, -1, -1, 0, 0, 1, 1, 1, 1, 1, 1, 0, 1,
                                      1,  1, 2, 3, 2,  0,  0,  1, 1, 1, 1, 1, 1, 2, 3, 2};
    if (mode < 1 || mode > 32 || kWidth[mode] < 0) {
        MESH_ERR("invalid mode:%d\n", mode);
        return -1;
    }
    return kWidth[mode];
}

uint32_t _mtk_wlan_freqToChannel(uint32_t f) {
    // Unsigned arithmetic throughout, as the driver's channel numbering expects.
    if (f == 0) {
        return 0;
    }
    if (f == 2484) {
        return 14;
    }
    if (f < 2484) {
        return (f - 2407) / 5;
    }
    if (f < 4000) {
        return (f - 2512) / 20 + 15;
    }
    if (f < 5000) {
        return (f - 4000) / 5;
    }
    return (f - 5000) / 5;
}

uint32_t _mtk_wlan_setBandwidthChannel(const char* ifName, const MESH_BASIC_WLAN_CFG* cfg) {
    if (ifName == nullptr || cfg == nullptr) {
        MESH_ERR("invalid param.");
        return 0;
    }
    BandwidthRow bw = bandwidthRow(cfg->bandwidth);
    setU32(ifName, "HT_BW", "HtBw", bw.htBw);
    setU32(ifName, "VHT_BW", "VhtBw", bw.vhtBw);
    setU32(ifName, "HT_BSSCoexistence", "HtBssCoex", bw.coex);
    if (cfg->frequency != 0) {
        setU32(ifName, "HT_EXTCHA", "HtExtcha", 0);
        setU32(ifName, "AutoChannelSelect", "AutoChannelSel", 0);
        setU32(ifName, "Channel", "Channel", _mtk_wlan_freqToChannel(cfg->frequency));
    } else {
        setU32(ifName, "AutoChannelSelect", "AutoChannelSel", 3);
    }
    return 0;
}

uint32_t _mtk_wlan_applyChanLimit(const char* ifName, const MESH_BASIC_WLAN_CFG* cfg,
                                  uint8_t /*param*/) {
    return (ifName == nullptr || cfg == nullptr) ? 1 : 0;
}

uint32_t _mtk_wlan_setWlanMode(const char* /*ifName*/, const MESH_BASIC_WLAN_CFG* /*cfg*/) {
    return 0; // the driver takes its wireless mode from the profile at start
}

uint32_t mesh_wlan_updateAdvWlanCfg(const MESH_WLAN_CREDENTIALS* /*cred*/, const void* /*newAdv*/,
                                    const void* /*oldAdv*/, uint32_t /*force*/) {
    return 0;
}

uint32_t mesh_wlan_initRadioName(const char* /*radioName*/) {
    return 0;
}

uint32_t mesh_wlan_updateBasicWlanCfg(const MESH_BASIC_WLAN_CFG* newCfg,
                                      const MESH_BASIC_WLAN_CFG* oldCfg, uint8_t chanLimit,
                                      uint32_t force) {
    if (newCfg == nullptr || oldCfg == nullptr) {
        return 1;
    }
    radio_config_chanLimitSupp(newCfg, oldCfg, chanLimit);
    if (newCfg->wlanMode != oldCfg->wlanMode || force != 0) {
        _mtk_wlan_setWlanMode(g_bkhApIfName, newCfg);
    }
    if (newCfg->bandwidth != oldCfg->bandwidth || newCfg->frequency != oldCfg->frequency ||
        force != 0) {
        _mtk_wlan_setBandwidthChannel(g_bkhApIfName, newCfg);
    }
    return 0;
}

uint32_t mesh_wlan_setRuntimeWlanMode(uint32_t mode) {
    MESH_BASIC_WLAN_CFG cfg;
    memset(&cfg, 0, sizeof cfg);
    cfg.wlanMode = mode;
    return _mtk_wlan_setWlanMode(g_bkhApIfName, &cfg);
}

void mesh_wlan_resetForTest(void) {
    std::lock_guard<std::mutex> g(l_sockMutex);
    g_wlanSock.store(-1);
    memset(g_bkhApIfName, 0, sizeof g_bkhApIfName);
    g_datSemId = -1;
}
