// The ARP, IP route and periodic info modules in the running daemon (-d, 100
// times faster) against the kernel's own tables of the gateway's network: the
// LAN hosts behind br0, the WAN link on ppp0, nas1 and nas2, routes added and
// deleted with ip, and the real syslog-ng taking the reports.
#include "gateway.h"
#include "tcapi.h"

using gw::Count;
using gw::Reports;
using gw::SetConfig;

namespace {

// The number of entries in the kernel's neighbour table (a line each after
// the header).
size_t Neighbours() { return Count(gw::ReadFile("/proc/net/arp"), "\n") - 1; }

void Ping(const std::string& host) {
  ASSERT_EQ(gw::Run("ping -c 1 -W 5 " + host).status, 0) << host;
}

class NetTables : public ::testing::Test {
 protected:
  void SetUp() override { SetConfig("Watchdog_Common", "Enable", "1"); }
  void Start() { ASSERT_TRUE(daemon_.Start({"-d"})); }
  // Tells module `mod` that its configuration changed, once its channel is
  // there: the daemon is ready before its module threads have opened their
  // channels, and an event for a module without one is lost.
  static void Change(uint16_t mod) {
    const std::string path = mod == MOD_ARP        ? "/var/wd_arp.chanl"
                             : mod == MOD_IP_ROUTE ? "/var/wd_ip_route.chanl"
                                                   : "/var/wd_periodic_info.chanl";
    ASSERT_TRUE(mod == MOD_ARP || mod == MOD_IP_ROUTE || mod == MOD_PERIODIC_INFO) << mod;
    ASSERT_TRUE(gw::WaitUntil([&] { return gw::Exists(path); }));
    ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_CONFIG_CHANGE, mod));
  }
  // Sets the two requests of the ARP module and tells it.
  static void Arp(const char* reset, const char* query) {
    SetConfig("Watchdog_ARP", "ResetTable", reset);
    SetConfig("Watchdog_ARP", "Query", query);
    Change(MOD_ARP);
  }
  static bool ArpReads(const char* attr, const std::string& value) {
    return gw::WaitUntil([&] { return gw::GetConfig("Watchdog_ARP", attr) == value; });
  }
  // Sets "Watchdog_Route" `attr` and tells the module.
  static void Route(const char* attr, const char* value) {
    SetConfig("Watchdog_Route", attr, value);
    Change(MOD_IP_ROUTE);
  }
  static bool RouteQueried() {
    return gw::WaitUntil([] { return gw::GetConfig("Watchdog_Route", "Query") == "0"; });
  }
  gw::Daemon daemon_;
};

TEST_F(NetTables, ArpQueryReportsTheKernelTableAndResetEmptiesIt) {
  SetConfig("Watchdog_ARP", "Timer", "86400");  // no expiry during the test
  Start();
  for (const char* host : {"192.168.1.100", "192.168.1.101", "203.0.113.1"}) Ping(host);
  ASSERT_EQ(Neighbours(), 3u);
  Arp("0", "1");
  ASSERT_TRUE(gw::WaitReports("arp", 3));
  std::vector<std::string> reports = Reports("arp");
  std::sort(reports.begin(), reports.end());
  // br0 has a global IPv6 address, ppp0 only a link-local one.
  EXPECT_EQ(reports[0], "00:11:22:33:44:55|192.168.1.100|20010db8000100000000000000000001|br0|0x2");
  EXPECT_EQ(reports[1], "00:11:22:33:44:66|192.168.1.101|20010db8000100000000000000000001|br0|0x2");
  EXPECT_EQ(reports[2].substr(17), "|203.0.113.1||ppp0|0x2");
  ASSERT_TRUE(ArpReads("Query", "0"));

  // A reset alone: the entries go from the kernel's table, nothing is
  // reported, and both requests read "0".
  Arp("1", "0");
  ASSERT_TRUE(gw::WaitUntil([] { return Neighbours() == 0; }));
  ASSERT_TRUE(ArpReads("ResetTable", "0"));
  // A reset and a query in one change: the query reports the table after the
  // reset, where the host that talked before it is gone: nothing (the fourth
  // report below is the next query's).
  Ping("192.168.1.100");
  Arp("1", "1");
  ASSERT_TRUE(ArpReads("Query", "0"));
  ASSERT_TRUE(gw::WaitUntil([] { return Neighbours() == 0; }));
  // "yes" and "01" are no requests: each is written back as it was fetched
  // when the other attribute acted.
  Ping("192.168.1.101");
  Arp("yes", "1");
  ASSERT_TRUE(ArpReads("Query", "0"));
  EXPECT_EQ(gw::GetConfig("Watchdog_ARP", "ResetTable"), "yes");
  ASSERT_TRUE(gw::WaitReports("arp", 4));
  EXPECT_EQ(Reports("arp")[3].substr(0, 31), "00:11:22:33:44:66|192.168.1.101");
  Arp("1", "01");
  ASSERT_TRUE(ArpReads("ResetTable", "0"));
  ASSERT_TRUE(gw::WaitUntil([] { return Neighbours() == 0; }));
  // The module writes "Query" after "ResetTable": the report of an expiry
  // sent next shows that the change is over, its writes included. That
  // report is the next one: "01" reported nothing.
  Ping("192.168.1.100");
  wdMsg expiry = gw::Event(TIMER_EXPIRED, MOD_ARP);
  ASSERT_TRUE(gw::SendToChannel("/var/wd_arp.chanl", &expiry, sizeof expiry));
  ASSERT_TRUE(gw::WaitReports("arp", 5));
  EXPECT_EQ(gw::GetConfig("Watchdog_ARP", "Query"), "01");
  reports = Reports("arp");
  EXPECT_EQ(reports.size(), 5u);
  EXPECT_EQ(reports.back().substr(0, 31), "00:11:22:33:44:55|192.168.1.100");
}

