#!/usr/bin/env bash
# install-servers.sh
#
# Puts the servers that monitoring is tried with into build/servers, from Debian's own packages: unpacked, not installed,
# so that no daemon is started and nothing changes outside of this tree. Needs no root where package lists are there.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
servers=$root/build/servers
packages=(prometheus prometheus-alertmanager victoria-metrics)
files=(usr/bin/{prometheus,promtool,prometheus-alertmanager,amtool,victoria-metrics} usr/share/prometheus/alertmanager)

complete=true
for file in "${files[@]}"; do
  [ -e "$servers/$file" ] || complete=false
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
rm -rf "$servers"
for file in "${files[@]}"; do
  mkdir -p "$servers/$(dirname "$file")"
  mv "unpacked/$file" "$servers/$file"
done
