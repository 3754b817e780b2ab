// Helpers of the fuzz targets. The targets run inside the gateway sandbox
// (scripts/fuzz.sh): the daemon's code writes where it writes on a gateway.
#ifndef WATCHDOGD_TESTS_FUZZ_FUZZ_UTIL_H
#define WATCHDOGD_TESTS_FUZZ_FUZZ_UTIL_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sanitizer/common_interface_defs.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../buffer_util.h"

// A property of the code under test does not hold: say so where the
// sanitizers report (standard error may be closed, -close_fd_mask) and abort,
// so that libFuzzer keeps the input.
#define FUZZ_CHECK(cond)                                                             \
  do {                                                                               \
    if (!(cond)) {                                                                   \
      __sanitizer_report_error_summary("fuzz check failed: " #cond " at " __FILE__); \
      abort();                                                                       \
    }                                                                                \
  } while (0)

// The input as a stream to read from, as a file or a tool's output would be.
// fclose it.
inline FILE* MemFile(const std::string& text) {
  return fmemopen(const_cast<char*>(text.data()), text.size(), "r");
}
// The stream reads the string's own bytes: a temporary would be gone first.
FILE* MemFile(std::string&& text) = delete;

// Splits the input at the line "--8<--" into at most `n` parts (the last one
// takes the rest): for targets that read several files.
inline std::vector<std::string> Parts(const uint8_t* data, size_t size, size_t n) {
  static const std::string kCut = "--8<--\n";
  std::string all(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> parts;
  size_t at = 0;
  while (parts.size() + 1 < n) {
    size_t cut = all.find(kCut, at);
    if (cut == std::string::npos) break;
    parts.push_back(all.substr(at, cut - at));
    at = cut + kCut.size();
  }
  parts.push_back(all.substr(at));
  parts.resize(n);
  return parts;
}

// Gives the relay an empty report buffer, as at start-up; each call empties
// it again, so that a run never sees the lines of the one before.
inline void FreshBuffer() {
  static wdBufList list;
  if (commBufList == &list) EmptyBuffer(&list);
  UseEmptyBuffer(&list);
}

// The report lines in the buffer, head first; each is checked to be one
// line of at most 511 characters.
inline std::vector<std::string> BufferLines() {
  wdLock lock(&bufMutex);
  std::vector<std::string> out;
  for (wdBufNode* n = commBufList->head; n != nullptr; n = n->next) {
    FUZZ_CHECK(n->obj != nullptr);
    size_t len = strnlen(n->obj->msg, WD_LINE_SIZE);
    FUZZ_CHECK(len < WD_LINE_SIZE);
    FUZZ_CHECK(strpbrk(n->obj->msg, "\r\n") == nullptr);
    out.emplace_back(n->obj->msg, len);
  }
  return out;
}

#endif  // WATCHDOGD_TESTS_FUZZ_FUZZ_UTIL_H