TEST_F(NetTables, ArpReportsTheTableAtEachExpiry) {
  SetConfig("Watchdog_ARP", "Timer", "60");
  Ping("192.168.1.100");
  Start();
  // No query: each expiry reports the table.
  ASSERT_TRUE(gw::WaitUntil([] {
    return Count(gw::ReadFile("/var/log/messages"), "00:11:22:33:44:55|192.168.1.100|") >= 2;
  }));
}

// Full tables reported so far: each starts with the default route.
size_t RouteTables(const std::string& contains = "") {
  size_t n = 0;
  std::string table;
  for (const std::string& line : Reports("route")) {
    if (line.rfind("default|", 0) == 0) {
      n += !table.empty() && (contains.empty() || table.find(contains) != std::string::npos);
      table.clear();
    }
    table += line + "\n";
  }
  return n + (!table.empty() && (contains.empty() || table.find(contains) != std::string::npos));
}

// The inode of the route monitor's netlink socket, bound to the IPv4 route
// group; empty when there is none.
std::string MonitorSocket() {
  std::istringstream in(gw::ReadFile("/proc/net/netlink"));
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string sk, eth, pid, groups, skip, inode;
    if (words >> sk >> eth >> pid >> groups && eth == "0" && groups == "00000040") {
      while (words >> skip) inode = skip;
      return inode;
    }
  }
  return "";
}
bool Monitoring() { return !MonitorSocket().empty(); }

