#!/usr/bin/python3
"""The page in a browser, over the real station and the real probe on encoded video.

Run it through scripts/netns.sh. Leaves pictures of all views in build/page/. KESTOR_PAGE_SECONDS sets how long 1000
channels are watched for growth (default 20).
"""
import os
import pathlib
import re
import signal
import sys
import time
import unittest

from feeds import MANY, ManyChannels
from harness import ROOT, BIN, TOKEN, Browser, Process, Station, cable, wait_for
from report import rfc3339

CONFIGURATION = """
[profile.default.no_signal]
clear_delay_s = 0

[[channel]]
group = "239.1.1.1"
name = "News HD"
labels = { site = "north" }

[[channel]]
group = "239.1.1.2"
name = "Sport"
labels = { site = "south" }

[[channel]]
group = "239.1.1.3"
name = "Spare"
enabled = false
"""
SCRIPT = "<script>window.wasRun = 1</script><img src=x onerror='window.wasRun = 2'>"
HOSTILE = {
    "239.9.0.1": SCRIPT,
    "239.9.0.2": "\u202eright to left\u202c \u05e9\u05dc\u05d5\u05dd",
    "239.9.0.3": "\U0001f3ac emoji \U0001f469\u200d\U0001f680",
    "239.9.0.4": "x" * 256,
}
NAMES = "main .tile .name"
ALARMS = "main [aria-label='Active alarms'] tbody"
EVENTS = "main [aria-label='Events'] tbody"


def tile(name):
    return f"""return [...document.querySelectorAll('main .tile')]
                   .find((node) => node.querySelector('.name').textContent === {name!r})"""


