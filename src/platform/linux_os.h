// The device's implementation of the system seam: thin wrappers over the real calls.
#pragma once

#include "platform/os.h"

#include <linux/if_packet.h>

class LinuxOs : public Os {
  public:
    LinuxOs();
    explicit LinuxOs(const DeviceConfig& cfg);

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
    uint32_t semKey() override;
    int semGet(uint32_t key, int nsems, int flags) override;
    int semSetVal(int id, int num, int value) override;
    int semRemove(int id) override;
    int semOp(int id, struct sembuf* ops, size_t nops) override;
    uint32_t uptime() override;
    void sleepSeconds(unsigned sec) override;
    void sleepMillis(unsigned ms) override;
    time_t wallClock() override;
    int processId() override;
    const DeviceConfig& deviceConfig() override;
    void writeStdout(const char* text, size_t len) override;
    void writeStderr(const char* text, size_t len) override;

  private:
    DeviceConfig cfg_;
};

// Helpers shared with the other implementations that run real processes.
namespace linux_impl {
// fork/execve("/bin/sh", {"sh","-c",line}, envp) and waitpid with EINTR retry.
int runShell(const char* line, char* const envp[]);
// Joins `root` and `fixed` into `out`; returns `out` or "" when it does not fit.
const char* joinPath(const char* root, const char* fixed, char* out, size_t cap);
// The link-layer address a frame is sent to: family packet, the EtherType in network order,
// the interface index, every other member 0.
sockaddr_ll packetAddress(int ifIndex, uint16_t protocol);
} // namespace linux_impl
