// /proc/net/arp and /proc/net/if_inet6 as the ARP module reports the
// neighbour table. Input: the ARP table, a line "--8<--", the IPv6 table.
#include "fuzz_util.h"
#include "wd_arp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FreshBuffer();
  std::vector<std::string> p = Parts(data, size, 2);
  FILE* arp = MemFile(p[0]);
  FILE* inet6 = MemFile(p[1]);
  mod_arpReport(arp, inet6);
  fclose(arp);
  fclose(inet6);
  // Every report has the five fields of an entry.
  for (const std::string& line : BufferLines())
    FUZZ_CHECK(std::count(line.begin(), line.end(), '|') >= 4);
  return 0;
}
