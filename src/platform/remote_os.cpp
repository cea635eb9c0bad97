#include "platform/remote_os.h"

#include "platform/linux_os.h"
#include "platform/wireless.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

namespace {

class MonotonicClock : public RemoteOs::RealClock {
  public:
    uint64_t nowMicros() override {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<uint64_t>(ts.tv_sec) * 1000000u +
               static_cast<uint64_t>(ts.tv_nsec) / 1000u;
    }
    void sleepMicros(uint64_t us) override {
        timespec req{static_cast<time_t>(us / 1000000u), static_cast<long>(us % 1000000u) * 1000L};
        while (nanosleep(&req, &req) < 0 && errno == EINTR) {
        }
    }
};

MonotonicClock g_monotonic;

// Real time a lost netlink receive sleeps between looks at whether its socket was closed.
constexpr uint64_t kLostPollMicros = 50000;

bool isIfreqRequest(unsigned long request) {
    return request == SIOCGIFFLAGS || request == SIOCGIFINDEX;
}

void copyName(char* dst, const char* src, size_t cap) {
    memset(dst, 0, cap); // NUL-padded; a name of exactly `cap` characters fills the field
    if (src != nullptr) {
        memcpy(dst, src, strnlen(src, cap));
    }
}

void writeAll(int fd, const char* text, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, text, len);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        text += n;
        len -= static_cast<size_t>(n);
    }
}

int localRandom(void* buf, size_t len) {
    int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    ssize_t n = read(fd, buf, len);
    close(fd);
    return n < 0 ? 0 : static_cast<int>(n);
}

// A descriptor number of our own for the wireless and packet sockets, which exist only in
// the emulator: an open /dev/null keeps the number from being handed out twice.
int placeholderFd() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

// Runs with thread cancellation held off: a request and its reply are never torn apart.
class NoCancel {
  public:
    NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_); }
    ~NoCancel() { pthread_setcancelstate(old_, nullptr); }
    NoCancel(const NoCancel&) = delete;
    NoCancel& operator=(const NoCancel&) = delete;

  private:
    int old_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace

RemoteOs::RemoteOs() : cfg_(defaultDeviceConfig()), clock_(&g_monotonic) {}

RemoteOs::~RemoteOs() {
    if (keyMade_) {
        pthread_key_delete(key_);
    }
    for (Conn& c : threadConns_) {
        if (c.fd >= 0) {
            close(c.fd);
        }
    }
    for (Conn& c : netlinkConns_) {
        if (c.fd >= 0) {
            close(c.fd);
        }
    }
    for (Descriptor& d : fds_) {
        if (d.kind == Kind::Wlan || d.kind == Kind::Packet) {
            close(d.fd);
        }
    }
}

void RemoteOs::setRealClock(RealClock* clock) {
    clock_ = clock != nullptr ? clock : &g_monotonic;
}

// ---- connections ------------------------------------------------------------------------------

