// The driver's netlink events, both record types: each message of the input goes through
// the monitor's receive-and-dispatch step to the callbacks the daemon registers. A stored
// parent record then goes through decryption and credential derivation.
#include "fuzz_os.h"
#include "security/mesh_netlink.h"
#include "security/mesh_parent.h"
#include "wlan/mesh_wlan.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzInitDriver();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput& in = fuzzNextInput(data, size);
    mesh_parentHandler_resetModule();
    mesh_parentHandler_init();
    static MESH_NETLINK_MONITOR mon;
    if (mesh_netlink_monitorOpen(&mon) == 0) {
        for (int i = 0; i < 8 && !in.empty(); ++i) {
            mesh_netlink_monitorStep(&mon);
        }
    }
    mesh_parentHandler_connect();
    mesh_parentHandler_destroy();
    return 0;
}
