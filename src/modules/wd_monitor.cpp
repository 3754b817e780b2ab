// The process monitor module.
#include "wd_monitor.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "libwdfunc.h"
#include "tcapi.h"
#include "wd_base.h"
#include "wd_modthread.h"
#include "wd_proc.h"
#include "wd_syslog.h"
#include "wd_timer.h"

wdModMonitor gWdModMonitor;

namespace {

constexpr const char* kHandler = "mod_monitorHandler";
constexpr int kStartSeconds = 30;  // the start script returns once the server runs

void RestartDhcpd() {
  char type[16] = {0};
  tcapi_get("Lan_Dhcp", "type", type);
  if (strcmp(type, "0") == 0) {
    WD_TRACE_AS("wdmod_monitorTimerExpire",
                "[USE CASE Restart Process] Dhcpd is disable, don't restart udhcpd");
    return;
  }
  tcapi_commit("Dhcpd_Common");
}

void RestartHttpd() { wd_runShell("/usr/script/mini_httpd.sh start", kStartSeconds); }

void RestartPppd() {
  char encap[32] = {0};
  tcapi_get("Wan_PVC0", "ENCAP", encap);
  encap[sizeof encap - 1] = '\0';
  if (strstr(encap, "PPPoE") == nullptr) {
    WD_TRACE_AS("wdmod_monitorTimerExpire",
                "[USE CASE Restart Process] Default WAN isn't PPPoE, don't restart PPPoE");
    return;
  }
  tcapi_commit("Wan_PVC0");
}

// The watched processes in check and report order.
const struct {
  uint32_t bit;
  const char* process;
  const char* report;
  void (*restart)();
} kWatched[] = {
    {1, "udhcpd", "dhcpd", RestartDhcpd},
    {2, "mini_httpd", "httpd", RestartHttpd},
    {4, "pppd", "pppd", RestartPppd},
};

const wdModLoopText kText = {
    kHandler,
    {"Select error, ret=%d\n", WD_SAY_CONSOLE},
    {"Select timeout!", WD_SAY_TRACE},
    {"File discriptor is no in fd set!\r\n", WD_SAY_CONSOLE},
    {"[USE CASE Monitor] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!", WD_SAY_TRACE},
    {nullptr, WD_SAY_NOTHING},
};

wdLoopAction OnEvent(wdMsg* msg, wdModRun*) {
  switch (msg->eventType) {
    case TIMER_EXPIRED:
      mod_monitorCycle();
      break;
    case CONFIG_CHANGE:
      WD_TRACE_AS(kHandler, "mod monitor receive config change");
      break;
    case THREAD_EXIT:
      return WD_LOOP_EXIT;
    default:
      break;  // MONITOR_DATA among them: received and dropped
  }
  return WD_LOOP_CONTINUE;
}

// Arms the check timer of the period the init set.
void Init(wdModRun* run) {
  wdmod_monitorHandler_init();
  run->timerId =
      wd_setDefaultPTimer(static_cast<int>(gWdModMonitor.checkPeriod * 1000), MOD_MONITOR);
  if (run->timerId < 0) run->timerId = 0;
}

}  // namespace

void wdmod_monitorHandler_init(void) {
  gWdModMonitor.checkPeriod = 300;
  gWdModMonitor.watchedMask |= 1 | 2 | 4;
}

void wdmod_monitorTimerExpire(MonitorCheckResult* result) {
  if (result == nullptr) return;
  memset(result, 0, sizeof *result);
  result->watchedMask = gWdModMonitor.watchedMask;
  for (const auto& w : kWatched) {
    if ((result->watchedMask & w.bit) == 0 || getProcessStatus(w.process) == 1) continue;
    w.restart();
    result->downMask |= w.bit;
  }
}

void mod_monitorCycle(void) {
  MonitorCheckResult* result = static_cast<MonitorCheckResult*>(malloc(sizeof(MonitorCheckResult)));
  if (result == nullptr) return;
  wdmod_monitorTimerExpire(result);
  for (const auto& w : kWatched) {
    if (result->downMask & w.bit) wdmod_monitorSyslog(w.report);
  }
  free(result);
}

void wdmod_monitorSyslog(const char* name) {
  char text[64];
  snprintf(text, sizeof text, "%s|%s", name, "Internal error");
  wd_syslogStr(WD_CAT_PS, text);
}

const wdModDesc kMonitorModule = {
    MOD_MONITOR,
    "/var/wd_monitor.chanl",
    {nullptr, nullptr, nullptr},  // no configured period
    {wd_startAlways, nullptr},
    {MONITOR_DATA, 8},  // an 8-byte record, received and dropped
    {mod_monitorHandler, &kText, Init, OnEvent, nullptr},
    {WD_MOD_TIMER_NONE, 0, false, false},  // Init arms it
};

void* mod_monitorHandler(void* arg) { wd_runModule(kMonitorModule, arg); }