int RemoteOs::start(const char* root, uint32_t timeScale) {
    if (root == nullptr || root[0] != '/' || timeScale < 1 || timeScale > kMaxTimeScale) {
        errno = EINVAL;
        return -1;
    }
    size_t len = strlen(root);
    while (len > 1 && root[len - 1] == '/') {
        --len;
    }
    if (len > kRootMax) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(root_, root, len);
    root_[len] = '\0';
    if (len == 1) {
        root_[0] = '\0'; // "/": fixed paths stay as they are
    }
    timeScale_ = timeScale;
    semKey_ = remote_semKeyForRoot(root_);
    if (!keyMade_) {
        if (pthread_key_create(&key_, &RemoteOs::releaseThreadConn) != 0) {
            errno = EAGAIN;
            return -1;
        }
        keyMade_ = true;
    }

    Conn& c = threadConns_[0];
    c.inUse = true;
    c.lost = false;
    c.number = nextConnNumber_++;
    RemoteHelloRsp rsp{};
    if (!connect(c, "main", &rsp)) {
        int saved = errno;
        c.inUse = false;
        errno = saved;
        return -1;
    }
    pthread_setspecific(key_, &c);

    serveRandom_ = (rsp.flags & REMOTE_HELLO_RANDOM) != 0;
    uptimeBase_ = rsp.uptime;
    cfg_ = DeviceConfig{};
    memcpy(cfg_.bkhApIfName, rsp.bkhApIfName, sizeof cfg_.bkhApIfName - 1);
    memcpy(cfg_.staIfName, rsp.staIfName, sizeof cfg_.staIfName - 1);
    cfg_.maxVapNum = rsp.maxVapNum;
    cfg_.downLinkPortNum = rsp.downLinkPortNum < DeviceConfig::kMaxDownLinkPorts
                               ? rsp.downLinkPortNum
                               : DeviceConfig::kMaxDownLinkPorts;
    for (int i = 0; i < DeviceConfig::kMaxDownLinkPorts; ++i) {
        memcpy(cfg_.downLinkPorts[i], rsp.downLinkPorts[i], sizeof cfg_.downLinkPorts[i] - 1);
    }
    realStartUs_ = clock_->nowMicros();
    wallBase_ = time(nullptr);
    return 0;
}

bool RemoteOs::connect(Conn& c, const char* role, RemoteHelloRsp* rsp) {
    c.lost = true; // until the hello is through
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    int n = snprintf(addr.sun_path, sizeof addr.sun_path, "%s%s", root_, REMOTE_SOCKET_NAME);
    if (n < 0 || static_cast<size_t>(n) >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    int sndbuf = 4 * static_cast<int>(sizeof c.buf);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return false;
    }
    c.fd = fd;
    c.lost = false;

    RemoteHelloReq req{};
    req.version = REMOTE_PROTO_VERSION;
    req.pid = static_cast<uint32_t>(getpid());
    req.timeScale = timeScale_;
    req.connection = c.number;
    copyName(req.role, role, sizeof req.role);
    memcpy(body(c), &req, sizeof req);
    Reply reply{};
    if (!exchange(&c, REMOTE_OP_HELLO, sizeof req, &reply)) {
        errno = ECONNREFUSED;
        return false;
    }
    RemoteHelloRsp got{};
    if (reply.result != 0 || reply.length < sizeof got) {
        markLost(c, "the emulator refused the hello");
        errno = EPROTO;
        return false;
    }
    memcpy(&got, reply.body, sizeof got);
    if (got.version != REMOTE_PROTO_VERSION) {
        markLost(c, "the emulator speaks another protocol version");
        errno = EPROTO;
        return false;
    }
    if (rsp != nullptr) {
        *rsp = got;
    }
    return true;
}

RemoteOs::Conn* RemoteOs::threadConn() {
    if (!keyMade_) {
        return nullptr;
    }
    auto* c = static_cast<Conn*>(pthread_getspecific(key_));
    if (c != nullptr) {
        return c;
    }
    for (Conn& slot : threadConns_) {
        bool expected = false;
        if (slot.inUse.compare_exchange_strong(expected, true)) {
            slot.number = nextConnNumber_++;
            if (!connect(slot, "thread", nullptr)) {
                markLost(slot, "no emulator answers a new connection");
            }
            pthread_setspecific(key_, &slot);
            return &slot;
        }
    }
    return nullptr; // more threads than slots: this thread sees a vanished driver
}

void RemoteOs::releaseThreadConn(void* p) {
    auto* c = static_cast<Conn*>(p);
    int fd = c->fd.exchange(-1);
    if (fd >= 0) {
        close(fd);
    }
    c->lost = false;
    c->inUse = false;
}

void RemoteOs::markLost(Conn& c, const char* why) {
    c.lost = true;
    if (!lostReported_.exchange(true)) {
        char line[160];
        int n = snprintf(line, sizeof line,
                         "zormesh-node: %s; driver operations fail from now on\n", why);
        if (n > 0) {
            writeStderr(line, static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n)
                                                                   : sizeof line - 1);
        }
    }
}

