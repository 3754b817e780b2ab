// Timer lists, the timer thread and the timer operations.
//
// Timers sit unsorted in two lists in arming order; every pass scans both. Due
// one-shot timers are unlinked under timerMutex and belong to the timer thread
// from then on; for due periodic timers the pass notes callback, id and
// argument under the lock and calls them afterwards, so a concurrent stop may
// release the timer meanwhile.
//
// Between passes the timer thread sleeps until the earliest due time of any
// timer (without limit when none is armed). Arming a timer due before that,
// or stopping the one it sleeps for, wakes it through an eventfd. A timer
// that a module thread serves (server > 0) is that thread's alone: the
// timer thread's passes and sleeps leave it out. While that thread waits for
// a program, its timers are lent to the timer thread (server < 0).
#include "wd_timer.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#ifdef WD_TIMER_STATS
#include <signal.h>
#include <stdio.h>

#include <atomic>

#include "wd_proc.h"
#endif

#include "tcapi.h"
#include "wd_base.h"
#include "wd_chanl.h"
#include "wd_lock.h"

timerList time_list;
timerList periodic_time_list;
wdMutex timerMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_t timer_thread;
int tmIdIndex = 0;

namespace {

int MonotonicClock(wdTimeVal* tv) {
  int64_t us = wd_monotonicUs();
  tv->tv_sec = us / 1000000;
  tv->tv_usec = static_cast<int32_t>(us % 1000000);
  return 0;
}

int (*gClock)(wdTimeVal*) = MonotonicClock;

// Passes are at least this far apart for a periodic timer with a shorter
// interval: one of 0 ms fires once every 100 ms, as a pass every 100 ms made it.
constexpr int64_t kPassGapUs = 100000;

int gWakeFd = -1;  // the timer thread's eventfd; -1 until wd_timerInit
// The due time the timer thread sleeps until; INT64_MAX while it sleeps
// without limit, INT64_MIN once a wake is on its way (it will look anew).
int64_t gSleepUntilUs WD_GUARDED_BY(timerMutex) = INT64_MIN;

int gServers WD_GUARDED_BY(timerMutex) = 0;  // the last server token given
// The calling thread's server token (0: it serves no timers) and its module.
thread_local int tlServer = 0;
thread_local int tlServedMod = -1;

int64_t Us(const wdTimeVal& t) { return t.tv_sec * 1000000 + t.tv_usec; }

void WakeTimerThread() {
  if (gWakeFd < 0) return;
  uint64_t one = 1;
  ssize_t ignored = write(gWakeFd, &one, sizeof one);  // a full counter is a wake already
  (void)ignored;
}

#ifdef WD_TIMER_STATS
// The benchmark build's timer figures (scripts/bench.sh): how late each
// module timer expiry is called after its due time, and how much later than
// its timeout the timer thread's wait returns. SIGURG, which the daemon does
// not use otherwise, makes the timer thread write them to
// /tmp/wd_timer_stats and start counting anew. Fixed room; samples beyond it
// are counted as dropped.
constexpr int kStatsRoom = 1024;
struct TimerStats {
  int32_t expiryUs[kStatsRoom];  // lateness of a module timer expiry
  int8_t expiryMod[kStatsRoom];
  int32_t wakeUs[kStatsRoom];  // the wait beyond its timeout
  int expiries, wakes, dropped;
};
TimerStats gStats WD_GUARDED_BY(timerMutex);
std::atomic<int> gStatsRequests{0};

void OnStatsSignal(int) { gStatsRequests.fetch_add(1); }

bool IsModuleTimer(wdTimerCallback callback) {
  return callback == wd_sendModTimeout || callback == wd_sendModPPPTimeout;
}

void NoteExpiry(const wdTimeVal* now, const wdTimeVal* expiry, int arg) WD_REQUIRES(timerMutex) {
  if (gStats.expiries == kStatsRoom) {
    ++gStats.dropped;
    return;
  }
  int64_t late = (now->tv_sec - expiry->tv_sec) * 1000000 + (now->tv_usec - expiry->tv_usec);
  gStats.expiryUs[gStats.expiries] = static_cast<int32_t>(late);
  gStats.expiryMod[gStats.expiries++] = static_cast<int8_t>(arg);
}

void NoteWake(int64_t lateUs) WD_REQUIRES(timerMutex) {
  if (gStats.wakes == kStatsRoom) {
    ++gStats.dropped;
    return;
  }
  gStats.wakeUs[gStats.wakes++] = static_cast<int32_t>(lateUs);
}

void WriteStats() WD_EXCLUDES(timerMutex) {
  wdLock lock(&timerMutex);
  int fd = wd_createFresh("/tmp/wd_timer_stats.tmp", 0600);
  FILE* f = fd >= 0 ? fdopen(fd, "w") : nullptr;
  if (f == nullptr && fd >= 0) close(fd);
  if (f != nullptr) {
    for (int i = 0; i < gStats.expiries; ++i)
      fprintf(f, "expiry %d %d\n", static_cast<int>(gStats.expiryUs[i]), gStats.expiryMod[i]);
    for (int i = 0; i < gStats.wakes; ++i) fprintf(f, "wake %d\n", static_cast<int>(gStats.wakeUs[i]));
    fprintf(f, "dropped %d\n", gStats.dropped);
    if (fclose(f) == 0) rename("/tmp/wd_timer_stats.tmp", "/tmp/wd_timer_stats");
  }
  gStats.expiries = gStats.wakes = gStats.dropped = 0;
}
#endif

void ExpiryAfter(const wdTimeVal* now, int interval, timerNode* t) WD_REQUIRES(timerMutex) {
  if (interval < 0) interval = 0;  // a negative interval is simply due at once
  int64_t usec = static_cast<int64_t>(now->tv_usec) + static_cast<int64_t>(interval % 1000) * 1000;
  t->expiry.tv_sec = now->tv_sec + interval / 1000 + usec / 1000000;
  t->expiry.tv_usec = static_cast<int32_t>(usec % 1000000);
}

bool IsDue(const timerNode* t, const wdTimeVal* now) WD_REQUIRES(timerMutex) {
  return t->expiry.tv_sec < now->tv_sec ||
         (t->expiry.tv_sec == now->tv_sec && t->expiry.tv_usec <= now->tv_usec);
}

// A new timer, due `interval` ms after `now`; null when out of memory.
// Exempt: the timer is its creator's alone until it is listed.
timerNode* NewTimer(const wdTimeVal* now, int id, int interval, wdTimerCallback callback,
                    int arg) WD_NO_THREAD_SAFETY_ANALYSIS {
  timerNode* t = static_cast<timerNode*>(timer_malloc(sizeof(timerNode)));
  if (t == nullptr) return nullptr;
  ExpiryAfter(now, interval, t);
  t->id = id;
  t->interval = interval;
  t->arg = arg;
  t->callback = callback;
  t->due = nullptr;
  t->server = 0;
  return t;
}

// Who calls a timer: the token of the module thread that serves it, 0 for
// the timer thread (also for a timer lent to it).
int Caller(const timerNode* t) WD_REQUIRES(timerMutex) { return t->server > 0 ? t->server : 0; }

// Calls `fn` on every timer of both lists.
template <class Fn>
void EachTimer(Fn fn) WD_REQUIRES(timerMutex) {
  for (timerList* list : {&time_list, &periodic_time_list}) {
    timerListIterator it;
    for (void* e = timer_list_get_first(list, &it); e != nullptr; e = timer_list_get_next(&it))
      fn(static_cast<timerNode*>(e));
  }
}

// Removes the one-shot timers that `caller` calls and that are due at `now`,
// and returns them chained through `due`, in arming order.
timerNode* TakeDueOneShots(const wdTimeVal* now, int caller) WD_REQUIRES(timerMutex) {
  timerNode* first = nullptr;
  timerNode** last = &first;
  timerListIterator it;
  void* e = timer_list_get_first(&time_list, &it);
  while (e != nullptr) {
    timerNode* t = static_cast<timerNode*>(e);
    if (Caller(t) == caller && IsDue(t, now)) {
#ifdef WD_TIMER_STATS
      if (IsModuleTimer(t->callback)) NoteExpiry(now, &t->expiry, t->arg);
#endif
      t->due = nullptr;
      *last = t;
      last = &t->due;
      e = timer_list_iterator_remove(&it);
    } else {
      e = timer_list_get_next(&it);
    }
  }
  return first;
}

// Calls and releases the one-shot timers of a pass, chained through `due`.
// Exempt: they were removed from the list under timerMutex and are the timer
// thread's alone.
void CallRemoved(timerNode* first) WD_NO_THREAD_SAFETY_ANALYSIS {
  while (first != nullptr) {
    timerNode* t = first;
    first = t->due;
    t->callback(t->id, t->arg);
    timer_free(t);
  }
}

int Arm(timerList* list, int id, int interval, wdTimerCallback callback, int arg)
    WD_EXCLUDES(timerMutex) {
  wdTimeVal now;
  if (gClock(&now) != 0) return -1;
  timerNode* t = NewTimer(&now, id, interval, callback, arg);
  if (t == nullptr) return -1;

  bool wake = false;
  {
    wdLock lock(&timerMutex);
    int64_t due = Us(t->expiry);
    timerListIterator it;
    timerNode* old = nullptr;
    for (void* e = timer_list_get_first(list, &it); e != nullptr; e = timer_list_get_next(&it)) {
      if (static_cast<timerNode*>(e)->id == id) {
        old = static_cast<timerNode*>(e);
        break;
      }
    }
    // A module thread serves what it arms for its own module; a periodic
    // timer shorter than the pass gap stays the timer thread's.
    int period = old != nullptr ? old->interval : interval;
    int server = tlServer != 0 && arg == tlServedMod &&
                         (list != &periodic_time_list || period >= kPassGapUs / 1000)
                     ? tlServer
                     : 0;
    if (old != nullptr) {
      // Moved, possibly later: the thread may sleep for its old due time,
      // which then only costs a pass with nothing to do.
      old->expiry = t->expiry;
      old->arg = arg;
      old->callback = callback;
      old->server = server;
      timer_free(t);
    } else if (timer_list_add(list, t, list->count) < 0) {
      timer_free(t);
      return -1;
    } else {
      t->server = server;
    }
    if (server == 0 && due < gSleepUntilUs) {
      gSleepUntilUs = INT64_MIN;
      wake = true;
    }
  }
  if (wake) WakeTimerThread();
  return 0;
}

int Disarm(timerList* list, int id) WD_EXCLUDES(timerMutex) {
  bool wake = false;
  {
    wdLock lock(&timerMutex);
    timerListIterator it;
    void* e = timer_list_get_first(list, &it);
    while (e != nullptr) {
      timerNode* t = static_cast<timerNode*>(e);
      if (t->id == id) {
        // The thread sleeps for this one: it wakes and sleeps anew for the next.
        if (Caller(t) == 0 && Us(t->expiry) <= gSleepUntilUs && gSleepUntilUs != INT64_MIN) {
          gSleepUntilUs = INT64_MIN;
          wake = true;
        }
        e = timer_list_iterator_remove(&it);
        timer_free(t);
      } else {
        e = timer_list_get_next(&it);
      }
    }
  }
  if (wake) WakeTimerThread();
  return 0;
}

// The time the timer thread may sleep until after a pass that ended at
// `passUs`: the earliest due time of any timer, INT64_MAX when none is armed.
// Notes it, so that arming an earlier timer wakes the thread.
int64_t NextDue(int64_t passUs) WD_EXCLUDES(timerMutex) {
  wdLock lock(&timerMutex);
  int64_t next = INT64_MAX;
  timerListIterator it;
  for (void* e = timer_list_get_first(&time_list, &it); e != nullptr; e = timer_list_get_next(&it)) {
    const timerNode* t = static_cast<timerNode*>(e);
    int64_t due = Us(t->expiry);
    if (Caller(t) == 0 && due < next) next = due;
  }
  for (void* e = timer_list_get_first(&periodic_time_list, &it); e != nullptr;
       e = timer_list_get_next(&it)) {
    const timerNode* t = static_cast<timerNode*>(e);
    if (Caller(t) != 0) continue;
    int64_t due = Us(t->expiry);
    if (t->interval < kPassGapUs / 1000 && due < passUs + kPassGapUs) due = passUs + kPassGapUs;
    if (due < next) next = due;
  }
  gSleepUntilUs = next;
  return next;
}

// Sleeps until the monotonic time `untilUs` (INT64_MAX: without limit) or a
// wake. The timeout is relative, computed from the monotonic clock, and the
// wait is a select, which libfaketime speeds up with the clock (a fortified
// ppoll it would not see); rounded up, never early.
void SleepUntil(int64_t untilUs) {
  timeval timeout, *limit = nullptr;
  int64_t leftUs = 0;
  if (untilUs != INT64_MAX) {
    wdTimeVal now;
    leftUs = gClock(&now) == 0 ? untilUs - Us(now) : kPassGapUs;
    if (leftUs <= 0) return;
    timeout.tv_sec = static_cast<time_t>(leftUs / 1000000);
    timeout.tv_usec = static_cast<suseconds_t>(leftUs % 1000000);
    limit = &timeout;
  }
  fd_set wake;
  FD_ZERO(&wake);
  int nfds = 0;
  if (gWakeFd >= 0 && gWakeFd < FD_SETSIZE) {
    FD_SET(gWakeFd, &wake);
    nfds = gWakeFd + 1;
  }
#ifdef WD_TIMER_STATS
  int64_t before = wd_monotonicUs();
  // A wait cut short by the signal or a wake is no sample.
  int ready = select(nfds, &wake, nullptr, nullptr, limit);
  if (ready == 0) {
    wdLock lock(&timerMutex);
    NoteWake(wd_monotonicUs() - before - leftUs);
  }
  if (gStatsRequests.exchange(0) > 0) WriteStats();
#else
  int ready = select(nfds, &wake, nullptr, nullptr, limit);
#endif
  if (ready > 0) {
    uint64_t count;
    ssize_t ignored = read(gWakeFd, &count, sizeof count);
    (void)ignored;
  }
}

// Takes an id, arms the timer, and gives the id back when arming fails.
int Create(bool periodic, int interval, wdTimerCallback callback, int modId)
    WD_EXCLUDES(timerMutex) {
  int id;
  {
    wdLock lock(&timerMutex);
    id = ++tmIdIndex;
  }
  int rc = -1;
  if (callback != nullptr) {
    rc = periodic ? wd_addPTimer(id, interval, callback, modId)
                  : wd_addTimer(id, interval, callback, modId);
  }
  if (rc == 0) return id;
  tcdbg_printf(periodic ? "Error: Can't start periodic timer\n" : "Error: Can't start timer\n");
  wdLock lock(&timerMutex);
  if (tmIdIndex == id) --tmIdIndex;
  return -1;
}

}  // namespace

