// The command message through mesh_cmd_handle: the first 1456 bytes are the message, the
// rest is what the driver and the kernel answer while it is handled.
#include "core/mesh_msg.h"
#include "fuzz_os.h"
#include "wlan/mesh_wlan.h"

#include <cstring>
#include <pthread.h>

// Command type 1 starts the netlink monitor, the state thread and the network check, type 9
// the scan thread. Their bodies read the system on their own threads, and the fuzz system
// answers one input on one thread, so here every thread the daemon starts ends at once: the
// command handling is fuzzed, the thread bodies by their own targets (fuzz_netlink,
// fuzz_kernel, fuzz_tables).
extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                                     void* (*)(void*), void*) {
    return __real_pthread_create(
        thread, attr, [](void*) -> void* { return nullptr; }, nullptr);
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzInitDriver();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput& in = fuzzNextInput(data, size);
    MESH_CMD_MSG msg;
    in.take(&msg, sizeof msg);
    mesh_cmd_handle(&msg);
    return 0;
}
