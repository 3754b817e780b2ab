// The PPPoE module in the running daemon, on the gateway's simulated WAN link:
// a real ppp0 whose far end (pings, DNS) lives in the provider's namespace.
// Check cycles are driven one at a time by injecting TIMER_EXPIRED into the
// module's channel (its own timer is set far off); a CONFIG_CHANGE after each
// one marks its end on the debug console. The alarms are read from syslog-ng's
// output.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gateway.h"

using gw::Count;
using gw::Daemon;
using gw::SetConfig;

namespace {

class PppoeLink : public ::testing::Test {
 protected:
  void SetUp() override {
    SetConfig("Watchdog_Common", "Enable", "1");
    SetConfig("Wan_PVC0", "ENCAP", "PPPoE LLC");
    SetConfig("Watchdog_PPP", "Timer", "100000");
    SetConfig("Watchdog_PPP", "PingIP", "0.0.0.0");
    SetConfig("Watchdog_PPP", "LookupDomain", "");
  }

  void Start() {
    ASSERT_TRUE(daemon_.Start());
    ASSERT_TRUE(gw::WaitUntil([] { return gw::Exists("/var/wd_pppoe.chanl"); }));
  }

  // Runs one check cycle and waits for its end.
  void Cycle() {
    size_t done = Count(daemon_.Stderr(), "ppp_config.PingIP=");
    wdMsg expired = gw::Event(TIMER_EXPIRED, MOD_PPPOE);
    wdMsg marker = gw::Event(CONFIG_CHANGE, MOD_PPPOE);
    ASSERT_TRUE(gw::SendToChannel("/var/wd_pppoe.chanl", &expired, sizeof expired));
    ASSERT_TRUE(gw::SendToChannel("/var/wd_pppoe.chanl", &marker, sizeof marker));
    ASSERT_TRUE(gw::WaitUntil(
        [&] { return Count(daemon_.Stderr(), "ppp_config.PingIP=") == done + 1; }, 30000));
  }

  // The PPP alarms in syslog-ng's output, without the line prefix and time;
  // waits until `n` of them have arrived.
  static std::vector<std::string> Alarms(size_t n) {
    auto get = [] {
      std::vector<std::string> out;
      for (const std::string& line : gw::ReportLines()) {
        if (line.rfind("my.app.wd.ppp.0a1b2c3d4e5f: ", 0) == 0)
          out.push_back(line.substr(line.find('|') + 1));
      }
      return out;
    };
    gw::WaitUntil([&] { return get().size() >= n; });
    gw::RealSleepMs(100);  // and nothing more is on its way
    return get();
  }

  static int Redials() {
    return static_cast<int>(Count(gw::ReadFile("/var/log/wan-redial.log"), "\n"));
  }

  static std::string Ipv6() {
    std::string out = gw::Run("ifconfig ppp0").output;
    size_t at = out.find("inet6 addr: ");
    return out.substr(at + 12, out.find(' ', at + 12) - at - 12);
  }

  static void WaitLinkRunning() {
    ASSERT_TRUE(gw::WaitUntil(
        [] { return gw::Run("ifconfig ppp0").output.find("RUNNING") != std::string::npos; }));
  }

