// The records as bytes: what another process (or the wire) sees.
#include <gtest/gtest.h>
#include <string.h>

#include "wd_types.h"

namespace {

template <typename T>
void PutAt(unsigned char* bytes, size_t offset, T value) {
  memcpy(bytes + offset, &value, sizeof value);  // host byte order, as the peers write it
}

TEST(Records, CommandHeaderFieldsSitAtTheirOffsets) {
  unsigned char bytes[16] = {0};
  PutAt<uint32_t>(bytes, 0, 0x01020304u);
  PutAt<uint16_t>(bytes, 4, 0x0506u);
  bytes[6] = 0xEE;  // padding: never read
  bytes[7] = 0xEE;
  PutAt<uint32_t>(bytes, 8, 0x0708090Au);
  PutAt<uint32_t>(bytes, 12, 0x0B0C0D0Eu);
  wdCmdMsg msg;
  memcpy(&msg, bytes, sizeof msg);
  EXPECT_EQ(msg.signaltype, 0x01020304u);
  EXPECT_EQ(msg.sequenceNumber, 0x0506u);
  EXPECT_EQ(msg.wordData, 0x0708090Au);
  EXPECT_EQ(msg.dataLength, 0x0B0C0D0Eu);
  EXPECT_EQ(wdCmdData(&msg), reinterpret_cast<unsigned char*>(&msg) + 16);
}

TEST(Records, WdMsgFieldsSitAtTheirOffsets) {
  static unsigned char bytes[WD_MSG_SIZE];
  PutAt<int32_t>(bytes, 0, TX_SAVE_TIMEOUT);
  PutAt<int32_t>(bytes, 4, 0);
  PutAt<int32_t>(bytes, 8, MOD_MSG_RESEND);
  memcpy(bytes + 12, "payload", 7);
  bytes[8011] = 'z';  // last data byte
  bytes[8012] = 7;
  static wdMsg msg;
  memcpy(&msg, bytes, sizeof msg);
  EXPECT_EQ(msg.eventType, 11);
  EXPECT_EQ(msg.destMod, 12);
  EXPECT_EQ(memcmp(msg.data, "payload", 7), 0);
  EXPECT_EQ(msg.data[WD_MSG_DATA_SIZE - 1], 'z');
  EXPECT_EQ(msg.datalen, 7);
}

TEST(Records, ModuleTableStartsEmpty) {
  EXPECT_EQ(sizeof gSubMod / sizeof gSubMod[0], 13u);
  for (const wdSubModEntry& e : gSubMod) {
    EXPECT_EQ(e.threadId.load(), pthread_t{});
    EXPECT_EQ(e.fd.load(), 0);
    EXPECT_EQ(e.timer.load(), 0u);
    EXPECT_EQ(e.handler, nullptr);
    EXPECT_EQ(e.chanlPath[0], '\0');
  }
  EXPECT_EQ(maxNumFd.load(), 0);
  EXPECT_EQ(sngReload.load(), 0);
  EXPECT_EQ(debuglevel, 0);
}

}  // namespace
