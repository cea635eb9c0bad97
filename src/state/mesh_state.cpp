#include "state/mesh_state.h"
#include "state/mesh_link.h"
#include "state/mesh_state_internal.h"

#include "platform/os.h"
#include "wlan/mesh_wlan_scan.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/seam_guard.h"

PARENT_SEARCH l_parentSearch;
uint32_t g_netChkTimeout = MESH_NETCHK_BASE_TIMEOUT;
uint32_t g_netCheckingSince = 0;

namespace {

std::atomic<uint32_t> l_meshState{MESH_STATE_NORMAL};
std::atomic<uint32_t> l_enable{0};
std::atomic<uint32_t> l_rescanRequest{0};
char l_lanIfName[MESH_STATE_IFNAME_LEN];
// Written by mesh_state_init on the command thread, read by the state thread.
std::atomic<uint32_t> l_countryCode{0};
std::atomic<uint32_t> l_dfsFlag{0};
char l_causeText[MESH_CAUSE_TEXT_LEN];

// Longest text of the management-state file that is looked at; it holds one number.
constexpr size_t kOrbFileMax = 32;

} // namespace

// ---- names --------------------------------------------------------------------------------

const char* getMeshStateStr(uint32_t state) {
    switch (state) {
    case MESH_STATE_NORMAL:
        return "MESH_STATE_NORMAL";
    case MESH_STATE_MESH:
        return "MESH_STATE_MESH";
    case MESH_STATE_ISOLATED:
        return "MESH_STATE_ISOLATED";
    default:
        return "";
    }
}

const char* getLanStateStr(uint32_t state) {
    switch (state) {
    case LAN_ON:
        return "LAN_ON";
    case LAN_OFF:
        return "LAN_OFF";
    default:
        return "";
    }
}

const char* getStaStateStr(uint32_t state) {
    switch (state) {
    case STA_ON:
        return "STA_ON";
    case STA_OFF:
        return "STA_OFF";
    default:
        return "STA_DISABLE"; // -1: the mesh state has no station getter
    }
}

const char* getOrbStateStr(uint32_t state) {
    switch (state) {
    case ORB_STATE_MANAGED:
        return "ORB_STATE_MANAGED";
    case ORB_STATE_UNMANAGED:
        return "ORB_STATE_UNMANAGED";
    default:
        return "";
    }
}

const char* getNetStateStr(uint32_t state) {
    switch (state) {
    case NETWORK_STATE_ON:
        return "NETWORK_STATE_ON";
    case NETWORK_STATE_OFF:
        return "NETWORK_STATE_OFF";
    case NETWORK_STATE_CHECKING:
        return "NETWORK_STATE_CHECKING";
    default:
        return "";
    }
}

const char* getLoopStateStr(uint32_t state) {
    switch (state) {
    case MESH_LOOP_STATE_ON:
        return "MESH_LOOP_STATE_ON";
    case MESH_STATE_OFF:
        return "MESH_STATE_OFF"; // the kernel module's name, without LOOP
    default:
        return "";
    }
}

// ---- public entry points --------------------------------------------------------------------

uint32_t mesh_state_setEnable(uint32_t enable) {
    l_enable.store(enable, std::memory_order_relaxed);
    return 0;
}

uint32_t mesh_state_getMeshState(uint32_t* state) {
    if (state == nullptr) {
        return 1;
    }
    *state = getMeshState();
    return 0;
}

uint32_t mesh_state_requestRescan(uint32_t request) {
    setRescanRequest(request);
    return 0;
}

// ---- module-internal ---------------------------------------------------------------------------

uint32_t getMeshState(void) {
    return l_meshState.load(std::memory_order_relaxed);
}
void setMeshState(uint32_t state) {
    l_meshState.store(state, std::memory_order_relaxed);
}
uint32_t getRescanRequest(void) {
    return l_rescanRequest.load(std::memory_order_relaxed);
}
void setRescanRequest(uint32_t request) {
    l_rescanRequest.store(request, std::memory_order_relaxed);
}
uint32_t getEnable(void) {
    return l_enable.load(std::memory_order_relaxed);
}

uint32_t setLanIfName(const char* name) {
    if (name == nullptr) {
        return 1;
    }
    snprintf(l_lanIfName, sizeof l_lanIfName, "%s", name);
    return 0;
}

const char* getLanIfName(void) {
    return l_lanIfName;
}
void setCountryCode(uint32_t code) {
    l_countryCode.store(code, std::memory_order_relaxed);
}
uint32_t getCountryCode(void) {
    return l_countryCode.load(std::memory_order_relaxed);
}
void setDfsFlag(uint32_t flag) {
    l_dfsFlag.store(flag, std::memory_order_relaxed);
}
uint32_t getDfsFlag(void) {
    return l_dfsFlag.load(std::memory_order_relaxed);
}

uint32_t getLanState(void) {
    return isLanLinkDown(l_lanIfName) != 0 ? LAN_OFF : LAN_ON;
}

uint32_t getStaState(void) {
    int32_t status = 0;
    // A failed query leaves the status at 0: it reads as not associated.
    (void)mesh_wlan_getStaStatus(&status);
    return status != 0 ? STA_ON : STA_OFF;
}

uint32_t getOrbState(void) {
    RootedPath path(ORB_STATE_PATH);
    // "rb+": never creates the file; another process owns it.
    FILE* f = fopen(path.c_str(), "rb+");
    if (f == nullptr) {
        return ORB_STATE_UNMANAGED;
    }
    char text[kOrbFileMax + 1];
    size_t n = fread(text, 1, kOrbFileMax, f);
    fclose(f);
    text[n] = '\0';

    // One decimal integer at the start, blanks before it allowed (as "%d" reads it).
    char* end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 10);
    if (end == text) {
        return ORB_STATE_UNREADABLE;
    }
    if (errno == ERANGE || value < INT_MIN || value > INT_MAX) {
        return ORB_STATE_UNMANAGED; // a number, but none of the managed ones
    }
    return (value == 3 || value == 4) ? ORB_STATE_MANAGED : ORB_STATE_UNMANAGED;
}

uint32_t setOrbStateUnknown(void) {
    RootedPath path(ORB_STATE_PATH);
    FILE* f = fopen(path.c_str(), "w");
    if (f == nullptr) {
        return 1;
    }
    int written = fprintf(f, "%d\n", ORB_FILE_UNKNOWN);
    int closed = fclose(f);
    return (written < 0 || closed != 0) ? 1 : 0;
}

const char* getTransitionCauseStr(const MESH_STATE_TRANS_ENTRY* row) {
    if (row == nullptr) {
        l_causeText[0] = '\0';
        return l_causeText;
    }
    snprintf(l_causeText, sizeof l_causeText, "%s %s %s %s", getStaStateStr(row->staMask),
             getOrbStateStr(row->orbMask), getNetStateStr(row->netMask),
             getLoopStateStr(row->loopMask));
    return l_causeText;
}

void mesh_state_resetModule(void) {
    mesh_state_stopThreadForTest();
    setMeshState(MESH_STATE_NORMAL);
    l_enable.store(0, std::memory_order_relaxed);
    setRescanRequest(0);
    memset(l_lanIfName, 0, sizeof l_lanIfName);
    setCountryCode(0);
    setDfsFlag(0);
    memset(l_causeText, 0, sizeof l_causeText);
    memset(&l_parentSearch, 0, sizeof l_parentSearch);
    g_netChkTimeout = MESH_NETCHK_BASE_TIMEOUT;
    g_netCheckingSince = 0;
}
