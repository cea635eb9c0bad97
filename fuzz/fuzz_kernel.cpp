// The kernel files (mesh counter and loop status, GPON and Ethernet port state) and the
// answers to the network check's ARP probe, all from the input, through the network check's
// own tick.
#include "fuzz_os.h"
#include "state/mesh_link.h"
#include "state/mesh_netchk.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {
void* waitForCancel(void*) {
    for (;;) {
        pause();
    }
    return nullptr;
}
} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzOs& f = fuzzOs();
    // The check runs for the whole process (its thread only waits to be cancelled); each
    // input sets new addresses, which makes it start over, and drives its ticks.
    mesh_netChk_setThreadBody(waitForCancel);
    NETCHK_CONFIG cfg;
    memset(&cfg, 0, sizeof cfg);
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    f.input().reset(nullptr, 0);
    if (mesh_netChk_init(&cfg, mac, "nas0") != 0) {
        abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput& in = fuzzOs().input();
    in.reset(data, size);
    NETCHK_CONFIG cfg;
    in.take(&cfg, sizeof cfg);
    const uint8_t op = in.byte();
    mesh_netChk_setConfig(&cfg);
    if ((op & 0x10) != 0) {
        mesh_netChk_checkNetIm();
    }
    NETCHK_TICK t;
    for (int i = 0; i < 4 && !in.empty(); ++i) {
        mesh_netChk_tick(&t);
    }
    mesh_netChk_setLoopbackCheck(op & 0x20);
    uint32_t count = 0;
    uint8_t found[6];
    switch (op % 4) {
    case 0:
        mesh_netChk_getTargetCount(&count);
        mesh_netChk_getKernelloopStatus();
        break;
    case 1:
        mesh_netChk_checkIpByArp(in.u32(), in.u32(), found);
        break;
    case 2:
        isLanLinkDown("nas0");
        isEthPortDown("eth0", static_cast<int32_t>(in.byte() % 7) - 1);
        break;
    default: {
        int32_t states[9] = {};
        downLinkPortGetState(states, 9);
        break;
    }
    }
    return 0;
}
