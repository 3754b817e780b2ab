// Helpers shared by the unit tests.
#ifndef WATCHDOGD_TESTS_UNIT_UNIT_UTIL_H
#define WATCHDOGD_TESTS_UNIT_UNIT_UTIL_H

#include <fstream>
#include <sstream>
#include <string>

#include "wd_buffer.h"
#include "wd_lock.h"

// The whole content of a file; empty when it cannot be read.
inline std::string Slurp(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// A fresh, empty report buffer as commBufList with zeroed counters, for the
// life of the object; its lines are removed at the end.
class ScopedBuffer {
 public:
  ScopedBuffer() {
    wdLock lock(&bufMutex);
    maxSeqNum = 0;
    maxBufNum = 0;
    pppMsgNum = 0;
    buffSaved = 0;
    list = wdBufList{};
    bufListInit(&list);
    commBufList = &list;
  }
  ~ScopedBuffer() {
    Clear();
    commBufList = nullptr;
  }
  ScopedBuffer(const ScopedBuffer&) = delete;
  ScopedBuffer& operator=(const ScopedBuffer&) = delete;

  // Removes every line, as acknowledgements would.
  void Clear() {
    wdLock lock(&bufMutex);
    while (list.head != nullptr) bufNodeDel(&list, list.head);
  }

  wdBufList list;
};

#endif  // WATCHDOGD_TESTS_UNIT_UNIT_UTIL_H
