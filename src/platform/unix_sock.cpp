#include "platform/unix_sock.h"

#include "platform/os.h"

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

namespace {

int64_t nowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The receive budget of the connection being served. The command server serves one
// connection at a time, so one slot per thread is enough.
thread_local int t_budgetFd = -1;
thread_local int64_t t_budgetEnd = 0;

int64_t budgetFor(int fd, bool start) {
    if (start || fd != t_budgetFd) {
        t_budgetFd = fd;
        t_budgetEnd = nowMs() + UNIX_SOCK_RECV_TIMEOUT_MS;
    }
    return t_budgetEnd;
}

// Waits until `fd` is ready for `events` or `deadline` passes. 0 ready, -1 with errno.
int waitFor(int fd, short events, int64_t deadline) {
    for (;;) {
        int64_t left = deadline - nowMs();
        if (left <= 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        pollfd p{fd, events, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r > 0) {
            return 0;
        }
        if (r < 0 && errno != EINTR) {
            return -1;
        }
    }
}

// Each receive and send is tried first and waited for only when the socket has nothing or
// no room (MSG_DONTWAIT, also on blocking sockets): a peer that keeps up costs no poll.
int recvAll(int fd, uint8_t* buf, size_t len, int64_t deadline) {
    size_t got = 0;
    while (got < len) {
        ssize_t n = recv(fd, buf + got, len - got, MSG_DONTWAIT);
        if (n > 0) {
            got += static_cast<size_t>(n);
            continue;
        }
        if (n == 0) {
            errno = ECONNRESET;
            return -1;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN || waitFor(fd, POLLIN, deadline) < 0) {
            return -1;
        }
    }
    return 0;
}

// Sends the `count` pieces of `iov` whole within 2 seconds. MSG_NOSIGNAL: a requester that
// went away must not kill the daemon with SIGPIPE.
int sendAllv(int fd, iovec* iov, int count) {
    const int64_t deadline = nowMs() + UNIX_SOCK_RECV_TIMEOUT_MS;
    for (;;) {
        while (count > 0 && iov->iov_len == 0) {
            ++iov;
            --count;
        }
        if (count == 0) {
            return 0;
        }
        msghdr m{};
        m.msg_iov = iov;
        m.msg_iovlen = static_cast<size_t>(count);
        ssize_t n = sendmsg(fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno != EINTR && (errno != EAGAIN || waitFor(fd, POLLOUT, deadline) < 0)) {
                return -1;
            }
            continue;
        }
        // Drop what went out: whole pieces, then the front of a partly sent one.
        for (size_t left = static_cast<size_t>(n); left > 0;) {
            if (left >= iov->iov_len) {
                left -= iov->iov_len;
                ++iov;
                --count;
            } else {
                iov->iov_base = static_cast<uint8_t*>(iov->iov_base) + left;
                iov->iov_len -= left;
                left = 0;
            }
        }
    }
}

int sendAll(int fd, const uint8_t* buf, size_t len) {
    iovec v{const_cast<uint8_t*>(buf), len};
    return sendAllv(fd, &v, 1);
}

void putLe32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

uint32_t getLe32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

uint32_t g_ownSenderId = 0; // sender id of the server this process runs, for reply headers

void buildHeader(uint8_t* h, uint32_t code, uint32_t len, uint32_t sender) {
    putLe32(h, UNIX_SOCK_MAGIC);
    putLe32(h + 4, code);
    putLe32(h + 8, len);
    putLe32(h + 12, sender);
}

int mkdirs(const char* path) {
    char tmp[256];
    if (snprintf(tmp, sizeof tmp, "%s", path) >= static_cast<int>(sizeof tmp)) {
        return -1;
    }
    for (char* p = tmp + 1; *p != '\0'; ++p) {
        if (*p == '/') {
            *p = '\0';
            mkdir(tmp, 0755);
            *p = '/';
        }
    }
    if (mkdir(tmp, 0755) < 0 && errno != EEXIST) {
        return -1;
    }
    return 0;
}

// The socket's directory must be ours and closed to everybody else: whoever may write to it
// could put their own socket in place of ours.
int checkDir(const char* dir) {
    struct stat st {};
    if (lstat(dir, &st) < 0) {
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    if (st.st_uid != geteuid() || (st.st_mode & 022) != 0) {
        errno = EPERM;
        return -1;
    }
    return 0;
}

// ---- pending connections, read side by side ------------------------------------------------
//
// A server's connections are accepted as they come and their requests read side by side,
// each within its own budget; one whose request is whole, or has failed or run out of time,
// joins the queue of finished ones, which unix_sock_accept hands out in order. The server
// thread is the only user of this state, except l_servingFd: the send and receive calls look
// there, from any thread, whether a descriptor is a connection being served (a client's
// descriptor of another thread never is, so such a thread reads nothing else here).

enum class Stage : uint8_t { Free, Reading, Finished, Serving };

struct Pending {
    int fd;
    int listenFd;
    Stage stage;
    int err;          // why reading ended early (0: the request is whole)
    int64_t deadline; // end of the connection's budget
    size_t got;       // bytes buffered
    size_t need;      // bytes that make the request whole, header included
    size_t pos;       // bytes handed to the server so far
    bool headerHeld;  // a reply header waits to go out with the body
    uint8_t reply[UNIX_SOCK_HEADER_SIZE];
    uint8_t buf[UNIX_SOCK_HEADER_SIZE + UNIX_SOCK_PENDING_BODY];
};

Pending l_pending[UNIX_SOCK_PENDING_MAX];
std::atomic<int> l_servingFd[UNIX_SOCK_PENDING_MAX]; // the slot's fd + 1 while Serving, else 0

// Moves a slot into or out of Serving, keeping l_servingFd in step.
void setStage(Pending& p, Stage stage) {
    p.stage = stage;
    l_servingFd[&p - l_pending].store(stage == Stage::Serving ? p.fd + 1 : 0,
                                      std::memory_order_release);
}
int l_finished[UNIX_SOCK_PENDING_MAX]; // slot numbers in the order reading ended
int l_finishedCount = 0;
int l_servers[4] = {-1, -1, -1, -1};       // listening descriptors opened by unix_sock_initSrv
int l_serverWaitSec[4] = {-1, -1, -1, -1}; // receive time-out last set on each, -1: none
unsigned l_nextServer = 0;

size_t serverIndex(int fd) {
    for (size_t i = 0; i < 4; ++i) {
        if (fd >= 0 && l_servers[i] == fd) {
            return i;
        }
    }
    return 0; // not reached: callers pass a server
}

bool isServer(int fd) {
    return fd >= 0 && l_servers[serverIndex(fd)] == fd;
}

Pending* servingSlot(int fd) {
    if (fd < 0) {
        return nullptr;
    }
    for (size_t i = 0; i < UNIX_SOCK_PENDING_MAX; ++i) {
        if (l_servingFd[i].load(std::memory_order_acquire) == fd + 1) {
            return &l_pending[i];
        }
    }
    return nullptr;
}

void finish(Pending& p, int err) {
    p.stage = Stage::Finished;
    p.err = err;
    l_finished[l_finishedCount++] = static_cast<int>(&p - l_pending);
}

// Reads what the connection has. A header with a wrong magic, or a body larger than the
// buffer, ends reading at what is buffered; the server's receives report it or go on
// reading from the socket.
void readSome(Pending& p, int64_t now) {
    for (;;) {
        ssize_t n = recv(p.fd, p.buf + p.got, sizeof p.buf - p.got, MSG_DONTWAIT);
        if (n > 0) {
            p.got += static_cast<size_t>(n);
            if (p.need == UNIX_SOCK_HEADER_SIZE && p.got >= UNIX_SOCK_HEADER_SIZE &&
                getLe32(p.buf) == UNIX_SOCK_MAGIC) {
                uint64_t whole = UNIX_SOCK_HEADER_SIZE + uint64_t{getLe32(p.buf + 8)};
                p.need = whole < sizeof p.buf ? static_cast<size_t>(whole) : sizeof p.buf;
            }
            if (p.got >= p.need) {
                finish(p, 0);
                return;
            }
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n == 0) {
            finish(p, ECONNRESET);
        } else if (errno != EAGAIN) {
            finish(p, errno);
        } else if (now >= p.deadline) {
            finish(p, ETIMEDOUT);
        }
        return;
    }
}

bool hasFinished(int listenFd) {
    for (int i = 0; i < l_finishedCount; ++i) {
        if (l_pending[l_finished[i]].listenFd == listenFd) {
            return true;
        }
    }
    return false;
}

Pending* freeSlot() {
    for (Pending& p : l_pending) {
        if (p.stage == Stage::Free) {
            return &p;
        }
    }
    return nullptr;
}

// Puts an accepted connection into `slot` and reads what it sent already.
void adopt(Pending& slot, int fd, int listenFd) {
    const int64_t now = nowMs();
    slot = Pending{};
    slot.fd = fd;
    slot.listenFd = listenFd;
    slot.stage = Stage::Reading;
    slot.deadline = now + UNIX_SOCK_RECV_TIMEOUT_MS;
    slot.need = UNIX_SOCK_HEADER_SIZE;
    readSome(slot, now);
}

// Takes one connection from the backlog into a free slot and reads what it sent already.
// The listening socket is a blocking one: after a poll that found it ready accept returns at
// once, and an idle server may wait in accept itself (see acceptIdle).
// 0, 1 when no slot is free or nothing was pending, -1 with errno when accept fails.
int acceptOne(int listenFd) {
    Pending* slot = freeSlot();
    if (slot == nullptr) {
        return 1;
    }
    // Close-on-exec: shell children of the daemon must not inherit a client's connection.
    int fd = accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        return (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) ? 1 : -1;
    }
    adopt(*slot, fd, listenFd);
    return 0;
}

// An idle server (nothing being read, nothing finished, a slot free, nothing else to watch)
// waits in accept itself, as a plain server would, rather than in poll followed by accept:
// one system call less for every request that arrives at an idle server. The wait is bounded
// by the socket's receive time-out, set only when it changes. What the request still lacks
// is read in the caller's rounds, which watch the server too: a staller delays nobody.
// 0 (accepted, or nothing came in time), -1 with errno when accept fails.
int acceptIdle(int listenFd, int timeoutSec) {
    int& setSec = l_serverWaitSec[serverIndex(listenFd)];
    if (setSec != timeoutSec) {
        timeval tv{timeoutSec, 0};
        if (setsockopt(listenFd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) < 0) {
            return -1;
        }
        setSec = timeoutSec;
    }
    int fd = accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        return (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) ? 0 : -1;
    }
    adopt(*freeSlot(), fd, listenFd);
    return 0;
}

