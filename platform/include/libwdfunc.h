// libwdfunc: the watchdog function library shared by watchdogd and the
// gateway's other processes.
//
// It fixes the command message that processes send to the daemon's command
// socket, and offers the calls on both sides of that socket. All fields are in
// host byte order: every party is a local process built with this library.
#ifndef WATCHDOGD_PLATFORM_LIBWDFUNC_H
#define WATCHDOGD_PLATFORM_LIBWDFUNC_H

#include <stddef.h>
#include <stdint.h>
#include <sys/un.h>

#define WD_CMD_SOCK_PATH "/tmp/watchdog_sock"
#define WD_RESULT_SOCK_PATH "/tmp/wd_result_sock"

// Command types (signaltype).
#define MSG_QORVWATCHDOG_CONFIG_CHANGE 1
#define MSG_QORVWATCHDOG_THREAD_START 2
#define MSG_QORVWATCHDOG_THREAD_EXIT 3
#define MSG_QORVWATCHDOG_QUERY 4
#define MSG_QORVWATCHDOG_GET_INFORM 5
#define MSG_QORVWATCHDOG_GET_INFORM_RESPONSE 6
#define MSG_QORVWATCHDOG_CR_NAME_CHANGE 7
#define MSG_QORVWATCHDOG_NAME_CHANGE 8
#define MSG_QORVWATCHDOG_MONITOR_DATA 10
#define MSG_QORVWATCHDOG_SYSLOG_RELOAD 11
#define MSG_QORVWATCHDOG_SYSLOG_RELOAD_2 12

// Answer of a query for a module whose thread does not run.
#define WD_QUERY_NOT_RUNNING 9000

// Positive results of wdmsg_receive: a datagram that is not a whole command.
#define WDMSG_SHORT_HEADER 1  // fewer bytes than the 16-byte header
#define WDMSG_SHORT_DATA 2    // fewer data bytes than dataLength announces

// Command message header; `dataLength` data bytes follow it (wdCmdData).
typedef struct wdCmdMsg {
  uint32_t signaltype;      // command type
  uint16_t sequenceNumber;  // module id the command is for
  uint16_t pad;             // not read, not written
  uint32_t wordData;        // command word; the answer in a query reply
  uint32_t dataLength;      // number of data bytes after the header
} wdCmdMsg;

#ifdef __cplusplus
static_assert(sizeof(wdCmdMsg) == 16, "wdCmdMsg header is 16 bytes");
static_assert(offsetof(wdCmdMsg, sequenceNumber) == 4, "sequenceNumber at 4");
static_assert(offsetof(wdCmdMsg, wordData) == 8, "wordData at 8");
static_assert(offsetof(wdCmdMsg, dataLength) == 12, "dataLength at 12");
extern "C" {
#endif

// The data bytes that follow a command header.
static inline unsigned char* wdCmdData(wdCmdMsg* msg) {
  return (unsigned char*)msg + sizeof(wdCmdMsg);
}

// Creates a Unix datagram socket bound to `path` (replacing a stale socket
// file) and fills `addr` with its address. When another process takes the
// name between the removal and the bind, the socket is bound under a name
// beside it whose file is then renamed to `path`. Returns the descriptor, or
// -1.
int WDSockInit(const char* path, struct sockaddr_un* addr);

// Receives one command datagram on `fd`. `*msg` must point to a block from
// malloc; the library may replace it (realloc) so that it holds the header and
// its data; the caller frees whatever `*msg` points to. `*len` is the size of
// the receive buffer: the bytes of a longer datagram beyond it are discarded.
// `addr` receives the sender's address. Returns 0 for a whole command message,
// -1 with errno on a failed receive, WDMSG_SHORT_HEADER or WDMSG_SHORT_DATA for
// a datagram that is not a whole command message.
int wdmsg_receive(int fd, wdCmdMsg** msg, int* len, struct sockaddr_un* addr);

// Sends `msg` (header and dataLength data bytes) as one datagram to the Unix
// socket at `path`, without waiting: a receiver whose queue is full gets
// nothing (-1, errno EAGAIN). Returns the number of bytes sent, or -1 with
// errno.
int SendSigToApp(const char* path, wdCmdMsg* msg);

// Non-zero when "Enable" of "Watchdog_Common" is exactly "1".
int wd_isWdEnable(void);

// 1 when a process whose name (/proc/PID/comm) equals `name` exists, else 0.
int getProcessStatus(const char* name);

#ifdef __cplusplus
}
#endif

#endif  // WATCHDOGD_PLATFORM_LIBWDFUNC_H
