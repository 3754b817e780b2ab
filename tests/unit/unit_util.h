// Helpers shared by the unit tests, and the headers they all use.
#ifndef WATCHDOGD_TESTS_UNIT_UNIT_UTIL_H
#define WATCHDOGD_TESTS_UNIT_UNIT_UTIL_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tcapi.h"
#include "wd_lock.h"
#include "wd_timer.h"

#include "../buffer_util.h"
#include "../test_util.h"

using wdtest::Count;
using wdtest::Exists;
using wdtest::ReadFile;
using wdtest::WaitUntil;

// What `run` wrote to the debug console (standard error).
template <typename F>
std::string Said(F run) {
  testing::internal::CaptureStderr();
  run();
  return testing::internal::GetCapturedStderr();
}

// A timer clock that stands at `gTestNow` (in place of the monotonic clock;
// see wd_timerSetClock).
inline wdTimeVal gTestNow = {1000, 0};
inline int TestClock(wdTimeVal* tv) {
  *tv = gTestNow;
  return 0;
}

// The periodic timers of module `mod`, as "id/interval@expiry seconds".
inline std::vector<std::string> PeriodicTimers(int mod) {
  wdLock lock(&timerMutex);
  std::vector<std::string> out;
  timerListIterator it;
  for (void* e = timer_list_get_first(&periodic_time_list, &it); e; e = timer_list_get_next(&it)) {
    const timerNode* t = static_cast<const timerNode*>(e);
    if (t->arg != mod) continue;
    out.push_back(std::to_string(t->id) + "/" + std::to_string(t->interval) + "@" +
                  std::to_string(t->expiry.tv_sec));
  }
  return out;
}

// A fresh, empty report buffer as commBufList with zeroed counters, for the
// life of the object; its lines are removed at the end.
class ScopedBuffer {
 public:
  ScopedBuffer() { UseEmptyBuffer(&list); }
  ~ScopedBuffer() {
    Clear();
    commBufList = nullptr;
  }
  ScopedBuffer(const ScopedBuffer&) = delete;
  ScopedBuffer& operator=(const ScopedBuffer&) = delete;

  // Removes every line, as acknowledgements would.
  void Clear() { EmptyBuffer(&list); }

  // The lines in the buffer, head first.
  std::vector<std::string> Lines() {
    wdLock lock(&bufMutex);
    std::vector<std::string> out;
    for (wdBufNode* n = list.head; n != nullptr; n = n->next) out.push_back(n->obj->msg);
    return out;
  }
  // Their report texts, without "my.app.wd.CATEGORY.ID: SECONDS|"; each line
  // is checked to be of `category`.
  std::vector<std::string> Texts(const std::string& category) {
    std::vector<std::string> out;
    for (const std::string& line : Lines()) {
      EXPECT_EQ(line.rfind("my.app.wd." + category + ".", 0), 0u) << line;
      out.push_back(line.substr(line.find('|') + 1));
    }
    return out;
  }

  wdBufList list;
};

#endif  // WATCHDOGD_TESTS_UNIT_UNIT_UTIL_H
