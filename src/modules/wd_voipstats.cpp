// The VoIP statistics module. Queries are written into node
// "VoipCurSet_WDQuery" ("Query", then "wordData"); the voice application
// answers on the command socket, and main hands each record to this thread as
// RECEIVE_FROM.
//
// Modes ("Mode" of "Watchdog_VoIPStats"): 1 reports each call's own record
// (the query is a subscription), 2 queries on a periodic timer of "Period"
// seconds, 3 once on a one-shot timer of "Query" seconds; any other mode
// reports as "OnDemand" and queries on every expiry. Modes 2 and 3 report
// intervals that follow each other without gaps, from intervalStart to now.
#include "wd_voipstats.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_modthread.h"
#include "wd_syslog.h"
#include "wd_timer.h"

namespace {

constexpr const char* kNode = "Watchdog_VoIPStats";
constexpr const char* kHandler = "mod_voipStatsHandler";

const wdModLoopText kText = {
    kHandler,
    {"Select error, ret=%d \n", WD_SAY_CONSOLE},
    {nullptr, WD_SAY_NOTHING},
    {"File discriptor is no in fd set! \n", WD_SAY_CONSOLE},
    {"[USE CASE VoIPStats] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes! \n", WD_SAY_CONSOLE},
    {"Receieved 0 bytes! \n", WD_SAY_CONSOLE},  // a failed receive, as an empty one
};

uint32_t Now() {
  int64_t sec = 0;
  int32_t usec = 0;
  wd_clockRealtime(&sec, &usec);
  return static_cast<uint32_t>(sec);
}

// A timer id as kept: 0 when the timer could not be started.
int Kept(int id) { return id > 0 ? id : 0; }

void SendQuery(uint32_t wordData) {
  char text[200];
  snprintf(text, sizeof text, "%#x/%s", 4, "ppp0");
  tcapi_set("VoipCurSet_WDQuery", "Query", text);
  snprintf(text, sizeof text, "%d", static_cast<int>(wordData));
  tcapi_set("VoipCurSet_WDQuery", "wordData", text);
}

void OnConfigChange(VoipStats* s, int* timerId) {
  wdSubModEntry& entry = gSubMod[MOD_VOIP_STATS];
  char mode[16] = {0};
  char period[16] = {0};
  char query[16] = {0};
  if (tcapi_get(kNode, "Mode", mode) != 0 || tcapi_get(kNode, "Period", period) != 0 ||
      tcapi_get(kNode, "Query", query) != 0) {
    WD_TRACE_AS(kHandler, "cmsObj get fail");
  } else {
    tcdbg_printf("MDMOID_QORV_WATCH_DOG_VOIP_STATS \n");
    s->mode = wd_parseSetting(kNode, "Mode", mode);
    s->period = wd_parseSetting(kNode, "Period", period);
    s->queryDelay = wd_parseSetting(kNode, "Query", query);
    if (s->mode == 2) {
      if (s->period != entry.timer) {
        if (*timerId != 0) wd_timerPStop(*timerId);
        entry.timer = s->period;
        if (s->period != 0) *timerId = wd_startModPTimer(MOD_VOIP_STATS, s->period);
        tcdbg_printf("Timer change, set new timer, %ds \n", static_cast<int>(s->period));
        s->intervalStart = Now();
      }
    } else if (s->mode == 3) {
      if (*timerId != 0) wd_timerPStop(*timerId);
      if (s->queryDelay != 0) {
        *timerId = Kept(wd_setDefaultTimer(wd_periodMs(s->queryDelay), MOD_VOIP_STATS));
        tcdbg_printf("set timer for Ondemand mode, %ds \n", static_cast<int>(s->queryDelay));
        s->intervalStart = Now();
      }
    } else if (*timerId != 0) {
      wd_timerPStop(*timerId);
    }
  }
  SendQuery(s->mode);
}

void OnRecord(VoipStats* s, const wdMsg* msg) {
  VoipStatsReply r;
  memcpy(&r, msg->data, sizeof r);
  char callId[128];
  memset(callId, 0, sizeof callId);
  uint32_t start, end;
  if (s->mode == 1) {
    start = static_cast<uint32_t>(r.CallStartTime);
    end = static_cast<uint32_t>(r.CallEndTime);
    s->intervalStart = start;
    mod_voipStatsCallId(callId);
  } else {
    end = Now();
    start = s->intervalStart;
    snprintf(callId, sizeof callId, "%s", s->mode == 2 ? "Periodic" : "OnDemand");
  }
  char line[1024];
  mod_voipStatsLine(line, sizeof line, start, end, s->mode, s->period, callId, &r);
  if (s->mode != 1) s->intervalStart = end;
  wd_syslogStr(WD_CAT_VOIPSTAT, line);
  if (tcapi_set(kNode, "Query", "0") != 0) tcdbg_printf("can't set Watchdog_VoIPStats Query \n");
}

wdLoopAction OnEvent(wdMsg* msg, wdModRun* run) {
  VoipStats* s = wd_modState<VoipStats>(run);
  switch (msg->eventType) {
    case CONFIG_CHANGE:
      OnConfigChange(s, &run->timerId);
      break;
    case TIMER_EXPIRED:
      if (s->mode != 1) SendQuery(s->mode | 4);
      break;
    case THREAD_EXIT:
      return WD_LOOP_EXIT;
    case RECEIVE_FROM:
      if (msg->datalen != 0) OnRecord(s, msg);
      break;
    default:
      break;
  }
  return WD_LOOP_CONTINUE;
}

// The voice application's file under /var/tmp, where anyone may plant a name:
// a link (to a file the report would disclose) or a FIFO (whose opening
// would hold the module) is not the file and reads as a missing one.
FILE* OpenCallId() {
  int fd = open("/var/tmp/iptk_callid", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  struct stat st;
  FILE* f = fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? fdopen(fd, "r") : nullptr;
  if (f == nullptr && fd >= 0) close(fd);
  return f;
}

// The configured period counts in mode "2" alone.
bool PeriodOn() {
  char value[16];
  memset(value, 0, sizeof value);
  tcapi_get(kNode, "Mode", value);
  return strcmp(value, "2") == 0;
}

// Arms the timer of the period the entry holds, else of the configured mode.
void Init(wdModRun* run) {
  VoipStats* s = wd_modState<VoipStats>(run);
  wdSubModEntry& entry = gSubMod[MOD_VOIP_STATS];
  if (entry.timer != 0) {
    run->timerId = wd_startModPTimer(MOD_VOIP_STATS, entry.timer);
  } else {
    sleep(3);
    char mode[16] = {0};
    char period[16] = {0};
    if (tcapi_get(kNode, "Mode", mode) != 0 || tcapi_get(kNode, "Period", period) != 0) {
      tcdbg_printf("can't get lock, doesn't check mode\r\n");
    } else {
      s->mode = wd_parseSetting(kNode, "Mode", mode);
      s->period = wd_parseSetting(kNode, "Period", period);
    }
    if (s->mode == 1) {
      SendQuery(s->mode);
    } else if (s->mode == 2) {
      entry.timer = s->period;
    }
    if (entry.timer != 0) run->timerId = wd_startModPTimer(MOD_VOIP_STATS, entry.timer);
  }
  // The first interval of modes 2 and 3 begins when the module starts.
  s->intervalStart = Now();
}

}  // namespace

void mod_voipStatsCallId(char* callId) {
  FILE* f = OpenCallId();
  if (f != nullptr) {
    if (fgets(callId, 128, f) != nullptr) {
      size_t n = strlen(callId);
      if (n > 0) callId[n - 1] = '\0';
    } else {
      snprintf(callId, 128, "empty");
    }
    fclose(f);
  } else {
    snprintf(callId, 128, "empty");
  }
  for (char* p = callId; *p != '\0'; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (c < ' ' || c == 0x7f || c == '|') *p = '?';
  }
}

void mod_voipStatsLine(char* out, size_t size, uint32_t start, uint32_t end, uint32_t mode,
                       uint32_t period, const char* callId, const VoipStatsReply* r) {
  snprintf(out, size,
           "%d|%d|%d|%d|%s|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d",
           static_cast<int>(start), static_cast<int>(end), static_cast<int>(mode),
           static_cast<int>(period), callId, r->PacketsSent, r->PacketsReceived, r->BytesSent,
           r->BytesReceived, r->PacketsLost, 0, 0, r->IncomingCallsReceived,
           r->IncomingCallsAnswered, r->IncomingCallsConnected, r->IncomingCallsFailed,
           r->OutgoingCallsAttempted, r->OutgoingCallsAnswered, r->OutgoingCallsConnected,
           r->OutgoingCallsFailed, r->CallsDropped, r->TotalCallTime, r->ServerDownTime, 0, 0, 0);
}

const wdModDesc kVoipStatsModule = {
    MOD_VOIP_STATS,
    "/var/wd_voip_stats.chanl",
    {kNode, "Period", PeriodOn},
    {wd_startAlways, nullptr},
    {RECEIVE_FROM, sizeof(VoipStatsReply)},
    {mod_voipStatsHandler, &kText, Init, OnEvent, nullptr},
    {WD_MOD_TIMER_NONE, 0, false, false},  // Init arms it
};

void* mod_voipStatsHandler(void* arg) { wd_runModule(kVoipStatsModule, arg); }
