#include "platform/os.h"

#include <cstdlib>

namespace {
Os* g_os = nullptr;
}

Os& os() {
    if (g_os == nullptr) {
        // A programming error: the process forgot to install its platform.
        abort();
    }
    return *g_os;
}

void setOs(Os* impl) {
    g_os = impl;
}
