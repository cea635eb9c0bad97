// The event log: stamps, line ends, the 64 KiB rule, a log that cannot be opened. (The error
// log's line format shows in the node's start-up failures.)
#include "core/mesh_log.h"
#include "test_util.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>

namespace {

class EventLog : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    void TearDown() override {
        if (g_meshLog != nullptr) {
            fclose(g_meshLog);
            g_meshLog = nullptr;
        }
    }
    std::string log() { return s.fake.readFile("/tmp/zormesh.log"); }
    FakeOsScope s;
};

TEST_F(EventLog, OpeningTruncatesAndLinesCarryLocalStampAndCrlf) {
    s.fake.writeFile("/tmp/zormesh.log", "left from an earlier run\r\n");
    ASSERT_EQ(0, mesh_log_open());
    EXPECT_EQ("", log());
    // The fake's wall clock starts at 1700000000 (2023-11-14 22:13:20 UTC).
    MESH_EVENT("Add Child %02x:%02x", 0xab, 0x01);
    s.fake.advanceSeconds(61);
    MESH_EVENT("mesh state %s", "MESH");
    EXPECT_EQ("[2023-11-14 22:13:20]Add Child ab:01\r\n"
              "[2023-11-14 22:14:21]mesh state MESH\r\n",
              log());
    EXPECT_EQ("", s.fake.stdoutText()) << "event lines never go to the error log";
}

TEST_F(EventLog, StartsAgainEmptyOnlyAfterPassing65536Bytes) {
    ASSERT_EQ(0, mesh_log_open());
    // 21-byte stamp + 41 characters + CRLF = 64 bytes: 1024 lines are exactly 65536 bytes.
    for (int i = 0; i < 1024; ++i) {
        MESH_EVENT("%s", std::string(41, 'x').c_str());
    }
    EXPECT_EQ(65536u, log().size()) << "exactly 65536 bytes does not trigger";
    MESH_EVENT("%s", "the line that passes the limit");
    EXPECT_EQ("", log()) << "passing the limit empties the log, the line just written included";
    MESH_EVENT("%s", "after");
    EXPECT_EQ("[2023-11-14 22:13:20]after\r\n", log());
}

TEST_F(EventLog, UnopenableLogIsReportedAndLinesAreDropped) {
    // A plain file where the log's directory should be.
    std::string tmpDir = s.fake.rooted("/tmp");
    ASSERT_EQ(0, system(("rm -rf '" + tmpDir + "' && touch '" + tmpDir + "'").c_str()));
    EXPECT_EQ(1, mesh_log_open());
    EXPECT_EQ(Lines{"open log file failed"}, errorTexts(s.fake.stdoutText()));
    MESH_EVENT("%s", "nobody sees this"); // must not crash
    EXPECT_EQ(nullptr, g_meshLog);
}

} // namespace
