// FakeOs: the in-process, programmable system seam for unit tests.
//
// It stands in only for what this machine cannot have: the wireless driver (ioctls,
// netlink), the board's kernel files and a board clock. Everything else stays real: rooted
// files are real files in a temporary directory, shell lines the test marks with
// runForReal() run through the real /bin/sh, semaphores are real System V semaphores
// under a key of the fake's own.
//
// Every operation is recorded, in order, in a transcript of one line per operation (ioctls also
// as typed records) that tests assert exactly. Replies are scripted per kind of
// operation; failNth() makes the Nth operation whose transcript line starts with a given text
// fail, and tells afterwards whether it did.
//
// The clock is virtual. A sleep (and a packet wait that finds nothing to read) on the thread
// that created the fake moves the clock itself. On any other thread it blocks until the test
// moves the clock past its deadline, so the daemon's threads run as real threads, tick by
// tick: advanceMillis() steps from deadline to deadline and wakes one sleeper at a time, in
// the order of their deadlines (ties: the one that fell asleep first), waiting each time
// until the woken thread sleeps again (or ends) before it goes on. A sleep is a
// cancellation point. The fake must outlive every thread that sleeps on it: destroying it
// while a thread still sleeps aborts with a message.
#pragma once

#include "platform/hex.h"
#include "platform/os.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using Bytes = std::vector<uint8_t>;

// hexBytes("01 02 0a"), toHex(data, len): see platform/hex.h.
using hex::hexBytes;
using hex::toHex;

class FakeOs : public Os {
  public:
    // A wireless request as the driver sees it. `data` points at the payload the iw_point
    // descriptor designates (null for ifreq requests); a handler may write into it and
    // change `length`, exactly as the driver does.
    struct Ioctl {
        unsigned long request;
        std::string ifName;
        uint16_t flags;
        uint16_t length;
        uint8_t* data;
    };
    // Recorded copy of a request: the payload bytes as they were handed in.
    struct IoctlRecord {
        unsigned long request;
        std::string ifName;
        uint16_t flags;
        uint16_t length;
        Bytes payload;
    };
    struct Packet {
        int ifIndex;
        uint16_t protocol; // the EtherType of the link-layer address
        Bytes frame;
    };

    FakeOs();
    ~FakeOs() override;
    FakeOs(const FakeOs&) = delete;
    FakeOs& operator=(const FakeOs&) = delete;

    // ---- scripting ------------------------------------------------------------------------
    // Shell lines starting with `prefix` run through the real /bin/sh (and are recorded).
    void runForReal(const std::string& prefix);
    // Shell lines starting with `prefix` are answered by `fn` (wait status).
    void onShell(const std::string& prefix, std::function<int(const std::string&)> fn);
    // Requests with this number are answered by `fn`: 0 for success or an errno value.
    // Unscripted requests succeed and leave the payload as it is.
    void onIoctl(unsigned long request, std::function<int(Ioctl&)> fn);
    // Contents of a kernel file; a file never set does not exist (ENOENT).
    void setProc(const std::string& path, const std::string& content);
    void removeProc(const std::string& path);
    // Interface indexes known to SIOCGIFINDEX on packet sockets.
    void setIfIndex(const std::string& ifName, int index);
    // Called for every frame sent on a packet socket (may queue replies).
    void onPacketSend(std::function<void(const Packet&)> fn);
    void queuePacket(const Bytes& frame);
    void queueNetlink(const Bytes& message);
    // Makes the Nth (from 1) operation, counted from now, whose transcript line starts with
    // `prefix` ("ioctl 0x8BF5 rai3", "proc-write /proc/mesh/config_count", "sem-op",
    // "packet-wait") fail with `err`. Rules count independently of each other. Returns a handle
    // for fired().
    int failNth(const std::string& prefix, int nth, int err);
    bool fired(int handle) const;

    DeviceConfig& device() { return device_; }
    void setProcessId(int pid) { pid_ = pid; }

