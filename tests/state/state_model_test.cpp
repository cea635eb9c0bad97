// State vocabulary, the management-state file, the module's getters and the two commands
// the state module serves.
#include "fake_os.h"

#include "core/mesh_config.h"
#include "core/mesh_main.h"
#include "core/mesh_msg.h"
#include "platform/unix_sock.h"
#include "state/mesh_state.h"
#include "state/mesh_state_internal.h"
#include "wlan/mesh_wlan.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class StateModel : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_state_resetModule();
        mesh_wlan_resetForTest();
        mesh_config_reset();
    }
    void TearDown() override { mesh_state_resetModule(); }
    FakeOsScope scope;
    FakeOs& fake = scope.fake;
};

TEST_F(StateModel, NamesOfEveryValueAndOfValuesOutsideTheTables) {
    EXPECT_STREQ(getMeshStateStr(1), "MESH_STATE_NORMAL");
    EXPECT_STREQ(getMeshStateStr(2), "MESH_STATE_MESH");
    EXPECT_STREQ(getMeshStateStr(4), "MESH_STATE_ISOLATED");
    EXPECT_STREQ(getLanStateStr(1), "LAN_ON");
    EXPECT_STREQ(getLanStateStr(2), "LAN_OFF");
    EXPECT_STREQ(getStaStateStr(1), "STA_ON");
    EXPECT_STREQ(getStaStateStr(2), "STA_OFF");
    EXPECT_STREQ(getOrbStateStr(1), "ORB_STATE_MANAGED");
    EXPECT_STREQ(getOrbStateStr(2), "ORB_STATE_UNMANAGED");
    EXPECT_STREQ(getNetStateStr(1), "NETWORK_STATE_ON");
    EXPECT_STREQ(getNetStateStr(2), "NETWORK_STATE_OFF");
    EXPECT_STREQ(getNetStateStr(4), "NETWORK_STATE_CHECKING");
    EXPECT_STREQ(getLoopStateStr(1), "MESH_LOOP_STATE_ON");
    EXPECT_STREQ(getLoopStateStr(2), "MESH_STATE_OFF");

    // Outside the tables: empty, except the station state, which has no "unknown" name.
    for (uint32_t v : {0u, 3u, 8u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(v);
        EXPECT_STREQ(getMeshStateStr(v), "");
        EXPECT_STREQ(getLanStateStr(v), "");
        EXPECT_STREQ(getOrbStateStr(v), "");
        EXPECT_STREQ(getLoopStateStr(v), "");
        EXPECT_STREQ(getStaStateStr(v), "STA_DISABLE");
    }
    EXPECT_STREQ(getNetStateStr(3), "");
    EXPECT_STREQ(getNetStateStr(0xFFFFFFFFu), "");
}

TEST_F(StateModel, EveryStateValueIsASingleBitAndAnySatisfiesEveryMask) {
    const uint32_t values[] = {MESH_STATE_NORMAL,
                               MESH_STATE_MESH,
                               MESH_STATE_ISOLATED,
                               LAN_ON,
                               LAN_OFF,
                               STA_ON,
                               STA_OFF,
                               ORB_STATE_MANAGED,
                               ORB_STATE_UNMANAGED,
                               NETWORK_STATE_ON,
                               NETWORK_STATE_OFF,
                               NETWORK_STATE_CHECKING,
                               MESH_LOOP_STATE_ON,
                               MESH_STATE_OFF};
    for (uint32_t v : values) {
        EXPECT_EQ(v & (v - 1), 0u) << v;
        EXPECT_NE(v & STATE_ANY, 0u) << v;
    }
    EXPECT_EQ(STATE_ANY, static_cast<uint32_t>(-1));
}

TEST_F(StateModel, CauseTextPrintsTheRuleMasksBlanksIncluded) {
    // ISOLATED -> MESH when associated and managed.
    MESH_STATE_TRANS_ENTRY managed{4, 1, 1, STATE_ANY, STATE_ANY, 2};
    EXPECT_STREQ(getTransitionCauseStr(&managed), "STA_ON ORB_STATE_MANAGED  ");
    // MESH -> NORMAL on a loop.
    MESH_STATE_TRANS_ENTRY loop{2, STATE_ANY, STATE_ANY, STATE_ANY, 1, 1};
    EXPECT_STREQ(getTransitionCauseStr(&loop), "STA_DISABLE   MESH_LOOP_STATE_ON");
    // NORMAL -> ISOLATED, unmanaged with the network off.
    MESH_STATE_TRANS_ENTRY lost{1, STATE_ANY, 2, 2, STATE_ANY, 4};
    EXPECT_STREQ(getTransitionCauseStr(&lost),
                 "STA_DISABLE ORB_STATE_UNMANAGED NETWORK_STATE_OFF ");
    // ISOLATED -> NORMAL, station off and network on.
    MESH_STATE_TRANS_ENTRY back{4, 2, STATE_ANY, 1, STATE_ANY, 1};
    EXPECT_STREQ(getTransitionCauseStr(&back), "STA_OFF  NETWORK_STATE_ON ");
    EXPECT_STREQ(getTransitionCauseStr(nullptr), "");
}

TEST_F(StateModel, ManagementFileValues) {
    struct Case {
        const char* content;
        uint32_t expected;
    };
    const Case cases[] = {
        {"4", ORB_STATE_MANAGED},     {"3\n", ORB_STATE_MANAGED},
        {" 4\n", ORB_STATE_MANAGED},  {"7", ORB_STATE_UNMANAGED},
        {"0", ORB_STATE_UNMANAGED},   {"-3", ORB_STATE_UNMANAGED},
        {"34", ORB_STATE_UNMANAGED},  {"99999999999999", ORB_STATE_UNMANAGED},
        {"", ORB_STATE_UNREADABLE},   {"managed", ORB_STATE_UNREADABLE},
        {"\n", ORB_STATE_UNREADABLE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("file holds \"") + c.content + "\"");
        fake.writeFile("/tmp/ORB_STATE", c.content);
        EXPECT_EQ(getOrbState(), c.expected);
        // Reading never changes the file.
        EXPECT_EQ(fake.readFile("/tmp/ORB_STATE"), c.content);
    }
}

TEST_F(StateModel, MissingManagementFileReadsUnmanagedAndIsNotCreated) {
    std::string path = fake.rooted("/tmp/ORB_STATE");
    unlink(path.c_str());
    EXPECT_EQ(getOrbState(), ORB_STATE_UNMANAGED);
    struct stat st;
    EXPECT_NE(stat(path.c_str(), &st), 0);
}

TEST_F(StateModel, UnknownMarkIsExactlySevenAndALineFeed) {
    fake.writeFile("/tmp/ORB_STATE", "4\n");
    ASSERT_EQ(getOrbState(), ORB_STATE_MANAGED);
    EXPECT_EQ(setOrbStateUnknown(), 0u);
    EXPECT_EQ(fake.readFile("/tmp/ORB_STATE"), "7\n");
    EXPECT_EQ(getOrbState(), ORB_STATE_UNMANAGED);

    // Created when missing.
    unlink(fake.rooted("/tmp/ORB_STATE").c_str());
    EXPECT_EQ(setOrbStateUnknown(), 0u);
    EXPECT_EQ(fake.readFile("/tmp/ORB_STATE"), "7\n");
}

TEST_F(StateModel, UnknownMarkFailsWhenTheFileCannotBeOpened) {
    std::string path = fake.rooted("/tmp/ORB_STATE");
    unlink(path.c_str());
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0); // a directory cannot be opened for writing
    EXPECT_EQ(setOrbStateUnknown(), 1u);
    EXPECT_EQ(getOrbState(), ORB_STATE_UNMANAGED);
    rmdir(path.c_str());
}

