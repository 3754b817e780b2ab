// The command loop's handling of one command from /tmp/watchdog_sock.
#ifndef WATCHDOGD_DAEMON_WD_COMMAND_H
#define WATCHDOGD_DAEMON_WD_COMMAND_H

#include "libwdfunc.h"

// The receive length word handed to every wdmsg_receive call.
#define WD_CMD_RECV_LEN 500

// Carries out one received command: an event to the module it names (types
// 1, 3, 5 to 8), a module start (2), a query answer or the forwarding of its
// data record (4), the monitor's data (10), a reload mark (11, 12); anything
// else is refused on the debug console. May change *msg (a query's answer is
// written into it). Main thread, after wd_setModTable.
void wd_dispatchCommand(wdCmdMsg* msg);

#endif  // WATCHDOGD_DAEMON_WD_COMMAND_H
