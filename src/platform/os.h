// The system seam: every operation of the daemon that leaves the process or depends on the
// machine goes through one Os object. Three implementations exist: LinuxOs (the device),
// FakeOs (unit tests, tests/support) and RemoteOs (zormesh-node, driven by an emulator).
//
// Conventions shared by every implementation:
//  - functions returning int return -1 on failure with errno set, unless said otherwise;
//  - descriptors handed out by one group (wireless socket, netlink, packet) are only ever
//    passed back to the same Os, never to the C library directly;
//  - nothing here allocates per call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

struct sembuf;

// What the device configuration library answers (radio_config_*, devcfg_*).
struct DeviceConfig {
    static constexpr int kMaxDownLinkPorts = 8;
    char bkhApIfName[16];                      // backhaul AP interface, driver naming
    char staIfName[16];                        // mesh station (ApCli) interface
    uint32_t maxVapNum;                        // radio_config_getMaxVapNum(1): VAP count - 1
    uint32_t downLinkPortNum;                  // devcfg_downLinkPort_getNum()
    char downLinkPorts[kMaxDownLinkPorts][16]; // logical names of ports 1..downLinkPortNum
};

// The compiled-in configuration of the target board.
DeviceConfig defaultDeviceConfig();

class Os {
  public:
    virtual ~Os() = default;

    // --- shell -----------------------------------------------------------------------
    // Runs `line` with "/bin/sh" "-c" and an empty environment and waits for it.
    // Returns the raw wait status (0 for exit status 0), or 1 when the child could not be
    // started or the wait failed with an error other than EINTR.
    virtual int runShell(const char* line) = 0;

    // --- rooted files ----------------------------------------------------------------
    // The real path of a fixed path such as "/tmp/zormesh.log" or "/var/run": identity on
    // the device, under the node's root in emulation, under a test directory in the fake.
    // Writes at most `cap` bytes including the terminator; returns `out`, or an empty
    // string when the result does not fit.
    virtual const char* path(const char* fixed, char* out, size_t cap) = 0;

    // --- kernel files (/proc/mesh/*, /proc/gpon/*, /proc/tc3162/*) --------------------
    // Each call is one open-read-close: returns the number of bytes read (0..max), or -1
    // when the file cannot be opened (errno set).
    virtual int readProc(const char* path, void* buf, size_t max) = 0;
    // One open("w")-write-close. Returns 0 when all `len` bytes were written, -1 when the
    // file cannot be opened, -2 when it was opened but the write failed (errno set).
    virtual int writeProc(const char* path, const void* buf, size_t len) = 0;

    // --- randomness (/dev/urandom) ------------------------------------------------------
    // Returns the number of bytes read, or -1 when the source cannot be opened.
    virtual int readRandom(void* buf, size_t len) = 0;

    // --- wireless ioctls ---------------------------------------------------------------
    // An AF_INET datagram socket for wireless-extension and private driver requests.
    virtual int wlanSocket() = 0;
    // `arg` is a struct ifreq (SIOCGIFFLAGS, SIOCGIFINDEX) or a struct iwreq (everything
    // else): the implementation reads and writes the payload the iw_point descriptor
    // points at, and updates its length, exactly as the driver would.
    virtual int wlanIoctl(int fd, unsigned long request, void* arg) = 0;

    // --- netlink (the driver's mesh event channel) --------------------------------------
    virtual int netlinkOpen(int protocol) = 0;
    virtual int netlinkBind(int fd, uint32_t portId) = 0;
    // Sends one message to the kernel (port id 0). Returns bytes sent or -1.
    virtual int netlinkSend(int fd, const void* buf, size_t len) = 0;
    // Receives one message of at most `max` bytes. Returns its length or -1.
    virtual int netlinkRecv(int fd, void* buf, size_t max) = 0;

    // --- packet sockets (ARP probe, interface indexes) ----------------------------------
    // A raw packet socket for one EtherType in host order (0 = none).
    virtual int packetOpen(uint16_t etherType) = 0;
    // SIOCGIFINDEX on that socket. Returns the index or -1.
    virtual int packetIfIndex(int fd, const char* ifName) = 0;
    // sendto() an Ethernet frame out of interface `ifIndex`, to the link-layer address
    // {family packet, `protocol` (EtherType, host order), `ifIndex`, all other members 0}.
    // Returns bytes sent or -1.
    virtual int packetSend(int fd, int ifIndex, uint16_t protocol, const void* frame,
                           size_t len) = 0;
    // select() for readability: 1 readable, 0 time-out, -1 error.
    virtual int packetWait(int fd, int timeoutMs) = 0;
    // recvfrom() one frame of at most `max` bytes. Returns its length or -1.
    virtual int packetRecv(int fd, void* buf, size_t max) = 0;

    // Closes a descriptor of any of the three groups above.
    virtual void closeFd(int fd) = 0;

    // --- System V semaphore of the driver profile ------------------------------------------
    virtual uint32_t semKey() = 0; // 0xC11E0761 on the device
    virtual int semGet(uint32_t key, int nsems, int flags) = 0;
    virtual int semSetVal(int id, int num, int value) = 0;
    virtual int semRemove(int id) = 0;
    virtual int semOp(int id, struct sembuf* ops, size_t nops) = 0;

    // --- time ---------------------------------------------------------------------------
    virtual uint32_t uptime() = 0; // seconds since boot (sysinfo)
    // A thread's tick and its shorter waits. Both are cancellation points.
    virtual void sleepSeconds(unsigned sec) = 0;
    virtual void sleepMillis(unsigned ms) = 0;
    virtual time_t wallClock() = 0; // for event-log stamps

    // --- identity ------------------------------------------------------------------------
    virtual int processId() = 0; // the netlink port id

    // --- device configuration -------------------------------------------------------------
    virtual const DeviceConfig& deviceConfig() = 0;

    // --- standard output and error ----------------------------------------------------------
    virtual void writeStdout(const char* text, size_t len) = 0;
    virtual void writeStderr(const char* text, size_t len) = 0;
};

// The process-wide seam. Set once at start, before any thread runs.
Os& os();
void setOs(Os* impl);

// Shorthand for rooted paths of a fixed size.
struct RootedPath {
    char buf[256];
    explicit RootedPath(const char* fixed) { os().path(fixed, buf, sizeof buf); }
    const char* c_str() const { return buf; }
};
