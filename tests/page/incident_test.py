#!/usr/bin/python3
"""One fault is one thing: incidents, the shelf and what passed unseen, in the API, in a browser and at receivers, with a
restart between.

Run it through scripts/netns.sh. A writer takes the place of the probe, so that faults are those of the test.
"""
import http.server
import json
import threading
import time
import unittest
import urllib.error

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.support.select import Select

from feeds import CHANNELS, GROUPS, FedTest
from harness import Browser, wait_for

HOOKS = 9461
NORTH = {GROUPS[n] for n in range(0, CHANNELS, 2)}
ROWS = "main [aria-label='Active alarms'] tbody tr"


class Receiver:
    """What webhooks are sent, and what an Alertmanager is."""

    def __init__(self):
        self.told, self.alerts = [], []
        mine = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                body = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
                if self.path.startswith("/am"):
                    mine.alerts += body
                else:
                    mine.told += body["notifications"]
                self.send_response(200)
                self.end_headers()

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", HOOKS), Handler)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def of(self, group, state="raised"):
        return [one for one in self.told if one["group"] == group and one["state"] == state]

    def labels(self, group):
        """Label sets that an Alertmanager was told of a group, without repetition."""
        return {json.dumps(one["labels"], sort_keys=True) for one in self.alerts if one["labels"].get("group") == group}

    def close(self):
        self.server.shutdown()


