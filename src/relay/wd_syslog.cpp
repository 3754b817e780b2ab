// Report lines: a fixed prefix, the category, the gateway's identity, the
// time and the module's text, handed to the relay's buffer; the buffer's
// entry points.
//
// The identity is shared by every reporting thread and may be rewritten by
// any of them (a retry of the flash read); gMacMutex serialises the rewrite
// and the copy into a line, so no line carries half an identity.
#include "wd_syslog.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_buffer.h"
#include "wd_flash.h"
#include "wd_lock.h"

namespace {

wdMutex gMacMutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

char macAddr[13] WD_GUARDED_BY(gMacMutex);

namespace {

#define WD_CATEGORY_TEXT(name, text) text,
constexpr const char* kCategories[] = {WD_CATEGORIES(WD_CATEGORY_TEXT)};
#undef WD_CATEGORY_TEXT
static_assert(sizeof kCategories / sizeof kCategories[0] == WD_CAT_COUNT, "one text a category");
// Its lines carry no seconds: the record has its own times.
constexpr uint32_t kNoTimeCategory = WD_CAT_VOIPSTAT;
constexpr off_t kMrdOffset = 0x1FF00;
constexpr size_t kMrdSize = 255;
constexpr size_t kMacOffset = 72;

int InitDataLocked() WD_REQUIRES(gMacMutex) {
  memset(macAddr, 0, sizeof macAddr);
  snprintf(macAddr, sizeof macAddr, "000000000000");
  unsigned char record[kMrdSize + 1];
  if (!MRDread(record)) {
    tcdbg_printf("Fail to get MRD information!\n");
    return 0;
  }
  const unsigned char* m = record + kMacOffset;
  snprintf(macAddr, sizeof macAddr, "%02x%02x%02x%02x%02x%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
  return 1;
}

}  // namespace

int MRDread(unsigned char* buf) {
  int fd = open("/dev/mtd0", O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    tcdbg_printf("open mtd device (MRD) error!!\n");
    return 0;
  }
  size_t got = 0;
  if (lseek(fd, kMrdOffset, SEEK_SET) == kMrdOffset) {
    while (got < kMrdSize) {
      ssize_t n = read(fd, buf + got, kMrdSize - got);
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
  }
  close(fd);
  if (got != kMrdSize) {
    tcdbg_printf("read mtd device (MRD) error!!\n");
    return 0;
  }
  return 1;
}

int wd_initData(void) {
  wdLock lock(&gMacMutex);
  return InitDataLocked();
}

int wd_syslogStr(uint32_t category, const char* text) {
  const char* name =
      category < sizeof kCategories / sizeof kCategories[0] ? kCategories[category] : "";
  char id[sizeof macAddr];
  {
    wdLock lock(&gMacMutex);
    if (strcmp(macAddr, "000000000000") == 0) InitDataLocked();
    memcpy(id, macAddr, sizeof id);
  }

  char line[WD_LINE_SIZE];
  if (text == nullptr) text = "";
  if (category == kNoTimeCategory) {
    snprintf(line, sizeof line, "my.app.wd.%s.%s: %s", name, id, text);
  } else {
    int64_t now = 0;
    int32_t usec;
    wd_clockRealtime(&now, &usec);
    snprintf(line, sizeof line, "my.app.wd.%s.%s: %lld|%s", name, id, static_cast<long long>(now),
             text);
  }
  WD_TRACE("%s", line);
  return wd_syslogPushFormat(line, category);
}

namespace {

// Creates the object, adds it, and frees it again when the add refused it;
// writes the flash copy when the add asks for it, after releasing bufMutex.
int Push(const char* line, uint32_t category, bool limits) WD_EXCLUDES(bufMutex) {
  wdFlashCopy copy{};
  int saveWanted = 0;
  int rc;
  {
    wdLock lock(&bufMutex);
    wdBufMsgObj* obj = bufCreateMsgObj(line);
    if (obj != nullptr) obj->category = category;
    if (!limits) {
      rc = bufNodeAddTail(commBufList, obj, 1, &saveWanted);
    } else if (category == WD_CATEGORY_PPP) {
      rc = bufNodeAddPPP(commBufList, obj, &saveWanted);
    } else {
      rc = bufNodeAddTail(commBufList, obj, 0, &saveWanted);
    }
    if (rc != 0) free(obj);
    if (limits && debuglevel > 0) printBufAll(commBufList);
    if (saveWanted) wd_flashTake(commBufList, &copy);
  }
  // The line's tick is armed before a save, which may take a while.
  if (rc == 0) wd_bufWakeTxForLine();
  // A refused line asks for the copy because the buffer is full: say when even
  // that fails. The copy for a second ppp line is best effort.
  if (saveWanted && saveMsgToFlash(&copy) == -1 && rc != 0) {
    tcdbg_printf("Error: Not able to save syslogs to flash!\n");
  }
  return rc;
}

}  // namespace

int wd_syslogPushFormat(const char* line, uint32_t category) { return Push(line, category, true); }

int wd_syslogPush(const char* line, uint32_t category) { return Push(line, category, false); }
