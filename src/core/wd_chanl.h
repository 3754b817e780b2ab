// Module channels and sending events: the module table's channel side.
//
// A module's channel is a Unix datagram socket bound to its chanlPath under
// /var; the thread that opened the channel alone receives on it. A channel is
// published in the module's entry (fd) only once it is bound, and its path is
// removed when the thread that opened it closes it. Any thread sends an event
// to a module through the module's sending socket, made with the channel;
// events that find the channel full wait in the module's queue, and the
// sending socket is then connected to the channel's path, so that the command
// loop can wait until the channel makes room.
#ifndef WATCHDOGD_CORE_WD_CHANL_H
#define WATCHDOGD_CORE_WD_CHANL_H

#include <pthread.h>
#include <stdint.h>
#include <sys/select.h>
#include <sys/un.h>
#include <time.h>

#include <atomic>

#include "wd_lock.h"
#include "wd_wire.h"

#define WD_CHANL_PATH_SIZE 32

typedef void* (*wdModHandler)(void*);

// Serialises the making and the removal of channel sockets and guards the
// entries' fdSet.
extern wdMutex gChanlLock;

// One entry of the module table. Fields that several threads touch at once are
// atomic; chanlPath and handler are written at start-up before any thread reads
// them; fdSet is written under the channel lock by the thread whose channel it
// holds.
typedef struct wdSubModEntry {
  std::atomic<pthread_t> threadId;  // 0 when no thread runs
  char chanlPath[WD_CHANL_PATH_SIZE];
  std::atomic<int> fd;  // published channel socket; 0 when the module has none
  fd_set fdSet WD_GUARDED_BY(gChanlLock);
  wdModHandler handler;
  std::atomic<uint32_t> timer;  // period in seconds; 0 when not configured
} wdSubModEntry;

// Module table, zero at program start.
extern wdSubModEntry gSubMod[WD_MOD_NUM];
// Highest channel descriptor made so far; never lowered.
extern std::atomic<int> maxNumFd;

// The channel a thread opened for its module: what it waits and receives on,
// whatever the module's entry holds meanwhile.
typedef struct wdChanl {
  int modId;
  int fd;
} wdChanl;

// Makes the channel of module `modId`: a datagram socket bound to its
// chanlPath (a stale file there is removed first), raises maxNumFd, then
// publishes it in the entry's fd. Returns the descriptor; a socket that cannot
// bind is still published and returned after a message on standard error.
// Returns -1, with a message on the debug console and nothing published, when
// no usable socket can be made at all.
int wd_estFdChanl(int modId) WD_EXCLUDES(gChanlLock);

// Opens the channel of `modId` for the calling thread (wd_estFdChanl) and puts
// it alone into the entry's fdSet. 0, or -1 when no channel could be made.
int wd_chanlOpen(int modId, wdChanl* ch) WD_EXCLUDES(gChanlLock);
// Closes the channel. When it is still the module's published channel, the
// entry's fd and fdSet are cleared, its path is removed and the events still
// waiting for the module are lost; a channel that a later thread of the same
// module has replaced is left to that thread.
void wd_chanlClose(wdChanl* ch) WD_EXCLUDES(gChanlLock);

// One loop that waits on one descriptor and hands what comes to a callback:
// the module threads and the relay's receive and resend threads all run on it.
enum wdDispatchCase {
  WD_DISPATCH_DATAGRAM,      // `data` holds `len` (> 0) received bytes
  WD_DISPATCH_EMPTY,         // an empty datagram was received
  WD_DISPATCH_RECV_FAILED,   // the receive failed (errno tells why)
  WD_DISPATCH_NO_MEMORY,     // no buffer: the datagram stays queued
  WD_DISPATCH_WAIT_ERROR,    // the wait failed; `waitResult` is select's -1
  WD_DISPATCH_WAIT_TIMEOUT,  // select returned 0 without a time limit
  WD_DISPATCH_LIMIT,         // the time limit passed with nothing to receive
  WD_DISPATCH_NOT_SET,       // the wait ended without the descriptor ready
};
struct wdDispatch {
  wdDispatchCase what;
  int waitResult;  // select's result
  void* data;      // the datagram, followed by a 0 byte; null unless DATAGRAM
  size_t len;
};
// Answers true to go on waiting, false to end the loop.
typedef bool (*wdDispatchFn)(const wdDispatch& d, void* ctx);
// Asked before each wait: how long it may last at most, in microseconds
// (relative, on the monotonic clock); negative for no limit.
typedef int64_t (*wdWaitLimitFn)(void* ctx);
// Waits until `fd` is readable (select on a set that holds `fd` alone),
// receives one datagram of at most `size` bytes into a fresh zeroed buffer
// and hands it, or what else ended the wait, to `fn`. The buffer is released
// when `fn` returns. Returns when `fn` answers false. Without `limit` each
// wait has no time limit; with it, a wait that reaches its limit ends as
// WD_DISPATCH_LIMIT. The limit is kept by a timerfd of the calling thread,
// made at its first limited wait and closed when the thread ends.
void wd_waitDispatch(int fd, size_t size, wdDispatchFn fn, void* ctx,
                     wdWaitLimitFn limit = nullptr);

// Fills `addr` with the channel address of module `modId`.
void wd_chanlAddr(int modId, sockaddr_un* addr);

// The most events kept waiting for one module whose channel is full. A
// channel holds 10 datagrams (the kernel's default queue length, the same on
// the gateway); a burst from a peer beyond that waits here instead, whole
// even when the module takes none of it meanwhile.
#define WD_CHANL_PENDING_MAX 16384

// Sends event `eventType` to module `destMod` as one 8016-byte wdMsg to the
// module's channel path. A payload is carried when `data` is given and `len`
// is 1..1999. Never waits: when the channel is full, or events for the module
// wait already, the event joins the module's queue of waiting events, which
// keeps their order and which wd_chanlServe sends on as the channel makes
// room. Beyond WD_CHANL_PENDING_MAX waiting events an event is dropped; one
// console line gives how many were, once the queue has emptied or the module
// has ended. Returns 8016 when the event was sent or queued, -1 when the
// module has no channel (the event is lost) or the event was dropped. Any
// thread.
int wd_simpleSendMsg(int eventType, int srcMod, int destMod, const void* data, unsigned len);

// Waits until `fd` is readable or `limit` (relative, on the monotonic clock;
// null for none) has passed, and meanwhile sends the waiting events of every
// module as its channel makes room. Returns 1 when `fd` is readable, 0 when
// the limit passed, -1 (errno set) when the wait failed. The command loop's
// wait: one thread at a time.
int wd_chanlServe(int fd, const struct timespec* limit);

// The number of events waiting for module `modId`. Any thread.
int wd_chanlPending(int modId);

#endif  // WATCHDOGD_CORE_WD_CHANL_H
