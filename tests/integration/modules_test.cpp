// Module threads in the running daemon: which start from the configuration,
// start, stop and query by command, the sample module's traces, forwarding to
// module channels, and timers that end with their module.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "gateway.h"

using gw::Count;
using gw::Daemon;
using gw::SetConfig;

namespace {

void Sleep(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Waits until module `mod` answers `want` to a query.
bool QueryBecomes(gw::ResultSocket& results, uint16_t mod, long want) {
  return gw::WaitUntil([&] { return results.Query(mod) == want; });
}

TEST(ModuleStart, FeatureOffStartsNothing) {
  SetConfig("Watchdog_Common", "Enable", "0");
  SetConfig("Watchdog_PPP", "Timer", "30");
  Daemon d;
  ASSERT_TRUE(d.Start());
  gw::RunResult status = gw::Run("wdctl status --json");
  EXPECT_EQ(Count(status.output, "\"running\":false"), 13u) << status.output;
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_THREAD_START, MOD_SAMPLE));
  gw::ResultSocket results;
  EXPECT_EQ(results.Query(MOD_SAMPLE), WD_QUERY_NOT_RUNNING) << "type 2 needs the feature";
  EXPECT_EQ(d.NewStderr(), "");
}

TEST(ModuleStart, ConfigurationDecidesWhichModulesRun) {
  SetConfig("Watchdog_Common", "Enable", "1");
  SetConfig("Watchdog_PPP", "Timer", "0");
  SetConfig("Watchdog_TR069", "RegisterTimer", "60");
  SetConfig("Watchdog_TR069", "PITimer", "30");
  SetConfig("Watchdog_ARP", "Timer", "0");
  SetConfig("Watchdog_Route", "Mode", "2");
  Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  gw::ResultSocket results;
  struct {
    uint16_t mod;
    long answer;
  } want[] = {{MOD_DEFAULT, 9000}, {MOD_PPPOE, 9000},   {MOD_TR069, 0},
              {MOD_ARP, 9000},     {MOD_IP_ROUTE, 0},   {MOD_PERIODIC_INFO, 9000},
              {MOD_IGMP, 0},       {MOD_VOIP_STATS, 0}, {MOD_VOIP_REGISTER, 9000},
              {MOD_GENERAL, 0},    {MOD_MONITOR, 0},    {MOD_SAMPLE, 9000}};
  for (const auto& w : want) EXPECT_EQ(results.Query(w.mod), w.answer) << "module " << w.mod;

  std::string err = d.Stderr();
  for (const char* line :
       {"\r\npppObj->timer error!\r\n", "\r\ntr069Obj->registerTimer = 60\r\n",
        "\r\narpObj->timer error!\r\n",
        "\r\nget info Timer error!\r\n\r\ncreate MOD_PERIODIC_INFO thread fail!\r\n",
        "get voipstatus registerTimer error!create MOD_VOIP_REGISTER thread fail!\r\n"}) {
    EXPECT_EQ(Count(err, line), 1u) << line << "\n" << err;
  }
  EXPECT_EQ(err.find("route Timer error"), std::string::npos);
  std::string console = gw::Console();
  for (const char* trace :
       {"tr069Obj->registerTimer and tr069Obj->PITimer are not 0, So start TR069 modurle",
        "tr069 thread ret=0!", "route thread ret=0!"}) {
    EXPECT_NE(console.find(trace), std::string::npos) << trace;
  }
}

TEST(ModuleStart, StartStopAndQueryByCommand) {
  SetConfig("Watchdog_Common", "Enable", "1");
  SetConfig("Watchdog_ARP", "Timer", "0");
  Daemon d;
  ASSERT_TRUE(d.Start());
  gw::ResultSocket results;
  EXPECT_EQ(results.Query(MOD_ARP), WD_QUERY_NOT_RUNNING);

  SetConfig("Watchdog_ARP", "Timer", "20");
  EXPECT_EQ(gw::Run("wdctl start arp").status, 0);
  EXPECT_TRUE(QueryBecomes(results, MOD_ARP, 0));
  ASSERT_TRUE(gw::WaitUntil([] { return gw::Exists("/var/wd_arp.chanl"); }));
  EXPECT_EQ(gw::Run("wdctl exit arp").status, 0);
  EXPECT_TRUE(QueryBecomes(results, MOD_ARP, WD_QUERY_NOT_RUNNING));

  // Started again it makes its channel anew at the same path and receives.
  unlink("/var/wd_arp.chanl");
  EXPECT_EQ(gw::Run("wdctl start arp").status, 0);
  EXPECT_TRUE(QueryBecomes(results, MOD_ARP, 0));
  EXPECT_TRUE(gw::WaitUntil([] { return gw::Exists("/var/wd_arp.chanl"); }));
  EXPECT_EQ(gw::Run("wdctl exit arp").status, 0);
  EXPECT_TRUE(QueryBecomes(results, MOD_ARP, WD_QUERY_NOT_RUNNING));

  // Neither the default entry nor the relay's entry is a module to start.
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_THREAD_START, MOD_DEFAULT));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_THREAD_START, MOD_MSG_RESEND));
  EXPECT_EQ(results.Query(MOD_DEFAULT), WD_QUERY_NOT_RUNNING);
  EXPECT_TRUE(d.Running());
}