int gettimeofday_n(wdTimeVal* tv) { return wd_clockRealtime(&tv->tv_sec, &tv->tv_usec); }

void wd_timerSetClock(int (*clock)(wdTimeVal* tv)) { gClock = clock ? clock : MonotonicClock; }

int64_t wd_timerSleepUntil(void) {
  wdLock lock(&timerMutex);
  return gSleepUntilUs;
}

void wd_timerInit(void) {
  {
    wdLock lock(&timerMutex);
    timer_list_init(&time_list);
    timer_list_init(&periodic_time_list);
  }
#ifdef WD_TIMER_STATS
  // Only the timer thread takes SIGURG: blocked here, in main before any
  // other thread starts, so that every later thread inherits the mask.
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = OnStatsSignal;
  sigaction(SIGURG, &action, nullptr);
  sigset_t urg;
  sigemptyset(&urg);
  sigaddset(&urg, SIGURG);
  pthread_sigmask(SIG_BLOCK, &urg, nullptr);
#endif
  gWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (gWakeFd >= FD_SETSIZE) {
    close(gWakeFd);
    gWakeFd = -1;
    errno = EMFILE;
  }
  if (gWakeFd < 0) {
    tcdbg_printf("wd_timerInit: no eventfd (%s), timers are checked every 100 ms\n",
                 strerror(errno));
  }
  wd_createRtThread(&timer_thread, wd_timerProc, nullptr, "timer");
}

