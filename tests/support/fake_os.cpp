#include "fake_os.h"

#include "platform/linux_os.h"
#include "platform/wireless.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/sem.h>
#include <unistd.h>

namespace {

bool isIfreqRequest(unsigned long request) {
    return request == SIOCGIFFLAGS || request == SIOCGIFINDEX;
}

std::string hexReq(unsigned long request) {
    char buf[16];
    snprintf(buf, sizeof buf, "0x%04lX", request);
    return buf;
}

std::string printable(const void* data, size_t len) {
    std::string out;
    const auto* p = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < len; ++i) {
        if (p[i] >= 0x20 && p[i] < 0x7f && p[i] != '\\') {
            out += static_cast<char>(p[i]);
        } else {
            char b[8];
            snprintf(b, sizeof b, "\\x%02x", p[i]);
            out += b;
        }
    }
    return out;
}

// The fake whose clock step woke this thread and now waits for it to sleep again.
thread_local FakeOs* tl_running = nullptr;

// A woken thread that ends instead of sleeping again must not keep the clock waiting.
struct ExitWatch {
    ~ExitWatch() {
        if (FakeOs* f = tl_running) {
            f->backToSleep();
        }
    }
};
thread_local ExitWatch tl_exitWatch;

constexpr auto kRealPatience = std::chrono::seconds(20);

} // namespace

FakeOs::FakeOs() : device_(defaultDeviceConfig()), owner_(std::this_thread::get_id()) {
    char tmpl[] = "/tmp/zormesh-fake-XXXXXX";
    const char* dir = mkdtemp(tmpl);
    if (dir == nullptr) {
        perror("mkdtemp");
        abort();
    }
    root_ = dir;
    std::filesystem::create_directories(root_ + "/tmp/wireless");
    std::filesystem::create_directories(root_ + "/var/run");
    // A semaphore key of our own, so that tests never touch the device's profile lock.
    static int instance = 0;
    semKey_ = 0x5A000000u | (static_cast<uint32_t>(getpid() & 0xFFFF) << 8) |
              static_cast<uint32_t>(++instance & 0xFF);
}

