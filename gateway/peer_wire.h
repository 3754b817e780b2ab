// The device's byte order for the records a peer exchanges with the daemon.
// The peers run on this machine also when the daemon is the target's program
// under an emulator; WD_TARGET_ENDIAN ("big" or "little") names the device's
// order then, and without it the device's order is this machine's.
#ifndef WATCHDOGD_GATEWAY_PEER_WIRE_H
#define WATCHDOGD_GATEWAY_PEER_WIRE_H

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <vector>

#include "libwdfunc.h"

namespace peer {

inline bool Swaps() {
  static const bool swaps = [] {
    const uint16_t one = 1;
    bool hostBig = *reinterpret_cast<const unsigned char*>(&one) == 0;
    const char* endian = getenv("WD_TARGET_ENDIAN");
    if (endian == nullptr || *endian == '\0') return false;
    return (strcmp(endian, "big") == 0) != hostBig;
  }();
  return swaps;
}

// A field between this machine's order and the device's: the same swap both ways.
inline uint32_t Device32(uint32_t v) { return Swaps() ? __builtin_bswap32(v) : v; }
inline uint16_t Device16(uint16_t v) { return Swaps() ? __builtin_bswap16(v) : v; }
inline int32_t Device32(int32_t v) {
  return static_cast<int32_t>(Device32(static_cast<uint32_t>(v)));
}

// A command message header in the device's order (or back).
inline wdCmdMsg DeviceHead(const wdCmdMsg& head) {
  wdCmdMsg out = head;
  out.signaltype = Device32(head.signaltype);
  out.sequenceNumber = Device16(head.sequenceNumber);
  out.pad = Device16(head.pad);
  out.wordData = Device32(head.wordData);
  out.dataLength = Device32(head.dataLength);
  return out;
}

// SendSigToApp for a header in this machine's order: the header goes out in
// the device's order, `data` (dataLength bytes, already in the device's
// order) after it. The sent size, or -1 with errno.
inline int SendToDaemon(const char* path, const wdCmdMsg& head, const void* data) {
  std::vector<unsigned char> bytes(sizeof head + head.dataLength);
  wdCmdMsg device = DeviceHead(head);
  memcpy(bytes.data(), &device, sizeof device);
  if (head.dataLength > 0 && data != nullptr)
    memcpy(bytes.data() + sizeof head, data, head.dataLength);
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  if (snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path) >=
      static_cast<int>(sizeof addr.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  ssize_t n = sendto(fd, bytes.data(), bytes.size(), MSG_DONTWAIT,
                     reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  int saved = errno;
  close(fd);
  errno = saved;
  return static_cast<int>(n);
}

}  // namespace peer

#endif  // WATCHDOGD_GATEWAY_PEER_WIRE_H
