#include "emu_script.h"

#include "platform/hex.h"
#include "platform/linux_os.h"

#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <sys/sem.h>
#include <sys/stat.h>

namespace emu {

namespace {

std::string printable(const Bytes& data) {
    std::string out;
    for (uint8_t b : data) {
        if (b >= 0x20 && b < 0x7f && b != '\\') {
            out += static_cast<char>(b);
        } else {
            char t[8];
            snprintf(t, sizeof t, "\\x%02x", b);
            out += t;
        }
    }
    return out;
}

std::string hex32(uint32_t v, int width) {
    char b[16];
    snprintf(b, sizeof b, "0x%0*X", width, v);
    return b;
}

void mkdirs(const std::string& path) {
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/') {
            mkdir(path.substr(0, i).c_str(), 0755);
        }
    }
}

bool startsWith(const std::string& s, const std::string& prefix) {
    return s.compare(0, prefix.size(), prefix) == 0;
}

} // namespace

ScriptEmulator::ScriptEmulator(std::string root) : root_(std::move(root)), server_(root_, *this) {
    hello_.flags = REMOTE_HELLO_RANDOM;
}

ScriptEmulator::~ScriptEmulator() {
    server_.stop();
}

bool ScriptEmulator::start(std::string* error) {
    {
        std::lock_guard<std::mutex> g(mu_);
        stopping_ = false;
    }
    return server_.start(error);
}

void ScriptEmulator::stop() {
    server_.stop();
}

// ---- scripting ------------------------------------------------------------------------------

void ScriptEmulator::serveRandom(bool on) {
    std::lock_guard<std::mutex> g(mu_);
    hello_.flags =
        on ? (hello_.flags | REMOTE_HELLO_RANDOM) : (hello_.flags & ~REMOTE_HELLO_RANDOM);
}

void ScriptEmulator::seed(uint64_t value) {
    std::lock_guard<std::mutex> g(mu_);
    rng_.seed(value);
}

void ScriptEmulator::queueRandom(const Bytes& bytes) {
    std::lock_guard<std::mutex> g(mu_);
    random_.insert(random_.end(), bytes.begin(), bytes.end());
}

void ScriptEmulator::runForReal(const std::string& prefix) {
    std::lock_guard<std::mutex> g(mu_);
    realPrefixes_.push_back(prefix);
}

void ScriptEmulator::onShell(const std::string& prefix, std::function<int(const std::string&)> fn) {
    std::lock_guard<std::mutex> g(mu_);
    shellHandlers_.emplace_back(prefix, std::move(fn));
}

void ScriptEmulator::onIoctl(uint32_t request, std::function<int(IoctlCall&)> fn) {
    std::lock_guard<std::mutex> g(mu_);
    ioctlHandlers_[request] = std::move(fn);
}

void ScriptEmulator::setProc(const std::string& path, const std::string& content) {
    std::lock_guard<std::mutex> g(mu_);
    proc_[path] = content;
}

void ScriptEmulator::failProcWrite(const std::string& path, int err) {
    std::lock_guard<std::mutex> g(mu_);
    if (err == 0) {
        procWriteErr_.erase(path);
    } else {
        procWriteErr_[path] = err;
    }
}

void ScriptEmulator::setIfIndex(const std::string& ifName, int index) {
    std::lock_guard<std::mutex> g(mu_);
    ifIndex_[ifName] = index;
}

void ScriptEmulator::onPacketSend(std::function<void(const Packet&)> fn) {
    std::lock_guard<std::mutex> g(mu_);
    packetHook_ = std::move(fn);
}

void ScriptEmulator::queuePacket(const Bytes& frame) {
    {
        std::lock_guard<std::mutex> g(mu_);
        rxPackets_.push_back(frame);
    }
    changed_.notify_all();
}

void ScriptEmulator::onSem(std::function<int(const SemCall&)> fn) {
    std::lock_guard<std::mutex> g(mu_);
    semHook_ = std::move(fn);
}

int ScriptEmulator::pushNetlink(const Bytes& message) {
    int n = server_.pushNetlink(message);
    std::lock_guard<std::mutex> g(mu_);
    transcript_.push_back("netlink-push " + hex::toHex(message) + " to " + std::to_string(n));
    if (echo_ != nullptr) {
        fprintf(echo_, "%s\n", transcript_.back().c_str());
        fflush(echo_);
    }
    changed_.notify_all();
    return n;
}

