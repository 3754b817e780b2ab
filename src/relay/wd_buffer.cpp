// The buffer of report lines waiting for syslog-ng's acknowledgement.
//
// Lines of category ppp stand as a group at the front of the list, in their
// own order, so that they go out first; two or more of them waiting, or a
// refused line of another category, ask for the list to be written to flash,
// which the caller does once it has released bufMutex (wd_flash).
//
// A node without an object can only come from a bug: debug and sanitizer
// builds abort where one is met, release builds say so on the console as they
// always have and go on. Those builds also check the whole list after every
// change (CheckList).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_buffer.h"

wdBufList* commBufList = nullptr;
int32_t maxSeqNum = 0;
uint32_t maxBufNum = 0;
int32_t pppMsgNum = 0;
uint8_t buffSaved = 0;
uint64_t bufChanges = 0;
wdMutex bufMutex = PTHREAD_MUTEX_INITIALIZER;

std::atomic<uint8_t> dontSend{0};
std::atomic<uint8_t> msgResend{0};
int32_t chkSeqNum = -1;
std::atomic<int32_t> msgFailNum{0};
std::atomic<uint8_t> rxSocketReady{0};
std::atomic<int> sngReload{0};
int bufTxWakeFd = -1;
int32_t timerChkSyslog = -1;
int32_t timerSaveSyslog = -1;
int sockfd = 0;
int fdFromSyslog = -1;
std::atomic<int> g_idebug{0};

namespace {

// The transmit thread's sleep without work, as pushes see it.
wdMutex txSleepMutex = PTHREAD_MUTEX_INITIALIZER;
int txSleepTimerFd WD_GUARDED_BY(txSleepMutex) = -1;  // -1: not asleep without work
int64_t txSleepBaseMs WD_GUARDED_BY(txSleepMutex) = 0;
int64_t txArmedTickMs WD_GUARDED_BY(txSleepMutex) = -1;  // -1: the timerfd is not armed

// Arms the timerfd to fire once after `ns` nanoseconds; 0 disarms it.
int SetTimer(int fd, int64_t ns) {
  itimerspec when = {};
  when.it_value.tv_sec = static_cast<time_t>(ns / 1000000000);
  when.it_value.tv_nsec = static_cast<long>(ns % 1000000000);
  return timerfd_settime(fd, 0, &when, nullptr);
}

void DisarmArmedTick() WD_REQUIRES(txSleepMutex) {
  if (txArmedTickMs < 0) return;
  SetTimer(txSleepTimerFd, 0);
  txArmedTickMs = -1;
}

bool IsPpp(const wdBufNode* node) WD_REQUIRES(bufMutex) {
  return node->obj != nullptr && node->obj->category == WD_CATEGORY_PPP;
}

wdBufNode* NewNode(wdBufList* list, wdBufMsgObj* obj) WD_REQUIRES(bufMutex) {
  wdBufNode* node = static_cast<wdBufNode*>(calloc(1, sizeof(wdBufNode)));
  if (node == nullptr) return nullptr;
  node->obj = obj;
  node->bufNum = list->bufNum;
  return node;
}

// In checked builds: the list's links and counters still agree.
void CheckList(wdBufList* list) WD_REQUIRES(bufMutex) {
#if WD_CHECKED
  const char* broken = bufListBroken(list);
  if (broken != nullptr) wd_invariantBroken(broken, __FILE__, __LINE__);
#else
  (void)list;
#endif
}

}  // namespace

const char* bufListBroken(wdBufList* list) {
  if (list->objNum < 0) return "objNum is negative";
  if (list->head != nullptr && list->head->prev != nullptr) return "the head has a previous node";
  int count = 0, ppp = 0;
  const wdBufNode* prev = nullptr;
  for (const wdBufNode* n = list->head; n != nullptr; prev = n, n = n->next) {
    if (++count > list->objNum) return "more nodes than objNum";
    if (n->prev != prev) return "a node's previous link does not lead back";
    if (n->bufNum != list->bufNum) return "a node of another list";
    if (n->obj == nullptr) return "a node without an object";
    ppp += n->obj->category == WD_CATEGORY_PPP;
  }
  if (list->tail != prev) return "the tail is not the last node";
  if (count != list->objNum) return "fewer nodes than objNum";
  if (list == commBufList && ppp != pppMsgNum) return "pppMsgNum differs from the ppp lines";
  return nullptr;
}

