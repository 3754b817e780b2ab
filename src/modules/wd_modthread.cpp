// Module threads: the module table's initialisation, the start-up rules, the
// start and the end of a module thread, and the common module loop.
//
// Threads: the main thread starts module threads (start-up, command type 2);
// each module thread ends itself. gStartLock orders the storing of a new
// thread's id after its creation before the clearing at a thread's end, so a
// thread that ends never clears the id of a later thread of its module.
#include "wd_modthread.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <initializer_list>

#include "libwdfunc.h"
#include "tcapi.h"
#include "wd_base.h"
#include "wd_lock.h"
#include "wd_modules.h"
#include "wd_timer.h"

namespace {

wdMutex gStartLock = PTHREAD_MUTEX_INITIALIZER;

bool Unset(const char* value) { return value[0] == '\0' || strcmp(value, "0") == 0; }

[[noreturn]] void EndModule(uint8_t modId, wdChanl* ch) {
  wdSubModEntry& entry = gSubMod[modId];
  entry.timer = 0;
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

int wd_initSubModData(void) {
  for (int id = 0; id < MOD_MSG_RESEND; ++id) {
    snprintf(gSubMod[id].chanlPath, WD_CHANL_PATH_SIZE, "%s", kModDefs[id].chanlPath);
    gSubMod[id].handler = kModDefs[id].handler;
    if (id > 0) gSubMod[id].timer = 0;
  }
  return 0;
}

int wd_startModThread(int modId) {
  wdSubModEntry& entry = gSubMod[modId];
  wdLock lock(&gStartLock);
  if (entry.threadId.load() != pthread_t{}) {
    // A second thread would only double the module's work and its timer.
    tcdbg_printf("module %d is already running\n", modId);
    return EALREADY;
  }
  pthread_t tid;
  int rc = wd_createThread(&tid, entry.handler, reinterpret_cast<void*>(60));
  if (rc == 0) entry.threadId = tid;
  return rc;
}

int wd_creatModThreads(void) {
  if (!wd_isWdEnable()) return 0;
  int ret = 0;
  char value[32];
  char second[32];

  memset(value, 0, sizeof value);
  if (tcapi_get("Watchdog_PPP", "Timer", value) != 0) {
    tcdbg_printf("\r\nget pppoe timer error!\r\n");
    tcdbg_printf("\r\ncreate MOD_PPPOE thread fail!\r\n");
  } else if (Unset(value)) {
    tcdbg_printf("\r\npppObj->timer error!\r\n");
  } else {
    WD_TRACE("ppptimer=%s", value);
    gSubMod[MOD_PPPOE].timer = wd_parseUnsigned(value);
    ret = wd_startModThread(MOD_PPPOE);
    WD_TRACE("ppp thread ret=%d!", ret);
  }

  memset(value, 0, sizeof value);
  memset(second, 0, sizeof second);
  if (tcapi_get("Watchdog_TR069", "RegisterTimer", value) != 0) {
    tcdbg_printf("\r\nget tr069 RegisterTimer error!\r\n");
    tcdbg_printf("\r\ncreate MOD_TR069 thread fail!\r\n");
  } else {
    tcdbg_printf("\r\ntr069Obj->registerTimer = %s\r\n", value);
    tcapi_get("Watchdog_TR069", "PITimer", second);
    if (Unset(value) || Unset(second)) {
      tcdbg_printf("\r\ntr069Obj->registerTimer error!\r\n");
    } else {
      WD_TRACE("tr069Obj->registerTimer and tr069Obj->PITimer are not 0, So start TR069 modurle");
      gSubMod[MOD_TR069].timer = wd_parseUnsigned(value);
      ret = wd_startModThread(MOD_TR069);
      WD_TRACE("tr069 thread ret=%d!", ret);
    }
  }

  memset(value, 0, sizeof value);
  if (tcapi_get("Watchdog_ARP", "Timer", value) != 0) {
    tcdbg_printf("\r\nget arp Timer error!\r\n");
    tcdbg_printf("\r\ncreate MOD_ARP thread fail!\r\n");
  } else if (Unset(value)) {
    tcdbg_printf("\r\narpObj->timer error!\r\n");
  } else {
    WD_TRACE("arpObj->timer is not 0, So start ARP modurle");
    gSubMod[MOD_ARP].timer = wd_parseUnsigned(value);
    ret = wd_startModThread(MOD_ARP);
    WD_TRACE("arp thread ret=%d!", ret);
  }

  memset(value, 0, sizeof value);
  if (tcapi_get("Watchdog_WDInfo", "Timer", value) != 0) {
    tcdbg_printf("\r\nget info Timer error!\r\n");
    tcdbg_printf("\r\ncreate MOD_PERIODIC_INFO thread fail!\r\n");
  } else {
    WD_TRACE("infoObj->timer = %s", value);
    if (Unset(value)) {
      tcdbg_printf("\r\ninfoObj->timer error!\r\n");
    } else {
      gSubMod[MOD_PERIODIC_INFO].timer = wd_parseUnsigned(value);
      ret = wd_startModThread(MOD_PERIODIC_INFO);
      WD_TRACE("info thread ret=%d!", ret);
    }
  }

  char mode[8];
  memset(value, 0, sizeof value);
  memset(mode, 0, sizeof mode);
  tcapi_get("Watchdog_Route", "Timer", value);
  tcapi_get("Watchdog_Route", "Mode", mode);
  if (Unset(mode)) {
    tcdbg_printf("\r\nget route Timer error!\r\n");
    tcdbg_printf("\r\ncreate MOD_IP_ROUTE thread fail!\r\n");
  } else {
    if (strcmp(mode, "1") == 0 && value[0] != '\0') {
      gSubMod[MOD_IP_ROUTE].timer = wd_parseUnsigned(value);
    }
    ret = wd_startModThread(MOD_IP_ROUTE);
    WD_TRACE("route thread ret=%d!", ret);
  }

  memset(value, 0, sizeof value);
  if (tcapi_get("Watchdog_VoIPStatus", "RegisterTimer", value) != 0) {
    tcdbg_printf("get voipstatus registerTimer error!");
    tcdbg_printf("create MOD_VOIP_REGISTER thread fail!\r\n");
  } else {
    WD_TRACE("voipStatusObj->registerTimer = %s", value);
    if (Unset(value)) {
      tcdbg_printf("voipStatusObj->registerTimer error!");
    } else {
      tcdbg_printf("voipStatusObj->registerTimer is not 0, So start Voip register modurle");
      gSubMod[MOD_VOIP_REGISTER].timer = wd_parseUnsigned(value);
      ret = wd_startModThread(MOD_VOIP_REGISTER);
    }
  }

  for (int id : {MOD_IGMP, MOD_VOIP_STATS, MOD_MONITOR, MOD_GENERAL}) ret = wd_startModThread(id);
  return ret;
}

uint32_t wd_updateModTimer(uint8_t modId) {
  static const struct {
    const char* node;
    const char* attr;
  } kTimerAttr[] = {{nullptr, nullptr},
                    {"Watchdog_PPP", "Timer"},
                    {"Watchdog_TR069", "RegisterTimer"},
                    {"Watchdog_ARP", "Timer"},
                    {"Watchdog_Route", "Timer"},
                    {"Watchdog_WDInfo", "Timer"},
                    {"Watchdog_IGMP", "Period"},
                    {"Watchdog_VoIPStats", "Period"},
                    {"Watchdog_VoIPStatus", "RegisterTimer"}};
  if (modId < MOD_PPPOE || modId > MOD_VOIP_REGISTER) {
    tcdbg_printf("\r\n Mode is error\r\n ");
    return 0;
  }
  char value[16];
  if (modId == MOD_VOIP_STATS) {
    memset(value, 0, sizeof value);
    tcapi_get("Watchdog_VoIPStats", "Mode", value);
    if (strcmp(value, "2") != 0) return 0;
  }
  memset(value, 0, sizeof value);
  tcapi_get(kTimerAttr[modId].node, kTimerAttr[modId].attr, value);
  return wd_parseUnsigned(value);
}

int wd_startModPTimer(uint8_t modId, uint32_t seconds) {
  int id = wd_setDefaultPTimer(wd_periodMs(seconds), modId);
  return id > 0 ? id : 0;
}

int wd_startModTimer(uint8_t modId) {
  wdSubModEntry& entry = gSubMod[modId];
  if (entry.timer == 0) entry.timer = wd_updateModTimer(modId);
  return entry.timer != 0 ? wd_startModPTimer(modId, entry.timer) : 0;
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
        break;
      case WD_DISPATCH_DATAGRAM:
        return l.onMsg(static_cast<wdMsg*>(d.data), l.ctx) != WD_LOOP_EXIT;
    }
    return true;
  };
  wd_waitDispatch(ch->fd, WD_MSG_SIZE, dispatch, &loop);
}
