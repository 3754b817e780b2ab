// Answer datagrams from syslog-ng as the relay's receive thread takes them
// (at most 16 bytes each, parsed and acted on) against a buffer of six
// waiting lines, three of them ppp. Input: a flag byte (bit 0: sending
// suspended; bits 1-2: the probe's number, 0 for none), then datagrams, each
// a length byte (0-31) and its bytes. The buffer checks its links and
// counters after every change in this (sanitizer) build and aborts when they
// disagree.
#include "fuzz_util.h"
#include "wd_link.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FreshBuffer();
  {
    wdLock lock(&bufMutex);
    for (uint32_t category : {6u, 0u, 6u, 7u, 6u, 3u}) {
      wdBufMsgObj* obj = bufCreateMsgObj("my.app.wd.x.0a1b2c3d4e5f: 1700000000|text");
      obj->category = category;
      obj->state = WD_LINE_SENT;
      int ignored;
      FUZZ_CHECK((category == 6 ? bufNodeAddPPP(commBufList, obj, &ignored)
                                : bufNodeAddTail(commBufList, obj, 0, &ignored)) == 0);
    }
    uint8_t flags = size > 0 ? data[0] : 0;
    dontSend = flags & 1;
    chkSeqNum = (flags >> 1 & 3) != 0 ? flags >> 1 & 3 : -1;
    msgFailNum = 0;
  }
  for (size_t at = 1; at < size;) {
    size_t len = data[at++] & 31;
    if (len > size - at) len = size - at;
    char answer[WD_ANSWER_SIZE + 1];
    size_t n = len < WD_ANSWER_SIZE ? len : WD_ANSWER_SIZE;  // recv cuts a longer one
    memcpy(answer, data + at, n);
    at += len;
    if (n == 0) continue;
    answer[n] = '\0';
    wd_bufTakeAnswer(answer);
  }
  return 0;
}
