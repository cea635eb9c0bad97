// The command message through mesh_cmd_handle: the first 1456 bytes are the message, the
// rest is what the driver and the kernel answer while it is handled.
#include "core/mesh_msg.h"
#include "fuzz_os.h"
#include "wlan/mesh_wlan.h"

#include <cstring>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzOs& f = fuzzOs();
    f.writeFile("/tmp/wireless/mt5g.dat", kFuzzProfile);
    mesh_api_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzOs& f = fuzzOs();
    f.input().reset(data, size);
    MESH_CMD_MSG msg;
    f.input().take(&msg, sizeof msg);
    mesh_cmd_handle(&msg);
    return 0;
}
