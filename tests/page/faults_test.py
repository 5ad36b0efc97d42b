#!/usr/bin/python3
"""Each fault of a cable, on encoded video, with probe, meter, station and browser: raised soon under its right name, and nothing
else; cleared; in the histories; on the page. Run it through scripts/netns.sh.
"""
import datetime
import re
import sys
import time
import unittest

from cable import AUDIO, Play, Recording, cueing, encode, later, losing, scrambled, swapping, with_cues, without
from harness import BIN, Browser, Process, Station, wait_for

SECONDS = 400  # of the recordings, of which the test takes 55 on an idle machine
AT = 15  # s: streams are known, and faults begin
LOW = 6
SOON = 5  # beside other work; by itself 2
ALL_ALONG = 1e9
CONFIGURATION = """
[profile.default.scrambled]
enabled = true

[profile.default.bitrate_low]
enabled = true
raise_level = 500000
clear_level = 600000
raise_delay_s = 0
clear_delay_s = 2
"""


class Fault:
    """What becomes of a channel's stream in a window, in s from AT on, and what has to follow: alarms, with the time of the limit
    that each waits for; what a history shows; a lamp that counts; what the page says of loss."""

    def __init__(self, window=None, fault=None, alarms=(), history=None, lamp=None, verdict="Nothing is lost", rtp=False):
        self.window, self.alarms, self.history, self.lamp, self.verdict, self.rtp = window, dict(alarms), history, lamp, verdict, rtp
        self.windows = [(AT + window[0], AT + window[1], fault)] if fault else []


some = lambda points: sum(point[1] or 0 for point in points) > 0
LOST = ("meter.packetsLost", some)
COUNTER = "1.4 Continuity_count_error"
# Each begins at another place in a second. Loss and disorder end before the score of the records, which RTP does not help, is
# low for 3 s.
FAULTS = {
    "clean": Fault(),
    "loss": Fault((0, 1.9), losing(5), {"continuity": 0, "packets_lost": 0}, LOST, COUNTER, "packets are missing|whole datagrams"),
    "burst": Fault((0.2, 0.28), losing(1), {"continuity": 0, "loss_bursts": 0}, LOST, COUNTER,
                   "whole datagrams of 7 packets: that points to the network"),
    "RTP loss": Fault((0.15, 1.1), losing(20), {"rtp_loss": 0, "continuity": 0}, LOST, COUNTER, "The network lost datagrams", True),
    "swapped": Fault((0.3, 0.6), swapping(20), {"continuity": 0}, ("Continuity_count_error", some), COUNTER, "packets are missing"),
    "RTP swapped": Fault((0.4, 2.3), swapping(20), verdict="out of order and were put in order", rtp=True),
    "no PAT": Fault((0.5, ALL_ALONG), without(0, 2), {"pat": 1}, None, "1.3.a PAT_error_2"),
    "no sound": Fault((0.05, ALL_ALONG), without(AUDIO, 40), {"audio_missing": 2, "pid_missing": 5}, None, "1.6 PID_error"),
    "scrambled": Fault((0.6, 2), scrambled(AUDIO), {"scrambled": 0}, None, "2.6 CAT_error"),
    "clock step": Fault((0.7, ALL_ALONG), later(5), {"pcr_discontinuity": 0}, None, "2.3.b PCR_discontinuity_indicator_error"),
    "low rate": Fault((0, LOW), None, {"bitrate_low": 0},
                      ("bitRate", lambda points: min(point[1] for point in points if point[1]) < 500_000)),
    "cue": Fault((0.8, ALL_ALONG), cueing(4711)),
}
FAULTS["cue"].windows.insert(0, (0, AT + 0.8, with_cues))
GROUPS = {name: f"239.1.1.{number}" for number, name in enumerate(FAULTS, 1)}


def seconds(text):
    return datetime.datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()


