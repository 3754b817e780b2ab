// The relay's threads in this process against the gateway's real syslog-ng,
// and against the scriptable stand-in for what syslog-ng cannot be made to do.
// Runs under libfaketime (100 times faster), so the 30-second probes and the
// 180-second save timer pass in about a second; each case needs a process of
// its own, as ctest gives it.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "gateway.h"
#include "wd_buffer.h"
#include "wd_common.h"
#include "wd_timer.h"

using gw::Count;
using gw::FakeSyslog;

namespace {

class RelayTest : public ::testing::Test {
 protected:
  void SetUp() override { gw::SetConfig("Watchdog_Common", "Enable", "1"); }

  static void StartRelay() {
    wd_timerInit();
    wd_bufInit();
    wd_initData();
    ASSERT_TRUE(gw::WaitUntil([] { return rxSocketReady.load() == 1; }));
  }

  // Reports a line and returns it as the buffer holds it.
  static std::string Report(uint32_t category, const std::string& text) {
    EXPECT_EQ(wd_syslogStr(category, text.c_str()), 0);
    pthread_mutex_lock(&bufMutex);
    std::string line;
    for (wdBufNode* n = commBufList->head; n != nullptr; n = n->next) {
      if (strstr(n->obj->msg, text.c_str()) != nullptr) line = n->obj->msg;
    }
    pthread_mutex_unlock(&bufMutex);
    return line;
  }

  static int Buffered() {
    pthread_mutex_lock(&bufMutex);
    int n = commBufList->objNum;
    pthread_mutex_unlock(&bufMutex);
    return n;
  }

  static bool Drained() {
    return gw::WaitUntil([] { return Buffered() == 0; }, 20000);
  }

