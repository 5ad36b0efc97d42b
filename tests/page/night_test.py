#!/usr/bin/python3
"""The page as a night shift uses it: what is wrong, since when and what to do; times, places, orders and groups.

Run it through scripts/netns.sh. A writer takes the place of the probe, so that faults are those of the test.
"""
import re
import sys
import time
import unittest

from selenium.webdriver.common.action_chains import ActionChains

from feeds import CHANNELS, GROUPS, SITES, FedTest
from harness import Between, wait_for

ALARMS = "main [aria-label='Active alarms'] tbody tr.lead"
NAMES = "main .tile .name"


class NightTest(FedTest):
    PORT = 9450

    def setUp(self):
        self.browser.device("dark", 1440, 900)
        self.all_well()

    def tearDown(self):
        self.assertEqual(self.browser.problems(), [])

    def open(self, fragment=""):
        self.browser.open(self.station.url + fragment)
        wait_for("the page is live", 10, lambda: self.browser.find("#connection.live"))

    def address(self):
        return self.browser.run("return decodeURIComponent(location.hash)")

    def tile(self, name):
        return self.browser.run("""return [...document.querySelectorAll('main .tile')].find(
                (node) => node.querySelector('.name').textContent === arguments[0])?.textContent ?? ''""", name)

    def test_an_alarm_says_since_when_how_bad_and_what_to_look_at(self):
        self.open()
        wait_for("all tiles", 10, lambda: len(self.browser.texts(NAMES)) == CHANNELS)
        self.feed.losing = {GROUPS[4]}
        wait_for("the loss", 20, lambda: self.raised())
        self.feed.silenced = {GROUPS[7]}
        wait_for("both on the wall", 10, lambda: self.browser.texts(NAMES)[:2] == ["Channel 8", "Channel 5"])
        wait_for("since when", 5, lambda: re.search(r"no signal, \d+ s", self.tile("Channel 8")))
        wait_for("how bad", 10, lambda: re.search(r"packets lost, \d+ s.*\d+ in 10 s", self.tile("Channel 5")))
        wait_for("the announcer", 5, lambda: "No signal, Channel 8" in self.browser.text("#announcer"))
        wait_for("the title", 5, lambda: re.fullmatch(r"\(\d+\) night-probe · kestor", self.browser.driver.title))
        self.assertIn("icon-critical", self.browser.run("return document.querySelector('link[rel=icon]').href"))
        # A row a channel, worst first, which opens.
        self.open("#events")
        # By their titles, which come with what else is said of an alarm when it is opened.
        wait_for("rows", 10, lambda: [row for row in self.browser.texts(ALARMS) if "No signal" in row and "Channel" in row])
        rows = [row for row in self.browser.texts(ALARMS) if "Channel" in row]
        self.assertIn("Channel 8", rows[0])
        self.assertIn("Channel 5", rows[1])
        self.assertEqual(len(rows), 2)
        self.browser.run("""[...document.querySelectorAll(arguments[0])].find((row) => row.textContent.includes('Channel 5'))
                                .querySelector('button').click()""", ALARMS)
        wait_for("what it means and where to look", 5, lambda: len(self.browser.texts(".alarm-detail")) >= 1)
        meta = {one["name"]: one for one in self.station.get("meta")["alarmTypes"]}
        detail = self.browser.text(".alarm-detail")
        for text in (meta["packets_lost"]["title"], meta["packets_lost"]["meaning"], *meta["packets_lost"]["look"]):
            self.assertIn(text, detail)
        self.assertRegex(detail, r"Now \d+ in 10 s · raised by 100 in 10 s")
        self.browser.image("night-alarms")
        self.browser.click(".alarm-detail a[href='#help/packets_lost']")
        wait_for("the way to all alarms", 5, lambda: self.browser.text("main .past h2") == "Packets lost")
        self.assertEqual(len(self.browser.texts("main [data-name]")), len(meta))
        # From one channel in trouble to the other.
        self.open(f"#channel/{GROUPS[7]}")
        wait_for("how many there are", 10, lambda: "1 of 2 in trouble" in self.browser.text(".troubles"))
        self.browser.find("body").send_keys("n")
        wait_for("the next one", 10, lambda: self.browser.text("main h1") == "Channel 5")
        self.assertIn("2 of 2", self.browser.text(".troubles"))

    def test_a_day_shows_bad_minutes_under_labels_and_leads_to_them(self):
        self.feed.silenced = {GROUPS[7]}
        wait_for("the alarm", 30, lambda: self.raised())
        self.open("#day?by=site&bad=1")
        wait_for("its row alone", 30, lambda: self.browser.texts("main .day-row .day-name") == ["Channel 8"])
        self.assertEqual(self.browser.text("main .day-group"), "south: 1 channel, 1 with bad seconds")
        strip = self.browser.find("main .day-strip")
        self.assertIn("with an alarm or without signal", strip.get_attribute("aria-label"))
        half = strip.size["width"] // 2
        def tip():
            for below in (3, 2):  # a move, as of a hand
                ActionChains(self.browser.driver).move_to_element_with_offset(strip, half - 1, below).perform()
            return self.browser.text("main .day-tip")
        # A cell that has just begun is known with the next look, a minute later.
        wait_for("what the cell says", 20, lambda: re.match(r"Channel 8, \d\d:\d\d:00: no signal, [\d mins]+ of 5 min bad", tip()))
        wait_for("what was raised, once that is known", 10, lambda: tip().endswith("bad; No signal (critical)"))
        self.browser.click("main .controls input[type=checkbox]")
        wait_for("all rows", 5, lambda: len(self.browser.texts("main .day-row")) == CHANNELS)
        self.assertEqual(self.address(), "#day?by=site")
        self.browser.image("night-day")
        def pressed():  # a banner that comes in between pushes the rows from under the pointer
            if self.address().startswith("#day"):
                there = self.browser.find("main .day-strip")
                ActionChains(self.browser.driver).move_to_element_with_offset(there, half - 1, 2).click().perform()
            return self.address().startswith("#channel/239.3.0.") and "t=20" in self.address()
        wait_for("the channel then", 10, pressed)

    def test_one_zone_named_and_kept(self):
        self.browser.cdp("Emulation.setTimezoneOverride", timezoneId="Asia/Kolkata")
        self.addCleanup(self.browser.cdp, "Emulation.setTimezoneOverride", timezoneId="")
        self.addCleanup(self.browser.run, "localStorage.removeItem('kestor-zone')")
        self.open("#events")
        zone = lambda: self.browser.text("#zone")
        wait_for("the zone's name", 5, lambda: zone() == "GMT+5:30")
        row = wait_for("an event", 10, lambda: self.browser.run(
            "const row = document.querySelector(\"main [aria-label='Events'] tbody tr\");"
            "return row && [row.dataset.id, row.querySelector('time').textContent]"))
        of_event = lambda: self.browser.text(f"main tr[data-id='{row[0]}'] time")
        self.browser.click("#zone")
        wait_for("UTC", 5, lambda: zone() == "UTC" and "zone=utc" in self.address())
        wait_for("another time of the event", 10, lambda: of_event() not in ("", row[1]))
        ahead = lambda a, b: (int(a[-8:-6]) * 60 + int(a[-5:-3]) - int(b[-8:-6]) * 60 - int(b[-5:-3])) % 1440
        self.assertEqual(ahead(row[1], of_event()), 330)
        self.open("#probe")
        self.assertEqual(zone(), "UTC")
        self.browser.click("#zone")
        wait_for("the browser's again", 5, lambda: zone() == "GMT+5:30" and "zone" not in self.address())
        self.open("#events?zone=utc")
        wait_for("the link's", 5, lambda: zone() == "UTC")
        # A row that was made before midnight gets its date after it.
        made = self.browser.run("""
            const [{momentNode, renewMoments}, {setUtc}] =
                [await import('/page/moments.js'), await import('/page/zone.js')];
            const node = momentNode('2026-03-01T23:59:58Z', new Date('2026-03-01T23:59:59Z'));
            document.querySelector('main').append(node);
            const before = node.textContent;
            renewMoments(new Date('2026-03-02T00:00:01Z'));
            return [before, node.textContent]""")
        self.assertEqual(made, ["23:59:58", "2026-03-01 23:59:58"])

    def test_a_report_of_a_day_and_all_events_as_a_file(self):
        self.feed.silenced = {GROUPS[2]}
        wait_for("an outage", 20, lambda: self.raised())
        time.sleep(2)
        self.feed.well()
        wait_for("its end", 20, lambda: not self.raised())
        # The station notes every 15 s what it observed.
        outages = lambda: {channel["group"] for channel in self.station.get("report")["channels"] if channel["outages"]}
        wait_for("the outage in a report", 40, lambda: GROUPS[2] in outages())
        self.open("#report?label=site")
        rows = lambda label: self.browser.run("""return [...document.querySelectorAll(
                `main [aria-label='${arguments[0]}'] tbody tr`)].map((row) => [...row.cells].map((cell) => cell.textContent))""",
                                              label)
        wait_for("channels", 15, lambda: len(rows("Channels")) == CHANNELS)
        self.assertEqual([row[:2] for row in rows("Totals")], [[site, str(CHANNELS // 2)] for site in SITES])
        report = self.station.get("report?label=site")
        self.assertEqual(sum(int(row[3]) for row in rows("Totals")), report["total"]["outages"])
        worst = rows("Channels")[0]  # worst first
        self.assertRegex(worst[2], r"^\d\d\.\d{3} %$")
        self.assertIn("Channel 3", [row[0] for row in rows("Outages")])
        self.browser.run("[...document.querySelectorAll('main thead button')].find((node) => node.textContent === 'Name').click()")
        wait_for("the order of names", 5, lambda: rows("Channels")[1][0] == "Channel 2" and "sort=name" in self.address())
        self.browser.press("month")
        wait_for("the month", 15, lambda: re.search(r"Report: \d{4}-\d\d$", self.browser.text("main h1")) and rows("Channels"))
        self.assertIn("period=month", self.address())
        self.browser.image("night-report")
        # A time that is over before the station was there is unknown, not available.
        self.open("#report?at=2020-02-03&period=week")
        wait_for("the week of Monday", 10, lambda: "2020-02-03 to 2020-02-09" in self.browser.text("main h1"))
        wait_for("unknown", 10, lambda: self.browser.text("main .big") == "unknown")
        # All events, beyond what one answer of the station has, with labels and zone.
        self.open("#events")
        made = self.browser.run("""
            const {eventFile} = await import('/page/eventFile.js');
            const pages = [];
            const api = {get: async (path) => {
              pages.push(path);
              const first = 2500 - 1000 * (pages.length - 1);
              return Array.from({length: Math.min(1000, first)}, (_, n) => ({id: first - n, time: '2026-03-01T10:00:00.000Z',
                kind: 'raised', group: '239.3.0.1', channel: n ? 'a "b", c' : '=1+1', alarm: 'no_signal', severity: 'critical',
                text: 't', by: '', value: null, peak: null, durationMs: 1500, silenced: false, source: null}));
            }};
            const store = {channels: new Map([['239.3.0.1', {labelTexts: ['site=north', 'kind=news']}]]), meta: {instance: 'n'},
                           now: () => new Date('2026-03-02T00:00:00Z')};
            const file = await eventFile({api, store}, {severity: 'critical'}, () => {});
            return [pages, file.name, file.text.trimEnd().split('\\r\\n'), file.isCut]""")
        pages, name, lines, cut = made
        self.assertEqual([len(pages), len(lines), cut], [3, 2501, False])
        self.assertIn("before=1501", pages[1])
        self.assertTrue(all("severity=critical" in page for page in pages))
        self.assertRegex(name, r"^events-n-2026-03-0[12](-utc)?\.csv$")
        self.assertIn(",'=1+1,site=north; kind=news,", lines[1])
        self.assertIn(',"a ""b"", c",', lines[2])
        self.assertRegex(lines[1], r"^2500,2026-03-01T10:00:00\.000Z,2026-03-01 10:00:00,UTC,")

    def test_places_are_kept(self):
        self.browser.device("dark", 1440, 500)
        self.open("#?sort=name")
        wait_for("all tiles", 10, lambda: len(self.browser.texts(NAMES)) == CHANNELS)
        scroll = lambda: self.browser.run("return Math.round(scrollY)")
        self.browser.run("scrollTo(0, 300)")
        self.browser.run("""const link = [...document.querySelectorAll('main .tile a')].find(
                                (one) => one.textContent.includes('Channel 20'));
                            link.focus({preventScroll: true}); return 0""")
        self.browser.driver.refresh()
        wait_for("the place after a reload", 10, lambda: abs(scroll() - 300) <= 4)
        self.browser.run("document.activeElement.click()")
        wait_for("the channel", 10, lambda: self.browser.text("main h1") == "Channel 20")
        wait_for("its begin", 5, lambda: scroll() == 0)
        self.browser.driver.back()
        wait_for("the place on the way back", 10, lambda: abs(scroll() - 300) <= 4)
        self.assertIn("Channel 20", self.browser.run("return document.activeElement.textContent"))
        # What the pointer is on stays where it is, and says what it is all the same.
        self.browser.device("dark", 1440, 900)
        self.open()
        names = lambda: self.browser.texts(NAMES)
        wait_for("all tiles", 10, lambda: len(names()) == CHANNELS)
        before = names()
        tiles = self.browser.driver.find_elements("css selector", "main .tile")
        ActionChains(self.browser.driver).move_to_element(tiles[3]).perform()
        self.feed.silenced = {GROUPS[29]}
        wait_for("the fault", 20, lambda: self.raised())
        wait_for("its look", 5, lambda: "no signal" in self.tile("Channel 30") or self.browser.run(
            "return document.querySelector('main .is-critical .name')?.textContent") == "Channel 30")
        time.sleep(2)
        self.assertEqual(names(), before)
        wait_for("word of it", 5, lambda: "order waits" in self.browser.text(".controls"))
        ActionChains(self.browser.driver).move_to_element(self.browser.find("header .brand")).perform()
        wait_for("the order without the pointer", 10, lambda: names()[0] == "Channel 30")
        # So does what has the keys.
        before = names()
        self.browser.run("document.querySelectorAll('main .tile a')[5].focus()")
        self.browser.driver.switch_to.active_element.send_keys("\ue014")  # right
        self.feed.silenced = {GROUPS[29], GROUPS[30]}
        wait_for("another fault", 20, lambda: len(self.raised()) == 2)
        time.sleep(2)
        self.assertEqual(names(), before)

    def test_groups_filters_and_orders_in_the_address(self):
        self.feed.silenced = {GROUPS[1], GROUPS[3]}  # both of the south
        wait_for("two faults", 20, lambda: len(self.raised()) == 2)
        self.open("#?by=site")
        heads = lambda: self.browser.run(
            "return [...document.querySelectorAll('main .group-head')].map((node) => node.innerText.replace(/\\s+/g, ' '))")
        wait_for("groups with counts, the worst first", 10, lambda: heads() == [
            "▾ south 20 channels ✕ 2 critical ✓ 18 ok", "▾ north 20 channels ✓ 20 ok"])
        self.browser.press("▾ north")
        wait_for("the north folded", 5, lambda: "fold=north" in self.address() and len(self.browser.texts(NAMES)) == 20)
        self.browser.driver.refresh()
        wait_for("folded after a reload", 10, lambda: len(self.browser.texts(NAMES)) == 20 and heads()[1].startswith("▸ north"))
        self.open("#?by=site&sort=name")
        wait_for("groups by name", 10, lambda: [head[2:7] for head in heads()] == ["north", "south"])
        # Labels of one name are alternatives, others have to hold as well.
        for fragment, total in {"#?label=site%3Dsouth&label=kind%3Dnews": 7, "#?label=site%3Dsouth&label=site%3Dnorth": 40,
                                "#?alarm=no_signal": 2, "#?q=channel+239.3.0.4&label=kind%3Dnews": 2}.items():
            self.open(fragment)
            wait_for(f"{total} of {fragment}", 10, lambda: len(self.browser.texts(NAMES)) == total)
            self.assertIn(f"{total} of {CHANNELS}", self.browser.text(".controls"))
        self.assertIn("found in names, groups and labels", self.browser.text(".controls"))
        self.open("#?view=table&by=site")
        wait_for("rows below their groups", 10, lambda: len(self.browser.texts(".wall-table .group-row")) == 2)
        self.browser.press("Bit rate", ".wall-table thead")
        wait_for("the order in the address", 5, lambda: "sort=bitRate" in self.address())
        self.browser.press("Bit rate", ".wall-table thead")
        first = lambda: self.browser.texts(".wall-table .name")[0]
        wait_for("the other way", 5, lambda: "sort=-bitRate" in self.address() and first() == "Channel 39")
        self.browser.run("scrollTo(0, 700)")
        wait_for("the head of the table stays below that of the page", 2, lambda: self.browser.run(
            """const [head, page] = ['.wall-table thead th', 'header'].map((one) => document.querySelector(one).getBoundingClientRect());
               return Math.abs(head.top - page.bottom)""") < 2)
        self.open("#events?by=site")
        wait_for("alarms in groups", 10, lambda: any("south" in text for text in self.browser.texts(".alarm-list .group-row")))
        self.assertFalse([text for text in self.browser.texts(".alarm-list .group-row") if "north" in text])
        self.assertEqual(len([row for row in self.browser.texts(ALARMS) if "Channel" in row]), 2)
        self.browser.press("▾ south", ".alarm-list")
        wait_for("folded", 5, lambda: "fold=south" in self.address() and not [
            row for row in self.browser.texts(ALARMS) if "Channel" in row])
        # Groups wait for the pointer too, and folding one moves none.
        self.open("#?by=site")
        order = lambda: [head[2:7] for head in heads()]
        wait_for("the south first", 10, lambda: order() == ["south", "north"])
        tiles = wait_for("all tiles", 10, lambda: self.browser.driver.find_elements("css selector", "main .tile"))
        ActionChains(self.browser.driver).move_to_element(tiles[9]).perform()  # what comes above it does not take it from the wall
        self.feed.silenced = {GROUPS[n] for n in (0, 1, 2, 3, 4)}
        wait_for("more faults in the north", 20, lambda: len(self.raised()) == 5)
        wait_for("they are counted", 5, lambda: any("3 critical" in head for head in heads()))
        self.browser.run("document.querySelector('main .group-head button').click()")
        wait_for("the south folded", 5, lambda: heads()[0].startswith("▸ south"))
        time.sleep(2)
        self.assertEqual(order(), ["south", "north"])
        ActionChains(self.browser.driver).move_to_element(self.browser.find("header .brand")).perform()
        wait_for("the north first", 10, lambda: order() == ["north", "south"])

    def test_on_paper_there_is_all_of_it_dark_on_white(self):
        self.open("#?view=table")
        rows = "[...document.querySelectorAll('.wall-table tbody tr')].filter((row) => row.textContent.includes('bit/s')).length"
        wait_for("the rows in sight", 10, lambda: 0 < self.browser.run(f"return {rows}") < CHANNELS)
        self.browser.run(f"""addEventListener('beforeprint', () => {{
            window.printed = [{rows}, getComputedStyle(document.body).color, document.querySelector('.wall-table').scrollWidth];
        }})""")
        self.browser.cdp("Page.printToPDF", paperWidth=8.27, paperHeight=11.69)
        filled, colour, width = self.browser.run("return window.printed")
        self.assertEqual((filled, colour), (CHANNELS, "rgb(0, 0, 0)"))
        self.assertLess(width, 720, "190 mm")
        wait_for("the screen again", 5, lambda: 0 < self.browser.run(f"return {rows}") < CHANNELS)
        self.assertEqual(self.browser.run("return document.documentElement.className"), "")

    def test_the_wall_on_a_wall(self):
        self.browser.device("dark", 1920, 1080)
        self.open("#?label=site%3Dnorth")
        wait_for("the north", 10, lambda: len(self.browser.texts(NAMES)) == 20)
        self.browser.press("Wall")
        wait_for("the north on the wall", 10, lambda: "wall?label=site=north" in self.address() and len(self.browser.texts(NAMES)) == 20)
        wait_for("the station's name", 5, lambda: self.browser.text(".kiosk-station") == "night-probe")
        self.assertRegex(self.browser.text(".kiosk-clock"), r"^\d\d:\d\d:\d\d \w+")
        wait_for("tiles that take the screen", 5, lambda: self.browser.run("""const tiles = [...document.querySelectorAll('main .tile')];
            const bottom = Math.max(...tiles.map((one) => one.getBoundingClientRect().bottom));
            const font = Math.min(...tiles.map((one) => parseFloat(getComputedStyle(one.querySelector('.name')).fontSize)));
            return 1000 < bottom && bottom <= 1080 && font > 30"""))
        self.browser.find("body").send_keys("\ue00c")  # Escape
        wait_for("the filter on the way back", 5, lambda: self.address() == "#?label=site=north" or
                 self.address() == "#?label=site%3Dnorth")
        # More channels than can be large: trouble page by page, all as a mosaic.
        more = [f"239.3.1.{n + 1}" for n in range(30)]
        for group in more:
            self.station.change("PUT", f"channels/{group}", {"name": f"Missing {group}", "labels": {"site": "east"}})
        self.addCleanup(lambda: [self.station.change("DELETE", f"channels/{group}") for group in more])
        wait_for("their alarms", 40, lambda: len(self.raised()) == len(more))
        self.open("#wall?by=site")
        wait_for("a page of trouble", 10, lambda: len(self.browser.texts(NAMES)) == 24 and
                 "1 to 24 of 30" in self.browser.text(".kiosk-head"))
        self.assertEqual(len(self.browser.texts(".cells li")), CHANNELS + len(more))
        wait_for("the page turns", 20, lambda: "25 to 30 of 30" in self.browser.text(".kiosk-head"))
        wait_for("nothing to scroll", 2, lambda: self.browser.run("return document.documentElement.scrollHeight") == 1080)
        self.browser.image("night-wall")
        # Old data cannot be taken for a quiet night.
        wait_for("data", 5, lambda: not self.browser.find(".kiosk-stale").is_displayed())
        self.station.stop()
        try:
            wait_for("that nothing comes", 30, lambda: self.browser.find(".kiosk-stale").is_displayed())
            self.assertRegex(self.browser.text(".kiosk-stale"), r"No data from the station since \d\d:\d\d:\d\d \(\d+ s\)")
            time.sleep(1)
            self.browser.image("night-wall-lost")
        finally:
            self.station.start()
        wait_for("all is shown again", 40, lambda: not self.browser.find(".kiosk-stale").is_displayed())

    def test_the_watcher_is_watched(self):
        self.open("#probe")
        row = lambda part, what: self.browser.run("""
            const row = [...document.querySelectorAll(`main .watcher [aria-label='${arguments[0]}'] tbody tr`)].find(
                (one) => one.querySelector('th').textContent === arguments[1]);
            return row ? [row.className, ...[...row.cells].slice(2).map((cell) => cell.textContent)] : null""", part, what)
        wait_for("what the probe does", 10, lambda: row("Probe", "Results") and row("Probe", "Results")[0] == "is-ok")
        self.assertEqual(row("Capture and card", "Link")[0], "is-ok")
        self.assertEqual(row("Disk", "Events")[0], "is-ok")
        self.assertIn("none is configured", row("Deliveries", "Webhooks")[1])
        # At the first look the stream may not have come yet.
        wait_for("the event stream", 10, lambda: row("This page", "Event stream") == ["is-ok", "live", "live"])
        for part in ("Memberships", "Meter", "Station"):
            self.assertTrue(self.browser.texts(f"main .watcher [aria-label='{part}'] tbody tr"), part)
        self.feed.held = True  # the probe falls silent
        try:
            wait_for("that it is silent", 20, lambda: row("Probe", "Results")[0] == "is-major")
            self.assertIn("wrong", self.browser.text("main .panel .big"))
            self.assertEqual(row("Disk", "Events")[0], "is-ok")  # all else is told as before
        finally:
            self.feed.held = False
        wait_for("its return", 20, lambda: row("Probe", "Results")[0] == "is-ok")

    def test_midnight_gives_rows_of_yesterday_their_date(self):
        between = Between(self.station, 9451)
        self.addCleanup(between.close)
        days = {"ahead": 0}

        def moved(line):
            """The stream's time, as many days ahead."""
            day = time.strftime("%Y-%m-%d", time.gmtime(time.time() + 86400 * days["ahead"])).encode()
            return re.sub(rb'"time":"\d{4}-\d\d-\d\d', b'"time":"' + day, line, count=1)
        between.spoil("stream", moved)
        self.feed.silenced = {GROUPS[5]}
        wait_for("something to list", 20, lambda: self.raised())
        self.browser.open(between.url + "#events?zone=utc")
        first = lambda: self.browser.text("main [aria-label='Events'] tbody time")
        wait_for("a time of today", 15, lambda: re.fullmatch(r"\d\d:\d\d:\d\d", first()))
        self.browser.run("window.kept = document.querySelector(\"main [aria-label='Events'] tbody tr\")")
        days["ahead"] = 1
        wait_for("its date on the next day", 15, lambda: re.fullmatch(
            r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", self.browser.run("return kept.isConnected && kept.querySelector('time').textContent") or ""))
        wait_for("that of an alarm too", 5, lambda: re.search(r"\d{4}-\d\d-\d\d \d\d:", "".join(self.browser.texts(ALARMS))))

    def test_new_alarms_are_told_to_who_asked_for_it(self):
        self.addCleanup(self.browser.run, "localStorage.removeItem('kestor-alerts')")
        self.open()
        wait_for("tiles and what is measured", 10, lambda: "Mbit/s" in self.tile("Channel 1"))
        # In place of the system's: what would be shown and heard.
        self.browser.run("""
            window.notes = [];
            window.tones = 0;
            window.Notification = class extends EventTarget {
              static permission = 'granted';
              static async requestPermission() { return 'granted'; }
              constructor(title, {body}) { super(); notes.push(`${title}: ${body}`); }
            };
            const start = OscillatorNode.prototype.start;
            OscillatorNode.prototype.start = function(...when) { tones++; return start.apply(this, when); };""")
        self.browser.click("#alerts")
        self.browser.type("Alarms", "major")
        for label in ("Sound", "Notification"):
            self.browser.run("""[...document.querySelectorAll('dialog label')].find((one) => one.textContent === arguments[0])
                                    .parentNode.querySelector('input').click()""", label)
        self.browser.press("Keep", "dialog")
        wait_for("that it is kept", 5, lambda: self.browser.run(
            "return document.querySelector('#alerts').getAttribute('aria-pressed')") == "true")
        self.assertEqual(self.browser.run("return document.activeElement.id"), "alerts")
        wait_for("the sound as a sample", 5, lambda: self.browser.run("return tones") == 2)
        until = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() + 600))
        window = self.station.change("POST", "maintenance", {"group": GROUPS[8], "until": until})
        self.addCleanup(self.station.change, "DELETE", f"maintenance/{window['id']}")
        wait_for("the window on the wall", 10, lambda: "maintenance" in self.tile("Channel 9"))
        time.sleep(2)  # other tabs' sounds are over
        self.feed.silenced = {GROUPS[8]}
        wait_for("an alarm in maintenance", 20, lambda: self.raised())
        self.feed.silenced = {GROUPS[8], GROUPS[11]}
        wait_for("the other one's notification", 20, lambda: self.browser.run("return notes"))
        notes = self.browser.run("return notes")
        self.assertEqual(len(notes), 1)
        self.assertRegex(notes[0], "^critical: No signal, Channel 12: ")
        wait_for("its sound", 5, lambda: self.browser.run("return tones") == 4)

    def test_focus_stays_after_an_action(self):
        self.open("#edit")
        self.browser.unlock()
        button = "main tr[data-group='239.3.0.1'] button"
        label = lambda: self.browser.run("return document.activeElement.getAttribute('aria-label')")
        wait_for("the rows", 10, lambda: self.browser.find(button))
        self.browser.run("document.querySelector(arguments[0]).focus()", button)
        self.browser.find(button).send_keys("\ue007")  # Enter
        self.browser.type("Name", "Channel one")
        self.addCleanup(self.station.change, "PUT", "channels/239.3.0.1", {"name": "Channel 1"})
        self.browser.press("Change", "dialog")
        wait_for("the focus in the row that was made anew", 10, lambda: label() == "Change Channel one")

    def test_names_in_the_address_are_no_code(self):
        for fragment in ("#?by=__proto__&sort=constructor&label=__proto__", "#?view=table&sort=-__proto__&by=constructor",
                         "#events?by=toString&sort=constructor&fold=x", "#report?period=constructor&at=2026-99-99&sort=__proto__",
                         "#wall?by=__proto__", "#help/constructor"):
            self.open(fragment)
            time.sleep(1.5)
            self.assertEqual(self.browser.problems(), [], fragment)
            self.assertNotIn("could not be shown", self.browser.text("main"), fragment)
            self.assertNotIn("native code", self.browser.text("main"), fragment)


if __name__ == "__main__":
    unittest.main(verbosity=2, argv=[sys.argv[0], *sys.argv[1:]])
