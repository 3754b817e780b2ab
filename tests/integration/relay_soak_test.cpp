// A delivery check for the relay: numbered reports are made while the real
// syslog-ng is stopped and started again several times; at the end every
// report must be in syslog-ng's output at least once. Resends may duplicate
// lines: duplicates are counted and printed, never failed on. Runs under
// libfaketime (100 times faster), like the relay's other in-process tests.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>

#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>

#include "gateway.h"
#include "wd_buffer.h"
#include "wd_common.h"
#include "wd_timer.h"

namespace {

int Buffered() {
  pthread_mutex_lock(&bufMutex);
  int n = commBufList->objNum;
  pthread_mutex_unlock(&bufMutex);
  return n;
}

TEST(RelaySoak, EveryReportArrivesAcrossSyslogNgRestarts) {
  constexpr int kReports = 1000;
  constexpr int kRestarts = 5;
  gw::StderrFile quiet;  // the relay's console messages go to a file
  ASSERT_TRUE(gw::StartSyslogNg());
  wd_timerInit();
  wd_bufInit();
  wd_initData();
  ASSERT_TRUE(gw::WaitUntil([] { return rxSocketReady.load() == 1; }));

  auto start = std::chrono::steady_clock::now();
  std::atomic<bool> done{false};
  std::atomic<int> restarts{0};
  std::thread operatorThread([&] {
    while (!done && restarts < kRestarts) {
      gw::RealSleepMs(500);
      int pid = gw::SyslogNgPid();
      kill(pid, SIGTERM);  // a stop, as the gateway's scripts do it
      gw::WaitUntil([pid] { return kill(pid, 0) != 0; });
      gw::RealSleepMs(300);
      if (gw::StartSyslogNg(true)) ++restarts;
    }
  });

  int refused = 0;
  for (int n = 0; n < kReports; ++n) {
    char text[64];
    snprintf(text, sizeof text, "SOAK n=%05d", n);
    if (wd_syslogStr(3, text) != 0) ++refused;
    gw::RealSleepMs(6);  // a report per 600 faked ms: half of what one line per tick drains
  }
  operatorThread.join();
  done = true;
  bool drained = gw::WaitUntil([] { return Buffered() == 0; }, 60000);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  std::map<int, int> seen;
  for (const std::string& line : gw::ReportLines()) {
    size_t at = line.find("SOAK n=");
    if (at != std::string::npos) seen[std::stoi(line.substr(at + 7))]++;
  }
  int lost = 0, duplicated = 0;
  for (int n = 0; n < kReports; ++n) {
    if (seen[n] == 0) ++lost;
    if (seen[n] > 1) duplicated += seen[n] - 1;
  }
  printf(
      "relay soak: reports=%d refused=%d lost=%d duplicated=%d syslog-ng restarts=%d "
      "buffer drained=%s time=%.1f s\n",
      kReports, refused, lost, duplicated, restarts.load(), drained ? "yes" : "no", seconds);
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(refused, 0) << "a refused report is lost as well";
  EXPECT_EQ(restarts.load(), kRestarts);
}

}  // namespace
