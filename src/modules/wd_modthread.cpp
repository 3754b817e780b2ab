// Module threads: the module table's initialisation, the start-up walk of the
// descriptors, the one module thread body, the start and the end of a module
// thread, and the common module loop.
//
// Threads: the main thread starts module threads (start-up, command type 2);
// each module thread ends itself. gStartLock orders the storing of a new
// thread's id after its creation before the clearing at a thread's end, so a
// thread that ends never clears the id of a later thread of its module.
#include "wd_modthread.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "libwdfunc.h"
#include "tcapi.h"
#include "wd_base.h"
#include "wd_lock.h"
#include "wd_proc.h"
#include "wd_timer.h"

namespace {

wdMutex gStartLock = PTHREAD_MUTEX_INITIALIZER;

// A module thread tells wd_startModThread once its channel is open, or that
// it has none: an event sent after the start then finds the channel instead
// of being lost. It sets its flag and writes an eventfd, made once, on which
// the start waits with a timeout relative to the monotonic clock (poll,
// which libfaketime speeds up; it does not reach into the condition
// variables of a sanitizer build).
std::atomic<bool> gOpenDone[WD_MOD_NUM];
int gOpenFd = -1;
pthread_once_t gOpenFdOnce = PTHREAD_ONCE_INIT;
// How long a start waits for that at most.
constexpr int64_t kOpenWaitUs = 5000000;

void MakeOpenFd() { gOpenFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC); }

void SayOpenDone(uint8_t modId) {
  pthread_once(&gOpenFdOnce, MakeOpenFd);
  gOpenDone[modId] = true;
  uint64_t one = 1;
  if (gOpenFd >= 0 && write(gOpenFd, &one, sizeof one) < 0) {
    // A full counter is a wake already.
  }
}

// Waits until the thread just started for `modId` has said so, or the bound
// has passed (without an eventfd, in steps of 1 ms).
void AwaitOpenDone(uint8_t modId) {
  pthread_once(&gOpenFdOnce, MakeOpenFd);
  int64_t deadline = wd_monotonicUs() + kOpenWaitUs;
  while (!gOpenDone[modId]) {
    int64_t left = deadline - wd_monotonicUs();
    if (left <= 0) return;
    pollfd wake = {gOpenFd, POLLIN, 0};
    int ms = gOpenFd >= 0 ? static_cast<int>((left + 999) / 1000) : 1;
    if (poll(&wake, gOpenFd >= 0 ? 1 : 0, ms) > 0) {
      uint64_t count;
      if (read(gOpenFd, &count, sizeof count) < 0) {
        // Taken by another wait already.
      }
    }
  }
}

// The table handed down by main, in start-up order, and its descriptors by id.
// Written once before any module thread starts.
const wdModDesc* const* gTable = nullptr;
size_t gTableCount = 0;
const wdModDesc* gById[WD_MOD_NUM];

// MOD_DEFAULT has no module; its entry keeps the path it has always had.
constexpr const char* kDefaultChanlPath = "/var/wd_default.chanl";

wdLoopAction Dispatch(wdMsg* msg, void* ctx) {
  wdModRun* run = static_cast<wdModRun*>(ctx);
  return run->desc->thread.event(msg, run);
}

[[noreturn]] void EndModule(uint8_t modId, wdChanl* ch) {
  wdSubModEntry& entry = gSubMod[modId];
  entry.timer = 0;
  wd_timerServeEnd();  // timers still armed for the module go to the timer thread
  // Only what is this thread's own: a second thread started for the same
  // module meanwhile keeps its channel and its id.
  if (ch != nullptr) wd_chanlClose(ch);
  {
    wdLock lock(&gStartLock);
    if (pthread_equal(entry.threadId.load(), pthread_self())) entry.threadId = pthread_t{};
  }
  pthread_detach(pthread_self());  // nobody joins a module thread
  pthread_exit(nullptr);
}

}  // namespace

bool wd_startAlways(uint32_t*) { return true; }

bool wd_settingUnset(const char* value) { return value[0] == '\0' || strcmp(value, "0") == 0; }

