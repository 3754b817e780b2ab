// /proc/net/stat/nf_conntrack as the periodic info module sums its first
// four rows.
#include "fuzz_util.h"
#include "wd_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* f = MemFile(std::string(reinterpret_cast<const char*>(data), size));
  char out[512];
  FUZZ_CHECK(mod_connectionStatusText(f, out, sizeof out) == 1);
  fclose(f);
  FUZZ_CHECK(std::count(out, out + strlen(out), '|') == 15);
  return 0;
}
