// Module channels and wd_simpleSendMsg: what arrives, and what is refused.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "wd_common.h"

namespace {

constexpr int kMod = MOD_SAMPLE;

class ChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    snprintf(gSubMod[kMod].chanlPath, WD_CHANL_PATH_SIZE, "/var/wd_smple.chanl");
    gSubMod[kMod].fd = 0;
  }
  void TearDown() override {
    int fd = gSubMod[kMod].fd;
    if (fd > 0) close(fd);
    gSubMod[kMod].fd = 0;
    debuglevel = 0;
  }

  // Receives one datagram from the module's channel without blocking.
  ssize_t Receive(std::vector<unsigned char>* out) {
    out->assign(WD_MSG_SIZE + 100, 0xAA);
    ssize_t n = recv(gSubMod[kMod].fd, out->data(), out->size(), MSG_DONTWAIT);
    if (n >= 0) out->resize(static_cast<size_t>(n));
    return n;
  }

  static wdMsg AsMsg(const std::vector<unsigned char>& bytes) {
    wdMsg msg;
    memcpy(&msg, bytes.data(), sizeof msg);
    return msg;
  }

  static bool AllZero(const char* p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
      if (p[i] != 0) return false;
    }
    return true;
  }
};

TEST_F(ChannelTest, SendDeliversOneWholeRecordToTheModule) {
  ASSERT_GT(wd_estFdChanl(kMod), 0);
  EXPECT_EQ(wd_simpleSendMsg(TIMER_EXPIRED, 0, kMod, nullptr, 0), WD_MSG_SIZE);

  std::vector<unsigned char> bytes;
  ASSERT_EQ(Receive(&bytes), WD_MSG_SIZE);
  wdMsg msg = AsMsg(bytes);
  EXPECT_EQ(msg.eventType, TIMER_EXPIRED);
  EXPECT_EQ(msg.srcMod, 0);
  EXPECT_EQ(msg.destMod, kMod);
  EXPECT_EQ(msg.datalen, 0);
  EXPECT_TRUE(AllZero(msg.data, sizeof msg.data));
  EXPECT_LT(Receive(&bytes), 0) << "exactly one datagram";
}

TEST_F(ChannelTest, PayloadRules) {
  ASSERT_GT(wd_estFdChanl(kMod), 0);
  struct Case {
    unsigned len;
    bool carried;
    uint8_t datalen;
  } cases[] = {{1, true, 1},     {8, true, 8},      {92, true, 92},   {255, true, 255},
               {256, true, 255}, {1999, true, 255}, {2000, false, 0}, {8000, false, 0}};
  std::vector<char> payload(8000);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>('a' + i % 26);
  for (const Case& c : cases) {
    SCOPED_TRACE("payload of " + std::to_string(c.len) + " bytes");
    ASSERT_EQ(wd_simpleSendMsg(RECEIVE_FROM, 0, kMod, payload.data(), c.len), WD_MSG_SIZE);
    std::vector<unsigned char> bytes;
    ASSERT_EQ(Receive(&bytes), WD_MSG_SIZE);
    wdMsg msg = AsMsg(bytes);
    EXPECT_EQ(msg.datalen, c.datalen);
    if (c.carried) {
      EXPECT_EQ(memcmp(msg.data, payload.data(), c.len), 0);
      EXPECT_TRUE(AllZero(msg.data + c.len, sizeof msg.data - c.len));
    } else {
      EXPECT_TRUE(AllZero(msg.data, sizeof msg.data));
    }
  }
  // A given pointer with length 0 and a null pointer with a length carry nothing.
  ASSERT_EQ(wd_simpleSendMsg(RECEIVE_FROM, 0, kMod, payload.data(), 0), WD_MSG_SIZE);
  ASSERT_EQ(wd_simpleSendMsg(RECEIVE_FROM, 0, kMod, nullptr, 10), WD_MSG_SIZE);
  for (int i = 0; i < 2; ++i) {
    std::vector<unsigned char> bytes;
    ASSERT_EQ(Receive(&bytes), WD_MSG_SIZE);
    wdMsg msg = AsMsg(bytes);
    EXPECT_EQ(msg.datalen, 0);
    EXPECT_TRUE(AllZero(msg.data, sizeof msg.data));
  }
}

TEST_F(ChannelTest, SendWithoutChannelOrToUnknownModuleFails) {
  EXPECT_EQ(gSubMod[kMod].fd, 0);
  EXPECT_EQ(wd_simpleSendMsg(CONFIG_CHANGE, 0, kMod, nullptr, 0), -1);
  EXPECT_EQ(wd_simpleSendMsg(CONFIG_CHANGE, 0, WD_MOD_NUM, nullptr, 0), -1);
  EXPECT_EQ(wd_simpleSendMsg(CONFIG_CHANGE, 0, -1, nullptr, 0), -1);
}

TEST_F(ChannelTest, ChannelMadeTwiceRebindsQuietlyAndMaxNumFdNeverFalls) {
  testing::internal::CaptureStderr();
  int first = wd_estFdChanl(kMod);
  ASSERT_GT(first, 0);
  int high = maxNumFd;
  EXPECT_GE(high, first);
  int second = wd_estFdChanl(kMod);  // the first socket stays open: a higher descriptor
  ASSERT_GT(second, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_GE(maxNumFd, second);
  close(first);
  close(second);
  gSubMod[kMod].fd = 0;
  int third = wd_estFdChanl(kMod);  // reuses a lower descriptor
  EXPECT_LT(third, second);
  EXPECT_GE(maxNumFd, second) << "maxNumFd is never lowered";

  // The rebound channel receives.
  ASSERT_EQ(wd_simpleSendMsg(NAME_CHANGE, 0, kMod, nullptr, 0), WD_MSG_SIZE);
  std::vector<unsigned char> bytes;
  EXPECT_EQ(Receive(&bytes), WD_MSG_SIZE);
}

TEST_F(ChannelTest, BindFailureIsReportedAndTheSocketKept) {
  snprintf(gSubMod[kMod].chanlPath, WD_CHANL_PATH_SIZE, "/var/no/such/dir/x.chanl");
  testing::internal::CaptureStderr();
  int fd = wd_estFdChanl(kMod);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_GT(fd, 0);
  EXPECT_EQ(gSubMod[kMod].fd, fd);
  EXPECT_EQ(err, "gModule#11#, Port is currently being used by some other application \n");
}

std::string ReadConsole() {
  std::ifstream in("/dev/console");
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

TEST_F(ChannelTest, SendIsTracedOnTheConsoleOnlyInDebugMode) {
  ASSERT_GT(wd_estFdChanl(kMod), 0);
  size_t before = ReadConsole().size();
  wd_simpleSendMsg(TIMER_EXPIRED, 0, kMod, nullptr, 0);
  EXPECT_EQ(ReadConsole().size(), before) << "no trace at debug level 0";

  debuglevel = 1;
  wd_simpleSendMsg(TIMER_EXPIRED, 0, kMod, nullptr, 0);
  std::string text = ReadConsole().substr(before);
  EXPECT_NE(text.find("Function:wd_simpleSendMsg Line="), std::string::npos) << text;
  EXPECT_NE(text.find("start to send eventType=1 destMod=11"), std::string::npos) << text;
  EXPECT_NE(text.find("send bytesWritten=8016"), std::string::npos) << text;
}

}  // namespace