int bufListInit(wdBufList* list) {
  if (list == nullptr) return -1;
  list->head = nullptr;
  list->tail = nullptr;
  list->objNum = 0;
  list->bufNum = ++maxBufNum;
  CheckList(list);
  return 0;
}

wdBufMsgObj* bufCreateMsgObj(const char* line) {
  wdBufMsgObj* obj = static_cast<wdBufMsgObj*>(calloc(1, sizeof(wdBufMsgObj)));
  if (obj == nullptr) return nullptr;
  maxSeqNum = maxSeqNum % WD_MAX_SEQ + 1;
  obj->seqNum = maxSeqNum;
  obj->state = WD_LINE_UNSENT;
  snprintf(obj->msg, sizeof obj->msg, "%s", line ? line : "");
  for (char* p = obj->msg; (p = strpbrk(p, "\r\n")) != nullptr;) *p = ' ';
  return obj;
}

int bufNodeAddTail(wdBufList* list, wdBufMsgObj* obj, int waiveLimit, int* saveWanted) {
  if (list == nullptr || obj == nullptr) return -1;
  if (!waiveLimit && list->objNum - pppMsgNum >= WD_MAX_OTHER_LINES) {
    if (saveWanted != nullptr) *saveWanted = 1;
    return -1;
  }
  wdBufNode* node = NewNode(list, obj);
  if (node == nullptr) return -1;
  node->prev = list->tail;
  if (list->tail != nullptr) {
    list->tail->next = node;
  } else {
    list->head = node;
  }
  list->tail = node;
  list->objNum++;
  bufChanges++;
  if (IsPpp(node)) pppMsgNum++;
  CheckList(list);
  return 0;
}

int bufNodeAddPPP(wdBufList* list, wdBufMsgObj* obj, int* saveWanted) {
  if (list == nullptr || obj == nullptr || pppMsgNum >= WD_MAX_PPP_LINES) return -1;
  wdBufNode* node = NewNode(list, obj);
  if (node == nullptr) return -1;
  if (list->head == nullptr) {
    list->head = list->tail = node;
  } else if (!IsPpp(list->head)) {
    node->next = list->head;
    list->head->prev = node;
    list->head = node;
  } else {
    wdBufNode* last = list->head;  // the last of the leading run of ppp lines
    while (last->next != nullptr && IsPpp(last->next)) last = last->next;
    node->prev = last;
    node->next = last->next;
    if (last->next != nullptr) {
      last->next->prev = node;
    } else {
      list->tail = node;
    }
    last->next = node;
  }
  pppMsgNum++;
  list->objNum++;
  bufChanges++;
  if (pppMsgNum >= 2 && saveWanted != nullptr) *saveWanted = 1;
  CheckList(list);
  return 0;
}

wdBufNode* bufNodeSearch(wdBufList* list, int seqNum) {
  if (list == nullptr || list->head == nullptr || list->head->obj == nullptr) return nullptr;
  for (wdBufNode* n = list->head; n != nullptr; n = n->next) {
    if (n->obj != nullptr && n->obj->seqNum == seqNum) return n;
  }
  return nullptr;
}

wdBufNode* bufNodeSearchUnsent1st(wdBufList* list) {
  if (list == nullptr || list->head == nullptr || list->head->obj == nullptr) return nullptr;
  for (wdBufNode* n = list->head; n != nullptr; n = n->next) {
    if (n->obj != nullptr && n->obj->state == WD_LINE_UNSENT) return n;
  }
  return nullptr;
}

