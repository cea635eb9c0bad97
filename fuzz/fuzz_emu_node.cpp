// The node side of the emulation protocol: a fresh RemoteOs starts against an emulator
// whose every reply after the hello comes from the input ([flag][result][errno][u16 length]
// [body], or a malformed packet), and the daemon's operations run through it.
#include "fuzz_os.h"
#include "platform/remote_os.h"
#include "platform/remote_proto.h"
#include "platform/wireless.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::mutex l_mu;
FuzzInput l_replies; // guarded by l_mu
int l_listen = -1;

void answer(int fd, const RemoteReqHeader& req) {
    static uint8_t out[sizeof(RemoteRspHeader) + 4096];
    RemoteRspHeader h{};
    size_t len = 0;
    if (req.op == REMOTE_OP_HELLO) {
        RemoteHelloRsp rsp{};
        rsp.version = REMOTE_PROTO_VERSION;
        rsp.flags = REMOTE_HELLO_RANDOM;
        DeviceConfig cfg = defaultDeviceConfig();
        memcpy(rsp.bkhApIfName, cfg.bkhApIfName, sizeof rsp.bkhApIfName);
        memcpy(rsp.staIfName, cfg.staIfName, sizeof rsp.staIfName);
        len = sizeof rsp;
        memcpy(out + sizeof h, &rsp, len);
    } else {
        std::lock_guard<std::mutex> g(l_mu);
        if (l_replies.empty()) {
            h.result = -1;
            h.err = EIO;
        } else if ((l_replies.byte() & 0x1F) == 0x1F) { // a malformed packet
            size_t n = l_replies.take(out, l_replies.byte());
            send(fd, out, n, MSG_NOSIGNAL);
            return;
        } else {
            h.result = static_cast<int32_t>(l_replies.u32());
            h.err = l_replies.byte();
            len = l_replies.u16() % 4097;
            len = l_replies.take(out + sizeof h, len);
        }
    }
    h.length = static_cast<uint32_t>(len);
    memcpy(out, &h, sizeof h);
    send(fd, out, sizeof h + len, MSG_NOSIGNAL);
}

// The emulator: accepts every connection of the node and answers each request.
void emulate() {
    std::vector<pollfd> fds{{l_listen, POLLIN, 0}};
    static uint8_t req[sizeof(RemoteReqHeader) + REMOTE_MAX_BODY];
    for (;;) {
        if (poll(fds.data(), fds.size(), -1) < 0) {
            continue;
        }
        for (size_t i = fds.size(); i-- > 1;) {
            if (fds[i].revents == 0) {
                continue;
            }
            ssize_t n = recv(fds[i].fd, req, sizeof req, 0);
            RemoteReqHeader h{};
            if (n < static_cast<ssize_t>(sizeof h)) {
                close(fds[i].fd);
                fds.erase(fds.begin() + static_cast<long>(i));
                continue;
            }
            memcpy(&h, req, sizeof h);
            if (h.op != REMOTE_OP_NETLINK_SEND) {
                answer(fds[i].fd, h);
            }
        }
        if ((fds[0].revents & POLLIN) != 0) {
            int c = accept4(l_listen, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0) {
                fds.push_back(pollfd{c, POLLIN, 0});
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::string path = fuzzOs().root() + REMOTE_SOCKET_NAME;
    l_listen = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (l_listen < 0 || bind(l_listen, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(l_listen, 16) != 0) {
        perror("emulator socket");
        abort();
    }
    std::thread(emulate).detach();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    const uint8_t ops = data[0];
    const uint16_t ioctlLen = static_cast<uint16_t>(data[1] * 3);
    {
        std::lock_guard<std::mutex> g(l_mu);
        l_replies.reset(data + 2, size - 2);
    }
    // A fresh node for every input, in storage of its own (it holds large buffers).
    alignas(RemoteOs) static unsigned char storage[sizeof(RemoteOs)];
    auto* node = new (storage) RemoteOs();
    if (node->start(fuzzOs().root().c_str(), 1) == 0) {
        uint8_t buf[1024];
        if ((ops & 1) != 0) {
            node->runShell("iwpriv rai0 set HtBw=1");
            node->readProc("/proc/mesh/target_count", buf, 64);
            node->writeProc("/proc/mesh/config_count", "1 0", 3);
            node->readRandom(buf, 32);
        }
        int wlan = node->wlanSocket();
        if ((ops & 2) != 0 && wlan >= 0) {
            iwreq iwr{};
            strcpy(iwr.ifr_name, "rai0");
            iwr.u.data.pointer = buf;
            iwr.u.data.length = ioctlLen % sizeof buf;
            node->wlanIoctl(wlan, 0x8BFE, &iwr);
            ifreq ifr{};
            strcpy(ifr.ifr_name, "apclii0");
            node->wlanIoctl(wlan, SIOCGIFFLAGS, &ifr);
        }
        if ((ops & 4) != 0) {
            int pk = node->packetOpen(0x0806);
            if (pk >= 0) {
                node->packetIfIndex(pk, "br0");
                node->packetSend(pk, 3, 0x0806, buf, 42);
                node->packetWait(pk, 100);
                node->packetRecv(pk, buf, 64);
                node->closeFd(pk);
            }
        }
        if (wlan >= 0) {
            node->closeFd(wlan);
        }
        node->uptime();
    }
    node->~RemoteOs();
    std::lock_guard<std::mutex> g(l_mu);
    l_replies.reset(nullptr, 0);
    return 0;
}
