// The report relay's buffer of unacknowledged report lines, its counters and
// the state of the link to syslog-ng.
//
// The relay's units, each using only those listed before it:
//   wd_buffer   the list of lines and the link state (this header);
//   wd_flash    the flash copy of the list and its loader;
//   wd_syslog   report lines, the device identity and the entry points that
//               put lines into the buffer;
//   wd_syslogng the supervision of the syslog-ng process, the signal requests;
//   wd_link     the transmit, receive and resend threads;
//   wd_relay    the relay's start-up.
//
// bufMutex guards the list, its nodes and objects, the counters and the timer
// ids; it is taken before timerMutex and the flash lock, never after, and is
// never held while a datagram is sent or a file is written. The flags shared
// without it are atomics.
#ifndef WATCHDOGD_RELAY_WD_BUFFER_H
#define WATCHDOGD_RELAY_WD_BUFFER_H

#include <pthread.h>
#include <stdint.h>

#include <atomic>

#include "wd_lock.h"
#include "wd_timer.h"

#define WD_FLASH_FILE "/data/syslogmsg"
#define WD_SYSLOG_TX_PATH "/var/wdSyslogTx.chanl"
#define WD_SYSLOG_RX_PATH "/var/wdSyslogRx.chanl"
#define WD_LINE_SIZE 512      // a report line: at most 511 characters
#define WD_DATAGRAM_SIZE 520  // a line datagram to syslog-ng
#define WD_ANSWER_SIZE 16     // an answer datagram from syslog-ng
#define WD_MAX_SEQ 30000
#define WD_MAX_OTHER_LINES 500
#define WD_MAX_PPP_LINES 16
#define WD_CATEGORY_PPP 6

enum { WD_LINE_UNSENT = 1, WD_LINE_SENT = 2 };

extern wdMutex bufMutex WD_ACQUIRED_BEFORE(timerMutex);

// One report line, owned by its node.
typedef struct wdBufMsgObj {
  char msg[WD_LINE_SIZE] WD_GUARDED_BY(bufMutex);
  int32_t seqNum WD_GUARDED_BY(bufMutex);     // 1..30000
  int32_t state WD_GUARDED_BY(bufMutex);      // WD_LINE_UNSENT or WD_LINE_SENT
  uint32_t category WD_GUARDED_BY(bufMutex);  // report category; 6 = ppp
} wdBufMsgObj;

typedef struct wdBufNode {
  struct wdBufNode* next WD_GUARDED_BY(bufMutex);  // towards the tail
  struct wdBufNode* prev WD_GUARDED_BY(bufMutex);  // towards the head
  wdBufMsgObj* obj WD_GUARDED_BY(bufMutex);
  uint32_t bufNum WD_GUARDED_BY(bufMutex);  // the list it was added to
} wdBufNode;

typedef struct wdBufList {
  int32_t objNum WD_GUARDED_BY(bufMutex);
  wdBufNode* head WD_GUARDED_BY(bufMutex);
  wdBufNode* tail WD_GUARDED_BY(bufMutex);
  uint32_t bufNum WD_GUARDED_BY(bufMutex);
} wdBufList;

// ---- Buffer (guarded by bufMutex) ----
// Set once by wd_bufInit before the relay's threads start; the list it points
// to is guarded.
extern wdBufList* commBufList WD_PT_GUARDED_BY(bufMutex);
extern int32_t maxSeqNum WD_GUARDED_BY(bufMutex);
extern uint32_t maxBufNum WD_GUARDED_BY(bufMutex);
extern int32_t pppMsgNum WD_GUARDED_BY(bufMutex);
// Set when a flash copy of the list is written (or being written), cleared
// when the list empties and the copy is to be removed.
extern uint8_t buffSaved WD_GUARDED_BY(bufMutex);
// Lines added to or removed from any list since start: what the flash copy
// is compared with, and what orders its saves.
extern uint64_t bufChanges WD_GUARDED_BY(bufMutex);

// ---- Link state ----
extern std::atomic<uint8_t> dontSend;              // 1: sending suspended
extern std::atomic<uint8_t> msgResend;             // 1: a probe is due
extern int32_t chkSeqNum WD_GUARDED_BY(bufMutex);  // last probe's number, -1: none
extern std::atomic<int32_t> msgFailNum;            // failure answers since the last success
extern std::atomic<uint8_t> rxSocketReady;
// 1: the next report line sent to syslog-ng carries the reload mark.
extern std::atomic<int> sngReload;
extern int32_t timerChkSyslog WD_GUARDED_BY(bufMutex);   // check timer id
extern int32_t timerSaveSyslog WD_GUARDED_BY(bufMutex);  // save timer id
extern int sockfd;                                       // transmit socket of the moment
extern int fdFromSyslog;                                 // receive socket
extern std::atomic<int> g_idebug;                        // relay trace switch

