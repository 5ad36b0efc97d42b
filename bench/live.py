#!/usr/bin/env python3
"""live.py [--quick] [--seconds N] [--rates N,N...] [--only PART,PART...] [--into FILE]

What probe and meter cost on live traffic and what they lose, inside a network of its own (scripts/netns.sh); the programs are
those of build/release. Prints tables as Markdown, and puts them into FILE in place of what stands between the two comments
"live: ..." there. Environment: KESTOR_BENCH_TS and KESTOR_BENCH_WIDE name recordings, which bench/run.sh makes.

Parts: rates (100 groups, each program alone, then both with a station beside them), gigabit (1000 groups), busy (a busy loop on
each core), memory (1000 and 2000 channels of 20 PIDs). While traffic runs nobody reads the probe's pipe when it is alone.
"""
import argparse
import contextlib
import datetime
import json
import os
import re
import signal
import socket
import subprocess
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BIN = os.path.join(ROOT, "build/release/bin")
GROUPS = 100
RATES = (20_000, 50_000, 100_000, 200_000, 300_000, 400_000, 600_000)
GIGABIT = 10**9 // (8 * 1358)  # frames of seven packets a second
SETTLE = 1.5  # seconds after the last datagram, until all counters are told
BEGIN, END = "<!-- live: bench/run.sh live writes from here -->", "<!-- live: to here -->"


def groups(count):
    """As frameSender numbers them."""
    return [f"239.20.{(i + 1) >> 8}.{(i + 1) & 255}" for i in range(count)]


def cpu_seconds(pid):
    """Of all threads, kernel work on their behalf included."""
    total = 0
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/schedstat") as times:
            total += int(times.read().split()[0])
    return total / 1e9


def memory_mib(pid, name):
    with open(f"/proc/{pid}/status") as status:
        return int(re.search(name + r":\s+(\d+)", status.read()).group(1)) / 1024


def wait(condition, what, seconds=60):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        try:
            if condition():
                return
        except (OSError, ValueError, KeyError, TypeError):
            pass
        time.sleep(0.1)
    raise SystemExit(f"live.py: {what}")


@contextlib.contextmanager
def running(*command, first=(), environment=None):
    with tempfile.TemporaryFile("w+") as log:
        process = subprocess.Popen([*first, f"{BIN}/{command[0]}", *command[1:]], stdout=subprocess.DEVNULL, stderr=log,
                                   env={**os.environ, **(environment or {})})
        try:
            yield process
        finally:
            ended = process.poll()
            process.send_signal(signal.SIGTERM)
            process.wait(20)
            if ended is not None:
                log.seek(0)
                print(f"live.py: {command[0]} ended with {ended}:\n{log.read()}", flush=True)


class Station:
    """kestor-station for so many groups; `probe`: whether it leads one."""

    def __init__(self, directory, count, probe):
        self.groups = groups(count)
        self.socket = os.path.join(directory, "station.sock")
        configuration = os.path.join(directory, "station.toml")
        with open(configuration, "w") as file:
            file.writelines(f'[[channel]]\ngroup = "{group}"\n' for group in self.groups)
        pipe = [] if probe else ["--pipe", os.path.join(directory, "pipe"), "--controller-endpoint", "tcp://127.0.0.1:15999"]
        self.command = ["kestor-station", "--config", configuration, "--state", os.path.join(directory, "state"),
                        "--socket", self.socket, "--listen", "", *pipe]
        self.meter = ["kestor-meter", "--socket", os.path.join(directory, "meter.sock")]

    def get(self, path):
        with socket.socket(socket.AF_UNIX) as client:
            client.settimeout(10)
            client.connect(self.socket)
            client.sendall(f"GET {path} HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n".encode())
            answer = b""
            while part := client.recv(1 << 18):
                answer += part
        head, _, body = answer.partition(b"\r\n\r\n")
        if b"chunked" in head.lower():
            whole, at = b"", 0
            while (size := int(body[at:body.index(b"\r\n", at)], 16)) > 0:
                begin = body.index(b"\r\n", at) + 2
                whole += body[begin:begin + size]
                at = begin + size + 2
            body = whole
        return json.loads(body)

    def meter_reports(self):
        return self.get("/api/v1/status")["meter"]["reported"] == len(self.groups)

    def frames(self):
        return self.get("/api/v1/status")["meter"]["capture"]["frames"]

    def probe_frames(self):
        streams = [self.get(f"/api/v1/channels/{group}")["stream"] for group in self.groups]
        return sum(int(stream["packetsReceived"]) for stream in streams if stream) // 7


def joined():
    with open("/proc/net/igmp") as igmp:
        return sum(re.match(r"\t+[0-9A-F]{6}EF ", line) is not None for line in igmp)


