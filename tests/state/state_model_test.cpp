// State vocabulary, the management-state file, the module's getters and commands 13 and 15.
#include "fake_os.h"

#include "core/mesh_config.h"
#include "core/mesh_main.h"
#include "core/mesh_msg.h"
#include "platform/unix_sock.h"
#include "state/mesh_state_internal.h"
#include "wlan/mesh_wlan.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class StateModel : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_state_resetModule();
        mesh_wlan_resetForTest();
    }
    void TearDown() override { mesh_state_resetModule(); }
    FakeOsScope scope;
    FakeOs& fake = scope.fake;
};

TEST_F(StateModel, NamesAndCauseTexts) {
    using Fn = const char* (*)(uint32_t);
    const std::vector<std::pair<Fn, std::vector<const char*>>> tables = {
        {getMeshStateStr, {"", "MESH_STATE_NORMAL", "MESH_STATE_MESH", "", "MESH_STATE_ISOLATED"}},
        {getLanStateStr, {"", "LAN_ON", "LAN_OFF", "", ""}},
        {getStaStateStr, {"STA_DISABLE", "STA_ON", "STA_OFF", "STA_DISABLE", "STA_DISABLE"}},
        {getOrbStateStr, {"", "ORB_STATE_MANAGED", "ORB_STATE_UNMANAGED", "", ""}},
        {getNetStateStr,
         {"", "NETWORK_STATE_ON", "NETWORK_STATE_OFF", "", "NETWORK_STATE_CHECKING"}},
        {getLoopStateStr, {"", "MESH_LOOP_STATE_ON", "MESH_STATE_OFF", "", ""}},
    };
    for (const auto& t : tables) {
        for (uint32_t v = 0; v < t.second.size(); ++v) {
            EXPECT_STREQ(t.first(v), t.second[v]) << "value " << v;
        }
    }
    EXPECT_STREQ(getStaStateStr(STATE_ANY), "STA_DISABLE");
    EXPECT_STREQ(getNetStateStr(STATE_ANY), "");

    // The masks of a rule are printed; "any" is blank except in the station place.
    MESH_STATE_TRANS_ENTRY managed{4, 1, 1, STATE_ANY, STATE_ANY, 2};
    EXPECT_STREQ(getTransitionCauseStr(&managed), "STA_ON ORB_STATE_MANAGED  ");
    MESH_STATE_TRANS_ENTRY loop{2, STATE_ANY, STATE_ANY, STATE_ANY, 1, 1};
    EXPECT_STREQ(getTransitionCauseStr(&loop), "STA_DISABLE   MESH_LOOP_STATE_ON");
    MESH_STATE_TRANS_ENTRY lost{1, STATE_ANY, 2, 2, STATE_ANY, 4};
    EXPECT_STREQ(getTransitionCauseStr(&lost),
                 "STA_DISABLE ORB_STATE_UNMANAGED NETWORK_STATE_OFF ");
}

TEST_F(StateModel, ManagementFile) {
    const std::vector<std::pair<std::string, uint32_t>> cases = {
        {"4", ORB_STATE_MANAGED},    {"3\n", ORB_STATE_MANAGED},
        {"7", ORB_STATE_UNMANAGED},  {"0", ORB_STATE_UNMANAGED},
        {"34", ORB_STATE_UNMANAGED}, {"", ORB_STATE_UNREADABLE},
        {"x", ORB_STATE_UNREADABLE}, {"99999999999", ORB_STATE_UNMANAGED},
    };
    for (const auto& c : cases) {
        fake.writeFile("/tmp/ORB_STATE", c.first);
        EXPECT_EQ(getOrbState(), c.second) << "file \"" << c.first << "\"";
        EXPECT_EQ(fake.readFile("/tmp/ORB_STATE"), c.first); // reading never writes
    }
    std::string path = fake.rooted("/tmp/ORB_STATE");
    unlink(path.c_str());
    EXPECT_EQ(getOrbState(), ORB_STATE_UNMANAGED);
    struct stat st;
    EXPECT_NE(stat(path.c_str(), &st), 0) << "reading must not create the file";

    EXPECT_EQ(setOrbStateUnknown(), 0u);
    EXPECT_EQ(fake.readFile("/tmp/ORB_STATE"), "7\n");
    fake.writeFile("/tmp/ORB_STATE", "4\n");
    EXPECT_EQ(setOrbStateUnknown(), 0u);
    EXPECT_EQ(fake.readFile("/tmp/ORB_STATE"), "7\n");

    unlink(path.c_str());
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0); // cannot be opened for writing
    EXPECT_EQ(setOrbStateUnknown(), 1u);
    rmdir(path.c_str());
}

