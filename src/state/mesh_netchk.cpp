#include "state/mesh_netchk.h"
#include "state/mesh_state.h"

#include "core/mesh_log.h"
#include "platform/byteorder.h"
#include "platform/devcfg.h"
#include "platform/os.h"
#include "security/mesh_common.h"
#include "wlan/mesh_wlan.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>

#include "platform/seam_guard.h"

namespace {

constexpr size_t kMacLen = 6;
constexpr size_t kIfNameLen = 16;
constexpr size_t kShortLine = 32;  // target, loop-enable and probe lines
constexpr size_t kSetupLine = 128; // loop set-up line, at most 127 characters
constexpr size_t kProcReadMax = 16;
constexpr uint32_t kRawReachable = 1;
constexpr uint32_t kRawUnreachable = 2;

// Kernel line kinds (the first field of each line).
constexpr int kLineTarget = 1;
constexpr int kLineLoopSetup = 2;
constexpr int kLineLoopEnable = 3;
constexpr int kLineLoopProbe = 4;

const uint8_t kUnknownMac[kMacLen] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

// The address block and the MACs: copied in and out under l_dataMutex, never held across
// a system call.
std::mutex l_dataMutex;
NETCHK_CONFIG l_config;
uint8_t l_ownMac[kMacLen];
char l_ifName[kIfNameLen];
uint8_t l_targetMac[kMacLen] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

std::atomic<int32_t> l_bridgeIndex{-1};
std::atomic<uint32_t> l_netState{kRawUnreachable};
std::atomic<uint32_t> l_loopState{MESH_STATE_OFF};
std::atomic<uint32_t> l_lastCount{0};
std::atomic<uint32_t> l_checkInterval{0};
std::atomic<uint32_t> l_resetRequest{0};
std::atomic<uint32_t> l_checkNow{0};
std::atomic<uint32_t> l_loopCheckEnabled{0};
std::atomic<uint32_t> l_loopInitDone{0};

// The thread. init starts it (once: a second init keeps it) and destroy stops it: destroy
// moves the run generation on, and a thread whose generation is no longer the current one
// ends at its next sleep or probe wait without doing anything more, so a stop takes effect
// within one of those (at most 100 ms into a probe) and destroy never waits for it.
// l_threadsAlive counts the threads that have not ended yet (the module's reset waits for
// them).
pthread_mutex_t l_threadMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t l_threadCond = PTHREAD_COND_INITIALIZER;
bool l_threadLive = false; // under l_threadMutex
int l_threadsAlive = 0;    // under l_threadMutex
std::atomic<uintptr_t> l_generation{0};

// The generation of the calling network-check thread; 0 on every other thread.
thread_local uintptr_t tl_generation = 0;

// True on a network-check thread that destroy has stopped.
bool stopped() {
    return tl_generation != 0 && tl_generation != l_generation.load();
}

// Closes the probe's socket on every way out.
struct PacketSocket {
    int fd;
    explicit PacketSocket(int f) : fd(f) {}
    PacketSocket(const PacketSocket&) = delete;
    PacketSocket& operator=(const PacketSocket&) = delete;
    ~PacketSocket() {
        if (fd >= 0) {
            os().closeFd(fd);
        }
    }
};

// Marks the end of the thread (its last act).
struct ThreadLife {
    ThreadLife() = default;
    ThreadLife(const ThreadLife&) = delete;
    ThreadLife& operator=(const ThreadLife&) = delete;
    ~ThreadLife() {
        pthread_mutex_lock(&l_threadMutex);
        --l_threadsAlive;
        pthread_cond_broadcast(&l_threadCond);
        pthread_mutex_unlock(&l_threadMutex);
    }
};

NETCHK_CONFIG configCopy() {
    std::lock_guard<std::mutex> g(l_dataMutex);
    return l_config;
}

void ownMacCopy(uint8_t* out) {
    std::lock_guard<std::mutex> g(l_dataMutex);
    memcpy(out, l_ownMac, kMacLen);
}

void targetMacCopy(uint8_t* out) {
    std::lock_guard<std::mutex> g(l_dataMutex);
    memcpy(out, l_targetMac, kMacLen);
}

void setTargetMac(const uint8_t* mac) {
    std::lock_guard<std::mutex> g(l_dataMutex);
    memcpy(l_targetMac, mac, kMacLen);
}

// A separate target is used only when it is configured, lies in the own subnet and is not
// the gateway; otherwise the gateway is the target. The choice is stored in the block's
// netChkTargetIp and decides the check interval.
void selectTarget(NETCHK_CONFIG* cfg) {
    if (cfg->netChkTargetSet != 0 && ((cfg->netChkTargetIp ^ cfg->deviceIp) & cfg->netmask) == 0 &&
        cfg->netChkTargetIp != cfg->gatewayIp) {
        l_checkInterval.store(MESH_NETCHK_TARGET_INTERVAL);
    } else {
        cfg->netChkTargetIp = cfg->gatewayIp;
        l_checkInterval.store(MESH_NETCHK_GATEWAY_INTERVAL);
    }
}

void logTarget(const NETCHK_CONFIG& cfg) {
    char target[MESH_IP_STR_LEN];
    char gateway[MESH_IP_STR_LEN];
    char mask[MESH_IP_STR_LEN];
    mesh_common_ipToStr(cfg.netChkTargetIp, target);
    mesh_common_ipToStr(cfg.gatewayIp, gateway);
    mesh_common_ipToStr(cfg.netmask, mask);
    MESH_EVENT("target ip %s gateway %s mask %s", target, gateway, mask);
}

// Writes a formatted line with its terminating NUL.
uint32_t writeLine(const char* line) {
    return mesh_netChk_writeConfigToKernel(line, static_cast<uint32_t>(strlen(line) + 1));
}

// Reads at most 16 bytes of a kernel file as a terminated text; false when unreadable.
bool readKernelText(const char* path, char* text) {
    memset(text, 0, kProcReadMax + 1);
    return os().readProc(path, text, kProcReadMax) >= 0;
}

bool isAnswer(const MESH_ARP_FRAME& f, int len, const uint8_t* ownMac, uint32_t senderIp,
              uint32_t targetIp) {
    return len >= static_cast<int>(sizeof f) && get_be16(f.operation) == 2 &&
           memcmp(f.targetMac, ownMac, kMacLen) == 0 && get_be32(f.targetIp) == senderIp &&
           get_be32(f.senderIp) == targetIp;
}

// Appends the downlink port names, joined with ",", to `list` (capacity `cap`, at most
// cap - 1 characters). A name that does not fit whole ends the list.
void joinDownLinkPorts(char* list, size_t cap) {
    list[0] = '\0';
    size_t len = 0;
    uint32_t n = devcfg_downLinkPort_getNum();
    for (uint32_t port = 1; port <= n; ++port) {
        char name[kIfNameLen];
        memset(name, 0, sizeof name);
        if (devcfg_downLinkPort_getLogicalIfName(port, name, sizeof name) != 0) {
            break; // ports are numbered without gaps: no further ones
        }
        size_t nameLen = strnlen(name, sizeof name - 1);
        size_t need = nameLen + (len > 0 ? 1 : 0);
        if (len + need >= cap) {
            break;
        }
        if (len > 0) {
            list[len++] = ',';
        }
        memcpy(list + len, name, nameLen);
        len += nameLen;
        list[len] = '\0';
    }
}

} // namespace

