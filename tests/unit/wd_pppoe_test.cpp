// The PPPoE module's pieces: configuration, alarms, the reading of recorded
// BusyBox outputs and the escalation arithmetic.
#include "wd_pppoe.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tcapi.h"
#include "wd_buffer.h"
#include "wd_common.h"

#include "unit_util.h"

namespace {

// "ifconfig ppp0" of the gateway's BusyBox, link up with both address kinds.
const char* const kIfconfigUp[] = {
    "ppp0      Link encap:Point-to-Point Protocol  \n",
    "          inet addr:10.20.30.40  P-t-P:10.20.30.1  Mask:255.255.255.255\n",
    "          inet6 addr: 2001:db8:0:1::5/64 Scope:Global\n",
    "          UP POINTOPOINT RUNNING NOARP MULTICAST  MTU:1492  Metric:1\n",
    "          RX packets:1210 errors:0 dropped:0 overruns:0 frame:0\n",
    "          TX packets:1188 errors:0 dropped:0 overruns:0 carrier:0\n",
    "          collisions:0 txqueuelen:3 \n",
    "          RX bytes:96713 (94.4 KiB)  TX bytes:91028 (88.8 KiB)\n",
};
// The same interface administratively up but without carrier.
const char* const kIfconfigNoCarrier[] = {
    "ppp0      Link encap:Ethernet  HWaddr 4E:A7:C3:1B:44:3B  \n",
    "          inet addr:203.0.113.2  Bcast:0.0.0.0  Mask:255.255.255.0\n",
    "          UP BROADCAST MULTICAST  MTU:1500  Metric:1\n",
};

class PppoeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unlink(TCAPI_TREE_PATH);
    unlink("/var/log/wan-redial.log");
    mkdir(TCAPI_HOOK_DIR, 0755);
    std::ofstream(TCAPI_HOOK_DIR "/Wan_PVC0")
        << "#!/bin/sh\necho re-dial >> /var/log/wan-redial.log\n";
    chmod(TCAPI_HOOK_DIR "/Wan_PVC0", 0755);
    ppp_config = wdPppConfig{};
    addr_backup[0] = addr_6backup[0] = interface_status[0] = '\0';
    ppp_fail_times = Ping_fail_times = dns_fail_times = 0;
    ppp_Num_reset = Ping_Num_reset = dns_Num_reset = 0;
    alarm_flag = 0;
    wd_initData();
  }

  // The alarm texts reported so far, after the line prefix.
  std::vector<std::string> Alarms() {
    std::vector<std::string> out;
    for (wdBufNode* n = list_.head; n != nullptr; n = n->next) {
      std::string line = n->obj->msg;
      out.push_back(line.substr(line.find('|') + 1));
    }
    return out;
  }
  static int Redials() {
    std::ifstream in("/var/log/wan-redial.log");
    std::string line;
    int n = 0;
    while (std::getline(in, line)) ++n;
    return n;
  }
  ScopedBuffer buffer_;
  wdBufList& list_ = buffer_.list;
};

TEST_F(PppoeTest, ConfigurationIsReadConvertedAndCut) {
  tcapi_set("Watchdog_PPP", "Timer", "30");
  tcapi_set("Watchdog_PPP", "AlertAfter", "3");
  tcapi_set("Watchdog_PPP", "MaxReset", "x2");
  tcapi_set("Watchdog_PPP", "PingIP", "100.100.100.100");  // 15 characters
  tcapi_set("Watchdog_PPP", "LookupDomain", "wan.test");
  testing::internal::CaptureStderr();
  mod_pppoe_config_init();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(ppp_config.Timer, 30u);
  EXPECT_EQ(ppp_config.AlertAfter, 3u);
  EXPECT_EQ(ppp_config.MaxReset, 0u) << "not a number";
  EXPECT_STREQ(ppp_config.PingIP, "100.100.100.100");
  EXPECT_STREQ(ppp_config.LookupDomain, "wan.test");

  tcapi_set("Watchdog_PPP", "PingIP", "100.100.100.1001");  // 16
  std::string domain(300, 'd');
  tcapi_set("Watchdog_PPP", "LookupDomain", domain.c_str());
  testing::internal::CaptureStderr();
  mod_pppoe_config_init();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "String is too long. 100.100.100.1001\nString is too long. " + domain + "\n");
  EXPECT_STREQ(ppp_config.PingIP, "100.100.100.100");
  EXPECT_EQ(std::string(ppp_config.LookupDomain), std::string(255, 'd'));

  unlink(TCAPI_TREE_PATH);
  mod_pppoe_config_init();
  EXPECT_EQ(ppp_config.Timer, 0u);
  EXPECT_STREQ(ppp_config.PingIP, "");
}

