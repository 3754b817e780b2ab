// The PPPoE module: configuration, alarms, the check cycle and the module loop.
//
// The cycle runs the gateway's tools (ifconfig, ping, nslookup) through the
// shell with their output in files under /tmp, and reads the files back. The
// configured ping address and domain go into those command lines, so only
// values that are plain host names or addresses ever reach the shell.
#include "wd_pppoe.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_common.h"
#include "wd_modules.h"
#include "wd_timer.h"

wdPppConfig ppp_config;
char addr_backup[16];
char addr_6backup[40];
char interface_status[256];

uint32_t ppp_fail_times, Ping_fail_times, dns_fail_times;
uint32_t ppp_Num_reset, Ping_Num_reset, dns_Num_reset;
uint32_t alarm_flag;

namespace {

constexpr const char* kStatusFile = "/tmp/ppp_status";
constexpr const char* kPingFile = "/tmp/ping_result";
constexpr const char* kLookupFile = "/tmp/nslookup_result";
constexpr int kDailyMs = 86400000;
constexpr size_t kCommandSize = 128;

// Copies `src` into a text field of `size` bytes, cutting it with the
// module's message when it does not fit.
void StoreText(char* field, size_t size, const char* src) {
  if (strlen(src) < size) {
    snprintf(field, size, "%s", src);
    return;
  }
  tcdbg_printf("String is too long. %s\n", src);
  memcpy(field, src, size - 1);
  field[size - 1] = '\0';
}

// Fetches the four attributes after "Timer" and stores all five.
void StoreConfig(const char* timer) {
  char alertAfter[16] = {0}, maxReset[16] = {0}, pingIp[32] = {0};
  // Room beyond the field's 256 bytes, so that an over-long domain is noticed.
  char lookupDomain[1024] = {0};
  tcapi_get("Watchdog_PPP", "AlertAfter", alertAfter);
  tcapi_get("Watchdog_PPP", "MaxReset", maxReset);
  tcapi_get("Watchdog_PPP", "PingIP", pingIp);
  tcapi_get("Watchdog_PPP", "LookupDomain", lookupDomain);
  ppp_config.Timer = wd_parseUnsigned(timer);
  ppp_config.AlertAfter = wd_parseUnsigned(alertAfter);
  ppp_config.MaxReset = wd_parseUnsigned(maxReset);
  StoreText(ppp_config.PingIP, sizeof ppp_config.PingIP, pingIp);
  StoreText(ppp_config.LookupDomain, sizeof ppp_config.LookupDomain, lookupDomain);
}

// Runs `command` through the shell; its result is not looked at.
void Shell(const char* command) {
  int ignored = system(command);
  (void)ignored;
}

// Reads `path` line by line; true when `passes` holds for any line. False
// with `opened` false when the file cannot be opened.
bool AnyLine(const char* path, int (*passes)(const char*), bool* opened) {
  FILE* f = fopen(path, "re");
  *opened = f != nullptr;
  if (f == nullptr) return false;
  char line[512];
  bool passed = false;
  while (fgets(line, sizeof line, f) != nullptr) passed = passed || passes(line);
  fclose(f);
  return passed;
}

// Runs a ping or lookup stage: the command, the wait, the output read back.
// A pass clears the kind's fail counter, a failure escalates. Returns 1 when
// the stage passed, 0 when it failed, -1 when its output could not be read
// (no counter changes). The output file is deleted in every case.
int Stage(const char* command, unsigned wait, const char* file, int (*passes)(const char*),
          const char* openFail, wdPppKind kind) {
  Shell(command);
  sleep(wait);
  bool opened;
  bool passed = AnyLine(file, passes, &opened);
  if (!opened) {
    tcdbg_printf("%s", openFail);
    unlink(file);
    return -1;
  }
  if (passed) {
    *(kind == WD_PPP_PING ? &Ping_fail_times : &dns_fail_times) = 0;
  } else {
    mod_pppoe_escalate(kind);
  }
  unlink(file);
  return passed ? 1 : 0;
}

// Copies the text after `from` up to the next blank, at most size - 1 bytes.
void CopyWord(char* field, size_t size, const char* from) {
  size_t n = strcspn(from, " \t\r\n");
  if (n > size - 1) n = size - 1;
  memset(field, 0, size);
  memcpy(field, from, n);
}

// A value that cannot be used in its command: the stage fails without
// running anything. Returns false when the stage may run.
bool Unusable(const char* what, const char* value, size_t maxLength) {
  if (!mod_pppoe_hostUsable(value)) {
    tcdbg_printf("%s %s is not a host name or address, not run\n", what, value);
    return true;
  }
  if (strlen(value) > maxLength) {
    tcdbg_printf("%s %s is too long for its command, not run\n", what, value);
    return true;
  }
  return false;
}

}  // namespace

void mod_pppoe_config_init(void) {
  char timer[16] = {0};
  tcapi_get("Watchdog_PPP", "Timer", timer);
  StoreConfig(timer);
}

