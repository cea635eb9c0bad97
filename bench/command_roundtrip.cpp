// The command socket under load, side by side with a bare echo server of the same framing:
//
// - RoundTrip/daemon and RoundTrip/echo: one request per connection, as the command socket
//   serves them (connect, send header and 1456-byte body, receive header and body, close).
//   The daemon answers through its real serving loop (an unserved type, so the handler does
//   nothing); the echo server accepts, receives, sends back and closes with nothing else.
// - GoodClientBehindStallers/N: N clients connect and send nothing, then one client sends a
//   whole request; the time is that client's round trip alone.
//
// Pin to one CPU to compare the two round trips: taskset -c 0 build/bench_command_roundtrip
#include "core/mesh_main.h"
#include "core/mesh_msg.h"
#include "platform/byteorder.h"
#include "platform/linux_os.h"
#include "platform/unix_sock.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kMsgSize = UNIX_SOCK_HEADER_SIZE + MESH_CMD_MSG_LEN;

// The Linux platform with its fixed paths under a temporary directory, so the benchmark
// never touches a daemon running on this machine.
class RootedLinuxOs : public LinuxOs {
  public:
    explicit RootedLinuxOs(std::string root) : root_(std::move(root)) {}
    const char* path(const char* fixed, char* out, size_t cap) override {
        return linux_impl::joinPath(root_.c_str(), fixed, out, cap);
    }
    void writeStdout(const char*, size_t) override {} // "unsupported command type" lines

  private:
    std::string root_;
};

void request(uint8_t* msg) {
    memset(msg, 0, kMsgSize);
    put_le32(msg, UNIX_SOCK_MAGIC);
    put_le32(msg + 4, MESH_CMD_MSG_CODE);
    put_le32(msg + 8, MESH_CMD_MSG_LEN);
    put_le32(msg + 16, 23); // a type nobody serves
}

bool roundTrip(const char* path) {
    int fd = unix_sock_connectPath(path);
    if (fd < 0) {
        return false;
    }
    uint8_t msg[kMsgSize];
    request(msg);
    bool ok = send(fd, msg, sizeof msg, MSG_NOSIGNAL) == kMsgSize &&
              recv(fd, msg, sizeof msg, MSG_WAITALL) == kMsgSize;
    close(fd);
    return ok;
}

// The daemon's command server and the echo server, each on its own thread, for the whole
// run of the program.
class Servers {
  public:
    static Servers& get() {
        static Servers s;
        return s;
    }
    const char* daemonPath() const { return daemon_.path; }
    const char* echoPath() const { return echo_.path; }

    ~Servers() {
        stop_ = true;
        // Wake each loop once more, without waiting for an answer: a loop that was not
        // waiting sees stop_ and ends without serving this connection.
        close(unix_sock_connectPath(daemon_.path));
        close(unix_sock_connectPath(echo_.path));
        daemonThread_.join();
        echoThread_.join();
        close(daemon_.listenFd);
        close(echo_.listenFd);
        std::string cleanup = "rm -rf '" + root_ + "'";
        if (std::system(cleanup.c_str()) != 0) {
            fprintf(stderr, "could not remove %s\n", root_.c_str());
        }
    }

  private:
    Servers() : root_(makeRoot()), os_(root_) {
        setOs(&os_);
        if (unix_sock_initSrv(MESH_CMD_SRV_ID, &daemon_, MESH_CMD_SRV_BACKLOG) != 0 ||
            unix_sock_initSrv(99, &echo_, MESH_CMD_SRV_BACKLOG) != 0) {
            perror("unix_sock_initSrv");
            exit(1);
        }
        daemonThread_ = std::thread([this] { serveDaemon(); });
        echoThread_ = std::thread([this] { serveEcho(); });
    }

    static std::string makeRoot() {
        char tmpl[] = "/tmp/zormesh-bench-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            perror("mkdtemp");
            exit(1);
        }
        return tmpl;
    }

    // The daemon's serving loop: wait for the command server, serve one connection.
    void serveDaemon() {
        while (!stop_) {
            UNIX_SOCK_GROUP group;
            unix_sock_groupClear(&group);
            unix_sock_groupAddTo(daemon_.listenFd, &group);
            if (unix_sock_groupWait(&group, MESH_CMD_WAIT_TIMEOUT) > 0 &&
                unix_sock_isSet(daemon_.listenFd, &group)) {
                mesh_receive_cmd(daemon_.listenFd);
            }
        }
    }

    // The same framing and nothing else: accept, receive header and body, send them back.
    void serveEcho() {
        while (!stop_) {
            int conn = accept(echo_.listenFd, nullptr, nullptr);
            if (conn < 0) {
                continue;
            }
            uint8_t msg[kMsgSize];
            if (recv(conn, msg, sizeof msg, MSG_WAITALL) == kMsgSize) {
                send(conn, msg, sizeof msg, MSG_NOSIGNAL);
            }
            close(conn);
        }
    }

    std::string root_;
    RootedLinuxOs os_;
    UNIX_SOCK_SRV_CTX daemon_{};
    UNIX_SOCK_SRV_CTX echo_{};
    std::atomic<bool> stop_{false};
    std::thread daemonThread_;
    std::thread echoThread_;
};

void RoundTrip(benchmark::State& state, bool daemon) {
    Servers& s = Servers::get();
    const char* path = daemon ? s.daemonPath() : s.echoPath();
    for (auto _ : state) {
        if (!roundTrip(path)) {
            state.SkipWithError("round trip failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(RoundTrip, daemon, true)->UseRealTime();
BENCHMARK_CAPTURE(RoundTrip, echo, false)->UseRealTime();

void GoodClientBehindStallers(benchmark::State& state) {
    Servers& s = Servers::get();
    const int stallers = static_cast<int>(state.range(0));
    std::vector<int> fds;
    for (auto _ : state) {
        for (int i = 0; i < stallers; ++i) {
            fds.push_back(unix_sock_connectPath(s.daemonPath()));
        }
        auto start = std::chrono::steady_clock::now();
        bool ok = roundTrip(s.daemonPath());
        auto took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(std::chrono::duration<double>(took).count());
        // Let the server close every staller before the next round.
        for (int fd : fds) {
            char c;
            ok = ok && fd >= 0 && recv(fd, &c, 1, 0) == 0;
            close(fd);
        }
        fds.clear();
        if (!ok) {
            state.SkipWithError("a client was not served as expected");
            break;
        }
    }
}
BENCHMARK(GoodClientBehindStallers)
    ->Arg(0)
    ->Arg(8)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
