// The sample module: the common module loop in its plainest form. It traces
// every event it receives and handles none, so THREAD_EXIT does not end it.
#include <stdint.h>

#include "wd_base.h"
#include "wd_modthread.h"
#include "wd_modules.h"

namespace {

const wdModLoopText kText = {
    "mod_sampleHandler",
    {"Select error, ret=%d\n", WD_SAY_CONSOLE},
    {"Select timeout!\n", WD_SAY_TRACE},
    {"File discriptor is no in fd set!\n", WD_SAY_CONSOLE},
    {"[mod_sampleHandler] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!\n", WD_SAY_TRACE},
};

wdLoopAction OnMsg(wdMsg* msg, void* ctx) {
  if (msg->datalen != 0) {
    WD_TRACE_AS("mod_sampleHandler", "MOD_SAMPLE Received wdMsg, dst#%d#, data#%.*s#\n",
                msg->destMod, WD_MSG_DATA_SIZE, msg->data);
  } else {
    WD_TRACE_AS("mod_sampleHandler", "MOD_SAMPLE Received wdMsg, dst#%d#, type#%d#\n", msg->destMod,
                msg->eventType);
  }
  struct timeval tv;
  wd_initTimeVal(&tv, *static_cast<int*>(ctx));
  return WD_LOOP_CONTINUE;
}

}  // namespace

void* mod_sampleHandler(void* arg) {
  int seconds = static_cast<int>(reinterpret_cast<intptr_t>(arg));
  wdChanl ch;
  if (wd_chanlOpen(MOD_SAMPLE, &ch) < 0) wd_threadExit(MOD_SAMPLE, 0, nullptr);
  wd_modLoop(&ch, kText, OnMsg, &seconds);
  wd_threadExit(MOD_SAMPLE, 0, &ch);
}