void mod_pppoe_reset_ppp(void) {
  char encap[64] = {0};
  tcapi_get("Wan_PVC0", "ENCAP", encap);
  encap[31] = '\0';
  if (strstr(encap, "PPPoE") != nullptr) {
    tcapi_commit("Wan_PVC0");
  } else {
    WD_TRACE("[USE CASE PPPoE]Wan_PVC0 isn't PPPoE,ENCAP is %s,Don't reset.", encap);
  }
}

void mod_pppoe_AlarmSyslog(const char* name) {
  char line[1023];
  snprintf(line, sizeof line, "%s|%.254s|%.38s|%.38s", name,
           interface_status[0] ? interface_status : "null", addr_backup[0] ? addr_backup : "null",
           addr_6backup[0] ? addr_6backup : "null");
  WD_TRACE("syslogstr=%s", line);
  wd_syslogStr(6, line);
}

void mod_pppoe_scanLinkLine(const char* line, wdPppLinkScan* scan) {
  if (const char* v4 = strstr(line, "inet addr:")) {
    CopyWord(scan->ipv4, sizeof scan->ipv4, v4 + strlen("inet addr:"));
    CopyWord(addr_backup, sizeof addr_backup, v4 + strlen("inet addr:"));
  }
  if (const char* v6 = strstr(line, "inet6 addr:")) {
    CopyWord(addr_6backup, sizeof addr_6backup, v6 + strlen("inet6 addr: "));
  }
  const char* up = strstr(line, "UP");
  if (up != nullptr && strstr(line, "RUNNING") != nullptr) {
    scan->up = 1;
    snprintf(interface_status, sizeof interface_status, "%s", up);
    interface_status[strcspn(interface_status, "\r\n")] = '\0';
  }
}

int mod_pppoe_isPrivate(const char* ipv4) {
  int a, b, c, d;
  if (sscanf(ipv4, "%d.%d.%d.%d", &a, &b, &c, &d) != 4) return 0;
  return a == 192 && b == 168 && c >= 0 && c <= 254 && d >= 1 && d <= 253;
}

int mod_pppoe_pingLinePassed(const char* line) {
  return strstr(line, "0% packet loss") != nullptr && strstr(line, "100% packet loss") == nullptr;
}

int mod_pppoe_lookupLinePassed(const char* line) { return strstr(line, "Address") != nullptr; }

int mod_pppoe_hostUsable(const char* text) {
  for (const char* p = text; *p; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (!isalnum(c) && c != '.' && c != '-' && c != '_' && c != ':') return 0;
  }
  return 1;
}

void mod_pppoe_escalate(enum wdPppKind kind) {
  static const struct {
    uint32_t* fails;
    uint32_t* resets;
    const char* withReset;
    const char* withoutReset;
  } kKinds[] = {
      {&ppp_fail_times, &ppp_Num_reset, "PPP_DOWN_RESET", "PPP_DOWN_NO_RESET"},
      {&Ping_fail_times, &Ping_Num_reset, "PING_FAILURE_RESET", "PING_FAILURE_NO_RESET"},
      {&dns_fail_times, &dns_Num_reset, "DNS_FAILURE_RESET", "DNS_FAILURE_NO_RESET"},
  };
  const auto& k = kKinds[kind];
  if (*k.fails < ppp_config.AlertAfter) {
    if (kind == WD_PPP_DNS) tcdbg_printf("dns_fail_times=%d,nslookup fail\n", *k.fails);
    ++*k.fails;
    return;
  }
  *k.fails = 0;
  if (*k.resets < ppp_config.MaxReset) {
    ++*k.resets;
    mod_pppoe_reset_ppp();
    alarm_flag = 1;
    mod_pppoe_AlarmSyslog(k.withReset);
  } else {
    alarm_flag = 1;
    mod_pppoe_AlarmSyslog(k.withoutReset);
  }
}

