"""A cable with faults: plays recordings to groups of the network of scripts/netns.sh, each as its clock says."""
import contextlib
import os
import socket
import struct
import subprocess
import threading
import time

PACKET, DATAGRAM = 188, 7
CLOCK, AUDIO, CUES, PMT, NULL = 256, 257, 500, 4096, 0x1FFF  # PIDs of what ffmpeg makes, and of cues
NULL_PACKET = bytes([0x47, 0x1F, 0xFF, 0x10]) + bytes([0xFF] * 184)


def encode(path, seconds, low=None):
    """Video and sound, at a constant bit rate; with `low` at one that varies, and is a part of it between these two seconds."""
    noise = [] if low is None else ["-vf", f"noise=alls=60:allf=t:enable='not(between(t,{low[0]},{low[1]}))'"]
    rate = ["-qp", "46"] if low else ["-b:v", "900k", "-maxrate", "900k", "-bufsize", "450k", "-muxrate", "1400k"]
    subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25", "-f", "lavfi",
                    "-i", "sine=frequency=440:sample_rate=48000", "-t", str(seconds), *noise, "-c:v", "libx264", "-preset",
                    "ultrafast", "-g", "12", "-bf", "2", "-pix_fmt", "yuv420p", "-c:a", "mp2", "-b:a", "128k", *rate, "-f", "mpegts", path],
                   check=True)


def pid_of(packet):
    return (packet[1] & 0x1F) << 8 | packet[2]


def clock_of(packet):
    """The PCR in 27 MHz, or None."""
    if not packet[3] & 0x20 or packet[4] < 7 or not packet[5] & 0x10:
        return None
    base, rest = struct.unpack_from(">IH", packet, 6)
    return (base << 1 | rest >> 15) * 300 + (rest & 0x1FF)


def crc32(section):
    value = 0xFFFFFFFF
    for byte in section:
        value ^= byte << 24
        for _ in range(8):
            value = (value << 1 ^ (0x04C11DB7 if value & 0x80000000 else 0)) & 0xFFFFFFFF
    return struct.pack(">I", value)


def in_packet(pid, counter, section):
    return (bytes([0x47, 0x40 | pid >> 8, pid & 0xFF, 0x10 | counter, 0]) + section).ljust(PACKET, b"\xff")


# Faults: what becomes of a datagram, a list of packets, in the window of the fault.

def losing(one_in):
    seen = iter(range(10**9))
    return lambda packets: [packets] if (next(seen) + 1) % one_in else []


def swapping(one_in):
    """Each so-manyth datagram comes behind the one that follows it."""
    held, seen = [], iter(range(10**9))

    def fault(packets):
        if next(seen) % one_in == 0 and not held:
            held.append(packets)
            return []
        late, held[:] = held[:], []
        return [packets, *late]
    return fault


def without(pid, rounds):
    """Null packets for as many of the PID's as a counter counts, so many times: what comes then goes on with its counters."""
    left = [16 * rounds]

    def leave_out(one):
        if pid_of(one) != pid or not left[0]:
            return one
        left[0] -= 1
        return NULL_PACKET
    return lambda packets: [[leave_out(one) for one in packets]]


def scrambled(pid):
    return lambda packets: [[one[:3] + bytes([one[3] | 0x80]) + one[4:] if pid_of(one) == pid else one for one in packets]]


