#!/usr/bin/env python3
"""fleet.py [SECONDS [CHANNELS]]          (in a network of its own: scripts/netns.sh bench/fleet.py)

What a probe takes of those who scrape it, with and without a meter, for docs/fleet.md: kestor-station with a played probe
(bench/stationLoad.cpp, ten PIDs a channel) and a played meter (bench/meterLoad.cpp), and the servers of monitoring/ as shipped
(scripts/install-servers.sh), each for SECONDS (420) with 1000 CHANNELS. Bytes on disk are of a tenth of the channels, scraped
each second, so that chunks fill as they do in two hours. With the programs of build/release; half an hour.
"""
import contextlib
import gzip
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

import station as bench

SERVERS = os.path.join(bench.ROOT, "build/servers/usr/bin")
PROMETHEUS = 19090
VICTORIA = 18428
PIDS = 10
SETTLES = 60  # seconds in which a server that just began loads rules and the first scrapes


def say(what, value):
    print(f"{what:66} {value}", flush=True)


@contextlib.contextmanager
def ended(process):
    try:
        yield process
    finally:
        process.terminate()
        process.wait(60)


@contextlib.contextmanager
def probe(channels, metered, pids):
    """A station with its sources; what it listens on."""
    with tempfile.TemporaryDirectory() as directory:
        pipe, endpoint = os.path.join(directory, "pipe"), "tcp://127.0.0.1:15999"
        made = bench.Station(directory, 100, channels, pipe, endpoint, 19427, f'[metrics]\npids = "{pids}"\n')
        with ended(made.process), ended(subprocess.Popen(
                [f"{bench.BIN}/stationLoad", "--pipe", pipe, "--controller-endpoint", endpoint, "--channels", str(channels),
                 "--pids", str(PIDS), "--seconds", "100000"], stdout=subprocess.DEVNULL)):
            made.wait(lambda status: status["channels"]["withSignal"] == channels, "not all channels were seen", 180)
            with contextlib.ExitStack() as more:
                if metered:
                    more.enter_context(ended(subprocess.Popen(
                        [f"{bench.BIN}/meterLoad", "--socket", made.meter_socket, "--seconds", "100000"])))
                    made.wait(lambda status: (status["meter"] or {}).get("reported") == channels, "the meter's reports did not come", 180)
                yield made


def scrapes(channels):
    for metered in (False, True):
        for pids in ("listed", "none"):
            with probe(channels, metered, pids) as station:
                time.sleep(15)  # rates and levels of the first seconds
                before = bench.cpu_ms(station.pid)
                time.sleep(10)
                idle = (bench.cpu_ms(station.pid) - before) / 10
                before, begin = bench.cpu_ms(station.pid), time.monotonic()
                for _ in range(10):
                    packed = station.get("/metrics", {"Accept-Encoding": "gzip"})[0]
                    time.sleep(0.5)
                cpu = (bench.cpu_ms(station.pid) - before - idle * (time.monotonic() - begin)) / 10
                plain = gzip.decompress(packed)
                series = sum(not line.startswith(b"#") for line in plain.splitlines())
                say(f"{'with' if metered else 'without'} a meter, pids = {pids}: series, of a channel",
                    f"{series:,}  {series / channels:.0f}")
                say("  a scrape, plain / gzip; CPU of the station",
                    f"{len(plain) / 1e6:.1f} MB / {len(packed) / 1e6:.2f} MB  {cpu:.0f} ms")


def metric(port, name):
    """Of the server itself: the sum of its series of this name."""
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=60) as answer:
        lines = answer.read().decode().splitlines()
    return sum(float(line.rpartition(" ")[2]) for line in lines if re.match(re.escape(name) + r"[ {]", line))


def wait_for(port, path):
    for _ in range(300):
        with contextlib.suppress(OSError):
            urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=5).read()
            return
        time.sleep(0.2)
    raise SystemExit(f"fleet.py: nothing answers on port {port}")


def configuration(directory, interval):
    shutil.copytree(os.path.join(bench.ROOT, "monitoring"), directory, dirs_exist_ok=True)
    with open(f"{directory}/targets/probes.yml", "w") as file:
        file.write('[{targets: ["127.0.0.1:19427"], labels: {probe: "one"}}]\n')
    with open(f"{directory}/prometheus.yml") as file:
        text = file.read().replace("scrape_interval: 15s", f"scrape_interval: {interval}s")
    text = re.sub(r"\nalerting:\n(?: .*\n|\n)*", "\n", text)
    if interval < 10:
        text = text.replace("scrape_timeout: 10s", f"scrape_timeout: {interval}s")
    with open(f"{directory}/prometheus.yml", "w") as file:
        file.write(text)


