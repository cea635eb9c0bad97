// zormesh-emu: the test emulator as a program. It plays the driver and kernel of one access
// point for one zormesh-node under --root DIR and prints every operation the node makes, one
// line each, on standard output.
#include "emu_script.h"
#include "platform/hex.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <pthread.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

// A small profile in the driver's format, with the keys the daemon rewrites.
const char* const kDefaultProfile = "Default\n"
                                    "BssidNum=4\n"
                                    "SSID=\n"
                                    "SSID1=zormesh-ap\n"
                                    "SSID2=\n"
                                    "SSID3=\n"
                                    "SSID4=\n"
                                    "WPAPSK=\n"
                                    "WPAPSK1=\n"
                                    "WPAPSK2=\n"
                                    "WPAPSK3=\n"
                                    "WPAPSK4=\n"
                                    "AuthMode=OPEN;OPEN;OPEN;OPEN\n"
                                    "EncrypType=NONE;NONE;NONE;NONE\n"
                                    "RekeyMethod=DISABLE;DISABLE;DISABLE;DISABLE\n"
                                    "HideSSID=0;0;0;0\n"
                                    "HT_BW=1\n"
                                    "VHT_BW=1\n"
                                    "HT_BSSCoexistence=0\n"
                                    "HT_EXTCHA=0\n"
                                    "AutoChannelSelect=3\n"
                                    "Channel=36\n";

void usage(FILE* out) {
    fprintf(out,
            "usage: zormesh-emu --root DIR [--seed N] [--uptime S] [--profile FILE] [--quiet]\n"
            "\n"
            "Listens on DIR/emu.sock for one zormesh-node and answers as the driver and kernel\n"
            "of a single access point. Every operation the node makes is printed on standard\n"
            "output, one line each: c<connection> <operation> <details>.\n"
            "\n"
            "  --root DIR      the node's root (created when missing)\n"
            "  --seed N        seed of the random bytes the node gets (default 1)\n"
            "  --uptime S      the node's uptime at start in seconds (default 0)\n"
            "  --profile FILE  driver profile to install as DIR/tmp/wireless/mt5g.dat (default:\n"
            "                  a small built-in profile, unless the file already exists)\n"
            "  --quiet         do not print the operations\n"
            "\n"
            "Shell lines starting with \"sed \" run for real; the others answer wait status 0.\n"
            "Kernel files: /proc/mesh/config_count and /proc/mesh/loop_status read \"0\".\n"
            "Interface indexes: br0 5, the mesh station interface 7.\n"
            "\n"
            "Commands on standard input, one a line:\n"
            "  netlink HEX      push a netlink message (the bytes exactly as the driver sends)\n"
            "  proc PATH TEXT   set what kernel file PATH reads (TEXT may be empty)\n"
            "  ifindex NAME N   give interface NAME the index N\n"
            "  packet HEX       queue a frame for the node's packet sockets\n"
            "  quit             stop (as do SIGINT and SIGTERM)\n");
}

void mkdirs(const std::string& path) {
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/') {
            mkdir(path.substr(0, i).c_str(), 0755);
        }
    }
}

void commandLoop(emu::ScriptEmulator& emu) {
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream in(line);
        std::string cmd;
        in >> cmd;
        if (cmd.empty() || cmd[0] == '#') {
            continue;
        }
        if (cmd == "quit") {
            kill(getpid(), SIGTERM);
            return;
        }
        std::string rest;
        std::getline(in >> std::ws, rest);
        emu::Bytes bytes;
        if ((cmd == "netlink" || cmd == "packet") && !hex::parse(rest, &bytes)) {
            fprintf(stderr, "zormesh-emu: %s: HEX must be pairs of hexadecimal digits\n",
                    cmd.c_str());
        } else if (cmd == "netlink") {
            int n = emu.pushNetlink(bytes);
            if (n == 0) {
                fprintf(stderr, "zormesh-emu: no node listens for netlink events yet\n");
            }
        } else if (cmd == "packet") {
            emu.queuePacket(bytes);
        } else if (cmd == "proc") {
            size_t sp = rest.find(' ');
            emu.setProc(rest.substr(0, sp), sp == std::string::npos ? "" : rest.substr(sp + 1));
        } else if (cmd == "ifindex") {
            std::istringstream a(rest);
            std::string name;
            int idx = 0;
            if (a >> name >> idx) {
                emu.setIfIndex(name, idx);
            } else {
                fprintf(stderr, "zormesh-emu: usage: ifindex NAME N\n");
            }
        } else {
            fprintf(stderr,
                    "zormesh-emu: unknown command '%s' (netlink, proc, ifindex, packet, "
                    "quit)\n",
                    cmd.c_str());
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    std::string root;
    std::string profile;
    unsigned long long seed = 1;
    unsigned long uptime = 0;
    bool quiet = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        bool hasValue = i + 1 < argc;
        if (a == "-h" || a == "--help") {
            usage(stdout);
            return 0;
        } else if (a == "--root" && hasValue) {
            root = argv[++i];
        } else if (a == "--seed" && hasValue) {
            seed = strtoull(argv[++i], nullptr, 0);
        } else if (a == "--uptime" && hasValue) {
            uptime = strtoul(argv[++i], nullptr, 0);
        } else if (a == "--profile" && hasValue) {
            profile = argv[++i];
        } else if (a == "--quiet") {
            quiet = true;
        } else {
            usage(stderr);
            return 2;
        }
    }
    if (root.empty()) {
        usage(stderr);
        return 2;
    }
    mkdirs(root);
    char real[4096];
    if (realpath(root.c_str(), real) == nullptr) {
        fprintf(stderr, "zormesh-emu: cannot use root %s: %s\n", root.c_str(), strerror(errno));
        return 3;
    }
    root = real;

    // SIGINT and SIGTERM are taken by sigwait below, on this thread only.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    emu::ScriptEmulator emu(root);
    emu.seed(seed);
    emu.setUptime(static_cast<uint32_t>(uptime));
    const DeviceConfig& dev = emu.device();
    emu.setProc("/proc/mesh/config_count", "0");
    emu.setProc("/proc/mesh/loop_status", "0");
    emu.setIfIndex("br0", 5);
    emu.setIfIndex(dev.staIfName, 7);
    if (!profile.empty()) {
        std::ifstream in(profile, std::ios::binary);
        if (!in) {
            fprintf(stderr, "zormesh-emu: cannot read profile %s\n", profile.c_str());
            return 3;
        }
        std::stringstream ss;
        ss << in.rdbuf();
        emu.writeFile("/tmp/wireless/mt5g.dat", ss.str());
    } else if (access(emu.rooted("/tmp/wireless/mt5g.dat").c_str(), F_OK) != 0) {
        emu.writeFile("/tmp/wireless/mt5g.dat", kDefaultProfile);
    }
    if (!quiet) {
        emu.echoTo(stdout);
    }
    std::string error;
    if (!emu.start(&error)) {
        fprintf(stderr, "zormesh-emu: %s\n", error.c_str());
        return 3;
    }
    fprintf(stderr, "zormesh-emu: listening on %s\n", (root + REMOTE_SOCKET_NAME).c_str());

    std::thread(commandLoop, std::ref(emu)).detach();
    int sig = 0;
    sigwait(&stopSignals, &sig);
    emu.stop();
    return 0;
}
