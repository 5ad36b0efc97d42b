#!/usr/bin/env bash
# demo-channels.sh [SECONDS]
#
# Sends two encoded channels, H.264 video and MPEG audio in MPEG-TS, to 239.1.1.1:5000 and 239.1.1.2:5000, for so many
# seconds or until it is ended; with DEMO_CABLE to 127.0.0.1:6001 and 127.0.0.1:6002, where scripts/demo-cable.py takes
# them. Without SECONDS a sender that ends is started again, which
# is told on standard error, a line each. Only for use
# inside scripts/netns.sh.
set -euo pipefail

# What a sender owes after a pause waits in ffmpeg's buffer (of 188-byte packets: 43 s of the larger channel) and goes out
# at 9/8 of the multiplex's rate. Without room a pause would never be made up for; a full buffer ends the sender.
fifo_packets=114688

duration=()
if [ $# -gt 0 ]; then duration=(-t "$1"); fi
ip link show feed0 >/dev/null || { echo "demo-channels.sh: run it through scripts/netns.sh" >&2; exit 1; }

# Where a channel's datagrams go: to its group, or to its end of the demonstration's cable.
destination() { # GROUP
  if [ -n "${DEMO_CABLE:-}" ]; then
    echo "127.0.0.1:600${1##*.}?pkt_size=1316&fifo_size=$fifo_packets"
  else
    echo "$1:5000?pkt_size=1316&fifo_size=$fifo_packets&localaddr=10.99.0.2&ttl=8"
  fi
}

# GROUP PICTURE VIDEO_RATE AUDIO_SAMPLE_RATE MULTIPLEX_RATE PMT_PID FIRST_ELEMENTARY_PID PROGRAM, rates in bit/s
send_channel() {
  # Whole datagrams of seven packets, spread over a picture's time; ffmpeg by itself sends what belongs to a picture in one
  # burst.
  exec ffmpeg -nostdin -v error \
    -re -f lavfi -i "testsrc2=size=$2:rate=25" -re -f lavfi -i "sine=frequency=440:sample_rate=$4" "${duration[@]}" \
    -c:v libx264 -preset ultrafast -g 12 -bf 2 -b:v "$3" -maxrate "$3" -bufsize "$(($3 / 2))" -pix_fmt yuv420p \
    -threads 1 -c:a mp2 -b:a 128k \
    -f mpegts -muxrate "$5" -mpegts_pmt_start_pid "$6" -mpegts_start_pid "$7" -mpegts_service_id "$8" \
    -flush_packets 0 "udp://$(destination "$1")&bitrate=$(($5 * 9 / 8))&burst_bits=10528"
}

# The same, started again whenever it ends.
keep_sending() {
  local sender='' status
  trap '[ -z "$sender" ] || kill "$sender" 2>/dev/null || true' EXIT
  trap 'exit 143' TERM INT
  while true; do
    send_channel "$@" &
    sender=$!
    status=0
    wait "$sender" || status=$?
    sender=
    echo "the sender of $1 ended with status $status and is started again" >&2
    sleep 1
  done
}

if [ $# -gt 0 ]; then send=send_channel; else send=keep_sending; fi
$send 239.1.1.1 720x576 2800000 48000 4000000 0x1000 0x100 1 &
channels=($!)
$send 239.1.1.2 640x480 1500000 24000 2500000 0x200 0x210 2 &
channels+=($!)
trap 'kill "${channels[@]}" 2>/dev/null || true' EXIT
trap 'exit 143' TERM INT
for channel in "${channels[@]}"; do
  wait "$channel"
done