bool RemoteOs::sendRequest(Conn& c, uint32_t op, size_t bodyLen) {
    RemoteReqHeader h{op, static_cast<uint32_t>(bodyLen)};
    memcpy(c.buf.data(), &h, sizeof h);
    size_t total = sizeof h + bodyLen;
    for (;;) {
        ssize_t n = send(c.fd, c.buf.data(), total, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n != static_cast<ssize_t>(total)) {
            markLost(c, "the emulator connection broke");
            return false;
        }
        return true;
    }
}

bool RemoteOs::exchange(Conn* cp, uint32_t op, size_t bodyLen, Reply* reply) {
    if (cp == nullptr || cp->lost || cp->fd < 0 || bodyLen > REMOTE_MAX_BODY) {
        return false;
    }
    Conn& c = *cp;
    NoCancel hold;
    if (!sendRequest(c, op, bodyLen)) {
        return false;
    }
    ssize_t n;
    do {
        n = recv(c.fd, c.buf.data(), c.buf.size(), MSG_TRUNC);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) {
        markLost(c, "the emulator closed its connection");
        return false;
    }
    RemoteRspHeader h{};
    if (static_cast<size_t>(n) < sizeof h || static_cast<size_t>(n) > c.buf.size()) {
        markLost(c, "the emulator sent a malformed reply");
        return false;
    }
    memcpy(&h, c.buf.data(), sizeof h);
    if (h.length != static_cast<size_t>(n) - sizeof h) {
        markLost(c, "the emulator sent a malformed reply");
        return false;
    }
    reply->result = h.result;
    reply->err = h.err;
    reply->body = c.buf.data() + sizeof h;
    reply->length = h.length;
    return true;
}

// ---- descriptors ------------------------------------------------------------------------------

int RemoteOs::addDescriptor(Kind kind, int fd, int32_t remoteId, Conn* conn) {
    std::lock_guard<std::mutex> g(fdMu_);
    for (Descriptor& d : fds_) {
        if (d.kind == Kind::None) {
            d = Descriptor{fd, kind, remoteId, conn};
            return fd;
        }
    }
    errno = EMFILE;
    return -1;
}

RemoteOs::Descriptor* RemoteOs::findDescriptor(int fd, Kind kind) {
    for (Descriptor& d : fds_) {
        if (d.kind != Kind::None && d.fd == fd && (kind == Kind::None || d.kind == kind)) {
            return &d;
        }
    }
    return nullptr;
}

// The emulator's id of a descriptor: >= 0, -1 when the emulator never gave one, -2 when
// the descriptor is not of this kind (errno EBADF).
int32_t RemoteOs::remoteIdOf(int fd, Kind kind) {
    std::lock_guard<std::mutex> g(fdMu_);
    Descriptor* d = findDescriptor(fd, kind);
    if (d == nullptr) {
        errno = EBADF;
        return -2;
    }
    return d->remoteId;
}

// ---- shell, files, randomness --------------------------------------------------------------

int RemoteOs::runShell(const char* line) {
    if (line == nullptr) {
        return 1;
    }
    Conn* c = threadConn();
    size_t len = strlen(line);
    if (c == nullptr || len > REMOTE_MAX_BODY) {
        return 1;
    }
    memcpy(body(*c), line, len);
    Reply r{};
    if (!exchange(c, REMOTE_OP_SHELL, len, &r)) {
        return 1;
    }
    return r.result;
}

const char* RemoteOs::path(const char* fixed, char* out, size_t cap) {
    return linux_impl::joinPath(root_, fixed, out, cap);
}

