// The VoIP registration module (MOD_VOIP_REGISTER): asks the voice
// application for its SIP registration state on a timer and reports a failed
// or improperly configured registration in category voipreg.
//
// Everything here belongs to the module thread alone; nothing is locked.
#ifndef WATCHDOGD_MODULES_WD_VOIPREGISTER_H
#define WATCHDOGD_MODULES_WD_VOIPREGISTER_H

#include <stddef.h>
#include <stdint.h>

#include "wd_modthread.h"

// The registration record the voice application sends, in the device's own
// byte order.
typedef struct VoipRegisterReply {
  int32_t RegisterSIPCounter;
  int32_t RegisterSIPStatus;  // 0 registered, 1 failure, 2 improper configuration
} VoipRegisterReply;

#ifdef __cplusplus
static_assert(sizeof(VoipRegisterReply) == 8, "VoipRegisterReply is 8 bytes");
static_assert(offsetof(VoipRegisterReply, RegisterSIPStatus) == 4, "RegisterSIPStatus at 4");
#endif

// The alarm prefix for a status while the improper-configuration switch is
// `improperConf`; null for status 0, which is not reported.
const char* mod_voipRegisterPrefix(uint8_t improperConf, int32_t status);
// The module thread's state (wd_modState of its wdModRun), zero at start.
struct VoipRegister {
  uint8_t improperConf;  // "ImproperConfEnable" as last read; 0 until then
};
// The module: its event function takes RECEIVE_FROM records, CONFIG_CHANGE,
// TIMER_EXPIRED (the query) and THREAD_EXIT.
extern const wdModDesc kVoipRegisterModule;
// The module's thread body.
void* mod_voipRegisterHandler(void* arg);

#endif  // WATCHDOGD_MODULES_WD_VOIPREGISTER_H
