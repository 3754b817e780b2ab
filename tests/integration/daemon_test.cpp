// The daemon driven from outside: start-up, the command loop, the tools,
// module threads started, stopped and queried by command, the sample
// module's traces, forwarding to module channels, and module timers; with
// NoRealTime.*, on a gateway that refuses real-time scheduling.

#include <atomic>
#include <memory>
#include <thread>

#include "gateway.h"
#include "peer_wire.h"

using gw::Count;
using gw::Daemon;
using gw::SetConfig;

namespace {

int Mode(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

TEST(StartUp, PidFileWorkDirectoryNothingWritableByOthersAndTheLastOptionDecides) {
  Daemon d;
  ASSERT_TRUE(d.Start({"-x", "-d"}));
  EXPECT_EQ(gw::ReadFile("/var/run/qorv_watchdogd.pid"), std::to_string(d.pid()) + "\n");
  EXPECT_EQ(Mode("/var/wd_tmp"), 0755);
  EXPECT_EQ(Mode("/tmp/watchdog_sock") & 022, 0);
  EXPECT_EQ(Mode("/var/wdSyslogRx.chanl") & 022, 0);
  EXPECT_EQ(Count(d.Stderr(), "\r\n main  while !=-1\r\n"), 2u);
  gw::ResultSocket results;
  ASSERT_EQ(results.Query(0x0B), WD_QUERY_NOT_RUNNING);
  EXPECT_NE(gw::Console(), "") << "-x then -d: traces";
  d.Kill();
  gw::ClearConsole();
  ASSERT_TRUE(d.Start({"-d", "-x"}));
  ASSERT_EQ(results.Query(0x0B), WD_QUERY_NOT_RUNNING);
  EXPECT_EQ(gw::Console(), "") << "-d then another option: no trace";
}

TEST(Commands, QueriesInvalidTypesReloadsAndBadInput) {
  Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  gw::ResultSocket results;
  for (uint16_t mod : {0, 1, 12, 13, 0xFFFF}) {
    ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, mod, 0));
    wdCmdMsg reply;
    ASSERT_TRUE(results.Receive(&reply)) << mod;
    EXPECT_EQ(std::vector<uint32_t>(
                  {reply.signaltype, reply.sequenceNumber, reply.wordData, reply.dataLength}),
              std::vector<uint32_t>({4, mod, 9000, 0}));
  }
  gw::ClearConsole();
  for (uint32_t type : {0u, 9u, 13u, 0xDEADBEEFu, 11u, 12u})
    ASSERT_TRUE(gw::SendCommand(type, 1, 0));
  unsigned char junk[15] = {1, 2, 3};
  ASSERT_TRUE(gw::SendToChannel(WD_CMD_SOCK_PATH, junk, 0));
  ASSERT_TRUE(gw::SendToChannel(WD_CMD_SOCK_PATH, junk, 15));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_MONITOR_DATA, 10, 0, {1, 2, 3}, 8));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, 7, 1, {1, 2}, 0xFFFFFFFFu));
  ASSERT_TRUE(
      gw::SendCommand(MSG_QORVWATCHDOG_CONFIG_CHANGE, 1, 0, std::vector<unsigned char>(700)));
  for (uint32_t type : {1u, 3u}) ASSERT_TRUE(gw::SendCommand(type, 13, 0));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_THREAD_START, 0xFFFF, 0));  // ignored silently
  ASSERT_EQ(results.Query(1), WD_QUERY_NOT_RUNNING);
  EXPECT_EQ(d.NewStderr(),
            "Invalid message type: 0x00000000\r\nInvalid message type: 0x00000009\r\n"
            "Invalid message type: 0x0000000D\r\nInvalid message type: 0xDEADBEEF\r\n"
            "iReadLen=1\t\niReadLen=1\t\niReadLen=2\t\niReadLen=2\t\niReadLen=2\t\n"
            "Invalid module id: 13, command type 1 dropped\r\n"
            "Invalid module id: 13, command type 3 dropped\r\n");
  EXPECT_EQ(gw::Console().find("wd_simpleSendMsg"), std::string::npos) << "reloads send nothing";
}

TEST(Commands, FloodsAndAnAskerThatNeverReadsLeaveTheLoopServing) {
  Daemon d;
  ASSERT_TRUE(d.Start());
  int sent = 0;
  for (int i = 0; i < 5000; ++i) {
    sent += gw::SendCommand(i % 14, i % 20, 1, {1, 2, 3, 4, 5, 6, 7, 8});
  }
  EXPECT_GT(sent, 4000);
  int stuck = gw::Bind(WD_RESULT_SOCK_PATH);  // never read
  for (int i = 0; i < 50; ++i) ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, 1, 0));
  ASSERT_TRUE(gw::SendCommand(0xABCD, 1, 0));  // handled after every query before it
  EXPECT_TRUE(gw::WaitUntil([&] { return Count(d.Stderr(), "0x0000ABCD") == 1; }, 20000));
  EXPECT_GE(Count(d.Stderr(),
                  "Query reply for module 1 to /tmp/wd_result_sock dropped: "
                  "Resource temporarily unavailable\r\n"),
            30u);
  close(stuck);
  gw::ResultSocket results;
  EXPECT_EQ(results.Query(MOD_SAMPLE, 20000), WD_QUERY_NOT_RUNNING);
}

