// Shared fixture of the driver-adapter tests and the daemon modules above it: the fake system
// with real sed, the adapter started as the daemon starts it, a realistic driver profile on
// disk, the event log open, and the configuration, child table, candidates, parent
// information and netlink callbacks fresh.
#pragma once

#include "core/mesh_config.h"
#include "core/mesh_handle_child.h"
#include "core/mesh_log.h"
#include "fake_os.h"
#include "platform/byteorder.h"
#include "security/mesh_child.h"
#include "security/mesh_netlink.h"
#include "security/mesh_parent.h"
#include "test_util.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_dat.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// A profile as the driver ships it: header and comments, plain keys, the indexed SSID and
// WPAPSK keys with their bare base keys, per-VAP lists for 4 VAPs, and CRLF lines.
inline std::string realisticProfile() {
    return "#The word of \"Default\" must not be removed\nDefault\nBssidNum=4\nSSID=\n"
           "SSID1=HomeNet-5G\nSSID2=Guest 5G\r\nSSID3=\nSSID4=mesh_000000000000\n"
           "# radio\nHT_BW=1\nVHT_BW=1\nHT_BSSCoexistence=0\r\nHT_EXTCHA=1\n"
           "AutoChannelSelect=3\nChannel=36\r\n\nAuthMode=WPA2PSK;WPA2PSK;OPEN;OPEN\n"
           "EncrypType=AES;AES;NONE;NONE\r\nRekeyMethod=TIME;TIME;DISABLE;DISABLE\n"
           "HideSSID=0;0;0;0\nWPAPSK=\nWPAPSK1=12345678\nWPAPSK2=\nWPAPSK3=\nWPAPSK4=\n";
}

// A survey entry: bssid 02:11:22:33:44:<last> (all zero for last 0), the u32 at 40, rssi, and
// meshAttr. Entries are 72 bytes; the fields the daemon does not read hold noise.
struct Entry {
    uint8_t last;
    uint32_t v40;
    int32_t rssi;
    uint8_t meshAttr;
};
inline Bytes table(uint32_t count, const std::vector<Entry>& entries) {
    Bytes t(4 + 72 * entries.size(), 0xA5);
    put_le32(t.data(), count);
    uint8_t* e = &t[4];
    for (const Entry& x : entries) {
        put_le32(e + 40, x.v40);
        put_le32(e + 44, static_cast<uint32_t>(x.rssi));
        const Bytes bssid = x.last == 0 ? Bytes(6, 0) : Bytes{2, 0x11, 0x22, 0x33, 0x44, x.last};
        memcpy(e + 64, bssid.data(), 6);
        e[70] = x.meshAttr;
        e += 72;
    }
    return t;
}
// Answers the survey request with `busy` EAGAINs, then with `t` and length `len` (the whole
// table when 0). The fake calls a copy of the handler, so the countdown lives outside it.
inline void scriptSurvey(FakeOs& f, int busy, Bytes t, uint16_t len = 0) {
    auto left = std::make_shared<int>(busy);
    f.onIoctl(RTPRIV_IOCTL_SCAN_TABLE, [left, t, len](FakeOs::Ioctl& r) {
        if ((*left)-- > 0) {
            return EAGAIN;
        }
        memcpy(r.data, t.data(), t.size());
        r.length = len != 0 ? len : static_cast<uint16_t>(t.size());
        return 0;
    });
}

class WlanTest : public ::testing::Test {
  protected:
    void SetUp() override {
        seenEvents_ = 0;
        resetModules();
        fake().runForReal("sed ");
        ASSERT_EQ(mesh_api_init(), 0u);
        fake().writeFile(MTK_DAT_PATH, realisticProfile());
        ASSERT_EQ(0, mesh_log_open());
        fake().clearRecords();
    }
    void TearDown() override {
        fclose(g_meshLog);
        g_meshLog = nullptr;
        resetModules();
    }
    static void resetModules() {
        mesh_wlan_resetForTest();
        mesh_config_reset();
        mesh_child_resetForTest();
        mesh_handle_clearCandidateChild();
        mesh_parentHandler_resetModule();
        mesh_netlink_unregisterCallback(MESH_NETLINK_EVENT_CHILD_PROBE);
        mesh_netlink_unregisterCallback(MESH_NETLINK_EVENT_PARENT_INFO);
    }

    FakeOs& fake() { return scope_.fake; }
    std::string profile() { return fake().readFile(MTK_DAT_PATH); }
    std::string datPath() { return fake().rooted(MTK_DAT_PATH); }
    Lines errors() { return errorTexts(fake().takeStdout()); }
    // The event-log texts written since the last call, without their stamps.
    Lines events() {
        Lines out = eventTexts(fake().readFile(MESH_LOG_PATH));
        out.erase(out.begin(),
                  out.begin() + static_cast<long>(std::exchange(seenEvents_, out.size())));
        return out;
    }
    // `text` with each `from` (first occurrence, which must exist) replaced by its `to`.
    static std::string edited(std::string text,
                              std::initializer_list<std::pair<std::string, std::string>> edits) {
        for (const auto& [from, to] : edits) {
            size_t at = text.find(from);
            EXPECT_NE(std::string::npos, at) << from;
            text = at == std::string::npos ? text : text.replace(at, from.size(), to);
        }
        return text;
    }

    FakeOsScope scope_;
    size_t seenEvents_ = 0;
};
