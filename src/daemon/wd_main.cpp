// watchdogd entry: start-up in a fixed order, then the command loop that
// serves /tmp/watchdog_sock for the rest of the process's life.
//
// The main thread is the only reader of the command socket; wd_command
// handles each command. While it waits for commands it also sends on the
// events that wait for a full module channel, so that neither it nor the
// timer thread ever waits for a module.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "libwdfunc.h"
#include "tcapi.h"
#include "wd_base.h"
#include "wd_buffer.h"
#include "wd_chanl.h"
#include "wd_command.h"
#include "wd_link.h"
#include "wd_modtable.h"
#include "wd_modthread.h"
#include "wd_proc.h"
#include "wd_relay.h"
#include "wd_syslog.h"
#include "wd_timer.h"

namespace {

// The wait of one loop round: the millisecond count 2^32 - 101.
constexpr unsigned long kCmdWaitMs = 4294967195UL;
// The most commands taken after one wait: a client that keeps the socket full
// must not keep the waiting events of the modules from moving on.
constexpr int kCmdBatch = 64;

// Descriptors 0 to 2 must be open: a channel socket that got descriptor 0
// would look like "no channel" to wd_simpleSendMsg.
void ReserveStdDescriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
      int null = open("/dev/null", O_RDWR);
      if (null >= 0 && null != fd) close(null);
    }
  }
}

// The pid and a line end, as "echo PID > FILE" writes them; the file is made
// anew, so a link planted at its name is replaced, never written through.
void WritePidFile() {
  char text[32];
  int n = snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
  int fd = wd_createFresh("/var/run/qorv_watchdogd.pid", 0644);
  if (fd < 0) return;
  ssize_t ignored = write(fd, text, static_cast<size_t>(n));
  (void)ignored;
  close(fd);
}

// The work directory: a link or file standing at its name (the directory
// already there is kept) is replaced by a directory of the daemon's own.
void MakeWorkDirectory() {
  const char* dir = "/var/wd_tmp";
  mkdir(dir, 0777);
  struct stat st;
  if (lstat(dir, &st) == 0 && !S_ISDIR(st.st_mode) && unlink(dir) == 0) mkdir(dir, 0777);
}

}  // namespace

int main(int argc, char** argv) {
#ifdef M_ARENA_MAX
  // One malloc arena for every thread. An arena of its own would keep, for
  // each producing thread, room for the most report lines it ever had waiting,
  // and reserves 64 MiB of address space on a 64-bit system. The threads
  // allocate a few lines a minute: they never queue for the one arena.
  mallopt(M_ARENA_MAX, 1);
#endif
  // The gateway's processes run as root; nobody else may write to the
  // daemon's sockets, its work directory or the files it creates.
  umask(022);

  // SIGUSR1 and SIGUSR2 are taken by the relay's transmit thread alone, which
  // unblocks them: every other thread inherits this mask. Until the relay
  // runs, they wait instead of ending the process.
  sigset_t relaySignals;
  sigemptyset(&relaySignals);
  sigaddset(&relaySignals, SIGUSR1);
  sigaddset(&relaySignals, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &relaySignals, nullptr);

  ReserveStdDescriptors();
  WritePidFile();

  int opt;
  while ((opt = getopt(argc, argv, "d")) != -1) {
    tcdbg_printf("\r\n main  while !=-1\r\n");
    debuglevel = opt == 'd' ? 1 : 0;
  }

  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  int cmdFd = WDSockInit(WD_CMD_SOCK_PATH, &addr);
  if (cmdFd == -1) {
    tcdbg_printf("\r\n WDSockInit failed\r\n");
    return -1;
  }

  wd_timerInit();
  wd_connectSyslogNG();
  wd_bufInit();
  wd_setModTable(kModTable, kModTableCount);
  wd_initSubModData();
  wd_creatModThreads();
  wd_initData();
  MakeWorkDirectory();

  // The socket does not block: the commands waiting are taken after one
  // wait, up to kCmdBatch of them, and a receive that finds the queue empty
  // ends the round early; between rounds the waiting events move on. One
  // receive buffer serves the daemon's life (wdmsg_receive grows it once).
  fcntl(cmdFd, F_SETFL, fcntl(cmdFd, F_GETFL) | O_NONBLOCK);
  int recvLen = WD_CMD_RECV_LEN;
  wdCmdMsg* msg = nullptr;
  for (;;) {
    // Waits for a command; meanwhile the events that found a module's
    // channel full go on to it as it makes room.
    timespec limit;
    limit.tv_sec = static_cast<time_t>(kCmdWaitMs / 1000);
    limit.tv_nsec = static_cast<long>(kCmdWaitMs % 1000 * 1000000);
    if (wd_chanlServe(cmdFd, &limit) <= 0) continue;

    for (int taken = 0; taken < kCmdBatch; ++taken) {
      if (msg == nullptr) msg = static_cast<wdCmdMsg*>(calloc(1, sizeof(wdCmdMsg)));
      if (msg == nullptr) break;
      int result = wdmsg_receive(cmdFd, &msg, &recvLen, &addr);
      if (result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      // The trace of each command as one select per command gave it.
      WD_TRACE("wd_main while  select ok");
      if (result == 0) {
        WD_TRACE("wd_main signaltype=%x", msg->signaltype);
        WD_TRACE("wd_main sequenceNumber=%x", msg->sequenceNumber);
        WD_TRACE("wd_main wordData=%x", msg->wordData);
        WD_TRACE("wd_main dataLength=%x", msg->dataLength);
        wd_dispatchCommand(msg);
      } else {
        tcdbg_printf("iReadLen=%d\t%s\n", result, result < 0 ? strerror(errno) : "");
      }
    }
  }
}