int RemoteOs::readProc(const char* path, void* buf, size_t max) {
    Conn* c = threadConn();
    size_t plen = path != nullptr ? strlen(path) : 0;
    if (c == nullptr || path == nullptr || plen > REMOTE_MAX_BODY - sizeof(RemoteProcReadReq)) {
        errno = ENOENT;
        return -1;
    }
    RemoteProcReadReq req{
        static_cast<uint32_t>(max < REMOTE_MAX_PAYLOAD ? max : REMOTE_MAX_PAYLOAD)};
    memcpy(body(*c), &req, sizeof req);
    memcpy(body(*c) + sizeof req, path, plen);
    Reply r{};
    if (!exchange(c, REMOTE_OP_PROC_READ, sizeof req + plen, &r)) {
        errno = ENOENT; // the kernel module is gone with the emulator
        return -1;
    }
    if (r.result < 0) {
        errno = r.err;
        return -1;
    }
    size_t n = r.length < req.max ? r.length : req.max;
    if (n > 0) {
        memcpy(buf, r.body, n);
    }
    return static_cast<int>(n);
}

int RemoteOs::writeProc(const char* path, const void* buf, size_t len) {
    Conn* c = threadConn();
    size_t plen = path != nullptr ? strlen(path) : 0;
    if (c == nullptr || path == nullptr ||
        plen + len > REMOTE_MAX_BODY - sizeof(RemoteProcWriteReq)) {
        errno = path == nullptr || c == nullptr ? ENOENT : EFBIG;
        return -1;
    }
    RemoteProcWriteReq req{static_cast<uint32_t>(plen)};
    uint8_t* b = body(*c);
    memcpy(b, &req, sizeof req);
    memcpy(b + sizeof req, path, plen);
    if (len > 0) {
        memcpy(b + sizeof req + plen, buf, len);
    }
    Reply r{};
    if (!exchange(c, REMOTE_OP_PROC_WRITE, sizeof req + plen + len, &r)) {
        errno = ENOENT;
        return -1;
    }
    if (r.result < 0) {
        errno = r.err;
        return r.result == -1 ? -1 : -2;
    }
    return 0;
}

int RemoteOs::readRandom(void* buf, size_t len) {
    Conn* c = serveRandom_ ? threadConn() : nullptr;
    if (c == nullptr || c->lost) {
        return localRandom(buf, len); // /dev/urandom does not vanish with the driver
    }
    size_t done = 0;
    auto* out = static_cast<uint8_t*>(buf);
    while (done < len) {
        size_t want = len - done < REMOTE_MAX_PAYLOAD ? len - done : REMOTE_MAX_PAYLOAD;
        RemoteRandomReq req{static_cast<uint32_t>(want)};
        memcpy(body(*c), &req, sizeof req);
        Reply r{};
        if (!exchange(c, REMOTE_OP_RANDOM, sizeof req, &r)) {
            int n = localRandom(out + done, len - done);
            return n < 0 ? -1 : static_cast<int>(done) + n;
        }
        if (r.result < 0) {
            errno = r.err;
            return -1;
        }
        size_t n = r.length < want ? r.length : want;
        memcpy(out + done, r.body, n);
        done += n;
        if (n < want) {
            break; // the emulator handed out less: a short read
        }
    }
    return static_cast<int>(done);
}

// ---- wireless ioctls ----------------------------------------------------------------------------