def send(count, rate, how_many, first=(), recording=None):
    """Returns how many a second were sent."""
    environment = {**os.environ, **({"KESTOR_BENCH_TS": recording} if recording else {})}
    said = subprocess.run([*first, f"{BIN}/frameSender", "--count", str(count), "--rate", str(rate), "--groups", str(how_many)],
                          env=environment, check=True, stdout=subprocess.PIPE, text=True).stdout
    time.sleep(SETTLE)
    return count / float(re.search(r"in ([\d.]+) s", said).group(1))


class Measured:
    """CPU us a datagram and datagrams lost, of one program at one rate."""

    def __init__(self, cpu, count, lost, sent):
        self.us, self.count, self.lost, self.sent = cpu / count * 1e6, count, lost, sent

    def __str__(self):
        share = "" if self.lost == 0 else f" ({self.lost / self.count * 100:.2g} %)"
        return f"{self.us:.2f}, {self.lost}{share}"


def bare(rates, seconds):
    for rate in rates:
        count = rate * seconds
        with subprocess.Popen([f"{BIN}/bareCapture", "--count", str(count)], stdout=subprocess.PIPE, text=True) as loop:
            loop.stdout.readline()
            try:
                sent = send(count, rate, GROUPS)
            finally:
                loop.terminate()  # if it waits for frames that were dropped
            frames, drops, cpu = loop.communicate()[0].split()
        yield Measured(float(cpu), count, int(drops), sent)


def probe_alone(rates, seconds):
    with running("kestor", "-s") as probe:
        time.sleep(0.5)
        subprocess.run([f"{BIN}/kestorctl", "--station", "", "add", *groups(GROUPS)], check=True, stdout=subprocess.DEVNULL)

        def received():
            lines = subprocess.run([f"{BIN}/kestorctl", "--station", "", "watch", "--once", "--json"], capture_output=True,
                                   text=True, check=True).stdout.splitlines()
            records = [json.loads(line) for line in lines if line.startswith("{")]
            return sum(record["packetsReceived"] for record in records if record["kind"] == 0) // 7

        wait(lambda: joined() >= GROUPS, "the probe joins nothing")
        for rate in rates:
            before, cpu = received(), cpu_seconds(probe.pid)
            sent = send(rate * seconds, rate, GROUPS)
            cpu = cpu_seconds(probe.pid) - cpu
            yield Measured(cpu, rate * seconds, rate * seconds - (received() - before), sent)


def meter_alone(rates, seconds, first=()):
    with tempfile.TemporaryDirectory() as directory:
        station = Station(directory, GROUPS, probe=False)
        with running(*station.command), running(*station.meter) as meter:
            wait(station.meter_reports, "the meter does not report")
            for rate in rates:
                before, cpu = station.frames(), cpu_seconds(meter.pid)
                sent = send(rate * seconds, rate, GROUPS, first)
                cpu = cpu_seconds(meter.pid) - cpu
                yield Measured(cpu, rate * seconds, rate * seconds - (station.frames() - before), sent)


def beside(rates, seconds, count=GROUPS):
    """Probe and meter with the station, which leads both."""
    with tempfile.TemporaryDirectory() as directory:
        station = Station(directory, count, probe=True)
        with running("kestor", "-s") as probe, running(*station.command) as leader, running(*station.meter) as meter:
            programs = (probe, meter, leader)
            wait(station.meter_reports, "the meter does not report")
            wait(lambda: joined() >= count, "the probe joins nothing")
            time.sleep(2)
            send(10 * count, 10 * count, count)  # what comes first of a channel costs more
            for rate in rates:
                before = [cpu_seconds(program.pid) for program in programs]
                frames = (station.probe_frames(), station.frames())
                sent = send(rate * seconds, rate, count)
                cpu = [cpu_seconds(program.pid) - was for program, was in zip(programs, before)]
                time.sleep(1)  # until the probe's next snapshot was read
                lost = [rate * seconds - (now - was) for now, was in zip((station.probe_frames(), station.frames()), frames)]
                yield (Measured(cpu[0], rate * seconds, lost[0], sent), Measured(cpu[1], rate * seconds, lost[1], sent),
                       cpu[2] / seconds)


def rates_table(rates, seconds):
    setups = [list(setup(rates, seconds)) for setup in (bare, probe_alone, meter_alone)]
    together = list(beside(rates, seconds))
    lines = [f"{GROUPS} groups, {seconds} s a rate. Of each program the CPU microseconds a datagram and the datagrams it lost:", "",
             "| datagrams/s | bare loop | kestor alone | kestor-meter alone | kestor beside | kestor-meter beside |",
             "|---|---|---|---|---|---|"]
    for i, rate in enumerate(rates):
        row = [setup[i] for setup in setups] + list(together[i][:2])
        slowest = min(one.sent for one in row)
        name = f"{rate:,}" if slowest > 0.98 * rate else f"{rate:,} (the sender reached {slowest:,.0f})"
        lines.append(f"| {name} | " + " | ".join(str(one) for one in row) + " |")
    best = setups[2][-1]
    tenfold = 10 * GIGABIT
    lines += ["", f"10 Gbit/s are {tenfold:,} such datagrams a second: by the last row's {best.us:.2f} us each {tenfold * best.us / 1e6:.2f} "
              "cores for `kestor-meter`, without what the kernel takes to receive them."]
    return lines


