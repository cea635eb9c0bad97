// The ARP probe and the network-check thread with the Linux platform on the real kernel, in a
// child process inside the network namespace "near": the bridge br0 (10.77.0.1/24) with one
// end of a veth pair whose other end, in "far", holds the gateway address 10.77.0.254.
// Needs root and `ip netns` (skipped with the reason otherwise); the namespaces are removed
// in any case.
#include "platform/linux_os.h"
#include "state/mesh_netchk.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint32_t kNear = 0x0A4D0001;    // 10.77.0.1
constexpr uint32_t kGateway = 0x0A4D00FE; // 10.77.0.254
constexpr uint32_t kNobody = 0x0A4D0063;  // 10.77.0.99, held by no one

int quiet(const std::string& cmd) {
    return std::system((cmd + " >/dev/null 2>&1").c_str());
}

struct Namespaces {
    const std::string near = "zmesh-arp-" + std::to_string(getpid()) + "-near";
    const std::string far = "zmesh-arp-" + std::to_string(getpid()) + "-far";
    bool made = false;
    ~Namespaces() {
        if (made) {
            quiet("ip netns del " + far);
            quiet("ip netns del " + near);
        }
    }
};

// Runs the probes and a short life of the thread; writes what it saw as one line to `out`.
[[noreturn]] void probeInside(const std::string& ns, int out) {
    alarm(30); // a hang becomes a failure
    int fd = open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
        _exit(3);
    }
    static LinuxOs linuxOs;
    setOs(&linuxOs);
    mesh_netChk_resetModule();
    const NETCHK_CONFIG cfg{1, 0, 0, kGateway, kNear, 0xFFFFFF00, 0};
    const uint8_t ownMac[6] = {0x02, 0x77, 0x00, 0x00, 0x00, 0x01};
    const uint32_t init = mesh_netChk_init(&cfg, ownMac, "br0"); // the thread starts probing
    uint8_t m[6] = {}, none[6];
    const uint32_t gateway = mesh_netChk_checkIpByArp(kNear, kGateway, m);
    const uint32_t nobody = mesh_netChk_checkIpByArp(kNear, kNobody, none);
    for (int i = 0; i < 500 && mesh_netChk_getNetState() != 1; ++i) {
        timespec ts{0, 20 * 1000 * 1000}; // its first tick has long been answered by now
        nanosleep(&ts, nullptr);
    }
    const uint32_t running = mesh_netChk_getNetState();
    mesh_netChk_destroy();
    char text[128];
    int n = snprintf(text, sizeof text,
                     "init %u gateway %u %02x:%02x:%02x:%02x:%02x:%02x nobody %u running %u "
                     "stopped %u",
                     init, gateway, m[0], m[1], m[2], m[3], m[4], m[5], nobody, running,
                     mesh_netChk_getNetState());
    _exit(write(out, text, static_cast<size_t>(n)) == n ? 0 : 4);
}

TEST(NetChkNamespace, ProbeAndThreadOnTheRealKernel) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "network namespaces need root";
    }
    Namespaces ns;
    if (quiet("ip netns add " + ns.near) != 0) {
        GTEST_SKIP() << "`ip netns add` failed: no network namespaces (or iproute2) here";
    }
    ns.made = true;
    const std::string n = "ip -n " + ns.near + " ", f = "ip -n " + ns.far + " ";
    for (const std::string& step :
         {"ip netns add " + ns.far, n + "link add br0 type bridge",
          n + "link set br0 address 02:77:00:00:00:01",
          n + "link add vnear type veth peer name vfar netns " + ns.far,
          f + "link set vfar address 02:77:00:00:00:fe", n + "link set vnear master br0",
          n + "link set vnear up", n + "link set br0 up", n + "addr add 10.77.0.1/24 dev br0",
          f + "addr add 10.77.0.254/24 dev vfar", f + "link set vfar up"}) {
        ASSERT_EQ(0, quiet(step)) << "setting up the namespaces failed at: " << step;
    }

    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(fds[0]);
        probeInside(ns.near, fds[1]);
    }
    close(fds[1]);
    char text[128] = {};
    EXPECT_GE(read(fds[0], text, sizeof text - 1), 0);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    EXPECT_STREQ("init 0 gateway 0 02:77:00:00:00:fe nobody 1 running 1 stopped 2", text);
}

} // namespace
