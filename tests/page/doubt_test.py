#!/usr/bin/python3
"""What the page says while the station tells little, late or wrong: over a real station whose probe is made up, through a
proxy that spoils its answers. Run it through scripts/netns.sh.
"""
import json
import pathlib
import re
import shutil
import sys
import time
import unittest

from harness import ROOT, TOKEN, Browser, SpoiledTest, Station, wait_for

CONFIGURATION = """
[profile.default.no_signal]
raise_delay_s = 0

[[channel]]
group = "239.1.1.1"
name = "News HD"

[[channel]]
group = "239.1.1.2"
name = "Never There"
labels = { group = "News, World", site = "north" }
"""
ALARMS = "main [aria-label='Active alarms'] tbody tr.lead"
EVENTS = "main [aria-label='Events'] tbody tr"


class DoubtTest(SpoiledTest):
    CONFIGURATION, GROUPS, SILENT = CONFIGURATION, ["239.1.1.1"], ["239.1.1.2"]

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.alarmed()

    @classmethod
    def alarmed(cls):
        """Until what is wrong all along is told: of the channel that never came, and of this machine, where nobody joined it."""
        wait_for("both alarms", 30, lambda: {"no_signal", "not_joined"} <= {alarm["alarm"] for alarm in cls.station.get("alarms")})

    def open(self, fragment="", url=None):
        self.browser.open((url or self.between.url) + fragment)

    def live(self):
        wait_for("the page is live", 15, lambda: self.browser.find("#connection.live"))

    def shown(self, selector="main"):
        return self.browser.run("return document.querySelector(arguments[0])?.innerText ?? ''", selector)

    def test_what_was_not_told_is_unknown(self):
        for path in ("stream", "status", "alarms", "events", "maintenance", "access"):
            self.between.spoil(f"/api/v1/{path}", "hang" if path == "stream" else 503)
        self.open("#events")
        wait_for("counts", 5, lambda: self.browser.texts("#severities b"))
        time.sleep(2)
        self.assertEqual(self.browser.texts("#severities b"), ["–"] * 4)
        for untrue in ("No alarm", "No event", "No window"):
            self.assertNotIn(untrue, self.shown())
        wait_for("what is shelved and passed", 5, lambda: self.shown().count("Not known yet.") == 3)
        wait_for("word of it", 5, lambda: "No data from the station" in self.shown("#banner"))
        self.browser.image("doubt-events")
        self.alarmed()
        # What is asked for fills it, without a stream.
        self.between.rules = [rule for rule in self.between.rules if "stream" in rule[0]]
        raised = lambda: [alarm["severity"] for alarm in self.station.get("alarms")]
        wait_for("the alarms", 15,
                 lambda: self.browser.text("#severities .is-critical b") == str(raised().count("critical")))
        wait_for("their rows and the events", 10,
                 lambda: len(self.browser.texts(ALARMS)) == len(raised()) and self.browser.texts(EVENTS))
        self.assertIn("event stream does not come", self.shown("#banner"))
        wait_for("what changes need", 10, lambda: self.shown("#token") == "Unlock")
        self.assertEqual(self.browser.run("return document.documentElement.dataset.stale"), "")
        texts = {alarm["text"] for alarm in self.station.get("alarms")}
        self.assertNotIn("", texts)
        wait_for("what is told of each", 10, lambda: texts <= set(self.browser.texts(f"{ALARMS} td.text-cell > bdi")))
        self.browser.image("doubt-alarms")
        self.open()
        wait_for("the tile by an answer", 10, lambda: "Mbit/s" in self.shown("main"))
        self.assertIn("critical alarm", self.browser.text("main .is-critical"))

    def test_modules_that_are_refused_are_asked_for_again(self):
        for file in ("tile.js", "style.css", "main.js", "lamps.js"):
            self.between.spoil(file, 503)
        self.browser.cdp("Network.clearBrowserCache")
        self.open("#channel/239.1.1.1")
        wait_for("word of what is missing", 5, lambda: "not give all of this page" in self.browser.text("body"))
        self.between.mend()
        self.browser.run("window.isFirst = true")
        for file in ("lamps.js", "plots.js", "dygraph.min.js"):
            self.between.spoil(file, 503, times=2)
        wait_for("the channel with its plots", 30, lambda: len(self.browser.run(
            "return [...document.querySelectorAll('.plot-area canvas')]")) > 0)
        self.assertNotIn("all of this page", self.shown("body"))
        self.assertEqual(self.browser.run("return getComputedStyle(document.querySelector('header')).position"), "sticky")
        # It was loaded anew once, since main.js did not run; for what a view lacks it is not.
        self.assertFalse(self.browser.run("return window.isFirst ?? false"))
        loads = lambda: [path for _, path in self.between.asked].count("/")
        self.assertEqual(loads(), 3)  # the first, the question whether it would come, the second
        for file in ("events.js", "alarmTable.js"):
            self.between.spoil(file, 503, times=2)
        self.browser.cdp("Network.clearBrowserCache")
        self.browser.run("location.hash = '#events'")
        # A channel's view has events of its own.
        wait_for("the events", 15, lambda: self.browser.text("main h1") == "Events and alarms" and self.browser.texts(EVENTS))
        self.assertEqual(loads(), 3, "loaded anew without need")

    def test_a_burst_leaves_no_hole_in_the_events(self):
        self.open("#events?kind=channel_added")
        self.live()
        wait_for("the first events", 10, lambda: "No event" in self.shown() or self.browser.texts(EVENTS))
        count = 505
        groups = [f"239.8.{n // 250}.{n % 250}" for n in range(count)]
        self.station.upload("#EXTM3U\n" + "".join(f"#EXTINF:-1,B {n}\nudp://@{g}:5000\n" for n, g in enumerate(groups)))
        self.addCleanup(self.station.forget)
        wait_for("all of them", 15, lambda: len(self.browser.texts(EVENTS)) >= count)
        ids = [int(one) for one in self.browser.run(
            "return [...document.querySelectorAll(arguments[0])].map((row) => row.dataset.id)", EVENTS)]
        told = [event["id"] for event in self.station.get("events?kind=channel_added&limit=1000")]
        self.assertEqual(ids, told)

    def test_nothing_is_judged_without_a_signal(self):
        self.open()
        self.live()
        wait_for("both tiles", 5, lambda: len(self.browser.texts("main .tile .measure")) == 8)
        tile = self.browser.run("""return [...document.querySelectorAll('main .tile')]
            .find((node) => node.textContent.includes('Never There')).innerText""")
        self.assertEqual(re.findall(r"\d\.\d", tile.replace("239.1.1.2", "")), [], tile)
        self.open("#channel/239.1.1.2")
        wait_for("the lamps", 10, lambda: "No signal" in self.shown())
        wait_for("no numbers", 5, lambda: set(self.browser.texts(".lamps td.number")) == {"–"})
        time.sleep(1.5)
        self.assertEqual(self.browser.run("return document.querySelectorAll('.lamps tr.quiet').length"), 0)
        self.browser.image("doubt-never")

    def test_errors_from_before_the_station_looked(self):
        self.open("#channel/239.1.1.1")
        last = lambda: dict(self.browser.run(
            "return [...document.querySelectorAll('.lamps tbody tr')].map((row) => "
            "[row.querySelector('th').textContent, row.lastChild.textContent])"))
        wait_for("the lamps", 10, lambda: last().get("2.1 Transport_error") not in (None, "", "–"))
        self.assertRegex(last()["2.1 Transport_error"], r"^before (\d{4}-\d\d-\d\d )?\d\d:\d\d:\d\d$")
        self.assertEqual(last()["2.2 CRC_error"], "never")
        self.assertRegex(self.shown(".lamps + .note"), r"since .*\d\d:\d\d:\d\d")

    def test_what_is_known_of_this_machine(self):
        told = {}

        def of_machine(answer):
            status = json.loads(answer)
            status["machine"].update(told)
            return json.dumps(status).encode()

        facts = self.browser.facts
        machine = wait_for("a look", 10, lambda: (found := self.station.get("status")["machine"])["known"] and found)
        self.between.spoil("/api/v1/status", of_machine)
        received = dict(machine["interface"]["received"], dropped=5, missed=312, fifo=7)
        told.update(drops=312, dropsLastMinute=31, backlog={"processed": 9, "dropped": 2, "timeSqueeze": 3},
                    interface=dict(machine["interface"], bitsPerSecond=10**9, received=received))
        self.open("#probe")
        wait_for("the card", 10, lambda: facts().get("Interface") == "eth0")
        self.assertEqual(facts()["Link"], "up, 1.00 Gbit/s")
        for term, value in {"Dropped here in the last minute": "31", "Dropped here since the start": "312",
                            "rx_dropped": "5", "rx_missed_errors": "312", "rx_fifo_errors": "7",
                            "Backlog: dropped, all interfaces": "2"}.items():
            self.assertEqual(facts()[term], value, term)
        self.browser.image("doubt-machine")
        told.update(linkProblem="eth0 has no carrier: <b>look</b>", joinProblem="239.1.1.2 is not joined on eth0")
        wait_for("what is wrong with it", 15, lambda: facts()["Link"] == told["linkProblem"])
        self.assertEqual(facts()["Joins"], told["joinProblem"])
        # Nothing that is not known is shown as a number, nor as being well.
        told.clear()
        told.update(known=False, problem="this machine cannot be looked at", interface=None, backlog=None, drops=None,
                    dropsLastMinute=None, notJoined=None, linkProblem=None, joinProblem=None, doubled=None)
        wait_for("why nothing is known", 15, lambda: facts()["Link"] == f"not known: {told['problem']}")
        for term in ("Interface", "Joins", "Carrier changes", "Packets received", "Dropped here in the last minute",
                     "Dropped here since the start", "rx_dropped", "rx_missed_errors", "rx_fifo_errors",
                     "Backlog: dropped, all interfaces"):
            self.assertEqual(facts()[term], "–", term)

    def test_a_removed_channel_is_not_well(self):
        self.station.change("PUT", "channels/239.1.1.1", {"name": "Soon gone"})
        self.addCleanup(self.station.change, "PUT", "channels/239.1.1.1", {"name": "News HD"})
        self.open("#channel/239.1.1.1")
        wait_for("its bit rate", 10, lambda: "Mbit/s" in self.shown(".facts"))
        self.station.change("DELETE", "channels/239.1.1.1")
        wait_for("word of it", 5, lambda: "was removed" in self.shown())
        self.assertNotIn("Mbit/s", self.shown(".facts"))
        self.assertNotRegex(self.shown(".identity"), r"\bok\b")
        self.assertEqual(self.browser.run("return document.querySelectorAll('.lamps tr.quiet').length"), 0)
        self.browser.image("doubt-removed")

    def test_what_operators_type(self):
        self.addCleanup(self.station.forget)
        self.open("#edit", self.station.url)
        self.browser.unlock()
        listed = lambda group: wait_for(f"{group} is listed", 5, lambda: self.browser.find(f"main tr[data-group='{group}']"))
        listed("239.1.1.1")
        said = lambda: self.shown("main form")
        for group, word in (("10.1.1.1", "names no multicast group"), ("239.1.1.1", "such a channel"),
                            ("239.1.1.9:99999", "above 65535"), ("", "is needed"), ("", "is needed")):
            self.browser.type("Group", group)
            self.browser.press("Add")
            wait_for(f"{word} for {group!r}", 5, lambda: word in self.browser.error_at("Group"))
        for number, typed in enumerate(("239.1.2.1:5000", "udp://@239.1.2.2:5001", " rtp://10.0.0.7@239.1.2.3:5002/ ",
                                        "http://proxy:4022/udp/239.1.2.4:5003"), 1):
            self.browser.type("Group", typed)
            self.browser.press("Add")
            wait_for(f"{typed} is added", 5, lambda: f"239.1.2.{number} was added" in said())
            self.assertEqual(self.browser.error_at("Group"), "")
            listed(f"239.1.2.{number}")
            identity = self.station.get(f"channels/239.1.2.{number}")["identity"]
            self.assertEqual(identity["listedPort"], 4999 + number)
            self.assertEqual(identity["listedSource"], "10.0.0.7" if number == 3 else None)
        # The same refusal again, and away with what was said before.
        self.browser.type("Group", "239.1.2.1")
        self.browser.press("Add")
        wait_for("the refusal", 5, lambda: "such a channel" in self.browser.error_at("Group"))
        self.assertNotIn("was added", said())
        # A label whose value has a comma.
        self.browser.search("239.1.1.2")
        wait_for("its row", 5, lambda: self.browser.texts("main tbody tr bdi") == ["Never There"])
        self.browser.press("Change", "main tbody")
        self.browser.type("Name", "Still Not There")
        self.browser.press("Change", "dialog")
        wait_for("its name", 5, lambda: self.browser.texts("main tbody tr bdi") == ["Still Not There"])
        self.browser.press("Change", "main tbody")
        self.browser.type("Labels", "group=News, World\nsite=a=b, c")
        self.browser.press("Change", "dialog")
        wait_for("its labels", 5, lambda: self.station.get("channels/239.1.1.2")["labels"] ==
                 {"group": "News, World", "site": "a=b, c"})
        # One playlist, one request.
        self.browser.type("Playlist", "#EXTM3U\r#EXTGRP:Old, Mac\r" + "".join(
            f"#EXTINF:-1,{'N' * 200} {n}\rudp://@239.8.{n // 250}.{n % 250}:5000\r" for n in range(600)))
        self.browser.press("Import")
        wait_for("the result", 10, lambda: "600 added" in self.shown())
        self.assertEqual(self.station.get("channels/239.8.2.99")["labels"]["group"], "Old, Mac")

    def test_nobody_silences_every_channel_by_leaving_something_out(self):
        self.open("#events", self.station.url)
        self.browser.unlock()
        windows = lambda: self.station.get("maintenance")
        self.browser.press("Set a window")
        self.browser.press("Set", "dialog")
        wait_for("the question which", 5, lambda: "Choose a channel" in self.browser.error_at("Channel"))
        self.browser.type("Channel", "no such thing")
        self.browser.press("Set", "dialog")
        wait_for("the refusal", 5, lambda: "choose from the list" in self.browser.error_at("Channel"))
        self.browser.type("Channel", "news")
        self.browser.press("Set", "dialog")
        wait_for("the window", 5, lambda: [one["group"] for one in windows()] == ["239.1.1.1"])
        self.browser.press("Set a window")
        self.browser.click("dialog[open] input[type=checkbox]")
        self.browser.press("Set", "dialog")
        wait_for("the window for all", 5, lambda: {one["group"] for one in windows()} == {"239.1.1.1", None})
        for one in windows():
            self.station.change("DELETE", f"maintenance/{one['id']}")
        self.browser.press("Acknowledge all shown")
        self.browser.type("Remark", "cable out\r\n\n  Ada was called ")
        self.browser.press("Acknowledge", "dialog")
        wait_for("the remark in one line", 5, lambda: {
            alarm["acknowledged"] and alarm["acknowledged"]["remark"] for alarm in self.station.get("alarms")} ==
            {"cable out Ada was called"})
        # A part of a name finds alarms and events alike.
        self.browser.type("Channel", "ever th")
        wait_for("events and alarms of it", 5, lambda: self.browser.texts(EVENTS) and all(
            "Never There" in row for row in self.browser.texts(EVENTS)) and len(self.browser.texts(ALARMS)) == 1)
        self.browser.type("Channel", "sport")
        wait_for("none of another", 5, lambda: "No event" in self.shown() and "passes the filters" in self.shown())

    def test_a_token_that_is_not_right_any_more(self):
        self.open("#edit", self.station.url)
        self.browser.unlock()
        self.browser.run("sessionStorage.setItem('kestor-token', 'of-yesterday')")
        self.browser.type("Group", "239.1.3.1")
        self.browser.press("Add")
        wait_for("the question for another", 5, lambda: "does not take the token" in self.shown("dialog"))
        self.assertIsNone(self.browser.run("return sessionStorage.getItem('kestor-token')"))
        self.browser.image("doubt-token")
        self.browser.type("Token", TOKEN)
        self.browser.press("Allow")
        wait_for("what was asked for", 5, lambda: "239.1.3.1 was added" in self.shown())
        self.station.change("DELETE", "channels/239.1.3.1")
        # One that was kept is looked at when the page is loaded.
        self.browser.run("sessionStorage.setItem('kestor-token', 'of-yesterday')")
        self.browser.driver.refresh()
        self.live()
        wait_for("the way to unlock", 5, lambda: self.browser.text("#token") == "Unlock")

    def test_names_that_cannot_be_seen(self):
        names = {"239.9.1.1": "   ", "239.9.1.2": "\u200b\u2060\ufeff", "239.9.1.3": "\u3164\u2800\u00ad", "239.9.1.4": "a\u200bb"}
        for group, name in names.items():
            self.station.change("PUT", f"channels/{group}", {"name": name})
            self.addCleanup(self.station.change, "DELETE", f"channels/{group}")
        wanted = {"239.9.1.1", "239.9.1.2", "239.9.1.3", "a\u200bb"}
        self.open("#?view=table&q=239.9.1.")
        wait_for("groups in their place", 10, lambda: set(self.browser.texts(".wall-table .name")) == wanted)
        widths = self.browser.run("return [...document.querySelectorAll('.wall-table a')].map((a) => a.offsetWidth)")
        self.assertGreater(min(widths), 5)
        self.open("#edit")
        wait_for("links", 10, lambda: wanted <= set(self.browser.texts("main tbody a")))
        self.open("#channel/239.9.1.2")
        wait_for("the title", 10, lambda: self.browser.text("main h1") == "239.9.1.2")


