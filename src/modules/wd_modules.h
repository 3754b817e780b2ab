// The supervision modules: their thread bodies (entries 1..11 of the module
// table) and the definitions that wd_initSubModData puts into the table.
#ifndef WATCHDOGD_MODULES_WD_MODULES_H
#define WATCHDOGD_MODULES_WD_MODULES_H

#include "wd_chanl.h"

// A module's channel path and thread body.
struct wdModDef {
  const char* chanlPath;
  wdModHandler handler;
};
// Entries 0..11; MOD_DEFAULT has no body.
extern const wdModDef kModDefs[MOD_MSG_RESEND];

// MOD_SAMPLE: traces every event it receives; runs until the process ends.
void* mod_sampleHandler(void* arg);

// MOD_IGMP: keeps its configured periodic timer and traces its expiries.
void* mod_igmpHandler(void* arg);

#endif  // WATCHDOGD_MODULES_WD_MODULES_H