TEST(Commands, ABurstToThreeModulesArrivesWholeAndInOrderWhileQueriesAreAnswered) {
  SetConfig("Watchdog_Common", "Enable", "1");
  SetConfig("Watchdog_VoIPStatus", "RegisterTimer", "15");
  Daemon d;
  ASSERT_TRUE(d.Start());
  struct Target {
    const char* path;
    uint32_t type, mod, word;
  } targets[] = {{"/var/wd_voip_stats.chanl", MSG_QORVWATCHDOG_QUERY, MOD_VOIP_STATS, 1},
                 {"/var/wd_voip_register.chanl", MSG_QORVWATCHDOG_QUERY, MOD_VOIP_REGISTER, 1},
                 {"/var/wd_monitor.chanl", MSG_QORVWATCHDOG_MONITOR_DATA, MOD_MONITOR, 0}};
  constexpr uint32_t kBurst = 10000;
  // Taps in the modules' places take the events, now and then pausing as a
  // busy module would, so that the burst outruns them.
  std::vector<uint32_t> got[3];
  std::vector<std::thread> taps;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(gw::WaitUntil([&] { return gw::Exists(targets[i].path); }));
    taps.emplace_back([&, i, tap = std::make_shared<gw::ChannelTap>(targets[i].path)] {
      wdMsg msg;
      int event = i < 2 ? RECEIVE_FROM : MONITOR_DATA;  // not the module's timer
      auto last = std::chrono::steady_clock::now();
      while (got[i].size() < kBurst && tap->Receive(&msg, 5000) == WD_MSG_SIZE &&
             std::chrono::steady_clock::now() - last < std::chrono::seconds(5)) {
        if (msg.eventType != event) continue;
        last = std::chrono::steady_clock::now();
        uint32_t n;
        memcpy(&n, msg.data, sizeof n);
        got[i].push_back(n);
        if (n % 1000 == 999) std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    });
  }
  // A query sent once a tenth of the burst is out is answered before the rest is.
  std::atomic<uint32_t> sent{0};
  std::atomic<bool> answeredDuringBurst{false};
  std::thread asker([&] {
    gw::ResultSocket results;
    ASSERT_TRUE(gw::WaitUntil([&] { return sent >= kBurst / 10; }, 60000));
    answeredDuringBurst = results.Query(MOD_MONITOR) == 0 && sent < kBurst;
  });
  int client = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", WD_CMD_SOCK_PATH);
  for (uint32_t n = 0; n < kBurst; ++n) {
    for (const Target& t : targets) {
      unsigned char cmd[16 + 8];
      wdCmdMsg head = peer::DeviceHead({t.type, static_cast<uint16_t>(t.mod), 0, t.word, 8});
      memcpy(cmd, &head, sizeof head);
      memcpy(cmd + 16, &n, sizeof n);
      memset(cmd + 20, 0, 4);
      ASSERT_EQ(sendto(client, cmd, sizeof cmd, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr),
                static_cast<ssize_t>(sizeof cmd));
    }
    sent = n + 1;
  }
  close(client);
  asker.join();
  for (std::thread& t : taps) t.join();
  std::vector<uint32_t> all(kBurst);
  for (uint32_t n = 0; n < kBurst; ++n) all[n] = n;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(got[i], all) << targets[i].path;
  EXPECT_TRUE(answeredDuringBurst) << "a query waits for no module";
  EXPECT_EQ(d.Stderr().find("dropped"), std::string::npos) << d.Stderr();
}