TEST_F(NetTables, RouteModesSwitchBetweenTimerAndKernelNotices) {
  SetConfig("Watchdog_Route", "Mode", "1");
  SetConfig("Watchdog_Route", "Timer", "60");
  // The general status every 60 s serves as a clock.
  SetConfig("Watchdog_WDInfo", "Timer", "60");
  SetConfig("Watchdog_WDInfo", "Verbosity", "1");
  Start();
  ASSERT_TRUE(gw::WaitUntil([] { return RouteTables() >= 2; }, 20000));
  std::vector<std::string> reports = Reports("route");
  reports.erase(std::find(reports.begin() + 1, reports.end(), reports[0]), reports.end());
  EXPECT_EQ(reports, (std::vector<std::string>{"default|203.0.113.1|0.0.0.0|UG|0|0|0|ppp0",
                                               "10.1.0.0|*|255.255.255.252|U|0|0|0|nas1",
                                               "10.2.0.0|*|255.255.255.252|U|0|0|0|nas2",
                                               "192.168.1.0|*|255.255.255.0|U|0|0|0|br0",
                                               "203.0.113.0|*|255.255.255.0|U|0|0|0|ppp0"}));

  // Mode 2: the periodic reports stop, and each route added or deleted
  // reports the whole table. A query answers at once in any mode; the second
  // one is a barrier: an expiry that was on its way has been handled.
  SetConfig("Watchdog_Route", "Mode", "2");
  Route("Query", "1");
  ASSERT_TRUE(gw::WaitUntil(Monitoring));
  ASSERT_TRUE(RouteQueried());
  Route("Query", "1");
  ASSERT_TRUE(RouteQueried());
  ASSERT_EQ(gw::Run("ip route add 198.18.0.7 dev br0").status, 0);
  ASSERT_TRUE(
      gw::WaitUntil([] { return RouteTables("198.18.0.7|*|255.255.255.255|UH|0|0|0|br0") == 1; }));
  size_t before = RouteTables();
  ASSERT_TRUE(gw::WaitReports("infgen", Reports("infgen").size() + 3));
  ASSERT_EQ(gw::Run("ip route del 198.18.0.7 dev br0").status, 0);
  ASSERT_TRUE(gw::WaitUntil([&] { return RouteTables() > before; }));
  Route("Query", "1");
  ASSERT_TRUE(gw::WaitUntil([&] { return RouteTables() >= before + 2; }));
  // Only the deletion and the query, though the old period passed twice.
  EXPECT_EQ(RouteTables(), before + 2);
  EXPECT_EQ(RouteTables("198.18.0.7"), 1u);

  // Back to mode 1: the monitor is gone, and the timer reports again.
  Route("Mode", "1");
  ASSERT_TRUE(gw::WaitUntil([] { return !Monitoring(); }));
  ASSERT_TRUE(gw::WaitUntil([&] { return RouteTables() >= before + 4; }, 20000));
  // Any other mode keeps the running timer.
  Route("Mode", "0");
  before = RouteTables();
  ASSERT_TRUE(gw::WaitUntil([&] { return RouteTables() >= before + 3; }, 20000));
  // The module's end takes its monitor with it.
  Route("Mode", "2");
  ASSERT_TRUE(gw::WaitUntil(Monitoring));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_THREAD_EXIT, MOD_IP_ROUTE));
  ASSERT_TRUE(gw::WaitUntil([] { return !Monitoring(); }));
  gw::ResultSocket result;
  EXPECT_TRUE(gw::WaitUntil([&] { return result.Query(MOD_IP_ROUTE) == WD_QUERY_NOT_RUNNING; }));
}

TEST_F(NetTables, RouteStartedInModeTwoWaitsForAChangeAndModeZeroEndsBothTriggers) {
  SetConfig("Watchdog_Route", "Mode", "2");
  SetConfig("Watchdog_Route", "Timer", "60");
  SetConfig("Watchdog_WDInfo", "Timer", "60");  // the general status serves as a clock
  SetConfig("Watchdog_WDInfo", "Verbosity", "1");
  Start();
  ASSERT_TRUE(gw::WaitReports("infgen", 3));
  EXPECT_FALSE(Monitoring());
  EXPECT_EQ(RouteTables(), 0u) << "no timer";
  Change(MOD_IP_ROUTE);
  ASSERT_TRUE(gw::WaitUntil(Monitoring));
  const std::string monitor = MonitorSocket();
  // A change whose "Mode" cannot be read changes nothing: the same monitor
  // runs after the next change.
  size_t failed = Count(gw::Console(), "cmsObj get fail");
  tcapi_unset("Watchdog_Route", "Mode");
  Change(MOD_IP_ROUTE);
  ASSERT_TRUE(gw::WaitUntil([&] { return Count(gw::Console(), "cmsObj get fail") > failed; }));
  SetConfig("Watchdog_Route", "Mode", "2");
  Route("Query", "1");
  ASSERT_TRUE(RouteQueried());
  EXPECT_EQ(MonitorSocket(), monitor);
  ASSERT_TRUE(gw::WaitUntil([] { return RouteTables() == 1; }));
  // Mode 0: the monitor ends and no timer starts.
  Route("Mode", "0");
  ASSERT_TRUE(gw::WaitUntil([] { return !Monitoring(); }));
  size_t tables = RouteTables();
  ASSERT_TRUE(gw::WaitReports("infgen", Reports("infgen").size() + 3));
  EXPECT_EQ(RouteTables(), tables);
}

