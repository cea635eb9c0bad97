// The command socket's framing: the input is what a client sends on one connection (then it
// stops sending); the daemon's real server receives it, answers or refuses, and closes.
#include "core/mesh_main.h"
#include "core/mesh_msg.h"
#include "fuzz_os.h"
#include "platform/unix_sock.h"
#include "wlan/mesh_wlan.h"

#include <cstdio>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

namespace {
UNIX_SOCK_SRV_CTX l_srv{};
} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzInitDriver();
    if (unix_sock_initSrv(MESH_CMD_SRV_ID, &l_srv, MESH_CMD_SRV_BACKLOG) != 0) {
        perror("unix_sock_initSrv");
        abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 8192) {
        return -1; // more than the socket buffers take without a reader
    }
    fuzzOs().input().reset(nullptr, 0);
    int fd = unix_sock_connectPath(l_srv.path);
    if (fd < 0) {
        abort();
    }
    if (size > 0 && send(fd, data, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) {
        abort();
    }
    shutdown(fd, SHUT_WR); // a client that sent all it will send
    mesh_receive_cmd(l_srv.listenFd);
    uint8_t reply[16 + MESH_CMD_MSG_LEN + 1];
    ssize_t got = 0;
    for (ssize_t n; (n = recv(fd, reply + got, sizeof reply - got, 0)) > 0;) {
        got += n;
    }
    // A reply is whole or absent.
    if (got != 0 && got != 16 + MESH_CMD_MSG_LEN) {
        fprintf(stderr, "reply of %zd bytes\n", got);
        abort();
    }
    close(fd);
    return 0;
}
