// Report lines on a gateway whose flash device cannot be opened.

#include "wd_syslog.h"

#include "unit_util.h"

namespace {

TEST(NoFlashDevice, EveryReportRetriesAndGoesOutWithZeros) {
  ScopedBuffer buffer;
  testing::internal::CaptureStderr();
  EXPECT_EQ(wd_initData(), 0);
  EXPECT_EQ(wd_syslogStr(7, "arp"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "open mtd device (MRD) error!!\nFail to get MRD information!\n"
            "open mtd device (MRD) error!!\nFail to get MRD information!\n");
  EXPECT_EQ(std::string(buffer.list.tail->obj->msg).rfind("my.app.wd.arp.000000000000: ", 0), 0u);
}

}  // namespace
