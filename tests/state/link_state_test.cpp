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
    void SetUp() override {
        mesh_state_resetModule();
        setLanIfName("pon0");
    }
    void TearDown() override { mesh_state_resetModule(); }

    size_t reads(const std::string& path) {
        auto r = fake.procReads();
        return static_cast<size_t>(std::count(r.begin(), r.end(), path));
    }

    FakeOsScope scope;
    FakeOs& fake = scope.fake;
};

TEST_F(LinkState, GponReadersReturnTheLeadingNumber) {
    fake.setProc(kLink, "1\n");
    fake.setProc(kGpon, "5");
    EXPECT_EQ(getGponLinkState(), 1);
    EXPECT_EQ(getGponState(), 5);
    fake.setProc(kGpon, "  12 rest");
    EXPECT_EQ(getGponState(), 12);
    fake.setProc(kGpon, "up");
    EXPECT_EQ(getGponState(), 0);
    fake.setProc(kGpon, "");
    EXPECT_EQ(getGponState(), 0);
    // Only the first 10 bytes are looked at.
    fake.setProc(kGpon, "          5");
    EXPECT_EQ(getGponState(), 0);
    EXPECT_EQ(fake.stderrText(), "");
}

TEST_F(LinkState, MissingGponFilesReadZeroWithALineOnStandardError) {
    EXPECT_EQ(getGponLinkState(), 0);
    EXPECT_EQ(getGponState(), 0);
    EXPECT_EQ(fake.stderrText(),
              "open /proc/gpon/linkstate error!\nopen /proc/gpon/state error!\n");
    EXPECT_EQ(fake.takeStdout(), "");
}

TEST_F(LinkState, UplinkIsUpOnlyWithLinkOneAndStateFive) {
    fake.setProc(kLink, "1");
    fake.setProc(kGpon, "5");
    EXPECT_EQ(isLanLinkDown("pon0"), 0);
    fake.setProc(kGpon, "4");
    EXPECT_EQ(isLanLinkDown("pon0"), 1);

    // Link down: the state file is not read at all.
    fake.clearRecords();
    fake.setProc(kLink, "0");
    fake.setProc(kGpon, "5");
    EXPECT_EQ(isLanLinkDown("pon0"), 1);
    EXPECT_EQ(reads(kLink), 1u);
    EXPECT_EQ(reads(kGpon), 0u);

    // Missing link file: down.
    fake.removeProc(kLink);
    EXPECT_EQ(isLanLinkDown(nullptr), 1);
}

TEST_F(LinkState, PortStatusLine) {
    fake.setProc(kPorts, "1 2 1 0 0\n");
    EXPECT_EQ(isEthPortDown("pon0", 1), 0);
    EXPECT_EQ(isEthPortDown("pon0", 2), 1);
    EXPECT_EQ(isEthPortDown("pon0", 3), 0);
    EXPECT_EQ(isEthPortDown("pon0", 4), 1);
    EXPECT_EQ(isEthPortDown("pon0", 5), 1);
    EXPECT_EQ(isEthPortDown("pon0", 0), 1);
    EXPECT_EQ(isEthPortDown("pon0", 6), 1);
    EXPECT_EQ(isEthPortDown("pon0", -1), 1);
    EXPECT_EQ(isEthPortDown(nullptr, 1), 1);

    // Missing numbers stay 0 (down); the line ends at the first line feed.
    fake.setProc(kPorts, "0 1\n1 1 1 1 1");
    EXPECT_EQ(isEthPortDown("pon0", 1), 1);
    EXPECT_EQ(isEthPortDown("pon0", 2), 0);
    EXPECT_EQ(isEthPortDown("pon0", 3), 1);
    // Only 15 characters are read: the fifth number falls outside.
    fake.setProc(kPorts, "1  1  1  1    1");
    EXPECT_EQ(isEthPortDown("pon0", 5), 0);
    fake.setProc(kPorts, "1  1  1  1     1");
    EXPECT_EQ(isEthPortDown("pon0", 5), 1);
    // A malformed field ends the parse.
    fake.setProc(kPorts, "1,1 1 1 1");
    EXPECT_EQ(isEthPortDown("pon0", 1), 0);
    EXPECT_EQ(isEthPortDown("pon0", 2), 1);
}

TEST_F(LinkState, MissingPortStatusFileCountsAsUp) {
    EXPECT_EQ(isEthPortDown("pon0", 1), 0);
    EXPECT_EQ(isEthPortDown("pon0", 3), 0);
}

TEST_F(LinkState, DownLinkPortsFillOnlyTheirEntries) {
    fake.device().downLinkPortNum = 2;
    fake.setProc(kPorts, "2 1 1 1 1");
    int32_t states[5] = {-7, -7, -7, -7, -7};
    downLinkPortGetState(states, 5);
    EXPECT_EQ(states[0], -7);
    EXPECT_EQ(states[1], 2);
    EXPECT_EQ(states[2], 1);
    EXPECT_EQ(states[3], -7);
    EXPECT_EQ(states[4], -7);
    // The status file is opened once per port.
    EXPECT_EQ(reads(kPorts), 2u);
    EXPECT_EQ(fake.takeStdout(), "");
    downLinkPortGetState(nullptr, 5); // nothing to write into
}

TEST_F(LinkState, TooManyPortsWriteNothing) {
    fake.device().downLinkPortNum = 5;
    fake.setProc(kPorts, "1 1 1 1 1");
    int32_t states[5] = {-7, -7, -7, -7, -7};
    downLinkPortGetState(states, 5);
    for (int32_t s : states) {
        EXPECT_EQ(s, -7);
    }
    EXPECT_EQ(maskLineNumbers(fake.takeStdout()),
              "[MESH][ERROR](downLinkPortGetState) NNNNN: port num to large, 5 >= 5\n\r\n");
    EXPECT_EQ(reads(kPorts), 0u);
}

} // namespace
