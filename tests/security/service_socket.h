// A management service on a Unix stream socket, written from the documented wire format
// alone: it keeps every message as it arrived (header and body, as hex) and answers operation
// requests with a fixed result and no output. A message is kept before the reply goes out, so
// once an operation has returned, its message is there.
#pragma once

#include "fake_os.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

class ServiceSocket {
  public:
    explicit ServiceSocket(const std::string& path, int32_t result = 0)
        : path_(path), result_(result) {
        mkdir(path.substr(0, path.rfind('/')).c_str(), 0755);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a)) << path;
        EXPECT_EQ(0, listen(fd_, 8));
        thread_ = std::thread([this] {
            while (!stop_) {
                serveOne();
            }
        });
    }
    ~ServiceSocket() {
        stop_ = true;
        thread_.join();
        close(fd_);
        unlink(path_.c_str());
    }
    // The messages received so far, waiting (a bounded while) until there are `n`.
    std::vector<std::string> take(size_t n) {
        std::unique_lock<std::mutex> g(mu_);
        cv_.wait_for(g, std::chrono::seconds(5), [&] { return got_.size() >= n; });
        return std::exchange(got_, {});
    }

  private:
    void serveOne() {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, 20) <= 0) {
            return;
        }
        const int c = accept(fd_, nullptr, nullptr);
        Bytes m(16);
        if (recv(c, m.data(), 16, MSG_WAITALL) == 16) {
            uint32_t len;
            memcpy(&len, &m[8], 4);
            m.resize(16 + std::min(len, 65536u));
            m.resize(16 + static_cast<size_t>(std::max<ssize_t>(
                              0, recv(c, m.data() + 16, m.size() - 16, MSG_WAITALL))));
            {
                std::lock_guard<std::mutex> g(mu_);
                got_.push_back(toHex(m.data(), m.size()));
                cv_.notify_all();
            }
            if (memcmp(m.data(), "WRPQ", 4) == 0) {
                Bytes r = hexBytes("57525053 00000000 00000000 00000000"); // result, no output
                memcpy(&r[4], &result_, 4);
                (void)!send(c, r.data(), r.size(), MSG_NOSIGNAL);
            }
        }
        close(c);
    }

    std::string path_;
    int32_t result_;
    int fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    std::atomic<bool> stop_{false};
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<std::string> got_;
    std::thread thread_;
};
