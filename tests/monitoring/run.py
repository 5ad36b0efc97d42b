#!/usr/bin/env python3
"""run.py BIN_DIRECTORY: the monitoring end to end, in a network of its own (about a minute).

Three probes, each with its station in a network of its own, two of them with a meter; one Prometheus with the rules, one Alertmanager, and a
VictoriaMetrics that gets what the fleet is asked for, all of them Debian's (scripts/install-servers.sh). A cable is cut
and mended, a probe falls silent, every stored value is held against its record, and every query of the dashboards is
answered.
"""
import contextlib
import http.server
import json
import os
import re
import shutil
import subprocess
import sys
import threading
import time
import urllib.request
from pathlib import Path

import yaml

import dashboards
from dashboards import Prometheus, require

ROOT = Path(__file__).parents[2]
UNPACKED = ROOT / "build" / "servers" / "usr"
SERVERS = UNPACKED / "bin"
NETNS = ROOT / "scripts" / "netns.sh"
SKIPPED = 77  # for ctest
WORK = Path("/tmp/monitoring")  # of this network alone
LIMIT_S = 60  # for whatever has to come; what it takes is printed, and a busy machine takes longer
PROBES = ["north-1", "north-2", "south-1"]
DEMO, FAST, SILENT = range(3)
STREAM_COLUMNS = {
    "packets_total": "packetsReceived", "lost_packets_total": "packetsLost",
    "out_of_sequence_packets_total": "packetsOutOfSequence", "scrambled_packets_total": "packetsScrambled",
    "bitrate_bps": "bitRate", "delay_factor_seconds": ("mdiDelayFactor", 1000),
    "interarrival_seconds": ("jitterMeanInterArrival", 1000), "jitter_variance": "jitterVariance",
    "quality_index": "transportQualityIndex", "ttl": "ttl", "dscp": "dscp", "wrong_source": "wrongSource",
    "join_latency_seconds": ("igmpLatency", 1000)}
PID_COLUMNS = {
    "packets_total": "packetsReceived", "lost_packets_total": "packetsLost",
    "continuity_errors_total": "Continuity_count_error", "scrambled_packets_total": "packetsScrambled",
    "bitrate_bps": "bitRate", "picture_width_pixels": "pictureWidth", "picture_height_pixels": "pictureHeight",
    "gop_frames": "gopLength", "mos": "mosScore"}


# What runs in a probe's own network.

def probe_side(number, bin_directory):
    """A probe on encoded channels with its station; does what standard input says: cut, mend, stop, go."""
    while subprocess.run(["ip", "link", "show", "uplink"], capture_output=True).returncode != 0:
        time.sleep(0.1)
    subprocess.run(["ip", "-batch", "-"], check=True, text=True,
                   input=f"address add 10.98.{number}.2/24 dev uplink\nlink set uplink up\n")
    WORK.mkdir()
    configuration = WORK / "station.toml"
    meter = "" if number == SILENT else WORK / "meter.sock"
    configuration.write_text(f"""
        instance = "{PROBES[number]}"
        listen = "10.98.{number}.2:9427"
        socket = "{WORK}/station.sock"
        meter_socket = "{meter}"
        state_dir = "{WORK}/state"
        [[channel]]
        group = "239.1.1.1"
        name = 'News "HD"'
        labels = {{ site = "north", "a-b" = "x" }}
        [[channel]]
        group = "239.1.1.2"
        enabled = {"true" if number == DEMO else "false"}
        [[webhook]]
        url = "http://10.98.{number}.1:9093"
        format = "alertmanager"
        max_per_minute = 600
        """)
    # Small pictures in a full multiplex, many a second: what takes long to be known is known soon.
    fast = ["ffmpeg", "-nostdin", "-v", "error", "-re", "-f", "lavfi", "-i", "testsrc2=size=320x180:rate=100",
            "-re", "-f", "lavfi", "-i", "sine=sample_rate=48000", "-c:v", "libx264", "-preset", "ultrafast", "-g", "12",
            "-bf", "2", "-pix_fmt", "yuv420p", "-threads", "1", "-c:a", "mp2", "-f", "mpegts", "-muxrate", "8M",
            "-flush_packets", "0",
            "udp://239.1.1.1:5000?pkt_size=1316&localaddr=10.99.0.2&ttl=8&bitrate=8000000&burst_bits=10528"]
    encoders = fast if number == FAST else [ROOT / "scripts" / "demo-channels.sh"]
    quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL}
    if number != SILENT:
        subprocess.Popen(encoders, **quiet)
    probe = subprocess.Popen([bin_directory / "kestor", "-s"], **quiet)
    subprocess.Popen([bin_directory / "kestor-station", "--config", configuration], **quiet)
    if number != SILENT:
        subprocess.Popen([bin_directory / "kestor-meter", "--socket", WORK / "meter.sock", "--ring-mib", "8"], **quiet)
    orders = {"cut": ["ip", "link", "set", "feed0", "down"], "mend": ["ip", "link", "set", "feed0", "up"],
              "stop": ["kill", "-STOP", str(probe.pid)], "go": ["kill", "-CONT", str(probe.pid)]}
    for order in sys.stdin:
        subprocess.run(orders[order.strip()], check=True)


