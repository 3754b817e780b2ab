// The periodic info module (MOD_PERIODIC_INFO): on each expiry of its periodic
// timer it runs the status collectors of wd_status that the verbosity selects.
#ifndef WATCHDOGD_MODULES_WD_PERIODICINFO_H
#define WATCHDOGD_MODULES_WD_PERIODICINFO_H

#include "wd_modthread.h"

extern const wdModDesc kPeriodicInfoModule;

// The module's thread body.
void* mod_periodicInfoHandler(void* arg);

#endif  // WATCHDOGD_MODULES_WD_PERIODICINFO_H
