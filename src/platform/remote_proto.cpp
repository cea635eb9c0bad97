#include "platform/remote_proto.h"

const char* remote_opName(uint32_t op) {
    static const char* const names[] = {
        "?",
        "hello",
        "shell",
        "proc-read",
        "proc-write",
        "random",
        "wlan-socket",
        "ioctl",
        "netlink-open",
        "netlink-bind",
        "netlink-send",
        "packet-open",
        "packet-ifindex",
        "packet-send",
        "packet-wait",
        "packet-recv",
        "close",
        "sem",
    };
    static_assert(sizeof names / sizeof names[0] == REMOTE_OP_LAST + 1, "a name per operation");
    return op <= REMOTE_OP_LAST ? names[op] : "?";
}

uint32_t remote_semKeyForRoot(const char* root) {
    uint32_t h = 2166136261u; // FNV-1a, 32 bits
    for (const char* p = root; p != nullptr && *p != '\0'; ++p) {
        h ^= static_cast<uint8_t>(*p);
        h *= 16777619u;
    }
    return 0x5E000000u | (h & 0x00FFFFFFu);
}
