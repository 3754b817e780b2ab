// The output of "route" as the IP route module reports it: a line per route
// of eight columns, up to the first row that is not one.
#include "fuzz_util.h"
#include "wd_iproute.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FreshBuffer();
  std::string text(reinterpret_cast<const char*>(data), size);
  FILE* f = MemFile(text);
  mod_routeReport(f);
  fclose(f);
  for (const std::string& line : BufferLines())
    FUZZ_CHECK(std::count(line.begin(), line.end(), '|') >= 8);
  return 0;
}
