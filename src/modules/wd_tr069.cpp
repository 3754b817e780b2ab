// The TR-069 module: the registration case and the Inform state machine,
// driven by the client's events and a one-second periodic timer.
#include "wd_tr069.h"

#include <string.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_modthread.h"
#include "wd_proc.h"
#include "wd_syslog.h"
#include "wd_timer.h"

wdModTR069 gWdModTR069;

namespace {

constexpr const char* kNode = "Watchdog_TR069";
constexpr const char* kCwmp = "Cwmp_Entry";
constexpr const char* kHandler = "mod_tr069Handler";
constexpr const char* kConReqDefault = "KPRTV4826";
constexpr const char* kAcsDefault = "WBN5937";
constexpr int kKillSeconds = 10;   // killall only reads /proc and signals
constexpr int kStartSeconds = 30;  // a start line, as for the start scripts
constexpr const char* kCommFailure =
    "ALARM_TR069_COMMNUNICATION_CPE_ACS_FAILURE-TR069_PROCESS_RESTART";

const wdModLoopText kText = {
    kHandler,
    {"Select error, ret=%d\n", WD_SAY_CONSOLE},
    {nullptr, WD_SAY_NOTHING},
    {"File discriptor is no in fd set!\n", WD_SAY_CONSOLE},
    {"[USE CASE TR069] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!", WD_SAY_TRACE},
    {nullptr, WD_SAY_NOTHING},
};

void OnTick(wdModTR069& t) {
  if (t.cur_caseflag == WD_TR069_REGISTERING) {
    ++t.RegisterCounterACS;
    if (t.RegisterTimer <= t.RegisterCounterACS) {
      wd_tr069_Restart(WD_TR069_RESTART_BOOTSTRAP);
      t.cur_caseflag = WD_TR069_FACTORY;
      t.RegisterCounterACS = 0;
      wd_syslogStr(WD_CAT_TR069, "ALARM_TR069_REGISTRATION_FAILURE-TR069_PROCESS_RESTART");
    }
  } else if (t.cur_caseflag == WD_TR069_PROVISIONED) {
    if (t.alarmFlag == 0 &&
        (t.informState == WD_INFORM_SENT || t.informState == WD_INFORM_ANSWERED))
      ++t.PICounter;
    // The limit after a response waits one more Inform interval; the sum
    // wraps in 32 bits as the counters do.
    uint32_t answered = t.PITimer + t.periodInterval;
    if ((t.informState == WD_INFORM_SENT && t.PITimer <= t.PICounter) ||
        (t.informState == WD_INFORM_ANSWERED && answered <= t.PICounter)) {
      wd_tr069_Restart(WD_TR069_RESTART_PERIODIC);
      t.PICounter = 0;
      wd_syslogStr(WD_CAT_TR069, kCommFailure);
      t.alarmFlag = 1;
      t.informState = WD_INFORM_IDLE;
    }
  }
}

void OnConfigChange(wdModTR069& t) {
  WD_TRACE_AS(kHandler, "mod tr069 receive config change");
  char registerTimer[16] = {0};
  char piTimer[16] = {0};
  char interval[16] = {0};
  if (tcapi_get(kNode, "RegisterTimer", registerTimer) == 0) {
    tcapi_get(kNode, "PITimer", piTimer);
    uint32_t r = wd_parseSetting(kNode, "RegisterTimer", registerTimer);
    uint32_t p = wd_parseSetting(kNode, "PITimer", piTimer);
    if (r != t.RegisterTimer) t.RegisterTimer = r;
    if (p != t.PITimer) t.PITimer = p;
  } else {
    WD_TRACE_AS(kHandler, "tcapi get tr069 fail");
  }
  if (tcapi_get(kCwmp, "periodInterval", interval) == 0) {
    uint32_t i = wd_parseSetting(kCwmp, "periodInterval", interval);
    if (i != t.periodInterval) t.periodInterval = i;
  } else {
    WD_TRACE_AS(kHandler, "cmsObj get fail");
  }
}

wdLoopAction OnEvent(wdMsg* msg, wdModRun*) {
  if (msg->eventType == THREAD_EXIT) return WD_LOOP_EXIT;
  mod_tr069Event(static_cast<int>(msg->eventType));
  return WD_LOOP_CONTINUE;
}

bool StartRule(uint32_t* period) {
  char value[32];
  char piTimer[32];
  memset(value, 0, sizeof value);
  memset(piTimer, 0, sizeof piTimer);
  if (tcapi_get(kNode, "RegisterTimer", value) != 0) {
    tcdbg_printf("\r\nget tr069 RegisterTimer error!\r\n");
    tcdbg_printf("\r\ncreate MOD_TR069 thread fail!\r\n");
    return false;
  }
  tcdbg_printf("\r\ntr069Obj->registerTimer = %s\r\n", value);
  tcapi_get(kNode, "PITimer", piTimer);
  if (wd_settingUnset(value) || wd_settingUnset(piTimer)) {
    tcdbg_printf("\r\ntr069Obj->registerTimer error!\r\n");
    return false;
  }
  WD_START_TRACE("tr069Obj->registerTimer and tr069Obj->PITimer are not 0, So start TR069 modurle");
  *period = wd_parseUnsigned(value);
  return true;
}

void Init(wdModRun*) { wdmod_tr069Handler_init(); }

}  // namespace

