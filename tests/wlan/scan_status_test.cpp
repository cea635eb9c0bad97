// Scanning, station configuration and status, online children, command type 17.
#include "wlan_fixture.h"

#include "core/mesh_msg.h"
#include "wlan/mesh_wlan_scan.h"

#include <cstring>
#include <memory>

using Lines = std::vector<std::string>;
using ScanStatus = WlanTest;

namespace {
void le(Bytes& b, size_t off, uint64_t v, int n) {
    for (int i = 0; i < n; ++i) {
        b[off + static_cast<size_t>(i)] = static_cast<uint8_t>(v >> (8 * i));
    }
}
// One 72-byte survey entry: u32 at 40, rssi s32 at 44, bssid at 64, meshAttr at 70.
Bytes scanEntry(uint8_t last, uint32_t v40, int32_t rssi, uint8_t meshAttr) {
    Bytes e(72, 0xA5); // fields the daemon does not read hold noise
    le(e, 40, v40, 4);
    le(e, 44, static_cast<uint32_t>(rssi), 4);
    const uint8_t bssid[6] = {0x02, 0x11, 0x22, 0x33, 0x44, last};
    memcpy(&e[64], bssid, 6);
    if (last == 0) {
        memset(&e[64], 0, 6);
    }
    e[70] = meshAttr;
    return e;
}
Bytes table(uint32_t count, const std::vector<Bytes>& entries) {
    Bytes t(4, 0);
    le(t, 0, count, 4);
    for (const auto& e : entries) {
        t.insert(t.end(), e.begin(), e.end());
    }
    return t;
}
// Answers the survey request with `busy` EAGAINs, then with `t` and length `len`.
// (The fake calls a copy of the handler, so the countdown lives outside it.)
void scriptSurvey(FakeOs& f, int busy, Bytes t, uint16_t len) {
    auto left = std::make_shared<int>(busy);
    f.onIoctl(RTPRIV_IOCTL_SCAN_TABLE, [left, t, len](FakeOs::Ioctl& r) {
        if ((*left)-- > 0) {
            return EAGAIN;
        }
        memcpy(r.data, t.data(), t.size());
        r.length = len;
        return 0;
    });
}
std::string candidates(const MESH_SCAN_CANDIDATE* c, uint8_t n) {
    return toHex(c, n * 10u);
}
} // namespace

TEST_F(ScanStatus, ActiveScanAndStationConfiguration) {
    EXPECT_EQ(mesh_wlan_startActiveScan(nullptr), 0u);
    MESH_WLAN_CREDENTIALS cred{};
    memcpy(cred.ssid, "mesh_0a1b2c3d4e5f", 17);
    memset(cred.passphrase, 'p', sizeof cred.passphrase); // unterminated: read with its bound
    EXPECT_EQ(mesh_wlan_configSta(nullptr, 149), 0u);
    EXPECT_EQ(mesh_wlan_configSta(&cred, 149), 0u);
    const std::string pass(33, 'p');
    EXPECT_EQ(
        fake().shellLines(),
        (Lines{"iwpriv apclii0 set ApCliEnable=0", "iwpriv apclii0 set ms_restorechan=1",
               "iwpriv apclii0 set SiteSurvey=1", "ifconfig apclii0 up",
               "iwpriv apclii0 set channel=149", "iwpriv apclii0 set ApCliEnable=0",
               "iwpriv apclii0 set ApCliAuthMode=WPA2PSK", "iwpriv apclii0 set ApCliEncrypType=AES",
               "iwpriv apclii0 set RekeyMethod=DISABLE", "iwpriv apclii0 set ApCliWPAPSK=" + pass,
               "iwpriv apclii0 set ApCliSsid=mesh_0a1b2c3d4e5f",
               "iwpriv apclii0 set ApCliEnable=1"}));
    for (int ch : {0, 35, 36, 48, 49, 52, 100, 148, 149, 165, 166, 255}) {
        fake().clearRecords();
        mesh_wlan_configSta(&cred, static_cast<uint8_t>(ch));
        bool set = (ch >= 36 && ch <= 48) || (ch >= 149 && ch <= 165);
        EXPECT_EQ(fake().shellLines().size(), set ? 9u : 8u) << ch;
        EXPECT_EQ(fake().shellLines()[1] == "iwpriv apclii0 set channel=" + std::to_string(ch), set)
            << ch;
    }
}

