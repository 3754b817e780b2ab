// The timer service: arming arithmetic, passes at a given time, ids, failure
// results, the events it delivers, and many threads at once.
#include "wd_timer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "wd_common.h"

namespace {

wdTimeVal gNow;
int FakeClock(wdTimeVal* tv) {
  *tv = gNow;
  return 0;
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
  }

  static void PassAt(long sec, long usec) {
    wdTimeVal now = {sec, static_cast<int32_t>(usec)};
    wd_timerPass(&now);
  }
  static timerNode* First(timerList* list) {
    return static_cast<timerNode*>(timer_list_get(list, 0));
  }
};

TEST_F(TimerTest, ExpiryArithmeticAndDueRule) {
  ASSERT_EQ(wd_addTimer(1, 250, Record, 7), 0);
  timerNode* t = First(&time_list);
  EXPECT_EQ(t->expiry.tv_sec, 11);
  EXPECT_EQ(t->expiry.tv_usec, 150000);
  EXPECT_EQ(t->interval, 250);

  PassAt(11, 149999);
  EXPECT_TRUE(gCalls.empty());
  PassAt(11, 150000);
  EXPECT_EQ(gCalls, (std::vector<std::string>{"1:7"}));
  EXPECT_EQ(timer_list_size(&time_list), 0) << "a one-shot timer is gone once fired";
  PassAt(20, 0);
  EXPECT_EQ(gCalls.size(), 1u);

  gNow = {100, 999999};
  ASSERT_EQ(wd_addTimer(2, 2001, Record, 0), 0);
  EXPECT_EQ(First(&time_list)->expiry.tv_sec, 103);
  EXPECT_EQ(First(&time_list)->expiry.tv_usec, 999);
}

TEST_F(TimerTest, ArmingAnArmedIdMovesItAndKeepsItsInterval) {
  ASSERT_EQ(wd_addTimer(5, 1000, Record, 1), 0);
  gNow = {50, 0};
  ASSERT_EQ(wd_addTimer(5, 3000, Record, 2), 0);
  ASSERT_EQ(timer_list_size(&time_list), 1);
  timerNode* t = First(&time_list);
  EXPECT_EQ(t->expiry.tv_sec, 53);
  EXPECT_EQ(t->interval, 1000);
  EXPECT_EQ(t->arg, 2);
}

TEST_F(TimerTest, PeriodicTimerMovesOnFromThePassThatFiredIt) {
  gNow = {0, 0};
  ASSERT_EQ(wd_addPTimer(3, 1000, Record, 4), 0);
  PassAt(0, 999999);
  EXPECT_TRUE(gCalls.empty());
  PassAt(1, 50000);
  EXPECT_EQ(gCalls.size(), 1u);
  EXPECT_EQ(First(&periodic_time_list)->expiry.tv_sec, 2);
  EXPECT_EQ(First(&periodic_time_list)->expiry.tv_usec, 50000);
  PassAt(2, 0);
  EXPECT_EQ(gCalls.size(), 1u);
  PassAt(2, 50000);
  EXPECT_EQ(gCalls.size(), 2u);
  PassAt(9, 0);  // late by many periods: still once
  EXPECT_EQ(gCalls.size(), 3u);
}

TEST_F(TimerTest, ZeroPeriodFiresOncePerPass) {
  ASSERT_EQ(wd_addPTimer(3, 0, Record, 0), 0);
  for (int i = 0; i < 5; ++i) PassAt(11, i * 100000);
  EXPECT_EQ(gCalls.size(), 5u);
}

TEST_F(TimerTest, OrderWithinOnePass) {
  ASSERT_EQ(wd_addPTimer(1, 100, Record, 0), 0);
  ASSERT_EQ(wd_addTimer(2, 100, Record, 0), 0);
  ASSERT_EQ(wd_addTimer(3, 100, Record, 0), 0);
  ASSERT_EQ(wd_addTimer(4, 5000, Record, 0), 0);
  PassAt(11, 0);
  EXPECT_EQ(gCalls, (std::vector<std::string>{"2:0", "3:0", "1:0"}))
      << "due one-shots in arming order, then periodic ones";
  EXPECT_EQ(timer_list_size(&time_list), 1);
}

