// mesh_common_system with the real /bin/sh.
#include "platform/linux_os.h"
#include "security/mesh_common.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <thread>

namespace {

class RealShell : public ::testing::Test {
  protected:
    void SetUp() override { setOs(&linux_); }
    void TearDown() override { setOs(nullptr); }
    LinuxOs linux_;
};

std::atomic<int> g_signals{0};
void onSignal(int) {
    g_signals++;
}

} // namespace

TEST_F(RealShell, ReturnsTheRawWaitStatus) {
    int st = mesh_common_system("exit 3");
    EXPECT_EQ(3 << 8, st);
    EXPECT_TRUE(WIFEXITED(st));
    EXPECT_EQ(3, WEXITSTATUS(st));
    EXPECT_EQ(0, mesh_common_system("true"));
    EXPECT_EQ(1, mesh_common_system(nullptr));
    int killed = mesh_common_system("kill -TERM $$");
    EXPECT_TRUE(WIFSIGNALED(killed));
    EXPECT_EQ(SIGTERM, WTERMSIG(killed));
}

TEST_F(RealShell, RunsWithAnEmptyEnvironment) {
    setenv("ZORMESH_INHERITED", "visible", 1);
    // Exit 5 when the variable is seen, 0 when not; HOME is not passed on either.
    EXPECT_EQ(0, mesh_common_system("test -z \"$ZORMESH_INHERITED\" && test -z \"$HOME\""));
    EXPECT_EQ(5 << 8, mesh_common_system("ZORMESH_INHERITED=own; test -n \"$ZORMESH_INHERITED\" "
                                         "&& exit 5"));
    unsetenv("ZORMESH_INHERITED");
    // The shell still finds its tools through its own default search path.
    EXPECT_EQ(0, mesh_common_system("sed --version >/dev/null"));
}

TEST_F(RealShell, SurvivesASignalDuringTheWait) {
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sa.sa_flags = 0; // no SA_RESTART: waitpid sees EINTR
    sigemptyset(&sa.sa_mask);
    struct sigaction old {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &sa, &old));
    g_signals = 0;

    pthread_t self = pthread_self();
    std::thread poker([self] {
        for (int i = 0; i < 3; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            pthread_kill(self, SIGUSR1);
        }
    });
    int st = mesh_common_system("sleep 0.5; exit 4");
    poker.join();
    sigaction(SIGUSR1, &old, nullptr);

    EXPECT_GE(g_signals.load(), 1) << "the signal must have arrived during the wait";
    EXPECT_EQ(4 << 8, st) << "the child is still waited for";
}