TEST_F(PppoeTest, ResetCommitsOnlyAPppoeConnection) {
  tcapi_set("Wan_PVC0", "ENCAP", "PPPoE LLC");
  mod_pppoe_reset_ppp();
  EXPECT_EQ(Redials(), 1);
  tcapi_set("Wan_PVC0", "ENCAP", "PPPoA VC-Mux");
  mod_pppoe_reset_ppp();
  // The text is taken only up to its 31st character.
  tcapi_set("Wan_PVC0", "ENCAP", "0123456789012345678901234567PPPoE");
  mod_pppoe_reset_ppp();
  tcapi_set("Wan_PVC0", "ENCAP", "pppoe");
  mod_pppoe_reset_ppp();
  EXPECT_EQ(Redials(), 1);
}

TEST_F(PppoeTest, AlarmCarriesTheLastStateOrNull) {
  mod_pppoe_AlarmSyslog("PPP_DOWN_NO_RESET");
  snprintf(interface_status, sizeof interface_status,
           "UP POINTOPOINT RUNNING NOARP MULTICAST  MTU:1492  Metric:1");
  snprintf(addr_backup, sizeof addr_backup, "10.20.30.40");
  mod_pppoe_AlarmSyslog("PPP_DOWN_RESET");
  memset(interface_status, 'f', 255);
  memset(addr_6backup, 'a', 39);
  mod_pppoe_AlarmSyslog("PRIV_IP");
  std::vector<std::string> alarms = Alarms();
  ASSERT_EQ(alarms.size(), 3u);
  EXPECT_EQ(alarms[0], "PPP_DOWN_NO_RESET|null|null|null");
  EXPECT_EQ(
      alarms[1],
      "PPP_DOWN_RESET|UP POINTOPOINT RUNNING NOARP MULTICAST  MTU:1492  Metric:1|10.20.30.40|null");
  EXPECT_EQ(alarms[2], "PRIV_IP|" + std::string(254, 'f') + "|10.20.30.40|" + std::string(38, 'a'));
  EXPECT_EQ(list_.head->obj->category, 6u);
}

TEST_F(PppoeTest, RecordedIfconfigOutputs) {
  wdPppLinkScan scan = {};
  for (const char* line : kIfconfigUp) mod_pppoe_scanLinkLine(line, &scan);
  EXPECT_TRUE(scan.up);
  EXPECT_STREQ(scan.ipv4, "10.20.30.40");
  EXPECT_STREQ(addr_backup, "10.20.30.40");
  EXPECT_STREQ(addr_6backup, "2001:db8:0:1::5/64");
  EXPECT_STREQ(interface_status, "UP POINTOPOINT RUNNING NOARP MULTICAST  MTU:1492  Metric:1");

  scan = wdPppLinkScan{};
  for (const char* line : kIfconfigNoCarrier) mod_pppoe_scanLinkLine(line, &scan);
  EXPECT_FALSE(scan.up) << "UP without RUNNING is down";
  EXPECT_STREQ(addr_backup, "203.0.113.2");
  EXPECT_STREQ(addr_6backup, "2001:db8:0:1::5/64") << "kept from before";
  EXPECT_STREQ(interface_status, "UP POINTOPOINT RUNNING NOARP MULTICAST  MTU:1492  Metric:1");

  // Several IPv6 lines: the last wins. A device that is missing prints nothing.
  scan = wdPppLinkScan{};
  mod_pppoe_scanLinkLine("          inet6 addr: fe80::1/64 Scope:Link\n", &scan);
  mod_pppoe_scanLinkLine("          inet6 addr: 2001:db8::9/64 Scope:Global\n", &scan);
  EXPECT_STREQ(addr_6backup, "2001:db8::9/64");
  EXPECT_STREQ(scan.ipv4, "");
  EXPECT_FALSE(scan.up);
  mod_pppoe_scanLinkLine("          inet addr:1234567890123456789  Mask:x\n", &scan);
  EXPECT_STREQ(scan.ipv4, "123456789012345") << "at most 15 characters";
}

TEST_F(PppoeTest, PrivateAddressEdges) {
  EXPECT_TRUE(mod_pppoe_isPrivate("192.168.1.10"));
  EXPECT_TRUE(mod_pppoe_isPrivate("192.168.0.1"));
  EXPECT_TRUE(mod_pppoe_isPrivate("192.168.254.253"));
  EXPECT_FALSE(mod_pppoe_isPrivate("192.168.1.254"));
  EXPECT_FALSE(mod_pppoe_isPrivate("192.168.255.1"));
  EXPECT_FALSE(mod_pppoe_isPrivate("192.168.1.0"));
  EXPECT_FALSE(mod_pppoe_isPrivate("10.0.0.1"));
  EXPECT_FALSE(mod_pppoe_isPrivate("172.16.0.1"));
  EXPECT_FALSE(mod_pppoe_isPrivate("")) << "up without an address: not private";
  EXPECT_FALSE(mod_pppoe_isPrivate("garbage"));
}

