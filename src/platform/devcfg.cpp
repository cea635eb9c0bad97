#include "platform/devcfg.h"

#include "platform/os.h"

#include <cstdio>

const char* radio_config_getMeshBkhapIfname(void) {
    return os().deviceConfig().bkhApIfName;
}

const char* radio_config_getMeshStaIfname(void) {
    return os().deviceConfig().staIfName;
}

int radio_config_getMaxVapNum(int /*radio*/) {
    return static_cast<int>(os().deviceConfig().maxVapNum);
}

int radio_config_chanLimitSupp(const void* newCfg, const void* oldCfg, uint8_t /*chanLimit*/) {
    return (newCfg == nullptr || oldCfg == nullptr) ? 1 : 0;
}

uint32_t devcfg_downLinkPort_getNum(void) {
    return os().deviceConfig().downLinkPortNum;
}

int devcfg_downLinkPort_getLogicalIfName(uint32_t port, char* buf, size_t len) {
    const DeviceConfig& c = os().deviceConfig();
    if (buf == nullptr || len == 0 || port < 1 || port > c.downLinkPortNum ||
        port > static_cast<uint32_t>(DeviceConfig::kMaxDownLinkPorts)) {
        return -1;
    }
    snprintf(buf, len, "%s", c.downLinkPorts[port - 1]);
    return 0;
}
