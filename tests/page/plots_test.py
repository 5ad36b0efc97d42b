#!/usr/bin/python3
"""The plots of a channel as somebody reasons with them: one crosshair, bands, levels, a second curve, address, file. Run it through
scripts/netns.sh.
"""
import json
import re
import sys
import time
import unittest
import urllib.error

from selenium.webdriver.common.action_chains import ActionChains

from harness import TOKEN, SpoiledTest, wait_for
from report import rfc3339

CONFIGURATION = """
[profile.default.bitrate_high]
enabled = true
severity = "minor"
raise_level = 1_500_000
clear_level = 1_400_000

[[channel]]
group = "239.1.1.1"
name = "News, HD"

[[channel]]
group = "239.1.1.2"
name = "Sport"
"""
RATE = "main section.plot[aria-label='Bit rate']"
LOST = "main section.plot[aria-label='Packets lost']"
TITLES = ["Bit rate", "Packets lost", "Continuity errors", "PCR errors", "Delay factor", "Jitter variance", "Quality index"]
# What a browser would save, told in place of that.
CATCH = """
window.saved = null;
const make = URL.createObjectURL;
URL.createObjectURL = (blob) => { blob.text().then((text) => { window.text = text; }); return make.call(URL, blob); };
HTMLAnchorElement.prototype.click = function() { window.saved = this.download; };
return 0"""


