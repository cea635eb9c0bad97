// The command server over real Unix sockets: framing, lengths, stalled clients, the socket.
#include "core/mesh_config.h"
#include "core/mesh_main.h"
#include "core/mesh_msg.h"
#include "fake_os.h"
#include "platform/byteorder.h"
#include "platform/unix_sock.h"

#include <climits>
#include <cstring>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

class CommandServer : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_config_reset();
        memset(&ctx_, 0, sizeof ctx_);
        ASSERT_EQ(0, unix_sock_initSrv(MESH_CMD_SRV_ID, &ctx_, MESH_CMD_SRV_BACKLOG));
        path_ = s.fake.rooted("/var/run/usock/21.sock");
    }
    void TearDown() override { close(ctx_.listenFd); }

    int connectClient() {
        int fd = unix_sock_connectPath(path_.c_str());
        EXPECT_GE(fd, 0);
        return fd;
    }
    static void sendHeader(int fd, uint32_t len, uint32_t magic = UNIX_SOCK_MAGIC) {
        uint8_t h[16];
        put_le32(h, magic);
        put_le32(h + 4, 16);
        put_le32(h + 8, len);
        put_le32(h + 12, 0);
        ASSERT_EQ(16, send(fd, h, 16, MSG_NOSIGNAL));
    }
    // Reads until the server closes; returns everything received.
    static std::string readAll(int fd) {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = recv(fd, buf, sizeof buf, 0)) > 0) {
            out.append(buf, static_cast<size_t>(n));
        }
        return out;
    }
    // Sends one whole request on a fresh connection and serves it.
    std::string roundTrip(const uint8_t* msg) {
        int fd = connectClient();
        sendHeader(fd, MESH_CMD_MSG_LEN);
        EXPECT_EQ(MESH_CMD_MSG_LEN, send(fd, msg, MESH_CMD_MSG_LEN, MSG_NOSIGNAL));
        mesh_receive_cmd(ctx_.listenFd);
        std::string reply = readAll(fd);
        close(fd);
        return reply;
    }

    FakeOsScope s;
    UNIX_SOCK_SRV_CTX ctx_;
    std::string path_;
};

} // namespace

TEST_F(CommandServer, SocketFileIsPrivateToTheOwner) {
    struct stat st {};
    ASSERT_EQ(0, stat(path_.c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0600u, st.st_mode & 0777);
}

TEST_F(CommandServer, EveryTypeIsAnsweredWithOneWholeMessage) {
    const int32_t types[] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,      13,     14,
                             15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, -1, INT_MIN, INT_MAX};
    for (int32_t type : types) {
        uint8_t msg[MESH_CMD_MSG_LEN] = {};
        put_le32(msg, static_cast<uint32_t>(type));
        std::string reply = roundTrip(msg);
        ASSERT_EQ(16u + MESH_CMD_MSG_LEN, reply.size()) << "type " << type;
        const auto* h = reinterpret_cast<const uint8_t*>(reply.data());
        EXPECT_EQ(UNIX_SOCK_MAGIC, get_le32(h));
        EXPECT_EQ(16u, get_le32(h + 4));
        EXPECT_EQ(static_cast<uint32_t>(MESH_CMD_MSG_LEN), get_le32(h + 8));
        EXPECT_EQ(static_cast<uint32_t>(type), get_le32(h + 16)) << "type comes back";
    }
}

TEST_F(CommandServer, UnservedTypesComeBackUnchanged) {
    for (int32_t type : {0, 23, 25, -1, INT_MIN}) {
        uint8_t msg[MESH_CMD_MSG_LEN];
        for (int i = 0; i < MESH_CMD_MSG_LEN; ++i) {
            msg[i] = static_cast<uint8_t>(i * 7 + 3);
        }
        put_le32(msg, static_cast<uint32_t>(type));
        s.fake.takeStdout();
        std::string reply = roundTrip(msg);
        ASSERT_EQ(16u + MESH_CMD_MSG_LEN, reply.size());
        EXPECT_EQ(0, memcmp(reply.data() + 16, msg, MESH_CMD_MSG_LEN)) << "type " << type;
        EXPECT_NE(std::string::npos, s.fake.stdoutText().find("unsupported command type\r\n"));
    }
}

