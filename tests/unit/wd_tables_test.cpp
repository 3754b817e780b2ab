// The table and status parsers on recorded samples: the ARP join with the
// IPv6 addresses, the route table, and the four status collectors. The
// modules' loops run against the kernel's own tables in the integration
// tests.
#include "wd_arp.h"
#include "wd_iproute.h"
#include "wd_status.h"

#include <memory>

#include "unit_util.h"

namespace {

// An open stream on `text`, closed with the object.
using File = std::unique_ptr<FILE, int (*)(FILE*)>;
File Sample(const std::string& text) {
  File f(tmpfile(), fclose);
  fputs(text.c_str(), f.get());
  rewind(f.get());
  return f;
}

const std::string kArpHeader =
    "IP address       HW type     Flags       HW address            Mask     Device\n";

TEST(ArpTable, EntriesJoinTheirDeviceGlobalAddress) {
  ScopedBuffer buffer;
  File inet6 = Sample(
      "fe80000000000000941a09fffec40799 03 40 20 c0     br0\n"
      "00000000000000000000000000000001 01 80 10 80       lo\n"
      "20010db8000000000000000000000001 03 40 00 80     br0\n"
      "20010db8000000000000000000000002 03 40 00 80     br0\n");
  const std::string first =
      "192.168.1.100    0x1         0x2         00:11:22:33:44:55     *        br0\n";
  File arp = Sample(kArpHeader + first +
                    "10.0.0.1         0x1         0x6         00:11:22:33:44:66     *        nas0\n"
                    "192.168.1.101    0x1         0x0         00:00:00:00:00:00     *        br0\n"
                    "192.168.1.102 0x1\n");  // not six fields: no entry
  mod_arpReport(arp.get(), inet6.get());
  mod_arpReport(Sample(kArpHeader + first).get(), nullptr);  // no if_inet6
  mod_arpReport(nullptr, nullptr);                           // no ARP table: nothing
  // The link-local address of br0 comes first in the file but is not global;
  // the second entry on br0 finds the same address (the file is rewound).
  EXPECT_EQ(buffer.Texts("arp"),
            (std::vector<std::string>{
                "00:11:22:33:44:55|192.168.1.100|20010db8000000000000000000000001|br0|0x2",
                "00:11:22:33:44:66|10.0.0.1||nas0|0x6",
                "00:00:00:00:00:00|192.168.1.101|20010db8000000000000000000000001|br0|0x0",
                "00:11:22:33:44:55|192.168.1.100||br0|0x2"}));
}

TEST(RouteTable, RowsUntilTheFirstShortOneWithLongWordsCut) {
  ScopedBuffer buffer;
  File route = Sample(
      "Kernel IP routing table\n"
      "Destination     Gateway         Genmask         Flags Metric Ref    Use Iface\n"
      "default         203.0.113.1     0.0.0.0         UG    0      0        0 ppp0\n"
      "192.168.1.0     *               255.255.255.0   U     0      0        0 br0\n" +
      std::string(40, 'x') + " a b c d e f " + std::string(20, 'y') + "\n" +
      "10.0.0.0        *               255.0.0.0       U     0      0\n"
      "10.1.0.0        *               255.255.0.0     U     0      0        0 nas1\n");
  mod_routeReport(route.get());
  // A word longer than a column is cut to 15 characters; the columns after it
  // stay in place.
  EXPECT_EQ(buffer.Texts("route"),
            (std::vector<std::string>{"default|203.0.113.1|0.0.0.0|UG|0|0|0|ppp0",
                                      "192.168.1.0|*|255.255.255.0|U|0|0|0|br0",
                                      "xxxxxxxxxxxxxxx|a|b|c|d|e|f|yyyyyyyyyyyyyyy"}));
}

TEST(ProcessStatus, EachLineMarksTheFirstWatchedNameItHolds) {
  char text[512];
  File ps = Sample(
      "PID   USER     VSZ  STAT COMMAND\n"
      "  120 root     1200 S    /usr/bin/pppd call dnsmasq-peer\n"  // pppd only
      "  130 root     2300 S    /userfs/bin/tr69\n"
      "  140 root     1100 S    igmpproxy /etc/igmpproxy.conf\n"
      "  150 root     1100 S    rmt_qcsmngr\n");
  mod_processStatusText(ps.get(), text, sizeof text);
  EXPECT_STREQ(text, "1|1|0|0|1|0|0|1");
  mod_processStatusText(nullptr, text, sizeof text);
  EXPECT_STREQ(text, "0|0|0|0|0|0|0|0");
}

TEST(ConnectionStatus, FirstEntriesAndColumnSumsOfAtMostFourRows) {
  const std::string header =
      "entries  searched found new invalid ignore delete delete_list insert insert_failed drop "
      "early_drop icmp_error  expect_new expect_create expect_delete search_restart\n";
  char text[512];
  File two = Sample(header +
                    "0000002a  00000001 00000002 00000003 00000004 00000005 00000006 00000007 "
                    "00000008 00000009 0000000a 0000000b 0000000c  0000000d 0000000e 0000000f "
                    "00000010\n"
                    "0000002b  00000010 00000020 00000030 00000040 00000050 00000060 00000070 "
                    "00000080 00000090 000000a0 000000b0 000000c0  000000d0 000000e0 000000f0 "
                    "ffffffff\n");
  ASSERT_EQ(mod_connectionStatusText(two.get(), text, sizeof text), 1);
  // Column 17 (search_restart) is read but not reported.
  EXPECT_STREQ(text, "42|17|34|51|68|85|102|119|136|153|170|187|204|221|238|255");

  std::string rows;
  for (int i = 0; i < 6; ++i) rows += "00000005 80000000 1\n";
  mod_connectionStatusText(Sample(header + rows + "garbage\n").get(), text, sizeof text);
  // Four rows only; their sum wraps past 2^32 and prints as signed.
  EXPECT_STREQ(text, "5|0|4|0|0|0|0|0|0|0|0|0|0|0|0|0");
  // A row that does not parse counts as zeros.
  mod_connectionStatusText(Sample("garbage line\n00000007\n").get(), text, sizeof text);
  EXPECT_STREQ(text, "0|0|0|0|0|0|0|0|0|0|0|0|0|0|0|0");
  EXPECT_EQ(mod_connectionStatusText(nullptr, text, sizeof text), 0);
}

TEST(PacketCounter, GroupsInPvcOrderWithTransmitBeforeReceive) {
  tcapi_set("DeviceInfo_PVC0", "WanIP", "203.0.113.2");
  tcapi_set("DeviceInfo_PVC2", "WanIP", "a-value-longer-than-19-characters");
  tcapi_unset("DeviceInfo_PVC1", "WanIP");
  char text[512];
  // The target's lines: 11 receive counters, then 11 transmit counters.
  File dev = Sample(
      "Inter-|   Receive                                                |  Transmit\n"
      " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs "
      "drop fifo colls carrier compressed\n"
      "    lo:  100 1 0 0 0 0 0 0 0 0 0  100 1 0 0 0 0 0 0 0 0 0\n"
      "  ppp0: 5000000000 3000000000 7 8 0 0 0 0 0 0 0 900 20 30 40 0 0 0 0 0 0 0\n"
      "  nas1: 1 11 12 13 0 0 0 0 0 0 0 1 21 22 23 0 0 0 0 0 0 0\n");
  ASSERT_EQ(mod_packetCounterText(dev.get(), text, sizeof text), 1);
  // ppp0's received packets are past 2^31: kept in 32 bits as the target's
  // counters are. No nas2 line: its six values are 0.
  EXPECT_STREQ(text,
               "203.0.113.2|20|40|30|-1294967296|8|7|a-value-longer-than|0|0|0|0|0|0|N/A|21|23|22|"
               "11|13|12");
  EXPECT_EQ(mod_packetCounterText(nullptr, text, sizeof text), 0);
}

// The general status text from samples of the three files ("" for a missing
// file).
std::string General(const std::string& uptime, const std::string& meminfo,
                    const std::string& stat) {
  File up = Sample(uptime), mem = Sample(meminfo), cpu = Sample(stat);
  char text[512];
  mod_generalStatusText(uptime.empty() ? nullptr : up.get(), meminfo.empty() ? nullptr : mem.get(),
                        stat.empty() ? nullptr : cpu.get(), text, sizeof text);
  return text;
}

TEST(GeneralStatus, CpuMemoryAndUptimeFromTheLastSample) {
  old_total = 0;
  old_idle = 0;
  // 124 of 300 in memory: 41.33 in floating point, 41.0 in integers.
  const std::string meminfo =
      "MemTotal:         300000 kB\nMemFree:           90000 kB\nBuffers:           10000 kB\n"
      "Cached:            24000 kB\nSwapCached:        99999 kB\n";
  EXPECT_EQ(General("100.25 50.00\n312.50 100.00\n", meminfo, "cpu  100 0 100 800 0 0 0 0 0 0\n"),
            "20.0|41.3|312.50");                                                      // since boot
  EXPECT_EQ(General("", "", "cpu  100 0 100 1800 0 0 0 0 0 0\n"), "0.0|0.0|0.00");    // idle
  EXPECT_EQ(General("", "", "cpu  400 0 100 1800 0 0 0 0 0 0\n"), "100.0|0.0|0.00");  // busy
  // 2 of 3 busy: 100 - 100 / 3 with the division truncated, 67 (66.7 in
  // floating point).
  EXPECT_EQ(General("", "", "cpu  400 0 102 1801 0 0 0 0 0 0\n"), "67.0|0.0|0.00");
  // No time has passed; no total memory.
  EXPECT_EQ(General("", "MemFree: 5 kB\n", "cpu  400 0 102 1801 0 0 0 0 0 0\n"), "0.0|0.0|0.00");
  // Not a cpu line: read as a missing file, the stored counters stay.
  EXPECT_EQ(General("", "", "intr 12345\n"), "0.0|0.0|0.00");
  EXPECT_EQ(old_total, 2303u);
  EXPECT_EQ(old_idle, 1801u);
}

}  // namespace
