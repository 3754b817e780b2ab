#!/usr/bin/env bash
# Builds watchdogd and starts the simulated gateway with the daemon running in
# it. With a terminal you get a shell inside the gateway; without one, a short
# scripted tour.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
dir="$top/build-demo"
cmake -S "$top" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWD_BUILD_TESTS=OFF > /dev/null
cmake --build "$dir" -j "$(nproc)" > /dev/null
cmake --install "$dir" --prefix "$dir/stage" > /dev/null
tty=()
[ -t 0 ] && tty=(--tty)
exec "$top/gateway/gw-run" ${tty[@]+"${tty[@]}"} --net --syslog --services --prefix "$dir/stage" \
  --peers "$dir/gateway" -- /gw/sim/demo-inside
