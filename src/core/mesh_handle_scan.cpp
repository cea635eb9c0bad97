#include "core/mesh_handle_scan.h"

#include "core/mesh_config.h"
#include "core/mesh_log.h"
#include "security/mesh_com.h"

#include <cstring>

#include "platform/seam_guard.h"

MESH_SCAN_REQUEST g_scanRequest;
uint32_t g_scanRunning;
pthread_mutex_t g_scanMutex = PTHREAD_MUTEX_INITIALIZER;
uint8_t g_scanResultNum;
MESH_SCAN_CANDIDATE g_scanResult[MESH_SCAN_RESULT_MAX];
pthread_mutex_t g_scanResultMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// meshEnable under g_configMutex, released before any scan lock is taken.
uint32_t meshEnabled() {
    pthread_mutex_lock(&g_configMutex);
    const uint32_t enabled = g_allConfig.meshEnable;
    pthread_mutex_unlock(&g_configMutex);
    return enabled;
}

} // namespace

uint32_t mesh_handle_scanCandidateAp(const uint8_t* payload) {
    if (payload == nullptr || meshEnabled() == 0) {
        return 1;
    }
    pthread_mutex_lock(&g_scanMutex);
    const bool start = g_scanRunning == 0;
    if (start) {
        g_scanRunning = 1;
    }
    memcpy(&g_scanRequest, payload, sizeof g_scanRequest);
    pthread_mutex_unlock(&g_scanMutex);
    if (!start) {
        // The running scan has read its request already; this one only replaces it.
        return 0;
    }
    pthread_t thread;
    if (pthread_create(&thread, nullptr, mesh_scanCandidateApThread, nullptr) != 0) {
        pthread_mutex_lock(&g_scanMutex);
        g_scanRunning = 0;
        pthread_mutex_unlock(&g_scanMutex);
        return 0;
    }
    if (pthread_detach(thread) != 0) {
        MESH_ERR("detach scan candidate Ap thread fail");
    }
    return 0;
}

void* mesh_scanCandidateApThread(void* /*arg*/) {
    MESH_SCAN_REQUEST request;
    pthread_mutex_lock(&g_scanMutex);
    request = g_scanRequest;
    pthread_mutex_unlock(&g_scanMutex);

    // The result lock is held for the whole scan: a type 11 meanwhile waits for fresh results.
    pthread_mutex_lock(&g_scanResultMutex);
    g_scanResultNum = 0;
    memset(g_scanResult, 0, sizeof g_scanResult);
    uint32_t word = request.word;
    if (mesh_wlan_scanParentAp(&word, &g_scanResultNum, g_scanResult) != 0) {
        MESH_ERR("scan candidate parent ap fail");
        g_scanResultNum = 0;
    }
    if (g_scanResultNum > MESH_SCAN_RESULT_MAX) {
        g_scanResultNum = MESH_SCAN_RESULT_MAX;
    }
    pthread_mutex_unlock(&g_scanResultMutex);

    pthread_mutex_lock(&g_scanMutex);
    g_scanRunning = 0;
    pthread_mutex_unlock(&g_scanMutex);

    if (request.notify != 0) {
        mesh_notifyScanDone();
    }
    return nullptr;
}

uint32_t mesh_handle_getScanState(uint8_t* payload) {
    if (payload == nullptr || meshEnabled() == 0) {
        return 1;
    }
    pthread_mutex_lock(&g_scanMutex);
    const uint32_t running = g_scanRunning;
    pthread_mutex_unlock(&g_scanMutex);
    memcpy(payload, &running, sizeof running);
    return 0;
}

uint32_t mesh_handle_getScanResult(uint8_t* payload) {
    if (payload == nullptr || meshEnabled() == 0) {
        return 1;
    }
    pthread_mutex_lock(&g_scanResultMutex);
    payload[0] = g_scanResultNum;
    memcpy(payload + MESH_SCAN_RESULT_REPLY_OFF, g_scanResult,
           g_scanResultNum * sizeof(MESH_SCAN_CANDIDATE));
    pthread_mutex_unlock(&g_scanResultMutex);
    return 0;
}
