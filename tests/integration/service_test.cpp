// The VoIP, IGMP and general command modules in the running daemon (-d, 100
// times faster), with the gateway's voice application answering the VoIP
// queries and the real syslog-ng taking the reports.
//
// The registration module's queries (every 30 s) serve as a clock: each is
// answered in one pass of the voice application, which takes whatever query
// waits in the tree at that moment, so two answers after a point in time mean
// that every query written before it has been seen.

#include "gateway.h"
#include "tcapi.h"

using gw::Count;
using gw::Reports;
using gw::SetConfig;
using gw::WaitReports;

namespace {

std::vector<std::string> Split(const std::string& text, char sep) {
  std::vector<std::string> out;
  std::string field;
  std::istringstream in(text);
  while (std::getline(in, field, sep)) out.push_back(field);
  return out;
}

class Services : public ::testing::Test {
 protected:
  void SetUp() override {
    SetConfig("Watchdog_Common", "Enable", "1");
    SetConfig("Watchdog_VoIPStatus", "RegisterTimer", "30");
    SetConfig("Watchdog_VoIPStatus", "ImproperConfEnable", "1");
  }
  void Start() { ASSERT_TRUE(daemon_.Start({"-d"})); }
  // Waits until the registration module's query has been answered twice more.
  void Tick() {
    size_t answers = Count(Joined(), "answer register");
    ASSERT_TRUE(voice_.WaitFor("answer register", answers + 2));
  }
  std::string Joined() {
    std::string all;
    for (const std::string& line : voice_.Log()) all += line + "\n";
    return all;
  }
  // Waits until every statistics record answered so far has been reported
  // (and "Query" reset before each report).
  void Settled() {
    ASSERT_TRUE(gw::WaitUntil(
        [&] { return Reports("voipstat").size() >= Count(Joined(), "answer stats"); }, 20000));
  }
  static void Config(uint16_t mod) {
    ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_CONFIG_CHANGE, mod));
  }

  gw::VoiceApp voice_;
  gw::Daemon daemon_;
};

