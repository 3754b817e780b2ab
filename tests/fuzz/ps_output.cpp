// The output of the gateway's "ps" as the daemon reads it twice: the
// periodic process status (which watched programs run) and the syslog-ng
// memory check (the VSZ column of syslog-ng's lines). The first 8 bytes are
// also read as syslog-ng's pid file.
#include "wd_syslogng.cpp"

#include <type_traits>

#include "fuzz_util.h"
#include "wd_status.h"

namespace {

// One line through the syslog-ng check's line parser, which gives the memory
// column and, in its newer form, the process id.
template <typename Parse>
void Memory(Parse parse, const char* line) {
  long pid;
  unsigned long memory;
  if constexpr (std::is_invocable_v<Parse, const char*, long*, unsigned long*>) {
    parse(line, &pid, &memory);
  } else {
    parse(line, &memory);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  FILE* f = MemFile(text);
  char out[512];
  mod_processStatusText(f, out, sizeof out);
  fclose(f);
  FUZZ_CHECK(strlen(out) == 15);  // eight 0-or-1 fields

  // checkSyslogngMemory's reading of the listing.
  f = MemFile(text);
  char* line = nullptr;
  size_t cap = 0;
  while (getline(&line, &cap, f) != -1) Memory(MemoryOfLine, line);
  free(line);
  fclose(f);

  char pid[9] = {0};
  memcpy(pid, data, size < 8 ? size : 8);
  LeadingPid(pid);
  return 0;
}
