// Report lines and the device identity, and the entry points that put lines
// into the relay's buffer.
//
// A report line is "my.app.wd.<category>.<identity>: <seconds>|<text>" (no
// seconds and bar for category voipstat), at most 511 characters. The
// identity is the gateway's MAC address from the MRD record in flash.
#ifndef WATCHDOGD_RELAY_WD_SYSLOG_H
#define WATCHDOGD_RELAY_WD_SYSLOG_H

#include <stdint.h>

#include "wd_buffer.h"

// The gateway's MAC address as twelve lower-case hex digits: empty until the
// first wd_initData, "000000000000" while the flash cannot be read. Read and
// written under the identity lock of wd_syslog.cpp.
extern char macAddr[13];

// The report categories, in the order of their numbers: the name the code
// uses and the text in the report line. The one table of categories: the
// enum and the texts are both made from it. No module reports in
// WD_CAT_PS_SPARE, a second "ps".
#define WD_CATEGORIES(X)         \
  X(WD_CAT_INFGEN, "infgen")     \
  X(WD_CAT_INFCXN, "infcxn")     \
  X(WD_CAT_INFPRC, "infprc")     \
  X(WD_CAT_INFCNT, "infcnt")     \
  X(WD_CAT_INFCNX, "infcnx")     \
  X(WD_CAT_SHELL, "shell")       \
  X(WD_CAT_PPP, "ppp")           \
  X(WD_CAT_ARP, "arp")           \
  X(WD_CAT_RIP, "rip")           \
  X(WD_CAT_IGMP, "igmp")         \
  X(WD_CAT_PS, "ps")             \
  X(WD_CAT_VOIPSTAT, "voipstat") \
  X(WD_CAT_VOIPREG, "voipreg")   \
  X(WD_CAT_TR069, "tr069")       \
  X(WD_CAT_PS_SPARE, "ps")       \
  X(WD_CAT_INTERNAL, "internal") \
  X(WD_CAT_ROUTE, "route")

#define WD_CATEGORY_ENUM(name, text) name,
enum wdCategory : uint32_t { WD_CATEGORIES(WD_CATEGORY_ENUM) WD_CAT_COUNT };
#undef WD_CATEGORY_ENUM
static_assert(WD_CAT_PPP == WD_CATEGORY_PPP, "the buffer's ppp category");

// Builds the report line for `text` in `category` (a wdCategory; a number
// above them gets an empty category text) and hands it to the buffer
// (wd_syslogPushFormat). 0 when the buffer took it, -1 when it refused it.
// Any thread.
int wd_syslogStr(uint32_t category, const char* text) WD_EXCLUDES(bufMutex);
// (Re)reads the identity from the MRD record; 1 on success, 0 on failure.
int wd_initData(void);
// Reads the 255-byte MRD record at 0x1FF00 of /dev/mtd0; 1 when all came.
int MRDread(unsigned char* buf);

// Puts a report line into the buffer, within its limits (500 other lines, 16
// ppp lines), and writes the flash copy when the buffer asks for it. 0 when
// taken, -1 when refused. Takes bufMutex; writes the copy after releasing it.
int wd_syslogPushFormat(const char* line, uint32_t category) WD_EXCLUDES(bufMutex);
// The same for a line restored from flash: appended, never refused.
int wd_syslogPush(const char* line, uint32_t category) WD_EXCLUDES(bufMutex);

#endif  // WATCHDOGD_RELAY_WD_SYSLOG_H
