// The driver's mesh event channel: a netlink socket of the driver's protocol, one thread that
// receives its messages and hands each event record to the callback registered for its type.
//
// A message is a 16-byte netlink header (not interpreted), the event type (u32), a word the
// daemon does not read, then the record; at most 304 bytes are received. Integers are in host
// byte order.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t MESH_NETLINK_HDR_LEN = 16;    // nlmsghdr
constexpr size_t MESH_NETLINK_RECORD_OFF = 24; // header, event type, unread word
constexpr size_t MESH_NETLINK_RECV_MAX = 304;  // receive bound of one message
constexpr size_t MESH_NETLINK_BUF_LEN = 512;   // the monitor's receive buffer
constexpr size_t MESH_NETLINK_RECORD_MAX = MESH_NETLINK_RECV_MAX - MESH_NETLINK_RECORD_OFF;

enum MESH_NETLINK_EVENT_TYPE : uint32_t {
    MESH_NETLINK_EVENT_CHILD_PROBE = 1, // MESH_CHILD_PROBE: a would-be child's probe request
    MESH_NETLINK_EVENT_PARENT_INFO = 2, // MESH_PARENT_INFO (security/mesh_parent.h)
    MESH_NETLINK_EVENT_NONE = 3,        // valid, never dispatched
};

// A callback gets a pointer to the record, offset 24 of the receive buffer. Records are
// packed, so the pointer may be read as one of the record types below.
using MESH_NETLINK_CALLBACK = void (*)(const void* record);

#pragma pack(push, 1)
// Event type 1: what a would-be child's probe-request element said, as the driver passes it on.
struct MESH_CHILD_PROBE {
    uint8_t deviceMac[6]; // the element's device MAC
    uint8_t staMac[6];    // the address that sent the probe request
    uint8_t drv12;        // driver values, passed on to the candidate list
    int8_t drv13;         // signed; the candidate list keeps the best one seen
    uint8_t drv14;
    uint8_t drv15;
    uint8_t flags; // bit 0: still looking for a parent; bit 1: the sender's reset flag
    uint8_t probeAttr;
    uint8_t controllerId[16];
    char probeText[32];
    uint8_t probeTextAttr;
    uint8_t keyLen;    // length of the sender's RSA modulus
    uint8_t key[128];  // the sender's RSA modulus, big-endian
    uint8_t verCap[4]; // big-endian
};
#pragma pack(pop)
static_assert(sizeof(MESH_CHILD_PROBE) == 200, "MESH_CHILD_PROBE is 200 bytes");
static_assert(offsetof(MESH_CHILD_PROBE, staMac) == 6, "staMac at 6");
static_assert(offsetof(MESH_CHILD_PROBE, drv12) == 12, "byte 12");
static_assert(offsetof(MESH_CHILD_PROBE, drv15) == 15, "byte 15");
static_assert(offsetof(MESH_CHILD_PROBE, flags) == 16, "flags at 16");
static_assert(offsetof(MESH_CHILD_PROBE, probeAttr) == 17, "probeAttr at 17");
static_assert(offsetof(MESH_CHILD_PROBE, controllerId) == 18, "controllerId at 18");
static_assert(offsetof(MESH_CHILD_PROBE, probeText) == 34, "probeText at 34");
static_assert(offsetof(MESH_CHILD_PROBE, probeTextAttr) == 66, "probeTextAttr at 66");
static_assert(offsetof(MESH_CHILD_PROBE, keyLen) == 67, "keyLen at 67");
static_assert(offsetof(MESH_CHILD_PROBE, key) == 68, "key at 68");
static_assert(offsetof(MESH_CHILD_PROBE, verCap) == 196, "verCap at 196");

constexpr uint8_t MESH_CHILD_PROBE_SEARCHING = 0x01;
constexpr uint8_t MESH_CHILD_PROBE_RESET = 0x02;

// The monitor's channel and its receive buffer. The buffer is cleared once when the channel is
// opened and not between messages, so a short message leaves the bytes of an earlier, longer
// one behind it, and a callback sees them.
struct MESH_NETLINK_MONITOR {
    int fd;
    uint8_t buf[MESH_NETLINK_BUF_LEN];
};

// Opens the channel on the driver's protocol, binds it to the process id and announces the
// daemon to the kernel with a bare 16-byte header carrying that id; clears the buffer. 0, or 1
// after the error line of the failed step (the descriptor is then closed).
uint32_t mesh_netlink_monitorOpen(MESH_NETLINK_MONITOR* mon);
// Receives one message (at most 304 bytes) and hands its record to the callback of its type.
// A receive error prints "receive data error"; an unknown type "invalid mesh event type".
void mesh_netlink_monitorStep(MESH_NETLINK_MONITOR* mon);

// Starts the monitor thread (default attributes, neither joined nor detached). 0, or 1 after
// "fail to crate netlink event monitor thread".
uint32_t mesh_startNetlinkEventMonitor(void);
// The thread body: mesh_netlink_monitorOpen, then mesh_netlink_monitorStep for ever. Returns
// only after a set-up failure.
void* mesh_netlink_monitorEvent(void* arg);
// 0 on success; 1 for a null callback, a type other than 1..3, or a type already registered.
// Type 3 is accepted and stores nothing.
uint32_t mesh_netlink_registerCallback(int type, MESH_NETLINK_CALLBACK callback);
// 0, or 1 for a type other than 1..3.
uint32_t mesh_netlink_unregisterCallback(int type);
