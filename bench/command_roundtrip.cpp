// Round trips per second of the daemon's command connection (an unserved type) against a
// plain echo server that uses the same framing over the same kind of socket, in one run.
//
// Both sides serve one request per connection, as the command socket does: connect, send
// header and 1456-byte body, receive header and body, close.
#include "core/mesh_main.h"
#include "core/mesh_msg.h"
#include "platform/byteorder.h"
#include "platform/linux_os.h"
#include "platform/unix_sock.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

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

bool recvAll(int fd, uint8_t* buf, size_t len) {
    while (len > 0) {
        ssize_t n = recv(fd, buf, len, 0);
        if (n <= 0) {
            return false;
        }
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool oneRoundTrip(const char* path) {
    int fd = unix_sock_connectPath(path);
    if (fd < 0) {
        return false;
    }
    uint8_t msg[16 + MESH_CMD_MSG_LEN] = {};
    put_le32(msg, UNIX_SOCK_MAGIC);
    put_le32(msg + 4, MESH_CMD_MSG_CODE);
    put_le32(msg + 8, MESH_CMD_MSG_LEN);
    put_le32(msg + 16, 23); // a type nobody serves
    bool ok = send(fd, msg, sizeof msg, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof msg) &&
              recvAll(fd, msg, sizeof msg);
    close(fd);
    return ok;
}

// The same framing, nothing else: accept, receive header and body, send them back.
void echoOne(int listenFd) {
    int conn = accept(listenFd, nullptr, nullptr);
    if (conn < 0) {
        return;
    }
    int32_t len = 0;
    uint8_t body[MESH_CMD_MSG_LEN];
    if (unix_sock_recvHeader(conn, MESH_CMD_MSG_CODE, &len) == 0 && len == MESH_CMD_MSG_LEN &&
        unix_sock_recvData(conn, len, body) == 0) {
        unix_sock_sendHeader(conn, len, MESH_CMD_MSG_CODE);
        unix_sock_sendData(conn, body, len);
    }
    close(conn);
}

double measure(const char* path, int listenFd, bool daemon, int count) {
    std::thread server([&] {
        for (int i = 0; i < count; ++i) {
            if (daemon) {
                mesh_receive_cmd(listenFd);
            } else {
                echoOne(listenFd);
            }
        }
    });
    auto start = std::chrono::steady_clock::now();
    int failures = 0;
    for (int i = 0; i < count; ++i) {
        failures += oneRoundTrip(path) ? 0 : 1;
    }
    server.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (failures != 0) {
        fprintf(stderr, "%d round trips failed\n", failures);
        exit(1);
    }
    return count / secs;
}

} // namespace

int main(int argc, char** argv) {
    int count = argc > 1 ? atoi(argv[1]) : 20000;
    char tmpl[] = "/tmp/zormesh-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    RootedLinuxOs rooted(tmpl);
    setOs(&rooted);

    UNIX_SOCK_SRV_CTX daemonCtx{};
    UNIX_SOCK_SRV_CTX echoCtx{};
    if (unix_sock_initSrv(MESH_CMD_SRV_ID, &daemonCtx, MESH_CMD_SRV_BACKLOG) != 0 ||
        unix_sock_initSrv(99, &echoCtx, MESH_CMD_SRV_BACKLOG) != 0) {
        perror("unix_sock_initSrv");
        return 1;
    }
    // Warm up both paths, then alternate the two measurements twice and keep the best.
    measure(echoCtx.path, echoCtx.listenFd, false, count / 10);
    measure(daemonCtx.path, daemonCtx.listenFd, true, count / 10);
    double echo = 0;
    double daemon = 0;
    for (int round = 0; round < 2; ++round) {
        echo = std::max(echo, measure(echoCtx.path, echoCtx.listenFd, false, count));
        daemon = std::max(daemon, measure(daemonCtx.path, daemonCtx.listenFd, true, count));
    }
    printf("command round trips: daemon %.0f/s, plain echo %.0f/s, ratio %.3f (%d each)\n", daemon,
           echo, daemon / echo, count);
    close(daemonCtx.listenFd);
    close(echoCtx.listenFd);
    std::string cleanup = std::string("rm -rf '") + tmpl + "'";
    return std::system(cleanup.c_str()) == 0 ? 0 : 1;
}
