// Console trace, module channels, event sending, module threads and the common
// module loop.
//
// Threads: every thread of the daemon calls in here. The module table fields
// that cross threads (fd, threadId, timer) are atomics; maxNumFd only grows.
// A module thread is started by the main thread (start-up or command type 2)
// and ends itself in wd_threadExit; gStartLock orders the storing of its id
// after creation before the clearing at its end.
#include "wd_common.h"
#include "wd_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <limits.h>
#include <pthread.h>
#include <stdlib.h>

#include <initializer_list>

#include "tcapi.h"
#include "wd_modules.h"
#include "wd_timer.h"

wdSubModEntry gSubMod[WD_MOD_NUM];
std::atomic<int> maxNumFd{0};
std::atomic<int> sngReload{0};
int debuglevel = 0;

void wd_dbgTrace(const char* func, int line, const char* format, ...) {
  char text[2048];
  int n = snprintf(text, sizeof text, "Function:%s Line=%d", func, line);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof text) {
    va_list ap;
    va_start(ap, format);
    vsnprintf(text + n, sizeof text - static_cast<size_t>(n), format, ap);
    va_end(ap);
  }
  // O_APPEND: on the gateway this is a character device, in the test gateway
  // a capture file that must not be overwritten from its start.
  int fd = open("/dev/console", O_WRONLY | O_APPEND | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    static const char kFailed[] = "open failed ";
    ssize_t ignored = write(STDOUT_FILENO, kFailed, sizeof kFailed - 1);
    (void)ignored;
    return;
  }
  size_t len = strlen(text), done = 0;
  while (done < len) {
    ssize_t w = write(fd, text + done, len - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) break;
    done += static_cast<size_t>(w);
  }
  close(fd);
}

void wd_chanlAddr(int modId, sockaddr_un* addr) {
  memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  memcpy(addr->sun_path, gSubMod[modId].chanlPath, WD_CHANL_PATH_SIZE);
  addr->sun_path[WD_CHANL_PATH_SIZE - 1] = '\0';
}

int wd_estFdChanl(int modId) {
  wdSubModEntry& entry = gSubMod[modId];
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || fd >= FD_SETSIZE) {
    // A descriptor that select cannot wait on is as useless as none.
    tcdbg_printf("gModule#%d#, cannot make a channel socket: %s\n", modId,
                 fd < 0 ? strerror(errno) : "descriptor beyond FD_SETSIZE");
    if (fd >= 0) close(fd);
    entry.fd = 0;
    return -1;
  }
  entry.fd = fd;
  sockaddr_un addr;
  wd_chanlAddr(modId, &addr);
  unlink(addr.sun_path);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    fprintf(stderr, "gModule#%d#, Port is currently being used by some other application \n",
            modId);
  }
  int seen = maxNumFd.load();
  while (static_cast<unsigned>(fd) > static_cast<unsigned>(seen) &&
         !maxNumFd.compare_exchange_weak(seen, fd)) {
  }
  return fd;
}

int wd_simpleSendMsg(int eventType, int srcMod, int destMod, const void* data, unsigned len) {
  WD_TRACE("wd_simpleSendMsg");
  if (destMod < 0 || destMod >= WD_MOD_NUM) return -1;
  wdMsg msg;
  memset(&msg, 0, sizeof msg);
  msg.eventType = eventType;
  msg.srcMod = srcMod;
  msg.destMod = destMod;
  if (data != nullptr && len >= 1 && len <= WD_MSG_MAX_PAYLOAD) {
    memcpy(msg.data, data, len);
    msg.datalen = static_cast<uint8_t>(len > 255 ? 255 : len);
  }
  sockaddr_un addr;
  wd_chanlAddr(destMod, &addr);
  WD_TRACE("start to send eventType=%d destMod=%d", eventType, destMod);
  int fd = gSubMod[destMod].fd;
  ssize_t sent = -1;
  if (fd > 0) {
    do {
      sent = sendto(fd, &msg, sizeof msg, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    } while (sent < 0 && errno == EINTR);
  }
  WD_TRACE("send bytesWritten=%d", static_cast<int>(sent));
  return static_cast<int>(sent);
}

int wd_clockRealtime(int64_t* sec, int32_t* usec) {
  if (sizeof(time_t) < 8) {
#ifdef SYS_clock_gettime64
    struct {
      int64_t sec;
      int64_t nsec;
    } ts64;
    if (syscall(SYS_clock_gettime64, CLOCK_REALTIME, &ts64) == 0) {
      *sec = ts64.sec;
      *usec = static_cast<int32_t>(ts64.nsec / 1000);
      return 0;
    }
#endif
  }
  struct timespec ts;
  if (clock_gettime(CLOCK_REALTIME, &ts) != 0) return -1;
  *sec = sizeof(time_t) < 8 ? static_cast<int64_t>(static_cast<uint32_t>(ts.tv_sec))
                            : static_cast<int64_t>(ts.tv_sec);
  *usec = static_cast<int32_t>(ts.tv_nsec / 1000);
  return 0;
}

int wd_initTimeVal(struct timeval* tv, int seconds) {
  tv->tv_sec = seconds;
  tv->tv_usec = 0;
  return 0;
}

// ---- Real-time threads and configuration numbers ----

int wd_createRtThread(pthread_t* tid, void* (*body)(void*), void* arg, const char* name) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
  pthread_attr_setschedpolicy(&attr, SCHED_RR);
  sched_param param;
  param.sched_priority = 75;
  pthread_attr_setschedparam(&attr, &param);
  int rc = pthread_create(tid, &attr, body, arg);
  pthread_attr_destroy(&attr);
  if (rc == 0) return 0;
  static std::atomic<bool> told{false};
  if (!told.exchange(true)) {
    tcdbg_printf(
        "watchdogd: SCHED_RR priority 75 refused for the %s thread (%s); "
        "real-time threads run with default scheduling\n",
        name, strerror(rc));
  }
  return pthread_create(tid, nullptr, body, arg);
}

