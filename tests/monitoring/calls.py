#!/usr/bin/env python3
"""calls.py BIN_DIRECTORY: whom the alerts call, and for what, by what a receiver gets (a minute and a half).

A probe of a hundred channels with its station, Prometheus with the rules and Alertmanager, in a network of their own.
A station is killed while channels are down, a feed is cut and mended, a channel goes away in a maintenance window: each
is one message, nothing is called over that may not be, and all is called over in the end.
"""
import http.client
import json
import shutil
import signal
import socket
import subprocess
import sys
import time
import urllib.request
from datetime import datetime, timedelta, timezone
from pathlib import Path

import yaml

from dashboards import Prometheus, require
from run import ROOT, SERVERS, WORK, enter, lay_out_templates, receive, wait_for

GROUPS = [f"239.2.0.{number}" for number in range(1, 101)]
LOST = GROUPS[:3]
PLANNED = GROUPS[10]
SENDING = WORK / "groups"  # what the sender sends to
QUIET_S = 6  # so long nothing else has to come; the servers' steps take a second each


def section(table_id, extension, content):
    """A section of ISO/IEC 13818-1, 2.4.4, in a packet's payload."""
    head = bytes([table_id, 0xB0, len(content) + 9]) + extension.to_bytes(2, "big") + bytes([0xC1, 0, 0]) + content
    crc = 0xFFFFFFFF
    for byte in head:
        crc ^= byte << 24
        for _ in range(8):
            crc = (crc << 1 ^ (0x04C11DB7 if crc >> 31 else 0)) & 0xFFFFFFFF
    return (bytes(1) + head + crc.to_bytes(4, "big")).ljust(184, b"\xFF")


def packet(pid, counter, payload):
    begins_section = pid < 256
    return bytes([0x47, begins_section << 6 | pid >> 8, pid & 0xFF, 0x10 | counter % 16]) + payload


def send():
    """A datagram of seven packets, PAT and PMT among them, to each of the groups, five times a second; counters go on unseen."""
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("10.99.0.2"))
    pat = section(0, 1, bytes([0, 1, 0xE0, 0x20]))  # program 1: PMT on PID 32
    pmt = section(2, 1, bytes([0xE1, 0, 0xF0, 0, 6, 0xE1, 0, 0xF0, 0]))  # private data on PID 256
    counter = 0
    while True:
        datagram = packet(0, counter, pat) + packet(32, counter, pmt) + b"".join(
            packet(256, counter * 5 + i, bytes(184)) for i in range(5))
        counter += 1
        for group in SENDING.read_text().split():
            try:
                sender.sendto(datagram, (group, 5000))
            except OSError:  # the cable is cut
                pass
        time.sleep(0.2)


MESSAGES = []  # what is new in each, in order


def received(alerts):
    MESSAGES.append([(alert["status"], alert["labels"]["alertname"], alert["labels"].get("group")) for alert in alerts])


def told(since=0):
    """Of each alert the states that messages told, in order, each change once."""
    states = {}
    for message in MESSAGES[since:]:
        for status, name, group in message:
            if states.setdefault((name, group), [])[-1:] != [status]:
                states[name, group].append(status)
    return states


def expect(states, since, what):
    """Waits until exactly these are told, and nothing else for a while."""
    began = time.monotonic()
    wait_for(lambda: told(since) == states or states.keys() <= told(since).keys() and time.monotonic() - began > 20, what)
    print(f"{what}: {len(MESSAGES) - since} messages after {time.monotonic() - began:.1f} s")
    time.sleep(QUIET_S)
    require(told(since) == states, what, "told was", told(since))
    return len(MESSAGES)


def send_to(groups):
    beside = SENDING.with_suffix(".new")
    beside.write_text(" ".join(groups))
    beside.replace(SENDING)


def lay_out():
    shutil.copytree(ROOT / "monitoring", WORK)
    configuration = yaml.safe_load((WORK / "prometheus.yml").read_text())
    configuration["global"].update(scrape_interval="1s", scrape_timeout="1s", evaluation_interval="1s")
    (WORK / "prometheus.yml").write_text(yaml.safe_dump(configuration))
    # The same rules and routes at a faster pace.
    pace = {"rules/alerts.yml": [("for: 15s", "for: 2s"), ("for: 30s", "for: 6s"), ("[1m]", "[6s]")],
            "alertmanager.yml": [("group_wait: 10s", "group_wait: 1s"), ("group_interval: 1m", "group_interval: 2s")]}
    for name, changes in pace.items():
        text = (WORK / name).read_text()
        for slow, fast in changes:
            require(slow in text, slow, "is not in", name)
            text = text.replace(slow, fast)
        (WORK / name).write_text(text)
    channels = "\n".join(f'[[channel]]\ngroup = "{group}"' for group in GROUPS)
    (WORK / "station.toml").write_text(f'socket = "{WORK}/station.sock"\nmeter_socket = ""\nstate_dir = "{WORK}/state"\n{channels}\n'
                                       + "".join(f"[profile.default.{alarm}]\nenabled = false\n" for alarm in
                                                 ("quality_index", "mos"))
                                       + "[profile.default.no_signal]\nraise_delay_s = 3\n")
    send_to(GROUPS)
    lay_out_templates()


