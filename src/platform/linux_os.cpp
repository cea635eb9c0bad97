#include "platform/linux_os.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <net/ethernet.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace linux_impl {

sockaddr_ll packetAddress(int ifIndex, uint16_t protocol) {
    sockaddr_ll addr;
    memset(&addr, 0, sizeof addr);
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(protocol);
    addr.sll_ifindex = ifIndex;
    return addr;
}

int runShell(const char* line, char* const envp[]) {
    if (line == nullptr) {
        return 1;
    }
    pid_t pid = fork();
    if (pid < 0) {
        return 1;
    }
    if (pid == 0) {
        char sh[] = "sh";
        char dashC[] = "-c";
        char* argv[] = {sh, dashC, const_cast<char*>(line), nullptr};
        execve("/bin/sh", argv, envp);
        _exit(127);
    }
    for (;;) {
        int status = 0;
        if (waitpid(pid, &status, 0) >= 0) {
            return status;
        }
        if (errno != EINTR) {
            return 1;
        }
    }
}

const char* joinPath(const char* root, const char* fixed, char* out, size_t cap) {
    if (out == nullptr || cap == 0) {
        return "";
    }
    int n = snprintf(out, cap, "%s%s", root, fixed);
    if (n < 0 || static_cast<size_t>(n) >= cap) {
        out[0] = '\0';
    }
    return out;
}

} // namespace linux_impl

DeviceConfig defaultDeviceConfig() {
    DeviceConfig c{};
    // The 5 GHz radio of the board: APs rai0..rai3, the last one is the mesh backhaul;
    // apclii0 is the station the mesh joins a parent with.
    snprintf(c.bkhApIfName, sizeof c.bkhApIfName, "%s", "rai3");
    snprintf(c.staIfName, sizeof c.staIfName, "%s", "apclii0");
    c.maxVapNum = 3;
    c.downLinkPortNum = 4;
    for (uint32_t i = 0; i < c.downLinkPortNum; ++i) {
        snprintf(c.downLinkPorts[i], sizeof c.downLinkPorts[i], "eth0.%u", i + 1);
    }
    return c;
}

LinuxOs::LinuxOs() : cfg_(defaultDeviceConfig()) {}
LinuxOs::LinuxOs(const DeviceConfig& cfg) : cfg_(cfg) {}

int LinuxOs::runShell(const char* line) {
    char* const emptyEnv[] = {nullptr};
    return linux_impl::runShell(line, emptyEnv);
}

const char* LinuxOs::path(const char* fixed, char* out, size_t cap) {
    return linux_impl::joinPath("", fixed, out, cap);
}

int LinuxOs::readProc(const char* path, void* buf, size_t max) {
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        return -1;
    }
    ssize_t n = read(fd, buf, max);
    int saved = errno;
    close(fd);
    errno = saved;
    return n < 0 ? -1 : static_cast<int>(n);
}

int LinuxOs::writeProc(const char* path, const void* buf, size_t len) {
    FILE* f = fopen(path, "w");
    if (f == nullptr) {
        return -1;
    }
    size_t items = fwrite(buf, len, 1, f);
    int saved = errno;
    bool ok = (items == 1) && fflush(f) == 0;
    fclose(f);
    errno = saved;
    return ok ? 0 : -2;
}

int LinuxOs::readRandom(void* buf, size_t len) {
    int fd = open("/dev/urandom", O_RDONLY);
    if (fd < 0) {
        return -1;
    }
    ssize_t n = read(fd, buf, len);
    close(fd);
    return n < 0 ? -1 : static_cast<int>(n);
}

int LinuxOs::wlanSocket() {
    return socket(AF_INET, SOCK_DGRAM, 0);
}

int LinuxOs::wlanIoctl(int fd, unsigned long request, void* arg) {
    return ioctl(fd, request, arg);
}

int LinuxOs::netlinkOpen(int protocol) {
    return socket(AF_NETLINK, SOCK_DGRAM, protocol);
}

int LinuxOs::netlinkBind(int fd, uint32_t portId) {
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    addr.nl_pid = portId;
    addr.nl_groups = 0;
    return bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
}

int LinuxOs::netlinkSend(int fd, const void* buf, size_t len) {
    sockaddr_nl dst{};
    dst.nl_family = AF_NETLINK;
    return static_cast<int>(
        sendto(fd, buf, len, 0, reinterpret_cast<const sockaddr*>(&dst), sizeof dst));
}

int LinuxOs::netlinkRecv(int fd, void* buf, size_t max) {
    return static_cast<int>(recvfrom(fd, buf, max, 0, nullptr, nullptr));
}

int LinuxOs::packetOpen(uint16_t etherType) {
    return socket(AF_PACKET, SOCK_RAW, htons(etherType));
}

int LinuxOs::packetIfIndex(int fd, const char* ifName) {
    ifreq req{};
    snprintf(req.ifr_name, sizeof req.ifr_name, "%s", ifName);
    if (ioctl(fd, SIOCGIFINDEX, &req) < 0) {
        return -1;
    }
    return req.ifr_ifindex;
}

int LinuxOs::packetSend(int fd, int ifIndex, uint16_t protocol, const void* frame, size_t len) {
    const sockaddr_ll addr = linux_impl::packetAddress(ifIndex, protocol);
    return static_cast<int>(
        sendto(fd, frame, len, 0, reinterpret_cast<const sockaddr*>(&addr), sizeof addr));
}

int LinuxOs::packetWait(int fd, int timeoutMs) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval tv{};
    tv.tv_sec = timeoutMs / 1000;
    tv.tv_usec = (timeoutMs % 1000) * 1000;
    int n = select(fd + 1, &set, nullptr, nullptr, &tv);
    if (n < 0) {
        return -1;
    }
    return n > 0 && FD_ISSET(fd, &set) ? 1 : 0;
}

int LinuxOs::packetRecv(int fd, void* buf, size_t max) {
    return static_cast<int>(recvfrom(fd, buf, max, 0, nullptr, nullptr));
}

void LinuxOs::closeFd(int fd) {
    if (fd >= 0) {
        close(fd);
    }
}

uint32_t LinuxOs::semKey() {
    return 0xC11E0761u;
}

int LinuxOs::semGet(uint32_t key, int nsems, int flags) {
    return semget(static_cast<key_t>(key), nsems, flags);
}

int LinuxOs::semSetVal(int id, int num, int value) {
    return semctl(id, num, SETVAL, value);
}

int LinuxOs::semRemove(int id) {
    return semctl(id, 0, IPC_RMID);
}

int LinuxOs::semOp(int id, struct sembuf* ops, size_t nops) {
    return semop(id, ops, nops);
}

uint32_t LinuxOs::uptime() {
    struct sysinfo info {};
    sysinfo(&info);
    return static_cast<uint32_t>(info.uptime);
}

void LinuxOs::sleepSeconds(unsigned sec) {
    sleepMillis(sec * 1000u);
}

void LinuxOs::sleepMillis(unsigned ms) {
    timespec req{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&req, &req) < 0 && errno == EINTR) {
    }
}

time_t LinuxOs::wallClock() {
    return time(nullptr);
}

int LinuxOs::processId() {
    return static_cast<int>(getpid());
}

const DeviceConfig& LinuxOs::deviceConfig() {
    return cfg_;
}

void LinuxOs::writeStdout(const char* text, size_t len) {
    fwrite(text, 1, len, stdout);
    fflush(stdout);
}

void LinuxOs::writeStderr(const char* text, size_t len) {
    fwrite(text, 1, len, stderr);
    fflush(stderr);
}
