// The command socket over real Unix sockets: framing, lengths, stalled clients, the socket
// file.
#include "core/mesh_config.h"
#include "core/mesh_main.h"
#include "core/mesh_msg.h"
#include "fake_os.h"
#include "platform/byteorder.h"
#include "platform/unix_sock.h"
#include "state/mesh_state_internal.h"

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The fake system and the daemon's command server (a socket under the fake's root), opened
// as start-up opens it.
class CommandSocket : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_config_reset();
        ASSERT_EQ(0, unix_sock_initSrv(MESH_CMD_SRV_ID, &ctx_, MESH_CMD_SRV_BACKLOG));
    }
    void TearDown() override { close(ctx_.listenFd); }
    int listenFd() const { return ctx_.listenFd; }
    std::string path() { return s.fake.rooted("/var/run/usock/21.sock"); }

    FakeOsScope s;
    UNIX_SOCK_SRV_CTX ctx_{};
};

class CommandServer : public CommandSocket {
  protected:
    int connectClient() {
        int fd = unix_sock_connectPath(path().c_str());
        EXPECT_GE(fd, 0);
        return fd;
    }
    static void sendHeader(int fd, uint32_t len, uint32_t magic = UNIX_SOCK_MAGIC) {
        const uint32_t h[4] = {magic, 16, len, 0}; // little-endian words on this host
        ASSERT_EQ(16, send(fd, h, 16, MSG_NOSIGNAL));
    }
    // Everything received until the server closes.
    static std::string readAll(int fd) {
        std::string out;
        char buf[4096];
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) {
            out.append(buf, static_cast<size_t>(n));
        }
        close(fd);
        return out;
    }
    // A client that sends a whole request and leaves `fd` open for the reply.
    int request(const uint8_t* msg) {
        int fd = connectClient();
        sendHeader(fd, MESH_CMD_MSG_LEN);
        EXPECT_EQ(MESH_CMD_MSG_LEN, send(fd, msg, MESH_CMD_MSG_LEN, MSG_NOSIGNAL));
        return fd;
    }
};

TEST_F(CommandServer, EveryTypeGetsOneWholeReplyAndRefusedOnesComeBackUnchanged) {
    struct stat st {};
    ASSERT_EQ(0, stat(path().c_str(), &st));
    EXPECT_EQ(0140600u, st.st_mode & 0170777) << "a socket only its owner may use";

    for (int32_t type : {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,      13,     14,
                         15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, -1, INT_MIN, INT_MAX}) {
        uint8_t msg[MESH_CMD_MSG_LEN];
        for (int i = 0; i < MESH_CMD_MSG_LEN; ++i) {
            msg[i] = static_cast<uint8_t>(i * 7 + 3);
        }
        put_le32(msg, static_cast<uint32_t>(type));
        s.fake.takeStdout();
        int fd = request(msg);
        uint32_t rc = mesh_receive_cmd(listenFd());
        std::string reply = readAll(fd);
        ASSERT_EQ(16u + MESH_CMD_MSG_LEN, reply.size()) << "type " << type;
        const auto* r = reinterpret_cast<const uint8_t*>(reply.data());
        EXPECT_EQ(hexBytes("55 53 43 4b  10 00 00 00  b0 05 00 00"), Bytes(r, r + 12));
        EXPECT_EQ(0, memcmp(r + 16, msg, 8)) << "type and reserved word come back";
        // Unserved types, and the child and scan commands of a disabled mesh (as here; type 8
        // says there are no candidates), are refused and come back unchanged.
        const bool unserved = type < 1 || type > 24 || type == 23;
        if (unserved || (type >= 5 && type <= 11 && type != 8)) {
            EXPECT_EQ(1u, rc) << "type " << type;
            EXPECT_EQ(0, memcmp(r + 16, msg, MESH_CMD_MSG_LEN)) << "type " << type;
            EXPECT_EQ(unserved, s.fake.stdoutText().find("unsupported command type\r\n") !=
                                    std::string::npos);
        }
    }
}

TEST_F(CommandServer, BrokenHeaderOrWrongLengthGetsNoReplyAndIsLogged) {
    const std::pair<uint32_t, uint32_t> headers[] = {{UNIX_SOCK_MAGIC, 1455},
                                                     {UNIX_SOCK_MAGIC, 1457},
                                                     {UNIX_SOCK_MAGIC, 0},
                                                     {0x12345678u, 1456}};
    for (auto [magic, len] : headers) {
        const std::string error = magic != UNIX_SOCK_MAGIC
                                      ? "unix_sock_recvHeader failed!\r\n"
                                      : "len(" + std::to_string(len) + ") is invalid.\r\n";
        s.fake.takeStdout();
        int fd = connectClient();
        sendHeader(fd, len, magic);
        uint8_t body[1457] = {};
        send(fd, body, len, MSG_NOSIGNAL);
        EXPECT_EQ(0u, mesh_receive_cmd(listenFd()));
        EXPECT_EQ("", readAll(fd)) << error;
        EXPECT_NE(std::string::npos, s.fake.stdoutText().find(error)) << s.fake.stdoutText();
    }
}

