// Device configuration library: answers from the seam's device configuration.
#pragma once

#include <cstddef>
#include <cstdint>

// 16-byte buffers holding the NUL-terminated interface names.
const char* radio_config_getMeshBkhapIfname(void);
const char* radio_config_getMeshStaIfname(void);
// The highest VAP index of the radio (VAP count - 1). `radio` is accepted and not used:
// the board has one radio that carries the mesh.
int radio_config_getMaxVapNum(int radio);
// Applies the board's channel limits for a settings change; this board has none, so the
// call only validates its arguments: 0, or 1 when a record is missing.
int radio_config_chanLimitSupp(const void* newCfg, const void* oldCfg, uint8_t chanLimit);

uint32_t devcfg_downLinkPort_getNum(void);
// Writes the logical interface name of downlink port `port` (from 1) into `buf`.
// Returns 0, or -1 for a port that does not exist or a missing buffer.
int devcfg_downLinkPort_getLogicalIfName(uint32_t port, char* buf, size_t len);
