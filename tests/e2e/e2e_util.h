// Helpers of the end-to-end tests: temporary roots, child processes, raw protocol sockets.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace e2e {

// A fresh directory under /tmp, removed with its contents by the destructor.
class TempRoot {
  public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

std::string readFile(const std::string& path);

// A program of the build (zormesh-node, zormesh-emu, zormeshctl).
std::string binPath(const char* name);

// A started program; killed (SIGKILL) and reaped by the destructor if still running.
class Child {
  public:
    // Starts `argv` with stdout going to `outFile` and stderr to `errFile`, or to a pipe
    // that waitForStderr() reads when `errFile` is empty; stdin from a pipe when
    // `withStdin`, else from /dev/null.
    Child(const std::vector<std::string>& argv, const std::string& outFile,
          const std::string& errFile, bool withStdin = false);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    // Writes to the child's standard input.
    void feed(const std::string& text);
    // Waits up to `timeoutMs` for the child to end: its wait status, or -1 when it did not.
    int waitExit(int timeoutMs);
    bool running();
    void kill(int sig);
    // Waits up to `timeoutMs` for `text` on the child's stderr pipe.
    bool waitForStderr(const std::string& text, int timeoutMs);

  private:
    pid_t pid_ = -1;
    int stdinFd_ = -1;
    int stderrFd_ = -1;
    std::string stderr_;
    int status_ = -1;
};

// Runs a program to its end; returns its exit status and puts its standard output in *out.
int run(const std::vector<std::string>& argv, std::string* out);

// Waits up to `timeoutMs` until a stream socket accepts connections at `path`.
bool waitForListener(const std::string& path, int timeoutMs);

// A raw SEQPACKET connection to `path` (-1 on failure).
int connectSeqpacket(const std::string& path);

using Bytes = std::vector<uint8_t>;
// Sends one message; receives one message (empty on end of stream or after `timeoutMs`).
bool sendMsg(int fd, const Bytes& msg);
Bytes recvMsg(int fd, int timeoutMs = 5000);
// Bytes of a NUL-padded text field of `size` bytes.
Bytes padded(const std::string& text, size_t size);
Bytes le32(uint32_t v);
Bytes cat(std::initializer_list<Bytes> parts);

} // namespace e2e
