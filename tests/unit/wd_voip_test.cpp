// The VoIP modules' pieces: the statistics record's report text, the call id
// file, and the registration module's handling of each answer (through its
// event function). The statistics module's modes run against the voice
// application in the integration tests and through its thread in
// wd_modloop_test.
#include "wd_voipregister.h"
#include "wd_voipstats.h"

#include "unit_util.h"

namespace {

TEST(VoipStats, EachCounterHasItsColumnAndUnusedFieldsReportZero) {
  // Word i of the record holds 1000 * i plus a high part, so that each
  // column shows which word it came from.
  int32_t words[23];
  for (int i = 0; i < 23; ++i) words[i] = 1000 * i + 0x10000 * (i % 3);
  words[6] = -7;  // a counter that went wrong still prints with its sign
  VoipStatsReply r;
  static_assert(sizeof r == sizeof words, "the record is 23 words");
  memcpy(&r, words, sizeof r);
  char line[1024];
  mod_voipStatsLine(line, sizeof line, 4000000000u, 1700000000u, 2, 60, "Periodic", &r);
  EXPECT_STREQ(line,
               "-294967296|1700000000|2|60|Periodic|133072|3000|69536|136072|-7|0|0|9000|75536|"
               "142072|12000|78536|145072|15000|81536|148072|18000|84536|0|0|0");
}

TEST(VoipStats, CallIdIsTheFirstLineOfARegularFileWithoutItsLastCharacter) {
  mkdir("/var/tmp", 01777);
  const char* path = "/var/tmp/iptk_callid";
  auto read = [] {
    char id[128] = {0};
    mod_voipStatsCallId(id);
    return std::string(id);
  };
  auto callId = [&](const char* content) {  // null: no file
    unlink(path);
    if (content != nullptr) std::ofstream(path) << content;
    return read();
  };
  EXPECT_EQ(callId(nullptr), "empty");
  EXPECT_EQ(callId(""), "empty");
  EXPECT_EQ(callId("\n"), "");
  EXPECT_EQ(callId("call-7@gateway\nsecond line\n"), "call-7@gateway");
  std::string longId(127, 'c');
  EXPECT_EQ(callId(longId.c_str()), longId.substr(0, 126)) << "no line end: a character is lost";
  EXPECT_EQ(callId("a\x1b[2J|b\tc\n"), "a?[2J?b?c") << "nothing that breaks a line";
  // /var/tmp is anyone's: a link there (to a file the voice application never
  // wrote) and a FIFO nobody writes to (which would hold the module) read as
  // no file.
  std::ofstream("/etc/secret") << "s3cret\n";
  unlink(path);
  ASSERT_EQ(symlink("/etc/secret", path), 0);
  EXPECT_EQ(read(), "empty");
  unlink(path);
  ASSERT_EQ(mkfifo(path, 0666), 0);
  EXPECT_EQ(read(), "empty");
  unlink(path);
}

TEST(VoipRegister, EachFailedAnswerIsReportedAsTheSwitchReadAtTheLastChangeSays) {
  ScopedBuffer buffer;
  tcapi_set("Watchdog_VoIPStatus", "RegisterTimer", "0");
  tcapi_set("Watchdog_VoIPStatus", "ImproperConfEnable", "1");
  tcapi_unset("VoipCurSet_WDQuery", "wordData");
  wdModRun run = {};  // as the thread starts: the switch is off until a change
  auto event = [&run](int type, int32_t counter = 0, int32_t status = 0) {
    wdMsg msg = {};
    msg.eventType = type;
    VoipRegisterReply reply = {counter, status};
    memcpy(msg.data, &reply, sizeof reply);
    msg.datalen = sizeof reply;
    return Said([&] { EXPECT_EQ(kVoipRegisterModule.thread.event(&msg, &run), WD_LOOP_CONTINUE); });
  };
  event(RECEIVE_FROM, 1, 2);
  event(RECEIVE_FROM, 5, 0);  // registered: no report
  event(CONFIG_CHANGE);
  event(RECEIVE_FROM, 2, 2);
  EXPECT_EQ(event(RECEIVE_FROM, -5, 7),
            "VoIP registration status 7 is unknown, reported as a registration failure\n");
  event(RECEIVE_FROM, 3, 1);
  EXPECT_EQ(buffer.Texts("voipreg"),
            (std::vector<std::string>{
                "ALARM_SIP_REGISTER_FAILURE|1", "ALARM_SIP_CLIENT_IMPROPER_CONFIGURATION|2",
                "ALARM_SIP_REGISTER_FAILURE|-5", "ALARM_SIP_REGISTER_FAILURE|3"}));
  event(TIMER_EXPIRED);  // the query, which has no wordData
  char query[32];
  EXPECT_EQ(tcapi_get("VoipCurSet_WDQuery", "Query", query), 0);
  EXPECT_STREQ(query, "0x3/ppp0");
  EXPECT_NE(tcapi_get("VoipCurSet_WDQuery", "wordData", query), 0);
}

}  // namespace