bool isIdle(int listenFd) {
    for (const Pending& p : l_pending) {
        if (p.listenFd == listenFd && (p.stage == Stage::Reading || p.stage == Stage::Finished)) {
            return false;
        }
    }
    return freeSlot() != nullptr;
}

// One round of waiting: polls the descriptors of `others` (a group without its servers),
// the servers of `servers` while a slot is free, and the connections being read, for at
// most `timeoutMs` (-1: no limit) or until the nearest budget ends. Ready descriptors of
// `others` are left in `ready`. -1 with errno when poll or accept fails.
int pumpOnce(const int* servers, int serverCount, const int* others, int otherCount, int timeoutMs,
             int* ready, int* readyCount) {
    pollfd fds[64 + 4 + UNIX_SOCK_PENDING_MAX];
    nfds_t n = 0;
    for (int i = 0; i < otherCount && n < 64; ++i) {
        fds[n++] = pollfd{others[i], POLLIN, 0};
    }
    const nfds_t firstServer = n;
    bool slotFree = false;
    for (const Pending& p : l_pending) {
        slotFree = slotFree || p.stage == Stage::Free;
    }
    for (int i = 0; i < serverCount && slotFree; ++i) {
        fds[n++] = pollfd{servers[i], POLLIN, 0};
    }
    const nfds_t firstConn = n;
    int slotOf[UNIX_SOCK_PENDING_MAX];
    int64_t now = nowMs();
    int64_t wait = timeoutMs < 0 ? INT64_MAX : timeoutMs;
    for (int i = 0; i < UNIX_SOCK_PENDING_MAX; ++i) {
        const Pending& p = l_pending[i];
        bool ours = false;
        for (int k = 0; k < serverCount; ++k) {
            ours = ours || p.listenFd == servers[k];
        }
        if (p.stage == Stage::Reading && ours) {
            slotOf[n - firstConn] = i;
            fds[n++] = pollfd{p.fd, POLLIN, 0};
            wait = std::min<int64_t>(wait, std::max<int64_t>(p.deadline - now, 0));
        }
    }
    int r = poll(fds, n, wait == INT64_MAX ? -1 : static_cast<int>(wait));
    if (r < 0) {
        return errno == EINTR ? 0 : -1;
    }
    now = nowMs();
    for (nfds_t i = firstConn; i < n; ++i) {
        Pending& p = l_pending[slotOf[i - firstConn]];
        if (fds[i].revents != 0 || now >= p.deadline) {
            readSome(p, now); // at the deadline what arrived still counts
        }
    }
    for (nfds_t i = firstServer; i < firstConn; ++i) {
        if ((fds[i].revents & POLLNVAL) != 0) {
            errno = EBADF;
            return -1;
        }
        if (fds[i].revents != 0 && acceptOne(fds[i].fd) < 0) {
            return -1;
        }
    }
    for (nfds_t i = 0; i < firstServer; ++i) {
        if (fds[i].revents != 0) {
            ready[(*readyCount)++] = fds[i].fd;
        }
    }
    return 0;
}

} // namespace

