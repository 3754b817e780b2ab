// What an unprivileged process on the gateway can try against the running
// daemon: links planted at the fixed names it writes or reads, its reply
// socket, a race for its names under the world-writable /tmp, a program that
// looks like syslog-ng. Each case waits for the daemon to have done the work
// that touches the name before it looks.
#include <grp.h>

#include "gateway.h"
#include "tcapi.h"

using gw::Count;
using gw::SetConfig;

namespace {

constexpr uid_t kNobody = 65534;
constexpr const char* kVictim = "victim\n";

mode_t Kind(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? st.st_mode & S_IFMT : 0;
}

// Runs `body` in a child process as nobody; returns the child's pid.
template <typename F>
pid_t AsNobody(F body) {
  pid_t pid = fork();
  if (pid == 0) {
    if (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
        setresuid(kNobody, kNobody, kNobody) != 0)
      _exit(126);
    _exit(body());
  }
  return pid;
}

// Plants a link to a victim holding kVictim at `name` (a directory holding
// `name`'s last part for a directory); returns the victim's file.
std::string Plant(const std::string& name, bool dir) {
  std::string victim = name + ".victim";
  if (dir) {
    mkdir(victim.c_str(), 0755);
    gw::WriteFile(victim + "/tmp_ps", kVictim);
  } else {
    gw::WriteFile(victim, kVictim);
  }
  unlink(name.c_str());
  EXPECT_EQ(symlink(victim.c_str(), name.c_str()), 0) << name;
  return dir ? victim + "/tmp_ps" : victim;
}

// A racer as nobody: plants a link at `name` whenever the name is free.
pid_t Racer(const char* name) {
  return AsNobody([name] {
    for (;;) {
      if (symlink("/tmp/raced", name) == 0) continue;
    }
    return 0;
  });
}

class Hardening : public ::testing::Test {
 protected:
  void SetUp() override {
    SetConfig("Watchdog_Common", "Enable", "1");
    SetConfig("Watchdog_PPP", "Timer", "100000");
    SetConfig("Watchdog_PPP", "AlertAfter", "100000");
    SetConfig("Watchdog_PPP", "PingIP", "0.0.0.0");
    SetConfig("Watchdog_PPP", "LookupDomain", "");
  }
  void Cycle() { gw::PppoeCycle(daemon_); }
  // Waits until the relay's memory check of syslog-ng has run to its end:
  // each check first replaces whatever stands at its listing's name, so a
  // link planted there and replaced twice marks a whole check.
  static void MemoryChecked() {
    for (int i = 0; i < 2; ++i) {
      unlink("/tmp/syslogMem");
      ASSERT_EQ(symlink("/tmp/listing.victim", "/tmp/syslogMem"), 0);
      ASSERT_TRUE(gw::WaitUntil([] { return Kind("/tmp/syslogMem") != S_IFLNK; }, 30000));
    }
  }

  gw::Daemon daemon_;
};

TEST_F(Hardening, NoFixedNameIsWrittenThroughALink) {
  SetConfig("Watchdog_PPP", "PingIP", "198.51.100.1");
  SetConfig("Watchdog_PPP", "LookupDomain", "wan.test");
  SetConfig("Watchdog_WDInfo", "Timer", "60");
  SetConfig("Watchdog_WDInfo", "Verbosity", "12");  // processes and packet counters
  SetConfig("Watchdog_ARP", "Timer", "100000");
  SetConfig("Watchdog_ARP", "Query", "1");
  const struct {
    const char* name;
    bool dir;
  } kNames[] = {{"/var/run/qorv_watchdogd.pid", false}, {"/var/wd_tmp", true},
                {"/tmp/watchdog_sock", false},          {"/tmp/ppp_status", false},
                {"/tmp/ping_result", false},            {"/tmp/nslookup_result", false},
                {"/tmp/syslogMem", false},              {"/var/syslog-ng.conf", false},
                {"/etc/tcapi.conf.tmp", false}};
  std::vector<std::string> victims;
  for (const auto& n : kNames) victims.push_back(Plant(n.name, n.dir));

  ASSERT_TRUE(daemon_.Start({}, false));
  ASSERT_TRUE(gw::WaitUntil([] { return Kind(WD_CMD_SOCK_PATH) == S_IFSOCK; }));
  gw::ResultSocket results;  // answered once start-up is over
  ASSERT_EQ(results.Query(MOD_SAMPLE, 120000), WD_QUERY_NOT_RUNNING);
  EXPECT_EQ(gw::ReadFile("/var/run/qorv_watchdogd.pid"), std::to_string(daemon_.pid()) + "\n");
  EXPECT_EQ(Kind("/var/wd_tmp"), S_IFDIR);
  EXPECT_EQ(Kind("/tmp/watchdog_sock"), S_IFSOCK);
  Cycle();  // link, ping and lookup stages: each replaces its file, then deletes it
  for (const char* name : {"/tmp/ppp_status", "/tmp/ping_result", "/tmp/nslookup_result"})
    EXPECT_EQ(Kind(name), 0u) << name;
  EXPECT_TRUE(gw::WaitUntil([] { return Kind("/var/wd_tmp/tmp_ps") == S_IFREG; }));
  ASSERT_TRUE(gw::WaitReports("infcnt", 1)) << "the counters with the WAN address read";
  gw::WriteFile("/gw/syslog-ng.vsz", "9999");  // syslog-ng has grown: regenerated, restarted
  ASSERT_TRUE(gw::WaitUntil([&] { return Count(daemon_.Stderr(), "RestartSysklogng. ") >= 1; }));
  unlink("/gw/syslog-ng.vsz");
  EXPECT_EQ(Kind("/var/syslog-ng.conf"), S_IFREG);
  ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_CONFIG_CHANGE, MOD_ARP));
  ASSERT_TRUE(gw::WaitUntil([] { return gw::GetConfig("Watchdog_ARP", "Query") == "0"; }))
      << "the request written back into the tree";

  struct stat tree;
  ASSERT_EQ(stat(TCAPI_TREE_PATH, &tree), 0);
  EXPECT_EQ(tree.st_mode & 0777, 0600u) << "credentials are in the tree";
  for (size_t i = 0; i < victims.size(); ++i)
    EXPECT_EQ(gw::ReadFile(victims[i]), kVictim) << kNames[i].name;
}

