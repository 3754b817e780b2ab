// A clock past 19 January 2038 (runs under libfaketime, from 2040-01-01):
// report lines carry the true seconds and timers still fire, also where
// time_t has 32 bits.

#include "wd_syslog.h"
#include "wd_timer.h"

#include "unit_util.h"

namespace {

constexpr int64_t k2040 = 2208988800;  // 2040-01-01 00:00:00 UTC

std::atomic<int> gFired{0};
int Fired(int, int) { return gFired++; }

TEST(Past2038, ReportLinesCarryTheTrueSecondsAndTimersStillFire) {
  ScopedBuffer buffer;
  ASSERT_EQ(wd_syslogStr(16, "route"), 0);
  std::string line = buffer.list.tail->obj->msg;
  long long stamp = std::stoll(line.substr(line.find(": ") + 2));
  EXPECT_TRUE(stamp >= k2040 && stamp < k2040 + 3600) << line;
  wd_timerInit();
  ASSERT_EQ(wd_addTimer(1, 200, Fired, 0), 0);
  ASSERT_EQ(wd_addPTimer(2, 100, Fired, 0), 0);
  EXPECT_TRUE(WaitUntil([] { return gFired >= 4; }));
}

}  // namespace
