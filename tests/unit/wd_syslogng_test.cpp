// Supervision of syslog-ng: restart detection, the kill by pid file and the
// generated configuration.
#include "wd_syslogng.h"

#include "unit_util.h"

namespace {

void Write(const char* path, const std::string& text) { std::ofstream(path) << text; }

const char* kLocal =
    "destination d_local {\nfile(\"/var/log/messages\" template(t_demo_filetemplate));\n};\n";
const char* kLog =
    "log {\nsource(s_local);\nsource(s_dgram);\nsource(s_network);\ndestination(d_local);\n};";
const char* kStarted = "RestartSysklogng. /usr/sbin/syslog-ng -f /var/syslog-ng.conf\n";

class SyslogNgTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unlink(TCAPI_TREE_PATH);
    unlink("/var/run/syslog-ng.pid");
    tcapi_set("Watchdog_Common", "Enable", "1");
  }
  void TearDown() override { kill_process("/var/run/syslog-ng.pid", "syslog-ng"); }
  static std::string Restart() { return Said(RestartSysklogng); }
  static std::string Appended() {
    return ReadFile("/var/syslog-ng.conf").substr(ReadFile("/etc/syslog-ng.conf").size());
  }
};

TEST_F(SyslogNgTest, RestartDetectionFollowsThePidFile) {
  wdLock lock(&bufMutex);  // as the transmit thread calls it
  testing::internal::CaptureStderr();
  EXPECT_EQ(SyslogngRestart(), 0);
  Write("/var/run/syslog-ng.pid", "1234\n");
  EXPECT_EQ(SyslogngRestart(), 0) << "the first process seen is not a restart";
  EXPECT_EQ(SyslogngRestart(), 0);
  Write("/var/run/syslog-ng.pid", "1240\n");
  EXPECT_EQ(SyslogngRestart(), 1);
  EXPECT_EQ(SyslogngRestart(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "SyslogngRestart. fail to open /var/run/syslog-ng.pid\n"
            "SyslogngRestart. pid:1234 --> 1240\n\n");
}

TEST_F(SyslogNgTest, KillProcessKillsOnlyTheNamedProcess) {
  pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  std::string comm = ReadFile("/proc/self/comm");  // the child's name too
  comm.pop_back();
  for (const std::string& text : {std::string("0"), std::string("-1"), std::to_string(child)}) {
    Write("/var/run/x.pid", text + "\n");
    kill_process("/var/run/x.pid", "syslog-ng");  // neither a group nor another process
    EXPECT_FALSE(Exists("/var/run/x.pid")) << "a stale pid file is deleted";
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, WNOHANG), 0) << "the child is no syslog-ng";
  Write("/var/run/x.pid", std::to_string(child) + "\n");
  kill_process("/var/run/x.pid", comm.c_str());
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST_F(SyslogNgTest, GeneratedConfigurations) {
  tcapi_set("Watchdog_Common", "Enable", "0");
  EXPECT_EQ(Restart(), "");
  EXPECT_EQ(Appended(), "") << "the bare template, and no syslog-ng";
  EXPECT_FALSE(Exists("/var/run/syslog-ng.pid"));
  tcapi_set("Watchdog_Common", "Enable", "1");
  tcapi_set("Watchdog_Common", "URLSYSLOGServer", "192.0.2.7:601");
  EXPECT_EQ(Restart(), "get Watchdog_Common Protocol fail\n");
  EXPECT_EQ(Appended(), "") << "no protocol: nothing appended, nothing started";

  struct Case {
    const char* server;
    const char* protocol;
    const char* console;      // before the start line
    const char* destination;  // empty: the local one
  } cases[] = {
      {"", "UDP", "URLSYSLOGServer is empty\n", ""},
      {"192.0.2.7:601", "TCP", "URLSYSLOGServer is 192.0.2.7:601 site is 192.0.2.7 port is 601\n",
       "tcp(\"192.0.2.7\" port(601)"},
      {"192.0.2.10", "UDP", "URLSYSLOGServer is 192.0.2.10 site is 192.0.2.10 port is 514\n",
       "udp(\"192.0.2.10\" port(514)"},
      {"logs.example.net:1514", "SCTP",
       "it should not be here....\n"
       "URLSYSLOGServer is logs.example.net:1514 site is logs.example.net port is 1514\n",
       "SCTP(\"logs.example.net\" port(1514)"},
      {"192.0.2.7", "program(\"sh\")",
       "it should not be here....\n"
       "Protocol program(\"sh\") is not a syslog-ng driver name, local destination used\n",
       ""},
      {"evil\"); };:514", "UDP",
       "URLSYSLOGServer host evil\"); }; is not a host name or address, local destination used\n",
       ""},
      {"192.0.2.7:70000", "UDP",
       "URLSYSLOGServer 192.0.2.7:70000 has no port in 1-65535, local destination used\n", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.server);
    tcapi_set("Watchdog_Common", "URLSYSLOGServer", c.server);
    tcapi_set("Watchdog_Common", "Protocol", c.protocol);
    EXPECT_EQ(Restart(), std::string(c.console) + kStarted);
    std::string destination = *c.destination == '\0'
                                  ? kLocal
                                  : std::string("destination d_local {\n") + c.destination +
                                        " template(t_demo_filetemplate));\n};";
    EXPECT_EQ(Appended(), destination + kLog);
    if (std::string(c.protocol) != "SCTP") {
      EXPECT_EQ(system("syslog-ng --syntax-only -f /var/syslog-ng.conf"), 0)
          << "syslog-ng takes it";
    }
  }
}

}  // namespace
