#!/usr/bin/env python3
"""Runs the tools in turn on one tree, round after round, and prints medians and ratios.

Every run of a round starts with the page cache in the same state: filled by reading every candidate
just before (a tool may drop the pages that it has read), or emptied. A first run finds no saved
digests, flags or attributes; a repeated run finds those of the tool's own earlier run. Ratios are
to the fastest other tool of the same round. The floor of a first run is walking the tree and
digesting the candidates; that of a repeated run is opening every file.
"""

import argparse
import json
import os
import statistics
import subprocess
import sys

import tools
import trees
from timing import timed

FIELDS = ("wall", "processor", "memory")


def candidates_of(root, minimum):
    """All regular files of at least the minimum size, and the number of entries."""
    names, entries = [], 0
    for directory, directories, files in os.walk(os.fsencode(root)):
        entries += len(directories) + len(files)
        for name in files:
            path = os.path.join(directory, name)
            status = os.lstat(path)
            if os.path.isfile(path) and not os.path.islink(path) and status.st_size >= minimum:
                names.append(path)
    return names, entries


class Measurement:
    def __init__(self, arguments):
        self.directory = arguments.workspace
        self.root = f"{arguments.workspace}/tree"
        self.floor = {"first": [arguments.floor, self.root, str(arguments.minimum)],
                      "repeated": [arguments.floor, self.root, "open"]}
        self.tools = tools.all_tools(arguments.tool, arguments.minimum, arguments.workspace)
        trees.make_tree(arguments.tree, self.root)
        subprocess.run(["sync"], check=True)
        self.files, self.entries = candidates_of(self.root, arguments.minimum)
        self.runs = []

    def fill_cache(self):
        for name in self.files:
            with open(name, "rb", buffering=0) as file:
                while file.read(1 << 20):
                    pass
        subprocess.run(["find", self.root, "-size", "+1"], check=True, stdout=subprocess.DEVNULL)

    @staticmethod
    def empty_cache():
        subprocess.run(["sync"], check=True)
        with open("/proc/sys/vm/drop_caches", "w", encoding="ascii") as file:
            file.write("3")

    def timed(self, command, output):
        return timed(command, output, f"{self.directory}/times")

    def run_tool(self, tool, cache, repeated):
        tool.forget(self.files)
        if repeated and tool.remembers:
            self.timed(tool.command(self.root, True), tool.output)
        self.empty_cache() if cache == "cold" else self.fill_cache()
        return self.timed(tool.command(self.root, repeated), tool.output)

    def run_floor(self, cache, kind):
        self.empty_cache() if cache == "cold" else self.fill_cache()
        return self.timed(self.floor[kind], f"{self.directory}/floor.out")

    def round(self, number, cache):
        """Each round begins with a different tool."""
        start = number % len(self.tools)
        for kind in ("first", "repeated"):
            for tool in self.tools[start:] + self.tools[:start]:
                if kind == "repeated" and not tool.remembers:
                    continue
                self.runs.append({"round": number, "cache": cache, "kind": kind,
                                  "tool": tool.name, **self.run_tool(tool, cache, kind == "repeated")})
            self.runs.append({"round": number, "cache": cache, "kind": kind, "tool": "floor",
                              **self.run_floor(cache, kind)})
        print(f"round {number + 1}, {cache}: " + ", ".join(
            f"{run['tool']}{' again' if run['kind'] == 'repeated' else ''} {run['wall']:.2f}"
            for run in self.runs if run["round"] == number and run["cache"] == cache), flush=True)

    def groups_of(self, tool):
        """The groups as sets of inodes, since each tool may report a different name of a file."""
        groups = set()
        for paths in tool.groups():
            inodes = frozenset(os.lstat(os.path.join(os.fsencode(self.directory), path)).st_ino
                               for path in paths)
            if len(inodes) > 1:
                groups.add(inodes)
        return groups

    def check_agreement(self):
        own = self.groups_of(self.tools[0])
        print(f"groups: {len(own)}, files in them: {sum(map(len, own))}")
        agree = True
        for tool in self.tools[1:]:
            other = self.groups_of(tool)
            if other != own:
                agree = False
                print(f"{tool.name} finds others: {len(other - own)} that velmarin does not find, "
                      f"{len(own - other)} of velmarin's it does not find")
        return agree

    def values(self, field, tool, cache, kind):
        return {run["round"]: run[field] for run in self.runs
                if (run["tool"], run["cache"], run["kind"]) == (tool, cache, kind)}

    def peer_values(self, field, cache, kind):
        """Values of each round's fastest peer; of its first run if it has no repeated one."""
        best = {}
        for tool in self.tools[1:]:
            own_kind = kind if tool.remembers else "first"
            for number, wall in self.values("wall", tool.name, cache, own_kind).items():
                value = self.values(field, tool.name, cache, own_kind)[number]
                if number not in best or wall < best[number][0]:
                    best[number] = (wall, value)
        return {number: value for number, (_, value) in best.items()}

    def summary(self):
        rows = []
        for cache in sorted({run["cache"] for run in self.runs}, reverse=True):
            for kind in ("first", "repeated"):
                floor = self.values("wall", "floor", cache, kind)
                peers = {field: self.peer_values(field, cache, kind) for field in FIELDS}
                for tool in self.tools:
                    values = {field: self.values(field, tool.name, cache, kind) for field in FIELDS}
                    if not values["wall"]:
                        continue
                    row = {"cache": cache, "kind": kind, "tool": tool.name}
                    for field in FIELDS:
                        row[field] = statistics.median(values[field].values())
                        row[f"{field} ratio"] = statistics.median(
                            value / max(peers[field][number], 0.01)
                            for number, value in values[field].items())
                    row["floor ratio"] = statistics.median(
                        value / max(floor[number], 0.01)
                        for number, value in values["wall"].items())
                    rows.append(row)
                rows.append({"cache": cache, "kind": kind, "tool": "floor", **{
                    field: statistics.median(self.values(field, "floor", cache, kind).values())
                    for field in FIELDS}})
        return rows