    // ---- clock ----------------------------------------------------------------------------
    // Moves the clock forward; every thread whose sleep ends on the way runs until it sleeps
    // again. Not to be called by a thread that sleeps on the fake.
    void advanceMillis(uint64_t ms);
    void advanceSeconds(uint32_t s) { advanceMillis(uint64_t(s) * 1000); }
    uint64_t nowMillis() const;
    // Waits (real time, at most 20 s) until exactly `n` threads sleep on the clock and none of
    // the threads it woke is still running. False when that did not happen.
    bool settle(size_t n);
    size_t sleepers() const;
    // Descriptors handed out and not yet closed.
    size_t openFds() const;

    // ---- records --------------------------------------------------------------------------
    std::vector<std::string> transcript() const { return locked(transcript_); }
    // The transcript lines of one kind ("shell ", "proc-read "), without that prefix.
    std::vector<std::string> transcriptOf(const std::string& prefix) const;
    std::vector<std::string> shellLines() const { return transcriptOf("shell "); }
    std::vector<std::string> procReads() const { return transcriptOf("proc-read "); }
    std::vector<IoctlRecord> ioctls() const { return locked(ioctls_); }
    std::vector<IoctlRecord> ioctls(unsigned long request) const;
    void clearRecords();
    std::string takeStdout();
    std::string stdoutText() const { return locked(stdout_); }
    std::string stderrText() const { return locked(stderr_); }

    // Real path of a fixed path, as a std::string.
    std::string rooted(const std::string& fixed);
    // Reads/writes a whole rooted file (test convenience).
    std::string readFile(const std::string& fixed);
    void writeFile(const std::string& fixed, const std::string& content);

    // ---- Os ---------------------------------------------------------------------------------
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
    struct FailRule {
        std::string prefix;
        int nth, err, seen;
        bool fired;
    };
    // Records `line`; true (errno set) when a rule makes this operation fail. Caller holds mu_.
    bool failing(const std::string& line);
    // Records `line` and hands out a descriptor, or fails (-1) by a rule.
    int newFd(const std::string& line);
    template <typename T> T locked(const T& v) const {
        std::lock_guard<std::mutex> g(mu_);
        return v;
    }

    // Clock internals; callers hold mu_ through `g`.
    void sleepFor(std::unique_lock<std::mutex>& g, uint64_t ms);
    void advanceLocked(std::unique_lock<std::mutex>& g, uint64_t ms);
    void waitQuiet(std::unique_lock<std::mutex>& g);

  public:
    // Called when a thread that a clock step woke sleeps again, blocks in the fake or ends.
    void backToSleep();

  private:
    mutable std::mutex mu_;
    std::condition_variable netlinkCv_;
    std::string root_;
    DeviceConfig device_;
    int pid_ = 4242;
    static constexpr uint64_t kStartMillis = 1000000;
    uint64_t clockMs_ = kStartMillis; // uptime starts at 1000 s
    std::condition_variable clockCv_;
    std::thread::id owner_;
    // Sleeping threads by (deadline, ticket); tickets of the ones woken and not yet running.
    std::set<std::pair<uint64_t, uint64_t>> sleepers_;
    std::set<uint64_t> woken_;
    uint64_t nextTicket_ = 1;
    int running_ = 0;              // woken by a clock step and not yet asleep again
    time_t wallBase_ = 1700000000; // wall clock starts at 2023-11-14 22:13:20 UTC
    uint32_t semKey_;
    int nextFd_ = 1000;
    std::set<int> fds_; // descriptors handed out, not yet closed
    std::vector<std::string> realPrefixes_;
    std::vector<std::pair<std::string, std::function<int(const std::string&)>>> shellHandlers_;
    std::map<unsigned long, std::function<int(Ioctl&)>> ioctlHandlers_;
    std::map<std::string, std::string> proc_;
    uint8_t randomCounter_ = 0;
    std::map<std::string, int> ifIndex_;
    std::function<void(const Packet&)> packetHook_;
    std::deque<Bytes> rxPackets_;
    std::deque<Bytes> rxNetlink_;
    std::vector<FailRule> failRules_;

    std::vector<std::string> transcript_;
    std::vector<IoctlRecord> ioctls_;
    std::string stdout_;
    std::string stderr_;
};

// Installs a FakeOs as the process-wide seam for the life of the object.
class FakeOsScope {
  public:
    FakeOsScope() { setOs(&fake); }
    ~FakeOsScope() { setOs(nullptr); }
    FakeOs fake;
};
