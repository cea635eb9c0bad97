// Shared fixture of the driver-adapter tests: the fake system with real sed, the adapter
// started as the daemon starts it, and a realistic driver profile on disk.
#pragma once

#include "fake_os.h"
#include "test_util.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_dat.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

// A profile as the driver ships it: header and comments, plain keys, the indexed SSID and
// WPAPSK keys with their bare base keys, per-VAP lists for 4 VAPs, and CRLF lines.
inline std::string realisticProfile() {
    return "#The word of \"Default\" must not be removed\n"
           "Default\n"
           "BssidNum=4\n"
           "SSID=\n"
           "SSID1=HomeNet-5G\n"
           "SSID2=Guest 5G\r\n"
           "SSID3=\n"
           "SSID4=mesh_000000000000\n"
           "# radio\n"
           "HT_BW=1\n"
           "VHT_BW=1\n"
           "HT_BSSCoexistence=0\r\n"
           "HT_EXTCHA=1\n"
           "AutoChannelSelect=3\n"
           "Channel=36\r\n"
           "\n"
           "AuthMode=WPA2PSK;WPA2PSK;OPEN;OPEN\n"
           "EncrypType=AES;AES;NONE;NONE\r\n"
           "RekeyMethod=TIME;TIME;DISABLE;DISABLE\n"
           "HideSSID=0;0;0;0\n"
           "WPAPSK=\n"
           "WPAPSK1=12345678\n"
           "WPAPSK2=\n"
           "WPAPSK3=\n"
           "WPAPSK4=\n";
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
    void TearDown() override { mesh_wlan_resetForTest(); }

    FakeOs& fake() { return scope_.fake; }
    std::string profile() { return fake().readFile(MTK_DAT_PATH); }
    std::string datPath() { return fake().rooted(MTK_DAT_PATH); }
    Lines errors() { return errorTexts(fake().takeStdout()); }
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
};
