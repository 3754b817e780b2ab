// /proc/net/dev and /proc/net/stat/nf_conntrack (two parts, cut at the line
// "--8<--") as the periodic info module reads them: the WAN packet counters
// of ppp0, nas1 and nas2, and the sums of the conntrack table's first rows.
#include "fuzz_util.h"
#include "wd_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const struct {
    int (*text)(FILE*, char*, size_t);
    long fields;  // the '|' the text always has
  } kFiles[] = {{mod_packetCounterText, 20}, {mod_connectionStatusText, 15}};
  std::vector<std::string> parts = Parts(data, size, 2);
  for (int i = 0; i < 2; ++i) {
    FILE* f = MemFile(parts[i]);
    char out[512];
    FUZZ_CHECK(kFiles[i].text(f, out, sizeof out) == 1);
    fclose(f);
    FUZZ_CHECK(std::count(out, out + strlen(out), '|') == kFiles[i].fields);
  }
  return 0;
}