void mod_pppoe_TimerExpire(void) {
  char command[kCommandSize];

  // Link stage.
  snprintf(command, sizeof command, "ifconfig ppp0 > %s 2>/dev/null", kStatusFile);
  Shell(command);
  wdPppLinkScan scan;
  memset(&scan, 0, sizeof scan);
  FILE* f = fopen(kStatusFile, "re");
  if (f == nullptr) {
    tcdbg_printf("fail to open file\n");
  } else {
    char line[512];
    while (fgets(line, sizeof line, f) != nullptr) mod_pppoe_scanLinkLine(line, &scan);
    fclose(f);
  }
  unlink(kStatusFile);
  if (!scan.up) {
    mod_pppoe_escalate(WD_PPP_LINK);
    return;
  }
  ppp_fail_times = 0;
  if (mod_pppoe_isPrivate(scan.ipv4)) {
    alarm_flag = 1;
    mod_pppoe_AlarmSyslog("PRIV_IP");
    return;
  }

  // Ping stage. An empty address still runs (and fails); "0.0.0.0" skips it.
  if (strcmp(ppp_config.PingIP, "0.0.0.0") != 0) {
    if (Unusable("PingIP", ppp_config.PingIP, sizeof ppp_config.PingIP - 1)) {
      mod_pppoe_escalate(WD_PPP_PING);
      return;
    }
    snprintf(command, sizeof command, "ping -c 10 %s > %s 2>/dev/null", ppp_config.PingIP,
             kPingFile);
    if (Stage(command, 21, kPingFile, mod_pppoe_pingLinePassed, "open ping file fail\n",
              WD_PPP_PING) != 1) {
      return;
    }
  }

  // Name-lookup stage.
  if (ppp_config.LookupDomain[0] == '\0') return;
  const size_t room =
      kCommandSize - 1 - strlen("nslookup  > ") - strlen(kLookupFile) - strlen(" 2>/dev/null");
  if (Unusable("LookupDomain", ppp_config.LookupDomain, room)) {
    mod_pppoe_escalate(WD_PPP_DNS);
    return;
  }
  if (snprintf(command, sizeof command, "nslookup %s > %s 2>/dev/null", ppp_config.LookupDomain,
               kLookupFile) >= static_cast<int>(sizeof command)) {
    return;  // not reached: the length was checked above
  }
  if (Stage(command, 10, kLookupFile, mod_pppoe_lookupLinePassed, "open nslookup file fail\n",
            WD_PPP_DNS) != 1) {
    return;
  }

  // All clear.
  if (alarm_flag == 1) {
    alarm_flag = 0;
    mod_pppoe_AlarmSyslog("CEASE_CONN_OK");
  }
}

// ---- Module loop ----

namespace {

struct PppLoop {
  int checkTimer;  // the one-shot check timer, 0 when none runs
};

const wdModLoopText kText = {
    "mod_pppoeHandler",
    {"Select error, ret=%d", WD_SAY_CONSOLE},
    {nullptr, WD_SAY_NOTHING},
    {"File discriptor is no in fd set!\r\n", WD_SAY_CONSOLE},
    {"[USE CASE PPPoE] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!", WD_SAY_TRACE},
};

void ArmCheck(PppLoop* loop) {
  uint32_t period = gSubMod[MOD_PPPOE].timer;
  loop->checkTimer = period != 0 ? wd_setDefaultTimer(wd_periodMs(period), MOD_PPPOE) : 0;
  if (loop->checkTimer < 0) loop->checkTimer = 0;
}

wdLoopAction OnEvent(wdMsg* msg, void* ctx) {
  PppLoop* loop = static_cast<PppLoop*>(ctx);
  switch (msg->eventType) {
    case CONFIG_CHANGE: {
      char timer[16] = {0};
      if (tcapi_get("Watchdog_PPP", "Timer", timer) != 0) {
        tcdbg_printf("ppp timer get fail\r\n");
        break;
      }
      uint32_t period = wd_parseUnsigned(timer);
      if (period != gSubMod[MOD_PPPOE].timer) {
        wd_timerStop(loop->checkTimer);
        gSubMod[MOD_PPPOE].timer = period;
        ArmCheck(loop);
      }
      StoreConfig(timer);
      tcdbg_printf("\r\nppp_config.PingIP=%s,ppp_config.LookupDomain=%s\n", ppp_config.PingIP,
                   ppp_config.LookupDomain);
      break;
    }
    case TIMER_EXPIRED:
      // Re-armed before the cycle: the period runs from expiry to expiry.
      wd_timerStop(loop->checkTimer);
      ArmCheck(loop);
      mod_pppoe_TimerExpire();
      break;
    case THREAD_EXIT:
      return WD_LOOP_EXIT;
    case PPP_TIMER_EXPIRED:
      ppp_Num_reset = 0;
      Ping_Num_reset = 0;
      dns_Num_reset = 0;
      break;
    default:
      break;
  }
  return WD_LOOP_CONTINUE;
}

}  // namespace

void* mod_pppoeHandler(void*) {
  if (wd_modOpenChannel(MOD_PPPOE) < 0) wd_pppthreadExit(MOD_PPPOE, 0);
  mod_pppoe_config_init();
  wdSubModEntry& entry = gSubMod[MOD_PPPOE];
  if (entry.timer == 0) entry.timer = wd_updateModTimer(MOD_PPPOE);
  PppLoop loop = {0};
  ArmCheck(&loop);
  int dailyTimer = wd_setPPPTimer(kDailyMs, MOD_PPPOE);
  wd_modLoop(MOD_PPPOE, kText, OnEvent, &loop);
  // A restarted module arms its own daily timer; this one must not live on.
  if (dailyTimer > 0) wd_timerPStop(dailyTimer);
  wd_pppthreadExit(MOD_PPPOE, loop.checkTimer);
}
