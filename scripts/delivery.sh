#!/usr/bin/env bash
# A delivery proof: numbered reports through the whole chain while syslog-ng
# and the daemon are killed with SIGKILL and started again, then a count per
# category at the collector: made, delivered, lost (and where), duplicated.
#
#   delivery.sh [--syslog-kills N] [--daemon-kills M] [--bursts]   (defaults 20, 5)
#
# With --bursts the voice application also sends bursts of 500 registration
# answers at random moments; the table then has a row of those events and of
# the ones the daemon dropped, which count as lost by the daemon.
# Runs in a simulated gateway 10 times faster (libfaketime). Its last line is
# "lost by the daemon: K", lines lost other than in the ways the daemon
# documents; it exits 0 only when K is 0.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
syslogKills=20 daemonKills=5 bursts=0
while [ $# -gt 0 ]; do
  case "$1" in
    --syslog-kills) syslogKills=$2; shift 2 ;;
    --daemon-kills) daemonKills=$2; shift 2 ;;
    --bursts) bursts=1; shift ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) echo "delivery.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
done
[[ $syslogKills =~ ^[0-9]+$ && $daemonKills =~ ^[0-9]+$ && $daemonKills -le $syslogKills ]] ||
  { echo "delivery.sh: the counts must be numbers, daemon kills at most syslog-ng kills" >&2; exit 2; }
dir=$("$top/scripts/demo-build.sh")
out=$("$top/gateway/gw-run" --net --collector --services --faketime 10 --prefix "$dir/stage" \
  --peers "$dir/gateway" -- /gw/sim/delivery "$syslogKills" "$daemonKills" "$bursts" | tee /dev/stderr)
[ "$(tail -n 1 <<< "$out")" = "lost by the daemon: 0" ]