TEST_F(ScanStatus, SurveyRetriesWhileTheDriverIsBusy) {
    Bytes t = table(1, {scanEntry(0x01, 0x12C, -60, 1)});
    scriptSurvey(fake(), 2, t, static_cast<uint16_t>(t.size()));
    const uint64_t start = fake().nowMillis();
    uint8_t count = 99;
    MESH_SCAN_CANDIDATE out[20];
    EXPECT_EQ(mesh_wlan_scanParentAp(nullptr, &count, out), 0u);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(candidates(out, 1), toHex(hexBytes("021122334401 2c 23 c4 01").data(), 10));
    EXPECT_EQ(errors(), (Lines{"scan in procss, wait sometime, retry(1).\n",
                               "scan in procss, wait sometime, retry(2).\n"}));
    EXPECT_EQ(fake().nowMillis() - start, 7000u); // 6 s settle and two 0.5 s waits
    EXPECT_EQ(fake().shellLines(), Lines{"iwpriv apclii0 set SiteSurvey=1"});
    Bytes asked(49152, 0);
    asked[1] = 0x01; // 256 entries asked for
    auto reqs = fake().ioctls(RTPRIV_IOCTL_SCAN_TABLE);
    ASSERT_EQ(reqs.size(), 3u);
    for (const auto& r : reqs) {
        EXPECT_EQ(r.ifName, "apclii0");
        EXPECT_EQ(r.flags, 0);
        EXPECT_TRUE(r.payload == asked);
    }
}

TEST_F(ScanStatus, SurveyGivesUpAfterFifteenBusyAnswers) {
    scriptSurvey(fake(), 15, table(1, {scanEntry(1, 0, -60, 1)}), 76);
    const uint64_t start = fake().nowMillis();
    uint8_t count = 99;
    MESH_SCAN_CANDIDATE out[20];
    EXPECT_EQ(mesh_wlan_scanParentAp(nullptr, &count, out), 1u);
    EXPECT_EQ(count, 99);
    Lines expect;
    for (int i = 1; i <= 15; ++i) {
        expect.push_back("scan in procss, wait sometime, retry(" + std::to_string(i) + ").\n");
    }
    expect.push_back("retry(16) exceed 15 times, skip parsing\n");
    EXPECT_EQ(errors(), expect);
    EXPECT_EQ(fake().nowMillis() - start, 13500u);
    EXPECT_EQ(fake().ioctls(RTPRIV_IOCTL_SCAN_TABLE).size(), 15u);
}

TEST_F(ScanStatus, SurveyTableLengthAndCountBoundTheWalk) {
    uint8_t count = 0;
    MESH_SCAN_CANDIDATE out[20];
    Bytes two = table(2, {scanEntry(1, 0, -50, 1), scanEntry(2, 0, -50, 1)});
    scriptSurvey(fake(), 0, two, 75);
    EXPECT_EQ(mesh_wlan_scanParentAp(nullptr, &count, out), 1u);
    EXPECT_EQ(errors(), Lines{"scanAp: too short size."});
    scriptSurvey(fake(), 0, two, 76); // room for one entry only
    EXPECT_EQ(mesh_wlan_scanParentAp(nullptr, &count, out), 0u);
    EXPECT_EQ(count, 1);
    two[0] = 1; // the driver counts one entry in a longer table
    scriptSurvey(fake(), 0, two, static_cast<uint16_t>(two.size()));
    EXPECT_EQ(mesh_wlan_scanParentAp(nullptr, &count, out), 0u);
    EXPECT_EQ(count, 1);
    // A refusal other than "busy" leaves the cleared table: no candidate, no retry.
    fake().onIoctl(RTPRIV_IOCTL_SCAN_TABLE, [](FakeOs::Ioctl&) { return EIO; });
    EXPECT_EQ(mesh_wlan_scanParentAp(nullptr, &count, out), 0u);
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(mesh_wlan_scanParentAp(nullptr, nullptr, out), 1u);
    EXPECT_EQ(mesh_wlan_scanParentAp(nullptr, &count, nullptr), 1u);
    EXPECT_EQ(errors(), Lines(2, "input is NULL\n"));
}