class PageTest(unittest.TestCase):
    """One probe, one station and one browser for all; tests run in the order of their names."""

    @classmethod
    def setUpClass(cls):
        cls.processes = []
        log = pathlib.Path("/tmp/page-log")
        log.mkdir(exist_ok=True)
        cls.processes.append(Process(ROOT / "scripts/demo-channels.sh", log=log / "channels"))
        cls.station = Station(CONFIGURATION)
        cls.addClassCleanup(cls.station.close)
        cls.station.start()
        cls.processes.append(Process(BIN / "kestor", "-s", log=log / "kestor"))
        for process in cls.processes:
            cls.addClassCleanup(process.stop)
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)
        wait_for("both channels are well", 30, lambda: sum(
            channel["state"] == "ok" for channel in cls.station.get("channels")) == 2)

    def setUp(self):
        self.browser.device("dark", 1440, 900)

    def tearDown(self):
        self.assertEqual(self.browser.problems(), [])

    def open(self, fragment=""):
        self.browser.open(self.station.url + fragment)
        wait_for("the page is live", 10, lambda: self.browser.find("#connection.live"))

    def state_of(self, name):
        return self.browser.run(tile(name) + "?.className.match(/is-(\\w+)/)[1]")

    def shows_what_is_known(self):
        channel = self.station.get("channels/239.1.1.1")
        known = channel["severity"] if channel["state"] == "alarm" else channel["state"]
        return known != "waiting" and self.state_of("News HD") == known

    def test_1_a_fault_appears_and_clears_within_three_seconds(self):
        self.open()
        self.addCleanup(cable, "up")

        def taken(state, what, shows):
            began = time.monotonic()
            cable(state)
            wait_for(what, 10, shows)
            return time.monotonic() - began
        times = []
        for _ in range(3):  # other work on the machine may come in between
            wait_for("both are ok", 30, lambda: self.state_of("News HD") == self.state_of("Sport") == "ok")
            self.assertEqual(self.state_of("Spare"), "disabled")
            fault = taken("down", "the fault on the page", lambda: self.state_of("News HD") == "critical")
            wait_for("its name on the tile", 2,
                     lambda: "no signal" in self.browser.run(tile("News HD") + ".textContent"))
            self.assertEqual(self.browser.texts(NAMES)[-1], "Spare")  # trouble comes first, what nobody watches last
            # The link's as well, which may come later than both channels', and these one after the other.
            wait_for("all of them", 5, lambda: "3 critical" in self.browser.text("#severities .is-critical"))
            self.browser.image("wall-fault")
            times.append(max(fault, taken("up", "the page without the fault", lambda: "no signal" not in "".join(
                self.browser.texts("main .tile")))))
            if times[-1] < 3:
                break
        self.assertLess(times[-1], 3, times)

    def test_2_a_channel_shows_what_the_probe_measures(self):
        self.open("#channel/239.1.1.1")
        facts = self.browser.facts
        wait_for("the bit rate", 10, lambda: re.match(r"[34]\.\d+ Mbit/s", facts().get("Bit rate", "")))
        self.assertEqual(facts()["Group"], "239.1.1.1:5000")
        self.assertRegex(facts()["Source"], r"10\.99\.0\.2:\d+")
        self.assertEqual(facts()["TTL"], "8")
        detail = self.station.get("channels/239.1.1.1")
        rows = lambda: self.browser.texts(".pids .leaf")
        wait_for("a row a PID", 5, lambda: len(rows()) == len(detail["pids"]))
        video = lambda: next(row for row in rows() if "256 (0x0100)" in row)
        self.assertIn(self.station.get("meta")["streamTypes"]["27"], video())
        wait_for("the size of its pictures", 5, lambda: "720 × 576" in video())
        self.assertEqual(self.browser.texts(".lamps th[scope=row]"),
                         [f"{check['number']} {check['name']}".strip() for priority in (1, 2, 0)
                          for check in self.station.get("meta")["checks"] if check["priority"] == priority])
        plots = self.browser.run("return [...document.querySelectorAll('.plot')].filter((one) => one.checkVisibility()).length")
        self.assertGreaterEqual(plots, 7)
        wait_for("all plots are drawn", 10, lambda: self.browser.painted() == plots)
        self.browser.images("channel")
        # A time of the last minutes as a link.
        moment = time.time() - 5
        at = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(moment))
        self.open(f"#channel/239.1.1.1?t={at}")
        # A second may have no value of its own, and shows the one before.
        clocks = tuple(time.strftime("%H:%M:", time.localtime(moment - before)) for before in (0, 2))
        wait_for("the values of that time", 10, lambda: self.browser.text(".plot output").startswith(clocks))
        self.assertIn(f"t={at[:17]}", self.browser.run("return decodeURIComponent(location.hash)"))

    def test_3_search_state_and_order(self):
        self.open()
        wait_for("all channels", 10, lambda: len(self.browser.texts(NAMES)) == 3)
        for fragment, names in {
                "#?q=239.1.1.2": ["Sport"],
                "#?q=site%3Dnorth": ["News HD"],
                "#?state=disabled": ["Spare"],
                "#?sort=name": ["News HD", "Spare", "Sport"],
                "#?sort=number": ["News HD", "Sport", "Spare"],
                "#?label=site%3Dsouth": ["Sport"],
        }.items():
            self.open(fragment)
            wait_for(f"{fragment} shows {names}", 5, lambda: self.browser.texts(NAMES) == names)
        self.open("#?view=table&sort=name")
        wait_for("the table", 5, lambda: self.browser.texts(".wall-table .name") == ["News HD", "Spare", "Sport"])
        self.browser.images("table")
        self.open("#wall")
        wait_for("tiles without controls", 5, lambda: len(self.browser.texts(NAMES)) == 3)
        self.assertFalse(self.browser.find("header").is_displayed())
        self.browser.images("kiosk")
        self.browser.find("body").send_keys("\ue00c")  # Escape
        wait_for("the way back", 5, lambda: self.browser.find("header").is_displayed())
        self.browser.images("wall")

    def test_4_an_alarm_is_acknowledged_by_those_who_may(self):
        critical = lambda: [alarm for alarm in self.station.get("alarms") if alarm["severity"] == "critical"]
        wait_for("no fault yet", 30, lambda: not critical())
        self.addCleanup(cable, "up")
        cable("down")
        self.open("#events?severity=critical")  # a busy machine may raise lesser ones of its own
        # Of both channels, and of the link, which may come later: rows stay where they are from then on.
        wait_for("the alarms", 10, lambda: len(self.browser.texts(f"{ALARMS} tr.lead")) == 3)
        self.assertFalse(self.browser.find(f"{ALARMS} td button.small:not([hidden])"))
        texts = {alarm["text"] for alarm in critical()}
        self.assertGreaterEqual(len(texts), 1)
        wait_for("what is told of each", 5, lambda: set(self.browser.texts(f"{ALARMS} td.text-cell > bdi")) >= texts)
        self.browser.press("Unlock")
        self.browser.type("Token", "wrong")
        self.browser.press("Allow")
        wait_for("the refusal at the field", 5,
                 lambda: "does not take" in self.browser.text("dialog .field .field-error"))
        self.browser.type("Token", TOKEN)
        self.browser.press("Allow")
        wait_for("the token is taken", 5, lambda: self.browser.text("#token") == "Lock")
        self.browser.press("Acknowledge", f"{ALARMS} tr.lead")
        self.browser.type("Who", "Ada")
        self.browser.type("Remark", "cable <b>out</b>")
        self.browser.press("Acknowledge", "dialog")
        wait_for("the remark in the list", 3, lambda: "Ada cable <b>out</b>" in self.browser.text(ALARMS))
        told = [alarm["acknowledged"] for alarm in self.station.get("alarms") if alarm["acknowledged"]]
        self.assertEqual([one["remark"] for one in told], ["cable <b>out</b>"])
        self.browser.press("Set a window")
        self.browser.type("Until", "2001-01-01T00:00")
        self.browser.press("Set", "dialog")
        wait_for("the refusal of a past window", 5, lambda: "".join(self.browser.texts("dialog .field-error")))
        self.browser.press("Cancel", "dialog")
        self.browser.images("events")
        cable("up")
        wait_for("no fault", 30, lambda: not critical())
        wait_for("the list is empty", 3, lambda: not self.browser.texts(f"{ALARMS} tr.lead"))
        wait_for("the clearing in the events", 5, lambda: "No signal" in self.browser.text(EVENTS))

    def test_5_import_and_edit(self):
        self.addCleanup(self.station.forget)
        self.open("#edit")
        self.browser.unlock()
        count = 1200  # more than one call takes
        playlist = "#EXTM3U\n" + "".join(
            f"#EXTINF:-1 tvg-id=\"i{n}\",Imported {n}\nudp://@239.8.{n // 250}.{n % 250}:5000\n"
            for n in range(count))
        self.browser.type("Playlist", playlist + "http://example.net/none\n")
        self.browser.press("Import")
        wait_for("the result", 30, lambda: f"{count:,} added, 0 changed, 1 skipped" in self.browser.text("main"))
        self.assertEqual(len(self.station.get("channels")), count + 3)
        for field, group, name, word in (("Group", "10.1.1.1", "", "multicast group"),
                                         ("Name", "239.7.0.1", "n" * 10_000, "256")):
            self.browser.type("Group", group)
            self.browser.type("Name", name)
            self.browser.press("Add")
            wait_for(f"what is wrong with the {field}", 5, lambda: word in self.browser.error_at(field))
        self.browser.images("edit")
        self.browser.type("Name", "Renamed soon")
        self.browser.press("Add")
        wait_for("the channel", 5,
                 lambda: "Renamed soon" in [channel["name"] for channel in self.station.get("channels")])
        self.browser.search("239.7.0.1")
        wait_for("its row", 5, lambda: self.browser.texts("main tbody tr bdi") == ["Renamed soon"])
        self.browser.press("Change", "main tbody")
        self.browser.type("Name", "Renamed")
        self.browser.press("Change", "dialog")
        wait_for("its new name", 5, lambda: self.browser.texts("main tbody tr bdi") == ["Renamed"])
        self.browser.press("Remove", "main tbody")
        self.browser.press("Remove", "dialog")
        wait_for("no row", 5, lambda: not self.browser.texts("main tbody tr"))

    def test_6_hostile_names_are_text(self):
        for group, name in HOSTILE.items():
            self.station.change("PUT", f"channels/{group}", {"name": name, "labels": {"l": SCRIPT}})
        self.addCleanup(lambda: [self.station.change("DELETE", f"channels/{group}") for group in HOSTILE])
        for fragment in ("", "#?view=table", "#edit", "#events", "#channel/239.9.0.1", "#channel/239.9.0.4"):
            self.open(fragment)
            if fragment in ("", "#?view=table", "#edit"):
                wait_for("the names as they are", 5, lambda: set(HOSTILE.values()) <= set(self.browser.texts("main bdi")))
            time.sleep(0.5)
            self.assertIsNone(self.browser.run("return window.wasRun ?? null"))
            self.assertFalse(self.browser.find("main img, main script"))
            self.assertLessEqual(*self.browser.run("return [document.documentElement.scrollWidth, innerWidth]"))
        self.open("#?q=239.9.")
        # What mirrors a text ends with the name that has it: the group below stands as it is.
        wait_for("the four of them", 5, lambda: len(self.browser.texts(NAMES)) == len(HOSTILE))
        self.assertEqual(self.browser.run(
            "return getComputedStyle(document.querySelector('.tile .name')).unicodeBidi"), "isolate")
        self.browser.image("wall-hostile")
        shown = self.browser.run("""const {visible} = await import('/page/format.js');
                                    return visible('a\\u0000\\u001b\\u007f\\u0085\\ud800b')""")
        self.assertEqual(shown, "a\u2400\u241b\u2421\ufffd\ufffdb")

    def test_7_one_stream_for_all_tabs_and_it_comes_back(self):
        self.open()
        first = self.browser.driver.current_window_handle
        for _ in range(3):
            self.browser.driver.switch_to.new_window("tab")
            self.browser.driver.get(self.station.url)
            wait_for("the tab is live", 10, lambda: self.browser.find("#connection.live"))
        wait_for("one stream", 5, lambda: self.station.get("use")["server"]["streams"] == 1)
        for handle in self.browser.driver.window_handles:
            if handle != first:
                self.browser.driver.switch_to.window(handle)
                self.browser.driver.close()
        self.browser.driver.switch_to.window(first)
        self.station.stop(signal.SIGKILL)
        wait_for("the page says so", 5, lambda: re.search(
            r"No data from the station since \d\d:\d\d:\d\d", self.browser.text("#banner")))
        self.assertEqual(self.browser.run("return document.documentElement.dataset.stale"), "station")
        self.browser.image("wall-lost")
        self.station.start()
        wait_for("the page is live again", 10, lambda: self.browser.find("#connection.live"))
        wait_for("nothing to say", 20, lambda: not self.browser.find("#banner").is_displayed())
        wait_for("the page shows what the station knows", 20, self.shows_what_is_known)
        self.open("#probe")
        wait_for("what the station uses", 10, lambda: "resident" in self.browser.text("main"))
        self.browser.images("probe")


