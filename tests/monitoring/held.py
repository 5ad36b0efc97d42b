#!/usr/bin/env python3
"""held.py: what Alertmanager, as it is shipped, keeps from being sent, by what a receiver gets (some 15 s).

For each of its inhibitions the alert that holds back, the one that is held, and one like it at another probe that is not.
"""
import json
import shutil
import subprocess
import time
import urllib.request
from datetime import datetime, timezone
from pathlib import Path

import yaml

from dashboards import require
from run import ROOT, SERVERS, WORK, enter, lay_out_templates, receive, wait_for

CHANNEL = {"group": "239.1.1.1"}
# Who holds, and what it holds; the labels beside the probe.
CASES = [
    (("KestorStationDown", {}), ("KestorFeedDown", {})),
    (("KestorProbeSilent", {}), ("KestorChannelNoSignal", CHANNEL)),
    (("KestorAlarmAcknowledged", CHANNEL | {"alarm": "pat"}), ("KestorChannelAlarm", CHANNEL | {"alarm": "pat"})),
    (("KestorAlarmAcknowledged", {"alarm": "capture_loss"}), ("KestorProbeAlarm", {"alarm": "capture_loss"})),
    (("KestorAlarmAcknowledged", {"alarm": "probe_silent"}), ("KestorProbeSilent", {})),
    (("KestorAlarmAcknowledged", {"alarm": "feed_down"}), ("KestorFeedDown", {})),
    (("KestorAlarmAcknowledged", {"alarm": "delivery_failing"}), ("KestorDeliveryFailing", {"webhook": "1"})),
    (("KestorAlarmAcknowledged", CHANNEL | {"alarm": "packets_lost"}), ("KestorChannelLossHigh", CHANNEL)),
    (("KestorAlarmAcknowledged", CHANNEL | {"alarm": "continuity"}), ("KestorChannelErrors", CHANNEL)),
    (("KestorAlarmAcknowledged", CHANNEL | {"alarm": "no_signal"}), ("KestorChannelWaiting", CHANNEL)),
]
# What looks alike and holds nothing: another channel's, another alarm's, and one channel of a feed.
FREE = [
    (("KestorAlarmAcknowledged", {"group": "239.1.1.2", "alarm": "packets_lost"}), ("KestorChannelLossHigh", CHANNEL)),
    (("KestorAlarmAcknowledged", CHANNEL | {"alarm": "pmt"}), ("KestorChannelAlarm", CHANNEL | {"alarm": "pat"})),
    (("KestorAlarmAcknowledged", CHANNEL | {"alarm": "no_signal"}), ("KestorFeedDown", {})),
]
WAIT_S = 6  # for what should not come


TOLD = set()


def received(alerts):
    TOLD.update((alert["labels"]["alertname"], alert["labels"]["probe"]) for alert in alerts)


def alert(name, probe, labels):
    return {"labels": {"alertname": name, "probe": probe, "severity": "none" if "Acknowledged" in name else "major", **labels},
            "startsAt": datetime.now(timezone.utc).isoformat()}


def main():
    shutil.copytree(ROOT / "monitoring", WORK)
    shipped = WORK / "alertmanager.yml"
    text = shipped.read_text()
    require("group_wait: 10s" in text, "group_wait is another one")
    shipped.write_text(text.replace("group_wait: 10s", "group_wait: 2s"))
    lay_out_templates()
    receive(received)
    log = (WORK / "alertmanager.log").open("w")
    subprocess.Popen([SERVERS / "prometheus-alertmanager", f"--config.file={shipped}", f"--storage.path={WORK}/am",
                      "--cluster.listen-address="], stdin=subprocess.DEVNULL, stdout=log, stderr=log)
    wait_for(lambda: urllib.request.urlopen("http://127.0.0.1:9093/-/ready", timeout=5), "answer of Alertmanager")

    alerts, held, free = [], set(), set()
    for number, (source, target) in enumerate(CASES + FREE):
        probe, other = f"probe{number}", f"other{number}"
        alerts += [alert(source[0], probe, source[1]), alert(target[0], probe, target[1]), alert(target[0], other, target[1])]
        (held if number < len(CASES) else free).add((target[0], probe))
        free.add((target[0], other))
    request = urllib.request.Request("http://127.0.0.1:9093/api/v2/alerts", json.dumps(alerts).encode(),
                                     {"Content-Type": "application/json"})
    urllib.request.urlopen(request, timeout=5).close()
    wait_for(lambda: free <= TOLD, "message of what is free")
    time.sleep(WAIT_S)
    require(not held & TOLD, "told though held back:", held & TOLD)
    with urllib.request.urlopen("http://127.0.0.1:9093/api/v2/alerts", timeout=5) as answer:
        stopped = {(one["labels"]["alertname"], one["labels"]["probe"]) for one in json.load(answer) if one["status"]["inhibitedBy"]}
    require(stopped == held, "held back are others:", stopped ^ held)
    rules = len(yaml.safe_load(text)["inhibit_rules"])
    require(rules <= len(CASES), "an inhibition without a case")
    print(f"{len(held)} alerts held back, {len(free)} told")


if __name__ == "__main__":
    enter(main, "prometheus-alertmanager")
