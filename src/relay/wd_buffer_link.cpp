// The link to syslog-ng: the transmit thread sends lines, the receive thread
// takes the answers. Three failure answers in a row suspend sending; while
// suspended, the head line goes out as a probe every 30 seconds until a probe
// is answered with success.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_buffer.h"
#include "wd_common.h"
#include "wd_lock.h"
#include "wd_timer.h"

std::atomic<uint8_t> dontSend{0};
std::atomic<uint8_t> msgResend{0};
int32_t chkSeqNum = -1;
std::atomic<int32_t> msgFailNum{0};
std::atomic<uint8_t> rxSocketReady{0};
int32_t timerChkSyslog = -1;
int32_t timerSaveSyslog = -1;
int sockfd = 0;
int fdFromSyslog = -1;
std::atomic<int> g_idebug{0};

namespace {

constexpr int kCheckMs = 30000;
constexpr int kSaveMs = 180000;
constexpr int kMemoryCheckTicks = 100;

sockaddr_un TxAddr() {
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  strcpy(addr.sun_path, WD_SYSLOG_TX_PATH);
  return addr;
}

// A line made ready to go: its datagram and what the trace line shows.
struct Outgoing {
  int seqNum;
  int objNum, pppNum;
  char datagram[WD_DATAGRAM_SIZE];
};

// Formats the node's line into `out` and marks it sent. Caller holds bufMutex.
void Format(wdBufNode* node, Outgoing* out) {
  memset(out->datagram, 0, sizeof out->datagram);
  int reload = sngReload.exchange(0);
  snprintf(out->datagram, sizeof out->datagram, "%d#%s#%d", reload, node->obj->msg,
           node->obj->seqNum);
  node->obj->state = WD_LINE_SENT;
  out->seqNum = node->obj->seqNum;
  out->objNum = commBufList->objNum;
  out->pppNum = pppMsgNum;
}

// Sends one formatted line on a fresh socket. Without bufMutex.
void Send(const Outgoing& out, const char* traceFormat, const char* sendError) {
  sockfd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = TxAddr();
  if (connect(sockfd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    {
      wdLock lock(&bufMutex);
      wdBufNode* node = bufNodeSearch(commBufList, out.seqNum);
      if (node != nullptr && node->obj != nullptr) node->obj->state = WD_LINE_UNSENT;
    }
    tcdbg_printf("Watchdogd, connect to syslog-ng failed\n");
  } else {
    if (g_idebug) {
      WD_CONSOLE(traceFormat, out.seqNum, out.objNum, out.pppNum, out.objNum - out.pppNum,
                 out.datagram);
    }
    ssize_t n;
    do {
      n = send(sockfd, out.datagram, sizeof out.datagram, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) tcdbg_printf("%s", sendError);
  }
  if (sockfd >= 0) close(sockfd);
}

// Stops timer `*id` and arms it anew. Caller holds bufMutex.
void Rearm(int32_t* id, int ms, int event) {
  wd_timerStop(*id);
  *id = wd_setEventTimer(ms, MOD_MSG_RESEND, event);
}

}  // namespace

void wd_bufRearmCheck(void) { Rearm(&timerChkSyslog, kCheckMs, TX_CHECK_TIMEOUT); }

namespace {

void ProbeTick() {
  msgResend = 0;
  Outgoing out;
  bool have = false;
  {
    wdLock lock(&bufMutex);
    if (SyslogngRestart() == 1) setBufAllUnsent(commBufList);
    wdBufNode* head = commBufList->head;
    if (head != nullptr && head->obj != nullptr) {
      Format(head, &out);
      chkSeqNum = head->obj->seqNum;
      have = true;
    }
  }
  if (have) Send(out, "-->Resend #%d(%d:%d,%d) %s\n", "Watchdogd, resend failed!!\n");
  wdLock lock(&bufMutex);
  wd_bufRearmCheck();
}

void NormalTick() {
  Outgoing out;
  bool have = false;
  {
    wdLock lock(&bufMutex);
    if (SyslogngRestart() == 1) setBufAllUnsent(commBufList);
    wdBufNode* node = bufNodeSearchUnsent1st(commBufList);
    if (node != nullptr) {
      Format(node, &out);
      have = true;
    }
  }
  if (have) Send(out, "--> #%d(%d:%d,%d) %s\n", "Watchdogd, sendto syslog-ng failed!!\n");
}

// Acts on one answer "number#result#". Receive thread.
void OnAnswer(int seq, int result) {
  char line[WD_LINE_SIZE];
  {
    wdLock lock(&bufMutex);
    if (dontSend && chkSeqNum != -1 && seq == chkSeqNum) {
      if (result != 0) {
        wd_bufRearmCheck();
        tcdbg_printf("Watchdogd, syslog STILL can't be sent, reset check timer!!\n");
      } else {
        dontSend = 0;
        msgFailNum = 0;
        wd_timerStop(timerChkSyslog);
        setBufAllUnsent(commBufList);
        tcdbg_printf("Watchdogd, syslog can be sent again, start to send!!\n");
      }
    }
    wdBufNode* node = bufNodeSearch(commBufList, seq);
    int objNum = commBufList->objNum;
    if (node == nullptr || node->obj == nullptr || seq <= 0) {
      if (g_idebug) {
        WD_CONSOLE("<-- pNode:%p #%d(%d:%d,%d) %d\n", static_cast<void*>(node), seq, objNum,
                   pppMsgNum, objNum - pppMsgNum, result);
      }
      return;
    }
    if (result == 0) {
      snprintf(line, sizeof line, "%s", node->obj->msg);
      bufNodeDel(commBufList, node);
      if (msgFailNum > 0) msgFailNum = 0;
      if (g_idebug) {
        objNum = commBufList->objNum;
        WD_CONSOLE("<-- #%d(%d:%d,%d) %d %s\n", seq, objNum, pppMsgNum, objNum - pppMsgNum, result,
                   line);
      }
      return;
    }
    if (g_idebug) {
      WD_CONSOLE("<-- BUF_FAILED!!!! #%d(%d:%d,%d) %d %s\n", seq, objNum, pppMsgNum,
                 objNum - pppMsgNum, result, node->obj->msg);
    }
    node->obj->state = WD_LINE_UNSENT;
    if (node->obj->category == WD_CATEGORY_PPP) saveMsgToFlash(commBufList);
  }
  if (++msgFailNum < 3 || dontSend) return;
  {
    wdLock lock(&bufMutex);
    dontSend = 1;
    wd_bufRearmCheck();
    Rearm(&timerSaveSyslog, kSaveMs, TX_SAVE_TIMEOUT);
  }
  tcdbg_printf("Watchdogd, message to syslog-ng  fail times too much, stop to send!\n");
}

}  // namespace

void wd_connectSyslogNG(void) {
  sockfd = 0;
  for (;;) {
    sleep(30);
    sockfd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = TxAddr();
    if (connect(sockfd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      close(sockfd);
      return;
    }
    tcdbg_printf("Watchdogd, connect to syslog-NG failed\n");
    if (sockfd >= 0) close(sockfd);
  }
}

void* wd_bufTxHandler(void*) {
  // This thread takes SIGUSR1 and SIGUSR2 (blocked in all others): a signal
  // ends its wait early, and the tick carries the request out.
  sigset_t relaySignals;
  sigemptyset(&relaySignals);
  sigaddset(&relaySignals, SIGUSR1);
  sigaddset(&relaySignals, SIGUSR2);
  pthread_sigmask(SIG_UNBLOCK, &relaySignals, nullptr);
  int ticks = 0;
  for (;;) {
    timeval wait = {0, 300000};
    int ret = select(0, nullptr, nullptr, nullptr, &wait);
    if (ret < 0 && errno == EINTR) ret = 0;  // interrupted by one of our signals
    wd_bufServeSignals();
    if (ret < 0) {
      tcdbg_printf("Select error, ret=%d\n", ret);
    } else if (!rxSocketReady) {
      tcdbg_printf("Watchdogd, rxSocket NOT READY!, Do not send msg to SNG\n");
      continue;
    } else if (msgResend) {
      ProbeTick();
    } else if (!dontSend) {
      NormalTick();
    }
    if (++ticks >= kMemoryCheckTicks) {
      checkSyslogngMemory();
      ticks = 0;
    }
  }
  return nullptr;
}

void* wd_bufRxHandler(void*) {
  while ((fdFromSyslog = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) < 0) {
    tcdbg_printf("Watchdogd, cannot make the receive socket: %s\n", strerror(errno));
    sleep(1);
  }
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  strcpy(addr.sun_path, WD_SYSLOG_RX_PATH);
  unlink(WD_SYSLOG_RX_PATH);
  if (bind(fdFromSyslog, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    tcdbg_printf("Port is currently being used by some other application \n");
  }
  for (;;) {
    if (!rxSocketReady) rxSocketReady = 1;
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(fdFromSyslog, &ready);
    int ret = select(fdFromSyslog + 1, &ready, nullptr, nullptr, nullptr);
    if (ret == -1) {
      tcdbg_printf("Select error, ret=%d\n", ret);
      continue;
    }
    if (ret == 0) {
      tcdbg_printf("Select timeout!\n");
      continue;
    }
    if (!FD_ISSET(fdFromSyslog, &ready)) {
      tcdbg_printf("File discriptor is no in fd set!\n");
      continue;
    }
    char answer[WD_ANSWER_SIZE + 1];
    ssize_t n = recv(fdFromSyslog, answer, WD_ANSWER_SIZE, 0);
    if (n == 0) {
      tcdbg_printf("Receieved 0 bytes!\n");
      continue;
    }
    if (n < 0) continue;
    answer[n] = '\0';
    int seq = 0, result = 0;
    if (sscanf(answer, "%d#%d#", &seq, &result) != 2) continue;
    OnAnswer(seq, result);
  }
  return nullptr;
}
