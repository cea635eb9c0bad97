// What the end-to-end tests share: temporary roots, started programs (launch.h), raw protocol
// messages, a real clock the test moves by hand, and the headers they all use.
#pragma once

#include "emu_script.h"
#include "launch.h"
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
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace e2e {

using Bytes = std::vector<uint8_t>;
using hex::hexBytes;

using launch::binPath;
using launch::Child;
using launch::kStartMs;

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