void wd_timerPass(const wdTimeVal* now) {
  struct Noted {
    wdTimerCallback callback;
    int id;
    int arg;
  };
  // Room for the periodic calls of a pass, grown here, outside the lock,
  // when the list outgrew it in the pass before.
  thread_local std::vector<Noted> noted(32);
  thread_local size_t wanted = 0;
  if (noted.size() < wanted) noted.resize(wanted);
  size_t calls = 0;
  timerNode* dueFirst = nullptr;
  {
    wdLock lock(&timerMutex);
    dueFirst = TakeDueOneShots(now, 0);
    wanted = static_cast<size_t>(periodic_time_list.count);
    timerListIterator it;
    for (void* e = timer_list_get_first(&periodic_time_list, &it); e != nullptr && calls < noted.size();
         e = timer_list_get_next(&it)) {
      timerNode* t = static_cast<timerNode*>(e);
      if (Caller(t) != 0 || !IsDue(t, now)) continue;
#ifdef WD_TIMER_STATS
      if (IsModuleTimer(t->callback)) NoteExpiry(now, &t->expiry, t->arg);
#endif
      noted[calls++] = Noted{t->callback, t->id, t->arg};
      ExpiryAfter(now, t->interval, t);
    }
  }
  CallRemoved(dueFirst);
  for (size_t i = 0; i < calls; ++i) noted[i].callback(noted[i].id, noted[i].arg);
}

