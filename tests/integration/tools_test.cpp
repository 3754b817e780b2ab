// The command-line tools as people and scripts use them in the gateway.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "gateway.h"

using gw::Count;

namespace {

TEST(Tcapi, SetGetShowCommit) {
  EXPECT_EQ(gw::Run("tcapi set Watchdog_PPP Timer 30").status, 0);
  gw::RunResult get = gw::Run("tcapi get Watchdog_PPP Timer");
  EXPECT_EQ(get.status, 0);
  EXPECT_EQ(get.output, "30\n");
  gw::RunResult missing = gw::Run("tcapi get Watchdog_PPP AlertAfter");
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.output.find("no attribute AlertAfter of node Watchdog_PPP"), std::string::npos);
  EXPECT_EQ(gw::Run("tcapi show Watchdog_PPP").output, "[Watchdog_PPP]\nTimer=30\n");
  EXPECT_EQ(gw::Run("tcapi set 'Bad Node' A 1").status, 1);
  EXPECT_EQ(gw::Run("tcapi frobnicate").status, 2);

  gw::WriteFile("/etc/tcapi.d/Dhcpd_Common", "#!/bin/sh\necho restarted > /tmp/dhcpd.log\n");
  chmod("/etc/tcapi.d/Dhcpd_Common", 0755);
  EXPECT_EQ(gw::Run("tcapi commit Dhcpd_Common").status, 0);
  EXPECT_EQ(gw::ReadFile("/tmp/dhcpd.log"), "restarted\n");
}

TEST(Wdctl, HelpListsCommandsAndModules) {
  gw::RunResult help = gw::Run("wdctl --help");
  EXPECT_EQ(help.status, 0);
  for (const char* word : {"query MODULE", "status", "send TYPE MODULE", "pppoe(1)", "sample(11)",
                           "msg_resend(12)", "Exit status"}) {
    EXPECT_NE(help.output.find(word), std::string::npos) << word;
  }
  EXPECT_EQ(gw::Run("wdctl").status, 2);
}

TEST(Wdctl, ErrorsHaveClearMessagesAndExitCodes) {
  gw::RunResult noDaemon = gw::Run("wdctl query pppoe");
  EXPECT_EQ(noDaemon.status, 1);
  EXPECT_NE(noDaemon.output.find("watchdogd is not reachable on /tmp/watchdog_sock"),
            std::string::npos)
      << noDaemon.output;

  gw::Daemon d;
  ASSERT_TRUE(d.Start());
  gw::RunResult badModule = gw::Run("wdctl query pppp");
  EXPECT_EQ(badModule.status, 2);
  EXPECT_NE(badModule.output.find("unknown module 'pppp'"), std::string::npos);
  EXPECT_EQ(gw::Run("wdctl send bogus pppoe").status, 2);
  EXPECT_EQ(gw::Run("wdctl send 1 pppoe -x 0g").status, 2);
  EXPECT_EQ(gw::Run("wdctl send 1 70000").status, 2);
  EXPECT_EQ(gw::Run("wdctl --timeout 0 status").status, 2);
}

TEST(Wdctl, TimesOutWhenNobodyAnswers) {
  // Something that takes commands but never answers stands on the socket.
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  strcpy(addr.sun_path, WD_CMD_SOCK_PATH);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  gw::RunResult r = gw::Run("wdctl --timeout 0.3 query arp");
  EXPECT_EQ(r.status, 3);
  EXPECT_NE(r.output.find("no reply from watchdogd within 300 ms"), std::string::npos) << r.output;
  close(fd);
}

TEST(Wdctl, QueryAndStatusAgainstTheDaemon) {
  gw::Daemon d;
  ASSERT_TRUE(d.Start());
  gw::RunResult q = gw::Run("wdctl query MOD_ARP");
  EXPECT_EQ(q.status, 0);
  EXPECT_EQ(q.output, "arp: not running (9000)\n");
  EXPECT_EQ(gw::Run("wdctl --json query 3").output,
            "{\"id\":3,\"module\":\"arp\",\"running\":false,\"answer\":9000}\n");

  gw::RunResult status = gw::Run("wdctl status");
  EXPECT_EQ(status.status, 0);
  EXPECT_EQ(Count(status.output, "\n"), 13u) << status.output;
  EXPECT_NE(status.output.find(" 1 pppoe          not running\n"), std::string::npos)
      << status.output;
  gw::RunResult json = gw::Run("wdctl status --json");
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(json.output.rfind("{\"modules\":[{\"id\":0,\"module\":\"default\"", 0), 0u)
      << json.output;
  EXPECT_EQ(Count(json.output, "\"running\":false"), 13u);
  EXPECT_FALSE(gw::Exists(WD_RESULT_SOCK_PATH)) << "wdctl removes its reply socket";
}

TEST(Wdctl, SendsAnyTypeWithWordAndData) {
  gw::Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  gw::ClearConsole();
  EXPECT_EQ(gw::Run("wdctl send 9 sample").status, 0);
  EXPECT_EQ(gw::Run("wdctl send query voip_stats -w 1 -x '01 02 03'").status, 0);
  EXPECT_EQ(gw::Run("wdctl monitor -d abcdefgh").status, 0);
  gw::ResultSocket results;
  ASSERT_EQ(results.Query(0), WD_QUERY_NOT_RUNNING);
  EXPECT_NE(d.Stderr().find("Invalid message type: 0x00000009\r\n"), std::string::npos);
  std::string console = gw::Console();
  EXPECT_NE(console.find("wd_main signaltype=4"), std::string::npos);
  EXPECT_NE(console.find("wd_main wordData=1"), std::string::npos);
  EXPECT_NE(console.find("wd_main dataLength=3"), std::string::npos);
  EXPECT_NE(console.find("wd_main signaltype=a"), std::string::npos);
  EXPECT_NE(console.find("wd_main dataLength=8"), std::string::npos);
}

}  // namespace
