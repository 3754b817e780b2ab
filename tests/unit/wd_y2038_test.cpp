// A clock past 19 January 2038 (runs under libfaketime, from 2040-01-01):
// report lines carry the true seconds and timers still fire, also where
// time_t has 32 bits.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "wd_buffer.h"
#include "wd_common.h"
#include "wd_timer.h"

#include "unit_util.h"

namespace {

constexpr int64_t k2040 = 2208988800;  // 2040-01-01 00:00:00 UTC

TEST(Past2038, ClockAndReportLineCarryTheTrueSeconds) {
  int64_t sec = 0;
  int32_t usec = -1;
  ASSERT_EQ(wd_clockRealtime(&sec, &usec), 0);
  EXPECT_GE(sec, k2040);
  EXPECT_LT(sec, k2040 + 3600);
  EXPECT_GE(usec, 0);
  EXPECT_LT(usec, 1000000);

  ScopedBuffer buffer;
  wdBufList& list = buffer.list;
  wd_initData();
  ASSERT_EQ(wd_syslogStr(16, "route"), 0);
  std::string line = list.tail->obj->msg;
  size_t colon = line.find(": ");
  long long stamp = std::stoll(line.substr(colon + 2));
  EXPECT_GE(stamp, k2040) << line;
  EXPECT_LT(stamp, k2040 + 3600) << line;
}

std::atomic<int> gFired{0};
int Fired(int, int) {
  gFired++;
  return 0;
}

TEST(Past2038, TimersStillFire) {
  wd_timerInit();
  ASSERT_EQ(wd_addTimer(1, 200, Fired, 0), 0);
  ASSERT_EQ(wd_addPTimer(2, 100, Fired, 0), 0);
  for (int i = 0; i < 100 && gFired < 4; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_GE(gFired.load(), 4);
}

}  // namespace
