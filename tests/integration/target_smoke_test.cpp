// A smoke test of the installed programs as built for their target: the
// daemon, wdctl and tcapi, driven from this machine. For the gateway's MIPS
// build they run under qemu-mips (WD_EMULATOR), in the device's byte order;
// in a native build the same test runs the native programs. The daemon keeps
// real time here, so its 30-second wait for syslog-ng is really waited.

#include "gateway.h"

namespace {

TEST(TargetSmoke, QueryForwardAndReportAcrossTheTargetsPrograms) {
  auto tcapi = [](const std::string& args) { return gw::Run(gw::Installed("tcapi") + " " + args); };
  auto wdctl = [](const std::string& args) { return gw::Run(gw::Installed("wdctl") + " " + args); };
  for (const char* set :
       {"Watchdog_Common Enable 1", "Wan_PVC0 ENCAP 'PPPoE LLC'", "Watchdog_PPP Timer 2",
        "Watchdog_PPP AlertAfter 0", "Watchdog_PPP MaxReset 0", "Watchdog_PPP PingIP 0.0.0.0"}) {
    ASSERT_EQ(tcapi(std::string("set ") + set).status, 0) << set;
  }
  EXPECT_EQ(tcapi("get Watchdog_PPP Timer").output, "2\n");

  gw::Daemon d;
  ASSERT_TRUE(d.Start());

  // Query round trips: the module id and the answer in the target's byte order.
  EXPECT_EQ(wdctl("query pppoe").output, "pppoe: running (0)\n");
  EXPECT_EQ(wdctl("query sample").output, "sample: not running (9000)\n");

  // A command forwarded to a module, whole and in the target's byte order.
  ASSERT_TRUE(gw::WaitUntil([] { return gw::Exists("/var/wd_monitor.chanl"); }));
  gw::ChannelTap monitor("/var/wd_monitor.chanl");
  wdMsg msg;
  // Sent until one arrives: the daemon forwards through the module's own
  // socket, which the module publishes just after its path appears.
  ASSERT_TRUE(gw::WaitUntil(
      [&] {
        return wdctl("monitor -x 0102030405060708").status == 0 &&
               monitor.Receive(&msg, 1000) == WD_MSG_SIZE;
      },
      60000));
  EXPECT_EQ(gw::FromTarget(static_cast<uint32_t>(msg.eventType)),
            static_cast<uint32_t>(MONITOR_DATA));
  EXPECT_EQ(gw::FromTarget(static_cast<uint32_t>(msg.destMod)), static_cast<uint32_t>(MOD_MONITOR));
  EXPECT_EQ(gw::FromTarget(static_cast<uint32_t>(msg.srcMod)), 0u);
  EXPECT_EQ(msg.datalen, 8);
  EXPECT_EQ(std::string(msg.data, 9), std::string("\x01\x02\x03\x04\x05\x06\x07\x08\x00", 9));

  // A report line reaching syslog-ng: the PPPoE module's alarm for a cut line.
  ASSERT_EQ(gw::Run("/gw/sim/wan-link cut").status, 0);
  ASSERT_TRUE(gw::WaitUntil([] { return !gw::ReportLines().empty(); }, 60000));
  std::string line = gw::ReportLines().front();
  EXPECT_EQ(line.rfind("my.app.wd.ppp.0a1b2c3d4e5f: ", 0), 0u) << line;
  EXPECT_NE(line.find("|PPP_DOWN_NO_RESET|"), std::string::npos) << line;
  EXPECT_NE(line.find("|203.0.113.2|"), std::string::npos) << line;
}

}  // namespace
