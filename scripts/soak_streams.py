"""The streams of scripts/soak: datagrams of 100 made-up channels, damage to them, and a model of the probe's counters.

A channel repeats a cycle of prebuilt datagrams, at whose end every continuity counter is where it was. Undamaged ones
are only counted; around damage and changes every packet goes through the model.
"""

import collections
import random
import socket
import struct

PACKET = 188
CYCLE = 560  # packets; each PID's continuity counter is back where it was after so many
PAT, PMT_1, PMT_2, VIDEO, AUDIO, GUEST, BARE, NULL = 0, 0x100, 0x200, 0x101, 0x102, 0x201, 0x1F0, 0x1FFF
PSI = (PAT, PMT_1, PMT_2)
SECOND = 27_000_000  # PCR units
PCR_STEP = SECOND // 30
PCR_LIMIT = SECOND // 10
DAMAGE = ["drop", "repeat", "replace", "sync", "garbage", "error", "scramble", "crc", "pcr", "stranger"]

Packet = collections.namedtuple("Packet", "pid cc payload pcr version", defaults=(True, False, 0))


def crc32(data):
    """CRC_32 of ISO/IEC 13818-1, annex A."""
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte << 24
        for _ in range(8):
            crc = (crc << 1 ^ (0x04C11DB7 if crc >> 31 else 0)) & 0xFFFFFFFF
    return struct.pack(">I", crc)


def section(table_id, extension, version, body):
    head = struct.pack(">BHHBBB", table_id, 0xB000 | len(body) + 9, extension, 0xC1 | version << 1, 0, 0)
    return b"\0" + head + body + crc32(head + body)


def tables(version):
    """The payload of each PSI PID. Version 1 has a second program, with the guest PID in it."""
    pmt = lambda number, streams: section(2, number, version, struct.pack(">HH", 0xE000 | VIDEO, 0xF000) + b"".join(
        struct.pack(">BHH", kind, 0xE000 | pid, 0xF000) for kind, pid in streams))
    programs = [(1, PMT_1), (2, PMT_2)][:1 + version]
    pat = section(0, 1, version, b"".join(struct.pack(">HH", number, 0xE000 | pid) for number, pid in programs))
    return {PAT: pat, PMT_1: pmt(1, [(0x1B, VIDEO), (0x0F, AUDIO)]), PMT_2: pmt(2, [(0x0F, GUEST)])}


def packet_bytes(packet, payloads, starts_pes):
    """188 bytes without a second 0x47 where damage to the sync byte relies on that."""
    unit_start = 0x4000 if packet.pid in PSI or starts_pes else 0
    control = (0x10 if packet.payload else 0) | (0x20 if packet.pcr or not packet.payload else 0)
    header = struct.pack(">BHB", 0x47, packet.pid | unit_start, control | packet.cc)
    if not packet.payload:
        header += b"\xb7\0"
    if packet.pcr:
        header += b"\x07\x10" + bytes(6)
    if starts_pes:
        header += b"\0\0\1" + (b"\xe0" if packet.pid == VIDEO else b"\xc0") + b"\0\0\x80\x80\5\x21\0\1\0\1"
    return (header + payloads.get(packet.pid, b"")).ljust(PACKET, b"\xff")


def cycle_of(version, rng):
    """CYCLE packets in random order, as (Packet, bytes)."""
    shares = {PAT: 16, PMT_1: 16, AUDIO: 64, NULL: 48, BARE: 8}
    if version:
        shares |= {PMT_2: 16, GUEST: 32}  # these come and go with the version
    pids = [pid for pid, count in shares.items() for _ in range(count)]
    pids += [NULL] * (-len(pids) % 16) + [VIDEO] * (CYCLE - len(pids) - -len(pids) % 16)
    rng.shuffle(pids)
    payloads, counts, result = tables(version), collections.Counter(), []
    for pid in pids:
        number = counts[pid]
        counts[pid] += 1
        packet = Packet(pid, number % 16 if pid != BARE else 0, pid != BARE, pid == VIDEO and number % 8 == 0, version)
        result.append((packet, packet_bytes(packet, payloads, pid in (VIDEO, AUDIO) and number % 20 == 4)))
    return result


def headers(group, source, size):
    """Ethernet, IPv4 and UDP, for `size` bytes of UDP payload."""
    address = socket.inet_aton(group)
    ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, size + 28, 0, 0, 16, 17, 0, socket.inet_aton(source), address)
    total = sum(struct.unpack(">10H", ip))
    total = (total & 0xFFFF) + (total >> 16)
    ip = ip[:10] + struct.pack(">H", ~((total & 0xFFFF) + (total >> 16)) & 0xFFFF) + ip[12:]
    ethernet = b"\1\0\x5e" + bytes([address[1] & 0x7F]) + address[2:] + b"\2\0\0\0\0\1\x08\0"
    return ethernet + ip + struct.pack(">HHHH", 5000, 5001, size + 8, 0)


