#!/usr/bin/python3
"""What the page makes of a meter's reports, made up in between a real station and the browser; faults_test.py has real ones. Run it
through scripts/netns.sh.
"""
import json
import sys
import threading
import time
import unittest

from harness import SpoiledTest, wait_for
from report import blank, cue, hold_against_api, report, rfc3339, segment, stream

CONFIGURATION = """
[[channel]]
group = "239.1.1.1"
name = "News HD"
"""
SCRIPT = "<script>window.wasRun = 1</script><img src=x onerror='window.wasRun = 2'>"
METER = {"connected": True, "silent": False, "problem": None, "version": "1", "connections": 1, "reported": 1}
TITLES = "main h2"
STREAMS = "main [aria-label='Services and streams']"


class MadeUpTest(SpoiledTest):
    """Reports that nobody measured."""

    CONFIGURATION, GROUPS = CONFIGURATION, ["239.1.1.1"]

    def setUp(self):
        super().setUp()
        self.meter = None
        self.report = report()
        self.history = []  # that the station keeps of the meter's measures
        self.ended = threading.Event()
        self.addCleanup(self.ended.set)

    def tearDown(self):
        self.assertEqual([one for one in self.browser.problems() if "503" not in one], [])
        self.assertIsNone(self.browser.run("return window.wasRun ?? null"))

    def deliver(self):
        """A report a second from here on: what self.report says."""
        hold_against_api(self.report)
        self.meter = METER

        def status(answer):
            return json.dumps(json.loads(answer) | {"meter": self.meter}).encode()

        def tick():
            while not self.ended.wait(1):
                self.report["seconds"] += 1
        threading.Thread(target=tick, daemon=True).start()
        def meta(answer):  # whatever the station keeps of a meter that is not there
            told = json.loads(answer)
            told["historyMetrics"] = self.history + [
                metric for metric in told["historyMetrics"] if not metric["name"].startswith("meter.")]
            return json.dumps(told).encode()
        self.between.spoil("/api/v1/meta$", meta)
        self.between.spoil("/api/v1/status", status)
        self.between.spoil("/meter$", self.report)

    def show(self):
        self.deliver()
        self.browser.open(self.between.url + "#channel/239.1.1.1")
        wait_for("the meter's panels", 15, lambda: self.browser.find(".records"))

    def stream_tells(self, told):
        """These fields of each channel in the event stream, as they are then."""
        def rows(line):
            if not line.startswith(b"data: {") or b'"fields"' not in line:
                return line
            data = json.loads(line[6:])
            for name, value in told.items():
                if name not in data["fields"]:
                    data["fields"].append(name)
                    data["channels"] = [row + [None] for row in data["channels"]]
                for row in data["channels"]:
                    row[data["fields"].index(name)] = value
            return b"data: " + json.dumps(data).encode() + b"\n"
        self.between.spoil("/stream$", rows)

    def lamps(self):
        """Class, sign, figures and whether something is said, by a check's name."""
        return {name: (*rest, ) for name, *rest in self.browser.run("""
            return [...document.querySelectorAll('.checks tr:has(button)')].map((row) => [
              row.querySelector('button').textContent, row.className, row.querySelector('.sign').textContent,
              [...row.querySelectorAll('.number')].map((cell) => cell.textContent).join(' '),
              row.nextSibling.checkVisibility() ? row.nextSibling.innerText : ''])""")}

    def verdict(self):
        return self.browser.text(".verdict")

    def test_without_a_meter_all_is_as_the_probe_has_it(self):
        self.browser.open(self.between.url + "#channel/239.1.1.1")
        wait_for("plots and lamps", 15, lambda: self.browser.find(".plot-area canvas") and self.browser.find(".lamps .sign"))
        time.sleep(2.5)
        self.assertEqual(self.browser.texts(TITLES),
                         ["Active alarms", "TR 101 290", "Plots", "Programs and PIDs", "Events"])
        self.assertFalse([path for _, path in self.between.asked if path.endswith("/meter")], "nobody is asked in vain")
        self.assertNotIn("Service", self.browser.facts())

    def test_panels_by_concern_and_the_records_in_one_of_their_own(self):
        self.show()
        self.assertEqual(self.browser.texts(TITLES), [
            "Active alarms", "What is wrong: TR 101 290", "Services and streams", "Time line", "Loss and network", "Clocks",
            "Pictures", "Cues", "▸ Records", "Events"])
        # Of the channel as well, which is another answer.
        wait_for("the rate", 5, lambda: self.browser.facts().get("Bit rate") == "4.10 Mbit/s, constant")
        self.assertEqual(self.browser.facts()["Video"], "1920 × 1080i25, H.264")
        wait_for("the meter's plots", 10, lambda: self.browser.painted() == 7)
        self.browser.run("document.querySelector('.plots.wide').focus()")
        self.browser.driver.switch_to.active_element.send_keys("\ue012")  # left
        wait_for("the cursor of the keyboard", 3, lambda: " · " in self.browser.text(".plots.wide output"))
        asked = lambda: [path for _, path in self.between.asked if "/history" in path]
        before = len(asked())
        time.sleep(3)
        self.assertEqual(len(asked()), before, "plots that are folded away are not loaded")
        self.browser.click(".records button")
        wait_for("the probe's plots, checks and PIDs", 10, lambda: self.browser.painted(".records") > 6)
        self.assertIn("PCR_error", self.browser.text(".records .lamps"))
        self.assertTrue(self.browser.find(".records .pids"))

    def test_what_the_station_keeps_is_drawn_from_its_history(self):
        self.history = [{"name": "meter.delayFactor", "unit": "ms", "counter": False}]
        times = [rfc3339(-seconds) for seconds in range(300, 0, -1)]
        self.between.spoil("/history.metrics=meter.delayFactor&", {"times": times, "series": [{"values": [7] * 300}]})
        self.show()
        readout = lambda: self.browser.text("main section.plot[aria-label='Delay factor'] output")
        wait_for("the history's value, not the report's", 10, lambda: readout() == "7 ms")

    def test_a_lamp_says_what_its_check_does(self):
        checks = {check["name"]: check for check in self.report["checks"]}
        checks["PAT_error_2"].update(count=1, seconds=4, last=600, active=True, pids={"0": 1})
        checks["Continuity_count_error"].update(count=7, seconds=3, last=598, pids={"256": 5, "257": 2})
        checks["CRC_error"].update(count=2, seconds=1, last=12, pids={"17": 2})
        checks["PCR_accuracy_error"].update(applicable=False)
        checks["PTS_error"].update(count=3, seconds=3, last=599, pids={"257": 3})
        raised = {"id": 9, "alarm": "pts", "meaning": "", "group": "239.1.1.1", "channel": "News HD", "severity": "major",
                  "raised": rfc3339(-5), "source": "meter", "text": "late", "value": 3, "peak": 3, "unit": "error", "acknowledged": None}
        of_probe = raised | {"id": 10, "alarm": "pat", "source": "probe"}  # says nothing of what the meter counts
        shared = raised | {"id": 11, "alarm": "service_information", "severity": "warning"}
        checks["SDT_actual_error"].update(count=4, seconds=4, last=600, pids={"17": 4})
        self.between.spoil("/channels/239.1.1.1$", lambda answer: json.dumps(
            json.loads(answer) | {"alarms": [raised, of_probe, shared]}).encode())
        self.show()
        wait_for("the alarm's lamp", 5, lambda: self.lamps()["2.5 PTS_error"][0] == "is-major")
        lamps = self.lamps()
        for name, (kind, sign, begin) in {
                "1.1 TS_sync_loss": ("quiet", "○", "0 0 never"), "1.3.a PAT_error_2": ("holds", "◉", "1 4 now"),
                "1.4 Continuity_count_error": ("counts", "◐", "7 3 "), "2.2 CRC_error": ("was", "◌", "2 1 "),
                "2.4 PCR_accuracy_error": ("inapplicable", "–", "– – –"), "2.5 PTS_error": ("is-major", "▲", "3 3 "),
                "3.5.a SDT_actual_error": ("is-warning", "●", "4 4 "), "3.8 TDT_error": ("quiet", "○", "0 0 never")}.items():
            self.assertEqual(lamps[name][:2], (kind, sign), name)
            self.assertTrue(lamps[name][2].startswith(begin), lamps[name])
        self.assertIn("PIDs 256 (0x0100) 5 ×, 257 (0x0101) 2 ×", lamps["1.4 Continuity_count_error"][3])
        said = {name for name, lamp in lamps.items() if lamp[3]}
        self.assertEqual(said, {"1.3.a PAT_error_2", "1.4 Continuity_count_error", "2.5 PTS_error",
                                "3.5.a SDT_actual_error"})
        # Each says what it means and where to look, when it is asked.
        self.browser.run("for (const one of document.querySelectorAll('.checks [aria-expanded=false]')) one.click()")
        for name, lamp in self.lamps().items():
            self.assertRegex(lamp[3], r"\w\.\s+Where to look: \w", name)
        self.browser.image("meter-lamps")

    def test_what_is_not_known_looks_unknown(self):
        self.show()
        wait_for("lamps", 5, lambda: self.lamps()["1.1 TS_sync_loss"][0] == "quiet")
        # The meter goes.
        self.meter = METER | {"connected": False, "problem": "gone <b>home</b>"}
        self.between.spoil("/meter$", 503)
        wait_for("word of it", 10, lambda: "tells nothing of this channel" in self.browser.text("main"))
        wait_for("why", 10, lambda: "gone <b>home</b>" in self.browser.text("main"))
        self.assertEqual({lamp[:3] for lamp in self.lamps().values()}, {("unknown", "?", "– – –")})
        self.assertEqual(self.verdict(), "Unknown.")
        facts = self.browser.facts()
        for term in ("Service", "Video", "Packets lost", "Delay factor", "Group of pictures", "RTP lost"):
            self.assertIn(facts.get(term, "–"), ("–", ""), term)
        cells = set(self.browser.texts(f"{STREAMS} .leaf .number"))
        self.assertLessEqual(cells, {"–", ""})
        wait_for("no figure", 5, lambda: "unknown" in self.browser.texts(".plot-head output"))  # the last second's holds for a moment
        self.browser.image("meter-silent")
        # It comes again.
        self.meter = METER
        self.between.rules = [rule for rule in self.between.rules if rule[1] != 503]
        wait_for("its figures", 15, lambda: self.lamps()["1.1 TS_sync_loss"][0] == "quiet")
        self.assertNotIn("tells nothing", self.browser.run("return document.querySelector('main').innerText"))

    def test_null_is_never_a_number(self):
        self.report = blank(self.report)
        self.report["network"]["histogram"] = [0] * 32
        self.report["bitrate"]["bps"] = None
        self.show()
        wait_for("the verdict", 5, lambda: self.verdict() == "Unknown.")
        facts = self.browser.facts()
        for term in ("Packets lost", "Delay factor", "Media loss rate", "Group", "Last minute", "Data ahead", "Begins"):
            if term != "Group":
                self.assertEqual(facts[term], "–", term)
        rows = self.browser.texts("main [aria-label='Clocks'] tbody td")
        self.assertEqual([cell for cell in rows if cell.startswith("0 ns") or "NaN" in cell or "null" in cell], [])
        self.assertNotRegex(self.browser.run("return document.querySelector('main').innerText"), r"NaN|\bnull\b(?! packets)|undefined")

    def test_the_tree_of_services(self):
        service = self.report["services"][0]
        service.update(name=SCRIPT, provider="\u202eprovider", next={"title": SCRIPT, "begin": None, "durationMs": None})
        service["streams"].append(stream(300, "subtitle", "DVB subtitles", language=SCRIPT, ca=[{"system": 0x500, "pid": 301}]))
        self.report["pids"][2].update(lost=12, scrambling="odd")
        self.report["cues"].append(cue(102, rfc3339(-5), segmentation=[segment(upid=SCRIPT, type=None)]))
        self.show()
        rows = self.browser.run("""return [...document.querySelectorAll(arguments[0] + ' tbody')].map((body) =>
            [...body.rows].map((row) => [...row.cells].map((cell) => cell.textContent)))""", STREAMS)
        (first, tables, rest) = rows
        self.assertTrue(first[0][0].startswith(f"▾ {SCRIPT} · program 1"), first[0])
        by_pid = {row[0].split()[0]: row[1:] for row in first[1:]}
        self.assertEqual(list(by_pid), ["4096", "256", "257", "500", "300", "301"])
        self.assertEqual(by_pid["256"][:2], ["video, H.264", "1920 × 1080i25, High@4.0, 4:2:0, 8 bit"])
        self.assertEqual(by_pid["257"][:3], ["audio, AAC", "48 kHz, stereo, 128 kbit/s", "deu, eng"])
        self.assertEqual([by_pid["257"][place] for place in (5, 7)], ["12", "odd"])
        self.assertEqual(by_pid["300"][3], "–", "no packet of it came")
        self.assertEqual(by_pid["301"][0], "ECM")
        self.assertEqual([row[0].split()[0] for row in tables[1:]], ["0", "8191"])
        self.assertEqual(rest[1][:2], ["700 (0x02bc)", "announced by no table"])
        self.assertFalse(self.browser.find("main img, main script"))
        self.assertIn(SCRIPT, self.browser.text("main [aria-label=Cues] tbody tr"))
        toggle = self.browser.find(f"{STREAMS} tbody button")
        toggle.click()
        self.assertEqual(toggle.get_attribute("aria-expanded"), "false")
        time.sleep(1.5)
        self.assertEqual(toggle.get_attribute("aria-expanded"), "false")

    def test_the_wall_says_what_a_channel_is(self):
        told = {}
        self.stream_tells(told)
        shown = lambda selector: self.browser.run("return document.querySelector(arguments[0])?.innerText ?? null", selector)
        self.browser.open(self.between.url)
        wait_for("the rate", 15, lambda: "Mbit/s" in (shown(".tile .measure") or ""))
        self.assertEqual(shown(".tile .format").strip(), "", "nothing of a meter where there is none")
        told.update(resolution="1920x1080i", codec=SCRIPT, lastCue=rfc3339(-3), cueOut=True)
        wait_for("size and codec", 5, lambda: "1920×1080i" in (shown(".tile .format") or ""))
        self.assertIn(SCRIPT, shown(".tile .format"))
        self.assertEqual(shown(".tile .cue"), "▸ out")
        self.browser.image("meter-wall")
        told.update(cueOut=False)
        wait_for("the way back", 5, lambda: shown(".tile .cue") == "◂ back")
        told.update(resolution=None, codec=None)
        wait_for("unknown", 5, lambda: shown(".tile .format").strip() == "–")
        told.update(resolution="720x576p", codec="H.264")
        self.browser.press("Table")
        wait_for("the table's columns", 5, lambda: "720×576p H.264" in (shown(".wall-table tbody tr") or ""))
        heads = self.browser.texts(".wall-table thead th")
        cells = self.browser.texts(".wall-table tbody td, .wall-table tbody th")
        self.assertEqual(len(heads), len(cells))
        self.assertEqual(cells[heads.index("Cue")], "◂ back")

    def test_cues_outlast_the_meter(self):
        # The line shows a minute while the page has no more.
        kept = [cue(90, rfc3339(-1), time=rfc3339(-2)), cue(80, None, time=rfc3339(-3), out=False, durationMs=None)]

        self.stream_tells({"lastCue": None})  # as that of a station that keeps cues
        self.between.spoil("/cues$", kept)
        self.show()
        events = lambda: self.browser.texts("main [aria-label=Cues] tbody td:nth-child(3)")
        wait_for("those that are kept and that of the report", 10, lambda: sorted(events()) == ["101", "80", "90"])
        self.meter = METER | {"connected": False}
        self.between.spoil("/meter$", 503)
        wait_for("the meter is gone", 10, lambda: self.verdict() == "Unknown.")
        self.assertEqual(sorted(events()), ["80", "90"])
        line = self.browser.find(".cue-line").get_attribute("aria-label")
        self.assertRegex(line, r"^Cues: .*back 80 at .*out 90 at ")

    def test_who_lost_it(self):
        rtp = {"payloadType": 33, "ssrc": 1, "received": 1000, "lost": 0, "lossEvents": 0, "longestBurst": 0, "repeated": 0,
               "outOfOrder": 0, "jitterMs": 1, "timestampSteps": 0, "ssrcChanges": 0}
        lost = self.report["packets"]["lost"]
        continuity = self.report["checks"][3]
        self.show()
        for word, figures, flow, live in (
                ("Nothing is lost since", {}, None, None),
                ("The network lost datagrams", {"packets": 14, "basis": "rtp", "byRtp": 14, "byCounter": 9, "longest": 7}, rtp, None),
                ("before the RTP sender", {"packets": 3, "basis": "rtp", "byRtp": 0, "byCounter": 3, "longest": 1}, rtp, None),
                ("points to the network", {"packets": 21, "basis": "clock", "byClock": 21, "byCounter": 9, "longest": 7}, None, None),
                ("look upstream", {"packets": 5, "basis": "clock", "byClock": 5, "byCounter": 4, "longest": 2}, None, None),
                ("does not tell", {"packets": 5, "basis": "counter", "byCounter": 5, "longest": 5}, None, None),
                ("This machine dropped", {"packets": 5, "basis": "counter", "byCounter": 5}, None, 599.5)):
            lost.update({"byCounter": 0, "byClock": None, "byRtp": None} | (figures or {"packets": 0}))
            continuity.update(count=lost["byCounter"], seconds=1 if lost["byCounter"] else 0,
                              last=600 if lost["byCounter"] else None)
            self.report["network"]["rtp"] = flow
            self.report["live"]["lastDisturbed"] = live
            hold_against_api(self.report)
            wait_for(word, 5, lambda: word in self.verdict())
            self.assertEqual(self.browser.run("""return [...document.querySelectorAll('dt')].some(
                (term) => term.textContent === 'RTP jitter' && term.checkVisibility())"""), bool(flow))


if __name__ == "__main__":
    unittest.main(verbosity=2, argv=[sys.argv[0], *sys.argv[1:]])
