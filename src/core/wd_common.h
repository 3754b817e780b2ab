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

// Sets `tv` to `seconds` and 0 microseconds; returns 0.
int wd_initTimeVal(struct timeval* tv, int seconds);

#endif  // WATCHDOGD_CORE_WD_COMMON_H