TEST(SampleModule, TracesEveryEventAndOutlivesThreadExit) {
  SetConfig("Watchdog_Common", "Enable", "1");
  Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  gw::ResultSocket results;
  EXPECT_EQ(gw::Run("wdctl start sample").status, 0);
  ASSERT_TRUE(gw::WaitUntil([] { return gw::Exists("/var/wd_smple.chanl"); }));
  EXPECT_EQ(results.Query(MOD_SAMPLE), 0);

  gw::ClearConsole();
  for (const char* cmd :
       {"config", "exit", "inform", "inform-response", "cr-name-change", "name-change"}) {
    EXPECT_EQ(gw::Run(std::string("wdctl ") + cmd + " sample").status, 0) << cmd;
  }
  wdMsg withData = gw::Event(RECEIVE_FROM, MOD_SAMPLE, "hello");
  ASSERT_TRUE(gw::SendToChannel("/var/wd_smple.chanl", &withData, sizeof withData));
  for (int type = 2; type <= 8; ++type) {
    if (type == 4) continue;
    std::string line = "MOD_SAMPLE Received wdMsg, dst#11#, type#" + std::to_string(type) + "#\n";
    EXPECT_TRUE(gw::WaitUntil([&] { return Count(gw::Console(), line) == 1; })) << line;
  }
  EXPECT_TRUE(gw::WaitUntil([] {
    return gw::Console().find("MOD_SAMPLE Received wdMsg, dst#11#, data#hello#\n") !=
           std::string::npos;
  })) << gw::Console();
  EXPECT_NE(gw::Console().find("Function:mod_sampleHandler Line="), std::string::npos);
  EXPECT_EQ(results.Query(MOD_SAMPLE), 0) << "THREAD_EXIT does not end the sample module";
}

TEST(SampleModule, GarbageOnTheChannelDoesNoHarm) {
  SetConfig("Watchdog_Common", "Enable", "1");
  Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  EXPECT_EQ(gw::Run("wdctl start sample").status, 0);
  ASSERT_TRUE(gw::WaitUntil([] { return gw::Exists("/var/wd_smple.chanl"); }));
  gw::ClearConsole();
  char junk[20000];
  memset(junk, 'A', sizeof junk);  // no terminating zero anywhere, datalen 'A'
  ASSERT_TRUE(gw::SendToChannel("/var/wd_smple.chanl", junk, 0));
  ASSERT_TRUE(gw::SendToChannel("/var/wd_smple.chanl", junk, 3));
  ASSERT_TRUE(gw::SendToChannel("/var/wd_smple.chanl", junk, WD_MSG_SIZE));
  ASSERT_TRUE(gw::SendToChannel("/var/wd_smple.chanl", junk, sizeof junk));
  EXPECT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "data#AAAA") == 2; }))
      << gw::Console();
  EXPECT_EQ(Count(gw::Console(), "Receieved 0 bytes!\n"), 1u);
  EXPECT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "MOD_SAMPLE Received") == 3; }));
  gw::ResultSocket results;
  EXPECT_EQ(results.Query(MOD_SAMPLE), 0);
}