class Probe:
    def __init__(self, number, bin_directory):
        self.address = f"10.98.{number}.2:9427"
        self.process = subprocess.Popen([NETNS, sys.executable, __file__, "--probe", str(number), bin_directory],
                                        stdin=subprocess.PIPE, text=True)
        self._connect(number)

    def _connect(self, number):
        """Lays a cable to the process that is in the probe's network."""
        inner = wait_for(lambda: self._inner(), "the probe's network")
        subprocess.run(["ip", "-batch", "-"], check=True, text=True, input=(
            f"link add up{number} type veth peer name uplink netns {inner}\n"
            f"address add 10.98.{number}.1/24 dev up{number}\nlink set up{number} up\n"))

    def _inner(self):
        for entry in Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                arguments = (entry / "cmdline").read_bytes().split(b"\0")
                if arguments[0] == sys.executable.encode() and __file__.encode() in arguments and (
                        arguments[3:4] == [self.process.args[4].encode()]):
                    return entry.name
        return None

    def order(self, text):
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()

    def get(self, path):
        with urllib.request.urlopen(f"http://{self.address}{path}", timeout=5) as answer:
            return answer.read().decode()


# What runs in the network of the servers.

def wait_for(condition, what, seconds=LIMIT_S):
    deadline = time.monotonic() + seconds
    failure = None
    late = False
    while not late:
        late = time.monotonic() > deadline  # then once more, however long the looks before took
        try:
            if result := condition():
                return result
        except (OSError, AssertionError) as error:  # servers that are still starting
            failure = error
        time.sleep(0.2)
    raise AssertionError(f"no {what} within {seconds} s") from failure


def lay_out_templates():
    """Alertmanager reads its templates from where its package puts them; in this network's own view of the files it does."""
    if not Path("/usr/share/prometheus/alertmanager").exists():
        shutil.copytree(UNPACKED / "share", WORK / "share")
        subprocess.run(["mount", "-n", "-t", "overlay", "-o", f"lowerdir={WORK}/share:/usr/share", "overlay", "/usr/share"],
                       check=True)


def receive(take):
    """Is where Alertmanager delivers, and hands over the alerts of each message."""
    class Handler(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            take(json.loads(self.rfile.read(int(self.headers["Content-Length"])))["alerts"])
            self.send_response(200)
            self.end_headers()

        def log_message(self, *arguments):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 9095), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()


def enter(main, server, *arguments):
    """Runs main in a network of its own, where the servers are; ctest is told where they are not."""
    if not (SERVERS / server).exists():
        print("skipped: there are no servers; scripts/install-servers.sh fetches them")
        sys.exit(SKIPPED)
    if os.environ.get("KESTOR_INSIDE"):
        main(*arguments)
    else:
        os.environ["KESTOR_INSIDE"] = "1"
        os.execv(NETNS, [NETNS, sys.executable, sys.argv[0], *arguments])


