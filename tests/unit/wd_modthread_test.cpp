// The module table, the start-up rules of wd_creatModThreads, module periods
// and the end of a module thread.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tcapi.h"
#include "wd_common.h"
#include "wd_timer.h"

namespace {

bool WaitUntil(const std::function<bool()>& done) {
  for (int i = 0; i < 500; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
}

// A copy of the periodic timers, taken under the timer service's lock.
std::vector<timerNode> PeriodicTimers() {
  std::vector<timerNode> out;
  pthread_mutex_lock(&timerMutex);
  for (int i = 0; i < periodic_time_list.count; ++i) {
    out.push_back(*static_cast<timerNode*>(timer_list_get(&periodic_time_list, i)));
  }
  pthread_mutex_unlock(&timerMutex);
  return out;
}

bool Running(int mod) { return gSubMod[mod].threadId.load() != pthread_t{}; }

class ModThreadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unlink(TCAPI_TREE_PATH);
    wd_initSubModData();
  }
  void TearDown() override {
    // End every module thread that a test started.
    for (int id = MOD_PPPOE; id < MOD_SAMPLE; ++id) {
      if (!Running(id)) continue;
      // The channel's fd is stored before it is bound: send until it takes it.
      WaitUntil([id] { return wd_simpleSendMsg(THREAD_EXIT, 0, id, nullptr, 0) == WD_MSG_SIZE; });
      EXPECT_TRUE(WaitUntil([id] { return !Running(id); })) << "module " << id;
    }
  }
  // Runs wd_creatModThreads and returns what it wrote to the debug console.
  static std::string Create(int* result = nullptr) {
    testing::internal::CaptureStderr();
    int rc = wd_creatModThreads();
    if (result) *result = rc;
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(ModThreadTest, TableHoldsPathsAndBodies) {
  const char* paths[] = {
      "/var/wd_default.chanl", "/var/wd_pppoe.chanl",      "/var/wd_tr069.chanl",
      "/var/wd_arp.chanl",     "/var/wd_ip_route.chanl",   "/var/wd_periodic_info.chanl",
      "/var/wd_igmp.chanl",    "/var/wd_voip_stats.chanl", "/var/wd_voip_register.chanl",
      "/var/wd_general.chanl", "/var/wd_monitor.chanl",    "/var/wd_smple.chanl"};
  for (int id = 0; id < MOD_MSG_RESEND; ++id) {
    EXPECT_STREQ(gSubMod[id].chanlPath, paths[id]);
    EXPECT_EQ(gSubMod[id].handler == nullptr, id == MOD_DEFAULT) << id;
    EXPECT_EQ(gSubMod[id].timer.load(), 0u);
  }
  EXPECT_EQ(gSubMod[MOD_MSG_RESEND].handler, nullptr) << "entry 12 belongs to the relay";
}

TEST_F(ModThreadTest, FeatureOffStartsNothing) {
  tcapi_set("Watchdog_Common", "Enable", "0");
  tcapi_set("Watchdog_PPP", "Timer", "30");
  int rc = -1;
  EXPECT_EQ(Create(&rc), "");
  EXPECT_EQ(rc, 0);
  for (int id = 0; id < WD_MOD_NUM; ++id) EXPECT_FALSE(Running(id)) << id;
}

TEST_F(ModThreadTest, EmptyConfigurationStartsOnlyTheAlwaysModules) {
  tcapi_set("Watchdog_Common", "Enable", "1");
  int rc = -1;
  EXPECT_EQ(Create(&rc),
            "\r\nget pppoe timer error!\r\n\r\ncreate MOD_PPPOE thread fail!\r\n"
            "\r\nget tr069 RegisterTimer error!\r\n\r\ncreate MOD_TR069 thread fail!\r\n"
            "\r\nget arp Timer error!\r\n\r\ncreate MOD_ARP thread fail!\r\n"
            "\r\nget info Timer error!\r\n\r\ncreate MOD_PERIODIC_INFO thread fail!\r\n"
            "\r\nget route Timer error!\r\n\r\ncreate MOD_IP_ROUTE thread fail!\r\n"
            "get voipstatus registerTimer error!create MOD_VOIP_REGISTER thread fail!\r\n");
  EXPECT_EQ(rc, 0);
  for (int id = 0; id < WD_MOD_NUM; ++id) {
    bool always = id == MOD_IGMP || id == MOD_VOIP_STATS || id == MOD_MONITOR || id == MOD_GENERAL;
    EXPECT_EQ(Running(id), always) << id;
  }
}

TEST_F(ModThreadTest, ZeroValuesKeepModulesStopped) {
  tcapi_set("Watchdog_Common", "Enable", "1");
  tcapi_set("Watchdog_PPP", "Timer", "0");
  tcapi_set("Watchdog_TR069", "RegisterTimer", "60");
  tcapi_set("Watchdog_TR069", "PITimer", "0");
  tcapi_set("Watchdog_ARP", "Timer", "");
  tcapi_set("Watchdog_WDInfo", "Timer", "0");
  tcapi_set("Watchdog_Route", "Mode", "0");
  tcapi_set("Watchdog_Route", "Timer", "60");
  tcapi_set("Watchdog_VoIPStatus", "RegisterTimer", "0");
  EXPECT_EQ(Create(),
            "\r\npppObj->timer error!\r\n"
            "\r\ntr069Obj->registerTimer = 60\r\n\r\ntr069Obj->registerTimer error!\r\n"
            "\r\narpObj->timer error!\r\n"
            "\r\ninfoObj->timer error!\r\n"
            "\r\nget route Timer error!\r\n\r\ncreate MOD_IP_ROUTE thread fail!\r\n"
            "voipStatusObj->registerTimer error!");
  for (int id :
       {MOD_PPPOE, MOD_TR069, MOD_ARP, MOD_PERIODIC_INFO, MOD_IP_ROUTE, MOD_VOIP_REGISTER}) {
    EXPECT_FALSE(Running(id)) << id;
  }
}

TEST_F(ModThreadTest, ConfiguredModulesStartWithTheirTimer) {
  tcapi_set("Watchdog_Common", "Enable", "1");
  tcapi_set("Watchdog_PPP", "Timer", "30");
  tcapi_set("Watchdog_TR069", "RegisterTimer", "45");
  tcapi_set("Watchdog_TR069", "PITimer", "3");
  tcapi_set("Watchdog_ARP", "Timer", "20");
  tcapi_set("Watchdog_WDInfo", "Timer", "600");
  tcapi_set("Watchdog_Route", "Mode", "1");
  tcapi_set("Watchdog_Route", "Timer", "60");
  tcapi_set("Watchdog_VoIPStatus", "RegisterTimer", "15");
  EXPECT_EQ(Create(),
            "\r\ntr069Obj->registerTimer = 45\r\n"
            "voipStatusObj->registerTimer is not 0, So start Voip register modurle");
  for (int id = MOD_PPPOE; id <= MOD_MONITOR; ++id) EXPECT_TRUE(Running(id)) << id;
  EXPECT_FALSE(Running(MOD_SAMPLE)) << "the sample module starts only on command";
  EXPECT_EQ(gSubMod[MOD_PPPOE].timer.load(), 30u);
  EXPECT_EQ(gSubMod[MOD_TR069].timer.load(), 45u) << "RegisterTimer, not PITimer";
  EXPECT_EQ(gSubMod[MOD_ARP].timer.load(), 20u);
  EXPECT_EQ(gSubMod[MOD_PERIODIC_INFO].timer.load(), 600u);
  EXPECT_EQ(gSubMod[MOD_IP_ROUTE].timer.load(), 60u);
  EXPECT_EQ(gSubMod[MOD_VOIP_REGISTER].timer.load(), 15u);
}

TEST_F(ModThreadTest, RouteModeTwoStartsWithoutTimer) {
  tcapi_set("Watchdog_Common", "Enable", "1");
  tcapi_set("Watchdog_Route", "Mode", "2");
  Create();
  EXPECT_TRUE(Running(MOD_IP_ROUTE));
  EXPECT_EQ(gSubMod[MOD_IP_ROUTE].timer.load(), 0u);
}

TEST_F(ModThreadTest, UpdateModTimerReadsEachModulesAttribute) {
  tcapi_set("Watchdog_PPP", "Timer", "11");
  tcapi_set("Watchdog_TR069", "RegisterTimer", "12");
  tcapi_set("Watchdog_ARP", "Timer", "13");
  tcapi_set("Watchdog_Route", "Timer", "14");
  tcapi_set("Watchdog_WDInfo", "Timer", "15");
  tcapi_set("Watchdog_IGMP", "Period", "16");
  tcapi_set("Watchdog_VoIPStats", "Period", "17");
  tcapi_set("Watchdog_VoIPStatus", "RegisterTimer", "18");
  for (uint8_t id = MOD_PPPOE; id <= MOD_VOIP_REGISTER; ++id) {
    uint32_t want = id == MOD_VOIP_STATS ? 0 : 10u + id;
    EXPECT_EQ(wd_updateModTimer(id), want) << int(id);
  }
  tcapi_set("Watchdog_VoIPStats", "Mode", "1");
  EXPECT_EQ(wd_updateModTimer(MOD_VOIP_STATS), 0u);
  tcapi_set("Watchdog_VoIPStats", "Mode", "2");
  EXPECT_EQ(wd_updateModTimer(MOD_VOIP_STATS), 17u);

  testing::internal::CaptureStderr();
  for (uint8_t id : {0, 9, 10, 11, 12}) EXPECT_EQ(wd_updateModTimer(id), 0u);
  std::string expected;
  for (int i = 0; i < 5; ++i) expected += "\r\n Mode is error\r\n ";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
}

TEST_F(ModThreadTest, GarbageNumbersNeverOverflow) {
  EXPECT_EQ(wd_parseUnsigned(""), 0u);
  EXPECT_EQ(wd_parseUnsigned("abc"), 0u);
  EXPECT_EQ(wd_parseUnsigned("-5"), 0u);
  EXPECT_EQ(wd_parseUnsigned("30s"), 30u);
  EXPECT_EQ(wd_parseUnsigned("00"), 0u);
  EXPECT_EQ(wd_parseUnsigned("4294967295"), 4294967295u);
  EXPECT_EQ(wd_parseUnsigned("99999999999999999999"), 4294967295u);
  EXPECT_EQ(wd_periodMs(30), 30000);
  EXPECT_EQ(wd_periodMs(2147483), 2147483000);
  EXPECT_EQ(wd_periodMs(2147484), 2147483000);
  EXPECT_EQ(wd_periodMs(4294967295u), 2147483000);
}

TEST_F(ModThreadTest, ThreadExitClearsTheEntryAndStopsThePeriodicTimer) {
  tcapi_set("Watchdog_Common", "Enable", "1");
  tcapi_set("Watchdog_IGMP", "Period", "3600");
  ASSERT_EQ(wd_startModThread(MOD_IGMP), 0);
  ASSERT_TRUE(WaitUntil([] { return gSubMod[MOD_IGMP].fd != 0 && PeriodicTimers().size() == 1; }));
  EXPECT_EQ(gSubMod[MOD_IGMP].timer.load(), 3600u) << "read again because the entry held 0";
  int timerId = PeriodicTimers()[0].id;
  EXPECT_EQ(PeriodicTimers()[0].interval, 3600000);

  wd_simpleSendMsg(CONFIG_CHANGE, 0, MOD_IGMP, nullptr, 0);  // dropped
  wd_simpleSendMsg(THREAD_EXIT, 0, MOD_IGMP, nullptr, 0);
  ASSERT_TRUE(WaitUntil([] { return !Running(MOD_IGMP); }));
  EXPECT_EQ(gSubMod[MOD_IGMP].fd.load(), 0);
  EXPECT_EQ(gSubMod[MOD_IGMP].timer.load(), 0u);
  for (const timerNode& t : PeriodicTimers()) EXPECT_NE(t.id, timerId);
  EXPECT_EQ(wd_simpleSendMsg(CONFIG_CHANGE, 0, MOD_IGMP, nullptr, 0), -1) << "events are lost now";

  // Started again: a new channel at the same path, the period read again.
  tcapi_set("Watchdog_IGMP", "Period", "60");
  ASSERT_EQ(wd_startModThread(MOD_IGMP), 0);
  ASSERT_TRUE(WaitUntil([] { return gSubMod[MOD_IGMP].fd != 0 && gSubMod[MOD_IGMP].timer == 60; }));
  EXPECT_EQ(wd_simpleSendMsg(CONFIG_CHANGE, 0, MOD_IGMP, nullptr, 0), WD_MSG_SIZE);
}

TEST_F(ModThreadTest, SampleModuleOutlivesThreadExit) {
  ASSERT_EQ(wd_startModThread(MOD_SAMPLE), 0);
  ASSERT_TRUE(WaitUntil(
      [] { return wd_simpleSendMsg(THREAD_EXIT, 0, MOD_SAMPLE, nullptr, 0) == WD_MSG_SIZE; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_TRUE(Running(MOD_SAMPLE));
  EXPECT_EQ(wd_simpleSendMsg(TIMER_EXPIRED, 0, MOD_SAMPLE, nullptr, 0), WD_MSG_SIZE);
}

}  // namespace
