// The relay's threads in this process against the gateway's real syslog-ng,
// and against the scriptable stand-in for what syslog-ng cannot be made to do.
// Runs under libfaketime (100 times faster), so the 30-second probes and the
// 180-second save timer pass in about a second; each case needs a process of
// its own, as ctest gives it.
#include <signal.h>
#include <unistd.h>

#include <thread>

#include "gateway.h"
#include "wd_buffer.h"
#include "wd_link.h"
#include "wd_lock.h"
#include "wd_relay.h"
#include "wd_syslog.h"
#include "wd_timer.h"
#include "wd_wire.h"

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
    wdLock lock(&bufMutex);
    for (wdBufNode* n = commBufList->head; n != nullptr; n = n->next) {
      if (strstr(n->obj->msg, text.c_str()) != nullptr) return n->obj->msg;
    }
    return "";
  }
  static int Buffered() {
    wdLock lock(&bufMutex);
    return commBufList->objNum;
  }
  static bool Drained() {
    return gw::WaitUntil([] { return Buffered() == 0; }, 20000);
  }
  // Waits until the relay's console shows `text` at least `n` times.
  bool Says(const std::string& text, size_t n = 1) {
    return gw::WaitUntil([&] { return Count(err_.Text(), text) >= n; }, 20000);
  }

  gw::StderrFile err_;
};

TEST_F(RelayTest, LinesWaitWhileSyslogNgIsDownAndGoToTheNextOne) {
  ASSERT_TRUE(gw::StartSyslogNg());
  StartRelay();
  gw::StopSyslogNg();
  std::vector<std::string> sent = {Report(16, "route table"), Report(6, "PPP_DOWN_RESET|||")};
  for (int i = 0; i < 3; ++i) sent.push_back(Report(3, "while down " + std::to_string(i)));
  EXPECT_TRUE(Says("Watchdogd, connect to syslog-ng failed\n", 3));
  EXPECT_EQ(Buffered(), 5);
  ASSERT_TRUE(gw::StartSyslogNg(true));
  ASSERT_TRUE(Drained());
  for (const std::string& line : sent) {
    EXPECT_TRUE(gw::WaitFor("/var/log/messages", line + "\n")) << line;
  }
}

TEST_F(RelayTest, AStoppedSyslogNgNeverStallsTheLinkAndIsRestarted) {
  ASSERT_TRUE(gw::StartSyslogNg());
  StartRelay();
  int stopped = gw::SyslogNgPid();
  ASSERT_EQ(kill(stopped, SIGSTOP), 0);  // wedged: it takes no more datagrams
  std::vector<std::string> sent;
  for (int i = 0; i < 30; ++i) sent.push_back(Report(3, "queued " + std::to_string(i)));
  EXPECT_TRUE(Says("Watchdogd, sendto syslog-ng failed!!\n"))
      << "a full queue is a failed send, not a wait";
  gw::WriteFile("/gw/syslog-ng.vsz", "9999");
  ASSERT_TRUE(Says("Restart syslog-ng process !\n")) << "the memory check still runs";
  unlink("/gw/syslog-ng.vsz");
  ASSERT_TRUE(gw::WaitUntil([&] { return gw::SyslogNgPid() > 0 && gw::SyslogNgPid() != stopped; }));
  ASSERT_TRUE(Drained());
  EXPECT_TRUE(Says("Watchdogd, syslog can be sent again, start to send!!\n"));
  for (const std::string& line : sent) {
    EXPECT_TRUE(gw::WaitFor("/var/log/messages", line + "\n")) << line;
  }
  EXPECT_TRUE(gw::WaitUntil([] { return !gw::Exists("/tmp/syslogMem"); }));
}

TEST_F(RelayTest, ThreeFailuresSuspendProbesResumeAndTheSaveTimerWritesOnce) {
  FakeSyslog fake("F");
  StartRelay();
  std::vector<std::string> sent = {Report(3, "one"), Report(3, "two"), Report(3, "three")};
  ASSERT_TRUE(Says("Watchdogd, message to syslog-ng  fail times too much, stop to send!\n"));
  // Suspended: a probe with the head line every 30 s, answered with failure;
  // the save timer writes the buffer once (how many probes come before it
  // depends on the machine's load, so it is not counted).
  ASSERT_TRUE(Says("Save buffer content to flash success\n"));
  EXPECT_EQ(gw::ReadFile("/data/syslogmsg"),
            "3#3#0\n" + sent[0] + "#3\n" + sent[1] + "#3\n" + sent[2] + "#3\n");
  size_t probes =
      Count(err_.Text(), "Watchdogd, syslog STILL can't be sent, reset check timer!!\n");
  ASSERT_TRUE(Says("Watchdogd, syslog STILL can't be sent", probes + 3));
  EXPECT_EQ(Count(err_.Text(), "Save buffer content to flash success\n"), 1u);
  EXPECT_EQ(Count(err_.Text(), "MOD_MSG_RESEND Received wdMsg, dst#12#, type#11#\n"), 1u);
  EXPECT_EQ(fake.Received().back(), "520 0#" + sent[0] + "#1") << "probes carry the head line";
  EXPECT_EQ(Count(err_.Text(), "fail times too much"), 1u);

  fake.SetPlan("S");
  ASSERT_TRUE(Drained());
  EXPECT_EQ(Count(err_.Text(), "Watchdogd, syslog can be sent again, start to send!!\n"), 1u);
  EXPECT_TRUE(gw::WaitUntil([] { return !gw::Exists("/data/syslogmsg"); }));
}

