// The core: module channels and sending, number parsing, and the programs
// the daemon starts.

#include "wd_base.h"
#include "wd_chanl.h"
#include "wd_proc.h"

#include "unit_util.h"

namespace {

constexpr int kMod = MOD_SAMPLE;

class ChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    snprintf(gSubMod[kMod].chanlPath, WD_CHANL_PATH_SIZE, "/var/wd_smple.chanl");
    ASSERT_EQ(wd_chanlOpen(kMod, &ch_), 0);
  }
  void TearDown() override { wd_chanlClose(&ch_); }
  wdChanl ch_;
};

TEST_F(ChannelTest, EventsArriveAsWholeRecordsWithTheirPayloadRules) {
  EXPECT_EQ(gSubMod[kMod].fd, ch_.fd) << "published once bound";
  std::vector<char> payload(8000, 'p');
  struct Case {
    const char* data;
    unsigned len;
    uint8_t datalen;  // 0: not carried
  } cases[] = {{nullptr, 0, 0},
               {payload.data(), 8, 8},
               {payload.data(), 255, 255},
               {payload.data(), 1999, 255},
               {payload.data(), 2000, 0},
               {nullptr, 10, 0}};
  for (const Case& c : cases) {
    ASSERT_EQ(wd_simpleSendMsg(RECEIVE_FROM, 0, kMod, c.data, c.len), WD_MSG_SIZE);
    wdMsg msg;
    ASSERT_EQ(recv(ch_.fd, &msg, sizeof msg + 1, MSG_DONTWAIT), WD_MSG_SIZE);
    EXPECT_EQ(std::vector<int>({msg.eventType, msg.srcMod, msg.destMod, msg.datalen}),
              std::vector<int>({RECEIVE_FROM, 0, kMod, c.datalen}))
        << c.len;
    size_t carried = c.datalen ? c.len : 0;
    EXPECT_EQ(std::string(msg.data, sizeof msg.data),
              std::string(carried, 'p') + std::string(sizeof msg.data - carried, '\0'));
  }
  EXPECT_EQ(wd_simpleSendMsg(CONFIG_CHANGE, 0, WD_MOD_NUM, nullptr, 0), -1);
  EXPECT_EQ(wd_simpleSendMsg(CONFIG_CHANGE, 0, MOD_ARP, nullptr, 0), -1) << "no channel";

  testing::internal::CaptureStderr();
  int sent = 0;
  while (wd_simpleSendMsg(TIMER_EXPIRED, 0, kMod, nullptr, 0) == WD_MSG_SIZE)
    ASSERT_LT(++sent, 10000);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "wd_simpleSendMsg: event 1 for module 11 dropped, its queue is full\n")
      << "a full queue drops the event instead of waiting";
}

TEST_F(ChannelTest, ALaterChannelOfTheModuleIsNeverUndoneByTheEarlierOne) {
  wdChanl later;
  ASSERT_EQ(wd_chanlOpen(kMod, &later), 0);
  wd_chanlClose(&ch_);  // the earlier thread ends
  EXPECT_EQ(gSubMod[kMod].fd, later.fd);
  ASSERT_EQ(wd_simpleSendMsg(NAME_CHANGE, 0, kMod, nullptr, 0), WD_MSG_SIZE);
  wdMsg msg;
  EXPECT_EQ(recv(later.fd, &msg, sizeof msg, MSG_DONTWAIT), WD_MSG_SIZE);
  wd_chanlClose(&later);
  EXPECT_EQ(gSubMod[kMod].fd, 0);
  EXPECT_NE(access("/var/wd_smple.chanl", F_OK), 0) << "the path goes with its channel";

  snprintf(gSubMod[kMod].chanlPath, WD_CHANL_PATH_SIZE, "/var/no/such/dir/x.chanl");
  testing::internal::CaptureStderr();
  ASSERT_EQ(wd_chanlOpen(kMod, &ch_), 0) << "a socket that cannot bind is kept";
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "gModule#11#, Port is currently being used by some other application \n");
}

TEST(Numbers, OutsideNumbersAreRangeChecked) {
  EXPECT_EQ(wd_parseUnsigned("99999999999999999999"), 4294967295u);
  EXPECT_EQ(wd_periodMs(4294967295u), 2147483000);
  long v = 0;
  const char* text = " 42#7";
  EXPECT_EQ(wd_parseLong(&text, 0, 100, &v), 1);
  EXPECT_EQ(v, 42);
  EXPECT_STREQ(text, "#7");
  for (const char* bad : {"", "x1", "101", "-1", "99999999999999999999999"}) {
    EXPECT_EQ(wd_parseLong(&(text = bad), 0, 100, &v), 0) << bad;
  }
}

}  // namespace