TEST(Tools, TcapiAndWdctlWithoutDaemonOrReply) {
  EXPECT_EQ(gw::Run("tcapi set N A 30 && tcapi get N A && tcapi show N && tcapi get N B").output,
            "30\n[N]\nA=30\ntcapi: no attribute B of node N\n");
  for (const char* bad :
       {"tcapi set 'Bad Node' A 1", "tcapi frobnicate", "wdctl", "wdctl query pppp",
        "wdctl send 1 pppoe -x 0g", "wdctl send 1 70000", "wdctl --timeout 0 status"}) {
    EXPECT_EQ(gw::Run(bad).status, std::string(bad).find("Node") == std::string::npos ? 2 : 1)
        << bad;
  }
  // A commit hook that never ends is killed with its group at 30 s (3 s here).
  gw::WriteFile("/etc/tcapi.d/Hang", "#!/bin/sh\necho $$\nsleep 1000 & sleep 1000\n");
  ASSERT_EQ(chmod("/etc/tcapi.d/Hang", 0755), 0);
  std::string faketime;
  for (const std::string& word : gw::Faketime(10)) faketime += "'" + word + "' ";
  gw::RunResult hang = gw::Run(faketime + "tcapi commit Hang");
  EXPECT_EQ(hang.status, 1);
  std::string group = hang.output.substr(0, hang.output.find('\n') + 1);
  EXPECT_EQ(hang.output,
            group +
                "tcapi_commit: \"/etc/tcapi.d/Hang\" still running after 30 s, stopped\n"
                "tcapi: commit hook of Hang failed\n");
  EXPECT_TRUE(gw::WaitUntil([&] { return kill(-atoi(group.c_str()), 0) != 0; }));
  EXPECT_EQ(gw::Run("wdctl query pppoe").status, 1) << "no daemon";
  int fd = gw::Bind(WD_CMD_SOCK_PATH);  // takes commands, never answers
  gw::RunResult r = gw::Run("wdctl --timeout 0.3 query arp");
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.output, "wdctl: no reply from watchdogd within 300 ms\n");
  close(fd);
}

TEST(ModuleStart, StartStopAndQueryByCommandAndWdctl) {
  SetConfig("Watchdog_Common", "Enable", "0");
  Daemon d;
  ASSERT_TRUE(d.Start());
  auto query = [] { return gw::Run("wdctl query arp").output; };
  EXPECT_EQ(gw::Run("wdctl start arp").status, 0);
  EXPECT_EQ(query(), "arp: not running (9000)\n") << "type 2 needs the feature";
  SetConfig("Watchdog_Common", "Enable", "1");
  SetConfig("Watchdog_ARP", "Timer", "20");
  EXPECT_EQ(gw::Run("wdctl start arp").status, 0);
  EXPECT_TRUE(gw::WaitUntil([&] { return query() == "arp: running (0)\n"; }));
  EXPECT_TRUE(gw::WaitUntil([] { return gw::Exists("/var/wd_arp.chanl"); }));
  EXPECT_EQ(gw::Run("wdctl exit arp").status, 0);
  EXPECT_TRUE(gw::WaitUntil([&] { return query() == "arp: not running (9000)\n"; }));
  EXPECT_TRUE(gw::WaitUntil([] { return !gw::Exists("/var/wd_arp.chanl"); }))
      << "the channel's path goes with the module";
  // Neither the default entry nor the relay's entry is a module to start.
  EXPECT_EQ(gw::Run("wdctl start default && wdctl start msg_resend").status, 0);
  std::string status = gw::Run("wdctl status").output;
  EXPECT_EQ(Count(status, " not running\n"), 13u) << status;
  EXPECT_EQ(status.find(" 0 default        not running\n"), 0u) << status;
  EXPECT_EQ(gw::Run("wdctl --json query 3").output,
            "{\"id\":3,\"module\":\"arp\",\"running\":false,\"answer\":9000}\n");
  EXPECT_FALSE(gw::Exists(WD_RESULT_SOCK_PATH)) << "wdctl removes its reply socket";
}

TEST(SampleModule, TracesEveryEventOutlivesThreadExitAndTakesGarbage) {
  SetConfig("Watchdog_Common", "Enable", "1");
  Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  EXPECT_EQ(gw::Run("wdctl start sample").status, 0);
  ASSERT_TRUE(gw::WaitUntil([] { return gw::Exists("/var/wd_smple.chanl"); }));
  gw::ClearConsole();
  EXPECT_EQ(gw::Run("wdctl exit sample && wdctl inform sample").status, 0);
  char junk[20000];
  memset(junk, 'A', sizeof junk);  // no terminating zero anywhere, datalen 'A'
  for (size_t len : {size_t{0}, size_t{3}, sizeof junk}) {
    ASSERT_TRUE(gw::SendToChannel("/var/wd_smple.chanl", junk, len));
  }
  wdMsg last = gw::Event(RECEIVE_FROM, MOD_SAMPLE, "hello");
  ASSERT_TRUE(gw::SendToChannel("/var/wd_smple.chanl", &last, sizeof last));
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "data#hello#\n") == 1; }));
  EXPECT_EQ(Count(gw::Console(), "Function:mod_sampleHandler Line="), 6u)
      << "type#3#, type#5#, Receieved 0 bytes!, the 3 bytes as a type, the long one cut at "
         "the record, data#hello#\n"
      << gw::Console();
  EXPECT_EQ(Count(gw::Console(), "MOD_SAMPLE Received wdMsg, dst#11#, type#3#\n"), 1u);
}

