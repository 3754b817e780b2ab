// The flash copy /data/syslogmsg as the relay restores it at start-up
// (loadMsgToWDBuf into the buffer). What was restored is saved again as the
// relay does and restored once more: the second restore must give the same
// lines with the same categories.
#include <fcntl.h>
#include <unistd.h>

#include "fuzz_util.h"
#include "wd_flash.h"
#include "wd_syslog.h"

namespace {

typedef std::vector<std::pair<std::string, uint32_t>> Restored;

Restored Restore() {
  FreshBuffer();
  loadMsgToWDBuf(wd_syslogPush);  // the buffer checks itself as lines come
  Restored lines;
  wdLock lock(&bufMutex);
  for (wdBufNode* n = commBufList->head; n != nullptr; n = n->next)
    lines.emplace_back(n->obj->msg, n->obj->category);
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int fd = open(WD_FLASH_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  FUZZ_CHECK(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));
  close(fd);
  Restored first = Restore();
  FUZZ_CHECK(first.size() <= 1000);
  wdFlashCopy copy{};
  {
    wdLock lock(&bufMutex);
    wd_flashTake(commBufList, &copy);
  }
  FUZZ_CHECK(first.empty() || saveMsgToFlash(&copy) == 0);
  FUZZ_CHECK(Restore() == first);
  return 0;
}
