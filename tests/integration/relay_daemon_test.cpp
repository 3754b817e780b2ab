// The relay in the running daemon: the wait for syslog-ng at start-up, the
// flash copy across a killed daemon, damaged copies, the signals and the
// reload command.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "gateway.h"
#include "wd_buffer.h"
#include "wd_common.h"
#include "wd_timer.h"

using gw::Count;
using gw::Daemon;
using gw::FakeSyslog;

namespace {

const std::string kPppLine = "my.app.wd.ppp.0a1b2c3d4e5f: 1700000000|PPP_DOWN_RESET|UP|1.2.3.4|";
const std::string kRouteLine = "my.app.wd.route.0a1b2c3d4e5f: 1700000001|route table";

void WriteFlashCopy() {
  gw::WriteFile("/data/syslogmsg", "3#12#1\n" + kPppLine + "#6\n" + kRouteLine + "#16\n");
}

TEST(RelayStartUp, WaitsForSyslogNgBeforeAnythingElse) {
  Daemon d;
  ASSERT_TRUE(d.Start({}, false));
  ASSERT_TRUE(gw::WaitUntil(
      [&] { return Count(d.Stderr(), "Watchdogd, connect to syslog-NG failed\n") >= 2; }));
  EXPECT_FALSE(gw::Exists("/var/wd_tmp"));
  EXPECT_FALSE(gw::Exists("/var/wdSyslogRx.chanl")) << "the relay has not started";
  ASSERT_TRUE(gw::StartSyslogNg());
  EXPECT_TRUE(gw::WaitUntil([] { return gw::Exists("/var/wd_tmp"); }));
  gw::ResultSocket results;
  EXPECT_EQ(results.Query(MOD_SAMPLE), WD_QUERY_NOT_RUNNING);
}

TEST(RelayFlash, CopyIsRestoredRenumberedDeliveredAndRemoved) {
  WriteFlashCopy();
  FakeSyslog fake;
  Daemon d;
  ASSERT_TRUE(d.Start());
  ASSERT_TRUE(fake.WaitForCount(2));
  std::vector<std::string> got = fake.Received();
  EXPECT_EQ(got[0], "0#" + kPppLine + "#1");
  EXPECT_EQ(got[1], "0#" + kRouteLine + "#2");
  EXPECT_FALSE(gw::Exists("/data/syslogmsg"));
  std::string err = d.Stderr();
  EXPECT_NE(err.find("In loadMsgToWDBuf() func\nbuf=3#12#1\nobjNum=3, seqNum=12 pppMsgNum=1\n"),
            std::string::npos)
      << err;
}

TEST(RelayFlash, PppLinesOfAKilledDaemonAreDeliveredByTheNextOne) {
  // A daemon's relay that cannot reach syslog-ng reports two PPP alarms...
  pid_t child = fork();
  if (child == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    wd_timerInit();
    wd_bufInit();
    wd_initData();
    wd_syslogStr(6, "PPP_DOWN_RESET|UP|10.0.0.1|");
    wd_syslogStr(6, "PPP_DOWN_NO_RESET|UP|10.0.0.1|");
    pause();
    _exit(0);
  }
  // ...which are written to flash at once; then it is killed.
  ASSERT_TRUE(
      gw::WaitUntil([] { return gw::ReadFile("/data/syslogmsg").rfind("2#2#2\n", 0) == 0; }));
  std::string copy = gw::ReadFile("/data/syslogmsg");
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);

  ASSERT_TRUE(gw::StartSyslogNg());
  Daemon d;
  ASSERT_TRUE(d.Start());
  ASSERT_TRUE(gw::WaitUntil([] { return gw::ReportLines().size() == 2; }));
  std::vector<std::string> got = gw::ReportLines();
  EXPECT_NE(got[0].find("PPP_DOWN_RESET|UP|10.0.0.1|"), std::string::npos);
  EXPECT_NE(got[1].find("PPP_DOWN_NO_RESET|UP|10.0.0.1|"), std::string::npos);
  EXPECT_EQ(copy, "2#2#2\n" + got[0] + "#6\n" + got[1] + "#6\n");
  EXPECT_TRUE(gw::WaitUntil([] { return !gw::Exists("/data/syslogmsg"); }));
}

TEST(RelayFlash, DamagedCopiesNeverStopTheDaemon) {
  std::string garbage;
  srand(7);
  for (int i = 0; i < 300000; ++i) garbage += static_cast<char>(rand() % 256);
  gw::WriteFile("/data/syslogmsg", garbage);
  ASSERT_TRUE(gw::StartSyslogNg());
  Daemon d;
  ASSERT_TRUE(d.Start());
  EXPECT_FALSE(gw::Exists("/data/syslogmsg"));
  gw::ResultSocket results;
  EXPECT_EQ(results.Query(MOD_SAMPLE), WD_QUERY_NOT_RUNNING);
  EXPECT_TRUE(d.Running());
}

TEST(RelaySignals, Usr1SwitchesTheTraceAndUsr2DumpsTheBuffer) {
  WriteFlashCopy();
  FakeSyslog fake;
  fake.SetMode(FakeSyslog::kSilent);  // the lines stay, sent and unanswered
  Daemon d;
  ASSERT_TRUE(d.Start());
  ASSERT_TRUE(fake.WaitForCount(2));
  gw::ClearConsole();
  kill(d.pid(), SIGUSR1);
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "Enable debug flag.\n") == 1; }))
      << gw::Console() << d.Stderr();
  kill(d.pid(), SIGUSR1);
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "Disable debug flag.\n") == 1; }));
  kill(d.pid(), SIGUSR2);
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "==== End ====\n") == 1; }));
  std::string console = gw::Console();
  EXPECT_NE(console.find("==== Dump of buffered syslog ====\n"), std::string::npos);
  EXPECT_NE(console.find("\nStart to print buffer content(2:1,1)HEAD->\n"), std::string::npos);
  EXPECT_NE(console.find("(1#" + kPppLine + "#2#6)->\n"), std::string::npos) << console;
  EXPECT_NE(console.find("(2#" + kRouteLine + "#2#16)->\n"), std::string::npos);
  EXPECT_LT(console.find("Disable debug flag."), console.find("==== Dump"));
  EXPECT_TRUE(d.Running());
}

TEST(RelayReload, ReloadCommandMarksTheNextDatagramOnly) {
  gw::WriteFile("/data/syslogmsg", "1#1#0\n" + kRouteLine + "#16\n");
  FakeSyslog fake(100);
  fake.SetMode(FakeSyslog::kSilent);
  Daemon d;
  ASSERT_TRUE(d.Start());
  ASSERT_TRUE(fake.WaitForCount(1));
  EXPECT_EQ(gw::Run("wdctl reload").status, 0);
  gw::ResultSocket results;
  EXPECT_EQ(results.Query(MOD_SAMPLE), WD_QUERY_NOT_RUNNING);  // the command has been handled
  fake.SetPid(101);  // a new syslog-ng: every line goes out again
  ASSERT_TRUE(fake.WaitForCount(2));
  fake.SetPid(102);
  ASSERT_TRUE(fake.WaitForCount(3));
  std::vector<std::string> got = fake.Received();
  EXPECT_EQ(got[0], "0#" + kRouteLine + "#1");
  EXPECT_EQ(got[1], "1#" + kRouteLine + "#1");
  EXPECT_EQ(got[2], "0#" + kRouteLine + "#1");
}

}  // namespace