class Decoder:
    """What the PSI decoder of one PID makes of single-packet sections."""

    def __init__(self):
        self.cc = self.version = None
        self.gap = False

    def push(self, packet, intact):
        """(error messages, packet accepted, table new)"""
        last, self.cc, errors = self.cc, packet.cc, 0
        if last == packet.cc and not self.gap:
            return 1, False, False
        if last is not None and packet.cc != (last + 1) % 16:
            errors, self.gap = 1, True
        if not intact:
            return errors + 1, True, False
        new = self.gap or self.version != packet.version
        self.gap, self.version = False, packet.version
        return errors, True, new


class Model:
    """The counters that a stream's packets must lead to."""

    def __init__(self):
        self.counts = collections.defaultdict(collections.Counter)  # by PID; -1 is the stream
        self.cc, self.decoders = {}, {PAT: Decoder()}
        self.pcr = None
        self.good = self.bad = 0
        self.in_sync = self.stranger = False

    def count(self, pid, name, number=1):
        self.counts[-1][name] += number
        self.counts[pid][name] += number

    def datagram(self, slots):
        """One datagram of (Packet, set of damage), None for a packet without sync byte."""
        skipping = False
        for slot in slots:
            if slot is None:
                if not skipping:
                    self.lose_sync()
                skipping = True
                continue
            if not skipping:
                self.bad, self.good = 0, min(self.good + 1, 5)
                self.in_sync |= self.good == 5
            skipping = False
            self.packet(*slot)

    def lose_sync(self):
        self.counts[-1]["Sync_byte_error"] += 1
        if self.bad >= 2 and self.in_sync:
            self.in_sync = False
            self.counts[-1]["TS_sync_loss"] += 1
        self.good, self.bad = 0, self.bad + 1

    def packet(self, packet, damage):
        pid = packet.pid
        self.count(pid, "packetsReceived")
        if pid in self.decoders:
            self.table(packet, "crc" not in damage)
        gap = (packet.cc + 15 - self.cc.get(pid, packet.cc + 15)) % 16
        self.cc[pid] = packet.cc
        if pid == NULL:
            return
        if "error" in damage:
            self.count(pid, "Transport_error")
        if "scramble" in damage:
            self.count(pid, "packetsScrambled")
            self.count(pid, "CAT_error")
        if gap and packet.payload:
            self.count(pid, "packetsLost", gap)
            self.count(pid, "packetsOutOfSequence")
            self.count(pid, "Continuity_count_error")
        if packet.pcr:
            if self.pcr is not None and packet.pcr - self.pcr > PCR_LIMIT:
                self.count(pid, "PCR_discontinuity_indicator_error")
            self.pcr = packet.pcr

    def table(self, packet, intact):
        errors, accepted, new = self.decoders[packet.pid].push(packet, intact)
        self.counts[-1]["CRC_error"] += errors
        if packet.pid != PAT:
            return
        if not accepted:
            self.count(PAT, "PAT_error")
            self.count(PAT, "PAT_error_2")
        if new:  # the decoders of its programs start anew
            self.decoders = {PAT: self.decoders[PAT]} | {pid: Decoder() for pid in (PMT_1, PMT_2)[:1 + packet.version]}


class Datagram:
    """A prebuilt frame with what is in it."""

    def __init__(self, head, packets, before):
        self.head = head
        self.packets = [packet for packet, _ in packets]
        self.frame = bytearray(head + b"".join(data for _, data in packets))
        self.pcrs = [len(head) + PACKET * i + 6 for i, packet in enumerate(self.packets) if packet.pcr]
        self.before = before  # continuity counters of the packets before it
        self.pids = collections.Counter(packet.pid for packet in self.packets)


