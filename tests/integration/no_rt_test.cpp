// A gateway that refuses real-time scheduling (no CAP_SYS_NICE): the timer
// thread runs all the same, with default scheduling, and the daemon says so once.

#include "gateway.h"

namespace {

TEST(NoRealTime, TimerThreadFallsBackAndStillDelivers) {
  gw::SetConfig("Watchdog_Common", "Enable", "1");
  gw::SetConfig("Watchdog_IGMP", "Period", "1");
  gw::Daemon d;
  ASSERT_TRUE(d.Start({"-d"}));
  std::string err = d.Stderr();
  EXPECT_EQ(err.rfind("\r\n main  while !=-1\r\n"
                      "watchdogd: SCHED_RR priority 75 refused for the timer thread (Operation not "
                      "permitted); real-time threads run with default scheduling\n",
                      0),
            0u)
      << err;
  EXPECT_EQ(gw::Count(err, "SCHED_RR"), 1u);
  std::vector<int> policies = gw::ThreadPolicies(d.pid());
  EXPECT_EQ(std::count(policies.begin(), policies.end(), 2), 0);
  EXPECT_TRUE(gw::WaitUntil(
      [] { return gw::Count(gw::Console(), "start to send eventType=1 destMod=6") >= 2; }));
}

}  // namespace
