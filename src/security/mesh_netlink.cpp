#include "security/mesh_netlink.h"

#include "core/mesh_log.h"
#include "platform/os.h"
#include "wlan/mesh_wlan.h"

#include <atomic>
#include <cstring>
#include <pthread.h>

#include "platform/seam_guard.h"

namespace {

// One slot of the callback table. The command thread writes `callback`, the monitor thread
// reads it; it is one pointer-sized word, loaded once per event.
struct CallbackSlot {
    uint32_t type;
    std::atomic<MESH_NETLINK_CALLBACK> callback;
};

// Type 3 is a valid event type but owns no slot: the third slot's type is 0.
CallbackSlot l_callbacks[3] = {
    {MESH_NETLINK_EVENT_CHILD_PROBE, {nullptr}},
    {MESH_NETLINK_EVENT_PARENT_INFO, {nullptr}},
    {0, {nullptr}},
};

bool validType(int type) {
    return type >= static_cast<int>(MESH_NETLINK_EVENT_CHILD_PROBE) &&
           type <= static_cast<int>(MESH_NETLINK_EVENT_NONE);
}

CallbackSlot* slotOf(int type) {
    for (CallbackSlot& s : l_callbacks) {
        if (static_cast<int>(s.type) == type) {
            return &s;
        }
    }
    return nullptr;
}

// Loads the slot's callback once and calls the loaded value, so that an unregistration
// between the test and the call cannot make the monitor call a null callback.
void dispatch(CallbackSlot& slot, const uint8_t* record) {
    MESH_NETLINK_CALLBACK cb = slot.callback.load(std::memory_order_acquire);
    if (cb != nullptr) {
        cb(record);
    }
}

void putU32(uint8_t* p, uint32_t v) {
    memcpy(p, &v, sizeof v); // host byte order
}

} // namespace

uint32_t mesh_netlink_monitorOpen(MESH_NETLINK_MONITOR* mon) {
    if (mon == nullptr) {
        return 1;
    }
    memset(mon->buf, 0, sizeof mon->buf);
    mon->fd = os().netlinkOpen(mesh_wlan_getNetlinkProto());
    if (mon->fd < 0) {
        MESH_ERR("create netlink socket fail");
        return 1;
    }
    const auto pid = static_cast<uint32_t>(os().processId());
    if (os().netlinkBind(mon->fd, pid) < 0) {
        MESH_ERR("bind netlink socket fail");
        os().closeFd(mon->fd);
        mon->fd = -1;
        return 1;
    }
    // A bare netlink header: length 16, type 0, flags 0, sequence 0, sender port id.
    uint8_t hello[MESH_NETLINK_HDR_LEN];
    memset(hello, 0, sizeof hello);
    putU32(hello, static_cast<uint32_t>(MESH_NETLINK_HDR_LEN));
    putU32(hello + 12, pid);
    if (os().netlinkSend(mon->fd, hello, sizeof hello) < 1) {
        MESH_ERR("notify pid to kernel fail");
        os().closeFd(mon->fd);
        mon->fd = -1;
        return 1;
    }
    return 0;
}

void mesh_netlink_monitorStep(MESH_NETLINK_MONITOR* mon) {
    if (os().netlinkRecv(mon->fd, mon->buf, MESH_NETLINK_RECV_MAX) < 0) {
        MESH_ERR("receive data error");
        return;
    }
    uint32_t type;
    memcpy(&type, mon->buf + MESH_NETLINK_HDR_LEN, sizeof type);
    const uint8_t* record = mon->buf + MESH_NETLINK_RECORD_OFF;
    switch (type) {
    case MESH_NETLINK_EVENT_CHILD_PROBE:
        dispatch(l_callbacks[0], record);
        break;
    case MESH_NETLINK_EVENT_PARENT_INFO:
        dispatch(l_callbacks[1], record);
        break;
    case MESH_NETLINK_EVENT_NONE:
        break;
    default:
        MESH_ERR("invalid mesh event type");
        break;
    }
}

void* mesh_netlink_monitorEvent(void* /*arg*/) {
    MESH_NETLINK_MONITOR mon;
    if (mesh_netlink_monitorOpen(&mon) != 0) {
        return nullptr;
    }
    for (;;) {
        mesh_netlink_monitorStep(&mon);
    }
}

uint32_t mesh_startNetlinkEventMonitor(void) {
    pthread_t tid;
    if (pthread_create(&tid, nullptr, mesh_netlink_monitorEvent, nullptr) != 0) {
        MESH_ERR("fail to crate netlink event monitor thread");
        return 1;
    }
    return 0;
}

uint32_t mesh_netlink_registerCallback(int type, MESH_NETLINK_CALLBACK callback) {
    if (callback == nullptr) {
        MESH_ERR("callback is empty");
        return 1;
    }
    if (!validType(type)) {
        MESH_ERR("wrong mesh netlink event type");
        return 1;
    }
    CallbackSlot* slot = slotOf(type);
    if (slot == nullptr) {
        return 0; // type 3: accepted, never dispatched
    }
    if (slot->callback.load(std::memory_order_acquire) != nullptr) {
        MESH_ERR("the callback of event(%d) has been registered", type);
        return 1;
    }
    slot->callback.store(callback, std::memory_order_release);
    return 0;
}

uint32_t mesh_netlink_unregisterCallback(int type) {
    if (!validType(type)) {
        MESH_ERR("wrong mesh netlink event type");
        return 1;
    }
    if (CallbackSlot* slot = slotOf(type)) {
        slot->callback.store(nullptr, std::memory_order_release);
    }
    return 0;
}
