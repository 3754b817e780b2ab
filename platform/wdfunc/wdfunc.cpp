// The watchdog function library: both sides of the daemon's command socket,
// the feature switch and a process lookup.
#include "libwdfunc.h"

#include <dirent.h>
#include <stdio.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "tcapi.h"

namespace {

bool FillAddr(const char* path, sockaddr_un* addr) {
  memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  if (strlen(path) >= sizeof addr->sun_path) return false;
  strcpy(addr->sun_path, path);
  return true;
}

// Binds `fd` under a name beside `path` that no other process can know in
// advance, and renames the socket file over whatever stands at `path`.
int BindBeside(int fd, const char* path) {
  for (unsigned attempt = 0; attempt < 8; ++attempt) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    unsigned long long tag = (static_cast<unsigned long long>(now.tv_nsec) << 24) ^
                             static_cast<unsigned long long>(now.tv_sec) ^
                             (static_cast<unsigned long long>(getpid()) << 40) ^ attempt;
    sockaddr_un temp;
    char name[sizeof temp.sun_path];
    if (snprintf(name, sizeof name, "%s.%llx", path, tag) >= static_cast<int>(sizeof name) ||
        !FillAddr(name, &temp))
      return -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&temp), sizeof temp) != 0) {
      if (errno == EADDRINUSE) continue;
      return -1;
    }
    if (rename(name, path) == 0) return 0;
    int saved = errno;
    unlink(name);
    errno = saved;
    return -1;
  }
  return -1;
}

}  // namespace

extern "C" int WDSockInit(const char* path, struct sockaddr_un* addr) {
  if (path == nullptr || addr == nullptr || !FillAddr(path, addr)) return -1;
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  unlink(path);
  int rc = bind(fd, reinterpret_cast<sockaddr*>(addr), sizeof *addr);
  // Another process took the name between the removal and the bind, as any
  // process can under the world-writable /tmp.
  if (rc != 0 && errno == EADDRINUSE) rc = BindBeside(fd, path);
  if (rc != 0) {
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
  }
  return fd;
}

extern "C" int wdmsg_receive(int fd, wdCmdMsg** msg, int* len, struct sockaddr_un* addr) {
  if (msg == nullptr || *msg == nullptr || len == nullptr) {
    errno = EINVAL;
    return -1;
  }
  size_t cap =
      *len > static_cast<int>(sizeof(wdCmdMsg)) ? static_cast<size_t>(*len) : sizeof(wdCmdMsg);
  void* grown = realloc(*msg, cap);
  if (grown == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  *msg = static_cast<wdCmdMsg*>(grown);
  socklen_t alen = sizeof(sockaddr_un);
  ssize_t n;
  do {
    n = recvfrom(fd, *msg, cap, 0, reinterpret_cast<sockaddr*>(addr), addr ? &alen : nullptr);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return -1;
  if (static_cast<size_t>(n) < sizeof(wdCmdMsg)) return WDMSG_SHORT_HEADER;
  if (static_cast<uint64_t>(n) < sizeof(wdCmdMsg) + static_cast<uint64_t>((*msg)->dataLength)) {
    return WDMSG_SHORT_DATA;
  }
  return 0;
}

extern "C" int SendSigToApp(const char* path, wdCmdMsg* msg) {
  sockaddr_un addr;
  if (path == nullptr || msg == nullptr || !FillAddr(path, &addr)) {
    errno = EINVAL;
    return -1;
  }
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  ssize_t n = sendto(fd, msg, sizeof(wdCmdMsg) + msg->dataLength, MSG_DONTWAIT,
                     reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  int saved = errno;
  close(fd);
  errno = saved;
  return static_cast<int>(n);
}

extern "C" int wd_isWdEnable(void) {
  char value[16];
  if (tcapi_get("Watchdog_Common", "Enable", value) != 0) return 0;
  return strcmp(value, "1") == 0;
}

extern "C" int getProcessStatus(const char* name) {
  if (name == nullptr) return 0;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return 0;
  int found = 0;
  while (!found) {
    dirent* entry = readdir(proc);
    if (entry == nullptr) break;
    const char* id = entry->d_name;
    if (*id < '1' || *id > '9' || strspn(id, "0123456789") != strlen(id)) continue;
    char path[300], comm[64];
    snprintf(path, sizeof path, "/proc/%s/comm", id);
    FILE* f = fopen(path, "re");
    if (f == nullptr) continue;  // the process ended meanwhile
    if (fgets(comm, sizeof comm, f) != nullptr) {
      comm[strcspn(comm, "\n")] = '\0';
      found = strcmp(comm, name) == 0;
    }
    fclose(f);
  }
  closedir(proc);
  return found;
}
