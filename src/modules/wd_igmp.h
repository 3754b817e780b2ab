// The IGMP module (MOD_IGMP): keeps its configured periodic timer and traces
// its expiries.
#ifndef WATCHDOGD_MODULES_WD_IGMP_H
#define WATCHDOGD_MODULES_WD_IGMP_H

#include "wd_modthread.h"

extern const wdModDesc kIgmpModule;

// The module's thread body.
void* mod_igmpHandler(void* arg);

#endif  // WATCHDOGD_MODULES_WD_IGMP_H