TEST_F(CommandServer, RequestsAreServedInTheOrderTheyCompleteWhateverStallsBeforeThem) {
    uint8_t msg[MESH_CMD_MSG_LEN] = {};
    put_le32(msg, 23);
    std::atomic<int> late{-1};
    std::string order;
    auto served = std::async(std::launch::async, [&] {
        for (int i = 0; i < 10; ++i) {
            UNIX_SOCK_GROUP g;
            unix_sock_groupClear(&g);
            unix_sock_groupAddTo(listenFd(), &g);
            if (unix_sock_groupWait(&g, 5) != 1 || unix_sock_isSet(listenFd(), &g) != 1) {
                return;
            }
            mesh_receive_cmd(listenFd());
            order += std::to_string(i) + ":" + s.fake.takeStdout() + " ";
            if (i == 0) { // the late client completes after the whole one was answered
                ASSERT_EQ(MESH_CMD_MSG_LEN - 100,
                          send(late, msg + 100, MESH_CMD_MSG_LEN - 100, MSG_NOSIGNAL));
            }
        }
    });
    // Eight clients that never finish (more than the backlog holds; one stops after the
    // header and 100 bytes), then one that sends half a request, then a whole one.
    int stalled[8];
    for (int& fd : stalled) {
        fd = connectClient();
    }
    sendHeader(stalled[7], MESH_CMD_MSG_LEN);
    ASSERT_EQ(100, send(stalled[7], msg, 100, MSG_NOSIGNAL));
    late = connectClient();
    sendHeader(late, MESH_CMD_MSG_LEN);
    ASSERT_EQ(100, send(late, msg, 100, MSG_NOSIGNAL));
    int whole = request(msg);
    ASSERT_EQ(std::future_status::ready, served.wait_for(std::chrono::seconds(30)));
    EXPECT_EQ(16u + MESH_CMD_MSG_LEN, readAll(whole).size());
    EXPECT_EQ(16u + MESH_CMD_MSG_LEN, readAll(late).size());
    // Served first the whole request, then the completed one (each "unsupported command
    // type"), then the eight stalled clients, closed after their budget without a reply.
    const std::string unsupported = "[MESH][ERROR](mesh_cmd_handle) ";
    EXPECT_EQ(0u, order.find("0:" + unsupported)) << order;
    EXPECT_NE(std::string::npos, order.find(" 1:" + unsupported)) << order;
    for (int& fd : stalled) {
        EXPECT_EQ("", readAll(fd));
    }
    EXPECT_NE(std::string::npos, order.find(" 9:[MESH][ERROR](mesh_receive_cmd) ")) << order;
    EXPECT_NE(std::string::npos, order.find("recv data failed\r\n")) << order;

    // A requester gone before the reply: the send fails quietly (no SIGPIPE), serving goes on.
    close(request(msg));
    mesh_receive_cmd(listenFd());
    int next = request(msg);
    mesh_receive_cmd(listenFd());
    EXPECT_EQ(16u + MESH_CMD_MSG_LEN, readAll(next).size());
}

TEST_F(CommandSocket, ConnectionsAreCloseOnExecAndTheDirectoryMustBeClosedToOthers) {
    int client = unix_sock_connectPath(path().c_str());
    ASSERT_GE(client, 0);
    close(client); // an empty request still finishes
    int conn = unix_sock_accept(listenFd());
    ASSERT_GE(conn, 0);
    EXPECT_EQ(FD_CLOEXEC, fcntl(conn, F_GETFD) & FD_CLOEXEC);
    int32_t len = 0;
    EXPECT_EQ(-1, unix_sock_recvHeader(conn, MESH_CMD_MSG_CODE, &len));
    EXPECT_EQ(0, unix_sock_close(conn));
    EXPECT_EQ(-1, unix_sock_accept(-1));

    const std::string dir = s.fake.rooted("/var/run/usock");
    for (mode_t mode : {0777, 0775, 0757}) {
        ASSERT_EQ(0, chmod(dir.c_str(), mode));
        UNIX_SOCK_SRV_CTX other{};
        errno = 0;
        EXPECT_EQ(-1, unix_sock_initSrv(MESH_CMD_SRV_ID, &other, 1)) << std::oct << mode;
        EXPECT_EQ(EPERM, errno);
    }
    ASSERT_EQ(0, chmod(dir.c_str(), 0700));
    UNIX_SOCK_SRV_CTX again{};
    EXPECT_EQ(0, unix_sock_initSrv(MESH_CMD_SRV_ID, &again, 1));
    close(again.listenFd);
}

} // namespace
