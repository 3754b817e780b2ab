// Supervision of syslog-ng and the relay's signal requests.
//
// Threads: the transmit thread runs every function here but the two signal
// handlers, which only note their request for it.
#include "wd_syslogng.h"

#include <ctype.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_buffer.h"
#include "wd_lock.h"
#include "wd_proc.h"

namespace {

constexpr const char* kPidFile = WD_SYSLOGNG_PID_DIR "/" WD_SYSLOGNG_PID_NAME;
constexpr const char* kTemplate = "/etc/syslog-ng.conf";
constexpr const char* kConfig = "/var/syslog-ng.conf";
constexpr const char* kStartCmd = "/usr/sbin/syslog-ng -f /var/syslog-ng.conf";
constexpr const char* kListing = "/tmp/syslogMem";
constexpr unsigned long kMemoryLimit = 4501;
// Deadlines: the ps pipeline and cp only read /proc or copy a small file;
// syslog-ng returns once it has read its configuration and gone to the
// background.
constexpr int kListingSeconds = 10;
constexpr size_t kListingMax = 16 * 1024;  // the few syslog-ng lines grep lets through
constexpr int kCopySeconds = 10;
constexpr int kStartSeconds = 30;

constexpr const char* kLocalDestination =
    "destination d_local {\nfile(\"/var/log/messages\" template(t_demo_filetemplate));\n};\n";
constexpr const char* kLogStatement =
    "log {\nsource(s_local);\nsource(s_dgram);\nsource(s_network);\ndestination(d_local);\n};";

// The process last seen in the pid file (transmit thread).
int gSyslogngPid WD_GUARDED_BY(bufMutex) = 0;

// Requests noted by the signal handlers, carried out by the transmit thread.
std::atomic<int> gToggleRequests{0};
std::atomic<int> gDumpRequests{0};
int gAnnouncedDebug = 0;  // g_idebug as last announced (transmit thread)

}  // namespace

int wd_sngLeadingPid(const char* text) {
  long pid = 0;
  return wd_parseLong(&text, 1, INT_MAX, &pid) ? static_cast<int>(pid) : 0;
}

bool wd_sngMemoryOfLine(const char* line, long* pid, unsigned long* memory) {
  const char* blanks = " \t\r\n\v\f";
  long mem;
  if (!wd_parseLong(&line, INT_MIN, INT_MAX, pid)) return false;
  line += strspn(line, blanks);
  size_t user = strcspn(line, blanks);
  if (user == 0) return false;
  line += user;
  if (!wd_parseLong(&line, 0, LONG_MAX, &mem)) return false;
  line += strspn(line, blanks);
  if (*line == '\0') return false;
  *memory = static_cast<unsigned long>(mem);
  return true;
}

