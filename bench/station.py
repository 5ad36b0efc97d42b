#!/usr/bin/env python3
"""station.py [SECONDS [CHANNELS TOLD]]

What kestor-station costs with 1000 CHANNELS of 20 PIDs, a snapshot a second (bench/stationLoad.cpp), what a meter's reports of
them add (bench/meterLoad.cpp, ten PIDs each, 4096 channels at most), and how soon a fresh probe knows 2000 channels (TOLD). Inside a network of its own (scripts/netns.sh); the programs are those of build/release.

station.py hostile [CHANNELS PIDS]

How long /healthz takes, and how much memory the station, while clients ask for the most expensive answers and take none.
"""
import gzip
import http.client
import json
import multiprocessing
import os
import random
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
METERED = 4096  # groups that a meter watches at most
TOLD_LIMIT = 60  # seconds to wait for it
TICKS = os.sysconf("SC_CLK_TCK")


def cpu_ms(pid):
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) * 1000 / TICKS


def http_thread_ms(pid):
    """CPU time of the thread that serves HTTP."""
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/comm") as name, open(f"/proc/{pid}/task/{thread}/schedstat") as times:
            if name.read() == "http\n":
                return int(times.read().split()[0]) / 1e6
    raise SystemExit("station.py: the station has no thread of the name http")


def resident_mib(pid, name="VmRSS"):
    with open(f"/proc/{pid}/status") as status:
        return int(re.search(name + r":\s+(\d+)", status.read()).group(1)) / 1024


def group(net, number):
    return f"239.{net + number // 62500}.{number // 250 % 250}.{1 + number % 250}"