class ManyChannelsTest(unittest.TestCase):
    """1000 channels that a writer and a player make up, in the place of a probe and a meter."""

    def test_1000_channels(self):
        many = ManyChannels()
        self.addCleanup(many.close)
        station = many.station
        browser = Browser()
        self.addCleanup(browser.close)
        many.wait()
        browser.open(station.url)
        wait_for("first picture", 60, lambda: browser.run("return performance.getEntriesByName('kestor-wall').length"))
        first_cpu = browser.metric("ThreadTime") * 1000
        first = browser.run("return performance.measure('wall', undefined, 'kestor-wall').duration")
        wait_for("every channel has a tile", 10, lambda: len(browser.texts(NAMES)) == MANY)
        wait_for("bit rates", 5, lambda: "Mbit/s" in browser.text(".tile .measure"))
        wait_for("what the meter says of them", 5, lambda: "H.264" in browser.text(".tile .format"))
        seconds = int(os.environ.get("KESTOR_PAGE_SECONDS", "20"))
        cost = browser.main_thread_ms(25)  # alarms came and went once
        kept = [browser.kept()]
        for _ in range(4):  # a leak grows each time; what a busy machine comes to late grows once
            cost = max(cost, browser.main_thread_ms(seconds))
            kept.append(browser.kept())
            grown, more_nodes = (after - before for before, after in zip(*kept[-2:]))
            if grown < 300_000 and more_nodes < 300:
                break
        browser.image("wall-1000")
        # A cut cable is one row, whatever its channels had before, and leaves the page in peace.
        browser.open(station.url + "#events")
        wait_for("alarms of before", 20, lambda: browser.find("main .alarm-list tbody tr"))
        many.writer.flapping = False
        wait_for("no chain that goes on", 30, lambda: not [one for one in station.get("incidents") if not one["over"] and
                                                           one["last"] > rfc3339(-12)])
        many.writer.silenced = many.long_cable()
        row = lambda: "".join(text for text in browser.texts("main .alarm-list .incident-row") if "cable=long" in text)
        wait_for("one row", 20, lambda: "400 alarms on 400 channels" in row())
        in_storm = browser.main_thread_ms(10)
        browser.image("events-1000")
        many.writer.silenced = set()
        wait_for("its end", 30, lambda: not row())
        browser.open(station.url)
        wait_for("the wall again", 10, lambda: len(browser.texts(NAMES)) == MANY)
        # As many tiles as such screens have room for, all of whose bit rates move.
        on_screens = {}
        for name, device, most in (("full HD", (1920, 1080), 60), ("4K", (3840, 2160), 100)):
            browser.device("dark", *device)
            time.sleep(3)
            on_screens[name] = browser.main_thread_ms(15)
            for _ in range(2):  # other work on the machine may have come in between, and takes its caches
                if on_screens[name] > most:
                    on_screens[name] = min(on_screens[name], browser.main_thread_ms(15))
        print("ms of the main thread a second:", on_screens, f"400 alarms on the list of events: {in_storm:.0f}")
        print(f"1000 channels: first picture {first:.0f} ms, {first_cpu:.0f} ms of them the main thread's, "
              f"{cost:.1f} ms of it a second, every {seconds} s heap and nodes:",
              ", ".join(f"{size / 1e6:.2f} MB {nodes:.0f}" for size, nodes in kept))
        self.assertLess(first_cpu, 1000)
        self.assertLess(cost, 100)
        self.assertLess(in_storm, 300)
        # 60 and 100 are what is held on a machine that does nothing else; compiling beside it makes it half as much again.
        self.assertLess(on_screens["full HD"], 90)
        self.assertLess(on_screens["4K"], 150)
        self.assertLess(grown, 300_000)
        self.assertLess(more_nodes, 300)
        self.assertEqual(browser.problems(), [])


if __name__ == "__main__":
    unittest.main(verbosity=2, argv=[sys.argv[0], *sys.argv[1:]])
