// /proc/uptime, /proc/meminfo and two samples of /proc/stat (the CPU load is
// the change between them) as the general status reads them. Input: the four
// files, each ended by a line "--8<--".
#include "fuzz_util.h"
#include "wd_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> p = Parts(data, size, 4);
  old_total = old_idle = 0;
  for (int sample = 2; sample <= 3; ++sample) {
    FILE* uptime = MemFile(p[0]);
    FILE* meminfo = MemFile(p[1]);
    FILE* stat = MemFile(p[sample]);
    char out[512];
    mod_generalStatusText(uptime, meminfo, stat, out, sizeof out);
    fclose(uptime);
    fclose(meminfo);
    fclose(stat);
    FUZZ_CHECK(std::count(out, out + strlen(out), '|') == 2);
  }
  return 0;
}
