// The state thread and the network check as real threads on the fake clock. The node is moved
// only through what the board shows: GPON files, the station status the driver reports,
// /tmp/ORB_STATE, /proc/mesh/loop_status and whether the gateway answers ARP.
#include "state_fixture.h"

#include "core/mesh_config.h"
#include "core/mesh_msg.h"
#include "security/mesh_parent.h"
#include "security/mesh_payload.h"
#include "security/mesh_rsa.h"

namespace {

constexpr const char* kJoined = "iwpriv apclii0 set ApCliSsid=mesh_001122aabbcc";
constexpr const char* kSurvey = "iwpriv apclii0 set SiteSurvey=1";
constexpr const char* kNoIdentity = "parent ap only support orbpv1, can not sync destId";
const MESH_CONTROLLER_IP_PORT kController = {"192.168.1.2", 8080, 1};

class StateThread : public StateTest {
  protected:
    void SetUp() override {
        StateTest::SetUp();
        g_allConfig.controllerIpPort = kController; // the parent's: nothing to hand on
        fake().onIoctl(RTPRIV_IOCTL_MESH, [this](FakeOs::Ioctl& io) {
            if (io.flags == MESH_SUBCMD_GET_STA_STATUS) {
                memcpy(io.data, &associated, sizeof associated);
            }
            return 0;
        });
        fake().setProc(GPON_LINKSTATE_PATH, "1"); // the wired uplink is up
        fake().setProc(GPON_STATE_PATH, "5");
        fake().setProc(kLoop, "0");
        orb("0");
        answering = false;
    }
    // Both threads; the state thread ticks half a second after the network check, so it
    // always sees the check's latest result.
    void run(uint32_t dfsFlag = 0, uint32_t country = 0) {
        start(config());
        fake().advanceMillis(500);
        mesh_state_setEnable(1);
        ASSERT_EQ(0u, mesh_state_init("pon0", country, dfsFlag));
        ASSERT_TRUE(fake().settle(2));
        events();
    }
    void orb(const char* value) { fake().writeFile(ORB_STATE_PATH, value); }
    bool until(uint32_t target, int limit) { // within `limit` seconds
        for (int s = 0; s < limit && getMeshState() != target; ++s) {
            tick();
        }
        return getMeshState() == target;
    }
    void isolate() { ASSERT_TRUE(until(MESH_STATE_ISOLATED, 61)); }
    void join() { // a parent took this node in, and a controller manages it
        associated = 1;
        orb("3");
        ASSERT_TRUE(until(MESH_STATE_MESH, 2));
    }
    // A parent's report as the driver delivers it, its block encrypted for this node.
    void reportParent(uint8_t channel, uint32_t wlanMode) {
        MESH_PARENT_INFO info{};
        memcpy(info.parentMac, hexBytes("001122aabbcc").data(), 6);
        info.channel = channel;
        info.wlanMode = wlanMode;
        const uint8_t secret[16] = {1, 2, 3};
        MESH_PAIR_BLOCK_ADDR block;
        MESH_RSA_KEY ours;
        ASSERT_EQ(0u, mesh_payload_buildPairBlockAddr(secret, &kController, &block));
        ASSERT_EQ(0u, mesh_common_rsa_getSingleton(&ours));
        ASSERT_EQ(0u, mesh_common_rsa_encrypt(&ours, info.data1,
                                              reinterpret_cast<const uint8_t*>(&block)));
        handleNetlinkParent(&info);
    }
    size_t count(const char* line) {
        const Lines l = fake().shellLines();
        return static_cast<size_t>(std::count(l.begin(), l.end(), line));
    }

