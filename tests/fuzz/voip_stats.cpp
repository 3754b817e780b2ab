// A statistics record from the voice application as the VoIP statistics
// module takes it (RECEIVE_FROM, 92 bytes) and reports it. Input: the mode
// (first byte: 1, 2, 3 or other), the record (92 bytes, zeros where the
// input ends), then the call id file /var/tmp/iptk_callid that mode 1 reads.
// The report must keep its 26 fields whatever the call id holds.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "wd_voipstats.h"

#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FreshBuffer();
  wdModRun run = {};
  wd_modState<VoipStats>(&run)->mode = size > 0 ? data[0] % 4 + 1 : 1;
  wdMsg msg = {};
  msg.eventType = RECEIVE_FROM;
  msg.datalen = sizeof(VoipStatsReply);
  if (size > 1) memcpy(msg.data, data + 1, size - 1 < 92 ? size - 1 : 92);
  mkdir("/var/tmp", 0755);
  int fd = open("/var/tmp/iptk_callid", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  FUZZ_CHECK(fd >= 0);
  if (size > 93) FUZZ_CHECK(write(fd, data + 93, size - 93) == static_cast<ssize_t>(size - 93));
  close(fd);
  FUZZ_CHECK(kVoipStatsModule.thread.event(&msg, &run) == WD_LOOP_CONTINUE);
  std::vector<std::string> lines = BufferLines();
  FUZZ_CHECK(lines.size() == 1);
  FUZZ_CHECK(std::count(lines[0].begin(), lines[0].end(), '|') == 25);
  return 0;
}