// ---- lifecycle ------------------------------------------------------------------------------

uint32_t mesh_netChk_init(const NETCHK_CONFIG* cfg, const uint8_t* ownMac, const char* ifName) {
    if (cfg == nullptr || ownMac == nullptr || ifName == nullptr) {
        return 1;
    }
    l_resetRequest.store(1);
    l_checkNow.store(0);
    l_loopInitDone.store(0);
    l_lastCount.store(0);

    NETCHK_CONFIG copy = *cfg;
    selectTarget(&copy);
    {
        std::lock_guard<std::mutex> g(l_dataMutex);
        memcpy(l_ownMac, ownMac, kMacLen);
        memset(l_ifName, 0, sizeof l_ifName);
        snprintf(l_ifName, sizeof l_ifName, "%.*s", static_cast<int>(sizeof l_ifName - 1), ifName);
        l_config = copy;
    }
    l_netState.store(kRawUnreachable);

    int fd = os().packetOpen(0);
    if (fd < 0) {
        MESH_ERR("create socket failed");
        return 1;
    }
    int index = os().packetIfIndex(fd, MESH_BRIDGE_IFNAME);
    if (index < 0) {
        MESH_ERR("get bridge interface index fail");
        os().closeFd(fd);
        return 1;
    }
    l_bridgeIndex.store(index);
    os().closeFd(fd);

    pthread_mutex_lock(&l_threadMutex);
    // A second init without a destroy keeps the running thread: the reset request above
    // already makes it start over.
    if (!l_threadLive) {
        pthread_t thread;
        void* generation = reinterpret_cast<void*>(l_generation.fetch_add(1) + 1);
        if (pthread_create(&thread, nullptr, mesh_netChk_netChkThread, generation) != 0) {
            pthread_mutex_unlock(&l_threadMutex);
            MESH_ERR("create network check Thread fail");
            return 1;
        }
        pthread_detach(thread);
        l_threadLive = true;
        ++l_threadsAlive;
    }
    pthread_mutex_unlock(&l_threadMutex);

    logTarget(copy);
    return 0;
}

