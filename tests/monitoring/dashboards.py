"""Holds the Grafana dashboards against what Grafana 10 takes, and their queries against a real Prometheus.

    dashboards.py               the files alone
    dashboards.py URL [TIME]    and what a Prometheus at that URL answers, at that time
"""
import functools
import json
import re
import sys
import time
import urllib.error
import urllib.parse
import urllib.request
from pathlib import Path

DASHBOARDS = Path(__file__).parents[2] / "monitoring" / "dashboards"
SOURCE = {"type": "prometheus", "uid": "${datasource}"}
UNITS = {"short", "none", "bps", "pps", "s", "bytes", "percentunit"}
# What a panel's answer has to be, and the options that Grafana 10's schema of the panel has.
RANGE = {"timeseries": {"legend", "tooltip"},
         "state-timeline": {"alignValue", "legend", "mergeValues", "rowHeight", "showValue", "tooltip"}}
INSTANT = {"stat": {"colorMode", "graphMode", "justifyMode", "orientation", "reduceOptions", "textMode"},
           "gauge": {"orientation", "reduceOptions", "showThresholdLabels", "showThresholdMarkers"},
           "table": {"cellHeight", "footer", "showHeader"}}
FIELD_PROPERTIES = {"unit", "decimals", "min", "max", "noValue", "mappings", "thresholds", "color", "links", "custom",
                    "custom.cellOptions"}
BUILT_IN = {"__rate_interval", "__range", "__interval", "__url_time_range", "__data", "__value",
            "__all", "datasource"}
OF_SOME_STREAMS = ("kestor_rtp_",)  # the test's have none of it
SPAN = 120  # seconds that a dashboard shows


def load():
    return [json.loads(path.read_text()) for path in sorted(DASHBOARDS.glob("*.json"))]


def panels(board):
    return [panel for panel in board["panels"] if panel["type"] != "row"]


def require(condition, *what):
    if not condition:
        raise AssertionError(" ".join(str(part) for part in what))


def check_variables(board):
    names = [variable["name"] for variable in board["templating"]["list"]]
    require(len(set(names)) == len(names), board["uid"], "has a variable twice")
    require({"datasource", "probe", "channel", "label"} <= set(names), board["uid"], names)
    for variable in board["templating"]["list"]:
        require(variable["type"] in ("datasource", "query"), variable)
        if variable["type"] == "query":
            require(variable["datasource"] == SOURCE and variable["refresh"] in (1, 2), variable["name"])
            require(re.fullmatch(r"label_names\(\)|(label_values|query_result)\(.+\)", variable["query"]["query"]), variable["query"])
    used = set(re.findall(r"\$\{?(\w+)", json.dumps(board)))
    require(used <= set(names) | BUILT_IN, board["uid"], "uses unknown variables", used - set(names) - BUILT_IN)


def check_place(board):
    taken = set()
    for panel in board["panels"]:
        place = panel["gridPos"]
        cells = {(x, y) for x in range(place["x"], place["x"] + place["w"])
                 for y in range(place["y"], place["y"] + place["h"])}
        require(place["x"] + place["w"] <= 24 and not cells & taken, panel["title"], "overlaps another panel")
        taken |= cells


def check_panel(board, panel):
    name = (board["uid"], panel["title"])
    options = {**RANGE, **INSTANT}.get(panel["type"])
    require(options is not None, name, "is of type", panel["type"])
    require(panel["datasource"] == SOURCE and panel["title"] and panel["targets"], name)
    require(panel["description"].endswith("."), name, "has no description")
    require(set(panel["options"]) == options, name, "has options", set(panel["options"]) ^ options)
    fields = panel["fieldConfig"]["defaults"]
    require(set(fields) <= FIELD_PROPERTIES and fields["unit"] in UNITS, name, fields)
    require(fields["thresholds"]["steps"][0]["value"] is None, name, "has no base threshold")
    for override in panel["fieldConfig"]["overrides"]:
        require(override["matcher"]["id"] == "byName", name)
        require({p["id"] for p in override["properties"]} <= FIELD_PROPERTIES, name, override)
    references = [target["refId"] for target in panel["targets"]]
    require(len(set(references)) == len(references), name, "has a refId twice")
    for target in panel["targets"]:
        instant = panel["type"] in INSTANT
        require(target["datasource"] == SOURCE and target["expr"].strip(), name)
        require(target["instant"] == instant and target["range"] != instant, name, "asks the wrong kind of query")
        require(target["format"] == ("table" if panel["type"] == "table" else "time_series"), name)


