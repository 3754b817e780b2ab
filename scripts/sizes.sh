#!/usr/bin/env bash
# Prints, for this machine's build and the gateway's MIPS build, the stripped
# size of watchdogd, of each tool and of the platform libraries, and the
# libraries each needs (readelf -d), and the stripped size of the fully static
# daemon (WD_STATIC) for both. Figures only.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/lib.sh"
"$top/scripts/deps.sh"

report() {  # report NAME BUILD-DIR TOOL-PREFIX
  local name=$1 dir=$2 prefix=$3
  local stage="$dir/stage" tmp
  tmp=$(mktemp -d)
  echo "== $name =="
  printf '%-22s %10s  %s\n' file "stripped" "needs"
  for f in sbin/watchdogd bin/tcapi bin/wdctl lib/libtcapi.so lib/libwdfunc.so; do
    cp "$stage/$f" "$tmp/x"
    "${prefix}strip" "$tmp/x"
    needs=$("${prefix}readelf" -d "$stage/$f" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
    printf '%-22s %10s  %s\n' "$f" "$(stat -c %s "$tmp/x")" "$needs"
  done
  rm -rf "$tmp"
}

# static_size NAME BUILD-DIR TOOL-PREFIX: the fully static daemon, one file.
static_size() {
  local tmp
  tmp=$(mktemp)
  "${3}strip" -o "$tmp" "$2/stage/sbin/watchdogd"
  printf '%-22s %10s  (static: libc, libstdc++ and the platform libraries built in)\n' \
    "sbin/watchdogd" "$(stat -c %s "$tmp")"
  rm -f "$tmp"
}

for target in native mips native-static mips-static; do
  dir="$top/build-size-$target"
  args=(-DCMAKE_BUILD_TYPE=MinSizeRel -DWD_BUILD_TESTS=OFF)
  case "$target" in mips*) args+=(-DCMAKE_TOOLCHAIN_FILE="$top/cmake/mips-linux-gnu.cmake") ;; esac
  case "$target" in *-static) args+=(-DWD_STATIC=ON) ;; esac
  wd_build -i "$dir" "${args[@]}"
done
report "this machine ($(uname -m))" "$top/build-size-native" ""
static_size "this machine" "$top/build-size-native-static" ""
report "gateway target (mips, big-endian, 32-bit)" "$top/build-size-mips" "mips-linux-gnu-"
static_size "gateway target" "$top/build-size-mips-static" "mips-linux-gnu-"
