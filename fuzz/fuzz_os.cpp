#include "fuzz_os.h"

#include "platform/linux_os.h"
#include "platform/wireless.h"
#include "wlan/mesh_wlan.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

// ---- input -------------------------------------------------------------------------------

size_t FuzzInput::take(void* out, size_t len) {
    size_t n = len < left() ? len : left();
    if (n > 0) {
        memcpy(out, data_ + pos_, n);
    }
    memset(static_cast<uint8_t*>(out) + n, 0, len - n);
    pos_ += n;
    return n;
}

uint8_t FuzzInput::byte() {
    uint8_t b = 0;
    take(&b, 1);
    return b;
}

uint16_t FuzzInput::u16() {
    uint16_t v = 0;
    take(&v, sizeof v);
    return v;
}

uint32_t FuzzInput::u32() {
    uint32_t v = 0;
    take(&v, sizeof v);
    return v;
}

std::string FuzzInput::text(size_t len) {
    size_t n = len < left() ? len : left();
    std::string s(reinterpret_cast<const char*>(data_ + pos_), n);
    pos_ += n;
    return s;
}

std::string FuzzInput::prefixedText() {
    return text(byte());
}

// ---- the shell-line oracle -------------------------------------------------------------------

namespace {

// Splits a shell line into words the way /bin/sh would (quotes removed, backslashes
// applied), or says why the line is more than one plain command.
std::string splitWords(const std::string& line, std::vector<std::string>& words) {
    std::string word;
    bool inWord = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '\'') {
            size_t end = line.find('\'', i + 1);
            if (end == std::string::npos) {
                return "unterminated single quote";
            }
            word += line.substr(i + 1, end - i - 1);
            inWord = true;
            i = end;
        } else if (c == '"') {
            size_t j = i + 1;
            for (; j < line.size() && line[j] != '"'; ++j) {
                if (line[j] == '`' || (line[j] == '$' && j + 1 < line.size() &&
                                       line[j + 1] != '/' && line[j + 1] != '"')) {
                    return "expansion in double quotes";
                }
                if (line[j] == '\\' && j + 1 < line.size() && strchr("$`\"\\\n", line[j + 1])) {
                    ++j;
                }
                word += line[j];
            }
            if (j >= line.size()) {
                return "unterminated double quote";
            }
            inWord = true;
            i = j;
        } else if (c == '\\') {
            if (i + 1 >= line.size()) {
                return "backslash at the end";
            }
            if (line[i + 1] != '\n') { // a line continuation vanishes
                word += line[i + 1];
                inWord = true;
            }
            ++i;
        } else if (c == ' ' || c == '\t') {
            if (inWord) {
                words.push_back(word);
                word.clear();
                inWord = false;
            }
        } else if (c == '>' && line.compare(i, std::string::npos, "> /dev/null") == 0) {
            break; // the one redirection our lines use, at their end
        } else if (strchr(";&|\n`$()<>", c) != nullptr) {
            return std::string("unquoted '") +
                   (c == '\n' ? std::string("\\n") : std::string(1, c)) + "'";
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord) {
        words.push_back(word);
    }
    return "";
}

// Walks one part of an s command up to its closing delimiter; returns the index after it, or
// std::string::npos.
size_t sedPart(const std::string& s, size_t i, char delim) {
    for (; i < s.size(); ++i) {
        if (s[i] == '\\') {
            ++i;
        } else if (s[i] == delim) {
            return i + 1;
        }
    }
    return std::string::npos;
}

std::string sedScriptProblem(const std::string& script) {
    if (script.find('\n') != std::string::npos) {
        return "line feed in the sed script";
    }
    if (script.size() < 2 || script[0] != 's') {
        return "sed script is not one s command";
    }
    const char delim = script[1];
    size_t i = sedPart(script, 2, delim);
    i = i == std::string::npos ? i : sedPart(script, i, delim);
    if (i == std::string::npos) {
        return "unterminated s command";
    }
    for (; i < script.size(); ++i) {
        if (strchr("g0123456789pIiMm", script[i]) == nullptr) {
            return std::string("sed flag or command after the s command: '") + script[i] + "'";
        }
    }
    return "";
}

} // namespace

