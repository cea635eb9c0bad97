// The driver's site-survey and station tables and the station status, as the driver fills
// them: every ioctl answer comes from the input.
#include "fuzz_os.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_scan.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzInitDriver();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput& in = fuzzNextInput(data, size);
    const uint8_t op = in.byte();
    if ((op & 3) == 0) {
        uint8_t count = 0;
        MESH_SCAN_CANDIDATE out[20];
        mesh_wlan_scanParentAp(nullptr, &count, out);
    } else if ((op & 3) == 1) {
        uint8_t count = 0;
        MESH_ONLINE_CHILD_INFO out[16];
        mesh_wlan_getOnlineChild(&count, out, static_cast<uint8_t>((op >> 2) % 17));
    } else {
        int32_t status = 0;
        mesh_wlan_getStaStatus(&status);
    }
    return 0;
}