void wd_setModTable(const wdModDesc* const* table, size_t count) {
  // While a module thread waits for a program, the timer thread calls the
  // timers it serves. Written once, before any module thread runs.
  if (wd_runWaitHook != wd_timerLend) wd_runWaitHook = wd_timerLend;
  gTable = table;
  gTableCount = count;
  for (auto& d : gById) d = nullptr;
  for (size_t i = 0; i < count; ++i) {
    if (table[i]->id < WD_MOD_NUM) gById[table[i]->id] = table[i];
  }
}

const wdModDesc* wd_findMod(unsigned modId) { return modId < WD_MOD_NUM ? gById[modId] : nullptr; }

int wd_initSubModData(void) {
  pthread_once(&gOpenFdOnce, MakeOpenFd);  // before any thread, for its life
  for (int id = 0; id < MOD_MSG_RESEND; ++id) {
    const wdModDesc* d = gById[id];
    const char* path = id == MOD_DEFAULT ? kDefaultChanlPath : d != nullptr ? d->chanlPath : "";
    snprintf(gSubMod[id].chanlPath, WD_CHANL_PATH_SIZE, "%s", path);
    gSubMod[id].handler = d != nullptr ? d->thread.handler : nullptr;
    if (id > 0) gSubMod[id].timer = 0;
  }
  return 0;
}

void wd_runModule(const wdModDesc& desc, void* arg) {
  wdModRun run;
  memset(&run, 0, sizeof run);
  run.desc = &desc;
  run.arg = arg;
  bool opened = wd_chanlOpen(desc.id, &run.ch) == 0;
  SayOpenDone(desc.id);
  if (!opened) {
    if (desc.timer.oneShot) wd_pppthreadExit(desc.id, 0, nullptr);
    wd_threadExit(desc.id, 0, nullptr);
  }
  // The timers this thread arms for its module are its own to serve: its
  // loop waits until they are due and calls them (wd_modLoop).
  if (!desc.timer.byTimerThread) wd_timerServe(desc.id);
  if (desc.thread.init != nullptr) desc.thread.init(&run);
  if (desc.timer.kind == WD_MOD_TIMER_PERIOD) {
    run.timerId = wd_startModTimer(desc);
  } else if (desc.timer.kind == WD_MOD_TIMER_FIXED) {
    run.timerId = wd_setDefaultPTimer(desc.timer.fixedMs, desc.id);
    if (run.timerId < 0) run.timerId = 0;
  }
  wd_modLoop(&run.ch, *desc.thread.text, Dispatch, &run);
  if (desc.thread.exit != nullptr) desc.thread.exit(&run);
  if (desc.timer.oneShot) wd_pppthreadExit(desc.id, run.timerId, &run.ch);
  wd_threadExit(desc.id, run.timerId, &run.ch);
}

int wd_startModThread(int modId) {
  wdSubModEntry& entry = gSubMod[modId];
  {
    wdLock lock(&gStartLock);
    if (entry.threadId.load() != pthread_t{}) {
      // A second thread would only double the module's work and its timer.
      tcdbg_printf("module %d is already running\n", modId);
      return EALREADY;
    }
    gOpenDone[modId] = false;
    pthread_t tid;
    int rc = wd_createThread(&tid, entry.handler, reinterpret_cast<void*>(60));
    if (rc != 0) return rc;
    entry.threadId = tid;
  }
  // Outside gStartLock, which a thread that cannot open its channel takes
  // to end.
  AwaitOpenDone(static_cast<uint8_t>(modId));
  return 0;
}

int wd_creatModThreads(void) {
  if (!wd_isWdEnable()) return 0;
  int ret = 0;
  for (size_t i = 0; i < gTableCount; ++i) {
    const wdModDesc& d = *gTable[i];
    wdSubModEntry& entry = gSubMod[d.id];
    uint32_t period = entry.timer;
    if (d.start.rule == nullptr || !d.start.rule(&period)) continue;
    entry.timer = period;
    ret = wd_startModThread(d.id);
    if (d.start.startedTrace != nullptr) WD_TRACE(d.start.startedTrace, ret);
  }
  return ret;
}

uint32_t wd_updateModTimer(uint8_t modId) {
  const wdModDesc* d = wd_findMod(modId);
  if (d == nullptr || d->period.attr == nullptr) {
    tcdbg_printf("\r\n Mode is error\r\n ");
    return 0;
  }
  return wd_modPeriod(*d);
}

