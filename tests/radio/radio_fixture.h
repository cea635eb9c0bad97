// A started driver adapter on the fake system: backhaul AP rai3, mesh station apclii0.
#pragma once

#include "wlan/mesh_wlan.h"

#include "../security/error_line.h"
#include "fake_os.h"

#include <gtest/gtest.h>

class RadioTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mesh_wlan_resetForTest();
        ASSERT_EQ(0u, mesh_api_init());
        ASSERT_STREQ("rai3", g_bkhApIfName);
        fake.clearRecords();
    }
    void TearDown() override { mesh_wlan_resetForTest(); }

    FakeOsScope scope;
    FakeOs& fake = scope.fake;
};
