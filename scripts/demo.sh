#!/usr/bin/env bash
# demo.sh [GROUP]...
#
# Shows the probe's live results as a table, until Ctrl-C or for RUN_SECONDS seconds: without groups on two channels that
# are encoded here, inside a network of its own; with groups on the real traffic of this machine's eth0, which takes
# root. The probe's diagnostics go to build/demo/kestor.log.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
bin=$root/build/release/bin
log=$root/build/demo/kestor.log

if [ $# -eq 0 ]; then exec "$root/scripts/netns.sh" "$root/scripts/demo.sh" --inside; fi

children=()
trap 'kill "${children[@]}" 2>/dev/null || true' EXIT
mkdir -p "$(dirname "$log")"
if [ "$1" = --inside ]; then
  set -- 239.1.1.1 239.1.1.2
  "$root/scripts/demo-channels.sh" &
  children+=($!)
fi
"$bin/kestor" -s >"$log" &
children+=($!)
"$bin/kestorctl" add "$@"

limit=()
if [ -n "${RUN_SECONDS:-}" ]; then limit=(timeout --foreground "$RUN_SECONDS"); fi
status=0
"${limit[@]}" "$bin/kestorctl" watch || status=$?
if [ "$status" -eq 124 ]; then status=0; fi # the time is up
exit "$status"
