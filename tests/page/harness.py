"""The real station, the real probe and a real browser, in the network of scripts/netns.sh."""
import contextlib
import http.client
import http.server
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.request

from selenium import webdriver
from selenium.common.exceptions import (ElementClickInterceptedException, ElementNotInteractableException,
                                        StaleElementReferenceException, WebDriverException)
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("KESTOR_BIN", ROOT / "build/release/bin"))
IMAGES = ROOT / "build/page"
TOKEN = "page-test-token"


PATIENCE = 4  # a machine that does other things as well, or is slow


def wait_for(what, seconds, condition):
    """The condition's first true value; an AssertionError that says what was waited for when none came in PATIENCE
    times the seconds that it takes at most on a machine that does nothing else. It is looked at once more after that
    time, however long the looks before took."""
    seconds *= PATIENCE
    end = time.monotonic() + seconds
    while True:
        late = time.monotonic() > end
        try:
            value = condition()
        except (StaleElementReferenceException, ElementClickInterceptedException, ElementNotInteractableException):
            value = None  # drawn anew, covered or hidden meanwhile
        if value:
            return value
        if late:
            raise AssertionError("\n".join([f"{what}: not within {seconds} s", *(browser.shown() for browser in Browser.all)]))
        time.sleep(0.05)


class Process:
    """A program that ends with the test; its output goes to a file."""

    def __init__(self, *command, log):
        self.log = log
        with open(log, "ab") as output:
            self.popen = subprocess.Popen([str(part) for part in command], stdout=output, stderr=output)

    def stop(self, how=signal.SIGTERM):
        if self.popen.poll() is None:
            self.popen.send_signal(how)
            try:
                self.popen.wait(20)  # it may have much to save
            except subprocess.TimeoutExpired:
                self.popen.kill()
                self.popen.wait()


class Station:
    """kestor-station with a directory of its own; its API as get() and change()."""

    def __init__(self, configuration, port=9427, controller=5999, pipe="/tmp/american_maid", token=True,
                 page=ROOT / "station/page"):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="page-station-"))
        self.port = port
        self.url = f"http://127.0.0.1:{port}/"
        (self.directory / "token").write_text(TOKEN + "\n")
        (self.directory / "token").chmod(0o600)
        (self.directory / "station.toml").write_text(
            (f'token_file = "{self.directory}/token"\n' if token else "") + configuration)
        self.arguments = ("--config", self.directory / "station.toml", "--state", self.directory / "state",
                          "--socket", self.directory / "socket", "--listen", f"127.0.0.1:{port}", "--pipe", pipe,
                          "--controller-endpoint", f"tcp://127.0.0.1:{controller}", "--page", page)
        self.process = None

    def start(self):
        self.process = Process(BIN / "kestor-station", *self.arguments, log=self.directory / "log")
        try:
            wait_for("the station answers", 10, self.answers)
        except AssertionError as error:
            raise AssertionError(f"{error}\n{(self.directory / 'log').read_text()[-2000:]}") from error
        return self

    def answers(self):
        try:
            return self.get("status")
        except OSError:
            return None

    def stop(self, how=signal.SIGTERM):
        self.process.stop(how)

    def forget(self):
        """Starts anew as after an installation."""
        self.stop()
        shutil.rmtree(self.directory / "state")
        self.start()

    def get(self, path):
        with urllib.request.urlopen(f"{self.url}api/v1/{path}", timeout=10) as answer:
            return json.load(answer)

    def ask(self, method, path, content, kind):
        request = urllib.request.Request(f"{self.url}api/v1/{path}", method=method, data=content,
                                         headers={"Authorization": f"Bearer {TOKEN}", "Content-Type": kind})
        with urllib.request.urlopen(request, timeout=10) as answer:
            return json.load(answer)

    def change(self, method, path, body=None):
        return self.ask(method, path, None if body is None else json.dumps(body).encode(), "application/json")

    def upload(self, playlist):
        return self.ask("POST", "import", playlist.encode(), "text/plain")

    def close(self):
        if self.process:
            self.stop()
        shutil.rmtree(self.directory, ignore_errors=True)


