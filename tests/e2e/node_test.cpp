// zormesh-node as a real process, started by hand the way the README shows, with the zormesh-emu
// program beside it: its start-up failures, and the programs' --help and --version, which must
// not start a daemon. (The scenarios run whole meshes of such nodes.)
#include "e2e_util.h"

namespace {

using e2e::readFile;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

// The error lines of the connection that found the listener and said nothing.
const std::string kProbeLines = "(\\[MESH\\]\\[ERROR\\]\\(mesh_receive_cmd\\) [0-9]{5}: "
                                "unix_sock_recvHeader failed!\r\n)*";

class Node : public ::testing::Test {
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

TEST_F(Node, SaysWhichFileItCannotOpenAndWhy) {
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
        const std::string r = "'" + root_.path() + "'";
        ASSERT_EQ(0, system(("rm -rf " + r + "/tmp " + r + "/var && mkdir -p " + r + "/tmp " + r +
                             "/var/run")
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

TEST_F(Node, HelpAndVersionPrintAndExitWithoutStartingADaemon) {
    const struct {
        const char* program;
        std::vector<std::string> args;
        std::string out;
    } cases[] = {
        // Other arguments are ignored, as on the device.
        {"zormeshd", {"ignored", "--help"}, "usage: zormeshd \\[--help \\| --version\\]\n"},
        {"zormeshd", {"--version"}, "^zormeshd [0-9]+\\.[0-9]+\\.[0-9]+\n$"},
        {"zormesh-node", {"--version"}, "^zormesh-node [0-9]+\\.[0-9]+\\.[0-9]+\n$"},
        {"zormeshctl", {"--help"}, "Exit status: 0 a reply came; 1 bad usage"},
    };
    for (const auto& c : cases) {
        // Had it started a daemon, the run would not end.
        EXPECT_EQ(0, start(c.program, c.args, "run")->waitExit()) << c.args.back();
        EXPECT_THAT(readFile(root_ + "/run.out"), ContainsRegex(c.out));
        EXPECT_EQ("", readFile(root_ + "/run.err"));
    }
}

} // namespace
