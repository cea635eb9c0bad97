#include "emu_server.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace emu {

namespace {

std::string fixedName(const char* p, size_t cap) {
    return std::string(p, strnlen(p, cap));
}

template <typename T> T readRecord(const uint8_t* p) {
    T v{};
    memcpy(&v, p, sizeof v);
    return v;
}

} // namespace

// ---- default handler: a driver that accepts everything and knows nothing -------------------

HelloAnswer Handler::hello(const Peer&) {
    return HelloAnswer{};
}
int32_t Handler::shell(const Peer&, const std::string&) {
    return 0;
}
Result Handler::procRead(const Peer&, const std::string&, uint32_t, Bytes&) {
    return Result::fail(ENOENT);
}
Result Handler::procWrite(const Peer&, const std::string&, const Bytes&) {
    return Result::fail(ENOENT);
}
Result Handler::random(const Peer&, uint32_t, Bytes&) {
    return Result::fail(ENOSYS);
}
Result Handler::wlanSocket(const Peer&) {
    return Result{};
}
Result Handler::ioctl(const Peer&, IoctlCall&) {
    return Result{};
}
Result Handler::netlinkOpen(const Peer&, uint32_t) {
    return Result{};
}
Result Handler::netlinkBind(const Peer&, uint32_t) {
    return Result{};
}
void Handler::netlinkSend(const Peer&, const Bytes&) {}
Result Handler::packetOpen(const Peer&, uint32_t) {
    return Result{};
}
Result Handler::packetIfIndex(const Peer&, uint32_t, const std::string&) {
    return Result::fail(ENODEV);
}
Result Handler::packetSend(const Peer&, uint32_t, int32_t, const Bytes& frame) {
    return Result{static_cast<int32_t>(frame.size()), 0};
}
Result Handler::packetWait(const Peer&, uint32_t, uint32_t, uint32_t realTimeoutMs) {
    std::this_thread::sleep_for(std::chrono::milliseconds(realTimeoutMs)); // nothing arrives
    return Result{0, 0};
}
Result Handler::packetRecv(const Peer&, uint32_t, uint32_t, Bytes&) {
    return Result::fail(EAGAIN);
}
Result Handler::close(const Peer&, uint32_t, uint32_t) {
    return Result{};
}
Result Handler::sem(const Peer&, const SemCall&) {
    return Result{};
}
void Handler::malformed(const Peer&, uint32_t, const std::string&) {}
void Handler::disconnected(const Peer&) {}
void Handler::stopping() {}

// ---- server ---------------------------------------------------------------------------------

Server::Server(std::string root, Handler& handler)
    : root_(std::move(root)), path_(root_ + REMOTE_SOCKET_NAME), handler_(handler) {}

Server::~Server() {
    stop();
}

bool Server::start(std::string* error) {
    sockaddr_un addr{};
    if (path_.size() >= sizeof addr.sun_path) {
        if (error != nullptr) {
            *error = "socket path too long: " + path_;
        }
        return false;
    }
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (error != nullptr) {
            *error = std::string("socket: ") + strerror(errno);
        }
        return false;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
    unlink(path_.c_str());
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 || listen(fd, 16) < 0) {
        if (error != nullptr) {
            *error = "cannot listen on " + path_ + ": " + strerror(errno);
        }
        ::close(fd);
        return false;
    }
    listenFd_ = fd;
    stopping_ = false;
    acceptThread_ = std::thread([this] { acceptLoop(); });
    return true;
}

void Server::stop() {
    if (listenFd_ < 0) {
        return;
    }
    stopping_ = true;
    handler_.stopping();
    {
        std::lock_guard<std::mutex> g(mu_);
        for (auto& c : conns_) {
            shutdown(c->fd, SHUT_RDWR);
        }
    }
    if (acceptThread_.joinable()) {
        acceptThread_.join();
    }
    std::list<std::unique_ptr<Conn>> conns;
    {
        std::lock_guard<std::mutex> g(mu_);
        conns.swap(conns_);
    }
    for (auto& c : conns) {
        shutdown(c->fd, SHUT_RDWR); // accepted after the first round
        if (c->thread.joinable()) {
            c->thread.join();
        }
        ::close(c->fd);
    }
    ::close(listenFd_);
    listenFd_ = -1;
    unlink(path_.c_str());
    announcedCv_.notify_all();
}

