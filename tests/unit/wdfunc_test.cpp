// The watchdog function library: command datagrams across the socket, the
// feature switch and the process lookup.
#include "libwdfunc.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "tcapi.h"

namespace {

class WdfuncTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fd_ = WDSockInit("/tmp/wdfunc_test_sock", &addr_);
    ASSERT_GE(fd_, 0);
  }
  void TearDown() override { close(fd_); }

  void SendBytes(const std::vector<unsigned char>& bytes) {
    int s = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(
        sendto(s, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&addr_), sizeof addr_),
        static_cast<ssize_t>(bytes.size()));
    close(s);
  }

  static std::vector<unsigned char> Command(uint32_t type, uint16_t mod, uint32_t word,
                                            uint32_t dataLength, size_t dataSent) {
    wdCmdMsg head = {type, mod, 0, word, dataLength};
    std::vector<unsigned char> bytes(sizeof head + dataSent);
    memcpy(bytes.data(), &head, sizeof head);
    for (size_t i = 0; i < dataSent; ++i) bytes[sizeof head + i] = static_cast<unsigned char>(i);
    return bytes;
  }

  int Receive(wdCmdMsg** msg) {
    *msg = static_cast<wdCmdMsg*>(calloc(1, sizeof(wdCmdMsg)));
    int len = 500;
    sockaddr_un from;
    return wdmsg_receive(fd_, msg, &len, &from);
  }

  int fd_ = -1;
  sockaddr_un addr_;
};

TEST_F(WdfuncTest, WholeCommandArrivesWithItsData) {
  SendBytes(Command(MSG_QORVWATCHDOG_QUERY, 7, 1, 92, 92));
  wdCmdMsg* msg = nullptr;
  ASSERT_EQ(Receive(&msg), 0);
  EXPECT_EQ(msg->signaltype, 4u);
  EXPECT_EQ(msg->sequenceNumber, 7u);
  EXPECT_EQ(msg->wordData, 1u);
  EXPECT_EQ(msg->dataLength, 92u);
  EXPECT_EQ(wdCmdData(msg)[91], 91);
  free(msg);
}

TEST_F(WdfuncTest, IncompleteDatagramsGivePositiveResults) {
  struct Case {
    std::vector<unsigned char> bytes;
    int result;
  } cases[] = {
      {{}, WDMSG_SHORT_HEADER},
      {{1, 2, 3, 4, 5}, WDMSG_SHORT_HEADER},
      {std::vector<unsigned char>(15, 0), WDMSG_SHORT_HEADER},
      {Command(10, 10, 0, 8, 4), WDMSG_SHORT_DATA},
      {Command(10, 10, 0, 0xFFFFFFFFu, 8), WDMSG_SHORT_DATA},
      {Command(10, 10, 0, 600, 600), WDMSG_SHORT_DATA},  // beyond the 500-byte buffer
      {Command(10, 10, 0, 4, 8), 0},                     // extra bytes are ignored
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes.size());
    SendBytes(c.bytes);
    wdCmdMsg* msg = nullptr;
    EXPECT_EQ(Receive(&msg), c.result);
    free(msg);
  }
}

TEST_F(WdfuncTest, SendSigToAppSendsHeaderAndData) {
  std::vector<unsigned char> bytes = Command(MSG_QORVWATCHDOG_MONITOR_DATA, 3, 0, 8, 8);
  EXPECT_EQ(SendSigToApp("/tmp/wdfunc_test_sock", reinterpret_cast<wdCmdMsg*>(bytes.data())), 24);
  unsigned char buf[64];
  EXPECT_EQ(recv(fd_, buf, sizeof buf, 0), 24);
  EXPECT_EQ(memcmp(buf, bytes.data(), 24), 0);
  EXPECT_EQ(SendSigToApp("/tmp/nobody_listens_here", reinterpret_cast<wdCmdMsg*>(bytes.data())),
            -1);
}

TEST(WdSockInit, FailsWhereNoSocketCanBeBound) {
  sockaddr_un addr;
  EXPECT_EQ(WDSockInit("/no/such/dir/sock", &addr), -1);
  std::string tooLong(200, 'x');
  EXPECT_EQ(WDSockInit(tooLong.c_str(), &addr), -1);
}

TEST(WdIsWdEnable, OnlyExactlyOne) {
  unlink(TCAPI_TREE_PATH);
  EXPECT_EQ(wd_isWdEnable(), 0);
  for (const char* v : {"0", "", "11", "1 ", "yes"}) {
    tcapi_set("Watchdog_Common", "Enable", v);
    EXPECT_EQ(wd_isWdEnable(), 0) << v;
  }
  tcapi_set("Watchdog_Common", "Enable", "1");
  EXPECT_NE(wd_isWdEnable(), 0);
}

TEST(GetProcessStatus, MatchesTheProcessName) {
  char comm[64] = {0};
  FILE* f = fopen("/proc/self/comm", "r");
  ASSERT_NE(f, nullptr);
  ASSERT_NE(fgets(comm, sizeof comm, f), nullptr);
  fclose(f);
  comm[strcspn(comm, "\n")] = '\0';
  EXPECT_EQ(getProcessStatus(comm), 1);
  EXPECT_EQ(getProcessStatus("no_such_process_x"), 0);
  EXPECT_EQ(getProcessStatus(""), 0);
}

}  // namespace
