// The process monitor's check cycle against processes of the watched names
// in the test's gateway, with commit hooks that note each commit.
#include "wd_monitor.h"

#include "libwdfunc.h"
#include "unit_util.h"

namespace {

class MonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mkdir("/etc/tcapi.d", 0755);
    for (const char* node : {"Dhcpd_Common", "Wan_PVC0"}) {
      std::string hook = std::string("/etc/tcapi.d/") + node;
      unlink(hook.c_str());
      std::ofstream(hook) << "#!/bin/sh\necho \"$1\" >> /tmp/commits\n";
      chmod(hook.c_str(), 0755);
    }
    unlink("/tmp/commits");
    wdmod_monitorHandler_init();
  }
  void TearDown() override {
    for (pid_t pid : pids_) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  // A process whose name is `name`: a copy of sleep under that name.
  void Run(const std::string& name) {
    std::string path = "/tmp/" + name;
    ASSERT_EQ(system(("cp /bin/sleep " + path).c_str()), 0);
    pid_t pid = fork();
    if (pid == 0) {
      execl(path.c_str(), name.c_str(), "1000", static_cast<char*>(nullptr));
      _exit(127);
    }
    pids_.push_back(pid);
  }
  std::vector<std::string> Reports() {
    std::vector<std::string> out;
    for (const std::string& line : buffer_.Lines()) {
      EXPECT_EQ(line.rfind("my.app.wd.ps.", 0), 0u) << line;
      out.push_back(line.substr(line.find('|') + 1));
    }
    return out;
  }
  ScopedBuffer buffer_;
  std::vector<pid_t> pids_;
};

TEST_F(MonitorTest, ProcessesRunningNothingHappens) {
  EXPECT_EQ(gWdModMonitor.checkPeriod, 300u);
  EXPECT_EQ(gWdModMonitor.watchedMask, 7u);
  for (const char* name : {"udhcpd", "mini_httpd", "pppd"}) Run(name);
  ASSERT_TRUE(WaitUntil([] {
    return getProcessStatus("udhcpd") + getProcessStatus("mini_httpd") + getProcessStatus("pppd") ==
           3;
  }));
  mod_monitorCycle();
  EXPECT_TRUE(Reports().empty());
  EXPECT_EQ(Slurp("/tmp/commits"), "");
  wdmod_monitorTimerExpire(nullptr);  // does nothing
}

TEST_F(MonitorTest, DownProcessesAreRestartedUnlessTheirServiceIsOffAndReportedInOrder) {
  Run("mini_httpd");
  ASSERT_TRUE(WaitUntil([] { return getProcessStatus("mini_httpd") == 1; }));
  tcapi_set("Lan_Dhcp", "type", "0");
  tcapi_set("Wan_PVC0", "ENCAP", "LLC/PPPoE");
  MonitorCheckResult result;
  wdmod_monitorTimerExpire(&result);
  EXPECT_EQ(result.watchedMask, 7u);
  EXPECT_EQ(result.downMask, 5u);
  EXPECT_EQ(Slurp("/tmp/commits"), "Wan_PVC0\n");  // the DHCP server is off

  // An unreadable "type" is not "0"; an "ENCAP" without PPPoE is not re-dialed.
  tcapi_unset("Lan_Dhcp", "type");
  tcapi_set("Wan_PVC0", "ENCAP", "IPoE");
  mod_monitorCycle();
  EXPECT_EQ(Slurp("/tmp/commits"), "Wan_PVC0\nDhcpd_Common\n");
  EXPECT_EQ(Reports(), (std::vector<std::string>{"dhcpd|Internal error", "pppd|Internal error"}));
}

}  // namespace
