// Stand-in bodies for modules whose own work is not built yet.
#include "wd_base.h"
#include "wd_modthread.h"
#include "wd_modules.h"
#include "wd_timer.h"

namespace {

const wdModLoopText kText = {
    "mod_placeholderHandler",
    {"Select error, ret=%d\n", WD_SAY_CONSOLE},
    {"Select timeout!\n", WD_SAY_TRACE},
    {"File discriptor is no in fd set!\n", WD_SAY_CONSOLE},
    {"[mod_placeholderHandler] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!\n", WD_SAY_TRACE},
};

wdLoopAction OnMsg(wdMsg* msg, void*) {
  return msg->eventType == THREAD_EXIT ? WD_LOOP_EXIT : WD_LOOP_CONTINUE;
}

}  // namespace

void* wd_placeholderBody(int modId) {
  uint8_t id = static_cast<uint8_t>(modId);
  wdChanl ch;
  if (wd_chanlOpen(modId, &ch) < 0) wd_threadExit(id, 0, nullptr);
  wdSubModEntry& entry = gSubMod[modId];
  // Modules 1..8 have a period in the configuration; 9 and 10 have none.
  if (entry.timer == 0 && modId <= MOD_VOIP_REGISTER) entry.timer = wd_updateModTimer(id);
  int timerId = entry.timer != 0 ? wd_startModPTimer(id, entry.timer) : 0;
  wd_modLoop(&ch, kText, OnMsg, nullptr);
  wd_threadExit(id, timerId, &ch);
}
