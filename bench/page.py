#!/usr/bin/python3
"""Whether the page grows: 1000 channels whose bit rates all move and whose alarms come and go, watched by one browser.

    scripts/netns.sh bench/page.py [--minutes 60] [--out FILE]

Each minute a row: the script heap, nodes and listeners that forced collections leave, and the resident memory of the
renderer and of the station. The first half stays on the wall; in the second the view changes once a minute, and the row is
taken on each. Exits with 1 where the heap of any of them grows by more than --most bytes an hour: the first half from
SETTLED minutes on, in the second each view from its second visit on, when all that is made once is made.
"""
import argparse
import os
import pathlib
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/page"))
from harness import Browser  # noqa: E402
from feeds import ManyChannels  # noqa: E402

SETTLED = 5  # minutes until what is made once is made


def resident(process):
    for line in pathlib.Path(f"/proc/{process}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) * 1024
    return 0


def renderer():
    """The renderer of the page: the one that has most."""
    found = subprocess.run(["pgrep", "-f", "type=renderer"], stdout=subprocess.PIPE, text=True).stdout.split()
    return max((resident(one) for one in found), default=0)


def row(browser, station):
    heap, nodes = browser.kept()
    return {"heap": heap, "nodes": nodes, "listeners": browser.metric("JSEventListeners"), "renderer": renderer(),
            "station": resident(station.process.popen.pid)}


def slope(points):
    """Least squares, per second."""
    middle = [sum(column) / len(points) for column in zip(*points)]
    over = sum((x - middle[0]) ** 2 for x, _ in points)
    return sum((x - middle[0]) * (y - middle[1]) for x, y in points) / over if over else 0


def main():
    options = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    options.add_argument("--minutes", type=float, default=60)
    options.add_argument("--out", type=argparse.FileType("w"), default=sys.stdout)
    options.add_argument("--most", type=float, default=1_000_000)
    options.add_argument("--page", type=pathlib.Path, default=ROOT / "station/page")
    options = options.parse_args()
    with ManyChannels(page=options.page) as many:
        browser = Browser()
        many.callback(browser.close)
        many.wait()
        views = ["", f"channel/{many.groups[99]}", f"channel/{many.groups[3]}", "events", "day", "probe", "report"]
        browser.open(many.station.url)
        begin, turn, heaps = time.monotonic(), 0, {}  # by half and view: when, how many bytes
        print("minute view heap_MB nodes listeners renderer_MB station_MB main_ms_per_s", file=options.out, flush=True)
        while (now := time.monotonic() - begin) < options.minutes * 60:
            view = views[turn % len(views)] if now > options.minutes * 30 else ""
            turn += now > options.minutes * 30
            browser.run("if (location.hash.slice(1) !== arguments[0]) location.hash = arguments[0]", view)
            time.sleep(15)
            busy = browser.main_thread_ms(25)
            one = row(browser, many.station)
            at = time.monotonic() - begin
            print(f"{at / 60:.1f} {view or 'wall'} {one['heap'] / 1e6:.2f} {one['nodes']:.0f} {one['listeners']:.0f} "
                  f"{one['renderer'] / 1e6:.0f} {one['station'] / 1e6:.0f} {busy:.0f}", file=options.out, flush=True)
            if at > SETTLED * 60:
                heaps.setdefault((turn > 0, view), []).append((at, one["heap"]))
            time.sleep(max(0, now + 60 - (time.monotonic() - begin)))
        problems = browser.problems()
        grown = {}
        for (second, view), points in heaps.items():
            if len(points[second:]) > 1:
                grown[second, view] = slope(points[second:]) * 3600
                print(f"{view or 'wall'}, {'second' if second else 'first'} half: {grown[second, view] / 1e3:+.0f} kB an hour",
                      file=options.out)
        print(f"problems: {problems}", file=options.out, flush=True)
        return 1 if max(grown.values(), default=0) > options.most or problems else 0


if __name__ == "__main__":
    os.environ.setdefault("LC_ALL", "C.UTF-8")
    sys.exit(main())
