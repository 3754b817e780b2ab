#!/usr/bin/env bash
# Prints performance figures of watchdogd, measured inside the gateway sandbox:
# timer lateness and the idle cost of the timer thread, then the CPU and memory
# of the whole idle daemon. Figures only; nothing here passes or fails.
#
#   scripts/bench.sh                  the figures above
#   scripts/bench.sh --compare [--window S] [--windows N] [--queries N] [--flood S] [--profile]
#       watchdogd with every module and monit side by side in one gateway (the
#       WAN link, syslog-ng, the voice application, the service processes):
#       after a 10-second warm-up both are sampled over N windows of S seconds
#       (default 3 of 120) and the medians printed; then the command socket's
#       latency over N queries (default 100000), a flood from 4 clients for S
#       seconds (default 10), the timer lateness idle and under the flood, and
#       the stripped sizes for this machine and MIPS; --profile adds one more
#       window with the idle daemon under perf. Exits non-zero only when the
#       comparison could not be run or a figure is missing.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/lib.sh"
compare=0 window=120 windows=3 queries=100000 flood=10 profile=""
while [ $# -gt 0 ]; do
  case "$1" in
    --compare) compare=1; shift ;;
    --profile) profile=profile; shift ;;
    --window|--windows|--queries|--flood)
      [[ "${2:-}" =~ ^[1-9][0-9]*$ ]] || { echo "bench.sh: $1 needs a whole number" >&2; exit 2; }
      declare "${1#--}=$2"; shift 2 ;;
    *) echo "usage: bench.sh [--compare [--window S] [--windows N] [--queries N] [--flood S] [--profile]]" >&2; exit 2 ;;
  esac
done
"$top/scripts/deps.sh"
dir="$top/build-bench"
if [ "$compare" = 1 ]; then exec "$top/bench/compare.sh" "$window" "$windows" "$queries" "$flood" $profile; fi
wd_build -i "$dir" -DCMAKE_BUILD_TYPE=Release -DWD_BUILD_TESTS=OFF -DWD_BUILD_BENCH=ON \
  -DWD_TIMER_STATS=OFF
run() { "$top/gateway/gw-run" --syslog --prefix "$dir/stage" --peers "$dir/gateway" --ro "$dir" \
  -- "$@"; }

echo "== timer service =="
run "$dir/bench/timer_bench"

echo "== delivery across 5 syslog-ng restarts: 1000 reports, 100 minutes of the relay's time =="
"$top/gateway/gw-run" --syslog --faketime 100 --prefix "$dir/stage" --peers "$dir/gateway" \
  --ro "$dir" -- "$dir/bench/relay_soak" || echo "relay soak: reports were lost"

echo "== idle daemon (the modules that always run, 20 s after its 30-second start) =="
run sh -c '
  . /gw/sim/lib.sh
  tcapi set Watchdog_Common Enable 1
  watchdogd 2>/dev/null &
  while [ ! -d /var/wd_tmp ]; do sleep 0.1; done
  pid=$(pidof watchdogd)
  t0=$(proc_cpu /proc/$pid); t0=${t0%% *}
  sleep 20
  t1=$(proc_cpu /proc/$pid); t1=${t1%% *}
  hz=$(getconf CLK_TCK)
  echo "CPU: $(( (t1 - t0) * 1000 / hz )) ms in 20 s"
  grep -E "^(VmRSS|VmSize|Threads)" /proc/$pid/status
'

echo "== route monitor thread (mode 2): idle for 20 s, then one route change =="
"$top/gateway/gw-run" --net --syslog --prefix "$dir/stage" --peers "$dir/gateway" -- sh -c '
  . /gw/sim/lib.sh
  tcapi set Watchdog_Common Enable 1
  tcapi set Watchdog_Route Mode 2
  watchdogd 2>/dev/null &
  while [ ! -d /var/wd_tmp ]; do sleep 0.1; done
  pid=$(pidof watchdogd)
  before=$(ls /proc/$pid/task)
  wdctl config ip_route > /dev/null
  while ! busybox awk "\$4 == 00000040 { found = 1 } END { exit !found }" /proc/net/netlink; do sleep 0.1; done
  tid=$(for t in $(ls /proc/$pid/task); do echo "$before" | grep -qx "$t" || echo "$t"; done)
  sample() {
    cpu=$(proc_cpu /proc/$pid/task/$tid)
    echo "${cpu%% *}" "$(proc_status /proc/$pid/task/$tid voluntary_ctxt_switches)"
  }
  hz=$(getconf CLK_TCK)
  set -- $(sample); sleep 20; t0=$1 w0=$2; set -- $(sample)
  echo "idle: CPU $(( ($1 - t0) * 1000 / hz )) ms in 20 s, $(( ($2 - w0) / 20 )) wakeups per second"
  t0=$(date +%s%N)
  ip route add 198.18.0.1 dev br0
  until grep -q "|198.18.0.1|" /var/log/messages; do sleep 0.01; done
  echo "a route added: its table at syslog-ng after $(( ($(date +%s%N) - t0) / 1000000 )) ms (the relay sends one line per 300 ms tick)"
'

echo "== long run: 100 minutes of the daemon's time in 60 s (libfaketime x100) =="
echo "   PPPoE checks every 10 s with ping and lookup, the WAN line cut and restored"
echo "   every 5 minutes, an IGMP timer every second: what the process holds over time"
"$top/gateway/gw-run" --net --syslog --faketime 100 --prefix "$dir/stage" --peers "$dir/gateway" -- sh -c '
  . /gw/sim/lib.sh
  real_sleep() { env -u LD_PRELOAD sleep "$1"; }
  tcapi set Watchdog_Common Enable 1
  tcapi set Wan_PVC0 ENCAP "PPPoE LLC"
  tcapi set Watchdog_PPP Timer 10
  tcapi set Watchdog_PPP AlertAfter 1
  tcapi set Watchdog_PPP MaxReset 100
  tcapi set Watchdog_PPP PingIP 198.51.100.1
  tcapi set Watchdog_PPP LookupDomain wan.test
  tcapi set Watchdog_IGMP Period 1
  watchdogd 2>/dev/null &
  while [ ! -d /var/wd_tmp ]; do real_sleep 0.1; done
  pid=$(pidof watchdogd)
  snapshot() {
    printf "%-8s fds=%s threads=%s rss=%s kB reports delivered=%s\n" "$1" \
      "$(proc_fds $pid)" "$(ls /proc/$pid/task | wc -l)" "$(proc_status /proc/$pid VmRSS)" \
      "$(grep -c my.app.wd /var/log/messages)"
  }
  snapshot start
  for round in 1 2 3 4 5 6 7 8 9 10; do
    /gw/sim/wan-link cut; real_sleep 3
    /gw/sim/wan-link restore; real_sleep 3
    [ "$round" = 5 ] && snapshot half
  done
  snapshot end
'
