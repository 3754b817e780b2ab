// The output of the gateway's "ps" as the daemon reads it twice: the
// periodic process status (which watched programs run) and the syslog-ng
// memory check (the VSZ column of syslog-ng's lines). The first 8 bytes are
// also read as syslog-ng's pid file.
#include "fuzz_util.h"
#include "wd_status.h"
#include "wd_syslogng.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  FILE* f = MemFile(text);
  char out[512];
  mod_processStatusText(f, out, sizeof out);
  fclose(f);
  FUZZ_CHECK(strlen(out) == 15);  // eight 0-or-1 fields

  // checkSyslogngMemory's reading of the listing: pid and memory column.
  f = MemFile(text);
  char* line = nullptr;
  size_t cap = 0;
  long pid;
  unsigned long memory;
  while (getline(&line, &cap, f) != -1) wd_sngMemoryOfLine(line, &pid, &memory);
  free(line);
  fclose(f);

  char pidFile[9] = {0};
  memcpy(pidFile, data, size < 8 ? size : 8);
  FUZZ_CHECK(wd_sngLeadingPid(pidFile) >= 0);
  return 0;
}
