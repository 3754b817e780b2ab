// Console trace, module channels and event sending.
//
// Threads: every thread of the daemon calls in here. The module table fields
// that cross threads (fd, threadId, timer) are atomics; maxNumFd only grows.
#include "wd_common.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tcapi.h"

wdSubModEntry gSubMod[WD_MOD_NUM];
std::atomic<int> maxNumFd{0};
std::atomic<int> sngReload{0};
int debuglevel = 0;

void wd_dbgTrace(const char* func, int line, const char* format, ...) {
  char text[2048];
  int n = snprintf(text, sizeof text, "Function:%s Line=%d", func, line);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof text) {
    va_list ap;
    va_start(ap, format);
    vsnprintf(text + n, sizeof text - static_cast<size_t>(n), format, ap);
    va_end(ap);
  }
  // O_APPEND: on the gateway this is a character device, in the test gateway
  // a capture file that must not be overwritten from its start.
  int fd = open("/dev/console", O_WRONLY | O_APPEND | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    static const char kFailed[] = "open failed ";
    ssize_t ignored = write(STDOUT_FILENO, kFailed, sizeof kFailed - 1);
    (void)ignored;
    return;
  }
  size_t len = strlen(text), done = 0;
  while (done < len) {
    ssize_t w = write(fd, text + done, len - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) break;
    done += static_cast<size_t>(w);
  }
  close(fd);
}

void wd_chanlAddr(int modId, sockaddr_un* addr) {
  memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  memcpy(addr->sun_path, gSubMod[modId].chanlPath, WD_CHANL_PATH_SIZE);
  addr->sun_path[WD_CHANL_PATH_SIZE - 1] = '\0';
}

int wd_estFdChanl(int modId) {
  wdSubModEntry& entry = gSubMod[modId];
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || fd >= FD_SETSIZE) {
    // A descriptor that select cannot wait on is as useless as none.
    tcdbg_printf("gModule#%d#, cannot make a channel socket: %s\n", modId,
                 fd < 0 ? strerror(errno) : "descriptor beyond FD_SETSIZE");
    if (fd >= 0) close(fd);
    entry.fd = 0;
    return -1;
  }
  entry.fd = fd;
  sockaddr_un addr;
  wd_chanlAddr(modId, &addr);
  unlink(addr.sun_path);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    fprintf(stderr, "gModule#%d#, Port is currently being used by some other application \n",
            modId);
  }
  int seen = maxNumFd.load();
  while (static_cast<unsigned>(fd) > static_cast<unsigned>(seen) &&
         !maxNumFd.compare_exchange_weak(seen, fd)) {
  }
  return fd;
}

int wd_simpleSendMsg(int eventType, int srcMod, int destMod, const void* data, unsigned len) {
  WD_TRACE("wd_simpleSendMsg");
  if (destMod < 0 || destMod >= WD_MOD_NUM) return -1;
  wdMsg msg;
  memset(&msg, 0, sizeof msg);
  msg.eventType = eventType;
  msg.srcMod = srcMod;
  msg.destMod = destMod;
  if (data != nullptr && len >= 1 && len <= WD_MSG_MAX_PAYLOAD) {
    memcpy(msg.data, data, len);
    msg.datalen = static_cast<uint8_t>(len > 255 ? 255 : len);
  }
  sockaddr_un addr;
  wd_chanlAddr(destMod, &addr);
  WD_TRACE("start to send eventType=%d destMod=%d", eventType, destMod);
  int fd = gSubMod[destMod].fd;
  ssize_t sent = -1;
  if (fd > 0) {
    do {
      sent = sendto(fd, &msg, sizeof msg, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    } while (sent < 0 && errno == EINTR);
  }
  WD_TRACE("send bytesWritten=%d", static_cast<int>(sent));
  return static_cast<int>(sent);
}

int wd_initTimeVal(struct timeval* tv, int seconds) {
  tv->tv_sec = seconds;
  tv->tv_usec = 0;
  return 0;
}