TEST(Forwarding, QueryDataReachesTheVoipModulesWholeAndMonitorDataTheMonitor) {
  SetConfig("Watchdog_Common", "Enable", "1");
  Daemon d;
  ASSERT_TRUE(d.Start());
  SetConfig("Watchdog_VoIPStatus", "RegisterTimer", "15");
  EXPECT_EQ(gw::Run("wdctl start voip_register").status, 0);
  // The taps take the channel paths over once the modules have bound them.
  for (const char* path :
       {"/var/wd_voip_stats.chanl", "/var/wd_voip_register.chanl", "/var/wd_monitor.chanl"}) {
    ASSERT_TRUE(gw::WaitUntil([&] { return gw::Exists(path); })) << path;
  }
  gw::ChannelTap stats("/var/wd_voip_stats.chanl");
  gw::ChannelTap reg("/var/wd_voip_register.chanl");
  gw::ChannelTap monitor("/var/wd_monitor.chanl");

  std::vector<unsigned char> data(100);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i + 1);
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, MOD_VOIP_STATS, 1, data));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, MOD_VOIP_REGISTER, 1, data));
  wdMsg msg;
  ASSERT_EQ(stats.Receive(&msg), WD_MSG_SIZE);
  EXPECT_EQ(msg.eventType, RECEIVE_FROM);
  EXPECT_EQ(msg.destMod, MOD_VOIP_STATS);
  EXPECT_EQ(msg.datalen, 92);
  EXPECT_EQ(memcmp(msg.data, data.data(), 92), 0);
  EXPECT_EQ(msg.data[92], 0);
  ASSERT_EQ(reg.Receive(&msg), WD_MSG_SIZE);
  EXPECT_EQ(msg.destMod, MOD_VOIP_REGISTER);
  EXPECT_EQ(msg.datalen, 8);
  EXPECT_EQ(memcmp(msg.data, data.data(), 8), 0);
  EXPECT_EQ(msg.data[8], 0);

  // dataLength 1 forwards nothing; 2 forwards a whole record, the rest zero.
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, MOD_VOIP_STATS, 1, {9}));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, MOD_VOIP_STATS, 1, {7, 7}));
  ASSERT_EQ(stats.Receive(&msg), WD_MSG_SIZE);
  EXPECT_EQ(msg.datalen, 92);
  EXPECT_EQ(msg.data[0], 7);
  EXPECT_EQ(msg.data[1], 7);
  EXPECT_EQ(msg.data[2], 0);
  EXPECT_EQ(stats.Receive(&msg, 300), -1) << "nothing more";
  // wordData other than 0 and 1 does nothing.
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, MOD_VOIP_STATS, 2, data));
  EXPECT_EQ(stats.Receive(&msg, 300), -1);

  // Monitor data goes to the monitor module whatever module id it names.
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_MONITOR_DATA, MOD_ARP, 0, data));
  ASSERT_EQ(monitor.Receive(&msg), WD_MSG_SIZE);
  EXPECT_EQ(msg.eventType, MONITOR_DATA);
  EXPECT_EQ(msg.destMod, MOD_MONITOR);
  EXPECT_EQ(msg.datalen, 8);
  EXPECT_EQ(memcmp(msg.data, data.data(), 8), 0);
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_MONITOR_DATA, MOD_MONITOR, 0, {1, 2, 3}));
  ASSERT_EQ(monitor.Receive(&msg), WD_MSG_SIZE);
  EXPECT_EQ(msg.datalen, 8);
  EXPECT_EQ(msg.data[2], 3);
  EXPECT_EQ(msg.data[3], 0);
}

TEST(ModuleTimers, PeriodicTimerEndsWithItsModule) {
  SetConfig("Watchdog_Common", "Enable", "1");
  SetConfig("Watchdog_IGMP", "Period", "1");
  Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  const std::string fired = "start to send eventType=1 destMod=6";
  ASSERT_TRUE(gw::WaitUntil([&] { return Count(gw::Console(), fired) >= 2; })) << gw::Console();
  EXPECT_NE(gw::Console().find("send bytesWritten=8016"), std::string::npos);

  EXPECT_EQ(gw::Run("wdctl exit igmp").status, 0);
  gw::ResultSocket results;
  ASSERT_TRUE(QueryBecomes(results, MOD_IGMP, WD_QUERY_NOT_RUNNING));
  Sleep(300);
  size_t after = Count(gw::Console(), fired);
  Sleep(2500);
  EXPECT_EQ(Count(gw::Console(), fired), after) << "no expiry after THREAD_EXIT";

  // Started again, it reads its period anew and its timer runs again.
  EXPECT_EQ(gw::Run("wdctl start igmp").status, 0);
  EXPECT_TRUE(gw::WaitUntil([&] { return Count(gw::Console(), fired) >= after + 2; }));
}

TEST(ModuleTimers, TimerThreadRunsRoundRobin) {
  Daemon d;
  ASSERT_TRUE(d.Start());
  std::vector<int> policies = gw::ThreadPolicies(d.pid());
  EXPECT_EQ(std::count(policies.begin(), policies.end(), 2), 4)
      << "the timer thread and the three relay threads, SCHED_RR";
  EXPECT_EQ(d.Stderr().find("refused"), std::string::npos);
}

}  // namespace
