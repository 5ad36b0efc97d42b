#!/usr/bin/python3
"""Pictures on encoded video, with probe, meter, kestor-picture, station and browser: the right one on the right tile, and another one
soon; what is frozen, black and silent is told, and nothing else. Run it through scripts/netns.sh.
"""
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest
import urllib.error
import urllib.request

from harness import BIN, Browser, Process, Station, Writer, wait_for

CONFIGURATION = """
[profile.default.frozen]
raise_delay_s = 12

[profile.default.black]
raise_delay_s = 5

[profile.default.silent]
raise_delay_s = 5
"""
MOVING = "testsrc2=size={}:rate=25,colorchannelmixer={}"
RED, GREEN, BLUE = "rr=1:gg=0:bb=0", "rr=0:gg=1:bb=0", "rr=0:gg=0:bb=1"
TONE, SILENCE = "sine=frequency=440:sample_rate=48000", "anullsrc=sample_rate=48000"
H264 = ("-c:v", "libx264", "-preset", "ultrafast", "-g", "25", "-threads", "1")
# Interlaced, and of another shape than the tile.
MPEG2 = ("-c:v", "mpeg2video", "-g", "12", "-flags", "+ilme+ildct", "-aspect", "4:3")
H265 = ("-c:v", "libx265", "-preset", "ultrafast", "-x265-params", "keyint=25:log-level=none:pools=none:frame-threads=1")
# By name: picture, sound, codec, alarms, and the colour that is most of it.
CHANNELS = {
    "red": (MOVING.format("640x360", RED), TONE, H264, set(), 0),
    "green": ("smptebars=size=640x360:rate=25,colorchannelmixer=" + GREEN, TONE, H265, {"frozen"}, 1),
    "blue": (MOVING.format("720x576", BLUE), TONE, MPEG2, set(), 2),
    "black": ("color=black:size=640x360:rate=25", SILENCE, H264, {"black", "silent"}, None),
}
GROUPS = {name: f"239.1.1.{number}" for number, name in enumerate(CHANNELS, 1)}
OF_PICTURES = {"frozen", "black", "silent", "loudness_high"}
# Mean red, green and blue of a tile's picture; null while there is none.
COLOUR = """
const image = document.querySelector(`${arguments[0]} .picture img`);
if (!image || image.hidden || !image.complete || !image.naturalWidth) return null;
const canvas = document.createElement('canvas');
[canvas.width, canvas.height] = [image.naturalWidth, image.naturalHeight];
const context = canvas.getContext('2d');
context.drawImage(image, 0, 0);
const {data} = context.getImageData(0, 0, canvas.width, canvas.height);
const sums = [0, 0, 0];
for (let at = 0; at < data.length; at += 4) for (let one = 0; one < 3; one++) sums[one] += data[at + one];
return {mean: sums.map((sum) => sum * 4 / data.length), shape: image.naturalWidth / image.naturalHeight, src: image.src};
"""


def send(name):
    picture, sound, codec, *_ = CHANNELS[name]
    return Process("ffmpeg", "-nostdin", "-v", "error", "-re", "-f", "lavfi", "-i", picture, "-re", "-f", "lavfi", "-i", sound,
                   *codec, "-b:v", "1M", "-pix_fmt", "yuv420p", "-c:a", "mp2", "-b:a", "128k", "-f", "mpegts", "-muxrate", "2500k",
                   f"udp://{GROUPS[name]}:5000?pkt_size=1316&localaddr=10.99.0.2&ttl=8&bitrate=2800000&burst_bits=10528",
                   log=f"/tmp/{name}.log")