TEST_F(PppoeTest, RecordedPingAndLookupOutputs) {
  EXPECT_TRUE(
      mod_pppoe_pingLinePassed("10 packets transmitted, 10 packets received, 0% packet loss\n"));
  EXPECT_TRUE(
      mod_pppoe_pingLinePassed("10 packets transmitted, 1 packets received, 90% packet loss\n"));
  EXPECT_FALSE(
      mod_pppoe_pingLinePassed("10 packets transmitted, 0 packets received, 100% packet loss\n"));
  EXPECT_FALSE(mod_pppoe_pingLinePassed("ping: sendto: Network is unreachable\n"));
  EXPECT_FALSE(mod_pppoe_pingLinePassed("round-trip min/avg/max = 0.034/0.101/0.689 ms\n"));

  EXPECT_TRUE(mod_pppoe_lookupLinePassed("Address: 203.0.113.1\n"));
  EXPECT_TRUE(mod_pppoe_lookupLinePassed("Address:\t203.0.113.1:53\n"));
  EXPECT_FALSE(
      mod_pppoe_lookupLinePassed(";; connection timed out; no servers could be reached\n"));
  EXPECT_FALSE(mod_pppoe_lookupLinePassed("Name:\twan.test\n"));
}

TEST_F(PppoeTest, EscalationOverEightDownCycles) {
  tcapi_set("Wan_PVC0", "ENCAP", "PPPoE LLC");
  ppp_config.AlertAfter = 3;
  ppp_config.MaxReset = 1;
  std::vector<size_t> alarmsAfterCycle;
  for (int cycle = 1; cycle <= 8; ++cycle) {
    mod_pppoe_escalate(WD_PPP_LINK);
    alarmsAfterCycle.push_back(Alarms().size());
  }
  EXPECT_EQ(alarmsAfterCycle, (std::vector<size_t>{0, 0, 0, 1, 1, 1, 1, 2}));
  EXPECT_EQ(Alarms()[0], "PPP_DOWN_RESET|null|null|null");
  EXPECT_EQ(Alarms()[1], "PPP_DOWN_NO_RESET|null|null|null");
  EXPECT_EQ(Redials(), 1);
  EXPECT_EQ(ppp_Num_reset, 1u);
  EXPECT_EQ(alarm_flag, 1u);
}

TEST_F(PppoeTest, MaxResetZeroNeverResetsAndAlertAfterZeroAlarmsEveryTime) {
  tcapi_set("Wan_PVC0", "ENCAP", "PPPoE LLC");
  ppp_config.AlertAfter = 0;
  ppp_config.MaxReset = 0;
  for (int i = 0; i < 3; ++i) mod_pppoe_escalate(WD_PPP_PING);
  EXPECT_EQ(Alarms(), (std::vector<std::string>(3, "PING_FAILURE_NO_RESET|null|null|null")));
  EXPECT_EQ(Redials(), 0);
}

TEST_F(PppoeTest, LookupFailuresAreCountedAloud) {
  ppp_config.AlertAfter = 2;
  ppp_config.MaxReset = 5;
  tcapi_set("Wan_PVC0", "ENCAP", "PPPoE");
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) mod_pppoe_escalate(WD_PPP_DNS);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "dns_fail_times=0,nslookup fail\ndns_fail_times=1,nslookup fail\n");
  EXPECT_EQ(Alarms(), (std::vector<std::string>{"DNS_FAILURE_RESET|null|null|null"}));
  EXPECT_EQ(dns_Num_reset, 1u);
  EXPECT_EQ(dns_fail_times, 0u);
}

TEST_F(PppoeTest, ValuesThatMustNotReachTheShell) {
  for (const char* bad : {"1.2.3.4;touch /tmp/x", "a|b", "$(id)", "`id`", "a b", "a'b", "a\"b",
                          "a>b", "a&b", "a\nb"}) {
    EXPECT_FALSE(mod_pppoe_hostUsable(bad)) << bad;
  }
  for (const char* good :
       {"203.0.113.1", "wan.test", "my-isp_dns.example.net", "2001:db8::1", ""}) {
    EXPECT_TRUE(mod_pppoe_hostUsable(good)) << good;
  }
}

}  // namespace