TEST_F(RelayTest, ProbeWithAnEmptyBufferSendsNothingAndKeepsProbing) {
  FakeSyslog fake("F");
  StartRelay();
  Report(3, "a");
  ASSERT_TRUE(gw::WaitUntil([] { return dontSend.load() == 1; }));
  fake.SetPlan("N");
  ASSERT_TRUE(gw::SendToChannel("/var/wdSyslogRx.chanl", "1#0#", 4));  // answered elsewhere
  ASSERT_TRUE(Drained());
  // A probe formatted before the answer may still go out; each later one is
  // armed by the probe tick before it, so two more mean it has gone.
  size_t probes = Count(err_.Text(), "type#10#");
  ASSERT_TRUE(Says("type#10#", probes + 2));
  size_t sent = fake.Received().size();
  ASSERT_TRUE(Says("type#10#", probes + 5));
  EXPECT_EQ(fake.Received().size(), sent) << "no datagram without a line";
  EXPECT_EQ(dontSend.load(), 1);
}

TEST_F(RelayTest, FailureCountsAndAnswersForWhatIsNotThere) {
  // The ppp line fails twice and then goes through; the next line fails twice:
  // a success between failures resets the count, so nothing is suspended.
  FakeSyslog fake("FFSFFN");
  StartRelay();
  g_idebug = 1;
  std::string line = Report(6, "PPP_DOWN_NO_RESET|||");
  ASSERT_TRUE(Says("Save buffer content to flash success\n"))
      << "a failed ppp line is saved at once";
  ASSERT_TRUE(Drained());
  Report(3, "b");
  ASSERT_TRUE(fake.WaitForCount(6));
  Report(3, "c");
  ASSERT_TRUE(fake.WaitForCount(7));
  for (const char* answer :
       {"0#0#", "-1#0#", "99#0#", "garbage", "1#", "#0#", "99999999999#0#", "2#99999999999#"}) {
    ASSERT_TRUE(gw::SendToChannel("/var/wdSyslogRx.chanl", answer, strlen(answer)));
  }
  ASSERT_TRUE(gw::SendToChannel("/var/wdSyslogRx.chanl", "", 0));
  ASSERT_TRUE(Says("Receieved 0 bytes!\n"));  // every answer before it is handled
  std::string console = gw::Console();
  EXPECT_NE(console.find("<-- BUF_FAILED!!!! #1(1:1,0) 1 " + line + "\n"), std::string::npos);
  EXPECT_NE(console.find("<-- pNode:(nil) #99(2:0,2) 0\n"), std::string::npos) << console;
  EXPECT_EQ(Count(err_.Text(), "stop to send"), 0u);
  EXPECT_EQ(Buffered(), 2) << "nothing removed by a bad answer";
  ASSERT_TRUE(gw::SendToChannel("/var/wdSyslogRx.chanl", "2#0#", 4));
  ASSERT_TRUE(gw::SendToChannel("/var/wdSyslogRx.chanl", "3#0#", 4));
  ASSERT_TRUE(Drained());
}

