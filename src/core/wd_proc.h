// Programs the daemon starts, and the files their output goes to.
//
// Every program of the daemon (ifconfig, ping, nslookup, ps, route, cp, rm,
// killall, syslog-ng, the start scripts and the configured shell command)
// starts through wd_run and has a deadline: whatever thread starts it (a
// real-time relay thread, a module thread with SIGUSR1/SIGUSR2 blocked), the
// program gets /dev/null as standard input, the default signal mask and
// dispositions, default scheduling, none of the daemon's descriptors but 0 to
// 2, and a process group of its own. A program that does not end costs its
// caller the deadline, never more.
#ifndef WATCHDOGD_CORE_WD_PROC_H
#define WATCHDOGD_CORE_WD_PROC_H

#include <stddef.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

// What wd_run keeps of a program's standard output. Without one, the program
// writes to the daemon's own standard output.
struct wdOutput {
  const char* path;  // kept in this file, made fresh (wd_createFresh); null: in memory
  size_t max;        // bytes kept at most; a write of the program beyond them fails
  bool dropErrors;   // standard error to /dev/null, else the daemon's (the debug console)
  FILE* file;        // set by wd_run: what was kept, open for reading from its start;
                     // null when nothing could be kept. The caller closes it.
  bool throughPipe;  // through a pipe read as it comes, not the sealed file: for a
                     // command that may reopen its output (> /dev/stdout), which
                     // the sealed file refuses
};

// wd_run's result for a program stopped at its deadline.
#define WD_RUN_STOPPED (-2)

// Runs `argv[0]` (looked up in PATH) with `argv` (null-terminated) and waits
// until it has ended, for at most `seconds`. With `out`, the program writes
// its output to a file in memory of its own, which cannot grow past `max`
// (rounded up to whole pages; a write beyond fails with EPERM, the program is
// not signalled), and what it wrote is kept once it has ended: the output is
// whole then, and a process it started in the background that keeps the
// output open holds nothing up (what it writes later is not kept). A program
// still running at the deadline is stopped with its whole process group
// (SIGTERM, SIGKILL after a second) and the debug console says
// "wd_run: \"NAME\" still running after N s, stopped\n", NAME being argv[0].
// After a normal end the group is left alone: what a start script starts in
// the background keeps running. Returns the wait status as system() does, -1
// when the program could not be started, WD_RUN_STOPPED when it was stopped;
// `out->file` holds what it printed in every case but a failed creation of
// the output file, when nothing runs. With `out->throughPipe`, or where the
// kernel has no memfd with seals, the output comes through a pipe instead,
// read as it comes: a write
// beyond `max` then gets SIGPIPE, and a process that keeps the pipe open holds
// wd_run until the deadline. Any thread; blocks it meanwhile.
int wd_run(const char* const argv[], int seconds, wdOutput* out = nullptr);

// wd_run for `command` run with "/bin/sh -c"; the console names the command.
int wd_runShell(const char* command, int seconds, wdOutput* out = nullptr);

// Test seam: how wd_run gets a descriptor that becomes readable when a program
// ends (pidfd_open, Linux 5.3). Where it fails, wd_run checks at growing
// intervals instead (a few ms, up to 100 ms). Set only before threads start.
extern int (*wd_pidfdOpenHook)(pid_t pid);

// Called with true before wd_run waits for a program and with false once the
// wait is over, in the thread that runs it (null: nothing). The module
// threads hand the timers they call themselves to the timer thread
// meanwhile.
extern void (*wd_runWaitHook)(bool waiting);

// Test seam: how wd_run gets the file in memory for a program's output
// (memfd_create, Linux 3.17). Where it fails, the output comes through a pipe.
// Set only before threads start.
extern int (*wd_memfdCreateHook)(const char* name, unsigned flags);

// Removes whatever stands at `path` and creates the file anew: exclusively,
// never through a symbolic link, with `mode`, open for reading and writing.
// When another process takes the name in between, the file is made beside it
// and renamed over it. Returns the descriptor (close-on-exec), or -1.
int wd_createFresh(const char* path, mode_t mode = S_IRUSR | S_IWUSR);

#endif  // WATCHDOGD_CORE_WD_PROC_H
