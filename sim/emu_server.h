// The emulator side of the emulation protocol: listens on <root>/emu.sock, accepts the
// connections of one zormesh-node, decodes every request, hands it to a Handler and sends
// the reply; pushes netlink event messages to the node's netlink connections.
//
// Each connection is served on a thread of its own, so a handler may block (a packet wait
// that holds its reply until a frame arrives); handlers are called from several threads at
// once and guard their own state.
#pragma once

#include "platform/os.h"
#include "platform/remote_proto.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace emu {

using Bytes = std::vector<uint8_t>;

// One connection of the node, as its hello introduced it.
struct Peer {
    int id = 0;              // the server's number for the connection, from 1
    uint32_t pid = 0;        // the node's process id
    uint32_t timeScale = 1;  // the node's clock speed
    uint32_t connection = 0; // the node's number for the connection
    std::string role;        // "main", "thread" or "netlink"
};

// A reply: the operation's return value and, for a failure, the errno.
struct Result {
    int32_t value = 0;
    int32_t err = 0;
    static Result fail(int err) { return Result{-1, err}; }
};

struct HelloAnswer {
    bool accept = true;
    uint32_t flags = 0; // REMOTE_HELLO_*
    uint32_t uptime = 0;
    DeviceConfig config = defaultDeviceConfig();
};

// A wireless request. A handler may rewrite `payload` and `length`: both go back to the
// node, which copies the payload into the daemon's buffer (at most the size it sent).
struct IoctlCall {
    uint32_t socket = 0;
    uint32_t request = 0;
    uint32_t kind = REMOTE_IOCTL_IWPOINT;
    std::string ifName;
    uint16_t flags = 0;
    uint16_t length = 0;
    Bytes payload;
};

struct SemCall {
    uint32_t call = 0; // REMOTE_SEM_*
    int32_t a = 0, b = 0, c = 0;
    std::vector<RemoteSemOp> ops;
};

class Handler {
  public:
    virtual ~Handler() = default;
    virtual HelloAnswer hello(const Peer& peer);
    virtual int32_t shell(const Peer& peer, const std::string& line);
    virtual Result procRead(const Peer& peer, const std::string& path, uint32_t max, Bytes& out);
    virtual Result procWrite(const Peer& peer, const std::string& path, const Bytes& data);
    virtual Result random(const Peer& peer, uint32_t len, Bytes& out);
    virtual Result wlanSocket(const Peer& peer);
    virtual Result ioctl(const Peer& peer, IoctlCall& call);
    virtual Result netlinkOpen(const Peer& peer, uint32_t protocol);
    virtual Result netlinkBind(const Peer& peer, uint32_t portId);
    virtual void netlinkSend(const Peer& peer, const Bytes& message);
    virtual Result packetOpen(const Peer& peer, uint32_t etherType);
    virtual Result packetIfIndex(const Peer& peer, uint32_t socket, const std::string& ifName);
    virtual Result packetSend(const Peer& peer, uint32_t socket, int32_t ifIndex,
                              const Bytes& frame);
    virtual Result packetWait(const Peer& peer, uint32_t socket, uint32_t timeoutMs,
                              uint32_t realTimeoutMs);
    virtual Result packetRecv(const Peer& peer, uint32_t socket, uint32_t max, Bytes& out);
    virtual Result close(const Peer& peer, uint32_t kind, uint32_t socket);
    // Called before the node makes the call; a failing result makes it fail with that errno.
    virtual Result sem(const Peer& peer, const SemCall& call);
    // A request that could not be decoded (answered with EPROTO or ENOSYS).
    virtual void malformed(const Peer& peer, uint32_t op, const std::string& why);
    virtual void disconnected(const Peer& peer);
    // The server stops: wake whatever a handler waits for.
    virtual void stopping();
};

class Server {
  public:
    Server(std::string root, Handler& handler);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Creates <root>/emu.sock (replacing a stale one) and starts accepting. false with a
    // message in *error when the socket cannot be made.
    bool start(std::string* error);
    // Closes the socket and every connection: to the node, the emulator is gone.
    void stop();
    const std::string& socketPath() const { return path_; }

    // Sends one netlink message on every netlink connection whose node has announced
    // itself (sent its netlink message). Returns the number of connections it went to.
    int pushNetlink(const Bytes& message);
    // Waits up to `timeoutMs` for a node to announce itself on a netlink connection.
    bool waitNetlinkReady(int timeoutMs);

  private:
    struct Conn {
        int fd = -1;
        Peer peer;
        bool helloDone = false;
        bool announced = false;
        std::atomic<bool> done{false};
        std::mutex sendMu;
        std::thread thread;
    };

    void acceptLoop();
    void serve(Conn* c);
    // Decodes and answers one request; false when the connection is to be closed.
    bool handle(Conn* c, const uint8_t* msg, size_t len);
    bool reply(Conn* c, Result r, const void* body, size_t len);
    void reapDone(); // caller holds mu_

    std::string root_;
    std::string path_;
    Handler& handler_;
    int listenFd_ = -1;
    std::thread acceptThread_;
    std::atomic<bool> stopping_{false};
    std::mutex mu_;
    std::condition_variable announcedCv_;
    std::list<std::unique_ptr<Conn>> conns_;
    int nextId_ = 1;
};

} // namespace emu
