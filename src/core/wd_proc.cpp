// Starting programs with a clean slate, and fresh files for their output.
#include "wd_proc.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

// Starts argv with the clean slate every program of the daemon gets; with
// `ownGroup` in a process group of its own, so that it and whatever it starts
// can be stopped together. Returns posix_spawnp's result.
int Spawn(const char* const argv[], posix_spawn_file_actions_t* actions, bool ownGroup,
          pid_t* pid) {
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
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSCHEDULER;
  if (ownGroup) {
    flags |= POSIX_SPAWN_SETPGROUP;
    posix_spawnattr_setpgroup(&attr, 0);
  }
  posix_spawnattr_setflags(&attr, flags);
  int rc = posix_spawnp(pid, argv[0], actions, &attr, const_cast<char* const*>(argv), environ);
  posix_spawnattr_destroy(&attr);
  return rc;
}

}  // namespace

int wd_run(const char* const argv[], int outFd, int errFd) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (outFd >= 0) posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
  if (errFd >= 0) posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
  pid_t pid;
  int rc = Spawn(argv, &actions, false, &pid);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  return wd_reap(pid, 0);
}

int wd_runShellPipe(const char* command, pid_t* pid) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  const char* argv[] = {"/bin/sh", "-c", command, nullptr};
  int rc = Spawn(argv, &actions, true, pid);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (rc != 0) {
    close(fds[0]);
    return -1;
  }
  return fds[0];
}

int wd_reap(pid_t pid, int killGroup) {
  if (killGroup) kill(-pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

int wd_runShell(const char* command, int outFd) {
  const char* argv[] = {"/bin/sh", "-c", command, nullptr};
  return wd_run(argv, outFd, -1);
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
