// The candidate-parent scan commands: one detached scan at a time, its state, its result (a
// reader waits for a running scan), and the scan-done notice at the event service.
#include "../wlan/wlan_fixture.h"
#include "../security/service_socket.h"

#include "core/mesh_config.h"
#include "core/mesh_handle_scan.h"

#include <algorithm>
#include <atomic>
#include <future>

namespace {

class ScanHandlers : public WlanTest {
  protected:
    void SetUp() override {
        WlanTest::SetUp();
        g_allConfig.meshEnable = 1;
        // One candidate parent in the survey: bssid 02:11:22:33:44:01, value 7, -50 dBm, mesh 1.
        scriptSurvey(fake(), 0, table(1, {{1, 7, -50, 1}}));
    }
    void TearDown() override {
        waitIdle();
        WlanTest::TearDown();
    }
    uint32_t start(uint32_t notify) {
        uint8_t req[8] = {};
        memcpy(req + 4, &notify, 4);
        return mesh_handle_scanCandidateAp(req);
    }
    uint32_t state() {
        uint8_t reply[4] = {0xee, 0xee, 0xee, 0xee};
        EXPECT_EQ(0u, mesh_handle_getScanState(reply));
        uint32_t v;
        memcpy(&v, reply, 4);
        return v;
    }
    std::string result() {
        uint8_t reply[MESH_CMD_PAYLOAD_LEN] = {};
        EXPECT_EQ(0u, mesh_handle_getScanResult(reply));
        return toHex(reply, 1 + reply[0] * 10u);
    }
    // Waits (a bounded while) until no scan runs, moving the clock on while the scan thread
    // sleeps between its survey steps.
    void waitIdle() {
        for (int i = 0; i < 5000; ++i) {
            pthread_mutex_lock(&g_scanMutex);
            const uint32_t running = g_scanRunning;
            pthread_mutex_unlock(&g_scanMutex);
            if (running == 0) {
                return;
            }
            if (fake().sleepers() > 0) {
                fake().advanceMillis(100);
            } else {
                usleep(1000);
            }
        }
        ADD_FAILURE() << "scan still running";
    }
    long surveys() {
        const Lines l = fake().shellLines();
        return std::count(l.begin(), l.end(), "iwpriv apclii0 set SiteSurvey=1");
    }
};

TEST_F(ScanHandlers, SecondRequestStartsNothingAndAReaderWaitsForTheRunningScan) {
    // The scan is held at its first driver step until the gate opens.
    std::promise<void> entered, gate;
    std::shared_future<void> opened = gate.get_future().share();
    fake().onShell("iwpriv apclii0 set SiteSurvey=1", [&entered, opened](const std::string&) {
        entered.set_value();
        opened.wait();
        return 0;
    });
    ASSERT_EQ(0u, start(0));
    entered.get_future().wait();
    EXPECT_EQ(0u, start(0)) << "accepted, but no second scan";
    EXPECT_EQ(1u, state());
    std::atomic<bool> done{false};
    auto reader = std::async(std::launch::async, [&] {
        std::string r = result();
        done = true;
        return r;
    });
    EXPECT_FALSE(done) << "type 11 returned while the scan still held its result";
    gate.set_value();
    waitIdle();
    EXPECT_EQ(hexText("01 021122334401 07 2d ce 01"), reader.get());
    EXPECT_EQ(0u, state());
    EXPECT_EQ(1, surveys());
    EXPECT_EQ(hexText("01 021122334401 07 2d ce 01"), result()) << "kept after the scan";
}

TEST_F(ScanHandlers, NoticeOnlyWhenAskedAndAlsoAfterAFailedScan) {
    ServiceSocket events(fake().rooted("/var/run/usock/22.sock"));
    const std::string scanDone = hexText("5553434b 11000000 50030000 15000000 08000000 01000000") +
                                 std::string(2 * (864 - 24), '0');
    ASSERT_EQ(0u, start(0));
    waitIdle();
    // A scan that finds the driver busy every time fails with an empty result.
    fake().onIoctl(RTPRIV_IOCTL_SCAN_TABLE, [](FakeOs::Ioctl&) { return EAGAIN; });
    ASSERT_EQ(0u, start(7));
    waitIdle();
    EXPECT_EQ(Lines{scanDone}, events.take(1)) << "one notice: the second scan's";
    EXPECT_EQ("00", result());
    const Lines errs = errors();
    ASSERT_FALSE(errs.empty());
    EXPECT_EQ("scan candidate parent ap fail", errs.back());
}

} // namespace