// The transmit thread sleeps while it has nothing to do; these wake it: a
// probe requested, a reload mark, a link that resumes or a line made unsent
// again (a pushed line arms the thread's next tick instead, see below). Any
// thread; a wake while it is awake costs nothing but one more look. The eventfd is made by wd_bufInit (-1 before).
extern int bufTxWakeFd;
void wd_bufWakeTx(void);
// Sets the reload mark (command types 11 and 12) and wakes the transmit thread.
void wd_bufSetReload(void);

// A pushed line wakes the transmit thread once, at the next boundary of its
// tick schedule (the thread's start of sleep + k * WD_TX_TICK_MS), where it
// sends the line. While the thread sleeps without work it shows the start of
// its schedule and a timerfd; the first push arms that timerfd for the
// boundary. The thread shows its sleep before it looks for work a last time,
// and a push looks at the sleep after adding its line, so one of them always
// sees the other: a line never waits without a wake. Guarded by a lock of its
// own, never held together with another.
#define WD_TX_TICK_MS 300
// The first boundary of the schedule that started at `baseMs` at or after
// `nowMs`, never the base itself: ticks stay 300 ms apart.
int64_t wd_bufNextTick(int64_t baseMs, int64_t nowMs);
// Transmit thread: it sleeps without work from now on; its schedule started
// at the monotonic millisecond tickBaseMs.
void wd_bufTxSleeps(int timerFd, int64_t tickBaseMs);
// Transmit thread, asleep: the boundary a push armed the timerfd for (the
// timerfd disarmed again), or -1 when none was.
int64_t wd_bufTxTakeTick(void);
// Transmit thread: awake with work; pushes leave its timerfd alone.
void wd_bufTxWakesUp(void);
// A line was pushed: arms the sleeping thread's timerfd, relative to now and
// rounded up, for the next boundary; an awake thread sends it at its tick
// anyway. Wakes the thread at once through the eventfd when the boundary is
// reached already or the timerfd cannot be armed.
void wd_bufWakeTxForLine(void);

// ---- List operations; the caller holds bufMutex ----
int bufListInit(wdBufList* list) WD_REQUIRES(bufMutex);
// A new unsent object with the next sequence number and a copy of the line
// (at most 511 characters; a line end in it becomes a blank, so that no text
// can make a line of its own on flash or at syslog-ng). Null when out of memory.
wdBufMsgObj* bufCreateMsgObj(const char* line) WD_REQUIRES(bufMutex);
// Appends; with the limit in force (waiveLimit 0) refuses the line when 500
// other lines wait, and then sets *saveWanted: the list should go to flash.
// 0, or -1 when refused.
int bufNodeAddTail(wdBufList* list, wdBufMsgObj* obj, int waiveLimit, int* saveWanted)
    WD_REQUIRES(bufMutex);
// Inserts a ppp line after the leading run of ppp lines; refuses the 17th.
// Sets *saveWanted when two or more ppp lines then wait. 0, or -1.
int bufNodeAddPPP(wdBufList* list, wdBufMsgObj* obj, int* saveWanted) WD_REQUIRES(bufMutex);
wdBufNode* bufNodeSearch(wdBufList* list, int seqNum) WD_REQUIRES(bufMutex);
wdBufNode* bufNodeSearchUnsent1st(wdBufList* list) WD_REQUIRES(bufMutex);
// Unlinks and frees the node. When the list is empty afterwards and a flash
// copy was written, clears buffSaved and sets *removeWanted: the copy should
// be removed. 0, or -1 (null or empty list, null node, node of another list).
int bufNodeDel(wdBufList* list, wdBufNode* node, int* removeWanted) WD_REQUIRES(bufMutex);
int setBufAllUnsent(wdBufList* list) WD_REQUIRES(bufMutex);
// What is wrong with the list's links and counters (its ends, every node's
// links both ways, its objects, objNum, and pppMsgNum for commBufList), or
// null when they agree. Walks the whole list: debug and sanitizer builds run
// it after every change of a list and abort when it finds a fault (WD_CHECKED);
// release builds never run it.
const char* bufListBroken(wdBufList* list) WD_REQUIRES(bufMutex);
int printBufAll(wdBufList* list) WD_REQUIRES(bufMutex);

#endif  // WATCHDOGD_RELAY_WD_BUFFER_H