class Writer:
    """In the place of a probe: asks the station, writes a snapshot of `groups` into the pipe each second, and captures."""

    # Of ConfigurationMessage, with a TasksRequest of text "" and a sequence number (proto/config.proto).
    @staticmethod
    def request(number):
        digits = b""
        while number >= 0x80:
            digits += bytes([number & 0x7F | 0x80])
            number >>= 7
        inner = b"\x0a\x00\x20" + digits + bytes([number])
        return b"\x12" + bytes([len(inner)]) + inner

    def __init__(self, pipe, controller, columns, groups, silent=()):
        self.pipe, self.controller, self.columns, self.groups = pipe, controller, columns, groups
        self.silent = silent  # groups of which no packet ever came
        self.held = False     # nothing is written
        self.flapping, self.faults = True, 0  # some lose packets now and then, and how many
        self.silenced, self.received = set(), {}  # groups of which no more packets come, and how many came
        self.capture = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))  # ETH_P_ALL
        self.capture.bind(("eth0", 0))
        self.ended = threading.Event()
        self.threads = [threading.Thread(target=run, daemon=True) for run in (self.write, self.ask)]
        for thread in self.threads:
            thread.start()

    def ask(self):
        import zmq
        number = 0
        while not self.ended.is_set():
            number += 1
            socket = zmq.Context.instance().socket(zmq.REQ)
            socket.linger = 0
            socket.connect(f"tcp://127.0.0.1:{self.controller}")
            socket.send(self.request(number))
            socket.poll(500)
            socket.close()
            self.ended.wait(0.5)

    def write(self):
        turn = 0
        while not self.ended.wait(1):
            turn += 1
            self.gone = self.silenced  # all of them at once, in whatever moment the test says so
            if self.flapping:
                self.faults = 3 * (turn // 15)
            text = "".join(self.record(place, group, turn) for place, group in enumerate(self.groups))
            text += "".join(self.line({"group": group, "kind": 0, "pid": -1, "label": "-1", "transportQualityIndex": 1})
                            for group in self.silent)
            if self.held:
                continue
            with contextlib.suppress(BrokenPipeError), open(self.pipe, "w") as pipe:  # a station that is stopped meanwhile
                pipe.write(text)

    def packets(self, group, turn):
        if group not in self.gone:
            self.received[group] = turn * 1300
        return self.received.get(group, 0)

    def record(self, place, group, turn):
        rate = 2_000_000 + 5_000 * place + 40_000 * ((turn + place) % 7)
        values = {"group": group, "kind": 0, "pid": -1, "label": "-1", "bitRate": rate, "destinationPort": 5000,
                  "packetsReceived": self.packets(group, turn), "transportQualityIndex": 4.5, "ttl": 8, "igmpLatency": 120,
                  "Transport_error": 2}  # of long ago
        if place % 100 == 99:  # some lose packets now and then: alarms come and go
            values["packetsLost"] = values["Continuity_count_error"] = self.faults
        return self.line(values)

    def line(self, values):
        return ";".join(str(values.get(column, 0)) for column in self.columns) + "\n"

    def close(self):
        self.ended.set()
        for thread in self.threads:
            thread.join(5)
        self.capture.close()


class SpoiledTest(unittest.TestCase):
    """A station whose probe is made up, a proxy that spoils its answers, and a browser, for all tests of a class that says
    CONFIGURATION, the GROUPS that the probe has packets of and those that it is SILENT of."""

    SILENT = ()

    @classmethod
    def setUpClass(cls):
        controller, pipe = 5998, "/tmp/page-pipe"
        os.mkfifo(pipe)
        cls.addClassCleanup(os.unlink, pipe)
        cls.station = Station(cls.CONFIGURATION, controller=controller, pipe=pipe)
        cls.addClassCleanup(cls.station.close)
        cls.station.start()
        columns = [column["name"] for column in cls.station.get("meta")["columns"]["stream"]]
        cls.addClassCleanup(Writer(pipe, controller, columns, cls.GROUPS, cls.SILENT).close)
        cls.between = Between(cls.station, 9440)
        cls.addClassCleanup(cls.between.close)
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)
        wait_for("data", 20, lambda: cls.station.get("channels")[0]["lastSeen"])

    def setUp(self):
        self.browser.driver.get("about:blank")  # what the test before left asks on
        self.between.mend()
        self.between.asked.clear()


