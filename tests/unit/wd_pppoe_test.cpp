// The PPPoE module's pieces: configuration, the reset, alarms, and the
// reading of recorded BusyBox outputs. The escalation runs in the
// integration tests, on the simulated WAN link.
#include "wd_pppoe.h"

#include "unit_util.h"

namespace {

class PppoeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unlink(TCAPI_TREE_PATH);
    addr_backup[0] = addr_6backup[0] = interface_status[0] = '\0';
  }
  // Scans `text` as the output of "ifconfig ppp0".
  static wdPppLinkScan Scan(const std::string& text) {
    wdPppLinkScan scan = {};
    FILE* f = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    mod_pppoe_scanLink(f, &scan);
    fclose(f);
    return scan;
  }
  ScopedBuffer buffer_;
};

TEST_F(PppoeTest, ConfigurationIsReadConvertedAndCut) {
  tcapi_set("Watchdog_PPP", "Timer", "30");
  tcapi_set("Watchdog_PPP", "AlertAfter", "3");
  tcapi_set("Watchdog_PPP", "MaxReset", "x2");
  tcapi_set("Watchdog_PPP", "PingIP", "100.100.100.100");  // 15 characters
  tcapi_set("Watchdog_PPP", "LookupDomain", "wan.test");
  EXPECT_EQ(Said(mod_pppoe_config_init), "");
  EXPECT_EQ(ppp_config.Timer, 30u);
  EXPECT_EQ(ppp_config.AlertAfter, 3u);
  EXPECT_EQ(ppp_config.MaxReset, 0u) << "not a number";
  EXPECT_STREQ(ppp_config.PingIP, "100.100.100.100");

  tcapi_set("Watchdog_PPP", "PingIP", "100.100.100.1001");  // 16
  std::string domain(300, 'd');
  tcapi_set("Watchdog_PPP", "LookupDomain", domain.c_str());
  EXPECT_EQ(Said(mod_pppoe_config_init),
            "String is too long. 100.100.100.1001\nString is too long. " + domain + "\n");
  EXPECT_STREQ(ppp_config.PingIP, "100.100.100.100");
  EXPECT_EQ(std::string(ppp_config.LookupDomain), std::string(255, 'd'));
}

TEST_F(PppoeTest, ResetCommitsOnlyAPppoeConnectionAndAlarmsSayNullForTheUnseen) {
  mkdir(TCAPI_HOOK_DIR, 0755);
  std::ofstream(TCAPI_HOOK_DIR "/Wan_PVC0") << "#!/bin/sh\necho re-dial >> /tmp/redial\n";
  chmod(TCAPI_HOOK_DIR "/Wan_PVC0", 0755);
  // Only the first 31 characters count, and the match is case-sensitive.
  for (const char* encap :
       {"PPPoE LLC", "PPPoA VC-Mux", "0123456789012345678901234567PPPoE", "pppoe"}) {
    tcapi_set("Wan_PVC0", "ENCAP", encap);
    mod_pppoe_reset_ppp();
  }
  EXPECT_EQ(ReadFile("/tmp/redial"), "re-dial\n");

  mod_pppoe_AlarmSyslog("PPP_DOWN_NO_RESET");
  memset(interface_status, 'f', 255);
  memset(addr_6backup, 'a', 39);
  mod_pppoe_AlarmSyslog("PRIV_IP");
  EXPECT_EQ(buffer_.Texts("ppp"), (std::vector<std::string>{"PPP_DOWN_NO_RESET|null|null|null",
                                                            "PRIV_IP|" + std::string(254, 'f') +
                                                                "|null|" + std::string(38, 'a')}));
  wdLock lock(&bufMutex);
  EXPECT_EQ(buffer_.list.head->obj->category, 6u);
}

TEST_F(PppoeTest, RecordedIfconfigOutputs) {
  wdPppLinkScan scan = Scan(
      "ppp0      Link encap:Point-to-Point Protocol  \n"
      "          inet addr:10.20.30.40  P-t-P:10.20.30.1  Mask:255.255.255.255\n"
      "          inet6 addr: fe80::1/64 Scope:Link\n"
      "          inet6 addr: 2001:db8:0:1::5/64 Scope:Global\n"
      "          UP POINTOPOINT RUNNING NOARP MULTICAST  MTU:1492  Metric:1\n"
      "          RX packets:1210 errors:0 dropped:0 overruns:0 frame:0\n");
  EXPECT_TRUE(scan.up);
  EXPECT_STREQ(scan.ipv4, "10.20.30.40");
  EXPECT_STREQ(addr_6backup, "2001:db8:0:1::5/64") << "the last one wins";
  EXPECT_STREQ(interface_status, "UP POINTOPOINT RUNNING NOARP MULTICAST  MTU:1492  Metric:1");

  scan = Scan("          inet addr:203.0.113.2  Bcast:0.0.0.0\n          UP BROADCAST MULTICAST\n");
  EXPECT_FALSE(scan.up) << "UP without RUNNING is down";
  EXPECT_STREQ(addr_backup, "203.0.113.2");
  EXPECT_STREQ(addr_6backup, "2001:db8:0:1::5/64") << "kept from before";

  scan = Scan("          inet addr:1234567890123456789  Mask:x\n          inet6 addr:");
  EXPECT_STREQ(scan.ipv4, "123456789012345") << "at most 15 characters";
  EXPECT_STREQ(addr_6backup, "") << "the marker at the very end of the text";

  // A flags line longer than the 512-byte line buffer.
  scan = Scan("          UP BROADCAST RUNNING " + std::string(600, 'M') + "\n");
  EXPECT_TRUE(scan.up);
  EXPECT_EQ(std::string(interface_status), "UP BROADCAST RUNNING " + std::string(234, 'M'));
}

TEST_F(PppoeTest, PrivateAddressesAndPingSummaries) {
  for (const char* a : {"192.168.1.10", "192.168.0.1", "192.168.254.253"}) {
    EXPECT_TRUE(mod_pppoe_isPrivate(a)) << a;
  }
  for (const char* a : {"192.168.1.254", "192.168.255.1", "192.168.1.0", "10.0.0.1", "", "garbage",
                        "192.168.99999999999999999999.1", "192.168.1"}) {
    EXPECT_FALSE(mod_pppoe_isPrivate(a)) << a;
  }
  EXPECT_TRUE(
      mod_pppoe_pingLinePassed("10 packets transmitted, 1 packets received, 90% packet loss"));
  EXPECT_FALSE(
      mod_pppoe_pingLinePassed("10 packets transmitted, 0 packets received, 100% packet loss"));
}

}  // namespace
