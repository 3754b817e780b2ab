// The status collectors. Files are read line by line with a 512-byte line
// buffer, as the gateway's procfs prints them; a longer line is read in
// pieces, each taken as a line of its own.
#include "wd_status.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_proc.h"
#include "wd_syslog.h"

uint64_t old_total = 0;
uint64_t old_idle = 0;

namespace {

constexpr size_t kLine = 512;
constexpr int kCounters = 22;
constexpr int kPsSeconds = 10;              // ps only reads /proc
constexpr size_t kPsOutputMax = 64 * 1024;  // a line of about 80 bytes a process

// The watched processes, in report order; a ps line marks the first it holds.
const char* const kWatched[] = {"pppd",      "tr69", "dnsmasq", "voiceApp",
                                "igmpproxy", "ripd", "Rtmp",    "rmt_qcsmngr"};
constexpr int kWatchedCount = sizeof kWatched / sizeof kWatched[0];

// A counter as the line prints it, kept in 32 bits: a counter past 2^31 wraps
// as the target's 32-bit counters do, and one past 2^64 stays at its maximum.
int32_t Counter(const char** p) {
  char* end;
  unsigned long long v = strtoull(*p, &end, 10);
  *p = end;
  return static_cast<int32_t>(static_cast<uint32_t>(v));
}

// The 22 counters after " NAME: " in a /proc/net/dev line; those the line
// does not give stay as they are (0).
void ParseDevLine(const char* line, const char* name, int32_t* counters) {
  const char* p = line;
  while (isspace(static_cast<unsigned char>(*p))) ++p;
  size_t n = strlen(name);
  if (strncmp(p, name, n) != 0 || p[n] != ':') return;
  p += n + 1;
  for (int i = 0; i < kCounters; ++i) {
    while (isspace(static_cast<unsigned char>(*p))) ++p;
    if (!isdigit(static_cast<unsigned char>(*p))) return;
    counters[i] = Counter(&p);
  }
}

// "NAME: N kB" at the start of a /proc/meminfo line.
void ParseMemLine(const char* line, const char* name, uint32_t* value) {
  size_t n = strlen(name);
  if (strncmp(line, name, n) != 0 || line[n] != ':') return;
  const char* p = line + n + 1;
  while (*p == ' ' || *p == '\t') ++p;
  if (isdigit(static_cast<unsigned char>(*p))) *value = wd_parseUnsigned(p);
}

// The ten counters of the "cpu" line of /proc/stat; 0 when it is not one.
int ParseCpuLine(const char* line, uint64_t* total, uint64_t* idle) {
  if (strncmp(line, "cpu", 3) != 0 || !isspace(static_cast<unsigned char>(line[3]))) return 0;
  const char* p = line + 3;
  uint64_t sum = 0;
  for (int i = 0; i < 10; ++i) {
    while (isspace(static_cast<unsigned char>(*p))) ++p;
    if (!isdigit(static_cast<unsigned char>(*p))) break;
    char* end;
    uint64_t v = strtoull(p, &end, 10);
    p = end;
    sum += v;
    if (i == 3) *idle = v;
  }
  *total = sum;
  return 1;
}

FILE* Open(const char* path) { return fopen(path, "re"); }
void Close(FILE* f) {
  if (f != nullptr) fclose(f);
}

}  // namespace

void mod_processStatusText(FILE* ps, char* out, size_t size) {
  int running[kWatchedCount] = {0};
  char line[kLine];
  while (ps != nullptr && fgets(line, sizeof line, ps) != nullptr) {
    for (int i = 0; i < kWatchedCount; ++i) {
      if (strstr(line, kWatched[i]) != nullptr) {
        running[i] = 1;
        break;
      }
    }
  }
  snprintf(out, size, "%d|%d|%d|%d|%d|%d|%d|%d", running[0], running[1], running[2], running[3],
           running[4], running[5], running[6], running[7]);
}

void showProcessStatus(void) {
  char command[64];
  char path[32];
  snprintf(path, sizeof path, "%s/tmp_ps", "/var/wd_tmp");
  snprintf(command, sizeof command, "ps > %s", path);
  // The line above is what runs; ps starts without a shell, its output in a
  // file made anew and read back. A listing cut short by ps's deadline is not
  // reported: the processes it misses would read as not running.
  const char* const argv[] = {"ps", nullptr};
  wdOutput out = {path, kPsOutputMax, false, nullptr, false};
  bool stopped = wd_run(argv, kPsSeconds, &out) == WD_RUN_STOPPED;
  char text[kLine];
  mod_processStatusText(out.file, text, sizeof text);
  Close(out.file);
  if (!stopped) wd_syslogStr(WD_CAT_INFPRC, text);
}

int mod_connectionStatusText(FILE* conntrack, char* out, size_t size) {
  if (conntrack == nullptr) return 0;
  uint32_t table[4][17];
  memset(table, 0, sizeof table);
  char line[kLine];
  int rows = 0;
  while (rows < 4 && fgets(line, sizeof line, conntrack) != nullptr) {
    if (strstr(line, "entries") != nullptr) continue;
    uint32_t* r = table[rows++];
    // At most eight hexadecimal digits a number: nothing can overflow.
    sscanf(line,
           "%08x %08x %08x %08x %08x %08x %08x %08x %08x %08x %08x %08x %08x %08x %08x %08x %08x",
           &r[0], &r[1], &r[2], &r[3], &r[4], &r[5], &r[6], &r[7], &r[8], &r[9], &r[10], &r[11],
           &r[12], &r[13], &r[14], &r[15], &r[16]);
  }
  int32_t f[16];
  f[0] = static_cast<int32_t>(table[0][0]);
  for (int c = 1; c < 16; ++c) {
    f[c] = static_cast<int32_t>(table[0][c] + table[1][c] + table[2][c] + table[3][c]);
  }
  snprintf(out, size, "%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d|%d", f[0], f[1], f[2], f[3],
           f[4], f[5], f[6], f[7], f[8], f[9], f[10], f[11], f[12], f[13], f[14], f[15]);
  return 1;
}

