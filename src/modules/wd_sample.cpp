// The sample module: the common module loop in its plainest form. It traces
// every event it receives and handles none, so THREAD_EXIT does not end it.
#include "wd_sample.h"

#include <stdint.h>

#include "wd_base.h"

namespace {

const wdModLoopText kText = {
    "mod_sampleHandler",
    {"Select error, ret=%d\n", WD_SAY_CONSOLE},
    {"Select timeout!\n", WD_SAY_TRACE},
    {"File discriptor is no in fd set!\n", WD_SAY_CONSOLE},
    {"[mod_sampleHandler] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!\n", WD_SAY_TRACE},
    {nullptr, WD_SAY_NOTHING},
};

wdLoopAction OnMsg(wdMsg* msg, wdModRun* run) {
  if (msg->datalen != 0) {
    WD_TRACE_AS("mod_sampleHandler", "MOD_SAMPLE Received wdMsg, dst#%d#, data#%.*s#\n",
                msg->destMod, WD_MSG_DATA_SIZE, msg->data);
  } else {
    WD_TRACE_AS("mod_sampleHandler", "MOD_SAMPLE Received wdMsg, dst#%d#, type#%d#\n", msg->destMod,
                msg->eventType);
  }
  struct timeval tv;
  wd_initTimeVal(&tv, static_cast<int>(reinterpret_cast<intptr_t>(run->arg)));
  return WD_LOOP_CONTINUE;
}

}  // namespace

const wdModDesc kSampleModule = {
    MOD_SAMPLE,
    "/var/wd_smple.chanl",
    {nullptr, nullptr, nullptr},  // no configured period
    {nullptr, nullptr},           // started only by command
    {0, 0},                       // no data record
    {mod_sampleHandler, &kText, nullptr, OnMsg, nullptr},
    {WD_MOD_TIMER_NONE, 0, false, false},
};

void* mod_sampleHandler(void* arg) { wd_runModule(kSampleModule, arg); }
