// Module channels and event sending.
//
// Threads: every thread sends; each module thread opens, waits on and closes
// its own channel. gChanlLock serialises the making and the removal of channel
// sockets, so that a module thread that ends never removes the path or the
// entry of a later thread of the same module.
#include "wd_chanl.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_lock.h"

wdSubModEntry gSubMod[WD_MOD_NUM];
std::atomic<int> maxNumFd{0};
wdMutex gChanlLock = PTHREAD_MUTEX_INITIALIZER;

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
    return -1;
  }
  sockaddr_un addr;
  wd_chanlAddr(modId, &addr);
  wdLock lock(&gChanlLock);
  unlink(addr.sun_path);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    fprintf(stderr, "gModule#%d#, Port is currently being used by some other application \n",
            modId);
  }
  int seen = maxNumFd.load();
  while (static_cast<unsigned>(fd) > static_cast<unsigned>(seen) &&
         !maxNumFd.compare_exchange_weak(seen, fd)) {
  }
  entry.fd = fd;
  return fd;
}

int wd_chanlOpen(int modId, wdChanl* ch) {
  ch->modId = modId;
  ch->fd = wd_estFdChanl(modId);
  if (ch->fd < 0) return -1;
  wdLock lock(&gChanlLock);
  if (gSubMod[modId].fd == ch->fd) {
    FD_ZERO(&gSubMod[modId].fdSet);
    FD_SET(ch->fd, &gSubMod[modId].fdSet);
  }
  return 0;
}

void wd_chanlClose(wdChanl* ch) {
  if (ch->fd < 0) return;
  {
    wdLock lock(&gChanlLock);
    wdSubModEntry& entry = gSubMod[ch->modId];
    if (entry.fd == ch->fd) {
      entry.fd = 0;
      FD_ZERO(&entry.fdSet);
      sockaddr_un addr;
      wd_chanlAddr(ch->modId, &addr);
      unlink(addr.sun_path);
    }
  }
  close(ch->fd);
  ch->fd = -1;
}

wdWaitResult wd_chanlWait(const wdChanl* ch, int* selectResult) {
  fd_set ready;
  FD_ZERO(&ready);
  FD_SET(ch->fd, &ready);
  int ret = select(maxNumFd + 1, &ready, nullptr, nullptr, nullptr);
  *selectResult = ret;
  if (ret == -1) return WD_WAIT_ERROR;
  if (ret == 0) return WD_WAIT_TIMEOUT;
  return FD_ISSET(ch->fd, &ready) ? WD_WAIT_READY : WD_WAIT_NOT_SET;
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
    // Never wait for a busy module: the timer thread and the command loop
    // send here, and every other module depends on them.
    do {
      sent = sendto(fd, &msg, sizeof msg, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&addr),
                    sizeof addr);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      tcdbg_printf("wd_simpleSendMsg: event %d for module %d dropped, its queue is full\n",
                   eventType, destMod);
    }
  }
  WD_TRACE("send bytesWritten=%d", static_cast<int>(sent));
  return static_cast<int>(sent);
}
