// The radio tests share the driver adapter's fixture: the fake system with real sed, a
// realistic profile, backhaul AP rai3 and mesh station apclii0, and the request check.
#pragma once

#include "../wlan/wlan_fixture.h"

using RadioTest = WlanTest;