  gw::StderrFile err_;
};

TEST_F(RelayTest, LinesReachSyslogNgAsFormattedAndLeaveOnTheirAnswers) {
  ASSERT_TRUE(gw::StartSyslogNg());
  StartRelay();
  std::vector<std::string> sent = {Report(16, "route table"), Report(11, "stats"),
                                   Report(6, "PPP_DOWN_RESET|UP|1.2.3.4|"),
                                   Report(6, "CEASE_CONN_OK|UP|1.2.3.4|")};
  EXPECT_EQ(sent[1], "my.app.wd.voipstat.0a1b2c3d4e5f: stats");
  ASSERT_TRUE(Drained());
  std::vector<std::string> got = gw::ReportLines();
  for (const std::string& line : sent)
    EXPECT_EQ(std::count(got.begin(), got.end(), line), 1) << line;
  EXPECT_EQ(got.size(), sent.size());
  EXPECT_NE(err_.Text().find("Save buffer content to flash success\n"), std::string::npos)
      << "two ppp lines waiting wrote the flash copy";
  EXPECT_FALSE(gw::Exists("/data/syslogmsg")) << "and the empty buffer removed it";
}

TEST_F(RelayTest, SyslogNgKilledNothingLostAndAllSentAgainToTheNewOne) {
  ASSERT_TRUE(gw::StartSyslogNg());
  StartRelay();
  std::vector<std::string> sent = {Report(3, "before the crash")};
  ASSERT_TRUE(Drained());
  int oldPid = gw::SyslogNgPid();
  gw::StopSyslogNg();
  for (int i = 0; i < 5; ++i) sent.push_back(Report(3, "while down " + std::to_string(i)));
  EXPECT_TRUE(gw::WaitUntil(
      [&] { return Count(err_.Text(), "Watchdogd, connect to syslog-ng failed\n") >= 3; }));
  EXPECT_EQ(Buffered(), 5);

  ASSERT_TRUE(gw::StartSyslogNg(true));
  EXPECT_NE(gw::SyslogNgPid(), oldPid);
  ASSERT_TRUE(Drained());
  EXPECT_NE(err_.Text().find("SyslogngRestart. pid:" + std::to_string(oldPid) + " --> "),
            std::string::npos);
  std::vector<std::string> got = gw::ReportLines();
  for (const std::string& line : sent)
    EXPECT_GE(std::count(got.begin(), got.end(), line), 1) << line;
}

TEST_F(RelayTest, DatagramsAre520BytesAndOnlyTheNextCarriesTheReloadMark) {
  FakeSyslog fake;
  StartRelay();
  sngReload = 1;
  std::string first = Report(3, "first");
  ASSERT_TRUE(fake.WaitForCount(1));
  std::string second = Report(3, "second");
  ASSERT_TRUE(fake.WaitForCount(2));
  std::vector<std::string> got = fake.Received();
  EXPECT_EQ(got[0], "1#" + first + "#1");
  EXPECT_EQ(got[1], "0#" + second + "#2");
  for (size_t size : fake.Sizes()) EXPECT_EQ(size, 520u);
  EXPECT_EQ(sngReload.load(), 0);
  ASSERT_TRUE(Drained());
}

TEST_F(RelayTest, ThreeFailuresSuspendProbesResumeAndTheSaveTimerWritesOnce) {
  FakeSyslog fake;
  fake.SetMode(FakeSyslog::kFailure);
  StartRelay();
  std::vector<std::string> sent = {Report(3, "one"), Report(3, "two"), Report(3, "three")};
  ASSERT_TRUE(gw::WaitUntil(
      [&] { return err_.Text().find("fail times too much, stop to send!") != std::string::npos; }));
  EXPECT_EQ(
      Count(err_.Text(), "Watchdogd, message to syslog-ng  fail times too much, stop to send!\n"),
      1u);
  EXPECT_EQ(dontSend.load(), 1);

  // Suspended: every 30 s a probe with the head line, answered with failure.
  ASSERT_TRUE(gw::WaitUntil([&] {
    return Count(err_.Text(), "Watchdogd, syslog STILL can't be sent, reset check timer!!\n") >= 3;
  }));
  // The save timer writes the buffer once, 180 s after the suspension.
  ASSERT_TRUE(gw::WaitUntil([&] { return gw::Exists("/data/syslogmsg"); }, 20000));
  EXPECT_GE(Count(err_.Text(), "Watchdogd, syslog STILL can't be sent"), 5u);
  gw::RealSleepMs(1000);  // several probe periods more
  EXPECT_EQ(Count(err_.Text(), "Save buffer content to flash success\n"), 1u);
  EXPECT_EQ(Count(err_.Text(), "MOD_MSG_RESEND Received wdMsg, dst#12#, type#11#\n"), 1u);
  EXPECT_GE(Count(err_.Text(), "MOD_MSG_RESEND Received wdMsg, dst#12#, type#10#\n"), 5u);
  std::string flash = gw::ReadFile("/data/syslogmsg");
  EXPECT_EQ(flash, "3#3#0\n" + sent[0] + "#3\n" + sent[1] + "#3\n" + sent[2] + "#3\n");
  std::vector<std::string> got = fake.Received();
  ASSERT_FALSE(got.empty());
  EXPECT_EQ(got.back(), "0#" + sent[0] + "#1") << "probes carry the head line";

  fake.SetMode(FakeSyslog::kSuccess);
  ASSERT_TRUE(Drained());
  EXPECT_EQ(Count(err_.Text(), "Watchdogd, syslog can be sent again, start to send!!\n"), 1u);
  EXPECT_EQ(dontSend.load(), 0);
  EXPECT_FALSE(gw::Exists("/data/syslogmsg")) << "every line acknowledged: the copy is gone";
}

TEST_F(RelayTest, ProbeWithAnEmptyBufferSendsNothingAndKeepsProbing) {
  FakeSyslog fake;
  fake.SetMode(FakeSyslog::kFailure);
  StartRelay();
  Report(3, "a");
  ASSERT_TRUE(gw::WaitUntil([] { return dontSend.load() == 1; }));
  fake.SetMode(FakeSyslog::kSilent);
  // The line is acknowledged from elsewhere: the buffer is empty while suspended.
  ASSERT_TRUE(gw::SendToChannel("/var/wdSyslogRx.chanl", "1#0#", 4));
  ASSERT_TRUE(Drained());
  size_t sent = fake.Received().size();
  size_t probes = Count(err_.Text(), "type#10#");
  ASSERT_TRUE(gw::WaitUntil([&] { return Count(err_.Text(), "type#10#") >= probes + 3; }));
  EXPECT_EQ(fake.Received().size(), sent) << "no datagram without a line";
  EXPECT_EQ(dontSend.load(), 1);
}

TEST_F(RelayTest, TraceSwitchShowsEveryLineSentAndAnswered) {
  FakeSyslog fake;
  StartRelay();
  g_idebug = 1;
  std::string line = Report(3, "traced");
  ASSERT_TRUE(Drained());
  std::string console = gw::Console();
  EXPECT_NE(console.find("--> #1(1:0,1) 0#" + line + "#1\n"), std::string::npos) << console;
  EXPECT_NE(console.find("<-- #1(0:0,0) 0 " + line + "\n"), std::string::npos) << console;
}

TEST_F(RelayTest, ASuccessBetweenFailuresResetsTheCount) {
  FakeSyslog fake;
  fake.SetScript({FakeSyslog::kFailure, FakeSyslog::kFailure, FakeSyslog::kSuccess,
                  FakeSyslog::kFailure, FakeSyslog::kFailure});
  StartRelay();
  Report(3, "a");
  Report(3, "b");
  Report(3, "c");
  ASSERT_TRUE(Drained());
  EXPECT_EQ(err_.Text().find("stop to send"), std::string::npos);
  EXPECT_EQ(dontSend.load(), 0);
  EXPECT_EQ(fake.Received().size(), 7u) << "five scripted answers, then two successes";
}

TEST_F(RelayTest, FailureAnswerForAPppLineWritesFlashAtOnce) {
  FakeSyslog fake;
  fake.SetMode(FakeSyslog::kSilent);
  fake.SetScript({FakeSyslog::kFailure});
  StartRelay();
  std::string line = Report(6, "PPP_DOWN_NO_RESET|||");
  ASSERT_TRUE(gw::WaitUntil([] { return gw::Exists("/data/syslogmsg"); }));
  EXPECT_EQ(gw::ReadFile("/data/syslogmsg"), "1#1#1\n" + line + "#6\n");
  ASSERT_TRUE(fake.WaitForCount(2)) << "sent again after the failure answer";
  ASSERT_TRUE(gw::SendToChannel("/var/wdSyslogRx.chanl", "1#0#", 4));
  ASSERT_TRUE(Drained());
  EXPECT_FALSE(gw::Exists("/data/syslogmsg"));
}

TEST_F(RelayTest, AnswersForUnknownOrNonPositiveNumbersChangeNothing) {
  FakeSyslog fake;
  fake.SetMode(FakeSyslog::kSilent);
  StartRelay();
  Report(3, "waiting");
  ASSERT_TRUE(fake.WaitForCount(1));
  g_idebug = 1;
  for (const char* answer : {"0#0#", "-1#0#", "99#0#", "garbage", "1#", "#0#"}) {
    ASSERT_TRUE(gw::SendToChannel("/var/wdSyslogRx.chanl", answer, strlen(answer)));
  }
  ASSERT_TRUE(gw::SendToChannel("/var/wdSyslogRx.chanl", "", 0));
  ASSERT_TRUE(gw::WaitUntil([&] { return Count(err_.Text(), "Receieved 0 bytes!\n") == 1; }));
  EXPECT_EQ(Buffered(), 1);
  std::string console = gw::Console();
  EXPECT_NE(console.find("<-- pNode:(nil) #99(1:0,1) 0\n"), std::string::npos) << console;
  EXPECT_NE(console.find("<-- pNode:"), std::string::npos);
  ASSERT_TRUE(gw::SendToChannel("/var/wdSyslogRx.chanl", "1#0#", 4));
  ASSERT_TRUE(Drained());
  EXPECT_NE(gw::Console().find("<-- #1(0:0,0) 0 my.app.wd.infcnt."), std::string::npos);
}

TEST_F(RelayTest, NoReceiveSocketNoSending) {
  // Something else holds the receive path as a directory: binding fails, the
  // thread carries on, and lines still go out (the answers cannot come back).
  ASSERT_EQ(mkdir("/var/wdSyslogRx.chanl", 0755), 0);
  gw::WriteFile("/var/wdSyslogRx.chanl/x", "x");
  FakeSyslog fake;
  fake.SetMode(FakeSyslog::kSilent);
  StartRelay();
  EXPECT_TRUE(gw::WaitUntil([&] {
    return err_.Text().find("Port is currently being used by some other application \n") !=
           std::string::npos;
  }));
  Report(3, "still sent");
  EXPECT_TRUE(fake.WaitForCount(1));
}

TEST_F(RelayTest, MemoryCheckRestartsAnOversizedSyslogNg) {
  ASSERT_TRUE(gw::StartSyslogNg());
  StartRelay();
  Report(3, "before");
  ASSERT_TRUE(Drained());
  int oldPid = gw::SyslogNgPid();

  gw::WriteFile("/gw/syslog-ng.vsz", "4500");
  gw::RealSleepMs(1000);  // three memory checks
  EXPECT_EQ(err_.Text().find("Restart syslog-ng process !"), std::string::npos);
  EXPECT_EQ(gw::SyslogNgPid(), oldPid);

  gw::WriteFile("/gw/syslog-ng.vsz", "4501");
  ASSERT_TRUE(gw::WaitUntil(
      [&] { return err_.Text().find("Restart syslog-ng process !\n") != std::string::npos; }));
  unlink("/gw/syslog-ng.vsz");
  ASSERT_TRUE(gw::WaitUntil([&] { return gw::SyslogNgPid() > 0 && gw::SyslogNgPid() != oldPid; }));
  EXPECT_NE(err_.Text().find("URLSYSLOGServer is empty\n"), std::string::npos);
  EXPECT_NE(err_.Text().find("RestartSysklogng. /usr/sbin/syslog-ng -f /var/syslog-ng.conf\n"),
            std::string::npos);
  EXPECT_FALSE(gw::Exists("/tmp/syslogMem"));

  // Suspended until a probe; the probe's tick sees the new process.
  std::string line = Report(3, "after");
  ASSERT_TRUE(Drained());
  EXPECT_NE(err_.Text().find("Watchdogd, syslog can be sent again, start to send!!\n"),
            std::string::npos);
  std::vector<std::string> got = gw::ReportLines();
  EXPECT_EQ(std::count(got.begin(), got.end(), line), 1);
  EXPECT_EQ(gw::Run("syslog-ng --syntax-only -f /var/syslog-ng.conf").status, 0);
}

TEST_F(RelayTest, RemoteServerOnLoopbackReceivesTheLines) {
  // A second syslog-ng in the gateway's network namespace plays the remote server.
  gw::WriteFile("/tmp/remote.conf",
                "@version: 3.38\n"
                "source s_in { network(ip(\"127.0.0.1\") transport(\"udp\") port(1514) "
                "flags(no-parse)); };\n"
                "destination d_out { file(\"/var/log/remote\" template(\"${MESSAGE}\\n\")); };\n"
                "log { source(s_in); destination(d_out); };\n");
  ASSERT_EQ(gw::Run("/gw/libexec/syslog-ng -f /tmp/remote.conf --pidfile=/tmp/remote.pid "
                    "--control=/tmp/remote.ctl --persist-file=/tmp/remote.persist "
                    "--process-mode=background")
                .status,
            0);
  gw::SetConfig("Watchdog_Common", "URLSYSLOGServer", "127.0.0.1:1514");
  gw::SetConfig("Watchdog_Common", "Protocol", "UDP");
  ASSERT_TRUE(gw::StartSyslogNg());
  StartRelay();
  gw::WriteFile("/gw/syslog-ng.vsz", "9999");
  ASSERT_TRUE(gw::WaitUntil(
      [&] { return err_.Text().find("Restart syslog-ng process !\n") != std::string::npos; }));
  unlink("/gw/syslog-ng.vsz");
  EXPECT_NE(err_.Text().find("URLSYSLOGServer is 127.0.0.1:1514 site is 127.0.0.1 port is 1514\n"),
            std::string::npos);
  std::string conf = gw::ReadFile("/var/syslog-ng.conf");
  EXPECT_NE(conf.find("destination d_local {\nudp(\"127.0.0.1\" port(1514) "
                      "template(t_demo_filetemplate));\n};log {\n"),
            std::string::npos)
      << conf;

  std::string line = Report(7, "arp table to the remote server");
  ASSERT_TRUE(Drained());
  EXPECT_TRUE(gw::WaitUntil([&] {
    std::vector<std::string> got = gw::ReportLines("/var/log/remote");
    return std::count(got.begin(), got.end(), line) == 1;
  })) << gw::ReadFile("/var/log/remote");
}

}  // namespace
