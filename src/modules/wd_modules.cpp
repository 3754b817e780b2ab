// The module definitions: each module's channel path and thread body.
#include "wd_modules.h"

#include "wd_arp.h"
#include "wd_general.h"
#include "wd_iproute.h"
#include "wd_monitor.h"
#include "wd_pppoe.h"
#include "wd_status.h"
#include "wd_tr069.h"
#include "wd_voipregister.h"
#include "wd_voipstats.h"

const wdModDef kModDefs[MOD_MSG_RESEND] = {
    {"/var/wd_default.chanl", nullptr},
    {"/var/wd_pppoe.chanl", mod_pppoeHandler},
    {"/var/wd_tr069.chanl", mod_tr069Handler},
    {"/var/wd_arp.chanl", mod_arpHandler},
    {"/var/wd_ip_route.chanl", mod_ipRouteHandler},
    {"/var/wd_periodic_info.chanl", mod_periodicInfoHandler},
    {"/var/wd_igmp.chanl", mod_igmpHandler},
    {"/var/wd_voip_stats.chanl", mod_voipStatsHandler},
    {"/var/wd_voip_register.chanl", mod_voipRegisterHandler},
    {"/var/wd_general.chanl", mod_generalHandler},
    {"/var/wd_monitor.chanl", mod_monitorHandler},
    {"/var/wd_smple.chanl", mod_sampleHandler},
};
