// Shared fixture of the driver-adapter tests: the fake system with real sed, the adapter
// started as the daemon starts it, a realistic driver profile on disk, and the event log.
#pragma once

#include "core/mesh_log.h"
#include "fake_os.h"
#include "test_util.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_dat.h"

#include <gtest/gtest.h>
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

// `n` zero bytes, and `n` times the bytes `hex`, as hex text.
inline std::string zeros(size_t n) {
    return std::string(2 * n, '0');
}
inline std::string rep(const std::string& hex, size_t n) {
    std::string out;
    while (n-- > 0) {
        out += hex;
    }
    return out;
}

class WlanTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_wlan_resetForTest();
        fake().runForReal("sed ");
        ASSERT_EQ(mesh_api_init(), 0u);
        fake().writeFile(MTK_DAT_PATH, realisticProfile());
        fake().clearRecords();
    }
    void TearDown() override {
        if (g_meshLog != nullptr) {
            fclose(g_meshLog);
            g_meshLog = nullptr;
        }
        mesh_wlan_resetForTest();
    }

    FakeOs& fake() { return scope_.fake; }
    std::string profile() { return fake().readFile(MTK_DAT_PATH); }
    std::string datPath() { return fake().rooted(MTK_DAT_PATH); }
    Lines errors() { return errorTexts(fake().takeStdout()); }
    // The event-log texts written since the last call (the log is opened by openLog()), without
    // their stamps.
    void openLog() { ASSERT_EQ(0, mesh_log_open()); }
    Lines events() {
        Lines out;
        const std::string log = fake().readFile(MESH_LOG_PATH);
        for (size_t p = 0, e; (e = log.find("\r\n", p)) != std::string::npos; p = e + 2) {
            out.push_back(log.substr(p + 21, e - p - 21));
        }
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
