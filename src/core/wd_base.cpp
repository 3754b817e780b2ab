// Console trace, clock, real-time threads and number parsing.
#include "wd_base.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "tcapi.h"

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

int64_t wd_monotonicUs(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t wd_kernelMonotonicMs(void) {
#ifdef SYS_clock_gettime64
  if (sizeof(long) < 8) {
    struct {
      int64_t sec;
      int64_t nsec;
    } ts64;
    if (syscall(SYS_clock_gettime64, CLOCK_MONOTONIC, &ts64) == 0)
      return ts64.sec * 1000 + ts64.nsec / 1000000;
  }
#endif
#ifdef SYS_clock_gettime
  struct {
    long sec;
    long nsec;
  } ts;
  if (syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &ts) == 0)
    return static_cast<int64_t>(ts.sec) * 1000 + ts.nsec / 1000000;
#endif
  return wd_monotonicUs() / 1000;
}

int wd_clockRealtime(int64_t* sec, int32_t* usec) {
  if (sizeof(time_t) < 8) {
#ifdef SYS_clock_gettime64
    struct {
      int64_t sec;
      int64_t nsec;
    } ts64;
    if (syscall(SYS_clock_gettime64, CLOCK_REALTIME, &ts64) == 0) {
      *sec = ts64.sec;
      *usec = static_cast<int32_t>(ts64.nsec / 1000);
      return 0;
    }
#endif
  }
  struct timespec ts;
  if (clock_gettime(CLOCK_REALTIME, &ts) != 0) return -1;
  *sec = sizeof(time_t) < 8 ? static_cast<int64_t>(static_cast<uint32_t>(ts.tv_sec))
                            : static_cast<int64_t>(ts.tv_sec);
  *usec = static_cast<int32_t>(ts.tv_nsec / 1000);
  return 0;
}

int wd_initTimeVal(struct timeval* tv, int seconds) {
  tv->tv_sec = seconds;
  tv->tv_usec = 0;
  return 0;
}

bool wd_invariantBroken(const char* what, const char* file, int line) {
#if WD_CHECKED
  fprintf(stderr, "watchdogd: invariant broken at %s:%d: %s\n", file, line, what);
  abort();
#else
  (void)what;
  (void)file;
  (void)line;
  return false;
#endif
}

size_t wd_threadStackSize(void) {
#ifdef WD_SANITIZED
  return 0;
#else
  size_t size = 64 * 1024;
  long least = sysconf(_SC_THREAD_STACK_MIN);
  return least > 0 && static_cast<size_t>(least) > size ? static_cast<size_t>(least) : size;
#endif
}

namespace {

void InitAttr(pthread_attr_t* attr) {
  pthread_attr_init(attr);
  size_t size = wd_threadStackSize();
  if (size != 0) pthread_attr_setstacksize(attr, size);
}

int Create(pthread_t* tid, pthread_attr_t* attr, void* (*body)(void*), void* arg) {
  int rc = pthread_create(tid, attr, body, arg);
  pthread_attr_destroy(attr);
  return rc;
}

}  // namespace

int wd_createThread(pthread_t* tid, void* (*body)(void*), void* arg) {
  pthread_attr_t attr;
  InitAttr(&attr);
  return Create(tid, &attr, body, arg);
}

int wd_createRtThread(pthread_t* tid, void* (*body)(void*), void* arg, const char* name) {
  pthread_attr_t attr;
  InitAttr(&attr);
  pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
  pthread_attr_setschedpolicy(&attr, SCHED_RR);
  sched_param param;
  param.sched_priority = 75;
  pthread_attr_setschedparam(&attr, &param);
  int rc = Create(tid, &attr, body, arg);
  if (rc == 0) return 0;
  static std::atomic<bool> told{false};
  if (!told.exchange(true)) {
    tcdbg_printf(
        "watchdogd: SCHED_RR priority 75 refused for the %s thread (%s); "
        "real-time threads run with default scheduling\n",
        name, strerror(rc));
  }
  return wd_createThread(tid, body, arg);
}

uint32_t wd_parseUnsigned(const char* text) {
  uint64_t value = 0;
  for (const char* p = text; *p >= '0' && *p <= '9'; ++p) {
    value = value * 10 + static_cast<uint64_t>(*p - '0');
    if (value > UINT32_MAX) return UINT32_MAX;
  }
  return static_cast<uint32_t>(value);
}

int wd_parseLong(const char** text, long min, long max, long* value) {
  char* end = nullptr;
  errno = 0;
  long v = strtol(*text, &end, 10);
  if (end == *text || errno == ERANGE || v < min || v > max) return 0;
  *value = v;
  *text = end;
  return 1;
}

int wd_splitWords(const char* line, char* words, int count, size_t size) {
  const char* const kBlanks = " \t\r\n\v\f";
  int n = 0;
  const char* p = line + strspn(line, kBlanks);
  while (n < count && *p != '\0') {
    size_t len = strcspn(p, kBlanks);
    size_t copy = len < size - 1 ? len : size - 1;
    memcpy(words + static_cast<size_t>(n) * size, p, copy);
    words[static_cast<size_t>(n) * size + copy] = '\0';
    ++n;
    p += len;
    p += strspn(p, kBlanks);
  }
  return n;
}

int wd_periodMs(uint32_t seconds) {
  constexpr uint32_t kMaxSeconds = INT_MAX / 1000;
  return static_cast<int>((seconds < kMaxSeconds ? seconds : kMaxSeconds) * 1000);
}
