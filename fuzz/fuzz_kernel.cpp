// The kernel files (mesh counter and loop status, GPON and Ethernet port state) and the
// answers to the network check's ARP probe, all from the input, through the network check's
// own tick.
#include "fuzz_os.h"
#include "state/mesh_link.h"
#include "state/mesh_netchk.h"

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
    fuzzOs();
    mesh_netChk_setThreadBody(waitForCancel);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput& in = fuzzOs().input();
    in.reset(data, size);
    NETCHK_CONFIG cfg;
    in.take(&cfg, sizeof cfg);
    uint8_t mac[6];
    in.take(mac, sizeof mac);
    const uint8_t op = in.byte();
    if (mesh_netChk_init(&cfg, mac, "nas0") == 0) {
        NETCHK_TICK t;
        for (int i = 0; i < 4 && !in.empty(); ++i) {
            mesh_netChk_tick(&t);
        }
        mesh_netChk_destroy();
    }
    mesh_netChk_resetModule();
    mesh_netChk_setThreadBody(waitForCancel);
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
