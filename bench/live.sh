#!/usr/bin/env bash
# The live measurement, inside a network of its own (scripts/netns.sh): the daemon with 100 groups beside a bare loop
# of pcap_next_ex, on the same traffic, at rising rates. Prints per rate the CPU seconds per million datagrams and
# the datagrams lost of each. No reader is at the results pipe while the traffic runs.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
bin=$root/build/release/bin
seconds=${SECONDS_PER_RATE:-10}
rates=${RATES:-20000 50000 100000 200000}
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

printf '%10s %22s %14s %22s %14s\n' 'per s' 'bare s/million' 'bare drops' 'kestor s/million' 'kestor lost'
for rate in $rates; do
  count=$((rate * seconds))
  read -r bare_cpu bare_drops < <(bare $count $rate; echo)
  read -r probe_cpu probe_lost < <(probe $count $rate; echo)
  printf '%10d %22s %14s %22s %14s\n' $rate "$bare_cpu" "$bare_drops" "$probe_cpu" "$probe_lost"
done
