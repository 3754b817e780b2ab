// Report lines and the device identity read from the MRD record.
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "wd_buffer.h"
#include "wd_common.h"

#include "unit_util.h"

namespace {

class SyslogLineTest : public ::testing::Test {
 protected:
  void TearDown() override { debuglevel = 0; }
  std::string Tail() { return list_.tail ? list_.tail->obj->msg : ""; }

  ScopedBuffer buffer_;
  wdBufList& list_ = buffer_.list;
};

TEST_F(SyslogLineTest, IdentityStartsEmptyAndComesFromTheMrdRecord) {
  EXPECT_STREQ(macAddr, "");
  wd_syslogStr(6, "before");  // an empty identity does not trigger a read
  EXPECT_EQ(Tail().rfind("my.app.wd.ppp.: ", 0), 0u) << Tail();
  EXPECT_EQ(wd_initData(), 1);
  EXPECT_STREQ(macAddr, "0a1b2c3d4e5f");
}

TEST_F(SyslogLineTest, LineForms) {
  wd_initData();
  long long before = time(nullptr);
  ASSERT_EQ(wd_syslogStr(6, "PPP_DOWN_RESET|UP|1.2.3.4|"), 0);
  long long after = time(nullptr);
  std::string line = Tail();
  const std::string prefix = "my.app.wd.ppp.0a1b2c3d4e5f: ";
  ASSERT_EQ(line.rfind(prefix, 0), 0u) << line;
  size_t bar = line.find('|');
  long long stamp = std::stoll(line.substr(prefix.size(), bar - prefix.size()));
  EXPECT_GE(stamp, before);
  EXPECT_LE(stamp, after);
  EXPECT_EQ(line.substr(bar + 1), "PPP_DOWN_RESET|UP|1.2.3.4|");
  EXPECT_EQ(list_.tail->obj->category, 6u);

  wd_syslogStr(11, "abc");
  EXPECT_EQ(Tail(), "my.app.wd.voipstat.0a1b2c3d4e5f: abc");
  wd_syslogStr(17, "x");
  EXPECT_EQ(Tail().rfind("my.app.wd..0a1b2c3d4e5f: ", 0), 0u) << Tail();
  wd_syslogStr(10, "x");
  EXPECT_EQ(Tail().rfind("my.app.wd.ps.", 0), 0u);
  wd_syslogStr(14, "x");
  EXPECT_EQ(Tail().rfind("my.app.wd.ps.", 0), 0u);
  const char* names[] = {"infgen",  "infcxn", "infprc", "infcnt",   "infcnx", "shell",
                         "ppp",     "arp",    "rip",    "igmp",     "ps",     "voipstat",
                         "voipreg", "tr069",  "ps",     "internal", "route"};
  for (uint32_t c = 0; c <= 16; ++c) {
    if (c == 6) continue;  // ppp lines stand at the front
    wd_syslogStr(c, "t");
    EXPECT_EQ(Tail().rfind(std::string("my.app.wd.") + names[c] + ".0a1b2c3d4e5f: ", 0), 0u) << c;
  }
  wd_syslogStr(4000000000u, nullptr);
  EXPECT_EQ(Tail().rfind("my.app.wd..0a1b2c3d4e5f: ", 0), 0u);
}

TEST_F(SyslogLineTest, LongTextIsCutTo511Characters) {
  wd_initData();
  std::string text(600, 'z');
  EXPECT_EQ(wd_syslogStr(3, text.c_str()), 0);
  EXPECT_EQ(Tail().size(), 511u);
  EXPECT_EQ(wd_syslogStr(11, text.c_str()), 0);
  EXPECT_EQ(Tail().size(), 511u);
}

TEST_F(SyslogLineTest, RefusalIsPassedBack) {
  wd_initData();
  pppMsgNum = 16;
  EXPECT_EQ(wd_syslogStr(6, "refused"), -1);
  pppMsgNum = 0;
}

TEST_F(SyslogLineTest, LineIsTracedInDebugMode) {
  wd_initData();
  truncate("/dev/console", 0);
  debuglevel = 1;
  wd_syslogStr(16, "route table");
  std::ifstream in("/dev/console");
  std::string console((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(console.find("Function:wd_syslogStr Line="), std::string::npos);
  EXPECT_NE(console.find("my.app.wd.route.0a1b2c3d4e5f: "), std::string::npos) << console;
}

TEST_F(SyslogLineTest, ShortRecordFailsAndEveryReportRetriesUntilItReads) {
  // A flash device too short for the record.
  ASSERT_EQ(truncate("/dev/mtd0", 0x1FF00 + 100), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(wd_initData(), 0);
  EXPECT_STREQ(macAddr, "000000000000");
  wd_syslogStr(3, "one");
  wd_syslogStr(3, "two");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "read mtd device (MRD) error!!\nFail to get MRD information!\n"
            "read mtd device (MRD) error!!\nFail to get MRD information!\n"
            "read mtd device (MRD) error!!\nFail to get MRD information!\n");
  EXPECT_EQ(Tail().rfind("my.app.wd.infcnt.000000000000: ", 0), 0u);

  // The record comes back: the next report reads it, and it stays.
  ASSERT_EQ(truncate("/dev/mtd0", 0x20000), 0);
  {
    std::fstream mtd("/dev/mtd0", std::ios::in | std::ios::out | std::ios::binary);
    mtd.seekp(0x1FF48);
    mtd.write("\x0a\x1b\x2c\x3d\x4e\x5f", 6);
  }
  testing::internal::CaptureStderr();
  wd_syslogStr(3, "three");
  ASSERT_EQ(truncate("/dev/mtd0", 0), 0);
  wd_syslogStr(3, "four");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(Tail().rfind("my.app.wd.infcnt.0a1b2c3d4e5f: ", 0), 0u);
}

}  // namespace
