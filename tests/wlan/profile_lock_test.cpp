// The profile lock: real System V semaphores, real processes.
#include "wlan_fixture.h"

#include <cerrno>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

using Lines = std::vector<std::string>;
using ProfileLock = WlanTest;

namespace {
int semValue() {
    return semctl(g_datSemId, 0, GETVAL);
}
} // namespace

TEST_F(ProfileLock, InitSetsTheLockFreeEvenWhileHeld) {
    ASSERT_EQ(semValue(), 1);
    ASSERT_EQ(_datSemLock(), 0);
    EXPECT_EQ(semValue(), 0);
    int id = g_datSemId;
    ASSERT_EQ(_initDatSem(), 0); // a restarted daemon opens the same set and frees it
    EXPECT_EQ(g_datSemId, id);
    EXPECT_EQ(semValue(), 1);
    EXPECT_EQ(_datSemUnlock(), 0);
    EXPECT_TRUE(errors().empty());
}

TEST_F(ProfileLock, SetupFailuresAreReported) {
    mesh_wlan_resetForTest();
    int h = fake().failNth(FakeOs::Op::SemGet, "", 1, ENOSPC);
    EXPECT_EQ(mesh_api_init(), 1u);
    EXPECT_TRUE(fake().fired(h));
    EXPECT_EQ(errors(), (Lines{"semget failed: No space left on device\n", "_initDatSem failed"}));
    EXPECT_STREQ(g_bkhApIfName, "");

    h = fake().failNth(FakeOs::Op::SemSetVal, "", 1, EPERM);
    EXPECT_EQ(_initDatSem(), -1);
    EXPECT_TRUE(fake().fired(h));
    EXPECT_EQ(errors(), Lines{"setctl setval 1 failed:Operation not permitted\n"});
    EXPECT_EQ(semget(static_cast<key_t>(fake().semKey()), 0, 0), -1); // the set was removed
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ProfileLock, SignalsAreRetriedUpToThirtyAttempts) {
    for (int i = 0; i < 29; ++i) {
        fake().failNth(FakeOs::Op::SemOp, "", 1, EINTR);
    }
    EXPECT_EQ(_datSemLock(), 0);
    EXPECT_EQ(errors(), Lines(29, "lock interrupted by signal"));
    EXPECT_EQ(_datSemUnlock(), 0);
    for (int i = 0; i < 31; ++i) {
        fake().failNth(FakeOs::Op::SemOp, "", 1, EINTR);
    }
    EXPECT_EQ(_datSemLock(), -1);
    EXPECT_EQ(errors(), Lines(30, "lock interrupted by signal"));
    EXPECT_EQ(semValue(), 1); // never taken
}

TEST_F(ProfileLock, OtherLockErrorsStopAtOnce) {
    fake().failNth(FakeOs::Op::SemOp, "", 1, EAGAIN);
    EXPECT_EQ(_datSemLock(), -1);
    fake().failNth(FakeOs::Op::SemOp, "", 1, EIDRM);
    EXPECT_EQ(_datSemLock(), -1);
    fake().failNth(FakeOs::Op::SemOp, "", 1, EINVAL);
    EXPECT_EQ(_datSemUnlock(), -1);
    EXPECT_EQ(errors(), (Lines{"timed out, errno=11 rc=-1", "lock failed, errno=43 rc=-1",
                               "release lock failed, errno=22"}));
}

TEST_F(ProfileLock, TheKernelReleasesTheLockOfADeadHolder) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        _exit(_datSemLock() == 0 ? 0 : 1); // dies holding the lock
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(semValue(), 1);
}

TEST_F(ProfileLock, TwoProcessesRewritingTheProfileLoseNoUpdate) {
    // sed -i replaces the file; without the lock one writer's rename drops the other's line.
    constexpr int kKeys = 25;
    std::string text = realisticProfile();
    for (int k = 0; k < kKeys; ++k) {
        text += "KeyA" + std::to_string(k) + "=0\nKeyB" + std::to_string(k) + "=0\n";
    }
    fake().writeFile(MTK_DAT_PATH, text);
    pid_t writers[2];
    for (int w = 0; w < 2; ++w) {
        writers[w] = fork();
        ASSERT_GE(writers[w], 0);
        if (writers[w] == 0) {
            int failures = 0;
            for (int k = 0; k < kKeys; ++k) {
                std::string key = std::string(w == 0 ? "KeyA" : "KeyB") + std::to_string(k);
                uint32_t v = 1000u + static_cast<uint32_t>(k);
                failures +=
                    _mtk_wlan_set(key.c_str(), nullptr, "rai3", &v, MTK_DATA_UINT32, MTK_APPLY_DAT);
            }
            _exit(failures);
        }
    }
    for (pid_t pid : writers) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const std::string result = profile();
    for (int k = 0; k < kKeys; ++k) {
        for (const char* side : {"KeyA", "KeyB"}) {
            std::string line = "\n" + std::string(side) + std::to_string(k) + "=" +
                               std::to_string(1000 + k) + "\n";
            EXPECT_NE(result.find(line), std::string::npos) << line;
        }
    }
    EXPECT_EQ(semValue(), 1);
}
