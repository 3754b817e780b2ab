// The TR-069 and process monitor modules in the running daemon (-d, 100 times
// faster) against the gateway's real service processes: the TR-069 client
// /userfs/bin/tr69 with the operator's ACS (acsSim), udhcpd, mini_httpd and
// pppd.
#include <signal.h>

#include "gateway.h"

using gw::Count;
using gw::Reports;
using gw::SetConfig;

namespace {

std::string Pid(const std::string& name) { return gw::Run("busybox pidof " + name).output; }

bool Running(const std::string& name) { return gw::Run("busybox pidof " + name).status == 0; }

// A peer's log line: a restarted client's second Inform may take long on a
// loaded machine.
bool WaitLog(const std::string& log, const std::string& needle, size_t n = 1) {
  return gw::WaitFor(log, needle, n, 60000);
}

class Supervision : public ::testing::Test {
 protected:
  void SetUp() override {
    SetConfig("Watchdog_Common", "Enable", "1");
    SetConfig("Watchdog_TR069", "RegisterTimer", "30");
    SetConfig("Watchdog_TR069", "PITimer", "120");
    SetConfig("Cwmp_Entry", "periodInterval", "60");
  }
  void Start() { ASSERT_TRUE(daemon_.Start({"-d"})); }
  // The client as the gateway's start scripts run it, in the daemon's time.
  static void StartClient() {
    std::string command;
    for (const std::string& word : gw::Faketime(100)) command += "'" + word + "' ";
    ASSERT_EQ(gw::Run(command + "/userfs/bin/tr69 < /dev/null > /dev/null 2>&1 &").status, 0);
  }
  static void Credentials(const std::string& conReq, const std::string& acs) {
    for (const char* attr : {"conReqUserName", "conReqPassword"})
      SetConfig("Cwmp_Entry", attr, conReq);
    for (const char* attr : {"acsUserName", "acsPassword"}) SetConfig("Cwmp_Entry", attr, acs);
  }
  // Stops the daemon while `command` runs, so that no check cycle sees half of it.
  void Frozen(const std::string& command) {
    kill(daemon_.pid(), SIGSTOP);
    gw::RunResult r = gw::Run(command);
    kill(daemon_.pid(), SIGCONT);
    ASSERT_EQ(r.status, 0) << r.output;
  }
  gw::Daemon daemon_;
};

TEST_F(Supervision, SilentAcsRestartsTheClientInPeriodicMode) {
  Credentials("cr-gateway", "acs-gateway");  // provisioned: Informs are supervised
  Start();
  StartClient();
  ASSERT_TRUE(WaitLog("/var/log/tr69", "inform BOOT answered"));
  std::string first = Pid("tr69");
  ASSERT_EQ(gw::Run("acsSim mode silent").status, 0);
  // killall -9 took the old client; the new one started in "periodic" mode.
  ASSERT_TRUE(WaitLog("/var/log/tr69", "restartmode=periodic"));
  EXPECT_NE(Pid("tr69"), first);
  EXPECT_EQ(Count(Pid("tr69"), " "), 0u);  // one client
  // The alarm stands while the restarted client goes unanswered; the next
  // answer ceases it.
  const std::string alarm = "ALARM_TR069_COMMNUNICATION_CPE_ACS_FAILURE-TR069_PROCESS_RESTART";
  ASSERT_TRUE(gw::WaitReports("tr069", 1));
  ASSERT_EQ(gw::Run("acsSim mode answer").status, 0);
  ASSERT_TRUE(gw::WaitReports("tr069", 2));
  std::vector<std::string> reports = Reports("tr069");
  reports.resize(2);
  EXPECT_EQ(reports, (std::vector<std::string>{alarm, "CEASE_TR069_COMMNUNICATION_CPE_ACS"}));
}

TEST_F(Supervision, StalledRegistrationRestoresTheFactoryCredentials) {
  Credentials("KPRTV4826", "WBN5937");
  // The ACS sets the connection-request credentials, never the ACS ones.
  ASSERT_EQ(gw::Run("acsSim mode stall").status, 0);
  Start();
  StartClient();
  ASSERT_TRUE(WaitLog("/var/log/tr69", "restartmode=boottrap"));
  // The restarted client registers from scratch with the factory credentials.
  EXPECT_TRUE(WaitLog("/var/log/acsSim", "inform BOOTSTRAP KPRTV4826 WBN5937", 2));
  ASSERT_TRUE(gw::WaitReports("tr069", 1));
  EXPECT_EQ(Reports("tr069")[0], "ALARM_TR069_REGISTRATION_FAILURE-TR069_PROCESS_RESTART");
}

TEST_F(Supervision, MonitorRestartsWhatIsDownAndReportsItAtTheNextCycle) {
  Start();
  // All three down at one cycle: three reports in order, all three back.
  SetConfig("Wan_PVC0", "ENCAP", "IPoE PPPoE");
  Frozen("kill -9 $(busybox pidof udhcpd) $(busybox pidof mini_httpd) $(busybox pidof pppd)");
  ASSERT_TRUE(gw::WaitReports("ps", 3));
  std::vector<std::string> ps = Reports("ps");
  ps.resize(3);  // the three of one cycle; later cycles may add more
  EXPECT_EQ(ps, (std::vector<std::string>{"dhcpd|Internal error", "httpd|Internal error",
                                          "pppd|Internal error"}));
  EXPECT_TRUE(
      gw::WaitUntil([] { return Running("udhcpd") && Running("mini_httpd") && Running("pppd"); }));

  // MONITOR_DATA, whole, short or empty, is received and dropped.
  gw::ResultSocket results;
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_MONITOR_DATA, 10, 0, {1, 2, 3, 4, 5, 6, 7, 8}));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_MONITOR_DATA, 10, 0, {1, 2}));
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_MONITOR_DATA, 10, 0, {}));
  EXPECT_EQ(results.Query(10), 0);
  EXPECT_TRUE(daemon_.Running());
}

}  // namespace