void showConnectionStatus(void) {
  FILE* f = Open("/proc/net/stat/nf_conntrack");
  char text[kLine];
  int ok = mod_connectionStatusText(f, text, sizeof text);
  Close(f);
  if (ok) wd_syslogStr(WD_CAT_INFCNX, text);
}

int mod_packetCounterText(FILE* dev, char* out, size_t size) {
  if (dev == nullptr) return 0;
  int32_t ppp0[kCounters] = {0};
  int32_t nas1[kCounters] = {0};
  int32_t nas2[kCounters] = {0};
  char line[kLine];
  while (fgets(line, sizeof line, dev) != nullptr) {
    if (strstr(line, "ppp0") != nullptr) {
      ParseDevLine(line, "ppp0", ppp0);
    } else if (strstr(line, "nas1") != nullptr) {
      ParseDevLine(line, "nas1", nas1);
    } else if (strstr(line, "nas2") != nullptr) {
      ParseDevLine(line, "nas2", nas2);
    }
  }
  char ip0[20] = {0};
  char ip1[20] = {0};
  char ip2[20] = {0};
  if (tcapi_get("DeviceInfo_PVC0", "WanIP", ip0) != 0) snprintf(ip0, sizeof ip0, "N/A");
  if (tcapi_get("DeviceInfo_PVC1", "WanIP", ip1) != 0) snprintf(ip1, sizeof ip1, "N/A");
  if (tcapi_get("DeviceInfo_PVC2", "WanIP", ip2) != 0) snprintf(ip2, sizeof ip2, "N/A");
  // Transmitted packets, transmit drops and errors, received packets, receive
  // drops and errors: positions 13, 15, 14, 2, 4, 3 counted from 1.
  const int32_t* c[3] = {ppp0, nas2, nas1};
  snprintf(out, size, "%s|%d|%d|%d|%d|%d|%d|%s|%d|%d|%d|%d|%d|%d|%s|%d|%d|%d|%d|%d|%d", ip0,
           c[0][12], c[0][14], c[0][13], c[0][1], c[0][3], c[0][2], ip2, c[1][12], c[1][14],
           c[1][13], c[1][1], c[1][3], c[1][2], ip1, c[2][12], c[2][14], c[2][13], c[2][1], c[2][3],
           c[2][2]);
  return 1;
}

void showPacketCounter(void) {
  FILE* f = Open("/proc/net/dev");
  char text[kLine];
  int ok = mod_packetCounterText(f, text, sizeof text);
  Close(f);
  if (ok) wd_syslogStr(WD_CAT_INFCNT, text);
}

void mod_generalStatusText(FILE* uptime, FILE* meminfo, FILE* stat, char* out, size_t size) {
  char line[kLine];
  float up = 0;
  while (uptime != nullptr && fgets(line, sizeof line, uptime) != nullptr) {
    float since = 0;
    float idleSince = 0;
    if (sscanf(line, "%f %f", &since, &idleSince) >= 1) up = since;
  }

  float memory = 0;
  if (meminfo != nullptr) {
    uint32_t total = 0, free = 0, buffers = 0, cached = 0;
    while (fgets(line, sizeof line, meminfo) != nullptr) {
      if (strstr(line, "MemTotal") != nullptr) {
        ParseMemLine(line, "MemTotal", &total);
      } else if (strstr(line, "MemFree") != nullptr) {
        ParseMemLine(line, "MemFree", &free);
      } else if (strstr(line, "Buffers") != nullptr) {
        ParseMemLine(line, "Buffers", &buffers);
      } else if (strstr(line, "Cached") != nullptr) {
        ParseMemLine(line, "Cached", &cached);
      }
    }
    // Without a total there is nothing to divide by: 0.
    if (total != 0) {
      memory = static_cast<float>((static_cast<double>(free) + buffers + cached) * 100.0 / total);
    }
  }

  float cpu = 0;
  uint64_t total = 0;
  uint64_t idle = 0;
  if (stat != nullptr && fgets(line, sizeof line, stat) != nullptr &&
      ParseCpuLine(line, &total, &idle)) {
    if (total == 0) total = 1;
    int64_t dTotal = static_cast<int64_t>(total - old_total);
    // Computed in unsigned arithmetic, where an overflow wraps, then read as
    // signed.
    int64_t dIdle100 = static_cast<int64_t>((idle - old_idle) * 100u);
    // No time has passed since the last call: nothing to measure, 0.
    if (dTotal != 0 && !(dTotal == -1 && dIdle100 == INT64_MIN)) {
      cpu =
          static_cast<float>(static_cast<int64_t>(100u - static_cast<uint64_t>(dIdle100 / dTotal)));
    }
    old_idle = idle;
    old_total = total;
  }
  snprintf(out, size, "%.1f|%.1f|%.2f", static_cast<double>(cpu), static_cast<double>(memory),
           static_cast<double>(up));
}

void showGeneralStatus(void) {
  FILE* uptime = Open("/proc/uptime");
  FILE* meminfo = Open("/proc/meminfo");
  FILE* stat = Open("/proc/stat");
  char text[kLine];
  mod_generalStatusText(uptime, meminfo, stat, text, sizeof text);
  Close(uptime);
  Close(meminfo);
  Close(stat);
  wd_syslogStr(WD_CAT_INFGEN, text);
}
