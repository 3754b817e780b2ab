// A datagram on the command socket, as the command loop takes it:
// wdmsg_receive with the loop's 500-byte length word, then the dispatch. Every
// module has a channel here; what a command sends out is checked for shape.
#include "wd_command.h"

#include <sys/socket.h>

#include "wd_buffer.h"
#include "wd_chanl.h"
#include "wd_modtable.h"
#include "wd_modthread.h"

#include "fuzz_util.h"

namespace {

int gCmd[2];  // the command socket: [0] sends, [1] is what the loop reads
int gReply;   // bound at WD_RESULT_SOCK_PATH

void SetUp() {
  wd_setModTable(kModTable, kModTableCount);
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
  int recvLen = WD_CMD_RECV_LEN;
  sockaddr_un from;
  wdCmdMsg* msg = static_cast<wdCmdMsg*>(calloc(1, sizeof(wdCmdMsg)));
  int result = wdmsg_receive(gCmd[1], &msg, &recvLen, &from);
  wdCmdMsg head = *msg;  // as received; the dispatch may change it
  if (result == 0) wd_dispatchCommand(msg);
  free(msg);

  size_t taken = size < 500 ? size : 500;
  int expected = size < 16 ? 1 : 16 + static_cast<uint64_t>(head.dataLength) > taken ? 2 : 0;
  FUZZ_CHECK(result == expected);

  // At most one datagram goes out, a whole event to the module it names or a
  // "not running" answer to a query (no module thread runs here); which one
  // each command gives is the daemon tests' business.
  size_t sent = 0;
  for (int id = 0; id < WD_MOD_NUM; ++id) {
    for (const std::string& got : Drain(gSubMod[id].fd)) {
      wdMsg m;
      FUZZ_CHECK(got.size() == sizeof m);
      memcpy(&m, got.data(), sizeof m);
      FUZZ_CHECK(m.destMod == id && m.datalen <= 92);
      ++sent;
    }
  }
  for (const std::string& got : Drain(gReply)) {
    wdCmdMsg r;
    FUZZ_CHECK(got.size() == sizeof r);
    memcpy(&r, got.data(), sizeof r);
    FUZZ_CHECK(r.signaltype == 4 && r.wordData == WD_QUERY_NOT_RUNNING && r.dataLength == 0);
    ++sent;
  }
  FUZZ_CHECK(sent <= 1);
  uint32_t type = result == 0 ? head.signaltype : 0;
  FUZZ_CHECK(sngReload.exchange(0) == (type == 11 || type == 12 ? 1 : 0));
  return 0;
}