void* wd_timerProc(void*) {
#ifdef WD_TIMER_STATS
  sigset_t urg;
  sigemptyset(&urg);
  sigaddset(&urg, SIGURG);
  pthread_sigmask(SIG_UNBLOCK, &urg, nullptr);
#endif
  bool clockFailed = false;
  for (;;) {
    wdTimeVal now;
    int64_t until;
    if (gClock(&now) == 0) {
      clockFailed = false;
      wd_timerPass(&now);
      // Short periodic timers wait 100 ms from the end of the pass, after
      // their calls, as the fixed wait after each pass made them.
      wdTimeVal end;
      if (gClock(&end) == 0) now = end;
      until = gWakeFd >= 0 ? NextDue(Us(now)) : Us(now) + kPassGapUs;
    } else {
      // Without a time no timer can be judged due; they wait for the clock,
      // which is tried again every 100 ms.
      if (!clockFailed) {
        clockFailed = true;
        tcdbg_printf("wd_timerProc: the clock cannot be read (%s), timers wait\n", strerror(errno));
      }
      until = INT64_MIN;
    }
    if (until == INT64_MIN) {
      timespec retry = {0, kPassGapUs * 1000};
      nanosleep(&retry, nullptr);
    } else {
      SleepUntil(until);
    }
  }
  return nullptr;
}

