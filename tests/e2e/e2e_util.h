// What the end-to-end tests share: temporary roots, started programs, raw protocol messages, a
// real clock the test moves by hand, and the headers they all use.
//
// Started programs: in a cross build the build's programs are the target's and run under the
// build's emulator (qemu-user), whose command words the build hands in as ZORMESH_EMULATOR, so
// the tests need no binfmt handler. A program that cannot start is reported at once, and every
// wait on a started program also ends when the program does, so a test never hangs on a
// program that died.
#pragma once

#include "emu_script.h"
#include "platform/hex.h"
#include "platform/remote_os.h"
#include "platform/wireless.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

extern char** environ;

namespace e2e {

using Bytes = std::vector<uint8_t>;
using hex::hexBytes;

constexpr int kStartMs = 10000; // bound for a process start or an answer, not a measurement

// A program of the build (zormesh-node, zormesh-emu, zormeshctl).
inline std::string binPath(const char* name) {
    return std::string(ZORMESH_BIN_DIR) + "/" + name;
}

// A started program with stdout and stderr going to files; killed (SIGKILL) and reaped by the
// destructor if still running.
class Child {
  public:
    Child(std::vector<std::string> argv, const std::string& outFile, const std::string& errFile) {
        // Natively the program itself; in a cross build the emulator and its options first.
        std::vector<std::string> words;
        std::istringstream in(ZORMESH_EMULATOR);
        for (std::string w; in >> w;) {
            words.push_back(w);
        }
        words.insert(words.end(), argv.begin(), argv.end());
        what_ = argv.empty() ? "" : argv[0];
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_addopen(&fa, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        std::vector<char*> args;
        for (auto& a : words) {
            args.push_back(&a[0]);
        }
        args.push_back(nullptr);
        // posix_spawnp: the emulator is found on PATH, the build's programs by their path.
        const int rc = args[0] != nullptr
                           ? posix_spawnp(&pid_, args[0], &fa, nullptr, args.data(), environ)
                           : EINVAL;
        if (rc == 0) {
            // Readable when the program ends: waits need no polling.
            pidFd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
        } else {
            pid_ = -1;
            error_ = "cannot start " + words[0] + ": " + strerror(rc);
            fprintf(stderr, "%s\n", error_.c_str());
        }
        posix_spawn_file_actions_destroy(&fa);
    }
    ~Child() {
        if (running()) {
            ::kill(pid_, SIGKILL);
            waitExit();
        }
        close(pidFd_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Empty when the program started; otherwise why it did not (for an assertion message).
    const std::string& startError() const { return error_; }
    bool started() const { return pid_ > 0; }

    // Waits up to `timeoutMs` for the program to end: its exit status, -1 when it is still
    // running, was ended by a signal or never started.
    int waitExit(int timeoutMs = kStartMs) {
        pollfd p{pidFd_, POLLIN, 0};
        int st = 0;
        if (status_ == -1 && pidFd_ >= 0 && poll(&p, 1, timeoutMs) > 0 &&
            waitpid(pid_, &st, WNOHANG) == pid_) {
            status_ = st;
        }
        return status_ != -1 && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
    }
    bool running() { return started() && waitExit(0) == -1 && status_ == -1; }

    // What the program is, for messages: its path without the emulator.
    const std::string& what() const { return what_; }

  private:
    pid_t pid_ = -1;
    int pidFd_ = -1;
    int status_ = -1; // raw wait status once reaped
    std::string what_;
    std::string error_;
};

// A fresh directory under /tmp, removed with its contents by the destructor.
class TempRoot {
  public:
    TempRoot() {
        char tmpl[] = "/tmp/zm-e2e-XXXXXX";
        path_ = mkdtemp(tmpl) != nullptr ? tmpl : "/nonexistent";
    }
    ~TempRoot() {
        if (std::system(("rm -rf '" + path_ + "'").c_str()) != 0) {
            fprintf(stderr, "could not remove %s\n", path_.c_str());
        }
    }
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;
    const std::string& path() const { return path_; }
    std::string operator+(const std::string& sub) const { return path_ + sub; }

  private:
    std::string path_;
};

inline std::string readFile(const std::string& path) {
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

// A connection of `type` to the Unix socket at `path`, -1 when nobody accepts it.
inline int connectTo(const std::string& path, int type = SOCK_SEQPACKET) {
    int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Waits until a program that is starting up accepts connections at `path` (the connection
// made to find out is closed without a word). Given the program, gives up at once when it
// did not start or has ended.
inline bool waitForListener(const std::string& path, int type, Child* program = nullptr) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartMs);
    for (int fd; std::chrono::steady_clock::now() < deadline;) {
        if (program != nullptr && !program->running()) {
            ADD_FAILURE() << program->what() << " ended before it listened on " << path << " "
                          << program->startError();
            return false;
        }
        if ((fd = connectTo(path, type)) >= 0) {
            close(fd);
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// One message of a SEQPACKET connection; received: empty at the end of the stream or after
// `timeoutMs`.
inline bool sendMsg(int fd, const Bytes& msg) {
    return send(fd, msg.data(), msg.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(msg.size());
}
inline Bytes recvMsg(int fd, int timeoutMs = kStartMs) {
    pollfd p{fd, POLLIN, 0};
    Bytes buf(1 << 17);
    ssize_t n = poll(&p, 1, timeoutMs) > 0 ? recv(fd, buf.data(), buf.size(), 0) : 0;
    buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buf;
}

// Expects `call` to give `result` and leave errno `err`, checked as one pair.
#define EXPECT_RESULT(result, err, call)                                                           \
    EXPECT_EQ(std::make_pair(result, err), ([&] {                                                  \
                  errno = 0;                                                                       \
                  int r_ = (call);                                                                 \
                  return std::make_pair(r_, errno);                                                \
              }()))

// The real clock behind a RemoteOs, moved by the test: sleeps are recorded, not slept.
class ManualClock : public RemoteOs::RealClock {
  public:
    uint64_t nowMicros() override { return now; }
    void sleepMicros(uint64_t us) override {
        slept.push_back(us);
        now += us;
    }
    uint64_t now = 1000000;
    std::vector<uint64_t> slept;
};

} // namespace e2e
