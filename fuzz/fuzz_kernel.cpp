// The kernel files (mesh counter and loop status, GPON and Ethernet port state) and the
// answers to the network check's ARP probe, all from the input, through the network check's
// own tick. The check's thread is not started: the target drives the ticks itself, each
// input with new addresses (which makes the check start over).
#include "fuzz_os.h"
#include "state/mesh_link.h"
#include "state/mesh_netchk.h"

#include <cstring>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzOs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput& in = fuzzNextInput(data, size);
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
