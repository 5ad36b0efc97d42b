#!/usr/bin/env bash
# install-servers.sh
#
# Puts the servers that monitoring is tried with into build/servers, from Debian's own packages: unpacked, not installed,
# so that no daemon is started and nothing changes outside of this tree. Needs no root where package lists are there.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
servers=$root/build/servers
packages=(prometheus prometheus-alertmanager victoria-metrics)
programs=(prometheus promtool prometheus-alertmanager amtool victoria-metrics)

complete=true
for program in "${programs[@]}"; do
  [ -x "$servers/usr/bin/$program" ] || complete=false
done
if "$complete"; then exit 0; fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
if ! apt-get download -qq "${packages[@]}" 2>/dev/null; then
  as_root=()
  if [ "$(id -u)" -ne 0 ]; then as_root=(sudo); fi
  "${as_root[@]}" apt-get update -qq
  apt-get download -qq "${packages[@]}"
fi
for package in *.deb; do
  dpkg-deb --extract "$package" unpacked
done
mkdir -p "$servers/usr/bin"
for program in "${programs[@]}"; do
  mv "unpacked/usr/bin/$program" "$servers/usr/bin/"
done