    uint32_t associated = 0;
};

TEST_F(StateThread, LosesTheUplinkSearchesAndTimesOutConnecting) {
    run(1, 276);
    tick(30);
    fake().setProc(GPON_LINKSTATE_PATH, "0");
    tick();
    fake().setProc(GPON_LINKSTATE_PATH, "1");
    const size_t probes = arps();
    tick(2); // the uplink came up: the network check probes on its next tick
    EXPECT_EQ(probes + 1, arps());
    tick(26); // the network stays CHECKING for exactly the check time
    EXPECT_EQ(MESH_STATE_NORMAL, getMeshState());
    tick();
    EXPECT_EQ(
        (Lines{"lan state:LAN_ON->LAN_OFF", "lan state:LAN_OFF->LAN_ON", "net state:CHECKING->OFF",
               "mesh state:MESH_STATE_NORMAL->MESH_STATE_ISOLATED,caused by STA_DISABLE "
               "ORB_STATE_UNMANAGED NETWORK_STATE_OFF "}),
        events());

    // A scan at once; a parent reports itself 3 s later and the next tick connects, with the
    // connect time of a DFS channel.
    tick(4);
    reportParent(124, 1);
    EXPECT_EQ(0u, count(kJoined));
    tick();
    EXPECT_EQ(1u, count(kJoined));
    EXPECT_EQ(240u, l_parentSearch.connectTimeout);
    tick(239); // no association: the connect times out, and the next tick scans again
    EXPECT_EQ(1u, count(kSurvey));
    tick(2);
    EXPECT_EQ(2u, count(kSurvey));
    tick(8); // no parent within the scan wait: the connect fails and a new scan follows
    EXPECT_EQ(2u, count(kSurvey));
    tick();
    EXPECT_EQ(3u, count(kSurvey));
    EXPECT_EQ((Lines{"sta state:STA_DISABLE->STA_OFF", kNoIdentity, "net state:CHECKING->OFF",
                     "connecting timeout, rescan"}),
              events());

    // (Joining, the rescan and the loop: the rules' table and the command thread's test below.)
}

TEST_F(StateThread, EachRuleFromItsState) {
    const struct {
        bool mesh; // joined first
        uint32_t associated;
        const char* orb;
        bool answering;
        const char* loop;
        uint32_t target;
        const char* cause;
    } rows[] = {
        {true, 1, "3", false, "1", MESH_STATE_NORMAL, "STA_DISABLE   MESH_LOOP_STATE_ON"},
        {true, 1, "0", false, "0", MESH_STATE_ISOLATED,
         "STA_DISABLE ORB_STATE_UNMANAGED NETWORK_STATE_OFF "},
        {false, 0, "3", false, "0", MESH_STATE_NORMAL, "STA_OFF ORB_STATE_MANAGED  "},
        {false, 0, "0", true, "0", MESH_STATE_NORMAL, "STA_OFF  NETWORK_STATE_ON "},
        {false, 1, "0", true, "0", MESH_STATE_MESH, "STA_ON  NETWORK_STATE_ON "},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.cause);
        run();
        isolate();
        if (r.mesh) {
            join();
        }
        const std::string from = getMeshStateStr(getMeshState());
        events();
        associated = r.associated;
        orb(r.orb);
        answering = r.answering;
        fake().setProc(kLoop, r.loop);
        EXPECT_TRUE(until(r.target, 65));
        const Lines ev = events();
        EXPECT_EQ(1, std::count(ev.begin(), ev.end(),
                                "mesh state:" + from + "->" + getMeshStateStr(r.target) +
                                    ",caused by " + r.cause));
        TearDown(); // the next row starts from a fresh process
        associated = 0;
        SetUp();
    }
}

// State queries and a rescan request served while both threads tick.
TEST_F(StateThread, CommandsWhileTheThreadsRun) {
    auto command = [](MESH_CMD_TYPE type, uint32_t word) { // the reply's first payload word
        MESH_CMD_MSG msg{};
        msg.type = type;
        memcpy(msg.payload, &word, sizeof word);
        EXPECT_EQ(0u, mesh_cmd_handle(&msg));
        memcpy(&word, msg.payload, sizeof word);
        return word;
    };
    run();
    isolate();
    join();
    std::string states;
    for (int i = 0; i < 11; ++i) {
        states += std::to_string(i == 2 ? command(MESH_CMD_REQUEST_RESCAN, 1)
                                        : command(MESH_CMD_GET_MESH_STATE, 0));
        tick();
    }
    // The request is taken on the next tick; the move comes 5 s later and marks the
    // management state unknown.
    EXPECT_EQ("22"
              "1"
              "22222"
              "444",
              states);
    EXPECT_EQ("7\n", fake().readFile(ORB_STATE_PATH));
    EXPECT_EQ(60u, g_netChkTimeout);

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
        uint32_t mode, country, timeout; // modes 1, 9, 20: width codes 0, 1, 3
    } dfs[] = {
        {124, 1, 276, 720}, {116, 1, 276, 240}, {116, 9, 276, 720}, {124, 20, 276, 240},
        {124, 1, 250, 240}, {36, 1, 276, 60},   {48, 1, 276, 60},   {49, 1, 276, 240},
        {148, 1, 276, 240}, {149, 1, 276, 60},
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

    fake().takeStdout();
    fake().clearRecords();
    setMeshState(MESH_STATE_NORMAL);
    EXPECT_EQ(1u, moveToState(MESH_STATE_NORMAL, MESH_STATE_MESH));
    EXPECT_EQ(1u, moveToState(MESH_STATE_MESH, MESH_STATE_ISOLATED));
    EXPECT_EQ(1u, moveToState(MESH_STATE_NORMAL, 3));
    EXPECT_EQ(Lines{}, fake().shellLines());
    mesh_wlan_resetForTest(); // no backhaul interface: its switch fails, the state stays
    EXPECT_EQ(1u, moveToState(MESH_STATE_NORMAL, MESH_STATE_ISOLATED));
    EXPECT_EQ(MESH_STATE_NORMAL, getMeshState());
    EXPECT_EQ((Lines{"normal->mesh is forbidden", "wrong current state[2 1]",
                     "invalid target mesh state", "enable backhaul ap fail"}),
              errors());

    // One thread, ever: a second init records its values and starts nothing; a thread that
    // is not enabled only sleeps.
    ASSERT_EQ(0u, mesh_state_init("pon0", 250, 0));
    ASSERT_EQ(0u, mesh_state_init("wan1", 276, 1));
    ASSERT_TRUE(fake().settle(1));
    EXPECT_EQ("wan1 276 1", std::string(getLanIfName()) + " " + std::to_string(getCountryCode()) +
                                " " + std::to_string(getDfsFlag()));
    fake().clearRecords();
    tick(5);
    EXPECT_EQ(Lines{}, fake().transcript());
}

} // namespace
