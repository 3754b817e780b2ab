#!/usr/bin/env bash
# Prints performance figures of watchdogd, measured inside the gateway sandbox:
# timer lateness and the idle cost of the timer thread, then the CPU and memory
# of the whole idle daemon. Figures only; nothing here passes or fails.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
dir="$top/build-bench"
cmake -S "$top" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DWD_BUILD_TESTS=OFF -DWD_BUILD_BENCH=ON > /dev/null
cmake --build "$dir" -j "$(nproc)" > /dev/null
cmake --install "$dir" --prefix "$dir/stage" > /dev/null
run() { "$top/gateway/gw-run" --prefix "$dir/stage" --ro "$dir" -- "$@"; }

echo "== timer service =="
run "$dir/bench/timer_bench"

echo "== idle daemon (all default modules running, 20 s) =="
run sh -c '
  tcapi set Watchdog_Common Enable 1
  watchdogd 2>/dev/null &
  while [ ! -d /var/wd_tmp ]; do sleep 0.1; done
  pid=$(pidof watchdogd)
  t0=$(busybox awk "{print \$14+\$15}" /proc/$pid/stat)
  sleep 20
  t1=$(busybox awk "{print \$14+\$15}" /proc/$pid/stat)
  hz=$(getconf CLK_TCK)
  echo "CPU: $(( (t1 - t0) * 1000 / hz )) ms in 20 s"
  grep -E "^(VmRSS|VmSize|Threads)" /proc/$pid/status
'
