// The state thread: once a second it measures what the current mesh state cares about,
// debounces the network, logs LAN and station changes, drives the parent search while
// isolated, switches loop detection and applies the first matching rule of the transition
// table.
#include "state/mesh_link.h"
#include "state/mesh_netchk.h"
#include "state/mesh_state_internal.h"

#include "core/mesh_log.h"
#include "platform/os.h"
#include "security/mesh_common.h"

#include <atomic>
#include <cstring>
#include <pthread.h>

#include "platform/seam_guard.h"

namespace {

constexpr int32_t kNoLanTran = -1;
constexpr int kPortSlots = 5; // entries 1..4 hold downlink ports; entry 0 is never written
constexpr unsigned kRescanDelay = 5;

// What each mesh state measures; a null getter yields STATE_ANY.
const MESH_STATE_FUNC_ENTRY l_meshStateFuncTable[] = {
    {MESH_STATE_NORMAL, getLanState, nullptr, getOrbState, mesh_netChk_getNetState},
    {MESH_STATE_MESH, getLanState, getStaState, getOrbState, mesh_netChk_getNetState},
    {MESH_STATE_ISOLATED, getLanState, getStaState, getOrbState, mesh_netChk_getNetState},
};

// Searched in this order; the first match wins, so a loop seen while isolated and associated
// leads to NORMAL (row 6) before MESH (row 7) is considered.
const MESH_STATE_TRANS_ENTRY l_meshStateTransTable[] = {
    {MESH_STATE_NORMAL, STATE_ANY, ORB_STATE_UNMANAGED, NETWORK_STATE_OFF, STATE_ANY,
     MESH_STATE_ISOLATED},
    {MESH_STATE_MESH, STATE_ANY, STATE_ANY, STATE_ANY, MESH_LOOP_STATE_ON, MESH_STATE_NORMAL},
    {MESH_STATE_MESH, STATE_ANY, ORB_STATE_UNMANAGED, NETWORK_STATE_OFF, STATE_ANY,
     MESH_STATE_ISOLATED},
    {MESH_STATE_ISOLATED, STA_OFF, ORB_STATE_MANAGED, STATE_ANY, STATE_ANY, MESH_STATE_NORMAL},
    {MESH_STATE_ISOLATED, STA_OFF, STATE_ANY, NETWORK_STATE_ON, STATE_ANY, MESH_STATE_NORMAL},
    {MESH_STATE_ISOLATED, STATE_ANY, STATE_ANY, STATE_ANY, MESH_LOOP_STATE_ON, MESH_STATE_NORMAL},
    {MESH_STATE_ISOLATED, STA_ON, ORB_STATE_MANAGED, STATE_ANY, STATE_ANY, MESH_STATE_MESH},
    {MESH_STATE_ISOLATED, STA_ON, STATE_ANY, NETWORK_STATE_ON, STATE_ANY, MESH_STATE_MESH},
};

// The thread, started once by mesh_state_init (and stopped only by the tests' reset).
pthread_mutex_t l_threadMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_t l_thread;
bool l_threadStarted = false; // under l_threadMutex
// Set by the tests' reset; the thread sees it after its sleep and ends.
std::atomic<bool> l_threadStop{false};
std::atomic<bool> l_threadEnded{false};

// The evaluation variables of the thread.
struct EVAL {
    uint32_t current;
    uint32_t lan, lanPrev;
    int32_t lanTran;
    uint32_t sta, staPrev;
    uint32_t orb, orbPrev;
    uint32_t net, netPrev;
    uint32_t loop;
    int32_t ports[kPortSlots];
    uint32_t portUp;
    uint32_t running;
};

uint32_t measure(MESH_STATE_GETTER getter) {
    return getter != nullptr ? getter() : STATE_ANY;
}

bool matches(const MESH_STATE_TRANS_ENTRY& row, const EVAL& e) {
    return row.current == e.current && (row.staMask & e.sta) != 0 && (row.orbMask & e.orb) != 0 &&
           (row.netMask & e.net) != 0 && (row.loopMask & e.loop) != 0;
}

// After a move (or an attempt): the network check starts over and the network gets a full
// CHECKING time again.
void restartNetCheck(EVAL& e) {
    if (mesh_netChk_reset() != 0) {
        MESH_ERR("reset network check failed");
    }
    if (transferNetState(e.netPrev, e.net, 1, &e.netPrev) != 0) {
        MESH_ERR("reset net check state fail");
    }
}

// The run switch: true when this tick evaluates. Switching on restarts the evaluation in
// NORMAL with the network CHECKING; switching off leaves one last tick.
bool enableHandling(EVAL& e) {
    const uint32_t enable = getEnable();
    if (e.running == 0 && enable != 0) {
        e.current = MESH_STATE_NORMAL;
        e.lan = e.lanPrev = LAN_ON;
        e.lanTran = kNoLanTran;
        e.sta = e.staPrev = STATE_ANY;
        e.orb = e.orbPrev = STATE_ANY;
        e.net = NETWORK_STATE_OFF;
        e.netPrev = NETWORK_STATE_CHECKING;
        e.loop = MESH_STATE_OFF;
        memset(&l_parentSearch, 0, sizeof l_parentSearch);
        setMeshState(MESH_STATE_NORMAL);
        setRescanRequest(0);
        if (transferNetState(e.netPrev, e.net, 1, &e.net) != 0) {
            MESH_ERR("transfer net check state fail");
        }
        e.running = enable;
        return true;
    }
    if (e.running != 0 && enable == 0) {
        e.running = 0; // one last tick
        return true;
    }
    return e.running != 0;
}

// The conditions the current state cares about; an unreadable management file keeps the
// last readable value.
void measureAll(EVAL& e) {
    for (const MESH_STATE_FUNC_ENTRY& row : l_meshStateFuncTable) {
        if (row.state == e.current) {
            e.lan = measure(row.lan);
            e.sta = measure(row.sta);
            e.orb = measure(row.orb);
            e.net = measure(row.net);
            break;
        }
    }
    if (e.orb != STATE_ANY) {
        if (e.orb == ORB_STATE_UNREADABLE) {
            e.orb = e.orbPrev;
        }
        e.orbPrev = e.orb;
    }
}

// LAN and station changes are logged; an uplink or an association that comes up makes the
// network check look at once.
void logLinks(EVAL& e) {
    e.lanTran = getLanLinkStateTran(e.lanPrev, e.lan);
    if (e.lan != e.lanPrev) {
        MESH_EVENT("lan state:%s->%s", getLanStateStr(e.lanPrev), getLanStateStr(e.lan));
    }
    e.lanPrev = e.lan;

    if (e.sta != e.staPrev) {
        MESH_EVENT("sta state:%s->%s", getStaStateStr(e.staPrev), getStaStateStr(e.sta));
    }
    if (e.lanTran == 4 || (e.staPrev == STA_OFF && e.sta == STA_ON)) {
        if (mesh_netChk_checkNetIm() != 0) {
            MESH_ERR("call mesh_netChk_checkNetIm failed");
        }
    }
    e.staPrev = e.sta;
}

// A rescan request: true when it took this tick (only in MESH; elsewhere it is dropped).
bool rescan(EVAL& e) {
    if (getRescanRequest() == 0) {
        return false;
    }
    setRescanRequest(0);
    if (e.current != MESH_STATE_MESH) {
        return false;
    }
    os().sleepSeconds(kRescanDelay);
    if (moveToState(e.current, MESH_STATE_ISOLATED) != 0) {
        MESH_ERR("transition state fail");
    }
    if (setOrbStateUnknown() != 0) {
        MESH_ERR("set orb state to unknown state fail");
    }
    restartNetCheck(e);
    return true;
}

// Loop detection while the node bridges a wired side with the mesh.
void switchLoopDetection(EVAL& e) {
    e.portUp = 0;
    if (e.sta == STA_ON) {
        downLinkPortGetState(e.ports, kPortSlots);
        for (int32_t port : e.ports) {
            e.portUp = (port == LAN_ON) ? 1 : e.portUp;
        }
    }
    if ((e.lan == LAN_ON && e.sta == STA_ON) || e.portUp == 1) {
        if (mesh_netChk_setLoopbackCheck(1) != 0) {
            MESH_ERR("set loopback check fail");
        } else {
            e.loop = mesh_netChk_getLoopState();
        }
    } else if (mesh_netChk_setLoopbackCheck(0) != 0) {
        MESH_ERR("set loopback check fail");
    } else {
        e.loop = MESH_STATE_OFF;
    }
}

// The first matching rule of the table.
void applyRules(EVAL& e) {
    for (const MESH_STATE_TRANS_ENTRY& row : l_meshStateTransTable) {
        if (!matches(row, e)) {
            continue;
        }
        MESH_EVENT("mesh state:%s->%s,caused by %s", getMeshStateStr(e.current),
                   getMeshStateStr(row.target), getTransitionCauseStr(&row));
        if (moveToState(e.current, row.target) != 0) {
            MESH_ERR("transition state fail");
        }
        restartNetCheck(e);
        return;
    }
}

// The variables as the thread starts.
void startEval(EVAL& e) {
    memset(&e, 0, sizeof e);
    e.current = MESH_STATE_NORMAL;
    e.lan = e.lanPrev = LAN_ON;
    e.lanTran = kNoLanTran;
    e.sta = e.staPrev = e.orb = e.orbPrev = STATE_ANY;
    e.net = NETWORK_STATE_OFF;
    e.netPrev = NETWORK_STATE_CHECKING;
    e.loop = MESH_STATE_OFF;
    e.ports[0] = LAN_OFF;
}

void tick(EVAL& e) {
    e.current = getMeshState();
    measureAll(e);
    if (transferNetState(e.netPrev, e.net, 0, &e.net) != 0) {
        MESH_ERR("transfer net state fail");
    }
    e.netPrev = e.net;
    logLinks(e);
    if (rescan(e)) {
        return;
    }
    if (e.current == MESH_STATE_ISOLATED) {
        searchParent(&l_parentSearch);
    } else {
        l_parentSearch.phase = MESH_SEARCH_IDLE;
    }
    switchLoopDetection(e);
    applyRules(e);
}

} // namespace

