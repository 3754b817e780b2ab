// Starting programs with a clean slate and a deadline, and fresh files for
// their output.
//
// A program is waited for without a period where the kernel allows it: poll
// on a descriptor of the process (pidfd) and on its output, with the time left
// to its deadline on the monotonic clock. The program is left unreaped (a
// zombie) until its group has been signalled, so that its pid, which is the
// group's id, cannot pass to another process in between.
#include "wd_proc.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "tcapi.h"
#include "wd_base.h"

extern char** environ;

namespace {

constexpr int kGraceMs = 1000;    // from SIGTERM to SIGKILL
constexpr int kFirstCheckMs = 2;  // the checks without a pidfd: 2 ms, doubled up to 100 ms
constexpr int kLastCheckMs = 100;

// Starts argv with the clean slate every program of the daemon gets, in a
// process group of its own, so that it and whatever it starts can be stopped
// together. Returns posix_spawnp's result.
int Spawn(const char* const argv[], posix_spawn_file_actions_t* actions, pid_t* pid) {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 34)
  // The daemon's own descriptors are close-on-exec already; this also covers
  // any a library opened without it.
  posix_spawn_file_actions_addclosefrom_np(actions, STDERR_FILENO + 1);
#endif
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  sched_param param = {};
  param.sched_priority = 0;
  posix_spawnattr_setschedpolicy(&attr, SCHED_OTHER);
  posix_spawnattr_setschedparam(&attr, &param);
  posix_spawnattr_setpgroup(&attr, 0);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                      POSIX_SPAWN_SETSCHEDULER | POSIX_SPAWN_SETPGROUP);
  int rc = posix_spawnp(pid, argv[0], actions, &attr, const_cast<char* const*>(argv), environ);
  posix_spawnattr_destroy(&attr);
  return rc;
}

int PidfdOpen(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  errno = ENOSYS;
  return -1;
#endif
}

int64_t NowMs() { return wd_kernelMonotonicMs(); }

// A started program: its pid (its group's id), a descriptor readable once it
// has ended (or -1), the reading end of its output (-1 once at its end or
// closed), where that output is kept and how much more may be.
struct Program {
  pid_t pid;
  int pidfd;
  int output;
  FILE* keep;
  size_t room;
};

// True once the program has ended (or is no child to wait for); it is not
// reaped.
bool Ended(pid_t pid) {
  siginfo_t info;
  info.si_pid = 0;
  if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
    return errno == ECHILD;
  return info.si_pid == pid;
}

// Keeps what the output holds now, as much as there is room for; closes the
// output at its end or once the room is used up (the program then gets
// SIGPIPE or EPIPE, so a full pipe never holds it).
void Take(Program* p) {
  char chunk[4096];
  ssize_t n = read(p->output, chunk, sizeof chunk);
  if (n < 0 && errno == EINTR) return;
  size_t kept = std::min(n > 0 ? static_cast<size_t>(n) : 0, p->room);
  p->room -= fwrite(chunk, 1, kept, p->keep);
  if (n <= 0 || p->room == 0) {
    close(p->output);
    p->output = -1;
  }
}

// Waits until the program has ended and its output is closed, or until
// `deadline` (monotonic ms). True when both came in time.
bool Await(Program* p, int64_t deadline) {
  int check = kFirstCheckMs;
  for (;;) {
    bool ended = Ended(p->pid);
    if (ended && p->output < 0) return true;
    int64_t left = deadline - NowMs();
    if (left <= 0) return false;
    int timeout = static_cast<int>(std::min<int64_t>(left, INT_MAX));
    pollfd fds[2];
    nfds_t n = 0;
    if (p->output >= 0) fds[n++] = {p->output, POLLIN, 0};
    if (!ended && p->pidfd >= 0) {
      fds[n++] = {p->pidfd, POLLIN, 0};
    } else if (!ended) {
      timeout = std::min(timeout, check);
      check = std::min(check * 2, kLastCheckMs);
    }
    if (poll(fds, n, timeout) > 0 && p->output >= 0 && fds[0].revents != 0) Take(p);
  }
}

// Stops the program and its whole group: SIGTERM, and SIGKILL once it has
// ended or the grace is over, for whatever in the group ignored SIGTERM.
void Stop(Program* p, const char* name, int seconds) {
  if (p->output >= 0) {
    close(p->output);
    p->output = -1;
  }
  kill(-p->pid, SIGTERM);
  Await(p, NowMs() + kGraceMs);
  kill(-p->pid, SIGKILL);
  tcdbg_printf("wd_run: \"%s\" still running after %d s, stopped\n", name, seconds);
}

// Where the output is kept: the fresh file, or memory of `max` bytes.
FILE* Keep(const wdOutput* out) {
  if (out->path == nullptr) return fmemopen(nullptr, out->max, "w+");
  int fd = wd_createFresh(out->path);
  FILE* f = fd >= 0 ? fdopen(fd, "w+") : nullptr;
  if (f == nullptr && fd >= 0) close(fd);
  return f;
}

int Run(const char* name, const char* const argv[], int seconds, wdOutput* out) {
  Program p = {0, -1, -1, nullptr, 0};
  int fds[2] = {-1, -1};
  if (out != nullptr) {
    out->file = p.keep = Keep(out);
    if (p.keep == nullptr) return -1;
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    p.output = fds[0];
    p.room = out->max;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (out != nullptr) {
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    if (out->dropErrors)
      posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  }
  int rc = Spawn(argv, &actions, &p.pid);
  posix_spawn_file_actions_destroy(&actions);
  if (fds[1] >= 0) close(fds[1]);
  if (rc != 0) {
    if (p.output >= 0) close(p.output);
    return -1;
  }
  p.pidfd = wd_pidfdOpenHook(p.pid);
  bool inTime = Await(&p, NowMs() + static_cast<int64_t>(seconds) * 1000);
  if (!inTime) Stop(&p, name, seconds);
  if (p.pidfd >= 0) close(p.pidfd);
  if (p.keep != nullptr) rewind(p.keep);
  int status = 0;
  while (waitpid(p.pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return inTime ? status : WD_RUN_STOPPED;
}

}  // namespace

int (*wd_pidfdOpenHook)(pid_t pid) = PidfdOpen;

int wd_run(const char* const argv[], int seconds, wdOutput* out) {
  if (argv == nullptr || argv[0] == nullptr) return -1;
  return Run(argv[0], argv, seconds, out);
}

int wd_runShell(const char* command, int seconds, wdOutput* out) {
  if (command == nullptr) return -1;
  const char* argv[] = {"/bin/sh", "-c", command, nullptr};
  return Run(command, argv, seconds, out);
}

int wd_createFresh(const char* path, mode_t mode) {
  unlink(path);
  int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd >= 0 || errno != EEXIST) return fd;
  // Another process took the name between the removal and the creation, as
  // any process can under the world-writable /tmp: the file is made under a
  // name of its own and renamed over whatever stands there, in one step.
  char temp[PATH_MAX];
  if (snprintf(temp, sizeof temp, "%s.XXXXXX", path) >= static_cast<int>(sizeof temp)) return -1;
  fd = mkostemp(temp, O_CLOEXEC);
  if (fd < 0) return -1;
  if (fchmod(fd, mode) != 0 || rename(temp, path) != 0) {
    unlink(temp);
    close(fd);
    return -1;
  }
  return fd;
}