void Server::acceptLoop() {
    while (!stopping_) {
        pollfd p{listenFd_, POLLIN, 0};
        int r = poll(&p, 1, 50); // looks at stopping_ between connections
        if (r <= 0) {
            continue;
        }
        int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        int sndbuf = 4 * static_cast<int>(sizeof(RemoteRspHeader) + REMOTE_MAX_BODY);
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
        std::lock_guard<std::mutex> g(mu_);
        reapDone();
        if (stopping_) {
            ::close(fd);
            break;
        }
        auto c = std::make_unique<Conn>();
        c->fd = fd;
        c->peer.id = nextId_++;
        Conn* raw = c.get();
        conns_.push_back(std::move(c));
        raw->thread = std::thread([this, raw] { serve(raw); });
    }
}

void Server::reapDone() {
    for (auto it = conns_.begin(); it != conns_.end();) {
        if ((*it)->done) {
            (*it)->thread.join();
            ::close((*it)->fd);
            it = conns_.erase(it);
        } else {
            ++it;
        }
    }
}

void Server::serve(Conn* c) {
    Bytes buf(sizeof(RemoteReqHeader) + REMOTE_MAX_BODY);
    for (;;) {
        ssize_t n = recv(c->fd, buf.data(), buf.size(), MSG_TRUNC);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0 || stopping_) {
            break;
        }
        if (static_cast<size_t>(n) > buf.size()) {
            handler_.malformed(c->peer, 0, "request larger than any operation's");
            reply(c, Result::fail(EMSGSIZE), nullptr, 0);
            continue;
        }
        if (!handle(c, buf.data(), static_cast<size_t>(n))) {
            break;
        }
    }
    if (c->helloDone) {
        handler_.disconnected(c->peer);
    }
    // The peer learns at once that nothing more will be answered; the descriptor itself is
    // closed when the connection is reaped.
    shutdown(c->fd, SHUT_RDWR);
    c->done = true;
}

