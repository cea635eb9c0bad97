// zormeshd: the mesh daemon as it runs on the access point. Arguments are ignored, as on the
// device, except --help and --version, which print and exit before anything is opened: a
// curious look must not start a second daemon that takes over the command socket.
#include "core/mesh_main.h"
#include "platform/linux_os.h"

#include <cstdio>
#include <cstring>

#ifndef ZORMESH_VERSION
#define ZORMESH_VERSION "unknown"
#endif

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            printf("usage: zormeshd [--help | --version]\n"
                   "\n"
                   "The mesh daemon of the access point. It takes no options: it opens its\n"
                   "event log /tmp/zormesh.log, serves management commands on the Unix socket\n"
                   "/var/run/usock/21.sock and writes its error lines to standard output. The\n"
                   "mesh starts when a management service sends command type 1. It does not\n"
                   "detach; stop it with a signal (Ctrl-C, kill).\n"
                   "Other arguments are ignored. Exit status -1 (255) when the command socket\n"
                   "cannot be opened; otherwise it runs until it is killed.\n");
            return 0;
        }
        if (strcmp(argv[i], "--version") == 0) {
            printf("zormeshd %s\n", ZORMESH_VERSION);
            return 0;
        }
    }
    static LinuxOs linuxOs;
    setOs(&linuxOs);
    return mesh_main(argc, argv);
}
