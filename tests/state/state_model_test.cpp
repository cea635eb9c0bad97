// The management-state file, the condition getters, and the wired link-state readers on the
// contents of the GPON and Ethernet driver files.
#include "state_fixture.h"

#include <cstring>
#include <sys/stat.h>

namespace {

using StateModel = StateTest;

TEST_F(StateModel, ManagementFile) {
    // 4294967299 is not 3 cut to 32 bits.
    const std::pair<const char*, uint32_t> cases[] = {
        {"4", ORB_STATE_MANAGED},    {"3\n", ORB_STATE_MANAGED},
        {"7", ORB_STATE_UNMANAGED},  {"0", ORB_STATE_UNMANAGED},
        {"34", ORB_STATE_UNMANAGED}, {"4294967299", ORB_STATE_UNMANAGED},
        {"", ORB_STATE_UNREADABLE},  {"x", ORB_STATE_UNREADABLE}};
    for (const auto& [text, state] : cases) {
        fake().writeFile(ORB_STATE_PATH, text);
        EXPECT_EQ(state, getOrbState()) << '"' << text << '"';
        EXPECT_EQ(text, fake().readFile(ORB_STATE_PATH)); // reading never writes
    }
    const std::string path = fake().rooted(ORB_STATE_PATH);
    unlink(path.c_str());
    EXPECT_EQ(ORB_STATE_UNMANAGED, getOrbState());
    struct stat st;
    EXPECT_NE(0, stat(path.c_str(), &st)) << "reading must not create the file";

    EXPECT_EQ(0u, setOrbStateUnknown()); // creates the file, and truncates a longer one
    EXPECT_EQ("7\n", fake().readFile(ORB_STATE_PATH));
    fake().writeFile(ORB_STATE_PATH, "1234\n");
    EXPECT_EQ(0u, setOrbStateUnknown());
    EXPECT_EQ("7\n", fake().readFile(ORB_STATE_PATH));
    unlink(path.c_str());
    ASSERT_EQ(0, mkdir(path.c_str(), 0755)); // cannot be opened for writing
    EXPECT_EQ(1u, setOrbStateUnknown());
    rmdir(path.c_str());
}

TEST_F(StateModel, RefusedStationQueryReadsAsNotAssociated) {
    fake().failNth("ioctl ", 1, EIO);
    EXPECT_EQ(STA_OFF, getStaState());
}

TEST_F(StateModel, GponUplink) {
    EXPECT_EQ(LAN_OFF, getLanState()); // no GPON files
    EXPECT_EQ(0, getGponState());
    EXPECT_EQ("open /proc/gpon/linkstate error!\nopen /proc/gpon/state error!\n",
              fake().stderrText());
    const struct {
        const char *link, *state;
        uint32_t lan;
        size_t stateReads; // the state file is not read while the link is down
    } cases[] = {
        {"1\n", "5", LAN_ON, 1}, {"1", "4", LAN_OFF, 1},           {"0", "5", LAN_OFF, 0},
        {"2", "5", LAN_OFF, 0},  {"1", "          5", LAN_OFF, 1}, // only 10 bytes are read
    };
    for (const auto& c : cases) {
        fake().setProc(GPON_LINKSTATE_PATH, c.link);
        fake().setProc(GPON_STATE_PATH, c.state);
        fake().clearRecords();
        EXPECT_EQ(c.lan, getLanState()) << c.link << " " << c.state;
        EXPECT_EQ(c.stateReads, reads(GPON_STATE_PATH)) << c.link;
    }
}

TEST_F(StateModel, DownlinkPorts) {
    EXPECT_EQ(0, isEthPortDown("pon0", 3)); // no status file: up
    const std::pair<const char*, const char*> cases[] = {
        // line, down for ports 0 to 6
        {"1 2 1 0 0\n", "1010111"},
        {"0 1\n1 1 1", "1101111"},       // one line; missing numbers are 0
        {"1  1  1  1     1", "1000011"}, // only 15 characters: the fifth number is lost
    };
    for (const auto& [line, down] : cases) {
        fake().setProc(ETH_PORT_STATUS_PATH, line);
        std::string got;
        for (int port = 0; port <= 6; ++port) {
            got += std::to_string(isEthPortDown("pon0", port));
        }
        EXPECT_EQ(down, got) << line;
    }

    fake().setProc(ETH_PORT_STATUS_PATH, "2 1 1 1 1");
    fake().device().downLinkPortNum = 2;
    fake().clearRecords();
    int32_t states[6] = {-7, -7, -7, -7, -7, -7};
    downLinkPortGetState(states, 5);
    const std::vector<int32_t> expected = {-7, 2, 1, -7, -7, -7};
    EXPECT_EQ(expected, std::vector<int32_t>(states, states + 6));
    EXPECT_EQ(2u, reads(ETH_PORT_STATUS_PATH)); // opened anew per port
    fake().device().downLinkPortNum = 5;        // too many for the capacity: nothing written
    downLinkPortGetState(states, 5);
    EXPECT_EQ(expected, std::vector<int32_t>(states, states + 6));
    EXPECT_EQ(Lines{"port num to large, 5 >= 5\n"}, errors());
}

} // namespace
