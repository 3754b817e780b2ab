#!/usr/bin/env bash
# compare.sh WINDOW WINDOWS QUERIES FLOOD [profile]: watchdogd beside monit (run by
# scripts/bench.sh --compare, which documents the options). Builds the
# benchmark build (Release, with the timer figures of WD_TIMER_STATS) and
# size builds (MinSizeRel, for this machine and MIPS), runs gateway/bench-compare
# in one gateway and prints the table. Figures only: exits non-zero only when
# the comparison could not be run or a figure is missing.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/lib.sh"
window=$1 windows=$2 queries=$3 flood=$4 profile=${5:-}
dir="$top/build-bench"
jobs=2

echo "building (Release with timer figures; MinSizeRel for the sizes, here and for MIPS)..." >&2
wd_build -j "$jobs" -i "$dir" -DCMAKE_BUILD_TYPE=Release -DWD_BUILD_TESTS=OFF -DWD_BUILD_BENCH=ON \
  -DWD_TIMER_STATS=ON
for target in native mips; do
  args=(-DCMAKE_BUILD_TYPE=MinSizeRel -DWD_BUILD_TESTS=OFF)
  [ "$target" = mips ] && args+=(-DCMAKE_TOOLCHAIN_FILE="$top/cmake/mips-linux-gnu.cmake")
  wd_build -j "$jobs" -t watchdogd "$dir/size-$target" "${args[@]}"
done

out="$dir/compare.out"
echo "running watchdogd and monit side by side: 30 s start, 10 s warm-up, $windows x $window s," \
  "$queries queries, a $flood s flood (load now: $(cut -d' ' -f1-3 /proc/loadavg))" >&2
# CAP_SYS_NICE: the daemon's relay and timer threads get their real-time
# scheduling as on the gateway, where it runs as root; CAP_SYS_PTRACE: gdb
# names the daemon's threads once, at the end; CAP_PERFMON for --profile.
if ! "$top/gateway/gw-run" --net --syslog --services --peers "$dir/gateway" --prefix "$dir/stage" \
    --ro "$dir" --cap CAP_SYS_NICE --cap CAP_SYS_PTRACE --cap CAP_PERFMON -- \
    /gw/sim/bench-compare "$window" "$windows" "$queries" "$flood" "$dir/bench" $profile > "$out"; then
  echo "bench.sh --compare: the comparison did not run to its end" >&2
  exit 1
fi

# --- sizes: the stripped binary, the daemon's own libraries, and the other
# libraries it alone loads (all it needs beyond the C library's) ---
clib='^(libc\.so|libm\.so|ld-linux|ld\.so|libpthread\.so|libdl\.so|librt\.so)'
needed() { "${1}readelf" -d "$2" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }
closure() {  # closure TOOL-PREFIX FILE LIBDIR...: every library beyond the C library's
  local prefix=$1 file=$2
  shift 2
  local todo=("$file") seen=" " lib d
  while [ ${#todo[@]} -gt 0 ]; do
    file=${todo[0]}
    todo=("${todo[@]:1}")
    for lib in $(needed "$prefix" "$file"); do
      [[ $lib =~ $clib ]] && continue
      [[ $seen == *" $lib "* ]] && continue
      seen+="$lib "
      for d in "$@"; do
        if [ -e "$d/$lib" ]; then echo "$d/$lib"; todo+=("$(readlink -f "$d/$lib")"); break; fi
      done
    done
  done
}
stripped() {  # stripped TOOL-PREFIX FILE: bytes
  local tmp
  tmp=$(mktemp)
  cp "$1" "$tmp" 2> /dev/null || cp "$2" "$tmp"
  "${3}strip" "$tmp" 2> /dev/null || true
  stat -c %s "$tmp"
  rm -f "$tmp"
}
size_line() {  # size_line LABEL TOOL-PREFIX BINARY LIBDIR...
  local label=$1 prefix=$2 bin=$3
  shift 3
  local own=0 other=0 names="" lib n
  for lib in $(closure "$prefix" "$bin" "$@"); do
    n=$(stripped "$(readlink -f "$lib")" "$lib" "$prefix")
    case "${lib##*/}" in
      libtcapi.so|libwdfunc.so) own=$((own + n)) ;;
      *) other=$((other + n)); names+="${lib##*/} " ;;
    esac
  done
  echo "size label=$label binary=$(stripped "$bin" "$bin" "$prefix") own_libs=$own other_libs=$other other_names=${names% }"
}
multiarch=/usr/lib/$(gcc -print-multiarch)
{
  size_line watchdogd-$(uname -m) "" "$dir/size-native/src/watchdogd" "$dir/size-native/platform" "$multiarch"
  size_line watchdogd-mips mips-linux-gnu- "$dir/size-mips/src/watchdogd" "$dir/size-mips/platform" \
    /usr/mips-linux-gnu/lib
  size_line monit-$(uname -m) "" /usr/bin/monit "$multiarch"
} >> "$out"