TEST(Forwarding, QueryDataReachesTheVoipModulesWholeAndMonitorDataTheMonitor) {
  SetConfig("Watchdog_Common", "Enable", "1");
  SetConfig("Watchdog_VoIPStatus", "RegisterTimer", "15");
  Daemon d;
  ASSERT_TRUE(d.Start());
  const char* paths[] = {"/var/wd_voip_stats.chanl", "/var/wd_voip_register.chanl",
                         "/var/wd_monitor.chanl"};
  for (const char* path : paths)
    ASSERT_TRUE(gw::WaitUntil([&] { return gw::Exists(path); })) << path;
  gw::ChannelTap stats(paths[0]), reg(paths[1]), monitor(paths[2]);  // bound: the taps take over
  std::vector<unsigned char> data(100, 0x55);
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, MOD_VOIP_STATS, 1, {9}));   // too short
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, MOD_VOIP_STATS, 2, data));  // word 2
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, MOD_VOIP_STATS, 1, data));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, MOD_VOIP_REGISTER, 1, data));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, MOD_VOIP_STATS, 1, {7, 7}));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_MONITOR_DATA, MOD_ARP, 0, {1, 2, 3}));  // any id
  struct {
    gw::ChannelTap* tap;
    int event, destMod, datalen;
    std::string data;
  } want[] = {{&stats, RECEIVE_FROM, MOD_VOIP_STATS, 92, std::string(92, 0x55) + '\0'},
              {&reg, RECEIVE_FROM, MOD_VOIP_REGISTER, 8, std::string(8, 0x55) + '\0'},
              {&stats, RECEIVE_FROM, MOD_VOIP_STATS, 92, std::string("\x07\x07\0", 3)},
              {&monitor, MONITOR_DATA, MOD_MONITOR, 8, std::string("\x01\x02\x03\0", 4)}};
  for (const auto& w : want) {
    wdMsg msg;
    ASSERT_EQ(w.tap->Receive(&msg, 5000, w.event), WD_MSG_SIZE);
    EXPECT_EQ(msg.destMod, w.destMod);
    EXPECT_EQ(msg.datalen, w.datalen);
    EXPECT_EQ(std::string(msg.data, w.data.size()), w.data)
        << "the first forwarded is the whole one";
  }
}

TEST(ModuleTimers, APeriodicTimerEndsWithItsModuleAndTimersRunRoundRobin) {
  SetConfig("Watchdog_Common", "Enable", "1");
  SetConfig("Watchdog_IGMP", "Period", "1");
  SetConfig("Watchdog_ARP", "Timer", "1");
  Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  std::vector<int> policies = gw::ThreadPolicies(d.pid());
  EXPECT_EQ(std::count(policies.begin(), policies.end(), 2), 4)
      << "the timer thread and the three relay threads, SCHED_RR";
  const std::string igmp = "start to send eventType=1 destMod=6";
  const std::string arp = "start to send eventType=1 destMod=3";
  ASSERT_TRUE(gw::WaitFor(gw::kConsole, igmp, 2));
  EXPECT_EQ(gw::Run("wdctl exit igmp").status, 0);
  gw::ResultSocket results;
  ASSERT_TRUE(gw::WaitUntil([&] { return results.Query(MOD_IGMP) == WD_QUERY_NOT_RUNNING; }));
  // No IGMP expiry over three periods of the ARP timer, counted from two
  // periods on: a pass that noted the timer before its stop still calls it.
  size_t arpNow = Count(gw::Console(), arp);
  EXPECT_TRUE(gw::WaitFor(gw::kConsole, arp, arpNow + 2));
  size_t before = Count(gw::Console(), igmp);
  EXPECT_TRUE(gw::WaitFor(gw::kConsole, arp, arpNow + 5));
  EXPECT_EQ(Count(gw::Console(), igmp), before) << "no expiry after THREAD_EXIT";
  EXPECT_TRUE(gw::Reports("igmp").empty());
}

TEST(NoRealTime, TimerThreadFallsBackAndStillDelivers) {
  gw::SetConfig("Watchdog_Common", "Enable", "1");
  gw::SetConfig("Watchdog_IGMP", "Period", "1");
  gw::Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  std::string err = d.Stderr();
  EXPECT_EQ(err.rfind("\r\n main  while !=-1\r\n"
                      "watchdogd: SCHED_RR priority 75 refused for the timer thread (Operation not "
                      "permitted); real-time threads run with default scheduling\n",
                      0),
            0u)
      << err;
  EXPECT_EQ(gw::Count(err, "SCHED_RR"), 1u);
  std::vector<int> policies = gw::ThreadPolicies(d.pid());
  EXPECT_EQ(std::count(policies.begin(), policies.end(), 2), 0);
  EXPECT_TRUE(gw::WaitFor(gw::kConsole, "start to send eventType=1 destMod=6", 2));
}

}  // namespace
