#include "platform/unix_sock.h"

#include "platform/os.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
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

int recvAll(int fd, uint8_t* buf, size_t len, int64_t deadline) {
    size_t got = 0;
    while (got < len) {
        int64_t left = deadline - nowMs();
        if (left <= 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        pollfd p{fd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (r == 0) {
            continue; // re-check the deadline
        }
        ssize_t n = recv(fd, buf + got, len - got, 0);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            return -1;
        }
        if (n == 0) {
            errno = ECONNRESET;
            return -1;
        }
        got += static_cast<size_t>(n);
    }
    return 0;
}

int sendAll(int fd, const uint8_t* buf, size_t len) {
    int64_t deadline = nowMs() + UNIX_SOCK_RECV_TIMEOUT_MS;
    size_t sent = 0;
    while (sent < len) {
        int64_t left = deadline - nowMs();
        if (left <= 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        pollfd p{fd, POLLOUT, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r < 0 && errno != EINTR) {
            return -1;
        }
        if (r <= 0) {
            continue;
        }
        // MSG_NOSIGNAL: a requester that went away must not kill the daemon with SIGPIPE.
        ssize_t n = send(fd, buf + sent, len - sent, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            return -1;
        }
        sent += static_cast<size_t>(n);
    }
    return 0;
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
    if (mkdirs(dir) < 0) {
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

int unix_sock_groupWait(UNIX_SOCK_GROUP* group, int timeoutSec) {
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

int unix_sock_isSet(int fd, UNIX_SOCK_GROUP* group) {
    if (fd < 0 || fd >= kGroupFds) {
        return 0;
    }
    return (group->bits[fd / 32] & (1u << (fd % 32))) != 0 ? 1 : 0;
}

int unix_sock_recvHeader(int conn, int code, int32_t* len) {
    uint8_t h[UNIX_SOCK_HEADER_SIZE];
    if (len == nullptr || recvAll(conn, h, sizeof h, budgetFor(conn, true)) < 0) {
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
    return recvAll(conn, static_cast<uint8_t*>(buf), static_cast<size_t>(len),
                   budgetFor(conn, false));
}

int unix_sock_sendHeader(int conn, int len, int code) {
    uint8_t h[UNIX_SOCK_HEADER_SIZE];
    buildHeader(h, static_cast<uint32_t>(code), static_cast<uint32_t>(len), g_ownSenderId);
    return sendAll(conn, h, sizeof h);
}

int unix_sock_sendData(int conn, const void* buf, int len) {
    if (len < 0 || (len > 0 && buf == nullptr)) {
        return -1;
    }
    return sendAll(conn, static_cast<const uint8_t*>(buf), static_cast<size_t>(len));
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
