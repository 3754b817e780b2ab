// Modules driven through their threads and channels, as the daemon drives
// them: the periodic info module's configuration, the VoIP statistics
// module's queries and timer, and the IGMP module's period. The timer clock
// stands still and no timer thread runs: timers are armed, and fired only
// when a test sends their event (the module threads' own waits, on that
// clock, never reach them), but for the last case's, on the real clock.
#include <dirent.h>

#include "wd_modtable.h"
#include "wd_modthread.h"
#include "wd_voipstats.h"

#include "unit_util.h"
#include "wd_base.h"

namespace {

// A module thread started as the daemon starts it, with the period `timer`
// already in its entry; ended with THREAD_EXIT.
class ModuleThread {
 public:
  explicit ModuleThread(int mod, uint32_t timer = 0) : mod_(mod) {
    wd_timerSetClock(TestClock);
    wd_setModTable(kModTable, kModTableCount);
    wd_initSubModData();
    gSubMod[mod].timer = timer;
    EXPECT_EQ(wd_startModThread(mod), 0);
    EXPECT_TRUE(WaitUntil([mod] { return gSubMod[mod].fd != 0; }));
  }
  ~ModuleThread() {
    Send(THREAD_EXIT);
    EXPECT_TRUE(WaitUntil([this] { return gSubMod[mod_].threadId.load() == pthread_t{}; }));
    wd_timerSetClock(nullptr);
  }
  void Send(int event, const void* data = nullptr, unsigned len = 0) {
    ASSERT_EQ(wd_simpleSendMsg(event, 0, mod_, data, len), WD_MSG_SIZE);
  }

