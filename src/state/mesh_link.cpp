#include "state/mesh_link.h"
#include "state/mesh_state_internal.h"

#include "core/mesh_log.h"
#include "platform/devcfg.h"
#include "platform/os.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "platform/seam_guard.h"

namespace {

constexpr size_t kGponReadMax = 10; // bytes read from a GPON file
constexpr size_t kPortLineMax = 15; // characters of the port status line
constexpr size_t kStderrLineMax = 64;

// Parses a decimal integer at *p (blanks before it and a sign allowed, as "%d" reads
// it), clamped to the range of int32_t. Returns false, leaving *p, when there is none.
bool parseInt(const char** p, int32_t* out) {
    char* end = nullptr;
    errno = 0;
    long v = strtol(*p, &end, 10);
    if (end == *p) {
        return false;
    }
    if (v > INT32_MAX) {
        v = INT32_MAX;
    } else if (v < INT32_MIN) {
        v = INT32_MIN;
    }
    *out = static_cast<int32_t>(v);
    *p = end;
    return true;
}

int32_t readGponFile(const char* path) {
    char buf[kGponReadMax + 1];
    memset(buf, 0, sizeof buf);
    if (os().readProc(path, buf, kGponReadMax) < 0) {
        char line[kStderrLineMax];
        int n = snprintf(line, sizeof line, "open %s error!\n", path);
        if (n > 0) {
            os().writeStderr(line, strnlen(line, sizeof line));
        }
        return 0;
    }
    const char* p = buf;
    int32_t value = 0;
    return parseInt(&p, &value) ? value : 0;
}

} // namespace

int32_t getGponLinkState(void) {
    return readGponFile(GPON_LINKSTATE_PATH);
}

int32_t getGponState(void) {
    return readGponFile(GPON_STATE_PATH);
}

int32_t isLanLinkDown(const char* /*ifName*/) {
    // The operation state is only asked for when the optical link is up.
    if (getGponLinkState() == GPON_LINK_UP && getGponState() == GPON_STATE_OPERATE) {
        return 0;
    }
    return 1;
}

int32_t isEthPortDown(const char* ifName, int32_t port) {
    if (ifName == nullptr) {
        return 1;
    }
    char line[kPortLineMax + 1];
    memset(line, 0, sizeof line);
    if (os().readProc(ETH_PORT_STATUS_PATH, line, kPortLineMax) < 0) {
        return 0; // no status file: the port counts as up
    }
    line[strcspn(line, "\n")] = '\0'; // one line

    int32_t ports[ETH_PORT_COUNT] = {0, 0, 0, 0, 0}; // missing numbers stay 0
    const char* p = line;
    for (int32_t i = 0; i < ETH_PORT_COUNT && parseInt(&p, &ports[i]); ++i) {
    }
    if (port < 1 || port > ETH_PORT_COUNT) {
        return 1;
    }
    return ports[port - 1] == 1 ? 0 : 1;
}

void downLinkPortGetState(int32_t* states, int32_t capacity) {
    if (states == nullptr) {
        return;
    }
    uint32_t n = devcfg_downLinkPort_getNum();
    if (capacity <= 0 || n >= static_cast<uint32_t>(capacity)) {
        MESH_ERR("port num to large, %d >= %d\n", static_cast<int>(n), capacity);
        return;
    }
    const char* ifName = getLanIfName();
    for (int32_t port = 1; port <= static_cast<int32_t>(n); ++port) {
        states[port] = isEthPortDown(ifName, port) == 0 ? PORT_STATE_UP : PORT_STATE_DOWN;
    }
}