# --- the table ---
awk -v window="$window" -v windows="$windows" -v queries="$queries" -v flood="$flood" '
function kv(line, key,   n, i, a, b) {
  n = split(line, a, " ")
  for (i = 1; i <= n; i++) { split(a[i], b, "="); if (b[1] == key) return b[2] }
  return ""
}
function median(list,   n, a, i, j, t) {  # list: values separated by blanks
  n = split(list, a, " ")
  if (n == 0) return ""
  for (i = 2; i <= n; i++) for (j = i; j > 1 && a[j - 1] + 0 > a[j] + 0; j--) { t = a[j]; a[j] = a[j - 1]; a[j - 1] = t }
  return a[int((n + 1) / 2)]
}
function need(v, what) { if (v == "") { missing = missing " " what; return "?" } return v }
/^sample / {
  p = kv($0, "proc"); procs[p] = 1; got[p]++
  split("rss_kb anon_kb vsz_kb threads fds cpu_pct children_ms wakeups_per_s", keys, " ")
  for (k in keys) vals[p, keys[k]] = vals[p, keys[k]] " " kv($0, keys[k])
}
/^thread / { t = kv($0, "tid"); tids[t] = 1
  tcpu[t] = tcpu[t] " " kv($0, "cpu_pct"); twake[t] = twake[t] " " kv($0, "wakeups_per_s") }
