// What travels between the daemon's threads and what the gateway's tools
// share with it: events, module ids and the wdMsg datagram. The command
// message from other processes (wdCmdMsg) and its command types come from
// libwdfunc.h. No behaviour here.
#ifndef WATCHDOGD_CORE_WD_WIRE_H
#define WATCHDOGD_CORE_WD_WIRE_H

#include <stddef.h>
#include <stdint.h>

#include "libwdfunc.h"

// Events (wdMsg.eventType).
enum {
  TIMER_EXPIRED = 1,
  CONFIG_CHANGE = 2,
  THREAD_EXIT = 3,
  RECEIVE_FROM = 4,
  GET_INFORM = 5,
  GET_INFORM_RESPONSE = 6,
  CR_NAME_CHANGE = 7,
  NAME_CHANGE = 8,
  MONITOR_DATA = 9,
  TX_CHECK_TIMEOUT = 10,
  TX_SAVE_TIMEOUT = 11,
  PPP_TIMER_EXPIRED = 12,
};

// Module ids: the index of a module's entry in the module table.
enum {
  MOD_DEFAULT = 0,
  MOD_PPPOE = 1,
  MOD_TR069 = 2,
  MOD_ARP = 3,
  MOD_IP_ROUTE = 4,
  MOD_PERIODIC_INFO = 5,
  MOD_IGMP = 6,
  MOD_VOIP_STATS = 7,
  MOD_VOIP_REGISTER = 8,
  MOD_GENERAL = 9,
  MOD_MONITOR = 10,
  MOD_SAMPLE = 11,
  MOD_MSG_RESEND = 12,
  WD_MOD_NUM = 13,
};

#define WD_MSG_SIZE 8016
#define WD_MSG_DATA_SIZE 8000
#define WD_MSG_MAX_PAYLOAD 1999  // longer payloads are not carried

// The event datagram between threads: always sent and received whole.
typedef struct wdMsg {
  int32_t eventType;
  int32_t srcMod;  // every sender in the daemon puts 0
  int32_t destMod;
  char data[WD_MSG_DATA_SIZE];  // payload; zero past its end
  uint8_t datalen;              // payload length, 0 for none (255 for 255 and more)
  uint8_t pad[3];
} wdMsg;

static_assert(sizeof(wdMsg) == WD_MSG_SIZE, "wdMsg is 8016 bytes");
static_assert(offsetof(wdMsg, eventType) == 0, "eventType at 0");
static_assert(offsetof(wdMsg, srcMod) == 4, "srcMod at 4");
static_assert(offsetof(wdMsg, destMod) == 8, "destMod at 8");
static_assert(offsetof(wdMsg, data) == 12, "data at 12");
static_assert(offsetof(wdMsg, datalen) == 8012, "datalen at 8012");

#endif  // WATCHDOGD_CORE_WD_WIRE_H
