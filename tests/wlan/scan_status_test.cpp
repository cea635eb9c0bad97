// Scanning, station configuration and status, online children, command type 17.
#include "wlan_fixture.h"

#include "core/mesh_msg.h"
#include "wlan/mesh_wlan_scan.h"

#include <cstring>

namespace {

using ScanStatus = WlanTest;

TEST_F(ScanStatus, StationSetsOnlyItsBandsChannelsAndReadsThePassphraseWithinItsField) {
    MESH_WLAN_CREDENTIALS cred{};
    memcpy(cred.ssid, "mesh_0a1b2c3d4e5f", 17);
    memset(cred.passphrase, 'p', sizeof cred.passphrase); // unterminated
    const std::string sta = "iwpriv apclii0 set ";
    for (int ch : {0, 35, 36, 48, 49, 52, 100, 148, 149, 165, 166, 255}) {
        fake().clearRecords();
        EXPECT_EQ(0u, mesh_wlan_configSta(&cred, static_cast<uint8_t>(ch)));
        const Lines l = fake().shellLines();
        const bool set = (ch >= 36 && ch <= 48) || (ch >= 149 && ch <= 165);
        ASSERT_EQ(set ? 9u : 8u, l.size()) << ch;
        EXPECT_EQ(set, l[1] == sta + "channel=" + std::to_string(ch));
        EXPECT_EQ(sta + "ApCliWPAPSK=" + std::string(33, 'p'), l[l.size() - 3]);
    }
}

TEST_F(ScanStatus, SurveyRetriesWhileTheDriverIsBusyAndGivesUpAfterFifteenAttempts) {
    auto retry = [](int i) {
        return "scan in procss, wait sometime, retry(" + std::to_string(i) + ").\n";
    };
    scriptSurvey(fake(), 2, table(1, {{0x01, 0x12C, -60, 1}}));
    uint64_t start = fake().nowMillis();
    uint8_t count = 99;
    MESH_SCAN_CANDIDATE out[20];
    EXPECT_EQ(0u, mesh_wlan_scanParentAp(nullptr, &count, out));
    ASSERT_EQ(1, count);
    EXPECT_EQ(hexText("021122334401 2c 23 c4 01"), toHex(out, 10)) << "rssi -60 gives 35 and 196";
    EXPECT_EQ((Lines{retry(1), retry(2)}), errors());
    EXPECT_EQ(7000u, fake().nowMillis() - start) << "6 s settle and two 0.5 s waits";
    EXPECT_EQ(Lines{"iwpriv apclii0 set SiteSurvey=1"}, fake().shellLines());
    ASSERT_EQ(3u, fake().ioctls().size());
    for (const auto& r : fake().ioctls()) { // 256 entries asked for
        expectRequest(r, RTPRIV_IOCTL_SCAN_TABLE, "apclii0", 0, "00 01 00*49150");
    }

    scriptSurvey(fake(), 15, table(1, {{1, 0, -60, 1}}));
    start = fake().nowMillis();
    EXPECT_EQ(1u, mesh_wlan_scanParentAp(nullptr, &count, out));
    EXPECT_EQ(1, count) << "not written";
    EXPECT_EQ(13500u, fake().nowMillis() - start);
    EXPECT_EQ(3u + 15u, fake().ioctls(RTPRIV_IOCTL_SCAN_TABLE).size());
    Lines expect;
    for (int i = 1; i <= 15; ++i) {
        expect.push_back(retry(i));
    }
    expect.push_back("retry(16) exceed 15 times, skip parsing\n");
    EXPECT_EQ(expect, errors());
}

TEST_F(ScanStatus, SurveyTableLengthAndCountBoundTheWalk) {
    uint8_t count = 0;
    MESH_SCAN_CANDIDATE out[20];
    Bytes two = table(2, {{1, 0, -50, 1}, {2, 0, -50, 1}});
    scriptSurvey(fake(), 0, two, 75);
    EXPECT_EQ(1u, mesh_wlan_scanParentAp(nullptr, &count, out));
    EXPECT_EQ(Lines{"scanAp: too short size."}, errors());
    scriptSurvey(fake(), 0, two, 76); // room for one entry only
    EXPECT_EQ(0u, mesh_wlan_scanParentAp(nullptr, &count, out));
    EXPECT_EQ(1, count);
    two[0] = 1; // the driver counts one entry in a longer table
    scriptSurvey(fake(), 0, two);
    EXPECT_EQ(0u, mesh_wlan_scanParentAp(nullptr, &count, out));
    EXPECT_EQ(1, count);
    // A refusal other than "busy" leaves the cleared table: no candidate, no retry.
    fake().onIoctl(RTPRIV_IOCTL_SCAN_TABLE, [](FakeOs::Ioctl&) { return EIO; });
    EXPECT_EQ(0u, mesh_wlan_scanParentAp(nullptr, &count, out));
    EXPECT_EQ(0, count);
    EXPECT_TRUE(errors().empty());
}

TEST_F(ScanStatus, CandidatesSkipEmptyForeignAndRepeatedEntriesAndStopAtTwenty) {
    scriptSurvey(fake(), 0,
                 table(5, {{0, 7, -40, 1},
                           {0x10, 7, -40, 0},
                           {0x20, 0x106, -95, 2},
                           {0x20, 9, -30, 1},
                           {0x30, 0xFF, 10, 3}}));
    uint8_t count = 0;
    MESH_SCAN_CANDIDATE out[20];
    ASSERT_EQ(0u, mesh_wlan_scanParentAp(nullptr, &count, out));
    ASSERT_EQ(2, count);
    EXPECT_EQ(hexText("021122334420 06 00 a1 02  021122334430 ff 69 0a 03"), toHex(out, 20));
    std::vector<Entry> entries;
    for (uint8_t i = 1; i <= 25; ++i) {
        entries.push_back({i, i, -60, 1});
    }
    scriptSurvey(fake(), 0, table(25, entries));
    ASSERT_EQ(0u, mesh_wlan_scanParentAp(nullptr, &count, out));
    ASSERT_EQ(20, count);
    EXPECT_EQ(20, out[19].bssid[5]);
}

// A station table of four 56-byte entries 00:11:22:33:44:55..58 (rssi -60 at 7, counters at
// 16/24/32/40, 54000 at 48, 7999 at 52) with the count word `count`, answered with length `len`.
void scriptStations(FakeOs& f, uint32_t count, uint16_t len) {
    Bytes t(8, 0);
    put_le32(t.data(), count);
    for (int i = 0; i < 4; ++i) {
        Bytes e = hexBytes("001122334455 5a c4 5a5a5a5a5a5a5a5a 0807060504030201 1817161514131211"
                           "2827262524232221 3837363534333231 f0d20000 3f1f0000");
        e[5] = static_cast<uint8_t>(0x55 + i);
        t.insert(t.end(), e.begin(), e.end());
    }
    f.onIoctl(RTPRIV_IOCTL_STA_TABLE, [t, len](FakeOs::Ioctl& r) {
        memcpy(r.data, t.data(), t.size());
        r.length = len;
        return 0;
    });
}

TEST_F(ScanStatus, OnlineChildrenFromTheStationTable) {
    scriptStations(fake(), 6, 232);
    MESH_ONLINE_CHILD_INFO out[16];
    memset(out, 0xEE, sizeof out); // what the caller cleared stays
    uint8_t count = 0;
    EXPECT_EQ(0u, mesh_wlan_getOnlineChild(&count, out, 16));
    EXPECT_EQ(4, count);
    EXPECT_EQ(hexText("001122334455 eeee 36000000 07000000 23 c4 eeee 28272625 38373635 eeeeeeee"
                      "0807060504030201 1817161514131211 eeeeeeeeeeeeeeee"),
              toHex(&out[0], 56));
    EXPECT_EQ(0x58, out[3].mac[5]);
    EXPECT_EQ(std::string(112, 'e'), toHex(&out[4], 56));
    EXPECT_EQ(0u, mesh_wlan_getOnlineChild(&count, out, 2));
    EXPECT_EQ(2, count);
    expectRequest(fake().ioctls().at(0), RTPRIV_IOCTL_STA_TABLE, "rai3", 0, "00*512");
    scriptStations(fake(), 1, 232);
    EXPECT_EQ(0u, mesh_wlan_getOnlineChild(&count, out, 16));
    EXPECT_EQ(1, count);
    EXPECT_TRUE(errors().empty());

    count = 9;
    scriptStations(fake(), 4, 231);
    EXPECT_EQ(1u, mesh_wlan_getOnlineChild(&count, out, 16));
    fake().failNth("ioctl 0x8BFC rai3", 1, EPERM);
    EXPECT_EQ(1u, mesh_wlan_getOnlineChild(&count, out, 16));
    EXPECT_EQ(9, count);
    EXPECT_EQ(
        (Lines{"sta info too short\n", "ioctl rai3 failed, reason: Operation not permitted\n"}),
        errors());
}

TEST_F(ScanStatus, CommandType17AnswersTheStationStatusAsZeroOrOne) {
    uint32_t word = 0;
    fake().onIoctl(RTPRIV_IOCTL_MESH, [&word](FakeOs::Ioctl& r) {
        memcpy(r.data, &word, 4);
        return 0;
    });
    MESH_CMD_MSG msg;
    memset(&msg, 0x33, sizeof msg);
    msg.type = MESH_CMD_GET_STA_STATUS;
    for (auto [driver, status] : {std::pair{5u, "01000000"}, {0u, "00000000"}}) {
        word = driver;
        EXPECT_EQ(0u, mesh_cmd_handle(&msg));
        EXPECT_EQ(hexText("11000000 33333333") + status + "33333333", toHex(&msg, 16));
    }
    expectRequest(fake().ioctls().at(0), RTPRIV_IOCTL_MESH, "apclii0", 4, "00*4");
    // Refused: the payload keeps its value.
    fake().failNth("ioctl 0x8BF5 apclii0", 1, ENODEV);
    msg.payload[0] = 7;
    EXPECT_EQ(1u, mesh_cmd_handle(&msg));
    EXPECT_EQ(hexText("11000000 33333333 07000000 33333333"), toHex(&msg, 16));
    EXPECT_EQ(Lines{"call RTPRIV_IOCTL_MESH fail(No such device)"}, errors());
}

} // namespace
