// The timer service: arming arithmetic, passes at a given time, ids, failure
// results, and many threads at once.
#include "wd_timer.h"

#include <stdint.h>

#include <mutex>
#include <thread>

#include "wd_base.h"
#include "wd_lock.h"
#include "wd_wire.h"

#include "unit_util.h"

namespace {

wdTimeVal gNow;
bool gClockFails = false;
int FakeClock(wdTimeVal* tv) {
  *tv = gNow;
  return gClockFails ? -1 : 0;
}

// What the callbacks saw, in order.
std::vector<std::string> gCalls;
int Record(int id, int arg) {
  gCalls.push_back(std::to_string(id) + ":" + std::to_string(arg));
  return 0;
}

class TimerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    wd_timerSetClock(FakeClock);
    gNow = {10, 900000};
    gCalls.clear();
  }
  void TearDown() override {
    pthread_mutex_lock(&timerMutex);
    timer_list_special_free(&time_list, timer_free);
    timer_list_special_free(&periodic_time_list, timer_free);
    pthread_mutex_unlock(&timerMutex);
    wd_timerSetClock(nullptr);
    timer_mallocHook = nullptr;
    gClockFails = false;
  }
  static void PassAt(long sec, long usec) {
    wdTimeVal now = {sec, static_cast<int32_t>(usec)};
    wd_timerPass(&now);
  }
  // The first timer's expiry and interval, as "seconds.microseconds/interval".
  static std::string First(timerList* list) {
    wdLock lock(&timerMutex);
    const timerNode* t = static_cast<timerNode*>(timer_list_get(list, 0));
    return std::to_string(t->expiry.tv_sec) + "." + std::to_string(t->expiry.tv_usec) + "/" +
           std::to_string(t->interval);
  }
};

TEST_F(TimerTest, OneShotExpiryArithmeticAndDueRule) {
  ASSERT_EQ(wd_addTimer(1, 250, Record, 7), 0);
  EXPECT_EQ(First(&time_list), "11.150000/250");
  PassAt(11, 149999);
  EXPECT_TRUE(gCalls.empty());
  PassAt(11, 150000);
  PassAt(20, 0);
  EXPECT_EQ(gCalls, (std::vector<std::string>{"1:7"})) << "once, then gone";

  gNow = {100, 999999};
  ASSERT_EQ(wd_addTimer(2, 2001, Record, 0), 0);
  EXPECT_EQ(First(&time_list), "103.999/2001");
  gNow = {150, 0};
  ASSERT_EQ(wd_addTimer(2, 3000, Record, 2), 0) << "an armed id moves, keeping its interval";
  ASSERT_EQ(timer_list_size(&time_list), 1);
  EXPECT_EQ(First(&time_list), "153.0/2001");
}

TEST_F(TimerTest, PeriodicTimersMoveOnFromThePassThatFiredThem) {
  gNow = {0, 0};
  ASSERT_EQ(wd_addPTimer(3, 1000, Record, 4), 0);
  ASSERT_EQ(wd_addPTimer(4, 0, Record, 0), 0);
  PassAt(1, 50000);
  EXPECT_EQ(First(&periodic_time_list), "2.50000/1000") << "from this pass, not the old expiry";
  PassAt(2, 0);
  PassAt(9, 0);  // late by many periods: still once
  EXPECT_EQ(gCalls, (std::vector<std::string>{"3:4", "4:0", "4:0", "3:4", "4:0"}));
}

TEST_F(TimerTest, OneShotsInArmingOrderThenPeriodicOnesAndManyDueAtOnce) {
  ASSERT_EQ(wd_addPTimer(1, 100, Record, 0), 0);
  ASSERT_EQ(wd_addTimer(2, 100, Record, 0), 0);
  ASSERT_EQ(wd_addTimer(3, 100, Record, 0), 0);
  ASSERT_EQ(wd_addTimer(4, 5000, Record, 0), 0);
  PassAt(11, 0);
  EXPECT_EQ(gCalls, (std::vector<std::string>{"2:0", "3:0", "1:0"}));
  wd_timerPStop(1);
  gCalls.clear();
  for (int id = 10; id < 50; ++id) ASSERT_EQ(wd_addPTimer(id, 0, Record, 0), 0);
  PassAt(12, 0);
  EXPECT_EQ(gCalls.size(), 32u) << "room for 32 periodic calls in the first pass";
  PassAt(12, 100000);
  EXPECT_EQ(gCalls.size(), 72u) << "and for all of them in the next";
}

