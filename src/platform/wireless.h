// The kernel's wireless-extension request layouts (struct iwreq, struct ifreq) and request
// numbers, included in an order that keeps <net/if.h> and the kernel headers apart.
#pragma once

#include <sys/socket.h>
#include <net/if.h>
#include <linux/sockios.h>
#include <linux/wireless.h>
