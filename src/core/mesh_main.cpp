#include "core/mesh_main.h"

#include "core/mesh_log.h"
#include "core/mesh_msg.h"
#include "platform/unix_sock.h"
#include "platform/wrp.h"
#include "wlan/mesh_wlan.h"

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

int mesh_main(int /*argc*/, char** /*argv*/) {
    mesh_log_open();
    mesh_api_init();
    wrpInit(16, "mesh");

    UNIX_SOCK_SRV_CTX ctx;
    UNIX_SOCK_GROUP group;
    memset(&ctx, 0, sizeof ctx);
    memset(&group, 0, sizeof group);
    if (unix_sock_initSrv(MESH_CMD_SRV_ID, &ctx, MESH_CMD_SRV_BACKLOG) != 0) {
        MESH_ERR("init sock server failed");
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
