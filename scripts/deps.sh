#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo gateway need.
# Safe to run again: it installs only what is missing.
set -euo pipefail
pkgs=(g++ cmake make googletest bubblewrap busybox syslog-ng-core faketime iproute2
      dnsmasq-base procps psmisc g++-mips-linux-gnu qemu-user clang libclang-rt-14-dev valgrind
      monit groff-base man-db dpkg-dev jq gdb)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" = 0 ] || sudo=sudo
  $sudo apt-get update -q
  # monit is installed only to be compared with in the benchmark sandbox: its
  # package must not start it on this machine.
  policy=""
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    policy=/usr/sbin/policy-rc.d
    printf '#!/bin/sh\nexit 101\n' | $sudo tee "$policy" > /dev/null
    $sudo chmod 755 "$policy"
  fi
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
  [ -z "$policy" ] || $sudo rm -f "$policy"
fi
