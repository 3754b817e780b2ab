// Module threads: the start-up rules of wd_creatModThreads and a second
// start of a running module.
#include "wd_modthread.h"

#include "wd_base.h"
#include "wd_modtable.h"

#include "unit_util.h"

namespace {

bool Running(int mod) { return gSubMod[mod].threadId.load() != pthread_t{}; }

class ModThreadTest : public ::testing::Test {
 public:
  void SetUp() override {
    unlink(TCAPI_TREE_PATH);
    wd_setModTable(kModTable, kModTableCount);
    wd_initSubModData();
    tcapi_set("Watchdog_Common", "Enable", "1");
  }
  void TearDown() override { EndAll(); }
  // Ends every module thread that runs (the sample module cannot be ended).
  static void EndAll() {
    for (int id = MOD_PPPOE; id < MOD_SAMPLE; ++id) {
      if (!Running(id)) continue;
      ASSERT_TRUE(WaitUntil([id] { return gSubMod[id].fd != 0; })) << id;
      ASSERT_EQ(wd_simpleSendMsg(THREAD_EXIT, 0, id, nullptr, 0), WD_MSG_SIZE);
      EXPECT_TRUE(WaitUntil([id] { return !Running(id); })) << id;
    }
  }
  // Runs wd_creatModThreads: its console text, then the running modules.
  static std::string Create() {
    std::string out = Said(wd_creatModThreads) + "|";
    for (int id = 0; id < WD_MOD_NUM; ++id) {
      if (Running(id)) out += " " + std::to_string(id) + " ";
    }
    EndAll();
    return out;
  }
};

// A module's start rule, in the order of start-up: the attribute that decides
// it and what start-up says when that attribute cannot be read and when it
// reads "0".
struct StartRule {
  int mod;
  const char* node;
  const char* attr;
  const char* unreadable;
  const char* zero;
};
const StartRule kRules[] = {
    {MOD_PPPOE, "Watchdog_PPP", "Timer",
     "\r\nget pppoe timer error!\r\n\r\ncreate MOD_PPPOE thread fail!\r\n",
     "\r\npppObj->timer error!\r\n"},
    {MOD_TR069, "Watchdog_TR069", "RegisterTimer",
     "\r\nget tr069 RegisterTimer error!\r\n\r\ncreate MOD_TR069 thread fail!\r\n",
     "\r\ntr069Obj->registerTimer = 0\r\n\r\ntr069Obj->registerTimer error!\r\n"},
    {MOD_ARP, "Watchdog_ARP", "Timer",
     "\r\nget arp Timer error!\r\n\r\ncreate MOD_ARP thread fail!\r\n",
     "\r\narpObj->timer error!\r\n"},
    {MOD_PERIODIC_INFO, "Watchdog_WDInfo", "Timer",
     "\r\nget info Timer error!\r\n\r\ncreate MOD_PERIODIC_INFO thread fail!\r\n",
     "\r\ninfoObj->timer error!\r\n"},
    {MOD_IP_ROUTE, "Watchdog_Route", "Mode",
     "\r\nget route Timer error!\r\n\r\ncreate MOD_IP_ROUTE thread fail!\r\n",
     "\r\nget route Timer error!\r\n\r\ncreate MOD_IP_ROUTE thread fail!\r\n"},
    {MOD_VOIP_REGISTER, "Watchdog_VoIPStatus", "RegisterTimer",
     "get voipstatus registerTimer error!create MOD_VOIP_REGISTER thread fail!\r\n",
     "voipStatusObj->registerTimer error!"},
};

// Sets every rule's attribute to `value` (unset for null) and runs the start.
std::string StartWith(const char* value) {
  for (const StartRule& rule : kRules) {
    if (value == nullptr) tcapi_unset(rule.node, rule.attr);
    if (value != nullptr) tcapi_set(rule.node, rule.attr, value);
  }
  return ModThreadTest::Create();
}

bool Started(const std::string& said, int mod) {
  return said.find(" " + std::to_string(mod) + " ", said.find('|')) != std::string::npos;
}

TEST_F(ModThreadTest, EachModuleStartsOnlyWhenItsAttributeIsReadAndNotZero) {
  tcapi_set("Watchdog_TR069", "PITimer", "3");
  std::string unreadable = StartWith(nullptr), zero = StartWith("0"), set = StartWith("20");
  size_t last = 0;  // the modules speak in the order of the table
  for (const StartRule& rule : kRules) {
    SCOPED_TRACE(rule.node);
    EXPECT_EQ(Count(unreadable, rule.unreadable), 1u);
    EXPECT_GE(unreadable.find(rule.unreadable), last);
    last = unreadable.find(rule.unreadable);
    EXPECT_EQ(Count(zero, rule.zero), 1u);
    EXPECT_EQ(Count(set, rule.zero) + Count(set, rule.unreadable), 0u);
    EXPECT_FALSE(Started(unreadable, rule.mod));
    EXPECT_FALSE(Started(zero, rule.mod));
    EXPECT_TRUE(Started(set, rule.mod));
  }
  // IGMP, VoIP statistics, the monitor and the general module always start.
  for (int mod : {MOD_IGMP, MOD_VOIP_STATS, MOD_MONITOR, MOD_GENERAL})
    EXPECT_TRUE(Started(unreadable, mod) && Started(zero, mod)) << mod;
  // Without the limit of Inform answers, the TR-069 module does not start.
  tcapi_set("Watchdog_TR069", "PITimer", "0");
  std::string said = StartWith("20");
  EXPECT_EQ(Count(said, "\r\ntr069Obj->registerTimer error!\r\n"), 1u);
  EXPECT_FALSE(Started(said, MOD_TR069));
  tcapi_set("Watchdog_Common", "Enable", "0");
  EXPECT_EQ(Create(), "|") << "the feature is off";
}

TEST_F(ModThreadTest, ConfiguredModulesStartWithTheirPeriods) {
  tcapi_set("Watchdog_PPP", "Timer", "30");
  tcapi_set("Watchdog_TR069", "RegisterTimer", "60");
  tcapi_set("Watchdog_TR069", "PITimer", "3");
  tcapi_set("Watchdog_ARP", "Timer", "20");
  tcapi_set("Watchdog_WDInfo", "Timer", "600");
  tcapi_set("Watchdog_WDInfo", "Verbosity", "15");
  tcapi_set("Watchdog_Route", "Mode", "1");
  tcapi_set("Watchdog_Route", "Timer", "70");
  tcapi_set("Watchdog_VoIPStatus", "RegisterTimer", "15");
  EXPECT_EQ(Said(wd_creatModThreads),
            "\r\ntr069Obj->registerTimer = 60\r\n"
            "voipStatusObj->registerTimer is not 0, So start Voip register modurle");
  std::vector<uint32_t> timers;
  for (int id = MOD_PPPOE; id <= MOD_MONITOR; ++id)
    timers.push_back(Running(id) ? gSubMod[id].timer.load() : 99);
  EXPECT_EQ(timers, (std::vector<uint32_t>{30, 60, 20, 70, 600, 0, 0, 15, 0, 0}));
}

TEST_F(ModThreadTest, ASecondStartOfARunningModuleChangesNothing) {
  debuglevel = 1;
  truncate("/dev/console", 0);
  ASSERT_EQ(wd_startModThread(MOD_SAMPLE), 0);
  // The start returns once the thread has its channel: an event sent at
  // once is not lost.
  ASSERT_EQ(wd_simpleSendMsg(TIMER_EXPIRED, 0, MOD_SAMPLE, nullptr, 0), WD_MSG_SIZE);
  pthread_t first = gSubMod[MOD_SAMPLE].threadId;
  int fd = gSubMod[MOD_SAMPLE].fd;
  EXPECT_EQ(Said([] { EXPECT_EQ(wd_startModThread(MOD_SAMPLE), EALREADY); }),
            "module 11 is already running\n");
  EXPECT_TRUE(WaitUntil([] { return Count(ReadFile("/dev/console"), "type#1#") == 1; }));
  EXPECT_TRUE(pthread_equal(gSubMod[MOD_SAMPLE].threadId, first));
  EXPECT_EQ(gSubMod[MOD_SAMPLE].fd, fd) << "no second thread, no second channel";
  debuglevel = 0;
}

TEST(ModPeriod, ANewPeriodReplacesTheTimerFromNowAndTheSamePeriodKeepsIt) {
  wd_timerSetClock(TestClock);
  gTestNow = {1000, 0};
  gSubMod[MOD_ARP].timer = 60;
  int id = wd_startModPTimer(MOD_ARP, 60);
  ASSERT_NE(id, 0);
  const std::string first = std::to_string(id) + "/60000@1060";
  gTestNow = {1010, 0};
  EXPECT_EQ(wd_changeModPeriod(MOD_ARP, 60, &id), 0);
  EXPECT_EQ(PeriodicTimers(MOD_ARP), std::vector<std::string>{first}) << "left alone";
  EXPECT_EQ(wd_changeModPeriod(MOD_ARP, 30, &id), 1);
  EXPECT_EQ(gSubMod[MOD_ARP].timer.load(), 30u);
  // The old timer is gone; the new one counts from the change, not from the
  // old one's expiry.
  EXPECT_EQ(PeriodicTimers(MOD_ARP), std::vector<std::string>{std::to_string(id) + "/30000@1040"});
  EXPECT_EQ(wd_changeModPeriod(MOD_ARP, 0, &id), 1);
  EXPECT_EQ(id, 0);
  EXPECT_TRUE(PeriodicTimers(MOD_ARP).empty());
  wd_timerSetClock(nullptr);
}

TEST(ParseSetting, ATextThatIsNotANumberIsReadAsItsDigitsAndSaidSo) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(wd_parseSetting("Watchdog_VoIPStats", "Mode", "2"), 2u);
  EXPECT_EQ(wd_parseSetting("Watchdog_VoIPStats", "Period", ""), 0u);
  EXPECT_EQ(wd_parseSetting("Watchdog_VoIPStats", "Period", "60s"), 60u);
  EXPECT_EQ(wd_parseSetting("Watchdog_VoIPStats", "Query", "-1"), 0u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Watchdog_VoIPStats Period \"60s\" is not a number, read as 60\n"
            "Watchdog_VoIPStats Query \"-1\" is not a number, read as 0\n");
}

}  // namespace
