// The TR-069 module (MOD_TR069): supervises the gateway's TR-069 client. It
// restarts the client when the first registration with the ACS does not
// complete in time, and when Inform responses stop coming once the device is
// provisioned; it reports both in category tr069, and ceases the
// communication alarm at the next Inform response.
//
// Everything here belongs to the TR-069 module thread; nothing is locked.
#ifndef WATCHDOGD_MODULES_WD_TR069_H
#define WATCHDOGD_MODULES_WD_TR069_H

#include <stdint.h>

#include "wd_modthread.h"

// The registration case (cur_caseflag).
enum wdTr069Case : uint32_t {
  WD_TR069_FACTORY = 0,      // factory credentials: waits for a name change
  WD_TR069_REGISTERING = 1,  // registering, within RegisterTimer
  WD_TR069_PROVISIONED = 2,  // provisioned: Inform responses are watched
};
// Where the Inform exchange stands (informState).
enum wdTr069Inform : uint32_t {
  WD_INFORM_IDLE = 0,
  WD_INFORM_SENT = 1,
  WD_INFORM_ANSWERED = 2,
};
// How wd_tr069_Restart restarts the client.
enum wdTr069Restart {
  WD_TR069_RESTART_PERIODIC = 0,   // "periodic" (any mode but 1)
  WD_TR069_RESTART_BOOTSTRAP = 1,  // factory credentials back, "boottrap"
};

typedef struct wdModTR069 {
  uint32_t cur_caseflag;        // a wdTr069Case
  uint8_t alarmFlag;            // 1 while the communication alarm stands
  uint32_t RegisterTimer;       // registration limit, seconds
  uint32_t PITimer;             // Inform-response limit, seconds
  uint32_t RegisterCounterACS;  // seconds spent in case 1
  uint32_t PICounter;           // seconds counted in case 2 since the last response
  uint32_t periodInterval;      // the client's periodic Inform interval, seconds
  uint32_t informState;         // a wdTr069Inform
} wdModTR069;

extern wdModTR069 gWdModTR069;

// Puts the client's connection-request credentials back (mode
// WD_TR069_RESTART_BOOTSTRAP) or not (any other mode), then kills and starts
// it.
void wd_tr069_Restart(int mode);
// Fills gWdModTR069 from the configuration and classifies the credentials;
// 0, or -1 when a read failed.
int wdmod_tr069Handler_init(void);
// One event of the module's state machine (TIMER_EXPIRED, GET_INFORM,
// GET_INFORM_RESPONSE, CR_NAME_CHANGE, NAME_CHANGE, CONFIG_CHANGE).
void mod_tr069Event(int eventType);
extern const wdModDesc kTr069Module;
// The module's thread body.
void* mod_tr069Handler(void* arg);

#endif  // WATCHDOGD_MODULES_WD_TR069_H
