// The report relay: the buffer of unacknowledged report lines, the link to
// syslog-ng, the flash copy of the buffer, and the supervision of syslog-ng.
//
// Threads:
// - any module thread pushes lines (wd_syslogPushFormat, through wd_syslogStr);
// - the transmit thread (wd_bufTxHandler) sends one line per 300 ms tick as a
//   520-byte datagram to /var/wdSyslogTx.chanl, probes while the link is
//   suspended, notices a new syslog-ng, runs the memory check every 100 ticks,
//   and carries out the SIGUSR1/SIGUSR2 requests noted by the handlers;
// - the receive thread (wd_bufRxHandler) takes syslog-ng's answers on
//   /var/wdSyslogRx.chanl and removes acknowledged lines;
// - the resend thread (wd_bufResendHandler) takes the relay's timer events on
//   the channel of MOD_MSG_RESEND.
// bufMutex guards the list, its nodes and objects, the counters and the timer
// ids; it is taken before timerMutex and never held while a datagram is sent.
// The flags shared without it are atomics.
#ifndef WATCHDOGD_RELAY_WD_BUFFER_H
#define WATCHDOGD_RELAY_WD_BUFFER_H

#include <pthread.h>
#include <stdint.h>

#include <atomic>

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

// One report line, owned by its node.
typedef struct wdBufMsgObj {
  char msg[WD_LINE_SIZE];
  int32_t seqNum;     // 1..30000
  int32_t state;      // WD_LINE_UNSENT or WD_LINE_SENT
  uint32_t category;  // report category; 6 = ppp
} wdBufMsgObj;

typedef struct wdBufNode {
  struct wdBufNode* next;  // towards the tail
  struct wdBufNode* prev;  // towards the head
  wdBufMsgObj* obj;
  uint32_t bufNum;  // the list it was added to
} wdBufNode;

typedef struct wdBufList {
  int32_t objNum;
  wdBufNode* head;
  wdBufNode* tail;
  uint32_t bufNum;
} wdBufList;

// ---- Buffer (guarded by bufMutex) ----
extern wdBufList* commBufList;
extern int32_t maxSeqNum;
extern uint32_t maxBufNum;
extern int32_t pppMsgNum;
extern uint8_t buffSaved;
extern pthread_mutex_t bufMutex;

// ---- Link state ----
extern std::atomic<uint8_t> dontSend;    // 1: sending suspended
extern std::atomic<uint8_t> msgResend;   // 1: a probe is due
extern int32_t chkSeqNum;                // last probe's number, -1: none (bufMutex)
extern std::atomic<int32_t> msgFailNum;  // failure answers since the last success
extern std::atomic<uint8_t> rxSocketReady;
extern int32_t timerChkSyslog;     // check timer id (bufMutex)
extern int32_t timerSaveSyslog;    // save timer id (bufMutex)
extern int sockfd;                 // transmit socket of the moment
extern int fdFromSyslog;           // receive socket
extern std::atomic<int> g_idebug;  // relay trace switch
extern pthread_t bufThreadRX, bufThreadTX, bufThreadResend;

// Entry points; each takes bufMutex for its whole run. 0 when the line was
// taken, -1 when it was refused.
int wd_syslogPushFormat(const char* line, uint32_t category);  // with the limits
int wd_syslogPush(const char* line, uint32_t category);        // restored lines: no limits

// List operations; the caller holds bufMutex.
int bufListInit(wdBufList* list);
wdBufMsgObj* bufCreateMsgObj(const char* line);
int bufNodeAddTail(wdBufList* list, wdBufMsgObj* obj, int waiveLimit);
int bufNodeAddPPP(wdBufList* list, wdBufMsgObj* obj);
wdBufNode* bufNodeSearch(wdBufList* list, int seqNum);
wdBufNode* bufNodeSearchUnsent1st(wdBufList* list);
int bufNodeDel(wdBufList* list, wdBufNode* node);
int setBufAllUnsent(wdBufList* list);
int printBufAll(wdBufList* list);

// ---- Link to syslog-ng ----
// Waits (30 s, then every 30 s) until syslog-ng takes a connect on the
// transmit path. Main thread, at start-up.
void wd_connectSyslogNG(void);
void* wd_bufTxHandler(void* arg);
// Stops the check timer and arms it again (30000 ms, TX_CHECK_TIMEOUT).
// Caller holds bufMutex.
void wd_bufRearmCheck(void);
void* wd_bufRxHandler(void* arg);

// ---- Flash copy and start-up ----
// Sets up the relay: buffer, link state, signal handlers, the flash copy,
// entry 12 of gSubMod and the three relay threads. Main thread, once.
void wd_bufInit(void);
void* wd_bufResendHandler(void* arg);
// Writes the list to /data/syslogmsg unless its header already matches.
// 0 (written or not needed) or -1. Caller holds bufMutex.
int saveMsgToFlash(wdBufList* list);
// Restores /data/syslogmsg into the buffer and removes the file; the result of
// the removal command.
int loadMsgToWDBuf(void);

// ---- Syslog-ng supervision ----
// 1 when /var/run/syslog-ng.pid names another process than last time. Caller
// holds bufMutex (transmit thread).
int SyslogngRestart(void);
// Restarts syslog-ng when the gateway's ps shows it at 4501 or more; the link
// is then suspended. Transmit thread, without bufMutex.
void checkSyslogngMemory(void);
void RestartSysklogng(void);
void kill_process(const char* pidFile);
// Clears `size` bytes of `buf` and reads at most size - 1 bytes of the file.
void fileRead(const char* path, char* buf, int size);
// Signal handlers: they only note the request; the transmit thread carries it
// out at its next tick (wd_bufServeSignals).
void TriggerDebugFlag(int sig);
void DumpList(int sig);
void wd_bufServeSignals(void);

#endif  // WATCHDOGD_RELAY_WD_BUFFER_H
