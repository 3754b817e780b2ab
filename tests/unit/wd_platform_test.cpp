// The facts of the platform the records depend on, for the build's target:
// byte order and the sizes that follow from the word length. On the gateway
// (32-bit big-endian MIPS) and on this machine alike.
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/un.h>
#include <time.h>

#include <thread>

#include "wd_types.h"

namespace {

bool BigEndian() {
  const uint32_t one = 1;
  unsigned char first;
  memcpy(&first, &one, 1);
  return first == 0;
}

TEST(Platform, TargetFacts) {
  printf("target: %s-endian, long %zu, time_t %zu, fd_set %zu, sockaddr_un %zu, pthread_t %zu\n",
         BigEndian() ? "big" : "little", sizeof(long), sizeof(time_t), sizeof(fd_set),
         sizeof(sockaddr_un), sizeof(pthread_t));
  EXPECT_EQ(sizeof(fd_set), 128u);
  EXPECT_EQ(sizeof(sockaddr_un), 110u);
#if defined(__mips__)
  EXPECT_TRUE(BigEndian());
  EXPECT_EQ(sizeof(long), 4u);
  EXPECT_EQ(sizeof(time_t), 4u);
  EXPECT_EQ(sizeof(pthread_t), 4u);
#elif defined(__x86_64__)
  EXPECT_FALSE(BigEndian());
  EXPECT_EQ(sizeof(long), 8u);
  EXPECT_EQ(sizeof(time_t), 8u);
#endif
  bool ran = false;
  std::thread([&ran] { ran = true; }).join();
  EXPECT_TRUE(ran) << "threads start";
}

TEST(Platform, RecordsTravelInHostByteOrder) {
  wdCmdMsg cmd = {MSG_QORVWATCHDOG_QUERY, MOD_VOIP_STATS, 0, 1, 92};
  wdMsg msg;
  memset(&msg, 0, sizeof msg);
  msg.eventType = TX_SAVE_TIMEOUT;
  msg.destMod = MOD_MSG_RESEND;
  unsigned char c[16], m[12];
  memcpy(c, &cmd, sizeof c);
  memcpy(m, &msg, sizeof m);
  if (BigEndian()) {
    const unsigned char want[16] = {0, 0, 0, 4, 0, 7, 0, 0, 0, 0, 0, 1, 0, 0, 0, 92};
    EXPECT_EQ(memcmp(c, want, 16), 0);
    const unsigned char wantMsg[12] = {0, 0, 0, 11, 0, 0, 0, 0, 0, 0, 0, 12};
    EXPECT_EQ(memcmp(m, wantMsg, 12), 0);
  } else {
    const unsigned char want[16] = {4, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 92, 0, 0, 0};
    EXPECT_EQ(memcmp(c, want, 16), 0);
    const unsigned char wantMsg[12] = {11, 0, 0, 0, 0, 0, 0, 0, 12, 0, 0, 0};
    EXPECT_EQ(memcmp(m, wantMsg, 12), 0);
  }
}

}  // namespace
