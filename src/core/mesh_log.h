// The two logs of the daemon.
//
// Error log: one line per failure on standard output,
//   "[MESH][ERROR](<function>) <line, 5 digits>: <text>\r\n".
// Event log: "/tmp/zormesh.log", one line per notable event,
//   "[YYYY-MM-DD hh:mm:ss]<text>\r\n" in local time; when the file passes 65536 bytes after a
//   line it starts again empty.
#pragma once

#include <cstdio>

constexpr long MESH_LOG_MAX_SIZE = 65536;
constexpr const char* MESH_LOG_PATH = "/tmp/zormesh.log";

extern FILE* g_meshLog;

// Opens (truncates) the event log. Returns 0, or 1 after the error line
// "open log file failed"; event lines are then dropped.
int mesh_log_open();

void mesh_errorLog(const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
void mesh_eventLog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// perror() through the seam's standard error.
void mesh_perror(const char* what);

#define MESH_ERR(...) mesh_errorLog(__func__, __LINE__, __VA_ARGS__)
#define MESH_EVENT(...) mesh_eventLog(__VA_ARGS__)