int bufNodeDel(wdBufList* list, wdBufNode* node, int* removeWanted) {
  if (list == nullptr || list->head == nullptr || node == nullptr || node->bufNum != list->bufNum) {
    return -1;
  }
  if (node->prev != nullptr) {
    node->prev->next = node->next;
  } else {
    list->head = node->next;
  }
  if (node->next != nullptr) {
    node->next->prev = node->prev;
  } else {
    list->tail = node->prev;
  }
  if (node->obj != nullptr) {
    if (node->obj->category == WD_CATEGORY_PPP && pppMsgNum > 0) pppMsgNum--;
    free(node->obj);
  }
  free(node);
  list->objNum--;
  bufChanges++;
  if (buffSaved && list->objNum == 0) {
    buffSaved = 0;
    if (removeWanted != nullptr) *removeWanted = 1;
  }
  CheckList(list);
  return 0;
}

int setBufAllUnsent(wdBufList* list) {
  if (list == nullptr || list->head == nullptr) return -1;
  for (wdBufNode* n = list->head; n != nullptr; n = n->next) {
    if (!WD_INVARIANT(n->obj != nullptr)) {
      tcdbg_printf("No object or no message content!\n");
      return -1;
    }
    n->obj->state = WD_LINE_UNSENT;
  }
  tcdbg_printf("\nSet buffer all Unsent END\n");
  return 0;
}

int printBufAll(wdBufList* list) {
  if (list == nullptr || list->head == nullptr) return -1;
  WD_CONSOLE("\n dontSend:%d msgResend:%d chkSeqNum:%d msgFailNum:%d pppMsgNum:%d sngReload:%d\n",
             dontSend.load(), msgResend.load(), chkSeqNum, msgFailNum.load(), pppMsgNum,
             sngReload.load());
  WD_CONSOLE("\nStart to print buffer content(%d:%d,%d)HEAD->\n", list->objNum, pppMsgNum,
             list->objNum - pppMsgNum);
  for (wdBufNode* n = list->head; n != nullptr; n = n->next) {
    if (!WD_INVARIANT(n->obj != nullptr)) {
      WD_CONSOLE("No object or no message content!\n");
      return -1;
    }
    WD_CONSOLE("(%d#%s#%d#%d)->\n", n->obj->seqNum, n->obj->msg, n->obj->state, n->obj->category);
  }
  WD_CONSOLE("Print buffer content END\n\n");
  return 0;
}

void wd_bufWakeTx(void) {
  if (bufTxWakeFd < 0) return;
  uint64_t one = 1;
  ssize_t ignored = write(bufTxWakeFd, &one, sizeof one);  // a full counter is a wake already
  (void)ignored;
}

void wd_bufSetReload(void) {
  sngReload = 1;
  wd_bufWakeTx();
}

void wd_bufTxSleeps(int timerFd, int64_t tickBaseMs) {
  wdLock lock(&txSleepMutex);
  txSleepTimerFd = timerFd;
  txSleepBaseMs = tickBaseMs;
  txArmedTickMs = -1;
}

int64_t wd_bufTxTakeTick(void) {
  wdLock lock(&txSleepMutex);
  int64_t tick = txArmedTickMs;
  DisarmArmedTick();
  return tick;
}

void wd_bufTxWakesUp(void) {
  wdLock lock(&txSleepMutex);
  DisarmArmedTick();
  txSleepTimerFd = -1;
}

int64_t wd_bufNextTick(int64_t baseMs, int64_t nowMs) {
  int64_t ticks = (nowMs - baseMs + WD_TX_TICK_MS - 1) / WD_TX_TICK_MS;
  return baseMs + (ticks > 1 ? ticks : 1) * WD_TX_TICK_MS;
}

void wd_bufWakeTxForLine(void) {
  {
    wdLock lock(&txSleepMutex);
    if (txSleepTimerFd < 0 || txArmedTickMs >= 0) return;
    int64_t nowUs = wd_monotonicUs();
    int64_t nowMs = nowUs / 1000;
    txArmedTickMs = wd_bufNextTick(txSleepBaseMs, nowMs);
    // nowUs is rounded down, so the timer never fires before the boundary. A
    // boundary already reached is woken for at once.
    int64_t ns = (txArmedTickMs * 1000 - nowUs) * 1000;
    if (ns > 0 && SetTimer(txSleepTimerFd, ns) == 0) return;
  }
  wd_bufWakeTx();
}
