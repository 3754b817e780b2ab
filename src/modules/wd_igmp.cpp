// The IGMP module: keeps a periodic timer of "Period" of "Watchdog_IGMP"
// seconds and follows changes of it. Its expiries carry no work and it makes
// no reports; it only traces them.
#include "wd_igmp.h"

#include <string.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_timer.h"

namespace {

constexpr const char* kHandler = "mod_igmpHandler";

const wdModLoopText kText = {
    kHandler,
    {"Select error, ret=%d\r\n", WD_SAY_CONSOLE},
    {nullptr, WD_SAY_NOTHING},
    {"File discriptor is no in fd set!\r\n", WD_SAY_CONSOLE},
    {"[USE CASE IGMP] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!", WD_SAY_TRACE},
    {nullptr, WD_SAY_NOTHING},
};

void OnConfigChange(int* timerId) {
  char text[16] = {0};
  if (tcapi_get("Watchdog_IGMP", "Period", text) != 0) {
    WD_TRACE_AS(kHandler, "cmsObj get fail");
    return;
  }
  wdSubModEntry& entry = gSubMod[MOD_IGMP];
  uint32_t period = wd_parseSetting("Watchdog_IGMP", "Period", text);
  if (text[0] != '\0' && strcmp(text, "0") != 0 && period != entry.timer) {
    if (*timerId != 0) wd_timerPStop(*timerId);
    entry.timer = period;
    if (period != 0) *timerId = wd_startModPTimer(MOD_IGMP, period);
    WD_TRACE_AS(kHandler, "Timer change, set new timer, %d", static_cast<int>(period));
  } else if (strcmp(text, "0") == 0) {
    entry.timer = 0;
    if (*timerId != 0) {
      wd_timerPStop(*timerId);  // the id is kept
      WD_TRACE_AS(kHandler, "clear timer");
    }
  }
}

wdLoopAction OnEvent(wdMsg* msg, wdModRun* run) {
  int* timerId = &run->timerId;
  switch (msg->eventType) {
    case CONFIG_CHANGE:
      OnConfigChange(timerId);
      break;
    case TIMER_EXPIRED:
      WD_TRACE_AS(kHandler, "IGMP TIMER_EXPIRED");
      break;
    case THREAD_EXIT:
      return WD_LOOP_EXIT;
    default:
      break;
  }
  return WD_LOOP_CONTINUE;
}

}  // namespace

const wdModDesc kIgmpModule = {
    MOD_IGMP,
    "/var/wd_igmp.chanl",
    {"Watchdog_IGMP", "Period", nullptr},
    {wd_startAlways, nullptr},
    {0, 0},  // no data record
    {mod_igmpHandler, &kText, nullptr, OnEvent, nullptr},
    {WD_MOD_TIMER_PERIOD, 0, false, false},
};

void* mod_igmpHandler(void* arg) { wd_runModule(kIgmpModule, arg); }
