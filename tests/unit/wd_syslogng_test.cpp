// Supervision of syslog-ng: restart detection, the generated configuration,
// the memory check and the signal requests.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tcapi.h"
#include "wd_buffer.h"
#include "wd_common.h"
#include "wd_timer.h"

#include "unit_util.h"

namespace {

void Write(const char* path, const std::string& text) { std::ofstream(path) << text; }

const char* kLocal =
    "destination d_local {\nfile(\"/var/log/messages\" template(t_demo_filetemplate));\n};\n";
const char* kLog =
    "log {\nsource(s_local);\nsource(s_dgram);\nsource(s_network);\ndestination(d_local);\n};";

class SyslogNgTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unlink(TCAPI_TREE_PATH);
    unlink("/var/run/syslog-ng.pid");
  }
  void TearDown() override { kill_process("/var/run/syslog-ng.pid"); }
  // Runs RestartSysklogng and returns what it wrote to the debug console.
  static std::string Restart() {
    testing::internal::CaptureStderr();
    RestartSysklogng();
    return testing::internal::GetCapturedStderr();
  }
  static std::string Appended() {
    return Slurp("/var/syslog-ng.conf").substr(Slurp("/etc/syslog-ng.conf").size());
  }
};

TEST_F(SyslogNgTest, RestartDetectionFollowsThePidFile) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(SyslogngRestart(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "SyslogngRestart. fail to open /var/run/syslog-ng.pid\n");
  Write("/var/run/syslog-ng.pid", "1234\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(SyslogngRestart(), 0) << "the first process seen is not a restart";
  EXPECT_EQ(SyslogngRestart(), 0);
  Write("/var/run/syslog-ng.pid", "1240\n");
  EXPECT_EQ(SyslogngRestart(), 1);
  EXPECT_EQ(SyslogngRestart(), 0);
  Write("/var/run/syslog-ng.pid", "");
  EXPECT_EQ(SyslogngRestart(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "SyslogngRestart. pid:1234 --> 1240\n\n"
            "SyslogngRestart. fail to open /var/run/syslog-ng.pid\n");
}

TEST_F(SyslogNgTest, FileReadReadsAtMostWhatFits) {
  Write("/tmp/f", "123456789012345");
  char buf[9];
  fileRead("/tmp/f", buf, sizeof buf);
  EXPECT_STREQ(buf, "12345678");
  fileRead("/tmp/missing", buf, sizeof buf);
  EXPECT_STREQ(buf, "");
}

TEST_F(SyslogNgTest, KillProcessNeverSignalsGroupsOrEveryone) {
  pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  Write("/var/run/x.pid", std::to_string(child) + "\n");
  kill_process("/var/run/x.pid");
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  EXPECT_NE(access("/var/run/x.pid", F_OK), 0) << "the pid file is deleted";

  for (const char* text : {"0\n", "-1\n", "garbage\n"}) {
    Write("/var/run/x.pid", text);
    kill_process("/var/run/x.pid");  // this process must survive
    EXPECT_NE(access("/var/run/x.pid", F_OK), 0);
  }
}

TEST_F(SyslogNgTest, FeatureOffLeavesTheBareTemplateAndNoSyslogNg) {
  tcapi_set("Watchdog_Common", "Enable", "0");
  EXPECT_EQ(Restart(), "");
  EXPECT_EQ(Slurp("/var/syslog-ng.conf"), Slurp("/etc/syslog-ng.conf"));
  EXPECT_NE(access("/var/run/syslog-ng.pid", F_OK), 0);
  unlink(TCAPI_TREE_PATH);
  EXPECT_EQ(Restart(), "get Watchdog_Common Enable fail\n");
}

TEST_F(SyslogNgTest, LocalDestinationStartsSyslogNg) {
  tcapi_set("Watchdog_Common", "Enable", "1");
  EXPECT_EQ(
      Restart(),
      "URLSYSLOGServer is empty\nRestartSysklogng. /usr/sbin/syslog-ng -f /var/syslog-ng.conf\n");
  EXPECT_EQ(Appended(), std::string(kLocal) + kLog);
  for (int i = 0; i < 100 && access("/var/run/syslog-ng.pid", F_OK) != 0; ++i) usleep(50000);
  EXPECT_EQ(access("/var/run/syslog-ng.pid", F_OK), 0) << "syslog-ng runs on the generated file";
}

TEST_F(SyslogNgTest, RemoteDestinations) {
  tcapi_set("Watchdog_Common", "Enable", "1");
  struct Case {
    const char* server;
    const char* protocol;
    const char* console;
    const char* destination;
  } cases[] = {
      {"192.0.2.7:601", "TCP", "URLSYSLOGServer is 192.0.2.7:601 site is 192.0.2.7 port is 601\n",
       "destination d_local {\ntcp(\"192.0.2.7\" port(601) template(t_demo_filetemplate));\n};"},
      {"192.0.2.10", "UDP", "URLSYSLOGServer is 192.0.2.10 site is 192.0.2.10 port is 514\n",
       "destination d_local {\nudp(\"192.0.2.10\" port(514) template(t_demo_filetemplate));\n};"},
      {"logs.example.net:1514", "SCTP",
       "it should not be here....\nURLSYSLOGServer is logs.example.net:1514 site is "
       "logs.example.net "
       "port is 1514\n",
       "destination d_local {\nSCTP(\"logs.example.net\" port(1514) "
       "template(t_demo_filetemplate));\n};"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.server);
    tcapi_set("Watchdog_Common", "URLSYSLOGServer", c.server);
    tcapi_set("Watchdog_Common", "Protocol", c.protocol);
    EXPECT_EQ(Restart(), std::string(c.console) +
                             "RestartSysklogng. /usr/sbin/syslog-ng -f /var/syslog-ng.conf\n");
    EXPECT_EQ(Appended(), std::string(c.destination) + kLog);
    if (strcmp(c.protocol, "SCTP") != 0) {
      EXPECT_EQ(system("syslog-ng --syntax-only -f /var/syslog-ng.conf"), 0)
          << "syslog-ng takes it";
    }
  }
}

TEST_F(SyslogNgTest, ProtocolMissingOrHostUnusable) {
  tcapi_set("Watchdog_Common", "Enable", "1");
  tcapi_set("Watchdog_Common", "URLSYSLOGServer", "192.0.2.7:601");
  EXPECT_EQ(Restart(), "get Watchdog_Common Protocol fail\n");
  EXPECT_EQ(Appended(), "") << "the copied template without additions";
  EXPECT_NE(access("/var/run/syslog-ng.pid", F_OK), 0);

  tcapi_set("Watchdog_Common", "Protocol", "UDP");
  tcapi_set("Watchdog_Common", "URLSYSLOGServer", "evil\"); };:514");
  std::string console = Restart();
  EXPECT_NE(console.find("is not a host name or address, local destination used\n"),
            std::string::npos)
      << console;
  EXPECT_EQ(Appended(), std::string(kLocal) + kLog);
}

TEST_F(SyslogNgTest, MemoryCheckWithoutSyslogNgDoesNothing) {
  testing::internal::CaptureStderr();
  checkSyslogngMemory();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_NE(access("/tmp/syslogMem", F_OK), 0) << "the listing is removed";
  EXPECT_EQ(dontSend.load(), 0);
}

TEST_F(SyslogNgTest, MemoryCheckAboveTheLimitRestartsAndSuspends) {
  tcapi_set("Watchdog_Common", "Enable", "1");
  Restart();  // a syslog-ng started on the generated configuration
  for (int i = 0; i < 100 && access("/var/run/syslog-ng.pid", F_OK) != 0; ++i) usleep(50000);
  std::string oldPid = Slurp("/var/run/syslog-ng.pid");
  Write("/gw/syslog-ng.vsz", "4501");
  testing::internal::CaptureStderr();
  checkSyslogngMemory();
  std::string console = testing::internal::GetCapturedStderr();
  unlink("/gw/syslog-ng.vsz");
  EXPECT_EQ(console.rfind("Restart syslog-ng process !\nURLSYSLOGServer is empty\n", 0), 0u)
      << console;
  EXPECT_EQ(dontSend.load(), 1);
  pthread_mutex_lock(&timerMutex);
  ASSERT_EQ(time_list.count, 1);
  timerNode* t = static_cast<timerNode*>(timer_list_get(&time_list, 0));
  EXPECT_EQ(t->id, timerChkSyslog);
  EXPECT_EQ(t->interval, 30000);
  EXPECT_EQ(t->arg, MOD_MSG_RESEND);
  pthread_mutex_unlock(&timerMutex);
  for (int i = 0; i < 100 && Slurp("/var/run/syslog-ng.pid").empty(); ++i) usleep(50000);
  EXPECT_NE(Slurp("/var/run/syslog-ng.pid"), oldPid);
}

TEST_F(SyslogNgTest, SignalsAreNotedAndCarriedOutLater) {
  ScopedBuffer buffer;
  wd_syslogPush("buffered line", 3);
  signal(SIGUSR1, TriggerDebugFlag);
  signal(SIGUSR2, DumpList);
  truncate("/dev/console", 0);
  raise(SIGUSR1);
  EXPECT_EQ(g_idebug.load(), 1) << "the switch flips in the handler";
  raise(SIGUSR1);
  EXPECT_EQ(g_idebug.load(), 0);
  raise(SIGUSR2);
  EXPECT_EQ(Slurp("/dev/console"), "") << "nothing is written inside a handler";
  wd_bufServeSignals();
  std::string console = Slurp("/dev/console");
  size_t enable = console.find("Enable debug flag.\n");
  size_t disable = console.find("Disable debug flag.\n");
  size_t dump = console.find("==== Dump of buffered syslog ====\n");
  size_t line = console.find("(1#buffered line#1#3)->\n");
  size_t end = console.find("==== End ====\n");
  EXPECT_LT(enable, disable);
  EXPECT_LT(disable, dump);
  EXPECT_LT(dump, line);
  EXPECT_LT(line, end);
  EXPECT_NE(end, std::string::npos) << console;
}

}  // namespace
