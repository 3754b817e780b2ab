#include "gateway.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "tcapi.h"

extern char** environ;

namespace gw {

namespace {

sockaddr_un Addr(const std::string& path) {
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  return addr;
}

int BindDgram(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = Addr(path);
  unlink(path.c_str());
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    fprintf(stderr, "harness: cannot bind %s: %s\n", path.c_str(), strerror(errno));
  }
  return fd;
}

bool Readable(int fd, int timeoutMs) {
  pollfd p = {fd, POLLIN, 0};
  int rc;
  do {
    rc = poll(&p, 1, timeoutMs);
  } while (rc < 0 && errno == EINTR);
  return rc > 0;
}

}  // namespace

std::vector<std::string> FakeTimeEnv(int speed) {
  std::vector<std::string> env = {
      "LD_PRELOAD=/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1",
      "FAKETIME=+0 x" + std::to_string(speed), "FAKETIME_DONT_FAKE_MONOTONIC=1"};
  const char* asan = getenv("ASAN_OPTIONS");
  env.push_back(std::string("ASAN_OPTIONS=verify_asan_link_order=0") +
                (asan ? std::string(":") + asan : ""));
  return env;
}

std::string Emulator() {
  const char* emulator = getenv("WD_EMULATOR");
  return emulator ? emulator : "";
}

std::string Installed(const std::string& program) {
  return Emulator().empty() ? program : Emulator() + " /opt/watchdogd/bin/" + program;
}

uint32_t FromTarget(uint32_t raw) {
  const char* endian = getenv("WD_TARGET_ENDIAN");
  const uint32_t one = 1;
  bool hostBig = *reinterpret_cast<const unsigned char*>(&one) == 0;
  bool targetBig = endian != nullptr ? strcmp(endian, "big") == 0 : hostBig;
  return targetBig == hostBig ? raw : __builtin_bswap32(raw);
}

bool Daemon::Start(const std::vector<std::string>& args, bool waitReady,
                   const std::vector<std::string>& env) {
  // An emulated daemon keeps real time: the emulator's waits are not scaled.
  std::vector<std::string> argv;
  std::istringstream emulator(Emulator());
  for (std::string word; emulator >> word;) argv.push_back(word);
  if (!argv.empty()) speed = 1;
  argv.push_back(kDaemon);
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> cargv;
  for (auto& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
  cargv.push_back(nullptr);
  std::vector<std::string> envStore;
  for (char** e = environ; *e; ++e) envStore.push_back(*e);
  if (speed != 1) {
    for (const auto& e : FakeTimeEnv(speed)) envStore.push_back(e);
  }
  for (const auto& e : env) envStore.push_back(e);  // later entries win in getenv
  std::vector<char*> cenv;
  for (auto it = envStore.rbegin(); it != envStore.rend(); ++it)
    cenv.push_back(const_cast<char*>(it->c_str()));
  cenv.push_back(nullptr);

  rmdir("/var/wd_tmp");
  pid_ = fork();
  if (pid_ == 0) {
    int err = open(kDaemonStderr, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(err, STDERR_FILENO);
    int out = open("/gw/watchdogd.stdout", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, STDOUT_FILENO);
    execvpe(cargv[0], cargv.data(), cenv.data());
    _exit(127);
  }
  readyMark_ = 0;
  if (!waitReady) return pid_ > 0;
  bool ready = WaitUntil([] { return Exists("/var/wd_tmp"); }, 120000);
  readyMark_ = Stderr().size();
  return ready;
}

std::string Daemon::NewStderr() const { return Stderr().substr(readyMark_); }

int Daemon::Wait(int timeoutMs) {
  if (pid_ <= 0) return -1;
  int status = 0;
  bool ended = WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeoutMs);
  if (!ended) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Daemon::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
  // A sanitizer build reports into the daemon's standard error.
  std::string err = Stderr();
  if (err.find("Sanitizer") != std::string::npos ||
      err.find("runtime error:") != std::string::npos) {
    ADD_FAILURE() << "sanitizer report from watchdogd:\n" << err;
  }
}

bool Daemon::Running() const { return pid_ > 0 && kill(pid_, 0) == 0; }

std::string Daemon::Stderr() const { return ReadFile(kDaemonStderr); }

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

bool Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// How much faster than real time this process's sleeps run (libfaketime).
int TimeScale() {
  const char* setting = getenv("FAKETIME");
  const char* x = setting && getenv("LD_PRELOAD") ? strchr(setting, 'x') : nullptr;
  int scale = x ? atoi(x + 1) : 1;
  return scale > 0 ? scale : 1;
}

void RealSleepMs(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms * TimeScale()));
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    RealSleepMs(20);
  }
}

