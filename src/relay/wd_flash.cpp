// The flash copy of the buffer and its loader.
//
// Saves are ordered by the buffer's change count under gFlashMutex, taken
// only after bufMutex has been released: the slow part of a save (the write
// and the syncs of the file and of its directory) never holds the buffer up.
// A save goes to a fresh temporary file, renamed over the copy once complete,
// so a crash or power cut mid-write leaves the previous copy whole.
#include "wd_flash.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_lock.h"
#include "wd_proc.h"

namespace {

constexpr const char* kFlashTmp = WD_FLASH_FILE ".tmp";
constexpr const char* kFlashDir = "/data";
// A copy written by the daemon holds at most the buffer's limits (and lines
// restored earlier); a file far beyond that is damaged, and the rest of it is
// not restored.
constexpr int kMaxRestoredLines = 1000;
constexpr int kRemoveSeconds = 10;  // rm of one file

wdMutex gFlashMutex = PTHREAD_MUTEX_INITIALIZER;
// The change count of the last save or removal carried out.
uint64_t gDone WD_GUARDED_BY(gFlashMutex) = 0;
// The last one was a save: the file holds copy gDone.
bool gOnFlash WD_GUARDED_BY(gFlashMutex) = false;

// The real file system.
class RealFs : public wdFlashFs {
 public:
  int CreateFresh(const char* path) override { return wd_createFresh(path); }
  ssize_t Write(int fd, const void* buf, size_t len) override { return write(fd, buf, len); }
  int Sync(int fd) override { return fsync(fd); }
  int Close(int fd) override { return close(fd); }
  int Rename(const char* from, const char* to) override { return rename(from, to); }
  int Unlink(const char* path) override { return unlink(path); }
  void SyncDir(const char* dir) override {
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
  }
  FILE* OpenRead(const char* path) override { return fopen(path, "re"); }
  int RemoveRestored(const char* path) override {
    const char* rm[] = {"rm", path, nullptr};
    return wd_run(rm, kRemoveSeconds);
  }
};

RealFs gRealFs;
wdFlashFs* gFs = &gRealFs;

// The three numbers of a header "%d#%d#%d"; missing ones stay 0.
void ParseHeader(const char* text, long numbers[3]) {
  numbers[0] = numbers[1] = numbers[2] = 0;
  for (int i = 0; i < 3; ++i) {
    if (i > 0 && *text++ != '#') return;
    if (!wd_parseLong(&text, INT_MIN, INT_MAX, &numbers[i])) return;
  }
}

// Whether the header on flash shows the copy's count and last line, with the
// messages of the check.
bool HeaderMatches(const wdFlashCopy* copy) {
  FILE* f = gFs->OpenRead(WD_FLASH_FILE);
  if (f == nullptr) {
    tcdbg_printf("could not open %s, file does not exist\n", WD_FLASH_FILE);
    return false;
  }
  char buf[128];
  bool matches = false;
  if (fgets(buf, sizeof buf, f) == nullptr) {
    tcdbg_printf("read fail\n");
  } else {
    buf[strcspn(buf, "\r\n")] = '\0';
    tcdbg_printf("read log msg file\n");
    tcdbg_printf("buf=%s\n", buf);
    long n[3];
    ParseHeader(buf, n);
    tcdbg_printf("objNum=%ld, seqNum=%ld, pppMsgNum=%ld\n", n[0], n[1], n[2]);
    tcdbg_printf("list->objNum=%d,list->tail->obj->seqNum=%d\n", copy->objNum, copy->tailSeq);
    matches = n[0] == copy->objNum && n[1] == copy->tailSeq;
  }
  fclose(f);
  return matches;
}

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t w = gFs->Write(fd, text.data() + done, text.size() - done);
    if (w <= 0) return false;
    done += static_cast<size_t>(w);
  }
  return true;
}

}  // namespace

void wd_flashUseFs(wdFlashFs* fs) { gFs = fs != nullptr ? fs : &gRealFs; }