namespace {

// Whether process `pid` runs as the daemon's own user (its real user id), as
// the syslog-ng the daemon starts does: any other user's program may give
// itself syslog-ng's command line.
bool RunsAsUs(long pid) {
  char path[32], text[512];
  snprintf(path, sizeof path, "/proc/%ld/status", pid);
  fileRead(path, text, sizeof text);
  const char* uid = strstr(text, "\nUid:");
  if (uid == nullptr) return false;
  char* end;
  unsigned long id = strtoul(uid + 5, &end, 10);
  return end != uid + 5 && id == getuid();
}

// A host name or address that can stand in syslog-ng's configuration.
bool PlainHost(const char* host) {
  if (*host == '\0') return false;
  for (const char* p = host; *p; ++p) {
    if (!isalnum(static_cast<unsigned char>(*p)) && *p != '.' && *p != '-' && *p != '_')
      return false;
  }
  return true;
}

// A name that syslog-ng can take as a destination driver.
bool PlainDriver(const char* driver) {
  if (*driver == '\0') return false;
  for (const char* p = driver; *p; ++p) {
    if (!isalnum(static_cast<unsigned char>(*p)) && *p != '_' && *p != '-') return false;
  }
  return true;
}

// Appends the remote destination for `server` over `protocol` to `f`, or says
// why a value cannot go into the configuration and returns false.
bool AppendRemote(FILE* f, const char* server, const char* protocol) {
  const char* driver = protocol;
  if (strcmp(protocol, "TCP") == 0) {
    driver = "tcp";
  } else if (strcmp(protocol, "UDP") == 0) {
    driver = "udp";
  } else {
    tcdbg_printf("it should not be here....\n");
  }
  char host[128] = {0};
  size_t hostLen = strcspn(server, ":");
  memcpy(host, server, hostLen < sizeof host ? hostLen : sizeof host - 1);
  int port = 514;
  bool portOk = true;
  if (server[hostLen] == ':') {
    const char* text = server + hostLen + 1;
    long value;
    if (wd_parseLong(&text, 1, 65535, &value)) {
      port = static_cast<int>(value);
    } else {
      char* end;
      strtol(server + hostLen + 1, &end, 10);
      portOk = end == server + hostLen + 1;  // no number at all keeps 514
    }
  }
  if (!PlainDriver(driver)) {
    tcdbg_printf("Protocol %s is not a syslog-ng driver name, local destination used\n", driver);
    return false;
  }
  if (!PlainHost(host)) {
    // Quotes or brackets in the host would break syslog-ng's configuration.
    tcdbg_printf("URLSYSLOGServer host %s is not a host name or address, local destination used\n",
                 host);
    return false;
  }
  if (!portOk) {
    tcdbg_printf("URLSYSLOGServer %s has no port in 1-65535, local destination used\n", server);
    return false;
  }
  tcdbg_printf("URLSYSLOGServer is %s site is %s port is %d\n", server, host, port);
  char text[WD_LINE_SIZE];
  snprintf(text, sizeof text,
           "destination d_local {\n%s(\"%s\" port(%d) template(t_demo_filetemplate));\n};", driver,
           host, port);
  fputs(text, f);
  return true;
}

}  // namespace

void fileRead(const char* path, char* buf, int size) {
  if (size <= 0) return;
  memset(buf, 0, static_cast<size_t>(size));
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  ssize_t n = read(fd, buf, static_cast<size_t>(size - 1));
  if (n < 0) buf[0] = '\0';
  close(fd);
}

int SyslogngRestart(void) {
  char text[9];
  fileRead(kPidFile, text, sizeof text);
  if (text[0] == '\0') {
    tcdbg_printf("SyslogngRestart. fail to open /var/run/syslog-ng.pid\n");
    return 0;
  }
  int pid = wd_sngLeadingPid(text);
  if (gSyslogngPid == 0) {
    gSyslogngPid = pid;
    return 0;
  }
  if (pid == gSyslogngPid) return 0;
  tcdbg_printf("SyslogngRestart. pid:%d --> %s\n", gSyslogngPid, text);
  gSyslogngPid = pid;
  return 1;
}

void kill_process(const char* pidFile, const char* name) {
  char text[9];
  fileRead(pidFile, text, sizeof text);
  if (text[0] == '\0') return;
  // 0 or nothing numeric would signal a whole process group or every process;
  // a stale file may name a process that is not the one it was written for.
  int pid = wd_sngLeadingPid(text);
  char path[32], comm[32];
  snprintf(path, sizeof path, "/proc/%d/comm", pid);
  fileRead(path, comm, sizeof comm);
  comm[strcspn(comm, "\n")] = '\0';
  if (pid > 0 && strcmp(comm, name) == 0) {
    kill(pid, SIGKILL);
  } else {
    tcdbg_printf("kill_process: %s names no %s process, nothing killed\n", pidFile, name);
  }
  unlink(pidFile);
}