FakeOs::~FakeOs() {
    {
        std::unique_lock<std::mutex> g(mu_);
        waitQuiet(g);
        if (!sleepers_.empty()) {
            fprintf(stderr,
                    "fake system: %zu thread(s) still asleep on the fake clock at the end of the "
                    "test; stop them before the fake goes\n",
                    sleepers_.size());
            abort();
        }
    }
    const int sem = semget(static_cast<key_t>(semKey_), 0, 0);
    if (sem >= 0) {
        semctl(sem, 0, IPC_RMID);
    }
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

// ---- scripting ------------------------------------------------------------------------------

void FakeOs::runForReal(const std::string& prefix) {
    std::lock_guard<std::mutex> g(mu_);
    realPrefixes_.push_back(prefix);
}

void FakeOs::onShell(const std::string& prefix, std::function<int(const std::string&)> fn) {
    std::lock_guard<std::mutex> g(mu_);
    shellHandlers_.emplace_back(prefix, std::move(fn));
}

void FakeOs::onIoctl(unsigned long request, std::function<int(Ioctl&)> fn) {
    std::lock_guard<std::mutex> g(mu_);
    ioctlHandlers_[request] = std::move(fn);
}

void FakeOs::setProc(const std::string& path, const std::string& content) {
    std::lock_guard<std::mutex> g(mu_);
    proc_[path] = content;
}

void FakeOs::removeProc(const std::string& path) {
    std::lock_guard<std::mutex> g(mu_);
    proc_.erase(path);
}

void FakeOs::setIfIndex(const std::string& ifName, int index) {
    std::lock_guard<std::mutex> g(mu_);
    ifIndex_[ifName] = index;
}

void FakeOs::onPacketSend(std::function<void(const Packet&)> fn) {
    std::lock_guard<std::mutex> g(mu_);
    packetHook_ = std::move(fn);
}

void FakeOs::queuePacket(const Bytes& frame) {
    std::lock_guard<std::mutex> g(mu_);
    rxPackets_.push_back(frame);
}

void FakeOs::queueNetlink(const Bytes& message) {
    {
        std::lock_guard<std::mutex> g(mu_);
        rxNetlink_.push_back(message);
    }
    netlinkCv_.notify_all();
}

int FakeOs::failNth(const std::string& prefix, int nth, int err) {
    std::lock_guard<std::mutex> g(mu_);
    failRules_.push_back(FailRule{prefix, nth, err, 0, false});
    return static_cast<int>(failRules_.size()) - 1;
}

bool FakeOs::fired(int handle) const {
    std::lock_guard<std::mutex> g(mu_);
    return handle >= 0 && handle < static_cast<int>(failRules_.size()) &&
           failRules_[static_cast<size_t>(handle)].fired;
}

bool FakeOs::failing(const std::string& line) {
    transcript_.push_back(line);
    // Every matching rule counts every operation, so that "the Nth" means the same whatever
    // other rules exist; when several fire at once, the first one's error is used.
    int err = 0;
    for (FailRule& r : failRules_) {
        if (!r.fired && line.compare(0, r.prefix.size(), r.prefix) == 0 && ++r.seen == r.nth) {
            r.fired = true;
            err = err != 0 ? err : r.err;
        }
    }
    errno = err != 0 ? err : errno;
    return err != 0;
}

// ---- clock ----------------------------------------------------------------------------------

void FakeOs::advanceMillis(uint64_t ms) {
    std::unique_lock<std::mutex> g(mu_);
    advanceLocked(g, ms);
}

void FakeOs::advanceLocked(std::unique_lock<std::mutex>& g, uint64_t ms) {
    const uint64_t target = clockMs_ + ms;
    for (;;) {
        waitQuiet(g);
        if (sleepers_.empty() || sleepers_.begin()->first > target) {
            break;
        }
        const auto first = *sleepers_.begin();
        sleepers_.erase(sleepers_.begin());
        clockMs_ = std::max(clockMs_, first.first);
        woken_.insert(first.second);
        ++running_;
        clockCv_.notify_all();
    }
    clockMs_ = std::max(clockMs_, target);
}

void FakeOs::waitQuiet(std::unique_lock<std::mutex>& g) {
    if (!clockCv_.wait_for(g, kRealPatience, [this] { return running_ == 0; })) {
        fprintf(stderr, "fake system: a thread woken by the clock did not sleep again within "
                        "20 s; the clock goes on without it\n");
        running_ = 0;
    }
}

void FakeOs::backToSleep() {
    std::lock_guard<std::mutex> g(mu_);
    if (tl_running == this) {
        tl_running = nullptr;
        running_ = std::max(0, running_ - 1);
        clockCv_.notify_all();
    }
}

void FakeOs::sleepFor(std::unique_lock<std::mutex>& g, uint64_t ms) {
    if (std::this_thread::get_id() == owner_) {
        advanceLocked(g, ms);
        return;
    }
    (void)&tl_exitWatch; // constructed once per thread, runs at its end
    if (tl_running == this) {
        tl_running = nullptr;
        --running_;
    }
    const std::pair<uint64_t, uint64_t> key{clockMs_ + ms, nextTicket_++};
    sleepers_.insert(key);
    clockCv_.notify_all();
    // Runs with mu_ held, also when the thread is cancelled in the wait (the wait takes the
    // lock back before the thread unwinds).
    struct Unsleep {
        FakeOs* f;
        std::pair<uint64_t, uint64_t> key;
        bool returned = false;
        ~Unsleep() {
            f->sleepers_.erase(key);
            if (f->woken_.erase(key.second) != 0 && !returned) {
                --f->running_; // woken, but cancelled instead of running
            }
            f->clockCv_.notify_all();
        }
    } guard{this, key};
    clockCv_.wait(g, [&] { return woken_.count(key.second) != 0; });
    guard.returned = true;
    tl_running = this;
}

bool FakeOs::settle(size_t n) {
    std::unique_lock<std::mutex> g(mu_);
    return clockCv_.wait_for(g, kRealPatience,
                             [&] { return running_ == 0 && sleepers_.size() == n; });
}

size_t FakeOs::openFds() const {
    std::lock_guard<std::mutex> g(mu_);
    return fds_.size();
}

size_t FakeOs::sleepers() const {
    std::lock_guard<std::mutex> g(mu_);
    return sleepers_.size();
}

uint64_t FakeOs::nowMillis() const {
    std::lock_guard<std::mutex> g(mu_);
    return clockMs_;
}

// ---- records --------------------------------------------------------------------------------

std::vector<std::string> FakeOs::transcriptOf(const std::string& prefix) const {
    std::vector<std::string> out;
    for (const std::string& l : transcript()) {
        if (l.compare(0, prefix.size(), prefix) == 0) {
            out.push_back(l.substr(prefix.size()));
        }
    }
    return out;
}

std::vector<FakeOs::IoctlRecord> FakeOs::ioctls(unsigned long request) const {
    std::lock_guard<std::mutex> g(mu_);
    std::vector<IoctlRecord> out;
    for (const auto& r : ioctls_) {
        if (r.request == request) {
            out.push_back(r);
        }
    }
    return out;
}

void FakeOs::clearRecords() {
    std::lock_guard<std::mutex> g(mu_);
    transcript_.clear();
    ioctls_.clear();
    stdout_.clear();
    stderr_.clear();
}

std::string FakeOs::takeStdout() {
    std::lock_guard<std::mutex> g(mu_);
    std::string out;
    out.swap(stdout_);
    return out;
}

std::string FakeOs::rooted(const std::string& fixed) {
    return root_ + fixed;
}

std::string FakeOs::readFile(const std::string& fixed) {
    std::ifstream in(rooted(fixed), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void FakeOs::writeFile(const std::string& fixed, const std::string& content) {
    std::string p = rooted(fixed);
    std::filesystem::create_directories(p.substr(0, p.rfind('/')));
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << content;
}

// ---- Os: shell and files ----------------------------------------------------------------------

int FakeOs::runShell(const char* line) {
    if (line == nullptr) {
        return 1;
    }
    std::string l(line);
    bool real = false;
    std::function<int(const std::string&)> handler;
    {
        std::lock_guard<std::mutex> g(mu_);
        transcript_.push_back("shell " + l);
        for (const auto& p : realPrefixes_) {
            real = real || l.compare(0, p.size(), p) == 0;
        }
        for (const auto& h : shellHandlers_) {
            if (l.compare(0, h.first.size(), h.first) == 0) {
                handler = h.second;
            }
        }
    }
    if (handler) {
        return handler(l);
    }
    if (real) {
        char* const emptyEnv[] = {nullptr};
        return linux_impl::runShell(line, emptyEnv);
    }
    return 0;
}

const char* FakeOs::path(const char* fixed, char* out, size_t cap) {
    return linux_impl::joinPath(root_.c_str(), fixed, out, cap);
}

int FakeOs::readProc(const char* path, void* buf, size_t max) {
    std::lock_guard<std::mutex> g(mu_);
    transcript_.push_back(std::string("proc-read ") + path);
    auto it = proc_.find(path);
    if (it == proc_.end()) {
        errno = ENOENT;
        return -1;
    }
    size_t n = std::min(max, it->second.size());
    memcpy(buf, it->second.data(), n);
    return static_cast<int>(n);
}

int FakeOs::writeProc(const char* path, const void* buf, size_t len) {
    std::lock_guard<std::mutex> g(mu_);
    if (failing(std::string("proc-write ") + path + " " + printable(buf, len))) {
        return errno == ENOENT ? -1 : -2;
    }
    return 0;
}

// A counting pattern: every run sees the same bytes.
int FakeOs::readRandom(void* buf, size_t len) {
    std::lock_guard<std::mutex> g(mu_);
    if (failing("random " + std::to_string(len))) {
        return -1;
    }
    auto* p = static_cast<uint8_t*>(buf);
    for (size_t i = 0; i < len; ++i) {
        p[i] = randomCounter_++;
    }
    return static_cast<int>(len);
}

// ---- Os: wireless ioctls -------------------------------------------------------------------

int FakeOs::newFd(const std::string& line) {
    std::lock_guard<std::mutex> g(mu_);
    if (failing(line)) {
        return -1;
    }
    fds_.insert(nextFd_);
    return nextFd_++;
}

int FakeOs::wlanSocket() {
    return newFd("wlan-socket");
}

int FakeOs::wlanIoctl(int fd, unsigned long request, void* arg) {
    Ioctl call{request, "", 0, 0, nullptr};
    auto* ifr = static_cast<ifreq*>(arg);
    auto* iwr = static_cast<iwreq*>(arg);
    if (isIfreqRequest(request)) {
        call.ifName.assign(ifr->ifr_name, strnlen(ifr->ifr_name, IFNAMSIZ));
    } else {
        call.ifName.assign(iwr->ifr_name, strnlen(iwr->ifr_name, IFNAMSIZ));
        call.flags = iwr->u.data.flags;
        call.length = iwr->u.data.length;
        call.data = static_cast<uint8_t*>(iwr->u.data.pointer);
    }
    std::function<int(Ioctl&)> handler;
    {
        std::lock_guard<std::mutex> g(mu_);
        IoctlRecord rec{request, call.ifName, call.flags, call.length, {}};
        if (call.data != nullptr) {
            rec.payload.assign(call.data, call.data + call.length);
        }
        ioctls_.push_back(rec);
        const std::string line = "ioctl " + hexReq(request) + " " + call.ifName +
                                 " flags=" + std::to_string(call.flags) +
                                 " len=" + std::to_string(call.length) + " " +
                                 toHex(rec.payload.data(), rec.payload.size());
        if (fds_.find(fd) == fds_.end()) {
            transcript_.push_back(line);
            errno = EBADF;
            return -1;
        }
        if (failing(line)) {
            return -1;
        }
        auto it = ioctlHandlers_.find(request);
        if (it != ioctlHandlers_.end()) {
            handler = it->second;
        }
    }
    if (!handler) {
        if (request == SIOCGIFINDEX) {
            ifr->ifr_ifindex = 1;
        }
        return 0;
    }
    int err = handler(call);
    if (err != 0) {
        errno = err;
        return -1;
    }
    if (!isIfreqRequest(request)) {
        iwr->u.data.length = call.length;
    }
    return 0;
}

// ---- Os: netlink ------------------------------------------------------------------------------

int FakeOs::netlinkOpen(int protocol) {
    return newFd("netlink-open " + std::to_string(protocol));
}

int FakeOs::netlinkBind(int fd, uint32_t portId) {
    std::lock_guard<std::mutex> g(mu_);
    transcript_.push_back("netlink-bind " + std::to_string(fd) + " " + std::to_string(portId));
    return 0;
}

int FakeOs::netlinkSend(int /*fd*/, const void* buf, size_t len) {
    std::lock_guard<std::mutex> g(mu_);
    transcript_.push_back("netlink-send " + toHex(buf, len));
    return static_cast<int>(len);
}

int FakeOs::netlinkRecv(int /*fd*/, void* buf, size_t max) {
    std::unique_lock<std::mutex> g(mu_);
    if (tl_running == this) { // a clocked thread that blocks here no longer runs
        tl_running = nullptr;
        --running_;
        clockCv_.notify_all();
    }
    netlinkCv_.wait(g, [this] { return !rxNetlink_.empty(); });
    const Bytes m = rxNetlink_.front();
    const size_t n = std::min(max, m.size());
    if (failing("netlink-recv " + toHex(m.data(), n))) {
        return -1; // the message stays queued
    }
    rxNetlink_.pop_front();
    memcpy(buf, m.data(), n);
    return static_cast<int>(n);
}

// ---- Os: packet sockets -----------------------------------------------------------------------

int FakeOs::packetOpen(uint16_t etherType) {
    char b[32];
    snprintf(b, sizeof b, "packet-open 0x%04x", etherType);
    return newFd(b);
}

int FakeOs::packetIfIndex(int /*fd*/, const char* ifName) {
    std::lock_guard<std::mutex> g(mu_);
    if (failing(std::string("packet-ifindex ") + ifName)) {
        return -1;
    }
    auto it = ifIndex_.find(ifName);
    if (it == ifIndex_.end()) {
        errno = ENODEV;
        return -1;
    }
    return it->second;
}

int FakeOs::packetSend(int /*fd*/, int ifIndex, uint16_t protocol, const void* frame, size_t len) {
    std::function<void(const Packet&)> hook;
    Packet pkt{ifIndex, protocol,
               Bytes(static_cast<const uint8_t*>(frame), static_cast<const uint8_t*>(frame) + len)};
    {
        std::lock_guard<std::mutex> g(mu_);
        char proto[16];
        snprintf(proto, sizeof proto, " 0x%04x ", protocol);
        if (failing("packet-send " + std::to_string(ifIndex) + proto + toHex(frame, len))) {
            return -1;
        }
        hook = packetHook_;
    }
    if (hook) {
        hook(pkt);
    }
    return static_cast<int>(len);
}

int FakeOs::packetWait(int /*fd*/, int timeoutMs) {
    std::unique_lock<std::mutex> g(mu_);
    if (failing("packet-wait " + std::to_string(timeoutMs))) {
        return -1;
    }
    if (rxPackets_.empty() && timeoutMs > 0) {
        sleepFor(g, static_cast<uint64_t>(timeoutMs)); // nothing to read: the time-out passes
    }
    return rxPackets_.empty() ? 0 : 1;
}

int FakeOs::packetRecv(int /*fd*/, void* buf, size_t max) {
    std::lock_guard<std::mutex> g(mu_);
    if (failing("packet-recv")) {
        return -1;
    }
    if (rxPackets_.empty()) {
        errno = EAGAIN;
        return -1;
    }
    Bytes f = rxPackets_.front();
    rxPackets_.pop_front();
    size_t n = std::min(max, f.size());
    memcpy(buf, f.data(), n);
    return static_cast<int>(n);
}

void FakeOs::closeFd(int fd) {
    std::lock_guard<std::mutex> g(mu_);
    fds_.erase(fd);
}

// ---- Os: semaphores (real System V, under the fake's own key) -----------------------------------

uint32_t FakeOs::semKey() {
    return semKey_;
}

int FakeOs::semGet(uint32_t key, int nsems, int flags) {
    std::lock_guard<std::mutex> g(mu_);
    if (failing("sem-get")) {
        return -1;
    }
    return semget(static_cast<key_t>(key), nsems, flags);
}

int FakeOs::semSetVal(int id, int num, int value) {
    {
        std::lock_guard<std::mutex> g(mu_);
        if (failing("sem-setval " + std::to_string(value))) {
            return -1;
        }
    }
    return semctl(id, num, SETVAL, value);
}

int FakeOs::semRemove(int id) {
    return semctl(id, 0, IPC_RMID);
}

int FakeOs::semOp(int id, struct sembuf* ops, size_t nops) {
    {
        std::lock_guard<std::mutex> g(mu_);
        if (failing("sem-op " + std::to_string(nops > 0 ? ops[0].sem_op : 0))) {
            return -1;
        }
    }
    return semop(id, ops, nops); // may block: outside the fake's lock
}

// ---- Os: time, identity, configuration, output
// ---------------------------------------------------

uint32_t FakeOs::uptime() {
    std::lock_guard<std::mutex> g(mu_);
    return static_cast<uint32_t>(clockMs_ / 1000);
}

void FakeOs::sleepSeconds(unsigned sec) {
    std::unique_lock<std::mutex> g(mu_);
    sleepFor(g, uint64_t(sec) * 1000);
}

void FakeOs::sleepMillis(unsigned ms) {
    std::unique_lock<std::mutex> g(mu_);
    sleepFor(g, ms);
}

time_t FakeOs::wallClock() {
    std::lock_guard<std::mutex> g(mu_);
    return wallBase_ + static_cast<time_t>((clockMs_ - kStartMillis) / 1000);
}

int FakeOs::processId() {
    return pid_;
}

const DeviceConfig& FakeOs::deviceConfig() {
    return device_;
}

void FakeOs::writeStdout(const char* text, size_t len) {
    std::lock_guard<std::mutex> g(mu_);
    stdout_.append(text, len);
}

void FakeOs::writeStderr(const char* text, size_t len) {
    std::lock_guard<std::mutex> g(mu_);
    stderr_.append(text, len);
}
