// The relay in the running daemon: the wait for syslog-ng at start-up, the
// flash copy it restores, the signals and the reload command.
#include <signal.h>

#include "gateway.h"

using gw::Count;
using gw::Daemon;
using gw::FakeSyslog;

namespace {

const std::string kPppLine = "my.app.wd.ppp.0a1b2c3d4e5f: 1700000000|PPP_DOWN_RESET|UP|1.2.3.4|";
const std::string kRouteLine = "my.app.wd.route.0a1b2c3d4e5f: 1700000001|route table";
const std::string kCopy = "3#12#1\n" + kPppLine + "#6\n" + kRouteLine + "#16\n";

TEST(RelayStartUp, WaitsForSyslogNgBeforeAnythingElse) {
  Daemon d;
  ASSERT_TRUE(d.Start({}, false));
  ASSERT_TRUE(gw::WaitUntil(
      [&] { return Count(d.Stderr(), "Watchdogd, connect to syslog-NG failed\n") >= 2; }));
  EXPECT_FALSE(gw::Exists("/var/wd_tmp"));
  EXPECT_FALSE(gw::Exists("/var/wdSyslogRx.chanl")) << "the relay has not started";
  ASSERT_EQ(kill(d.pid(), SIGUSR2), 0);  // waits for the relay, then is carried out
  ASSERT_TRUE(gw::StartSyslogNg());
  EXPECT_TRUE(gw::WaitUntil([] { return gw::Exists("/var/wd_tmp"); }));
  EXPECT_TRUE(
      gw::WaitUntil([] { return Count(gw::ReadFile("/gw/console"), "==== End ====") == 1; }));
}

// A restored copy is saved again at once and stays while its lines wait, so a
// daemon killed at any point leaves it to the next one, which restores it as
// this one did; the signals and the reload command act on the waiting lines.
TEST(RelayFlash, ARestoredCopyIsSavedAgainAtOnceUsr1TracesUsr2DumpsReloadMarksOneDatagram) {
  gw::WriteFile("/data/syslogmsg", kCopy);
  FakeSyslog fake("N", 100);  // the lines stay, sent and unanswered
  Daemon d;
  ASSERT_TRUE(d.Start());
  ASSERT_TRUE(fake.WaitForCount(2));
  const std::string saved = "2#2#1\n" + kPppLine + "#6\n" + kRouteLine + "#16\n";
  EXPECT_EQ(gw::ReadFile("/data/syslogmsg"), saved);
  EXPECT_EQ(fake.Received(),
            (std::vector<std::string>{"520 0#" + kPppLine + "#1", "520 0#" + kRouteLine + "#2"}));
  gw::ClearConsole();
  kill(d.pid(), SIGUSR1);
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "Enable debug flag.\n") == 1; }));
  kill(d.pid(), SIGUSR1);
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "Disable debug flag.\n") == 1; }));
  kill(d.pid(), SIGUSR2);
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "==== End ====\n") == 1; }));
  std::string console = gw::Console();
  EXPECT_NE(console.find("\nStart to print buffer content(2:1,1)HEAD->\n"), std::string::npos);
  EXPECT_NE(console.find("(1#" + kPppLine + "#2#6)->\n"), std::string::npos) << console;
  EXPECT_NE(console.find("(2#" + kRouteLine + "#2#16)->\n"), std::string::npos);

  EXPECT_EQ(gw::Run("wdctl reload").status, 0);
  gw::ResultSocket results;
  EXPECT_EQ(results.Query(MOD_SAMPLE), WD_QUERY_NOT_RUNNING);  // the command has been handled
  gw::WriteFile("/var/run/syslog-ng.pid", "101\n");  // a new syslog-ng: every line goes again
  ASSERT_TRUE(fake.WaitForCount(4));
  std::vector<std::string> got = fake.Received();
  EXPECT_EQ(got[2], "520 1#" + kPppLine + "#1") << "only the next datagram is marked";
  EXPECT_EQ(got[3], "520 0#" + kRouteLine + "#2");
  EXPECT_EQ(gw::ReadFile("/data/syslogmsg"), saved);
  EXPECT_TRUE(d.Running());
}

}  // namespace
