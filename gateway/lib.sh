# lib.sh, sourced inside a gateway (as /gw/sim/lib.sh) by the scripts that run
# there: what more than one of them does. Plain sh, so that sh -c scripts can
# source it too.

# configure_modules: every module of the watchdog configured, periods of 20
# seconds to 2 minutes; the daemon reads them when it starts.
configure_modules() {
  tcapi set Watchdog_Common Enable 1
  tcapi set Wan_PVC0 ENCAP "PPPoE LLC"
  tcapi set Watchdog_PPP Timer 20
  tcapi set Watchdog_PPP AlertAfter 1
  tcapi set Watchdog_PPP MaxReset 2
  tcapi set Watchdog_PPP PingIP 198.51.100.1
  tcapi set Watchdog_PPP LookupDomain wan.test
  tcapi set Watchdog_VoIPStats Mode 2
  tcapi set Watchdog_VoIPStats Period 30
  tcapi set Watchdog_VoIPStatus RegisterTimer 20
  tcapi set Watchdog_VoIPStatus ImproperConfEnable 1
  tcapi set Watchdog_IGMP Period 60
  tcapi set Watchdog_ARP Timer 120
  tcapi set Watchdog_Route Mode 2
  tcapi set Watchdog_WDInfo Timer 60
  tcapi set Watchdog_WDInfo Verbosity 15
  # TR-069: the client starts with the factory credentials and registers with
  # the operator's ACS; Informs every minute, answered within 4 minutes.
  tcapi set Watchdog_TR069 RegisterTimer 120
  tcapi set Watchdog_TR069 PITimer 240
  tcapi set Cwmp_Entry periodInterval 60
  for attr in conReqUserName conReqPassword; do tcapi set Cwmp_Entry $attr KPRTV4826; done
  for attr in acsUserName acsPassword; do tcapi set Cwmp_Entry $attr WBN5937; done
}

# proc_cpu DIR: the CPU time of the process or thread DIR (/proc/PID or
# /proc/PID/task/TID) in clock ticks: its own (user + system), then that of
# its children it has waited for.
proc_cpu() { busybox awk '{ print $14 + $15, $16 + $17 }' "$1/stat"; }

# proc_status DIR FIELD: the value of FIELD (VmRSS, Threads,
# voluntary_ctxt_switches...) in DIR/status; fails when DIR is gone.
proc_status() { busybox awk -v k="$2:" '$1 == k { print $2 }' "$1/status"; }

# proc_fds PID: the number of descriptors the process has open.
proc_fds() { ls "/proc/$1/fd" | wc -l; }
