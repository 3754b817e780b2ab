// Test harness for integration tests. Each test runs inside its own
// throw-away gateway (gateway/gw-run), where the installed daemon is
// /opt/watchdogd/sbin/watchdogd. Tests drive the daemon only from outside:
// the command socket, the tools, channel paths, the console and its files.
#ifndef WATCHDOGD_TESTS_INTEGRATION_GATEWAY_H
#define WATCHDOGD_TESTS_INTEGRATION_GATEWAY_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "libwdfunc.h"
#include "wd_types.h"

namespace gw {

constexpr const char* kDaemon = "/opt/watchdogd/sbin/watchdogd";

// The installed programs may be built for another target (the gateway's MIPS):
// WD_EMULATOR then names the command that runs them (qemu-mips -L ...) and
// WD_TARGET_ENDIAN their byte order ("big"). Empty for this machine's build.
std::string Emulator();
// A command line for an installed program, through the emulator if any.
std::string Installed(const std::string& program);
// A 32-bit field of a record written by the installed programs.
uint32_t FromTarget(uint32_t raw);
constexpr const char* kDaemonStderr = "/gw/watchdogd.stderr";

// Options for running a process under libfaketime: the clock runs `speed`
// times faster and sleeps are that much shorter.
std::vector<std::string> FakeTimeEnv(int speed);

// The daemon as a child process, its standard error captured in kDaemonStderr.
// It runs under libfaketime at `speed` times the real pace (1: real time), so
// that its 30-second wait for syslog-ng and its long timers pass quickly.
class Daemon {
 public:
  int speed = 100;

  Daemon() = default;
  ~Daemon() { Kill(); }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Starts the daemon; with `waitReady`, returns once start-up has finished
  // (/var/wd_tmp exists: it is removed before the start). Returns false if it
  // did not get there.
  bool Start(const std::vector<std::string>& args = {}, bool waitReady = true,
             const std::vector<std::string>& env = {});
  // Waits for the daemon to end by itself; returns its exit status, or -1.
  int Wait(int timeoutMs);
  void Kill();
  bool Running() const;
  pid_t pid() const { return pid_; }
  std::string Stderr() const;
  // What the daemon wrote to standard error after its start-up finished.
  std::string NewStderr() const;

 private:
  pid_t pid_ = -1;
  size_t readyMark_ = 0;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);
bool Exists(const std::string& path);
// Sleeps `ms` milliseconds of real time, also in a process under libfaketime.
void RealSleepMs(int ms);
// Polls `done` every 20 ms until it holds or `timeoutMs` has passed.
bool WaitUntil(const std::function<bool()>& done, int timeoutMs = 10000);

// The captured debug console (/dev/console of the gateway).
std::string Console();
void ClearConsole();

// Sends raw bytes, or a command, to the daemon's command socket.
bool SendRaw(const void* bytes, size_t len);
bool SendCommand(uint32_t type, uint16_t mod, uint32_t word = 0,
                 const std::vector<unsigned char>& data = {});
// Like SendCommand with a dataLength that need not match the data sent.
bool SendCommandWithLength(uint32_t type, uint16_t mod, uint32_t word, uint32_t dataLength,
                           const std::vector<unsigned char>& data);

// The query reply socket /tmp/wd_result_sock.
class ResultSocket {
 public:
  ResultSocket();
  ~ResultSocket();
  ResultSocket(const ResultSocket&) = delete;
  ResultSocket& operator=(const ResultSocket&) = delete;
  // Receives one reply; false when none came within `timeoutMs`.
  bool Receive(wdCmdMsg* reply, int timeoutMs = 5000);
  // Queries `mod` and returns the reply's wordData, or -1 without reply.
  long Query(uint16_t mod, int timeoutMs = 5000);

 private:
  int fd_;
};

// Takes over a module's channel path: the daemon sends a module's events to
// that path through the module's own socket, so a socket bound there now
// receives them instead of the module.
class ChannelTap {
 public:
  explicit ChannelTap(const std::string& path);
  ~ChannelTap();
  ChannelTap(const ChannelTap&) = delete;
  ChannelTap& operator=(const ChannelTap&) = delete;
  // Receives one datagram; returns its size, or -1 when none came in time.
  ssize_t Receive(wdMsg* msg, int timeoutMs = 5000);

 private:
  int fd_;
};

// Sends raw bytes straight to a channel path, as a foreign local process could.
bool SendToChannel(const std::string& path, const void* bytes, size_t len);
// An event record for SendToChannel.
wdMsg Event(int eventType, int destMod, const std::string& payload = "");

// Scheduling policy (SCHED_OTHER 0, SCHED_RR 2, ...) of each thread of `pid`.
std::vector<int> ThreadPolicies(pid_t pid);

// The gateway's real syslog-ng (gateway/syslog-start).
bool StartSyslogNg(bool keepConfig = false);
void StopSyslogNg();  // SIGKILL, as a crash would
int SyslogNgPid();    // from /var/run/syslog-ng.pid; 0 when none
// The report lines in syslog-ng's output file /var/log/messages.
std::vector<std::string> ReportLines(const std::string& file = "/var/log/messages");

// A scriptable stand-in for syslog-ng, for what the real one cannot be made to
// do: it binds /var/wdSyslogTx.chanl, records every datagram and answers it
// on /var/wdSyslogRx.chanl with success, failure, or not at all. It writes
// `pid` into /var/run/syslog-ng.pid (any number: a new one looks like a
// restarted syslog-ng).
class FakeSyslog {
 public:
  enum Mode { kSuccess, kFailure, kSilent };
  explicit FakeSyslog(int pid = 4242);
  ~FakeSyslog();
  FakeSyslog(const FakeSyslog&) = delete;
  FakeSyslog& operator=(const FakeSyslog&) = delete;
  void SetMode(Mode mode);
  // Answers for the next datagrams, in order; after them the mode applies.
  void SetScript(const std::vector<Mode>& answers);
  void SetPid(int pid);
  // Datagram texts received so far (up to their terminating zero).
  std::vector<std::string> Received();
  // Sizes of the datagrams received so far.
  std::vector<size_t> Sizes();
  bool WaitForCount(size_t n, int timeoutMs = 10000);

 private:
  void Serve();
  struct State;
  State* state_;
};

// Sends this process's standard error (the debug console of an in-process
// relay) to a file that can be read at any time.
class StderrFile {
 public:
  StderrFile();
  ~StderrFile();
  StderrFile(const StderrFile&) = delete;
  StderrFile& operator=(const StderrFile&) = delete;
  std::string Text() const;

 private:
  int saved_;
};

struct RunResult {
  int status;          // exit status, or -1
  std::string output;  // standard output and standard error together
};
// Runs a shell command line inside the gateway.
RunResult Run(const std::string& command);

// Sets configuration values through the tree shared with the daemon.
void SetConfig(const std::string& node, const std::string& attr, const std::string& value);

// Number of occurrences of `needle` in `text`.
size_t Count(const std::string& text, const std::string& needle);

}  // namespace gw

#endif  // WATCHDOGD_TESTS_INTEGRATION_GATEWAY_H
