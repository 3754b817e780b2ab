#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo gateway need.
# Safe to run again: it installs only what is missing.
set -euo pipefail
pkgs=(g++ cmake make googletest bubblewrap busybox syslog-ng-core faketime iproute2
      dnsmasq-base procps psmisc g++-mips-linux-gnu qemu-user clang libclang-rt-14-dev valgrind)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" = 0 ] || sudo=sudo
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