class Between:
    """A proxy that has the station below a path of its own, and spoils some of its answers. `rules`: [pattern of the path, what to do]; the
    first that fits holds. What to do: a status to answer with, "hang" for an answer that never comes, a document to answer
    in place of the station (a dict or list; it is read anew each time), or a function from the answer's bytes to others; with
    `times`, so often and no more."""

    PREFIX = "/tv/kestor"

    def __init__(self, station, port):
        self.station, self.url = station, f"http://127.0.0.1:{port}{self.PREFIX}/"
        self.rules, self.asked = [], []
        self.ended = threading.Event()
        self.room = threading.Semaphore(5)  # of the connections that the station takes from one address
        between = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_GET(self):
                between.pass_on(self)
            do_PUT = do_POST = do_DELETE = do_HEAD = do_GET

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", port), Handler)
        self.server.daemon_threads = True
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def spoil(self, pattern, what, times=None):
        self.rules.insert(0, [pattern, what, times])

    def mend(self):
        self.rules = []

    def ruled(self, path):
        for rule in self.rules:
            if re.search(rule[0], path) and rule[2] != 0:
                if rule[2] is not None:
                    rule[2] -= 1
                return rule[1]
        return None

    def pass_on(self, client):
        body = client.rfile.read(int(client.headers.get("Content-Length", 0)))
        if not client.path.startswith(self.PREFIX + "/"):
            self.answer(client, 404, {}, b"")
            return
        client.path = client.path.removeprefix(self.PREFIX)
        self.asked.append((client.command, client.path))
        what = self.ruled(client.path)
        if what == "hang":
            self.ended.wait()
            return
        if isinstance(what, (dict, list)):
            self.answer(client, 200, {"Content-Type": "application/json"}, json.dumps(what).encode())
            return
        if isinstance(what, int):
            problem = json.dumps({"type": "about:blank", "title": "Spoiled", "status": what}).encode()
            self.answer(client, what, {"Content-Type": "application/problem+json"}, problem)
            return
        connection = http.client.HTTPConnection("127.0.0.1", self.station.port)
        headers = {name: value for name, value in client.headers.items() if name != "Accept-Encoding"}
        try:
            if not client.path.endswith("/stream"):
                with self.room:
                    connection.request(client.command, client.path, body or None, headers)
                    answer = connection.getresponse()
                    given = answer.read()
                    connection.close()
            else:
                connection.request(client.command, client.path, None, headers)
                answer = connection.getresponse()
            kept = {name: answer.headers[name] for name in ("Content-Type", "Cache-Control", "Content-Security-Policy")
                    if name in answer.headers}
            if answer.headers["Content-Type"] == "text/event-stream":
                self.stream(client, kept, answer, what)
            else:
                self.answer(client, answer.status, kept, what(given) if what else given)
        except OSError:
            client.close_connection = True
        finally:
            connection.close()

    def begin(self, client, status, headers):
        client.send_response(status)
        for name, value in headers.items():
            client.send_header(name, value)
        client.end_headers()

    def answer(self, client, status, headers, body):
        self.begin(client, status, headers | {"Content-Length": str(len(body))})
        if client.command != "HEAD":
            client.wfile.write(body)

    def stream(self, client, headers, answer, what):
        client.close_connection = True
        self.begin(client, 200, headers)
        while line := answer.readline():
            client.wfile.write(what(line) if what else line)
            client.wfile.flush()

    def close(self):
        self.ended.set()
        self.server.shutdown()
        self.server.server_close()


