// The management-state file /tmp/ORB_STATE: its contents through the state module's reader,
// then one tick of the state thread's evaluation that reads it, in a mesh state, network
// state and last management state of the input's choice. Input: [choices][file length]
// [file][what the driver and the kernel answer during the tick].
#include "fuzz_os.h"
#include "security/mesh_parent.h"
#include "state/mesh_netchk.h"
#include "state/mesh_state_internal.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

const uint32_t kMeshStates[] = {MESH_STATE_NORMAL, MESH_STATE_MESH, MESH_STATE_ISOLATED};
const uint32_t kOrbStates[] = {STATE_ANY, ORB_STATE_MANAGED, ORB_STATE_UNMANAGED};

// What the reader must make of a file: unreadable without a digit in what it reads, managed
// for a 3 or a 4 standing alone after blanks; 0 when that does not decide it.
uint32_t decided(const std::string& file) {
    const std::string head = file.substr(0, 32); // the reader looks at no more
    bool digit = false;
    for (char c : head) {
        digit = digit || isdigit(static_cast<unsigned char>(c)) != 0;
    }
    if (!digit) {
        return ORB_STATE_UNREADABLE;
    }
    size_t i = head.find_first_not_of(" \t\n\v\f\r");
    if (i != std::string::npos && (head[i] == '3' || head[i] == '4') &&
        (i + 1 == head.size() || isdigit(static_cast<unsigned char>(head[i + 1])) == 0)) {
        return ORB_STATE_MANAGED;
    }
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzInitDriver();
    setLanIfName("pon0");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput& in = fuzzNextInput(data, size);
    const uint8_t choice = in.byte();
    const std::string file = in.text(in.byte());
    FuzzOs& f = fuzzOs();
    if ((choice & 0x80) != 0) {
        unlink((f.root() + ORB_STATE_PATH).c_str());
    } else {
        f.writeFile(ORB_STATE_PATH, file);
    }

    const uint32_t orb = getOrbState();
    const uint32_t want = (choice & 0x80) != 0 ? ORB_STATE_UNMANAGED : decided(file);
    if ((orb != ORB_STATE_MANAGED && orb != ORB_STATE_UNMANAGED && orb != ORB_STATE_UNREADABLE) ||
        (want != 0 && orb != want)) {
        fprintf(stderr, "management state %u, expected %u\n", orb, want);
        abort();
    }

    mesh_state_resetModule();
    mesh_parentHandler_resetModule();
    mesh_parentHandler_init();
    setDfsFlag((choice >> 6) & 1);
    setMeshState(kMeshStates[choice % 3]);
    mesh_netChk_setNetState(1 + ((choice >> 2) & 1));
    mesh_state_tickForTest(kOrbStates[(choice >> 3) % 3]);
    mesh_parentHandler_destroy();
    return 0;
}