 private:
  int mod_;
};

// The report categories in the buffer, in order.
std::vector<std::string> Categories(ScopedBuffer& buffer) {
  std::vector<std::string> out;
  for (const std::string& line : buffer.Lines()) out.push_back(line.substr(10, line.find('.', 10) - 10));
  return out;
}

TEST(PeriodicInfo, AChangeWithoutTimerIsIgnoredAndNoMaskBitMeansNoReport) {
  ScopedBuffer buffer;
  tcapi_set("Watchdog_WDInfo", "Verbosity", "8");  // no "Timer": no timer either
  ModuleThread info(MOD_PERIODIC_INFO);
  auto expire = [&](size_t reports) {
    info.Send(TIMER_EXPIRED);
    ASSERT_TRUE(WaitUntil([&] { return buffer.Lines().size() >= reports; }));
  };
  // A change with a new period each time: its timer shows that the module
  // has read the change, before the next one is written.
  auto change = [&](const char* verbosity, const std::string& timer) {
    if (verbosity == nullptr) tcapi_unset("Watchdog_WDInfo", "Verbosity");
    if (verbosity != nullptr) tcapi_set("Watchdog_WDInfo", "Verbosity", verbosity);
    tcapi_set("Watchdog_WDInfo", "Timer", timer.c_str());
    info.Send(CONFIG_CHANGE);
    ASSERT_TRUE(WaitUntil([&] {
      std::vector<std::string> timers = PeriodicTimers(MOD_PERIODIC_INFO);
      return timers.size() == 1 && timers[0].find("/" + timer + "000@") != std::string::npos;
    }));
  };
  expire(1);
  tcapi_set("Watchdog_WDInfo", "Verbosity", "1");
  info.Send(CONFIG_CHANGE);  // "Timer" cannot be read: the whole change is ignored
  expire(2);
  // An unreadable verbosity reads as 0; neither it nor 16 selects a collector.
  change(nullptr, "101");
  info.Send(TIMER_EXPIRED);
  change("16", "102");
  info.Send(TIMER_EXPIRED);
  change("0", "103");
  info.Send(TIMER_EXPIRED);
  change("1", "104");
  expire(3);
  EXPECT_EQ(Categories(buffer), (std::vector<std::string>{"infprc", "infprc", "infgen"}));
}

// What the VoIP statistics module last asked the voice application: the
// query node as the tree holds it, its attributes in the order written.
std::string Asked() {
  std::string tree = ReadFile(TCAPI_TREE_PATH);
  size_t at = tree.find("[VoipCurSet_WDQuery]\n");
  if (at == std::string::npos) return "";
  at = tree.find('\n', at) + 1;
  return tree.substr(at, tree.find('[', at) - at);
}

TEST(VoipStatsModule, QueriesPerModeAndAPeriodicTimerOnlyInModeTwo) {
  ScopedBuffer buffer;
  tcapi_set("Watchdog_VoIPStats", "Mode", "2");
  tcapi_set("Watchdog_VoIPStats", "Period", "60");
  tcapi_set("Watchdog_VoIPStats", "Query", "0");
  ModuleThread stats(MOD_VOIP_STATS, 60);
  // The thread arms its timer after it opened the channel.
  ASSERT_TRUE(WaitUntil([] { return PeriodicTimers(MOD_VOIP_STATS).size() == 1; }));
  const std::vector<std::string> first = PeriodicTimers(MOD_VOIP_STATS);
  // Sends `event` and waits for the query it makes; the query as written.
  auto query = [&](int event) {
    tcapi_unset("VoipCurSet_WDQuery", "Query");
    tcapi_unset("VoipCurSet_WDQuery", "wordData");
    stats.Send(event);
    char word[16];
    EXPECT_TRUE(WaitUntil([&] { return tcapi_get("VoipCurSet_WDQuery", "wordData", word) == 0; }));
    return Asked();
  };
  auto change = [&](const char* mode, const char* period) {
    tcapi_set("Watchdog_VoIPStats", "Mode", mode);
    tcapi_set("Watchdog_VoIPStats", "Period", period);
    return query(CONFIG_CHANGE);
  };
  // "Query" comes before "wordData", which completes it.
  EXPECT_EQ(change("2", "60"), "Query=0x4/ppp0\nwordData=2\n");
  EXPECT_EQ(PeriodicTimers(MOD_VOIP_STATS), first) << "the same period keeps its timer";
  EXPECT_EQ(change("2", "30"), "Query=0x4/ppp0\nwordData=2\n");
  std::vector<std::string> timers = PeriodicTimers(MOD_VOIP_STATS);
  ASSERT_EQ(timers.size(), 1u) << "the old timer is stopped";
  EXPECT_NE(timers[0], first[0]);
  EXPECT_EQ(timers[0].substr(timers[0].find('/')), "/30000@1030");
  EXPECT_EQ(query(TIMER_EXPIRED), "Query=0x4/ppp0\nwordData=6\n");

  // Other modes stop the periodic timer; an expiry still queries, with the
  // bit of 4 set, and a record is reported "OnDemand".
  VoipStatsReply record = {};
  for (const char* mode : {"0", "5"}) {
    SCOPED_TRACE(mode);
    EXPECT_EQ(change(mode, "30"), std::string("Query=0x4/ppp0\nwordData=") + mode + "\n");
    EXPECT_TRUE(PeriodicTimers(MOD_VOIP_STATS).empty());
    EXPECT_EQ(query(TIMER_EXPIRED), std::string("Query=0x4/ppp0\nwordData=") +
                                        (mode[0] == '0' ? "4" : "5") + "\n");
    tcapi_set("Watchdog_VoIPStats", "Query", "9");
    size_t before = buffer.Lines().size();
    stats.Send(RECEIVE_FROM, &record, sizeof record);
    ASSERT_TRUE(WaitUntil([&] { return buffer.Lines().size() > before; }));
    std::string text = buffer.Texts("voipstat").back();
    EXPECT_NE(text.find(std::string("|") + mode + "|30|OnDemand|"), std::string::npos) << text;
    EXPECT_TRUE(WaitUntil([] {
      char reset[16] = {0};
      return tcapi_get("Watchdog_VoIPStats", "Query", reset) == 0 && strcmp(reset, "0") == 0;
    }));
  }
  // Back to mode 2 with the period stored before: the timer stopped on the
  // way is not started again.
  EXPECT_EQ(change("2", "30"), "Query=0x4/ppp0\nwordData=2\n");
  EXPECT_TRUE(PeriodicTimers(MOD_VOIP_STATS).empty());
}

TEST(IgmpModule, AnEmptyPeriodLeavesTheTimerAloneAndAZeroOneStopsIt) {
  debuglevel = 1;
  tcapi_set("Watchdog_IGMP", "Period", "30");
  ModuleThread igmp(MOD_IGMP);
  ASSERT_TRUE(WaitUntil([] { return PeriodicTimers(MOD_IGMP).size() == 1; }));
  const std::vector<std::string> armed = PeriodicTimers(MOD_IGMP);
  EXPECT_EQ(armed[0].substr(armed[0].find('/')), "/30000@1030");
  tcapi_set("Watchdog_IGMP", "Period", "");
  igmp.Send(CONFIG_CHANGE);
  igmp.Send(TIMER_EXPIRED);  // traced once the change is done
  EXPECT_TRUE(WaitUntil([] { return Count(ReadFile("/dev/console"), "IGMP TIMER_EXPIRED") == 1; }));
  EXPECT_EQ(PeriodicTimers(MOD_IGMP), armed);
  EXPECT_EQ(gSubMod[MOD_IGMP].timer.load(), 30u);
  // "00" is not the text "0" but reads as 0: the timer stops, none starts.
  // "0" stops a timer too; any other new period starts one.
  // Each change's trace shows it was read before the next is written.
  for (const char* period : {"00", "60", "0"}) {
    tcapi_set("Watchdog_IGMP", "Period", period);
    igmp.Send(CONFIG_CHANGE);
    const std::string said = period[0] == '6'   ? "Timer change, set new timer, 60"
                             : period[1] == '0' ? "Timer change, set new timer, 0"
                                                : "clear timer";
    EXPECT_TRUE(WaitUntil([&] { return Count(ReadFile("/dev/console"), said) == 1; })) << period;
  }
  EXPECT_TRUE(PeriodicTimers(MOD_IGMP).empty());
  EXPECT_EQ(gSubMod[MOD_IGMP].timer.load(), 0u);
  debuglevel = 0;
}

size_t OpenDescriptors() {
  size_t n = 0;
  if (DIR* d = opendir("/proc/self/fd")) {
    while (readdir(d) != nullptr) ++n;
    closedir(d);
  }
  return n;
}

// With no timer thread at all, the module thread calls its own timer on the
// monotonic clock; what it waits with ends with it.
TEST(IgmpModule, ItsThreadCallsItsOwnTimer) {
  debuglevel = 1;
  tcapi_set("Watchdog_IGMP", "Period", "1");
  wd_setModTable(kModTable, kModTableCount);
  wd_initSubModData();
  const size_t fds = OpenDescriptors();
  const size_t before = Count(ReadFile("/dev/console"), "IGMP TIMER_EXPIRED");
  ASSERT_EQ(wd_startModThread(MOD_IGMP), 0);
  EXPECT_TRUE(WaitUntil([&] { return Count(ReadFile("/dev/console"), "IGMP TIMER_EXPIRED") >= before + 2; }));
  ASSERT_TRUE(WaitUntil([] { return gSubMod[MOD_IGMP].fd != 0; }));
  ASSERT_EQ(wd_simpleSendMsg(THREAD_EXIT, 0, MOD_IGMP, nullptr, 0), WD_MSG_SIZE);
  EXPECT_TRUE(WaitUntil([] { return gSubMod[MOD_IGMP].threadId.load() == pthread_t{}; }));
  EXPECT_TRUE(WaitUntil([fds] { return OpenDescriptors() == fds; })) << fds;
  debuglevel = 0;
}

}  // namespace