int checkSyslogngMemory(void) {
  wdOutput out = {kListing, kListingMax, false, nullptr, false};
  wd_runShell("ps | grep -v grep | grep \"/usr/sbin/syslog-ng -f /var/syslog-ng.conf\"",
              kListingSeconds, &out);
  FILE* f = out.file;
  if (f == nullptr) return 0;
  char* line = nullptr;
  size_t cap = 0;
  bool any = false;
  unsigned long largest = 0;
  while (getline(&line, &cap, f) != -1) {
    long pid;
    unsigned long memory;
    if (!wd_sngMemoryOfLine(line, &pid, &memory) || !RunsAsUs(pid)) continue;
    any = true;
    if (memory > largest) largest = memory;
  }
  free(line);
  bool restart = any && largest >= kMemoryLimit;
  if (restart) {
    tcdbg_printf("Restart syslog-ng process !\n");
    RestartSysklogng();
  }
  fclose(f);
  unlink(kListing);
  return restart ? 1 : 0;
}

namespace {

// A fresh copy of the template at /var/syslog-ng.conf.
void CopyTemplate() {
  // cp writes through a link standing at an existing destination; removed
  // first, the copy is a file of its own.
  unlink(kConfig);
  const char* copy[] = {"/bin/cp", "-pf", kTemplate, kConfig, nullptr};
  wd_run(copy, kCopySeconds);
}

// Appends the destination Watchdog_Common names and the log statement to the
// copy of the template. false when the file or "Protocol" cannot be read.
bool AppendSettings() {
  int fd = open(kConfig, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0666);
  FILE* f = fd >= 0 ? fdopen(fd, "a") : nullptr;
  if (f == nullptr) {
    if (fd >= 0) close(fd);
    tcdbg_printf("open %s file fail\n", kConfig);
    return false;
  }
  char server[128] = {0};
  char protocol[16] = {0};
  if (tcapi_get("Watchdog_Common", "URLSYSLOGServer", server) != 0 || server[0] == '\0') {
    tcdbg_printf("URLSYSLOGServer is empty\n");
    server[0] = '\0';  // the local file
  } else if (tcapi_get("Watchdog_Common", "Protocol", protocol) != 0) {
    tcdbg_printf("get Watchdog_Common Protocol fail\n");
    fclose(f);
    return false;
  }
  wd_sngAppendDestination(f, server, protocol);
  fputs(kLogStatement, f);
  fclose(f);
  return true;
}

}  // namespace

void RestartSysklogng(void) {
  kill_process(kPidFile, "syslog-ng");
  CopyTemplate();
  char enable[16] = {0};
  if (tcapi_get("Watchdog_Common", "Enable", enable) != 0) {
    tcdbg_printf("get Watchdog_Common Enable fail\n");
    return;
  }
  if (strcmp(enable, "1") != 0) return;
  if (!AppendSettings()) return;
  tcdbg_printf("RestartSysklogng. %s\n", kStartCmd);
  const char* start[] = {"/usr/sbin/syslog-ng", "-f", kConfig, nullptr};
  wd_run(start, kStartSeconds);
}

bool wd_sngWriteConfig(void) {
  CopyTemplate();
  return AppendSettings();
}

bool wd_sngAppendDestination(FILE* f, const char* server, const char* protocol) {
  bool remote = server[0] != '\0' && AppendRemote(f, server, protocol);
  if (!remote) fputs(kLocalDestination, f);
  return remote;
}

void TriggerDebugFlag(int) {
  g_idebug.fetch_xor(1);
  gToggleRequests.fetch_add(1);
}

void DumpList(int) { gDumpRequests.fetch_add(1); }

void wd_bufServeSignals(void) {
  for (int n = gToggleRequests.exchange(0); n > 0; --n) {
    gAnnouncedDebug ^= 1;
    WD_CONSOLE(gAnnouncedDebug ? "Enable debug flag.\n" : "Disable debug flag.\n");
  }
  for (int n = gDumpRequests.exchange(0); n > 0; --n) {
    WD_CONSOLE("==== Dump of buffered syslog ====\n");
    {
      wdLock lock(&bufMutex);
      printBufAll(commBufList);
    }
    WD_CONSOLE("==== End ====\n");
  }
}
