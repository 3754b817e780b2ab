// The relay's report buffer for tests and fuzz targets: made empty, as at
// start-up, and emptied again.
#ifndef WATCHDOGD_TESTS_BUFFER_UTIL_H
#define WATCHDOGD_TESTS_BUFFER_UTIL_H

#include "wd_buffer.h"
#include "wd_lock.h"

// Makes `list` the relay's buffer (commBufList), empty, with zeroed counters.
inline void UseEmptyBuffer(wdBufList* list) {
  wdLock lock(&bufMutex);
  maxSeqNum = 0;
  maxBufNum = 0;
  pppMsgNum = 0;
  buffSaved = 0;
  *list = wdBufList{};
  bufListInit(list);
  commBufList = list;
}

// Removes every line of `list`, as acknowledgements would.
inline void EmptyBuffer(wdBufList* list) {
  wdLock lock(&bufMutex);
  while (list->head != nullptr) bufNodeDel(list, list->head, nullptr);
}

#endif  // WATCHDOGD_TESTS_BUFFER_UTIL_H