def later(seconds):
    """The clock and all time stamps say another time."""
    def stamp(packet, at):
        first, second, third = struct.unpack_from(">BHH", packet, at)
        value = (first >> 1 & 7) << 30 | (second >> 1) << 15 | third >> 1
        value = (value + seconds * 90_000) % (1 << 33)
        struct.pack_into(">BHH", packet, at, first & 0xF1 | value >> 29 & 0xE, value >> 14 & 0xFFFE | 1, value << 1 & 0xFFFE | 1)

    def moved(one):
        packet = bytearray(one)
        clock = clock_of(packet)
        if clock is not None:
            base = (clock // 300 + seconds * 90_000) % (1 << 33)
            struct.pack_into(">IH", packet, 6, base >> 1, (base & 1) << 15 | 0x7E00 | clock % 300)
        pes = 5 + packet[4] if packet[3] & 0x20 else 4
        if packet[1] & 0x40 and packet[pes:pes + 3] == b"\0\0\1":
            for place in range((0, 0, 1, 2)[packet[pes + 7] >> 6]):  # none, PTS, PTS and DTS
                stamp(packet, pes + 9 + 5 * place)
        return bytes(packet)
    return lambda packets: [[moved(one) for one in packets]]


def with_cues(packets):
    """The PMT lists a PID of cues (ANSI/SCTE 35)."""
    def listed(packet):
        if pid_of(packet) != PMT:
            return packet
        section = packet[5:5 + 3 + ((packet[6] & 0xF) << 8 | packet[7]) - 4] + bytes([0x86, 0xE0 | CUES >> 8, CUES & 0xFF, 0xF0, 0])
        section = section[:1] + struct.pack(">H", 0xB000 | len(section) + 1) + section[3:]
        return in_packet(PMT, packet[3] & 0xF, section + crc32(section))
    return [[listed(one) for one in packets]]


def cueing(event):
    """A splice_insert, out of the network at once, in place of the first null packet."""
    command = struct.pack(">IBBHBB", event, 0x7F, 0xDF, 1, 0, 0)
    section = struct.pack(">BHBBIBHB", 0xFC, 0x3000 | 17 + len(command), 0, 0, 0, 0, 0xFFF0, len(command)) + b"\x05" + command + b"\0\0"
    cue, told = in_packet(CUES, 0, section + crc32(section)), []

    def fault(packets):
        (packets,) = with_cues(packets)
        null = next((place for place, one in enumerate(packets) if pid_of(one) == NULL), None)
        if null is not None and not told:
            told.append(True)
            packets[null] = cue
        return [packets]
    return fault


class Recording:
    """Datagrams of seven packets, and when each is due, from the first clock reference on."""

    def __init__(self, path):
        with open(path, "rb") as file:
            data = file.read()
        packets = [data[at:at + PACKET] for at in range(0, len(data) - PACKET + 1, PACKET)]
        clocks = [(place, clock_of(one)) for place, one in enumerate(packets) if pid_of(one) == CLOCK and clock_of(one) is not None]
        begin, self.datagrams, self.due, steps = clocks[0], [], [], iter(zip(clocks, clocks[1:]))
        (place, clock), (after, until) = next(steps)
        for at in range(begin[0], clocks[-1][0] - DATAGRAM, DATAGRAM):
            while at >= after:
                (place, clock), (after, until) = next(steps)
            self.due.append((clock - begin[1] + (until - clock) * (at - place) / (after - place)) / 27e6)
            self.datagrams.append(packets[at:at + DATAGRAM])


class Play(threading.Thread):
    """Sends a recording to groups. `groups`: {group: (RTP or not, [(from, until, fault)])}, in seconds of the recording; the first
    window that fits holds. `begun`: the wall clock's time at the begin."""

    def __init__(self, recording, groups):
        super().__init__(daemon=True)
        self.recording, self.groups, self.ended = recording, groups, threading.Event()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        for option, value in ((socket.IP_MULTICAST_IF, socket.inet_aton("10.99.0.2")), (socket.IP_MULTICAST_TTL, 8),
                              (socket.IP_MULTICAST_LOOP, 0)):
            self.socket.setsockopt(socket.IPPROTO_IP, option, value)
        self.socket.bind(("10.99.0.2", 0))
        self.begun = time.time()
        self.start()

    def run(self):
        with contextlib.suppress(PermissionError):  # no sender of another machine is late for work on this one
            os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(1))
        begin = time.monotonic()
        for number, (due, packets) in enumerate(zip(self.recording.due, self.recording.datagrams)):
            if self.ended.is_set():
                return
            time.sleep(max(0, begin + due - time.monotonic()))
            header = struct.pack(">BBHII", 0x80, 33, number & 0xFFFF, int(due * 90_000), 7)  # RTP's, before any fault
            for group, (rtp, windows) in self.groups.items():
                fault = next((fault for since, until, fault in windows if since <= due < until), lambda packets: [packets])
                for sent in fault([header, *packets] if rtp else packets):
                    self.socket.sendto(b"".join(sent), (group, 5000))

    def close(self):
        self.ended.set()
        self.join(5)
        self.socket.close()
