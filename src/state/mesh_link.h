// Wired link-state sources: the GPON uplink and the downlink Ethernet ports, read from the
// kernel files of the board's GPON and Ethernet drivers once per state-thread tick.
#pragma once

#include <cstdint>

constexpr const char* GPON_LINKSTATE_PATH = "/proc/gpon/linkstate";
constexpr const char* GPON_STATE_PATH = "/proc/gpon/state";
constexpr const char* ETH_PORT_STATUS_PATH = "/proc/tc3162/eth_port_status";

constexpr int32_t GPON_LINK_UP = 1;       // linkstate: the optical link is up
constexpr int32_t GPON_STATE_OPERATE = 5; // state: the GPON unit is in its operation state
constexpr int32_t ETH_PORT_COUNT = 5;     // numbers in the port status line, ports 1..5

// Port states written by downLinkPortGetState (the numbers of LAN_ON and LAN_OFF).
constexpr int32_t PORT_STATE_UP = 1;
constexpr int32_t PORT_STATE_DOWN = 2;

// The integer at the start of the GPON file; 0 when the file cannot be read (a line then
// goes to standard error) or holds no number.
int32_t getGponLinkState(void);
int32_t getGponState(void);

// 0 when the wired uplink is up (link state 1 and GPON state 5), else 1. The name is
// accepted for the caller's sake and not consulted.
int32_t isLanLinkDown(const char* ifName);

// 0 when Ethernet port `port` (1..5) is up, 1 when it is down, the name is null or the port
// number is out of range. A missing status file counts as every port up.
int32_t isEthPortDown(const char* ifName, int32_t port);

// Writes states[1..n] for the n downlink ports (PORT_STATE_UP or PORT_STATE_DOWN). Entry 0
// and entries above n are left alone; with n >= capacity nothing is written and an error
// line is printed.
void downLinkPortGetState(int32_t* states, int32_t capacity);
