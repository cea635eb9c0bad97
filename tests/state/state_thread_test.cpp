// The state thread and the network check running as real threads on the fake clock; the node
// is moved only through what the board shows: the GPON files, the station status the driver
// reports, /tmp/ORB_STATE, /proc/mesh/loop_status and whether the gateway answers ARP.
#include "state_fixture.h"

#include "core/mesh_config.h"
#include "core/mesh_main.h"
#include "core/mesh_msg.h"
#include "platform/unix_sock.h"
#include "security/mesh_common.h"
#include "security/mesh_parent.h"
#include "security/mesh_payload.h"
#include "security/mesh_rsa.h"

#include <cstring>
#include <thread>
#include <unistd.h>

namespace {

constexpr uint8_t kParentMac[6] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
constexpr const char* kJoined = "iwpriv apclii0 set ApCliSsid=mesh_001122aabbcc";
constexpr const char* kSurvey = "iwpriv apclii0 set SiteSurvey=1";
constexpr uint32_t kWidth0 = 1, kWidth1 = 9, kWidth3 = 20; // wireless-mode codes
const MESH_CONTROLLER_IP_PORT kController = {"192.168.1.2", 8080, 1};
// Logged at every connect: the parent sends no identity block.
constexpr const char* kNoIdentity = "parent ap only support orbpv1, can not sync destId";

class StateThread : public StateTest {
  protected:
    void SetUp() override {
        StateTest::SetUp();
        ASSERT_EQ(0u, mesh_api_init());
        mesh_config_reset();
        g_allConfig.controllerIpPort = kController; // the parent's: nothing to hand on
        mesh_parentHandler_resetModule();
        ASSERT_EQ(0, mesh_log_open());
        ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&ours));
        fake.onIoctl(RTPRIV_IOCTL_MESH, [this](FakeOs::Ioctl& io) {
            if (io.flags == MESH_SUBCMD_GET_STA_STATUS) {
                memcpy(io.data, &associated, sizeof associated);
            }
            return 0;
        });
        fake.setProc(GPON_LINKSTATE_PATH, "1"); // the wired uplink is up
        fake.setProc(GPON_STATE_PATH, "5");
        fake.setProc(kLoop, "0");
        orb("0");
        answering = false;
    }
    void TearDown() override {
        StateTest::TearDown();
        mesh_parentHandler_resetModule();
    }
    // Both threads, the state thread evaluating from its first tick. It ticks half a second
    // after the network check, so that it always sees the check's latest result.
    void run(uint32_t dfsFlag = 0, uint32_t country = 0) {
        start(config());
        fake.advanceMillis(500);
        mesh_state_setEnable(1);
        ASSERT_EQ(0u, mesh_state_init("pon0", country, dfsFlag));
        ASSERT_TRUE(fake.settle(2));
        events();
    }
    void orb(const char* value) { fake.writeFile(ORB_STATE_PATH, value); }
    // Seconds until the node is in `target` (-1: not within `limit`).
    int until(uint32_t target, int limit) {
        for (int s = 0; s <= limit; ++s) {
            if (getMeshState() == target) {
                return s;
            }
            tick();
        }
        return -1;
    }
    void isolate() { // no uplink answer, not managed
        answering = false;
        orb("0");
        ASSERT_NE(-1, until(MESH_STATE_ISOLATED, 61));
    }
    void join() { // a parent took this node in, and a controller manages it
        associated = 1;
        orb("3");
        ASSERT_NE(-1, until(MESH_STATE_MESH, 2));
    }
    // A parent's report as the driver delivers it, with the blocks encrypted for this node.
    void reportParent(uint8_t channel, uint32_t wlanMode) {
        MESH_PARENT_INFO info{};
        memcpy(info.parentMac, kParentMac, 6);
        info.channel = channel;
        info.wlanMode = wlanMode;
        const uint8_t secret[16] = {1, 2, 3};
        MESH_PAIR_BLOCK_ADDR block;
        ASSERT_EQ(0u, mesh_payload_buildPairBlockAddr(secret, &kController, &block));
        ASSERT_EQ(0u, mesh_common_rsa_encrypt(&ours, info.data1,
                                              reinterpret_cast<const uint8_t*>(&block)));
        handleNetlinkParent(&info);
    }
    // The event-log texts since the last call, without their stamps.
    Lines events() {
        Lines all;
        const std::string log = fake.readFile(MESH_LOG_PATH);
        for (size_t p = 0, e; (e = log.find("\r\n", p)) != std::string::npos; p = e + 2) {
            all.push_back(log.substr(p + 21, e - p - 21));
        }
        Lines fresh(all.begin() + static_cast<long>(seen), all.end());
        seen = all.size();
        return fresh;
    }
    size_t shellCount(const std::string& line) {
        const Lines l = fake.shellLines();
        return static_cast<size_t>(std::count(l.begin(), l.end(), line));
    }

    MESH_RSA_KEY ours;
    uint32_t associated = 0;
    size_t seen = 0;
};

