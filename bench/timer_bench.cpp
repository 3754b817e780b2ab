// Timer service figures: how late timers fire and what the idle timer thread
// costs. Prints numbers; asserts nothing. Runs inside the gateway sandbox.
#include <pthread.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "wd_timer.h"

namespace {

double Now() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

double CpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

constexpr int kTimers = 60;
double gDue[kTimers + 1];
double gFired[kTimers + 1];
std::atomic<int> gCount{0};
std::vector<double> gPeriodic;

int OneShot(int id, int) {
  gFired[id] = Now();
  gCount++;
  return 0;
}

int Periodic(int, int) {
  gPeriodic.push_back(Now());  // only the timer thread touches it
  return 0;
}

void Report(const char* what, std::vector<double> ms) {
  std::sort(ms.begin(), ms.end());
  printf("%-34s n=%zu min=%.1f median=%.1f p95=%.1f max=%.1f ms\n", what, ms.size(), ms.front(),
         ms[ms.size() / 2], ms[ms.size() * 95 / 100], ms.back());
}

}  // namespace

int main() {
  wd_timerInit();

  double cpu0 = CpuSeconds(), wall0 = Now();
  sleep(5);
  double cpu = CpuSeconds() - cpu0, wall = Now() - wall0;
  printf("idle timer thread: %.3f ms CPU per second (%.4f%% of one core)\n", cpu / wall * 1000,
         cpu / wall * 100);

  for (int id = 1; id <= kTimers; ++id) {
    int interval = (id * 37) % 2000;
    gDue[id] = Now() + interval / 1000.0;
    wd_addTimer(id, interval, OneShot, 0);
  }
  while (gCount < kTimers) usleep(10000);
  std::vector<double> late;
  for (int id = 1; id <= kTimers; ++id) late.push_back((gFired[id] - gDue[id]) * 1000);
  Report("one-shot lateness", late);

  wd_addPTimer(kTimers + 1, 1000, Periodic, 0);
  sleep(6);
  wd_delPTimer(kTimers + 1);
  usleep(300000);
  std::vector<double> gaps;
  for (size_t i = 1; i < gPeriodic.size(); ++i)
    gaps.push_back((gPeriodic[i] - gPeriodic[i - 1]) * 1000);
  Report("1000 ms periodic: gap between calls", gaps);
  return 0;
}