def check_files(boards):
    for key in ("uid", "title"):
        require(len({board[key] for board in boards}) == len(boards), "dashboards share a", key)
    for board in boards:
        require(re.fullmatch(r"[\w-]{1,40}", board["uid"]) and board["schemaVersion"] == 38, board["uid"])
        require(board["id"] is None and board["timezone"] == "" and board["time"]["to"] == "now", board["uid"])
        ids = [panel["id"] for panel in board["panels"]]
        require(len(set(ids)) == len(ids), board["uid"], "has a panel id twice")
        require(any("kestor_alarm_active" in a["expr"] and a["datasource"] == SOURCE
                    for a in board["annotations"]["list"]), board["uid"], "has no annotations of alarms")
        check_variables(board)
        check_place(board)
        for panel in panels(board):
            check_panel(board, panel)
    kinds = {panel["type"] for board in boards for panel in panels(board)}
    require(kinds == set(RANGE) | set(INSTANT), kinds)


class Prometheus:
    """The HTTP API of Prometheus, or of what speaks it."""

    def __init__(self, url):
        self.url = url

    def get(self, path, **parameters):
        query = urllib.parse.urlencode(parameters, doseq=True)
        try:
            with urllib.request.urlopen(f"{self.url}/api/v1/{path}?{query}", timeout=10) as answer:
                body = json.load(answer)
        except urllib.error.HTTPError as error:
            raise AssertionError(f"{path} {parameters}: {error.read().decode()}") from error
        require(body["status"] == "success", body)
        return body["data"]

    def instant(self, expression, at=None):
        data = self.get("query", query=expression, time=at or time.time())
        require(data["resultType"] == "vector", expression, "gives a", data["resultType"])
        return data["result"]

    def range(self, expression, at):
        data = self.get("query_range", query=expression, start=at - SPAN, end=at, step=1)
        require(data["resultType"] == "matrix", expression, "gives a", data["resultType"])
        return data["result"]


def fill(text, values):
    """Puts the variables' values in place, as Grafana does."""
    values = {**values, "__rate_interval": "10s", "__range": f"{SPAN}s", "__interval": "1s"}
    return re.sub(r"\$\{?(\w+)\}?", lambda match: values[match[1]], text)


def variable_values(server, variable, values):
    """What Grafana offers: the query's texts as far as the regex takes them."""
    function, argument = re.fullmatch(r"(\w+)\((.*)\)", fill(variable["query"]["query"], values)).groups()
    if function == "label_names":
        offered = server.get("labels")
    elif function == "label_values":
        metric, label = argument.rsplit(", ", 1)
        offered = server.get(f"label/{label}/values", **{"match[]": metric})
    else:
        offered = ["{" + ",".join(f'{name}="{value}"' for name, value in one["metric"].items()) + "}"
                   for one in server.instant(argument)]
    pattern = re.compile(variable["regex"].strip("/").replace("(?<", "(?P<") or "(?P<value>.*)")
    matches = [match for match in map(pattern.search, offered) if match]
    return [match["value"] if "value" in pattern.groupindex else match[1] for match in matches]


