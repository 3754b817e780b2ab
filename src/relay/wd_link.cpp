// The link to syslog-ng: transmit, receive and resend threads.
//
// Threads: the transmit thread sends; the receive thread takes answers; the
// resend thread turns the check and save timers into a probe request and a
// flash save. All three run with real-time scheduling. Socket work and flash
// writes are done with bufMutex released; a send never waits for a full
// socket queue, so a wedged syslog-ng can still be probed, memory-checked and
// restarted.
#include "wd_link.h"

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_buffer.h"
#include "wd_chanl.h"
#include "wd_flash.h"
#include "wd_lock.h"
#include "wd_syslogng.h"
#include "wd_timer.h"

std::atomic<bool> bufTxIdle{false};
std::atomic<unsigned> bufTxWakes{0};

namespace {

constexpr int kCheckMs = 30000;
constexpr int kSaveMs = 180000;
constexpr int64_t kTickMs = WD_TX_TICK_MS;
constexpr int64_t kMemoryCheckMs = 30000;  // as often as every 100th tick was

sockaddr_un PathAddr(const char* path) {
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  strcpy(addr.sun_path, path);
  return addr;
}

// A line made ready to go: its datagram and what the trace line shows.
struct Outgoing {
  int seqNum;
  int objNum, pppNum;
  char datagram[WD_DATAGRAM_SIZE];
};

// Formats the node's line into `out` and marks it sent. Caller holds bufMutex.
void Format(wdBufNode* node, Outgoing* out) WD_REQUIRES(bufMutex) {
  memset(out->datagram, 0, sizeof out->datagram);
  int reload = sngReload.exchange(0);
  snprintf(out->datagram, sizeof out->datagram, "%d#%s#%d", reload, node->obj->msg,
           node->obj->seqNum);
  node->obj->state = WD_LINE_SENT;
  out->seqNum = node->obj->seqNum;
  out->objNum = commBufList->objNum;
  out->pppNum = pppMsgNum;
}

// The line went nowhere: unsent again, if it is still in the buffer.
void PutBack(int seqNum) WD_EXCLUDES(bufMutex) {
  wdLock lock(&bufMutex);
  wdBufNode* node = bufNodeSearch(commBufList, seqNum);
  if (node != nullptr && node->obj != nullptr) node->obj->state = WD_LINE_UNSENT;
}

// Sends one formatted line on a fresh socket. Without bufMutex.
void Send(const Outgoing& out, const char* traceFormat, const char* sendError)
    WD_EXCLUDES(bufMutex) {
  sockfd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = PathAddr(WD_SYSLOG_TX_PATH);
  if (connect(sockfd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    PutBack(out.seqNum);
    tcdbg_printf("Watchdogd, connect to syslog-ng failed\n");
  } else {
    if (g_idebug) {
      WD_CONSOLE(traceFormat, out.seqNum, out.objNum, out.pppNum, out.objNum - out.pppNum,
                 out.datagram);
    }
    ssize_t n;
    do {
      n = send(sockfd, out.datagram, sizeof out.datagram, MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
      // A full queue is a syslog-ng that does not read: the line is retried.
      if (errno == EAGAIN || errno == EWOULDBLOCK) PutBack(out.seqNum);
      tcdbg_printf("%s", sendError);
    }
  }
  if (sockfd >= 0) close(sockfd);
}

// Stops timer `*id` and arms it anew. Caller holds bufMutex.
void Rearm(int32_t* id, int ms, int event) WD_REQUIRES(bufMutex) {
  wd_timerStop(*id);
  *id = wd_setEventTimer(ms, MOD_MSG_RESEND, event);
}

void ProbeTick() WD_EXCLUDES(bufMutex) {
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

void NormalTick() WD_EXCLUDES(bufMutex) {
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

// True while the transmit thread has work for its next tick: the receive
// socket not yet ready, a probe due, or a line to send while not suspended.
bool HasWork() WD_EXCLUDES(bufMutex) {
  if (!rxSocketReady || msgResend) return true;
  if (dontSend) return false;
  wdLock lock(&bufMutex);
  return bufNodeSearchUnsent1st(commBufList) != nullptr;
}

// Watches the directory of syslog-ng's pid file, so that a new syslog-ng is
// noticed while the transmit thread sleeps. -1 (and the thread ticks as long
// as it runs) when the directory cannot be watched.
int OpenPidWatch() {
  int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd >= 0 && fd < FD_SETSIZE &&
      inotify_add_watch(fd, WD_SYSLOGNG_PID_DIR, IN_CLOSE_WRITE | IN_MOVED_TO) >= 0) {
    return fd;
  }
  tcdbg_printf("wd_bufTxHandler: cannot watch %s (%s), ticks every 300 ms\n", WD_SYSLOGNG_PID_DIR,
               strerror(errno));
  if (fd >= 0) close(fd);
  return -1;
}

// True when the events waiting on the watch name the pid file.
bool PidFileChanged(int fd) {
  alignas(inotify_event) char events[4096];
  bool changed = false;
  ssize_t n;
  while ((n = read(fd, events, sizeof events)) > 0) {
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
      const inotify_event* e = reinterpret_cast<const inotify_event*>(events + at);
      if (e->len > 0 && strcmp(e->name, WD_SYSLOGNG_PID_NAME) == 0) changed = true;
      at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
    }
  }
  return changed;
}

// The pid file changed while the thread slept: a new syslog-ng is noticed as
// a tick would notice it, at once, unless sending is suspended (a probe tick
// looks then).
void NoticeRestart() WD_EXCLUDES(bufMutex) {
  if (dontSend || msgResend || !rxSocketReady) return;
  wdLock lock(&bufMutex);
  if (SyslogngRestart() == 1) setBufAllUnsent(commBufList);
}

// The timer a push arms for the next tick boundary while the thread sleeps
// without work. -1 (and the thread ticks as long as it runs) when there is none.
int OpenTickTimer() {
  int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (fd >= 0 && fd < FD_SETSIZE) return fd;
  if (fd >= 0) {
    close(fd);
    errno = EMFILE;
  }
  tcdbg_printf("wd_bufTxHandler: no timerfd (%s), ticks every 300 ms\n", strerror(errno));
  return -1;
}

// Sleeps without work from the schedule that started at `tickBase`: true,
// unless work came before pushes could see the sleep.
bool GoIdle(int tickTimer, int64_t tickBase) WD_EXCLUDES(bufMutex) {
  wd_bufTxSleeps(tickTimer, tickBase);
  if (!HasWork()) return true;
  wd_bufTxWakesUp();
  return false;
}

enum : unsigned { kWoken = 1, kPidChanged = 2, kWaitFailed = 4, kTickDue = 8 };

// Waits until the monotonic millisecond `until`, a wake, the tick a push
// armed or a change of the pid file; serves signals that come meanwhile and
// waits on. The timeout is relative, so that libfaketime speeds it up with
// the clock.
unsigned Sleep(int64_t until, int pidWatch, int tickTimer) {
  for (;;) {
    int64_t left = until - wd_monotonicUs() / 1000;
    if (left <= 0) return 0;
    timeval wait = {static_cast<time_t>(left / 1000), static_cast<suseconds_t>(left % 1000 * 1000)};
    fd_set ready;
    FD_ZERO(&ready);
    int nfds = 0;
    for (int fd : {bufTxWakeFd, pidWatch, tickTimer}) {
      if (fd < 0) continue;
      FD_SET(fd, &ready);
      nfds = std::max(nfds, fd + 1);
    }
    int ret = select(nfds, &ready, nullptr, nullptr, &wait);
    if (ret < 0 && errno == EINTR) {
      wd_bufServeSignals();
      continue;
    }
    if (ret < 0) {
      timespec rest = {wait.tv_sec, static_cast<long>(wait.tv_usec) * 1000};
      nanosleep(&rest, nullptr);
      return kWaitFailed;
    }
    unsigned woke = 0;
    uint64_t count;
    if (bufTxWakeFd >= 0 && FD_ISSET(bufTxWakeFd, &ready) &&
        read(bufTxWakeFd, &count, sizeof count) > 0) {
      woke |= kWoken;
    }
    if (pidWatch >= 0 && FD_ISSET(pidWatch, &ready) && PidFileChanged(pidWatch)) woke |= kPidChanged;
    if (tickTimer >= 0 && FD_ISSET(tickTimer, &ready) &&
        read(tickTimer, &count, sizeof count) > 0) {
      woke |= kTickDue;
    }
    if (ret == 0 || woke != 0) {
      bufTxWakes.fetch_add(1);
      return woke;
    }
  }
}

// An answer "number#result#": false when it does not give both numbers.
bool ParseAnswer(const char* text, int* seq, int* result) {
  long s, r;
  if (!wd_parseLong(&text, INT_MIN, INT_MAX, &s) || *text++ != '#') return false;
  if (!wd_parseLong(&text, INT_MIN, INT_MAX, &r)) return false;
  *seq = static_cast<int>(s);
  *result = static_cast<int>(r);
  return true;
}

// Acts on one answer. Receive thread.
void OnAnswer(int seq, int result) WD_EXCLUDES(bufMutex) {
  wdFlashCopy copy{};
  bool save = false;
  int removeCopy = 0;
  uint64_t changes = 0;
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
        wd_bufWakeTx();
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
      char line[WD_LINE_SIZE];
      snprintf(line, sizeof line, "%s", node->obj->msg);
      bufNodeDel(commBufList, node, &removeCopy);
      changes = bufChanges;
      if (msgFailNum > 0) msgFailNum = 0;
      if (g_idebug) {
        objNum = commBufList->objNum;
        WD_CONSOLE("<-- #%d(%d:%d,%d) %d %s\n", seq, objNum, pppMsgNum, objNum - pppMsgNum, result,
                   line);
      }
    } else {
      if (g_idebug) {
        WD_CONSOLE("<-- BUF_FAILED!!!! #%d(%d:%d,%d) %d %s\n", seq, objNum, pppMsgNum,
                   objNum - pppMsgNum, result, node->obj->msg);
      }
      node->obj->state = WD_LINE_UNSENT;
      wd_bufWakeTx();
      if (node->obj->category == WD_CATEGORY_PPP) {
        wd_flashTake(commBufList, &copy);
        save = true;
      }
    }
  }
  if (result == 0) {
    if (removeCopy) wd_flashRemove(changes);
    return;
  }
  if (save) saveMsgToFlash(&copy);
  if (++msgFailNum < 3 || dontSend) return;
  {
    wdLock lock(&bufMutex);
    dontSend = 1;
    wd_bufRearmCheck();
    Rearm(&timerSaveSyslog, kSaveMs, TX_SAVE_TIMEOUT);
  }
  tcdbg_printf("Watchdogd, message to syslog-ng  fail times too much, stop to send!\n");
}

// What ended the wait of the receive and resend threads, when it was not a
// datagram: said on the console as those threads always have.
bool SayWait(const wdDispatch& d, bool sayNotSet) {
  switch (d.what) {
    case WD_DISPATCH_WAIT_ERROR:
      tcdbg_printf("Select error, ret=%d\n", d.waitResult);
      break;
    case WD_DISPATCH_WAIT_TIMEOUT:
      tcdbg_printf("Select timeout!\n");
      break;
    case WD_DISPATCH_NOT_SET:
      if (sayNotSet) tcdbg_printf("File discriptor is no in fd set!\n");
      break;
    case WD_DISPATCH_EMPTY:
      tcdbg_printf("Receieved 0 bytes!\n");
      break;
    default:
      break;
  }
  return true;
}

// One answer datagram from syslog-ng. Receive thread.
bool OnAnswerDatagram(const wdDispatch& d, void*) {
  if (d.what != WD_DISPATCH_DATAGRAM) return SayWait(d, true);
  wd_bufTakeAnswer(static_cast<const char*>(d.data));
  return true;
}

// One timer event of the relay. Resend thread.
bool OnResendEvent(const wdDispatch& d, void*) {
  if (d.what != WD_DISPATCH_DATAGRAM) return SayWait(d, false);
  const wdMsg& msg = *static_cast<const wdMsg*>(d.data);
  if (msg.datalen != 0) {
    tcdbg_printf("MOD_MSG_RESEND Received wdMsg, dst#%d#, data#%.*s#\n", msg.destMod,
                 WD_MSG_DATA_SIZE, msg.data);
  } else {
    tcdbg_printf("MOD_MSG_RESEND Received wdMsg, dst#%d#, type#%d#\n", msg.destMod, msg.eventType);
  }
  if (msg.eventType == TX_CHECK_TIMEOUT) {
    msgResend = 1;
    wd_bufWakeTx();
  } else if (msg.eventType == TX_SAVE_TIMEOUT) {
    wdFlashCopy copy;
    {
      wdLock lock(&bufMutex);
      wd_flashTake(commBufList, &copy);
    }
    if (saveMsgToFlash(&copy) == -1) tcdbg_printf("Error: Not able to save syslogs to flash!\n");
  }
  return true;
}

}  // namespace