/^threadname / { tname[kv($0, "tid")] = kv($0, "fn") }
/^timer / && /kind=/ { tm[kv($0, "phase"), kv($0, "kind")] = $0 }
/^latency / { lat = $0 }
/^flood / { fl = $0 }
/^flood-rss / { flrss = $0 }
/^flood-console / { flcon = $0 }
/^burst / { bu = $0 }
/^burst-console / { bucon = $0 }
/^size / { size[kv($0, "label")] = $0 }
/^profile / { prof = prof "\n  " substr($0, 9) }
/^profile-thread / { proft = proft "\n  " substr($0, 16) }
END {
  for (p in got) if (got[p] != windows) missing = missing " samples-of-" p
  if (!("watchdogd" in got)) missing = missing " watchdogd"
  if (!("monit" in got)) missing = missing " monit"
  printf "== watchdogd beside monit 5.33: medians of %d windows of %d s ==\n", windows, window
  printf "%-36s %22s %22s\n", "figure", "watchdogd", "monit"
  row("RSS / anonymous (RssAnon) KiB", "rss_kb", "anon_kb", "%s / %s")
  row("virtual size KiB", "vsz_kb", "", "%s")
  row("threads / open descriptors", "threads", "fds", "%s / %s")
  row("own CPU, % of one core", "cpu_pct", "", "%s")
  row("CPU of its children, ms per window", "children_ms", "", "%s")
  row("wakeups per second (voluntary)", "wakeups_per_s", "", "%s")
  for (label in size) {
    split(label, l, "-"); arch = l[2]
    line = size[label]
    txt[l[1], arch] = sprintf("%.0f KiB", need(kv(line, "binary"), "size") / 1024)
    own = kv(line, "own_libs"); other = kv(line, "other_libs")
    txt2[l[1], arch] = sprintf("%.0f + %.0f KiB", own / 1024, other / 1024)
    names[l[1], arch] = line; sub(/.*other_names=/, "", names[l[1], arch])
  }
  for (label in size) { split(label, l, "-"); arches[l[2]] = 1 }
  for (a in arches) {
    printf "%-36s %22s %22s\n", "stripped binary, " a, (("watchdogd", a) in txt) ? txt["watchdogd", a] : "-", (("monit", a) in txt) ? txt["monit", a] : "(no build)"
    printf "%-36s %22s %22s\n", "  + own libs + others it loads", (("watchdogd", a) in txt2) ? txt2["watchdogd", a] : "-", (("monit", a) in txt2) ? txt2["monit", a] : "-"
  }
  for (a in arches) for (q in size) { split(q, l, "-"); if (l[2] == a) printf "  %s on %s loads beyond the C library: %s\n", l[1], a, names[l[1], a] }

  printf "\n== the daemon idle, per thread (medians) ==\n"
  printf "%-8s %-26s %12s %14s\n", "tid", "thread", "CPU %", "wakeups/s"
  n = 0
  for (t in tids) order[++n] = t + 0
  for (i = 2; i <= n; i++) for (j = i; j > 1 && order[j - 1] > order[j]; j--) { x = order[j]; order[j] = order[j - 1]; order[j - 1] = x }
  for (i = 1; i <= n; i++) { t = order[i]
    printf "%-8s %-26s %12s %14s\n", t, (t in tname) ? tname[t] : "?", median(tcpu[t]), median(twake[t]) }

  printf "\n== command socket ==\n"
  printf "%d queries one after the other: p50 %s us, p99 %s us, max %s us (%s answered per second), %s lost\n",
    need(kv(lat, "queries"), "latency"), need(kv(lat, "p50_us"), "p50"), need(kv(lat, "p99_us"), "p99"),
    need(kv(lat, "max_us"), "max"), need(kv(lat, "per_second"), "per_second"), need(kv(lat, "lost"), "lost")
  printf "flood from 4 clients for %s s (3 queries : 1 CONFIG_CHANGE for the monitor): %s commands per second, %s of %s replies lost (%s dropped by the daemon, reply reader %s), %s events dropped at the module queue\n",
    need(kv(fl, "seconds"), "flood"), need(kv(fl, "commands_per_second"), "rate"), need(kv(fl, "lost"), "lost"),
    need(kv(fl, "queries"), "queries"), need(kv(flcon, "replies_dropped"), "replies_dropped"), kv(fl, "reader"),
    need(kv(flcon, "events_dropped"), "events")
  printf "bursts of %s commands to three modules in %s s (registration answers, TR-069 Inform responses, IGMP configuration changes): %s events dropped; a query every 10 ms meanwhile: p50 %s us, p99 %s us, max %s us, %s of %s lost\n",
    need(kv(bu, "commands"), "burst"), need(kv(bu, "seconds"), "seconds"), need(kv(bucon, "events_dropped"), "events"),
    need(kv(bu, "p50_us"), "p50"), need(kv(bu, "p99_us"), "p99"), need(kv(bu, "max_us"), "max"),
    need(kv(bu, "lost"), "lost"), kv(bu, "queries") + kv(bu, "lost")
  printf "daemon RSS before / after the flood: %s / %s KiB (RssAnon %s / %s KiB)\n",
    need(kv(flrss, "rss_before_kb"), "rss"), need(kv(flrss, "rss_after_kb"), "rss"),
    need(kv(flrss, "anon_before_kb"), "anon"), need(kv(flrss, "anon_after_kb"), "anon")

  printf "\n== timer lateness (WD_TIMER_STATS build), ms ==\n"
  printf "%-44s %6s %8s %8s %8s\n", "", "n", "p50", "p99", "max"
  split("idle flood", phases, " "); split("expiry wake", kinds, " ")
  klabel["expiry"] = "module timer expiry after its due time"; klabel["wake"] = "timer thread wake-up beyond its timeout"
  for (i = 1; i <= 2; i++) for (j = 1; j <= 2; j++) {
    line = tm[phases[i], kinds[j]]
    printf "%-44s %6s %8s %8s %8s\n", klabel[kinds[j]] ", " phases[i], need(kv(line, "n"), "timer"),
      kv(line, "p50_ms"), kv(line, "p99_ms"), kv(line, "max_ms")
  }
  if (prof != "") {
    printf "\n== profile of the idle daemon (perf, one more window): share of its samples, with what it calls ==%s\n", prof
    printf "\n== the same samples by thread ==%s\n", proft
  }
  if (missing != "") { printf "\nmissing figures:%s\n", missing; exit 1 }
}
function row(label, k1, k2, fmt,   w, m) {
  w = need(median(vals["watchdogd", k1]), k1); m = need(median(vals["monit", k1]), k1)
  if (k2 != "") { w = sprintf(fmt, w, need(median(vals["watchdogd", k2]), k2)); m = sprintf(fmt, m, need(median(vals["monit", k2]), k2)) }
  printf "%-36s %22s %22s\n", label, w, m
}' "$out"
