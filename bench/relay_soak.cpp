// Delivery across syslog-ng restarts: the relay's threads in this process make
// numbered reports while the gateway's real syslog-ng is stopped and started
// again several times; prints how many reached syslog-ng's output, how many
// were lost and how many came twice (resends may duplicate, never lose).
// Runs in the gateway sandbox with syslog-ng, under libfaketime x100.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "wd_relay.h"
#include "wd_syslog.h"
#include "wd_timer.h"

namespace {

// Sleeps real milliseconds: this process's sleeps run 100 times faster.
void RealSleep(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms * 100)); }

std::string Slurp(const char* path) {
  std::stringstream ss;
  ss << std::ifstream(path).rdbuf();
  return ss.str();
}

// How often each report number stands in syslog-ng's output.
std::map<int, int> Seen() {
  std::map<int, int> seen;
  std::istringstream in(Slurp("/var/log/messages"));
  for (std::string line; std::getline(in, line);) {
    size_t at = line.find("SOAK n=");
    if (at != std::string::npos) seen[atoi(line.c_str() + at + 7)]++;
  }
  return seen;
}

}  // namespace

int main() {
  constexpr int kReports = 1000, kRestarts = 5;
  if (freopen("/tmp/relay_soak.console", "w", stderr) == nullptr) return 2;
  wd_timerInit();
  wd_bufInit();
  wd_initData();
  std::atomic<int> restarts{0};
  std::thread operatorThread([&] {
    for (int round = 0; round < kRestarts; ++round) {
      RealSleep(500);
      int pid = atoi(Slurp("/var/run/syslog-ng.pid").c_str());
      if (pid > 0) kill(pid, SIGTERM);  // a stop, as the gateway's scripts do it
      for (int i = 0; i < 500 && pid > 0 && kill(pid, 0) == 0; ++i) RealSleep(10);
      RealSleep(300);
      restarts += system("/gw/sim/syslog-start --again") == 0;
    }
  });
  int refused = 0;
  auto start = std::chrono::steady_clock::now();
  for (int n = 0; n < kReports; ++n) {
    refused += wd_syslogStr(3, ("SOAK n=" + std::to_string(n) + ".").c_str()) != 0;
    RealSleep(6);  // a report per 600 faked ms: half of what one line per tick drains
  }
  operatorThread.join();
  for (int i = 0; i < 600 && Seen().size() < kReports; ++i) RealSleep(100);
  std::map<int, int> seen = Seen();
  int duplicated = 0;
  for (const auto& s : seen) duplicated += s.second - 1;
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  printf("reports=%d refused=%d lost=%zu duplicated=%d syslog-ng restarts=%d time=%.1f s\n",
         kReports, refused, kReports - seen.size(), duplicated, restarts.load(), seconds);
  return seen.size() == kReports && refused == 0 ? 0 : 1;
}