uint32_t unix_sock_senderId(const char* name) {
    if (name != nullptr && strcmp(name, "mesh") == 0) {
        return UNIX_SOCK_SENDER_MESH;
    }
    return 0;
}

int unix_sock_srvPath(int srvId, char* out, size_t cap) {
    char run[200];
    os().path("/var/run", run, sizeof run);
    int n = snprintf(out, cap, "%s/usock/%d.sock", run, srvId);
    return (n < 0 || static_cast<size_t>(n) >= cap) ? -1 : 0;
}

int unix_sock_initSrv(int srvId, UNIX_SOCK_SRV_CTX* ctx, int backlog) {
    if (ctx == nullptr) {
        return -1;
    }
    ctx->listenFd = -1;
    ctx->srvId = srvId;
    sockaddr_un addr{};
    if (unix_sock_srvPath(srvId, ctx->path, sizeof ctx->path) < 0 ||
        strlen(ctx->path) >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    char dir[sizeof ctx->path];
    snprintf(dir, sizeof dir, "%s", ctx->path);
    *strrchr(dir, '/') = '\0';
    if (mkdirs(dir) < 0 || checkDir(dir) < 0) {
        return -1;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, ctx->path, strlen(ctx->path) + 1);
    unlink(ctx->path); // a socket left by an earlier run
    // Create the socket file with no access for others, then set exactly 0600.
    mode_t old = umask(077);
    int rc = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    umask(old);
    if (rc < 0 || chmod(ctx->path, 0600) < 0 || listen(fd, backlog) < 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    ctx->listenFd = fd;
    g_ownSenderId = static_cast<uint32_t>(srvId);
    // Connections left over from a closed server that had this descriptor are dropped.
    for (Pending& p : l_pending) {
        if (p.stage != Stage::Free && p.listenFd == fd) {
            close(p.fd);
            setStage(p, Stage::Free);
        }
    }
    int kept = 0;
    for (int i = 0; i < l_finishedCount; ++i) {
        if (l_pending[l_finished[i]].stage == Stage::Finished) {
            l_finished[kept++] = l_finished[i];
        }
    }
    l_finishedCount = kept;
    if (!isServer(fd)) {
        l_servers[l_nextServer++ % 4] = fd;
    }
    l_serverWaitSec[serverIndex(fd)] = -1;
    return 0;
}

constexpr int kGroupFds = 32 * 32;

void unix_sock_groupClear(UNIX_SOCK_GROUP* group) {
    memset(group->bits, 0, sizeof group->bits);
    group->maxFd = -1;
}

void unix_sock_groupAddTo(int fd, UNIX_SOCK_GROUP* group) {
    if (fd < 0 || fd >= kGroupFds || fd >= FD_SETSIZE) {
        return;
    }
    group->bits[fd / 32] |= 1u << (fd % 32);
    if (fd > group->maxFd) {
        group->maxFd = fd;
    }
}

namespace {

// A group without servers: select() as it is.
int selectWait(UNIX_SOCK_GROUP* group, int timeoutSec) {
    fd_set set;
    FD_ZERO(&set);
    for (int fd = 0; fd <= group->maxFd; ++fd) {
        if (group->bits[fd / 32] & (1u << (fd % 32))) {
            FD_SET(fd, &set);
        }
    }
    timeval tv{timeoutSec, 0};
    int n = select(group->maxFd + 1, &set, nullptr, nullptr, &tv);
    // Leave only the ready descriptors in the group, as select() does with its set.
    for (int fd = 0; fd <= group->maxFd; ++fd) {
        if (n <= 0 || !FD_ISSET(fd, &set)) {
            group->bits[fd / 32] &= ~(1u << (fd % 32));
        }
    }
    return n;
}

} // namespace

int unix_sock_groupWait(UNIX_SOCK_GROUP* group, int timeoutSec) {
    // Servers of the group count as ready once a request of theirs has been read (or has
    // failed); their connections are read meanwhile.
    int servers[4];
    int others[64];
    int serverCount = 0;
    int otherCount = 0;
    for (int fd = 0; fd <= group->maxFd; ++fd) {
        if ((group->bits[fd / 32] & (1u << (fd % 32))) == 0) {
            continue;
        }
        if (isServer(fd) && serverCount < 4) {
            servers[serverCount++] = fd;
        } else if (otherCount < 64) {
            others[otherCount++] = fd;
        } else {
            serverCount = 0; // too many to poll alongside: plain select
            break;
        }
    }
    if (serverCount == 0) {
        return selectWait(group, timeoutSec);
    }
    int ready[68];
    int readyCount = 0;
    const int64_t end = nowMs() + static_cast<int64_t>(timeoutSec < 0 ? 0 : timeoutSec) * 1000;
    if (serverCount == 1 && otherCount == 0 && timeoutSec > 0 && isIdle(servers[0]) &&
        acceptIdle(servers[0], timeoutSec) < 0) {
        return -1;
    }
    for (bool first = true;; first = false) {
        for (int i = 0; i < serverCount; ++i) {
            if (hasFinished(servers[i])) {
                ready[readyCount++] = servers[i];
            }
        }
        const int64_t left = end - nowMs();
        if (readyCount > 0 || (left <= 0 && !first)) {
            break;
        }
        if (pumpOnce(servers, serverCount, others, otherCount,
                     static_cast<int>(std::max<int64_t>(left, 0)), ready, &readyCount) < 0) {
            return -1;
        }
    }
    // Leave only the ready descriptors in the group, as select() does with its set.
    unix_sock_groupClear(group);
    for (int i = 0; i < readyCount; ++i) {
        unix_sock_groupAddTo(ready[i], group);
    }
    return readyCount;
}

int unix_sock_accept(int listenFd) {
    if (listenFd < 0) {
        errno = EBADF;
        return -1;
    }
    while (!hasFinished(listenFd)) {
        int none = 0;
        if (pumpOnce(&listenFd, 1, nullptr, 0, -1, nullptr, &none) < 0) {
            return -1;
        }
    }
    for (int i = 0; i < l_finishedCount; ++i) {
        Pending& p = l_pending[l_finished[i]];
        if (p.listenFd == listenFd) {
            memmove(&l_finished[i], &l_finished[i + 1],
                    sizeof l_finished[0] * static_cast<size_t>(l_finishedCount - i - 1));
            --l_finishedCount;
            setStage(p, Stage::Serving);
            return p.fd;
        }
    }
    return -1; // not reached: a finished request was found above
}

int unix_sock_close(int conn) {
    int rc = 0;
    if (Pending* p = servingSlot(conn)) {
        if (p->headerHeld) {
            rc = sendAll(conn, p->reply, sizeof p->reply);
        }
        setStage(*p, Stage::Free);
        p->fd = -1;
    }
    return close(conn) < 0 ? -1 : rc;
}

int unix_sock_isSet(int fd, UNIX_SOCK_GROUP* group) {
    if (fd < 0 || fd >= kGroupFds) {
        return 0;
    }
    return (group->bits[fd / 32] & (1u << (fd % 32))) != 0 ? 1 : 0;
}

int unix_sock_recvHeader(int conn, int code, int32_t* len) {
    uint8_t h[UNIX_SOCK_HEADER_SIZE];
    if (len == nullptr) {
        return -1;
    }
    if (Pending* p = servingSlot(conn)) {
        if (p->got < sizeof h) {
            errno = p->err;
            return -1;
        }
        memcpy(h, p->buf, sizeof h);
        p->pos = sizeof h;
    } else if (recvAll(conn, h, sizeof h, budgetFor(conn, true)) < 0) {
        return -1;
    }
    if (getLe32(h) != UNIX_SOCK_MAGIC || getLe32(h + 4) != static_cast<uint32_t>(code)) {
        errno = EPROTO;
        return -1;
    }
    *len = static_cast<int32_t>(getLe32(h + 8));
    return 0;
}

int unix_sock_recvData(int conn, int len, void* buf) {
    if (len < 0 || (len > 0 && buf == nullptr)) {
        return -1;
    }
    uint8_t* out = static_cast<uint8_t*>(buf);
    size_t want = static_cast<size_t>(len);
    if (Pending* p = servingSlot(conn)) {
        const size_t have = std::min(want, p->got - p->pos);
        memcpy(out, p->buf + p->pos, have);
        p->pos += have;
        if (have == want) {
            return 0;
        }
        if (p->err != 0) {
            errno = p->err;
            return -1;
        }
        // A body larger than the buffer: the rest comes from the socket within the budget.
        return recvAll(conn, out + have, want - have, p->deadline);
    }
    return recvAll(conn, out, want, budgetFor(conn, false));
}

int unix_sock_sendHeader(int conn, int len, int code) {
    if (Pending* p = servingSlot(conn)) {
        // Held back and sent with the body in one call (or at unix_sock_close).
        buildHeader(p->reply, static_cast<uint32_t>(code), static_cast<uint32_t>(len),
                    g_ownSenderId);
        p->headerHeld = true;
        return 0;
    }
    uint8_t h[UNIX_SOCK_HEADER_SIZE];
    buildHeader(h, static_cast<uint32_t>(code), static_cast<uint32_t>(len), g_ownSenderId);
    return sendAll(conn, h, sizeof h);
}

int unix_sock_sendData(int conn, const void* buf, int len) {
    if (len < 0 || (len > 0 && buf == nullptr)) {
        return -1;
    }
    iovec v[2] = {{nullptr, 0}, {const_cast<void*>(buf), static_cast<size_t>(len)}};
    if (Pending* p = servingSlot(conn); p != nullptr && p->headerHeld) {
        v[0] = iovec{p->reply, sizeof p->reply};
        p->headerHeld = false;
    }
    return sendAllv(conn, v, 2);
}

int unix_sock_connectPath(const char* path) {
    sockaddr_un addr{};
    if (path == nullptr || strlen(path) >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path, strlen(path) + 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

int unix_sock_sendDataToSrvWithoutResp(const char* name, int srvId, const void* buf, int len,
                                       int code) {
    if (len < 0 || (len > 0 && buf == nullptr)) {
        return -1;
    }
    char path[256];
    if (unix_sock_srvPath(srvId, path, sizeof path) < 0) {
        return -1;
    }
    int fd = unix_sock_connectPath(path);
    if (fd < 0) {
        return -1;
    }
    uint8_t h[UNIX_SOCK_HEADER_SIZE];
    buildHeader(h, static_cast<uint32_t>(code), static_cast<uint32_t>(len),
                unix_sock_senderId(name));
    int rc = sendAll(fd, h, sizeof h);
    if (rc == 0) {
        rc = sendAll(fd, static_cast<const uint8_t*>(buf), static_cast<size_t>(len));
    }
    close(fd);
    return rc;
}
