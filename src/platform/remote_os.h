// RemoteOs: the system seam of zormesh-node. Fixed paths live under the node's root; driver
// and kernel operations go to an emulator over <root>/emu.sock (see remote_proto.h and
// docs/emulation-protocol.md); the clock runs `timeScale` times faster than real time.
//
// Connections: every thread that talks to the emulator gets a connection of its own on
// first use, starting with a hello; it is closed when the thread ends. Each netlink socket
// is a connection of its own, on which the emulator pushes event messages.
//
// A lost emulator (closed connection, malformed reply, nobody listening for a new thread)
// makes the driver operations fail as a vanished driver's would: ioctls fail with ENODEV,
// shell lines return wait status 1, kernel files do not exist, nothing arrives on netlink or
// packet sockets. The semaphore is a real System V semaphore under a key of the root's own;
// its calls are reported to the emulator first, which may make them fail.
//
// No allocation after start(): connections, descriptors and message buffers are fixed slots.
#pragma once

#include "platform/os.h"
#include "platform/remote_proto.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <pthread.h>

class RemoteOs : public Os {
  public:
    // The real clock behind the node's clock; tests replace it to see what is slept.
    class RealClock {
      public:
        virtual ~RealClock() = default;
        virtual uint64_t nowMicros() = 0; // monotonic
        virtual void sleepMicros(uint64_t us) = 0;
    };

    static constexpr int kMaxThreadConns = 16; // threads talking to the emulator at once
    static constexpr int kMaxNetlinkConns = 4; // netlink sockets open at once
    static constexpr int kMaxDescriptors = 64; // wireless + packet + netlink descriptors
    static constexpr size_t kRootMax = 84;     // <root>/var/run/usock/21.sock must fit
    static constexpr uint32_t kMaxTimeScale = 1000;

    RemoteOs();
    ~RemoteOs() override;
    RemoteOs(const RemoteOs&) = delete;
    RemoteOs& operator=(const RemoteOs&) = delete;

    // Sets the root (an absolute path without a trailing '/') and the time scale, connects
    // the calling thread (role "main") and exchanges the hello. Returns 0, or -1 with errno
    // set (ECONNREFUSED/ENOENT: nobody listens; EPROTO: the emulator's answer is not a
    // hello of this version; EINVAL/ENAMETOOLONG: bad arguments).
    int start(const char* root, uint32_t timeScale);
    // Replaces the real clock (before start()); nullptr restores the monotonic clock.
    void setRealClock(RealClock* clock);

    int runShell(const char* line) override;
    const char* path(const char* fixed, char* out, size_t cap) override;
    int readProc(const char* path, void* buf, size_t max) override;
    int writeProc(const char* path, const void* buf, size_t len) override;
    int readRandom(void* buf, size_t len) override;
    int wlanSocket() override;
    int wlanIoctl(int fd, unsigned long request, void* arg) override;
    int netlinkOpen(int protocol) override;
    int netlinkBind(int fd, uint32_t portId) override;
    int netlinkSend(int fd, const void* buf, size_t len) override;
    int netlinkRecv(int fd, void* buf, size_t max) override;
    int packetOpen(uint16_t etherType) override;
    int packetIfIndex(int fd, const char* ifName) override;
    int packetSend(int fd, int ifIndex, uint16_t protocol, const void* frame, size_t len) override;
    int packetWait(int fd, int timeoutMs) override;
    int packetRecv(int fd, void* buf, size_t max) override;
    void closeFd(int fd) override;
    uint32_t semKey() override;
    int semGet(uint32_t key, int nsems, int flags) override;
    int semSetVal(int id, int num, int value) override;
    int semRemove(int id) override;
    int semOp(int id, struct sembuf* ops, size_t nops) override;
    uint32_t uptime() override;
    void sleepSeconds(unsigned sec) override;
    void sleepMillis(unsigned ms) override;
    time_t wallClock() override;
    int processId() override;
    const DeviceConfig& deviceConfig() override;
    void writeStdout(const char* text, size_t len) override;
    void writeStderr(const char* text, size_t len) override;

  private:
    struct Conn {
        std::atomic<int> fd{-1};
        std::atomic<bool> inUse{false};
        std::atomic<bool> lost{false};
        std::atomic<uint32_t> generation{0}; // netlink: counts closes, ends a waiting receive
        std::atomic<int> receivers{0};       // netlink: receives in progress
        uint32_t number = 0;
        // One message, request or reply: header + largest body.
        std::array<uint8_t, sizeof(RemoteRspHeader) + REMOTE_MAX_BODY> buf;
    };
    enum class Kind : uint8_t { None, Wlan, Packet, Netlink };
    struct Descriptor {
        int fd = -1; // the descriptor the daemon holds
        Kind kind = Kind::None;
        int32_t remoteId = -1; // the emulator's socket id; -1 when it never answered
        Conn* conn = nullptr;  // netlink: its connection
    };
    struct Reply {
        int32_t result;
        int32_t err;
        const uint8_t* body;
        size_t length;
    };

    // The calling thread's connection, opened on first use; never null once started.
    Conn* threadConn();
    static void releaseThreadConn(void* conn);
    // Opens a connection in `c` and exchanges the hello. false when no emulator answers.
    bool connect(Conn& c, const char* role, RemoteHelloRsp* rsp);
    // Sends op + `bodyLen` bytes already placed after the header in c.buf, waits for the
    // reply. false when the emulator is gone (the connection is then marked lost).
    bool exchange(Conn* c, uint32_t op, size_t bodyLen, Reply* reply);
    bool sendRequest(Conn& c, uint32_t op, size_t bodyLen);
    void markLost(Conn& c, const char* why);
    uint8_t* body(Conn& c) { return c.buf.data() + sizeof(RemoteReqHeader); }

    int addDescriptor(Kind kind, int fd, int32_t remoteId, Conn* conn);
    int openRemote(Kind kind, uint32_t op, const void* req, size_t len);
    Descriptor* findDescriptor(int fd, Kind kind); // caller holds fdMu_
    int32_t remoteIdOf(int fd, Kind kind);
    Conn* netlinkConnOf(int fd); // null (errno EBADF) for anything but a netlink descriptor
    int semReport(uint32_t call, int32_t a, int32_t b, int32_t c, const struct sembuf* ops,
                  size_t nops);

    uint64_t nodeMicros(); // node time since start
    void realSleepNodeMicros(uint64_t nodeUs);

    char root_[kRootMax + 1] = {};
    uint32_t timeScale_ = 1;
    uint32_t semKey_ = 0;
    bool serveRandom_ = false;
    uint32_t uptimeBase_ = 0;
    time_t wallBase_ = 0;
    uint64_t realStartUs_ = 0;
    DeviceConfig cfg_{};
    RealClock* clock_;
    pthread_key_t key_{};
    bool keyMade_ = false;
    std::atomic<uint32_t> nextConnNumber_{1};
    std::atomic<bool> lostReported_{false};

    std::array<Conn, kMaxThreadConns> threadConns_;
    std::array<Conn, kMaxNetlinkConns> netlinkConns_;
    std::mutex fdMu_;
    std::array<Descriptor, kMaxDescriptors> fds_;
};
