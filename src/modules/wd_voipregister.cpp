// The VoIP registration module. On each expiry of its periodic timer it
// writes the query 0x3/ppp0 into "Query" of "VoipCurSet_WDQuery"; the voice
// application answers on the command socket, and main hands each record to
// this thread as RECEIVE_FROM. Every record is judged by itself: there is no
// alarm state between deliveries.
#include "wd_voipregister.h"

#include <stdio.h>
#include <string.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_modthread.h"
#include "wd_syslog.h"
#include "wd_timer.h"

namespace {

constexpr const char* kNode = "Watchdog_VoIPStatus";
constexpr const char* kHandler = "mod_voipRegisterHandler";

const wdModLoopText kText = {
    kHandler,
    {"Select error, ret=%d", WD_SAY_CONSOLE},
    {nullptr, WD_SAY_NOTHING},
    {"\r\nFile discriptor is no in fd set!\r\n", WD_SAY_CONSOLE},
    {"[USE CASE VoIPRegister] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!", WD_SAY_TRACE},
    {"Receieved 0 bytes!", WD_SAY_TRACE},  // a failed receive, as an empty one
};

void OnConfigChange(VoipRegister* r, int* timerId) {
  char timer[16] = {0};
  char improper[16] = {0};
  if (tcapi_get(kNode, "RegisterTimer", timer) != 0) {
    WD_TRACE_AS(kHandler, "cmsObj get fail");
    return;
  }
  tcapi_get(kNode, "ImproperConfEnable", improper);
  uint32_t period = wd_parseSetting(kNode, "RegisterTimer", timer);
  if (wd_changeModPeriod(MOD_VOIP_REGISTER, period, timerId)) {
    WD_TRACE_AS(kHandler, "Timer change, set new timer, %ds", static_cast<int>(period));
  }
  r->improperConf = static_cast<uint8_t>(wd_parseSetting(kNode, "ImproperConfEnable", improper));
}

void OnRecord(const VoipRegister* r, const wdMsg* msg) {
  VoipRegisterReply reply;
  memcpy(&reply, msg->data, sizeof reply);
  const char* prefix = mod_voipRegisterPrefix(r->improperConf, reply.RegisterSIPStatus);
  if (prefix == nullptr) return;
  if (r->improperConf != 0 && reply.RegisterSIPStatus != 1 && reply.RegisterSIPStatus != 2) {
    tcdbg_printf("VoIP registration status %d is unknown, reported as a registration failure\n",
                 static_cast<int>(reply.RegisterSIPStatus));
  }
  char text[70];
  memset(text, 0, sizeof text);
  snprintf(text, sizeof text, "%s%d", prefix, static_cast<int>(reply.RegisterSIPCounter));
  wd_syslogStr(WD_CAT_VOIPREG, text);
}

wdLoopAction OnEvent(wdMsg* msg, wdModRun* run) {
  VoipRegister* r = wd_modState<VoipRegister>(run);
  switch (msg->eventType) {
    case CONFIG_CHANGE:
      OnConfigChange(r, &run->timerId);
      break;
    case TIMER_EXPIRED: {
      char query[200];
      snprintf(query, sizeof query, "%#x/%s", 3, "ppp0");
      tcapi_set("VoipCurSet_WDQuery", "Query", query);
      break;
    }
    case THREAD_EXIT:
      return WD_LOOP_EXIT;
    case RECEIVE_FROM:
      if (msg->datalen != 0) OnRecord(r, msg);
      break;
    default:
      break;
  }
  return WD_LOOP_CONTINUE;
}

bool StartRule(uint32_t* period) {
  char value[32];
  memset(value, 0, sizeof value);
  if (tcapi_get(kNode, "RegisterTimer", value) != 0) {
    tcdbg_printf("get voipstatus registerTimer error!");
    tcdbg_printf("create MOD_VOIP_REGISTER thread fail!\r\n");
    return false;
  }
  WD_START_TRACE("voipStatusObj->registerTimer = %s", value);
  if (wd_settingUnset(value)) {
    tcdbg_printf("voipStatusObj->registerTimer error!");
    return false;
  }
  tcdbg_printf("voipStatusObj->registerTimer is not 0, So start Voip register modurle");
  *period = wd_parseUnsigned(value);
  return true;
}

}  // namespace

const char* mod_voipRegisterPrefix(uint8_t improperConf, int32_t status) {
  if (status == 0) return nullptr;
  if (improperConf != 0 && status == 2) return "ALARM_SIP_CLIENT_IMPROPER_CONFIGURATION|";
  // Status 1, and any other failure: with the switch off all of them, with it
  // on also a status the voice application should not send, so that no
  // failure goes unreported.
  return "ALARM_SIP_REGISTER_FAILURE|";
}

const wdModDesc kVoipRegisterModule = {
    MOD_VOIP_REGISTER,
    "/var/wd_voip_register.chanl",
    {kNode, "RegisterTimer", nullptr},
    {StartRule, nullptr},
    {RECEIVE_FROM, sizeof(VoipRegisterReply)},
    {mod_voipRegisterHandler, &kText, nullptr, OnEvent, nullptr},
    {WD_MOD_TIMER_PERIOD, 0, false, false},
};

void* mod_voipRegisterHandler(void* arg) { wd_runModule(kVoipRegisterModule, arg); }