uint32_t mesh_netChk_setConfig(const NETCHK_CONFIG* cfg) {
    if (cfg == nullptr) {
        return 1;
    }
    NETCHK_CONFIG copy = *cfg;
    selectTarget(&copy);
    {
        std::lock_guard<std::mutex> g(l_dataMutex);
        l_config = copy;
    }
    l_resetRequest.store(1);
    logTarget(copy);
    return 0;
}

uint32_t mesh_netChk_destroy(void) {
    // The kernel lines first, then the stop, which takes effect at the thread's next sleep or
    // probe wait: destroy never waits for a probe in progress.
    (void)mesh_netChk_setTargetCountConfig(0, nullptr);
    (void)mesh_netChk_setLoopEnableConfig(0);
    pthread_mutex_lock(&l_threadMutex);
    if (l_threadLive) {
        l_threadLive = false;
        l_generation.fetch_add(1); // the thread ends at its next sleep or wait
    }
    pthread_mutex_unlock(&l_threadMutex);
    l_lastCount.store(0);
    {
        std::lock_guard<std::mutex> g(l_dataMutex);
        memset(&l_config, 0, sizeof l_config);
        memset(l_ownMac, 0, sizeof l_ownMac);
        memcpy(l_targetMac, kUnknownMac, kMacLen);
    }
    l_netState.store(kRawUnreachable);
    return 0;
}

uint32_t mesh_netChk_reset(void) {
    l_resetRequest.store(1);
    l_netState.store(kRawUnreachable);
    return 0;
}

uint32_t mesh_netChk_checkNetIm(void) {
    l_checkNow.store(1);
    return 0;
}

uint32_t mesh_netChk_getNetState(void) {
    return l_netState.load();
}
void mesh_netChk_setNetState(uint32_t state) {
    l_netState.store(state);
}
uint32_t mesh_netChk_getLoopState(void) {
    return l_loopState.load();
}

// ---- loop detection -----------------------------------------------------------------------------

uint32_t mesh_netChk_setLoopbackCheck(uint32_t enable) {
    if (enable == l_loopCheckEnabled.load()) {
        return 0;
    }
    if (enable != 0) {
        if (l_loopInitDone.load() == 0) {
            if (mesh_netChk_setLoopInitConfig() != 0) {
                MESH_ERR("init lbd config failed");
                return 1;
            }
            l_loopInitDone.store(1);
        }
        if (mesh_netChk_setLoopEnableConfig(enable) != 0) {
            MESH_ERR("set loop enable config failed");
            return 1;
        }
        if (mesh_netChk_setLoopSendConfig() != 0) {
            MESH_ERR("send lbd config failed");
        }
    } else if (mesh_netChk_setLoopEnableConfig(0) != 0) {
        MESH_ERR("set loop enable config failed");
        return 1;
    }
    l_loopCheckEnabled.store(enable);
    if (enable == 0) {
        l_loopState.store(MESH_STATE_OFF);
    }
    return 0;
}

