// The profile lock: real System V semaphores, real processes.
#include "wlan_fixture.h"

#include <cerrno>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using ProfileLock = WlanTest;

int semValue() {
    return semctl(g_datSemId, 0, GETVAL);
}

// Runs `body` in a child process and returns its exit status (-1 when it did not exit).
template <typename F> pid_t spawn(F body) {
    pid_t pid = fork();
    if (pid == 0) {
        _exit(body());
    }
    return pid;
}
int reap(pid_t pid) {
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status)
                                                                           : -1;
}

TEST_F(ProfileLock, TheKernelFreesADeadHoldersLockAndInitFreesItEvenWhileHeld) {
    ASSERT_EQ(1, semValue());
    EXPECT_EQ(0, reap(spawn([] { return _datSemLock(); }))); // dies holding the lock
    ASSERT_EQ(1, semValue()) << "still held: the lock below would wait for ever";
    ASSERT_EQ(0, _datSemLock());
    EXPECT_EQ(0, semValue());
    int id = g_datSemId;
    ASSERT_EQ(0, _initDatSem()); // a restarted daemon opens the same set and frees it
    EXPECT_EQ(id, g_datSemId);
    EXPECT_EQ(1, semValue());
    EXPECT_EQ(0, _datSemUnlock());
    EXPECT_TRUE(errors().empty());
}

TEST_F(ProfileLock, SetupFailuresAreReported) {
    mesh_wlan_resetForTest();
    fake().failNth("sem-get", 1, ENOSPC);
    EXPECT_EQ(1u, mesh_api_init());
    EXPECT_EQ((Lines{"semget failed: No space left on device\n", "_initDatSem failed"}), errors());
    EXPECT_STREQ("", g_bkhApIfName);

    fake().failNth("sem-setval", 1, EPERM);
    EXPECT_EQ(-1, _initDatSem());
    EXPECT_EQ(Lines{"setctl setval 1 failed:Operation not permitted\n"}, errors());
    EXPECT_EQ(-1, semget(static_cast<key_t>(fake().semKey()), 0, 0)) << "the set was removed";
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(ProfileLock, SignalsAreRetriedUpToThirtyAttemptsOtherErrorsStopAtOnce) {
    auto interrupt = [this](int times) {
        for (int i = 0; i < times; ++i) {
            fake().failNth("sem-op", i + 1, EINTR);
        }
    };
    interrupt(29);
    EXPECT_EQ(0, _datSemLock());
    EXPECT_EQ(Lines(29, "lock interrupted by signal"), errors());
    EXPECT_EQ(0, _datSemUnlock());
    interrupt(30);
    EXPECT_EQ(-1, _datSemLock());
    EXPECT_EQ(Lines(30, "lock interrupted by signal"), errors());
    EXPECT_EQ(1, semValue()) << "never taken";
    fake().failNth("sem-op", 1, EAGAIN);
    EXPECT_EQ(-1, _datSemLock());
    fake().failNth("sem-op", 1, EIDRM);
    EXPECT_EQ(-1, _datSemLock());
    fake().failNth("sem-op", 1, EINVAL);
    EXPECT_EQ(-1, _datSemUnlock());
    EXPECT_EQ((Lines{"timed out, errno=11 rc=-1", "lock failed, errno=43 rc=-1",
                     "release lock failed, errno=22"}),
              errors());
}

TEST_F(ProfileLock, TwoProcessesRewritingTheProfileLoseNoUpdate) {
    // sed -i replaces the file; without the lock one writer's rename drops the other's line.
    constexpr int kKeys = 25;
    std::string text = realisticProfile(), expect = text;
    for (int k = 0; k < kKeys; ++k) {
        const std::string n = std::to_string(k), v = std::to_string(1000 + k);
        text += "KeyA" + n + "=0\nKeyB" + n + "=0\n";
        expect += "KeyA" + n + "=" + v + "\nKeyB" + n + "=" + v + "\n";
    }
    fake().writeFile(MTK_DAT_PATH, text);
    auto writer = [](const char* side) {
        int failures = 0;
        for (uint32_t k = 0, v = 1000; k < kKeys; ++k, ++v) {
            failures += _mtk_wlan_set((side + std::to_string(k)).c_str(), nullptr, "rai3", &v,
                                      MTK_DATA_UINT32, MTK_APPLY_DAT);
        }
        return failures;
    };
    pid_t a = spawn([&] { return writer("KeyA"); });
    pid_t b = spawn([&] { return writer("KeyB"); });
    EXPECT_EQ(0, reap(a));
    EXPECT_EQ(0, reap(b));
    EXPECT_EQ(expect, profile());
    EXPECT_EQ(1, semValue());
}

} // namespace
