// The PPPoE module in the running daemon, on the gateway's simulated WAN link:
// a real ppp0 whose far end (pings, DNS) lives in the provider's namespace.
// Check cycles are driven one at a time (the module's own timer is set far
// off), and the alarms are read where syslog-ng delivered them.

#include "gateway.h"

using gw::Count;
using gw::SetConfig;

namespace {

constexpr const char* kInfoChannel = "/var/wd_periodic_info.chanl";

class PppoeLink : public ::testing::Test {
 protected:
  void SetUp() override {
    SetConfig("Watchdog_Common", "Enable", "1");
    SetConfig("Wan_PVC0", "ENCAP", "PPPoE LLC");
    SetConfig("Watchdog_PPP", "Timer", "100000");
    SetConfig("Watchdog_PPP", "PingIP", "0.0.0.0");
    SetConfig("Watchdog_PPP", "LookupDomain", "");
    SetConfig("Watchdog_PPP", "AlertAfter", "0");
    SetConfig("Watchdog_PPP", "MaxReset", "0");
    // One general report ("infgen") per expiry, only when the test sends one.
    SetConfig("Watchdog_WDInfo", "Timer", "100000");
    SetConfig("Watchdog_WDInfo", "Verbosity", "1");
  }
  void Start() { ASSERT_TRUE(daemon_.Start({"-d"})); }
  void Cycle() { gw::PppoeCycle(daemon_); }
  // Sets "Watchdog_PPP" `attr`, makes the module read it, runs a cycle.
  void CycleWith(const char* attr, const std::string& value) {
    SetConfig("Watchdog_PPP", attr, value);
    gw::PppoeBarrier(daemon_);
    Cycle();
  }
  // The alarms syslog-ng has delivered so far, without their time.
  static std::vector<std::string> Alarms() { return gw::Reports("ppp"); }
  static std::string Kinds() {
    std::string out;
    for (const std::string& a : Alarms()) out += a.substr(0, a.find('|')) + " ";
    return out;
  }
  // Waits for the `n`-th alarm at syslog-ng.
  static void AwaitAlarms(size_t n) { ASSERT_TRUE(gw::WaitReports("ppp", n)) << Kinds(); }
  // Has the periodic info module make a report and waits for it at syslog-ng.
  // Every alarm made before it goes out ahead of it, so once it is there, so
  // are the alarms of all cycles so far.
  static void Settle() {
    ASSERT_TRUE(gw::WaitUntil([] { return gw::Exists(kInfoChannel); }));
    size_t before = gw::Reports("infgen").size();
    wdMsg expiry = gw::Event(TIMER_EXPIRED, MOD_PERIODIC_INFO);
    ASSERT_TRUE(gw::SendToChannel(kInfoChannel, &expiry, sizeof expiry));
    ASSERT_TRUE(gw::WaitReports("infgen", before + 1));
  }
  static int Redials() {
    return static_cast<int>(Count(gw::ReadFile("/var/log/wan-redial.log"), "\n"));
  }