uint32_t transferNetState(uint32_t prev, uint32_t raw, uint32_t reset, uint32_t* out) {
    if (out == nullptr) {
        return 1;
    }
    const uint32_t now = mesh_common_getUptime();
    if (reset != 0) {
        g_netCheckingSince = now;
        *out = NETWORK_STATE_CHECKING;
    } else if (raw == 1 && prev != NETWORK_STATE_ON) {
        MESH_EVENT("net state:OFF/CHECKING->ON");
        g_netCheckingSince = 0;
        *out = NETWORK_STATE_ON;
    } else if (raw == 2 && prev == NETWORK_STATE_ON) {
        MESH_EVENT("net state:ON->CHECKING");
        g_netCheckingSince = now;
        *out = NETWORK_STATE_CHECKING;
    } else if (raw == 2 && prev == NETWORK_STATE_CHECKING) {
        if (now - g_netCheckingSince < g_netChkTimeout) {
            *out = NETWORK_STATE_CHECKING;
        } else {
            MESH_EVENT("net state:CHECKING->OFF");
            *out = NETWORK_STATE_OFF;
        }
    } else {
        *out = raw;
    }
    return 0;
}

int32_t getLanLinkStateTran(uint32_t prev, uint32_t cur) {
    if (prev == LAN_ON && cur == LAN_OFF) {
        return 1;
    }
    if (prev == LAN_ON && cur == LAN_ON) {
        return 2;
    }
    if (prev == LAN_OFF && cur == LAN_ON) {
        return 4;
    }
    if (prev != LAN_OFF || cur != LAN_OFF) {
        MESH_ERR("wrong lan state transfer");
    }
    return 8;
}

