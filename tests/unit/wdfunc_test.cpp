// The watchdog function library: command datagrams across the socket, the
// feature switch and the process lookup.
#include "libwdfunc.h"

#include "unit_util.h"

namespace {

std::vector<unsigned char> Command(uint32_t dataLength, size_t dataSent) {
  wdCmdMsg head = {MSG_QORVWATCHDOG_QUERY, 7, 0, 1, dataLength};
  std::vector<unsigned char> bytes(sizeof head + dataSent);
  memcpy(bytes.data(), &head, sizeof head);
  for (size_t i = 0; i < dataSent; ++i) bytes[sizeof head + i] = static_cast<unsigned char>(i);
  return bytes;
}

TEST(Wdfunc, CommandsArriveWholeOrAsAPositiveResult) {
  sockaddr_un addr;
  int fd = WDSockInit("/tmp/wdfunc_test_sock", &addr);
  ASSERT_GE(fd, 0);
  struct Case {
    std::vector<unsigned char> bytes;
    int result;
  } cases[] = {
      {Command(92, 92), 0},
      {{}, WDMSG_SHORT_HEADER},
      {std::vector<unsigned char>(15), WDMSG_SHORT_HEADER},
      {Command(8, 4), WDMSG_SHORT_DATA},
      {Command(0xFFFFFFFFu, 8), WDMSG_SHORT_DATA},
      {Command(600, 600), WDMSG_SHORT_DATA},  // beyond the 500-byte buffer
      {Command(4, 8), 0},                     // extra bytes are ignored
  };
  for (const Case& c : cases) {
    int s = socket(AF_UNIX, SOCK_DGRAM, 0);
    sendto(s, c.bytes.data(), c.bytes.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    close(s);
    int len = 500;
    wdCmdMsg* msg = static_cast<wdCmdMsg*>(calloc(1, sizeof(wdCmdMsg)));
    EXPECT_EQ(wdmsg_receive(fd, &msg, &len, nullptr), c.result) << c.bytes.size();
    if (c.result == 0) {
      EXPECT_EQ(wdCmdData(msg)[3], 3);
    }
    free(msg);
  }
  close(fd);
  EXPECT_EQ(WDSockInit("/no/such/dir/sock", &addr), -1);
}

TEST(Wdfunc, FeatureSwitchAndProcessLookup) {
  unlink(TCAPI_TREE_PATH);
  EXPECT_EQ(wd_isWdEnable(), 0);
  for (const char* v : {"0", "", "11", "1 "}) {
    tcapi_set("Watchdog_Common", "Enable", v);
    EXPECT_EQ(wd_isWdEnable(), 0) << v;
  }
  tcapi_set("Watchdog_Common", "Enable", "1");
  EXPECT_NE(wd_isWdEnable(), 0);
  char comm[64] = {0};
  FILE* f = fopen("/proc/self/comm", "r");
  ASSERT_NE(fgets(comm, sizeof comm, f), nullptr);
  fclose(f);
  comm[strcspn(comm, "\n")] = '\0';
  EXPECT_EQ(getProcessStatus(comm), 1);
  EXPECT_EQ(getProcessStatus("no_such_process_x"), 0);
}

}  // namespace