TEST_F(StateThread, LosesTheUplinkSearchesJoinsRescansAndStopsAtALoop) {
    run(1, 276);
    tick(30); // the network stays CHECKING for exactly the check time
    fake.setProc(GPON_LINKSTATE_PATH, "0");
    tick();
    EXPECT_EQ(Lines{"lan state:LAN_ON->LAN_OFF"}, events());
    fake.setProc(GPON_LINKSTATE_PATH, "1");
    const size_t probes = arps();
    tick(); // the uplink came up: the network check probes on its next tick
    EXPECT_EQ(Lines{"lan state:LAN_OFF->LAN_ON"}, events());
    tick();
    EXPECT_EQ(probes + 1, arps());
    tick(26);
    EXPECT_EQ(MESH_STATE_NORMAL, getMeshState());
    tick();
    EXPECT_EQ(MESH_STATE_ISOLATED, getMeshState());
    EXPECT_EQ((Lines{"net state:CHECKING->OFF",
                     "mesh state:MESH_STATE_NORMAL->MESH_STATE_ISOLATED,caused by STA_DISABLE "
                     "ORB_STATE_UNMANAGED NETWORK_STATE_OFF "}),
              events());

    // First isolated tick: a scan. A parent reports itself 3 s later; the next tick connects
    // with the connect time of a DFS channel.
    tick();
    EXPECT_EQ(Lines{"sta state:STA_DISABLE->STA_OFF"}, events());
    EXPECT_EQ(1u, shellCount(kSurvey));
    tick(3);
    reportParent(124, kWidth0);
    EXPECT_EQ(0u, shellCount(kJoined));
    tick();
    EXPECT_EQ(1u, shellCount(kJoined));
    EXPECT_EQ(Lines{kNoIdentity}, events());
    EXPECT_EQ(240u, l_parentSearch.connectTimeout);
    tick(239); // no association: the connect times out, and the next tick scans again
    EXPECT_EQ(Lines{"net state:CHECKING->OFF"}, events()); // a full check time after the move
    tick();
    EXPECT_EQ(Lines{"connecting timeout, rescan"}, events());
    EXPECT_EQ(1u, shellCount(kSurvey));
    tick();
    EXPECT_EQ(2u, shellCount(kSurvey));
    tick(8); // no parent within the scan wait: the connect fails, a new scan follows
    EXPECT_EQ(2u, shellCount(kSurvey));
    tick();
    EXPECT_EQ(3u, shellCount(kSurvey));
    EXPECT_EQ(1u, shellCount(kJoined));

    // Associated and managed: MESH, with the weather-radar wait of country 276 added.
    reportParent(124, kWidth0);
    join();
    EXPECT_EQ(720u, g_netChkTimeout);
    EXPECT_EQ((Lines{"sta state:STA_OFF->STA_ON", kNoIdentity,
                     "mesh state:MESH_STATE_ISOLATED->MESH_STATE_MESH,caused by STA_ON "
                     "ORB_STATE_MANAGED  "}),
              events());

    // A rescan request leaves MESH after 5 s and marks the management state unknown.
    mesh_state_requestRescan(1);
    tick(5);
    EXPECT_EQ(MESH_STATE_MESH, getMeshState());
    tick();
    EXPECT_EQ(MESH_STATE_ISOLATED, getMeshState());
    EXPECT_EQ("7\n", fake.readFile(ORB_STATE_PATH));
    EXPECT_EQ(60u, g_netChkTimeout);

    // Still associated, loop detection on. Managed again and a loop in the same tick: the loop
    // rule comes first in the table.
    tick(10);
    EXPECT_EQ(MESH_STATE_ISOLATED, getMeshState());
    events();
    fake.setProc(kLoop, "1");
    orb("4");
    fake.clearRecords();
    tick();
    EXPECT_EQ(MESH_STATE_NORMAL, getMeshState());
    EXPECT_EQ(Lines{"mesh state:MESH_STATE_ISOLATED->MESH_STATE_NORMAL,caused by STA_DISABLE   "
                    "MESH_LOOP_STATE_ON"},
              events());
    tick(); // NORMAL measures no station, and switches loop detection off
    EXPECT_EQ(Lines{"sta state:STA_ON->STA_DISABLE"}, events());
    EXPECT_EQ("3 0", lines().back());
}

