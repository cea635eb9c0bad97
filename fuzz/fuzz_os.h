// The system seam driven by a fuzz input: everything the daemon reads from the driver, the
// kernel files, netlink, packet sockets and the random source comes out of the input bytes
// in the order the daemon asks for it. Files live under a temporary root. Every shell line
// is checked by the shell-line oracle and never run; a line that fails it aborts the run,
// so the fuzzer reports it with the input that produced it.
#pragma once

#include "platform/os.h"

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

// The bytes of one fuzz input, handed out front to back. Past the end every read gets zeros.
class FuzzInput {
  public:
    void reset(const uint8_t* data, size_t size) {
        data_ = data;
        size_ = size;
        pos_ = 0;
    }
    bool empty() const { return pos_ >= size_; }
    size_t left() const { return size_ - pos_; }
    // Copies up to `len` bytes into `out` and zero-fills the rest; returns the bytes copied.
    size_t take(void* out, size_t len);
    uint8_t byte();
    uint16_t u16();
    uint32_t u32();
    // The next `len` bytes (fewer at the end) as text.
    std::string text(size_t len);
    // A length-prefixed text: one byte of length, then the bytes.
    std::string prefixedText();

  private:
    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
    size_t pos_ = 0;
};

// Why `line` must not reach the shell, or an empty string when it may: the line must be one
// simple command with balanced quotes and no command separator, pipe, substitution or
// redirection (but a trailing "> /dev/null"); a sed line must be "sed -i SCRIPT FILE" with
// one s command whose flags hold no e or w and nothing after them; an iwpriv line must have
// exactly four words.
std::string shellLineProblem(const char* line);

class FuzzOs : public Os {
  public:
    FuzzOs();
    ~FuzzOs() override;

    FuzzInput& input() { return in_; }
    const std::string& root() const { return root_; }
    // Writes a file under the root (the fixed path as the daemon names it).
    void writeFile(const char* fixed, const std::string& content);
    size_t shellLines() const { return shellLines_; }

    int runShell(const char* line) override;
    const char* path(const char* fixed, char* out, size_t cap) override;
    int readProc(const char* path, void* buf, size_t max) override;
    int writeProc(const char* path, const void* buf, size_t len) override;
    int readRandom(void* buf, size_t len) override;
    int wlanSocket() override;
    int wlanIoctl(int fd, unsigned long request, void* arg) override;
    int netlinkOpen(int protocol) override;
    int netlinkBind(int fd, uint32_t portId) override;
    int netlinkSend(int fd, const void* buf, size_t len) override;
    int netlinkRecv(int fd, void* buf, size_t max) override;
    int packetOpen(uint16_t etherType) override;
    int packetIfIndex(int fd, const char* ifName) override;
    int packetSend(int fd, int ifIndex, uint16_t protocol, const void* frame, size_t len) override;
    int packetWait(int fd, int timeoutMs) override;
    int packetRecv(int fd, void* buf, size_t max) override;
    void closeFd(int fd) override;
    uint32_t semKey() override { return 0x5A0F0001u; }
    int semGet(uint32_t key, int nsems, int flags) override;
    int semSetVal(int id, int num, int value) override;
    int semRemove(int id) override;
    int semOp(int id, struct sembuf* ops, size_t nops) override;
    // The clock moves only when the daemon sleeps or waits.
    uint32_t uptime() override { return static_cast<uint32_t>(100 + millis_ / 1000); }
    void sleepSeconds(unsigned sec) override { millis_ += uint64_t{sec} * 1000; }
    void sleepMillis(unsigned ms) override { millis_ += ms; }
    time_t wallClock() override { return 1700000000; }
    int processId() override { return 4242; }
    const DeviceConfig& deviceConfig() override { return config_; }
    void writeStdout(const char*, size_t) override {}
    void writeStderr(const char*, size_t) override {}

  private:
    // A failure chosen by the input: -1 with an errno of its choice, in about 1 of 8 calls.
    bool fails();

    FuzzInput in_;
    std::string root_;
    DeviceConfig config_;
    uint64_t millis_ = 0;
    size_t shellLines_ = 0;
};

// The process's fuzz system, set as the seam on first use.
FuzzOs& fuzzOs();

// A driver profile as the driver ships it, for the targets that rewrite one.
extern const char* const kFuzzProfile;

// What the targets that talk to the driver do once: the profile in place, the adapter
// initialised.
void fuzzInitDriver();
// The input of one run, reset to the fuzzer's bytes.
FuzzInput& fuzzNextInput(const uint8_t* data, size_t size);

// A service at the other end of a Unix stream socket, for the targets of what a client reads
// back (the daemon from the management service, zormeshctl from the daemon). It serves every
// connection on a thread of its own: reads the request (a 16-byte header whose word at offset
// 8 is the body length, then the body), answers with the bytes of the current reply and
// closes.
class FuzzReplyServer {
  public:
    explicit FuzzReplyServer(const std::string& path);
    // The answer to the next connections (copied).
    void setReply(const std::string& reply);

  private:
    void serve();

    int listenFd_ = -1;
    std::mutex mu_;
    std::string reply_; // guarded by mu_
};