TEST_F(StateModel, WordsAndGetters) {
    uint32_t state = 0;
    EXPECT_EQ(mesh_state_getMeshState(nullptr), 1u);
    setMeshState(MESH_STATE_ISOLATED);
    EXPECT_EQ(mesh_state_getMeshState(&state), 0u);
    EXPECT_EQ(state, 4u);
    EXPECT_EQ(setLanIfName("abcdefghijklmnopqrst"), 0u);
    EXPECT_STREQ(getLanIfName(), "abcdefghijklmno");
    EXPECT_EQ(setLanIfName(nullptr), 1u);
    EXPECT_STREQ(getLanIfName(), "abcdefghijklmno");

    fake.setProc("/proc/gpon/linkstate", "1\n");
    fake.setProc("/proc/gpon/state", "5\n");
    EXPECT_EQ(getLanState(), static_cast<uint32_t>(LAN_ON));

    uint32_t word = 5;
    int err = 0;
    fake.onIoctl(RTPRIV_IOCTL_MESH, [&](FakeOs::Ioctl& io) {
        memcpy(io.data, &word, sizeof word);
        return err;
    });
    EXPECT_EQ(getStaState(), static_cast<uint32_t>(STA_ON));
    EXPECT_EQ(fake.ioctls(RTPRIV_IOCTL_MESH).at(0).flags, MESH_SUBCMD_GET_STA_STATUS);
    word = 0;
    EXPECT_EQ(getStaState(), static_cast<uint32_t>(STA_OFF));
    word = 1;
    err = EIO; // a refused query reads as not associated
    EXPECT_EQ(getStaState(), static_cast<uint32_t>(STA_OFF));
}

TEST_F(StateModel, CommandsThroughTheSocket) {
    UNIX_SOCK_SRV_CTX srv;
    memset(&srv, 0, sizeof srv);
    ASSERT_EQ(unix_sock_initSrv(MESH_CMD_SRV_ID, &srv, MESH_CMD_SRV_BACKLOG), 0);
    auto roundTrip = [&](const MESH_CMD_MSG& req) {
        int fd = unix_sock_connectPath(srv.path);
        EXPECT_EQ(unix_sock_sendHeader(fd, MESH_CMD_MSG_LEN, MESH_CMD_MSG_CODE), 0);
        EXPECT_EQ(unix_sock_sendData(fd, &req, MESH_CMD_MSG_LEN), 0);
        mesh_receive_cmd(srv.listenFd);
        MESH_CMD_MSG reply;
        int32_t len = 0;
        EXPECT_EQ(unix_sock_recvHeader(fd, MESH_CMD_MSG_CODE, &len), 0);
        EXPECT_EQ(unix_sock_recvData(fd, MESH_CMD_MSG_LEN, &reply), 0);
        close(fd);
        return reply;
    };
    MESH_CMD_MSG req;
    memset(&req, 0x5A, sizeof req);
    req.type = MESH_CMD_GET_MESH_STATE;
    setMeshState(MESH_STATE_ISOLATED);
    MESH_CMD_MSG reply = roundTrip(req);
    const uint8_t isolated[4] = {0x04, 0x00, 0x00, 0x00};
    EXPECT_EQ(memcmp(reply.payload, isolated, 4), 0);
    EXPECT_EQ(memcmp(&reply, &req, 8), 0); // type and reserved bytes as sent
    EXPECT_EQ(memcmp(reply.payload + 4, req.payload + 4, sizeof req.payload - 4), 0);

    req.type = MESH_CMD_REQUEST_RESCAN;
    const uint8_t one[4] = {0x01, 0x00, 0x00, 0x00};
    memcpy(req.payload, one, 4);
    reply = roundTrip(req);
    EXPECT_EQ(getRescanRequest(), 1u);
    EXPECT_EQ(memcmp(&reply, &req, sizeof req), 0);
    memset(req.payload, 0, 4);
    roundTrip(req);
    EXPECT_EQ(getRescanRequest(), 0u);
    EXPECT_EQ(fake.takeStdout(), "");
    close(srv.listenFd);
}

} // namespace
