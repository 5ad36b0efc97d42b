#!/usr/bin/env python3
"""Sets the probe's GOP estimate and picture size beside the truth, on video that ffmpeg encodes here.

Each case is encoded with x264, muxed into a transport stream, written as a capture of multicast datagrams
whose times follow the stream's PCRs, and analysed by kestor-replay. ffprobe tells the true structure. Prints
a Markdown table. Needs ffmpeg and ffprobe; nothing is sent on a network.
"""

import argparse
import json
import math
import pathlib
import re
import statistics
import struct
import subprocess
import tempfile
from typing import NamedTuple

CALCULATION_FRAMES = 500
PACKET = 188
DATAGRAM = 7 * PACKET
GROUP = (239, 1, 2, 3)
KNOWN_PID_PREFIX = 13  # columns of a "KP" record before the metric columns

CONTENT = {
    "calm": "testsrc2=size={w}x{h}:rate=25",
    "busy": "testsrc2=size={w}x{h}:rate=25,scroll=h=0.004:v=0.003,noise=alls=12:allf=t",
    # Two scenes in turn; the encoder starts a GOP at each change, so the length given is only the longest.
    "cuts": "testsrc2=size={w}x{h}:rate=25,hflip,negate[a];testsrc2=size={w}x{h}:rate=25,noise=alls=12:allf=t[b];"
            "[a][b]overlay=enable='lt(mod(t,7.3),3.7)'",
}


class Case(NamedTuple):
    width: int
    height: int
    interlaced: bool
    gop: int
    b_frames: int
    kbps: int
    content: str = "calm"
    preset: str = "superfast"
    frames: int = 6000

    @property
    def name(self):
        return f"{self.width}x{self.height}{'i' if self.interlaced else 'p'}"


CASES = [
    *(Case(352, 288, False, gop, b, 1000) for gop in (12, 25, 50) for b in (0, 2)),
    *(Case(352, 288, False, gop, b, 1000, "busy") for gop in (12, 25, 50) for b in (0, 2)),
    *(Case(720, 576, True, gop, b, 3000, "busy", frames=4000) for gop in (12, 25) for b in (0, 2)),
    Case(720, 576, False, 12, 2, 3000, frames=3000),
    *(Case(352, 288, False, 50, b, 1000, "cuts") for b in (0, 2)),
    Case(720, 576, False, 25, 2, 3000, "cuts", frames=3000),
    Case(1280, 720, False, 25, 0, 5000, "busy", "ultrafast", 3000),
    Case(1280, 720, False, 50, 2, 5000, "busy", "ultrafast", 3000),
    Case(1920, 1080, False, 25, 2, 8000, "busy", "ultrafast", 2600),
    Case(1920, 1080, True, 12, 0, 8000, "busy", "superfast", 2600),
]


def run(*command):
    return subprocess.run([str(c) for c in command], check=True, capture_output=True, text=True).stdout


def encode(case, stream):
    source = CONTENT[case.content].format(w=case.width, h=case.height)
    scan = ["-flags", "+ildct+ilme", "-x264-params", "tff=1"] if case.interlaced else []
    fixed_length = [] if case.content == "cuts" else ["-keyint_min", case.gop, "-sc_threshold", 0]
    rate = f"{case.kbps}k"
    run("ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", source, "-frames:v", case.frames,
        "-c:v", "libx264", "-preset", case.preset, "-pix_fmt", "yuv420p", "-b:v", rate, "-maxrate", rate,
        "-bufsize", rate, "-g", case.gop, *fixed_length,
        "-bf", case.b_frames, "-b_strategy", 0, *scan, "-f", "mpegts", stream)


def true_structure(stream):
    """Mean GOP length and mean number of B frames between anchor frames."""
    frames = json.loads(run("ffprobe", "-v", "error", "-select_streams", "v", "-show_frames",
                            "-show_entries", "frame=pict_type", "-of", "json", stream))["frames"]
    types = [frame["pict_type"] for frame in frames]
    anchors = types.count("I") + types.count("P")
    return len(types) / types.count("I"), types.count("B") / anchors


def pcr_of(packet):
    """PCR in seconds, or None (ISO/IEC 13818-1 2.4.3.5)."""
    if not packet[3] & 0x20 or packet[4] < 7 or not packet[5] & 0x10:
        return None
    base = int.from_bytes(packet[6:10], "big") << 1 | packet[10] >> 7
    return (base * 300 + ((packet[10] & 1) << 8 | packet[11])) / 27e6


def packet_times(stream):
    """Arrival of every packet in seconds, linear between the PCRs around it."""
    count = len(stream) // PACKET
    marks = []
    for i in range(count):
        pcr = pcr_of(stream[i * PACKET:i * PACKET + 12])
        if pcr is not None:
            marks.append((i, pcr))
    times = [0.0] * count
    for (i, start), (j, end) in zip(marks, marks[1:]):
        for k in range(i, j):
            times[k] = start + (end - start) * (k - i) / (j - i)
    times[:marks[0][0]] = [marks[0][1]] * marks[0][0]
    times[marks[-1][0]:] = [marks[-1][1]] * (count - marks[-1][0])
    return times