std::string Console() { return ReadFile("/dev/console"); }

void ClearConsole() { truncate("/dev/console", 0); }

bool SendRaw(const void* bytes, size_t len) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = Addr(WD_CMD_SOCK_PATH);
  ssize_t n = sendto(fd, bytes, len, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  close(fd);
  return n == static_cast<ssize_t>(len);
}

bool SendCommandWithLength(uint32_t type, uint16_t mod, uint32_t word, uint32_t dataLength,
                           const std::vector<unsigned char>& data) {
  wdCmdMsg head;
  memset(&head, 0, sizeof head);
  head.signaltype = type;
  head.sequenceNumber = mod;
  head.wordData = word;
  head.dataLength = dataLength;
  std::vector<unsigned char> bytes(sizeof head + data.size());
  memcpy(bytes.data(), &head, sizeof head);
  if (!data.empty()) memcpy(bytes.data() + sizeof head, data.data(), data.size());
  return SendRaw(bytes.data(), bytes.size());
}

bool SendCommand(uint32_t type, uint16_t mod, uint32_t word,
                 const std::vector<unsigned char>& data) {
  return SendCommandWithLength(type, mod, word, static_cast<uint32_t>(data.size()), data);
}

bool SendToChannel(const std::string& path, const void* bytes, size_t len) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = Addr(path);
  ssize_t n = sendto(fd, bytes, len, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  close(fd);
  return n == static_cast<ssize_t>(len);
}

wdMsg Event(int eventType, int destMod, const std::string& payload) {
  wdMsg msg;
  memset(&msg, 0, sizeof msg);
  msg.eventType = eventType;
  msg.destMod = destMod;
  memcpy(msg.data, payload.data(),
         payload.size() < sizeof msg.data ? payload.size() : sizeof msg.data);
  msg.datalen = static_cast<uint8_t>(payload.size() > 255 ? 255 : payload.size());
  return msg;
}

std::vector<int> ThreadPolicies(pid_t pid) {
  std::vector<int> out;
  RunResult r = Run("cat /proc/" + std::to_string(pid) + "/task/*/stat");
  std::istringstream lines(r.output);
  std::string line;
  while (std::getline(lines, line)) {
    // Field 41 is the policy; fields after the ")" that ends the name, from field 3.
    size_t close = line.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream fields(line.substr(close + 2));
    std::string field;
    for (int i = 3; i <= 41 && (fields >> field); ++i) {
      if (i == 41) out.push_back(std::stoi(field));
    }
  }
  return out;
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
  std::istringstream in(ReadFile(file));
  std::string line;
  while (std::getline(in, line)) {
    size_t at = line.find("my.app.wd.");
    if (at != std::string::npos) out.push_back(line.substr(at));
  }
  return out;
}

struct FakeSyslog::State {
  std::mutex mutex;
  Mode mode = kSuccess;
  std::vector<Mode> script;
  std::vector<std::string> texts;
  std::vector<size_t> sizes;
  std::atomic<bool> stop{false};
  int fd = -1;
  std::thread thread;
};

FakeSyslog::FakeSyslog(int pid) : state_(new State) {
  state_->fd = BindDgram("/var/wdSyslogTx.chanl");
  SetPid(pid);
  state_->thread = std::thread([this] { Serve(); });
}

