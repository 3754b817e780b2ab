// The ARP module (MOD_ARP): reports the gateway's IPv4 neighbour table in
// category arp, periodically and on request ("Query"), and deletes every
// entry on request ("ResetTable").
//
// Everything here belongs to the ARP module thread; nothing is locked.
#ifndef WATCHDOGD_MODULES_WD_ARP_H
#define WATCHDOGD_MODULES_WD_ARP_H

#include <stdio.h>

#include "wd_modthread.h"

// Asks the kernel to delete the entry of `ipAddr` (dotted IPv4 text): 0 when
// it did, 1 when not (said on the debug console).
int deleteARPEntry(const char* ipAddr);
// Deletes every entry listed in /proc/net/arp.
void clearARPTable(void);
// One report line per entry of /proc/net/arp, joined with the entry's global
// IPv6 address from /proc/net/if_inet6. Returns 0.
int showARPTable(void);
// The same on open files: `arp` and `inet6` may be null (missing).
void mod_arpReport(FILE* arp, FILE* inet6);
extern const wdModDesc kArpModule;
// The module's thread body.
void* mod_arpHandler(void* arg);

#endif  // WATCHDOGD_MODULES_WD_ARP_H
