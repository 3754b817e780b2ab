// The periodic info module: on each expiry of its periodic timer it runs the
// status collectors that the verbosity mask selects.
#include "wd_periodicinfo.h"

#include <string.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_status.h"
#include "wd_timer.h"

uint32_t displayLevel = WD_INFO_ALL;

namespace {

constexpr const char* kNode = "Watchdog_WDInfo";
constexpr const char* kHandler = "mod_periodicInfoHandler";

const wdModLoopText kText = {
    kHandler,
    {"Select error, ret=%d\r\n", WD_SAY_CONSOLE},
    {nullptr, WD_SAY_NOTHING},
    {"File discriptor is no in fd set!\r\n", WD_SAY_CONSOLE},
    {"[USE CASE PeriodicInfo] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!", WD_SAY_TRACE},
    {nullptr, WD_SAY_NOTHING},
};

void OnConfigChange(int* timerId) {
  char timer[16] = {0};
  char verbosity[16] = {0};
  if (tcapi_get(kNode, "Timer", timer) != 0) {
    WD_TRACE_AS(kHandler, "cmsObj get fail");
    return;
  }
  // A failed fetch leaves the buffer empty, read as 0: the module goes quiet.
  tcapi_get(kNode, "Verbosity", verbosity);
  wd_changeModPeriod(MOD_PERIODIC_INFO, wd_parseSetting(kNode, "Timer", timer), timerId);
  uint32_t level = verbosity[0] != '\0' ? wd_parseSetting(kNode, "Verbosity", verbosity) : 0;
  if (level != displayLevel) displayLevel = level;
}

wdLoopAction OnEvent(wdMsg* msg, wdModRun* run) {
  switch (msg->eventType) {
    case TIMER_EXPIRED:
      mod_periodicInfoReport(displayLevel);
      break;
    case CONFIG_CHANGE:
      OnConfigChange(&run->timerId);
      break;
    case THREAD_EXIT:
      return WD_LOOP_EXIT;
    default:
      break;
  }
  return WD_LOOP_CONTINUE;
}

bool StartRule(uint32_t* period) {
  char value[32];
  memset(value, 0, sizeof value);
  if (tcapi_get(kNode, "Timer", value) != 0) {
    tcdbg_printf("\r\nget info Timer error!\r\n");
    tcdbg_printf("\r\ncreate MOD_PERIODIC_INFO thread fail!\r\n");
    return false;
  }
  WD_START_TRACE("infoObj->timer = %s", value);
  if (wd_settingUnset(value)) {
    tcdbg_printf("\r\ninfoObj->timer error!\r\n");
    return false;
  }
  *period = wd_parseUnsigned(value);
  return true;
}

// Arms the timer first, then reads the verbosity.
void Init(wdModRun* run) {
  run->timerId = wd_startModTimer(kPeriodicInfoModule);
  char verbosity[16] = {0};
  if (tcapi_get(kNode, "Verbosity", verbosity) == 0) {
    uint32_t level = wd_parseSetting(kNode, "Verbosity", verbosity);
    if (level != displayLevel) displayLevel = level;
  } else {
    tcdbg_printf("get WDInfo Verbosity  fail\r\n");
  }
}

}  // namespace

void mod_periodicInfoReport(uint32_t mask) {
  if (mask & WD_INFO_PROCESSES) showProcessStatus();
  if (mask & WD_INFO_CONNECTIONS) showConnectionStatus();
  if (mask & WD_INFO_COUNTERS) showPacketCounter();
  if (mask & WD_INFO_GENERAL) showGeneralStatus();
}

const wdModDesc kPeriodicInfoModule = {
    MOD_PERIODIC_INFO,
    "/var/wd_periodic_info.chanl",
    {kNode, "Timer", nullptr},
    {StartRule, "info thread ret=%d!"},
    {0, 0},  // no data record
    {mod_periodicInfoHandler, &kText, Init, OnEvent, nullptr},
    {WD_MOD_TIMER_NONE, 0, false, false},  // Init arms the configured period
};

void* mod_periodicInfoHandler(void* arg) { wd_runModule(kPeriodicInfoModule, arg); }
