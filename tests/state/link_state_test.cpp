// Wired link-state readers on the contents of the GPON and Ethernet driver files.
#include "fake_os.h"
#include "state_test_util.h"

#include "state/mesh_link.h"
#include "state/mesh_state_internal.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

constexpr const char* kLink = "/proc/gpon/linkstate";
constexpr const char* kGpon = "/proc/gpon/state";
constexpr const char* kPorts = "/proc/tc3162/eth_port_status";

class LinkState : public ::testing::Test {
  protected:
    size_t reads(const std::string& path) {
        auto r = fake.procReads();
        return static_cast<size_t>(std::count(r.begin(), r.end(), path));
    }
    FakeOsScope scope;
    FakeOs& fake = scope.fake;
};

TEST_F(LinkState, Uplink) {
    EXPECT_EQ(isLanLinkDown("pon0"), 1); // no GPON files
    EXPECT_EQ(getGponState(), 0);
    EXPECT_EQ(fake.stderrText(),
              "open /proc/gpon/linkstate error!\nopen /proc/gpon/state error!\n");

    fake.setProc(kLink, "1\n");
    fake.setProc(kGpon, "5");
    EXPECT_EQ(isLanLinkDown("pon0"), 0);
    fake.setProc(kGpon, "4");
    EXPECT_EQ(isLanLinkDown("pon0"), 1);
    fake.setProc(kGpon, "          5"); // only 10 bytes are read
    EXPECT_EQ(getGponState(), 0);

    fake.clearRecords();
    fake.setProc(kLink, "0");
    fake.setProc(kGpon, "5");
    EXPECT_EQ(isLanLinkDown("pon0"), 1);
    EXPECT_EQ(reads(kGpon), 0u) << "state file read although the link is down";
}

TEST_F(LinkState, Ports) {
    EXPECT_EQ(isEthPortDown("pon0", 3), 0); // no status file: up

    fake.setProc(kPorts, "1 2 1 0 0\n");
    const int expected[] = {1, 0, 1, 0, 1, 1, 1}; // ports 0..6
    for (int port = 0; port <= 6; ++port) {
        EXPECT_EQ(isEthPortDown("pon0", port), expected[port]) << "port " << port;
    }
    EXPECT_EQ(isEthPortDown(nullptr, 1), 1);
    fake.setProc(kPorts, "0 1\n1 1 1"); // one line; missing numbers are 0
    EXPECT_EQ(isEthPortDown("pon0", 2), 0);
    EXPECT_EQ(isEthPortDown("pon0", 3), 1);
    fake.setProc(kPorts, "1  1  1  1     1"); // the fifth number lies past 15 characters
    EXPECT_EQ(isEthPortDown("pon0", 4), 0);
    EXPECT_EQ(isEthPortDown("pon0", 5), 1);

    fake.setProc(kPorts, "2 1 1 1 1");
    fake.device().downLinkPortNum = 2;
    fake.clearRecords();
    int32_t states[5] = {-7, -7, -7, -7, -7};
    downLinkPortGetState(states, 5);
    EXPECT_EQ(std::vector<int32_t>(states, states + 5), (std::vector<int32_t>{-7, 2, 1, -7, -7}));
    EXPECT_EQ(reads(kPorts), 2u); // opened anew per port

    fake.device().downLinkPortNum = 5;
    downLinkPortGetState(states, 5);
    EXPECT_EQ(std::vector<int32_t>(states, states + 5), (std::vector<int32_t>{-7, 2, 1, -7, -7}));
    EXPECT_EQ(maskLineNumbers(fake.takeStdout()),
              "[MESH][ERROR](downLinkPortGetState) NNNNN: port num to large, 5 >= 5\n\r\n");
}

} // namespace
