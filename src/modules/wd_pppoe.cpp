// The PPPoE module: configuration, alarms, the check cycle and the module loop.
//
// The cycle runs the gateway's tools (ifconfig, ping, nslookup) with their
// output in fresh files under /tmp, and reads the files back. No shell is
// involved: the configured ping address and domain are split into words as a
// shell would split them and handed to the tool as its arguments.
#include "wd_pppoe.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_modthread.h"
#include "wd_proc.h"
#include "wd_syslog.h"
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
// The tools' deadlines: ifconfig only asks the kernel; ping -c 10 takes 10 s
// and up to 10 s more for late answers, after its resolver; nslookup waits
// for the resolver's timeouts on each server.
constexpr int kIfconfigSeconds = 10;
constexpr int kPingSeconds = 60;
constexpr int kLookupSeconds = 60;
constexpr size_t kToolOutputMax = 16 * 1024;  // a few lines each

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

enum wdPppKind { WD_PPP_LINK, WD_PPP_PING, WD_PPP_DNS };

// Counts a failure of `kind`; at the (AlertAfter + 1)-th in a row resets the
// connection (up to MaxReset times a day) and reports the alarm.
void Escalate(wdPppKind kind) {
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

// Runs `argv` for at most `seconds` with its output in `file` (created fresh,
// whatever stood there) and its standard error discarded. Returns the file
// open for reading from its start, or null when it could not be made.
FILE* RunInto(const std::vector<const char*>& argv, int seconds, const char* file) {
  std::vector<const char*> args(argv);
  args.push_back(nullptr);
  wdOutput out = {file, kToolOutputMax, true, nullptr, false};
  wd_run(args.data(), seconds, &out);
  return out.file;
}

// The words of a configured value, split on blanks as a shell splits them.
std::vector<std::string> Words(const char* value) {
  std::vector<std::string> words;
  const char* blanks = " \t\n";
  for (const char* p = value + strspn(value, blanks); *p != '\0'; p += strspn(p, blanks)) {
    size_t n = strcspn(p, blanks);
    words.emplace_back(p, n);
    p += n;
  }
  return words;
}

// Runs a ping or lookup stage: `argv` (the tool and its fixed arguments) and the words
// of `value` for at most `seconds`, the wait, the output read back. A pass
// clears the kind's fail counter, a failure escalates. Returns 1 when the
// stage passed, 0 when it failed, -1 when it did not run or its output could
// not be read (no counter changes). The output file is deleted in every case.
int Stage(std::vector<const char*> argv, int seconds, const char* what, const char* value,
          unsigned wait, const char* file, int (*passes)(const char*), const char* openFail,
          wdPppKind kind) {
  std::vector<std::string> words = Words(value);
  // A word the tool would take as an option, or a value of blanks only, names
  // no host: nothing is run and the link is not blamed for it.
  bool refused = value[0] != '\0' && words.empty();
  for (const std::string& w : words) refused = refused || w[0] == '-';
  if (refused) {
    tcdbg_printf("%s %s is not a host name or address, not run\n", what, value);
    return -1;
  }
  for (const std::string& w : words) argv.push_back(w.c_str());
  FILE* f = RunInto(argv, seconds, file);
  sleep(wait);
  if (f == nullptr) {
    tcdbg_printf("%s", openFail);
    unlink(file);
    return -1;
  }
  bool passed = mod_pppoe_outputPassed(f, passes) != 0;
  fclose(f);
  if (passed) {
    *(kind == WD_PPP_PING ? &Ping_fail_times : &dns_fail_times) = 0;
  } else {
    Escalate(kind);
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

// Takes one line of ifconfig's output into `scan` and the remembered state.
void ScanLinkLine(const char* line, wdPppLinkScan* scan) {
  if (const char* v4 = strstr(line, "inet addr:")) {
    CopyWord(scan->ipv4, sizeof scan->ipv4, v4 + strlen("inet addr:"));
    CopyWord(addr_backup, sizeof addr_backup, v4 + strlen("inet addr:"));
  }
  if (const char* v6 = strstr(line, "inet6 addr:")) {
    // The address starts after "inet6 addr: "; the marker may end the text.
    const char* from = v6 + strlen("inet6 addr:");
    if (*from != '\0') ++from;
    CopyWord(addr_6backup, sizeof addr_6backup, from);
  }
  const char* up = strstr(line, "UP");
  if (up != nullptr && strstr(line, "RUNNING") != nullptr) {
    scan->up = 1;
    snprintf(interface_status, sizeof interface_status, "%s", up);
    interface_status[strcspn(interface_status, "\r\n")] = '\0';
  }
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
  wd_syslogStr(WD_CAT_PPP, line);
}

void mod_pppoe_scanLink(FILE* f, wdPppLinkScan* scan) {
  char line[512];
  while (fgets(line, sizeof line, f) != nullptr) ScanLinkLine(line, scan);
}

int mod_pppoe_isPrivate(const char* ipv4) {
  long octet[4];
  for (int i = 0; i < 4; ++i) {
    if (i > 0 && *ipv4++ != '.') return 0;
    if (!wd_parseLong(&ipv4, INT_MIN, INT_MAX, &octet[i])) return 0;
  }
  return octet[0] == 192 && octet[1] == 168 && octet[2] >= 0 && octet[2] <= 254 && octet[3] >= 1 &&
         octet[3] <= 253;
}

int mod_pppoe_pingLinePassed(const char* line) {
  return strstr(line, "0% packet loss") != nullptr && strstr(line, "100% packet loss") == nullptr;
}

int mod_pppoe_lookupLinePassed(const char* line) { return strstr(line, "Address") != nullptr; }

int mod_pppoe_outputPassed(FILE* f, int (*passes)(const char*)) {
  char line[512];
  bool passed = false;
  while (fgets(line, sizeof line, f) != nullptr) passed = passed || passes(line);
  return passed ? 1 : 0;
}

void mod_pppoe_TimerExpire(void) {
  // Link stage.
  wdPppLinkScan scan;
  memset(&scan, 0, sizeof scan);
  FILE* f = RunInto({"ifconfig", "ppp0"}, kIfconfigSeconds, kStatusFile);
  if (f == nullptr) {
    tcdbg_printf("fail to open file\n");
  } else {
    mod_pppoe_scanLink(f, &scan);
    fclose(f);
  }
  unlink(kStatusFile);
  if (!scan.up) {
    Escalate(WD_PPP_LINK);
    return;
  }
  ppp_fail_times = 0;
  if (mod_pppoe_isPrivate(scan.ipv4)) {
    alarm_flag = 1;
    mod_pppoe_AlarmSyslog("PRIV_IP");
    return;
  }

  // Ping stage. An empty address still runs (and fails); "0.0.0.0" skips it.
  if (strcmp(ppp_config.PingIP, "0.0.0.0") != 0 &&
      Stage({"ping", "-c", "10"}, kPingSeconds, "PingIP", ppp_config.PingIP, 21, kPingFile,
            mod_pppoe_pingLinePassed, "open ping file fail\n", WD_PPP_PING) != 1) {
    return;
  }

  // Name-lookup stage.
  if (ppp_config.LookupDomain[0] == '\0') return;
  if (Stage({"nslookup"}, kLookupSeconds, "LookupDomain", ppp_config.LookupDomain, 10, kLookupFile,
            mod_pppoe_lookupLinePassed, "open nslookup file fail\n", WD_PPP_DNS) != 1) {
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

// The module's state; the one-shot check timer is the run's timerId.
struct Ppp {
  int dailyTimer;  // the daily reset timer, 0 or less when none runs
};

const wdModLoopText kText = {
    "mod_pppoeHandler",
    {"Select error, ret=%d", WD_SAY_CONSOLE},
    {nullptr, WD_SAY_NOTHING},
    {"File discriptor is no in fd set!\r\n", WD_SAY_CONSOLE},
    {"[USE CASE PPPoE] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!", WD_SAY_TRACE},
    {nullptr, WD_SAY_NOTHING},
};

void ArmCheck(int* checkTimer) {
  uint32_t period = gSubMod[MOD_PPPOE].timer;
  *checkTimer = period != 0 ? wd_setDefaultTimer(wd_periodMs(period), MOD_PPPOE) : 0;
  if (*checkTimer < 0) *checkTimer = 0;
}

wdLoopAction OnEvent(wdMsg* msg, wdModRun* run) {
  int* checkTimer = &run->timerId;
  switch (msg->eventType) {
    case CONFIG_CHANGE: {
      char timer[16] = {0};
      if (tcapi_get("Watchdog_PPP", "Timer", timer) != 0) {
        tcdbg_printf("ppp timer get fail\r\n");
        break;
      }
      uint32_t period = wd_parseUnsigned(timer);
      if (period != gSubMod[MOD_PPPOE].timer) {
        wd_timerStop(*checkTimer);
        gSubMod[MOD_PPPOE].timer = period;
        ArmCheck(checkTimer);
      }
      StoreConfig(timer);
      tcdbg_printf("\r\nppp_config.PingIP=%s,ppp_config.LookupDomain=%s\n", ppp_config.PingIP,
                   ppp_config.LookupDomain);
      break;
    }
    case TIMER_EXPIRED:
      // Re-armed before the cycle: the period runs from expiry to expiry.
      wd_timerStop(*checkTimer);
      ArmCheck(checkTimer);
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

bool StartRule(uint32_t* period) {
  char value[32];
  memset(value, 0, sizeof value);
  if (tcapi_get("Watchdog_PPP", "Timer", value) != 0) {
    tcdbg_printf("\r\nget pppoe timer error!\r\n");
    tcdbg_printf("\r\ncreate MOD_PPPOE thread fail!\r\n");
    return false;
  }
  if (wd_settingUnset(value)) {
    tcdbg_printf("\r\npppObj->timer error!\r\n");
    return false;
  }
  WD_START_TRACE("ppptimer=%s", value);
  *period = wd_parseUnsigned(value);
  return true;
}

// Reads the configuration, then arms the one-shot check timer of the period
// and the daily reset timer.
void Init(wdModRun* run) {
  mod_pppoe_config_init();
  wdSubModEntry& entry = gSubMod[MOD_PPPOE];
  if (entry.timer == 0) entry.timer = wd_modPeriod(kPppoeModule);
  ArmCheck(&run->timerId);
  wd_modState<Ppp>(run)->dailyTimer = wd_setPPPTimer(kDailyMs, MOD_PPPOE);
}

// A restarted module arms its own daily timer; this one must not live on.
void Exit(wdModRun* run) {
  int dailyTimer = wd_modState<Ppp>(run)->dailyTimer;
  if (dailyTimer > 0) wd_timerPStop(dailyTimer);
}

}  // namespace

const wdModDesc kPppoeModule = {
    MOD_PPPOE,
    "/var/wd_pppoe.chanl",
    {"Watchdog_PPP", "Timer", nullptr},
    {StartRule, "ppp thread ret=%d!"},
    {0, 0},  // no data record
    {mod_pppoeHandler, &kText, Init, OnEvent, Exit},
    {WD_MOD_TIMER_NONE, 0, true, true},  // Init arms the one-shot check timer; a cycle outlasts it
};

void* mod_pppoeHandler(void* arg) { wd_runModule(kPppoeModule, arg); }
