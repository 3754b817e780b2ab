// Module threads: which start from the configuration, how one is started and
// how it ends, and the common module loop every module follows.
//
// Each module thread opens its own channel (wdChanl), waits on it and handles
// one wdMsg at a time. It is started by the main thread (at start-up or on
// command type 2) and ends itself on THREAD_EXIT.
#ifndef WATCHDOGD_MODULES_WD_MODTHREAD_H
#define WATCHDOGD_MODULES_WD_MODTHREAD_H

#include <stdint.h>

#include "wd_chanl.h"

// Fills the channel paths, thread bodies and timer values of entries 0..11
// from the module definitions (wd_modules). Called once by main; returns 0.
int wd_initSubModData(void);
// Starts the module threads that the configuration enables. Returns 0 when the
// watchdog feature is off, else the result of the last thread creation.
int wd_creatModThreads(void);
// Starts the thread of module `modId` (default attributes, argument 60) and
// stores its id in the entry. Returns pthread_create's result; a module that
// runs already is left alone ("module N is already running" on the debug
// console, EALREADY returned). Main thread.
int wd_startModThread(int modId);
// The module's configured period in seconds (0 for none); only reads.
uint32_t wd_updateModTimer(uint8_t modId);
// Starts the module's periodic TIMER_EXPIRED timer of `seconds`; its id, or 0
// when it could not be started.
int wd_startModPTimer(uint8_t modId, uint32_t seconds);
// The module's periodic timer at thread start: the entry's period, read from
// the configuration when the entry holds 0, armed when it is not 0. Its id,
// or 0 when none was started.
int wd_startModTimer(uint8_t modId);
// A period read on a configuration change: when it differs from the entry's,
// stops the periodic timer *timerId (when not 0), stores the period and arms
// a new timer (none for 0), whose id replaces *timerId. 1 when it changed.
int wd_changeModPeriod(uint8_t modId, uint32_t period, int* timerId);
// A number read from the configuration (`text` of `attr` of `node`): its
// leading decimal digits, as wd_parseUnsigned reads them. A text that is not
// entirely digits is reported on the debug console with what it is read as.
uint32_t wd_parseSetting(const char* node, const char* attr, const char* text);
// End the calling module thread: stop its periodic (wd_threadExit) or one-shot
// (wd_pppthreadExit) timer when `timerId` is not 0, clear what of the
// module's entry is still this thread's own, close its channel `ch` (null
// when it has none). Do not return.
[[noreturn]] void wd_threadExit(uint8_t modId, int periodicTimerId, wdChanl* ch);
[[noreturn]] void wd_pppthreadExit(uint8_t modId, int timerId, wdChanl* ch);

// How a module's loop says something: not at all, on the debug console
// (tcdbg_printf), or as a trace.
enum wdSay { WD_SAY_NOTHING, WD_SAY_CONSOLE, WD_SAY_TRACE };
struct wdLoopMsg {
  const char* text;
  wdSay how;
};
// The texts of a module's loop; they differ slightly between modules.
struct wdModLoopText {
  const char* handlerName;  // function name shown in the loop's traces
  wdLoopMsg selectError;    // with the select result as its argument
  wdLoopMsg selectTimeout;
  wdLoopMsg noFdInSet;
  wdLoopMsg mallocFail;
  wdLoopMsg zeroBytes;
};

enum wdLoopAction { WD_LOOP_CONTINUE, WD_LOOP_EXIT };

// The common module loop on the thread's channel `ch`: waits, receives one
// wdMsg at a time into a fresh zeroed 8016-byte buffer and hands it to
// `onMsg`, releasing the buffer afterwards. Returns when `onMsg` answers
// WD_LOOP_EXIT (THREAD_EXIT); the caller then ends the thread.
void wd_modLoop(const wdChanl* ch, const wdModLoopText& text,
                wdLoopAction (*onMsg)(wdMsg* msg, void* ctx), void* ctx);

#endif  // WATCHDOGD_MODULES_WD_MODTHREAD_H
