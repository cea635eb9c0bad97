// Shared set-up of the command-socket tests: the fake system and the daemon's real command
// server (a Unix socket under the fake's root), opened as start-up opens it.
#pragma once

#include "core/mesh_config.h"
#include "core/mesh_msg.h"
#include "fake_os.h"
#include "platform/unix_sock.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

class CommandSocket : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_config_reset();
        ASSERT_EQ(0, unix_sock_initSrv(MESH_CMD_SRV_ID, &ctx_, MESH_CMD_SRV_BACKLOG));
    }
    void TearDown() override { close(ctx_.listenFd); }
    int listenFd() const { return ctx_.listenFd; }
    std::string path() { return s.fake.rooted("/var/run/usock/21.sock"); }

    FakeOsScope s;
    UNIX_SOCK_SRV_CTX ctx_{};
};