def start_servers(probes):
    """The examples as they are shipped, but for addresses and a faster pace."""
    shutil.copytree(ROOT / "monitoring", WORK)
    shipped, store = (WORK / "prometheus.yml").read_text().split("#remote_write:")
    configuration = yaml.safe_load(shipped + "remote_write:" + store.replace("\n#", "\n"))
    configuration["global"].update(scrape_interval="1s", scrape_timeout="1s", evaluation_interval="1s")
    configuration["remote_write"][0]["queue_config"] = {"batch_send_deadline": "1s"}
    (WORK / "prometheus.yml").write_text(yaml.safe_dump(configuration))
    (WORK / "targets" / "probes.yml").write_text(yaml.safe_dump(
        [{"targets": [probe.address], "labels": {"probe": name}} for name, probe in zip(PROBES, probes)]))
    lay_out_templates()
    commands = {
        "9093/-/ready": ["prometheus-alertmanager", f"--config.file={WORK}/alertmanager.yml",
                         f"--storage.path={WORK}/am", "--web.listen-address=:9093", "--cluster.listen-address="],
        "8428/health": ["victoria-metrics", f"-storageDataPath={WORK}/vm", "-httpListenAddr=127.0.0.1:8428",
                        "-search.latencyOffset=1s"],
        "9090/-/ready": ["prometheus", f"--config.file={WORK}/prometheus.yml", f"--storage.tsdb.path={WORK}/tsdb",
                         "--web.listen-address=127.0.0.1:9090"]}
    for ready, command in commands.items():
        log = WORK / f"{command[0]}.log"
        with log.open("w") as output:
            server = subprocess.Popen([SERVERS / command[0], *command[1:]], stdout=output, stderr=output)
        wait_for(lambda: server.poll() is not None or urllib.request.urlopen(f"http://127.0.0.1:{ready}", timeout=5),
                 f"answer of {command[0]}")
        require(server.poll() is None, command[0], "ended:", log.read_text()[-2000:])
    return Prometheus("http://127.0.0.1:9090"), Prometheus("http://127.0.0.1:8428")


def alerts(**labels):
    """Alertmanager's active alerts with these labels."""
    with urllib.request.urlopen("http://127.0.0.1:9093/api/v2/alerts?active=true", timeout=5) as answer:
        return [alert for alert in json.load(answer)
                if labels.items() <= alert["labels"].items()]


def check_format(probe):
    """Prometheus' own checker has nothing to say about names, help texts and escapes."""
    text = probe.get("/metrics")
    checked = subprocess.run([SERVERS / "promtool", "check", "metrics"], input=text, capture_output=True, text=True)
    require(checked.returncode == 0 and not checked.stdout + checked.stderr, checked.stdout + checked.stderr)
    require(r'name="News \"HD\""' in text and 'label_a_b="x"' in text, "names are not escaped")


def cut_and_mend(server, probes):
    """Returns a moment at which alarms were raised."""
    of_station = {"alertname": "no_signal", "instance": PROBES[DEMO], "group": "239.1.1.1"}
    of_prometheus = {"alertname": "KestorFeedDown", "probe": PROBES[DEMO]}
    wait_for(lambda: not alerts(**of_station) and not alerts(**of_prometheus), "time without an alert")  # of encoders that began late
    for probe in probes:
        probe.order("cut")
    began = time.monotonic()
    wait_for(lambda: alerts(**of_station), "alert of the station's own")
    wait_for(lambda: alerts(**of_prometheus), "alert of Prometheus")
    print(f"both alerts {time.monotonic() - began:.1f} s after the cut")
    for name in (PROBES[DEMO], PROBES[FAST]):
        wait_for(lambda: server.instant(f'ALERTS{{alertname="KestorFeedDown",alertstate="firing",probe="{name}"}}'), "alert of each")
    moment = time.time()
    for probe in probes:
        probe.order("mend")
    began = time.monotonic()
    for what in (of_station, of_prometheus):
        wait_for(lambda: not alerts(**what), f"end of {what}")
    print(f"all resolved {time.monotonic() - began:.1f} s after the cable was mended")
    require(server.instant('count_over_time(ALERTS{alertname="KestorFeedDown",alertstate="firing"}[2m])'),
            "Prometheus does not remember the alert")
    require(not server.instant('count_over_time(ALERTS{alertname="KestorChannelNoSignal",alertstate="firing"}[2m])'),
            "a channel was told of beside the feed")
    return moment


