// A management service listening on a Unix stream socket, written from the documented wire
// format alone: it keeps every message as it arrived (header and body) and answers operation
// requests with a fixed result and no output.
#pragma once

#include "fake_os.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

class ServiceSocket {
  public:
    explicit ServiceSocket(const std::string& path, int32_t result = 0)
        : path_(path), result_(result) {
        mkdir(path.substr(0, path.rfind('/')).c_str(), 0755);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
        ok_ = bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && listen(fd_, 8) == 0;
        thread_ = std::thread([this] { serve(); });
    }
    ~ServiceSocket() {
        stop_ = true;
        thread_.join();
        close(fd_);
        unlink(path_.c_str());
    }
    bool ok() const { return ok_; }
    // The messages received so far, waiting (a bounded while) until there are `n`.
    std::vector<std::string> take(size_t n) {
        std::unique_lock<std::mutex> g(mu_);
        cv_.wait_for(g, std::chrono::seconds(5), [&] { return got_.size() >= n; });
        return std::exchange(got_, {});
    }

  private:
    static bool readAll(int fd, uint8_t* p, size_t len) {
        for (size_t done = 0; done < len;) {
            ssize_t r = recv(fd, p + done, len - done, 0);
            if (r <= 0) {
                return false;
            }
            done += static_cast<size_t>(r);
        }
        return true;
    }
    void serve() {
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) {
                continue;
            }
            int c = accept(fd_, nullptr, nullptr);
            Bytes m(16);
            uint32_t len = 0;
            if (readAll(c, m.data(), 16)) {
                memcpy(&len, &m[8], 4);
                m.resize(16 + len);
                if (len < 65536 && readAll(c, m.data() + 16, len)) {
                    if (memcmp(m.data(), "WRPQ", 4) == 0) { // an operation: reply, no output
                        Bytes r = hexBytes("57525053 00000000 00000000 00000000");
                        memcpy(&r[4], &result_, 4);
                        (void)!send(c, r.data(), r.size(), MSG_NOSIGNAL);
                    }
                    std::lock_guard<std::mutex> g(mu_);
                    got_.push_back(toHex(m.data(), m.size()));
                    cv_.notify_all();
                }
            }
            close(c);
        }
    }

    std::string path_;
    int32_t result_;
    int fd_;
    bool ok_;
    std::atomic<bool> stop_{false};
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<std::string> got_;
    std::thread thread_;
};