def show(rows):
    print("\ncache  run       tool       wall s  ratio   cpu s  ratio  MiB    ratio  x floor")
    for row in rows:
        line = f"{row['cache']:6} {row['kind']:9} {row['tool']:9} {row['wall']:7.2f}"
        if "wall ratio" not in row:
            line += f"        {row['processor']:7.2f}"
        else:
            line += (f" {row['wall ratio']:6.2f} {row['processor']:7.2f}"
                     f" {row['processor ratio']:6.2f} {row['memory'] / 1024:6.0f}"
                     f" {row['memory ratio']:6.2f} {row['floor ratio']:7.2f}")
        print(line)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--minimum", type=int, default=65536)
    parser.add_argument("--result")
    for name in ("tool", "floor", "workspace"):
        parser.add_argument(f"--{name}", required=True)
    parser.add_argument("tree")
    arguments = parser.parse_args()

    measurement = Measurement(arguments)
    print(f"{measurement.entries} entries, {len(measurement.files)} files of at least "
          f"{arguments.minimum} bytes", flush=True)
    caches = ["warm"]
    if os.access("/proc/sys/vm/drop_caches", os.W_OK):
        caches.append("cold")
    else:
        print("an empty page cache cannot be measured: that needs root")
    for cache in caches:
        for number in range(arguments.rounds):
            measurement.round(number, cache)
    rows = measurement.summary()
    show(rows)
    agree = measurement.check_agreement()
    if arguments.result:
        with open(arguments.result, "w", encoding="utf-8") as file:
            json.dump({"tree": arguments.tree, "entries": measurement.entries,
                       "candidates": len(measurement.files), "minimum": arguments.minimum,
                       "rounds": arguments.rounds, "rows": rows, "runs": measurement.runs}, file,
                      indent=1)
    return 0 if agree else 1


sys.exit(main())