def ipv4_checksum(header):
    total = sum(struct.unpack(f"!{len(header) // 2}H", header))
    total = (total & 0xFFFF) + (total >> 16)
    return ~(total + (total >> 16)) & 0xFFFF


def datagram_frame(payload):
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 28 + len(payload), 0, 0, 16, 17, 0, bytes((10, 0, 0, 1)),
                     bytes(GROUP))
    ip = ip[:10] + struct.pack("!H", ipv4_checksum(ip)) + ip[12:]
    ethernet = bytes((0x01, 0x00, 0x5E, *GROUP[1:])) + bytes((2, 0, 0, 0, 0, 1)) + b"\x08\x00"
    return ethernet + ip + struct.pack("!HHHH", 1234, 5000, 8 + len(payload), 0) + payload


def write_capture(stream_path, capture_path):
    stream = stream_path.read_bytes()
    times = packet_times(stream)
    with open(capture_path, "wb") as capture:
        capture.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for start in range(0, len(stream), DATAGRAM):
            # A datagram leaves when its last packet is there.
            last = min(start + DATAGRAM, len(stream)) // PACKET - 1
            microseconds = 1_700_000_000_000_000 + round(times[last] * 1e6)
            frame = datagram_frame(stream[start:start + DATAGRAM])
            capture.write(struct.pack("<IIII", *divmod(microseconds, 1_000_000), len(frame), len(frame)))
            capture.write(frame)


class Estimate(NamedTuple):
    status: str  # empty, or why the replay ended early
    counts: list  # (I frames, P per I frames) of each calculation of 500 frames
    first: int  # GOP length reported at first
    gop: list  # GOP length, minimum, maximum, B frames at the end
    size: tuple  # width, height


def replay(program, capture, records):
    done = subprocess.run([str(program), "-v", "-o", str(records), str(capture)], capture_output=True,
                          text=True, check=False)
    found = re.findall(r"i_frame_number (\d+)\np_frame_number/i_frame_number (\d+)",
                       done.stdout + done.stderr)
    first, gop, size = 0, [0, 0, 0, 0], (0, 0)
    for line in records.read_text().splitlines():
        columns = line.split(";")
        if len(columns) < KNOWN_PID_PREFIX or columns[3] != "KP":
            continue
        metrics = columns[KNOWN_PID_PREFIX:]
        gop = [int(value) for value in metrics[22:26]]
        size = int(metrics[30]), int(metrics[29])
        first = first or gop[0]
    # Each calculation prints its counts twice, before and after.
    return Estimate("" if done.returncode == 0 else f"ended with {done.returncode}",
                    [(int(i), int(p)) for i, p in found[::2]], first, gop, size)


def expected_size(case):
    """Coded size, the width cut by the bottom cropping offset times 2 as the probe does."""
    unit = 32 if case.interlaced else 16
    coded = math.ceil(case.height / unit) * unit
    bottom = (coded - case.height) // (4 if case.interlaced else 2)
    return case.width - 2 * bottom, coded


def row(case, truth, estimate):
    gops = [CALCULATION_FRAMES // i for i, _ in estimate.counts]
    b_frames = [(gop - 1 - p) // p if p else None for gop, (_, p) in zip(gops, estimate.counts)]
    usable = [b for b in b_frames if b is not None]
    size = f"{estimate.size[0]}x{estimate.size[1]}"
    right = "" if estimate.size == expected_size(case) else " (expected {}x{})".format(*expected_size(case))
    length, minimum, maximum, b = estimate.gop
    return [
        case.name,
        case.content,
        f"{truth[0]:.1f}", f"{truth[1]:.1f}",
        f"{statistics.median(gops):g}" if gops else "-",
        f"{statistics.median(usable):g}" if usable else "none",
        f"{len(usable)} of {len(gops)}",
        str(estimate.first), f"{length} ({minimum} to {maximum})", str(b), size + right + estimate.status,
    ]


HEADER = ["video", "content", "true GOP", "true B", "500 frames: GOP", "500 frames: B", "usable", "first GOP",
          "last GOP (min to max)", "last B", "picture size"]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--replay", type=pathlib.Path, default="build/release/bin/kestor-replay")
    parser.add_argument("--only", help="run the cases whose first two columns contain this, e.g. 352x288p or cuts")
    arguments = parser.parse_args()
    print("| " + " | ".join(HEADER) + " |\n|" + " --- |" * len(HEADER))
    for case in CASES:
        if arguments.only and arguments.only not in f"{case.name} {case.content}":
            continue
        with tempfile.TemporaryDirectory() as directory:
            work = pathlib.Path(directory)
            encode(case, work / "stream.ts")
            write_capture(work / "stream.ts", work / "capture.pcap")
            estimate = replay(arguments.replay, work / "capture.pcap", work / "records")
            print("| " + " | ".join(row(case, true_structure(work / "stream.ts"), estimate)) + " |", flush=True)


if __name__ == "__main__":
    main()
