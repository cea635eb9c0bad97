#include "core/mesh_log.h"

#include "platform/os.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <mutex>

#include "platform/seam_guard.h"

FILE* g_meshLog = nullptr;

namespace {
// Keeps one event line, its size check and a truncation together.
std::mutex l_logMutex;
} // namespace

int mesh_log_open() {
    RootedPath p(MESH_LOG_PATH);
    std::lock_guard<std::mutex> g(l_logMutex);
    g_meshLog = fopen(p.c_str(), "w");
    if (g_meshLog == nullptr) {
        MESH_ERR("open log file failed");
        return 1;
    }
    return 0;
}

void mesh_errorLog(const char* func, int line, const char* fmt, ...) {
    // Error texts may quote a whole profile value (up to 9125 characters): one buffer large
    // enough for that, shared under a lock rather than placed on a thread's stack.
    static char buf[12 * 1024];
    static std::mutex bufMutex;
    std::lock_guard<std::mutex> g(bufMutex);
    int n = snprintf(buf, sizeof buf, "[MESH][ERROR](%s) %05d: ", func, line);
    if (n < 0 || n >= static_cast<int>(sizeof buf)) {
        n = 0;
    }
    va_list ap;
    va_start(ap, fmt);
    int m = vsnprintf(buf + n, sizeof buf - static_cast<size_t>(n), fmt, ap);
    va_end(ap);
    size_t len = static_cast<size_t>(n) + (m < 0 ? 0 : static_cast<size_t>(m));
    if (len > sizeof buf - 3) {
        len = sizeof buf - 3; // a cut text still ends its line
    }
    buf[len++] = '\r';
    buf[len++] = '\n';
    os().writeStdout(buf, len);
}

void mesh_eventLog(const char* fmt, ...) {
    std::lock_guard<std::mutex> g(l_logMutex);
    if (g_meshLog == nullptr) {
        return;
    }
    time_t now = os().wallClock();
    struct tm tmv {};
    localtime_r(&now, &tmv);
    fprintf(g_meshLog, "[%04d-%02d-%02d %02d:%02d:%02d]", tmv.tm_year + 1900, tmv.tm_mon + 1,
            tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(g_meshLog, fmt, ap);
    va_end(ap);
    fputs("\r\n", g_meshLog);
    if (ftell(g_meshLog) > MESH_LOG_MAX_SIZE) {
        RootedPath p(MESH_LOG_PATH);
        FILE* f = freopen(p.c_str(), "w", g_meshLog);
        if (f == nullptr) {
            g_meshLog = nullptr; // the stream is gone; later lines are dropped
            return;
        }
        g_meshLog = f;
    }
    fflush(g_meshLog);
}

void mesh_perror(const char* what) {
    char buf[256];
    int n = snprintf(buf, sizeof buf, "%s: %s\n", what, strerror(errno));
    if (n > 0) {
        os().writeStderr(buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n)
                                                                  : sizeof buf - 1);
    }
}
