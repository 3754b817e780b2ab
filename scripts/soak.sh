#!/usr/bin/env bash
# A soak: the whole gateway (every module of the watchdog, every peer,
# syslog-ng forwarding to a collector) for days of the daemon's time under
# libfaketime, with the peers misbehaving at random (syslog-ng killed or
# answering failure, the WAN line cut, the ACS silent, service processes
# killed, configuration changes with garbage among them, command floods).
# Prints a sample of the daemon's resources every few hours of its time.
#
#   soak.sh [--days N] [--speed X] [--every H]   (defaults 30, 1000, 24)
#
# --speed is how much faster than real time the gateway runs: 30 days at 1000
# take 43 minutes. Exits 0 when the daemon lived to the end.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
days=30 speed=1000 every=24
while [ $# -gt 0 ]; do
  case "$1" in
    --days) days=$2; shift 2 ;;
    --speed) speed=$2; shift 2 ;;
    --every) every=$2; shift 2 ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) echo "soak.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
done
[[ $days =~ ^[1-9][0-9]*$ && $speed =~ ^[1-9][0-9]*$ && $every =~ ^[1-9][0-9]*$ ]] ||
  { echo "soak.sh: --days, --speed and --every take whole numbers above 0" >&2; exit 2; }
command -v gdb > /dev/null || { echo "soak.sh: needs gdb (it reads the timer lists)" >&2; exit 2; }
dir=$("$top/scripts/demo-build.sh")
exec "$top/gateway/gw-run" --net --collector --services --faketime "$speed" --prefix "$dir/stage" \
  --peers "$dir/gateway" -- /gw/sim/soak "$days" "$every"