uint32_t wd_modPeriod(const wdModDesc& desc) {
  if (desc.period.on != nullptr && !desc.period.on()) return 0;
  char value[16];
  memset(value, 0, sizeof value);
  tcapi_get(desc.period.node, desc.period.attr, value);
  return wd_parseUnsigned(value);
}

int wd_startModPTimer(uint8_t modId, uint32_t seconds) {
  int id = wd_setDefaultPTimer(wd_periodMs(seconds), modId);
  return id > 0 ? id : 0;
}

int wd_startModTimer(const wdModDesc& desc) {
  wdSubModEntry& entry = gSubMod[desc.id];
  if (entry.timer == 0) entry.timer = wd_modPeriod(desc);
  return entry.timer != 0 ? wd_startModPTimer(desc.id, entry.timer) : 0;
}

int wd_changeModPeriod(uint8_t modId, uint32_t period, int* timerId) {
  wdSubModEntry& entry = gSubMod[modId];
  if (period == entry.timer) return 0;
  if (*timerId != 0) wd_timerPStop(*timerId);
  entry.timer = period;
  *timerId = period != 0 ? wd_startModPTimer(modId, period) : 0;
  return 1;
}

uint32_t wd_parseSetting(const char* node, const char* attr, const char* text) {
  uint32_t value = wd_parseUnsigned(text);
  if (text[strspn(text, "0123456789")] != '\0') {
    tcdbg_printf("%s %s \"%s\" is not a number, read as %u\n", node, attr, text, value);
  }
  return value;
}

void wd_threadExit(uint8_t modId, int periodicTimerId, wdChanl* ch) {
  if (periodicTimerId != 0) wd_timerPStop(periodicTimerId);
  EndModule(modId, ch);
}

void wd_pppthreadExit(uint8_t modId, int timerId, wdChanl* ch) {
  if (timerId != 0) wd_timerStop(timerId);
  EndModule(modId, ch);
}

void wd_modLoop(const wdChanl* ch, const wdModLoopText& text,
                wdLoopAction (*onMsg)(wdMsg* msg, void* ctx), void* ctx) {
  struct Loop {
    const wdModLoopText& text;
    wdLoopAction (*onMsg)(wdMsg* msg, void* ctx);
    void* ctx;
  } loop = {text, onMsg, ctx};
  auto dispatch = [](const wdDispatch& d, void* arg) {
    const Loop& l = *static_cast<Loop*>(arg);
    auto say = [&l](int line, const wdLoopMsg& m, int value) {
      if (m.text == nullptr) return;
      if (m.how == WD_SAY_CONSOLE) tcdbg_printf(m.text, value);
      if (m.how == WD_SAY_TRACE && debuglevel > 0)
        wd_dbgTrace(l.text.handlerName, line, m.text, value);
    };
    switch (d.what) {
      case WD_DISPATCH_LIMIT:
        wd_timerServedPass(false);
        break;
      case WD_DISPATCH_WAIT_ERROR:
        say(__LINE__, l.text.selectError, d.waitResult);
        break;
      case WD_DISPATCH_WAIT_TIMEOUT:
        say(__LINE__, l.text.selectTimeout, 0);
        break;
      case WD_DISPATCH_NOT_SET:
        say(__LINE__, l.text.noFdInSet, 0);
        break;
      case WD_DISPATCH_NO_MEMORY:
        say(__LINE__, l.text.mallocFail, 0);
        break;
      case WD_DISPATCH_EMPTY:
        say(__LINE__, l.text.zeroBytes, 0);
        break;
      case WD_DISPATCH_RECV_FAILED:
        say(__LINE__, l.text.failedReceive, 0);
        break;
      case WD_DISPATCH_DATAGRAM:
        return l.onMsg(static_cast<wdMsg*>(d.data), l.ctx) != WD_LOOP_EXIT;
    }
    return true;
  };
  // Each wait lasts until the thread's own earliest timer is due; one found
  // due already (the thread was busy when it fell due) is called first.
  auto limit = [](void*) -> int64_t {
    for (;;) {
      int64_t us = wd_timerServedWait();
      if (us != 0) return us;
      wd_timerServedPass(true);
    }
  };
  wd_waitDispatch(ch->fd, WD_MSG_SIZE, dispatch, &loop, limit);
}
