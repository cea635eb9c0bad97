// ScriptEmulator: a scriptable single-node emulator on the emulator library.
//
// It plays the driver and the kernel of one access point for one zormesh-node: records
// every operation in order (a transcript of one line per operation, and typed records),
// answers from scripted replies, runs the shell lines a test marks (by default those that
// start with "sed ") for real on the files under the node's root, and pushes netlink
// events. What is not scripted succeeds and changes nothing, except that kernel files that
// were never set do not exist and interface indexes that were never set are unknown.
#pragma once

#include "emu_server.h"

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace emu {

class ScriptEmulator : public Handler {
  public:
    struct ProcWrite {
        std::string path;
        Bytes data;
    };
    struct Packet {
        uint32_t socket;
        int32_t ifIndex;
        Bytes frame;
    };
    struct PacketWait {
        uint32_t socket;
        uint32_t timeoutMs;
        uint32_t realTimeoutMs;
    };

    explicit ScriptEmulator(std::string root);
    ~ScriptEmulator() override;
    ScriptEmulator(const ScriptEmulator&) = delete;
    ScriptEmulator& operator=(const ScriptEmulator&) = delete;

    // Listens on <root>/emu.sock. false (with the reason in *error) when it cannot.
    bool start(std::string* error = nullptr);
    // Closes every connection and the socket: the node sees its emulator vanish.
    void stop();
    const std::string& root() const { return root_; }

    // ---- scripting (before or while the node runs) ---------------------------------------
    DeviceConfig& device() { return hello_.config; }
    void setUptime(uint32_t seconds) { hello_.uptime = seconds; }
    // Whether the hello offers random bytes (default yes); they come from queueRandom(),
    // then from a generator seeded with seed() (default 1), so a run replays from its seed.
    void serveRandom(bool on);
    void seed(uint64_t value);
    void queueRandom(const Bytes& bytes);
    // Shell lines starting with `prefix` run for real through /bin/sh, with an empty
    // environment like the device's (default: "sed ").
    void runForReal(const std::string& prefix);
    // Shell lines starting with `prefix` are answered by `fn` (the wait status).
    void onShell(const std::string& prefix, std::function<int(const std::string&)> fn);
    // Requests with this number are answered by `fn`: 0 for success or an errno value; it
    // may rewrite the call's payload and length.
    void onIoctl(uint32_t request, std::function<int(IoctlCall&)> fn);
    // Contents of a kernel file; a file never set does not exist (ENOENT).
    void setProc(const std::string& path, const std::string& content);
    // Kernel-file writes to `path` fail with `err` (0 to stop).
    void failProcWrite(const std::string& path, int err);
    void setIfIndex(const std::string& ifName, int index);
    // Called for every frame the node sends (may queue answers with queuePacket()).
    void onPacketSend(std::function<void(const Packet&)> fn);
    void queuePacket(const Bytes& frame);
    // Semaphore calls are answered by `fn`: 0 lets the call go on, an errno makes it fail.
    void onSem(std::function<int(const SemCall&)> fn);
    // Pushes one netlink message to the node; the number of connections it went to.
    int pushNetlink(const Bytes& message);
    bool waitNetlinkReady(int timeoutMs) { return server_.waitNetlinkReady(timeoutMs); }
    // Prints every transcript line, as it is recorded, to `out` (nullptr: quiet).
    void echoTo(FILE* out);

    // ---- files under the root -------------------------------------------------------------
    std::string rooted(const std::string& fixed) const { return root_ + fixed; }
    void writeFile(const std::string& fixed, const std::string& content);
    std::string readFile(const std::string& fixed) const;

    // ---- records ------------------------------------------------------------------------------
    // One line per operation, "c<connection> <operation> <details>", in arrival order.
    std::vector<std::string> transcript() const;
    // Waits up to `timeoutMs` for a transcript line that contains `text`.
    bool waitFor(const std::string& text, int timeoutMs) const;
    std::vector<Peer> hellos() const;
    std::vector<std::string> shellLines() const;
    std::vector<IoctlCall> ioctls() const; // payloads as the node sent them
    std::vector<std::string> procReads() const;
    std::vector<ProcWrite> procWrites() const;
    std::vector<Bytes> netlinkSent() const;
    std::vector<Packet> packetsSent() const;
    std::vector<PacketWait> packetWaits() const;
    std::vector<SemCall> semCalls() const;
    std::vector<std::string> malformedRequests() const;
    int disconnects() const;
    void clearRecords();

    // ---- Handler --------------------------------------------------------------------------------
    HelloAnswer hello(const Peer& peer) override;
    int32_t shell(const Peer& peer, const std::string& line) override;
    Result procRead(const Peer& peer, const std::string& path, uint32_t max, Bytes& out) override;
    Result procWrite(const Peer& peer, const std::string& path, const Bytes& data) override;
    Result random(const Peer& peer, uint32_t len, Bytes& out) override;
    Result wlanSocket(const Peer& peer) override;
    Result ioctl(const Peer& peer, IoctlCall& call) override;
    Result netlinkOpen(const Peer& peer, uint32_t protocol) override;
    Result netlinkBind(const Peer& peer, uint32_t portId) override;
    void netlinkSend(const Peer& peer, const Bytes& message) override;
    Result packetOpen(const Peer& peer, uint32_t etherType) override;
    Result packetIfIndex(const Peer& peer, uint32_t socket, const std::string& ifName) override;
    Result packetSend(const Peer& peer, uint32_t socket, int32_t ifIndex,
                      const Bytes& frame) override;
    Result packetWait(const Peer& peer, uint32_t socket, uint32_t timeoutMs,
                      uint32_t realTimeoutMs) override;
    Result packetRecv(const Peer& peer, uint32_t socket, uint32_t max, Bytes& out) override;
    Result close(const Peer& peer, uint32_t kind, uint32_t socket) override;
    Result sem(const Peer& peer, const SemCall& call) override;
    void malformed(const Peer& peer, uint32_t op, const std::string& why) override;
    void disconnected(const Peer& peer) override;
    void stopping() override;

  private:
    void record(const Peer& peer, const std::string& line); // caller holds mu_

    std::string root_;
    Server server_;
    mutable std::mutex mu_;
    mutable std::condition_variable changed_;
    bool stopping_ = false;
    FILE* echo_ = nullptr;

    HelloAnswer hello_;
    std::mt19937_64 rng_{1};
    std::deque<uint8_t> random_;
    std::vector<std::string> realPrefixes_{"sed "};
    std::vector<std::pair<std::string, std::function<int(const std::string&)>>> shellHandlers_;
    std::map<uint32_t, std::function<int(IoctlCall&)>> ioctlHandlers_;
    std::map<std::string, std::string> proc_;
    std::map<std::string, int> procWriteErr_;
    std::map<std::string, int> ifIndex_;
    std::function<void(const Packet&)> packetHook_;
    std::deque<Bytes> rxPackets_;
    std::function<int(const SemCall&)> semHook_;
    int32_t nextSocket_ = 1;

    std::vector<std::string> transcript_;
    std::vector<Peer> hellos_;
    std::vector<std::string> shell_;
    std::vector<IoctlCall> ioctls_;
    std::vector<std::string> procReads_;
    std::vector<ProcWrite> procWrites_;
    std::vector<Bytes> netlinkSent_;
    std::vector<Packet> packets_;
    std::vector<PacketWait> packetWaits_;
    std::vector<SemCall> sems_;
    std::vector<std::string> malformed_;
    int disconnects_ = 0;
};

} // namespace emu
