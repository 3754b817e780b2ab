// The link to syslog-ng: the transmit thread sends one line per 300 ms tick
// as a 520-byte datagram to /var/wdSyslogTx.chanl, the receive thread takes
// the answers on /var/wdSyslogRx.chanl and removes acknowledged lines, the
// resend thread takes the relay's timer events on the channel of
// MOD_MSG_RESEND. Three failure answers in a row suspend sending; while
// suspended, the head line goes out as a probe every 30 seconds until a
// probe is answered with success.
#ifndef WATCHDOGD_RELAY_WD_LINK_H
#define WATCHDOGD_RELAY_WD_LINK_H

#include "wd_buffer.h"

// Waits (30 s, then every 30 s) until syslog-ng takes a connect on the
// transmit path. Main thread, at start-up.
void wd_connectSyslogNG(void);
// Thread bodies; their argument is ignored and they never return.
void* wd_bufTxHandler(void* arg);
void* wd_bufRxHandler(void* arg);
void* wd_bufResendHandler(void* arg);
// For tests: true while the transmit thread sleeps without work, and the
// number of times its sleep ended: a wake, a change of the pid file, the tick
// a push armed, or its time.
extern std::atomic<bool> bufTxIdle;
extern std::atomic<unsigned> bufTxWakes;
// Acts on one answer from syslog-ng, "number#result#" (a datagram of at most
// 16 bytes, 0-terminated), as the receive thread does. False, and nothing
// done, when the answer does not give both numbers.
bool wd_bufTakeAnswer(const char* answer) WD_EXCLUDES(bufMutex);
// Stops the check timer and arms it again (30000 ms, TX_CHECK_TIMEOUT).
void wd_bufRearmCheck(void) WD_REQUIRES(bufMutex);

#endif  // WATCHDOGD_RELAY_WD_LINK_H
