#!/usr/bin/env bash
# alarm-soak.sh [HOURS] [JITTER_MS]
#
# Whether faultless streams raise an alarm in HOURS of stream time each (24), as fast as they go: a minute of each codec, at
# constant and varying bit rates, progressive and interlaced, is encoded once and played again and again by alarmSoak. The
# arrival of datagrams varies by up to JITTER_MS (5). The status is 1 if anything was raised, and what was stands there.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
work=$root/build/alarm-soak
hours=${1:-24}
jitter=${2:-5}
mkdir -p "$work"

# NAME FFMPEG_ARGUMENT...
encode() {
  local file=$work/$1.ts
  shift
  [ ! -s "$file" ] || return 0
  ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=176x144:rate=25 -f lavfi -i sine=frequency=440:sample_rate=48000 -t 60 \
    -threads 1 -pix_fmt yuv420p "$@" -f mpegts "$file.part"
  mv "$file.part" "$file"
}

# At a varying rate stream time runs ahead in a picture that is much larger than those before it, and what comes in it seems
# late: so groups are short, or each picture has its clock reference.
x264=(-c:v libx264 -preset ultrafast -bf 2)
constant=(-b:v 200k -maxrate 200k -bufsize 100k -muxrate 500k)
capped=(-b:v 150k -maxrate 300k -bufsize 150k)
encode h264-mp2-constant "${x264[@]}" -g 12 "${constant[@]}" -c:a mp2 -b:a 96k
encode h264-aac-varying "${x264[@]}" -g 50 "${capped[@]}" -c:a aac -b:a 96k
encode h264-ac3-interlaced "${x264[@]}" -g 24 -flags +ilme+ildct -x264opts tff=1 "${constant[@]}" -c:a ac3 -b:a 96k
encode mpeg2-mp2-constant -c:v mpeg2video -g 12 -bf 2 "${constant[@]}" -c:a mp2 -b:a 96k
encode mpeg2-eac3-varying -c:v mpeg2video -g 15 -bf 2 "${capped[@]}" -c:a eac3 -b:a 96k
encode h265-aac-constant -c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=25 "${constant[@]}" -c:a aac -b:a 96k
encode h265-ac3-varying -c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=25:bframes=0 "${capped[@]}" -c:a ac3 -b:a 96k
# A PES packet a frame: else clock references are over 100 ms apart.
encode radio -vn -c:a mp2 -b:a 96k -pes_payload_size 500

# Each file's lines together.
# shellcheck disable=SC2016 # expands inside
printf '%s\0' "$work"/*.ts |
  xargs -0 -n 1 -P "${JOBS:-$(nproc)}" bash -c 'out=$("$0" "$@") || status=$?; echo "$out"; exit "${status:-0}"' \
    "$root/build/release/bin/alarmSoak" "$hours" "$jitter" || exit 1
