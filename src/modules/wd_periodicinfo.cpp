// The periodic info module: on each expiry of its periodic timer it runs the
// status collectors that the verbosity mask selects.
#include "tcapi.h"
#include "wd_base.h"
#include "wd_modthread.h"
#include "wd_status.h"
#include "wd_timer.h"

uint32_t displayLevel = 15;

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

wdLoopAction OnEvent(wdMsg* msg, void* ctx) {
  switch (msg->eventType) {
    case TIMER_EXPIRED:
      mod_periodicInfoReport(displayLevel);
      break;
    case CONFIG_CHANGE:
      OnConfigChange(static_cast<int*>(ctx));
      break;
    case THREAD_EXIT:
      return WD_LOOP_EXIT;
    default:
      break;
  }
  return WD_LOOP_CONTINUE;
}

}  // namespace

void mod_periodicInfoReport(uint32_t mask) {
  if (mask & 8) showProcessStatus();
  if (mask & 2) showConnectionStatus();
  if (mask & 4) showPacketCounter();
  if (mask & 1) showGeneralStatus();
}

void* mod_periodicInfoHandler(void*) {
  wdChanl ch;
  if (wd_chanlOpen(MOD_PERIODIC_INFO, &ch) < 0) wd_threadExit(MOD_PERIODIC_INFO, 0, nullptr);
  int timerId = wd_startModTimer(MOD_PERIODIC_INFO);
  char verbosity[16] = {0};
  if (tcapi_get(kNode, "Verbosity", verbosity) == 0) {
    uint32_t level = wd_parseSetting(kNode, "Verbosity", verbosity);
    if (level != displayLevel) displayLevel = level;
  } else {
    tcdbg_printf("get WDInfo Verbosity  fail\r\n");
  }
  wd_modLoop(&ch, kText, OnEvent, &timerId);
  wd_threadExit(MOD_PERIODIC_INFO, timerId, &ch);
}