TEST_F(Hardening, QueryRepliesGoOnlyToASocketOfTheDaemonsOwnUser) {
  ASSERT_TRUE(daemon_.Start());
  int victim = gw::Bind("/tmp/victim_sock");
  const std::string dropped =
      "Query reply for module 11 to /tmp/wd_result_sock dropped: Permission denied\r\n";
  for (int step = 1; step <= 2; ++step) {
    unlink(WD_RESULT_SOCK_PATH);
    if (step == 1) {
      ASSERT_EQ(symlink("/tmp/victim_sock", WD_RESULT_SOCK_PATH), 0);
    } else {
      // Another user's socket at the reply path: the planted link's own
      // target, bound again and handed to nobody.
      close(victim);
      unlink("/tmp/victim_sock");
      victim = gw::Bind(WD_RESULT_SOCK_PATH);
      ASSERT_EQ(chown(WD_RESULT_SOCK_PATH, kNobody, kNobody), 0);
    }
    ASSERT_TRUE(gw::SendCommand(MSG_QORVWATCHDOG_QUERY, MOD_SAMPLE, 0));
    ASSERT_TRUE(gw::WaitUntil([&] { return Count(daemon_.Stderr(), dropped) == size_t(step); }))
        << daemon_.Stderr();
    char buf[64];
    EXPECT_LT(recv(victim, buf, sizeof buf, MSG_DONTWAIT), 0) << "step " << step;
  }
  close(victim);
  gw::ResultSocket results;
  EXPECT_EQ(results.Query(MOD_SAMPLE), WD_QUERY_NOT_RUNNING) << "the asker's own socket";
}

TEST_F(Hardening, ARacerForTheNamesInTmpNeverWins) {
  pid_t racer = Racer(WD_CMD_SOCK_PATH);
  for (int start = 0; start < 20; ++start) {
    ASSERT_TRUE(daemon_.Start({}, false));
    ASSERT_TRUE(gw::WaitUntil([&] {
      return Kind(WD_CMD_SOCK_PATH) == S_IFSOCK || Count(daemon_.Stderr(), "WDSockInit failed");
    }));
    EXPECT_EQ(Kind(WD_CMD_SOCK_PATH), S_IFSOCK) << "start " << start << ": " << daemon_.Stderr();
    daemon_.Kill();
    unlink(WD_CMD_SOCK_PATH);  // free again for the racer
  }
  gw::Stop(racer);
  ASSERT_TRUE(daemon_.Start());
  racer = Racer("/tmp/ppp_status");
  for (int cycle = 0; cycle < 60; ++cycle) Cycle();
  gw::Stop(racer);
  EXPECT_EQ(Count(daemon_.Stderr(), "fail to open file"), 0u);
}

TEST_F(Hardening, AnotherUsersProgramThatLooksLikeSyslogNgIsNoReasonToRestartIt) {
  gw::StopSyslogNg();
  gw::FakeSyslog fake("S");
  gw::WriteFile("/gw/syslog-ng.vsz", "9999");  // what ps shows for every such program
  auto impostor = [] {
    execl("/bin/sleep", "/usr/sbin/syslog-ng -f /var/syslog-ng.conf", "1000",
          static_cast<char*>(nullptr));
    return 127;
  };
  pid_t other = AsNobody(impostor);
  ASSERT_TRUE(daemon_.Start());
  MemoryChecked();
  EXPECT_EQ(Count(daemon_.Stderr(), "Restart syslog-ng process !"), 0u);
  pid_t own = fork();  // the same program as the daemon's user
  if (own == 0) _exit(impostor());
  ASSERT_TRUE(gw::WaitUntil(
      [&] { return Count(daemon_.Stderr(), "Restart syslog-ng process !") >= 1; }, 30000));
  unlink("/gw/syslog-ng.vsz");
  gw::Stop(own);
  gw::Stop(other);
}

}  // namespace
