// Element payloads and pairing blocks: the pairing blocks built from a secret and texts of
// the input, encrypted under a public key of the input and decrypted with a key pair of the
// input; a child heard with a key of the input; a parent record of the input through decryption and
// credential derivation, with the station configured from what comes out; element updates with
// payloads of the input.
#include "core/mesh_config.h"
#include "fuzz_os.h"
#include "security/mesh_child.h"
#include "security/mesh_parent.h"
#include "security/mesh_payload.h"
#include "security/mesh_rsa.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_ie.h"

#include <cstring>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzInitDriver();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput& in = fuzzNextInput(data, size);
    const uint8_t op = in.byte();
    switch (op % 5) {
    case 0: { // blocks built, encrypted under a key of the input, decrypted again
        uint8_t secret[16];
        in.take(secret, sizeof secret);
        MESH_CONTROLLER_IP_PORT addr;
        in.take(&addr, sizeof addr);
        MESH_PAIR_BLOCK_ADDR block;
        mesh_payload_buildPairBlockAddr(secret, &addr, &block);
        MESH_RSA_KEY key;
        in.take(&key, sizeof key);
        uint8_t cipher[MESH_RSA_CIPHER_LEN];
        mesh_common_rsa_encrypt(&key, cipher, reinterpret_cast<const uint8_t*>(&block));
        break;
    }
    case 1: { // a block of the input decrypted with a key pair of the input
        MESH_RSA_KEY key;
        in.take(&key, sizeof key);
        uint8_t cipher[MESH_RSA_CIPHER_LEN];
        in.take(cipher, sizeof cipher);
        uint8_t plain[MESH_RSA_CIPHER_LEN];
        mesh_common_rsa_decrypt(&key, plain, cipher);
        MESH_ORBP_CFG id;
        in.take(&id, sizeof id);
        MESH_PAIR_BLOCK_ID idBlock;
        mesh_payload_buildPairBlockId(plain, &id, &idBlock);
        break;
    }
    case 2: { // a parent record through decryption, derivation and the station set-up
        MESH_PARENT_INFO info;
        in.take(&info, sizeof info);
        char ssid[32];
        char passphrase[33];
        uint32_t changed = 0;
        MESH_CONTROLLER_IP_PORT addr;
        MESH_ORBP_CFG id;
        memset(&addr, 0, sizeof addr);
        memset(&id, 0, sizeof id);
        pthread_mutex_lock(&g_configMutex);
        calcSSIDPassphraseFromParent(&info, ssid, passphrase, &changed, &addr, &id);
        pthread_mutex_unlock(&g_configMutex);
        mesh_parentHandler_setParentInfo(&info);
        mesh_parentHandler_connect();
        mesh_parentHandler_setParentInfo(nullptr);
        break;
    }
    case 3: { // a child admitted, then heard with a key of the input: blocks made for it
        pthread_mutex_lock(&g_configMutex);
        mesh_child_resetForTest();
        MESH_CHILD_RECORD record;
        in.take(&record, sizeof record);
        MESH_CANDIDATE_CHILD cand;
        in.take(&cand, sizeof cand);
        if ((op & 0x80) != 0) { // the prober is the admitted child
            memcpy(cand.info.deviceMac, &record, sizeof cand.info.deviceMac);
        }
        uint8_t sta[6];
        in.take(sta, sizeof sta);
        mesh_addChildRsaEntry(&record);
        mesh_updateChildRsaData(&cand, sta);
        MESH_CONTROLLER_IP_PORT addr;
        in.take(&addr, sizeof addr);
        mesh_updateChildRsaControllerIpPort(&addr);
        MESH_ORBP_CFG id;
        in.take(&id, sizeof id);
        mesh_updateChildRsaOrbpCfg(&id);
        mesh_child_resetForTest();
        pthread_mutex_unlock(&g_configMutex);
        break;
    }
    default: { // element updates carry payloads as they are
        MESH_IE_PROBE_RSP rsp;
        in.take(&rsp, sizeof rsp);
        mesh_wlan_updateProbeRes(&rsp);
        MESH_IE_BASIC basic;
        in.take(&basic, sizeof basic);
        mesh_wlan_updateBkhApBeacon(&basic);
        MESH_IE_PROBE_REQ req;
        in.take(&req, sizeof req);
        mesh_wlan_updateProbeReq(&req);
        break;
    }
    }
    return 0;
}