TEST_F(Services, VoipStatisticsInEachModeEndToEnd) {
  SetConfig("Watchdog_VoIPStats", "Mode", "2");
  SetConfig("Watchdog_VoIPStats", "Period", "60");
  SetConfig("Watchdog_VoIPStats", "Query", "9");
  Start();
  voice_.Ctl("call out 100000");  // traffic in every interval from now on

  // Mode 2: a query with wordData 6 every 60 s, intervals back to back.
  ASSERT_TRUE(WaitReports("voipstat", 3));
  std::vector<std::string> reports = Reports("voipstat");
  std::vector<std::vector<std::string>> f;
  for (size_t i = 0; i < 3; ++i) f.push_back(Split(reports[i], '|'));
  for (const auto& fields : f) {
    ASSERT_EQ(fields.size(), 26u) << reports[0];
    EXPECT_EQ(fields[2] + fields[3] + fields[4], "260Periodic");
  }
  EXPECT_GT(std::stol(f[0][0]), 0) << "the first interval starts with the module";
  EXPECT_LE(std::stol(f[0][0]), std::stol(f[0][1]));
  EXPECT_EQ(f[1][0], f[0][1]);
  EXPECT_EQ(f[2][0], f[1][1]);
  EXPECT_TRUE(voice_.WaitFor("query wordData=6", 3));
  char query[16];
  tcapi_get("Watchdog_VoIPStats", "Query", query);
  EXPECT_STREQ(query, "0") << "reset after a report";

  // 2 -> 3 (no delay) -> 2 with the same period: the periodic timer stays
  // stopped, as the stored period did not change.
  SetConfig("Watchdog_VoIPStats", "Mode", "3");
  Config(MOD_VOIP_STATS);
  ASSERT_TRUE(voice_.WaitFor("query wordData=3"));
  SetConfig("Watchdog_VoIPStats", "Mode", "2");
  Config(MOD_VOIP_STATS);
  ASSERT_TRUE(voice_.WaitFor("query wordData=2"));
  Settled();
  size_t periodic = Count(Joined(), "query wordData=6");
  for (int i = 0; i < 4; ++i) Tick();  // 240 s
  EXPECT_EQ(Count(Joined(), "query wordData=6"), periodic);
  std::string console = daemon_.NewStderr();
  EXPECT_EQ(Count(console, "MDMOID_QORV_WATCH_DOG_VOIP_STATS \n"), 2u);
  EXPECT_EQ(Count(console, "Timer change, set new timer"), 0u);

  // Mode 3: the configuration change queries at once (3), the one-shot timer
  // of "Query" seconds once more (7); with "Query" consumed, no timer.
  SetConfig("Watchdog_VoIPStats", "Mode", "3");
  SetConfig("Watchdog_VoIPStats", "Query", "5");
  size_t before = Reports("voipstat").size();
  Config(MOD_VOIP_STATS);
  ASSERT_TRUE(voice_.WaitFor("query wordData=7"));
  ASSERT_TRUE(WaitReports("voipstat", before + 2));
  reports = Reports("voipstat");
  for (size_t i = before; i < before + 2; ++i)
    EXPECT_NE(reports[i].find("|3|60|OnDemand|"), std::string::npos) << reports[i];
  ASSERT_TRUE(gw::WaitUntil([] {
    char q[16];
    tcapi_get("Watchdog_VoIPStats", "Query", q);
    return strcmp(q, "0") == 0;
  }));
  Config(MOD_VOIP_STATS);
  ASSERT_TRUE(voice_.WaitFor("query wordData=3", 3));
  console = daemon_.NewStderr();
  EXPECT_EQ(Count(console, "set timer for Ondemand mode, 5s \n"), 1u) << console;

  // Mode 1: the query subscribes; each call's record is reported with its
  // own times and the call id the voice application wrote.
  voice_.Ctl("hangup");
  SetConfig("Watchdog_VoIPStats", "Mode", "1");
  Config(MOD_VOIP_STATS);
  ASSERT_TRUE(voice_.WaitFor("subscribed per-call"));
  Settled();  // the mode-3 answers are all reported
  before = Reports("voipstat").size();
  voice_.Ctl("call in 3 alice@voip.test");
  ASSERT_TRUE(voice_.WaitFor("answer stats call"));
  ASSERT_TRUE(WaitReports("voipstat", before + 1));
  std::vector<std::string> call = Split(Reports("voipstat")[before], '|');
  ASSERT_EQ(call.size(), 26u);
  EXPECT_EQ(call[2] + call[4], "1alice@voip.test");
  EXPECT_EQ(std::stol(call[1]) - std::stol(call[0]), 3);
  EXPECT_EQ(call[5], "150") << "3 s of 50 packets";
  EXPECT_EQ(call[12] + call[13] + call[14], "111") << "one incoming call answered";
}