class PicturesTest(unittest.TestCase):
    """One play for all; tests run in the order of their names."""

    @classmethod
    def setUpClass(cls):
        cls.station = Station(CONFIGURATION + "".join(
            f'[[channel]]\ngroup = "{group}"\nname = "{name}"\n' for name, group in GROUPS.items()))
        cls.addClassCleanup(cls.station.close)
        cls.station.start()
        directory = cls.station.directory
        for command in ((BIN / "kestor", "-s"),
                        (BIN / "kestor-meter", "--socket", directory / "meter.sock", "--coded-socket", directory / "coded.sock"),
                        (BIN / "kestor-picture", "--coded", directory / "coded.sock", "--station", directory / "picture.sock")):
            cls.addClassCleanup(Process(*command, log=f"/tmp/{command[0].name}.log").stop)
        for name in CHANNELS:
            cls.addClassCleanup(send(name).stop, signal.SIGKILL)
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)

    def picture(self, name, tag=None):
        request = urllib.request.Request(f"{self.station.url}api/v1/channels/{GROUPS[name]}/picture",
                                         headers={"If-None-Match": tag} if tag else {})
        with urllib.request.urlopen(request, timeout=10) as answer:
            return answer.read(), answer.headers["ETag"], answer.headers["Content-Type"]

    def colour(self, name):
        return self.browser.run(COLOUR, f'a[href="#channel/{GROUPS[name]}"]')

    def test_1_each_channel_has_one_soon(self):
        def all_there():
            try:
                return [self.picture(name) for name in CHANNELS]
            except urllib.error.HTTPError as error:
                self.assertEqual(error.code, 404)
                return None
        for content, tag, kind in wait_for("pictures of all", 40, all_there):
            self.assertEqual(kind, "image/jpeg")
            self.assertEqual((content[:3], content[-2:]), (b"\xff\xd8\xff", b"\xff\xd9"))
            self.assertLessEqual(len(content), 32 * 1024)
        def is_known():  # unless another one comes in between
            try:
                return not self.picture("green", self.picture("green")[1])
            except urllib.error.HTTPError as error:
                return error.code == 304
        wait_for("what is known is not given again", 1, is_known)
        status = wait_for("the status has them", 5, lambda: (
            found := self.station.get("status")["pictures"]) and found["held"] == 4 and found)
        self.assertTrue(status["connected"] and status["meter"])
        self.assertEqual((status["refused"], status["workersKilled"]), (0, 0))

    def test_2_the_right_one_on_the_right_tile_and_another_one_soon(self):
        self.browser.open(self.station.url)
        wait_for("a button", 20, lambda: self.browser.run(
            "return [...document.querySelectorAll('.controls button')].some((one) => one.textContent === 'Pictures' && !one.hidden)"))
        self.browser.press("Pictures")
        self.assertIn("pictures=on", self.browser.run("return location.href"))
        first = {}
        for name, (_, _, _, _, colour) in CHANNELS.items():
            found = first[name] = wait_for(f"the picture of {name}", 20, lambda: self.colour(name))
            mean = found["mean"]
            if colour is None:
                self.assertLess(max(mean), 12, name)
            else:
                self.assertGreater(mean[colour], 2 * sorted(mean)[1], f"{name}: {mean}")
            self.assertAlmostEqual(found["shape"], 4 / 3 if name == "blue" else 16 / 9, delta=0.03, msg=name)
        self.browser.image("pictures")
        for name in ("red", "blue"):
            wait_for(f"another picture of {name}", 40,
                     lambda: (now := self.colour(name)) and now["src"] != first[name]["src"] and now["mean"] != first[name]["mean"])
        self.browser.open(self.station.url + "#?pictures=on")
        wait_for("as the address says", 20, lambda: self.colour("red"))
        self.assertEqual(self.browser.problems(), [])

    def test_3_what_is_frozen_black_or_silent_is_told(self):
        def told():
            raised = {name: set() for name in CHANNELS}
            names = {group: name for name, group in GROUPS.items()}
            for alarm in self.station.get("alarms"):
                if alarm["alarm"] in OF_PICTURES and alarm["group"]:
                    raised[names[alarm["group"]]].add(alarm["alarm"])
            return raised
        expected = {name: alarms for name, (_, _, _, alarms, _) in CHANNELS.items()}
        wait_for("alarms", 90, lambda: told() == expected)
        for name, mark in (("green", "Picture frozen"), ("black", "Picture black"), ("red", "")):
            selector = f'a[href="#channel/{GROUPS[name]}"] .picture-mark'
            wait_for(f"{name} is marked", 5, lambda: self.browser.text(selector) == mark)
        loudness = self.station.get(f"channels/{GROUPS['red']}/history?metric=picture.loudness")
        heard = [point[1] for point in loudness["points"] if point[1] is not None]
        self.assertTrue(heard and all(-40 < value < 0 for value in heard), heard)

    def test_4_a_channel_and_the_wall_for_a_screen_show_it(self):
        self.browser.open(f"{self.station.url}#channel/{GROUPS['blue']}")
        wait_for("the channel's picture", 20, lambda: self.browser.run(COLOUR, ".channel-picture"))
        wait_for("what is said of it", 10, lambda: re.match(
            r"Picture of .* · 720 × 576 · loudness -\d", self.browser.text(".channel-picture .note")))
        wait_for("the plot of loudness beside the others", 10, lambda: self.browser.run("""
            const plot = document.querySelector("main .plot-place section.plot[aria-label='Loudness']");
            return plot?.checkVisibility() && plot.querySelector('output').textContent.includes('LUFS')"""))
        self.browser.image("pictures-channel")
        self.browser.open(f"{self.station.url}#wall")
        wait_for("a large picture", 20, lambda: self.colour("green"))
        self.browser.image("pictures-screen")
        self.assertEqual(self.browser.problems(), [])