TEST_F(ScanStatus, CandidatesSkipEmptyForeignAndRepeatedEntries) {
    std::vector<Bytes> entries = {scanEntry(0, 7, -40, 1), scanEntry(0x10, 7, -40, 0),
                                  scanEntry(0x20, 0x106, -95, 2), scanEntry(0x20, 9, -30, 1),
                                  scanEntry(0x30, 0xFF, 10, 3)};
    Bytes t = table(5, entries);
    scriptSurvey(fake(), 0, t, static_cast<uint16_t>(t.size()));
    uint8_t count = 0;
    MESH_SCAN_CANDIDATE out[20];
    ASSERT_EQ(mesh_wlan_scanParentAp(nullptr, &count, out), 0u);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(candidates(out, 2), "021122334420"
                                  "06"
                                  "00"
                                  "a1"
                                  "02"
                                  "021122334430"
                                  "ff"
                                  "69"
                                  "0a"
                                  "03");
    entries.clear();
    for (uint8_t i = 1; i <= 25; ++i) {
        entries.push_back(scanEntry(i, i, -60, 1));
    }
    t = table(25, entries);
    scriptSurvey(fake(), 0, t, static_cast<uint16_t>(t.size()));
    ASSERT_EQ(mesh_wlan_scanParentAp(nullptr, &count, out), 0u);
    ASSERT_EQ(count, 20);
    EXPECT_EQ(out[19].bssid[5], 20);
}

namespace {
// One 56-byte station entry: MAC, rssi at 7, u64 at 16/24/32/40, u32 at 48/52.
Bytes staEntry(uint8_t last, int8_t rssi, uint32_t v48) {
    Bytes e(56, 0x5A);
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, last};
    memcpy(e.data(), mac, 6);
    e[7] = static_cast<uint8_t>(rssi);
    le(e, 16, 0x0102030405060708ull, 8);
    le(e, 24, 0x1112131415161718ull, 8);
    le(e, 32, 0x2122232425262728ull, 8);
    le(e, 40, 0x3132333435363738ull, 8);
    le(e, 48, v48, 4);
    le(e, 52, 7999, 4);
    return e;
}
void scriptStations(FakeOs& f, uint32_t count, uint16_t len) {
    Bytes t(8, 0);
    le(t, 0, count, 4);
    for (uint8_t i = 0; i < 4; ++i) {
        Bytes e = staEntry(0x55 + i, -60, 54000);
        t.insert(t.end(), e.begin(), e.end());
    }
    f.onIoctl(RTPRIV_IOCTL_STA_TABLE, [t, len](FakeOs::Ioctl& r) {
        memcpy(r.data, t.data(), t.size());
        r.length = len;
        return 0;
    });
}
} // namespace