TEST_F(Services, VoipRegistrationAlarmsFollowEachAnswer) {
  auto reported = [](const std::string& text) {
    return gw::WaitUntil(
        [&] {
          std::vector<std::string> r = Reports("voipreg");
          return std::find(r.begin(), r.end(), text) != r.end();
        },
        20000);
  };
  Start();
  ASSERT_TRUE(voice_.WaitFor("answer register counter=0 status=0"));
  voice_.Ctl("register 2");  // before any configuration change the switch is off
  ASSERT_TRUE(WaitReports("voipreg", 1));
  EXPECT_EQ(Reports("voipreg")[0], "ALARM_SIP_REGISTER_FAILURE|1");
  Config(MOD_VOIP_REGISTER);  // switch on: status 2 is improper configuration
  ASSERT_TRUE(gw::WaitUntil([] {
    std::vector<std::string> r = Reports("voipreg");
    return r.back().rfind("ALARM_SIP_CLIENT_IMPROPER_CONFIGURATION|", 0) == 0;
  }));
  voice_.Ctl("register 7 -5");  // the counter goes out as the application sent it
  ASSERT_TRUE(reported("ALARM_SIP_REGISTER_FAILURE|-5"));
  EXPECT_NE(daemon_.Stderr().find("VoIP registration status 7 is unknown, reported as a "
                                  "registration failure\n"),
            std::string::npos);
  voice_.Ctl("register 0");
  Tick();
  voice_.Ctl("register 1 100");
  ASSERT_TRUE(reported("ALARM_SIP_REGISTER_FAILURE|100"));

  // One report for each answer with a non-zero status, none for status 0.
  std::vector<std::string> reports = Reports("voipreg");
  size_t failed = 0;
  for (const std::string& line : voice_.Log()) {
    failed += line.rfind("answer register", 0) == 0 && line.find("status=0") == std::string::npos;
    if (line.find("counter=100 status=1") != std::string::npos) break;
  }
  EXPECT_EQ(std::find(reports.begin(), reports.end(), "ALARM_SIP_REGISTER_FAILURE|100") -
                reports.begin() + 1,
            static_cast<long>(failed));
  EXPECT_EQ(Count(Joined(), "wordData"), 0u) << "the registration query has no wordData";
}

TEST_F(Services, IgmpTimerFollowsItsPeriod) {
  SetConfig("Watchdog_IGMP", "Period", "30");
  Start();
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "IGMP TIMER_EXPIRED") >= 2; }));
  SetConfig("Watchdog_IGMP", "Period", "00");  // 0, but not the text "0"
  Config(MOD_IGMP);
  ASSERT_TRUE(
      gw::WaitUntil([] { return Count(gw::Console(), "Timer change, set new timer, 0") == 1; }));
  for (int i = 0; i < 2; ++i) Tick();  // 60 s: two expiries, were the timer running
  SetConfig("Watchdog_IGMP", "Period", "30");
  Config(MOD_IGMP);
  ASSERT_TRUE(
      gw::WaitUntil([] { return Count(gw::Console(), "Timer change, set new timer, 30") == 1; }));
  std::string console = gw::Console();
  size_t stopped = console.find("Timer change, set new timer, 0");
  size_t restarted = console.find("Timer change, set new timer, 30");
  EXPECT_EQ(Count(console.substr(stopped, restarted - stopped), "IGMP TIMER_EXPIRED"), 0u);
  ASSERT_TRUE(gw::WaitUntil(
      [&] { return Count(gw::Console().substr(restarted), "IGMP TIMER_EXPIRED") >= 1; }));
  SetConfig("Watchdog_IGMP", "Period", "0");
  Config(MOD_IGMP);
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "clear timer") == 1; }));
  EXPECT_TRUE(Reports("igmp").empty());
}

TEST_F(Services, GeneralModuleRunsANewShellCommandOnce) {
  Start();
  auto runs = [](const std::string& text) {
    size_t n = 0;
    for (const std::string& r : Reports("shell")) n += r.find(text) != std::string::npos;
    return n;
  };
  SetConfig("Watchdog_Common", "ShellCommand", "echo one; echo '  two'");
  Config(MOD_GENERAL);
  ASSERT_TRUE(gw::WaitUntil([&] { return runs("echo one; echo '  two'|2| two") == 1; }));
  Config(MOD_GENERAL);  // unchanged: not run again
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "has run already") == 1; }));
  SetConfig("Watchdog_Common", "ShellCommand", "echo three");
  Config(MOD_GENERAL);
  ASSERT_TRUE(gw::WaitUntil([&] { return runs("echo three|1| three") == 1; }));
  SetConfig("Watchdog_Common", "ShellCommand", "");
  Config(MOD_GENERAL);
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "ShellCommand is empty") == 1; }));
  SetConfig("Watchdog_Common", "ShellCommand", "echo three");
  Config(MOD_GENERAL);  // cleared in between: runs again
  ASSERT_TRUE(gw::WaitUntil([&] { return runs("echo three|1| three") == 2; }));
  EXPECT_EQ(runs("|1| one"), 1u);
}

}  // namespace
