// The ARP module. Lines of /proc/net/arp and /proc/net/if_inet6 are read with
// a 512-byte line buffer and split into words of at most 47 characters; a
// line without all six fields is no entry.
#include "wd_arp.h"

#include <arpa/inet.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_modthread.h"
#include "wd_syslog.h"
#include "wd_timer.h"

namespace {

constexpr const char* kNode = "Watchdog_ARP";
constexpr const char* kHandler = "mod_arpHandler";
constexpr size_t kLine = 512;

struct Words {
  char w[6][48];
};

// The six words of a line; 0 when it has fewer.
int Split(const char* line, Words* out) {
  return wd_splitWords(line, out->w[0], 6, sizeof out->w[0]) == 6;
}

// The global (scope "00") IPv6 address of `device` from the start of
// /proc/net/if_inet6 into `addr`; empty when it has none. Leaves the file
// rewound for the next entry.
void GlobalAddress(FILE* inet6, const char* device, char* addr, size_t size) {
  addr[0] = '\0';
  char line[kLine];
  Words v;
  rewind(inet6);
  while (fgets(line, sizeof line, inet6) != nullptr) {
    if (Split(line, &v) && strcmp(v.w[5], device) == 0 && strcmp(v.w[3], "00") == 0) {
      snprintf(addr, size, "%s", v.w[0]);
      break;
    }
  }
  rewind(inet6);
}

const wdModLoopText kText = {
    kHandler,
    {"\r\nSelect error, ret=%d\r\n", WD_SAY_CONSOLE},
    {nullptr, WD_SAY_NOTHING},
    {"File discriptor is no in fd set!", WD_SAY_TRACE},
    {"[USE CASE ARP] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!", WD_SAY_TRACE},
    {nullptr, WD_SAY_NOTHING},
};

void OnConfigChange(int* timerId) {
  char timer[16] = {0};
  char reset[16] = {0};
  char query[16] = {0};
  if (tcapi_get(kNode, "Timer", timer) != 0) {
    WD_TRACE_AS(kHandler, "cmsObj get fail");
    return;
  }
  tcapi_get(kNode, "ResetTable", reset);
  tcapi_get(kNode, "Query", query);
  wd_changeModPeriod(MOD_ARP, wd_parseSetting(kNode, "Timer", timer), timerId);
  bool acted = false;
  // Only the exact text "1" is a request. The reset comes first, so that a
  // report asked for in the same change shows the table after it.
  if (strcmp(reset, "1") == 0) {
    snprintf(reset, sizeof reset, "0");
    clearARPTable();
    acted = true;
  }
  if (strcmp(query, "1") == 0) {
    snprintf(query, sizeof query, "0");
    showARPTable();
    acted = true;
  }
  if (acted) {
    tcapi_set(kNode, "ResetTable", reset);
    tcapi_set(kNode, "Query", query);
  }
}

wdLoopAction OnEvent(wdMsg* msg, wdModRun* run) {
  switch (msg->eventType) {
    case TIMER_EXPIRED:
      showARPTable();
      break;
    case CONFIG_CHANGE:
      OnConfigChange(&run->timerId);
      break;
    case THREAD_EXIT:
      return WD_LOOP_EXIT;
    default:
      break;
  }
  return WD_LOOP_CONTINUE;
}

bool StartRule(uint32_t* period) {
  char value[32];
  memset(value, 0, sizeof value);
  if (tcapi_get(kNode, "Timer", value) != 0) {
    tcdbg_printf("\r\nget arp Timer error!\r\n");
    tcdbg_printf("\r\ncreate MOD_ARP thread fail!\r\n");
    return false;
  }
  if (wd_settingUnset(value)) {
    tcdbg_printf("\r\narpObj->timer error!\r\n");
    return false;
  }
  WD_START_TRACE("arpObj->timer is not 0, So start ARP modurle");
  *period = wd_parseUnsigned(value);
  return true;
}

}  // namespace

int deleteARPEntry(const char* ipAddr) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) tcdbg_printf("Error in create socket for ARP.");
  struct arpreq req;
  memset(&req, 0, sizeof req);
  sockaddr_in* pa = reinterpret_cast<sockaddr_in*>(&req.arp_pa);
  pa->sin_family = AF_INET;
  pa->sin_port = 0;
  inet_aton(ipAddr, &pa->sin_addr);
  req.arp_ha.sa_family = ARPHRD_ETHER;
  req.arp_flags = ATF_PERM;
  int result = 0;
  if (fd < 0 || ioctl(fd, SIOCDARP, &req) < 0) {
    tcdbg_printf("Delete ARP %s entry failed... \n", ipAddr);
    result = 1;
  }
  if (fd >= 0) close(fd);
  return result;
}

void clearARPTable(void) {
  FILE* arp = fopen("/proc/net/arp", "re");
  if (arp == nullptr) return;
  char line[kLine];
  char ip[48];
  while (fgets(line, sizeof line, arp) != nullptr) {
    if (strstr(line, "HW address") != nullptr) continue;
    if (wd_splitWords(line, ip, 1, sizeof ip) == 1) deleteARPEntry(ip);
  }
  fclose(arp);
}

void mod_arpReport(FILE* arp, FILE* inet6) {
  if (arp == nullptr) return;
  char line[kLine];
  Words e;
  while (fgets(line, sizeof line, arp) != nullptr) {
    if (strstr(line, "HW address") != nullptr || !Split(line, &e)) continue;
    char ipv6[48] = {0};
    if (inet6 != nullptr) GlobalAddress(inet6, e.w[5], ipv6, sizeof ipv6);
    char text[kLine];
    snprintf(text, sizeof text, "%s|%s|%s|%s|%s", e.w[3], e.w[0], ipv6, e.w[5], e.w[2]);
    wd_syslogStr(WD_CAT_ARP, text);
  }
}

int showARPTable(void) {
  FILE* arp = fopen("/proc/net/arp", "re");
  FILE* inet6 = fopen("/proc/net/if_inet6", "re");
  mod_arpReport(arp, inet6);
  if (arp != nullptr) fclose(arp);
  if (inet6 != nullptr) fclose(inet6);
  return 0;
}

const wdModDesc kArpModule = {
    MOD_ARP,
    "/var/wd_arp.chanl",
    {kNode, "Timer", nullptr},
    {StartRule, "arp thread ret=%d!"},
    {0, 0},  // no data record
    {mod_arpHandler, &kText, nullptr, OnEvent, nullptr},
    {WD_MOD_TIMER_PERIOD, 0, false, false},
};

void* mod_arpHandler(void* arg) { wd_runModule(kArpModule, arg); }
