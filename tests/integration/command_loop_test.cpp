// The daemon's start-up and command loop, driven through the command socket.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "gateway.h"

using gw::Count;
using gw::Daemon;

namespace {

TEST(StartUp, WritesPidFileAndMakesWorkDirectory) {
  Daemon d;
  ASSERT_TRUE(d.Start());
  EXPECT_EQ(gw::ReadFile("/var/run/qorv_watchdogd.pid"), std::to_string(d.pid()) + "\n");
  struct stat st;
  ASSERT_EQ(stat("/var/wd_tmp", &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_TRUE(gw::Exists("/tmp/watchdog_sock"));
  EXPECT_EQ(d.Stderr().find("main  while"), std::string::npos) << "no option, no option line";
}

TEST(StartUp, CommandSocketFailureEndsMainAfterThePidFile) {
  // A directory that cannot be removed stands where the socket must go.
  ASSERT_EQ(mkdir("/tmp/watchdog_sock", 0755), 0);
  gw::WriteFile("/tmp/watchdog_sock/keep", "x");
  Daemon d;
  ASSERT_TRUE(d.Start({}, false));
  EXPECT_EQ(d.Wait(20000), 255) << "main returns -1";
  EXPECT_EQ(d.Stderr(), "\r\n WDSockInit failed\r\n");
  EXPECT_TRUE(gw::Exists("/var/run/qorv_watchdogd.pid"));
  EXPECT_FALSE(gw::Exists("/var/wd_tmp")) << "nothing after the socket was started";
}

// Each run of the daemon with the given options: whether the trace is on is
// seen from the console after a command.
bool TracesWith(const std::vector<std::string>& args, std::string* stderrText) {
  gw::ClearConsole();
  Daemon d;
  if (!d.Start(args)) return false;
  gw::ResultSocket results;
  EXPECT_EQ(results.Query(MOD_PPPOE), WD_QUERY_NOT_RUNNING);
  *stderrText = d.Stderr();
  return gw::Console().find("wd_main while  select ok") != std::string::npos;
}

TEST(Options, LastOptionDecidesTheTrace) {
  std::string err;
  EXPECT_TRUE(TracesWith({"-d"}, &err));
  EXPECT_EQ(Count(err, "\r\n main  while !=-1\r\n"), 1u);
  EXPECT_TRUE(TracesWith({"-x", "-d"}, &err));
  EXPECT_EQ(Count(err, "\r\n main  while !=-1\r\n"), 2u);
  EXPECT_FALSE(TracesWith({"-d", "-x"}, &err));
  EXPECT_EQ(Count(err, "\r\n main  while !=-1\r\n"), 2u);
  EXPECT_FALSE(TracesWith({}, &err));
}

TEST(Options, DebugTraceShowsTheReceivedHeader) {
  Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  gw::ResultSocket results;
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, 0x0B, 0));
  wdCmdMsg reply;
  ASSERT_TRUE(results.Receive(&reply));
  std::string console = gw::Console();
  EXPECT_NE(console.find("Function:main Line="), std::string::npos) << console;
  for (const char* line : {"wd_main signaltype=4", "wd_main sequenceNumber=b", "wd_main wordData=0",
                           "wd_main dataLength=0", "MSG_QORVWATCHDOG_QUERY wordData=2328"}) {
    EXPECT_NE(console.find(line), std::string::npos) << line << "\n" << console;
  }
}

TEST(Query, ModuleWithoutThreadAnswers9000) {
  Daemon d;
  ASSERT_TRUE(d.Start());
  gw::ResultSocket results;
  for (uint16_t mod : {0, 1, 11, 12}) {
    ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, mod, 0));
    wdCmdMsg reply;
    ASSERT_TRUE(results.Receive(&reply)) << mod;
    EXPECT_EQ(reply.signaltype, 4u);
    EXPECT_EQ(reply.sequenceNumber, mod);
    EXPECT_EQ(reply.wordData, 9000u);
    EXPECT_EQ(reply.dataLength, 0u);
  }
}

TEST(Commands, InvalidTypesAreReportedInUpperCaseHex) {
  Daemon d;
  ASSERT_TRUE(d.Start());
  gw::ResultSocket results;
  for (uint32_t type : {0u, 9u, 13u, 0xDEADBEEFu}) ASSERT_TRUE(gw::SendCommand(type, 1, 0));
  ASSERT_EQ(results.Query(1), WD_QUERY_NOT_RUNNING);  // every command before it is handled
  EXPECT_EQ(d.NewStderr(),
            "Invalid message type: 0x00000000\r\n"
            "Invalid message type: 0x00000009\r\n"
            "Invalid message type: 0x0000000D\r\n"
            "Invalid message type: 0xDEADBEEF\r\n");
}

