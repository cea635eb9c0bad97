// The management service's replies to the operation wrapper: the input picks one of the
// daemon's operations (and the address text of the controller operation), the rest is what
// the service at wrp.sock answers, header and output, before it closes. The operation's
// result must be the reply's result when the reply is whole, and 1 when it is not.
#include "fuzz_os.h"
#include "platform/wrp.h"
#include "security/mesh_com.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

FuzzReplyServer* l_service = nullptr;

uint32_t le32(const std::string& s, size_t at) {
    uint32_t v = 0;
    for (size_t i = 0; i < 4; ++i) {
        v |= static_cast<uint32_t>(static_cast<uint8_t>(s[at + i])) << (8 * i);
    }
    return v;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static FuzzReplyServer service(fuzzOs().root() + "/var/run/wrp.sock");
    l_service = &service;
    wrpInit(16, "mesh");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput& in = fuzzNextInput(data, size);
    const uint8_t op = in.byte();
    MESH_CONTROLLER_IP_PORT addr{};
    const std::string ip = in.text(in.byte() % (sizeof addr.ip + 8));
    memcpy(addr.ip, ip.data(), ip.size() < sizeof addr.ip ? ip.size() : sizeof addr.ip);
    const std::string reply = in.text(in.left());
    l_service->setReply(reply);

    // Whole: the magic, then at least the output the header announces.
    const bool whole = reply.size() >= WRP_HEADER_SIZE && le32(reply, 0) == WRP_RSP_MAGIC &&
                       reply.size() - WRP_HEADER_SIZE >= le32(reply, 8);
    const uint32_t rc = whole ? le32(reply, 4) : 1;
    uint32_t got = 0;
    uint32_t want = 0;
    switch (op % 3) {
    case 0: // the result as the service gave it; an address of 80 characters is not sent
        got = mesh_com_setControllerIpPort(&addr);
        want = strnlen(addr.ip, sizeof addr.ip) >= sizeof addr.ip ? 1 : rc;
        break;
    case 1: {
        const MESH_ORBP_CFG id{"ctl-7", {}, 3};
        got = mesh_com_setDestVintacId(&id);
        want = rc == 0 ? 0 : 1;
        break;
    }
    default: // four bytes of output asked for, the reply not looked at
        got = mesh_com_setMeshStateToSchedule(op);
        want = 0;
        break;
    }
    if (got != want) {
        fprintf(stderr, "operation %d: result %u, the reply says %u\n", op % 3, got, want);
        abort();
    }
    return 0;
}
