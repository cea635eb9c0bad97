#include "core/mesh_config.h"

#include <cstring>

#include "platform/seam_guard.h"

MESH_ALL_CONFIG g_allConfig;
pthread_mutex_t g_configMutex = PTHREAD_MUTEX_INITIALIZER;
uint8_t g_meshRandom[MESH_RANDOM_LEN];

void mesh_config_reset() {
    pthread_mutex_lock(&g_configMutex);
    memset(&g_allConfig, 0, sizeof g_allConfig);
    pthread_mutex_unlock(&g_configMutex);
}