TEST_F(StateThread, EachRuleFromItsState) {
    const struct {
        const char* name;
        bool mesh; // joined first
        uint32_t associated;
        const char* orb;
        bool answering;
        const char* loop;
        uint32_t target;
        const char* cause;
    } rows[] = {
        {"loop in mesh", true, 1, "3", false, "1", MESH_STATE_NORMAL,
         "STA_DISABLE   MESH_LOOP_STATE_ON"},
        {"mesh without uplink", true, 1, "0", false, "0", MESH_STATE_ISOLATED,
         "STA_DISABLE ORB_STATE_UNMANAGED NETWORK_STATE_OFF "},
        {"managed, no parent", false, 0, "3", false, "0", MESH_STATE_NORMAL,
         "STA_OFF ORB_STATE_MANAGED  "},
        {"uplink back, no parent", false, 0, "0", true, "0", MESH_STATE_NORMAL,
         "STA_OFF  NETWORK_STATE_ON "},
        {"uplink through the parent", false, 1, "0", true, "0", MESH_STATE_MESH,
         "STA_ON  NETWORK_STATE_ON "},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        run();
        isolate();
        if (r.mesh) {
            join();
        }
        const uint32_t from = getMeshState();
        events();
        associated = r.associated;
        orb(r.orb);
        answering = r.answering;
        fake.setProc(kLoop, r.loop);
        EXPECT_NE(-1, until(r.target, 65));
        const std::string line = std::string("mesh state:") + getMeshStateStr(from) + "->" +
                                 getMeshStateStr(r.target) + ",caused by " + r.cause;
        const Lines ev = events();
        EXPECT_NE(ev.end(), std::find(ev.begin(), ev.end(), line)) << line;
        // Both threads stop; the next row starts from a fresh process state.
        mesh_state_resetModule();
        stop();
        mesh_netChk_resetModule();
        mesh_parentHandler_resetModule();
        associated = 0;
        answering = false;
        fake.setProc(kLoop, "0");
    }
}

// The command thread serves state queries and a rescan request while both threads tick.
TEST_F(StateThread, CommandsWhileTheThreadsRun) {
    UNIX_SOCK_SRV_CTX srv{};
    ASSERT_EQ(0, unix_sock_initSrv(MESH_CMD_SRV_ID, &srv, MESH_CMD_SRV_BACKLOG));
    constexpr int kCommands = 12;
    std::thread server([&] {
        for (int i = 0; i < kCommands; ++i) {
            mesh_receive_cmd(srv.listenFd);
        }
    });
    char path[128];
    ASSERT_EQ(0, unix_sock_srvPath(MESH_CMD_SRV_ID, path, sizeof path));
    auto command = [&](MESH_CMD_TYPE type, uint32_t word) { // the reply's first payload word
        MESH_CMD_MSG msg{};
        msg.type = type;
        memcpy(msg.payload, &word, sizeof word);
        const int fd = unix_sock_connectPath(path);
        EXPECT_EQ(0, unix_sock_sendHeader(fd, sizeof msg, MESH_CMD_MSG_CODE));
        EXPECT_EQ(0, unix_sock_sendData(fd, &msg, sizeof msg));
        int32_t len = 0;
        EXPECT_EQ(0, unix_sock_recvHeader(fd, MESH_CMD_MSG_CODE, &len));
        EXPECT_EQ(0, unix_sock_recvData(fd, len, &msg));
        close(fd);
        memcpy(&word, msg.payload, sizeof word);
        return word;
    };

    run();
    isolate();
    join();
    std::vector<uint32_t> states;
    for (int i = 0; i < kCommands - 1; ++i) {
        if (i == 2) {
            command(MESH_CMD_REQUEST_RESCAN, 1);
        } else {
            states.push_back(command(MESH_CMD_GET_MESH_STATE, 0));
        }
        tick();
    }
    command(MESH_CMD_GET_MESH_STATE, 0);
    server.join();
    close(srv.listenFd);
    // Asked in MESH; the request is taken on the next tick, the move comes 5 s later.
    EXPECT_EQ((std::vector<uint32_t>{2, 2, 2, 2, 2, 2, 2, 4, 4, 4}), states);

    mesh_state_setEnable(0); // disabled: the state is kept while the thread idles
    tick(3);
    EXPECT_EQ(MESH_STATE_ISOLATED, getMeshState());
    mesh_state_setEnable(1); // enabled again: evaluation restarts in NORMAL
    tick();
    EXPECT_EQ(MESH_STATE_NORMAL, getMeshState());
}

