// A datagram on the command socket, as the command loop takes it:
// wdmsg_receive with the loop's 500-byte length word, then the dispatch. Every
// module has a channel here; what a command sends to them, to the query
// reply socket and to sngReload is checked against the command.
#define main watchdogd_main
#include "../../src/daemon/wd_main.cpp"
#undef main

#include <sys/socket.h>

#include "fuzz_util.h"

namespace {

int gCmd[2];  // the command socket: [0] sends, [1] is what the loop reads
int gReply;   // bound at WD_RESULT_SOCK_PATH

void SetUp() {
  wd_initSubModData();
  snprintf(gSubMod[MOD_MSG_RESEND].chanlPath, WD_CHANL_PATH_SIZE, "/var/wd_msg_resend.chanl");
  for (int id = 0; id < WD_MOD_NUM; ++id) FUZZ_CHECK(wd_estFdChanl(id) > 0);
  FUZZ_CHECK(socketpair(AF_UNIX, SOCK_DGRAM, 0, gCmd) == 0);
  int big = 1 << 20;
  setsockopt(gCmd[0], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
  sockaddr_un addr;
  gReply = WDSockInit(WD_RESULT_SOCK_PATH, &addr);
  FUZZ_CHECK(gReply >= 0);
}

// Everything waiting on `fd`, one string per datagram.
std::vector<std::string> Drain(int fd) {
  std::vector<std::string> got;
  static char buf[WD_MSG_SIZE + 1];
  ssize_t n;
  while ((n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) >= 0) got.emplace_back(buf, n);
  return got;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool ready = (SetUp(), true);
  (void)ready;
  size = size < 65536 ? size : 65536;  // beyond the socket's datagram size
  FUZZ_CHECK(send(gCmd[0], data, size, 0) == static_cast<ssize_t>(size));

  // The command loop's body.
  int recvLen = kCmdRecvLen;
  sockaddr_un from;
  wdCmdMsg* msg = static_cast<wdCmdMsg*>(calloc(1, sizeof(wdCmdMsg)));
  int result = wdmsg_receive(gCmd[1], &msg, &recvLen, &from);
  wdCmdMsg head = *msg;  // as received; the dispatch may change it
  std::string body(reinterpret_cast<const char*>(data) + 16, size > 16 ? size - 16 : 0);
  if (result == 0) DispatchCommand(msg);
  free(msg);

  size_t taken = size < 500 ? size : 500;
  int expected = size < 16 ? 1 : 16 + static_cast<uint64_t>(head.dataLength) > taken ? 2 : 0;
  FUZZ_CHECK(result == expected);

  // Which module gets what: the event, and the data record with its length.
  int dest = -1, event = 0;
  unsigned want = 0;
  uint32_t type = result == 0 ? head.signaltype : 0;
  bool toModule = head.sequenceNumber < WD_MOD_NUM;
  if ((type == 1 || type == 3 || (type >= 5 && type <= 8)) && toModule) {
    static const int kEvent[] = {0,
                                 CONFIG_CHANGE,
                                 0,
                                 THREAD_EXIT,
                                 0,
                                 GET_INFORM,
                                 GET_INFORM_RESPONSE,
                                 CR_NAME_CHANGE,
                                 NAME_CHANGE};
    dest = head.sequenceNumber;
    event = kEvent[type];
  } else if (type == 4 && head.wordData == 1 && head.dataLength >= 2 &&
             (head.sequenceNumber == MOD_VOIP_STATS || head.sequenceNumber == MOD_VOIP_REGISTER)) {
    dest = head.sequenceNumber;
    event = RECEIVE_FROM;
    want = dest == MOD_VOIP_STATS ? 92 : 8;
  } else if (type == 10) {
    dest = MOD_MONITOR;
    event = MONITOR_DATA;
    want = 8;
  }
  for (int id = 0; id < WD_MOD_NUM; ++id) {
    std::vector<std::string> got = Drain(gSubMod[id].fd);
    FUZZ_CHECK(got.size() == (id == dest ? 1u : 0u));
    if (id != dest) continue;
    wdMsg m;
    FUZZ_CHECK(got[0].size() == sizeof m);
    memcpy(&m, got[0].data(), sizeof m);
    FUZZ_CHECK(m.eventType == event && m.destMod == dest && m.datalen == want);
    std::string record = body.substr(0, want < head.dataLength ? want : head.dataLength);
    record.resize(want, '\0');  // what the command lacks comes as zeros
    FUZZ_CHECK(memcmp(m.data, record.data(), want) == 0);
  }

  // A query is answered "not running" (no module thread runs here).
  std::vector<std::string> replies = Drain(gReply);
  FUZZ_CHECK(replies.size() == (type == 4 && head.wordData == 0 ? 1u : 0u));
  if (!replies.empty()) {
    wdCmdMsg r;
    FUZZ_CHECK(replies[0].size() == sizeof r);
    memcpy(&r, replies[0].data(), sizeof r);
    FUZZ_CHECK(r.signaltype == 4 && r.sequenceNumber == head.sequenceNumber &&
               r.wordData == WD_QUERY_NOT_RUNNING && r.dataLength == 0);
  }
  FUZZ_CHECK(sngReload.exchange(0) == (type == 11 || type == 12 ? 1 : 0));
  return 0;
}
