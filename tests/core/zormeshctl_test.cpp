// zormeshctl against a real command server: reply, no reply, nobody listening, usage.
#include "core_fixture.h"

#include "core/mesh_main.h"

#include <cstdio>
#include <future>
#include <sys/wait.h>

namespace {

struct CtlRun {
    int status;
    std::string out;
};

CtlRun ctl(const std::string& args) {
    std::string cmd = std::string(ZORMESH_BIN_DIR) + "/zormeshctl " + args + " 2>/dev/null";
    CtlRun r{-1, ""};
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) {
        return r;
    }
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) {
        r.out.append(buf, n);
    }
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

class Zormeshctl : public CommandSocket {
  protected:
    std::string sock() { return "--socket " + path() + " "; }
};

TEST_F(Zormeshctl, PrintsTheWholeReplyAsOneHexLine) {
    auto server = std::async(std::launch::async, [this] { mesh_receive_cmd(listenFd()); });
    CtlRun r = ctl(sock() + "raw 23 'de ad:BE EF 01'");
    server.get();
    ASSERT_EQ(0, r.status);
    // type 23 little-endian, reserved zero, the payload as given, zero-filled to 1456 bytes.
    EXPECT_EQ("17000000"
              "00000000"
              "deadbeef01" +
                  std::string(2 * 1443, '0') + "\n",
              r.out);
}

TEST_F(Zormeshctl, ExitStatusTellsWhatHappened) {
    auto server =
        std::async(std::launch::async, [this] { close(accept(listenFd(), nullptr, nullptr)); });
    CtlRun closed = ctl(sock() + "raw 13");
    server.get();
    EXPECT_EQ(3, closed.status) << "the daemon closed the connection without a reply";
    EXPECT_EQ("", closed.out);

    EXPECT_EQ(2, ctl("--socket " + s.fake.rooted("/nothing.sock") + " raw 13").status);
    const std::string tooLong = "raw 13 " + std::string(2 * 1449, 'a');
    for (const std::string& bad :
         {std::string("raw"), std::string("raw x13"), std::string("raw 13 abc"), tooLong}) {
        EXPECT_EQ(1, ctl(sock() + bad).status) << bad;
    }
    CtlRun help = ctl("--help");
    EXPECT_EQ(0, help.status);
    EXPECT_NE(std::string::npos, help.out.find("usage: zormeshctl [--socket PATH] raw TYPE [HEX]"));
    EXPECT_NE(std::string::npos, help.out.find("/var/run/usock/21.sock"));
}

} // namespace
