// Operation wrapper library: one request/response exchange per operation on
// <run dir>/wrp.sock. The wire format is documented in docs/platform-libraries.md.
#pragma once

#include <cstdint>

constexpr uint32_t WRP_REQ_MAGIC = 0x51505257u; // "WRPQ"
constexpr uint32_t WRP_RSP_MAGIC = 0x53505257u; // "WRPS"
constexpr int WRP_HEADER_SIZE = 16;

// Remembers the caller's module id and name; always 0.
int wrpInit(int moduleId, const char* name);
// Sends operation `opCode` with `inLen` input bytes and waits for the reply. Copies at most
// `outCap` output bytes into `out`. Returns the result the listener gave, or 1 when nobody
// listens, the exchange fails or the reply is malformed.
int wrpOpDo(uint32_t opCode, const void* in, uint32_t inLen, void* out, uint32_t outCap);
