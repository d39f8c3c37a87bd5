"""The order of the code: who may include whom, no circles, no source that has grown too long.

structure_test.py SOURCE_DIR
"""

import os
import re
import sys

LONGEST = 600  # lines of a source together with its header

# Which rooms a room may include besides itself.
ROOMS = {
    "platform": [],
    "frame": ["platform"],
    "modules": ["platform", "frame"],
    "routed": ["platform", "frame"],
    "host/base": [],
    "host/model": ["host/base"],
    "host/gateway": ["host/base", "host/model"],
    "host/config": ["host/base", "host/model", "host/gateway"],
    "host/platform": ["platform", "host/base", "host/model", "host/gateway"],
    "host/control": ["host/base", "host/model"],
    "host/dhcp": ["host/base", "host/model", "host/gateway"],
    "host/linux": ["host/base", "host/model", "host/gateway", "host/dhcp"],
    "host/sim": ["host/base", "host/model", "host/gateway", "host/dhcp"],
    "keelctl": ["host/base", "host/dhcp"],
    "keelhost": ["host/base", "host/model", "host/gateway", "host/platform", "host/config", "host/control", "host/dhcp",
                 "host/linux"],
}
ROOMS["tests"] = list(ROOMS)
ROOMS["tests/fuzz"] = list(ROOMS)
ROOMS["tests/simulate"] = [room for room in ROOMS if not room.startswith("tests")]
ROOMS["benchmarks"] = list(ROOMS)

# The one header of a room that others see; tests look behind it.
DOORS = {"host/platform": "host/platform/plugin.h"}


def read_sources(root):
    """Path -> (number of lines, paths of the project's own files that it includes)."""
    sources = {}
    for top in sorted({room.split("/")[0] for room in ROOMS}):
        for folder, _, names in os.walk(os.path.join(root, top)):
            for name in names:
                if name.endswith((".h", ".cpp")):
                    path = os.path.join(folder, name)
                    with open(path, encoding="utf-8") as file:
                        lines = file.readlines()
                    included = [re.match(r'\s*#\s*include\s*"([^"]+)"', line) for line in lines]
                    sources[os.path.relpath(path, root)] = (len(lines), [one[1] for one in included if one])
    return sources


def unit_of(path):
    """A header and its source are one unit."""
    return os.path.splitext(path)[0]


def room_of(path):
    return os.path.dirname(path)


def long_units(sources):
    lengths = {}
    for path, (lines, _) in sources.items():
        lengths[unit_of(path)] = lengths.get(unit_of(path), 0) + lines
    return [f"{unit} has {length} lines, more than {LONGEST}: part it" for unit, length in lengths.items()
            if length > LONGEST]


def circles(sources):
    """Circles of units: a circle of files is one of units, too, and so is a source that includes what includes it."""
    below = {}
    for path, (_, included) in sources.items():
        below.setdefault(unit_of(path), set()).update(unit_of(one) for one in included if unit_of(one) != unit_of(path))
    found = []
    done = set()

    def follow(unit, way):
        if unit in way:
            circle = way[way.index(unit):] + [unit]
            found.append(" -> ".join(circle) + " is a circle: give what they share a place beneath them")
        elif unit not in done:
            for lower in sorted(below.get(unit, ())):
                follow(lower, way + [unit])
            done.add(unit)

    for unit in sorted(below):
        follow(unit, [])
    return found


def strays(sources):
    found = []
    for path, (_, included) in sources.items():
        room = room_of(path)
        if room not in ROOMS:
            found.append(f"{path} is in no room that this test knows: give it a line there")
            continue
        for one in included:
            other = room_of(one)
            if one not in sources:
                found.append(f'{path} includes "{one}", which is no file from the root of the project')
            elif other != room and other not in ROOMS[room]:
                found.append(f"{path} includes {one}, but {room} may not include {other}")
            elif other != room and not room.startswith("tests") and one != DOORS.get(other, one):
                found.append(f"{path} includes {one}, but of {other} only {DOORS[other]} is for others")
    return found


def main():
    sources = read_sources(sys.argv[1])
    for room in ROOMS:
        if not any(room_of(path) == room for path in sources):
            sys.exit(f"no source in {room}: the list of rooms in this test is out of date")
    complaints = long_units(sources) + circles(sources) + strays(sources)
    print("\n".join(complaints))
    sys.exit(1 if complaints else 0)


if __name__ == "__main__":
    main()
