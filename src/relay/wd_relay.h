// The report relay's start-up.
#ifndef WATCHDOGD_RELAY_WD_RELAY_H
#define WATCHDOGD_RELAY_WD_RELAY_H

#include <pthread.h>

#include "wd_buffer.h"

// Sets up the relay: buffer and link state, the signal handlers, the flash
// copy restored (and written again at once when it held lines, so that a
// second crash while they drain loses none), entry 12 of the module table and
// the receive, transmit and resend threads. Main thread, once, after
// wd_connectSyslogNG.
void wd_bufInit(void) WD_EXCLUDES(bufMutex);

extern pthread_t bufThreadRX, bufThreadTX, bufThreadResend;

#endif  // WATCHDOGD_RELAY_WD_RELAY_H
