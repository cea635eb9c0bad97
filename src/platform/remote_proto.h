// The emulation protocol between zormesh-node (the Remote platform) and an emulator.
//
// One header for both ends: the node's RemoteOs and the emulator library in sim/ use these
// layouts and numbers, and docs/emulation-protocol.md describes them byte by byte.
//
// Transport: a Unix SOCK_SEQPACKET connection to <root>/emu.sock; every message is one
// packet. A request is RemoteReqHeader + body, a reply is RemoteRspHeader + body. All
// integers are little-endian; records are packed, without padding.
#pragma once

#include <cstddef>
#include <cstdint>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the records below are copied as they are: a little-endian host is assumed");

constexpr uint32_t REMOTE_PROTO_VERSION = 1;
constexpr const char* REMOTE_SOCKET_NAME = "/emu.sock"; // under the node's root

// Largest body either side sends: an ioctl request with a full 16-bit payload.
constexpr size_t REMOTE_MAX_PAYLOAD = 65535;
constexpr size_t REMOTE_MAX_BODY = 64 + REMOTE_MAX_PAYLOAD;

enum RemoteOp : uint32_t {
    REMOTE_OP_HELLO = 1,
    REMOTE_OP_SHELL = 2,
    REMOTE_OP_PROC_READ = 3,
    REMOTE_OP_PROC_WRITE = 4,
    REMOTE_OP_RANDOM = 5,
    REMOTE_OP_WLAN_SOCKET = 6,
    REMOTE_OP_IOCTL = 7,
    REMOTE_OP_NETLINK_OPEN = 8,
    REMOTE_OP_NETLINK_BIND = 9,
    REMOTE_OP_NETLINK_SEND = 10, // the only request without a reply
    REMOTE_OP_PACKET_OPEN = 11,
    REMOTE_OP_PACKET_IFINDEX = 12,
    REMOTE_OP_PACKET_SEND = 13,
    REMOTE_OP_PACKET_WAIT = 14,
    REMOTE_OP_PACKET_RECV = 15,
    REMOTE_OP_CLOSE = 16,
    REMOTE_OP_SEM = 17,
};
constexpr uint32_t REMOTE_OP_LAST = REMOTE_OP_SEM;

// Printable name of an operation ("hello", "shell", ...), "?" for an unknown number.
const char* remote_opName(uint32_t op);

// Hello flags (reply).
constexpr uint32_t REMOTE_HELLO_RANDOM = 1; // the emulator serves random bytes

// Ioctl kinds.
constexpr uint32_t REMOTE_IOCTL_IWPOINT = 0; // struct iwreq: payload is what iw_point designates
constexpr uint32_t REMOTE_IOCTL_IFREQ = 1;   // struct ifreq: payload is the 16-byte ifr_ifru

// Descriptor kinds of a close request.
constexpr uint32_t REMOTE_CLOSE_WLAN = 1;
constexpr uint32_t REMOTE_CLOSE_PACKET = 2;

// Semaphore calls.
constexpr uint32_t REMOTE_SEM_GET = 1;
constexpr uint32_t REMOTE_SEM_SETVAL = 2;
constexpr uint32_t REMOTE_SEM_REMOVE = 3;
constexpr uint32_t REMOTE_SEM_OP = 4;
constexpr uint32_t REMOTE_SEM_MAX_OPS = 16;

#pragma pack(push, 1)

struct RemoteReqHeader {
    uint32_t op;     // RemoteOp
    uint32_t length; // body bytes that follow
};
static_assert(sizeof(RemoteReqHeader) == 8, "request header is 8 bytes");
static_assert(offsetof(RemoteReqHeader, length) == 4, "length at 4");

struct RemoteRspHeader {
    int32_t result;  // the operation's return value
    int32_t err;     // errno when the result reports a failure, else 0
    uint32_t length; // body bytes that follow
};
static_assert(sizeof(RemoteRspHeader) == 12, "reply header is 12 bytes");
static_assert(offsetof(RemoteRspHeader, err) == 4, "err at 4");
static_assert(offsetof(RemoteRspHeader, length) == 8, "length at 8");

struct RemoteHelloReq {
    uint32_t version;    // REMOTE_PROTO_VERSION
    uint32_t pid;        // the node's process id (its netlink port id)
    uint32_t timeScale;  // the node's clock runs this many times faster than real time
    uint32_t connection; // number of this connection within the node, from 1
    char role[16];       // "main", "netlink" or "thread", NUL-padded
};
static_assert(sizeof(RemoteHelloReq) == 32, "hello request is 32 bytes");
static_assert(offsetof(RemoteHelloReq, pid) == 4, "pid at 4");
static_assert(offsetof(RemoteHelloReq, timeScale) == 8, "timeScale at 8");
static_assert(offsetof(RemoteHelloReq, connection) == 12, "connection at 12");
static_assert(offsetof(RemoteHelloReq, role) == 16, "role at 16");

