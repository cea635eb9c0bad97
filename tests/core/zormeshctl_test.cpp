// zormeshctl against a real command server: reply, no reply, nobody listening, usage.
#include "core/mesh_config.h"
#include "core/mesh_main.h"
#include "core/mesh_msg.h"
#include "fake_os.h"
#include "platform/unix_sock.h"

#include <cstdio>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct CtlRun {
    int status;
    std::string out;
};

CtlRun ctl(const std::string& args) {
    std::string cmd = std::string(ZORMESH_BIN_DIR) + "/zormeshctl " + args + " 2>/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    CtlRun r{-1, ""};
    if (p == nullptr) {
        return r;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) {
        r.out.append(buf, n);
    }
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

class Zormeshctl : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_config_reset();
        ASSERT_EQ(0, unix_sock_initSrv(MESH_CMD_SRV_ID, &ctx_, MESH_CMD_SRV_BACKLOG));
        sock_ = "--socket " + s.fake.rooted("/var/run/usock/21.sock") + " ";
    }
    void TearDown() override { close(ctx_.listenFd); }
    FakeOsScope s;
    UNIX_SOCK_SRV_CTX ctx_{};
    std::string sock_;
};

} // namespace

TEST_F(Zormeshctl, PrintsTheWholeReplyAsOneHexLine) {
    auto server = std::async(std::launch::async, [this] { mesh_receive_cmd(ctx_.listenFd); });
    CtlRun r = ctl(sock_ + "raw 23 'de ad:BE EF 01'");
    server.get();
    ASSERT_EQ(0, r.status);
    // type 23 little-endian, reserved zero, the payload as given, zero-filled to 1456 bytes.
    std::string expected = "17000000" "00000000" "deadbeef01" + std::string(2 * 1443, '0') + "\n";
    EXPECT_EQ(expected, r.out);
}

TEST_F(Zormeshctl, ExitsWithThreeWhenTheDaemonClosesWithoutReply) {
    auto server = std::async(std::launch::async, [this] {
        int conn = accept(ctx_.listenFd, nullptr, nullptr);
        close(conn);
    });
    CtlRun r = ctl(sock_ + "raw 13");
    server.get();
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("", r.out);
}

TEST_F(Zormeshctl, ExitsWithTwoWhenNobodyListensAndOneOnBadUsage) {
    EXPECT_EQ(2, ctl("--socket " + s.fake.rooted("/nothing.sock") + " raw 13").status);
    EXPECT_EQ(1, ctl(sock_ + "raw").status);
    EXPECT_EQ(1, ctl(sock_ + "raw x13").status);
    EXPECT_EQ(1, ctl(sock_ + "raw 13 abc").status) << "odd number of hex digits";
    EXPECT_EQ(1, ctl(sock_ + "raw 13 " + std::string(2 * 1449, 'a')).status) << "payload too long";
    CtlRun help = ctl("--help");
    EXPECT_EQ(0, help.status);
    EXPECT_NE(std::string::npos, help.out.find("usage: zormeshctl [--socket PATH] raw TYPE [HEX]"));
    EXPECT_NE(std::string::npos, help.out.find("/var/run/usock/21.sock"));
}