TEST_F(TimerTest, IdsCountUpAcrossKindsAndStopRemovesByKind) {
  int base = tmIdIndex;
  int a = wd_setDefaultTimer(1000, MOD_SAMPLE);
  int b = wd_setDefaultPTimer(1000, MOD_SAMPLE);
  int c = wd_setPPPTimer(1000, MOD_SAMPLE);
  int d = wd_setEventTimer(1000, MOD_MSG_RESEND, TX_CHECK_TIMEOUT);
  EXPECT_EQ(a, base + 1);
  EXPECT_EQ(b, base + 2);
  EXPECT_EQ(c, base + 3);
  EXPECT_EQ(d, base + 4);
  EXPECT_EQ(timer_list_size(&time_list), 2);
  EXPECT_EQ(timer_list_size(&periodic_time_list), 2);

  EXPECT_EQ(wd_timerStop(b), 0) << "b is periodic: the one-shot stop leaves it";
  EXPECT_EQ(timer_list_size(&periodic_time_list), 2);
  EXPECT_EQ(wd_timerPStop(b), 0);
  EXPECT_EQ(timer_list_size(&periodic_time_list), 1);
  EXPECT_EQ(wd_timerStop(a), 0);
  EXPECT_EQ(timer_list_size(&time_list), 1);
  EXPECT_EQ(wd_timerStop(9999), 0);
  EXPECT_EQ(wd_timerPStop(0), 0);
  EXPECT_EQ(timer_list_size(&time_list), 1);
  EXPECT_EQ(timer_list_size(&periodic_time_list), 1);
}

TEST_F(TimerTest, StopRemovesEveryTimerWithThatId) {
  pthread_mutex_lock(&timerMutex);
  for (int i = 0; i < 3; ++i) {  // duplicates can only be made below the arming operations
    timerNode* t = static_cast<timerNode*>(timer_malloc(sizeof(timerNode)));
    *t = timerNode{i == 1 ? 8 : 7, 0, 10, {0, 0}, Record};
    timer_list_add(&time_list, t, -1);
  }
  pthread_mutex_unlock(&timerMutex);
  EXPECT_EQ(wd_delTimer(7), 0);
  ASSERT_EQ(timer_list_size(&time_list), 1);
  EXPECT_EQ(First(&time_list)->id, 8);
}

TEST_F(TimerTest, FailedArmingReportsAndGivesTheIdBack) {
  int base = tmIdIndex;
  testing::internal::CaptureStderr();
  EXPECT_EQ(wd_setEventTimer(30000, MOD_MSG_RESEND, 12), -1);
  EXPECT_EQ(tmIdIndex, base);
  timer_mallocHook = [](size_t) -> void* { return nullptr; };
  EXPECT_EQ(wd_setDefaultTimer(100, MOD_SAMPLE), -1);
  EXPECT_EQ(wd_setDefaultPTimer(100, MOD_SAMPLE), -1);
  EXPECT_EQ(wd_setPPPTimer(100, MOD_SAMPLE), -1);
  timer_mallocHook = nullptr;
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error: Can't start timer\n"
            "Error: Can't start timer\n"
            "Error: Can't start periodic timer\n"
            "Error: Can't start periodic timer\n");
  EXPECT_EQ(tmIdIndex, base);
  EXPECT_EQ(wd_setDefaultTimer(100, MOD_SAMPLE), base + 1);
  EXPECT_EQ(timer_list_size(&time_list), 1);
}

TEST_F(TimerTest, CallbacksRunWithoutTheLockAndMayArmTimers) {
  static int armedFromCallback;
  armedFromCallback = 0;
  ASSERT_EQ(wd_addTimer(
                1, 0,
                [](int, int) {
                  EXPECT_EQ(pthread_mutex_trylock(&timerMutex), 0);
                  pthread_mutex_unlock(&timerMutex);
                  armedFromCallback = wd_setDefaultTimer(10, MOD_SAMPLE);
                  return 0;
                },
                0),
            0);
  ASSERT_EQ(wd_addPTimer(
                2, 0,
                [](int, int) {
                  EXPECT_EQ(pthread_mutex_trylock(&timerMutex), 0);
                  pthread_mutex_unlock(&timerMutex);
                  wd_timerPStop(2);  // a periodic timer may stop itself
                  return 0;
                },
                0),
            0);
  PassAt(11, 0);
  EXPECT_GT(armedFromCallback, 0);
  EXPECT_EQ(timer_list_size(&time_list), 1);
  EXPECT_EQ(timer_list_size(&periodic_time_list), 0);
}

TEST_F(TimerTest, WallClockSetBackDelaysTimers) {
  ASSERT_EQ(wd_addTimer(1, 1000, Record, 0), 0);  // due at 11.900000
  PassAt(5, 0);
  EXPECT_TRUE(gCalls.empty());
  PassAt(1000, 0);  // set forward: due at once
  EXPECT_EQ(gCalls.size(), 1u);
}