def gigabit_line(seconds, count):
    probe, meter, station = next(beside([GIGABIT], seconds, count))
    return [f"{count} groups at 1 Gbit/s ({GIGABIT:,} datagrams/s, {seconds} s), all beside one another: kestor {probe}; "
            f"kestor-meter {meter}; the station {station:.2f} s of CPU a second."]


def busy_line(seconds):
    loops = [subprocess.Popen(["sh", "-c", "while :; do :; done"]) for _ in range(os.cpu_count())]
    try:
        measured = next(meter_alone([200_000], seconds, ("chrt", "-f", "50")))
    finally:
        for loop in loops:
            loop.kill()
            loop.wait()
    return [f"A busy loop on each core and 200,000 datagrams/s for {seconds} s (the sender before all others): kestor-meter lost "
            f"{measured.lost}."]


def memory_line(channels, seconds):
    """The recording plays at its own pace, so that each channel has what belongs to so many seconds of it."""
    recording = os.environ["KESTOR_BENCH_WIDE"]
    pace = os.path.getsize(recording) / (7 * 188) / 20  # it holds 20 s
    with tempfile.TemporaryDirectory() as directory:
        station = Station(directory, channels, probe=False)
        with running(*station.command) as leader, \
             running(*station.meter, environment={"GLIBC_TUNABLES": "glibc.malloc.hugetlb=1"}) as meter:
            wait(station.meter_reports, "the meter does not report", 120)
            sent = send(int(pace * seconds * channels), pace * channels, channels, recording=recording)
            report = station.get(f"/api/v1/channels/{station.groups[-1]}/meter")
            own, ring = memory_mib(meter.pid, "RssAnon"), memory_mib(meter.pid, "VmHWM")
            return [f"{channels} channels of {len(report['pids'])} PIDs, {report['seconds']:.0f} s of each at {sent:,.0f} datagrams/s: "
                    f"{own:.0f} MiB of kestor-meter's own ({own * 1024 / channels:.0f} KiB a channel), {ring:.0f} MiB with its ring "
                    f"at most; the station {memory_mib(leader.pid, 'VmRSS'):.0f} MiB."]


def processor():
    with open("/proc/cpuinfo") as file:
        return re.search(r"model name\s*: (.*)", file.read()).group(1)


def put(lines, path):
    with open(path) as file:
        text = file.read()
    if BEGIN not in text or END not in text:
        raise SystemExit(f"live.py: {path} has no place for the tables")
    before, rest = text.split(BEGIN, 1)
    after = rest.split(END, 1)[1]
    with open(path, "w") as file:
        file.write(before + BEGIN + "\n" + "\n".join(lines) + "\n" + END + after)


def main():
    parser = argparse.ArgumentParser(description="Measures probe and meter on live traffic")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--seconds", type=int, default=8)
    parser.add_argument("--rates", type=lambda text: [int(rate) for rate in text.split(",")], default=list(RATES))
    parser.add_argument("--only", default="rates,gigabit,busy,memory")
    parser.add_argument("--into")
    options = parser.parse_args()
    seconds, rates, many = (1, [2000], (100, 200)) if options.quick else (options.seconds, options.rates, (1000, 2000))
    if "feed0" not in (name for _, name in socket.if_nameindex()):
        raise SystemExit("live.py: run it through scripts/netns.sh")
    for recording in ("KESTOR_BENCH_TS", "KESTOR_BENCH_WIDE"):
        if not os.path.exists(os.environ.get(recording, "")):
            raise SystemExit(f"live.py: {recording} names no file; bench/run.sh makes it")
    begin, load = time.monotonic(), os.getloadavg()[0]
    lines = []
    for part in options.only.split(","):
        said = {"rates": lambda: rates_table(rates, seconds),
                "gigabit": lambda: gigabit_line(seconds, many[0]),
                "busy": lambda: busy_line(min(seconds, 5)),
                "memory": lambda: memory_line(many[0], 2 * seconds) + [""] + memory_line(many[1], 2 * seconds)}[part]() + [""]
        print("\n".join(said), flush=True)
        lines += said
    when = datetime.date.today().isoformat()
    lines.insert(0, f"{when}, {os.cpu_count()} cores of {processor()}, load {load:.1f} before it began; "
                    f"{time.monotonic() - begin:.0f} s in all.")
    lines.insert(1, "")
    if options.into:
        put(lines[:-1], options.into)


main()