TEST_F(CommandServer, WrongAnnouncedLengthGetsNoReplyAndIsLogged) {
    for (uint32_t len : {1455u, 1457u, 0u}) {
        s.fake.takeStdout();
        int fd = connectClient();
        sendHeader(fd, len);
        uint8_t body[1457] = {};
        send(fd, body, len, MSG_NOSIGNAL);
        EXPECT_EQ(0u, mesh_receive_cmd(ctx_.listenFd));
        EXPECT_EQ("", readAll(fd)) << "no reply for length " << len;
        close(fd);
        EXPECT_NE(std::string::npos,
                  s.fake.stdoutText().find("len(" + std::to_string(len) + ") is invalid.\r\n"))
            << s.fake.stdoutText();
    }
}

TEST_F(CommandServer, BrokenHeaderGetsNoReply) {
    int fd = connectClient();
    sendHeader(fd, MESH_CMD_MSG_LEN, 0x12345678u);
    mesh_receive_cmd(ctx_.listenFd);
    EXPECT_EQ("", readAll(fd));
    close(fd);
    EXPECT_NE(std::string::npos, s.fake.stdoutText().find("unix_sock_recvHeader failed!\r\n"));
}

TEST_F(CommandServer, StalledClientsDoNotStopTheNextOne) {
    // One client connects and sends nothing, one sends half a body and stalls; a third sends
    // a whole request. The server gives each stalled client its 2-second budget, closes it,
    // and serves the third.
    int silent = connectClient();
    int half = connectClient();
    sendHeader(half, MESH_CMD_MSG_LEN);
    uint8_t some[100] = {};
    ASSERT_EQ(100, send(half, some, sizeof some, MSG_NOSIGNAL));
    int good = connectClient();
    uint8_t msg[MESH_CMD_MSG_LEN] = {};
    put_le32(msg, 23);
    sendHeader(good, MESH_CMD_MSG_LEN);
    ASSERT_EQ(MESH_CMD_MSG_LEN, send(good, msg, MESH_CMD_MSG_LEN, MSG_NOSIGNAL));

    auto served = std::async(std::launch::async, [this] {
        for (int i = 0; i < 3; ++i) {
            mesh_receive_cmd(ctx_.listenFd);
        }
    });
    ASSERT_EQ(std::future_status::ready, served.wait_for(std::chrono::seconds(30)))
        << "the server hung on a stalled client";
    EXPECT_EQ("", readAll(silent));
    EXPECT_EQ("", readAll(half));
    EXPECT_EQ(16u + MESH_CMD_MSG_LEN, readAll(good).size());
    close(silent);
    close(half);
    close(good);
    std::string err = s.fake.stdoutText();
    EXPECT_NE(std::string::npos, err.find("unix_sock_recvHeader failed!\r\n")) << err;
    EXPECT_NE(std::string::npos, err.find("recv data failed\r\n")) << err;
}

TEST_F(CommandServer, RequesterThatLeavesEarlyDoesNotKillTheServer) {
    int fd = connectClient();
    uint8_t msg[MESH_CMD_MSG_LEN] = {};
    sendHeader(fd, MESH_CMD_MSG_LEN);
    ASSERT_EQ(MESH_CMD_MSG_LEN, send(fd, msg, MESH_CMD_MSG_LEN, MSG_NOSIGNAL));
    close(fd); // gone before the reply: the reply send must fail quietly, not raise SIGPIPE
    mesh_receive_cmd(ctx_.listenFd);
    uint8_t again[MESH_CMD_MSG_LEN] = {};
    EXPECT_EQ(16u + MESH_CMD_MSG_LEN, roundTrip(again).size());
}

TEST(CommandDispatch, NullAndUnknownTypes) {
    FakeOsScope s;
    EXPECT_EQ(1u, mesh_cmd_handle(nullptr));
    MESH_CMD_MSG msg;
    memset(&msg, 0x5A, sizeof msg);
    msg.type = 23;
    MESH_CMD_MSG copy = msg;
    EXPECT_EQ(1u, mesh_cmd_handle(&msg));
    EXPECT_EQ(0, memcmp(&copy, &msg, sizeof msg));
    EXPECT_NE(std::string::npos, s.fake.stdoutText().find("[MESH][ERROR](mesh_cmd_handle) "));
}
