// The general command module (MOD_GENERAL): the shell-command runner, which
// reports every output line of a command in category shell, its permission
// test, and the thread that runs the command configured in "ShellCommand" of
// "Watchdog_Common".
//
// The runner runs in the calling thread and blocks it while the command runs.
#ifndef WATCHDOGD_MODULES_WD_GENERAL_H
#define WATCHDOGD_MODULES_WD_GENERAL_H

#include <stdio.h>

#include "wd_modthread.h"

// How long a command may run before it is stopped, in seconds.
#define WD_SHELL_TIME_LIMIT 120

// The commands that may not run; a command is refused when it begins with an
// entry. The table is empty (its only element is the terminating null).
extern const char* const noPermissionTable[];

// Non-zero when `command` is refused by noPermissionTable, 0 when it may run.
int isPermission(const char* command);
// Runs `command` with the system shell and reports each output line (pieces of
// at most 511 characters, the last character removed, leading blanks, tabs,
// CR and LF skipped) as "command|N| text", N counted from 1.
void executeShellCommand(const char* command);
// The same with a time limit: a command still running after `limitSeconds`
// is stopped with all it started, and the debug console says so (wd_run); the
// lines it printed until then are reported. At most 64 KiB of output is read.
void mod_generalRun(const char* command, int limitSeconds);
// Reports the output of `command` read from `output` to its end, as the
// runner does (in 512-byte reads).
void mod_generalReport(const char* command, FILE* output);
extern const wdModDesc kGeneralModule;
// The module's thread body.
void* mod_generalHandler(void* arg);

#endif  // WATCHDOGD_MODULES_WD_GENERAL_H
