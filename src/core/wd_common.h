// Services every thread of watchdogd uses: the console trace, module channels
// and sending events to modules.
//
// A module's channel is a Unix datagram socket bound to its chanlPath under
// /var. Any thread sends an event to a module through the module's own channel
// socket; the module thread alone receives on it.
#ifndef WATCHDOGD_CORE_WD_COMMON_H
#define WATCHDOGD_CORE_WD_COMMON_H

#include <sys/time.h>
#include <sys/un.h>

#include "wd_types.h"

// Writes "Function:<func> Line=<line>" and the formatted message to
// /dev/console in one write; "open failed " goes to standard output when the
// console cannot be opened. Use WD_TRACE, which does nothing unless debuglevel
// is above 0.
void wd_dbgTrace(const char* func, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#define WD_TRACE(...)                                                 \
  do {                                                                \
    if (debuglevel > 0) wd_dbgTrace(__func__, __LINE__, __VA_ARGS__); \
  } while (0)

// WD_TRACE in the name of another function (a module's handler).
#define WD_TRACE_AS(func, ...)                                    \
  do {                                                            \
    if (debuglevel > 0) wd_dbgTrace(func, __LINE__, __VA_ARGS__); \
  } while (0)

// Writes the formatted text to /dev/console whatever the debug level, in the
// trace form (with the function and line prefix).
#define WD_CONSOLE(...) wd_dbgTrace(__func__, __LINE__, __VA_ARGS__)

// Makes the channel of module `modId`: a datagram socket bound to its chanlPath
// (a stale file there is removed first), stored in the entry's fd, and raises
// maxNumFd. Returns the descriptor; a socket that cannot bind is still returned
// after a message on standard error. Returns -1, with the entry's fd left 0 and
// a message on the debug console, when no usable socket can be made at all.
// Called by a module thread at its start with its own id.
int wd_estFdChanl(int modId);

// Fills `addr` with the channel address of module `modId`.
void wd_chanlAddr(int modId, sockaddr_un* addr);

// Sends event `eventType` to module `destMod` as one 8016-byte wdMsg through
// the module's own channel socket. A payload is carried when `data` is given
// and `len` is 1..1999. Returns the bytes sent (8016), or -1 when the module
// has no channel or the send failed. Any thread; blocks while the module's
// queue is full.
int wd_simpleSendMsg(int eventType, int srcMod, int destMod, const void* data, unsigned len);

// The real-time clock as 64-bit seconds and microseconds. Right past 2038
// also where time_t has 32 bits: the 64-bit clock call of the kernel is used
// there when it has one, else the 32-bit seconds are read as unsigned (good
// until 2106). Returns 0, or -1 when the clock cannot be read.
int wd_clockRealtime(int64_t* sec, int32_t* usec);

// Sets `tv` to `seconds` and 0 microseconds; returns 0.
int wd_initTimeVal(struct timeval* tv, int seconds);

// Starts `body` in a new thread with round-robin real-time scheduling at
// priority 75. Where that is refused, starts it with default attributes and
// says so once per process on the debug console. Returns pthread_create's result.
int wd_createRtThread(pthread_t* tid, void* (*body)(void*), void* arg, const char* name);

// A configuration number: the leading decimal digits of `text` (saturating at
// 4294967295); 0 for an empty or non-numeric text.
uint32_t wd_parseUnsigned(const char* text);
// A module period in seconds as the milliseconds the timer service takes,
// capped where the milliseconds no longer fit an int (about 24.8 days).
int wd_periodMs(uint32_t seconds);

// ---- Report lines and device identity ----

// The gateway's MAC address as twelve lower-case hex digits: empty until the
// first wd_initData, "000000000000" while the flash cannot be read.
extern char macAddr[13];
// Builds the report line for `text` in `category` (0..16; above: empty
// category text) and hands it to the relay's buffer. 0 when the buffer took
// it, -1 when it refused it. Any thread.
int wd_syslogStr(uint32_t category, const char* text);
// (Re)reads the identity from the MRD record; 1 on success, 0 on failure.
int wd_initData(void);
// Reads the 255-byte MRD record at 0x1FF00 of /dev/mtd0; 1 when all came.
int MRDread(unsigned char* buf);

// ---- Module threads ----

// Fills the channel paths, thread bodies and timer values of entries 0..11.
// Called once by main; returns 0.
int wd_initSubModData(void);
// Starts the module threads that the configuration enables. Returns 0 when the
// watchdog feature is off, else the result of the last thread creation.
int wd_creatModThreads(void);
// Starts the thread of module `modId` (default attributes, argument 60) and
// stores its id in the entry. Returns pthread_create's result. Main thread.
int wd_startModThread(int modId);
// The module's configured period in seconds (0 for none); only reads.
uint32_t wd_updateModTimer(uint8_t modId);
// End the calling module thread: stop its periodic (wd_threadExit) or one-shot
// (wd_pppthreadExit) timer when `timerId` is not 0, clear the module's entry,
// close its channel. Do not return.
[[noreturn]] void wd_threadExit(uint8_t modId, int periodicTimerId);
[[noreturn]] void wd_pppthreadExit(uint8_t modId, int timerId);

// How a module's loop says something: not at all, on the debug console
// (tcdbg_printf), or as a trace.
enum wdSay { WD_SAY_NOTHING, WD_SAY_CONSOLE, WD_SAY_TRACE };
struct wdLoopMsg {
  const char* text;
  wdSay how;
};
// The texts of a module's loop; they differ slightly between modules.
struct wdModLoopText {
  const char* handlerName;  // function name shown in the loop's traces
  wdLoopMsg selectError;    // with the select result as its argument
  wdLoopMsg selectTimeout;
  wdLoopMsg noFdInSet;
  wdLoopMsg mallocFail;
  wdLoopMsg zeroBytes;
};

enum wdLoopAction { WD_LOOP_CONTINUE, WD_LOOP_EXIT };

// Opens the channel of `modId` and puts it alone into the entry's fdSet.
// Returns the descriptor, or -1 when no channel could be made: the module
// should then end (wd_threadExit), there is nothing it could receive.
int wd_modOpenChannel(int modId);
// The common module loop: waits on the channel, receives one wdMsg at a time
// into a fresh zeroed 8016-byte buffer and hands it to `onMsg`, releasing the
// buffer afterwards. Returns when `onMsg` answers WD_LOOP_EXIT (THREAD_EXIT);
// the caller then ends the thread.
void wd_modLoop(int modId, const wdModLoopText& text, wdLoopAction (*onMsg)(wdMsg* msg, void* ctx),
                void* ctx);

#endif  // WATCHDOGD_CORE_WD_COMMON_H