// Opens a descriptor of `kind` whose far end the emulator creates with `op` and `len` request
// bytes. With the emulator gone the descriptor still opens (remote id -1), so that the calls
// on it fail later the way a vanished driver's would.
int RemoteOs::openRemote(Kind kind, uint32_t op, const void* req, size_t len) {
    int fd = placeholderFd();
    if (fd < 0) {
        return -1;
    }
    int32_t id = -1;
    Conn* c = threadConn();
    if (c != nullptr) {
        if (len > 0) {
            memcpy(body(*c), req, len);
        }
        Reply r{};
        if (exchange(c, op, len, &r)) {
            if (r.result < 0) {
                close(fd);
                errno = r.err;
                return -1;
            }
            id = r.result;
        }
    }
    if (addDescriptor(kind, fd, id, nullptr) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int RemoteOs::wlanSocket() {
    return openRemote(Kind::Wlan, REMOTE_OP_WLAN_SOCKET, nullptr, 0);
}

int RemoteOs::wlanIoctl(int fd, unsigned long request, void* arg) {
    int32_t id = remoteIdOf(fd, Kind::Wlan);
    if (id == -2) {
        return -1;
    }
    if (arg == nullptr) {
        errno = EFAULT;
        return -1;
    }
    Conn* c = threadConn();
    if (id < 0 || c == nullptr || c->lost) {
        errno = ENODEV;
        return -1;
    }
    auto* ifr = static_cast<ifreq*>(arg);
    auto* iwr = static_cast<iwreq*>(arg);
    bool isIfreq = isIfreqRequest(request);
    RemoteIoctlReq req{};
    req.socket = static_cast<uint32_t>(id);
    req.request = static_cast<uint32_t>(request);
    req.kind = isIfreq ? REMOTE_IOCTL_IFREQ : REMOTE_IOCTL_IWPOINT;
    memcpy(req.ifName, ifr->ifr_name, sizeof req.ifName);
    const uint8_t* payload;
    size_t payloadLen;
    if (isIfreq) {
        req.length = 16;
        payload = reinterpret_cast<const uint8_t*>(&ifr->ifr_ifru);
        payloadLen = 16;
    } else {
        req.flags = iwr->u.data.flags;
        req.length = iwr->u.data.length;
        payload = static_cast<const uint8_t*>(iwr->u.data.pointer);
        payloadLen = payload != nullptr ? req.length : 0;
    }
    memcpy(body(*c), &req, sizeof req);
    if (payloadLen > 0) {
        memcpy(body(*c) + sizeof req, payload, payloadLen);
    }
    Reply r{};
    if (!exchange(c, REMOTE_OP_IOCTL, sizeof req + payloadLen, &r)) {
        errno = ENODEV;
        return -1;
    }
    if (r.length >= sizeof(RemoteIoctlRsp)) {
        RemoteIoctlRsp rsp{};
        memcpy(&rsp, r.body, sizeof rsp);
        size_t got = r.length - sizeof rsp;
        size_t n = got < payloadLen ? got : payloadLen;
        if (n > 0) {
            memcpy(const_cast<uint8_t*>(payload), r.body + sizeof rsp, n);
        }
        if (!isIfreq) {
            iwr->u.data.length = rsp.length;
        }
    }
    if (r.result < 0) {
        errno = r.err != 0 ? r.err : EIO;
        return -1;
    }
    return r.result;
}

// ---- netlink ------------------------------------------------------------------------------------

int RemoteOs::netlinkOpen(int protocol) {
    Conn* c = nullptr;
    for (Conn& slot : netlinkConns_) {
        bool expected = false;
        if (slot.inUse.compare_exchange_strong(expected, true)) {
            c = &slot;
            break;
        }
    }
    if (c == nullptr) {
        errno = EMFILE;
        return -1;
    }
    c->number = nextConnNumber_++;
    auto release = [c](int err) {
        int fd = c->fd.exchange(-1);
        if (fd >= 0) {
            close(fd);
        }
        c->inUse = false;
        errno = err;
        return -1;
    };
    if (!connect(*c, "netlink", nullptr)) {
        markLost(*c, "no emulator answers the netlink connection");
        return release(EPROTONOSUPPORT); // no driver, no protocol
    }
    RemoteU32Req req{static_cast<uint32_t>(protocol)};
    memcpy(body(*c), &req, sizeof req);
    Reply r{};
    if (!exchange(c, REMOTE_OP_NETLINK_OPEN, sizeof req, &r)) {
        return release(EPROTONOSUPPORT);
    }
    if (r.result < 0) {
        return release(r.err);
    }
    int fd = c->fd;
    if (addDescriptor(Kind::Netlink, fd, 0, c) < 0) {
        return release(EMFILE);
    }
    return fd;
}

RemoteOs::Conn* RemoteOs::netlinkConnOf(int fd) {
    std::lock_guard<std::mutex> g(fdMu_);
    Descriptor* d = findDescriptor(fd, Kind::Netlink);
    if (d == nullptr) {
        errno = EBADF;
        return nullptr;
    }
    return d->conn;
}

int RemoteOs::netlinkBind(int fd, uint32_t portId) {
    Conn* c = netlinkConnOf(fd);
    if (c == nullptr) {
        return -1;
    }
    RemoteU32Req req{portId};
    memcpy(body(*c), &req, sizeof req);
    Reply r{};
    if (!exchange(c, REMOTE_OP_NETLINK_BIND, sizeof req, &r)) {
        errno = ECONNREFUSED;
        return -1;
    }
    if (r.result < 0) {
        errno = r.err;
        return -1;
    }
    return 0;
}

int RemoteOs::netlinkSend(int fd, const void* buf, size_t len) {
    Conn* c = netlinkConnOf(fd);
    if (c == nullptr) {
        return -1;
    }
    if (len > REMOTE_MAX_BODY) {
        errno = EMSGSIZE;
        return -1;
    }
    if (c->lost) {
        errno = ECONNREFUSED;
        return -1;
    }
    NoCancel hold;
    if (len > 0) {
        memcpy(body(*c), buf, len);
    }
    if (!sendRequest(*c, REMOTE_OP_NETLINK_SEND, len)) {
        errno = ECONNREFUSED;
        return -1;
    }
    return static_cast<int>(len);
}

int RemoteOs::netlinkRecv(int fd, void* buf, size_t max) {
    Conn* c;
    uint32_t generation;
    {
        std::lock_guard<std::mutex> g(fdMu_);
        Descriptor* d = findDescriptor(fd, Kind::Netlink);
        if (d == nullptr) {
            errno = EBADF;
            return -1;
        }
        c = d->conn;
        generation = c->generation;
        ++c->receivers; // closeFd() waits for us before it closes the descriptor
    }
    int result = -1;
    int err = EBADF;
    if (!c->lost) {
        ssize_t n;
        do {
            n = recv(fd, buf, max, 0);
        } while (n < 0 && errno == EINTR);
        if (n > 0) {
            result = static_cast<int>(n);
            err = 0;
        } else if (c->generation == generation) {
            markLost(*c, "the emulator closed the netlink connection");
        }
    }
    // A vanished driver sends no more events: wait until the socket is closed.
    while (result < 0 && c->generation == generation) {
        g_monotonic.sleepMicros(kLostPollMicros); // real time, whatever clock is installed
    }
    --c->receivers;
    if (result < 0) {
        errno = err;
    }
    return result;
}

// ---- packet sockets -----------------------------------------------------------------------------

int RemoteOs::packetOpen(uint16_t etherType) {
    RemoteU32Req req{etherType};
    return openRemote(Kind::Packet, REMOTE_OP_PACKET_OPEN, &req, sizeof req);
}

int RemoteOs::packetIfIndex(int fd, const char* ifName) {
    int32_t id = remoteIdOf(fd, Kind::Packet);
    if (id == -2) {
        return -1;
    }
    Conn* c = threadConn();
    Reply r{};
    if (id >= 0 && c != nullptr) {
        RemotePacketIfIndexReq req{};
        req.socket = static_cast<uint32_t>(id);
        copyName(req.ifName, ifName, sizeof req.ifName);
        memcpy(body(*c), &req, sizeof req);
        if (exchange(c, REMOTE_OP_PACKET_IFINDEX, sizeof req, &r)) {
            if (r.result < 0) {
                errno = r.err;
                return -1;
            }
            return r.result;
        }
    }
    errno = ENODEV;
    return -1;
}

// The protocol is the socket's own EtherType, which the emulator learned at packet-open.
int RemoteOs::packetSend(int fd, int ifIndex, uint16_t /*protocol*/, const void* frame,
                         size_t len) {
    int32_t id = remoteIdOf(fd, Kind::Packet);
    if (id == -2) {
        return -1;
    }
    if (len > REMOTE_MAX_PAYLOAD) {
        errno = EMSGSIZE;
        return -1;
    }
    Conn* c = threadConn();
    Reply r{};
    if (id >= 0 && c != nullptr) {
        RemotePacketSendReq req{static_cast<uint32_t>(id), ifIndex};
        memcpy(body(*c), &req, sizeof req);
        if (len > 0) {
            memcpy(body(*c) + sizeof req, frame, len);
        }
        if (exchange(c, REMOTE_OP_PACKET_SEND, sizeof req + len, &r)) {
            if (r.result < 0) {
                errno = r.err;
                return -1;
            }
            return r.result;
        }
    }
    errno = ENETDOWN;
    return -1;
}

int RemoteOs::packetWait(int fd, int timeoutMs) {
    int32_t id = remoteIdOf(fd, Kind::Packet);
    if (id == -2) {
        return -1;
    }
    uint32_t ms = timeoutMs > 0 ? static_cast<uint32_t>(timeoutMs) : 0;
    Conn* c = threadConn();
    Reply r{};
    if (id >= 0 && c != nullptr) {
        RemotePacketWaitReq req{static_cast<uint32_t>(id), ms, (ms + timeScale_ - 1) / timeScale_};
        memcpy(body(*c), &req, sizeof req);
        if (exchange(c, REMOTE_OP_PACKET_WAIT, sizeof req, &r)) {
            if (r.result < 0) {
                errno = r.err;
                return -1;
            }
            return r.result;
        }
    }
    realSleepNodeMicros(uint64_t(ms) * 1000u); // nothing arrives: the time-out passes
    return 0;
}

int RemoteOs::packetRecv(int fd, void* buf, size_t max) {
    int32_t id = remoteIdOf(fd, Kind::Packet);
    if (id == -2) {
        return -1;
    }
    Conn* c = threadConn();
    Reply r{};
    if (id >= 0 && c != nullptr) {
        uint32_t cap = static_cast<uint32_t>(max < REMOTE_MAX_PAYLOAD ? max : REMOTE_MAX_PAYLOAD);
        RemotePacketRecvReq req{static_cast<uint32_t>(id), cap};
        memcpy(body(*c), &req, sizeof req);
        if (exchange(c, REMOTE_OP_PACKET_RECV, sizeof req, &r)) {
            if (r.result < 0) {
                errno = r.err;
                return -1;
            }
            size_t n = r.length < cap ? r.length : cap;
            if (n > 0) {
                memcpy(buf, r.body, n);
            }
            return static_cast<int>(n);
        }
    }
    errno = EAGAIN;
    return -1;
}

void RemoteOs::closeFd(int fd) {
    Descriptor d;
    {
        std::lock_guard<std::mutex> g(fdMu_);
        Descriptor* p = findDescriptor(fd, Kind::None);
        if (p == nullptr) {
            return;
        }
        d = *p;
        *p = Descriptor{};
        if (d.kind == Kind::Netlink) {
            ++d.conn->generation; // ends a receive that waits on a lost connection
        }
    }
    if (d.kind == Kind::Netlink) {
        Conn* c = d.conn;
        int cfd = c->fd.exchange(-1);
        if (cfd >= 0) {
            shutdown(cfd, SHUT_RDWR); // ends a receive that waits on a live one
            while (c->receivers > 0) {
                g_monotonic.sleepMicros(1000); // the descriptor stays until they are gone
            }
            close(cfd);
        }
        c->lost = false;
        c->inUse = false;
        return;
    }
    close(d.fd);
    Conn* c = threadConn();
    if (d.remoteId >= 0 && c != nullptr) {
        RemoteCloseReq req{d.kind == Kind::Wlan ? REMOTE_CLOSE_WLAN : REMOTE_CLOSE_PACKET,
                           static_cast<uint32_t>(d.remoteId)};
        memcpy(body(*c), &req, sizeof req);
        Reply r{};
        exchange(c, REMOTE_OP_CLOSE, sizeof req, &r);
    }
}

// ---- semaphore ----------------------------------------------------------------------------------

// Reports a call to the emulator before it is made. Returns 0 to go on, or the errno the
// emulator wants the call to fail with. A lost emulator lets every call go on.
int RemoteOs::semReport(uint32_t call, int32_t a, int32_t b, int32_t c, const struct sembuf* ops,
                        size_t nops) {
    Conn* conn = threadConn();
    if (conn == nullptr || conn->lost) {
        return 0;
    }
    size_t n = nops < REMOTE_SEM_MAX_OPS ? nops : REMOTE_SEM_MAX_OPS;
    RemoteSemReq req{call, a, b, c};
    uint8_t* p = body(*conn);
    memcpy(p, &req, sizeof req);
    for (size_t i = 0; i < n; ++i) {
        RemoteSemOp op{ops[i].sem_num, ops[i].sem_op, ops[i].sem_flg};
        memcpy(p + sizeof req + i * sizeof op, &op, sizeof op);
    }
    Reply r{};
    if (!exchange(conn, REMOTE_OP_SEM, sizeof req + n * sizeof(RemoteSemOp), &r)) {
        return 0;
    }
    return r.result < 0 ? (r.err != 0 ? r.err : EIO) : 0;
}

uint32_t RemoteOs::semKey() {
    return semKey_;
}

int RemoteOs::semGet(uint32_t key, int nsems, int flags) {
    if (int err = semReport(REMOTE_SEM_GET, static_cast<int32_t>(key), nsems, flags, nullptr, 0)) {
        errno = err;
        return -1;
    }
    return semget(static_cast<key_t>(key), nsems, flags);
}

int RemoteOs::semSetVal(int id, int num, int value) {
    if (int err = semReport(REMOTE_SEM_SETVAL, id, num, value, nullptr, 0)) {
        errno = err;
        return -1;
    }
    return semctl(id, num, SETVAL, value);
}

int RemoteOs::semRemove(int id) {
    if (int err = semReport(REMOTE_SEM_REMOVE, id, 0, 0, nullptr, 0)) {
        errno = err;
        return -1;
    }
    return semctl(id, 0, IPC_RMID);
}

int RemoteOs::semOp(int id, struct sembuf* ops, size_t nops) {
    if (int err = semReport(REMOTE_SEM_OP, id, static_cast<int32_t>(nops), 0, ops, nops)) {
        errno = err;
        return -1;
    }
    return semop(id, ops, nops); // may block: the lock itself stays on this machine
}

// ---- time, identity, configuration, output ----------------------------------------------------

uint64_t RemoteOs::nodeMicros() {
    return (clock_->nowMicros() - realStartUs_) * timeScale_;
}

void RemoteOs::realSleepNodeMicros(uint64_t nodeUs) {
    clock_->sleepMicros((nodeUs + timeScale_ - 1) / timeScale_);
}

uint32_t RemoteOs::uptime() {
    return uptimeBase_ + static_cast<uint32_t>(nodeMicros() / 1000000u);
}

void RemoteOs::sleepSeconds(unsigned sec) {
    realSleepNodeMicros(uint64_t(sec) * 1000000u);
}

void RemoteOs::sleepMillis(unsigned ms) {
    realSleepNodeMicros(uint64_t(ms) * 1000u);
}

time_t RemoteOs::wallClock() {
    return wallBase_ + static_cast<time_t>(nodeMicros() / 1000000u);
}

int RemoteOs::processId() {
    return static_cast<int>(getpid());
}

const DeviceConfig& RemoteOs::deviceConfig() {
    return cfg_;
}

void RemoteOs::writeStdout(const char* text, size_t len) {
    writeAll(1, text, len);
}

void RemoteOs::writeStderr(const char* text, size_t len) {
    writeAll(2, text, len);
}
