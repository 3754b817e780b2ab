// The IP route module (MOD_IP_ROUTE): reports the gateway's IPv4 routing
// table in category route, one line per route: in mode "1" on its periodic
// timer, in mode "2" whenever the kernel announces a route added or deleted
// (a second thread watches a routing netlink socket), and at once on
// "Query" = "1" in any mode.
#ifndef WATCHDOGD_MODULES_WD_IPROUTE_H
#define WATCHDOGD_MODULES_WD_IPROUTE_H

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/socket.h>
#include <linux/netlink.h>

#include <atomic>

#include "wd_lock.h"
#include "wd_modthread.h"

// 1 while the monitor thread is to keep running. Written only by the module
// thread, under thread_mutex; read by the monitor thread between polls.
extern std::atomic<uint8_t> keepRunThread;
// Held by the module thread while it changes keepRunThread and while it waits
// for the monitor thread to end. The monitor thread never takes it.
extern wdMutex thread_mutex;

// How long the monitor thread waits on its socket between two polls, in
// milliseconds: the longest it takes to see a cleared keepRunThread.
constexpr int WD_ROUTE_POLL_MS = 200;

// Reports the table that "route" prints, one line per route.
void parserRouteTable(void);
// The same from the output of "route" open as `route`.
void mod_routeReport(FILE* route);
// Thread body of the monitor thread: polls a routing netlink socket (IPv4
// route group only) until keepRunThread is cleared. Returns null.
void* monitorRouteTable(void* arg);
// One poll of the netlink socket `fd` bound to `addr`: a datagram that
// announces a route added or deleted reports the whole table. Returns 0.
int loop(int fd, struct sockaddr_nl* addr);
// Start-up: in mode "1" arms the periodic timer and stores its id in
// *timerId. 0, or -1 when "Mode" could not be fetched.
int wd_initIpRoute(int* timerId);
extern const wdModDesc kIpRouteModule;
// The module's thread body.
void* mod_ipRouteHandler(void* arg);

#endif  // WATCHDOGD_MODULES_WD_IPROUTE_H
