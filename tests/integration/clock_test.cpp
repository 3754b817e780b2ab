// The daemon against the calendar clock: run from just before 2^31 seconds
// (19 January 2038) across it, and with its calendar clock stepped years
// forwards and an hour back while it runs. Report times follow the calendar;
// module timers keep their pace, neither stalling nor firing in a burst.
//
// The daemon runs under libfaketime with settings of its own; the gateway's
// syslog stub takes the report lines, so that each line's seconds can be read.

#include <fcntl.h>
#include <stdio.h>

#include "gateway.h"

using gw::Daemon;
using gw::FakeSyslog;
using gw::SetConfig;
using gw::Split;

namespace {

constexpr int64_t k2038 = int64_t{1} << 31;  // 2038-01-19 03:14:08 UTC
constexpr int64_t kTenYears = 315532800;     // 3652 days

// libfaketime with `settings`. It reads a date in FAKETIME as local time: TZ
// makes it UTC.
std::vector<std::string> Faketime(std::vector<std::string> settings) {
  settings.insert(settings.begin(), "TZ=UTC");
  return gw::FaketimeWith(settings);
}

// A report line as the stub received it ("SIZE MARK#LINE#SEQ").
struct Report {
  std::string line;  // the whole report line
  std::string text;  // after "my.app.wd.CATEGORY.ID: "
  int64_t seconds;   // the seconds that start the text (not in voipstat lines)
};

// Every line of `category` the stub received, resent ones again.
std::vector<Report> Received(FakeSyslog& stub, const std::string& category) {
  std::vector<Report> out;
  const std::string prefix = "my.app.wd." + category + ".";
  for (const std::string& datagram : stub.Received()) {
    size_t at = datagram.find(prefix);
    size_t end = datagram.rfind('#');
    if (at == std::string::npos || end == std::string::npos || end < at) continue;
    Report r;
    r.line = datagram.substr(at, end - at);
    r.text = r.line.substr(r.line.find(": ") + 2);
    r.seconds = atoll(r.text.c_str());
    out.push_back(r);
  }
  return out;
}

// Waits until the stub has `n` reports of `category`.
bool WaitReceived(FakeSyslog& stub, const std::string& category, size_t n, int timeoutMs) {
  return gw::WaitUntil([&] { return Received(stub, category).size() >= n; }, timeoutMs);
}

// A 32-bit report field, printed signed, as the seconds it stands for near
// `near` (the field keeps the low 32 bits of the seconds).
int64_t Widen(const std::string& field, int64_t near) {
  uint32_t low = static_cast<uint32_t>(std::stoll(field));
  int64_t base = near - (near & 0xffffffff);
  int64_t best = base + low;
  for (int64_t candidate : {best - (int64_t{1} << 32), best + (int64_t{1} << 32)})
    if (llabs(candidate - near) < llabs(best - near)) best = candidate;
  return best;
}

// From just before 2^31 seconds across it, ten times faster: the report
// lines carry the seconds beyond 2^31, the periodic module keeps reporting,
// the VoIP statistics intervals follow each other with the period's length,
// and lines kept in the flash copy come back with their seconds in the next
// daemon.
TEST(Across2038, ReportsTimersVoipIntervalsAndTheFlashCopy) {
  SetConfig("Watchdog_Common", "Enable", "1");
  SetConfig("Watchdog_WDInfo", "Timer", "10");
  SetConfig("Watchdog_WDInfo", "Verbosity", "1");
  SetConfig("Watchdog_VoIPStats", "Mode", "2");
  SetConfig("Watchdog_VoIPStats", "Period", "60");
  SetConfig("Watchdog_VoIPStats", "Query", "0");
  unlink("/data/syslogmsg");
  gw::VoiceApp voice;
  voice.Ctl("call out 100000");
  FakeSyslog stub("S");
  const std::vector<std::string> env = Faketime({"FAKETIME=@2038-01-19 03:14:00 x10"});
  {
    Daemon d(env);
    ASSERT_TRUE(d.Start());
    ASSERT_TRUE(WaitReceived(stub, "infgen", 4, 60000));
    std::vector<Report> info = Received(stub, "infgen");
    for (size_t i = 0; i < info.size(); ++i) {
      EXPECT_GT(info[i].seconds, k2038) << info[i].line;
      EXPECT_LT(info[i].seconds, k2038 + 3600) << info[i].line;
      if (i > 0) {
        EXPECT_GE(info[i].seconds, info[i - 1].seconds) << info[i].line;
      }
    }

    // Two periodic intervals back to back, each 60 s long; the 32-bit
    // fields hold the low 32 bits of the seconds.
    ASSERT_TRUE(WaitReceived(stub, "voipstat", 2, 60000));
    std::vector<Report> stats = Received(stub, "voipstat");
    ASSERT_GE(stats.size(), 2u);
    int64_t near = Received(stub, "infgen").back().seconds;
    std::vector<std::string> f0 = Split(stats[0].text, '|'), f1 = Split(stats[1].text, '|');
    ASSERT_EQ(f0.size(), 26u) << stats[0].line;
    ASSERT_EQ(f1.size(), 26u) << stats[1].line;
    EXPECT_EQ(f0[2] + f0[3] + f0[4], "260Periodic");
    int64_t start0 = Widen(f0[0], near), end0 = Widen(f0[1], near), end1 = Widen(f1[1], near);
    EXPECT_GT(start0, k2038 - 60) << stats[0].line;
    EXPECT_GT(end0, k2038) << stats[0].line;
    EXPECT_EQ(f1[0], f0[1]) << "the intervals follow each other";
    // An interval is the period from one expiry to the next, plus the
    // difference of the two answers' delays.
    EXPECT_GE(end1 - end0, 50) << stats[1].line;
    EXPECT_LE(end1 - end0, 75) << stats[1].line;
    EXPECT_LE(llabs(end1 - near), 600) << stats[1].line << " near " << near;

    // The stub fails every line from now on: after three failures the relay
    // stops sending and saves its buffer to the flash copy.
    stub.SetPlan("F");
    size_t before = Received(stub, "infgen").size();
    ASSERT_TRUE(WaitReceived(stub, "infgen", before + 3, 60000));
    ASSERT_TRUE(gw::WaitUntil(
        [] {
          return gw::ReadFile("/data/syslogmsg").find("my.app.wd.infgen.") != std::string::npos;
        },
        60000));
  }
  std::vector<std::string> saved;
  for (const std::string& line : gw::Lines("/data/syslogmsg")) {
    if (line.rfind("my.app.wd.infgen.", 0) == 0) saved.push_back(line.substr(0, line.rfind('#')));
  }
  ASSERT_FALSE(saved.empty()) << gw::ReadFile("/data/syslogmsg");
  for (const std::string& line : saved) {
    int64_t seconds = atoll(line.substr(line.find(": ") + 2).c_str());
    EXPECT_GT(seconds, k2038) << line;
  }

  // The next daemon loads the copy and sends its lines as they were.
  stub.SetPlan("S");
  size_t before = stub.Received().size();
  Daemon next(env);
  ASSERT_TRUE(next.Start());
  auto resent = [&](const std::string& line) {
    std::vector<std::string> got = stub.Received();
    for (size_t i = before; i < got.size(); ++i)
      if (got[i].find(" 0#" + line + "#") != std::string::npos) return true;
    return false;
  };
  ASSERT_TRUE(gw::WaitUntil([&] { return resent(saved.back()); }, 60000)) << saved.back();
  for (const std::string& line : saved) EXPECT_TRUE(resent(line)) << line;
}

// The calendar clock of the running daemon, stepped by rewriting the file
// libfaketime reads at every clock read; its monotonic clock runs on.
class CalendarStep : public ::testing::Test {
 protected:
  static constexpr const char* kFile = "/tmp/clock_test.faketime";
  // Seconds between the periodic reports. A burst (timers fired at the step,
  // or catching up on the stepped years) shows as reports in one second, a
  // stall as a gap of two periods; a report made up to two seconds late on a
  // busy machine is neither.
  static constexpr int kPeriod = 3;

