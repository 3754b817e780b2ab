// The TR-069 module's classification and state machine, event by event; the
// restarts it orders run their fixed commands in the test's gateway, where no
// client runs.
#include "wd_tr069.h"

#include "unit_util.h"
#include "wd_wire.h"

namespace {

std::string Get(const char* attr) {
  char value[128] = {0};
  tcapi_get("Cwmp_Entry", attr, value);
  return value;
}

class Tr069Test : public ::testing::Test {
 protected:
  void SetUp() override {
    gWdModTR069 = wdModTR069{};
    tcapi_set("Watchdog_TR069", "RegisterTimer", "3");
    tcapi_set("Watchdog_TR069", "PITimer", "5");
    tcapi_set("Cwmp_Entry", "periodInterval", "10");
    Credentials("KPRTV4826", "KPRTV4826", "WBN5937", "WBN5937");
    tcapi_unset("Cwmp_Entry", "restartmode");
  }
  static void Credentials(const char* cu, const char* cp, const char* au, const char* ap) {
    tcapi_set("Cwmp_Entry", "conReqUserName", cu);
    tcapi_set("Cwmp_Entry", "conReqPassword", cp);
    tcapi_set("Cwmp_Entry", "acsUserName", au);
    tcapi_set("Cwmp_Entry", "acsPassword", ap);
  }
  std::vector<std::string> Reports() { return buffer_.Texts("tr069"); }
  static void Ticks(int n) {
    for (int i = 0; i < n; ++i) mod_tr069Event(TIMER_EXPIRED);
  }
  ScopedBuffer buffer_;
};

TEST_F(Tr069Test, CredentialsDecideTheStartingCase) {
  auto classify = [](const char* cu, const char* cp, const char* au, const char* ap) {
    Credentials(cu, cp, au, ap);
    EXPECT_EQ(wdmod_tr069Handler_init(), 0);
    return gWdModTR069.cur_caseflag;
  };
  EXPECT_EQ(classify("KPRTV4826", "KPRTV4826", "acs", "acs"), 0u);
  EXPECT_EQ(gWdModTR069.periodInterval, 10u);
  EXPECT_EQ(classify("KPRTV4826", "secret", "WBN5937", "WBN5937"), 2u);  // one at factory
  EXPECT_EQ(classify("user", "secret", "WBN5937", "acs"), 2u);
  // Longer than the 128-byte buffer: cut, and no longer the factory text.
  std::string longer = "KPRTV4826" + std::string(300, 'x');
  EXPECT_EQ(classify(longer.c_str(), "KPRTV4826", "WBN5937", "WBN5937"), 2u);
  EXPECT_EQ(Get("restartmode"), "");
  // Compared byte for byte: none at factory, the ACS ones at factory.
  EXPECT_EQ(classify("user", "kprtv4826", "WBN5937", "WBN5937"), 0u);
  EXPECT_EQ(Get("restartmode"), "boottrap");
  EXPECT_EQ(Get("conReqUserName") + Get("conReqPassword"), "KPRTV4826KPRTV4826");
  // A failed read keeps the case and the limits read so far.
  gWdModTR069.cur_caseflag = 2;
  tcapi_unset("Cwmp_Entry", "periodInterval");
  tcapi_set("Watchdog_TR069", "PITimer", "7");
  EXPECT_EQ(wdmod_tr069Handler_init(), -1);
  EXPECT_EQ(gWdModTR069.cur_caseflag, 2u);
  EXPECT_EQ(gWdModTR069.PITimer, 7u);
  EXPECT_TRUE(Reports().empty());
}

TEST_F(Tr069Test, RegistrationMustFollowTheNameChangeInTime) {
  wdmod_tr069Handler_init();
  mod_tr069Event(NAME_CHANGE);  // case 0: nothing
  Ticks(5);
  EXPECT_EQ(gWdModTR069.cur_caseflag, 0u);
  mod_tr069Event(CR_NAME_CHANGE);
  Ticks(1);
  mod_tr069Event(CR_NAME_CHANGE);  // case 1: the count goes on
  Ticks(1);
  // A new limit takes effect at the next tick, against the counter as it stands.
  tcapi_set("Watchdog_TR069", "RegisterTimer", "4");
  mod_tr069Event(CONFIG_CHANGE);
  Ticks(1);
  EXPECT_TRUE(Reports().empty());
  Ticks(1);
  EXPECT_EQ(Reports(),
            (std::vector<std::string>{"ALARM_TR069_REGISTRATION_FAILURE-TR069_PROCESS_RESTART"}));
  EXPECT_EQ(gWdModTR069.cur_caseflag, 0u);
  EXPECT_EQ(Get("restartmode"), "boottrap");
  // In time: provisioned, Inform answered.
  mod_tr069Event(CR_NAME_CHANGE);
  Ticks(3);
  mod_tr069Event(NAME_CHANGE);
  EXPECT_EQ(gWdModTR069.cur_caseflag, 2u);
  EXPECT_EQ(gWdModTR069.informState, 2u);
  mod_tr069Event(CR_NAME_CHANGE);  // case 2 never changes again
  mod_tr069Event(NAME_CHANGE);
  EXPECT_EQ(gWdModTR069.cur_caseflag, 2u);
  // A limit of 0: the first tick restarts.
  gWdModTR069.cur_caseflag = 1;
  gWdModTR069.RegisterTimer = 0;
  Ticks(1);
  EXPECT_EQ(Reports().size(), 2u);
}

TEST_F(Tr069Test, MissingInformResponsesAlarmOnceAndTheNextResponseCeases) {
  Credentials("user", "secret", "acs", "acs");
  wdmod_tr069Handler_init();
  mod_tr069Event(GET_INFORM_RESPONSE);  // no alarm: no report
  Ticks(14);                            // answered: PITimer + periodInterval = 15
  EXPECT_TRUE(Reports().empty());
  Ticks(1);
  const std::string alarm = "ALARM_TR069_COMMNUNICATION_CPE_ACS_FAILURE-TR069_PROCESS_RESTART";
  EXPECT_EQ(Reports(), (std::vector<std::string>{alarm}));
  EXPECT_EQ(Get("restartmode"), "periodic");
  EXPECT_EQ(gWdModTR069.informState, 0u);
  // The restarted client sends its Inform and gets no answer again: the
  // counter stands still while the alarm stands, so no second alarm.
  mod_tr069Event(GET_INFORM);
  Ticks(50);
  EXPECT_EQ(Reports().size(), 1u);
  mod_tr069Event(GET_INFORM_RESPONSE);
  mod_tr069Event(GET_INFORM_RESPONSE);
  EXPECT_EQ(Reports(), (std::vector<std::string>{alarm, "CEASE_TR069_COMMNUNICATION_CPE_ACS"}));
  // An Inform that comes when the counter has reached PITimer already (the
  // answered limit is PITimer + periodInterval): the next tick restarts.
  Ticks(5);
  EXPECT_EQ(Reports().size(), 2u);
  mod_tr069Event(GET_INFORM);
  Ticks(1);
  EXPECT_EQ(Reports().size(), 3u);
  mod_tr069Event(GET_INFORM_RESPONSE);
  buffer_.Clear();
  // An Inform unanswered for PITimer ticks.
  mod_tr069Event(GET_INFORM);
  Ticks(4);
  EXPECT_EQ(Reports().size(), 0u);
  Ticks(1);
  EXPECT_EQ(Reports().size(), 1u);
  // PITimer 0: the first tick after an Inform restarts, even with the alarm
  // standing.
  gWdModTR069.PITimer = 0;
  mod_tr069Event(GET_INFORM);
  Ticks(1);
  EXPECT_EQ(Reports(), (std::vector<std::string>{alarm, alarm}));
  // The 32-bit sum of the limits wraps.
  gWdModTR069.PITimer = 0xFFFFFFFFu;
  gWdModTR069.periodInterval = 2;
  mod_tr069Event(GET_INFORM_RESPONSE);
  Ticks(1);
  EXPECT_EQ(Reports().size(), 4u);
}

TEST_F(Tr069Test, AChangeKeepsTheLimitsItCannotRead) {
  wdmod_tr069Handler_init();
  auto limits = [] {
    mod_tr069Event(CONFIG_CHANGE);
    return std::to_string(gWdModTR069.RegisterTimer) + " " + std::to_string(gWdModTR069.PITimer) +
           " " + std::to_string(gWdModTR069.periodInterval);
  };
  EXPECT_EQ(limits(), "3 5 10");
  // Without RegisterTimer, PITimer is not taken either; periodInterval is.
  tcapi_unset("Watchdog_TR069", "RegisterTimer");
  tcapi_set("Watchdog_TR069", "PITimer", "6");
  tcapi_set("Cwmp_Entry", "periodInterval", "11");
  EXPECT_EQ(limits(), "3 5 11");
  tcapi_set("Watchdog_TR069", "RegisterTimer", "4");
  tcapi_unset("Cwmp_Entry", "periodInterval");
  EXPECT_EQ(limits(), "4 6 11");
  // An unreadable PITimer reads as 0.
  tcapi_unset("Watchdog_TR069", "PITimer");
  EXPECT_EQ(limits(), "4 0 11");
}

}  // namespace
