// The table of the daemon's modules: one row per module, in the order
// wd_creatModThreads starts them. A new module adds its row here.
#include "wd_modtable.h"

#include "wd_arp.h"
#include "wd_general.h"
#include "wd_igmp.h"
#include "wd_iproute.h"
#include "wd_monitor.h"
#include "wd_periodicinfo.h"
#include "wd_pppoe.h"
#include "wd_sample.h"
#include "wd_tr069.h"
#include "wd_voipregister.h"
#include "wd_voipstats.h"

// clang-format off
const wdModDesc* const kModTable[] = {
    &kPppoeModule,
    &kTr069Module,
    &kArpModule,
    &kPeriodicInfoModule,
    &kIpRouteModule,
    &kVoipRegisterModule,
    &kIgmpModule,
    &kVoipStatsModule,
    &kMonitorModule,
    &kGeneralModule,
    &kSampleModule,
};
// clang-format on
const size_t kModTableCount = sizeof kModTable / sizeof kModTable[0];
