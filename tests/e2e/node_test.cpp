// zormesh-node as a real process: started under a temporary root against the scripted
// emulator (or the zormesh-emu program), driven with zormeshctl, watched through its error
// log, its event log and the emulator's transcript.
#include "e2e_util.h"
#include "emu_script.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kStartMs = 10000; // bound for a process start, not a measurement

class Node : public ::testing::Test {
  protected:
    std::string dir(const std::string& sub) const { return root_.path() + sub; }
    std::string socketPath() const { return dir("/var/run/usock/21.sock"); }

    std::unique_ptr<e2e::Child> startNode(const std::vector<std::string>& extra = {}) {
        std::vector<std::string> argv{e2e::binPath("zormesh-node"), "--root", root_.path()};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return std::make_unique<e2e::Child>(argv, dir("/node.out"), dir("/node.err"));
    }

    // Sends one command; its exit status, the reply line in *reply.
    int command(int type, std::string* reply = nullptr) {
        std::string out;
        int rc = e2e::run(
            {e2e::binPath("zormeshctl"), "--socket", socketPath(), "raw", std::to_string(type)},
            &out);
        if (reply != nullptr) {
            *reply = out;
        }
        return rc;
    }

    e2e::TempRoot root_;
};

TEST_F(Node, ServesCommandsAsTheDaemonOverTheEmulatedPlatform) {
    emu::ScriptEmulator emu(root_.path());
    ASSERT_TRUE(emu.start());
    auto node = startNode({"--time-scale", "20"});
    ASSERT_TRUE(emu.waitFor("hello main", kStartMs));
    auto hellos = emu.hellos();
    ASSERT_EQ(1u, hellos.size());
    EXPECT_EQ(static_cast<uint32_t>(node->pid()), hellos[0].pid);
    EXPECT_EQ(20u, hellos[0].timeScale);
    ASSERT_TRUE(e2e::waitForListener(socketPath(), kStartMs));

    std::string reply;
    ASSERT_EQ(0, command(23, &reply));
    ASSERT_EQ(2 * 1456u + 1, reply.size()); // the whole message, as hex, and a line end
    EXPECT_EQ("17000000", reply.substr(0, 8));
    ASSERT_EQ(0, command(99));

    // The error log is the daemon's standard output, one line per unserved command.
    std::string out = e2e::readFile(dir("/node.out"));
    size_t first = out.find("[MESH][ERROR](mesh_cmd_handle) ");
    ASSERT_NE(std::string::npos, first) << out;
    EXPECT_NE(std::string::npos, out.find("unsupported command type\r\n", first));
    EXPECT_NE(out.rfind("[MESH][ERROR](mesh_cmd_handle) "), first);

    // The fixed paths live under the root.
    struct stat st {};
    ASSERT_EQ(0, stat(dir("/tmp/zormesh.log").c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));
    ASSERT_EQ(0, stat(socketPath().c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    EXPECT_TRUE(node->running());
}

TEST_F(Node, GoesOnServingWhenTheEmulatorDies) {
    auto emu = std::make_unique<emu::ScriptEmulator>(root_.path());
    ASSERT_TRUE(emu->start());
    auto node = startNode();
    ASSERT_TRUE(emu->waitFor("hello main", kStartMs));
    ASSERT_TRUE(e2e::waitForListener(socketPath(), kStartMs));
    ASSERT_EQ(0, command(13));

    emu.reset(); // closes every connection and the socket
    EXPECT_EQ(0, command(13));
    EXPECT_EQ(0, command(1));
    EXPECT_TRUE(node->running());
}

TEST_F(Node, RefusesToStartWithoutAnEmulator) {
    auto node = startNode();
    int st = node->waitExit(kStartMs);
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(4, WEXITSTATUS(st));
    EXPECT_NE(std::string::npos,
              e2e::readFile(dir("/node.err")).find("no emulator answers on " + dir("/emu.sock")));
}

TEST_F(Node, RefusesARootItCannotUse) {
    auto exitOf = [this](const std::vector<std::string>& argv, std::string* err) {
        e2e::Child c(argv, dir("/out"), dir("/err"));
        int st = c.waitExit(kStartMs);
        *err = e2e::readFile(dir("/err"));
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    };
    std::string node = e2e::binPath("zormesh-node");
    std::string err;
    EXPECT_EQ(3, exitOf({node, "--root", dir("/missing")}, &err));
    EXPECT_NE(std::string::npos, err.find("cannot use root")) << err;

    e2e::Child touch({"/usr/bin/touch", dir("/plain")}, "/dev/null", "/dev/null");
    touch.waitExit(kStartMs);
    EXPECT_EQ(3, exitOf({node, "--root", dir("/plain")}, &err));
    EXPECT_NE(std::string::npos, err.find("not a directory")) << err;

    std::string deep = dir("/" + std::string(90, 'd'));
    ASSERT_EQ(0, mkdir(deep.c_str(), 0755));
    EXPECT_EQ(3, exitOf({node, "--root", deep}, &err));
    EXPECT_NE(std::string::npos, err.find("too long for the command socket")) << err;

    EXPECT_EQ(2, exitOf({node, "--root", root_.path(), "--time-scale", "0"}, &err));
    EXPECT_EQ(2, exitOf({node}, &err));
}

TEST_F(Node, StartsByHandWithTheEmulatorProgram) {
    e2e::Child emu({e2e::binPath("zormesh-emu"), "--root", root_.path()}, dir("/emu.out"), "",
                   true);
    ASSERT_TRUE(emu.waitForStderr("listening on " + dir("/emu.sock"), kStartMs));
    auto node = startNode();
    ASSERT_TRUE(e2e::waitForListener(socketPath(), kStartMs));
    ASSERT_EQ(0, command(13));
    EXPECT_NE(std::string::npos, e2e::readFile(dir("/emu.out")).find("c1 hello main pid="));
    EXPECT_NE(std::string::npos,
              e2e::readFile(dir("/tmp/wireless/mt5g.dat")).find("AuthMode=OPEN;OPEN;OPEN;OPEN"));

    emu.feed("quit\n");
    int st = emu.waitExit(kStartMs);
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(0, WEXITSTATUS(st));
    EXPECT_EQ(0, command(13)); // the node outlives its emulator
    EXPECT_TRUE(node->running());
}

} // namespace