def compare(stored, record, prefix, columns):
    """Values that are not known yet are left out; all others equal the record's column."""
    compared = 0
    for name, column in columns.items():
        column, divisor = column if isinstance(column, tuple) else (column, 1)
        value = stored.pop(prefix + name, None)
        known = 0 < record[column] < 2**63  # a latency wraps around where a packet came before the join
        require(value is not None or not known, prefix + name, "is missing:", record[column])
        require(value is None or value == record[column] / divisor, prefix + name, value, record[column])
        compared += value is not None
    return compared


def check_values(server, probe, name, groups):
    """Holds what Prometheus has of a stopped probe against the records that the station shows."""
    compared = 0
    for group in groups:
        channel = json.loads(probe.get(f"/api/v1/channels/{group}"))
        series_of = f'kestor_stream_bitrate_bps{{probe="{name}",group="{group}"}}'
        series = server.instant(f'{{__name__=~"kestor_(stream|pid|tr101290)_.+",probe="{name}",group="{group}"}}')
        named = server.instant(f'{series_of} * on (probe, group) group_left (name) kestor_channel_info')
        require([one["metric"]["name"] for one in named] == [channel["name"]], "wrong name", named)
        records = {None: channel["stream"]} | {str(pid["pid"]): pid for pid in channel["pids"] if pid["label"] != "UP"}
        for pid, record in records.items():
            of_record = [one for one in series if one["metric"].get("pid") == pid]
            checks = [one for one in of_record if "check" in one["metric"]]
            for one in checks:
                require(float(one["value"][1]) == record[one["metric"]["check"]], one, record)
            require(pid is not None or len(checks) == 16, group, "has checks", len(checks), sorted({(one["metric"]["__name__"], one["metric"].get("pid")) for one in series}, key=str))
            stored = {one["metric"]["__name__"]: float(one["value"][1]) for one in of_record if one not in checks}
            compared += len(checks) + compare(stored, record, *(("kestor_pid_", PID_COLUMNS) if pid else
                                                               ("kestor_stream_", STREAM_COLUMNS)))
            require(set(stored) <= {"kestor_pid_info", "kestor_stream_state"}, "unexpected", set(stored))
        require(not [one for one in series if one["metric"].get("pid") not in records], "series of unknown PIDs")
    require(compared > 60 * len(groups), "compared only", compared)
    print(compared, "stored values of", name, "equal their records' columns")
    return compared


def check_runbooks():
    """Each alert leads to a chapter of its own, and each chapter of an alert is led to."""
    groups = yaml.safe_load((ROOT / "monitoring" / "rules" / "alerts.yml").read_text())["groups"]
    alerts = {rule["alert"]: rule["annotations"]["runbook_url"] for group in groups for rule in group["rules"] if "alert" in rule}
    chapters = re.findall(r"^### (Kestor\w+)$", (ROOT / "docs" / "runbooks.md").read_text(), re.MULTILINE)
    require(sorted(alerts) == sorted(chapters), "runbooks.md lacks or has too much:", set(alerts) ^ set(chapters))
    for alert, url in alerts.items():
        require(url.endswith(f"/runbooks.md#{alert.lower()}"), alert, "leads to", url)


def check_acknowledgements():
    """An alarm whose acknowledgement keeps an alert from beginning keeps Alertmanager from repeating it as well."""
    rules = yaml.safe_load((ROOT / "monitoring" / "rules" / "alerts.yml").read_text())["groups"][0]["rules"]
    heeded = {(rule["alert"], alarms) for rule in rules if "alert" in rule
              for alarms in re.findall(r'kestor_alarm_acknowledged\{alarm=~?"([^"]+)"\}', rule["expr"])}
    inhibited = set()
    for rule in yaml.safe_load((ROOT / "monitoring" / "alertmanager.yml").read_text())["inhibit_rules"]:
        alarms = re.findall(r'alarm=~?"([^"]+)"', " ".join(rule["source_matchers"]))
        inhibited |= {(re.search(r'alertname=~?"([^"]+)"', rule["target_matchers"][0])[1], one) for one in alarms}
    heeded |= {(rule["alert"], alarm) for rule in rules if rule.get("alert", "KestorAlarmAcknowledged") != "KestorAlarmAcknowledged"
               for alarm in re.findall(r"probe:kestor_(\w+)_acknowledged", rule["expr"])}
    heeded.discard(("KestorChannelNoSignal", "no_signal"))  # has the label itself, as KestorChannelAlarm has
    require(len(heeded) >= 5 and heeded == inhibited, "rules and inhibitions differ:", heeded ^ inhibited)


