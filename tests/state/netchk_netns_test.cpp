// The ARP probe and the network-check thread on the real kernel, inside two network
// namespaces made for the test: "near" holds a bridge br0 (10.77.0.1/24) with one end of a
// veth pair, "far" holds the other end with the gateway address 10.77.0.254. The code under
// test runs in a child process that has entered "near", with the Linux platform.
//
// Needs root and `ip netns`; skipped with the reason otherwise. The namespaces are removed
// whatever the outcome.
#include "platform/linux_os.h"
#include "state/mesh_netchk.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint32_t kNearIp = 0x0A4D0001;    // 10.77.0.1, on br0
constexpr uint32_t kGatewayIp = 0x0A4D00FE; // 10.77.0.254, in the far namespace
constexpr uint32_t kNobodyIp = 0x0A4D0063;  // 10.77.0.99, held by no one
constexpr uint32_t kMask = 0xFFFFFF00;
const uint8_t kBridgeMac[6] = {0x02, 0x77, 0x00, 0x00, 0x00, 0x01};
constexpr const char* kGatewayMacText = "02:77:00:00:00:fe";

int quiet(const std::string& cmd) {
    return std::system((cmd + " >/dev/null 2>&1").c_str());
}

// Two namespaces joined by a veth pair; deleted by the destructor.
class NamespacePair {
  public:
    NamespacePair() {
        static int serial = 0;
        std::string base = "zmesh-arp-" + std::to_string(getpid()) + "-" + std::to_string(++serial);
        near_ = base + "-near";
        far_ = base + "-far";
    }
    ~NamespacePair() {
        if (madeFar_) {
            quiet("ip netns del " + far_);
        }
        if (madeNear_) {
            quiet("ip netns del " + near_);
        }
    }
    NamespacePair(const NamespacePair&) = delete;
    NamespacePair& operator=(const NamespacePair&) = delete;

    // Empty when namespaces can be made here, else why not.
    std::string available() {
        if (geteuid() != 0) {
            return "network namespaces need root";
        }
        if (quiet("ip -V") != 0) {
            return "the ip tool (iproute2) is not installed";
        }
        madeNear_ = quiet("ip netns add " + near_) == 0;
        if (!madeNear_) {
            return "ip netns add failed: network namespaces are not available";
        }
        return "";
    }

    // Builds the topology; returns the first command that failed, or "".
    std::string build() {
        madeFar_ = quiet("ip netns add " + far_) == 0;
        if (!madeFar_) {
            return "ip netns add " + far_;
        }
        const std::string n = "ip -n " + near_ + " ";
        const std::string f = "ip -n " + far_ + " ";
        const std::string steps[] = {
            n + "link add br0 type bridge",
            n + "link set br0 address 02:77:00:00:00:01",
            n + "link add vnear type veth peer name vfar netns " + far_,
            f + "link set vfar address " + kGatewayMacText,
            n + "link set vnear master br0",
            n + "link set vnear up",
            n + "link set br0 up",
            n + "addr add 10.77.0.1/24 dev br0",
            f + "addr add 10.77.0.254/24 dev vfar",
            f + "link set vfar up",
        };
        for (const std::string& s : steps) {
            if (quiet(s) != 0) {
                return s;
            }
        }
        return "";
    }

    const std::string& near() const { return near_; }

  private:
    std::string near_;
    std::string far_;
    bool madeNear_ = false;
    bool madeFar_ = false;
};

// What the child reports back.
struct ChildResult {
    uint32_t initRc;
    uint32_t gatewayRc;
    uint8_t gatewayMac[6];
    uint32_t nobodyRc;
    uint32_t stateWhileRunning;
    uint32_t stateAfterDestroy;
};

void* waitForCancel(void*) {
    for (;;) {
        pause();
    }
    return nullptr;
}

