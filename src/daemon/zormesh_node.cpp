// zormesh-node: the mesh daemon exactly as zormeshd runs it, over the emulated platform.
// Every fixed path lives under --root DIR; driver and kernel operations go to the emulator
// listening on DIR/emu.sock; --time-scale K runs the daemon's clock K times faster.
#include "core/mesh_main.h"
#include "platform/remote_os.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#ifndef ZORMESH_VERSION
#define ZORMESH_VERSION "unknown"
#endif

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int EXIT_BAD_ROOT = 3;
constexpr int EXIT_NO_EMULATOR = 4;

void usage(FILE* out) {
    fprintf(out,
            "usage: zormesh-node --root DIR [--time-scale K]\n"
            "\n"
            "Runs the mesh daemon against an emulator instead of a device.\n"
            "\n"
            "  --root DIR        the node's file system root (an existing, writable directory of\n"
            "                    at most %zu characters once made absolute). The daemon's fixed\n"
            "                    paths live under it: DIR/tmp/zormesh.log (event log),\n"
            "                    DIR/tmp/wireless/mt5g.dat (driver profile), DIR/var/run/usock/\n"
            "                    21.sock (command socket). The emulator listens on DIR/emu.sock.\n"
            "  --time-scale K    run the daemon's clock K times faster than real time (an integer\n"
            "                    from 1 to %u, default 1): uptime, sleeps and waits are scaled.\n"
            "  -h, --help        this text\n"
            "  --version         the version\n"
            "\n"
            "The error log goes to standard output as on the device. Exit status: 2 bad usage,\n"
            "3 the root cannot be used, 4 no emulator answers; otherwise the daemon runs until\n"
            "it is killed.\n",
            RemoteOs::kRootMax, RemoteOs::kMaxTimeScale);
}

bool makeDir(const char* root, const char* sub) {
    char p[PATH_MAX];
    if (snprintf(p, sizeof p, "%s%s", root, sub) >= static_cast<int>(sizeof p)) {
        errno = ENAMETOOLONG;
        return false;
    }
    return mkdir(p, 0755) == 0 || errno == EEXIST;
}

} // namespace

int main(int argc, char** argv) {
    const char* rootArg = nullptr;
    unsigned long scale = 1;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            usage(stdout);
            return 0;
        }
        if (strcmp(argv[i], "--version") == 0) {
            printf("zormesh-node %s\n", ZORMESH_VERSION);
            return 0;
        }
        if (strcmp(argv[i], "--root") == 0 && i + 1 < argc) {
            rootArg = argv[++i];
        } else if (strcmp(argv[i], "--time-scale") == 0 && i + 1 < argc) {
            char* end = nullptr;
            errno = 0;
            scale = strtoul(argv[++i], &end, 10);
            if (errno != 0 || end == argv[i] || *end != '\0' || scale < 1 ||
                scale > RemoteOs::kMaxTimeScale) {
                fprintf(stderr, "zormesh-node: --time-scale must be an integer from 1 to %u\n",
                        RemoteOs::kMaxTimeScale);
                return EXIT_USAGE;
            }
        } else {
            usage(stderr);
            return EXIT_USAGE;
        }
    }
    if (rootArg == nullptr) {
        usage(stderr);
        return EXIT_USAGE;
    }

    char root[PATH_MAX];
    struct stat st {};
    if (realpath(rootArg, root) == nullptr || stat(root, &st) != 0) {
        fprintf(stderr, "zormesh-node: cannot use root %s: %s\n", rootArg, strerror(errno));
        return EXIT_BAD_ROOT;
    }
    if (!S_ISDIR(st.st_mode)) {
        fprintf(stderr, "zormesh-node: cannot use root %s: not a directory\n", rootArg);
        return EXIT_BAD_ROOT;
    }
    if (access(root, W_OK | X_OK) != 0) {
        fprintf(stderr, "zormesh-node: cannot use root %s: %s\n", rootArg, strerror(errno));
        return EXIT_BAD_ROOT;
    }
    if (strlen(root) > RemoteOs::kRootMax) {
        fprintf(stderr,
                "zormesh-node: cannot use root %s: its path has more than %zu characters, "
                "too long for the command socket's address\n",
                root, RemoteOs::kRootMax);
        return EXIT_BAD_ROOT;
    }
    const char* dirs[] = {"/tmp", "/tmp/wireless", "/var", "/var/run"};
    for (const char* d : dirs) {
        if (!makeDir(root, d)) {
            fprintf(stderr, "zormesh-node: cannot use root %s: cannot create %s%s: %s\n", root,
                    root, d, strerror(errno));
            return EXIT_BAD_ROOT;
        }
    }

    static RemoteOs remote;
    if (remote.start(root, static_cast<uint32_t>(scale)) != 0) {
        fprintf(stderr, "zormesh-node: no emulator answers on %s%s: %s\n", root, REMOTE_SOCKET_NAME,
                strerror(errno));
        return EXIT_NO_EMULATOR;
    }
    setOs(&remote);
    return mesh_main(argc, argv);
}
