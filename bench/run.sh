#!/usr/bin/env bash
# Runs every benchmark and prints what docs/performance.md records.
#
#     bench/run.sh [quick]
#
# quick: each for an instant, on a second of video, to see that they run.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
bin=$root/build/release/bin
work=$root/build/bench
mode=${1:-full}
seconds=60
frames=20000
options=()
if [ "$mode" = quick ]; then
  seconds=1
  frames=100
  options=(--benchmark_min_time=0.01)
fi
mkdir -p "$work"
export KESTOR_BENCH_TS=$work/multiplex-$seconds.ts

# Two programs of H.264 and MPEG audio, filled up with null packets to 12 Mbit/s.
if [ ! -s "$KESTOR_BENCH_TS" ]; then
  ffmpeg -v error -y \
    -f lavfi -i testsrc2=size=1280x720:rate=25 -f lavfi -i testsrc2=size=720x576:rate=25 \
    -f lavfi -i sine=frequency=440:sample_rate=48000 -f lavfi -i sine=frequency=880:sample_rate=48000 \
    -map 0 -map 2 -map 1 -map 3 -program title=one:st=0:st=1 -program title=two:st=2:st=3 \
    -c:v libx264 -preset ultrafast -g 25 -b:v:0 6M -maxrate:v:0 6M -bufsize:v:0 3M \
    -b:v:1 3M -maxrate:v:1 3M -bufsize:v:1 1500k -nal-hrd cbr -c:a mp2 -b:a 192k \
    -muxrate 12M -t "$seconds" -f mpegts "$KESTOR_BENCH_TS.part"
  mv "$KESTOR_BENCH_TS.part" "$KESTOR_BENCH_TS"
fi

# Instructions per transport packet in steady state: the difference of two runs.
instructions() { # what, function to collect in
  local counts=() n
  for n in "$frames" $((2 * frames)); do
    counts+=("$(valgrind --tool=callgrind --callgrind-out-file=/dev/null --toggle-collect="$2" \
      "$bin/instructionCount" "$1" "$n" 2>&1 >/dev/null | sed -n 's/.*Collected : //p')")
  done
  awk -v a="${counts[0]}" -v b="${counts[1]}" -v n="$frames" -v what="$1" \
    'BEGIN { printf "%-10s %8.1f instructions per transport packet\n", what, (b - a) / n / 7 }'
}
instructions analysis 'sarnUdpStreams_processIpPacket*'
instructions meter 'meter::ChannelAnalyser::feed*'
instructions floor measuredFloor

for program in analysisBench meterBench snapshotBench recordParserBench stationMetricsBench stationWebBench; do
  # Where the recording starts again the PCR steps back, which the analysis says on standard error.
  "$bin/$program" "${options[@]}" 2>&1 >/dev/null | grep -v '^stofain'
done

station=()
if [ "$mode" = quick ]; then station=(1 100 100); fi
"$root/scripts/netns.sh" "$root/bench/station.py" "${station[@]}"

if [ "$mode" = quick ]; then export RATES=2000 SECONDS_PER_RATE=1; fi
"$root/scripts/netns.sh" "$root/bench/live.sh"