void wd_timerServe(int modId) {
  wdLock lock(&timerMutex);
  tlServer = ++gServers;
  tlServedMod = modId;
}

void wd_timerServeEnd(void) {
  if (tlServer == 0) return;
  bool left = false;
  {
    wdLock lock(&timerMutex);
    EachTimer([&](timerNode* t) WD_REQUIRES(timerMutex) {
      if (t->server != tlServer && t->server != -tlServer) return;
      t->server = 0;
      left = true;
    });
    if (left) gSleepUntilUs = INT64_MIN;
  }
  tlServer = 0;
  tlServedMod = -1;
  if (left) WakeTimerThread();
}

void wd_timerLend(bool lend) {
  if (tlServer == 0) return;
  bool wake = false;
  {
    wdLock lock(&timerMutex);
    EachTimer([&](timerNode* t) WD_REQUIRES(timerMutex) {
      if (t->server != (lend ? tlServer : -tlServer)) return;
      t->server = -t->server;
      // Due before the timer thread wakes: it must look anew.
      if (lend && Us(t->expiry) < gSleepUntilUs) wake = true;
    });
    if (wake) gSleepUntilUs = INT64_MIN;
  }
  if (wake) WakeTimerThread();
}

int64_t wd_timerServedWait(void) {
  if (tlServer == 0) return -1;
  wdTimeVal now;
  if (gClock(&now) != 0) return kPassGapUs;  // tried again, as the timer thread does
  int64_t next = INT64_MAX;
  {
    wdLock lock(&timerMutex);
    EachTimer([&](const timerNode* t) WD_REQUIRES(timerMutex) {
      if (t->server == tlServer && Us(t->expiry) < next) next = Us(t->expiry);
    });
  }
  if (next == INT64_MAX) return -1;
  return next > Us(now) ? next - Us(now) : 0;
}