TEST_F(TimerTest, IdsStopsAndFailedArming) {
  int base;
  {
    wdLock lock(&timerMutex);
    base = tmIdIndex;
  }
  int a = wd_setDefaultTimer(1000, MOD_SAMPLE);
  int b = wd_setDefaultPTimer(1000, MOD_SAMPLE);
  EXPECT_EQ(std::vector<int>({a, b}), std::vector<int>({base + 1, base + 2}));
  EXPECT_EQ(wd_timerStop(b), 0) << "b is periodic: the one-shot stop leaves it";
  EXPECT_EQ(timer_list_size(&periodic_time_list), 1);
  EXPECT_EQ(wd_timerPStop(b), 0);
  EXPECT_EQ(wd_timerStop(9999), 0);
  EXPECT_EQ(wd_timerPStop(0), 0);
  EXPECT_EQ(timer_list_size(&periodic_time_list), 0);
  EXPECT_EQ(timer_list_size(&time_list), 1);

  testing::internal::CaptureStderr();
  EXPECT_EQ(wd_setEventTimer(30000, MOD_MSG_RESEND, 12), -1);
  timer_mallocHook = [](size_t) -> void* { return nullptr; };
  EXPECT_EQ(wd_setPPPTimer(100, MOD_SAMPLE), -1);
  timer_mallocHook = nullptr;
  gClockFails = true;
  EXPECT_EQ(wd_setDefaultTimer(100, MOD_SAMPLE), -1) << "no time, no expiry";
  gClockFails = false;
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error: Can't start timer\nError: Can't start periodic timer\n"
            "Error: Can't start timer\n");
  EXPECT_EQ(wd_setEventTimer(100, MOD_MSG_RESEND, TX_SAVE_TIMEOUT), base + 3) << "ids given back";
}

// Many threads arming and stopping at once while passes run on another
// thread: ids distinct, short one-shots fired once, stopped ones never.
std::atomic<int> gFired[5000];
int CountFire(int id, int) { return gFired[id]++; }

