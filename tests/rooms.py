#!/usr/bin/env python3
"""The station's rooms include what docs/architecture.md says: no arrow is missing there, none is too many, and none
leads up. That a room cannot reach others is CMake's to see to."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
STATION = ROOT / "station"
EVERYBODY = "common"  # may be included by every room, so the table does not repeat it
INCLUDE = re.compile(r'^#include "([a-z]+)/', re.M)


def documented():
    """Rooms in the table's order, from the top, each with those that it depends on."""
    section = re.search(r"^## The station$(.*?)^## ", (ROOT / "docs/architecture.md").read_text(), re.M | re.S)[1]
    rows = re.findall(r"^\| `(\w+)/` \|.*\|(.*?)\|$", section, re.M)
    return {room: set(re.findall(r"`(\w+)/`", needs)) for room, needs in rows if room != "page"}


def included(room):
    files = [file for file in (STATION / room).iterdir() if file.suffix in (".cpp", ".h")]
    return {found for file in files for found in INCLUDE.findall(file.read_text())} - {room}


def faults(table):
    rooms = {path.name for path in STATION.iterdir() if any(path.glob("*.h"))}
    if rooms != set(table):
        yield f"in the tree or in the table alone: {sorted(rooms ^ set(table))}"
        return
    order = list(table)
    for room, needs in table.items():
        real = {one for one in included(room) if one in rooms} - {EVERYBODY}
        told = needs & rooms - {EVERYBODY}
        if real != told:
            yield f"{room}/ includes {sorted(real)}, the table says {sorted(told)}"
        for one in real:
            if order.index(one) < order.index(room):
                yield f"{room}/ includes {one}/, which stands above it"


found = list(faults(documented()))
print("\n".join(found))
sys.exit(1 if found else 0)
