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

#include "../buffer_util.h"

// The whole content of a file; empty when it cannot be read.
inline std::string Slurp(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline bool Exists(const char* path) { return access(path, F_OK) == 0; }

// What `run` wrote to the debug console (standard error).
template <typename F>
std::string Said(F run) {
  testing::internal::CaptureStderr();
  run();
  return testing::internal::GetCapturedStderr();
}

// Number of occurrences of `needle` in `text`.
inline size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

// Polls `done` every 10 ms for up to five seconds.
inline bool WaitUntil(const std::function<bool()>& done) {
  for (int i = 0; i < 500; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
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