class Browser:
    """Headless Chromium with a profile of its own."""

    all = []  # that are open

    def __init__(self):
        self.profile = tempfile.mkdtemp(prefix="page-browser-")
        options = Options()
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                         "--disable-background-networking", "--disable-component-update", "--disable-sync",
                         "--disable-dev-shm-usage", "--hide-scrollbars", "--force-device-scale-factor=1",
                         "--window-size=1440,900", f"--user-data-dir={self.profile}"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.driver.set_script_timeout(30)
        self.cdp("Performance.enable", timeDomain="threadTicks")  # CPU time, not what other programs take from it
        self.device("dark", 1440, 900)
        Browser.all.append(self)

    def shown(self):
        """What a failure tells of the page: where it is, what it says, and what its plots do."""
        try:
            return self.run("""const text = (node) => node.innerText.replace(/\\s+/g, ' ');
                const plots = [...document.querySelectorAll('section.plot')].filter((plot) => plot.checkVisibility());
                return `${location.href} ${document.readyState}\\n` + plots.map((plot) =>
                    `${plot.getAttribute('aria-label')}: ${plot.querySelector('output').textContent}`).join('; ') +
                    `\\n${text(document.body).slice(0, 4000)}`""")
        except WebDriverException as error:
            return str(error)

    def device(self, scheme, width, height):
        self.cdp("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])
        self.cdp("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1,
                 mobile=width < 500)

    def cdp(self, command, **parameters):
        return self.driver.execute_cdp_cmd(command, parameters)

    def open(self, url):
        self.driver.get("about:blank")  # else a new fragment alone loads nothing anew
        self.driver.get(url)

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def find(self, selector):
        found = self.driver.find_elements(By.CSS_SELECTOR, selector)
        return found[0] if found else None

    def text(self, selector):
        """Text of the first match as it is in the document, or an empty text."""
        return self.run("return document.querySelector(arguments[0])?.textContent ?? ''", selector)

    def texts(self, selector):
        return self.run(
            "return [...document.querySelectorAll(arguments[0])].map((node) => node.textContent)", selector)

    def facts(self):
        """Terms and their values, of one moment."""
        return dict(self.run("return [...document.querySelectorAll('main dt')].map((one) => [one, one.nextSibling].map((node) => node.textContent))"))

    def readouts(self):
        """Of the plots that are shown: one of what nobody measures here is not."""
        return self.run("return [...document.querySelectorAll('main .plot')].filter((plot) => plot.checkVisibility())"
                        ".map((plot) => plot.querySelector('output').textContent)")

    def press(self, text, within="body"):
        """Clicks the first visible button of this text; one that is drawn anew meanwhile is looked for again."""
        def pressed():
            for node in self.driver.find_elements(By.CSS_SELECTOR, f"{within} button, {within} a"):
                if node.text.strip() == text and node.is_displayed() and node.is_enabled():
                    node.click()
                    return True
            return False
        wait_for(f'a button "{text}"', 5, pressed)

    def click(self, selector):
        """Likewise the first match."""
        wait_for(f"something to click: {selector}", 5, lambda: (node := self.find(selector)) and (node.click() or True))

    def unlock(self):
        wait_for("the page is live", 15, lambda: self.find("#connection.live"))
        if self.text("#token") == "Unlock":
            self.press("Unlock")
            self.type("Token", TOKEN)
            self.press("Allow")
            wait_for("the token is taken", 5, lambda: self.text("#token") == "Lock")

    def type(self, label, text):
        """Sets the field of this label as typing does."""
        wait_for(f'a field "{label}"', 5, lambda: self.run("""
                    const label = [...document.querySelectorAll('label')].filter((node) => node.checkVisibility())
                      .findLast((node) => node.textContent === arguments[0]);
                    if (!label) return false;
                    const input = document.getElementById(label.htmlFor);
                    input.value = arguments[1];
                    input.dispatchEvent(new Event('input', {bubbles: true}));
                    input.dispatchEvent(new Event('change', {bubbles: true}));
                    return true;""", label, text))

    def error_at(self, label):
        """What is said of the field of this label."""
        return self.run("""
            const label = [...document.querySelectorAll('label')].findLast((node) => node.textContent === arguments[0]);
            return label.parentNode.querySelector('.field-error').textContent""", label)

    def search(self, text):
        self.run("""const search = document.querySelector('main input[type=search]');
                    search.value = arguments[0]; search.dispatchEvent(new Event('input'))""", text)

    def painted(self, within="main"):
        """How many of the plots that are shown there have something on their canvas."""
        return self.run("""return [...document.querySelectorAll(arguments[0] + ' .plot-area')].filter((area) => {
                     const [canvas] = area.querySelectorAll('canvas');
                     return area.checkVisibility() && canvas?.width &&
                         canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data.some((v) => v);
                   }).length""", within)

    def problems(self):
        """What the browser complained of: scripts that failed, files that are missing, policy violations; not what the
        station refused or did not answer, which is up to the test."""
        expected = re.compile(r"status of (401|403|422)|net::ERR_CONNECTION_REFUSED|ERR_CONNECTION_RESET|ERR_INCOMPLETE_CHUNKED|"
                              r"ERR_EMPTY_RESPONSE")
        return [entry["message"] for entry in self.driver.get_log("browser")
                if entry["level"] == "SEVERE" and not expected.search(entry["message"])]

    def image(self, name):
        IMAGES.mkdir(parents=True, exist_ok=True)
        self.driver.save_screenshot(str(IMAGES / f"{name}.png"))

    def images(self, name, settle=0.7):
        """One of the view on each kind of screen, which it is no wider than."""
        for kind, device in {"dark": ("dark", 1440, 900), "light": ("light", 1440, 900), "phone": ("dark", 360, 780),
                             "4k": ("dark", 3840, 2160)}.items():
            self.device(*device)
            time.sleep(settle)
            wait_for(f"{name} no wider than the screen at {device}", 2, lambda: self.run(
                "return innerWidth === arguments[0] && document.documentElement.scrollWidth <= innerWidth", device[1]))
            self.image(f"{name}-{kind}")
        self.device("dark", 1440, 900)

    def main_thread_ms(self, seconds):
        """CPU time of the page's main thread, in ms a second, over so many seconds."""
        before = self.metric("ThreadTime")
        time.sleep(seconds)
        return (self.metric("ThreadTime") - before) * 1000 / seconds

    def metric(self, name):
        metrics = self.cdp("Performance.getMetrics")["metrics"]
        return next(metric["value"] for metric in metrics if metric["name"] == name)

    def kept(self):
        """Bytes of the script heap, and nodes, that forced collections leave: the least of some looks, since what is on
        its way through the page at one moment is not kept."""
        def look():
            self.cdp("HeapProfiler.collectGarbage")
            time.sleep(0.3)
            return self.metric("JSHeapUsedSize"), self.metric("Nodes")
        looks = [look() for _ in range(8)]
        return min(one for one, _ in looks), min(nodes for _, nodes in looks)

    def close(self):
        Browser.all.remove(self)
        self.driver.quit()
        shutil.rmtree(self.profile, ignore_errors=True)


def cable(state):
    """Plugs the cable in ("up") or pulls it out ("down")."""
    subprocess.run(["ip", "link", "set", "feed0", state], check=True)