def size_of(directory):
    return sum(os.path.getsize(os.path.join(place, name)) for place, _, names in os.walk(directory) for name in names)


def disk_of(port, directory):
    """Bytes of a sample and of a series, by a block made of what is in memory."""
    request = urllib.request.Request(f"http://127.0.0.1:{port}/api/v1/admin/tsdb/snapshot", method="POST")
    with urllib.request.urlopen(request, timeout=120) as answer:
        snapshot = os.path.join(directory, "tsdb/snapshots", json.load(answer)["data"]["name"])
    samples = series = chunks = index = 0
    for block in os.listdir(snapshot):
        with open(f"{snapshot}/{block}/meta.json") as meta:
            stats = json.load(meta)["stats"]
        samples += stats["numSamples"]
        series += stats["numSeries"]
        chunks += size_of(f"{snapshot}/{block}/chunks")
        index += os.path.getsize(f"{snapshot}/{block}/index")
    return f"{chunks / samples:.2f}  {index / series:.0f}  ({samples / series:.0f} samples a series)"


def prometheus(seconds, interval):
    with tempfile.TemporaryDirectory() as directory:
        configuration(directory, interval)
        with ended(subprocess.Popen(
                [f"{SERVERS}/prometheus", f"--config.file={directory}/prometheus.yml", f"--storage.tsdb.path={directory}/tsdb",
                 f"--web.listen-address=127.0.0.1:{PROMETHEUS}", "--web.enable-admin-api", "--log.level=error"])) as server:
            wait_for(PROMETHEUS, "/-/ready")
            time.sleep(SETTLES)
            taken = "prometheus_tsdb_head_samples_appended_total"
            before, begin, samples = bench.cpu_ms(server.pid), time.monotonic(), metric(PROMETHEUS, taken)
            time.sleep(seconds - SETTLES)
            elapsed = time.monotonic() - begin
            if interval == 1:
                say("Prometheus: bytes on disk a sample; of the index a series", disk_of(PROMETHEUS, directory))
                return
            say("Prometheus: series; samples a second", f"{metric(PROMETHEUS, 'prometheus_tsdb_head_series'):,.0f}  "
                f"{(metric(PROMETHEUS, taken) - samples) / elapsed:,.0f}")
            say("  memory; of a core, rules included", f"{bench.resident_mib(server.pid):.0f} MiB  "
                f"{(bench.cpu_ms(server.pid) - before) / elapsed / 10:.1f} %")


def victoria(seconds, interval):
    with tempfile.TemporaryDirectory() as directory:
        configuration(directory, interval)
        with open(f"{directory}/scrape.yml", "w") as file:
            file.write(f"scrape_configs: [{{job_name: kestor, scrape_interval: {interval}s, static_configs: [{{targets: "
                       '["127.0.0.1:19427"], labels: {probe: "one"}}]}]\n')
        with ended(subprocess.Popen(
                [f"{SERVERS}/victoria-metrics", f"-promscrape.config={directory}/scrape.yml", f"-storageDataPath={directory}/data",
                 f"-httpListenAddr=127.0.0.1:{VICTORIA}", "-loggerLevel=ERROR"])) as server:
            wait_for(VICTORIA, "/health")
            time.sleep(SETTLES)
            before, begin = bench.cpu_ms(server.pid), time.monotonic()
            time.sleep(seconds - SETTLES)
            elapsed = time.monotonic() - begin
            if interval == 1:
                urllib.request.urlopen(f"http://127.0.0.1:{VICTORIA}/internal/force_flush", timeout=60).read()
                rows = metric(VICTORIA, "vm_rows_added_to_storage_total")
                say("VictoriaMetrics: bytes on disk a sample", f"{size_of(f'{directory}/data/data') / rows:.2f}")
                return
            say("VictoriaMetrics: memory; of a core", f"{bench.resident_mib(server.pid):.0f} MiB  "
                f"{(bench.cpu_ms(server.pid) - before) / elapsed / 10:.1f} %")


def servers(seconds, interval):
    """Both at once."""
    threads = [threading.Thread(target=server, args=(seconds, interval)) for server in (prometheus, victoria)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


def main():
    seconds, channels = (int(number) for number in sys.argv[1:] + ["420", "1000"][len(sys.argv) - 1:])
    scrapes(channels)
    for pids in ("listed", "none"):
        print(f"with a meter, pids = {pids}:", flush=True)
        with probe(channels, True, pids):
            servers(seconds, 15)
    print("a tenth of the channels, a scrape a second:", flush=True)
    with probe(channels // 10, True, "listed"):
        servers(seconds, 1)


if __name__ == "__main__":
    main()
