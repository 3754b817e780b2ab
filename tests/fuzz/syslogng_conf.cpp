// The destination that the syslog-ng supervision appends to syslog-ng's
// configuration from "URLSYSLOGServer" and "Protocol" of Watchdog_Common
// (input: the two values, separated by a line "--8<--", cut as tcapi_get
// cuts them into the 128- and 16-byte buffers). Property: nothing of the
// values can end a string, a statement or the block, or start a comment or
// a line: the destination holds exactly the quotes, semicolons, braces and
// line ends of its fixed text.
#include "wd_syslogng.h"

#include <algorithm>

#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> p = Parts(data, size, 2);
  char server[128] = {0};
  char protocol[16] = {0};
  snprintf(server, sizeof server, "%s", p[0].c_str());
  snprintf(protocol, sizeof protocol, "%s", p[1].c_str());

  char* text = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&text, &len);
  bool remote = wd_sngAppendDestination(f, server, protocol);
  fclose(f);
  std::string d(text, len);
  free(text);

  const std::string head = "destination d_local {\n";
  const std::string tail = remote ? "));\n};" : "));\n};\n";
  FUZZ_CHECK(d.size() > head.size() + tail.size());
  FUZZ_CHECK(d.compare(0, head.size(), head) == 0);
  FUZZ_CHECK(d.compare(d.size() - tail.size(), tail.size(), tail) == 0);
  std::string body = d.substr(head.size(), d.size() - head.size() - tail.size());
  FUZZ_CHECK(std::count(body.begin(), body.end(), '"') == 2);
  FUZZ_CHECK(body.find_first_of("';#{}\r\n") == std::string::npos);
  FUZZ_CHECK(std::count(body.begin(), body.end(), '(') ==
             std::count(body.begin(), body.end(), ')') + 2);
  return 0;
}