bool wd_bufTakeAnswer(const char* answer) {
  int seq, result;
  if (!ParseAnswer(answer, &seq, &result)) return false;
  OnAnswer(seq, result);
  return true;
}

void wd_bufRearmCheck(void) { Rearm(&timerChkSyslog, kCheckMs, TX_CHECK_TIMEOUT); }

void wd_connectSyslogNG(void) {
  sockfd = 0;
  for (;;) {
    sleep(30);
    sockfd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = PathAddr(WD_SYSLOG_TX_PATH);
    if (connect(sockfd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      close(sockfd);
      return;
    }
    tcdbg_printf("Watchdogd, connect to syslog-NG failed\n");
    if (sockfd >= 0) close(sockfd);
  }
}

void* wd_bufTxHandler(void*) {
  // This thread takes SIGUSR1 and SIGUSR2 (blocked in all others). A signal
  // ends the wait early; the request is carried out and the wait goes on, so
  // a signal never makes an extra tick.
  sigset_t relaySignals;
  sigemptyset(&relaySignals);
  sigaddset(&relaySignals, SIGUSR1);
  sigaddset(&relaySignals, SIGUSR2);
  pthread_sigmask(SIG_UNBLOCK, &relaySignals, nullptr);
  int pidWatch = OpenPidWatch();
  int tickTimer = OpenTickTimer();
  bool canSleep = pidWatch >= 0 && bufTxWakeFd >= 0 && tickTimer >= 0;
  // Ticks come 300 ms apart while there is work. Without work the thread
  // sleeps until a wake, a change of the pid file or the memory check; woken,
  // it ticks at the next boundary of the 300 ms schedule it left. A push arms
  // the timer for that boundary itself, so that the thread wakes once, there.
  int64_t tickBase = wd_monotonicUs() / 1000;
  int64_t nextTick = tickBase + kTickMs;
  int64_t nextCheck = tickBase + kMemoryCheckMs;
  bool busy = true;
  for (;;) {
    bufTxIdle = !busy;
    unsigned woke = Sleep(busy ? std::min(nextTick, nextCheck) : nextCheck, pidWatch, tickTimer);
    // A signal that came before this thread ran was taken when it unblocked
    // the signals, outside the wait: its request is carried out here.
    wd_bufServeSignals();
    int64_t now = wd_monotonicUs() / 1000;
    if ((woke & kPidChanged) && !busy) NoticeRestart();
    if (!busy && (woke & (kWoken | kPidChanged | kTickDue))) {
      // A push's boundary is never later than the one computed now.
      int64_t armed = wd_bufTxTakeTick();
      if (HasWork()) {
        wd_bufTxWakesUp();
        busy = true;
        nextTick = armed >= 0 ? armed : wd_bufNextTick(tickBase, now);
        if (nextTick > now) continue;
      }
    }
    if (busy && now >= nextTick) {
      if (woke & kWaitFailed) {
        tcdbg_printf("Select error, ret=%d\n", -1);
      } else if (!rxSocketReady) {
        tcdbg_printf("Watchdogd, rxSocket NOT READY!, Do not send msg to SNG\n");
      } else if (msgResend) {
        ProbeTick();
      } else if (!dontSend) {
        NormalTick();
      }
      busy = !canSleep || HasWork();
      tickBase = wd_monotonicUs() / 1000;
      nextTick = tickBase + kTickMs;
      if (!busy) busy = !GoIdle(tickTimer, tickBase);
    }
    if (now >= nextCheck) {
      if (checkSyslogngMemory() == 1) {
        // Suspended until a probe, 30 seconds on, is answered by the new one.
        wdLock lock(&bufMutex);
        dontSend = 1;
        wd_bufRearmCheck();
      }
      nextCheck = wd_monotonicUs() / 1000 + kMemoryCheckMs;
    }
  }
  return nullptr;
}

void* wd_bufRxHandler(void*) {
  while ((fdFromSyslog = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) < 0) {
    tcdbg_printf("Watchdogd, cannot make the receive socket: %s\n", strerror(errno));
    sleep(1);
  }
  sockaddr_un addr = PathAddr(WD_SYSLOG_RX_PATH);
  unlink(WD_SYSLOG_RX_PATH);
  if (bind(fdFromSyslog, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    tcdbg_printf("Port is currently being used by some other application \n");
  }
  rxSocketReady = 1;
  wd_waitDispatch(fdFromSyslog, WD_ANSWER_SIZE, OnAnswerDatagram, nullptr);
  return nullptr;
}

void* wd_bufResendHandler(void*) {
  // Without this channel the relay's timers could not reach it: keep trying.
  wdChanl ch;
  while (wd_chanlOpen(MOD_MSG_RESEND, &ch) < 0) sleep(1);
  wd_waitDispatch(ch.fd, WD_MSG_SIZE, OnResendEvent, nullptr);
  return nullptr;
}
