// The VoIP statistics module in the running daemon (-d, 100 times faster),
// with the gateway's voice application answering its queries and the real
// syslog-ng taking the reports.

#include "gateway.h"

using gw::Count;
using gw::Reports;
using gw::SetConfig;
using gw::Split;
using gw::WaitReports;

namespace {

class Services : public ::testing::Test {
 protected:
  void SetUp() override {
    SetConfig("Watchdog_Common", "Enable", "1");
    SetConfig("Watchdog_VoIPStatus", "RegisterTimer", "30");
  }
  void Start() { ASSERT_TRUE(daemon_.Start({"-d"})); }
  static std::string VoiceLog() { return gw::ReadFile(gw::VoiceApp::kLog); }
  // Waits until every statistics record answered so far has been reported
  // (and "Query" reset before each report).
  void Settled() {
    ASSERT_TRUE(gw::WaitUntil(
        [&] { return Reports("voipstat").size() >= Count(VoiceLog(), "answer stats"); }, 20000));
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
  EXPECT_EQ(gw::GetConfig("Watchdog_VoIPStats", "Query"), "0") << "reset after a report";

  // Mode 3 without a delay: the periodic timer stops, nothing is armed.
  SetConfig("Watchdog_VoIPStats", "Mode", "3");
  Config(MOD_VOIP_STATS);
  ASSERT_TRUE(voice_.WaitFor("query wordData=3"));
  Settled();
  // With a delay: the configuration change queries at once (3), the one-shot
  // timer of "Query" seconds once more (7); with "Query" consumed, no timer.
  SetConfig("Watchdog_VoIPStats", "Query", "5");
  size_t before = Reports("voipstat").size();
  Config(MOD_VOIP_STATS);
  ASSERT_TRUE(voice_.WaitFor("query wordData=7"));
  ASSERT_TRUE(WaitReports("voipstat", before + 2));
  reports = Reports("voipstat");
  for (size_t i = before; i < before + 2; ++i)
    EXPECT_NE(reports[i].find("|3|60|OnDemand|"), std::string::npos) << reports[i];
  ASSERT_TRUE(gw::WaitUntil([] { return gw::GetConfig("Watchdog_VoIPStats", "Query") == "0"; }));
  Config(MOD_VOIP_STATS);
  ASSERT_TRUE(voice_.WaitFor("query wordData=3", 3));
  std::string console = daemon_.NewStderr();
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

}  // namespace
