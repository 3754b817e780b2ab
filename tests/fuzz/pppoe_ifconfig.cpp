// The output of "ifconfig ppp0" as the PPPoE check reads it: the addresses
// and the flags line it keeps, the private-address rule on what it found, and
// the alarm line made from what it kept.
#include "fuzz_util.h"
#include "wd_pppoe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FreshBuffer();
  addr_backup[0] = addr_6backup[0] = interface_status[0] = '\0';
  const std::string text(reinterpret_cast<const char*>(data), size);
  FILE* f = MemFile(text);
  wdPppLinkScan scan = {};
  mod_pppoe_scanLink(f, &scan);
  fclose(f);
  FUZZ_CHECK(strnlen(scan.ipv4, sizeof scan.ipv4) < sizeof scan.ipv4);
  FUZZ_CHECK(strnlen(addr_6backup, sizeof addr_6backup) < sizeof addr_6backup);
  FUZZ_CHECK(strpbrk(interface_status, "\r\n") == nullptr);
  mod_pppoe_isPrivate(scan.ipv4);
  mod_pppoe_AlarmSyslog("PPP_DOWN_RESET");
  FUZZ_CHECK(BufferLines().size() == 1);
  return 0;
}
