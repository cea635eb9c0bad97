// zormesh-node as a real process, started by hand the way the README shows: the zormesh-emu
// program beside it, commands sent with zormeshctl, its error log, event log and the
// emulator's transcript read from files under a temporary root.
#include "e2e_util.h"

namespace {

using e2e::readFile;
using ::testing::HasSubstr;

class Node : public ::testing::Test {
  protected:
    std::unique_ptr<e2e::Child> start(const char* program, std::vector<std::string> args,
                                      const std::string& name) {
        args.insert(args.begin(), e2e::binPath(program));
        return std::make_unique<e2e::Child>(args, root_ + "/" + name + ".out",
                                            root_ + "/" + name + ".err");
    }
    std::string socketPath() const { return root_ + "/var/run/usock/21.sock"; }
    // Sends one command: zormeshctl's exit status, the reply line in *reply.
    int command(int type, std::string* reply = nullptr) {
        int rc = start("zormeshctl", {"--socket", socketPath(), "raw", std::to_string(type)}, "ctl")
                     ->waitExit();
        if (reply != nullptr) {
            *reply = readFile(root_ + "/ctl.out");
        }
        return rc;
    }

    e2e::TempRoot root_;
};

TEST_F(Node, RunsAsTheDaemonBesideTheEmulatorProgramAndOutlivesIt) {
    auto emu = start("zormesh-emu", {"--root", root_.path()}, "emu");
    ASSERT_TRUE(e2e::waitForListener(root_ + "/emu.sock", SOCK_SEQPACKET, emu.get()));
    auto node = start("zormesh-node", {"--root", root_.path(), "--time-scale", "20"}, "node");
    ASSERT_TRUE(e2e::waitForListener(socketPath(), SOCK_STREAM, node.get()));

    std::string reply;
    ASSERT_EQ(0, command(23, &reply));
    ASSERT_EQ(2 * 1456u + 1, reply.size()); // the whole message, as hex, and a line end
    EXPECT_EQ("17000000", reply.substr(0, 8));
    ASSERT_EQ(0, command(99));
    // The error log is the daemon's standard output.
    EXPECT_THAT(readFile(root_ + "/node.out"),
                testing::ContainsRegex("\\[MESH\\]\\[ERROR\\]\\(mesh_cmd_handle\\) [0-9]{5}: "
                                       "unsupported command type\r\n"));
    // The fixed paths live under the root; the emulator installed the profile there.
    struct stat st {};
    EXPECT_EQ(0, stat((root_ + "/tmp/zormesh.log").c_str(), &st));
    ASSERT_EQ(0, stat(socketPath().c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    EXPECT_THAT(readFile(root_ + "/tmp/wireless/mt5g.dat"), HasSubstr("AuthMode=OPEN;OPEN;OPEN"));
    EXPECT_THAT(readFile(root_ + "/emu.out"),
                HasSubstr("c1 hello main pid=" + std::to_string(node->pid()) + " scale=20\n"));

    // The emulator goes away (a mistyped command before leaves it alone); the daemon goes on
    // serving commands.
    emu->feed("netlink 2g\nquit\n");
    EXPECT_EQ(0, emu->waitExit());
    std::string err = readFile(root_ + "/emu.err");
    EXPECT_THAT(err, HasSubstr("listening on " + root_.path() + "/emu.sock"));
    EXPECT_THAT(err, HasSubstr("netlink: HEX must be pairs of hexadecimal digits"));
    EXPECT_EQ(0, command(13));
    EXPECT_EQ(0, command(1));
    EXPECT_TRUE(node->running());
}

TEST_F(Node, RefusesToStartWithoutAnEmulatorOrAUsableRoot) {
    std::ofstream(root_ + "/plain") << "a file";
    std::string deep = root_ + "/" + std::string(90, 'd');
    ASSERT_EQ(0, mkdir(deep.c_str(), 0755));
    const struct {
        std::vector<std::string> args;
        int exit;
        std::string message;
    } cases[] = {
        {{"--root", root_.path()},
         4,
         "no emulator answers on " + root_.path() + "/emu.sock: No such file or directory"},
        {{"--root", root_ + "/missing"}, 3, "cannot use root"},
        {{"--root", root_ + "/plain"}, 3, "not a directory"},
        {{"--root", deep}, 3, "too long for the command socket"},
        {{"--root", root_.path(), "--time-scale", "0"}, 2, "must be an integer from 1 to 1000"},
        {{}, 2, "usage: zormesh-node --root DIR"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.exit, start("zormesh-node", c.args, "refused")->waitExit()) << c.message;
        EXPECT_THAT(readFile(root_ + "/refused.err"), HasSubstr(c.message));
    }
    // Before it looked for an emulator, the node made the directories it needs.
    struct stat st {};
    EXPECT_EQ(0, stat((root_ + "/tmp/wireless").c_str(), &st));
    EXPECT_EQ(0, stat((root_ + "/var/run").c_str(), &st));
}

} // namespace