// ---- kernel files -----------------------------------------------------------------------------

uint32_t mesh_netChk_getTargetCount(uint32_t* count) {
    if (count == nullptr) {
        return 1;
    }
    char text[kProcReadMax + 1];
    if (!readKernelText(MESH_CONFIG_COUNT_PATH, text)) {
        MESH_ERR("open %s fail", MESH_CONFIG_COUNT_PATH);
        return 1;
    }
    char* end = nullptr;
    unsigned long v = strtoul(text, &end, 10);
    if (end != text) {
        *count = static_cast<uint32_t>(v);
    }
    return 0;
}

uint32_t mesh_netChk_getKernelloopStatus(void) {
    char text[kProcReadMax + 1];
    if (!readKernelText(MESH_LOOP_STATUS_PATH, text)) {
        MESH_ERR("open %s fail", MESH_LOOP_STATUS_PATH);
        return MESH_STATE_OFF;
    }
    char* end = nullptr;
    long v = strtol(text, &end, 10);
    return (end != text && v == 1) ? MESH_LOOP_STATE_ON : MESH_STATE_OFF;
}

uint32_t mesh_netChk_writeConfigToKernel(const void* buf, uint32_t size) {
    if (buf == nullptr) {
        MESH_ERR("invalid param");
        return 1;
    }
    int rc = os().writeProc(MESH_CONFIG_COUNT_PATH, buf, size);
    if (rc == -1) {
        MESH_ERR("open %s fail", MESH_CONFIG_COUNT_PATH);
        return 1;
    }
    if (rc != 0) {
        MESH_ERR("write config fail");
    }
    return 0;
}

