// The timer service: one-shot and periodic timers with millisecond intervals,
// served by one timer thread.
//
// Threads: the timer thread (wd_timerProc) makes a pass when the earliest
// timer is due, on the monotonic clock, and calls the callbacks of due timers;
// module and relay threads arm and stop timers, and a module thread calls
// the timers it serves itself (wd_timerServe). timerMutex guards both lists, every timer in
// them and tmIdIndex; callbacks run without it. Every callback of the daemon
// turns an expiry into an event on a module channel.
#ifndef WATCHDOGD_TIMER_WD_TIMER_H
#define WATCHDOGD_TIMER_WD_TIMER_H

#include <pthread.h>
#include <stdint.h>

#include "timer_list.h"
#include "wd_lock.h"

typedef int (*wdTimerCallback)(int id, int arg);

// A time as seconds and microseconds: since boot for timers (the monotonic
// clock), since 1970 from gettimeofday_n.
typedef struct wdTimeVal {
  int64_t tv_sec;
  int32_t tv_usec;
} wdTimeVal;

extern wdMutex timerMutex;

// One armed timer. Times keep 64-bit seconds, so that timers work on either
// side of 2038 whatever the width of the platform's time_t.
typedef struct timerNode {
  int id WD_GUARDED_BY(timerMutex);
  int arg WD_GUARDED_BY(timerMutex);           // the module id in every use by the daemon
  int interval WD_GUARDED_BY(timerMutex);      // milliseconds; the period of a periodic timer
  wdTimeVal expiry WD_GUARDED_BY(timerMutex);  // monotonic; microseconds below 1,000,000
  wdTimerCallback callback WD_GUARDED_BY(timerMutex);
  struct timerNode* due WD_GUARDED_BY(timerMutex);  // the next due one-shot timer within one pass
  int server WD_GUARDED_BY(timerMutex);  // the module thread that serves it (wd_timerServe); 0: the timer thread
} timerNode;

extern timerList time_list WD_GUARDED_BY(timerMutex);           // one-shot timers, in arming order
extern timerList periodic_time_list WD_GUARDED_BY(timerMutex);  // periodic timers, in arming order
extern pthread_t timer_thread;
extern int tmIdIndex WD_GUARDED_BY(timerMutex);  // the last id given

// Makes both lists empty and starts the timer thread (SCHED_RR, priority 75,
// or default scheduling where real-time scheduling is refused). Called once
// by main before any other service.
void wd_timerInit(void) WD_EXCLUDES(timerMutex);
// The timer thread's body, for ever: a pass, then a sleep until the earliest
// due time of any timer (the due time itself, not a 100 ms grid; a periodic
// timer shorter than 100 ms waits 100 ms after the end of the pass that
// fired it), or until arming an earlier timer or stopping the one it sleeps
// for wakes it.
void* wd_timerProc(void* arg);
// One pass of the timer thread for the time `now`: due one-shot timers are
// removed and called in arming order, then due periodic timers are called
// once each and re-armed from `now`. Takes timerMutex, and allocates nothing
// while it holds it; calls without it. Periodic timers due beyond the room the
// pass has (32 at first, grown to the list's size for the next pass) are
// called in the next pass.
void wd_timerPass(const wdTimeVal* now) WD_EXCLUDES(timerMutex);
// The real-time clock (CLOCK_REALTIME) as seconds and microseconds; 0, or -1
// when it cannot be read.
int gettimeofday_n(wdTimeVal* tv);
// The clock that arming and the timer thread read; the monotonic clock unless
// a test hands in its own (null: back to the monotonic clock). Not for use
// while the timer thread runs.
void wd_timerSetClock(int (*clock)(wdTimeVal* tv));

// The monotonic time in microseconds the timer thread last chose to sleep
// until: INT64_MAX without limit, INT64_MIN while a wake is on its way or
// before its first pass. For tests.
int64_t wd_timerSleepUntil(void) WD_EXCLUDES(timerMutex);