class PlotsTest(SpoiledTest):
    CONFIGURATION, GROUPS = CONFIGURATION, ["239.1.1.1", "239.1.1.2"]

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        wait_for("a plot's worth of seconds", 60, lambda: len(cls.history("bitRate")) > 20)

    @classmethod
    def history(cls, metric):
        return cls.station.get(f"channels/239.1.1.1/history?metric={metric}")["points"]

    def setUp(self):
        super().setUp()
        self.browser.device("dark", 1440, 900)

    def tearDown(self):
        self.assertEqual(self.browser.problems(), [])

    def open(self, fragment="#channel/239.1.1.1"):
        self.browser.open(self.between.url + fragment)
        wait_for("the plots", 15, lambda: " " in self.browser.text(f"{RATE} output"))

    def asked(self, part):
        return [path for _, path in self.between.asked if part in path]

    def address(self):
        return self.browser.run("return decodeURIComponent(location.hash)")

    def hairs(self):
        """Where the crosshair is in each plot that shows it."""
        return self.browser.run("""return [...document.querySelectorAll('main .crosshair')].filter((one) => one.checkVisibility())
                                             .map((one) => Math.round(new DOMMatrix(getComputedStyle(one).transform).e))""")

    def readouts(self):
        return self.browser.readouts()

    def test_each_says_what_it_is_and_one_request_brings_all(self):
        self.open()
        titles = self.browser.texts("main .plot h3")
        self.assertEqual(titles[:len(TITLES)], TITLES)
        self.assertTrue(all(titles))
        asked, began = self.asked("/history"), time.monotonic()
        self.assertRegex(asked[0], r"/channels/239\.1\.1\.1/history\?metrics=bitRate(%2C[\w.]+){6,}&resolution=1&")
        time.sleep(4.5)
        self.assertLessEqual(len(self.asked("/history")) - len(asked), (time.monotonic() - began) / 2 + 1, "one each two seconds")
        self.assertEqual(self.browser.text(f"{RATE} .plot-unit"), "bit/s, each second")
        self.assertEqual(self.browser.text(f"{LOST} .plot-unit"), "packets in each second")
        # The profile's levels, of figures and of counts.
        notes = self.browser.texts("main .plot .plot-unit:last-child")
        self.assertIn("Alarms: Bit rate high: above 1.50 Mbit/s", " ".join(notes))
        self.assertRegex(" ".join(notes), r"Packets lost: 100 .*in 10 s")
        self.browser.press("24 hours")
        wait_for("minutes", 10, lambda: self.browser.text(f"{LOST} .plot-unit") == "packets in each minute")
        self.assertEqual(self.browser.text(f"{RATE} .plot-unit"), "bit/s, mean of each minute, lowest to highest shaded")
        self.assertEqual(self.address(), "#channel/239.1.1.1?r=60")

    def test_a_second_that_is_not_told_yet_hides_no_figure(self):
        def late(body):
            answer = json.loads(body)
            for one in answer["series"]:
                one["values"][-1:] = [None] * bool(one["values"])
            return json.dumps(answer).encode()
        self.between.spoil(r"/history\?", late)
        self.addCleanup(self.between.mend)
        self.open()
        wait_for("the one before", 5, lambda: re.fullmatch(r"\d\.\d+ Mbit/s", self.browser.text(f"{RATE} output")))

    def test_one_crosshair_with_time_and_values(self):
        wait_for("the alarm", 20, lambda: [one for one in self.station.get("alarms") if one["alarm"] == "bitrate_high"])
        self.open()
        wait_for("the legend of the band", 10, lambda: "minor alarm raised" in self.browser.text(".plot-legend"))
        time.sleep(6)  # so that it was raised then
        area = self.browser.find(f"{RATE} .plot-area")
        self.browser.run("arguments[0].scrollIntoView({block: 'center'})", area)
        ActionChains(self.browser.driver).move_to_element_with_offset(area, area.size["width"] // 2 - 7, 0).perform()
        wait_for("the crosshair in all plots", 5, lambda: len(self.hairs()) >= len(TITLES))
        self.assertLessEqual(max(self.hairs()) - min(self.hairs()), 2, "columns of the same width")
        times = {text.split(" · ")[0] for text in self.readouts()}
        self.assertEqual(len(times), 1, times)
        self.assertRegex(times.pop(), r"^\d\d:\d\d:\d\d$")
        wait_for("what was raised then", 5, lambda: re.match(
            r"\d\d:\d\d:\d\d · Bit rate high \(minor\)", self.browser.text(".plot-cursor")))
        for kind in ("dark", "light"):
            self.browser.device(kind, 1440, 900)
            time.sleep(0.7)
            self.browser.image(f"plots-{kind}")
        self.browser.device("dark", 1440, 900)
        ActionChains(self.browser.driver).move_to_element(self.browser.find("h1")).perform()
        wait_for("no crosshair", 5, lambda: not self.hairs())
        # By the keyboard.
        self.browser.run("document.querySelector('main .plots').focus()")
        keys = self.browser.driver.switch_to.active_element
        keys.send_keys("\ue012")
        wait_for("the crosshair again", 5, lambda: len(self.hairs()) >= len(TITLES))
        before = self.browser.text(".plot-cursor")
        keys.send_keys("\ue012\ue012")
        wait_for("two seconds before", 5, lambda: self.browser.text(".plot-cursor") < before)
        keys.send_keys("+")
        wait_for("the zoom", 5, lambda: "from=" in self.address())
        # Of its time whole seconds are shown, as of those of the axis.
        wait_for("the crosshair where its time is, also after a zoom", 5, lambda: -0.2 < self.browser.run("""
            const seconds = (text) => text.split(':').reduce((sum, part) => 60 * sum + Number(part), 0);
            const middle = (node) => { const box = node.getBoundingClientRect(); return box.left + box.width / 2; };
            const plot = document.querySelector(arguments[0]);
            // Those at the edges are moved into sight.
            const isBelowTick = (label) => label.parentElement.style.textAlign === 'center';
            const labels = [...plot.querySelectorAll('.dygraph-axis-label-x')].filter(isBelowTick);
            const [[t0, x0], [t1, x1]] = [labels[0], labels.at(-1)].map((one) => [seconds(one.textContent), middle(one)]);
            const at = seconds(plot.querySelector('output').textContent.split(' · ')[0]);
            return t0 + (middle(plot.querySelector('.crosshair')) - x0) * (t1 - t0) / (x1 - x0) - at""", RATE) < 1.2)
        keys.send_keys("\ue00c")
        wait_for("none after Escape", 5, lambda: not self.hairs())

    def test_the_address_keeps_what_is_shown(self):
        self.open()
        self.browser.run("document.querySelector('main .plots').focus()")
        self.browser.driver.switch_to.active_element.send_keys("+")
        wait_for("the zoom in the address", 5, lambda: "from=" in self.address() and "to=" in self.address())
        kept = self.address()
        labels = lambda: self.browser.texts(f"{RATE} .dygraph-axis-label-x")
        shown = wait_for("its axis", 5, labels)
        self.browser.driver.refresh()
        wait_for("the same after a reload", 15, lambda: labels() == shown)
        self.assertEqual(self.address(), kept)
        self.browser.run("location.hash = '#events'")
        wait_for("another view", 10, lambda: self.browser.text("main h1") == "Events and alarms")
        self.browser.driver.back()
        wait_for("the same on the way back", 15, lambda: labels() == shown)
        self.assertEqual(self.address(), kept)
        self.browser.press("Back to now")
        wait_for("all", 5, lambda: self.address() == "#channel/239.1.1.1")
        # What is before the ten minutes of seconds has minutes, also where somebody goes back to it.
        self.browser.press("‹ Earlier", "main .plot-controls")
        wait_for("minutes", 5, lambda: re.fullmatch(r"#channel/239\.1\.1\.1\?r=60&from=\S+Z&to=\S+Z", self.address()))
        earlier = self.address()
        self.browser.press("‹ Earlier", "main .plot-controls")
        wait_for("what is before", 5, lambda: self.address() < earlier)
        self.browser.press("Later ›", "main .plot-controls")
        wait_for("and behind", 5, lambda: self.address() == earlier)
        self.browser.press("24 hours")
        wait_for("all", 5, lambda: self.address() == "#channel/239.1.1.1?r=60")
        self.open(f"#channel/239.1.1.1?t={rfc3339(-3 * 86400)}")
        wait_for("what the disk has around a chosen time", 5, lambda: "&until=" in self.asked("/history")[-1])
        self.open(f"#channel/239.1.1.1?r=1&from={rfc3339(-7200)}&to={rfc3339(-7140)}")
        wait_for("minutes in its place", 10, lambda: "r=60" in self.address())
        wait_for("what is asked for", 5, lambda: "resolution=60" in self.asked("/history")[-1])

    def test_another_channel_and_yesterday_laid_over(self):
        self.open()
        self.browser.run("""const choice = document.querySelector("select[aria-label='Lay over']");
                            choice.value = 'other';
                            choice.dispatchEvent(new Event('change'));
                            const channel = document.querySelector("input[aria-label='Channel to lay over']");
                            channel.value = 'sport';
                            channel.dispatchEvent(new Event('change'));""")
        wait_for("both values", 10, lambda: re.search(r"Mbit/s · Sport \d\.\d\d Mbit/s", self.browser.text(f"{RATE} output")))
        self.assertEqual(self.address(), "#channel/239.1.1.1?over=239.1.1.2")
        self.browser.image("plots-over")
        self.browser.driver.refresh()
        wait_for("both after a reload", 15, lambda: "· Sport " in self.browser.text(f"{RATE} output"))
        # Of yesterday nothing is kept here, which is said; then something is.
        self.open("#channel/239.1.1.1?over=1d")
        wait_for("word of it", 10, lambda: "Nothing is kept of the day before" in self.browser.text("main"))
        self.assertIn("r=60", self.address())

        def yesterday(answer):
            told = json.loads(answer)
            told["times"] = [rfc3339(-86400 - 60 * minutes) for minutes in range(20, 0, -1)]
            for one in told["series"]:
                one["values"] = [7_000_000] * 20
            return json.dumps(told).encode()
        self.between.spoil(rf"/history\?.*until=", yesterday)
        self.open("#channel/239.1.1.1?over=1d")
        wait_for("yesterday's value", 10, lambda: "· the day before 7.00 Mbit/s" in self.browser.text(f"{RATE} output"))

    def test_what_is_seen_as_a_file(self):
        self.open("#channel/239.1.1.1?over=239.1.1.2")
        wait_for("both values", 10, lambda: "· Sport " in self.browser.text(f"{RATE} output"))
        self.browser.run(CATCH)
        self.browser.press("CSV", "main .plot-controls")
        name = wait_for("the file", 5, lambda: self.browser.run("return window.text && window.saved"))
        self.assertRegex(name, r"^plots-News-HD-239\.1\.1\.1-\d{4}-\d\d-\d\dT\d{4}-to-\d{4}-\d\d-\d\dT\d{4}-\w+\.csv$")
        lines = self.browser.run("return window.text").splitlines()
        heads = re.findall(r'"[^"]*"|[^,]+', lines[0])
        self.assertEqual(heads[:3], ["time (UTC)", "time (local)", "zone"])
        self.assertEqual(heads[3:6], ["Bit rate (bit/s)", '"Bit rate, Sport (bit/s)"', "Packets lost (packet in each second)"])
        points = {point[0]: point[1] for point in self.history("bitRate")}
        rows = [line.split(",") for line in lines[1:]]
        known = [row for row in rows if points.get(row[0]) is not None]  # a second may have no value
        self.assertGreater(len(known), 20)
        same = [row for row in known if row[3] and points[row[0]] == float(row[3])]
        self.assertGreaterEqual(len(same), len(known) - 5)

    def test_maintenance_is_hatched(self):
        self.station.change("POST", "maintenance", {"from": rfc3339(-5), "until": rfc3339(3600), "group": "239.1.1.1"})
        self.open()
        wait_for("its legend", 10, lambda: "maintenance" in self.browser.text(".plot-legend"))
        told = self.station.get("timeline?group=239.1.1.1")
        self.assertEqual([one["group"] for one in told["maintenance"]], ["239.1.1.1"])
        for wrong in ("timeline?since=2999-01-01T00:00:00Z", "channels/239.1.1.1/history?metrics=bitRate,nothing",
                      "channels/239.1.1.1/history?metrics=bitRate,bitRate", "channels/239.1.1.1/history?metrics=bitRate&metric=bitRate",
                      "channels/239.1.1.1/history?metrics=bitRate,packetsLost,PCR_error&resolution=60&since=2001-01-01T00:00:00Z"):
            with self.assertRaises(urllib.error.HTTPError) as refused:
                self.station.get(wrong)
            self.assertEqual(refused.exception.code, 422, wrong)


if __name__ == "__main__":
    unittest.main(verbosity=2, argv=[sys.argv[0], *sys.argv[1:]])
