// The emulator side of the emulation protocol: the input is what a node sends on one
// connection, as packets of [u16 length][bytes]; the emulator library decodes each request,
// hands it to a handler that answers with bodies of the input's choosing, and replies.
#include "emu_server.h"
#include "fuzz_os.h"
#include "platform/remote_proto.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Answers every request at once, with bodies made from what the request carried.
class EchoingHandler : public emu::Handler {
  public:
    emu::Result procRead(const emu::Peer&, const std::string& path, uint32_t max,
                         emu::Bytes& out) override {
        out.assign(path.begin(), path.end());
        out.resize(std::min<size_t>(out.size(), max));
        return emu::Result{static_cast<int32_t>(out.size()), 0};
    }
    emu::Result random(const emu::Peer&, uint32_t len, emu::Bytes& out) override {
        out.assign(std::min<uint32_t>(len, 4096), 0x5A);
        return emu::Result{static_cast<int32_t>(out.size()), 0};
    }
    emu::Result ioctl(const emu::Peer&, emu::IoctlCall& call) override {
        // Hand back a length of the request's choosing, within or beyond the payload.
        call.length = static_cast<uint16_t>(call.flags);
        if (!call.payload.empty()) {
            call.payload[0] ^= 0xFF;
        }
        return emu::Result{};
    }
    emu::Result packetWait(const emu::Peer&, uint32_t, uint32_t timeoutMs, uint32_t) override {
        return emu::Result{static_cast<int32_t>(timeoutMs & 1), 0};
    }
    emu::Result packetRecv(const emu::Peer&, uint32_t, uint32_t max, emu::Bytes& out) override {
        out.assign(std::min<uint32_t>(max, 64), 0xA5);
        return emu::Result{static_cast<int32_t>(out.size()), 0};
    }
};

EchoingHandler l_handler;
emu::Server* l_server = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static emu::Server server(fuzzOs().root(), l_handler);
    std::string error;
    if (!server.start(&error)) {
        fprintf(stderr, "emulator: %s\n", error.c_str());
        abort();
    }
    l_server = &server;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", l_server->socketPath().c_str());
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        abort();
    }
    static uint8_t reply[sizeof(RemoteRspHeader) + REMOTE_MAX_BODY];
    for (size_t pos = 0; pos + 2 <= size;) {
        size_t len = data[pos] | static_cast<size_t>(data[pos + 1]) << 8;
        pos += 2;
        len = std::min(len, size - pos);
        if (send(fd, data + pos, len, MSG_NOSIGNAL) < 0) {
            break;
        }
        RemoteReqHeader h{};
        memcpy(&h, data + pos, std::min(len, sizeof h));
        pos += len;
        if (h.op == REMOTE_OP_NETLINK_SEND && len >= sizeof h) {
            continue; // no reply to this one
        }
        // Every other request is answered at once, or the connection is closed; a request
        // too broken to name its operation may go unanswered.
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 20) == 1 && recv(fd, reply, sizeof reply, 0) <= 0) {
            break;
        }
    }
    close(fd);
    return 0;
}
