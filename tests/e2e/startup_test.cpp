// Start-up of zormesh-node as a process: what it does before the first command (in order,
// and nothing of the mesh), what it says when its event log or command socket cannot be
// opened, and the daemons' --help and --version, which must not start a daemon.
#include "e2e_util.h"

namespace {

using e2e::readFile;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

// The error lines of the connection that found the listener and said nothing.
const std::string kProbeLines = "(\\[MESH\\]\\[ERROR\\]\\(mesh_receive_cmd\\) [0-9]{5}: "
                                "unix_sock_recvHeader failed!\r\n)*";

class Startup : public ::testing::Test {
  protected:
    std::unique_ptr<e2e::Child> start(const char* program, std::vector<std::string> args,
                                      const std::string& name) {
        args.insert(args.begin(), e2e::binPath(program));
        return std::make_unique<e2e::Child>(args, root_ + "/" + name + ".out",
                                            root_ + "/" + name + ".err");
    }
    std::unique_ptr<e2e::Child> startEmulator() {
        auto emu = start("zormesh-emu", {"--root", root_.path()}, "emu");
        EXPECT_TRUE(e2e::waitForListener(root_ + "/emu.sock", SOCK_SEQPACKET, emu.get()));
        return emu;
    }
    std::unique_ptr<e2e::Child> startNode() {
        return start("zormesh-node", {"--root", root_.path(), "--time-scale", "20"}, "node");
    }
    std::string socketPath() const { return root_ + "/var/run/usock/21.sock"; }

    e2e::TempRoot root_;
};

TEST_F(Startup, OpensTheLogThenTheAdapterThenServesAndDoesNoMeshWork) {
    ASSERT_EQ(0, mkdir((root_ + "/tmp").c_str(), 0755));
    std::ofstream(root_ + "/tmp/zormesh.log") << "a line of an earlier run\r\n";
    auto emu = startEmulator();
    auto node = startNode();
    ASSERT_TRUE(e2e::waitForListener(socketPath(), SOCK_STREAM, node.get()));

    // Before it serves, the node has made only the driver adapter's calls: the profile lock
    // created and set free. No shell line, no ioctl, no kernel file: the mesh waits for its
    // configuration.
    EXPECT_THAT(readFile(root_ + "/emu.out"),
                MatchesRegex("c1 hello main pid=" + std::to_string(node->pid()) +
                             " scale=20\n"
                             "c1 sem get key=0x[0-9A-F]+ nsems=1 flags=0x3B6\n"
                             "c1 sem setval id=[0-9]+ num=0 value=1\n"));
    EXPECT_EQ("", readFile(root_ + "/tmp/zormesh.log")) << "the earlier log is truncated";
    EXPECT_THAT(readFile(root_ + "/node.out"), MatchesRegex(kProbeLines)) << "no other error";
    EXPECT_EQ("", readFile(root_ + "/node.err"));

    // It serves, and keeps serving after a command that fails.
    for (const char* type : {"99", "13"}) {
        auto ctl = start("zormeshctl", {"--socket", socketPath(), "raw", type}, "ctl");
        EXPECT_EQ(0, ctl->waitExit()) << type;
    }
    EXPECT_TRUE(node->running());
}

TEST_F(Startup, SaysWhichFileItCannotOpenAndWhy) {
    const struct {
        const char* blocker; // made a directory or a file so that the open fails
        bool asDirectory;
        int exit; // -1: keeps running
        std::string errorLog;
        std::string stderrText;
    } cases[] = {
        {"/tmp/zormesh.log", true, -1,
         "\\[MESH\\]\\[ERROR\\]\\(mesh_log_open\\) [0-9]{5}: open log file failed\r\n",
         "zormesh-node: cannot open the event log " + root_.path() +
             "/tmp/zormesh.log: Is a directory\n"},
        {"/var/run/usock", false, 255,
         "\\[MESH\\]\\[ERROR\\]\\(main\\) [0-9]{5}: init sock server failed\r\n",
         "zormesh-node: cannot open the command socket " + root_.path() +
             "/var/run/usock/21.sock: Not a directory\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.blocker);
        ASSERT_EQ(0, system(("rm -rf '" + root_.path() + "'/tmp '" + root_.path() +
                             "'/var && mkdir -p '" + root_.path() + "'/tmp '" + root_.path() +
                             "'/var/run")
                                .c_str()));
        if (c.asDirectory) {
            ASSERT_EQ(0, mkdir((root_ + c.blocker).c_str(), 0755));
        } else {
            std::ofstream(root_ + c.blocker) << "in the way";
        }
        auto emu = startEmulator();
        auto node = startNode();
        if (c.exit == -1) {
            EXPECT_TRUE(e2e::waitForListener(socketPath(), SOCK_STREAM, node.get()));
        } else {
            EXPECT_EQ(c.exit, node->waitExit()) << "main returns -1";
        }
        EXPECT_THAT(readFile(root_ + "/node.out"), MatchesRegex(c.errorLog + kProbeLines));
        EXPECT_EQ(c.stderrText, readFile(root_ + "/node.err"));
        // The driver adapter was set up before the command server, whatever failed.
        EXPECT_THAT(readFile(root_ + "/emu.out"), HasSubstr(" sem setval "));
    }
}

TEST_F(Startup, HelpAndVersionPrintAndExitWithoutStartingADaemon) {
    const struct {
        const char* program;
        std::vector<std::string> args;
        std::string out;
    } cases[] = {
        // Other arguments are ignored, as on the device.
        {"zormeshd", {"ignored", "--help"}, "usage: zormeshd \\[--help \\| --version\\]\n"},
        {"zormeshd", {"--version"}, "^zormeshd [0-9]+\\.[0-9]+\\.[0-9]+\n$"},
        {"zormesh-node", {"--version"}, "^zormesh-node [0-9]+\\.[0-9]+\\.[0-9]+\n$"},
    };
    for (const auto& c : cases) {
        // Had it started a daemon, the run would not end.
        EXPECT_EQ(0, start(c.program, c.args, "run")->waitExit()) << c.args.back();
        EXPECT_THAT(readFile(root_ + "/run.out"), ContainsRegex(c.out));
        EXPECT_EQ("", readFile(root_ + "/run.err"));
    }
}

} // namespace