  gw::Daemon daemon_;
};

TEST_F(PppoeLink, LinkDownIsCountedThenResetThenOnlyReportedUntilTheDailyClear) {
  SetConfig("Watchdog_PPP", "AlertAfter", "3");
  SetConfig("Watchdog_PPP", "MaxReset", "1");
  Start();
  std::string ifconfig = gw::Run("ifconfig ppp0").output;
  size_t v6 = ifconfig.find("inet6 addr: ");
  ASSERT_NE(v6, std::string::npos) << ifconfig;
  std::string ipv6 = ifconfig.substr(v6 + 12, ifconfig.find(' ', v6 + 12) - v6 - 12);
  Cycle();  // up: remembers the link's flags and addresses
  ASSERT_EQ(gw::Run("/gw/sim/wan-link cut").status, 0);
  std::vector<size_t> alarmsAfterCycle;
  for (int down = 1; down <= 8; ++down) {
    Cycle();
    Settle();
    alarmsAfterCycle.push_back(Alarms().size());
  }
  EXPECT_EQ(alarmsAfterCycle, (std::vector<size_t>{0, 0, 0, 1, 1, 1, 1, 2}));
  const std::string state =
      "|UP BROADCAST RUNNING MULTICAST  MTU:1500  Metric:1|203.0.113.2|" + ipv6;
  EXPECT_EQ(Alarms(),
            (std::vector<std::string>{"PPP_DOWN_RESET" + state, "PPP_DOWN_NO_RESET" + state}));
  EXPECT_EQ(Redials(), 1) << "MaxReset 1: one reset a day";
  wdMsg daily = gw::Event(PPP_TIMER_EXPIRED, MOD_PPPOE);
  ASSERT_TRUE(gw::SendToChannel("/var/wd_pppoe.chanl", &daily, sizeof daily));
  for (int down = 9; down <= 12; ++down) Cycle();
  AwaitAlarms(3);
  Settle();
  EXPECT_EQ(Kinds(), "PPP_DOWN_RESET PPP_DOWN_NO_RESET PPP_DOWN_RESET ") << "reset again";
  EXPECT_EQ(Redials(), 2);
}

TEST_F(PppoeLink, LostPingTargetResetsRecoveryIsReportedOncePrivateAddressesAlways) {
  SetConfig("Watchdog_PPP", "PingIP", "198.51.100.1");
  SetConfig("Watchdog_PPP", "LookupDomain", "wan.test");
  SetConfig("Watchdog_PPP", "MaxReset", "1");
  Start();
  Cycle();
  Settle();
  EXPECT_EQ(Kinds(), "") << "all well";
  ASSERT_EQ(gw::Run("/gw/sim/wan-link isp ip addr del 198.51.100.1/32 dev lo").status, 0);
  Cycle();
  AwaitAlarms(1);
  EXPECT_EQ(Kinds(), "PING_FAILURE_RESET ");
  EXPECT_EQ(Redials(), 1);
  ASSERT_TRUE(gw::WaitUntil([] {  // the re-dial is over: the default route is back
    return gw::Run("ip route show default").output.find("dev ppp0") != std::string::npos;
  }));
  ASSERT_EQ(gw::Run("/gw/sim/wan-link isp ip addr add 198.51.100.1/32 dev lo").status, 0);
  Cycle();
  Cycle();
  AwaitAlarms(2);
  Settle();
  EXPECT_EQ(Kinds(), "PING_FAILURE_RESET CEASE_CONN_OK ");
  // A private address is reported at every cycle, before any ping.
  ASSERT_EQ(
      gw::Run("ip addr flush dev ppp0 scope global && ip addr add 192.168.1.10/24 dev ppp0").status,
      0);
  Cycle();
  Cycle();
  AwaitAlarms(4);
  Settle();
  EXPECT_EQ(Kinds(), "PING_FAILURE_RESET CEASE_CONN_OK PRIV_IP PRIV_IP ");
}

TEST_F(PppoeLink, StoppedDnsServerIsCountedThenReported) {
  SetConfig("Watchdog_PPP", "LookupDomain", "wan.test");
  SetConfig("Watchdog_PPP", "AlertAfter", "1");
  Start();
  ASSERT_EQ(gw::Run("/gw/sim/wan-link dns-stop").status, 0);
  Cycle();
  EXPECT_EQ(Count(daemon_.Stderr(), "dns_fail_times=0,nslookup fail\n"), 1u);
  Settle();
  EXPECT_EQ(Kinds(), "");
  Cycle();
  AwaitAlarms(1);
  EXPECT_EQ(Kinds(), "DNS_FAILURE_NO_RESET ");
}

TEST_F(PppoeLink, ValuesAreArgumentsNeverShellText) {
  Start();
  // Words a tool would take as options, or blanks only: nothing runs, and
  // the link is not blamed for it.
  for (const char* value : {"-f 203.0.113.1", "   "}) {
    CycleWith("PingIP", value);
    EXPECT_EQ(Count(daemon_.Stderr(),
                    std::string("PingIP ") + value + " is not a host name or address, not run\n"),
              1u);
  }
  SetConfig("Watchdog_PPP", "PingIP", "0.0.0.0");
  CycleWith("LookupDomain", "-type=mx wan.test");
  EXPECT_NE(daemon_.Stderr().find("LookupDomain -type=mx wan.test is not a host name or address"),
            std::string::npos);
  Settle();
  EXPECT_EQ(Kinds(), "");
  // Shell text is only a name that does not resolve.
  CycleWith("LookupDomain", "wan.test;touch /tmp/x");
  AwaitAlarms(1);
  EXPECT_EQ(Kinds(), "DNS_FAILURE_NO_RESET ");
  EXPECT_FALSE(gw::Exists("/tmp/x"));
  // A legal name far longer than any shell line of old resolves.
  CycleWith("LookupDomain", std::string(63, 'a') + "." + std::string(63, 'b') + ".wan.test");
  AwaitAlarms(2);
  Settle();
  EXPECT_EQ(Kinds(), "DNS_FAILURE_NO_RESET CEASE_CONN_OK ");
  EXPECT_EQ(Redials(), 0);
}

}  // namespace
