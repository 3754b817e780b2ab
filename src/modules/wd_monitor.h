// The process monitor module (MOD_MONITOR): every 300 seconds checks that
// udhcpd, mini_httpd and pppd run, restarts one that does not (unless its
// service is off) and reports it in category ps.
#ifndef WATCHDOGD_MODULES_WD_MONITOR_H
#define WATCHDOGD_MODULES_WD_MONITOR_H

#include <stdint.h>

#include "wd_modthread.h"

typedef struct wdModMonitor {
  uint32_t checkPeriod;  // seconds between check cycles
  uint32_t watchedMask;  // 1 udhcpd, 2 mini_httpd, 4 pppd
} wdModMonitor;

typedef struct MonitorCheckResult {
  uint32_t watchedMask;  // the watched set at the start of the cycle
  uint32_t downMask;     // those found not running
} MonitorCheckResult;

static_assert(sizeof(wdModMonitor) == 8, "wdModMonitor is 8 bytes");
static_assert(sizeof(MonitorCheckResult) == 8, "MonitorCheckResult is 8 bytes");

// Written once at thread start by the monitor thread, read by its cycles.
extern wdModMonitor gWdModMonitor;

void wdmod_monitorHandler_init(void);
// One check cycle: restarts what is down and notes it in `result` (null:
// nothing is done).
void wdmod_monitorTimerExpire(MonitorCheckResult* result);
// What an expiry of the check timer does: one cycle, then a report per
// process found down, in the order udhcpd, mini_httpd, pppd.
void mod_monitorCycle(void);
// Reports "NAME|Internal error" in category ps.
void wdmod_monitorSyslog(const char* name);
extern const wdModDesc kMonitorModule;
// The module's thread body.
void* mod_monitorHandler(void* arg);

#endif  // WATCHDOGD_MODULES_WD_MONITOR_H
