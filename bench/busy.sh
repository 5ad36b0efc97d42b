#!/usr/bin/env bash
# busy.sh    datagrams lost on a machine whose cores are all busy, by the scheduling class of the probe; inside a network
#            of its own: scripts/netns.sh bench/busy.sh
#
# A busy loop a core in the usual class, 200,000 datagrams a second in 100 groups for SECONDS_PER_RATE (5). The sender is
# in the highest real-time class throughout, so that what is lost is lost by the probe.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
bin=$root/build/release/bin
seconds=${SECONDS_PER_RATE:-5}
rate=${RATE:-200000}
groups=100
export KESTOR_BENCH_TS=${KESTOR_BENCH_TS:-$root/build/bench/multiplex-60.ts}

ip link show feed0 >/dev/null || { echo "busy.sh: run it through scripts/netns.sh" >&2; exit 1; }
addresses=()
for i in $(seq 1 $groups); do addresses+=("239.20.0.$i"); done

busy=()
for _ in $(seq "$(nproc)"); do
  (while :; do :; done) &
  busy+=($!)
done
trap 'kill "${busy[@]}" 2>/dev/null' EXIT

lost_with() { # COMMAND in front of the probe
  "$@" "$bin/kestor" -s >/dev/null 2>&1 &
  local pid=$! received
  "$bin/kestorctl" --station "" add "${addresses[@]}" >/dev/null
  sleep 2
  chrt -f 50 "$bin/frameSender" --count $((rate * seconds)) --rate "$rate" --groups $groups >/dev/null
  sleep 2
  received=$("$bin/kestorctl" --station "" watch --once --json |
    python3 -c 'import json, sys
records = [json.loads(line) for line in sys.stdin if line.startswith("{")]
print(sum(r["packetsReceived"] for r in records if r["kind"] == 0) // 7)')
  kill $pid
  wait $pid 2>/dev/null || true
  awk -v n=$((rate * seconds)) -v r="$received" -v what="$*" 'BEGIN { printf "%-14s %8d lost, %6.3f %%\n", what, n - r, (n - r) / n * 100 }'
}

lost_with nice -n 0
lost_with nice -n -10
lost_with chrt -r 10
