// pppd: the gateway's simulated PPP daemon, the process that holds the WAN
// connection of the first PVC (ppp0, made by wan-link).
//
//   pppd    dials, then holds the connection until SIGTERM, SIGHUP or SIGINT
//
// Dialing takes 2 seconds, then ppp0 is up with its default route via the
// provider (203.0.113.1). On SIGTERM, SIGHUP or SIGINT it hangs up (ppp0 goes
// down) and ends. Killed with SIGKILL, it cannot hang up: ppp0 stays as it was
// (a real ppp0 would vanish with its pppd). Without ppp0 it only holds on.
// Each step is a line in /var/log/pppd.
#include <errno.h>
#include <net/if.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>

#include "peer_log.h"

extern char** environ;

namespace {

const char kLog[] = "/var/log/pppd";

volatile sig_atomic_t stopping = 0;
void OnStop(int) { stopping = 1; }

// Runs ip with `args`; true when it succeeded.
bool Ip(const char* a, const char* b, const char* c, const char* d, const char* e = nullptr,
        const char* f = nullptr, const char* g = nullptr, const char* h = nullptr) {
  const char* argv[] = {"ip", a, b, c, d, e, f, g, h, nullptr};
  pid_t pid;
  if (posix_spawnp(&pid, "ip", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
    return false;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char**) {
  if (argc != 1) {
    fprintf(stderr, "usage: pppd\n");
    return 2;
  }
  // The stop signals are blocked but while waiting, so none is missed.
  sigset_t stops, waiting;
  sigemptyset(&stops);
  for (int sig : {SIGTERM, SIGHUP, SIGINT}) sigaddset(&stops, sig);
  sigprocmask(SIG_BLOCK, &stops, &waiting);
  struct sigaction stop = {};
  stop.sa_handler = OnStop;
  for (int sig : {SIGTERM, SIGHUP, SIGINT}) sigaction(sig, &stop, nullptr);
  bool link = if_nametoindex("ppp0") != 0;
  PeerLog(kLog, "pid=%d %s", static_cast<int>(getpid()), link ? "dialing" : "no ppp0: holding on");
  if (link) {
    timespec dial = {2, 0};
    sigprocmask(SIG_SETMASK, &waiting, nullptr);
    while (!stopping && nanosleep(&dial, &dial) < 0 && errno == EINTR) {
    }
    sigprocmask(SIG_BLOCK, &stops, nullptr);
  }
  if (!stopping && link) {
    bool up = Ip("link", "set", "ppp0", "up") &&
              Ip("route", "replace", "default", "via", "203.0.113.1", "dev", "ppp0");
    PeerLog(kLog, "pid=%d %s", static_cast<int>(getpid()),
            up ? "connected" : "cannot bring ppp0 up");
  }
  while (!stopping) sigsuspend(&waiting);
  if (link) Ip("link", "set", "ppp0", "down");
  PeerLog(kLog, "pid=%d hung up", getpid());
  return 0;
}