def varint(number):
    text = b""
    while number >= 0x80:
        text += bytes([number & 0x7F | 0x80])
        number >>= 7
    return text + bytes([number])


def member(number, content):
    """Of a message (proto/picture.proto): bytes with their length, or a number."""
    if isinstance(content, int):
        return varint(number << 3) + varint(content)
    return varint(number << 3 | 2) + varint(len(content)) + content


class MadeUp:
    """In the place of kestor-picture: a picture of each group in turn, each every 10 s."""

    def __init__(self, path, groups, pictures):
        self.groups = [struct.unpack("!I", socket.inet_aton(group))[0] for group in groups]
        self.pictures = pictures
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(str(path))
        self.say(member(1, member(1, 1) + member(3, b"made up")))
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def say(self, message):
        self.socket.sendall(struct.pack("!I", len(message)) + message)

    def run(self):
        for turn in range(1_000_000):
            for place in range(turn % 10, len(self.groups), 10):
                self.say(member(2, b"\x0d" + struct.pack("<I", self.groups[place]) + member(2, time.time_ns()) + member(3, 1) +
                                member(4, self.pictures[(turn + place) % len(self.pictures)]) + member(5, 1920) + member(6, 1080)))
            self.say(member(3, member(1, turn * len(self.groups) // 10) + member(7, 1)))
            if self.ended.wait(1):
                return

    def close(self):
        self.ended.set()
        self.thread.join(5)
        self.socket.close()


class ManyTest(unittest.TestCase):
    """1000 channels with a picture each 10 s, made up."""

    CHANNELS = 1000
    MS = 150  # of the main thread's CPU time a second

    def test_1000_tiles_with_pictures_are_cheap(self):
        subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=320x180:rate=1", "-frames:v", "8",
                        "-q:v", "5", "/tmp/made-%d.jpeg"], check=True)
        pictures = []
        for number in range(1, 9):
            with open(f"/tmp/made-{number}.jpeg", "rb") as file:
                pictures.append(file.read())
        groups = [f"239.2.{number // 250}.{number % 250 + 1}" for number in range(self.CHANNELS)]
        controller, pipe = 5997, "/tmp/many-pipe"
        os.mkfifo(pipe)
        self.addCleanup(os.unlink, pipe)
        station = Station("".join(f'[[channel]]\ngroup = "{group}"\nname = "Channel {place}"\n'
                                  for place, group in enumerate(groups)), port=9428, controller=controller, pipe=pipe)
        self.addCleanup(station.close)
        station.start()
        columns = [column["name"] for column in station.get("meta")["columns"]["stream"]]
        self.addCleanup(Writer(pipe, controller, columns, groups).close)
        self.addCleanup(MadeUp(station.directory / "picture.sock", groups, pictures).close)
        browser = Browser()
        self.addCleanup(browser.close)
        browser.open(station.url + "#?pictures=on")
        shown = "return [...document.querySelectorAll('.picture img')].filter((one) => !one.hidden).length"
        wait_for("pictures", 40, lambda: browser.run(shown) > 12)
        loaded = lambda: browser.run("return performance.getEntriesByType('resource')"
                                     ".filter(({name}) => name.includes('/picture?')).length")
        near, before = browser.run("return document.querySelectorAll('.picture').length"), loaded()
        self.assertLess(near, 60, "near the screen alone")
        browser.run("performance.setResourceTimingBufferSize(100000)")
        seconds = 20
        cost = browser.main_thread_ms(seconds)
        asked = loaded() - before
        print(f"{self.CHANNELS} channels, {near} pictures near the screen: {cost:.0f} ms/s, {asked} loaded in {seconds} s")
        self.assertLess(cost, self.MS)
        self.assertLess(asked, near * (seconds / 10 + 2), "what changed alone")
        self.assertGreater(asked, near)
        browser.image("pictures-1000")
        self.assertEqual(browser.problems(), [])


if __name__ == "__main__":
    unittest.main(verbosity=2, argv=sys.argv)
