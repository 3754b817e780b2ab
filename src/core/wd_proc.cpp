// Starting programs with a clean slate and a deadline, and fresh files for
// their output.
//
// A program is waited for without a period where the kernel allows it: poll
// on a descriptor of the process (pidfd), with the time left to its deadline
// on the monotonic clock. Its output goes to a sealed memfd that is read once
// it has ended, so a program that prints a line a second costs its caller one
// wakeup, not one a line. The program is left unreaped (a zombie) until its
// group has been signalled, so that its pid, which is the group's id, cannot
// pass to another process in between.
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
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "tcapi.h"
#include "wd_base.h"

extern char** environ;

#ifndef MFD_CLOEXEC
#define MFD_CLOEXEC 0x0001U
#endif
#ifndef MFD_ALLOW_SEALING
#define MFD_ALLOW_SEALING 0x0002U
#endif
#ifndef F_ADD_SEALS
#define F_ADD_SEALS 1033
#define F_SEAL_SEAL 0x0001
#define F_SEAL_SHRINK 0x0002
#define F_SEAL_GROW 0x0004
#endif

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

int MemfdCreate(const char* name, unsigned flags) {
#ifdef SYS_memfd_create
  return static_cast<int>(syscall(SYS_memfd_create, name, flags));
#else
  (void)name;
  (void)flags;
  errno = ENOSYS;
  return -1;
#endif
}

int64_t NowMs() { return wd_kernelMonotonicMs(); }

// A started program: its pid (its group's id), a descriptor readable once it
// has ended (or -1), its output file (or -1), the reading end of the pipe its
// output comes through without a file (-1 once at its end or closed), where
// that output is kept and how much more may be.
struct Program {
  pid_t pid;
  int pidfd;
  int file;
  int output;
  FILE* keep;
  size_t room;
};

// A file in memory for a program's output that cannot grow past `max`
// rounded up to whole pages: a write beyond fails (EPERM), so a program that
// writes on cannot fill the memory, and nothing it leaves running in the
// background can either. Whole pages, because the kernel refuses a write
// page by page: a smaller size would also refuse the bytes before it in the
// page it ends in. -1 where the kernel has no memfd or no seals.
int OwnFile(size_t max) {
  int fd = wd_memfdCreateHook("wd_run", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0) return -1;
  long page = sysconf(_SC_PAGESIZE);
  uint64_t unit = page > 0 ? static_cast<uint64_t>(page) : 4096;
  uint64_t size = (static_cast<uint64_t>(max) + unit - 1) / unit * unit;
  if (size > static_cast<uint64_t>(INT32_MAX) || ftruncate(fd, static_cast<off_t>(size)) != 0 ||
      fcntl(fd, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Keeps what the program wrote to its file, as much as there is room for.
// The file's offset, which the program and everything it started share, says
// how far they wrote; what a process left in the background writes later is
// not kept.
void KeepWritten(Program* p) {
  off_t end = lseek(p->file, 0, SEEK_CUR);
  size_t left = end > 0 ? static_cast<size_t>(std::min<uint64_t>(end, p->room)) : 0;
  char chunk[4096];
  for (off_t at = 0; left > 0;) {
    ssize_t n = pread(p->file, chunk, std::min(left, sizeof chunk), at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    fwrite(chunk, 1, static_cast<size_t>(n), p->keep);
    at += n;
    left -= static_cast<size_t>(n);
  }
}

// True once the program has ended (or is no child to wait for); it is not
// reaped.
bool Ended(pid_t pid) {
  siginfo_t info;
  info.si_pid = 0;
  if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
    return errno == ECHILD;
  return info.si_pid == pid;
}

// Keeps what the pipe holds now, as much as there is room for; closes the
// pipe at its end or once the room is used up (the program then gets SIGPIPE
// or EPIPE, so a full pipe never holds it).
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

// Waits until the program has ended and its pipe, if any, is closed, or
// until `deadline` (monotonic ms). True when both came in time.
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

// Where the output is kept: the fresh file, or memory of `max` bytes and
// the null byte such a stream ends with (without room for it, the last byte
// kept would be overwritten with it).
FILE* Keep(const wdOutput* out) {
  if (out->path == nullptr) return fmemopen(nullptr, out->max + 1, "w+");
  int fd = wd_createFresh(out->path);
  FILE* f = fd >= 0 ? fdopen(fd, "w+") : nullptr;
  if (f == nullptr && fd >= 0) close(fd);
  return f;
}

int Run(const char* name, const char* const argv[], int seconds, wdOutput* out) {
  Program p = {0, -1, -1, -1, nullptr, 0};
  int written = -1;  // the program's standard output, our copy
  if (out != nullptr) {
    out->file = p.keep = Keep(out);
    if (p.keep == nullptr) return -1;
    p.room = out->max;
    written = p.file = out->throughPipe ? -1 : OwnFile(out->max);
    if (p.file < 0) {
      int fds[2];
      if (pipe2(fds, O_CLOEXEC) != 0) return -1;
      p.output = fds[0];
      written = fds[1];
    }
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (out != nullptr) {
    posix_spawn_file_actions_adddup2(&actions, written, STDOUT_FILENO);
    if (out->dropErrors)
      posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  }
  int rc = Spawn(argv, &actions, &p.pid);
  posix_spawn_file_actions_destroy(&actions);
  if (p.output >= 0) close(written);  // the pipe's writing end is the program's alone
  if (rc != 0) {
    if (p.output >= 0) close(p.output);
    if (p.file >= 0) close(p.file);
    return -1;
  }
  p.pidfd = wd_pidfdOpenHook(p.pid);
  if (wd_runWaitHook != nullptr) wd_runWaitHook(true);
  bool inTime = Await(&p, NowMs() + static_cast<int64_t>(seconds) * 1000);
  if (!inTime) Stop(&p, name, seconds);
  if (wd_runWaitHook != nullptr) wd_runWaitHook(false);
  if (p.pidfd >= 0) close(p.pidfd);
  if (p.file >= 0) {
    KeepWritten(&p);
    close(p.file);
  }
  if (p.keep != nullptr) rewind(p.keep);
  int status = 0;
  while (waitpid(p.pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return inTime ? status : WD_RUN_STOPPED;
}

}  // namespace

int (*wd_pidfdOpenHook)(pid_t pid) = PidfdOpen;
void (*wd_runWaitHook)(bool waiting) = nullptr;
int (*wd_memfdCreateHook)(const char* name, unsigned flags) = MemfdCreate;

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
