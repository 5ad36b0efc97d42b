#!/usr/bin/env bash
# Runs every benchmark and prints what docs/performance.md records.
#
#     bench/run.sh [quick | live [OPTION]...]
#
# quick: each for an instant, on a second of video, to see that they run.
# live: probe and meter on live traffic alone, in less than ten minutes, and their tables into docs/performance.md; options
# are those of bench/live.py. For a machine that does nothing else: it says how loaded it was.
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

# Sixteen streams in two programs, 21 PIDs with tables and null packets; 20 s, which bench/live.py knows.
export KESTOR_BENCH_WIDE=$work/wide.ts
if [ ! -s "$KESTOR_BENCH_WIDE" ]; then
  inputs=(-f lavfi -i testsrc2=size=320x180:rate=25)
  one=(-map 0)
  two=(-map 0)
  for i in $(seq 14); do
    inputs+=(-f lavfi -i "sine=frequency=$((200 + 50 * i)):sample_rate=48000")
    if [ "$i" -le 7 ]; then one+=(-map "$i"); else two+=(-map "$i"); fi
  done
  ffmpeg -v error -y "${inputs[@]}" "${one[@]}" "${two[@]}" \
    -program title=one:st=0:st=1:st=2:st=3:st=4:st=5:st=6:st=7 \
    -program title=two:st=8:st=9:st=10:st=11:st=12:st=13:st=14:st=15 \
    -c:v libx264 -preset ultrafast -g 25 -b:v 300k -maxrate:v 300k -bufsize:v 150k -c:a mp2 -b:a 64k \
    -muxrate 2M -t 20 -f mpegts "$KESTOR_BENCH_WIDE.part"
  mv "$KESTOR_BENCH_WIDE.part" "$KESTOR_BENCH_WIDE"
fi

if [ "$mode" = live ]; then
  exec "$root/scripts/netns.sh" "$root/bench/live.py" --into "$root/docs/performance.md" "${@:2}"
fi

# A recording that lies in the disk cache, on one core: the best of three.
recording() { # how often the multiplex follows itself
  local file=$work/recording.ts best=0 rate begin i
  for ((i = 0; i < $1; ++i)); do cat "$KESTOR_BENCH_TS"; done >"$file"
  for i in 1 2 3; do
    begin=$EPOCHREALTIME
    # 3: it has errors, where it begins again
    taskset -c 0 "$bin/kestor-measure" --json "$file" >/dev/null || [ $? -eq 3 ]
    rate=$(awk -v from="$begin" -v to="$EPOCHREALTIME" -v bytes="$(stat -c %s "$file")" \
      'BEGIN { printf "%.2f", bytes * 8 / (to - from) / 1e9 }')
    best=$(awk -v a="$best" -v b="$rate" 'BEGIN { print (a + 0 > b + 0 ? a : b) }')
  done
  rm -f "$file"
  echo "recording  $best Gbit/s of a recording in the disk cache, on one core (kestor-measure)"
}
if [ "$mode" = recording ]; then
  recording 12
  exit
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

# An I picture each of a busy scene at common bit rates, and 2 s of sound.
export KESTOR_BENCH_PICTURES=$work/pictures
if [ ! -s "$KESTOR_BENCH_PICTURES/2s-stereo.ac3" ]; then
  mkdir -p "$KESTOR_BENCH_PICTURES"
  encode_picture() { # NAME SIZE CODEC OPTION...
    ffmpeg -nostdin -v error -y -f lavfi -i "mandelbrot=size=$2:rate=25,noise=alls=6" -ss 1 -frames:v 1 -pix_fmt yuv420p -c:v "${@:3}" \
      "$KESTOR_BENCH_PICTURES/$1"
  }
  for size in 720x576 1920x1080 3840x2160; do
    encode_picture $size.h264 $size libx264 -preset medium -crf 23 -f h264
    encode_picture $size.h265 $size libx265 -preset fast -crf 24 -x265-params log-level=error -f hevc
    [ $size = 3840x2160 ] || encode_picture $size.m2v $size mpeg2video -q:v 6 -f mpeg2video
  done
  for sound in 'mp2 -b:a 192k mp2 mp2' 'aac -b:a 128k adts aac' 'ac3 -b:a 192k ac3 ac3'; do
    # shellcheck disable=SC2086 # words
    set -- $sound
    ffmpeg -nostdin -v error -y -f lavfi -i 'anoisesrc=r=48000:a=0.1' -ac 2 -t 2 -c:a "$1" "$2" "$3" -f "$4" "$KESTOR_BENCH_PICTURES/2s-stereo.$5"
  done
fi
"$bin/pictureBench" "${options[@]}"
show() { # CHANNELS PICTURE CORES
  local seconds=30
  [ "$mode" != quick ] || seconds=3
  "$bin/pictureLoad" "$bin/kestor-picture" "$KESTOR_BENCH_PICTURES/$2" "$KESTOR_BENCH_PICTURES/2s-stereo.mp2" --channels "$1" --cores "$3" \
    --seconds $seconds
}
echo '| channels | picture | share | pictures/s | interval | cores taken | memory |'
echo '|---:|---|---:|---:|---:|---:|---:|'
show 100 1920x1080.h264 0.5
[ "$mode" = quick ] || {
  show 1000 720x576.h264 0.5
  show 1000 1920x1080.h264 0.5
  show 1000 1920x1080.h265 0.5
  show 1000 1920x1080.h264 1
}

if [ "$mode" = quick ]; then recording 1; else recording 12; fi

station=()
if [ "$mode" = quick ]; then station=(1 100 100); fi
"$root/scripts/netns.sh" "$root/bench/station.py" "${station[@]}"

live=(--into "$root/docs/performance.md")
if [ "$mode" = quick ]; then live=(--quick); fi
"$root/scripts/netns.sh" "$root/bench/live.py" "${live[@]}"