TEST_F(StateThread, MovesAndTheirChecks) {
    setDfsFlag(1);
    const struct {
        uint8_t channel;
        uint32_t mode, country, timeout;
    } dfs[] = {
        {124, kWidth0, 276, 720}, {116, kWidth0, 276, 240}, {116, kWidth1, 276, 720},
        {124, kWidth3, 276, 240}, {124, kWidth0, 250, 240}, {36, kWidth0, 276, 60},
        {48, kWidth0, 276, 60},   {49, kWidth0, 276, 240},  {148, kWidth0, 276, 240},
        {149, kWidth0, 276, 60},
    };
    for (const auto& d : dfs) {
        setCountryCode(d.country);
        reportParent(d.channel, d.mode);
        setMeshState(MESH_STATE_ISOLATED);
        ASSERT_EQ(0u, moveToState(MESH_STATE_ISOLATED, MESH_STATE_MESH));
        EXPECT_EQ(d.timeout, g_netChkTimeout)
            << int(d.channel) << " " << d.mode << " " << d.country;
    }
    setDfsFlag(0); // without the flag the check time is left alone
    g_netChkTimeout = 99;
    setMeshState(MESH_STATE_ISOLATED);
    ASSERT_EQ(0u, moveToState(MESH_STATE_ISOLATED, MESH_STATE_MESH));
    EXPECT_EQ(99u, g_netChkTimeout);

    fake.takeStdout();
    fake.clearRecords();
    setMeshState(MESH_STATE_NORMAL);
    EXPECT_EQ(1u, moveToState(MESH_STATE_NORMAL, MESH_STATE_MESH));
    EXPECT_EQ(1u, moveToState(MESH_STATE_MESH, MESH_STATE_ISOLATED));
    EXPECT_EQ(1u, moveToState(MESH_STATE_NORMAL, 3));
    EXPECT_EQ((Lines{"normal->mesh is forbidden", "wrong current state[2 1]",
                     "invalid target mesh state"}),
              errors());
    EXPECT_EQ(Lines{}, fake.shellLines());
    EXPECT_EQ(MESH_STATE_NORMAL, getMeshState());

    // A backhaul switch that fails (no interface) leaves the state as it was.
    mesh_wlan_resetForTest();
    EXPECT_EQ(1u, moveToState(MESH_STATE_NORMAL, MESH_STATE_ISOLATED));
    EXPECT_EQ(MESH_STATE_NORMAL, getMeshState());
    EXPECT_EQ(Lines{"enable backhaul ap fail"}, errors());

    uint32_t out = 0;
    EXPECT_EQ(1u, transferNetState(NETWORK_STATE_ON, 2, 0, nullptr));
    EXPECT_EQ(0u, transferNetState(NETWORK_STATE_OFF, 2, 0, &out)); // stays as measured
    EXPECT_EQ(NETWORK_STATE_OFF, out);
    const int32_t tran[] = {
        getLanLinkStateTran(LAN_ON, LAN_OFF), getLanLinkStateTran(LAN_ON, LAN_ON),
        getLanLinkStateTran(LAN_OFF, LAN_ON), getLanLinkStateTran(LAN_OFF, LAN_OFF),
        getLanLinkStateTran(LAN_ON, STATE_ANY)};
    EXPECT_EQ((std::vector<int32_t>{1, 2, 4, 8, 8}), std::vector<int32_t>(tran, tran + 5));
    EXPECT_EQ(Lines{"wrong lan state transfer"}, errors());

    // One thread, ever: a second init records its values and starts nothing; a thread that
    // is not enabled only sleeps.
    EXPECT_EQ(1u, mesh_state_init(nullptr, 0, 0));
    ASSERT_EQ(0u, mesh_state_init("pon0", 250, 0));
    ASSERT_EQ(0u, mesh_state_init("wan1", 276, 1));
    ASSERT_TRUE(fake.settle(1));
    EXPECT_STREQ("wan1", getLanIfName());
    EXPECT_EQ(276u, getCountryCode());
    EXPECT_EQ(1u, getDfsFlag());
    fake.clearRecords();
    tick(5);
    EXPECT_EQ(Lines{}, fake.transcript());
}

} // namespace
