#!/usr/bin/env python3
"""Holds every answer of a running station against its schema in docs/api.yaml.

  apiSchemas.py API.YAML ADDRESS:PORT [SOCKET]

Asks every documented call that changes nothing, and with SOCKET, the station's Unix socket, those that change
something as well. Needs a station that has a channel. What was not tried, and what the station takes without it being
documented, is a fault too.
"""
import http.client
import json
import socket
import sys
import time

import jsonschema
import yaml


def time_text(ahead):
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() + ahead))


class SocketConnection(http.client.HTTPConnection):
    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(10)
        self.sock.connect(self.host)


class Checker:
    def __init__(self, api, address, path):
        with open(api, encoding="utf-8") as file:
            self.api = yaml.safe_load(file)
        self.address, self.path = address, path
        self.tried, self.faults = set(), []

    def request(self, method, target, body=None, content_type="application/json"):
        """Status, headers, body."""
        connection = SocketConnection(self.path) if self.path else http.client.HTTPConnection(self.address, timeout=10)
        headers = {"Content-Type": content_type} if method in ("POST", "PUT") else {}
        connection.request(method, target, body=body, headers=headers)
        answer = connection.getresponse()
        result = answer.status, answer.headers, answer.read()
        connection.close()
        return result

    def resolve(self, node):
        while "$ref" in node:
            found = self.api
            for part in node["$ref"].split("/")[1:]:
                found = found[part]
            node = found
        return node

    def validate(self, what, value, schema):
        root = {"allOf": [schema], "components": self.api["components"]}
        for error in list(jsonschema.Draft202012Validator(root).iter_errors(value))[:3]:
            where = "/".join(str(part) for part in error.absolute_path)
            self.faults.append(f"{what}: at /{where}: {error.message[:300]}")

    def check(self, method, path, target, expect, body=None, content_type="application/json"):
        """Asks, and returns the answer's document or text when it has the expected status and fits."""
        what = f"{method} {target}"
        status, headers, content = self.request(method, target, body, content_type)
        if status != expect:
            self.faults.append(f"{what}: status {status}, not {expect}: {content[:200]!r}")
            return None
        self.tried.add((method, path, str(status) if status < 400 else "default"))
        responses = self.api["paths"][path][method.lower()]["responses"]
        contents = self.resolve(responses.get(str(status), responses.get("default")))["content"]
        kind = headers.get("Content-Type", "").split(";")[0]
        if kind not in contents:
            self.faults.append(f"{what}: Content-Type {kind} is not documented")
            return None
        if kind.startswith("image/"):
            return content
        if not kind.endswith("json"):
            return content.decode()
        document = json.loads(content, parse_constant=lambda word: self.faults.append(f"{what}: {word} is no JSON"))
        self.validate(what, document, contents[kind]["schema"])
        return document

    def events(self):
        """The first event of each kind of the stream."""
        path = "/api/v1/stream"
        connection = SocketConnection(self.path) if self.path else http.client.HTTPConnection(self.address, timeout=10)
        connection.request("GET", path, headers={"Last-Event-ID": "anything"})
        answer = connection.getresponse()
        if answer.status != 200 or answer.headers["Content-Type"] != "text/event-stream":
            self.faults.append(f"GET {path}: {answer.status} {answer.headers['Content-Type']}")
            return
        self.tried.add(("GET", path, "200"))
        missing = {"snapshot": "StreamSnapshot", "alarm": "StreamAlarm", "channels": "StreamChannels"}
        event = {}
        while missing:
            line = answer.readline().decode().rstrip("\n")
            if line:
                name, _, value = line.partition(": ")
                event[name] = value
                continue
            schema = missing.pop(event.get("event"), None)
            if schema:
                self.validate(f"event {event['event']}", json.loads(event["data"]),
                              {"$ref": f"#/components/schemas/{schema}"})
                if "id" not in event:
                    self.faults.append(f"event {event['event']} has no id")
            event = {}
        connection.close()

    def reads(self, group):
        channel = "/api/v1/channels/{group}"
        for path in ("access", "status", "channels", "records", "alarms", "alarm-types", "events", "overview", "meta", "use",
                     "maintenance", "export", "incidents", "passed", "shelved"):
            self.check("GET", f"/api/v1/{path}", f"/api/v1/{path}", 200)
            refused = self.check("GET", f"/api/v1/{path}", f"/api/v1/{path}?nonsense=1", 422)
            if refused and refused.get("field") != "nonsense":
                self.faults.append(f"GET /api/v1/{path}?nonsense=1: the field is not named: {refused}")
        metrics = [metric["name"] for metric in self.check("GET", "/api/v1/meta", "/api/v1/meta", 200)["historyMetrics"]]
        nobody, late = "239.255.255.254", "?since=2999-01-01T00:00:00Z"
        # The station has a picture and a meter's report of its first channel.
        for path, asked in {
                "/metrics": [("", 200), ("?x=1", 422)],
                "/healthz": [("", 200)],
                "/readyz": [("", 503 if self.request("GET", "/readyz")[0] == 503 else 200)],
                "/api/v1/events": [("?format=csv&limit=10", 200), ("?alarm=continuity", 200), ("?alarm=none", 422)],
                "/api/v1/report": [("", 200), ("?label=site", 200), ("?format=csv", 200), ("?format=outages", 200), (late, 422),
                                   (f"?group={nobody}", 404)],
                "/api/v1/stream": [("?x=1", 422)],
                "/api/v1/timeline": [("", 200), (f"?group={group}", 200), (late, 422), ("?group=x", 422)],
                channel: [("", 200)],
                channel + "/history": [("", 422), *((f"?metric={metric}&resolution={step}", 200) for metric in metrics for step in (1, 60)),
                                       *((f"?metrics={','.join(metrics)}&resolution={step}", 200) for step in (1, 60, 3600))],
                channel + "/picture": [("", 200), ("?taken=1", 200)],
                channel + "/meter": [("", 200), ("?format=json", 200), ("?format=text", 200), ("?format=xml", 422)],
                channel + "/cues": [("", 200)]}.items():
            for query, status in asked:
                self.check("GET", path, path.replace("{group}", group) + query, status)
        for path in (channel, channel + "/picture", channel + "/cues"):
            self.check("GET", path, path.replace("{group}", nobody), 404)
        self.events()

    def changes(self):
        path, target = "/api/v1/channels/{group}", "/api/v1/channels/239.254.254.1"
        self.check("PUT", path, target, 201, json.dumps({"name": "Zwölf", "labels": {"site": "x"}, "port": 5000}))
        self.check("PUT", path, target, 200, json.dumps({"number": 12}))
        self.check("PUT", path, target, 422, json.dumps({"nmae": "x"}))
        self.check("DELETE", path, target, 200)
        self.check("DELETE", path, "/api/v1/channels/nonsense", 422)
        for call, body in (("clear", ""), ("passive", '{"on": false}'), ("igmp-latency", '{"milliseconds": 1000}'),
                           ("reload", "{}")):
            self.check("POST", f"/api/v1/{call}", f"/api/v1/{call}", 200, body)
            self.check("POST", f"/api/v1/{call}", f"/api/v1/{call}", 400, "{")
        self.check("POST", "/api/v1/import", "/api/v1/import", 200, "#EXTM3U\n#EXTINF:-1,A\nudp://@239.254.254.2:5000\n",
                   "audio/x-mpegurl")
        self.check("POST", "/api/v1/import", "/api/v1/import", 415, "x", "image/png")
        window = self.check("POST", "/api/v1/maintenance", "/api/v1/maintenance", 201,
                            '{"until": "2199-01-01T00:00:00Z", "remark": "works"}')
        self.check("POST", "/api/v1/maintenance", "/api/v1/maintenance", 422, "{}")
        path = "/api/v1/maintenance/{id}"
        self.check("DELETE", path, path.replace("{id}", str(window["id"])), 200)
        self.check("DELETE", path, path.replace("{id}", "0"), 422)
        until = '"until": "2199-01-01T00:00:00Z"'
        for verb in ("acknowledge", "unacknowledge", "shelve", "unshelve"):
            path = f"/api/v1/alarms/{verb}"
            ending = ", " + until if verb == "shelve" else ""
            for body, status in (("{}", 422), ('{"ids": [], "by": "x"}', 422), ('{"ids": [1], "incident": 1' + ending + "}", 422),
                                 ('{"label": {"site": 7}}', 422)):
                self.check("POST", path, path, status, body)
        soon = time_text(600)
        for verb, body in (("shelve", f'{{"groups": ["{self.group}"], "alarm": "no_signal", "until": "{soon}"}}'),
                           ("unshelve", f'{{"group": "{self.group}", "alarm": "no_signal"}}')):
            path = f"/api/v1/alarms/{verb}"
            self.check("POST", path, path, 200, body.replace("no_signal", "no_signal"))
            self.check("GET", "/api/v1/shelved", "/api/v1/shelved", 200)
        path = "/api/v1/alarms/{id}/acknowledge"
        self.check("POST", path, path.replace("{id}", "x"), 422, "{}")
        for alarm in self.check("GET", "/api/v1/alarms", "/api/v1/alarms", 200)[:1]:
            self.check("POST", path, path.replace("{id}", str(alarm["id"])), 200, '{"by": "me", "remark": "seen"}')

    def completeness(self):
        """What is documented was tried, and nothing else is taken."""
        for path, item in self.api["paths"].items():
            methods = [method.upper() for method in item if method != "parameters"]
            target = path.replace("{group}", "239.1.1.1").replace("{id}", "1")
            allowed = self.request("OPTIONS", target)[1].get("Allow", "").split(", ")
            if sorted(set(allowed) - {"HEAD", "OPTIONS"}) != sorted(methods):
                self.faults.append(f"{path}: takes {allowed}, documented are {methods}")
            for method in methods:
                # Whether an alarm is raised, and whether the probe is silent, is not for this test to say.
                optional = "acknowledge" in path or path in ("/healthz", "/readyz")
                for status in item[method.lower()]["responses"]:
                    if not optional and (self.path or method == "GET") and (method, path, status) not in self.tried:
                        self.faults.append(f"{method} {path}: {status} was not tried")


def main():
    checker = Checker(sys.argv[1], sys.argv[2], sys.argv[3] if len(sys.argv) > 3 else None)
    channels = json.loads(checker.request("GET", "/api/v1/channels")[2])
    if not channels:
        sys.exit("the station has no channel")
    checker.group = channels[0]["group"]
    checker.reads(checker.group)
    if checker.path:
        checker.changes()
    checker.completeness()
    for fault in checker.faults:
        print(fault)
    print(f"{len(checker.tried)} calls tried, {len(checker.faults)} faults")
    sys.exit(1 if checker.faults else 0)


main()