// Module threads serve their own timers. After wd_timerServe(modId), the
// timers the calling thread arms for `modId` (their argument) are its own:
// the timer thread neither wakes for them nor calls them. The module thread
// waits on its channel at most until the earliest of them is due
// (wd_timerServedWait) and then calls the due ones itself
// (wd_timerServedPass), so an idle module's expiry wakes one thread, not two.
// wd_timerServeEnd, before the thread ends, hands what is left of them to the
// timer thread. A periodic timer shorter than 100 ms stays the timer
// thread's, which keeps such timers 100 ms apart.
void wd_timerServe(int modId) WD_EXCLUDES(timerMutex);
void wd_timerServeEnd(void) WD_EXCLUDES(timerMutex);
// While the calling thread waits for a program (`lend` true, until called
// with false), the timers it serves are the timer thread's: one that falls
// due meanwhile is called on time, ahead of the events sent to the module
// after it, as if the timer thread had always served it. The timer thread is
// woken only when one is due before it would wake anyway.
void wd_timerLend(bool lend) WD_EXCLUDES(timerMutex);
// Microseconds from now until the earliest of the calling thread's own timers
// is due: 0 when one is due, -1 when it has none (or serves none).
int64_t wd_timerServedWait(void) WD_EXCLUDES(timerMutex);
// Calls the calling thread's own timers that are due, as a pass of the timer
// thread would: due one-shot timers are removed and called in arming order,
// due periodic timers are called and re-armed. `late` says that the thread
// comes to them late from other work, while the timer thread would have
// called them on time: a periodic timer is then called once for every period
// that has passed since it was due and re-armed from its due times, not from
// now. Callbacks run without timerMutex.
void wd_timerServedPass(bool late) WD_EXCLUDES(timerMutex);

// Creating operations: a new timer id (1 or more), or -1 with
// "Error: Can't start timer\n" / "Error: Can't start periodic timer\n".
// One-shot, TIMER_EXPIRED.
int wd_setDefaultTimer(int interval, int modId) WD_EXCLUDES(timerMutex);
// Periodic, TIMER_EXPIRED.
int wd_setDefaultPTimer(int interval, int modId) WD_EXCLUDES(timerMutex);
// Periodic, PPP_TIMER_EXPIRED.
int wd_setPPPTimer(int interval, int modId) WD_EXCLUDES(timerMutex);
// One-shot; event 10 (TX_CHECK_TIMEOUT) or 11 (TX_SAVE_TIMEOUT), else -1.
int wd_setEventTimer(int interval, int modId, int event) WD_EXCLUDES(timerMutex);
// Stop a one-shot or periodic timer; 0 also when no timer has that id.
int wd_timerStop(int id) WD_EXCLUDES(timerMutex);
int wd_timerPStop(int id) WD_EXCLUDES(timerMutex);

// Lower operations: arm with a given id (an armed timer with that id is moved
// to the new expiry, keeping its interval); 0, or -1 when nothing could be
// allocated. Removal of every timer with an id; always 0.
int wd_addTimer(int id, int interval, wdTimerCallback callback, int arg) WD_EXCLUDES(timerMutex);
int wd_addPTimer(int id, int interval, wdTimerCallback callback, int arg) WD_EXCLUDES(timerMutex);
int wd_delTimer(int id) WD_EXCLUDES(timerMutex);
int wd_delPTimer(int id) WD_EXCLUDES(timerMutex);

// Callbacks: send their event (1, 12, 10, 11) to module `modId`; 0.
int wd_sendModTimeout(int id, int modId);
int wd_sendModPPPTimeout(int id, int modId);
int wd_sendMsgTxChkTimeout(int id, int modId);
int wd_sendMsgTxSaveTimeout(int id, int modId);

#endif  // WATCHDOGD_TIMER_WD_TIMER_H
