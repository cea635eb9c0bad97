// The driver profile: the line parser on raw lines, and the setters with a profile and
// values from the input, their shell lines checked by the oracle. Also the credentials of
// the backhaul AP and the station.
#include "fuzz_os.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_dat.h"
#include "wlan/mesh_wlan_radio.h"
#include "wlan/mesh_wlan_scan.h"

#include <cstring>
#include <string>

namespace {
const char* const kKeys[] = {"AuthMode", "EncrypType", "RekeyMethod", "HideSSID", "SSID",
                             "WPAPSK",   "HT_BW",      "Channel",     "BssidNum", "NoSuchKey"};
const char* const kIfNames[] = {"rai0", "rai3", "ra1", "apclii0", "rai8", "x"};
} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzOs();
    mesh_api_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzOs& f = fuzzOs();
    FuzzInput& in = f.input();
    in.reset(data, size);
    const uint8_t op = in.byte();
    const char* key = kKeys[in.byte() % (sizeof kKeys / sizeof kKeys[0])];
    const char* ifName = kIfNames[in.byte() % (sizeof kIfNames / sizeof kIfNames[0])];
    const uint32_t flags = in.byte() % 4;
    std::string value = in.prefixedText();
    // The rest of the input is the profile, or a line for the parser.
    std::string rest = in.text(in.left());
    f.writeFile("/tmp/wireless/mt5g.dat", (op & 0x80) != 0 ? rest : kFuzzProfile + rest);
    switch (op % 8) {
    case 0: {
        char line[MTK_DAT_LINE_BUF];
        size_t n = rest.size() < sizeof line ? rest.size() : sizeof line;
        memcpy(line, rest.data(), n);
        if (n < sizeof line) {
            line[n] = '\0';
        }
        char k[MTK_DAT_KEY_BUF];
        static char v[MTK_DAT_VALUE_BUF];
        _parseDatLineBuf(line, sizeof line, k, v);
        break;
    }
    case 1: {
        static char v[MTK_DAT_VALUE_BUF];
        _getDatKeyValue(key, v, MTK_DAT_PATH);
        break;
    }
    case 2:
        _mtk_wlan_setVapCfg(key, key, ifName, value.c_str(), MTK_DATA_STRING, flags);
        break;
    case 3: {
        int32_t n = static_cast<int32_t>(value.size() * 7919);
        _mtk_wlan_setVapCfg(key, key, ifName, &n, MTK_DATA_INT32, flags);
        break;
    }
    case 4:
        _mtk_wlan_set(key, key, ifName, value.c_str(), MTK_DATA_STRING, flags);
        break;
    case 5: {
        char esc[2 * 256 + 1];
        if (_escapeSedChars(esc, value.c_str()) == 0) {
            _mtk_wlan_setVapCfgWithIndex(key, key, ifName, esc, MTK_DATA_STRING, flags);
        }
        _mtk_wlan_setVapCfgWithIndex(key, key, ifName, value.c_str(), MTK_DATA_STRING, flags);
        break;
    }
    case 6: {
        MESH_WLAN_CREDENTIALS cred;
        memset(&cred, 0, sizeof cred);
        memcpy(&cred, value.data(), value.size() < sizeof cred ? value.size() : sizeof cred);
        MESH_BASIC_WLAN_CFG basic;
        memset(&basic, 0, sizeof basic);
        memcpy(&basic, rest.data(), rest.size() < sizeof basic ? rest.size() : sizeof basic);
        mesh_wlan_createBkhAp(&cred, static_cast<uint8_t>(flags), &basic, nullptr, 0);
        break;
    }
    default: {
        MESH_WLAN_CREDENTIALS cred;
        memset(&cred, 0, sizeof cred);
        memcpy(&cred, value.data(), value.size() < sizeof cred ? value.size() : sizeof cred);
        mesh_wlan_configSta(&cred, static_cast<uint8_t>(op));
        break;
    }
    }
    return 0;
}