uint32_t mesh_netChk_setTargetCountConfig(uint32_t count, const uint8_t* mac) {
    char line[kShortLine];
    if (count == 0) {
        snprintf(line, sizeof line, "%d %d", kLineTarget, 0);
    } else {
        if (mac == nullptr) {
            return 1;
        }
        snprintf(line, sizeof line, "%d %d %02x:%02x:%02x:%02x:%02x:%02x", kLineTarget,
                 static_cast<int>(count), mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    }
    if (writeLine(line) != 0) {
        MESH_ERR("write config to kernel failed");
        return 1;
    }
    return 0;
}

uint32_t mesh_netChk_setLoopInitConfig(void) {
    char staIfName[kIfNameLen];
    memset(staIfName, 0, sizeof staIfName);
    if (mesh_wlan_getStaIfname(staIfName) != 0) {
        MESH_ERR("get station interface name failed");
        return 1;
    }
    staIfName[sizeof staIfName - 1] = '\0';

    int fd = os().packetOpen(0);
    if (fd < 0) {
        MESH_ERR("create socket failed");
        return 1;
    }
    int index = os().packetIfIndex(fd, staIfName);
    if (index < 0) {
        MESH_ERR("get index fail");
        os().closeFd(fd);
        return 1;
    }
    os().closeFd(fd);

    uint8_t mac[kMacLen];
    char uplink[kIfNameLen];
    {
        std::lock_guard<std::mutex> g(l_dataMutex);
        memcpy(mac, l_ownMac, kMacLen);
        memcpy(uplink, l_ifName, sizeof uplink);
    }
    uint8_t digest[MESH_MD5_LEN];
    if (mesh_common_md5(mac, kMacLen, digest) != 0) {
        MESH_ERR("calc md5 failed");
        return 1;
    }
    char digestText[MESH_MD5_HEX_LEN];
    if (mesh_common_md5ToHex(digest, digestText) != 0) {
        MESH_ERR("transfer md5 bit to string failed");
        return 1;
    }

    // The port list gets the room the rest of the line leaves, so that the whole line
    // stays within 127 characters and always ends with the MAC and the digest.
    char line[kSetupLine];
    char tail[kShortLine * 2];
    int headLen = snprintf(line, sizeof line, "%d %d %s ", kLineLoopSetup, index, uplink);
    int tailLen = snprintf(tail, sizeof tail, " %02x:%02x:%02x:%02x:%02x:%02x %s", mac[0], mac[1],
                           mac[2], mac[3], mac[4], mac[5], digestText);
    if (headLen < 0 || tailLen < 0 || static_cast<size_t>(headLen + tailLen) >= sizeof line) {
        MESH_ERR("write config to kernel failed");
        return 1;
    }
    joinDownLinkPorts(line + headLen, sizeof line - static_cast<size_t>(headLen + tailLen));
    size_t len = strlen(line);
    memcpy(line + len, tail, static_cast<size_t>(tailLen) + 1);
    if (writeLine(line) != 0) {
        MESH_ERR("write config to kernel failed");
        return 1;
    }
    return 0;
}

uint32_t mesh_netChk_setLoopEnableConfig(uint32_t enable) {
    char line[kShortLine];
    snprintf(line, sizeof line, "%d %d", kLineLoopEnable, static_cast<int>(enable));
    if (writeLine(line) != 0) {
        MESH_ERR("write config to kernel failed");
        return 1;
    }
    return 0;
}

uint32_t mesh_netChk_setLoopSendConfig(void) {
    char line[kShortLine];
    snprintf(line, sizeof line, "%d", kLineLoopProbe);
    if (writeLine(line) != 0) {
        MESH_ERR("write config to kernel failed");
        return 1;
    }
    return 0;
}

// ---- ARP probe
// -----------------------------------------------------------------------------------

uint32_t mesh_netChk_checkIpByArp(uint32_t senderIp, uint32_t targetIp, uint8_t* macOut) {
    if (macOut == nullptr) {
        MESH_ERR("invalid param");
        return 1;
    }
    PacketSocket sock(os().packetOpen(MESH_ETH_P_ARP));
    if (sock.fd < 0) {
        MESH_ERR("create socket fail");
        return 1;
    }
    uint8_t ownMac[kMacLen];
    ownMacCopy(ownMac);

    MESH_ARP_FRAME frame;
    memcpy(frame.ethDst, kUnknownMac, kMacLen);
    memcpy(frame.ethSrc, ownMac, kMacLen);
    put_be16(frame.etherType, MESH_ETH_P_ARP);
    put_be16(frame.hwType, 1);
    put_be16(frame.protoType, MESH_ETH_P_IP);
    frame.hwLen = kMacLen;
    frame.protoLen = 4;
    put_be16(frame.operation, 1);
    memcpy(frame.senderMac, ownMac, kMacLen);
    put_be32(frame.senderIp, senderIp);
    memcpy(frame.targetMac, kUnknownMac, kMacLen);
    put_be32(frame.targetIp, targetIp);

    if (os().packetSend(sock.fd, l_bridgeIndex.load(), MESH_ETH_P_ARP, &frame, sizeof frame) !=
        static_cast<int>(sizeof frame)) {
        return 1;
    }

    uint32_t start = mesh_common_getUptime();
    for (;;) {
        int ready = os().packetWait(sock.fd, MESH_ARP_WAIT_MS);
        if (stopped()) {
            return 1;
        }
        if (ready > 0) {
            // Any ARP frame arrives here (the socket is not bound); only the answer counts.
            int n = os().packetRecv(sock.fd, &frame, sizeof frame);
            if (n < 0) {
                return 1;
            }
            if (isAnswer(frame, n, ownMac, senderIp, targetIp)) {
                memcpy(macOut, frame.senderMac, kMacLen);
                return 0;
            }
        } else if (ready < 0) {
            MESH_ERR("select error");
        }
        if (static_cast<int32_t>(mesh_common_getUptime() - start) >= MESH_ARP_LIMIT_S) {
            return 1;
        }
    }
}

// ---- the thread
// ----------------------------------------------------------------------------------

void mesh_netChk_tick(NETCHK_TICK* t) {
    if (t == nullptr) {
        return;
    }
    if (l_resetRequest.exchange(0) != 0) {
        t->needArp = 1;
        t->sinceArp = 0;
        t->sinceCheck = 0;
    }
    if (t->sinceArp >= MESH_NETCHK_ARP_PERIOD) {
        t->needArp = 1;
        t->sinceArp = 0;
    }

    // Counter check: a counter that moved since the last check means the target is alive.
    if ((t->needArp == 0 && t->sinceCheck >= l_checkInterval.load()) || l_checkNow.load() != 0) {
        uint8_t target[kMacLen];
        targetMacCopy(target);
        if (memcmp(target, kUnknownMac, kMacLen) == 0) {
            t->needArp = 1;
        } else {
            uint32_t count = l_lastCount.load();
            if (mesh_netChk_getTargetCount(&count) != 0) {
                MESH_ERR("get count fail");
            }
            if (count != l_lastCount.load()) {
                l_netState.store(kRawReachable);
                t->needArp = 0;
                l_lastCount.store(count);
            } else {
                t->needArp = 1;
            }
        }
        if (l_checkNow.load() == 0) {
            t->sinceCheck = 0;
        }
    }

    if (t->needArp != 0) {
        NETCHK_CONFIG cfg = configCopy();
        if (cfg.deviceIp != 0 && cfg.netChkTargetIp != 0) {
            uint8_t mac[kMacLen];
            const uint32_t rc = mesh_netChk_checkIpByArp(cfg.deviceIp, cfg.netChkTargetIp, mac);
            if (stopped()) {
                return; // destroyed during the probe: nothing more is written
            }
            if (rc != 0) {
                l_netState.store(kRawUnreachable);
                setTargetMac(kUnknownMac);
                if (mesh_netChk_setTargetCountConfig(0, nullptr) != 0) {
                    MESH_ERR("set target mac failed");
                }
            } else {
                l_netState.store(kRawReachable);
                uint8_t known[kMacLen];
                targetMacCopy(known);
                if (memcmp(mac, known, kMacLen) != 0) {
                    if (mesh_netChk_setTargetCountConfig(1, mac) != 0) {
                        MESH_ERR("set target mac failed");
                    }
                    setTargetMac(mac);
                    uint32_t count = l_lastCount.load();
                    if (mesh_netChk_getTargetCount(&count) != 0) {
                        MESH_ERR("get tareget count fail");
                    }
                    l_lastCount.store(count);
                }
                if (l_checkNow.load() == 0) {
                    t->sinceCheck = 0;
                    t->sinceArp = 0;
                }
            }
        } else {
            l_netState.store(kRawUnreachable);
        }
        t->needArp = 0;
    }

    if (l_loopCheckEnabled.load() != 0) {
        if (t->sinceProbe >= MESH_NETCHK_PROBE_PERIOD) {
            if (mesh_netChk_setLoopSendConfig() != 0) {
                MESH_ERR("send LBD failed");
            }
            t->sinceProbe = 0;
        }
        l_loopState.store(mesh_netChk_getKernelloopStatus());
    } else {
        t->sinceProbe = 0;
    }

    if (l_checkNow.load() == 0) {
        ++t->sinceCheck;
        ++t->sinceArp;
    } else {
        l_checkNow.store(0);
    }
    ++t->sinceProbe;
}

void* mesh_netChk_netChkThread(void* arg) {
    ThreadLife life;
    tl_generation = reinterpret_cast<uintptr_t>(arg);
    NETCHK_TICK t;
    while (!stopped()) {
        mesh_netChk_tick(&t);
        if (!stopped()) {
            os().sleepSeconds(1);
        }
    }
    return nullptr;
}

void mesh_netChk_resetModule(void) {
    pthread_mutex_lock(&l_threadMutex);
    while (l_threadsAlive > 0) { // a stopped thread that has not woken yet
        pthread_cond_wait(&l_threadCond, &l_threadMutex);
    }
    pthread_mutex_unlock(&l_threadMutex);
    {
        std::lock_guard<std::mutex> g(l_dataMutex);
        memset(&l_config, 0, sizeof l_config);
        memset(l_ownMac, 0, sizeof l_ownMac);
        memset(l_ifName, 0, sizeof l_ifName);
        memcpy(l_targetMac, kUnknownMac, kMacLen);
    }
    l_bridgeIndex.store(-1);
    l_netState.store(kRawUnreachable);
    l_loopState.store(MESH_STATE_OFF);
    l_lastCount.store(0);
    l_checkInterval.store(0);
    l_resetRequest.store(0);
    l_checkNow.store(0);
    l_loopCheckEnabled.store(0);
    l_loopInitDone.store(0);
}