// Several threads push while the transmit thread sleeps, sends, looks for more
// work and goes to sleep: every line is sent. The last push of a round comes
// at a moment swept across the thread's way to sleep, and each round drains
// before the next pushes, so that no later push can stand in for a lost wake.
TEST_F(RelayTest, PushesRacingWithItsSleepAllGoOut) {
  FakeSyslog fake("S");
  StartRelay();
  std::vector<std::string> pushed;
  for (int round = 0; round < 300; ++round) {
    if (round % 5 == 0) {
      ASSERT_TRUE(gw::WaitUntil([] { return bufTxIdle.load(); }));
    }
    std::atomic<int> early{0};
    std::vector<std::thread> pushers;
    for (int t = 0; t < 4; ++t) {
      std::string text = "race " + std::to_string(round) + "." + std::to_string(t);
      pushed.push_back(text);
      pushers.emplace_back([&early, text, last = t == 3, delayUs = round % 60] {
        // Once the last line is marked sent, the thread sends it and then
        // looks for more work.
        int64_t giveUp = wdtest::RealUs() + 10000000;  // a lost wake leaves a line unsent
        for (bool unsent = true; (unsent || (last && early < 3)) && wdtest::RealUs() < giveUp;) {
          wdLock lock(&bufMutex);
          unsent = bufNodeSearchUnsent1st(commBufList) != nullptr;
        }
        for (int64_t from = wdtest::RealUs(); last && wdtest::RealUs() - from < delayUs;) {
        }
        EXPECT_EQ(wd_syslogStr(3, text.c_str()), 0);
        ++early;
      });
    }
    for (std::thread& t : pushers) t.join();
    ASSERT_TRUE(Drained()) << "round " << round;
  }
  std::vector<std::string> received = fake.Received();
  for (const std::string& text : pushed) {
    EXPECT_EQ(std::count_if(received.begin(), received.end(),
                            [&](const std::string& d) {
                              return d.find("|" + text + "#") != std::string::npos;
                            }),
              1)
        << text;
  }
}

// The transmit thread sleeps while nothing waits; each of these wakes it. On
// the real clock (no libfaketime), where its next wake of its own, the memory
// check, is 30 s away: each case waits 10 s at most.
class RelayWake : public RelayTest {
 protected:
  static void Asleep() {
    ASSERT_TRUE(gw::WaitUntil([] { return bufTxIdle.load(); }, kWakeMs)) << "asleep without work";
  }
  static constexpr int kWakeMs = 10000;
};

TEST_F(RelayWake, APushWakesItAndTheLineGoesOut) {
  ASSERT_TRUE(gw::StartSyslogNg());
  StartRelay();
  Asleep();
  std::string line = Report(3, "pushed while asleep");
  EXPECT_TRUE(gw::WaitFor("/var/log/messages", line + "\n", 1, kWakeMs));
}

// The push arms the boundary itself: the thread wakes there and sends,
// rather than waking at the push and sleeping on to the boundary.
TEST_F(RelayWake, APushedLineCostsTheSleepingThreadOneWakeup) {
  FakeSyslog fake("S");
  StartRelay();
  Asleep();
  unsigned wakes = bufTxWakes.load();
  std::string line = Report(3, "one wakeup");
  ASSERT_TRUE(fake.WaitForCount(1, kWakeMs));
  EXPECT_EQ(fake.Received().back(), "520 0#" + line + "#1");
  EXPECT_EQ(bufTxWakes.load() - wakes, 1u);
}

TEST_F(RelayWake, AProbeRequestWakesIt) {
  FakeSyslog fake("FFF");
  StartRelay();
  Report(3, "refused");
  ASSERT_TRUE(gw::WaitUntil([] { return dontSend.load() == 1; }, kWakeMs));
  Asleep();  // suspended: nothing to do until a probe is due (30 s)
  size_t sent = fake.Received().size();
  wdMsg check = {};
  check.eventType = TX_CHECK_TIMEOUT;
  check.destMod = MOD_MSG_RESEND;
  ASSERT_TRUE(gw::SendToChannel("/var/wd_msg_resend.chanl", &check, sizeof check));
  EXPECT_TRUE(fake.WaitForCount(sent + 1, kWakeMs)) << "the probe went out";
}

TEST_F(RelayWake, ANewSyslogNgIsNoticedWhileItSleeps) {
  ASSERT_TRUE(gw::StartSyslogNg());
  StartRelay();
  std::string line = Report(3, "before the restart");
  ASSERT_TRUE(Drained());
  Asleep();
  int old = gw::SyslogNgPid();
  gw::StopSyslogNg();
  ASSERT_TRUE(gw::StartSyslogNg(true));
  EXPECT_TRUE(gw::WaitUntil(
      [&] { return Count(err_.Text(), "SyslogngRestart. pid:" + std::to_string(old) + " --> ") == 1; },
      kWakeMs));
}

TEST_F(RelayWake, AReloadMarkWakesItAndGoesWithTheNextLine) {
  FakeSyslog fake("S");
  StartRelay();
  Asleep();
  unsigned wakes = bufTxWakes.load();
  wd_bufSetReload();
  EXPECT_TRUE(gw::WaitUntil([&] { return bufTxWakes.load() > wakes; }, kWakeMs));
  std::string line = Report(3, "after the reload");
  ASSERT_TRUE(fake.WaitForCount(1, kWakeMs));
  EXPECT_EQ(fake.Received().back(), "520 1#" + line + "#1");
}

}  // namespace