bool Server::reply(Conn* c, Result r, const void* body, size_t len) {
    RemoteRspHeader h{r.value, r.value < 0 ? r.err : 0, static_cast<uint32_t>(len)};
    Bytes msg(sizeof h + len);
    memcpy(msg.data(), &h, sizeof h);
    if (len > 0) {
        memcpy(msg.data() + sizeof h, body, len);
    }
    std::lock_guard<std::mutex> g(c->sendMu);
    return send(c->fd, msg.data(), msg.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(msg.size());
}

bool Server::handle(Conn* c, const uint8_t* msg, size_t len) {
    Peer& peer = c->peer;
    auto bad = [&](uint32_t op, const std::string& why, int err) {
        handler_.malformed(peer, op, why);
        return reply(c, Result::fail(err), nullptr, 0);
    };
    if (len < sizeof(RemoteReqHeader)) {
        return bad(0, "request shorter than its header", EPROTO);
    }
    auto h = readRecord<RemoteReqHeader>(msg);
    const uint8_t* body = msg + sizeof h;
    size_t blen = len - sizeof h;
    if (h.length != blen) {
        if (h.op == REMOTE_OP_NETLINK_SEND) {
            handler_.malformed(peer, h.op, "length does not match the message");
            return true; // never answered
        }
        return bad(h.op, "length does not match the message", EPROTO);
    }
    if (!c->helloDone && h.op != REMOTE_OP_HELLO) {
        return bad(h.op, "the first request of a connection must be a hello", EPROTO);
    }
    auto need = [&](size_t n, bool exact) { return exact ? blen == n : blen >= n; };

    switch (h.op) {
    case REMOTE_OP_HELLO: {
        if (!need(sizeof(RemoteHelloReq), true)) {
            return bad(h.op, "hello body is not 32 bytes", EPROTO);
        }
        auto req = readRecord<RemoteHelloReq>(body);
        RemoteHelloRsp rsp{};
        rsp.version = REMOTE_PROTO_VERSION;
        if (req.version != REMOTE_PROTO_VERSION) {
            handler_.malformed(peer, h.op, "protocol version " + std::to_string(req.version));
            return reply(c, Result::fail(EPROTONOSUPPORT), &rsp, sizeof rsp);
        }
        peer.pid = req.pid;
        peer.timeScale = req.timeScale;
        peer.connection = req.connection;
        peer.role = fixedName(req.role, sizeof req.role);
        HelloAnswer a = handler_.hello(peer);
        if (!a.accept) {
            return reply(c, Result::fail(EACCES), &rsp, sizeof rsp);
        }
        rsp.flags = a.flags;
        rsp.uptime = a.uptime;
        memcpy(rsp.bkhApIfName, a.config.bkhApIfName, sizeof rsp.bkhApIfName);
        memcpy(rsp.staIfName, a.config.staIfName, sizeof rsp.staIfName);
        rsp.maxVapNum = a.config.maxVapNum;
        rsp.downLinkPortNum = a.config.downLinkPortNum;
        memcpy(rsp.downLinkPorts, a.config.downLinkPorts, sizeof rsp.downLinkPorts);
        c->helloDone = true;
        return reply(c, Result{}, &rsp, sizeof rsp);
    }
    case REMOTE_OP_SHELL:
        return reply(c, Result{handler_.shell(peer, std::string(body, body + blen)), 0}, nullptr,
                     0);
    case REMOTE_OP_PROC_READ:
    case REMOTE_OP_RANDOM: {
        bool proc = h.op == REMOTE_OP_PROC_READ;
        if (!need(4, !proc)) {
            return bad(h.op, "body too short", EPROTO);
        }
        uint32_t max = readRecord<uint32_t>(body);
        max = max < REMOTE_MAX_PAYLOAD ? max : static_cast<uint32_t>(REMOTE_MAX_PAYLOAD);
        Bytes out;
        Result r = proc ? handler_.procRead(peer, std::string(body + 4, body + blen), max, out)
                        : handler_.random(peer, max, out);
        if (r.value < 0) {
            return reply(c, r, nullptr, 0);
        }
        out.resize(out.size() < max ? out.size() : max);
        return reply(c, Result{static_cast<int32_t>(out.size()), 0}, out.data(), out.size());
    }
    case REMOTE_OP_PROC_WRITE: {
        if (!need(4, false)) {
            return bad(h.op, "body too short", EPROTO);
        }
        uint32_t plen = readRecord<uint32_t>(body);
        if (plen > blen - 4) {
            return bad(h.op, "path longer than the body", EPROTO);
        }
        std::string path(body + 4, body + 4 + plen);
        Bytes data(body + 4 + plen, body + blen);
        return reply(c, handler_.procWrite(peer, path, data), nullptr, 0);
    }
    case REMOTE_OP_WLAN_SOCKET:
        if (!need(0, true)) {
            return bad(h.op, "wlan-socket has no body", EPROTO);
        }
        return reply(c, handler_.wlanSocket(peer), nullptr, 0);
    case REMOTE_OP_IOCTL: {
        if (!need(sizeof(RemoteIoctlReq), false)) {
            return bad(h.op, "body too short", EPROTO);
        }
        auto req = readRecord<RemoteIoctlReq>(body);
        IoctlCall call;
        call.socket = req.socket;
        call.request = req.request;
        call.kind = req.kind;
        call.ifName = fixedName(req.ifName, sizeof req.ifName);
        call.flags = req.flags;
        call.length = req.length;
        call.payload.assign(body + sizeof req, body + blen);
        Result r = handler_.ioctl(peer, call);
        if (call.payload.size() > REMOTE_MAX_PAYLOAD) {
            call.payload.resize(REMOTE_MAX_PAYLOAD);
        }
        Bytes out(sizeof(RemoteIoctlRsp) + call.payload.size());
        RemoteIoctlRsp rsp{call.length, 0};
        memcpy(out.data(), &rsp, sizeof rsp);
        if (!call.payload.empty()) {
            memcpy(out.data() + sizeof rsp, call.payload.data(), call.payload.size());
        }
        return reply(c, r, out.data(), out.size());
    }
    case REMOTE_OP_NETLINK_OPEN:
    case REMOTE_OP_NETLINK_BIND:
    case REMOTE_OP_PACKET_OPEN: {
        if (!need(4, true)) {
            return bad(h.op, "body is not 4 bytes", EPROTO);
        }
        uint32_t v = readRecord<uint32_t>(body);
        Result r = h.op == REMOTE_OP_NETLINK_OPEN   ? handler_.netlinkOpen(peer, v)
                   : h.op == REMOTE_OP_NETLINK_BIND ? handler_.netlinkBind(peer, v)
                                                    : handler_.packetOpen(peer, v);
        return reply(c, r, nullptr, 0);
    }
    case REMOTE_OP_NETLINK_SEND: {
        handler_.netlinkSend(peer, Bytes(body, body + blen));
        {
            std::lock_guard<std::mutex> g(mu_);
            c->announced = true;
        }
        announcedCv_.notify_all();
        return true;
    }
    case REMOTE_OP_PACKET_IFINDEX: {
        if (!need(sizeof(RemotePacketIfIndexReq), true)) {
            return bad(h.op, "body is not 20 bytes", EPROTO);
        }
        auto req = readRecord<RemotePacketIfIndexReq>(body);
        return reply(
            c, handler_.packetIfIndex(peer, req.socket, fixedName(req.ifName, sizeof req.ifName)),
            nullptr, 0);
    }
    case REMOTE_OP_PACKET_SEND: {
        if (!need(sizeof(RemotePacketSendReq), false)) {
            return bad(h.op, "body too short", EPROTO);
        }
        auto req = readRecord<RemotePacketSendReq>(body);
        Bytes frame(body + sizeof req, body + blen);
        return reply(c, handler_.packetSend(peer, req.socket, req.ifIndex, frame), nullptr, 0);
    }
    case REMOTE_OP_PACKET_WAIT: {
        if (!need(sizeof(RemotePacketWaitReq), true)) {
            return bad(h.op, "body is not 12 bytes", EPROTO);
        }
        auto req = readRecord<RemotePacketWaitReq>(body);
        return reply(c, handler_.packetWait(peer, req.socket, req.timeoutMs, req.realTimeoutMs),
                     nullptr, 0);
    }
    case REMOTE_OP_PACKET_RECV: {
        if (!need(sizeof(RemotePacketRecvReq), true)) {
            return bad(h.op, "body is not 8 bytes", EPROTO);
        }
        auto req = readRecord<RemotePacketRecvReq>(body);
        uint32_t max =
            req.max < REMOTE_MAX_PAYLOAD ? req.max : static_cast<uint32_t>(REMOTE_MAX_PAYLOAD);
        Bytes out;
        Result r = handler_.packetRecv(peer, req.socket, max, out);
        if (r.value < 0) {
            return reply(c, r, nullptr, 0);
        }
        out.resize(out.size() < max ? out.size() : max);
        return reply(c, Result{static_cast<int32_t>(out.size()), 0}, out.data(), out.size());
    }
    case REMOTE_OP_CLOSE: {
        if (!need(sizeof(RemoteCloseReq), true)) {
            return bad(h.op, "body is not 8 bytes", EPROTO);
        }
        auto req = readRecord<RemoteCloseReq>(body);
        return reply(c, handler_.close(peer, req.kind, req.socket), nullptr, 0);
    }
    case REMOTE_OP_SEM: {
        if (!need(sizeof(RemoteSemReq), false) ||
            (blen - sizeof(RemoteSemReq)) % sizeof(RemoteSemOp) != 0) {
            return bad(h.op, "body is not 16 bytes plus whole operations", EPROTO);
        }
        auto req = readRecord<RemoteSemReq>(body);
        SemCall call{req.call, req.a, req.b, req.c, {}};
        for (size_t off = sizeof req; off < blen; off += sizeof(RemoteSemOp)) {
            call.ops.push_back(readRecord<RemoteSemOp>(body + off));
        }
        return reply(c, handler_.sem(peer, call), nullptr, 0);
    }
    default:
        return bad(h.op, "unknown operation " + std::to_string(h.op), ENOSYS);
    }
}

int Server::pushNetlink(const Bytes& message) {
    std::lock_guard<std::mutex> g(mu_);
    int sent = 0;
    for (auto& c : conns_) {
        if (!c->announced || c->done) {
            continue;
        }
        std::lock_guard<std::mutex> s(c->sendMu);
        if (send(c->fd, message.data(), message.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(message.size())) {
            ++sent;
        }
    }
    return sent;
}

bool Server::waitNetlinkReady(int timeoutMs) {
    std::unique_lock<std::mutex> g(mu_);
    return announcedCv_.wait_for(g, std::chrono::milliseconds(timeoutMs), [this] {
        for (auto& c : conns_) {
            if (c->announced && !c->done) {
                return true;
            }
        }
        return stopping_.load();
    }) && !stopping_;
}

} // namespace emu
