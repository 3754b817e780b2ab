// Module threads: the module descriptors and their table, which modules start
// from the configuration, the one thread body every module runs, how a module
// thread ends, and the common module loop every module follows.
//
// Each module thread opens its own channel (wdChanl), waits on it and handles
// one wdMsg at a time. It is started by the main thread (at start-up or on
// command type 2) and ends itself on THREAD_EXIT.
//
// A module describes itself with one wdModDesc in its own file. The daemon's
// entry hands the table of descriptors down with wd_setModTable; this unit
// knows no module by name.
#ifndef WATCHDOGD_MODULES_WD_MODTHREAD_H
#define WATCHDOGD_MODULES_WD_MODTHREAD_H

#include <stddef.h>
#include <stdint.h>

#include "wd_base.h"
#include "wd_chanl.h"

struct wdModDesc;

// Fills the channel paths, thread bodies and timer values of entries 0..11
// from the module table. Called once by main; returns 0.
int wd_initSubModData(void);
// Starts the module threads that the configuration enables. Returns 0 when the
// watchdog feature is off, else the result of the last thread creation.
int wd_creatModThreads(void);
// Starts the thread of module `modId` (default scheduling, argument 60),
// stores its id in the entry and waits, 5 s at most, until the thread has
// opened its channel or found that it cannot, so that an event sent next is
// not lost. Returns pthread_create's result; a module that runs already is
// left alone ("module N is already running" on the debug console, EALREADY
// returned). Main thread.
int wd_startModThread(int modId);
// The module's configured period in seconds (0 for none); only reads.
uint32_t wd_updateModTimer(uint8_t modId);
uint32_t wd_modPeriod(const wdModDesc& desc);
// Starts the module's periodic TIMER_EXPIRED timer of `seconds`; its id, or 0
// when it could not be started.
int wd_startModPTimer(uint8_t modId, uint32_t seconds);
// The module's periodic timer at thread start: the entry's period, read from
// the configuration when the entry holds 0, armed when it is not 0. Its id,
// or 0 when none was started.
int wd_startModTimer(const wdModDesc& desc);
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
  wdLoopMsg failedReceive;  // a receive that fails; most modules drop it silently
};

enum wdLoopAction { WD_LOOP_CONTINUE, WD_LOOP_EXIT };

// The common module loop on the thread's channel `ch`: waits (at most until
// the earliest timer the thread serves is due, and then calls the due ones:
// wd_timerServedWait, wd_timerServedPass), receives one
// wdMsg at a time into a fresh zeroed 8016-byte buffer and hands it to
// `onMsg`, releasing the buffer afterwards. Returns when `onMsg` answers
// WD_LOOP_EXIT (THREAD_EXIT); the caller then ends the thread.
void wd_modLoop(const wdChanl* ch, const wdModLoopText& text,
                wdLoopAction (*onMsg)(wdMsg* msg, void* ctx), void* ctx);

// What a running module thread holds: its descriptor, its channel, the timer
// that ends with it and room for the module's own zeroed state.
#define WD_MOD_STATE_SIZE 576
struct wdModRun {
  const struct wdModDesc* desc;
  void* arg;  // the thread's argument
  wdChanl ch;
  int timerId;  // periodic, or one-shot for a desc->oneShot module; 0 if none
  alignas(8) unsigned char state[WD_MOD_STATE_SIZE];
};

// The timer a module thread arms after its init, before its loop.
enum wdModTimer {
  WD_MOD_TIMER_NONE,    // none, or the init arms it itself
  WD_MOD_TIMER_PERIOD,  // periodic, of the configured period (wd_startModTimer)
  WD_MOD_TIMER_FIXED,   // periodic, of fixedMs whatever the configuration says
};

// A module, as it describes itself in its own file.
struct wdModDesc {
  uint8_t id;             // MOD_*
  const char* chanlPath;  // its channel under /var
  // Its configured period: `attr` of `node`, in seconds; none when attr is
  // null. When `on` is set and answers false, the period is 0 whatever the
  // attribute holds.
  struct Period {
    const char* node;
    const char* attr;
    bool (*on)(void);
  } period;
  // Start-up (wd_creatModThreads): `rule` says on the console what the module
  // has always said and answers whether it starts; *period holds the entry's
  // period and takes the one to store when it starts. Null: never started at
  // start-up. `startedTrace`, when set, traces the thread creation's result.
  struct Start {
    bool (*rule)(uint32_t* period);
    const char* startedTrace;
  } start;
  // The data record a command hands to it: the event it comes as and its
  // size in bytes; size 0 when it takes none.
  struct Record {
    int event;
    uint16_t size;
  } record;
  // The thread: the exposed body (which runs wd_runModule with this
  // descriptor), the loop's texts, and the module's functions. init runs
  // once the channel is open, before the timer is armed; event handles each
  // wdMsg; exit runs after the loop, before the thread ends. init and exit
  // may be null.
  struct Thread {
    wdModHandler handler;
    const wdModLoopText* text;
    void (*init)(wdModRun* run);
    wdLoopAction (*event)(wdMsg* msg, wdModRun* run);
    void (*exit)(wdModRun* run);
  } thread;
  // The timer the thread arms after init, and how it is stopped at the end.
  struct Timer {
    wdModTimer kind;
    int fixedMs;   // WD_MOD_TIMER_FIXED's period
    bool oneShot;  // run->timerId is a one-shot timer (wd_pppthreadExit)
    // The timer thread calls the module's timers, not its own thread: its
    // work blocks for longer than its period, and a timer that falls due
    // meanwhile is then called on time.
    bool byTimerThread;
  } timer;
};

// The module's own state in `run`, zeroed at thread start.
template <class State>
State* wd_modState(wdModRun* run) {
  static_assert(sizeof(State) <= WD_MOD_STATE_SIZE, "module state too big");
  return reinterpret_cast<State*>(run->state);
}

// Start-up rule of a module that always starts and says nothing.
bool wd_startAlways(uint32_t* period);
// A trace of a module's start-up rule, in the name of wd_creatModThreads.
#define WD_START_TRACE(...) WD_TRACE_AS("wd_creatModThreads", __VA_ARGS__)
// A setting that turns a module off at start-up: empty or "0".
bool wd_settingUnset(const char* value);

// Hands down the table of module descriptors, in start-up order; the table
// lives as long as the process. Main thread, before wd_initSubModData.
void wd_setModTable(const wdModDesc* const* table, size_t count);
// The descriptor of module `modId`, or null when the table has none.
const wdModDesc* wd_findMod(unsigned modId);
// The thread body of every module: opens the channel (or ends the thread),
// runs init, arms the timer, runs the common loop with the module's event
// function, runs exit and ends the thread.
[[noreturn]] void wd_runModule(const wdModDesc& desc, void* arg);

#endif  // WATCHDOGD_MODULES_WD_MODTHREAD_H
