// The IP route module and its monitor thread.
#include "wd_iproute.h"

#include <linux/rtnetlink.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_lock.h"
#include "wd_modthread.h"
#include "wd_proc.h"
#include "wd_syslog.h"
#include "wd_timer.h"

std::atomic<uint8_t> keepRunThread{0};
wdMutex thread_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr const char* kNode = "Watchdog_Route";
constexpr const char* kHandler = "mod_ipRouteHandler";
// route may wait for the resolver's timeouts (it looks up gateway names).
constexpr int kRouteSeconds = 20;
constexpr size_t kRouteOutputMax = 64 * 1024;  // some 800 routes

struct IpRoute {
  pthread_t monitor;  // the monitor thread, when `monitoring`
  bool monitoring;
};

const wdModLoopText kText = {
    kHandler,
    {"Select error, ret=%d", WD_SAY_CONSOLE},
    {nullptr, WD_SAY_NOTHING},
    {"File discriptor is no in fd set!\r\n", WD_SAY_CONSOLE},
    {"[USE CASE IPRoute] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!", WD_SAY_TRACE},
    {nullptr, WD_SAY_NOTHING},
};

void SetKeepRunning(uint8_t value) WD_REQUIRES(thread_mutex) {
  keepRunThread.store(value, std::memory_order_relaxed);
}

// Waits for the monitor thread to end, when there is one.
void JoinMonitor(IpRoute* r) {
  if (!r->monitoring) return;
  pthread_join(r->monitor, nullptr);
  r->monitoring = false;
}

void OnConfigChange(IpRoute* r, int* timerId) {
  char mode[16] = {0};
  char timer[16] = {0};
  char query[16] = {0};
  if (tcapi_get(kNode, "Mode", mode) != 0) {
    WD_TRACE_AS(kHandler, "cmsObj get fail");
    return;
  }
  tcapi_get(kNode, "Timer", timer);
  tcapi_get(kNode, "Query", query);
  bool periodic = strcmp(mode, "1") == 0;
  bool monitored = strcmp(mode, "2") == 0;
  {
    wdLock lock(&thread_mutex);
    if (monitored) {
      SetKeepRunning(1);
    } else {
      SetKeepRunning(0);
      JoinMonitor(r);
    }
  }
  if (periodic) {
    wd_changeModPeriod(MOD_IP_ROUTE, wd_parseSetting(kNode, "Timer", timer), timerId);
  } else if (monitored) {
    gSubMod[MOD_IP_ROUTE].timer = 0;
    if (*timerId != 0) wd_timerPStop(*timerId);
    *timerId = 0;
    if (!r->monitoring) {
      if (wd_createThread(&r->monitor, monitorRouteTable, nullptr) == 0) {
        r->monitoring = true;
      } else {
        tcdbg_printf("create monitorRouteTable thread error.\r\n");
      }
    }
  }
  if (strcmp(query, "1") == 0) {
    parserRouteTable();
    if (tcapi_set(kNode, "Query", "0") != 0)
      tcdbg_printf("Could not set route object, ret=%d\r\n", 1);
  }
}

wdLoopAction OnEvent(wdMsg* msg, wdModRun* run) {
  IpRoute* r = wd_modState<IpRoute>(run);
  switch (msg->eventType) {
    case TIMER_EXPIRED:
      parserRouteTable();
      break;
    case CONFIG_CHANGE:
      OnConfigChange(r, &run->timerId);
      break;
    case THREAD_EXIT:
      if (keepRunThread.load(std::memory_order_relaxed) == 1) {
        wdLock lock(&thread_mutex);
        SetKeepRunning(0);
      }
      JoinMonitor(r);
      return WD_LOOP_EXIT;
    default:
      break;
  }
  return WD_LOOP_CONTINUE;
}

