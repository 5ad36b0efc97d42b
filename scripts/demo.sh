#!/usr/bin/env bash
# demo.sh [GROUP]...
#
# Shows the probe, the meter, pictures and the station at work, until Ctrl-C or for RUN_SECONDS seconds: a table of the channels with their state and
# alarms, and the station's page on this machine's loopback. Without groups on two channels that are encoded here, inside a network
# of its own, with one fault every 20 s and told on the first line; with groups, or with PLAYLIST=FILE, on the real traffic of this machine's eth0, which takes
# root. What the programs say goes to build/demo/.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
bin=$root/build/release/bin
work=$root/build/demo
port=9427
if [ -n "${PLAYLIST:-}" ]; then PLAYLIST=$(realpath "$PLAYLIST"); fi

if [ $# -eq 0 ] && [ -z "${PLAYLIST:-}" ]; then
  exec "$root/scripts/relay.py" --listen "$port" "$root/scripts/netns.sh" "$root/scripts/demo.sh" --inside
fi

children=()
trap 'kill "${children[@]}" 2>/dev/null || true' EXIT
trap 'exit 0' INT TERM
rm -rf "$work"
mkdir -p "$work/state"
: >"$work/faults.log"
: >"$work/senders.log"

if [ "${1:-}" = --inside ]; then
  set --
  PLAYLIST=$work/channels.m3u
  cat >"$PLAYLIST" <<'END'
#EXTM3U
#EXTINF:-1 tvg-chno="1" tvg-id="test-card.example" group-title="Demonstration",Test Card
udp://@239.1.1.1:5000
#EXTINF:-1 tvg-chno="2" tvg-id="small-card.example" group-title="Demonstration",Small Test Card
udp://@239.1.1.2:5000
END
  "$root/scripts/demo-cable.py" 239.1.1.1 239.1.1.2 >"$work/faults.log" &
  children+=($!)
  DEMO_CABLE=1 "$root/scripts/demo-channels.sh" 2>"$work/senders.log" &
  children+=($!)
  "$root/scripts/relay.py" --serve "$RELAY_DESCRIPTOR" "$port" &
  children+=($!)
fi

{
  if [ -n "${PLAYLIST:-}" ]; then printf '[[playlist]]\nfile = "%s"\n' "$PLAYLIST"; fi
  for group in "$@"; do printf '[[channel]]\ngroup = "%s"\n' "$group"; done
} >"$work/station.toml"

export KESTOR_STATION=$work/station.sock
"$bin/kestor" -s >"$work/kestor.log" &
children+=($!)
"$bin/kestor-station" --config "$work/station.toml" --state "$work/state" --socket "$KESTOR_STATION" \
  --listen "127.0.0.1:$port" 2>"$work/station.log" &
station=$!
children+=("$station")
"$bin/kestor-meter" --socket "$work/meter.sock" --coded-socket "$work/coded.sock" 2>"$work/meter.log" &
children+=($!)
"$bin/kestor-picture" --coded "$work/coded.sock" --station "$work/picture.sock" 2>"$work/picture.log" &
children+=($!)

# What the cable says, what became of its senders in the last half minute, and what of it the station sees.
state() {
  local without
  tail -n 1 "$work/faults.log"
  if [ -n "$(find "$work/senders.log" -newermt '-30 seconds')" ]; then
    sed -n '$s/^the sender/The sender/p' "$work/senders.log"
  fi
  without=$("$bin/kestorctl" alarms | awk '$3 == "no_signal" { printf " %s", $4 }')
  [ -z "$without" ] || echo "No signal:$without."
}

picture() {
  echo "http://127.0.0.1:${RELAY_PORT:-$port}/#?pictures=on is the page; Ctrl-C ends it all. $(state | tr '\n' ' ')"
  echo
  "$bin/kestorctl" channels
  echo
  "$bin/kestorctl" alarms
  echo
  "$bin/kestorctl" watch --once
}

for ((tries = 0; tries < 100; ++tries)); do
  if ! kill -0 "$station" 2>/dev/null; then
    echo "kestor-station has ended:" >&2
    cat "$work/station.log" >&2
    exit 1
  fi
  if "$bin/kestorctl" --timeout 3 watch --once >"$work/first" 2>/dev/null; then break; fi
  sleep 0.2
done

end=$((SECONDS + ${RUN_SECONDS:-1000000000}))
while [ "$SECONDS" -lt "$end" ]; do
  text=$(picture 2>&1) || true
  if [ -t 1 ]; then printf '\033[H\033[J%s\n' "$text"; else printf '%s\n\n' "$text"; fi
  sleep 1
done
