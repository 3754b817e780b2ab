#!/usr/bin/env bash
# Prints watchdogd's figures on the gateway's target, 32-bit big-endian MIPS:
# the stripped sizes of its programs and libraries, the thread stacks it
# reserves, and the resident memory of the idle daemon with every module
# running, measured under qemu-mips in the gateway sandbox. The same daemon,
# built for this machine, runs beside it in a second gateway with the same
# configuration, for comparison. Figures only; nothing here passes or fails.
#
#   scripts/target-figures.sh [--settle S]
#       S: seconds the idle daemons run, once every module's thread runs,
#       before the second sample (default 70: the periodic info module's
#       first minute is in it)
#
# Builds (RelWithDebInfo, without tests) into build-target/mips and, for the
# gateway's simulated peers, build-target/native; for the sizes also a
# MinSizeRel MIPS build, build-target/mips-size.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/lib.sh"
settle=70
while [ $# -gt 0 ]; do
  case "$1" in
    --settle)
      [[ "${2:-}" =~ ^[1-9][0-9]*$ ]] || { echo "target-figures.sh: --settle needs a whole number" >&2; exit 2; }
      settle=$2; shift 2 ;;
    *) echo "usage: target-figures.sh [--settle S]" >&2; exit 2 ;;
  esac
done
"$top/scripts/deps.sh"
dir="$top/build-target"
emu="qemu-mips -L /usr/mips-linux-gnu"
start=$SECONDS

echo "building (no tests, at -j2): MIPS and this machine's RelWithDebInfo, MIPS MinSizeRel..." >&2
wd_build -j 2 -i "$dir/mips" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWD_BUILD_TESTS=OFF \
  -DCMAKE_TOOLCHAIN_FILE="$top/cmake/mips-linux-gnu.cmake"
wd_build -j 2 -i "$dir/native" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWD_BUILD_TESTS=OFF
# For the sizes only: the smallest build, as the benchmark beside monit takes it.
wd_build -j 2 -i "$dir/mips-size" -DCMAKE_BUILD_TYPE=MinSizeRel -DWD_BUILD_TESTS=OFF \
  -DCMAKE_TOOLCHAIN_FILE="$top/cmake/mips-linux-gnu.cmake"
# The emulator's own share: a MIPS program that prints the least thread stack
# its C library allows, then sleeps.
cat > "$dir/idle.c" << 'EOF'
#include <stdio.h>
#include <unistd.h>
int main(void) {
  printf("%ld\n", sysconf(_SC_THREAD_STACK_MIN));
  fflush(stdout);
  for (;;) pause();
}
EOF
mips-linux-gnu-gcc -O2 -o "$dir/idle-mips" "$dir/idle.c"

echo "== stripped sizes, MIPS (mips-linux-gnu-strip), in bytes =="
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
printf '%-20s %14s %14s\n' file RelWithDebInfo MinSizeRel
for f in sbin/watchdogd bin/wdctl bin/tcapi lib/libtcapi.so lib/libwdfunc.so; do
  sizes=()
  for b in mips mips-size; do
    mips-linux-gnu-strip -o "$tmp/x" "$dir/$b/stage/$f"
    sizes+=("$(stat -c %s "$tmp/x")")
  done
  printf '%-20s %14d %14d\n' "$f" "${sizes[@]}"
done | awk '{ print; a += $2; b += $3 }
  END { printf "%-20s %14d %14d\n%-20s %14.1f %14.1f\n", "total", a, b, "total, KiB", a / 1024, b / 1024 }'

# In a gateway: every module configured (the simulation's configure_modules),
# the service processes, the voice application and the TR-069 client; the
# daemon without -d, as on the gateway. For MIPS the gateway runs the target's
# programs under qemu-mips (gw-run's WD_EMULATOR), with the same process id,
# and the peers speak the device's byte order. Arguments: the emulator (empty:
# this machine's programs), the MIPS idle program, the seconds to settle.
# Prints key=value lines.
cat > "$dir/in-gateway.sh" << 'EOF'
set -u
emu=$1 idle=$2 settle=$3
fail() { echo "in-gateway: $*" >&2; exit 1; }
. /gw/sim/lib.sh
/gw/sim/services || fail "the service processes did not start"
configure_modules
ping -c 1 -W 2 192.168.1.100 > /dev/null
ping -c 1 -W 2 192.168.1.101 > /dev/null
voiceApp -c 40 2> /dev/null &
/opt/watchdogd/sbin/watchdogd 2> /tmp/watchdogd.stderr &
wd=$!
/gw/sim/await --until test -d /var/wd_tmp || fail "watchdogd did not start"
wdctl config ip_route > /dev/null  # route mode 2: starts the route monitor thread
/userfs/bin/tr69 < /dev/null > /dev/null 2>&1 &