bool StartRule(uint32_t* period) {
  char value[32];
  char mode[8];
  memset(value, 0, sizeof value);
  memset(mode, 0, sizeof mode);
  tcapi_get(kNode, "Timer", value);
  tcapi_get(kNode, "Mode", mode);
  if (wd_settingUnset(mode)) {
    tcdbg_printf("\r\nget route Timer error!\r\n");
    tcdbg_printf("\r\ncreate MOD_IP_ROUTE thread fail!\r\n");
    return false;
  }
  if (strcmp(mode, "1") == 0 && value[0] != '\0') *period = wd_parseUnsigned(value);
  return true;
}

void Init(wdModRun* run) { wd_initIpRoute(&run->timerId); }

}  // namespace

void mod_routeReport(FILE* route) {
  char line[512];
  // The title and the column header.
  for (int i = 0; i < 2; ++i) {
    if (fgets(line, sizeof line, route) == nullptr) return;
  }
  char c[8][16];
  while (fgets(line, sizeof line, route) != nullptr) {
    if (wd_splitWords(line, c[0], 8, sizeof c[0]) != 8) break;
    char text[256];
    snprintf(text, sizeof text, "%s|%s|%s|%s|%s|%s|%s|%s", c[0], c[1], c[2], c[3], c[4], c[5], c[6],
             c[7]);
    if (wd_syslogStr(WD_CAT_ROUTE, text) != 0) tcdbg_printf("Error: wd_syslogStr fail.");
  }
}

void parserRouteTable(void) {
  wdOutput out = {nullptr, kRouteOutputMax, false, nullptr, false};
  // A table cut short by the deadline is not reported: its last row may be cut.
  bool stopped = wd_runShell("route", kRouteSeconds, &out) == WD_RUN_STOPPED;
  if (out.file == nullptr) return;
  if (!stopped) mod_routeReport(out.file);
  fclose(out.file);
}

int loop(int fd, struct sockaddr_nl* addr) {
  (void)addr;
  char buf[4095];
  memset(buf, 0, sizeof buf);
  if (keepRunThread.load(std::memory_order_relaxed) == 0) return 0;
  ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
  if (n < static_cast<ssize_t>(sizeof(nlmsghdr))) return 0;
  nlmsghdr header;
  memcpy(&header, buf, sizeof header);
  if (header.nlmsg_type == RTM_DELROUTE || header.nlmsg_type == RTM_NEWROUTE) parserRouteTable();
  return 0;
}

void* monitorRouteTable(void*) {
  int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd < 0) tcdbg_printf("socket fail");
  sockaddr_nl addr;
  memset(&addr, 0, sizeof addr);
  addr.nl_family = AF_NETLINK;
  addr.nl_pid = 0;
  addr.nl_groups = RTMGRP_IPV4_ROUTE;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
    tcdbg_printf("bind fail");
  }
  while (keepRunThread.load(std::memory_order_relaxed) == 1) {
    // Each poll receives without waiting; between polls the thread sleeps on
    // the socket for at most WD_ROUTE_POLL_MS, so it neither spins nor misses
    // a stop for long. A socket that could not be made is never readable.
    pollfd p = {fd, POLLIN, 0};
    poll(&p, 1, WD_ROUTE_POLL_MS);
    loop(fd, &addr);
  }
  if (fd >= 0) close(fd);
  return nullptr;
}

int wd_initIpRoute(int* timerId) {
  char mode[16] = {0};
  if (tcapi_get(kNode, "Mode", mode) != 0) {
    tcdbg_printf("\r\n wd_initIpRoute get route fail\r\n");
    return -1;
  }
  if (strcmp(mode, "1") == 0) *timerId = wd_startModTimer(kIpRouteModule);
  return 0;
}

const wdModDesc kIpRouteModule = {
    MOD_IP_ROUTE,
    "/var/wd_ip_route.chanl",
    {kNode, "Timer", nullptr},
    {StartRule, "route thread ret=%d!"},
    {0, 0},  // no data record
    {mod_ipRouteHandler, &kText, Init, OnEvent, nullptr},
    {WD_MOD_TIMER_NONE, 0, false, false},  // Init arms it in mode "1"
};

void* mod_ipRouteHandler(void* arg) { wd_runModule(kIpRouteModule, arg); }