// A route that never ends (a script before BusyBox's in the PATH, hanging
// while /tmp/route.hang exists) is stopped at its deadline: the module still
// changes mode and ends, and reports the next change. A started program's
// deadline runs on the real clock also under libfaketime: 20 s here too.
TEST_F(NetTables, AHangingRouteCostsOneReportNeverTheModule) {
  gw::WriteFile("/gw/bin/route.new",
                "#!/bin/sh\n[ -e /tmp/route.hang ] || exec busybox route \"$@\"\n"
                ": > /tmp/route.started\nexec sleep 100000\n");
  ASSERT_EQ(chmod("/gw/bin/route.new", 0755), 0);
  ASSERT_EQ(rename("/gw/bin/route.new", "/gw/bin/route"), 0);
  SetConfig("Watchdog_Route", "Mode", "2");
  gw::Daemon daemon;
  ASSERT_TRUE(daemon.Start({"-d"}));
  constexpr int kPastDeadlineMs = 40000;
  // A route change while route hangs, once the hang has begun.
  auto hangOn = [](const std::string& change) {
    unlink("/tmp/route.started");
    gw::WriteFile("/tmp/route.hang", "");
    ASSERT_EQ(gw::Run("ip route " + change + " 198.18.0.7 dev br0").status, 0);
    ASSERT_TRUE(gw::WaitUntil([] { return gw::Exists("/tmp/route.started"); }));
  };
  const std::string stopped = "wd_run: \"route\" still running after 20 s, stopped\n";

  Change(MOD_IP_ROUTE);
  ASSERT_TRUE(gw::WaitUntil(Monitoring));
  hangOn("add");
  Route("Mode", "1");
  ASSERT_TRUE(gw::WaitUntil([] { return !Monitoring(); }, kPastDeadlineMs));
  EXPECT_EQ(Count(daemon.Stderr(), stopped), 1u);
  unlink("/tmp/route.hang");
  Route("Mode", "2");
  ASSERT_TRUE(gw::WaitUntil(Monitoring));
  ASSERT_EQ(gw::Run("ip route del 198.18.0.7 dev br0").status, 0);
  ASSERT_TRUE(gw::WaitUntil([] { return RouteTables() >= 1; }));
  EXPECT_EQ(RouteTables("198.18.0.7"), 0u);

  hangOn("add");
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_THREAD_EXIT, MOD_IP_ROUTE));
  gw::ResultSocket result;
  EXPECT_TRUE(gw::WaitUntil([&] { return result.Query(MOD_IP_ROUTE) == WD_QUERY_NOT_RUNNING; },
                            kPastDeadlineMs));
  EXPECT_EQ(Count(daemon.Stderr(), stopped), 2u);
}

// The report categories syslog-ng wrote, grouped by expiry of the periodic
// info module (each ends with infgen).
std::vector<std::vector<std::string>> Expiries() {
  std::vector<std::vector<std::string>> out(1);
  for (const std::string& line : gw::ReportLines()) {
    out.back().push_back(line.substr(10, line.find('.', 10) - 10));
    if (out.back().back() == "infgen") out.emplace_back();
  }
  out.pop_back();
  return out;
}

TEST_F(NetTables, PeriodicInfoFollowsItsVerbosityFromTheNextExpiry) {
  SetConfig("Watchdog_WDInfo", "Timer", "60");
  Ping("203.0.113.1");  // the WAN counters move with traffic over ppp0
  Start();
  // Without a "Verbosity" the mask stays at all four collectors.
  ASSERT_TRUE(gw::WaitReports("infgen", 1));
  EXPECT_EQ(Count(daemon_.Stderr(), "get WDInfo Verbosity  fail\r\n"), 1u);
  std::vector<std::string> all = {"infprc", "infcnx", "infcnt", "infgen"};
  if (!gw::Exists("/proc/net/stat/nf_conntrack")) all.erase(all.begin() + 1);
  EXPECT_EQ(Expiries()[0], all);
  // pppd and the provider's dnsmasq run; none of the other watched names does.
  EXPECT_EQ(Reports("infprc")[0], "1|0|1|0|0|0|0|0");
  // Received packets of ppp0 (the fifth field): the ping's answer at least.
  std::string cnt = Reports("infcnt")[0];
  size_t at = 0;
  for (int i = 0; i < 4; ++i) at = cnt.find('|', at) + 1;
  EXPECT_GT(std::stol(cnt.substr(at)), 0) << cnt;

  // 9: processes and general status, from the next expiry on.
  SetConfig("Watchdog_WDInfo", "Verbosity", "9");
  Change(MOD_PERIODIC_INFO);
  const std::vector<std::string> nine = {"infprc", "infgen"};
  ASSERT_TRUE(gw::WaitUntil([&] { return Expiries().size() >= 2 && Expiries().back() == nine; }));
  std::vector<std::vector<std::string>> got = Expiries();
  size_t first = std::find(got.begin(), got.end(), nine) - got.begin();
  for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i], i < first ? all : nine) << i;
}

}  // namespace
