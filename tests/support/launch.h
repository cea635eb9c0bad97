// Starting the build's own programs (zormesh-node, zormesh-emu, zormeshctl, zormesh-sim) from
// a test. In a cross build the programs are the target's: they run under the build's
// emulator (qemu-user), whose command words the build hands in as ZORMESH_EMULATOR, so the
// tests need no binfmt handler. A program that cannot start is reported at once, and every
// wait on a started program also ends when the program does, so a test never hangs on a
// program that died.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#ifndef ZORMESH_EMULATOR
#define ZORMESH_EMULATOR ""
#endif

extern char** environ;

namespace launch {

constexpr int kStartMs = 10000; // bound for a process start or an answer, not a measurement

// A program of the build (zormesh-node, zormesh-emu, zormeshctl).
inline std::string binPath(const char* name) {
    return std::string(ZORMESH_BIN_DIR) + "/" + name;
}

// The words that run a program of the build on this machine: empty natively, the emulator
// and its options in a cross build.
inline std::vector<std::string> emulatorWords() {
    std::vector<std::string> words;
    std::istringstream in(ZORMESH_EMULATOR);
    for (std::string w; in >> w;) {
        words.push_back(w);
    }
    return words;
}

// A started program with stdout and stderr going to files; killed (SIGKILL) and reaped by the
// destructor if still running.
class Child {
  public:
    Child(std::vector<std::string> argv, const std::string& outFile, const std::string& errFile) {
        std::vector<std::string> words = emulatorWords();
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

} // namespace launch
