// The output of "nslookup" as the PPPoE check reads it to pass or fail
// a name-lookup stage (an address seen): 512-byte line reads, each line judged.
#include "wd_pppoe.h"

#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  FILE* f = MemFile(text);
  mod_pppoe_outputPassed(f, mod_pppoe_lookupLinePassed);
  fclose(f);
  return 0;
}