TEST(TimerConcurrency, ManyThreadsArmAndStopAtOnce) {
  std::atomic<bool> stop{false};
  std::thread passes([&] {
    for (; !stop; std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
      int64_t us = wd_monotonicUs();
      wdTimeVal now = {us / 1000000, static_cast<int32_t>(us % 1000000)};
      wd_timerPass(&now);
    }
  });
  std::vector<int> ids[8];  // per thread; i % 2: 0 a short one-shot, 1 stopped
  std::vector<std::thread> threads;
  for (auto& mine : ids) {
    threads.emplace_back([&mine] {
      for (int i = 0; i < 200; ++i) {
        int id = wd_setEventTimer(60000, MOD_MSG_RESEND, TX_SAVE_TIMEOUT);
        // Re-armed with the counting callback under the same id, or stopped.
        if (i % 2 == 0) wd_addTimer(id, i % 50, CountFire, 0);
        if (i % 2 == 1) wd_timerStop(id);
        mine.push_back(id);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_TRUE(WaitUntil([] {
    wdLock lock(&timerMutex);
    return time_list.count == 0;
  }));
  stop = true;
  passes.join();
  std::set<int> all;
  for (auto& mine : ids) {
    all.insert(mine.begin(), mine.end());
    for (size_t i = 0; i < mine.size(); ++i) EXPECT_EQ(gFired[mine[i]].load(), i % 2 ? 0 : 1) << i;
  }
  EXPECT_EQ(all.size(), 8u * 200u) << "ids are distinct";
}

// A module thread serves the timers it arms for its own module; the timer
// thread's pass leaves them alone, until the module thread ends serving.
TEST_F(TimerTest, AModuleThreadCallsTheTimersItArmsForItsModule) {
  gNow = {100, 0};
  std::thread other([] { EXPECT_EQ(wd_addTimer(5, 100, Record, 5), 0); });
  other.join();  // armed for module 5 by another thread: the timer thread's
  wd_timerServe(5);
  ASSERT_EQ(wd_addPTimer(1, 1000, Record, 5), 0);
  ASSERT_EQ(wd_addTimer(2, 500, Record, 5), 0);
  ASSERT_EQ(wd_addPTimer(3, 1000, Record, 6), 0);  // another module's
  ASSERT_EQ(wd_addPTimer(4, 50, Record, 5), 0);    // shorter than a pass
  EXPECT_EQ(wd_timerServedWait(), 500000);
  PassAt(200, 0);
  EXPECT_EQ(gCalls, (std::vector<std::string>{"5:5", "3:6", "4:5"})) << "not the served ones";

  gCalls.clear();
  gNow = {100, 500000};
  EXPECT_EQ(wd_timerServedWait(), 0);
  wd_timerServedPass(false);
  EXPECT_EQ(gCalls, (std::vector<std::string>{"2:5"}));
  EXPECT_EQ(wd_timerServedWait(), 500000);
  gNow = {101, 200};
  wd_timerServedPass(false);
  EXPECT_EQ(wd_timerServedWait(), 1000000) << "re-armed from now, as the timer thread does";
  // Back late from other work: every period that has passed is called once,
  // as the timer thread would have called it on time.
  gNow = {104, 500000};
  wd_timerServedPass(true);
  EXPECT_EQ(gCalls, (std::vector<std::string>{"2:5", "1:5", "1:5", "1:5", "1:5"}));
  EXPECT_EQ(wd_timerServedWait(), 500200) << "due on its old schedule";

  gCalls.clear();
  wd_timerServeEnd();
  EXPECT_EQ(wd_timerServedWait(), -1);
  PassAt(300, 0);
  EXPECT_EQ(gCalls, (std::vector<std::string>{"1:5", "3:6", "4:5"})) << "the timer thread's again";
}

// While its thread waits for a program, a served timer is the timer
// thread's, so that it is called on time.
TEST_F(TimerTest, AServedTimerIsLentToTheTimerThreadWhileItsThreadWaits) {
  gNow = {100, 0};
  wd_timerServe(5);
  ASSERT_EQ(wd_addPTimer(1, 1000, Record, 5), 0);
  wd_timerLend(true);
  EXPECT_EQ(wd_timerServedWait(), -1);
  PassAt(101, 0);
  EXPECT_EQ(gCalls, (std::vector<std::string>{"1:5"}));
  wd_timerLend(false);
  PassAt(103, 0);
  EXPECT_EQ(gCalls, (std::vector<std::string>{"1:5"})) << "its own thread's again";
  EXPECT_EQ(wd_timerServedWait(), 2000000) << "as the timer thread re-armed it";
  wd_timerServeEnd();
}

// The timer thread itself, on the monotonic clock. Each case runs in a
// process of its own, so the thread started here meets no other case.
std::mutex gFiredMutex;
std::vector<std::pair<int, int64_t>> gFiredAt;  // id, monotonic microseconds
int NoteFired(int id, int) {
  std::lock_guard<std::mutex> lock(gFiredMutex);
  gFiredAt.emplace_back(id, wd_monotonicUs());
  return 0;
}
std::vector<std::pair<int, int64_t>> FiredSoFar() {
  std::lock_guard<std::mutex> lock(gFiredMutex);
  return gFiredAt;
}

TEST(TimerThread, SleepsUntilTheEarliestTimerAndArmingOrStoppingWakesIt) {
  wd_timerInit();
  ASSERT_EQ(wd_addTimer(1, 3600000, NoteFired, 0), 0);
  int64_t hour = 0;
  ASSERT_TRUE(WaitUntil([&] {
    hour = wd_timerSleepUntil();
    return hour != INT64_MAX && hour > wd_monotonicUs() + 3500000000LL;
  })) << "asleep until the hour's timer";
  int64_t armed = wd_monotonicUs();
  ASSERT_EQ(wd_addTimer(2, 50, NoteFired, 0), 0);
  ASSERT_TRUE(WaitUntil([] { return !FiredSoFar().empty(); })) << "the earlier timer woke it";
  std::vector<std::pair<int, int64_t>> fired = FiredSoFar();
  EXPECT_EQ(fired[0].first, 2);
  EXPECT_GE(fired[0].second - armed, 50000) << "never before its due time";
  EXPECT_TRUE(WaitUntil([&] { return wd_timerSleepUntil() == hour; })) << "then asleep for the hour";
  wd_timerStop(1);
  EXPECT_TRUE(WaitUntil([] { return wd_timerSleepUntil() == INT64_MAX; }))
      << "the stop woke it; with no timer left it sleeps without limit";
  EXPECT_EQ(FiredSoFar().size(), 1u);
}

TEST(TimerThread, NeitherWakesForNorCallsAServedTimerUntilItsServerEnds) {
  wd_timerInit();
  wd_timerServe(3);
  ASSERT_EQ(wd_addTimer(1, 50, NoteFired, 3), 0);
  ASSERT_TRUE(WaitUntil([] { return wd_timerSleepUntil() == INT64_MAX; }))
      << "asleep without limit with a served timer armed";
  std::thread other([] { EXPECT_EQ(wd_addTimer(2, 100, NoteFired, 3), 0); });
  other.join();
  ASSERT_TRUE(WaitUntil([] { return !FiredSoFar().empty(); }));
  EXPECT_EQ(FiredSoFar().size(), 1u) << "only the later timer another thread armed";
  EXPECT_EQ(FiredSoFar()[0].first, 2);
  wd_timerServeEnd();
  EXPECT_TRUE(WaitUntil([] { return FiredSoFar().size() == 2; })) << "the timer thread takes it";
  EXPECT_EQ(FiredSoFar()[1].first, 1);
}

TEST(TimerThread, APeriodicTimerShorterThanAPassFiresOnceEvery100Ms) {
  wd_timerInit();
  ASSERT_EQ(wd_addPTimer(1, 0, NoteFired, 0), 0);
  ASSERT_TRUE(WaitUntil([] { return FiredSoFar().size() >= 4; }));
  wd_timerPStop(1);
  std::vector<std::pair<int, int64_t>> fired = FiredSoFar();
  for (size_t i = 1; i < 4; ++i) EXPECT_GE(fired[i].second - fired[i - 1].second, 100000) << i;
}

}  // namespace