class OtherStationsTest(unittest.TestCase):
    def setUp(self):
        self.browser = Browser()
        self.addCleanup(self.browser.close)

    def start(self, *arguments, **named):
        station = Station(*arguments, port=9441, controller=5997, **named)
        self.addCleanup(station.close)
        return station.start()

    def test_three_browsers_at_once_on_a_channel(self):
        # Six connections each is what browsers keep open.
        station = self.start('[http]\nconnections_per_address = 8\n[[channel]]\ngroup = "239.1.1.1"\n')
        others = [Browser(), Browser()]
        for other in others:
            self.addCleanup(other.close)
        self.browser.open(station.url + "#events")
        for browser in others:
            browser.open(station.url + "#channel/239.1.1.1")
        self.browser.run("location.hash = '#channel/239.1.1.1'")
        for browser in (self.browser, *others):
            wait_for("every plot in every browser", 20, lambda: len(browser.readouts()) > 3 and all(browser.readouts()))
            self.assertNotIn("not give all", browser.text("body"))

    def test_without_a_token_file_the_page_says_how_to_allow_changes(self):
        station = self.start("", token=False)
        self.browser.open(station.url + "#edit")
        wait_for("word of it", 10, lambda: "takes no changes over the network" in self.browser.text("main") and
                 "token_file" in self.browser.text("main"))
        self.assertEqual(self.browser.text("#token"), "Look only")
        self.assertFalse([node for node in self.browser.driver.find_elements("css selector", "main form")
                          if node.is_displayed()])
        self.browser.image("doubt-no-token")

    def test_a_webhook_that_fails_is_told_while_the_probe_is_silent(self):
        station = self.start('[[webhook]]\nurl = "http://127.0.0.1:9/hook"\n'
                             '[profile.default.delivery_failing]\nraise_delay_s = 0\n'
                             '[profile.default.probe_silent]\nraise_delay_s = 0\n')
        self.browser.open(station.url + "#probe")
        wait_for("a line in the banner", 20, lambda: [line for line in self.browser.texts("#banner p") if re.search(
            r"^Webhook 1 \(http://127.0.0.1:9\) is told of no alarm since \d\d:\d\d:\d\d: \S", line)])
        self.assertEqual(len(self.browser.texts("#banner p")), 2)
        wait_for("the station's use", 10, lambda: "last problem" in self.browser.text("main"))
        self.assertEqual(self.browser.run("return document.documentElement.dataset.stale"), "probe")
        self.assertEqual(self.browser.run("return getComputedStyle(document.querySelector('.of-station')).filter"), "none")
        self.assertFalse(self.browser.find("main .live-data"))
        self.browser.image("doubt-webhook")

    def test_a_page_that_outlives_an_upgrade_is_loaded_anew(self):
        page = pathlib.Path("/tmp/page-copy")
        shutil.copytree(ROOT / "station/page", page)
        self.addCleanup(shutil.rmtree, page)
        station = self.start("", page=page)
        self.browser.open(station.url)
        there = lambda: "No data from the probe" in self.browser.text("#banner")
        wait_for("the page", 15, there)
        self.browser.run("window.isOld = true")
        station.stop()
        wait_for("the page says so", 15, lambda: not there())
        station.start()
        wait_for("the page is live again", 15, there)
        time.sleep(2)
        self.assertTrue(self.browser.run("return window.isOld ?? false"), "loaded anew without need")
        station.stop()
        with open(page / "wall.js", "a", encoding="utf-8") as file:
            file.write("// mended\n")
        station.start()
        wait_for("the new page", 20, lambda: not self.browser.run("return window.isOld ?? false") and there())


if __name__ == "__main__":
    unittest.main(verbosity=2, argv=[sys.argv[0], *sys.argv[1:]])
