// The general command module. Its thread reads "ShellCommand" of
// "Watchdog_Common" on every CONFIG_CHANGE and runs it when it is new: not
// empty and not the command it ran last (an empty value forgets that, so the
// same command set again runs again). The command text comes only from the
// configuration tree, which only the gateway's root processes can write.
#include "wd_general.h"

#include <stdio.h>
#include <string.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_modthread.h"
#include "wd_proc.h"
#include "wd_syslog.h"

const char* const noPermissionTable[] = {nullptr};

namespace {

constexpr const char* kHandler = "mod_generalHandler";
constexpr size_t kCommandSize = 544;
constexpr size_t kOutputMax = 64 * 1024;  // output reported at most, in 511-byte pieces or lines

const wdModLoopText kText = {
    kHandler,
    {"Select error, ret=%d\r\n", WD_SAY_CONSOLE},
    {nullptr, WD_SAY_NOTHING},
    {"File discriptor is no in fd set!\r\n", WD_SAY_CONSOLE},
    {"[mod_generalHandler] malloc fail", WD_SAY_TRACE},
    {"Receieved 0 bytes!", WD_SAY_TRACE},
    {nullptr, WD_SAY_NOTHING},
};

// The output of one run, cut into the pieces a 512-byte line read gives:
// up to and including a line end, or 511 characters.
class Lines {
 public:
  explicit Lines(const char* command) : command_(command) {}
  void Add(const char* bytes, size_t n) {
    for (size_t i = 0; i < n; ++i) {
      piece_[len_++] = bytes[i];
      if (bytes[i] == '\n' || len_ == sizeof piece_ - 1) Flush();
    }
  }
  void Flush() {
    if (len_ == 0) return;
    piece_[len_] = '\0';
    len_ = 0;
    size_t n = strlen(piece_);
    if (n > 0) piece_[n - 1] = '\0';
    char report[1024];
    snprintf(report, sizeof report, "%s|%d| %s", command_, number_++,
             piece_ + strspn(piece_, " \t\r\n"));
    wd_syslogStr(WD_CAT_SHELL, report);
  }

 private:
  const char* command_;
  int number_ = 1;
  char piece_[512];
  size_t len_ = 0;
};

// The module's state: the last command it ran.
struct General {
  char lastRun[kCommandSize];
};

wdLoopAction OnEvent(wdMsg* msg, wdModRun* run) {
  char* lastRun = wd_modState<General>(run)->lastRun;
  if (msg->eventType == THREAD_EXIT) return WD_LOOP_EXIT;
  if (msg->eventType != CONFIG_CHANGE) return WD_LOOP_CONTINUE;
  char command[kCommandSize];
  memset(command, 0, sizeof command);
  if (tcapi_get("Watchdog_Common", "ShellCommand", command) != 0) return WD_LOOP_CONTINUE;
  if (command[0] == '\0') {
    lastRun[0] = '\0';
    WD_TRACE_AS(kHandler, "ShellCommand is empty");
  } else if (strlen(command) == kCommandSize - 1) {
    tcdbg_printf("ShellCommand of %zu characters or more may be cut, not run\n", kCommandSize - 1);
  } else if (strcmp(command, lastRun) == 0) {
    WD_TRACE_AS(kHandler, "ShellCommand \"%s\" has run already", command);
  } else if (isPermission(command) != 0) {
    tcdbg_printf("ShellCommand \"%s\" is not permitted\n", command);
  } else {
    memcpy(lastRun, command, kCommandSize);
    executeShellCommand(command);
  }
  return WD_LOOP_CONTINUE;
}

}  // namespace

int isPermission(const char* command) {
  for (const char* const* entry = noPermissionTable; *entry != nullptr; ++entry) {
    if (strncmp(command, *entry, strlen(*entry)) == 0) return 1;
  }
  return 0;
}

void executeShellCommand(const char* command) { mod_generalRun(command, WD_SHELL_TIME_LIMIT); }

void mod_generalRun(const char* command, int limitSeconds) {
  wdOutput out = {nullptr, kOutputMax, false, nullptr, true};  // it may reopen /dev/stdout
  wd_runShell(command, limitSeconds, &out);
  if (out.file == nullptr) return;
  mod_generalReport(command, out.file);
  fclose(out.file);
}

void mod_generalReport(const char* command, FILE* output) {
  Lines lines(command);
  char chunk[512];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, output)) > 0;) lines.Add(chunk, n);
  lines.Flush();
}

const wdModDesc kGeneralModule = {
    MOD_GENERAL,
    "/var/wd_general.chanl",
    {nullptr, nullptr, nullptr},  // no configured period
    {wd_startAlways, nullptr},
    {0, 0},  // no data record
    {mod_generalHandler, &kText, nullptr, OnEvent, nullptr},
    {WD_MOD_TIMER_NONE, 0, false, false},
};

void* mod_generalHandler(void* arg) { wd_runModule(kGeneralModule, arg); }
