#include "gateway.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "peer_wire.h"
#include "tcapi.h"

namespace gw {

namespace {

constexpr const char* kDaemonStderr = "/gw/watchdogd.stderr";

sockaddr_un Addr(const std::string& path) {
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  return addr;
}

bool Readable(int fd, int timeoutMs) {
  pollfd p = {fd, POLLIN, 0};
  int rc;
  while ((rc = poll(&p, 1, timeoutMs)) < 0 && errno == EINTR) {
  }
  return rc > 0;
}

// Starts `argv` as a child; its standard error and output go to `err` and
// `out` when they are given.
pid_t Spawn(const std::vector<std::string>& argv, const char* err = nullptr,
            const char* out = nullptr) {
  std::vector<char*> cargv;
  for (const std::string& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
  cargv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    if (err != nullptr) dup2(open(err, O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
    if (out != nullptr) dup2(open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
    execvp(cargv[0], cargv.data());
    _exit(127);
  }
  return pid;
}

}  // namespace

std::vector<std::string> Faketime(int speed) {
  return FaketimeWith({"FAKETIME=+0 x" + std::to_string(speed), "FAKETIME_DONT_FAKE_MONOTONIC=0"});
}

std::vector<std::string> FaketimeWith(const std::vector<std::string>& settings) {
  const char* asan = getenv("ASAN_OPTIONS");
  std::vector<std::string> env = {"/usr/bin/env",
                                  "LD_PRELOAD=/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1"};
  env.insert(env.end(), settings.begin(), settings.end());
  env.push_back(std::string("ASAN_OPTIONS=verify_asan_link_order=0:") + (asan ? asan : ""));
  return env;
}

std::vector<std::string> Split(const std::string& text, char sep) {
  std::vector<std::string> out;
  std::string field;
  std::istringstream in(text);
  while (std::getline(in, field, sep)) out.push_back(field);
  return out;
}

bool Daemon::Start(const std::vector<std::string>& args, bool waitReady) {
  std::vector<std::string> argv = faketime_;
  argv.push_back("/opt/watchdogd/sbin/watchdogd");
  argv.insert(argv.end(), args.begin(), args.end());
  rmdir("/var/wd_tmp");
  pid_ = Spawn(argv, kDaemonStderr, "/gw/watchdogd.stdout");
  readyMark_ = 0;
  if (!waitReady) return pid_ > 0;
  bool ready = WaitUntil([] { return Exists("/var/wd_tmp"); }, 120000);
  readyMark_ = Stderr().size();
  return ready;
}

void Daemon::Kill() {
  if (pid_ <= 0) return;
  Stop(pid_);
  pid_ = -1;
  std::string err = Stderr();  // a sanitizer build reports here
  if (err.find("Sanitizer") != std::string::npos || err.find("runtime error:") != std::string::npos)
    ADD_FAILURE() << "sanitizer report from watchdogd:\n" << err;
}

bool Daemon::Running() const { return pid_ > 0 && kill(pid_, 0) == 0; }
std::string Daemon::Stderr() const { return ReadFile(kDaemonStderr); }
std::string Daemon::NewStderr() const { return Stderr().substr(readyMark_); }

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> Lines(const std::string& path) {
  std::vector<std::string> out;
  std::istringstream in(ReadFile(path));
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

bool WaitFor(const std::string& path, const std::string& text, size_t n, int timeoutMs) {
  return WaitUntil([&] { return Count(ReadFile(path), text) >= n; }, timeoutMs);
}

std::string Console() { return ReadFile(kConsole); }
void ClearConsole() { truncate(kConsole, 0); }

void Stop(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

int Bind(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = Addr(path);
  unlink(path.c_str());
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ADD_FAILURE() << "harness: cannot bind " << path << ": " << strerror(errno);
  }
  return fd;
}

bool SendToChannel(const std::string& path, const void* bytes, size_t len) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = Addr(path);
  ssize_t n = sendto(fd, bytes, len, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  close(fd);
  return n == static_cast<ssize_t>(len);
}

bool SendCommand(uint32_t type, uint16_t mod, uint32_t word, const std::vector<unsigned char>& data,
                 int64_t dataLength) {
  wdCmdMsg head = peer::DeviceHead(
      {type, mod, 0, word, static_cast<uint32_t>(dataLength < 0 ? data.size() : dataLength)});
  std::vector<unsigned char> bytes(sizeof head + data.size());
  memcpy(bytes.data(), &head, sizeof head);
  if (!data.empty()) memcpy(bytes.data() + sizeof head, data.data(), data.size());
  return SendToChannel(WD_CMD_SOCK_PATH, bytes.data(), bytes.size());
}

wdMsg Event(int eventType, int destMod, const std::string& payload) {
  wdMsg msg = {};
  msg.eventType = eventType;
  msg.destMod = destMod;
  memcpy(msg.data, payload.data(), std::min(payload.size(), sizeof msg.data));
  msg.datalen = static_cast<uint8_t>(std::min<size_t>(payload.size(), 255));
  msg.eventType = peer::Device32(msg.eventType);
  msg.destMod = peer::Device32(msg.destMod);
  return msg;
}

ResultSocket::ResultSocket() : fd_(Bind(WD_RESULT_SOCK_PATH)) {}

ResultSocket::~ResultSocket() {
  close(fd_);
  unlink(WD_RESULT_SOCK_PATH);
}

bool ResultSocket::Receive(wdCmdMsg* reply, int timeoutMs) {
  unsigned char buf[600];
  if (!Readable(fd_, timeoutMs) || recv(fd_, buf, sizeof buf, 0) < 16) return false;
  memcpy(reply, buf, sizeof *reply);
  *reply = peer::DeviceHead(*reply);  // the same swap back
  return true;
}

long ResultSocket::Query(uint16_t mod, int timeoutMs) {
  wdCmdMsg reply;
  if (!SendCommand(MSG_QORVWATCHDOG_QUERY, mod, 0) || !Receive(&reply, timeoutMs)) return -1;
  return reply.wordData;
}

ChannelTap::ChannelTap(const std::string& path) : fd_(Bind(path)) {}
ChannelTap::~ChannelTap() { close(fd_); }

ssize_t ChannelTap::Receive(wdMsg* msg, int timeoutMs, int event) {
  for (;;) {
    if (!Readable(fd_, timeoutMs)) return -1;
    std::vector<unsigned char> buf(WD_MSG_SIZE + 64);
    ssize_t n = recv(fd_, buf.data(), buf.size(), 0);
    *msg = wdMsg{};
    if (n > 0) memcpy(msg, buf.data(), std::min(static_cast<size_t>(n), sizeof *msg));
    msg->eventType = peer::Device32(msg->eventType);
    msg->srcMod = peer::Device32(msg->srcMod);
    msg->destMod = peer::Device32(msg->destMod);
    if (event == 0 || msg->eventType == event) return n;
  }
}

std::vector<int> ThreadPolicies(pid_t pid) {
  // Field 41 of each thread's stat is its policy: the 39th after the name.
  std::istringstream in(Run("for t in /proc/" + std::to_string(pid) +
                            "/task/*; do sed 's/.*) //' $t/stat | cut -d' ' -f39; done")
                            .output);
  std::vector<int> out;
  for (int policy; in >> policy;) out.push_back(policy);
  return out;
}

void PppoeBarrier(const Daemon& d) {
  ASSERT_TRUE(WaitUntil([] { return Exists("/var/wd_pppoe.chanl"); }));
  size_t before = Count(d.Stderr(), "ppp_config.PingIP=");
  wdMsg msg = Event(CONFIG_CHANGE, MOD_PPPOE);
  ASSERT_TRUE(SendToChannel("/var/wd_pppoe.chanl", &msg, sizeof msg));
  ASSERT_TRUE(WaitUntil([&] { return Count(d.Stderr(), "ppp_config.PingIP=") > before; }, 60000));
}

void PppoeCycle(const Daemon& d) {
  ASSERT_TRUE(WaitUntil([] { return Exists("/var/wd_pppoe.chanl"); }));
  wdMsg msg = Event(TIMER_EXPIRED, MOD_PPPOE);
  ASSERT_TRUE(SendToChannel("/var/wd_pppoe.chanl", &msg, sizeof msg));
  PppoeBarrier(d);
}

bool StartSyslogNg(bool keepConfig) {
  return Run(keepConfig ? "/gw/sim/syslog-start --again" : "/gw/sim/syslog-start").status == 0;
}

int SyslogNgPid() { return atoi(ReadFile("/var/run/syslog-ng.pid").c_str()); }

void StopSyslogNg() {
  int pid = SyslogNgPid();
  if (pid <= 0) return;
  kill(pid, SIGKILL);
  WaitUntil([pid] { return kill(pid, 0) != 0; });
}

std::vector<std::string> ReportLines(const std::string& file) {
  std::vector<std::string> out;
  for (const std::string& line : Lines(file)) {
    if (line.find("my.app.wd.") != std::string::npos)
      out.push_back(line.substr(line.find("my.app.wd.")));
  }
  return out;
}

std::vector<std::string> Reports(const std::string& category) {
  std::vector<std::string> out;
  for (const std::string& line : ReportLines()) {
    if (line.rfind("my.app.wd." + category + ".", 0) != 0) continue;
    std::string text = line.substr(line.find(": ") + 2);
    out.push_back(category == "voipstat" ? text : text.substr(text.find('|') + 1));
  }
  return out;
}

bool WaitReports(const std::string& category, size_t n, int timeoutMs) {
  return WaitUntil([&] { return Reports(category).size() >= n; }, timeoutMs);
}

FakeSyslog::FakeSyslog(const std::string& plan, int pid) {
  unlink("/var/log/syslog-stub");
  unlink("/var/wdSyslogTx.chanl");
  SetPlan(plan);
  pid_ = Spawn({WD_SYSLOG_STUB, std::to_string(pid)});
  if (!WaitUntil([&] { return Exists("/var/wdSyslogTx.chanl") && SyslogNgPid() == pid; }))
    ADD_FAILURE() << "harness: " << WD_SYSLOG_STUB << " did not start";
}

void FakeSyslog::SetPlan(const std::string& plan) {
  WriteFile("/var/run/syslog-stub.plan.new", plan);
  rename("/var/run/syslog-stub.plan.new", "/var/run/syslog-stub.plan");
}

VoiceApp::VoiceApp() {
  unlink(kLog);
  pid_ = Spawn({"/gw/peers/voiceApp"});
  if (!WaitFor("started")) ADD_FAILURE() << "harness: /gw/peers/voiceApp did not start";
}

void VoiceApp::Ctl(const std::string& command) {
  RunResult r = Run("/gw/peers/voiceApp ctl " + command);
  EXPECT_EQ(r.status, 0) << r.output;
}

std::vector<std::string> FakeSyslog::Received() { return Lines("/var/log/syslog-stub"); }

bool FakeSyslog::WaitForCount(size_t n, int timeoutMs) {
  return WaitUntil([&] { return Received().size() >= n; }, timeoutMs);
}

StderrFile::StderrFile() : saved_(dup(STDERR_FILENO)) {
  int fd = open("/gw/test.stderr", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
  dup2(fd, STDERR_FILENO);
  close(fd);
}

StderrFile::~StderrFile() {
  dup2(saved_, STDERR_FILENO);
  close(saved_);
}

std::string StderrFile::Text() const { return ReadFile("/gw/test.stderr"); }

RunResult Run(const std::string& command) {
  RunResult result{-1, ""};
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) return result;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) result.output.append(buf, n);
  int status = pclose(p);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

void SetConfig(const std::string& node, const std::string& attr, const std::string& value) {
  if (tcapi_set(node.c_str(), attr.c_str(), value.c_str()) != 0)
    ADD_FAILURE() << "harness: cannot set " << node << " " << attr;
}

std::string GetConfig(const std::string& node, const std::string& attr) {
  char value[256] = {0};
  tcapi_nget(node.c_str(), attr.c_str(), value, sizeof value);
  return value;
}

}  // namespace gw
