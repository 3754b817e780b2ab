#!/usr/bin/env bash
# Builds what a gateway builder ships and proves each starts: the install
# (DESTDIR honoured, only the gateway's files), the Debian package (unpacked
# into an empty root and started from there by its init script in a gateway
# sandbox), and the fully static build (started the same way). Exits non-zero
# on the first thing that is not as it should be. (The daemon runs 100 times
# faster under libfaketime: it waits 30 s at start before it serves commands.)
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/lib.sh"
"$top/scripts/deps.sh"
jobs=$(nproc)
work=$(mktemp -d "$top/build-package-test.XXXXXX")  # the gateway sandbox has its own /tmp
trap 'rm -rf "$work"' EXIT
fail() { echo "package-test: $*" >&2; exit 1; }

build() {  # build DIR CMAKE-ARGS...
  wd_build -j "$jobs" -l 30 "$1" -DCMAKE_BUILD_TYPE=Release -DWD_BUILD_TESTS=OFF "${@:2}"
}

# expect_files ROOT EXPECTED...: ROOT holds exactly these files and links.
expect_files() {
  local root=$1
  shift
  diff <(printf '%s\n' "$@" | sort) <(cd "$root" && find . ! -type d | sed 's|^\./||' | sort) ||
    fail "$root: the files above differ (< expected, > found)"
}

# start_in_gateway PREFIX INIT-SCRIPT BUILD: in a gateway with syslog-ng (its
# configuration written by BUILD's gateway programs), the init script starts
# the daemon from PREFIX (seen as /opt/watchdogd), status reports every
# module, restart leaves one daemon, stop ends it.
start_in_gateway() {
  local prefix=$1 init=$2 build=$3
  "$top/gateway/gw-run" --syslog --faketime 100 --prefix "$prefix" --peers "$build/gateway" \
    --ro "$build" --ro "$(dirname "$init")" -- sh -ec '
    init=$1
    mkdir -p /etc/default
    printf "DAEMON=/opt/watchdogd/sbin/watchdogd\nWDCTL=/opt/watchdogd/bin/wdctl\n" > /etc/default/watchdogd
    tcapi set Watchdog_Common Enable 1
    tcapi set Watchdog_IGMP Period 60
    $init start
    AWAIT_SECONDS=120 /gw/sim/await --until sh -c "$init status > /tmp/status 2> /dev/null"
    grep -Eq "^ *6 igmp +running$" /tmp/status || { cat /tmp/status; echo "status: no igmp line" >&2; exit 1; }
    $init restart > /dev/null
    AWAIT_SECONDS=120 /gw/sim/await --until sh -c "$init status > /dev/null 2>&1"
    [ "$(busybox pidof watchdogd | wc -w)" = 1 ] || { echo "restart left $(busybox pidof watchdogd)" >&2; exit 1; }
    $init stop > /dev/null
    if $init status > /dev/null; then echo "status after stop: running" >&2; exit 1; fi
    ! busybox pidof watchdogd > /dev/null || { echo "stop left watchdogd running" >&2; exit 1; }
  ' sh "$init" || fail "the daemon from $prefix did not start, answer and stop by $init"
}

echo "== the package (x86-64) =="
pkg="$top/build-package"
build "$pkg" -DCMAKE_INSTALL_PREFIX=/usr
DESTDIR="$work/destdir" cmake --install "$pkg" --strip > /dev/null
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$pkg/CMakeCache.txt")
gateway_files=(usr/sbin/watchdogd usr/bin/wdctl usr/bin/tcapi
  "usr/$libdir/libtcapi.so" "usr/$libdir/libwdfunc.so"
  usr/share/man/man8/watchdogd.8 usr/share/man/man1/wdctl.1 usr/share/man/man1/tcapi.1
  usr/share/bash-completion/completions/wdctl usr/share/bash-completion/completions/tcapi
  etc/init.d/S60watchdogd)
expect_files "$work/destdir" "${gateway_files[@]}"
(cd "$pkg" && cpack -G DEB > "$pkg/cpack.log" 2>&1) || { cat "$pkg/cpack.log"; fail "cpack failed"; }
deb=$(ls "$pkg"/watchdogd_*.deb)
echo "$(basename "$deb"): $(stat -c %s "$deb") bytes, depends: $(dpkg-deb -f "$deb" Depends)"
dpkg-deb -f "$deb" Depends | grep -q libc6 || fail "the package's Depends has no libc6"
mkdir "$work/root"
dpkg -x "$deb" "$work/root"
expect_files "$work/root" "${gateway_files[@]}"
start_in_gateway "$work/root/usr" "$work/root/etc/init.d/S60watchdogd" "$pkg"
echo "installed into an empty root, started, queried, restarted and stopped by its init script"

echo "== the static build (x86-64) =="
static="$top/build-static"
build "$static" -DWD_STATIC=ON -DCMAKE_INSTALL_PREFIX=/opt/watchdogd
DESTDIR="$work/static" cmake --install "$static" --strip > /dev/null
expect_files "$work/static/opt/watchdogd" sbin/watchdogd bin/wdctl bin/tcapi \
  share/man/man8/watchdogd.8 share/man/man1/wdctl.1 share/man/man1/tcapi.1 \
  share/bash-completion/completions/wdctl share/bash-completion/completions/tcapi \
  etc/init.d/S60watchdogd
for f in sbin/watchdogd bin/wdctl bin/tcapi; do
  ! readelf -d "$work/static/opt/watchdogd/$f" | grep -q NEEDED || fail "$f needs shared libraries"
  ! readelf -l "$work/static/opt/watchdogd/$f" | grep -q INTERP || fail "$f asks for a program interpreter"
done
start_in_gateway "$work/static/opt/watchdogd" "$work/static/opt/watchdogd/etc/init.d/S60watchdogd" \
  "$static"
echo "watchdogd static: $(stat -c %s "$work/static/opt/watchdogd/sbin/watchdogd") bytes, started, queried and stopped"
