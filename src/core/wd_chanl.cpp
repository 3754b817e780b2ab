// Module channels, event sending and the queues of waiting events.
//
// Threads: every thread sends; each module thread opens, waits on and closes
// its own channel; the command loop (wd_chanlServe) sends on the events that
// found a channel full. gChanlLock serialises the making and the removal of
// channel sockets, so that a module thread that ends never removes the path
// or the entry of a later thread of the same module. Each module's outbox has
// a lock of its own that guards its sending socket and its queue; it is taken
// after gChanlLock, never before, and held across non-blocking sends only.
#include "wd_chanl.h"

#include <errno.h>
#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <vector>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_lock.h"

wdSubModEntry gSubMod[WD_MOD_NUM];
std::atomic<int> maxNumFd{0};
wdMutex gChanlLock = PTHREAD_MUTEX_INITIALIZER;

namespace {

// The events that wait for room in one module's channel, in order, packed
// one after the other (event, source, payload length, payload: 10 to 110
// bytes for the daemon's own events) in one buffer that grows as they come
// and is released once they have all gone.
class EventQueue {
 public:
  bool empty() const { return count_ == 0; }
  size_t size() const { return count_; }
  void Push(int eventType, int srcMod, const unsigned char* data, size_t len) {
    Header h = {eventType, srcMod, static_cast<uint16_t>(len)};
    const unsigned char* head = reinterpret_cast<const unsigned char*>(&h);
    bytes_.insert(bytes_.end(), head, head + sizeof h);
    bytes_.insert(bytes_.end(), data, data + len);
    ++count_;
  }
  // The first event: its fields, and its payload at `*data`.
  void Front(int* eventType, int* srcMod, const unsigned char** data, size_t* len) const {
    Header h;
    memcpy(&h, bytes_.data() + first_, sizeof h);
    *eventType = h.eventType;
    *srcMod = h.srcMod;
    *data = bytes_.data() + first_ + sizeof h;
    *len = h.len;
  }
  void Pop() {
    Header h;
    memcpy(&h, bytes_.data() + first_, sizeof h);
    first_ += sizeof h + h.len;
    if (--count_ == 0) {
      Clear();
    } else if (first_ > bytes_.size() / 2) {
      // What has gone is the larger part: it goes for good.
      bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(first_));
      first_ = 0;
    }
  }
  void Clear() {
    std::vector<unsigned char>().swap(bytes_);
    first_ = 0;
    count_ = 0;
  }

 private:
  struct Header {
    int32_t eventType;
    int32_t srcMod;
    uint16_t len;
  };
  std::vector<unsigned char> bytes_;
  size_t first_ = 0;  // where the first event begins
  size_t count_ = 0;
};

// What is sent to one module: its sending socket, connected to the channel's
// path while events wait, and the events that wait.
struct Outbox {
  wdMutex lock = PTHREAD_MUTEX_INITIALIZER;
  int sendFd WD_GUARDED_BY(lock) = -1;  // -1 while the module has no channel
  EventQueue pending WD_GUARDED_BY(lock);
  unsigned dropped WD_GUARDED_BY(lock) = 0;  // since the queue was last empty
};

Outbox gOutbox[WD_MOD_NUM];

// Readable when a queue got its first waiting event: it wakes the command
// loop, which then also waits for that channel to make room.
int WakeFd() {
  static const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return fd;
}

void SayDropped(unsigned dropped, int modId) {
  if (dropped == 0) return;
  tcdbg_printf("wd_simpleSendMsg: %u events for module %d dropped, its queue of %d was full\n",
               dropped, modId, WD_CHANL_PENDING_MAX);
}

// Sends one event without waiting. 0 when sent, else the errno of the send.
int SendNow(int fd, int modId, int eventType, int srcMod, const unsigned char* data,
            size_t len) {
  wdMsg msg;
  memset(&msg, 0, sizeof msg);
  msg.eventType = eventType;
  msg.srcMod = srcMod;
  msg.destMod = modId;
  if (len > 0) {
    memcpy(msg.data, data, len);
    msg.datalen = static_cast<uint8_t>(len > 255 ? 255 : len);
  }
  sockaddr_un addr;
  wd_chanlAddr(modId, &addr);
  for (;;) {
    // Addressed by path, so the event goes to whatever socket is bound there
    // now, as a send through the channel itself would.
    if (sendto(fd, &msg, sizeof msg, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&addr),
               sizeof addr) == static_cast<ssize_t>(sizeof msg)) {
      return 0;
    }
    if (errno != EINTR) return errno;
  }
}

