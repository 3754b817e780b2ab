// Programs the daemon starts, and the files their output goes to.
//
// Every program of the daemon (ifconfig, ping, nslookup, ps, cp, rm,
// syslog-ng and the fixed shell lines) starts through wd_run: whatever thread
// starts it (a real-time relay thread, a module thread with SIGUSR1/SIGUSR2
// blocked), the program gets the default signal mask and dispositions,
// default scheduling, and none of the daemon's descriptors but 0 to 2.
#ifndef WATCHDOGD_CORE_WD_PROC_H
#define WATCHDOGD_CORE_WD_PROC_H

#include <sys/stat.h>
#include <sys/types.h>

// Runs `argv[0]` (looked up in PATH) with `argv` (null-terminated) and waits
// for its end. `outFd` and `errFd`, when 0 or more, become its standard
// output and standard error; otherwise it shares the daemon's. Returns the
// wait status as system() does, or -1 when it could not be started. Any thread.
int wd_run(const char* const argv[], int outFd, int errFd);

// Runs `command` with "/bin/sh -c", as system() does, through wd_run.
int wd_runShell(const char* command, int outFd);

// Starts "/bin/sh -c command" like wd_run, without waiting, in a process
// group of its own (the shell's pid is the group's id), with /dev/null as
// standard input and a pipe as standard output. Returns the pipe's reading
// end (close-on-exec) and stores the pid, or -1 when it could not start.
int wd_runShellPipe(const char* command, pid_t* pid);
// Waits for the child `pid`; with `killGroup` first kills its whole process
// group (SIGKILL). Returns the wait status, or -1.
int wd_reap(pid_t pid, int killGroup);

// Removes whatever stands at `path` and creates the file anew: exclusively,
// never through a symbolic link, with `mode`, open for reading and writing.
// When another process takes the name in between, the file is made beside it
// and renamed over it. Returns the descriptor (close-on-exec), or -1.
int wd_createFresh(const char* path, mode_t mode = S_IRUSR | S_IWUSR);

#endif  // WATCHDOGD_CORE_WD_PROC_H