def check_answer(name, panel, target, series):
    """Fields that legends, transformations and overrides name have to be there; other than PromQL says."""
    if not series and any(metric in target["expr"] for metric in OF_SOME_STREAMS):
        return
    require(series, name, "answers nothing to", target["expr"])
    if panel["type"] in RANGE:
        require(any(len(one["values"]) >= 2 for one in series), name, "answers single points")
    for label in re.findall(r"{{(\w+)}}", target.get("legendFormat", "")):
        require(all(label in one["metric"] for one in series), name, "has series without", label)
    legends = {re.sub(r"{{(\w+)}}", lambda match: one["metric"][match[1]], target.get("legendFormat", ""))
               for one in series}
    require(panel["type"] == "table" or len(legends) == len(series), name, "has legends that are the same", legends)


def check_table(name, panel, answers):
    several = len(answers) > 1
    columns = {label for series in answers.values() for one in series for label in one["metric"]} | {"Time"}
    columns |= {f"Value #{reference}" for reference in answers} if several else {"Value"}
    organize = next(t["options"] for t in panel["transformations"] if t["id"] == "organize")
    named = set(organize["renameByName"]) | set(organize["indexByName"])
    renamed = {organize["renameByName"].get(column, column) for column in columns
               if not organize["excludeByName"].get(column)}
    overrides = {override["matcher"]["options"] for override in panel["fieldConfig"]["overrides"]}
    require(named <= columns, name, "orders columns that are not there:", named - columns)
    require(overrides <= renamed, name, "formats columns that are not there:", overrides - renamed)


def check_variable(server, variable, values):
    offered = variable_values(server, variable, values)
    wanted = values[variable["name"]]
    require(offered and (wanted == ".*" or wanted in offered), variable["name"], "offers", offered)


def check_panel_queries(server, board, panel, values, at, alarm_at):
    name = (board["uid"], panel["title"])
    answers = {}
    for target in panel["targets"]:
        expression = fill(target["expr"], values)
        moment = alarm_at if "alarm" in expression else at
        series = server.range(expression, at) if panel["type"] in RANGE else server.instant(expression, moment)
        check_answer(name, panel, target, series)
        answers[target["refId"]] = series
    if panel["type"] == "table":
        check_table(name, panel, answers)


def check_annotation(server, board, annotation, values, at):
    require(server.range(fill(annotation["expr"], values), at), board["uid"], "has no annotation", annotation["name"])


def checks_of(server, board, values, at, alarm_at):
    for variable in board["templating"]["list"]:
        if variable["type"] == "query":
            yield functools.partial(check_variable, server, variable, values)
    for annotation in board["annotations"]["list"]:
        # The one probe that may be chosen is not the one that fell silent.
        if "probe_silent" not in annotation["expr"] or values["probe"] == ".*":
            yield functools.partial(check_annotation, server, board, annotation, values, at)
    for panel in panels(board):
        yield functools.partial(check_panel_queries, server, board, panel, values, at, alarm_at)


def check_queries(server, boards, at, choices, alarm_at):
    """`choices`: values for the variables by name, one after the other; ".*" stands for all, and for the last choice's
    where a dashboard has no all. What tells of raised alarms is asked at `alarm_at`, when there was one. Returns how many checks were made."""
    asked = 0
    problems = []
    for board in boards:
        for choice in choices:
            single = {v["name"] for v in board["templating"]["list"] if not v["includeAll"]}
            values = {name: choices[-1][name] if name in single and value == ".*" else value
                      for name, value in choice.items()}
            for check in checks_of(server, board, values, at, alarm_at):
                asked += 1
                try:
                    check()
                except AssertionError as error:
                    problems.append(str(error))
    require(not problems, "\n".join(sorted(set(problems))))
    return asked


if __name__ == "__main__":
    found = load()
    check_files(found)
    print(f"{len(found)} dashboards with {sum(len(panels(board)) for board in found)} panels")
    if len(sys.argv) > 1:
        moment = float(sys.argv[2]) if len(sys.argv) > 2 else time.time()
        everything = {"probe": ".*", "channel": ".*", "label": "profile", "value": ".*"}
        print(check_queries(Prometheus(sys.argv[1]), found, moment, [everything], moment), "queries answered")
