#include "security/mesh_parent.h"

#include "core/mesh_log.h"
#include "platform/byteorder.h"
#include "security/mesh_com.h"
#include "security/mesh_common.h"
#include "security/mesh_netlink.h"
#include "security/mesh_payload.h"
#include "security/mesh_rsa.h"
#include "state/mesh_state.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_ie.h"
#include "wlan/mesh_wlan_radio.h"
#include "wlan/mesh_wlan_scan.h"

#include <cstdio>
#include <cstring>
#include <pthread.h>

#include "platform/seam_guard.h"

namespace {

// Guards l_parentInfo and l_parentInfoValid. Never held together with g_configMutex: nothing
// is called while it is held.
pthread_mutex_t l_parentInfoMutex = PTHREAD_MUTEX_INITIALIZER;
MESH_PARENT_INFO l_parentInfo;
uint32_t l_parentInfoValid = 0;

class Hold {
  public:
    explicit Hold(pthread_mutex_t* m) : m_(m) { pthread_mutex_lock(m_); }
    ~Hold() { pthread_mutex_unlock(m_); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

  private:
    pthread_mutex_t* m_;
};

} // namespace

// ---- stored parent information -------------------------------------------------------------

void mesh_parentHandler_setParentInfo(const MESH_PARENT_INFO* info) {
    Hold g(&l_parentInfoMutex);
    if (info == nullptr) {
        l_parentInfoValid = 0;
        return;
    }
    memcpy(&l_parentInfo, info, sizeof l_parentInfo);
    l_parentInfoValid = 1;
}

uint32_t mesh_parentHandler_getParentInfo(MESH_PARENT_INFO* out) {
    if (out == nullptr) {
        return 1;
    }
    Hold g(&l_parentInfoMutex);
    if (l_parentInfoValid == 0) {
        return 1;
    }
    memcpy(out, &l_parentInfo, sizeof *out);
    return 0;
}

uint32_t mesh_parentHandler_hasParentInfo(void) {
    Hold g(&l_parentInfoMutex);
    return l_parentInfoValid != 0 ? 1 : 0;
}

uint32_t mesh_parentHandler_getParentChannel(void) {
    Hold g(&l_parentInfoMutex);
    return l_parentInfoValid != 0 ? l_parentInfo.channel : 0;
}

uint32_t mesh_parentHandler_getParentWlanMode(void) {
    Hold g(&l_parentInfoMutex);
    return l_parentInfoValid != 0 ? l_parentInfo.wlanMode : 0;
}

void mesh_parentHandler_resetModule(void) {
    Hold g(&l_parentInfoMutex);
    memset(&l_parentInfo, 0, sizeof l_parentInfo);
    l_parentInfoValid = 0;
}

void handleNetlinkParent(const void* info) {
    if (info == nullptr) {
        MESH_ERR("null pointer\n");
        return;
    }
    // The record sits at an arbitrary offset of the monitor's buffer: copied, not cast.
    MESH_PARENT_INFO incoming;
    memcpy(&incoming, info, sizeof incoming);
    MESH_PARENT_INFO previous;
    memset(&previous, 0, sizeof previous);
    {
        Hold g(&l_parentInfoMutex);
        if (l_parentInfoValid != 0) {
            memcpy(&previous, &l_parentInfo, sizeof previous);
        }
        memcpy(&l_parentInfo, &incoming, sizeof l_parentInfo);
        l_parentInfoValid = 1;
    }
    // A parent on another wireless mode: the state thread searches again.
    if (previous.wlanMode != incoming.wlanMode) {
        mesh_state_requestRescan(1);
    }
}

// ---- life cycle -------------------------------------------------------------------------------

uint32_t mesh_parentHandler_init(void) {
    mesh_parentHandler_setParentInfo(nullptr);
    if (mesh_netlink_registerCallback(MESH_NETLINK_EVENT_PARENT_INFO, handleNetlinkParent) != 0) {
        MESH_ERR("register ap handle callback fail");
        return 1;
    }
    return 0;
}

uint32_t mesh_parentHandler_destroy(void) {
    if (mesh_netlink_unregisterCallback(MESH_NETLINK_EVENT_PARENT_INFO) != 0) {
        MESH_ERR("unregister ap handle callback fail");
        return 1;
    }
    if (mesh_wlan_checkStaExist() != 0) {
        return mesh_wlan_enableSta(0);
    }
    return 0;
}

uint32_t mesh_parentHandler_disconnect(void) {
    return mesh_wlan_enableSta(0);
}

// ---- scan and connect -------------------------------------------------------------------------

uint32_t mesh_parentHandler_scan(void) {
    mesh_parentHandler_setParentInfo(nullptr);
    if (mesh_wlan_checkStaExist() == 0) {
        pthread_mutex_lock(&g_configMutex);
        const uint32_t rc = mesh_wlan_createSta(g_allConfig.deviceMac, &g_allConfig.advWlanCfg);
        pthread_mutex_unlock(&g_configMutex);
        if (rc != 0) {
            MESH_ERR("create sta failed\n");
            return 1;
        }
        if (mesh_wlan_setCheckParent(1) != 0) {
            MESH_ERR("set parent check failed\n");
            return 1;
        }
    }
    if (mesh_wlan_enableSta(1) != 0) {
        MESH_ERR("enable sta failed\n");
        return 1;
    }
    if (mesh_wlan_setCheckParent(1) != 0) {
        MESH_ERR("set parent check failed\n");
        return 1;
    }

    MESH_IE_PROBE_REQ probe;
    MESH_IE_BASIC assoc;
    pthread_mutex_lock(&g_configMutex);
    if (fillIntoProbeRequest(&probe, MESH_PROBE_FLAG_SEARCHING) != 0) {
        pthread_mutex_unlock(&g_configMutex);
        MESH_ERR("fill into probe request failed\n");
        return 1;
    }
    if (fillIntoAssocRequest(&assoc) != 0) {
        pthread_mutex_unlock(&g_configMutex);
        MESH_ERR("fill into assoc request failed\n");
        return 1;
    }
    pthread_mutex_unlock(&g_configMutex);

    if (mesh_wlan_updateProbeReq(&probe) != 0) {
        MESH_ERR("update probe request failed\n");
        return 1;
    }
    if (mesh_wlan_updateAssocReq(&assoc) != 0) {
        MESH_ERR("update assoc request failed\n");
        return 1;
    }
    if (mesh_wlan_startActiveScan(nullptr) != 0) {
        MESH_ERR("start active scan failed\n");
        return 1;
    }
    return 0;
}

uint32_t calcSSIDPassphraseFromParent(const MESH_PARENT_INFO* info, char* ssid, char* passphrase,
                                      uint32_t* changed, MESH_CONTROLLER_IP_PORT* addr,
                                      MESH_ORBP_CFG* id) {
    if (info == nullptr || ssid == nullptr || passphrase == nullptr || addr == nullptr ||
        id == nullptr) {
        return 1;
    }
    const uint8_t* mac = info->parentMac;
    snprintf(ssid, MESH_ESSID_LEN, "mesh_%02x%02x%02x%02x%02x%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);

    MESH_RSA_KEY key;
    uint32_t rc = mesh_common_rsa_getSingleton(&key);
    if (rc != 0) {
        MESH_ERR("unable to get rsa key");
        return rc;
    }
    uint8_t plain[MESH_PAIR_BLOCK_LEN];
    memset(plain, 0, sizeof plain);
    rc = mesh_common_rsa_decrypt(&key, plain, info->data1);
    if (rc != 0) {
        MESH_ERR("decrypt failed\n");
        return rc;
    }
    MESH_PAIR_BLOCK_ADDR block;
    memcpy(&block, plain, sizeof block);
    // The address text is kept as its 80 bytes arrived; whoever uses it reads it with that
    // bound (the management message refuses a text without a terminator).
    memcpy(addr->ip, block.ip, sizeof addr->ip);
    addr->value1 = get_be32(block.value1);
    addr->value2 = get_be32(block.value2);
    if (memcmp(addr, &g_allConfig.controllerIpPort, sizeof *addr) != 0) {
        MESH_EVENT("controller ip port cfg is changed");
        if (changed != nullptr) {
            *changed = 1;
        }
    }

    rc = mesh_common_calcPassphrase(info->parentMac, block.secret, passphrase);
    if (rc != 0) {
        MESH_ERR("cannot calc wlan passphrase");
        return rc;
    }

    if (info->data2Len != 0 && info->data2[0] != 0) {
        memset(plain, 0, sizeof plain);
        rc = mesh_common_rsa_decrypt(&key, plain, info->data2);
        if (rc != 0) {
            MESH_ERR("decrypt failed\n");
            return rc;
        }
        MESH_PAIR_BLOCK_ID idBlock;
        memcpy(&idBlock, plain, sizeof idBlock);
        memcpy(id->vintacId, idBlock.vintacId, sizeof id->vintacId);
        id->vintacId[sizeof id->vintacId - 1] = '\0'; // printed and compared as text
        id->verCap = get_be32(idBlock.verCap);
        MESH_EVENT("controller vintacId: %s, verCap:%d", id->vintacId,
                   static_cast<int>(id->verCap));
        return 0;
    }
    MESH_EVENT("parent ap only support orbpv1, can not sync destId");
    memset(id, 0, sizeof *id);
    return 0;
}

uint32_t mesh_parentHandler_connect(void) {
    MESH_PARENT_INFO info;
    if (mesh_parentHandler_getParentInfo(&info) != 0) {
        return 1;
    }
    char ssid[MESH_ESSID_LEN];
    char passphrase[MESH_MD5_HEX_LEN];
    memset(ssid, 0, sizeof ssid);
    memset(passphrase, 0, sizeof passphrase);
    uint32_t changed = 0;
    MESH_CONTROLLER_IP_PORT addr;
    MESH_ORBP_CFG id;

    pthread_mutex_lock(&g_configMutex);
    memset(&addr, 0, sizeof addr);
    memset(&id, 0, sizeof id);
    if (calcSSIDPassphraseFromParent(&info, ssid, passphrase, &changed, &addr, &id) != 0) {
        pthread_mutex_unlock(&g_configMutex);
        MESH_ERR("unable to get ssid and passphrase");
        return 1;
    }
    const bool idChanged =
        strncmp(id.vintacId, g_allConfig.orbpCfg.vintacId, sizeof id.vintacId) != 0;
    pthread_mutex_unlock(&g_configMutex);
    if (idChanged && mesh_com_setDestVintacId(&id) != 0) {
        MESH_EVENT("set destVintacId fail");
    }
    if (changed == 1 && mesh_com_setControllerIpPort(&addr) != 0) {
        MESH_ERR("set controller ip port cfg fail");
    }

    MESH_WLAN_CREDENTIALS cred;
    memset(&cred, 0, sizeof cred);
    snprintf(cred.ssid, sizeof cred.ssid, "%.31s", ssid);
    snprintf(cred.passphrase, sizeof cred.passphrase, "%.32s", passphrase);

    MESH_IE_PROBE_REQ probe;
    pthread_mutex_lock(&g_configMutex);
    if (fillIntoProbeRequest(&probe, 0) != 0) {
        pthread_mutex_unlock(&g_configMutex);
        MESH_ERR("fill into probe request failed\n");
        return 1;
    }
    pthread_mutex_unlock(&g_configMutex);
    if (mesh_wlan_updateProbeReq(&probe) != 0) {
        MESH_ERR("update probe request data fail");
        return 1;
    }

    if (mesh_wlan_setRuntimeWlanMode(mesh_parentHandler_getParentWlanMode()) != 0) {
        MESH_ERR("set runtime wlanmode failed");
    }
    if (mesh_wlan_configSta(&cred, info.channel) != 0) {
        MESH_ERR("config sta failed");
        return 1;
    }
    return 0;
}

uint32_t mesh_parentHandler_updateProbeReq(void) {
    if (mesh_wlan_checkStaExist() == 0) {
        return 0;
    }
    MESH_IE_PROBE_REQ probe;
    if (fillIntoProbeRequest(&probe, 0) != 0) {
        MESH_ERR("fill into probe request failed\n");
        return 1;
    }
    if (mesh_wlan_updateProbeReq(&probe) != 0) {
        MESH_ERR("update probe request data fail");
        return 1;
    }
    return 0;
}
