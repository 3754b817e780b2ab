// Report lines and the device identity read from the MRD record; with
// NoFlashDevice.* on a gateway without /dev/mtd0, with Past2038.* on one whose
// clock starts in 2040 (libfaketime).
#include "wd_syslog.h"
#include "wd_timer.h"

#include "wd_base.h"

#include <sys/types.h>

#include "unit_util.h"

namespace {

class SyslogLineTest : public ::testing::Test {
 protected:
  void TearDown() override { debuglevel = 0; }
  std::string Tail() {
    wdLock lock(&bufMutex);
    return list_.tail ? list_.tail->obj->msg : "";
  }
  static void SetPppLines(int n) {
    wdLock lock(&bufMutex);
    pppMsgNum = n;
  }
  ScopedBuffer buffer_;
  wdBufList& list_ = buffer_.list;
};

TEST_F(SyslogLineTest, LineFormsWithTheIdentityFromTheMrdRecord) {
  wd_syslogStr(3, "before");  // an empty identity does not trigger a read
  EXPECT_EQ(Tail().rfind("my.app.wd.infcnt.: ", 0), 0u) << Tail();
  EXPECT_EQ(wd_initData(), 1);
  // The calendar clock itself: time() may read a coarser clock a tick behind.
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  long long before = ts.tv_sec;
  ASSERT_EQ(wd_syslogStr(16, "route table"), 0);
  clock_gettime(CLOCK_REALTIME, &ts);
  long long after = ts.tv_sec;
  const std::string prefix = "my.app.wd.route.0a1b2c3d4e5f: ";
  ASSERT_EQ(Tail().rfind(prefix, 0), 0u) << Tail();
  long long stamp = std::stoll(Tail().substr(prefix.size()));
  EXPECT_TRUE(stamp >= before && stamp <= after) << stamp;
  EXPECT_EQ(Tail().substr(Tail().find('|')), "|route table");

  wd_syslogStr(11, "abc");
  EXPECT_EQ(Tail(), "my.app.wd.voipstat.0a1b2c3d4e5f: abc") << "no time for VoIP statistics";
  wd_syslogStr(17, "x");
  EXPECT_EQ(Tail().rfind("my.app.wd..0a1b2c3d4e5f: ", 0), 0u) << Tail();
  wd_syslogStr(3, std::string(600, 'z').c_str());
  EXPECT_EQ(Tail().size(), 511u);
  SetPppLines(16);
  EXPECT_EQ(wd_syslogStr(6, "refused"), -1) << "the buffer's refusal is passed back";
  SetPppLines(0);
}

TEST_F(SyslogLineTest, AShortRecordFailsAndEveryReportRetriesUntilItReads) {
  ASSERT_EQ(truncate("/dev/mtd0", 0x1FF00 + 100), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(wd_initData(), 0);
  wd_syslogStr(3, "one");
  EXPECT_EQ(Count(testing::internal::GetCapturedStderr(),
                  "read mtd device (MRD) error!!\nFail to get MRD information!\n"),
            2u);
  EXPECT_EQ(Tail().rfind("my.app.wd.infcnt.000000000000: ", 0), 0u);
  ASSERT_EQ(truncate("/dev/mtd0", 0x20000), 0);
  std::fstream("/dev/mtd0", std::ios::in | std::ios::out | std::ios::binary)
      .seekp(0x1FF48)
      .write("\x0a\x1b\x2c\x3d\x4e\x5f", 6);
  wd_syslogStr(3, "two");
  EXPECT_EQ(Tail().rfind("my.app.wd.infcnt.0a1b2c3d4e5f: ", 0), 0u);
}

TEST(NoFlashDevice, EveryReportRetriesAndGoesOutWithZeros) {
  ScopedBuffer buffer;
  testing::internal::CaptureStderr();
  EXPECT_EQ(wd_initData(), 0);
  EXPECT_EQ(wd_syslogStr(7, "arp"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "open mtd device (MRD) error!!\nFail to get MRD information!\n"
            "open mtd device (MRD) error!!\nFail to get MRD information!\n");
  EXPECT_EQ(buffer.Lines().back().rfind("my.app.wd.arp.000000000000: ", 0), 0u);
}

constexpr int64_t k2040 = 2208988800;  // 2040-01-01 00:00:00 UTC
// Every build, the 32-bit target's too, has the C library's 64-bit times.
static_assert(sizeof(time_t) == 8 && sizeof(off_t) == 8, "64-bit time_t and off_t");

std::atomic<int> gFired{0};
int Fired(int, int) { return gFired++; }

TEST(Past2038, ReportLinesCarryTheTrueSecondsAndTimersStillFire) {
  ScopedBuffer buffer;
  ASSERT_EQ(wd_syslogStr(16, "route"), 0);
  std::string line = buffer.Lines().back();
  long long stamp = std::stoll(line.substr(line.find(": ") + 2));
  EXPECT_TRUE(stamp >= k2040 && stamp < k2040 + 3600) << line;
  wd_timerInit();
  ASSERT_EQ(wd_addTimer(1, 200, Fired, 0), 0);
  ASSERT_EQ(wd_addPTimer(2, 100, Fired, 0), 0);
  EXPECT_TRUE(WaitUntil([] { return gFired >= 4; }));
}

}  // namespace
