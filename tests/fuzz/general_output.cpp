// A shell command's output as the general module reports it: in the pieces
// that 512-byte reads of the output give, each piece a numbered line. The
// numbers must run 1, 2, 3... while the buffer takes the lines. Output past
// 256 KiB is not fed: it only adds lines the full buffer refuses, each
// refusal copying the whole buffer for the flash, which takes minutes here.
#include "wd_general.h"

#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FreshBuffer();
  size = size < 262144 ? size : 262144;
  const char* command = "ifconfig ppp0";
  const std::string text(reinterpret_cast<const char*>(data), size);
  FILE* f = MemFile(text);
  mod_generalReport(command, f);
  fclose(f);
  int number = 0;
  for (const std::string& line : BufferLines()) {
    std::string mark = "|" + std::string(command) + "|" + std::to_string(++number) + "| ";
    FUZZ_CHECK(line.find(mark) != std::string::npos);
  }
  return 0;
}
