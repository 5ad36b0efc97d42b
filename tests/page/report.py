"""A meter's report, made up: complete, as docs/api.yaml has it, and without a fault."""
import datetime
import pathlib

import jsonschema
import yaml

API = pathlib.Path(__file__).resolve().parents[2] / "docs/api.yaml"
CHECKS = [("1.1", "TS_sync_loss"), ("1.2", "Sync_byte_error"), ("1.3.a", "PAT_error_2"), ("1.4", "Continuity_count_error"),
          ("1.5.a", "PMT_error_2"), ("1.6", "PID_error"), ("2.1", "Transport_error"), ("2.2", "CRC_error"),
          ("2.3.a", "PCR_repetition_error"), ("2.3.b", "PCR_discontinuity_indicator_error"), ("2.4", "PCR_accuracy_error"),
          ("2.5", "PTS_error"), ("2.6", "CAT_error"), ("3.1.a", "NIT_actual_error"), ("3.1.b", "NIT_other_error"),
          ("3.2", "SI_repetition_error"), ("3.4.a", "Unreferenced_PID"), ("3.5.a", "SDT_actual_error"),
          ("3.5.b", "SDT_other_error"), ("3.6.a", "EIT_actual_error"), ("3.6.b", "EIT_other_error"),
          ("3.6.c", "EIT_PF_error"), ("3.7", "RST_error"), ("3.8", "TDT_error")]


def rfc3339(seconds_from_now=0):
    now = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(seconds=seconds_from_now)
    return now.isoformat(timespec="milliseconds").replace("+00:00", "Z")


def stream(pid, kind, codec, **members):
    return {"pid": pid, "streamType": 27, "codec": codec, "kind": kind, "language": None, "ca": [], "video": None,
            "gop": None, "audio": None, "ptsAheadMs": None} | members


def level(pid, kind, bps, **members):
    return {"pid": pid, "kind": kind, "packets": 1000, "bps": bps, "continuityErrors": 0, "lost": 0, "repeated": 0,
            "scrambling": "clear", "referenced": True} | members


def cue(event, at, **members):
    return {"pid": 500, "command": "splice_insert", "eventId": event, "out": True, "immediate": False, "pts": 900_000,
            "at": at, "aheadMs": 4000, "durationMs": 30_000, "cancelled": False, "repetitions": 1, "segmentation": []} | members


def segment(**members):
    return {"typeId": 52, "type": "Provider Placement Opportunity Start", "eventId": 1, "upidType": 9, "upid": "ad",
            "durationMs": 30_000, "number": 1, "expected": 2} | members


def report():
    video = {"width": 1920, "height": 1080, "frameRate": 25, "interlaced": True, "profile": "High", "level": 40,
             "chroma": "4:2:0", "bitDepth": 8, "transfer": None}
    group = {"structure": "|IBBPBBP", "pictures": 7, "ms": 280, "lowest": 7, "highest": 9, "mean": 7.5, "closed": True}
    sound = {"sampleRate": 48_000, "channels": 2, "bitrate": 128_000, "profile": None}
    return {
        "schema": 1, "group": "239.1.1.1", "begin": rfc3339(-600), "seconds": 600.0,
        "flow": {"source": "10.0.0.7", "sourcePort": 4000, "port": 5000, "encapsulation": "udp", "packetsPerDatagram": 7,
                 "datagrams": 1000, "malformed": 0, "fragments": 0, "otherFlows": 0, "fec": 0, "vlan": [], "ttl": 8,
                 "dscp": 0},
        "packets": {"received": 7000, "null": 100, "scrambled": 0, "repeated": 0, "notTracked": 0,
                    "lost": {"packets": 0, "basis": "counter", "byCounter": 0, "byClock": None, "byRtp": None, "events": 0,
                             "longest": 0, "longestMs": 0}},
        "bitrate": {"bps": 4_100_000, "lowest": 4_000_000, "highest": 4_200_000, "byClock": 4_100_000, "constant": True,
                    "nullShare": 0.1},
        "checks": [{"id": number, "name": name, "priority": int(number[0]), "applicable": True, "count": 0, "seconds": 0,
                    "last": None, "active": False, "pids": {}} for number, name in CHECKS],
        "clocks": [{"pid": 256, "programs": [1], "intervalHighestMs": 21.4, "intervalMeanMs": 20,
                    "accuracy": {"applicable": True, "worstNs": 40.2, "lastWorstNs": 16.1, "over500": 0, "measured": 900},
                    "overallJitterNs": 41_500_000, "frequencyOffsetPpm": 1.5, "signalled": 0, "unsignalled": 0}],
        "network": {"interArrivalMs": {"lowest": 0.01, "mean": 2.6, "highest": 20.1, "p99": 17},
                    "histogram": [0] * 11 + [300, 40] + [0] * 19,
                    "mdi": {"delayFactorMs": 25, "delayFactorHighestMs": 37, "lossRate": 0, "lossRateHighest": 0},
                    "rtp": None},
        "transport": {"transportStreamId": 7, "originalNetworkId": 1, "network": None, "utc": None, "utcOffsetMs": None},
        "services": [{"program": 1, "name": "First HD", "provider": "Provider", "type": 25, "pmtPid": 4096,
                      "pmtVersion": 3, "pcrPid": 256, "scrambled": False,
                      "now": {"title": "News", "begin": None, "durationMs": 900_000}, "next": None,
                      "streams": [stream(256, "video", "H.264", video=video, gop=group, ptsAheadMs=700),
                                  stream(257, "audio", "AAC", audio=sound, language="deu,eng", ptsAheadMs=500),
                                  stream(500, "cue", "SCTE 35")]}],
        "pids": [level(0, "table", 15_000), level(256, "video", 3_500_000), level(257, "audio", 130_000),
                 level(500, "cue", 0), level(700, "unreferenced", 30_000, referenced=False), level(4096, "table", 15_000),
                 level(8191, "null", 410_000)],
        "cues": [cue(101, rfc3339(-30), segmentation=[segment()])],
        "cueErrors": {"encrypted": 0, "malformed": 0},
        "changes": [],
        "live": {"disturbed": False, "disturbedSeconds": 0, "lastDisturbed": None, "joinLatencyMs": None, "leftOut": None},
    }


def blank(document, kept=("schema", "group", "begin", "seconds")):
    """The same as far as the API lets members be null: nothing of it is known."""
    with open(API, encoding="utf-8") as file:
        schemas = yaml.safe_load(file)["components"]["schemas"]

    def may_be_null(schema):
        if "$ref" in schema:
            return may_be_null(schemas[schema["$ref"].split("/")[-1]])
        return "null" in schema.get("type", []) or None in schema.get("enum", [1])

    def emptied(value, schema):
        while "$ref" in schema:
            schema = schemas[schema["$ref"].split("/")[-1]]
        if isinstance(value, dict):
            properties = dict(schema.get("properties", {}))
            for part in schema.get("allOf", []):
                properties |= schemas[part["$ref"].split("/")[-1]]["properties"]
            return {name: member if name in kept or name not in properties else
                    None if not isinstance(member, (dict, list)) and may_be_null(properties[name]) else
                    emptied(member, properties[name]) for name, member in value.items()}
        if isinstance(value, list):
            return [emptied(item, schema.get("items", {})) for item in value]
        return value
    return emptied(document, schemas["MeterReport"])


def hold_against_api(document):
    with open(API, encoding="utf-8") as file:
        api = yaml.safe_load(file)
    schema = {"$ref": "#/components/schemas/MeterReport", "components": api["components"]}
    jsonschema.Draft202012Validator(schema).validate(document)