void ScriptEmulator::echoTo(FILE* out) {
    std::lock_guard<std::mutex> g(mu_);
    echo_ = out;
}

void ScriptEmulator::writeFile(const std::string& fixed, const std::string& content) {
    std::string p = rooted(fixed);
    mkdirs(p.substr(0, p.rfind('/')));
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string ScriptEmulator::readFile(const std::string& fixed) const {
    std::ifstream in(rooted(fixed), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// ---- records --------------------------------------------------------------------------------

void ScriptEmulator::record(const Peer& peer, const std::string& line) {
    transcript_.push_back("c" + std::to_string(peer.connection) + " " + line);
    if (echo_ != nullptr) {
        fprintf(echo_, "%s\n", transcript_.back().c_str());
        fflush(echo_);
    }
    changed_.notify_all();
}

std::vector<std::string> ScriptEmulator::transcript() const {
    std::lock_guard<std::mutex> g(mu_);
    return transcript_;
}

bool ScriptEmulator::waitFor(const std::string& text, int timeoutMs) const {
    std::unique_lock<std::mutex> g(mu_);
    return changed_.wait_for(g, std::chrono::milliseconds(timeoutMs), [&] {
        for (const auto& l : transcript_) {
            if (l.find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    });
}

std::vector<Peer> ScriptEmulator::hellos() const {
    std::lock_guard<std::mutex> g(mu_);
    return hellos_;
}

std::vector<std::string> ScriptEmulator::shellLines() const {
    std::lock_guard<std::mutex> g(mu_);
    return shell_;
}

std::vector<IoctlCall> ScriptEmulator::ioctls() const {
    std::lock_guard<std::mutex> g(mu_);
    return ioctls_;
}

std::vector<std::string> ScriptEmulator::procReads() const {
    std::lock_guard<std::mutex> g(mu_);
    return procReads_;
}

std::vector<ScriptEmulator::ProcWrite> ScriptEmulator::procWrites() const {
    std::lock_guard<std::mutex> g(mu_);
    return procWrites_;
}

std::vector<Bytes> ScriptEmulator::netlinkSent() const {
    std::lock_guard<std::mutex> g(mu_);
    return netlinkSent_;
}

std::vector<ScriptEmulator::Packet> ScriptEmulator::packetsSent() const {
    std::lock_guard<std::mutex> g(mu_);
    return packets_;
}

std::vector<ScriptEmulator::PacketWait> ScriptEmulator::packetWaits() const {
    std::lock_guard<std::mutex> g(mu_);
    return packetWaits_;
}

std::vector<SemCall> ScriptEmulator::semCalls() const {
    std::lock_guard<std::mutex> g(mu_);
    return sems_;
}

std::vector<std::string> ScriptEmulator::malformedRequests() const {
    std::lock_guard<std::mutex> g(mu_);
    return malformed_;
}

int ScriptEmulator::disconnects() const {
    std::lock_guard<std::mutex> g(mu_);
    return disconnects_;
}

void ScriptEmulator::clearRecords() {
    std::lock_guard<std::mutex> g(mu_);
    transcript_.clear();
    hellos_.clear();
    shell_.clear();
    ioctls_.clear();
    procReads_.clear();
    procWrites_.clear();
    netlinkSent_.clear();
    packets_.clear();
    packetWaits_.clear();
    sems_.clear();
    malformed_.clear();
    disconnects_ = 0;
}

// ---- Handler --------------------------------------------------------------------------------

HelloAnswer ScriptEmulator::hello(const Peer& peer) {
    std::lock_guard<std::mutex> g(mu_);
    hellos_.push_back(peer);
    record(peer, "hello " + peer.role + " pid=" + std::to_string(peer.pid) +
                     " scale=" + std::to_string(peer.timeScale));
    return hello_;
}

int32_t ScriptEmulator::shell(const Peer& peer, const std::string& line) {
    bool real = false;
    std::function<int(const std::string&)> handler;
    {
        std::lock_guard<std::mutex> g(mu_);
        shell_.push_back(line);
        record(peer, "shell " + line);
        for (const auto& p : realPrefixes_) {
            real = real || startsWith(line, p);
        }
        for (const auto& h : shellHandlers_) {
            if (startsWith(line, h.first)) {
                handler = h.second;
            }
        }
    }
    if (handler) {
        return handler(line);
    }
    if (real) {
        char* const emptyEnv[] = {nullptr};
        return linux_impl::runShell(line.c_str(), emptyEnv);
    }
    return 0;
}

Result ScriptEmulator::procRead(const Peer& peer, const std::string& path, uint32_t max,
                                Bytes& out) {
    std::lock_guard<std::mutex> g(mu_);
    procReads_.push_back(path);
    record(peer, "proc-read " + path + " max=" + std::to_string(max));
    auto it = proc_.find(path);
    if (it == proc_.end()) {
        return Result::fail(ENOENT);
    }
    out.assign(it->second.begin(), it->second.end());
    return Result{};
}

Result ScriptEmulator::procWrite(const Peer& peer, const std::string& path, const Bytes& data) {
    std::lock_guard<std::mutex> g(mu_);
    procWrites_.push_back(ProcWrite{path, data});
    record(peer, "proc-write " + path + " " + printable(data));
    auto it = procWriteErr_.find(path);
    if (it != procWriteErr_.end()) {
        return Result{it->second == ENOENT ? -1 : -2, it->second};
    }
    return Result{};
}

Result ScriptEmulator::random(const Peer& peer, uint32_t len, Bytes& out) {
    std::lock_guard<std::mutex> g(mu_);
    record(peer, "random " + std::to_string(len));
    out.resize(len);
    for (uint32_t i = 0; i < len; ++i) {
        if (!random_.empty()) {
            out[i] = random_.front();
            random_.pop_front();
        } else {
            out[i] = static_cast<uint8_t>(rng_());
        }
    }
    return Result{};
}

Result ScriptEmulator::wlanSocket(const Peer& peer) {
    std::lock_guard<std::mutex> g(mu_);
    int32_t id = nextSocket_++;
    record(peer, "wlan-socket " + std::to_string(id));
    return Result{id, 0};
}

Result ScriptEmulator::ioctl(const Peer& peer, IoctlCall& call) {
    std::function<int(IoctlCall&)> handler;
    {
        std::lock_guard<std::mutex> g(mu_);
        ioctls_.push_back(call);
        record(peer, "ioctl " + hex32(call.request, 4) + " " + call.ifName +
                         " flags=" + std::to_string(call.flags) +
                         " len=" + std::to_string(call.length) + " " + hex::toHex(call.payload));
        auto it = ioctlHandlers_.find(call.request);
        if (it != ioctlHandlers_.end()) {
            handler = it->second;
        }
    }
    if (!handler) {
        return Result{};
    }
    int err = handler(call);
    return err == 0 ? Result{} : Result::fail(err);
}

Result ScriptEmulator::netlinkOpen(const Peer& peer, uint32_t protocol) {
    std::lock_guard<std::mutex> g(mu_);
    record(peer, "netlink-open " + std::to_string(protocol));
    return Result{};
}

Result ScriptEmulator::netlinkBind(const Peer& peer, uint32_t portId) {
    std::lock_guard<std::mutex> g(mu_);
    record(peer, "netlink-bind " + std::to_string(portId));
    return Result{};
}

void ScriptEmulator::netlinkSend(const Peer& peer, const Bytes& message) {
    std::lock_guard<std::mutex> g(mu_);
    netlinkSent_.push_back(message);
    record(peer, "netlink-send " + hex::toHex(message));
}

Result ScriptEmulator::packetOpen(const Peer& peer, uint32_t etherType) {
    std::lock_guard<std::mutex> g(mu_);
    int32_t id = nextSocket_++;
    record(peer, "packet-open " + hex32(etherType, 4) + " " + std::to_string(id));
    return Result{id, 0};
}

Result ScriptEmulator::packetIfIndex(const Peer& peer, uint32_t socket, const std::string& ifName) {
    std::lock_guard<std::mutex> g(mu_);
    record(peer, "packet-ifindex " + std::to_string(socket) + " " + ifName);
    auto it = ifIndex_.find(ifName);
    if (it == ifIndex_.end()) {
        return Result::fail(ENODEV);
    }
    return Result{it->second, 0};
}

Result ScriptEmulator::packetSend(const Peer& peer, uint32_t socket, int32_t ifIndex,
                                  const Bytes& frame) {
    std::function<void(const Packet&)> hook;
    Packet pkt{socket, ifIndex, frame};
    {
        std::lock_guard<std::mutex> g(mu_);
        packets_.push_back(pkt);
        record(peer, "packet-send " + std::to_string(socket) + " if=" + std::to_string(ifIndex) +
                         " " + hex::toHex(frame));
        hook = packetHook_;
    }
    if (hook) {
        hook(pkt);
    }
    return Result{static_cast<int32_t>(frame.size()), 0};
}

Result ScriptEmulator::packetWait(const Peer& peer, uint32_t socket, uint32_t timeoutMs,
                                  uint32_t realTimeoutMs) {
    std::unique_lock<std::mutex> g(mu_);
    packetWaits_.push_back(PacketWait{socket, timeoutMs, realTimeoutMs});
    record(peer, "packet-wait " + std::to_string(socket) + " " + std::to_string(timeoutMs) +
                     " real=" + std::to_string(realTimeoutMs));
    bool ready = changed_.wait_for(g, std::chrono::milliseconds(realTimeoutMs),
                                   [this] { return stopping_ || !rxPackets_.empty(); });
    return Result{ready && !rxPackets_.empty() ? 1 : 0, 0};
}

Result ScriptEmulator::packetRecv(const Peer& peer, uint32_t socket, uint32_t max, Bytes& out) {
    std::lock_guard<std::mutex> g(mu_);
    record(peer, "packet-recv " + std::to_string(socket) + " max=" + std::to_string(max));
    if (rxPackets_.empty()) {
        return Result::fail(EAGAIN);
    }
    out = rxPackets_.front();
    rxPackets_.pop_front();
    return Result{};
}

Result ScriptEmulator::close(const Peer& peer, uint32_t kind, uint32_t socket) {
    std::lock_guard<std::mutex> g(mu_);
    record(peer, std::string("close ") + (kind == REMOTE_CLOSE_WLAN ? "wlan " : "packet ") +
                     std::to_string(socket));
    return Result{};
}

Result ScriptEmulator::sem(const Peer& peer, const SemCall& call) {
    std::function<int(const SemCall&)> hook;
    {
        std::lock_guard<std::mutex> g(mu_);
        sems_.push_back(call);
        std::string line;
        switch (call.call) {
        case REMOTE_SEM_GET:
            line = "sem get key=" + hex32(static_cast<uint32_t>(call.a), 8) +
                   " nsems=" + std::to_string(call.b) +
                   " flags=" + hex32(static_cast<uint32_t>(call.c), 3);
            break;
        case REMOTE_SEM_SETVAL:
            line = "sem setval id=" + std::to_string(call.a) + " num=" + std::to_string(call.b) +
                   " value=" + std::to_string(call.c);
            break;
        case REMOTE_SEM_REMOVE:
            line = "sem remove id=" + std::to_string(call.a);
            break;
        default:
            line = "sem op id=" + std::to_string(call.a);
            for (const RemoteSemOp& o : call.ops) {
                line += " " + std::to_string(o.num) + ":" + std::to_string(o.op) + ":" +
                        hex32(static_cast<uint16_t>(o.flg), 4);
            }
            break;
        }
        record(peer, line);
        hook = semHook_;
    }
    int err = hook ? hook(call) : 0;
    return err == 0 ? Result{} : Result::fail(err);
}

void ScriptEmulator::malformed(const Peer& peer, uint32_t op, const std::string& why) {
    std::lock_guard<std::mutex> g(mu_);
    malformed_.push_back(std::string(remote_opName(op)) + ": " + why);
    record(peer, "malformed " + std::string(remote_opName(op)) + ": " + why);
}

void ScriptEmulator::disconnected(const Peer& peer) {
    std::lock_guard<std::mutex> g(mu_);
    ++disconnects_;
    record(peer, "bye " + peer.role);
}

void ScriptEmulator::stopping() {
    {
        std::lock_guard<std::mutex> g(mu_);
        stopping_ = true;
    }
    changed_.notify_all();
}

} // namespace emu
