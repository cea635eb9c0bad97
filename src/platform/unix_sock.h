// Socket messaging library: local stream servers identified by a small number, and the
// 16-byte message header every message starts with. The wire format is documented in
// docs/platform-libraries.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/select.h>

constexpr uint32_t UNIX_SOCK_MAGIC = 0x4B435355u; // the bytes "USCK" on the wire
constexpr int UNIX_SOCK_HEADER_SIZE = 16;
constexpr int UNIX_SOCK_RECV_TIMEOUT_MS = 2000; // whole request, from the accept
constexpr int UNIX_SOCK_PENDING_MAX = 16;       // connections of servers read side by side
constexpr int UNIX_SOCK_PENDING_BODY = 4096;    // body bytes buffered per pending connection

// Sender id that a sender name travels as in the header's fourth word.
constexpr uint32_t UNIX_SOCK_SENDER_MESH = 21;

// Server context; callers zero it and read only `listenFd` afterwards.
struct UNIX_SOCK_SRV_CTX {
    int32_t listenFd;
    int32_t srvId;
    char path[104];
};
static_assert(sizeof(UNIX_SOCK_SRV_CTX) == 112, "server context is 112 bytes");

// Descriptor group: a bit per descriptor below 1024, in the manner of a select() set, kept
// in 32-bit words so that the record is 132 bytes on every target.
struct UNIX_SOCK_GROUP {
    uint32_t bits[32];
    int32_t maxFd;
};
static_assert(sizeof(UNIX_SOCK_GROUP) == 132, "descriptor group is 132 bytes");

// Path of server `srvId`: <run dir>/usock/<srvId>.sock. Returns 0, or -1 if it does not fit.
int unix_sock_srvPath(int srvId, char* out, size_t cap);

// Opens server `srvId` (socket file mode 0600). Fails (-1, errno EPERM) when the socket's
// directory is not owned by this process's user or is writable by group or others.
int unix_sock_initSrv(int srvId, UNIX_SOCK_SRV_CTX* ctx, int backlog);
void unix_sock_groupClear(UNIX_SOCK_GROUP* group);
void unix_sock_groupAddTo(int fd, UNIX_SOCK_GROUP* group);
// Waits up to `timeoutSec` seconds: number of ready descriptors, 0 on time-out, <0 on error.
// A server's listening descriptor counts as ready once one of its requests has been read
// whole (or has failed or run out of time): meanwhile its pending connections are accepted
// (at most UNIX_SOCK_PENDING_MAX, close-on-exec) and read side by side, each within 2
// seconds of its accept, so a stalled client delays nobody.
int unix_sock_groupWait(UNIX_SOCK_GROUP* group, int timeoutSec);
// The connection of a server whose request was read first (reading as above until there is
// one). Its request is then taken from the buffer by unix_sock_recvHeader/recvData, and a
// reply header is sent together with the body. Returns the descriptor, or -1 with errno.
int unix_sock_accept(int listenFd);
// Closes a connection (one from unix_sock_accept sends a reply header still held back
// first, and must be closed here, not with close()). 0, or -1.
int unix_sock_close(int conn);
int unix_sock_isSet(int fd, UNIX_SOCK_GROUP* group);

// Receives a header; fails unless its magic is right and its code is `code`.
int unix_sock_recvHeader(int conn, int code, int32_t* len);
// Receives exactly `len` bytes within what is left of the connection's 2-second budget.
int unix_sock_recvData(int conn, int len, void* buf);
int unix_sock_sendHeader(int conn, int len, int code);
int unix_sock_sendData(int conn, const void* buf, int len);

// One-way message: connect to server `srvId`, send header (code `code`, sender id of
// `name`) and body, close. Does not wait for an answer.
int unix_sock_sendDataToSrvWithoutResp(const char* name, int srvId, const void* buf, int len,
                                       int code);

// Client side, used by tools and tests.
int unix_sock_connectPath(const char* path);
uint32_t unix_sock_senderId(const char* name);
