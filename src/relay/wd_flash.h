// The flash copy of the report buffer, /data/syslogmsg: a header
// "objNum#tailSeqNum#pppMsgNum" and one line "text#category" per buffered
// report, from head to tail.
//
// A save is taken in two steps, so that the file is never written while
// bufMutex is held: wd_flashTake copies the list under bufMutex, and
// saveMsgToFlash writes that copy after bufMutex has been released. Copies
// and removals carry the buffer's change count (bufChanges); the flash lock
// orders them by it, so an older copy never replaces a newer one or undoes a
// removal made after it.
#ifndef WATCHDOGD_RELAY_WD_FLASH_H
#define WATCHDOGD_RELAY_WD_FLASH_H

#include <stdint.h>

#include <string>

#include "wd_buffer.h"

typedef struct wdFlashCopy {
  int32_t objNum;
  int32_t tailSeq;  // the tail line's number
  int32_t pppNum;
  uint64_t changes;  // bufChanges when the copy was taken
  std::string body;  // "text#category\n" per line, head first
  bool broken;       // a node without an object: the list cannot be written
} wdFlashCopy;

// Copies `list` for a save and sets buffSaved. Caller holds bufMutex.
void wd_flashTake(wdBufList* list, wdFlashCopy* copy) WD_REQUIRES(bufMutex);

// Writes `copy` to /data/syslogmsg, unless the file already holds it or a
// newer copy (or a later removal) has been written. Through a fresh
// temporary file, synced and renamed into place, the directory synced after.
// 0 (written, or no write needed) or -1. Without bufMutex; any thread.
int saveMsgToFlash(const wdFlashCopy* copy) WD_EXCLUDES(bufMutex);

// Removes /data/syslogmsg for a buffer that became empty at change count
// `changes` (from bufNodeDel), unless a later copy has been written since.
// Without bufMutex.
void wd_flashRemove(uint64_t changes) WD_EXCLUDES(bufMutex);

// Restores /data/syslogmsg through `push` (restored lines, without the
// buffer's limits), then removes the file with "rm". Returns the result of
// the removal command. At start-up, before the relay's threads run.
int loadMsgToWDBuf(int (*push)(const char* line, uint32_t category));

#endif  // WATCHDOGD_RELAY_WD_FLASH_H