uint32_t wd_parseUnsigned(const char* text) {
  uint64_t value = 0;
  for (const char* p = text; *p >= '0' && *p <= '9'; ++p) {
    value = value * 10 + static_cast<uint64_t>(*p - '0');
    if (value > UINT32_MAX) return UINT32_MAX;
  }
  return static_cast<uint32_t>(value);
}

int wd_periodMs(uint32_t seconds) {
  constexpr uint32_t kMaxSeconds = INT_MAX / 1000;
  return static_cast<int>((seconds < kMaxSeconds ? seconds : kMaxSeconds) * 1000);
}

// ---- Module threads ----

namespace {

pthread_mutex_t gStartLock = PTHREAD_MUTEX_INITIALIZER;
thread_local int tlsChannelFd = -1;  // the channel this module thread opened

struct ModDef {
  const char* chanlPath;
  wdModHandler handler;
};

const ModDef kModDefs[MOD_MSG_RESEND] = {
    {"/var/wd_default.chanl", nullptr},
    {"/var/wd_pppoe.chanl", mod_pppoeHandler},
    {"/var/wd_tr069.chanl", mod_placeholderHandler<MOD_TR069>},
    {"/var/wd_arp.chanl", mod_placeholderHandler<MOD_ARP>},
    {"/var/wd_ip_route.chanl", mod_placeholderHandler<MOD_IP_ROUTE>},
    {"/var/wd_periodic_info.chanl", mod_placeholderHandler<MOD_PERIODIC_INFO>},
    {"/var/wd_igmp.chanl", mod_placeholderHandler<MOD_IGMP>},
    {"/var/wd_voip_stats.chanl", mod_placeholderHandler<MOD_VOIP_STATS>},
    {"/var/wd_voip_register.chanl", mod_placeholderHandler<MOD_VOIP_REGISTER>},
    {"/var/wd_general.chanl", mod_placeholderHandler<MOD_GENERAL>},
    {"/var/wd_monitor.chanl", mod_placeholderHandler<MOD_MONITOR>},
    {"/var/wd_smple.chanl", mod_sampleHandler},
};

bool Unset(const char* value) { return value[0] == '\0' || strcmp(value, "0") == 0; }

[[noreturn]] void EndModule(uint8_t modId) {
  wdSubModEntry& entry = gSubMod[modId];
  int own = tlsChannelFd;
  {
    wdLock lock(&gStartLock);
    entry.timer = 0;
    // Only what is this thread's own: a second thread started for the same
    // module meanwhile keeps its channel and its id.
    int fd = own;
    if (own > 0 && entry.fd.compare_exchange_strong(fd, 0)) FD_ZERO(&entry.fdSet);
    pthread_t self = pthread_self();
    if (pthread_equal(entry.threadId.load(), self)) entry.threadId = pthread_t{};
  }
  if (own > 0) close(own);
  tlsChannelFd = -1;
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
  pthread_t tid;
  int rc = pthread_create(&tid, nullptr, entry.handler, reinterpret_cast<void*>(60));
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

void wd_threadExit(uint8_t modId, int periodicTimerId) {
  if (periodicTimerId != 0) wd_timerPStop(periodicTimerId);
  EndModule(modId);
}

void wd_pppthreadExit(uint8_t modId, int timerId) {
  if (timerId != 0) wd_timerStop(timerId);
  EndModule(modId);
}

int wd_modOpenChannel(int modId) {
  int fd = wd_estFdChanl(modId);
  if (fd < 0) return -1;
  tlsChannelFd = fd;
  FD_ZERO(&gSubMod[modId].fdSet);
  FD_SET(fd, &gSubMod[modId].fdSet);
  return fd;
}

void wd_modLoop(int modId, const wdModLoopText& text, wdLoopAction (*onMsg)(wdMsg* msg, void* ctx),
                void* ctx) {
  wdSubModEntry& entry = gSubMod[modId];
  const int fd = tlsChannelFd;
  auto say = [&text](int line, const wdLoopMsg& m, int value) {
    if (m.text == nullptr) return;
    if (m.how == WD_SAY_CONSOLE) tcdbg_printf(m.text, value);
    if (m.how == WD_SAY_TRACE && debuglevel > 0) wd_dbgTrace(text.handlerName, line, m.text, value);
  };
  for (;;) {
    // The set is built once by wd_modOpenChannel; select works on a copy so
    // that a wait that empties it cannot leave the module waiting on nothing.
    fd_set ready = entry.fdSet;
    int ret = select(maxNumFd + 1, &ready, nullptr, nullptr, nullptr);
    if (ret == -1) {
      say(__LINE__, text.selectError, ret);
      continue;
    }
    if (ret == 0) {
      say(__LINE__, text.selectTimeout, 0);
      continue;
    }
    if (!FD_ISSET(fd, &ready)) {
      say(__LINE__, text.noFdInSet, 0);
      continue;
    }
    wdMsg* msg = static_cast<wdMsg*>(calloc(1, WD_MSG_SIZE));
    if (msg == nullptr) {
      say(__LINE__, text.mallocFail, 0);
      continue;
    }
    ssize_t n = recv(fd, msg, WD_MSG_SIZE, 0);
    wdLoopAction action = WD_LOOP_CONTINUE;
    if (n == 0) {
      say(__LINE__, text.zeroBytes, 0);
    } else if (n > 0) {
      action = onMsg(msg, ctx);
    }
    free(msg);
    if (action == WD_LOOP_EXIT) return;
  }
}