def start(command, ready, name):
    log = (WORK / f"{name}.log").open("a")
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
    if ready:
        wait_for(lambda: urllib.request.urlopen(f"http://127.0.0.1:{ready}", timeout=5), f"answer of {name}")
    require(process.poll() is None, name, "ended")
    return process


def station_call(method, path, body=None):
    connection = http.client.HTTPConnection("localhost")
    connection.sock = socket.socket(socket.AF_UNIX)
    connection.sock.connect(str(WORK / "station.sock"))
    connection.request(method, path, json.dumps(body) if body else None, {"Content-Type": "application/json"})
    answer = connection.getresponse()
    text = answer.read().decode()
    require(answer.status < 300, method, path, answer.status, text)
    return json.loads(text) if text else None


def cable(state):
    subprocess.run(["ip", "link", "set", "feed0", state], check=True)


def main(bin_directory):
    began = time.monotonic()
    lay_out()
    receive(received)
    start([sys.executable, __file__, "--send"], None, "sender")
    start([f"{bin_directory}/kestor", "-s"], None, "probe")
    station_command = [f"{bin_directory}/kestor-station", "--config", f"{WORK}/station.toml"]
    station = start(station_command, "9427/healthz", "station")
    start([SERVERS / "prometheus-alertmanager", f"--config.file={WORK}/alertmanager.yml", f"--storage.path={WORK}/am",
           "--cluster.listen-address="], "9093/-/ready", "alertmanager")
    start([SERVERS / "prometheus", f"--config.file={WORK}/prometheus.yml", f"--storage.tsdb.path={WORK}/tsdb",
           "--web.listen-address=127.0.0.1:9090"], "9090/-/ready", "prometheus")
    server = Prometheus("http://127.0.0.1:9090")
    wait_for(lambda: server.instant('count(kestor_stream_state{state="ok"} == 1) == %d' % len(GROUPS)), "all channels")
    time.sleep(QUIET_S)
    require(not told(), "told before anything happened:", told())

    no_signal = [("KestorChannelNoSignal", group) for group in LOST]
    station_down, feed_down = ("KestorStationDown", None), ("KestorFeedDown", None)

    send_to(GROUPS[3:])
    seen = expect({one: ["firing"] for one in no_signal}, 0, "three channels without signal")

    station.send_signal(signal.SIGKILL)
    station.wait()
    seen = expect({station_down: ["firing"]}, seen, "a dead station, and nothing that is over")
    station = start(station_command, "9427/healthz", "station")
    seen = expect({station_down: ["resolved"]}, seen, "its return; the channels are still without signal")

    cable("down")
    cut = seen
    seen = expect({feed_down: ["firing"]}, seen, "a cut feed of a hundred channels")
    require(seen - cut == 1, "a cut feed takes", seen - cut, "messages")
    send_to(GROUPS)
    cable("up")
    seen = expect({one: ["resolved"] for one in [feed_down, *no_signal]}, seen, "a mended feed, with all channels")

    until = datetime.now(timezone.utc) + timedelta(hours=1)
    window = station_call("POST", "/api/v1/maintenance", {"group": PLANNED, "until": until.isoformat(timespec="milliseconds").replace("+00:00", "Z")})
    wait_for(lambda: server.instant(f'kestor_channel_maintenance{{group="{PLANNED}"}} == 1'), "maintenance")
    send_to([group for group in GROUPS if group != PLANNED])
    wait_for(lambda: server.instant(f'kestor_alarm_active{{group="{PLANNED}",alarm="no_signal"}} == 1'), "the alarm")
    seen = expect({}, seen, "a channel in maintenance")
    station_call("DELETE", f"/api/v1/maintenance/{window['id']}")
    expect({("KestorChannelNoSignal", PLANNED): ["firing"]}, seen, "the end of its maintenance")
    print(f"passed in {time.monotonic() - began:.0f} s")


if __name__ == "__main__":
    if sys.argv[1] == "--send":
        send()
    else:
        enter(main, "prometheus", str(Path(sys.argv[1]).resolve()))
