#include "wlan/mesh_wlan.h"

// Placeholder until the driver command layer lands: start-up has nothing to prepare yet.
uint32_t mesh_api_init(void) { return 0; }
