// Small stateless helpers shared by every module: shell commands, dotted IPv4 text, uptime,
// MD5 and its text, the backhaul passphrase, result texts. 0 is success, 1 failure.
#pragma once

#include <cstddef>
#include <cstdint>

// Runs one command line with "/bin/sh -c" in a child with an empty environment and waits.
// Returns the raw wait status, or 1 (null line, fork failed, wait failed).
int32_t mesh_common_system(const char* cmd);
// Formats a command line of at most 511 characters and runs it with mesh_common_system.
int32_t mesh_common_systemf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

uint32_t mesh_common_hexDigit(uint32_t value, char* out);
uint32_t mesh_common_ipToStr(uint32_t ip, char* out); // out: 16 bytes
uint32_t mesh_common_getUptime(void);
uint32_t mesh_common_md5(const void* data, uint32_t len, uint8_t* out); // out: 16 bytes
uint32_t mesh_common_md5ToHex(const uint8_t* digest, char* out);        // out: 33 bytes
uint32_t mesh_common_calcPassphrase(const uint8_t* mac, const uint8_t* secret, char* out);
const char* mesh_common_resultStr(uint32_t code);

constexpr size_t MESH_SYSTEMF_BUF = 512;
constexpr size_t MESH_IP_STR_LEN = 16;
constexpr size_t MESH_MD5_LEN = 16;
constexpr size_t MESH_MD5_HEX_LEN = 33;
