// The command server over real Unix sockets: framing, lengths, stalled clients, the socket.
#include "core_fixture.h"

#include "core/mesh_main.h"
#include "platform/byteorder.h"

#include <climits>
#include <future>
#include <sys/stat.h>

namespace {

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

TEST_F(CommandServer, EveryTypeGetsOneWholeReplyAndUnservedTypesComeBackUnchanged) {
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
        if (type < 1 || type > 24 || type == 23) {
            EXPECT_EQ(1u, rc);
            EXPECT_EQ(0, memcmp(r + 16, msg, MESH_CMD_MSG_LEN)) << "type " << type;
            EXPECT_NE(std::string::npos, s.fake.stdoutText().find("unsupported command type\r\n"));
        }
    }
    EXPECT_EQ(1u, mesh_cmd_handle(nullptr));
}

TEST_F(CommandServer, BrokenHeaderOrWrongLengthGetsNoReplyAndIsLogged) {
    const struct {
        uint32_t magic, len;
        std::string error;
    } cases[] = {
        {UNIX_SOCK_MAGIC, 1455, "len(1455) is invalid.\r\n"},
        {UNIX_SOCK_MAGIC, 1457, "len(1457) is invalid.\r\n"},
        {UNIX_SOCK_MAGIC, 0, "len(0) is invalid.\r\n"},
        {0x12345678u, MESH_CMD_MSG_LEN, "unix_sock_recvHeader failed!\r\n"},
    };
    for (const auto& c : cases) {
        s.fake.takeStdout();
        int fd = connectClient();
        sendHeader(fd, c.len, c.magic);
        uint8_t body[1457] = {};
        send(fd, body, c.len, MSG_NOSIGNAL);
        EXPECT_EQ(0u, mesh_receive_cmd(listenFd()));
        EXPECT_EQ("", readAll(fd)) << c.error;
        EXPECT_NE(std::string::npos, s.fake.stdoutText().find(c.error)) << s.fake.stdoutText();
    }
}

TEST_F(CommandServer, StalledOrVanishedClientsDoNotStopTheNextOne) {
    // One client sends nothing, one half a body; each gets its 2-second budget and is closed.
    int silent = connectClient();
    int half = connectClient();
    sendHeader(half, MESH_CMD_MSG_LEN);
    uint8_t msg[MESH_CMD_MSG_LEN] = {};
    ASSERT_EQ(100, send(half, msg, 100, MSG_NOSIGNAL));
    put_le32(msg, 23);
    int good = request(msg);
    auto served = std::async(std::launch::async, [this] {
        for (int i = 0; i < 3; ++i) {
            mesh_receive_cmd(listenFd());
        }
    });
    ASSERT_EQ(std::future_status::ready, served.wait_for(std::chrono::seconds(30)))
        << "the server hung on a stalled client";
    EXPECT_EQ("", readAll(silent));
    EXPECT_EQ("", readAll(half));
    EXPECT_EQ(16u + MESH_CMD_MSG_LEN, readAll(good).size());
    std::string err = s.fake.stdoutText();
    EXPECT_NE(std::string::npos, err.find("unix_sock_recvHeader failed!\r\n")) << err;
    EXPECT_NE(std::string::npos, err.find("recv data failed\r\n")) << err;

    // A requester gone before the reply: the send fails quietly (no SIGPIPE), serving goes on.
    close(request(msg));
    mesh_receive_cmd(listenFd());
    int next = request(msg);
    mesh_receive_cmd(listenFd());
    EXPECT_EQ(16u + MESH_CMD_MSG_LEN, readAll(next).size());
}

} // namespace