// Runs `body` in a child process inside namespace `ns` with the Linux platform installed.
// Returns false (with the reason in *why) when the child did not report.
bool runInNamespace(const std::string& ns, const std::function<void(ChildResult*)>& body,
                    ChildResult* out, std::string* why) {
    int fds[2];
    if (pipe(fds) != 0) {
        *why = "pipe failed";
        return false;
    }
    pid_t pid = fork();
    if (pid < 0) {
        *why = "fork failed";
        return false;
    }
    if (pid == 0) {
        close(fds[0]);
        alarm(30); // a hang becomes a failure, not a stuck test run
        std::string path = "/run/netns/" + ns;
        int nsFd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (nsFd < 0 || setns(nsFd, CLONE_NEWNET) != 0) {
            _exit(3);
        }
        static LinuxOs linuxOs;
        setOs(&linuxOs);
        ChildResult r;
        memset(&r, 0xA5, sizeof r);
        body(&r);
        ssize_t n = write(fds[1], &r, sizeof r);
        _exit(n == static_cast<ssize_t>(sizeof r) ? 0 : 4);
    }
    close(fds[1]);
    size_t got = 0;
    auto* p = reinterpret_cast<uint8_t*>(out);
    for (;;) {
        ssize_t n = read(fds[0], p + got, sizeof *out - got);
        if (n > 0) {
            got += static_cast<size_t>(n);
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || got != sizeof *out) {
        *why = "child status " + std::to_string(status) + ", " + std::to_string(got) + " bytes";
        return false;
    }
    return true;
}

NETCHK_CONFIG nearConfig() {
    return NETCHK_CONFIG{1, 0, 0, kGatewayIp, kNearIp, kMask, 0};
}

std::string macText(const uint8_t* m) {
    char b[18];
    snprintf(b, sizeof b, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return b;
}

class NetChkNamespace : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string why = pair.available();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        std::string failed = pair.build();
        ASSERT_EQ(failed, "") << "setting up the namespaces failed at: " << failed;
    }
    NamespacePair pair;
};

TEST_F(NetChkNamespace, ArpProbeGetsTheGatewayMacAndNoAnswerForAnUnusedAddress) {
    ChildResult r;
    std::string why;
    bool ok = runInNamespace(
        pair.near(),
        [](ChildResult* res) {
            mesh_netChk_resetModule();
            mesh_netChk_setThreadBody(waitForCancel); // the probe is called directly here
            NETCHK_CONFIG cfg = nearConfig();
            res->initRc = mesh_netChk_init(&cfg, kBridgeMac, "br0");
            res->gatewayRc = mesh_netChk_checkIpByArp(kNearIp, kGatewayIp, res->gatewayMac);
            uint8_t none[6] = {};
            res->nobodyRc = mesh_netChk_checkIpByArp(kNearIp, kNobodyIp, none);
            mesh_netChk_destroy();
        },
        &r, &why);
    ASSERT_TRUE(ok) << why;
    ASSERT_EQ(r.initRc, 0u);
    EXPECT_EQ(r.gatewayRc, 0u);
    EXPECT_EQ(macText(r.gatewayMac), kGatewayMacText);
    EXPECT_EQ(r.nobodyRc, 1u);
}

TEST_F(NetChkNamespace, ThreadFindsTheGatewayAndDestroyEndsIt) {
    ChildResult r;
    std::string why;
    bool ok = runInNamespace(
        pair.near(),
        [](ChildResult* res) {
            mesh_netChk_resetModule();
            mesh_netChk_setThreadBody(nullptr); // the real thread
            NETCHK_CONFIG cfg = nearConfig();
            res->initRc = mesh_netChk_init(&cfg, kBridgeMac, "br0");
            // Its first tick probes the gateway; wait for the answer to be taken in.
            for (int i = 0; i < 500 && mesh_netChk_getNetState() != 1; ++i) {
                timespec ts{0, 20 * 1000 * 1000};
                nanosleep(&ts, nullptr);
            }
            res->stateWhileRunning = mesh_netChk_getNetState();
            mesh_netChk_destroy();
            res->stateAfterDestroy = mesh_netChk_getNetState();
        },
        &r, &why);
    ASSERT_TRUE(ok) << why;
    ASSERT_EQ(r.initRc, 0u);
    EXPECT_EQ(r.stateWhileRunning, 1u);
    EXPECT_EQ(r.stateAfterDestroy, 2u);
}

} // namespace