TEST_F(TimerTest, ExpiriesReachTheModuleChannelAsEvents) {
  snprintf(gSubMod[MOD_SAMPLE].chanlPath, WD_CHANL_PATH_SIZE, "/var/wd_smple.chanl");
  int fd = wd_estFdChanl(MOD_SAMPLE);
  ASSERT_GT(fd, 0);
  gNow = {0, 0};
  wd_setDefaultTimer(100, MOD_SAMPLE);
  wd_setPPPTimer(200, MOD_SAMPLE);
  wd_setEventTimer(300, MOD_SAMPLE, TX_CHECK_TIMEOUT);
  wd_setEventTimer(400, MOD_SAMPLE, TX_SAVE_TIMEOUT);
  wd_setDefaultPTimer(500, MOD_SAMPLE);
  std::vector<int> events;
  for (int ms = 100; ms <= 500; ms += 100) {
    PassAt(0, ms * 1000);
    wdMsg msg;
    while (recv(fd, &msg, sizeof msg, MSG_DONTWAIT) == WD_MSG_SIZE) {
      EXPECT_EQ(msg.destMod, MOD_SAMPLE);
      EXPECT_EQ(msg.srcMod, 0);
      EXPECT_EQ(msg.datalen, 0);
      events.push_back(msg.eventType);
    }
  }
  // The 200 ms PPP timer is periodic: again at 400 ms, after that pass's one-shot.
  EXPECT_EQ(events, (std::vector<int>{TIMER_EXPIRED, PPP_TIMER_EXPIRED, TX_CHECK_TIMEOUT,
                                      TX_SAVE_TIMEOUT, PPP_TIMER_EXPIRED, TIMER_EXPIRED}));
  close(fd);
  gSubMod[MOD_SAMPLE].fd = 0;
}

// Many threads arming and stopping at once against the running timer thread:
// every id distinct, every short timer fired exactly once, no stopped one fired.
std::atomic<int> gFired[20000];
int Count(int id, int) {
  gFired[id]++;
  return 0;
}

TEST(TimerConcurrency, ManyThreadsArmAndStopAtOnce) {
  wd_timerInit();
  constexpr int kThreads = 8, kEach = 150;
  std::vector<std::vector<int>> shortIds(kThreads), stoppedIds(kThreads), periodicIds(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        int id;
        {
          pthread_mutex_lock(&timerMutex);
          id = ++tmIdIndex;
          pthread_mutex_unlock(&timerMutex);
        }
        switch (i % 3) {
          case 0:
            ASSERT_EQ(wd_addTimer(id, i % 50, Count, 0), 0);
            shortIds[t].push_back(id);
            break;
          case 1:
            ASSERT_EQ(wd_addTimer(id, 60000, Count, 0), 0);
            ASSERT_EQ(wd_timerStop(id), 0);
            stoppedIds[t].push_back(id);
            break;
          default:
            ASSERT_EQ(wd_addPTimer(id, 20, Count, 0), 0);
            periodicIds[t].push_back(id);
        }
      }
      // The public operations give distinct ids too.
      for (int i = 0; i < 20; ++i) {
        int id = wd_setEventTimer(60000, MOD_MSG_RESEND, TX_SAVE_TIMEOUT);
        ASSERT_GT(id, 0);
        stoppedIds[t].push_back(id);
        wd_timerStop(id);
      }
    });
  }
  for (auto& th : threads) th.join();

  std::set<int> all;
  size_t total = 0;
  for (int t = 0; t < kThreads; ++t) {
    for (auto* ids : {&shortIds[t], &stoppedIds[t], &periodicIds[t]}) {
      all.insert(ids->begin(), ids->end());
      total += ids->size();
    }
  }
  EXPECT_EQ(all.size(), total) << "ids are distinct";

  auto oneShotsLeft = [] {
    pthread_mutex_lock(&timerMutex);
    int n = time_list.count;
    pthread_mutex_unlock(&timerMutex);
    return n;
  };
  for (int i = 0; i < 100 && oneShotsLeft() > 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(oneShotsLeft(), 0);
  for (int t = 0; t < kThreads; ++t) {
    for (int id : shortIds[t]) EXPECT_EQ(gFired[id].load(), 1) << "one-shot " << id;
    for (int id : stoppedIds[t]) EXPECT_EQ(gFired[id].load(), 0) << "stopped " << id;
    for (int id : periodicIds[t]) EXPECT_GE(gFired[id].load(), 1) << "periodic " << id;
  }

  // Stopped periodic timers fire no more (one call may still have been noted).
  for (int t = 0; t < kThreads; ++t) {
    for (int id : periodicIds[t]) wd_timerPStop(id);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  std::vector<int> after;
  for (int t = 0; t < kThreads; ++t) {
    for (int id : periodicIds[t]) after.push_back(gFired[id].load());
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  size_t k = 0;
  for (int t = 0; t < kThreads; ++t) {
    for (int id : periodicIds[t]) EXPECT_EQ(gFired[id].load(), after[k++]) << "periodic " << id;
  }
}

}  // namespace
