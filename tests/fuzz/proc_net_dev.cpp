// /proc/net/dev as the periodic info module reads the WAN packet counters of
// ppp0, nas1 and nas2.
#include "fuzz_util.h"
#include "wd_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* f = MemFile(std::string(reinterpret_cast<const char*>(data), size));
  char out[512];
  FUZZ_CHECK(mod_packetCounterText(f, out, sizeof out) == 1);
  fclose(f);
  FUZZ_CHECK(std::count(out, out + strlen(out), '|') == 20);
  return 0;
}