FakeSyslog::~FakeSyslog() {
  state_->stop = true;
  state_->thread.join();
  close(state_->fd);  // the socket file stays: connects are refused, as after a crash
  delete state_;
}

void FakeSyslog::SetMode(Mode mode) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->mode = mode;
}

void FakeSyslog::SetScript(const std::vector<Mode>& answers) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->script.assign(answers.rbegin(), answers.rend());
}

void FakeSyslog::SetPid(int pid) {
  WriteFile("/var/run/syslog-ng.pid", std::to_string(pid) + "\n");
}

std::vector<std::string> FakeSyslog::Received() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->texts;
}

std::vector<size_t> FakeSyslog::Sizes() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->sizes;
}

bool FakeSyslog::WaitForCount(size_t n, int timeoutMs) {
  return WaitUntil([&] { return Received().size() >= n; }, timeoutMs);
}

void FakeSyslog::Serve() {
  int answer = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un rx = Addr("/var/wdSyslogRx.chanl");
  while (!state_->stop) {
    pollfd p = {state_->fd, POLLIN, 0};
    if (poll(&p, 1, 10) <= 0) continue;
    char buf[1024];
    ssize_t n = recv(state_->fd, buf, sizeof buf - 1, 0);
    if (n < 0) continue;
    buf[n] = '\0';
    std::string text(buf);
    Mode mode;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      state_->texts.push_back(text);
      state_->sizes.push_back(static_cast<size_t>(n));
      mode = state_->mode;
      if (!state_->script.empty()) {
        mode = state_->script.back();
        state_->script.pop_back();
      }
    }
    if (mode == kSilent) continue;
    size_t hash = text.rfind('#');
    int seq = hash == std::string::npos ? 0 : atoi(text.c_str() + hash + 1);
    std::string reply = std::to_string(seq) + (mode == kSuccess ? "#0#" : "#1#");
    sendto(answer, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&rx), sizeof rx);
  }
  close(answer);
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

ResultSocket::ResultSocket() : fd_(BindDgram(WD_RESULT_SOCK_PATH)) {}

ResultSocket::~ResultSocket() {
  close(fd_);
  unlink(WD_RESULT_SOCK_PATH);
}

bool ResultSocket::Receive(wdCmdMsg* reply, int timeoutMs) {
  if (!Readable(fd_, timeoutMs)) return false;
  unsigned char buf[600];
  ssize_t n = recv(fd_, buf, sizeof buf, 0);
  if (n < static_cast<ssize_t>(sizeof *reply)) return false;
  memcpy(reply, buf, sizeof *reply);
  return true;
}

long ResultSocket::Query(uint16_t mod, int timeoutMs) {
  if (!SendCommand(MSG_QORVWATCHDOG_QUERY, mod, 0)) return -1;
  wdCmdMsg reply;
  if (!Receive(&reply, timeoutMs)) return -1;
  return reply.wordData;
}

ChannelTap::ChannelTap(const std::string& path) : fd_(BindDgram(path)) {}

ChannelTap::~ChannelTap() { close(fd_); }

ssize_t ChannelTap::Receive(wdMsg* msg, int timeoutMs) {
  if (!Readable(fd_, timeoutMs)) return -1;
  std::vector<unsigned char> buf(WD_MSG_SIZE + 64);
  ssize_t n = recv(fd_, buf.data(), buf.size(), 0);
  memset(msg, 0, sizeof *msg);
  if (n > 0) memcpy(msg, buf.data(), static_cast<size_t>(n) < sizeof *msg ? n : sizeof *msg);
  return n;
}

RunResult Run(const std::string& command) {
  RunResult result{-1, ""};
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) return result;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) result.output.append(buf, n);
  int status = pclose(p);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

void SetConfig(const std::string& node, const std::string& attr, const std::string& value) {
  if (tcapi_set(node.c_str(), attr.c_str(), value.c_str()) != 0) {
    fprintf(stderr, "harness: cannot set %s %s\n", node.c_str(), attr.c_str());
  }
}

size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1))
    ++n;
  return n;
}

}  // namespace gw
