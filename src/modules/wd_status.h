// The periodic info module (MOD_PERIODIC_INFO) and its status collectors:
// each collector samples one aspect of the gateway (watched processes,
// connection tracking, WAN counters, CPU, memory and uptime) and sends one
// report line; the module runs those its verbosity selects on its timer.
//
// Everything here belongs to the periodic info module thread; nothing is
// locked.
#ifndef WATCHDOGD_MODULES_WD_STATUS_H
#define WATCHDOGD_MODULES_WD_STATUS_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

// CPU time total and idle time read by the previous showGeneralStatus.
extern uint64_t old_total;
extern uint64_t old_idle;

// "1|0|..." in infprc: which of pppd, tr69, dnsmasq, voiceApp, igmpproxy,
// ripd, Rtmp, rmt_qcsmngr run, from ps's output in /var/wd_tmp/tmp_ps.
void showProcessStatus(void);
// 16 connection-tracking counters in infcnx; nothing without the file.
void showConnectionStatus(void);
// WAN addresses and packet counters of ppp0, nas2, nas1 in infcnt; nothing
// without /proc/net/dev.
void showPacketCounter(void);
// "cpu|memory|uptime" in infgen; always sent.
void showGeneralStatus(void);

// The collectors a verbosity mask selects.
enum wdInfoMask : uint32_t {
  WD_INFO_GENERAL = 1,      // showGeneralStatus
  WD_INFO_CONNECTIONS = 2,  // showConnectionStatus
  WD_INFO_COUNTERS = 4,     // showPacketCounter
  WD_INFO_PROCESSES = 8,    // showProcessStatus
  WD_INFO_ALL = WD_INFO_GENERAL | WD_INFO_CONNECTIONS | WD_INFO_COUNTERS | WD_INFO_PROCESSES,
};

// Which collectors run (wdInfoMask bits); WD_INFO_ALL at process start.
extern uint32_t displayLevel;
// Runs the collectors `mask` selects, in the fixed order processes,
// connections, counters, general status.
void mod_periodicInfoReport(uint32_t mask);

// ---- The collectors on open files (null for a missing one), for recorded samples.
// Each formats the report text into `out` (`size` bytes); those that report
// nothing without their file return 0 then, else 1.

void mod_processStatusText(FILE* ps, char* out, size_t size);
int mod_connectionStatusText(FILE* conntrack, char* out, size_t size);
// Also fetches "WanIP" of DeviceInfo_PVC0..2.
int mod_packetCounterText(FILE* dev, char* out, size_t size);
// Reads and updates old_total and old_idle.
void mod_generalStatusText(FILE* uptime, FILE* meminfo, FILE* stat, char* out, size_t size);

#endif  // WATCHDOGD_MODULES_WD_STATUS_H