std::string shellLineProblem(const char* line) {
    std::vector<std::string> words;
    std::string problem = splitWords(line, words);
    if (!problem.empty()) {
        return problem;
    }
    if (words.empty()) {
        return "empty line";
    }
    if (words[0] == "sed") {
        if (words.size() != 4 || words[1] != "-i") {
            return "sed line is not sed -i SCRIPT FILE";
        }
        return sedScriptProblem(words[2]);
    }
    if (words[0] == "iwpriv" && words.size() != 4) {
        return "iwpriv line of " + std::to_string(words.size()) + " words";
    }
    return "";
}

// ---- the system ---------------------------------------------------------------------------

const char* const kFuzzProfile = "#The word of \"Default\" must not be removed\n"
                                 "Default\n"
                                 "BssidNum=4\n"
                                 "SSID=\n"
                                 "SSID1=HomeNet-5G\n"
                                 "SSID2=Guest 5G\r\n"
                                 "SSID3=\n"
                                 "SSID4=mesh_000000000000\n"
                                 "HT_BW=1\n"
                                 "VHT_BW=1\n"
                                 "HT_BSSCoexistence=0\r\n"
                                 "HT_EXTCHA=1\n"
                                 "AutoChannelSelect=3\n"
                                 "Channel=36\r\n"
                                 "AuthMode=WPA2PSK;WPA2PSK;OPEN;OPEN\n"
                                 "EncrypType=AES;AES;NONE;NONE\r\n"
                                 "RekeyMethod=TIME;TIME;DISABLE;DISABLE\n"
                                 "HideSSID=0;0;0;0\n"
                                 "WPAPSK=\n"
                                 "WPAPSK1=12345678\n"
                                 "WPAPSK2=\n"
                                 "WPAPSK3=\n"
                                 "WPAPSK4=\n";

FuzzOs::FuzzOs() : config_(defaultDeviceConfig()) {
    // In memory when the machine has a tmpfs: the targets rewrite files on every input.
    for (const char* base : {"/dev/shm", "/tmp"}) {
        std::string t = std::string(base) + "/zormesh-fuzz-XXXXXX";
        std::vector<char> buf(t.begin(), t.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) != nullptr) {
            root_ = buf.data();
            break;
        }
    }
    if (root_.empty()) {
        perror("mkdtemp");
        abort();
    }
    for (const char* dir : {"/tmp", "/tmp/wireless", "/var", "/var/run"}) {
        mkdir((root_ + dir).c_str(), 0700);
    }
}

FuzzOs::~FuzzOs() {
    std::string cleanup = "rm -rf '" + root_ + "'";
    if (std::system(cleanup.c_str()) != 0) {
        fprintf(stderr, "could not remove %s\n", root_.c_str());
    }
}

void FuzzOs::writeFile(const char* fixed, const std::string& content) {
    FILE* f = fopen((root_ + fixed).c_str(), "w");
    if (f == nullptr) {
        perror(fixed);
        abort();
    }
    fwrite(content.data(), 1, content.size(), f);
    fclose(f);
}

bool FuzzOs::fails() {
    uint8_t b = in_.byte();
    if ((b & 7) != 7) {
        return false;
    }
    static const int kErrors[] = {EAGAIN, EINVAL, EIO, ENODEV, EINTR, EBADF, ENOENT, EPERM};
    errno = kErrors[(b >> 3) & 7];
    return true;
}

int FuzzOs::runShell(const char* line) {
    ++shellLines_;
    std::string problem = shellLineProblem(line);
    if (!problem.empty()) {
        fprintf(stderr, "shell-line oracle: %s\n  line: %s\n", problem.c_str(), line);
        abort();
    }
    return in_.byte() == 0xFF ? 256 : 0;
}

const char* FuzzOs::path(const char* fixed, char* out, size_t cap) {
    return linux_impl::joinPath(root_.c_str(), fixed, out, cap);
}

int FuzzOs::readProc(const char*, void* buf, size_t max) {
    if (fails()) {
        return -1;
    }
    size_t len = in_.byte();
    len = len < max ? len : max;
    return static_cast<int>(in_.take(buf, len));
}

int FuzzOs::writeProc(const char*, const void*, size_t) {
    return fails() ? -1 : 0;
}

int FuzzOs::readRandom(void* buf, size_t len) {
    in_.take(buf, len);
    return static_cast<int>(len);
}

int FuzzOs::wlanSocket() {
    return 5;
}