void wd_timerServedPass(bool late) {
  if (tlServer == 0) return;
  wdTimeVal now;
  if (gClock(&now) != 0) return;
  // A module has a few timers; calls beyond this room stay due and are made
  // in the next pass, which the next wait starts at once.
  constexpr int kRoom = 16;
  struct Noted {
    wdTimerCallback callback;
    int id;
    int arg;
  } noted[kRoom];
  int calls = 0;
  timerNode* dueFirst = nullptr;
  {
    wdLock lock(&timerMutex);
    dueFirst = TakeDueOneShots(&now, tlServer);
    timerListIterator it;
    for (void* e = timer_list_get_first(&periodic_time_list, &it); e != nullptr && calls < kRoom;
         e = timer_list_get_next(&it)) {
      timerNode* t = static_cast<timerNode*>(e);
      while (Caller(t) == tlServer && IsDue(t, &now) && calls < kRoom) {
#ifdef WD_TIMER_STATS
        if (IsModuleTimer(t->callback)) NoteExpiry(&now, &t->expiry, t->arg);
#endif
        noted[calls++] = Noted{t->callback, t->id, t->arg};
        if (!late) {
          ExpiryAfter(&now, t->interval, t);
          break;
        }
        wdTimeVal due = t->expiry;
        ExpiryAfter(&due, t->interval, t);
      }
    }
  }
  CallRemoved(dueFirst);
  for (int i = 0; i < calls; ++i) noted[i].callback(noted[i].id, noted[i].arg);
}

int wd_addTimer(int id, int interval, wdTimerCallback callback, int arg) {
  return Arm(&time_list, id, interval, callback, arg);
}

int wd_addPTimer(int id, int interval, wdTimerCallback callback, int arg) {
  return Arm(&periodic_time_list, id, interval, callback, arg);
}

int wd_delTimer(int id) { return Disarm(&time_list, id); }

int wd_delPTimer(int id) { return Disarm(&periodic_time_list, id); }

int wd_setDefaultTimer(int interval, int modId) {
  return Create(false, interval, wd_sendModTimeout, modId);
}

int wd_setDefaultPTimer(int interval, int modId) {
  return Create(true, interval, wd_sendModTimeout, modId);
}

int wd_setPPPTimer(int interval, int modId) {
  return Create(true, interval, wd_sendModPPPTimeout, modId);
}

int wd_setEventTimer(int interval, int modId, int event) {
  wdTimerCallback callback = event == TX_CHECK_TIMEOUT  ? wd_sendMsgTxChkTimeout
                             : event == TX_SAVE_TIMEOUT ? wd_sendMsgTxSaveTimeout
                                                        : nullptr;
  return Create(false, interval, callback, modId);
}

int wd_timerStop(int id) { return wd_delTimer(id); }

int wd_timerPStop(int id) { return wd_delPTimer(id); }

int wd_sendModTimeout(int, int modId) {
  wd_simpleSendMsg(TIMER_EXPIRED, 0, modId, nullptr, 0);
  return 0;
}

int wd_sendModPPPTimeout(int, int modId) {
  wd_simpleSendMsg(PPP_TIMER_EXPIRED, 0, modId, nullptr, 0);
  return 0;
}

int wd_sendMsgTxChkTimeout(int, int modId) {
  wd_simpleSendMsg(TX_CHECK_TIMEOUT, 0, modId, nullptr, 0);
  return 0;
}

int wd_sendMsgTxSaveTimeout(int, int modId) {
  wd_simpleSendMsg(TX_SAVE_TIMEOUT, 0, modId, nullptr, 0);
  return 0;
}
