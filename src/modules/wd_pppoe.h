// The PPPoE module (MOD_PPPOE): checks the WAN link ppp0 on its timer (link
// up, public address, ping, name lookup), re-dials through the configuration
// system when a check keeps failing, and reports alarms in category ppp.
//
// Everything here belongs to the PPPoE module thread alone; nothing is locked.
#ifndef WATCHDOGD_MODULES_WD_PPPOE_H
#define WATCHDOGD_MODULES_WD_PPPOE_H

#include <stdint.h>
#include <stdio.h>

#include "wd_modthread.h"

typedef struct wdPppConfig {
  uint32_t Timer;          // check period in seconds as configured
  uint32_t AlertAfter;     // failed checks of a kind tolerated before acting
  uint32_t MaxReset;       // resets per kind and day before only reporting
  char PingIP[16];         // "0.0.0.0": no ping stage
  char LookupDomain[256];  // empty: no name-lookup stage
} wdPppConfig;

extern wdPppConfig ppp_config;
extern char addr_backup[16];        // last IPv4 address seen on ppp0
extern char addr_6backup[40];       // last IPv6 address text seen on ppp0
extern char interface_status[256];  // last flags line seen while ppp0 was up

extern uint32_t ppp_fail_times, Ping_fail_times, dns_fail_times;
extern uint32_t ppp_Num_reset, Ping_Num_reset, dns_Num_reset;
extern uint32_t alarm_flag;

// Fills ppp_config from Watchdog_PPP.
void mod_pppoe_config_init(void);
// Re-dials: commits Wan_PVC0 when its ENCAP names PPPoE.
void mod_pppoe_reset_ppp(void);
// Reports "name|flags|IPv4|IPv6" in category ppp.
void mod_pppoe_AlarmSyslog(const char* name);
// One check cycle; blocks the module thread for up to half a minute and more.
void mod_pppoe_TimerExpire(void);
extern const wdModDesc kPppoeModule;
// The module's thread body.
void* mod_pppoeHandler(void* arg);

// ---- Pieces of the check cycle ----

// What one cycle learned from ifconfig's output.
typedef struct wdPppLinkScan {
  int up;         // a line showed both UP and RUNNING
  char ipv4[16];  // this cycle's IPv4 address, empty when none was seen
} wdPppLinkScan;

// Reads the output of "ifconfig ppp0" line by line (512-byte lines, as the
// gateway's tool prints them): the IPv4 address (also into addr_backup), the
// IPv6 address (into addr_6backup), the flags line (into interface_status,
// and `up`).
void mod_pppoe_scanLink(FILE* f, wdPppLinkScan* scan);
// 192.168.0-254.1-253, the only range the module calls private. A text that
// is not an address is not private.
int mod_pppoe_isPrivate(const char* ipv4);
// A line of ping's output that shows at least one answer.
int mod_pppoe_pingLinePassed(const char* line);
// A line of nslookup's output that shows an address.
int mod_pppoe_lookupLinePassed(const char* line);
// 1 when `passes` holds for any line of a tool's output `f`, read to its end
// in 512-byte lines as a stage reads it; else 0.
int mod_pppoe_outputPassed(FILE* f, int (*passes)(const char*));

#endif  // WATCHDOGD_MODULES_WD_PPPOE_H
