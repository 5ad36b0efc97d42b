"""Probes that are made up: channels whose faults are those of a test, and very many of them."""
import contextlib
import os
import unittest

from harness import BIN, Browser, Process, Station, Writer, wait_for

CHANNELS = 40
SITES = ("north", "south")
GROUPS = [f"239.3.0.{n + 1}" for n in range(CHANNELS)]
MANY = 1000
MANY_PIPE, MANY_METER = "/tmp/many-pipe", "/tmp/many-meter.sock"


def configuration():
    channels = "".join(f"""
[[channel]]
group = "{group}"
name = "Channel {n + 1}"
labels = {{ site = "{SITES[n % 2]}", kind = "{'news' if n % 3 == 0 else 'film'}" }}
""" for n, group in enumerate(GROUPS))
    # Nobody joins the groups, which the machine's own alarm and a banner would tell some seconds after the first fault.
    return 'instance = "night-probe"\npassive = true\n' + channels


class Feed(Writer):
    """A writer whose channels fall silent, or lose packets, as the test says."""

    def __init__(self, *arguments):
        self.losing, self.lost = set(), {}
        super().__init__(*arguments)

    def record(self, place, group, turn):
        if group in self.losing:
            self.lost[group] = self.lost.get(group, 0) + 40
        values = {"group": group, "kind": 0, "pid": -1, "label": "-1", "bitRate": 0 if group in self.gone else 3_000_000 + 1000 * place,
                  "destinationPort": 5000, "packetsReceived": self.packets(group, turn), "transportQualityIndex": 4.5, "ttl": 8,
                  "packetsLost": self.lost.get(group, 0)}
        return self.line(values)

    def well(self):
        self.silenced, self.losing = set(), set()


class FedTest(unittest.TestCase):
    """A station of these channels and a browser, for all tests of a class that says PORT and what is MORE in the configuration."""

    PIPE, CONTROLLER, MORE = "/tmp/fed-pipe", 5996, ""

    @classmethod
    def setUpClass(cls):
        os.mkfifo(cls.PIPE)
        cls.addClassCleanup(os.unlink, cls.PIPE)
        cls.station = Station(configuration() + cls.MORE, port=cls.PORT, controller=cls.CONTROLLER, pipe=cls.PIPE)
        cls.addClassCleanup(cls.station.close)
        cls.station.start()
        columns = [column["name"] for column in cls.station.get("meta")["columns"]["stream"]]
        cls.feed = Feed(cls.PIPE, cls.CONTROLLER, columns, GROUPS)
        cls.addClassCleanup(cls.feed.close)
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)

    def raised(self):
        return [alarm for alarm in self.station.get("alarms") if alarm["group"]]

    def all_well(self):
        self.feed.well()
        wait_for("all channels are well", 40, lambda: not self.raised() and sum(
            channel["state"] == "ok" for channel in self.station.get("channels")) == CHANNELS)


class ManyChannels(contextlib.ExitStack):
    """A station that watches them; `with` it, or close() it."""

    def __init__(self, **station):
        super().__init__()
        self.groups = [f"239.2.{n // 250}.{n % 250 + 1}" for n in range(MANY)]
        # By the probe, whose faults are those of the writer: what is played to the meter has none.
        text = '[alarms]\nsource = "probe"\n' + "".join(f'''
[[channel]]
group = "{group}"
name = "Channel {n}"
labels = {{ site = "{n % 20}", cable = "{'long' if n % 5 < 2 else 'short'}" }}
''' for n, group in enumerate(self.groups))
        os.mkfifo(MANY_PIPE)
        self.callback(os.unlink, MANY_PIPE)
        self.station = Station(text, port=9428, controller=5998, pipe=MANY_PIPE, **station)
        self.callback(self.station.close)
        self.station.arguments += ("--meter-socket", MANY_METER)
        self.station.start()
        columns = [column["name"] for column in self.station.get("meta")["columns"]["stream"]]
        self.writer = Writer(MANY_PIPE, 5998, columns, self.groups)
        self.callback(self.writer.close)
        self.callback(Process(BIN / "meterLoad", "--socket", MANY_METER, "--seconds", "100000", log="/tmp/many-log").stop)

    def long_cable(self):
        """Groups of the 400 channels behind it."""
        return {group for n, group in enumerate(self.groups) if n % 5 < 2}

    def wait(self):
        """Until all of them are known."""
        wait_for("all channels have data", 20, lambda: self.status()["channels"]["withSignal"] == MANY)
        wait_for("all channels are metered", 20, lambda: (self.status()["meter"] or {}).get("reported") == MANY)

    def status(self):
        return self.station.get("status")