class Station:
    """The real one, with so many channels from a playlist, in a directory of its own."""

    def __init__(self, directory, net, channels, pipe, endpoint, port, more=""):
        playlist = os.path.join(directory, "channels.m3u")
        with open(playlist, "w") as file:
            file.write("#EXTM3U\n")
            for i in range(channels):
                file.write(f'#EXTINF:-1 group-title="Group {i % 20}",Channel number {i}\nudp://@{group(net, i)}:5000\n')
        configuration = os.path.join(directory, "station.toml")
        with open(configuration, "w") as file:
            file.write(f'{more}[[playlist]]\nfile = "{playlist}"\n')
        self.socket = os.path.join(directory, "station.sock")
        self.meter_socket = os.path.join(directory, "meter.sock")
        self.log = os.path.join(directory, "station.log")
        self.port = port
        self.process = subprocess.Popen(
            [f"{BIN}/kestor-station", "--config", configuration, "--state", os.path.join(directory, "state"),
             "--socket", self.socket, "--meter-socket", self.meter_socket, "--listen", f"127.0.0.1:{port}", "--pipe", pipe,
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


def scrape(station, whole):
    """A scrape a second; `whole`: what the station takes in a second without."""
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
    plain = gzip.decompress(body)
    report("  uncompressed", len(plain) / 1e6, "MB")
    report("  series", sum(not line.startswith(b"#") for line in plain.splitlines()), "")


def load(directory, seconds, channels):
    pipe = os.path.join(directory, "pipe")
    endpoint = "tcp://127.0.0.1:15999"
    station = Station(directory, 100, channels, pipe, endpoint, 19427)
    writes = os.path.join(directory, "writes")
    probe = subprocess.Popen([f"{BIN}/stationLoad", "--pipe", pipe, "--controller-endpoint", endpoint, "--channels",
                              str(channels), "--seconds", "100000"], stdout=open(writes, "w"))
    station.wait(lambda status: status["channels"]["withSignal"] == channels, "not all channels were seen", 180)
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

    scrape(station, whole)
    report("pipe left full until then", station.use()["pipe"]["longestWaitMs"], "ms")
    meter = subprocess.Popen([f"{BIN}/meterLoad", "--socket", station.meter_socket, "--seconds", "100000"])
    station.wait(lambda status: (status["meter"] or {}).get("reported") == min(channels, METERED), "the meter's reports did not come", 180)
    time.sleep(2)
    before = cpu_ms(station.pid)
    time.sleep(seconds)
    metered = (cpu_ms(station.pid) - before) / seconds
    report("with a meter: CPU of the whole station a second, no clients", metered, "ms")
    health(station, 5, "with a meter")
    scrape(station, metered)
    report("  resident memory", resident_mib(station.pid), "MiB")
    meter.terminate()
    meter.wait()

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


def ask_for_ever(port, path):
    """A client that asks again and again; `path` makes the target. It leaves the cores to the station: others have theirs."""
    os.nice(10)
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    while True:
        try:
            connection.request("GET", path(), headers={"Accept-Encoding": random.choice(("gzip", "identity"))})
            connection.getresponse().read()
        except OSError:
            connection.close()


def health(station, seconds, what):
    """Reports how long /healthz takes, asked twenty times a second on one connection."""
    connection = http.client.HTTPConnection("127.0.0.1", station.port, timeout=30)
    took, late = [], []
    before_all, requests = http_thread_ms(station.pid), station.use()["server"]["requests"]
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        before = time.monotonic()
        connection.request("GET", "/healthz")
        connection.getresponse().read()
        done = time.monotonic()
        took.append((done - before) * 1000)
        time.sleep(0.05)
        late.append((time.monotonic() - done - 0.05) * 1000)
    took.sort()
    report(f"/healthz {what}, median", statistics.median(took), "ms")
    report("  99 of 100", took[len(took) * 99 // 100], "ms")
    report("  longest", took[-1], "ms")
    requests = station.use()["server"]["requests"] - requests
    report(f"  CPU of the HTTP thread a request, of {requests}",
           (http_thread_ms(station.pid) - before_all) / requests, "ms")
    report("  longest that this program itself was held up meanwhile", max(late), "ms")


def take_nothing(port, path, streams):
    """Connections from several addresses, as many as are let in, that ask for something and take none of it."""
    clients = []
    for number in range(streams):
        client = socket.socket()
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        client.bind((f"127.0.1.{1 + number // 50}", 0))
        client.connect(("127.0.0.1", port))
        client.send(f"GET {path} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode())
        clients.append(client)
        time.sleep(0.1)
    return clients


def hostile(directory, channels, pids):
    pipe = os.path.join(directory, "pipe")
    endpoint = "tcp://127.0.0.1:15999"
    station = Station(directory, 100, channels, pipe, endpoint, 19427)
    probe = subprocess.Popen([f"{BIN}/stationLoad", "--pipe", pipe, "--controller-endpoint", endpoint, "--channels",
                              str(channels), "--pids", str(pids), "--seconds", "100000"], stdout=subprocess.DEVNULL)
    station.wait(lambda status: status["channels"]["withSignal"] == channels, "not all channels were seen", 120)
    time.sleep(3)
    report("resident memory", resident_mib(station.pid), "MiB")
    health(station, 5, "with no clients")
    for what, path in (("while 4 vary overview?cells=", lambda: f"/api/v1/overview?cells={random.randint(1, 600)}&seconds=1"),
                       ("while 4 ask for a channel", lambda: f"/api/v1/channels/{group(100, 0)}"),
                       ("while 4 ask for all channels", lambda: "/api/v1/channels"),
                       ("while 4 scrape", lambda: "/metrics")):
        size = len(station.get(path())[0])
        clients = [multiprocessing.Process(target=ask_for_ever, args=(station.port, path), daemon=True) for _ in range(4)]
        for client in clients:
            client.start()
        health(station, 8, f"{what} ({size / 1e6:.1f} MB)")
        for client in clients:
            client.kill()
            client.join()
    report("highest resident memory until then", resident_mib(station.pid, "VmHWM"), "MiB")
    slow = take_nothing(station.port, "/metrics", 200)
    health(station, 15, "while 200 take nothing of /metrics")
    report("highest resident memory with them", resident_mib(station.pid, "VmHWM"), "MiB")
    print("  of the server:", station.use()["server"])
    for client in slow:
        client.close()
    begin = time.monotonic()
    station.end()
    report("SIGTERM took", (time.monotonic() - begin) * 1000, "ms")
    probe.terminate()
    probe.wait()


def main():
    if sys.argv[1:2] == ["hostile"]:
        with tempfile.TemporaryDirectory() as directory:
            hostile(directory, *(int(number) for number in sys.argv[2:] + ["1000", "20"][len(sys.argv) - 2:]))
        return
    seconds, channels, to_tell = (int(number) for number in sys.argv[1:] + ["30", "1000", "2000"][len(sys.argv) - 1:])
    with tempfile.TemporaryDirectory() as directory:
        os.mkdir(f"{directory}/load")
        os.mkdir(f"{directory}/told")
        load(f"{directory}/load", seconds, channels)
        told(f"{directory}/told", to_tell)


if __name__ == "__main__":
    main()