TEST_F(StateModel, LanIfNameIsCutTo15Characters) {
    EXPECT_EQ(setLanIfName("abcdefghijklmnopqrst"), 0u);
    EXPECT_STREQ(getLanIfName(), "abcdefghijklmno");
    EXPECT_EQ(setLanIfName("pon0"), 0u);
    EXPECT_STREQ(getLanIfName(), "pon0");
    EXPECT_EQ(setLanIfName(nullptr), 1u);
    EXPECT_STREQ(getLanIfName(), "pon0");
}

TEST_F(StateModel, PublicEntryPoints) {
    uint32_t state = 0;
    EXPECT_EQ(mesh_state_getMeshState(&state), 0u);
    EXPECT_EQ(state, static_cast<uint32_t>(MESH_STATE_NORMAL));
    setMeshState(MESH_STATE_ISOLATED);
    EXPECT_EQ(mesh_state_getMeshState(&state), 0u);
    EXPECT_EQ(state, static_cast<uint32_t>(MESH_STATE_ISOLATED));
    EXPECT_EQ(mesh_state_getMeshState(nullptr), 1u);

    EXPECT_EQ(getEnable(), 0u);
    EXPECT_EQ(mesh_state_setEnable(1), 0u);
    EXPECT_EQ(getEnable(), 1u);
    EXPECT_EQ(mesh_state_setEnable(0), 0u);
    EXPECT_EQ(getEnable(), 0u);

    EXPECT_EQ(mesh_state_requestRescan(1), 0u);
    EXPECT_EQ(getRescanRequest(), 1u);
    EXPECT_EQ(mesh_state_requestRescan(0), 0u);
    EXPECT_EQ(getRescanRequest(), 0u);
}

TEST_F(StateModel, LanStateFollowsTheGponFiles) {
    setLanIfName("pon0");
    fake.setProc("/proc/gpon/linkstate", "1\n");
    fake.setProc("/proc/gpon/state", "5\n");
    EXPECT_EQ(getLanState(), static_cast<uint32_t>(LAN_ON));
    fake.setProc("/proc/gpon/state", "4\n");
    EXPECT_EQ(getLanState(), static_cast<uint32_t>(LAN_OFF));
    fake.removeProc("/proc/gpon/linkstate");
    EXPECT_EQ(getLanState(), static_cast<uint32_t>(LAN_OFF));
}

