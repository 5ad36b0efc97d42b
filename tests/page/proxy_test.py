#!/usr/bin/python3
"""The station behind a real proxy (nginx) on its Unix socket, under a path: page, event stream and changes work through it, and
those of other sites do not. Run it through scripts/netns.sh.
"""
import http.client
import json
import shutil
import socket
import tempfile
import time
import unittest

from harness import Browser, Process, Station, wait_for

CONFIGURATION = """
socket_token = {socket_token}
allowed_hosts = ["probe1.example.net"]

[[channel]]
group = "239.1.1.1"
name = "News HD"
"""
NGINX = """
daemon off;
pid {directory}/nginx.pid;
error_log {directory}/error.log;
events {{}}
http {{
    access_log off;
    client_body_temp_path {directory}/body;
    proxy_temp_path {directory}/proxy;
    fastcgi_temp_path {directory}/f; uwsgi_temp_path {directory}/u; scgi_temp_path {directory}/s;
    server {{  # as the manual has it
        listen 127.0.0.1:8080;
        location /kestor/ {{
            proxy_pass http://unix:{socket}:/;
            proxy_http_version 1.1;
            proxy_set_header Host $http_host;
            proxy_buffering off;
            client_max_body_size 16m;
        }}
    }}
    server {{  # with nginx's defaults
        listen 127.0.0.1:8081;
        location / {{ proxy_pass http://unix:{socket}:/; }}
    }}
    server {{  # somebody else's site
        listen 127.0.0.1:8082;
        location / {{ add_header Content-Type text/html always; return 200 "<!doctype html><title>other</title>"; }}
    }}
}}
"""
PROXY, DEFAULTS, OTHER = 8080, 8081, 8082


class ProxyTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.station = Station(CONFIGURATION.format(socket_token="false"))
        cls.addClassCleanup(cls.station.close)
        cls.station.start()
        cls.directory = tempfile.mkdtemp(prefix="page-proxy-")
        cls.addClassCleanup(shutil.rmtree, cls.directory, ignore_errors=True)
        configuration = f"{cls.directory}/nginx.conf"
        with open(configuration, "w") as file:
            file.write("user root;" + NGINX.format(directory=cls.directory, socket=cls.station.directory / "socket"))
        proxy = Process("/usr/sbin/nginx", "-c", configuration, "-e", f"{cls.directory}/error.log",
                        log=f"{cls.directory}/log")
        cls.addClassCleanup(proxy.stop)
        wait_for("nginx answers", 10, cls.listens)

    @staticmethod
    def listens():
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", PROXY)) == 0

    def ask(self, port, method, path, headers=(), body=None):
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
        connection.request(method, path, body=body, headers=dict(headers))
        answer = connection.getresponse()
        answer.body = answer.read()
        connection.close()
        return answer

    def clear(self, port, **headers):
        path = "/kestor/api/v1/clear" if port == PROXY else "/api/v1/clear"
        headers = {name.replace("_", "-"): value for name, value in headers.items()}
        return self.ask(port, "POST", path, {"Content-Type": "application/json", **headers}).status

    def test_a_browser_works_through_it(self):
        browser = Browser()
        self.addCleanup(browser.close)
        browser.open(f"http://127.0.0.1:{PROXY}/kestor")
        wait_for("the channel's tile", 15, lambda: "News HD" in browser.text("main"))
        wait_for("the event stream", 15, lambda: browser.run(
            "return performance.getEntriesByType('resource').length") > 5)
        changed = browser.driver.execute_async_script("""
            const done = arguments[arguments.length - 1];
            fetch('api/v1/channels/239.1.1.2', {method: 'PUT', headers: {'Content-Type': 'application/json'},
                                                body: '{"name": "By proxy"}'}).then((answer) => done(answer.status));""")
        self.assertEqual(changed, 201)
        wait_for("what changed, by the event stream", 15, lambda: "By proxy" in browser.text("main"))
        self.assertEqual(browser.problems(), [])

        # A page of another site, in the same browser.
        before = self.station.get("channels")
        browser.open(f"http://127.0.0.1:{OTHER}/")
        for type_, body, path in (("text/plain", "#EXTM3U\\nudp://@239.9.9.9:1\\n", "import"), ("text/plain", "", "clear"),
                                  ("", "", "reload")):
            browser.driver.execute_async_script(f"""
                const done = arguments[arguments.length - 1];
                fetch('http://127.0.0.1:{PROXY}/kestor/api/v1/{path}',
                      {{method: 'POST', mode: 'no-cors', headers: {{'Content-Type': '{type_}'}}, body: '{body}'}})
                  .then(() => done(), () => done());""")
        self.assertEqual([one["group"] for one in self.station.get("channels")], [one["group"] for one in before])

    def test_the_event_stream_passes_at_once(self):
        connection = http.client.HTTPConnection("127.0.0.1", PROXY, timeout=5)
        connection.request("GET", "/kestor/api/v1/stream")
        answer = connection.getresponse()
        self.assertEqual(answer.headers["Content-Type"], "text/event-stream")
        seen = set()
        end = time.monotonic() + 5
        while seen < {"channels", "alarm", "snapshot"} and time.monotonic() < end:
            name, _, value = answer.readline().decode().strip().partition(": ")
            seen |= {value} if name == "event" else set()
        self.assertEqual(seen, {"channels", "alarm", "snapshot"})
        connection.close()

    def test_changes_of_other_sites_are_refused(self):
        cases = (
            (200, {}),
            (200, {"Origin": f"http://127.0.0.1:{PROXY}"}),
            (403, {"Origin": "http://evil.example"}),
            (403, {"Origin": f"http://127.0.0.1:{OTHER}"}),
            (403, {"Sec_Fetch_Site": "cross-site"}),
            (403, {"Host": "evil.example", "Origin": "http://evil.example"}),
            (403, {"Origin": "http://evil.example", "X_Forwarded_Host": "evil.example"}),
            (200, {"Host": "probe1.example.net", "Origin": "http://probe1.example.net"}),
        )
        for status, headers in cases:
            self.assertEqual(self.clear(PROXY, **headers), status, headers)
        # nginx's defaults name a Host of their own.
        self.assertEqual(self.clear(DEFAULTS, Origin="https://kestor.example", Sec_Fetch_Site="same-origin"), 200)
        self.assertEqual(self.clear(DEFAULTS, Origin=f"http://127.0.0.1:{DEFAULTS}"), 403)
        self.assertEqual(self.clear(DEFAULTS, Origin="https://probe1.example.net"), 200)

    def test_the_socket_may_need_the_token(self):
        file = self.station.directory / "station.toml"
        kept = file.read_text()
        self.assertEqual(json.loads(self.ask(PROXY, "GET", "/kestor/api/v1/access").body), {"changes": "allowed"})
        try:
            file.write_text(kept.replace("socket_token = false", "socket_token = true"))
            wait_for("the token is needed", 10, lambda: self.clear(PROXY) == 401)
            self.assertEqual(self.clear(PROXY, Authorization="Bearer page-test-token"), 200)
        finally:
            file.write_text(kept)
        wait_for("it is not any more", 10, lambda: self.clear(PROXY) == 200)


if __name__ == "__main__":
    unittest.main()
