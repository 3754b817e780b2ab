// The VoIP statistics module (MOD_VOIP_STATS): asks the voice application for
// call statistics through the configuration tree and reports every record it
// answers with as one line in category voipstat.
//
// Everything here belongs to the module thread alone; nothing is locked.
#ifndef WATCHDOGD_MODULES_WD_VOIPSTATS_H
#define WATCHDOGD_MODULES_WD_VOIPSTATS_H

#include <stddef.h>
#include <stdint.h>

#include "wd_modthread.h"

// The statistics record the voice application sends: 23 words of 32 bits in
// the device's own byte order.
typedef struct VoipStatsReply {
  int32_t CallStartTime;  // seconds since the epoch
  int32_t CallEndTime;
  int32_t PacketsSent;
  int32_t PacketsReceived;
  int32_t BytesSent;
  int32_t BytesReceived;
  int32_t PacketsLost;
  int32_t unused7[2];
  int32_t IncomingCallsReceived;
  int32_t IncomingCallsAnswered;
  int32_t IncomingCallsConnected;
  int32_t IncomingCallsFailed;
  int32_t OutgoingCallsAttempted;
  int32_t OutgoingCallsAnswered;
  int32_t OutgoingCallsConnected;
  int32_t OutgoingCallsFailed;
  int32_t CallsDropped;
  int32_t TotalCallTime;
  int32_t ServerDownTime;
  int32_t unused20[3];
} VoipStatsReply;

#ifdef __cplusplus
static_assert(sizeof(VoipStatsReply) == 92, "VoipStatsReply is 92 bytes");
// The call times stay 32-bit words whatever the width of time_t.
static_assert(offsetof(VoipStatsReply, CallStartTime) == 0 &&
                  sizeof(VoipStatsReply{}.CallStartTime) == 4,
              "CallStartTime: 32 bits at 0");
static_assert(offsetof(VoipStatsReply, CallEndTime) == 4 &&
                  sizeof(VoipStatsReply{}.CallEndTime) == 4,
              "CallEndTime: 32 bits at 4");
static_assert(offsetof(VoipStatsReply, IncomingCallsReceived) == 36, "word 9 at 36");
static_assert(offsetof(VoipStatsReply, ServerDownTime) == 76, "word 19 at 76");
#endif

// The call id of the call just ended: the first line of /var/tmp/iptk_callid
// (at most 127 characters) without its last character, "empty" when the file
// is missing or empty. Characters that would break the report line (control
// characters, "|") become "?". `callId` holds 128 bytes.
void mod_voipStatsCallId(char* callId);
// Formats the 26-field report text of `r` into `out` (`size` bytes).
void mod_voipStatsLine(char* out, size_t size, uint32_t start, uint32_t end, uint32_t mode,
                       uint32_t period, const char* callId, const VoipStatsReply* r);
// The module thread's state (wd_modState of its wdModRun), zero at start;
// the module's timer, periodic or one-shot, is the run's timerId.
struct VoipStats {
  uint32_t mode;           // "Mode" as last read: 1 per call, 2 periodic, 3 on demand
  uint32_t period;         // "Period" as last read, seconds
  uint32_t queryDelay;     // "Query" as last read, seconds
  uint32_t intervalStart;  // start of the interval the next record reports
};
// The module: its event function takes RECEIVE_FROM records, CONFIG_CHANGE,
// TIMER_EXPIRED (the query) and THREAD_EXIT.
extern const wdModDesc kVoipStatsModule;
// The module's thread body.
void* mod_voipStatsHandler(void* arg);

#endif  // WATCHDOGD_MODULES_WD_VOIPSTATS_H
