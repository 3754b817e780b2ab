// The table of the daemon's modules, in start-up order. Only the daemon's
// entry (and tests that run the whole table) include this: the module
// framework gets the table handed down and knows no module by name.
#ifndef WATCHDOGD_MODULES_WD_MODTABLE_H
#define WATCHDOGD_MODULES_WD_MODTABLE_H

#include <stddef.h>

#include "wd_modthread.h"

extern const wdModDesc* const kModTable[];
extern const size_t kModTableCount;

#endif  // WATCHDOGD_MODULES_WD_MODTABLE_H