// Connects the sending socket to the socket now bound at the channel's path,
// whose queue is full: the sending socket then turns writable when that queue
// has room again. 0, or the errno of the connect.
int Watch(Outbox& box, int modId) WD_REQUIRES(box.lock) {
  sockaddr_un addr;
  wd_chanlAddr(modId, &addr);
  return connect(box.sendFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 ? 0 : errno;
}

// Sends the waiting events of `modId` while its channel takes them, and
// watches the channel when it is full. Returns the number of dropped events to
// report once the queue is empty (or the channel has failed: its events are
// lost then), else 0.
unsigned Flush(Outbox& box, int modId) WD_REQUIRES(box.lock) {
  while (!box.pending.empty()) {
    int eventType, srcMod;
    const unsigned char* data;
    size_t len;
    box.pending.Front(&eventType, &srcMod, &data, &len);
    int err = SendNow(box.sendFd, modId, eventType, srcMod, data, len);
    if (err == EAGAIN || err == EWOULDBLOCK) {
      err = Watch(box, modId);
      if (err == 0) return 0;
    }
    if (err != 0) {
      // Nobody takes events at the path any more: the module is ending.
      box.pending.Clear();
      break;
    }
    box.pending.Pop();
  }
  unsigned dropped = box.dropped;
  box.dropped = 0;
  return dropped;
}

int64_t MonotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace

void wd_chanlAddr(int modId, sockaddr_un* addr) {
  memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  memcpy(addr->sun_path, gSubMod[modId].chanlPath, WD_CHANL_PATH_SIZE);
  addr->sun_path[WD_CHANL_PATH_SIZE - 1] = '\0';
}

int wd_estFdChanl(int modId) {
  wdSubModEntry& entry = gSubMod[modId];
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  int sendFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || fd >= FD_SETSIZE || sendFd < 0) {
    // A descriptor that select cannot wait on is as useless as none.
    tcdbg_printf("gModule#%d#, cannot make a channel socket: %s\n", modId,
                 fd >= 0 && fd >= FD_SETSIZE ? "descriptor beyond FD_SETSIZE" : strerror(errno));
    if (fd >= 0) close(fd);
    if (sendFd >= 0) close(sendFd);
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
  Outbox& box = gOutbox[modId];
  wdLock sending(&box.lock);
  if (box.sendFd >= 0) close(box.sendFd);
  box.sendFd = sendFd;
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
  unsigned dropped = 0;
  {
    wdLock lock(&gChanlLock);
    wdSubModEntry& entry = gSubMod[ch->modId];
    if (entry.fd == ch->fd) {
      entry.fd = 0;
      FD_ZERO(&entry.fdSet);
      sockaddr_un addr;
      wd_chanlAddr(ch->modId, &addr);
      unlink(addr.sun_path);
      Outbox& box = gOutbox[ch->modId];
      wdLock sending(&box.lock);
      close(box.sendFd);
      box.sendFd = -1;
      box.pending.Clear();  // events for a module that has ended are lost
      dropped = box.dropped;
      box.dropped = 0;
    }
  }
  SayDropped(dropped, ch->modId);
  close(ch->fd);
  ch->fd = -1;
}

namespace {

// The calling thread's timerfd for waits with a limit, made at its first such
// wait and closed when the thread ends. select's own timeout may end 0.1 % of
// it late (30 ms of a 30 s wait) in a thread of default scheduling; a timerfd
// fires on time. Armed relative to now, which libfaketime speeds up with the
// clock (an absolute one it would not).
struct LimitTimer {
  int fd = -2;  // -2 not made yet, -1 none could be made
  ~LimitTimer() {
    if (fd >= 0) close(fd);
  }
  // The descriptor armed to fire `us` from now, or -1.
  int Arm(int64_t us) {
    if (fd == -2) {
      fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
      if (fd >= FD_SETSIZE) {
        close(fd);
        fd = -1;
      }
      if (fd < 0) fd = -1;
    }
    if (fd < 0) return -1;
    itimerspec in = {};
    in.it_value.tv_sec = static_cast<time_t>(us / 1000000);
    in.it_value.tv_nsec = static_cast<long>(us % 1000000) * 1000;
    return timerfd_settime(fd, 0, &in, nullptr) == 0 ? fd : -1;
  }
};
thread_local LimitTimer tlLimitTimer;

}  // namespace

void wd_waitDispatch(int fd, size_t size, wdDispatchFn fn, void* ctx, wdWaitLimitFn limit) {
  for (;;) {
    wdDispatch d = {WD_DISPATCH_DATAGRAM, 0, nullptr, 0};
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(fd, &ready);
    // A limit is kept by the thread's timerfd, else by select's own timeout;
    // select is what libfaketime speeds up with the clock.
    timeval timeout, *until = nullptr;
    int timer = -1;
    int64_t us = limit != nullptr ? limit(ctx) : -1;
    if (us > 0) timer = tlLimitTimer.Arm(us);
    if (timer >= 0) {
      FD_SET(timer, &ready);
    } else if (us >= 0) {
      timeout.tv_sec = static_cast<time_t>(us / 1000000);
      timeout.tv_usec = static_cast<suseconds_t>(us % 1000000);
      until = &timeout;
    }
    d.waitResult = select((timer > fd ? timer : fd) + 1, &ready, nullptr, nullptr, until);
    bool limitPassed = d.waitResult == 0 && until != nullptr;
    if (d.waitResult > 0 && timer >= 0 && FD_ISSET(timer, &ready)) {
      uint64_t expirations;
      ssize_t ignored = read(timer, &expirations, sizeof expirations);
      (void)ignored;
      // The datagram goes first; the limit is asked anew before the next wait.
      if (!FD_ISSET(fd, &ready)) limitPassed = true;
      --d.waitResult;
    }
    void* buf = nullptr;
    if (limitPassed) {
      d.what = WD_DISPATCH_LIMIT;
    } else if (d.waitResult == -1) {
      d.what = WD_DISPATCH_WAIT_ERROR;
    } else if (d.waitResult == 0) {
      d.what = WD_DISPATCH_WAIT_TIMEOUT;
    } else if (!FD_ISSET(fd, &ready)) {
      d.what = WD_DISPATCH_NOT_SET;
    } else if ((buf = calloc(1, size + 1)) == nullptr) {
      d.what = WD_DISPATCH_NO_MEMORY;
    } else {
      ssize_t n = recv(fd, buf, size, 0);
      if (n > 0) {
        d.data = buf;
        d.len = static_cast<size_t>(n);
      } else {
        d.what = n == 0 ? WD_DISPATCH_EMPTY : WD_DISPATCH_RECV_FAILED;
      }
    }
    bool goOn = fn(d, ctx);
    free(buf);
    if (!goOn) return;
  }
}

int wd_simpleSendMsg(int eventType, int srcMod, int destMod, const void* data, unsigned len) {
  WD_TRACE("wd_simpleSendMsg");
  if (destMod < 0 || destMod >= WD_MOD_NUM) return -1;
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  if (data == nullptr || len < 1 || len > WD_MSG_MAX_PAYLOAD) len = 0;
  WD_TRACE("start to send eventType=%d destMod=%d", eventType, destMod);
  int result = -1;
  unsigned dropped = 0;
  bool wake = false;
  {
    Outbox& box = gOutbox[destMod];
    wdLock lock(&box.lock);
    if (box.sendFd >= 0) {
      dropped = Flush(box, destMod);
      int err = EAGAIN;
      if (box.pending.empty()) err = SendNow(box.sendFd, destMod, eventType, srcMod, bytes, len);
      if (err == 0) {
        result = WD_MSG_SIZE;
      } else if (err != EAGAIN && err != EWOULDBLOCK) {
        // Nothing at the path takes events: lost, as for a module without a
        // channel.
      } else if (box.pending.size() >= WD_CHANL_PENDING_MAX) {
        ++box.dropped;
      } else {
        if (box.pending.empty()) {
          Watch(box, destMod);
          wake = true;
        }
        box.pending.Push(eventType, srcMod, bytes, len);
        result = WD_MSG_SIZE;
      }
    }
  }
  SayDropped(dropped, destMod);
  if (wake) {
    uint64_t one = 1;
    ssize_t ignored = write(WakeFd(), &one, sizeof one);
    (void)ignored;
  }
  WD_TRACE("send bytesWritten=%d", result);
  return result;
}

int wd_chanlPending(int modId) {
  Outbox& box = gOutbox[modId];
  wdLock lock(&box.lock);
  return static_cast<int>(box.pending.size());
}

int wd_chanlServe(int fd, const struct timespec* limit) {
  int64_t deadline = -1;
  if (limit != nullptr)
    deadline = MonotonicNs() + static_cast<int64_t>(limit->tv_sec) * 1000000000 + limit->tv_nsec;
  for (;;) {
    pollfd fds[2 + WD_MOD_NUM];
    int modOf[2 + WD_MOD_NUM];
    fds[0] = {fd, POLLIN, 0};
    fds[1] = {WakeFd(), POLLIN, 0};
    nfds_t n = 2;
    for (int id = 0; id < WD_MOD_NUM; ++id) {
      Outbox& box = gOutbox[id];
      wdLock lock(&box.lock);
      if (box.pending.empty() || box.sendFd < 0) continue;
      fds[n] = {box.sendFd, POLLOUT, 0};
      modOf[n++] = id;
    }
    timespec left;
    timespec* wait = nullptr;
    if (deadline >= 0) {
      int64_t ns = deadline - MonotonicNs();
      if (ns < 0) ns = 0;
      left.tv_sec = static_cast<time_t>(ns / 1000000000);
      left.tv_nsec = static_cast<long>(ns % 1000000000);
      wait = &left;
    }
    int rc = ppoll(fds, n, wait, nullptr);
    if (rc < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (fds[1].revents != 0) {
      uint64_t count;
      ssize_t ignored = read(fds[1].fd, &count, sizeof count);
      (void)ignored;
    }
    for (nfds_t i = 2; i < n; ++i) {
      if (fds[i].revents == 0) continue;
      unsigned dropped;
      {
        Outbox& box = gOutbox[modOf[i]];
        wdLock lock(&box.lock);
        dropped = Flush(box, modOf[i]);
      }
      SayDropped(dropped, modOf[i]);
    }
    if (fds[0].revents != 0) return 1;
    if (rc == 0) return 0;
  }
}