# Every module's thread runs (its query answers "running"), and the route
# monitor has bound its netlink socket to the route group.
all_running() {
  for m in pppoe tr069 arp ip_route periodic_info igmp voip_stats voip_register general monitor; do
    wdctl query $m | grep -q ": running" || return 1
  done
  busybox awk '$4 == 00000040 { found = 1 } END { exit !found }' /proc/net/netlink
}
tries=0
until all_running; do
  tries=$((tries + 1))
  [ $tries -lt 600 ] || fail "not every module runs: $(wdctl status)"
  sleep 0.1
done

# sample LABEL PID: the process's totals (for a program under qemu-user, the
# emulator's with it), and the same summed over the guest's mappings only.
# qemu-user reserves the 32-bit guest's whole address space as one run of
# adjacent mappings (PROT_NONE where the guest has mapped nothing): the run
# that holds the guest's C library. A thread stack is a read-write anonymous
# mapping right above its one-page PROT_NONE guard; their sizes are counted.
sample() {
  set -- "$1" "$2" "$(ls /proc/$2/task | wc -l)"
  busybox awk -v label="$1" -v tasks="$3" '
    /^[0-9a-f]+-[0-9a-f]+ / {
      split($1, r, "-")
      if (r[1] != end) b++
      end = r[2]
      guard = prevperms == "---p" && prevanon && size == 4 && r[1] == prevend
      anon = $6 == ""
      if ($6 ~ /^\/usr\/mips-linux-gnu\//) guest[b] = 1
      cur = b; stackish = guard && anon && $2 == "rw-p"
      prevperms = $2; prevanon = anon; prevend = r[2]
      next
    }
    $1 == "Size:" { size = $2; if (stackish) stacks[cur] = stacks[cur] " " $2; next }
    $1 == "Rss:" {
      rss[cur] += $2; all_rss += $2
      if (stackish) { srss[cur] += $2; if ($2 > smax[cur]) smax[cur] = $2 }
      next
    }
    $1 == "Anonymous:" { an[cur] += $2; all_an += $2; next }
    $1 == "Private_Dirty:" { pd[cur] += $2; all_pd += $2; next }
    END {
      g = 0
      for (i in guest) g = i
      if (g) { R = rss[g]; A = an[g]; P = pd[g]; S = stacks[g]; SR = srss[g]; SM = smax[g] }
      else {
        R = all_rss; A = all_an; P = all_pd
        for (i in stacks) { S = S stacks[i]; SR += srss[i]; if (smax[i] > SM) SM = smax[i] }
      }
      n = split(S, s, " "); delete h; list = ""
      for (i = 1; i <= n; i++) h[s[i]]++
      for (k in h) list = list (list == "" ? "" : ",") k "kBx" h[k]
      printf "sample label=%s tasks=%d total_rss_kb=%d total_anon_kb=%d total_private_dirty_kb=%d guest=%d own_rss_kb=%d own_anon_kb=%d own_private_dirty_kb=%d stacks=%s stacks_rss_kb=%d stack_rss_max_kb=%d\n",
        label, tasks, all_rss, all_an, all_pd, g ? 1 : 0, R, A, P, list, SR, SM
    }' "/proc/$2/smaps"
}
sample running $wd
if [ -n "$emu" ]; then
  $emu "$idle" > /tmp/idle.out &
  idle_pid=$!
  /gw/sim/await --until test -s /tmp/idle.out || fail "the idle program did not start"
  echo "thread-stack-min bytes=$(cat /tmp/idle.out)"
  sample idle-program $idle_pid
  kill $idle_pid
fi
sleep "$settle"
kill -0 $wd 2> /dev/null || fail "watchdogd ended: $(tail -3 /tmp/watchdogd.stderr)"
sample settled $wd
grep -E '^(VmRSS|RssAnon|RssFile|VmSize|Threads):' /proc/$wd/status | tr -d ' \t' | sed 's/^/status /'
kill $wd
EOF

echo "running the idle daemon, for MIPS under qemu-mips and for this machine, in two gateways:" \
  "30 s start, then $settle s (load now: $(cut -d' ' -f1-3 /proc/loadavg))" >&2
run() {  # run PREFIX OUT EMULATOR
  env ${3:+WD_EMULATOR="$3" WD_TARGET_ENDIAN=big} \
    "$top/gateway/gw-run" --net --syslog --prefix "$1" --peers "$dir/native/gateway" --ro "$dir" -- \
    sh "$dir/in-gateway.sh" "$3" "$dir/idle-mips" "$settle" > "$2"
}
run "$dir/mips/stage" "$dir/mips.out" "$emu" & mips=$!
run "$dir/native/stage" "$dir/native.out" "" & native=$!
wait $mips || { echo "target-figures.sh: the MIPS run failed" >&2; exit 1; }
wait $native || { echo "target-figures.sh: the native run failed" >&2; exit 1; }
echo "== MIPS (qemu-mips), raw =="
cat "$dir/mips.out"
echo "== this machine ($(uname -m)), raw =="
cat "$dir/native.out"
echo "== summary (the settled samples) =="
awk -v arch="$(uname -m)" '
  FNR == 1 { file++ }
  { delete v; for (i = 2; i <= NF; i++) { split($i, kv, "="); v[kv[1]] = kv[2] } }
  $1 == "thread-stack-min" { least = v["bytes"] }
  $1 == "sample" && file == 1 && v["label"] == "idle-program" {
    qemu_threads = v["tasks"] - 1; idle_total = v["total_rss_kb"]; idle_own = v["own_rss_kb"] }
  $1 == "sample" && file == 1 && v["label"] == "settled" {
    m_tasks = v["tasks"]; m_total = v["total_rss_kb"]; m_anon_total = v["total_anon_kb"]
    m_rss = v["own_rss_kb"]; m_anon = v["own_anon_kb"]; m_pd = v["own_private_dirty_kb"]; m_stacks = v["stacks"]
    m_srss = v["stacks_rss_kb"]; m_smax = v["stack_rss_max_kb"] }
  $1 == "sample" && file == 2 && v["label"] == "settled" {
    n_tasks = v["tasks"]; n_rss = v["own_rss_kb"]; n_anon = v["own_anon_kb"]; n_pd = v["own_private_dirty_kb"]; n_stacks = v["stacks"]
    n_srss = v["stacks_rss_kb"]; n_smax = v["stack_rss_max_kb"] }
  END {
    printf "threads: MIPS %d (the qemu process has %d; qemu-user itself runs %d), %s %d\n",
      m_tasks - qemu_threads, m_tasks, qemu_threads, arch, n_tasks
    printf "least thread stack of the MIPS C library: %d bytes\n", least
    printf "stacks above a guard page (size in kB x count), MIPS: %s; %s: %s\n", m_stacks, arch, n_stacks
    printf "resident in those stacks: MIPS %d kB (at most %d kB in one), %s %d kB (at most %d kB in one)\n",
      m_srss, m_smax, arch, n_srss, n_smax
    printf "MIPS, the guest mappings only: Rss %d kB, Anonymous %d kB, Private_Dirty %d kB\n", m_rss, m_anon, m_pd
    printf "MIPS, the whole qemu process: VmRSS %d kB (Anonymous %d kB); of it outside the guest: %d kB\n",
      m_total, m_anon_total, m_total - m_rss
    printf "a trivial MIPS program under the same qemu: VmRSS %d kB, of it the guest %d kB, outside it %d kB\n",
      idle_total, idle_own, idle_total - idle_own
    printf "%s, the same configuration: VmRSS %d kB, Anonymous %d kB, Private_Dirty %d kB\n", arch, n_rss, n_anon, n_pd
  }' "$dir/mips.out" "$dir/native.out"
echo "(took $((SECONDS - start)) s)"
