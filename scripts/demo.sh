#!/usr/bin/env bash
# Builds watchdogd and runs the simulated gateway with the daemon, every
# module and every peer, its syslog-ng forwarding to the operator's collector.
#
#   demo.sh                   the report lines live, decoded, as the collector
#                             receives them; Ctrl-C ends it with a summary
#   demo.sh --shell           a shell inside the gateway instead
#   demo.sh --scenario NAME   plays one story (10 times faster, libfaketime)
#   demo.sh --scenario list   names the stories
#
# Without a terminal it plays every story, one gateway each, and exits 0 only
# when every story's report lines arrived at the collector in order.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
mode=view scenario=""
while [ $# -gt 0 ]; do
  case "$1" in
    --shell) mode=shell; shift ;;
    --scenario) [ $# -ge 2 ] || { echo "demo.sh: --scenario needs a name (or list)" >&2; exit 2; }
      scenario=$2; shift 2 ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) echo "demo.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
done
if [ "$scenario" = list ]; then exec "$top/gateway/story" list; fi
if [ -n "$scenario" ] && ! "$top/gateway/story" list | grep -qx -- "$scenario"; then
  echo "demo.sh: no story $scenario; there are: $("$top/gateway/story" list | tr '\n' ' ')" >&2
  exit 2
fi

dir=$(WD_BUILD= "$top/scripts/demo-build.sh")
gateway=("$top/gateway/gw-run" --net --collector --services --prefix "$dir/stage" --peers "$dir/gateway")

story() {
  echo "=== Story $1 ==="
  "${gateway[@]}" --faketime 10 -- /gw/sim/demo-inside story "$1"
}

if [ -n "$scenario" ]; then
  story "$scenario"
elif [ "$mode" = shell ] && [ -t 0 ]; then
  exec "${gateway[@]}" --tty -- /gw/sim/demo-inside shell
elif [ -t 1 ]; then
  exec "${gateway[@]}" --ctrl-c -- /gw/sim/demo-inside view
else
  failed=()
  for name in $("$top/gateway/story" list); do
    story "$name" || failed+=("$name")
  done
  if [ ${#failed[@]} -gt 0 ]; then
    echo "demo.sh: stories whose lines did not all arrive in order: ${failed[*]}" >&2
    exit 1
  fi
  echo "demo.sh: every story's report lines arrived at the collector in order."
fi