TEST_F(StateModel, StaStateAsksTheDriverAndReadsAFailureAsOff) {
    uint32_t word = 5;
    int err = 0;
    fake.onIoctl(RTPRIV_IOCTL_MESH, [&](FakeOs::Ioctl& io) {
        if (err != 0) {
            return err;
        }
        memcpy(io.data, &word, sizeof word);
        return 0;
    });
    EXPECT_EQ(getStaState(), static_cast<uint32_t>(STA_ON));
    auto calls = fake.ioctls(RTPRIV_IOCTL_MESH);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].ifName, "apclii0");
    EXPECT_EQ(calls[0].flags, MESH_SUBCMD_GET_STA_STATUS);

    word = 0;
    EXPECT_EQ(getStaState(), static_cast<uint32_t>(STA_OFF));
    word = 1;
    err = EIO;
    EXPECT_EQ(getStaState(), static_cast<uint32_t>(STA_OFF));
}

// ---- commands 13 and 15 through the command socket ---------------------------------------------

class StateCommands : public StateModel {
  protected:
    void SetUp() override {
        StateModel::SetUp();
        memset(&srv, 0, sizeof srv);
        ASSERT_EQ(unix_sock_initSrv(MESH_CMD_SRV_ID, &srv, MESH_CMD_SRV_BACKLOG), 0);
    }
    void TearDown() override {
        close(srv.listenFd);
        StateModel::TearDown();
    }

    // Sends one request, lets the daemon serve it, returns the reply.
    MESH_CMD_MSG roundTrip(const MESH_CMD_MSG& req) {
        int fd = unix_sock_connectPath(srv.path);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(unix_sock_sendHeader(fd, MESH_CMD_MSG_LEN, MESH_CMD_MSG_CODE), 0);
        EXPECT_EQ(unix_sock_sendData(fd, &req, MESH_CMD_MSG_LEN), 0);
        mesh_receive_cmd(srv.listenFd);
        int32_t len = 0;
        MESH_CMD_MSG reply;
        memset(&reply, 0xEE, sizeof reply);
        EXPECT_EQ(unix_sock_recvHeader(fd, MESH_CMD_MSG_CODE, &len), 0);
        EXPECT_EQ(len, MESH_CMD_MSG_LEN);
        EXPECT_EQ(unix_sock_recvData(fd, MESH_CMD_MSG_LEN, &reply), 0);
        close(fd);
        return reply;
    }

    static MESH_CMD_MSG request(int32_t type) {
        MESH_CMD_MSG m;
        memset(&m, 0, sizeof m);
        m.type = type;
        for (size_t i = 0; i < sizeof m.payload; ++i) {
            m.payload[i] = static_cast<uint8_t>(i * 7 + 1);
        }
        memcpy(m.reserved, "\x11\x22\x33\x44", 4);
        return m;
    }

    UNIX_SOCK_SRV_CTX srv;
};

TEST_F(StateCommands, GetMeshStateAnswersInThePayloadWord) {
    setMeshState(MESH_STATE_ISOLATED);
    MESH_CMD_MSG req = request(MESH_CMD_GET_MESH_STATE);
    MESH_CMD_MSG reply = roundTrip(req);

    const uint8_t expected[4] = {0x04, 0x00, 0x00, 0x00};
    EXPECT_EQ(memcmp(reply.payload, expected, 4), 0);
    // Type, reserved bytes and the rest of the payload come back as sent.
    EXPECT_EQ(memcmp(&reply, &req, 8), 0);
    EXPECT_EQ(memcmp(reply.payload + 4, req.payload + 4, sizeof req.payload - 4), 0);

    setMeshState(MESH_STATE_MESH);
    reply = roundTrip(req);
    const uint8_t mesh[4] = {0x02, 0x00, 0x00, 0x00};
    EXPECT_EQ(memcmp(reply.payload, mesh, 4), 0);
    EXPECT_EQ(fake.takeStdout(), "");
}

TEST_F(StateCommands, RequestRescanPostsAndWithdrawsTheRequest) {
    MESH_CMD_MSG req = request(MESH_CMD_REQUEST_RESCAN);
    const uint8_t one[4] = {0x01, 0x00, 0x00, 0x00};
    memcpy(req.payload, one, 4);
    MESH_CMD_MSG reply = roundTrip(req);
    EXPECT_EQ(getRescanRequest(), 1u);
    EXPECT_EQ(memcmp(&reply, &req, sizeof req), 0); // nothing written into the reply

    memset(req.payload, 0, 4);
    roundTrip(req);
    EXPECT_EQ(getRescanRequest(), 0u);
    // The mesh state is untouched by a request; acting on it is the state thread's job.
    uint32_t state = 0;
    mesh_state_getMeshState(&state);
    EXPECT_EQ(state, static_cast<uint32_t>(MESH_STATE_NORMAL));
    EXPECT_EQ(fake.takeStdout(), "");
}

} // namespace