  Daemon daemon_;
};

TEST_F(PppoeLink, LinkDownIsCountedThenResetThenOnlyReported) {
  SetConfig("Watchdog_PPP", "AlertAfter", "3");
  SetConfig("Watchdog_PPP", "MaxReset", "1");
  Start();
  std::string ipv6 = Ipv6();
  Cycle();  // up: remembers the link's flags and addresses
  ASSERT_EQ(gw::Run("/gw/sim/wan-link cut").status, 0);
  for (int down = 1; down <= 3; ++down) Cycle();
  EXPECT_TRUE(Alarms(0).empty());
  EXPECT_EQ(Redials(), 0);
  Cycle();  // the fourth in a row
  const std::string state =
      "|UP BROADCAST RUNNING MULTICAST  MTU:1500  Metric:1|203.0.113.2|" + ipv6;
  EXPECT_EQ(Alarms(1), (std::vector<std::string>{"PPP_DOWN_RESET" + state}));
  EXPECT_EQ(Redials(), 1);
  for (int down = 5; down <= 7; ++down) Cycle();
  EXPECT_EQ(Alarms(1).size(), 1u);
  Cycle();
  EXPECT_EQ(Alarms(2),
            (std::vector<std::string>{"PPP_DOWN_RESET" + state, "PPP_DOWN_NO_RESET" + state}));
  EXPECT_EQ(Redials(), 1) << "MaxReset 1: one reset a day";
}

TEST_F(PppoeLink, PrivateAddressAtEveryCycle) {
  Start();
  ASSERT_EQ(
      gw::Run("ip addr flush dev ppp0 scope global && ip addr add 192.168.1.10/24 dev ppp0").status,
      0);
  Cycle();
  Cycle();
  Cycle();
  std::vector<std::string> alarms = Alarms(3);
  ASSERT_EQ(alarms.size(), 3u);
  for (const std::string& a : alarms)
    EXPECT_EQ(
        a.rfind("PRIV_IP|UP BROADCAST RUNNING MULTICAST  MTU:1500  Metric:1|192.168.1.10|", 0), 0u)
        << a;
}

TEST_F(PppoeLink, LostPingTargetResetsAndRecoveryIsReportedOnce) {
  SetConfig("Watchdog_PPP", "PingIP", "198.51.100.1");
  SetConfig("Watchdog_PPP", "LookupDomain", "wan.test");
  SetConfig("Watchdog_PPP", "AlertAfter", "0");
  SetConfig("Watchdog_PPP", "MaxReset", "1");
  Start();
  Cycle();
  EXPECT_TRUE(Alarms(0).empty()) << "all well";
  ASSERT_EQ(gw::Run("/gw/sim/wan-link isp ip addr del 198.51.100.1/32 dev lo").status, 0);
  Cycle();
  std::vector<std::string> alarms = Alarms(1);
  ASSERT_EQ(alarms.size(), 1u);
  EXPECT_EQ(alarms[0].rfind("PING_FAILURE_RESET|UP BROADCAST RUNNING MULTICAST", 0), 0u)
      << alarms[0];
  EXPECT_EQ(Redials(), 1);
  WaitLinkRunning();  // the re-dial is over
  ASSERT_EQ(gw::Run("/gw/sim/wan-link isp ip addr add 198.51.100.1/32 dev lo").status, 0);
  Cycle();
  Cycle();
  alarms = Alarms(2);
  ASSERT_EQ(alarms.size(), 2u);
  EXPECT_EQ(alarms[1].rfind("CEASE_CONN_OK|UP BROADCAST RUNNING MULTICAST", 0), 0u) << alarms[1];
}

TEST_F(PppoeLink, StoppedDnsServerIsReportedAndItsReturnCeases) {
  SetConfig("Watchdog_PPP", "LookupDomain", "wan.test");
  SetConfig("Watchdog_PPP", "AlertAfter", "1");
  SetConfig("Watchdog_PPP", "MaxReset", "0");
  Start();
  ASSERT_EQ(gw::Run("/gw/sim/wan-link dns-stop").status, 0);
  Cycle();
  EXPECT_EQ(Count(daemon_.Stderr(), "dns_fail_times=0,nslookup fail\n"), 1u);
  EXPECT_TRUE(Alarms(0).empty());
  Cycle();
  EXPECT_EQ(Alarms(1).at(0).rfind("DNS_FAILURE_NO_RESET|", 0), 0u);
  ASSERT_EQ(gw::Run("/gw/sim/wan-link dns-start").status, 0);
  Cycle();
  Cycle();
  std::vector<std::string> alarms = Alarms(2);
  ASSERT_EQ(alarms.size(), 2u);
  EXPECT_EQ(alarms[1].rfind("CEASE_CONN_OK|", 0), 0u);
  EXPECT_EQ(Redials(), 0);
}

TEST_F(PppoeLink, ConfiguredValuesNeverRunInjectedCommands) {
  SetConfig("Watchdog_PPP", "PingIP", "1;touch /tmp/x");
  SetConfig("Watchdog_PPP", "AlertAfter", "0");
  SetConfig("Watchdog_PPP", "MaxReset", "0");
  Start();
  Cycle();
  EXPECT_NE(daemon_.Stderr().find("PingIP 1;touch /tmp/x is not a host name or address, not run\n"),
            std::string::npos);
  EXPECT_EQ(Alarms(1).at(0).rfind("PING_FAILURE_NO_RESET|", 0), 0u);

  SetConfig("Watchdog_PPP", "PingIP", "0.0.0.0");
  SetConfig("Watchdog_PPP", "LookupDomain", "$(touch /tmp/y)`touch /tmp/z`");
  Cycle();  // the marker of the last cycle re-read the configuration
  Cycle();
  EXPECT_NE(
      daemon_.Stderr().find(
          "LookupDomain $(touch /tmp/y)`touch /tmp/z` is not a host name or address, not run\n"),
      std::string::npos);
  std::string longDomain(84, 'a');  // one character more than the command line takes
  SetConfig("Watchdog_PPP", "LookupDomain", longDomain);
  Cycle();
  Cycle();
  EXPECT_NE(daemon_.Stderr().find("LookupDomain " + longDomain +
                                  " is too long for its command, not run\n"),
            std::string::npos);
  EXPECT_FALSE(gw::Exists("/tmp/x"));
  EXPECT_FALSE(gw::Exists("/tmp/y"));
  EXPECT_FALSE(gw::Exists("/tmp/z"));
  EXPECT_EQ(Redials(), 0);
}

TEST_F(PppoeLink, DailyTimerClearsTheResetCounters) {
  SetConfig("Watchdog_PPP", "AlertAfter", "0");
  SetConfig("Watchdog_PPP", "MaxReset", "1");
  Start();
  ASSERT_EQ(gw::Run("/gw/sim/wan-link cut").status, 0);
  Cycle();
  Cycle();
  EXPECT_EQ(Redials(), 1);
  wdMsg daily = gw::Event(PPP_TIMER_EXPIRED, MOD_PPPOE);
  ASSERT_TRUE(gw::SendToChannel("/var/wd_pppoe.chanl", &daily, sizeof daily));
  Cycle();
  std::vector<std::string> alarms = Alarms(3);
  ASSERT_EQ(alarms.size(), 3u);
  EXPECT_EQ(alarms[0].rfind("PPP_DOWN_RESET|", 0), 0u);
  EXPECT_EQ(alarms[1].rfind("PPP_DOWN_NO_RESET|", 0), 0u);
  EXPECT_EQ(alarms[2].rfind("PPP_DOWN_RESET|", 0), 0u);
  EXPECT_EQ(Redials(), 2);
}

TEST_F(PppoeLink, OwnTimerRunsTheChecksAndAConfigChangeStopsThem) {
  SetConfig("Watchdog_PPP", "Timer", "5");
  SetConfig("Watchdog_PPP", "AlertAfter", "0");
  SetConfig("Watchdog_PPP", "MaxReset", "0");
  Start();
  ASSERT_EQ(gw::Run("/gw/sim/wan-link cut").status, 0);
  EXPECT_GE(Alarms(3).size(), 3u) << "a check every 5 s without help";
  SetConfig("Watchdog_PPP", "Timer", "0");
  EXPECT_EQ(gw::Run("wdctl config pppoe").status, 0);
  ASSERT_TRUE(gw::WaitUntil([&] {
    return daemon_.Stderr().find("\r\nppp_config.PingIP=0.0.0.0,ppp_config.LookupDomain=\n") !=
           std::string::npos;
  }));
  size_t stopped = Alarms(0).size();
  gw::RealSleepMs(1500);  // 150 s of the daemon's time
  EXPECT_EQ(Alarms(0).size(), stopped) << "period 0: no more checks";
  EXPECT_EQ(gw::Run("wdctl exit pppoe").status, 0);
  gw::ResultSocket results;
  EXPECT_TRUE(gw::WaitUntil([&] { return results.Query(MOD_PPPOE) == WD_QUERY_NOT_RUNNING; }));
}

TEST_F(PppoeLink, PppAlarmsStandAheadOfOtherLinesInTheBuffer) {
  gw::WriteFile("/data/syslogmsg",
                "2#2#0\nmy.app.wd.route.x: 1|route one#16\nmy.app.wd.arp.x: 2|arp one#7\n");
  gw::StopSyslogNg();
  gw::FakeSyslog fake;
  fake.SetMode(gw::FakeSyslog::kSilent);
  SetConfig("Watchdog_PPP", "AlertAfter", "0");
  SetConfig("Watchdog_PPP", "MaxReset", "0");
  Start();
  ASSERT_EQ(gw::Run("/gw/sim/wan-link cut").status, 0);
  Cycle();
  Cycle();
  gw::ClearConsole();
  kill(daemon_.pid(), SIGUSR2);
  ASSERT_TRUE(gw::WaitUntil([] { return Count(gw::Console(), "==== End ====\n") == 1; }));
  std::string dump = gw::Console();
  size_t ppp1 = dump.find("PPP_DOWN_NO_RESET"), ppp2 = dump.find("PPP_DOWN_NO_RESET", ppp1 + 1);
  size_t route = dump.find("route one"), arp = dump.find("arp one");
  EXPECT_LT(ppp1, ppp2);
  EXPECT_LT(ppp2, route) << dump;
  EXPECT_LT(route, arp);
  EXPECT_NE(dump.find("(4:2,2)HEAD->"), std::string::npos) << dump;
  // Two ppp lines waiting: the flash copy holds them first.
  std::string flash = gw::ReadFile("/data/syslogmsg");
  EXPECT_EQ(flash.rfind("4#", 0), 0u) << flash;
  EXPECT_LT(flash.find("PPP_DOWN_NO_RESET"), flash.find("route one"));
}

}  // namespace
