// The ARP probe and the network-check thread on the real kernel, inside two network
// namespaces made for the test: "near" holds the bridge br0 (10.77.0.1/24) with one end of a
// veth pair, "far" the other end with the gateway address 10.77.0.254. The code runs in a
// child process that has entered "near", with the Linux platform. Needs root and
// `ip netns` (skipped with the reason otherwise); the namespaces are removed in any case.
#include "platform/linux_os.h"
#include "state/mesh_netchk.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint32_t kNearIp = 0x0A4D0001;    // 10.77.0.1
constexpr uint32_t kGatewayIp = 0x0A4D00FE; // 10.77.0.254
constexpr uint32_t kNobodyIp = 0x0A4D0063;  // 10.77.0.99, held by no one
const uint8_t kBridgeMac[6] = {0x02, 0x77, 0x00, 0x00, 0x00, 0x01};

int quiet(const std::string& cmd) {
    return std::system((cmd + " >/dev/null 2>&1").c_str());
}

struct Namespaces {
    std::string near = "zmesh-arp-" + std::to_string(getpid()) + "-near";
    std::string far = "zmesh-arp-" + std::to_string(getpid()) + "-far";
    bool made = false;
    ~Namespaces() {
        if (made) {
            quiet("ip netns del " + far);
            quiet("ip netns del " + near);
        }
    }
};

// What the child reports through a pipe.
struct Report {
    uint32_t initRc, gatewayRc, nobodyRc, stateRunning, stateAfterDestroy;
    uint8_t gatewayMac[6];
};

void probeInside(const std::string& ns, int out) {
    alarm(30); // a hang becomes a failure
    int fd = open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
        _exit(3);
    }
    static LinuxOs linuxOs;
    setOs(&linuxOs);
    Report r{};
    mesh_netChk_resetModule();
    NETCHK_CONFIG cfg{1, 0, 0, kGatewayIp, kNearIp, 0xFFFFFF00, 0};
    r.initRc = mesh_netChk_init(&cfg, kBridgeMac, "br0"); // the real thread starts probing
    r.gatewayRc = mesh_netChk_checkIpByArp(kNearIp, kGatewayIp, r.gatewayMac);
    uint8_t none[6];
    r.nobodyRc = mesh_netChk_checkIpByArp(kNearIp, kNobodyIp, none);
    for (int i = 0; i < 500 && mesh_netChk_getNetState() != 1; ++i) {
        timespec ts{0, 20 * 1000 * 1000}; // its first tick has long been answered by now
        nanosleep(&ts, nullptr);
    }
    r.stateRunning = mesh_netChk_getNetState();
    mesh_netChk_destroy();
    r.stateAfterDestroy = mesh_netChk_getNetState();
    _exit(write(out, &r, sizeof r) == static_cast<ssize_t>(sizeof r) ? 0 : 4);
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
    for (const std::string& step : {
             "ip netns add " + ns.far,
             n + "link add br0 type bridge",
             n + "link set br0 address 02:77:00:00:00:01",
             n + "link add vnear type veth peer name vfar netns " + ns.far,
             f + "link set vfar address 02:77:00:00:00:fe",
             n + "link set vnear master br0",
             n + "link set vnear up",
             n + "link set br0 up",
             n + "addr add 10.77.0.1/24 dev br0",
             f + "addr add 10.77.0.254/24 dev vfar",
             f + "link set vfar up",
         }) {
        ASSERT_EQ(quiet(step), 0) << "setting up the namespaces failed at: " << step;
    }

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(fds[0]);
        probeInside(ns.near, fds[1]);
    }
    close(fds[1]);
    Report r;
    ssize_t got = 0;
    do {
        got = read(fds[0], &r, sizeof r);
    } while (got < 0 && errno == EINTR);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    ASSERT_EQ(got, static_cast<ssize_t>(sizeof r));

    EXPECT_EQ(r.initRc, 0u);
    EXPECT_EQ(r.gatewayRc, 0u);
    const uint8_t gatewayMac[6] = {0x02, 0x77, 0x00, 0x00, 0x00, 0xfe};
    EXPECT_EQ(memcmp(r.gatewayMac, gatewayMac, 6), 0);
    EXPECT_EQ(r.nobodyRc, 1u);
    EXPECT_EQ(r.stateRunning, 1u);
    EXPECT_EQ(r.stateAfterDestroy, 2u);
}

} // namespace
