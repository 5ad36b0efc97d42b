#!/usr/bin/env python3
"""station.py [SECONDS [CHANNELS TOLD]]

What kestor-station costs with 1000 CHANNELS of 20 PIDs, a snapshot a second (bench/stationLoad.cpp), and how soon a fresh probe
knows 2000 channels (TOLD). Inside a network of its own (scripts/netns.sh); the programs are those of build/release.
"""
import http.client
import json
import os
import re
import select
import socket
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BIN = os.path.join(ROOT, "build/release/bin")
STREAMS = 50
SCRAPES = 15  # one a second
TOLD_LIMIT = 60  # seconds to wait for it
TICKS = os.sysconf("SC_CLK_TCK")


def cpu_ms(pid):
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) * 1000 / TICKS


def resident_mib(pid, name="VmRSS"):
    with open(f"/proc/{pid}/status") as status:
        return int(re.search(name + r":\s+(\d+)", status.read()).group(1)) / 1024


def group(net, number):
    return f"239.{net + number // 62500}.{number // 250 % 250}.{1 + number % 250}"


class Station:
    """The real one, with so many channels from a playlist, in a directory of its own."""

    def __init__(self, directory, net, channels, pipe, endpoint, port):
        playlist = os.path.join(directory, "channels.m3u")
        with open(playlist, "w") as file:
            file.write("#EXTM3U\n")
            for i in range(channels):
                file.write(f'#EXTINF:-1 group-title="Group {i % 20}",Channel number {i}\nudp://@{group(net, i)}:5000\n')
        configuration = os.path.join(directory, "station.toml")
        with open(configuration, "w") as file:
            file.write(f'[[playlist]]\nfile = "{playlist}"\n')
        self.socket = os.path.join(directory, "station.sock")
        self.log = os.path.join(directory, "station.log")
        self.port = port
        self.process = subprocess.Popen(
            [f"{BIN}/kestor-station", "--config", configuration, "--state", os.path.join(directory, "state"),
             "--socket", self.socket, "--listen", f"127.0.0.1:{port}", "--pipe", pipe,
             "--controller-endpoint", endpoint], stderr=open(self.log, "w"))
        self.pid = self.process.pid

    def get(self, path, headers={}):
        """What is at the path, and how many milliseconds it took."""
        before = time.monotonic()
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=10)
        connection.request("GET", path, headers=headers)
        body = connection.getresponse().read()
        connection.close()
        return body, (time.monotonic() - before) * 1000

    def use(self):
        return json.loads(self.get("/api/v1/use")[0])

    def wait(self, condition, what, seconds=30):
        for _ in range(seconds * 10):
            try:
                if condition(json.loads(self.get("/api/v1/status")[0])):
                    return
            except (OSError, ValueError):
                pass
            time.sleep(0.1)
        raise SystemExit(f"station.py: {what}; the station said:\n" + open(self.log).read())

    def stream(self):
        client = socket.socket(socket.AF_UNIX)
        client.connect(self.socket)
        client.send(b"GET /api/v1/stream HTTP/1.1\r\nHost: localhost\r\n\r\n")
        return client

    def end(self):
        self.process.terminate()
        self.process.wait(10)


def drain(clients, seconds):
    """Reads what comes to them; how many bytes that was."""
    count = 0
    end = time.monotonic() + seconds
    while (left := end - time.monotonic()) > 0:
        for client in select.select(clients, [], [], left)[0]:
            count += len(client.recv(1 << 18))
    return count


def report(what, value, unit):
    print(f"{what:58} {value:8.1f} {unit}", flush=True)


def load(directory, seconds, channels):
    pipe = os.path.join(directory, "pipe")
    endpoint = "tcp://127.0.0.1:15999"
    station = Station(directory, 100, channels, pipe, endpoint, 19427)
    writes = os.path.join(directory, "writes")
    probe = subprocess.Popen([f"{BIN}/stationLoad", "--pipe", pipe, "--controller-endpoint", endpoint, "--channels",
                              str(channels), "--seconds", "100000"], stdout=open(writes, "w"))
    station.wait(lambda status: status["channels"]["withSignal"] == channels, "not all channels were seen")
    time.sleep(2)

    samples = []
    before = cpu_ms(station.pid)
    for _ in range(seconds):
        time.sleep(1)
        samples.append(station.use()["lastSnapshotCpuMs"])
    whole = (cpu_ms(station.pid) - before) / seconds
    report("CPU of the owner a snapshot, median", statistics.median(samples), "ms")
    report("CPU of the owner a snapshot, highest", max(samples), "ms")
    report("CPU of the whole station a second, no clients", whole, "ms")

    took = [station.get("/api/v1/channels")[1] for _ in range(20)]
    report("GET /api/v1/channels, median of 20", statistics.median(took), "ms")
    report("GET /api/v1/channels, longest of 20", max(took), "ms")

    resident = resident_mib(station.pid)
    before = cpu_ms(station.pid)
    begin = time.monotonic()
    for number in range(SCRAPES):
        body = station.get("/metrics", {"Accept-Encoding": "gzip"})[0]
        time.sleep(max(0, begin + number + 1 - time.monotonic()))
    elapsed = time.monotonic() - begin
    report("CPU of the whole station for a scrape with gzip", (cpu_ms(station.pid) - before - whole * elapsed) / SCRAPES, "ms")
    report("  its size", len(body) / 1e6, "MB")
    report("  memory beyond the highest before", resident_mib(station.pid, "VmHWM") - resident, "MiB")
    report("pipe left full until then", station.use()["pipe"]["longestWaitMs"], "ms")

    clients = [station.stream() for _ in range(STREAMS)]
    drain(clients, 2)
    before = cpu_ms(station.pid)
    begin = time.monotonic()
    count = drain(clients, seconds)
    elapsed = time.monotonic() - begin
    report(f"CPU of the whole station a second, {STREAMS} event streams", (cpu_ms(station.pid) - before) / elapsed, "ms")
    report("  sent to each", count / elapsed / STREAMS / 1000, "kB a second")
    for client in clients:
        client.close()

    report("resident memory", resident_mib(station.pid), "MiB")
    report("  highest", resident_mib(station.pid, "VmHWM"), "MiB")
    report("pipe left full, as the station sees it", station.use()["pipe"]["longestWaitMs"], "ms")
    probe.terminate()
    probe.wait()
    longest = [float(line.split()[-2]) for line in open(writes)]
    report("longest write of the probe", max(longest), "ms")
    station.end()


def told(directory, channels):
    station = Station(directory, 150, channels, "/tmp/american_maid", "tcp://127.0.0.1:5999", 19428)
    station.wait(lambda status: status["channels"]["configured"] == channels, "no channels")
    begin = time.monotonic()
    probe = subprocess.Popen([f"{BIN}/kestor", "-s"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    known = 0
    while known < channels and time.monotonic() - begin < TOLD_LIMIT:
        time.sleep(0.05)
        with open("/proc/net/igmp") as igmp:
            known = sum(re.match(r"\t+[0-9A-F]{6}EF ", line) is not None for line in igmp)
    report(f"until a fresh probe has joined {known} of {channels} channels", time.monotonic() - begin, "s")
    probe.kill()
    probe.wait()
    station.end()


def main():
    seconds, channels, to_tell = (int(number) for number in sys.argv[1:] + ["30", "1000", "2000"][len(sys.argv) - 1:])
    with tempfile.TemporaryDirectory() as directory:
        os.mkdir(f"{directory}/load")
        os.mkdir(f"{directory}/told")
        load(f"{directory}/load", seconds, channels)
        told(f"{directory}/told", to_tell)


main()