int FuzzOs::wlanIoctl(int, unsigned long request, void* arg) {
    if (fails()) {
        return -1;
    }
    if (request == SIOCGIFFLAGS || request == SIOCGIFINDEX) {
        auto* ifr = static_cast<ifreq*>(arg);
        in_.take(&ifr->ifr_ifru, sizeof ifr->ifr_ifru);
        return 0;
    }
    // The driver fills at most the buffer it was given and reports a length within it.
    auto* iwr = static_cast<iwreq*>(arg);
    const uint16_t cap = iwr->u.data.length;
    const uint16_t len = static_cast<uint16_t>(in_.u16() % (cap + 1u));
    if (iwr->u.data.pointer != nullptr) {
        in_.take(iwr->u.data.pointer, len);
    }
    iwr->u.data.length = len;
    return 0;
}

int FuzzOs::netlinkOpen(int) {
    return fails() ? -1 : 6;
}

int FuzzOs::netlinkBind(int, uint32_t) {
    return fails() ? -1 : 0;
}

int FuzzOs::netlinkSend(int, const void*, size_t len) {
    return fails() ? -1 : static_cast<int>(len);
}

int FuzzOs::netlinkRecv(int, void* buf, size_t max) {
    if (in_.empty() || fails()) {
        errno = EIO;
        return -1;
    }
    size_t len = in_.u16() % (max + 1);
    return static_cast<int>(in_.take(buf, len));
}

int FuzzOs::packetOpen(uint16_t) {
    return fails() ? -1 : 7;
}

int FuzzOs::packetIfIndex(int, const char*) {
    return fails() ? -1 : 3;
}

int FuzzOs::packetSend(int, int, uint16_t, const void*, size_t len) {
    return fails() ? -1 : static_cast<int>(len);
}

int FuzzOs::packetWait(int, int timeoutMs) {
    if (in_.empty()) {
        millis_ += static_cast<uint64_t>(timeoutMs > 0 ? timeoutMs : 0);
        return 0;
    }
    if (fails()) {
        return -1;
    }
    if ((in_.byte() & 1) != 0) {
        return 1;
    }
    millis_ += static_cast<uint64_t>(timeoutMs > 0 ? timeoutMs : 0); // the wait ran out
    return 0;
}

int FuzzOs::packetRecv(int, void* buf, size_t max) {
    if (fails()) {
        return -1;
    }
    size_t len = in_.byte() % (max + 1);
    return static_cast<int>(in_.take(buf, len));
}

void FuzzOs::closeFd(int) {}

int FuzzOs::semGet(uint32_t, int, int) {
    return 1;
}

int FuzzOs::semSetVal(int, int, int) {
    return 0;
}

int FuzzOs::semRemove(int) {
    return 0;
}

int FuzzOs::semOp(int, struct sembuf*, size_t) {
    return 0;
}

FuzzOs& fuzzOs() {
    static FuzzOs* os = [] {
        static FuzzOs o; // its root goes at exit
        setOs(&o);
        return &o;
    }();
    return *os;
}

void fuzzInitDriver() {
    fuzzOs().writeFile("/tmp/wireless/mt5g.dat", kFuzzProfile);
    mesh_api_init();
}

FuzzInput& fuzzNextInput(const uint8_t* data, size_t size) {
    FuzzInput& in = fuzzOs().input();
    in.reset(data, size);
    return in;
}

// ---- the reply server ---------------------------------------------------------------------

namespace {

// Reads `len` bytes, waiting at most a second for each part; false on an end or a failure.
bool readAll(int fd, uint8_t* buf, size_t len) {
    for (size_t got = 0; got < len;) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 1000) != 1) {
            return false;
        }
        ssize_t n = recv(fd, buf + got, len - got, 0);
        if (n <= 0) {
            return false;
        }
        got += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

FuzzReplyServer::FuzzReplyServer(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listenFd_, 16) != 0) {
        perror(path.c_str());
        abort();
    }
    std::thread([this] { serve(); }).detach();
}

void FuzzReplyServer::setReply(const std::string& reply) {
    std::lock_guard<std::mutex> g(mu_);
    reply_ = reply;
}

void FuzzReplyServer::serve() {
    static uint8_t request[16 + 65536];
    for (;;) {
        int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        if (readAll(fd, request, 16)) {
            uint32_t len = 0;
            memcpy(&len, request + 8, sizeof len);
            if (len <= sizeof request - 16 && readAll(fd, request + 16, len)) {
                std::string reply;
                {
                    std::lock_guard<std::mutex> g(mu_);
                    reply = reply_;
                }
                // The client may have given up: its end may be gone.
                (void)send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
            }
        }
        close(fd);
    }
}
