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
#include <stdio.h>
#include <sys/types.h>

#include <string>

#include "wd_buffer.h"

// The file operations of the flash copy, so that tests can put a file system
// of their own under it (one that fails or loses power at a chosen step).
// Results and errno as the system calls of the same names give them.
class wdFlashFs {
 public:
  virtual ~wdFlashFs() = default;
  // A new file at `path`, opened for writing; whatever stood there is
  // removed first and never followed (wd_createFresh). A descriptor, or -1.
  virtual int CreateFresh(const char* path) = 0;
  virtual ssize_t Write(int fd, const void* buf, size_t len) = 0;
  virtual int Sync(int fd) = 0;
  virtual int Close(int fd) = 0;
  virtual int Rename(const char* from, const char* to) = 0;
  virtual int Unlink(const char* path) = 0;
  // Makes renames and removals in directory `dir` durable.
  virtual void SyncDir(const char* dir) = 0;
  // The file opened for reading (fclose it), or null.
  virtual FILE* OpenRead(const char* path) = 0;
  // Removes the restored copy; on the real file system with "rm", as the
  // loader always has. The command's result.
  virtual int RemoveRestored(const char* path) = 0;
};

// The file system under the flash copy: the real one until a test installs
// another (null puts the real one back). Set only while no save runs.
void wd_flashUseFs(wdFlashFs* fs);

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