void* threadRun(void* /*arg*/) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    EVAL e;
    startEval(e);
    for (;;) {
        if (enableHandling(e)) {
            tick(e);
        }
        os().sleepSeconds(1);
        if (l_threadStop.load()) {
            l_threadEnded.store(true);
            return nullptr;
        }
    }
}

void mesh_state_tickForTest(uint32_t orbPrev) {
    EVAL e;
    startEval(e);
    e.running = 1;
    e.orb = e.orbPrev = orbPrev;
    tick(e);
}

uint32_t mesh_state_init(const char* lanIfName, uint32_t countryCode, uint32_t dfsFlag) {
    if (lanIfName == nullptr) {
        return 1;
    }
    if (uint32_t rc = setLanIfName(lanIfName); rc != 0) {
        return rc;
    }
    setCountryCode(countryCode);
    setDfsFlag(dfsFlag);
    pthread_mutex_lock(&l_threadMutex);
    uint32_t rc = 0;
    if (!l_threadStarted) { // one thread for the life of the process
        if (pthread_create(&l_thread, nullptr, threadRun, nullptr) != 0) {
            MESH_ERR("unable to create state check thread!\n");
            rc = 1;
        } else {
            l_threadStarted = true;
        }
    }
    pthread_mutex_unlock(&l_threadMutex);
    return rc;
}

void mesh_state_stopThreadForTest(void) {
    pthread_mutex_lock(&l_threadMutex);
    if (l_threadStarted) {
        // The thread ends after its next sleep. Sleeping here lets the tests' virtual clock
        // run on to that point; the thread is never cancelled, so nothing unwinds through a
        // wait.
        l_threadStop.store(true);
        while (!l_threadEnded.load()) {
            os().sleepMillis(100);
        }
        pthread_join(l_thread, nullptr);
        l_threadStarted = false;
        l_threadStop.store(false);
        l_threadEnded.store(false);
    }
    pthread_mutex_unlock(&l_threadMutex);
}
