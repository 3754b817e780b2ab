// A line in a simulated peer's log file. Tests read the log while the peer
// runs, so each line is appended and the file closed at once.
#ifndef WATCHDOGD_GATEWAY_PEER_LOG_H
#define WATCHDOGD_GATEWAY_PEER_LOG_H

#include <stdarg.h>
#include <stdio.h>

__attribute__((format(printf, 2, 3))) inline void PeerLog(const char* path, const char* format,
                                                          ...) {
  FILE* f = fopen(path, "ae");
  if (f == nullptr) return;
  va_list ap;
  va_start(ap, format);
  vfprintf(f, format, ap);
  va_end(ap);
  fputc('\n', f);
  fclose(f);
}

#endif  // WATCHDOGD_GATEWAY_PEER_LOG_H