class Channel:
    """A group's stream: its datagrams, the damage to it and its model."""

    def __init__(self, number, seed, rate):
        self.group = f"239.1.{number // 50 + 1}.{number % 50 + 1}"
        self.rng = random.Random(f"{seed}/{number}")
        self.size = self.rng.choice([7, 7, 7, 7, 7, 5, 4, 1])
        rtp = self.rng.random() < 0.2
        self.damage = self.rng.sample(DAMAGE, self.rng.randint(1, 4)) if number % 2 else []
        self.rate = self.rng.uniform(0.5, 1.5) * rate  # datagrams a second
        extra = b"\x80\x21" + bytes(10) if rtp else b""
        self.head, self.strange_head = (
            headers(self.group, source, self.size * PACKET + len(extra)) + extra
            for source in ("10.99.0.2", "10.99.0.3"))
        self.cycles = [self.build(version) for version in (0, 1)] if number % 3 else [self.build(0)]
        self.version = self.position = 0
        self.pcr = SECOND
        self.credit = 0.0
        self.active = False
        self.reset()

    def build(self, version):
        packets = cycle_of(version, self.rng)
        before, datagrams = {packet.pid: packet.cc for packet, _ in packets}, []
        for i in range(0, CYCLE, self.size):
            part = packets[i:i + self.size]
            datagrams.append(Datagram(self.head, part, dict(before)))
            before |= {packet.pid: packet.cc for packet, _ in part}
        return datagrams

    def reset(self):
        """The probe knows nothing of the stream any more."""
        self.model = Model()
        self.undamaged = collections.Counter()  # datagrams that went out without a look at their packets
        self.careful = CYCLE // self.size + 1  # datagrams to go through the model, until nothing but the usual can come
        self.next_damage = self.rng.randint(20, 200)

    def step(self, send):
        """Sends the next datagram; returns how many were sent."""
        cycle = self.cycles[self.version]
        datagram = cycle[self.position]
        pcr_before = self.pcr
        for offset in datagram.pcrs:
            self.pcr += PCR_STEP
            base, extension = divmod(self.pcr, 300)
            low = (base & 1) << 15 | 0x7E00 | extension
            struct.pack_into(">IH", datagram.frame, offset, base >> 1 & 0xFFFFFFFF, low)
        self.next_damage -= 1
        harmed = self.damage and self.next_damage <= 0
        if harmed and not self.careful:
            self.align(datagram, pcr_before)
        if harmed or self.careful:
            sent = self.send_carefully(datagram, pcr_before, send, self.rng.choice(self.damage) if harmed else "")
        else:
            send(datagram.frame)
            self.undamaged[self.version, self.position] += 1
            sent = 1
        self.advance(cycle)
        return sent

    def advance(self, cycle):
        self.position = (self.position + 1) % len(cycle)
        if self.position == 0 and len(self.cycles) > 1 and self.rng.random() < 0.3:
            if not self.careful:
                self.align(self.cycles[self.version][0], self.pcr)
            self.version ^= 1
            self.careful = len(cycle) + 1

    def align(self, datagram, pcr):
        """Brings the model to where the datagrams before this one left the probe."""
        self.model.cc |= {pid: cc for pid, cc in datagram.before.items()}
        for pid, decoder in self.model.decoders.items():
            decoder.cc = datagram.before[pid]
        self.model.pcr = pcr

    def send_carefully(self, datagram, pcr, send, kind):
        """Sends the datagram with this kind of damage, if any, and tells the model packet for packet."""
        frame, slots = bytearray(datagram.frame), []
        for packet in datagram.packets:
            if packet.pcr:
                pcr += PCR_STEP
                packet = packet._replace(pcr=pcr)
            slots.append((packet, set()))
        self.careful -= 1
        frames = [(frame, slots)]
        if kind:
            self.careful = len(self.cycles[0]) + 1
            self.next_damage = self.rng.randint(20, 200)
            if kind == "drop":
                frames = []
            elif kind == "repeat":
                frames *= 2
            elif kind == "garbage":
                garbage = self.head + b"\xff" * (self.size * PACKET)
                frames = [(garbage, [None] * self.size)] * self.rng.randint(1, 5) + frames
            elif kind == "pcr":
                self.pcr += SECOND // 2
            elif kind == "stranger":
                send(self.strange_head + frame[len(self.head):])
                self.model.stranger = True
            else:
                self.harm_packet(frame, slots, kind)
        for data, content in frames:
            send(data)
            self.model.datagram(content)
        return len(frames)

    def harm_packet(self, frame, slots, kind):
        """Damages one packet, if one of the datagram's is fit for this."""
        fit = {"sync": lambda p, data: 0x47 not in data[1:], "scramble": lambda p, data: p.pid in (VIDEO, AUDIO),
               "crc": lambda p, data: p.pid in PSI}.get(kind, lambda p, data: True)
        places = [len(self.head) + PACKET * i for i in range(self.size)]
        usable = [i for i in range(self.size) if fit(slots[i][0], frame[places[i]:places[i] + PACKET])]
        if not usable:
            return
        i = self.rng.choice(usable)
        place = places[i]
        if kind == "sync":
            frame[place], slots[i] = 0x46, None
        elif kind == "replace":
            frame[place:place + PACKET] = b"\x47\x1f\xff\x10".ljust(PACKET, b"\xff")
            slots[i] = (Packet(NULL, 0), set())
        else:
            offset, bits = {"error": (1, 0x80), "scramble": (3, 0x80), "crc": (16, 0x01)}[kind]
            frame[place + offset] ^= bits
            slots[i][1].add(kind)

    def expected(self):
        """Counters by PID; -1 is the stream."""
        result = collections.defaultdict(collections.Counter, {pid: c.copy() for pid, c in self.model.counts.items()})
        for (version, position), times in self.undamaged.items():
            for pid, count in self.cycles[version][position].pids.items():
                result[pid]["packetsReceived"] += count * times
                result[-1]["packetsReceived"] += count * times
        return result
