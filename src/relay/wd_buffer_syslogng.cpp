// Supervision of syslog-ng: noticing a new syslog-ng process, restarting one
// that has grown too big with a configuration generated from Watchdog_Common,
// and the two signal-driven debugging aids of the relay.
#include <ctype.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_buffer.h"
#include "wd_common.h"
#include "wd_lock.h"
#include "wd_timer.h"

namespace {

constexpr const char* kPidFile = "/var/run/syslog-ng.pid";
constexpr const char* kTemplate = "/etc/syslog-ng.conf";
constexpr const char* kConfig = "/var/syslog-ng.conf";
constexpr const char* kStartCmd = "/usr/sbin/syslog-ng -f /var/syslog-ng.conf";
constexpr const char* kListing = "/tmp/syslogMem";
constexpr unsigned kMemoryLimit = 4501;

constexpr const char* kLocalDestination =
    "destination d_local {\nfile(\"/var/log/messages\" template(t_demo_filetemplate));\n};\n";
constexpr const char* kLogStatement =
    "log {\nsource(s_local);\nsource(s_dgram);\nsource(s_network);\ndestination(d_local);\n};";

int gSyslogngPid = 0;  // the process last seen in the pid file (transmit thread)

// Requests noted by the signal handlers, carried out by the transmit thread.
std::atomic<int> gToggleRequests{0};
std::atomic<int> gDumpRequests{0};
int gAnnouncedDebug = 0;  // g_idebug as last announced (transmit thread)

int LeadingPid(const char* text) {
  long pid = 0;
  for (const char* p = text; isdigit(static_cast<unsigned char>(*p)) && pid < 100000000; ++p) {
    pid = pid * 10 + (*p - '0');
  }
  return static_cast<int>(pid);
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
  int pid = LeadingPid(text);
  if (gSyslogngPid == 0) {
    gSyslogngPid = pid;
    return 0;
  }
  if (pid == gSyslogngPid) return 0;
  tcdbg_printf("SyslogngRestart. pid:%d --> %s\n", gSyslogngPid, text);
  gSyslogngPid = pid;
  return 1;
}

void kill_process(const char* pidFile) {
  char text[9];
  fileRead(pidFile, text, sizeof text);
  if (text[0] == '\0') return;
  int pid = LeadingPid(text);
  // 0 or nothing numeric would signal a whole process group or every process.
  if (pid > 0) kill(pid, SIGKILL);
  unlink(pidFile);
}

void checkSyslogngMemory(void) {
  char cmd[160];
  snprintf(cmd, sizeof cmd,
           "ps | grep -v grep | grep \"/usr/sbin/syslog-ng -f /var/syslog-ng.conf\" > %s",
           kListing);
  int ignored = system(cmd);
  (void)ignored;
  FILE* f = fopen(kListing, "re");
  if (f == nullptr) return;
  char* line = nullptr;
  size_t cap = 0;
  bool any = false;
  unsigned largest = 0;
  while (getline(&line, &cap, f) != -1) {
    int pid;
    unsigned memory;
    char user[64], state[64];
    if (sscanf(line, "%d %63s %u %63s", &pid, user, &memory, state) != 4) continue;
    any = true;
    if (memory > largest) largest = memory;
  }
  free(line);
  if (any && largest >= kMemoryLimit) {
    tcdbg_printf("Restart syslog-ng process !\n");
    RestartSysklogng();
    wdLock lock(&bufMutex);
    dontSend = 1;
    wd_bufRearmCheck();
  }
  fclose(f);
  unlink(kListing);
}

void RestartSysklogng(void) {
  kill_process(kPidFile);
  char cmd[160];
  snprintf(cmd, sizeof cmd, "/bin/cp -pf %s %s", kTemplate, kConfig);
  int ignored = system(cmd);

  char enable[16] = {0};
  if (tcapi_get("Watchdog_Common", "Enable", enable) != 0) {
    tcdbg_printf("get Watchdog_Common Enable fail\n");
    return;
  }
  if (strcmp(enable, "1") != 0) return;
  FILE* f = fopen(kConfig, "ae");
  if (f == nullptr) {
    tcdbg_printf("open %s file fail\n", kConfig);
    return;
  }
  char server[128] = {0};
  char host[128] = {0};
  int port = 514;
  bool remote = tcapi_get("Watchdog_Common", "URLSYSLOGServer", server) == 0 && server[0] != '\0';
  if (!remote) {
    tcdbg_printf("URLSYSLOGServer is empty\n");
  } else {
    char protocol[16] = {0};
    if (tcapi_get("Watchdog_Common", "Protocol", protocol) != 0) {
      tcdbg_printf("get Watchdog_Common Protocol fail\n");
      fclose(f);
      return;
    }
    const char* driver = protocol;
    if (strcmp(protocol, "TCP") == 0) {
      driver = "tcp";
    } else if (strcmp(protocol, "UDP") == 0) {
      driver = "udp";
    } else {
      tcdbg_printf("it should not be here....\n");
    }
    sscanf(server, "%127[^:]:%99d", host, &port);
    tcdbg_printf("URLSYSLOGServer is %s site is %s port is %d\n", server, host, port);
    if (PlainHost(host)) {
      char text[WD_LINE_SIZE];
      snprintf(text, sizeof text,
               "destination d_local {\n%s(\"%s\" port(%d) template(t_demo_filetemplate));\n};",
               driver, host, port);
      fputs(text, f);
    } else {
      // Quotes or brackets in the host would break syslog-ng's configuration.
      tcdbg_printf(
          "URLSYSLOGServer host %s is not a host name or address, local destination used\n", host);
      remote = false;
    }
  }
  if (!remote) fputs(kLocalDestination, f);
  fputs(kLogStatement, f);
  fclose(f);
  tcdbg_printf("RestartSysklogng. %s\n", kStartCmd);
  ignored = system(kStartCmd);
  (void)ignored;
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
