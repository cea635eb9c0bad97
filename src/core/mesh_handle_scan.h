// The candidate-parent scan: type 9 starts one scan on a detached thread, type 10 tells
// whether it runs, type 11 returns the last result. When the request asks for it, the end of
// the scan is announced to the local event service.
//
// g_scanMutex guards g_scanRequest and g_scanRunning; g_scanResultMutex guards the result and
// is held by the scan thread for the whole scan. The two are never held together, nor with
// g_configMutex.
#pragma once

#include "core/mesh_msg.h"
#include "wlan/mesh_wlan_scan.h"

#include <cstddef>
#include <cstdint>
#include <pthread.h>

constexpr size_t MESH_SCAN_RESULT_MAX = 20;

extern MESH_SCAN_REQUEST g_scanRequest;
extern uint32_t g_scanRunning;
extern pthread_mutex_t g_scanMutex;
extern uint8_t g_scanResultNum;
extern MESH_SCAN_CANDIDATE g_scanResult[MESH_SCAN_RESULT_MAX];
extern pthread_mutex_t g_scanResultMutex;

// Type 9: payload = MESH_SCAN_REQUEST. 0 while the mesh is enabled (whether or not a scan was
// started), 1 when it is disabled.
uint32_t mesh_handle_scanCandidateAp(const uint8_t* payload);
// Type 10: g_scanRunning as a u32 at payload offset 0. 1 when the mesh is disabled.
uint32_t mesh_handle_getScanState(uint8_t* payload);
// Type 11: count (u8) at 0, then the entries from 1. Waits for a running scan to end. 1 when
// the mesh is disabled.
uint32_t mesh_handle_getScanResult(uint8_t* payload);
// The scan thread body: one scan, its result stored, the notification if requested.
void* mesh_scanCandidateApThread(void* arg);
