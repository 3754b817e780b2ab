// Supervision of the syslog-ng process: noticing a new one, restarting one
// that has grown too big with a configuration generated from
// Watchdog_Common, and the relay's two signal-driven debugging aids. What a
// restart means for the link (suspension until a probe is answered) is the
// caller's (wd_link).
#ifndef WATCHDOGD_RELAY_WD_SYSLOGNG_H
#define WATCHDOGD_RELAY_WD_SYSLOGNG_H

#include <stdio.h>

#include "wd_buffer.h"

// Where syslog-ng writes its pid.
#define WD_SYSLOGNG_PID_DIR "/var/run"
#define WD_SYSLOGNG_PID_NAME "syslog-ng.pid"

// 1 when /var/run/syslog-ng.pid names another process than last time. The
// first process seen is remembered, not taken for a restart. Transmit thread,
// with bufMutex held.
int SyslogngRestart(void) WD_REQUIRES(bufMutex);
// Lists syslog-ng with the gateway's ps and restarts it (RestartSysklogng)
// when its memory column reads 4501 or more. Returns 1 when it restarted it,
// else 0. Transmit thread, without bufMutex (it waits for programs).
int checkSyslogngMemory(void) WD_EXCLUDES(bufMutex);
// Kills syslog-ng, copies the template /etc/syslog-ng.conf to
// /var/syslog-ng.conf, appends the destination and log statement from
// Watchdog_Common, and starts syslog-ng on it when the feature is enabled.
void RestartSysklogng(void);
// The configuration part of RestartSysklogng, whatever the Enable setting:
// the template copied to /var/syslog-ng.conf, the destination and the log
// statement appended. false (said on the debug console) when the settings or
// the file cannot be read, leaving the configuration without them.
bool wd_sngWriteConfig(void);
// Kills the process named in `pidFile` with SIGKILL, but only when its name
// (/proc/PID/comm) is `name`, and deletes the pid file.
void kill_process(const char* pidFile, const char* name);
// Clears `size` bytes of `buf` and reads at most size - 1 bytes of the file.
void fileRead(const char* path, char* buf, int size);

// The process id at the start of a pid file's text; 0 when there is none.
int wd_sngLeadingPid(const char* text);
// The process id and memory column of one line of the gateway's ps listing
// "PID USER VSZ STAT ..."; false for a line that does not give the four
// fields.
bool wd_sngMemoryOfLine(const char* line, long* pid, unsigned long* memory);
// Appends syslog-ng's destination for the report lines to `f`: the remote
// `server` ("HOST[:PORT]") over `protocol` when both can go into the
// configuration, else (an empty server, or a value said on the debug console
// to be unusable) the local file. true when the remote one was written.
bool wd_sngAppendDestination(FILE* f, const char* server, const char* protocol);

// Signal handlers (SIGUSR1: the relay's trace switch g_idebug; SIGUSR2: dump
// of the buffer). They only note the request; wd_bufServeSignals carries it
// out (the transmit thread, at its next wake-up).
void TriggerDebugFlag(int sig);
void DumpList(int sig);
void wd_bufServeSignals(void) WD_EXCLUDES(bufMutex);

#endif  // WATCHDOGD_RELAY_WD_SYSLOGNG_H