void wd_tr069_Restart(int mode) {
  if (mode == WD_TR069_RESTART_BOOTSTRAP) {
    tcapi_set(kCwmp, "conReqUserName", kConReqDefault);
    tcapi_set(kCwmp, "conReqPassword", kConReqDefault);
    tcapi_set(kCwmp, "restartmode", "boottrap");
    WD_TRACE("Default TR069 conReqUserName and conReqPassword,enter wd restart TR069.");
  } else {
    tcapi_set(kCwmp, "restartmode", "periodic");
    WD_TRACE("Enter wd restart TR069");
  }
  // Fixed command lines: nothing from outside reaches this shell. The client
  // goes to the background; its start line only has to return.
  wd_runShell("/usr/bin/killall -9 tr69", kKillSeconds);
  wd_runShell("/userfs/bin/tr69 &", kStartSeconds);
}

int wdmod_tr069Handler_init(void) {
  wdModTR069& t = gWdModTR069;
  t.RegisterCounterACS = 0;
  t.PICounter = 0;
  t.informState = WD_INFORM_IDLE;
  t.alarmFlag = 0;
  char registerTimer[16] = {0};
  char piTimer[16] = {0};
  char interval[16] = {0};
  if (tcapi_get(kNode, "RegisterTimer", registerTimer) != 0) {
    WD_TRACE("wdmod_tr069Handler_init tcapi get RegisterTimer fail");
    return -1;
  }
  tcapi_get(kNode, "PITimer", piTimer);
  t.RegisterTimer = wd_parseSetting(kNode, "RegisterTimer", registerTimer);
  t.PITimer = wd_parseSetting(kNode, "PITimer", piTimer);
  if (tcapi_get(kCwmp, "periodInterval", interval) != 0) {
    WD_TRACE("cmsObj get fail");
    return -1;
  }
  char conUser[128] = {0};
  char conPass[128] = {0};
  char acsUser[128] = {0};
  char acsPass[128] = {0};
  tcapi_get(kCwmp, "conReqUserName", conUser);
  tcapi_get(kCwmp, "conReqPassword", conPass);
  tcapi_get(kCwmp, "acsUserName", acsUser);
  tcapi_get(kCwmp, "acsPassword", acsPass);
  t.periodInterval = wd_parseSetting(kCwmp, "periodInterval", interval);

  int factoryConReq =
      (strcmp(conUser, kConReqDefault) == 0) + (strcmp(conPass, kConReqDefault) == 0);
  bool factoryAcs = strcmp(acsUser, kAcsDefault) == 0 && strcmp(acsPass, kAcsDefault) == 0;
  if (factoryConReq == 2) {
    t.cur_caseflag = WD_TR069_FACTORY;
  } else if (factoryConReq == 1 || !factoryAcs) {
    t.cur_caseflag = WD_TR069_PROVISIONED;
  } else {
    // Changed connection-request credentials with the ACS still at its
    // factory ones: the registration never completed.
    wd_tr069_Restart(WD_TR069_RESTART_BOOTSTRAP);
    t.cur_caseflag = WD_TR069_FACTORY;
  }
  return 0;
}

void mod_tr069Event(int eventType) {
  wdModTR069& t = gWdModTR069;
  switch (eventType) {
    case TIMER_EXPIRED:
      OnTick(t);
      break;
    case CONFIG_CHANGE:
      OnConfigChange(t);
      break;
    case GET_INFORM:
      if (t.cur_caseflag == WD_TR069_PROVISIONED) t.informState = WD_INFORM_SENT;
      break;
    case GET_INFORM_RESPONSE:
      if (t.cur_caseflag == WD_TR069_PROVISIONED) {
        t.informState = WD_INFORM_ANSWERED;
        t.PICounter = 0;
        if (t.alarmFlag == 1) {
          wd_syslogStr(WD_CAT_TR069, "CEASE_TR069_COMMNUNICATION_CPE_ACS");
          t.alarmFlag = 0;
        }
      }
      break;
    case CR_NAME_CHANGE:
      if (t.cur_caseflag == WD_TR069_FACTORY) t.cur_caseflag = WD_TR069_REGISTERING;
      break;
    case NAME_CHANGE:
      if (t.cur_caseflag == WD_TR069_REGISTERING) {
        t.RegisterCounterACS = 0;
        t.cur_caseflag = WD_TR069_PROVISIONED;
        t.informState = WD_INFORM_ANSWERED;
      }
      break;
    default:
      break;
  }
}

const wdModDesc kTr069Module = {
    MOD_TR069,
    "/var/wd_tr069.chanl",
    {kNode, "RegisterTimer", nullptr},
    {StartRule, "tr069 thread ret=%d!"},
    {0, 0},  // no data record
    {mod_tr069Handler, &kText, Init, OnEvent, nullptr},
    {WD_MOD_TIMER_FIXED, 1000, false, false},  // a one-second tick, whatever the period
};

void* mod_tr069Handler(void* arg) { wd_runModule(kTr069Module, arg); }