class IncidentTest(FedTest):
    PORT = 9460
    MORE = f"""
[[webhook]]
url = "http://127.0.0.1:{HOOKS}/hook"
max_per_minute = 600
[[webhook]]
url = "http://127.0.0.1:{HOOKS}/am"
format = "alertmanager"
"""

    @classmethod
    def setUpClass(cls):
        cls.receiver = Receiver()
        cls.addClassCleanup(cls.receiver.close)
        super().setUpClass()

    def setUp(self):
        self.browser.device("dark", 1440, 900)
        self.all_well()
        time.sleep(11)  # what was raised is no chain any more
        self.receiver.told.clear()
        for one in self.station.get("passed"):
            self.station.change("POST", "alarms/acknowledge", {"ids": [one["id"]]})

    def cut(self, groups):
        self.feed.silenced = set(groups)
        wait_for("the alarms", 30, lambda: {one["group"] for one in self.raised()} == set(groups))
        return self.raised()

    def test_a_cut_cable_is_one_row_one_message_and_stays_one_over_a_restart(self):
        alarms = self.cut(NORTH)
        incidents = {alarm["incident"] for alarm in alarms}
        self.assertEqual(len(incidents), 1, alarms)
        [incident] = [one for one in self.station.get("incidents") if not one["over"]]
        self.assertEqual(incident["shared"], {"kind": "label", "name": "site", "value": "north", "text": "site=north"})
        self.assertEqual((incident["alarms"], incident["active"], incident["channels"], incident["covered"]), (20,) * 4)
        self.assertEqual(incident["id"], min(alarm["id"] for alarm in alarms))
        wait_for("all are told", 20, lambda: all(self.receiver.of(group) for group in NORTH))
        self.assertEqual({one["incident"]["id"] for group in NORTH for one in self.receiver.of(group)[-1:]}, incidents)
        wait_for("the Alertmanager", 20, lambda: all(self.receiver.labels(group) for group in NORTH))
        labels = [json.loads(one)["incident"] for group in NORTH for one in self.receiver.labels(group)]
        self.assertEqual(set(labels), {str(incident["id"])}, "grouped by it, it is one message")

        self.browser.open(self.station.url + "#events")
        self.browser.unlock()
        of_channels = lambda: [row for row in self.browser.texts(ROWS + ".lead") if "Channel" in row]
        wait_for("one row", 10, lambda: len(self.browser.texts(ROWS + ".incident-row")) == 1 and not of_channels())
        [row] = self.browser.texts(ROWS + ".incident-row")
        for text in ("site=north", "20 alarms on 20 channels", "First: no signal, Channel ", "critical"):
            self.assertIn(text, row)
        self.browser.run("document.querySelector(arguments[0]).querySelector('button').click()", ROWS + ".incident-row")
        wait_for("its channels", 5, lambda: len(of_channels()) == 20)
        self.browser.press("Acknowledge", ROWS + ".incident-row")
        self.browser.type("Remark", "digger")
        self.browser.press("Acknowledge", "dialog")
        wait_for("all are acknowledged", 10, lambda: all(one["acknowledged"] for one in self.raised()))
        done = self.station.change("POST", "alarms/unacknowledge", {"group": GROUPS[0], "by": "eve"})
        self.assertEqual(done["handled"], 1)

        self.feed.silenced = NORTH - {GROUPS[2]}
        wait_for("one is back", 20, lambda: len(self.raised()) == 19)
        before = {one["id"]: (one["incident"], bool(one["acknowledged"])) for one in self.raised()}
        self.assertEqual(sum(not told for _, told in before.values()), 1)
        self.station.stop()
        self.station.start()
        self.assertEqual({one["id"]: (one["incident"], bool(one["acknowledged"])) for one in self.raised()}, before)
        [again] = [one for one in self.station.get("incidents") if not one["over"]]
        self.assertEqual((again["id"], again["alarms"], again["active"]), (incident["id"], 20, 19))
        self.feed.well()
        wait_for("all is over", 40, lambda: not self.raised())
        wait_for("it is told", 20, lambda: all(self.receiver.of(group, "cleared") for group in NORTH))
        for group in NORTH:
            self.assertEqual(len(self.receiver.labels(group)), 1, "an alert is the same from its raise to its clear")

    def test_what_is_shelved_is_told_to_nobody_until_it_comes_back_by_itself(self):
        group = GROUPS[5]
        self.assertRaises(urllib.error.HTTPError, self.station.change, "POST", "alarms/shelve", {"group": group, "until": self.time(60)})
        shelve = lambda ahead: self.station.change("POST", "alarms/shelve", {
            "group": group, "alarm": "no_signal", "until": self.time(ahead), "by": "ann"})
        shelve(600)
        told = len(self.receiver.of(group))
        for _ in range(2):  # it flaps
            self.cut([group])
            self.feed.well()
            wait_for("it is over", 20, lambda: not self.raised())
        [alarm] = self.cut([group])
        self.assertEqual(alarm["shelved"]["by"], "ann")
        self.station.stop()
        self.station.start()
        [shelved] = self.station.get("shelved")
        self.assertEqual((shelved["group"], shelved["alarmId"]), (group, alarm["id"]))
        self.browser.open(self.station.url + "#events")
        wait_for("it is in the list", 10, lambda: "shelved until" in self.browser.text(ROWS))
        time.sleep(3)
        self.assertEqual(len(self.receiver.of(group)), told, "nobody is told")
        self.assertEqual(self.station.get("passed"), [], "nobody wanted to see it")
        shelve(6)
        wait_for("it comes back", 10, lambda: not self.station.get("shelved"))
        wait_for("it is told", 20, lambda: len(self.receiver.of(group)) == told + 1)
        self.assertIn("shelf", self.receiver.of(group)[-1]["text"])
        window = self.station.change("POST", "maintenance", {"label": {"site": "south", "kind": "news"}, "until": self.time(60)})
        self.addCleanup(self.station.change, "DELETE", f"maintenance/{window['id']}")
        self.assertEqual(window["groups"], [GROUPS[n] for n in range(CHANNELS) if n % 2 and n % 3 == 0])
        silent = {one["group"] for one in self.station.get("channels") if one["maintenance"]}
        self.assertEqual(silent, set(window["groups"]))

    def test_a_label_is_put_into_maintenance_by_its_dialog(self):
        self.browser.open(self.station.url + "#events")
        self.browser.unlock()
        wait_for("the channels' labels", 10, lambda: "site" in self.browser.text("main select[aria-label='Groups']"))
        self.browser.press("Set a window")
        label = wait_for("labels", 5, lambda: self.browser.find("dialog select"))
        Select(label).select_by_visible_text("site=south")
        self.assertTrue(self.browser.run("return document.querySelector('dialog input[type=search]').disabled"), "one or the other")
        self.browser.press("Set", "dialog")
        [window] = wait_for("the window", 10, lambda: self.station.get("maintenance"))
        self.addCleanup(self.station.change, "DELETE", f"maintenance/{window['id']}")
        self.assertEqual((window["about"], set(window["groups"])), ("site=south", set(GROUPS) - NORTH))

    def test_what_passed_stays_marked_on_every_screen_until_somebody_saw_it(self):
        self.cut([GROUPS[9]])
        self.feed.well()
        wait_for("it is over", 20, lambda: not self.raised())
        self.station.stop()
        self.station.start()
        [passed] = self.station.get("passed")
        self.assertEqual((passed["group"], passed["alarm"], passed["times"]), (GROUPS[9], "no_signal", 1))
        self.browser.open(self.station.url)
        wait_for("the mark on the wall", 10, lambda: self.browser.texts("main .tile.passed .name") == ["Channel 10"])
        self.browser.open(self.station.url + "#events")
        self.browser.unlock()
        wait_for("the list", 10, lambda: "Channel 10" in self.browser.text("main [aria-label='Passed alarms']"))
        self.browser.press("Seen", "main [aria-label='Passed alarms']")
        wait_for("it is seen", 10, lambda: not self.station.get("passed"))
        wait_for("the list is empty", 10, lambda: not self.browser.find("main [aria-label='Passed alarms']"))
        self.assertEqual(self.browser.problems(), [])

    def test_what_is_over_is_one_row_where_it_passed_and_on_the_shelf(self):
        self.browser.open(self.station.url + "#events")
        self.browser.unlock()
        rows = lambda which: self.browser.texts(f"main [aria-label='{which} alarms'] tbody tr")
        for which in ("Shelved", "Passed"):
            incident = self.cut(NORTH)[0]["incident"]
            if which == "Shelved":
                self.station.change("POST", "alarms/shelve", {"incident": incident, "until": self.time(600)})
            self.feed.well()
            wait_for("it is over", 40, lambda: not self.raised())
            self.station.stop()
            self.station.start()
            wait_for("one row", 20, lambda: len(rows(which)) == 1)
            for text in ("site=north", "20 alarms on 20 channels", "First: no signal, Channel "):
                self.assertIn(text, rows(which)[0])
            row = f"main [aria-label='{which} alarms'] .incident-row"
            self.browser.run("document.querySelector(arguments[0]).querySelector('button').click()", row)
            wait_for("its channels", 5, lambda: len(rows(which)) == 21)
            path = which.lower()
            self.assertEqual({one["incident"] for one in self.station.get(path)}, {incident})
            if which == "Shelved":
                self.assertEqual(self.station.change("POST", "alarms/unshelve", {"incident": incident})["handled"], 20)
                time.sleep(11)  # what was raised is no chain any more
            else:
                self.browser.press("Seen", row)
            wait_for("the list is empty", 10, lambda: not self.station.get(path) and not rows(which))
        self.assertEqual(self.browser.problems(), [])

    def test_what_one_browser_says_the_other_shows(self):
        self.cut(NORTH)
        other = Browser()
        self.addCleanup(other.close)
        other.open(self.station.url + "#events")
        self.browser.open(self.station.url + "#events")
        self.browser.unlock()
        row = lambda: other.text(ROWS + ".incident-row")
        for browser in (self.browser, other):
            wait_for("the incident", 10, lambda: "20 new" in browser.text(ROWS + ".incident-row"))
        self.assertFalse(other.find(ROWS + ".incident-row td button.small:not([hidden])"), "who may not does not")
        self.browser.press("Acknowledge", ROWS + ".incident-row")
        self.browser.type("Remark", "digger")
        self.browser.press("Acknowledge", "dialog")
        wait_for("it is handled there too", 10, lambda: "nothing new" in row())
        other.run("document.querySelector(arguments[0]).querySelector('button').click()", ROWS + ".incident-row")
        wait_for("by whom and why", 5, lambda: sum("digger" in text for text in other.texts(ROWS + ".lead")) == 20)
        self.station.change("POST", "alarms/unacknowledge", {"group": GROUPS[0]})
        wait_for("one is new again", 10, lambda: "1 new" in row())
        # Maintenance, of which no alarm tells.
        self.browser.open(self.station.url + "#day")
        strip = lambda: self.browser.find("main .day-row:nth-child(2) .day-strip")
        wait_for("the strip of Channel 2", 10, strip)
        windows = lambda: other.text("main [aria-label='Maintenance windows']")
        self.assertEqual(windows(), "")
        window = self.station.change("POST", "maintenance", {"label": {"site": "south"}, "until": self.time(600)})
        wait_for("the window there", 5, lambda: "site=south: 20 channels" in windows())

        def tip():
            for below in (3, 2):  # a move, as of a hand
                ActionChains(self.browser.driver).move_to_element_with_offset(strip(), strip().size["width"] // 2 - 2, below).perform()
            return self.browser.text("main .day-tip")
        # In a cell that begins at this moment with the next look, a minute later.
        wait_for("the window in the 24 hours", 20, lambda: tip().startswith("Channel 2,") and tip().endswith("; maintenance"))
        self.station.change("DELETE", f"maintenance/{window['id']}")
        wait_for("its end there", 5, lambda: windows() == "")
        # What passed is seen once.
        self.station.change("POST", "alarms/acknowledge", {"label": {"site": "north"}})
        self.all_well()
        self.cut([GROUPS[3]])
        self.feed.well()
        passed = lambda: other.text("main [aria-label='Passed alarms']")
        wait_for("what passed", 20, lambda: "Channel 4" in passed())
        self.browser.open(self.station.url + "#wall")
        wait_for("the mark on the wall", 10, lambda: "was in alarm" in self.browser.text("main .tile.passed"))
        self.station.change("POST", "alarms/acknowledge", {"group": GROUPS[3]})
        wait_for("nobody has to look", 10, lambda: "Channel 4" not in passed() and not self.browser.find("main .tile.passed"))
        self.assertEqual(self.browser.problems() + other.problems(), [])

    @staticmethod
    def time(ahead):
        return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() + ahead))


if __name__ == "__main__":
    unittest.main(verbosity=2)
