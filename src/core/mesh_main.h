// The process: start-up, the serving loop and the serving of one command connection.
#pragma once

#include <cstdint>

// Start-up and the serving loop. Returns -1 when the command server cannot be opened;
// otherwise never returns.
int mesh_main(int argc, char** argv);
// Accepts one connection on `listenFd`, receives one command, handles it, replies, closes.
uint32_t mesh_receive_cmd(int listenFd);