struct RemoteHelloRsp {
    uint32_t version;     // REMOTE_PROTO_VERSION
    uint32_t flags;       // REMOTE_HELLO_*
    uint32_t uptime;      // the node's uptime in seconds when its clock starts
    char bkhApIfName[16]; // device configuration, as DeviceConfig
    char staIfName[16];
    uint32_t maxVapNum;
    uint32_t downLinkPortNum; // at most 8
    char downLinkPorts[8][16];
};
static_assert(sizeof(RemoteHelloRsp) == 180, "hello reply is 180 bytes");
static_assert(offsetof(RemoteHelloRsp, flags) == 4, "flags at 4");
static_assert(offsetof(RemoteHelloRsp, uptime) == 8, "uptime at 8");
static_assert(offsetof(RemoteHelloRsp, bkhApIfName) == 12, "bkhApIfName at 12");
static_assert(offsetof(RemoteHelloRsp, staIfName) == 28, "staIfName at 28");
static_assert(offsetof(RemoteHelloRsp, maxVapNum) == 44, "maxVapNum at 44");
static_assert(offsetof(RemoteHelloRsp, downLinkPortNum) == 48, "downLinkPortNum at 48");
static_assert(offsetof(RemoteHelloRsp, downLinkPorts) == 52, "downLinkPorts at 52");

// Proc read: this record, then the path (no terminator). Reply body: the bytes read.
struct RemoteProcReadReq {
    uint32_t max;
};
static_assert(sizeof(RemoteProcReadReq) == 4, "proc read request is 4 bytes + path");

// Proc write: this record, the path (pathLength bytes), then the data written.
struct RemoteProcWriteReq {
    uint32_t pathLength;
};
static_assert(sizeof(RemoteProcWriteReq) == 4, "proc write request is 4 bytes + path + data");

struct RemoteRandomReq {
    uint32_t length;
};
static_assert(sizeof(RemoteRandomReq) == 4, "random request is 4 bytes");

// Ioctl: this record, then the payload.
struct RemoteIoctlReq {
    uint32_t socket;  // the id the emulator gave in its wlan-socket reply
    uint32_t request; // request number, e.g. 0x8BF5
    uint32_t kind;    // REMOTE_IOCTL_*
    char ifName[16];  // interface name, NUL-padded
    uint16_t flags;   // iw_point flags (sub-command); 0 for ifreq
    uint16_t length;  // iw_point length; 16 for ifreq
};
static_assert(sizeof(RemoteIoctlReq) == 32, "ioctl request is 32 bytes + payload");
static_assert(offsetof(RemoteIoctlReq, request) == 4, "request at 4");
static_assert(offsetof(RemoteIoctlReq, kind) == 8, "kind at 8");
static_assert(offsetof(RemoteIoctlReq, ifName) == 12, "ifName at 12");
static_assert(offsetof(RemoteIoctlReq, flags) == 28, "flags at 28");
static_assert(offsetof(RemoteIoctlReq, length) == 30, "length at 30");

// Ioctl reply body (optional): this record, then the payload as the driver left it.
struct RemoteIoctlRsp {
    uint16_t length; // the new iw_point length
    uint16_t reserved;
};
static_assert(sizeof(RemoteIoctlRsp) == 4, "ioctl reply is 4 bytes + payload");

struct RemoteU32Req {
    uint32_t value; // netlink-open: protocol; netlink-bind: port id; packet-open: EtherType
};
static_assert(sizeof(RemoteU32Req) == 4, "one-word request is 4 bytes");

struct RemotePacketIfIndexReq {
    uint32_t socket;
    char ifName[16];
};
static_assert(sizeof(RemotePacketIfIndexReq) == 20, "packet ifindex request is 20 bytes");
static_assert(offsetof(RemotePacketIfIndexReq, ifName) == 4, "ifName at 4");

// Packet send: this record, then the frame.
struct RemotePacketSendReq {
    uint32_t socket;
    int32_t ifIndex;
};
static_assert(sizeof(RemotePacketSendReq) == 8, "packet send request is 8 bytes + frame");
static_assert(offsetof(RemotePacketSendReq, ifIndex) == 4, "ifIndex at 4");

struct RemotePacketWaitReq {
    uint32_t socket;
    uint32_t timeoutMs;     // as the daemon asked, in node time
    uint32_t realTimeoutMs; // the same in real time: what the emulator waits at most
};
static_assert(sizeof(RemotePacketWaitReq) == 12, "packet wait request is 12 bytes");
static_assert(offsetof(RemotePacketWaitReq, timeoutMs) == 4, "timeoutMs at 4");
static_assert(offsetof(RemotePacketWaitReq, realTimeoutMs) == 8, "realTimeoutMs at 8");

struct RemotePacketRecvReq {
    uint32_t socket;
    uint32_t max;
};
static_assert(sizeof(RemotePacketRecvReq) == 8, "packet recv request is 8 bytes");

struct RemoteCloseReq {
    uint32_t kind; // REMOTE_CLOSE_*
    uint32_t socket;
};
static_assert(sizeof(RemoteCloseReq) == 8, "close request is 8 bytes");

// Semaphore report: this record, then `nops` operations for REMOTE_SEM_OP.
struct RemoteSemReq {
    uint32_t call; // REMOTE_SEM_*
    int32_t a;     // get: key; setval, remove, op: semaphore set id
    int32_t b;     // get: nsems; setval: semaphore number; op: nops
    int32_t c;     // get: flags; setval: value
};
static_assert(sizeof(RemoteSemReq) == 16, "semaphore request is 16 bytes + operations");

struct RemoteSemOp {
    uint16_t num;
    int16_t op;
    int16_t flg;
};
static_assert(sizeof(RemoteSemOp) == 6, "semaphore operation is 6 bytes");

#pragma pack(pop)

// Semaphore key of a node root: FNV-1a of the root path folded into 0x5E000000..0x5EFFFFFF,
// so nodes under different roots never share a profile lock, and never the device's key.
uint32_t remote_semKeyForRoot(const char* root);