  void SetUp() override {
    SetConfig("Watchdog_Common", "Enable", "1");
    SetConfig("Watchdog_WDInfo", "Timer", std::to_string(kPeriod));
    SetConfig("Watchdog_WDInfo", "Verbosity", "1");
    Offset(0);
  }
  void TearDown() override { unlink(kFile); }

  // The calendar clock `seconds` off the real one from the next read on.
  static void Offset(int64_t seconds) {
    const std::string fresh = std::string(kFile) + ".new";
    unlink(fresh.c_str());
    int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    const std::string text = (seconds < 0 ? "" : "+") + std::to_string(seconds) + "\n";
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
    ASSERT_EQ(rename(fresh.c_str(), kFile), 0);  // never read half written
  }

  static std::vector<std::string> Env() {
    return Faketime({std::string("FAKETIME_TIMESTAMP_FILE=") + kFile, "FAKETIME_NO_CACHE=1",
                     "FAKETIME_DONT_FAKE_MONOTONIC=1"});
  }

  // Steps the calendar by `by` seconds and checks the reports after it: the
  // first that follows the new calendar time, then kAfter more at the
  // period's pace.
  void StepAndCheck(int64_t by) {
    static constexpr size_t kAfter = 4;
    // The step comes right after a report, a period before the next is due.
    size_t seen = Received(stub_, "infgen").size();
    ASSERT_TRUE(WaitReceived(stub_, "infgen", seen + 1, 8 * kPeriod * 1000));
    std::vector<Report> before = Received(stub_, "infgen");
    const int64_t expected = before.back().seconds + by;
    offset_ += by;
    Offset(offset_);
    auto onNewCalendar = [&](const Report& r) { return llabs(r.seconds - expected) <= 60; };
    size_t first = 0;  // the first report made after the step
    ASSERT_TRUE(gw::WaitUntil(
        [&] {
          std::vector<Report> now = Received(stub_, "infgen");
          for (size_t i = before.size(); i < now.size(); ++i) {
            if (onNewCalendar(now[i])) {
              first = i;
              return true;
            }
          }
          return false;
        },
        8 * kPeriod * 1000))
        << "no report on the new calendar: a stall";
    for (size_t n = first + 2; n <= first + 1 + kAfter; ++n) {
      ASSERT_TRUE(WaitReceived(stub_, "infgen", n, 8 * kPeriod * 1000))
          << "a stall after report " << n - 1;
    }
    std::vector<Report> after = Received(stub_, "infgen");
    for (size_t i = before.size(); i < after.size(); ++i) {
      int64_t gap = after[i].seconds - after[i - 1].seconds;
      if (i < first) {
        EXPECT_FALSE(onNewCalendar(after[i])) << after[i].line;
        EXPECT_GE(gap, 1) << after[i].line << ": a burst";
        EXPECT_LE(gap, 2 * kPeriod - 1) << after[i].line;
      } else if (i == first) {
        EXPECT_GE(gap - by, 1) << after[i].line << ": a burst at the step";
        EXPECT_LE(gap - by, 2 * kPeriod - 1) << after[i].line;
      } else {
        EXPECT_TRUE(onNewCalendar(after[i])) << after[i].line;
        EXPECT_GE(gap, 1) << after[i].line << ": a burst";
        EXPECT_LE(gap, 2 * kPeriod - 1) << after[i].line;
      }
    }
  }

  int64_t offset_ = 0;  // the calendar's offset from the real clock, seconds
  FakeSyslog stub_{"S"};
};

TEST_F(CalendarStep, TenYearsForwardsThenAnHourBackKeepsThePace) {
  Daemon d(Env());
  ASSERT_TRUE(d.Start());
  ASSERT_TRUE(WaitReceived(stub_, "infgen", 2, 60000));
  StepAndCheck(kTenYears);
  StepAndCheck(-3600);
  EXPECT_TRUE(d.Running());
}

}  // namespace