def check_files():
    """What is shipped, by the servers' own checkers; and each alert and recording rule on made-up series."""
    examples = ROOT / "monitoring"
    for command in (["promtool", "check", "config", examples / "prometheus.yml"],
                    ["promtool", "check", "rules", *examples.glob("rules/*.yml")],
                    ["promtool", "test", "rules", ROOT / "tests" / "monitoring" / "rules.test.yml"],
                    ["amtool", "check-config", examples / "alertmanager.yml", examples / "receivers.yml"]):
        checked = subprocess.run([SERVERS / command[0], *command[1:]], capture_output=True, text=True)
        require(checked.returncode == 0, checked.stdout, checked.stderr)
    check_runbooks()
    check_acknowledgements()
    boards = dashboards.load()
    dashboards.check_files(boards)
    return boards


def main(bin_directory):
    began = time.monotonic()
    boards = check_files()
    probes = [Probe(number, bin_directory) for number in range(len(PROBES))]
    server, store = start_servers(probes)
    wait_for(lambda: len(server.instant("kestor_up == 1")) == len(PROBES), "probe that delivers")
    wait_for(lambda: len(server.instant('kestor_pid_picture_width_pixels')) == 3, "picture")
    check_format(probes[DEMO])

    probes[SILENT].order("stop")
    silent = time.monotonic()
    alarm_at = cut_and_mend(server, [probes[DEMO], probes[FAST]])
    wait_for(lambda: alerts(alertname="KestorProbeSilent", probe=PROBES[SILENT]), "alert for the silent probe")
    time.sleep(max(0, silent + 15 - time.monotonic()))
    require(not server.instant(f'{{__name__=~"kestor_stream.+",probe="{PROBES[SILENT]}"}}'), "stale values stand")
    require(server.instant(f'kestor_channel_info{{probe="{PROBES[SILENT]}"}}'), "the silent probe's channels are gone")
    probes[SILENT].order("go")

    for late in ("kestor_stream_delay_factor_seconds", "kestor_pid_gop_frames", "kestor_ts_pcr_jitter_seconds",
                 "kestor_ts_pcr_accuracy_seconds", "kestor_ts_pcr_offset_ppm"):
        wait_for(lambda: server.instant(f'{late}{{probe="{PROBES[FAST]}"}}'), late)
    for probe in (probes[DEMO], probes[FAST]):
        probe.order("stop")
    time.sleep(3.5)
    for number, groups in ((DEMO, ["239.1.1.1", "239.1.1.2"]), (FAST, ["239.1.1.1"])):  # once the last snapshot is scraped
        wait_for(lambda: check_values(server, probes[number], PROBES[number], groups), "agreement", 20)
    for probe in (probes[DEMO], probes[FAST]):
        probe.order("go")
    choices = [{"probe": ".*", "channel": ".*", "label": "profile", "value": ".*"},
               {"probe": PROBES[FAST], "channel": "239.1.1.1", "label": "label_site", "value": "north"}]
    fleet = [board for board in boards if board["uid"] == "kestor-fleet"]
    for name, one, asked in (("Prometheus", server, boards), ("VictoriaMetrics", store, fleet)):
        # After a few scrapes and evaluations with all of it.
        checks = wait_for(lambda: dashboards.check_queries(one, asked, time.time(), choices, alarm_at), f"answers of {name} to all queries")
        print(f"{checks} panels, variables and annotations answered by {name}")
    names = store.get("label/__name__/values")
    require(not [one for one in names if one.startswith(("kestor_pid", "kestor_ts_", "kestor_net_"))], "series of PIDs were written on")
    written = {one["metric"].get("group") for one in store.instant("kestor_alarm_active")}
    require(written == {None}, "alarms of channels were written on one by one:", written)
    print(f"passed in {time.monotonic() - began:.0f} s")


if __name__ == "__main__":
    if sys.argv[1] == "--probe":
        probe_side(int(sys.argv[2]), Path(sys.argv[3]))
    else:
        enter(main, "prometheus", str(Path(sys.argv[1]).resolve()))
