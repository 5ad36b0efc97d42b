#!/usr/bin/env bash
# The live measurement, inside a network of its own (scripts/netns.sh): probe and meter with 100 groups, one after the
# other, and a bare loop of pcap_next_ex, on the same traffic, at rising rates. Prints per rate the CPU seconds per
# million datagrams and the datagrams lost of each. No reader is at the results pipe while the traffic runs; the meter
# reports to a station, whose own CPU time is not counted. PROGRAMS names some of bare, probe, meter.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
bin=$root/build/release/bin
seconds=${SECONDS_PER_RATE:-10}
rates=${RATES:-20000 50000 100000 200000 300000 400000 600000}
programs=${PROGRAMS:-bare probe meter}
groups=100

ip link show feed0 >/dev/null || { echo "live.sh: run it through scripts/netns.sh" >&2; exit 1; }

addresses=()
for i in $(seq 1 $groups); do addresses+=("239.20.0.$i"); done

cpu_seconds() { # pid
  awk -v hz="$(getconf CLK_TCK)" '{ sub(/.*\) /, ""); print ($12 + $13) / hz }' "/proc/$1/stat"
}

bare() { # count rate
  "$bin/bareCapture" --count "$1" --seconds $((2 * seconds + 10)) >"/tmp/bare" &
  local pid=$!
  until grep -qs ready /tmp/bare; do sleep 0.1; done
  "$bin/frameSender" --count "$1" --rate "$2" --groups $groups >/dev/null
  sleep 2
  # A last frame for a loop that still waits because some were dropped.
  "$bin/frameSender" --count 1 --rate 1 --groups $groups >/dev/null
  wait $pid
  read -r frames drops cpu < <(tail -n 1 /tmp/bare)
  awk -v c="$cpu" -v n="$1" -v d="$drops" 'BEGIN { printf "%.3f %d", c / n * 1e6, d }'
}

probe() { # count rate
  "$bin/kestor" -s >/dev/null 2>&1 &
  local pid=$! before after received
  "$bin/kestorctl" add "${addresses[@]}" >/dev/null
  sleep 2
  before=$(cpu_seconds $pid)
  "$bin/frameSender" --count "$1" --rate "$2" --groups $groups >/dev/null
  sleep 2
  after=$(cpu_seconds $pid)
  received=$("$bin/kestorctl" watch --once --json |
    python3 -c 'import json, sys
records = [json.loads(line) for line in sys.stdin if line.startswith("{")]
print(sum(r["packetsReceived"] for r in records if r["kind"] == 0) // 7)')
  kill $pid
  wait $pid 2>/dev/null || true
  awk -v b="$before" -v a="$after" -v n="$1" -v r="$received" \
    'BEGIN { printf "%.3f %d", (a - b) / n * 1e6, n - r }'
}

captured() { # member of the meter's capture, by the station, which has no probe here
  { "$bin/kestorctl" --station /tmp/bench.sock --json status || true; } |
    python3 -c 'import json, sys; print(json.load(sys.stdin)["meter"]["capture"][sys.argv[1]])' "$1"
}

meter() { # count rate
  for address in "${addresses[@]}"; do printf '[[channel]]\ngroup = "%s"\n' "$address"; done >/tmp/bench.toml
  "$bin/kestor-station" --config /tmp/bench.toml --state /tmp/bench-state --socket /tmp/bench.sock --listen '' 2>/dev/null &
  local station=$! pid before after frames
  "$bin/kestor-meter" --socket /tmp/meter.sock 2>/dev/null &
  pid=$!
  until [ "$("$bin/kestorctl" --station /tmp/bench.sock --json status 2>/dev/null |
    python3 -c 'import json, sys; print(json.load(sys.stdin)["meter"]["reported"])' 2>/dev/null)" = $groups ]; do sleep 0.2; done
  frames=$(captured frames)
  before=$(cpu_seconds $pid)
  "$bin/frameSender" --count "$1" --rate "$2" --groups $groups >/tmp/sent
  sleep 2.5
  after=$(cpu_seconds $pid)
  frames=$(($(captured frames) - frames))
  sed -n 's/^VmHWM:\s*/meter: most memory /p' /proc/$pid/status >>/tmp/meter-memory
  kill $pid $station
  wait $pid $station 2>/dev/null || true
  awk -v b="$before" -v a="$after" -v n="$1" -v r="$frames" 'BEGIN { printf "%.3f %d", (a - b) / n * 1e6, n - r }'
}

printf '%10s' 'per s'
for program in $programs; do printf ' %16s %12s' "$program us each" lost; done
echo
for rate in $rates; do
  count=$((rate * seconds))
  printf '%10d' "$rate"
  for program in $programs; do
    read -r cpu lost < <($program $count "$rate"; echo)
    printf ' %16s %12s' "$cpu" "$lost"
  done
  echo
done
[ ! -e /tmp/meter-memory ] || sort -u /tmp/meter-memory | tail -n 1