TEST_F(ScanStatus, OnlineChildrenFromTheStationTable) {
    scriptStations(fake(), 6, 232);
    MESH_ONLINE_CHILD_INFO out[16];
    memset(out, 0xEE, sizeof out); // what the caller cleared stays
    uint8_t count = 0;
    EXPECT_EQ(mesh_wlan_getOnlineChild(&count, out, 16), 0u);
    EXPECT_EQ(count, 4);
    EXPECT_EQ(toHex(&out[0], 56), "001122334455"
                                  "eeee"
                                  "36000000"
                                  "07000000"
                                  "23"
                                  "c4"
                                  "eeee"
                                  "28272625"
                                  "38373635"
                                  "eeeeeeee"
                                  "0807060504030201"
                                  "1817161514131211"
                                  "eeeeeeeeeeeeeeee");
    EXPECT_EQ(out[3].mac[5], 0x58);
    EXPECT_EQ(toHex(&out[4], 56), std::string(112, 'e'));
    EXPECT_EQ(mesh_wlan_getOnlineChild(&count, out, 2), 0u);
    EXPECT_EQ(count, 2);
    auto reqs = fake().ioctls(RTPRIV_IOCTL_STA_TABLE);
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[0].ifName, "rai3");
    EXPECT_EQ(reqs[0].flags, 0);
    EXPECT_TRUE(reqs[0].payload == Bytes(512, 0));
    scriptStations(fake(), 1, 232);
    EXPECT_EQ(mesh_wlan_getOnlineChild(&count, out, 16), 0u);
    EXPECT_EQ(count, 1);
    EXPECT_TRUE(errors().empty());
}

TEST_F(ScanStatus, OnlineChildrenRefusals) {
    MESH_ONLINE_CHILD_INFO out[4];
    uint8_t count = 9;
    scriptStations(fake(), 4, 231);
    EXPECT_EQ(mesh_wlan_getOnlineChild(&count, out, 16), 1u);
    fake().failNth(FakeOs::Op::Ioctl, "0x8BFC rai3", 1, EPERM);
    EXPECT_EQ(mesh_wlan_getOnlineChild(&count, out, 16), 1u);
    EXPECT_EQ(errors(), (Lines{"sta info too short\n",
                               "ioctl rai3 failed, reason: Operation not permitted\n"}));
    EXPECT_EQ(count, 9);
    EXPECT_EQ(mesh_wlan_getOnlineChild(nullptr, out, 16), 1u);
    EXPECT_EQ(mesh_wlan_getOnlineChild(&count, nullptr, 16), 1u);
}

TEST_F(ScanStatus, StationStatusAndCommandType17) {
    uint32_t word = 5;
    fake().onIoctl(RTPRIV_IOCTL_MESH, [&word](FakeOs::Ioctl& r) {
        memcpy(r.data, &word, 4);
        return 0;
    });
    int32_t status = -5;
    EXPECT_EQ(mesh_wlan_getStaStatus(&status), 0u);
    EXPECT_EQ(status, 1);
    word = 0;
    EXPECT_EQ(mesh_wlan_getStaStatus(&status), 0u);
    EXPECT_EQ(status, 0);
    auto reqs = fake().ioctls(RTPRIV_IOCTL_MESH);
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[0].ifName, "apclii0");
    EXPECT_EQ(reqs[0].flags, MESH_SUBCMD_GET_STA_STATUS);
    EXPECT_TRUE(reqs[0].payload == hexBytes("00000000"));
    EXPECT_EQ(mesh_wlan_getStaStatus(nullptr), 1u);

    MESH_CMD_MSG msg;
    memset(&msg, 0x33, sizeof msg);
    msg.type = MESH_CMD_GET_STA_STATUS;
    memcpy(msg.payload, hexBytes("07000000").data(), 4);
    word = 1;
    EXPECT_EQ(mesh_cmd_handle(&msg), 0u);
    EXPECT_EQ(toHex(&msg, 16), "11000000"
                               "33333333"
                               "01000000"
                               "33333333");
    fake().failNth(FakeOs::Op::Ioctl, "0x8BF5 apclii0", 1, ENODEV);
    memcpy(msg.payload, hexBytes("07000000").data(), 4);
    EXPECT_EQ(mesh_cmd_handle(&msg), 1u); // refused: the word keeps its value
    EXPECT_EQ(toHex(&msg, 16), "11000000"
                               "33333333"
                               "07000000"
                               "33333333");
    EXPECT_EQ(errors(), Lines{"call RTPRIV_IOCTL_MESH fail(No such device)"});
}