TEST(Commands, ReloadTypesSendNothingToAnyModule) {
  Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  gw::ResultSocket results;
  gw::ClearConsole();
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_SYSLOG_RELOAD, 1, 0));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_SYSLOG_RELOAD_2, 7, 0));
  ASSERT_EQ(results.Query(1), WD_QUERY_NOT_RUNNING);
  std::string console = gw::Console();
  EXPECT_EQ(Count(console, "wd_main signaltype=b"), 1u) << console;
  EXPECT_EQ(Count(console, "wd_main signaltype=c"), 1u) << console;
  EXPECT_EQ(console.find("wd_simpleSendMsg"), std::string::npos) << console;
  EXPECT_EQ(d.NewStderr(), "");
}

TEST(BadInput, IncompleteDatagramsAreReportedAndTheLoopGoesOn) {
  Daemon d;
  ASSERT_TRUE(d.Start());
  gw::ResultSocket results;
  unsigned char junk[15] = {1, 2, 3};
  ASSERT_TRUE(gw::SendRaw(junk, 0));
  ASSERT_TRUE(gw::SendRaw(junk, 5));
  ASSERT_TRUE(gw::SendRaw(junk, 15));
  ASSERT_TRUE(gw::SendCommandWithLength(MSG_QORVWATCHDOG_MONITOR_DATA, 10, 0, 8, {1, 2, 3}));
  ASSERT_TRUE(gw::SendCommandWithLength(MSG_QORVWATCHDOG_QUERY, 7, 1, 0xFFFFFFFFu, {1, 2}));
  std::vector<unsigned char> big(700, 0x55);
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_CONFIG_CHANGE, 1, 0, big));
  ASSERT_EQ(results.Query(1), WD_QUERY_NOT_RUNNING);
  EXPECT_EQ(d.NewStderr(),
            "iReadLen=1\t\n"
            "iReadLen=1\t\n"
            "iReadLen=1\t\n"
            "iReadLen=2\t\n"
            "iReadLen=2\t\n"
            "iReadLen=2\t\n");
}

TEST(BadInput, ModuleIdsBeyondTheTable) {
  Daemon d;
  ASSERT_TRUE(d.Start());
  gw::ResultSocket results;
  for (uint32_t type : {1u, 3u, 5u, 6u, 7u, 8u}) ASSERT_TRUE(gw::SendCommand(type, 13, 0));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_THREAD_START, 13, 0));      // ignored silently
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_THREAD_START, 0xFFFF, 0));  // ignored silently
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, 0xFFFF, 1, {1, 2, 3, 4}));  // not VoIP
  EXPECT_EQ(results.Query(13), WD_QUERY_NOT_RUNNING);
  EXPECT_EQ(results.Query(0xFFFF), WD_QUERY_NOT_RUNNING);
  std::string err = d.NewStderr();
  for (uint32_t type : {1u, 3u, 5u, 6u, 7u, 8u}) {
    std::string line =
        "Invalid module id: 13, command type " + std::to_string(type) + " dropped\r\n";
    EXPECT_EQ(Count(err, line), 1u) << line << err;
  }
  EXPECT_EQ(Count(err, "\n"), 6u) << err;
}

TEST(BadInput, FloodOfCommandsLeavesTheLoopServing) {
  Daemon d;
  ASSERT_TRUE(d.Start());
  // Thousands of commands of every kind, as fast as the socket takes them.
  int sent = 0;
  for (int i = 0; i < 5000; ++i) {
    uint32_t type = static_cast<uint32_t>(i % 14);
    if (type == MSG_QORVWATCHDOG_QUERY) continue;  // no reply socket is listening
    if (gw::SendCommand(type, static_cast<uint16_t>(i % 20), 1, {1, 2, 3, 4, 5, 6, 7, 8})) ++sent;
  }
  EXPECT_GT(sent, 4000);
  gw::ResultSocket results;
  EXPECT_EQ(results.Query(MOD_SAMPLE, 20000), WD_QUERY_NOT_RUNNING);
  EXPECT_TRUE(d.Running());
}

}  // namespace
