#include "core/mesh_main.h"

#include "core/mesh_log.h"
#include "core/mesh_msg.h"
#include "platform/os.h"
#include "platform/unix_sock.h"
#include "platform/wrp.h"
#include "wlan/mesh_wlan.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/seam_guard.h"

uint32_t mesh_receive_cmd(int listenFd) {
    MESH_CMD_MSG msg;
    memset(&msg, 0, sizeof msg);
    int32_t len = 0;
    uint32_t result = 0;

    int conn = unix_sock_accept(listenFd);
    if (conn < 0) {
        MESH_ERR("accept failed.");
        return 1;
    }
    if (unix_sock_recvHeader(conn, MESH_CMD_MSG_CODE, &len) != 0) {
        MESH_ERR("unix_sock_recvHeader failed!");
    } else if (len != MESH_CMD_MSG_LEN) {
        MESH_ERR("len(%d) is invalid.", len);
    } else if (unix_sock_recvData(conn, MESH_CMD_MSG_LEN, &msg) != 0) {
        MESH_ERR("recv data failed");
    } else {
        result = mesh_cmd_handle(&msg);
        if (unix_sock_sendHeader(conn, MESH_CMD_MSG_LEN, MESH_CMD_MSG_CODE) != 0) {
            MESH_ERR("send header failed.");
        } else if (unix_sock_sendData(conn, &msg, MESH_CMD_MSG_LEN) != 0) {
            MESH_ERR("send data failed.");
        }
    }
    unix_sock_close(conn);
    return result;
}

namespace {

// The program's name for messages on standard error: the last part of argv[0].
const char* programName(int argc, char** argv) {
    if (argc < 1 || argv == nullptr || argv[0] == nullptr || argv[0][0] == '\0') {
        return "zormeshd";
    }
    const char* slash = strrchr(argv[0], '/');
    return slash != nullptr ? slash + 1 : argv[0];
}

// "<program>: cannot open <what> <path>: <reason>" on standard error, for the person who
// started the daemon; the error log on standard output keeps the daemon's own line.
void reportOpenFailure(const char* program, const char* what, const char* path, int err) {
    char buf[384];
    int n = snprintf(buf, sizeof buf, "%s: cannot open %s %s: %s\n", program, what, path,
                     strerror(err));
    if (n > 0) {
        os().writeStderr(buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n)
                                                                  : sizeof buf - 1);
    }
}

} // namespace

int mesh_main(int argc, char** argv) {
    const char* program = programName(argc, argv);
    errno = 0;
    if (mesh_log_open() != 0) {
        const int err = errno;
        RootedPath log(MESH_LOG_PATH);
        reportOpenFailure(program, "the event log", log.c_str(), err);
    }
    mesh_api_init();
    wrpInit(16, "mesh");

    UNIX_SOCK_SRV_CTX ctx;
    UNIX_SOCK_GROUP group;
    memset(&ctx, 0, sizeof ctx);
    memset(&group, 0, sizeof group);
    if (unix_sock_initSrv(MESH_CMD_SRV_ID, &ctx, MESH_CMD_SRV_BACKLOG) != 0) {
        const int err = errno;
        // The process's entry point reports it: this function is main() of both programs.
        mesh_errorLog("main", __LINE__, "init sock server failed");
        char path[256];
        unix_sock_srvPath(MESH_CMD_SRV_ID, path, sizeof path); // cut when too long, as refused
        reportOpenFailure(program, "the command socket", path, err);
        return -1;
    }
    for (;;) {
        unix_sock_groupClear(&group);
        unix_sock_groupAddTo(ctx.listenFd, &group);
        int ready = unix_sock_groupWait(&group, MESH_CMD_WAIT_TIMEOUT);
        if (ready > 0 && unix_sock_isSet(ctx.listenFd, &group)) {
            mesh_receive_cmd(ctx.listenFd);
        } else if (ready < 0) {
            mesh_perror("select");
        }
    }
}
