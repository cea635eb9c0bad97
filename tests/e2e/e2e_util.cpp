#include "e2e_util.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace e2e {

TempRoot::TempRoot() {
    char tmpl[] = "/tmp/zm-e2e-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    path_ = tmpl;
}

TempRoot::~TempRoot() {
    std::string cmd = "rm -rf '" + path_ + "'";
    if (std::system(cmd.c_str()) != 0) {
        fprintf(stderr, "could not remove %s\n", path_.c_str());
    }
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string binPath(const char* name) {
    return std::string(ZORMESH_BIN_DIR) + "/" + name;
}

Child::Child(const std::vector<std::string>& argv, const std::string& outFile,
             const std::string& errFile, bool withStdin) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    int pipeFds[2] = {-1, -1};
    if (withStdin && pipe2(pipeFds, O_CLOEXEC) == 0) {
        posix_spawn_file_actions_adddup2(&fa, pipeFds[0], 0);
        stdinFd_ = pipeFds[1];
    } else {
        posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    }
    posix_spawn_file_actions_addopen(&fa, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int errPipe[2] = {-1, -1};
    if (errFile.empty() && pipe2(errPipe, O_CLOEXEC) == 0) {
        posix_spawn_file_actions_adddup2(&fa, errPipe[1], 2);
        stderrFd_ = errPipe[0];
    } else {
        posix_spawn_file_actions_addopen(&fa, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
    }
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    if (posix_spawn(&pid_, args[0], &fa, nullptr, args.data(), environ) != 0) {
        pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&fa);
    if (pipeFds[0] >= 0) {
        close(pipeFds[0]);
    }
    if (errPipe[1] >= 0) {
        close(errPipe[1]);
    }
}

bool Child::waitForStderr(const std::string& text, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (stderr_.find(text) == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{stderrFd_, POLLIN, 0};
        if (stderrFd_ < 0 || left.count() <= 0 ||
            poll(&p, 1, static_cast<int>(left.count())) <= 0) {
            return false;
        }
        char buf[512];
        ssize_t n = read(stderrFd_, buf, sizeof buf);
        if (n <= 0) {
            return false;
        }
        stderr_.append(buf, static_cast<size_t>(n));
    }
    return true;
}

Child::~Child() {
    if (stdinFd_ >= 0) {
        close(stdinFd_);
    }
    if (stderrFd_ >= 0) {
        close(stderrFd_);
    }
    if (running()) {
        ::kill(pid_, SIGKILL);
        waitExit(5000);
    }
}

void Child::feed(const std::string& text) {
    if (stdinFd_ >= 0 && write(stdinFd_, text.data(), text.size()) < 0) {
        perror("write to child");
    }
}

int Child::waitExit(int timeoutMs) {
    if (pid_ < 0 || status_ >= 0) {
        return status_;
    }
    // waitpid blocks in a helper thread; the deadline is a bound for a hung child only.
    pid_t pid = pid_;
    auto fut = std::async(std::launch::async, [pid] {
        int st = 0;
        while (waitpid(pid, &st, 0) < 0) {
            if (errno != EINTR) {
                return -1;
            }
        }
        return st;
    });
    if (fut.wait_for(std::chrono::milliseconds(timeoutMs)) != std::future_status::ready) {
        ::kill(pid_, SIGKILL); // lets the helper thread end
        fut.wait();
        status_ = -2;
        return -1;
    }
    status_ = fut.get();
    return status_;
}

bool Child::running() {
    if (pid_ < 0 || status_ != -1) {
        return false;
    }
    int st = 0;
    pid_t r = waitpid(pid_, &st, WNOHANG);
    if (r == pid_) {
        status_ = st;
        return false;
    }
    return r == 0;
}

void Child::kill(int sig) {
    if (pid_ > 0 && status_ == -1) {
        ::kill(pid_, sig);
    }
}

int run(const std::vector<std::string>& argv, std::string* out) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return -1;
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        return -1;
    }
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) {
            text.append(buf, static_cast<size_t>(n));
        }
    }
    close(fds[0]);
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
    }
    if (out != nullptr) {
        *out = text;
    }
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

bool waitForListener(const std::string& path, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        close(fd); // the daemon sees a connection without a request and goes on
        if (ok) {
            return true;
        }
        // The process is still starting up: look again shortly.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

int connectSeqpacket(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool sendMsg(int fd, const Bytes& msg) {
    return send(fd, msg.data(), msg.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(msg.size());
}

Bytes recvMsg(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) {
        return {};
    }
    Bytes buf(70000);
    ssize_t n = recv(fd, buf.data(), buf.size(), 0);
    buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buf;
}

Bytes padded(const std::string& text, size_t size) {
    Bytes b(size, 0);
    memcpy(b.data(), text.data(), text.size() < size ? text.size() : size);
    return b;
}

Bytes le32(uint32_t v) {
    return Bytes{static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8),
                 static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 24)};
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

} // namespace e2e
