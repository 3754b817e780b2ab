// The process monitor's check cycle against a process of a watched name in
// the test's gateway, with commit hooks that note each commit.
#include "wd_monitor.h"

#include "libwdfunc.h"
#include "unit_util.h"

namespace {

TEST(Monitor, DownProcessesAreRestartedUnlessTheirServiceIsOffAndReportedInOrder) {
  mkdir("/etc/tcapi.d", 0755);
  for (const char* node : {"Dhcpd_Common", "Wan_PVC0"}) {
    std::string hook = std::string("/etc/tcapi.d/") + node;
    std::ofstream(hook) << "#!/bin/sh\necho \"$1\" >> /tmp/commits\n";
    chmod(hook.c_str(), 0755);
  }
  unlink("/tmp/commits");
  // mini_httpd runs (a copy of sleep under that name); udhcpd and pppd do not.
  ASSERT_EQ(system("cp /bin/sleep /tmp/mini_httpd"), 0);
  pid_t httpd = fork();
  if (httpd == 0) {
    execl("/tmp/mini_httpd", "mini_httpd", "1000", static_cast<char*>(nullptr));
    _exit(127);
  }
  ASSERT_TRUE(WaitUntil([] { return getProcessStatus("mini_httpd") == 1; }));
  ScopedBuffer buffer;
  wdmod_monitorHandler_init();
  tcapi_set("Lan_Dhcp", "type", "0");
  tcapi_set("Wan_PVC0", "ENCAP", "LLC/PPPoE");
  MonitorCheckResult result;
  wdmod_monitorTimerExpire(&result);
  EXPECT_EQ(result.downMask, 5u);
  EXPECT_EQ(ReadFile("/tmp/commits"), "Wan_PVC0\n");  // the DHCP server is off

  // An unreadable "type" is not "0"; an "ENCAP" without PPPoE is not re-dialed.
  tcapi_unset("Lan_Dhcp", "type");
  tcapi_set("Wan_PVC0", "ENCAP", "IPoE");
  mod_monitorCycle();
  EXPECT_EQ(ReadFile("/tmp/commits"), "Wan_PVC0\nDhcpd_Common\n");
  EXPECT_EQ(buffer.Texts("ps"),
            (std::vector<std::string>{"dhcpd|Internal error", "pppd|Internal error"}));
  kill(httpd, SIGKILL);
  waitpid(httpd, nullptr, 0);
}

}  // namespace
