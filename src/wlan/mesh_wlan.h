// Driver command layer: adapter start-up, interface names, the ioctl socket.
#pragma once

#include <cstdint>

// Sets up the driver-profile semaphore and caches the backhaul interface name.
// 0, or 1 when the semaphore could not be set up.
uint32_t mesh_api_init(void);
