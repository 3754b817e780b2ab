// Test harness for integration tests: each test runs in a throw-away gateway
// (gateway/gw-run) and drives the installed daemon only from outside.
#ifndef WATCHDOGD_TESTS_INTEGRATION_GATEWAY_H
#define WATCHDOGD_TESTS_INTEGRATION_GATEWAY_H

#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "libwdfunc.h"
#include "wd_wire.h"

#include "../test_util.h"

namespace gw {

// env(1) and the settings that run a program under libfaketime `speed` times
// faster, both clocks: the child only opens and execs.
std::vector<std::string> Faketime(int speed);
// The same with libfaketime's own settings (FAKETIME* and the like).
std::vector<std::string> FaketimeWith(const std::vector<std::string>& settings);

std::vector<std::string> Split(const std::string& text, char sep);

// The daemon as a child process, under libfaketime as `faketime` says. In a
// gateway of the target's programs (gateway/gw-run, WD_EMULATOR) the daemon
// runs under the emulator and the target's libfaketime.
class Daemon {
 public:
  explicit Daemon(std::vector<std::string> faketime = Faketime(100))
      : faketime_(std::move(faketime)) {}
  ~Daemon() { Kill(); }
  // With `waitReady`, returns once start-up is over (/var/wd_tmp exists).
  bool Start(const std::vector<std::string>& args = {}, bool waitReady = true);
  void Kill();  // SIGKILL; a sanitizer report in its stderr fails the test
  bool Running() const;
  pid_t pid() const { return pid_; }
  std::string Stderr() const;
  std::string NewStderr() const;  // what it wrote after its start-up

 private:
  std::vector<std::string> faketime_;
  pid_t pid_ = -1;
  size_t readyMark_ = 0;
};

using wdtest::Count;
using wdtest::Exists;
using wdtest::ReadFile;
using wdtest::RealSleepMs;
using wdtest::WaitUntil;
void WriteFile(const std::string& path, const std::string& text);
std::vector<std::string> Lines(const std::string& path);
// Waits until the file at `path` holds `text` at least `n` times.
bool WaitFor(const std::string& path, const std::string& text, size_t n = 1, int timeoutMs = 20000);
constexpr const char* kConsole = "/dev/console";  // the captured debug console
std::string Console();
void ClearConsole();
void Stop(pid_t pid);  // SIGKILL to a child, then reaped

int Bind(const std::string& path);  // a datagram socket bound at `path`, anything there removed

// Records cross to the daemon in the device's byte order (gateway/peer_wire.h).
bool SendToChannel(const std::string& path, const void* bytes, size_t len);  // bytes as they are
// A command to the daemon's socket, its header given in this machine's order;
// `dataLength` -1 is the data's own length.
bool SendCommand(uint32_t type, uint16_t mod, uint32_t word = 0,
                 const std::vector<unsigned char>& data = {}, int64_t dataLength = -1);
// An event as a module's channel takes it: in the device's order, to be sent as is.
wdMsg Event(int eventType, int destMod, const std::string& payload = "");

// The query reply socket /tmp/wd_result_sock.
class ResultSocket {
 public:
  ResultSocket();
  ~ResultSocket();
  bool Receive(wdCmdMsg* reply, int timeoutMs = 5000);
  // The reply's wordData, or -1. Also a barrier: every command sent before
  // it has been handled.
  long Query(uint16_t mod, int timeoutMs = 5000);

 private:
  int fd_;
};

// Takes over a module's channel path: the daemon sends the module's events
// to that path through the module's own socket, so they arrive here instead.
class ChannelTap {
 public:
  explicit ChannelTap(const std::string& path);
  ~ChannelTap();
  // A datagram of event `event` (any when 0), skipping others; its size or -1.
  ssize_t Receive(wdMsg* msg, int timeoutMs = 5000, int event = 0);

 private:
  int fd_;
};

std::vector<int> ThreadPolicies(pid_t pid);  // SCHED_OTHER 0, SCHED_RR 2 per thread

// Waits until the running PPPoE module has handled every event sent to it so
// far: a CONFIG_CHANGE, which makes it read (and print) its configuration.
void PppoeBarrier(const Daemon& d);
// One PPPoE check cycle (a TIMER_EXPIRED into its channel) and its end.
void PppoeCycle(const Daemon& d);

// The gateway's real syslog-ng (gateway/syslog-start).
bool StartSyslogNg(bool keepConfig = false);
void StopSyslogNg();  // SIGKILL, as a crash would
int SyslogNgPid();    // from /var/run/syslog-ng.pid; 0 when none
std::vector<std::string> ReportLines(const std::string& file = "/var/log/messages");
// The report texts of `category` that syslog-ng wrote, without
// "my.app.wd.CATEGORY.ID: " and the seconds (voipstat lines have none).
std::vector<std::string> Reports(const std::string& category);
// Waits until there are at least `n` of them.
bool WaitReports(const std::string& category, size_t n, int timeoutMs = 20000);

// The gateway's syslog-stub: answers each datagram as `plan` says (S success,
// F failure, N nothing; the last letter stays), and writes `pid` as syslog-ng's.
class FakeSyslog {
 public:
  explicit FakeSyslog(const std::string& plan = "S", int pid = 4242);
  ~FakeSyslog() { Stop(pid_); }           // its socket file stays, as after a crash
  void SetPlan(const std::string& plan);  // counting starts anew
  std::vector<std::string> Received();    // "SIZE TEXT" per datagram
  bool WaitForCount(size_t n, int timeoutMs = 10000);

 private:
  pid_t pid_;
};

// The gateway's voice application (gateway/voice_app.cpp): answers the VoIP
// modules' queries; its log kLog has a line per event.
class VoiceApp {
 public:
  static constexpr const char* kLog = "/var/log/voiceApp";
  VoiceApp();  // started, and its control FIFO ready
  ~VoiceApp() { Stop(pid_); }
  void Ctl(const std::string& command);  // a control command, e.g. "register 2"
  bool WaitFor(const std::string& needle, size_t n = 1) { return gw::WaitFor(kLog, needle, n); }

 private:
  pid_t pid_;
};

// This process's standard error (an in-process relay's console) into a file.
class StderrFile {
 public:
  StderrFile();
  ~StderrFile();
  std::string Text() const;

 private:
  int saved_;
};

struct RunResult {
  int status;          // exit status, or -1
  std::string output;  // standard output and standard error together
};
RunResult Run(const std::string& command);  // a shell command line in the gateway
void SetConfig(const std::string& node, const std::string& attr, const std::string& value);
std::string GetConfig(const std::string& node, const std::string& attr);  // "" when unset

}  // namespace gw

#endif  // WATCHDOGD_TESTS_INTEGRATION_GATEWAY_H
