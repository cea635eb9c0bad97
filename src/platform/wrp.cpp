#include "platform/wrp.h"

#include "platform/os.h"
#include "platform/unix_sock.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int g_moduleId = 0;
char g_moduleName[32];

constexpr int kTimeoutMs = 2000;

void putLe32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

uint32_t getLe32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

bool io(int fd, void* buf, size_t len, bool out) {
    auto* p = static_cast<uint8_t*>(buf);
    size_t done = 0;
    while (done < len) {
        pollfd pf{fd, static_cast<short>(out ? POLLOUT : POLLIN), 0};
        int r = poll(&pf, 1, kTimeoutMs);
        if (r < 0 && errno == EINTR) {
            continue;
        }
        if (r <= 0) {
            return false;
        }
        ssize_t n =
            out ? send(fd, p + done, len - done, MSG_NOSIGNAL) : recv(fd, p + done, len - done, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

int wrpInit(int moduleId, const char* name) {
    g_moduleId = moduleId;
    snprintf(g_moduleName, sizeof g_moduleName, "%s", name != nullptr ? name : "");
    return 0;
}

int wrpOpDo(uint32_t opCode, const void* in, uint32_t inLen, void* out, uint32_t outCap) {
    if ((inLen > 0 && in == nullptr) || (outCap > 0 && out == nullptr)) {
        return 1;
    }
    char path[256];
    char run[200];
    os().path("/var/run", run, sizeof run);
    if (snprintf(path, sizeof path, "%s/wrp.sock", run) >= static_cast<int>(sizeof path)) {
        return 1;
    }
    int fd = unix_sock_connectPath(path);
    if (fd < 0) {
        return 1;
    }
    uint8_t h[WRP_HEADER_SIZE];
    putLe32(h, WRP_REQ_MAGIC);
    putLe32(h + 4, opCode);
    putLe32(h + 8, inLen);
    putLe32(h + 12, outCap);
    int result = 1;
    if (io(fd, h, sizeof h, true) && io(fd, const_cast<void*>(in), inLen, true) &&
        io(fd, h, sizeof h, false) && getLe32(h) == WRP_RSP_MAGIC) {
        auto rc = static_cast<int32_t>(getLe32(h + 4));
        uint32_t outLen = getLe32(h + 8);
        uint8_t sink[256];
        bool ok = true;
        uint32_t take = outLen < outCap ? outLen : outCap;
        ok = io(fd, out, take, false);
        // Output beyond the caller's buffer is read and dropped.
        for (uint32_t left = outLen - take; ok && left > 0;) {
            uint32_t n = left < sizeof sink ? left : static_cast<uint32_t>(sizeof sink);
            ok = io(fd, sink, n, false);
            left -= n;
        }
        result = ok ? rc : 1;
    }
    close(fd);
    return result;
}