class FaultsTest(unittest.TestCase):
    """One play of all faults, side by side; tests run in the order of their names."""

    @classmethod
    def setUpClass(cls):
        recordings = []
        for name, low in (("constant", None), ("varying", (AT, AT + LOW))):
            encode(f"/tmp/{name}.ts", SECONDS, low)
            recordings.append(Recording(f"/tmp/{name}.ts"))
        cls.station = Station(CONFIGURATION + "".join(
            f'[[channel]]\ngroup = "{group}"\nname = "{name}"\n' for name, group in GROUPS.items()))
        cls.addClassCleanup(cls.station.close)
        cls.station.arguments += ("--meter-socket", "/tmp/faults.sock")
        cls.station.start()
        for program, *arguments in (("kestor", "-s"), ("kestor-meter", "--socket", "/tmp/faults.sock")):
            cls.addClassCleanup(Process(BIN / program, *arguments, log="/tmp/faults-log").stop)
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)
        wait_for("the meter reports", 30, lambda: (cls.station.get("status")["meter"] or {}).get("reported") == len(FAULTS))
        cls.plays = [Play(recording, {GROUPS[name]: (fault.rtp, fault.windows) for name, fault in FAULTS.items()
                                      if (name == "low rate") == (recording is recordings[1])}) for recording in recordings]
        for play in cls.plays:
            cls.addClassCleanup(play.close)

    def tearDown(self):
        self.assertEqual(self.browser.problems(), [])

    def test_1_the_wall_names_them(self):
        self.browser.open(self.station.url)
        time.sleep(max(0, self.plays[0].begun + AT - time.time()))
        titles = {one["name"]: one["title"] for one in self.station.get("meta")["alarmTypes"]}
        tile = """return [...document.querySelectorAll('main .tile')]
                      .find((node) => node.querySelector('.name').textContent === arguments[0])?.innerText ?? ''"""
        for name, fault in sorted(FAULTS.items(), key=lambda one: "bitrate_low" not in one[1].alarms):  # what is over first
            if fault.alarms:
                wait_for(f"the tile of {name}", 10, lambda: any(
                    titles[alarm].lower() in self.browser.run(tile, name).lower() for alarm in fault.alarms))
        for name in ("clean", "RTP swapped", "cue"):
            self.assertIn("ok", self.browser.run(tile, name))
        wait_for("the cue", 5, lambda: "▸ out" in self.browser.run(tile, "cue"))
        self.browser.image("faults-wall")

    def test_2_each_channel_shows_its_own(self):
        lamp = """const row = [...document.querySelectorAll('.checks tr:has(button)')]
                      .find((row) => row.querySelector('button').textContent === arguments[0]);
                  return row && !['quiet', 'unknown'].includes(row.className) && row.querySelector('.number').textContent"""
        scale = """return [...document.querySelectorAll("section.plot[aria-label='Packets lost'] .dygraph-axis-label-y")].map(
                       (one) => one.textContent).join(' ')"""
        for name, fault in sorted(FAULTS.items(), key=lambda one: one[0] != "cue"):  # whose line shows a minute
            self.browser.open(f"{self.station.url}#channel/{GROUPS[name]}")
            wait_for(f"what is said of loss on {name}", 15, lambda: re.search(fault.verdict, self.browser.text(".verdict")))
            if fault.lamp:
                wait_for(f"the lamp {fault.lamp} of {name}", 10, lambda: re.match("[1-9]", self.browser.run(lamp, fault.lamp) or ""))
            if fault.history == LOST:
                wait_for(f"the plot of what {name} lost", 10, lambda: self.browser.run(scale) not in ("", "0 1"))  # as without loss
            if name == "clock step":
                jumps = "return document.querySelector(\"main [aria-label='Clocks'] tbody tr\")?.lastChild.textContent"
                wait_for("the jump among the clock's figures", 5, lambda: self.browser.run(jumps) == "1, 0")
                wait_for("the plot of the clock", 10, lambda: re.fullmatch(
                    r"[\d.]+ ns", self.browser.text("section.plot[aria-label='Accuracy'] output")))
            if name == "cue":
                wait_for("the cue", 5, lambda: "4711" in self.browser.text("main [aria-label='Cues'] tbody tr"))
                self.assertIn("out 4711 at ", self.browser.find(".cue-line").get_attribute("aria-label"))
            self.browser.image(f"fault-{name}")

    def test_3_a_clean_channel_shows_what_it_is(self):
        browser = self.browser
        browser.open(f"{self.station.url}#channel/{GROUPS['clean']}")
        wait_for("codec and size", 15, lambda: "320 × 240p25, " in browser.text("main [aria-label='Services and streams']"))
        wait_for("the group", 10, lambda: "IPBBPBBPBBPB" in (browser.find(".group-strip").get_attribute("aria-label") or ""))
        browser.images("meter", 1.2)
        cost = browser.main_thread_ms(5)
        print(f"a channel's view with a meter: {cost:.1f} ms of the main thread a second")
        self.assertLess(cost, 100)

    def test_4_each_is_raised_soon_under_its_name_and_cleared_and_nothing_else_is(self):
        wait_for("all is well again", 30, lambda: time.time() > self.plays[0].begun + AT + 10 and not self.station.get("alarms"))
        events = self.station.get("events?limit=1000")
        for name, fault in FAULTS.items():
            with self.subTest(name):
                play = self.plays[name == "low rate"]
                told = [event for event in events if event["group"] == GROUPS[name]]
                for kind in ("raised", "cleared"):
                    self.assertEqual(sorted(event["alarm"] for event in told if event["kind"] == kind), sorted(fault.alarms), told)
                for event in told:
                    after = seconds(event["time"]) - play.begun - AT - fault.window[0]
                    self.assertGreater(after, 0, event)
                    if event["kind"] == "raised":
                        self.assertLess(after, SOON + fault.alarms[event["alarm"]], event)
                        self.assertEqual(event["source"], "meter", event)
                self.assertEqual([event["text"].split(" on ")[0] for event in told if event["kind"] not in ("raised", "cleared")],
                                 ["splice_insert 4711"] if name == "cue" else [])
                if fault.history:
                    metric, shows = fault.history
                    self.assertTrue(shows(self.station.get(f"channels/{GROUPS[name]}/history?metric={metric}")["points"]), metric)
        reordered = self.station.get(f"channels/{GROUPS['RTP swapped']}/meter")
        self.assertGreater(reordered["network"]["rtp"]["outOfOrder"], 5)
        self.assertEqual(reordered["packets"]["lost"]["packets"], 0)
        self.assertEqual([event["alarm"] for event in events if event["kind"] == "raised" and not event["group"]], [])


if __name__ == "__main__":
    unittest.main(verbosity=2, argv=[sys.argv[0], *sys.argv[1:]])