void wd_flashTake(wdBufList* list, wdFlashCopy* copy) {
  copy->objNum = list != nullptr && list->head != nullptr ? list->objNum : 0;
  copy->tailSeq = 0;
  copy->pppNum = pppMsgNum;
  copy->changes = bufChanges;
  copy->body.clear();
  copy->broken = false;
  if (copy->objNum <= 0) return;
  if (list->tail != nullptr && list->tail->obj != nullptr) copy->tailSeq = list->tail->obj->seqNum;
  char line[WD_LINE_SIZE + 16];
  for (wdBufNode* n = list->head; n != nullptr; n = n->next) {
    if (!WD_INVARIANT(n->obj != nullptr)) {
      copy->broken = true;
      break;
    }
    snprintf(line, sizeof line, "%s#%d\n", n->obj->msg, static_cast<int>(n->obj->category));
    copy->body += line;
  }
  buffSaved = 1;
}

int saveMsgToFlash(const wdFlashCopy* copy) {
  tcdbg_printf("In saveMsgToFlash() func\n");
  if (copy->objNum <= 0) return -1;
  wdLock lock(&gFlashMutex);
  if (copy->changes < gDone) {
    tcdbg_printf("not need to update flash\n");  // a newer copy is there already
    return 0;
  }
  if (HeaderMatches(copy) && gOnFlash && copy->changes == gDone) {
    tcdbg_printf("not need to update flash\n");
    return 0;
  }
  int fd = gFs->CreateFresh(kFlashTmp);
  if (fd < 0) {
    tcdbg_printf("could not open %s, file does not exist", WD_FLASH_FILE);
    return -1;
  }
  tcdbg_printf("Start to save buffer content to Flash\n");
  char header[64];
  snprintf(header, sizeof header, "%d#%d#%d\n", copy->objNum, copy->tailSeq, copy->pppNum);
  bool ok = WriteAll(fd, header) && WriteAll(fd, copy->body);
  if (copy->broken) {
    tcdbg_printf("No object or no message content!\n");
    gFs->Close(fd);
    gFs->Unlink(kFlashTmp);
    return -1;
  }
  ok = gFs->Sync(fd) == 0 && ok;
  ok = gFs->Close(fd) == 0 && ok;
  if (!ok || gFs->Rename(kFlashTmp, WD_FLASH_FILE) != 0) {
    // The old copy stays as it was; nothing half written replaces it.
    tcdbg_printf("could not write %s, the flash copy is unchanged\n", WD_FLASH_FILE);
    gFs->Unlink(kFlashTmp);
    return -1;
  }
  gFs->SyncDir(kFlashDir);
  gDone = copy->changes;
  gOnFlash = true;
  tcdbg_printf("Save buffer content to flash success\n");
  return 0;
}

void wd_flashRemove(uint64_t changes) {
  wdLock lock(&gFlashMutex);
  if (changes < gDone) return;  // a copy taken after the buffer emptied is there
  gFs->Unlink(WD_FLASH_FILE);
  gFs->SyncDir(kFlashDir);
  gDone = changes;
  gOnFlash = false;
}

int loadMsgToWDBuf(int (*push)(const char* line, uint32_t category)) {
  tcdbg_printf("In loadMsgToWDBuf() func\n");
  FILE* f = gFs->OpenRead(WD_FLASH_FILE);
  if (f == nullptr) {
    tcdbg_printf("could not open %s, file does not exist\n", WD_FLASH_FILE);
  } else {
    char* line = nullptr;
    size_t cap = 0;
    bool header = true;
    long category = 17;  // a first body line without category
    int restored = 0;
    while (getline(&line, &cap, f) != -1) {
      line[strcspn(line, "\n")] = '\0';
      tcdbg_printf("buf=%.*s\n", WD_LINE_SIZE, line);
      if (header) {
        long n[3];
        ParseHeader(line, n);
        tcdbg_printf("objNum=%ld, seqNum=%ld pppMsgNum=%ld\n", n[0], n[1], n[2]);
        header = false;
        continue;
      }
      char* hash = strchr(line, '#');
      if (hash == line || line[0] == '\0') {
        tcdbg_printf("loadMsgToWDBuf: a line without report text is skipped\n");
        continue;
      }
      if (restored == kMaxRestoredLines) {
        tcdbg_printf("loadMsgToWDBuf: more than %d lines, the rest is not restored\n",
                     kMaxRestoredLines);
        break;
      }
      if (hash != nullptr) {
        *hash = '\0';
        const char* number = hash + 1;
        wd_parseLong(&number, INT_MIN, INT_MAX, &category);
      }
      push(line, static_cast<uint32_t>(category));
      ++restored;
    }
    free(line);
    fclose(f);
  }
  return gFs->RemoveRestored(WD_FLASH_FILE);
}
