// The sample module (MOD_SAMPLE): the common module loop in its plainest form.
// Started only by command; it traces every event and never ends.
#ifndef WATCHDOGD_MODULES_WD_SAMPLE_H
#define WATCHDOGD_MODULES_WD_SAMPLE_H

#include "wd_modthread.h"

extern const wdModDesc kSampleModule;

// The module's thread body.
void* mod_sampleHandler(void* arg);

#endif  // WATCHDOGD_MODULES_WD_SAMPLE_H
