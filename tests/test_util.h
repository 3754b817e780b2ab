// Helpers shared by the unit and the integration tests: a file's content, a
// count of occurrences, and the one way a test waits for a condition.
#ifndef WATCHDOGD_TESTS_TEST_UTIL_H
#define WATCHDOGD_TESTS_TEST_UTIL_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

namespace wdtest {

// How long a test waits for a condition before it fails, in real time.
constexpr int kWaitMs = 10000;

// The whole content of a file; empty when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline bool Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// Number of occurrences of `needle` in `text`.
inline size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

// The monotonic clock by system call, which libfaketime does not reach. The
// call fills two longs, also where time_t has 64 bits on a 32-bit target.
inline int64_t RealUs() {
  struct {
    long sec;
    long nsec;
  } ts;
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.sec) * 1000000 + ts.nsec / 1000;
}
inline int64_t RealMs() { return RealUs() / 1000; }

// Sleeps `ms` of real time, also in a process whose sleeps libfaketime
// shortens ("x100"): the sleep is scaled up.
inline void RealSleepMs(int ms) {
  const char* setting = getenv("FAKETIME");
  const char* x = setting && getenv("LD_PRELOAD") ? strchr(setting, 'x') : nullptr;
  int scale = x && atoi(x + 1) > 0 ? atoi(x + 1) : 1;
  std::this_thread::sleep_for(std::chrono::milliseconds(ms * scale));
}

// Polls `done` every 10 ms until it holds or `timeoutMs` of real time has
// passed; whether it held.
inline bool WaitUntil(const std::function<bool()>& done, int timeoutMs = kWaitMs) {
  int64_t end = RealMs() + timeoutMs;
  while (!done()) {
    if (RealMs() >= end) return false;
    RealSleepMs(10);
  }
  return true;
}

}  // namespace wdtest

#endif  // WATCHDOGD_TESTS_TEST_UTIL_H
