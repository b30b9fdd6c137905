#!/usr/bin/env python3
"""Measures merging: `velmarin scan --apply` beside whole runs of other programs, on Btrfs and XFS.

Every first run starts on a fresh copy of one image, with the files in the page cache (warm) or with
neither files nor image in it (cold). A second run follows on the files, which share data by then.
The cost of merging is the difference between a scan with --apply and one without in the same round.
An idle worker of the library sleeps 0.2 s between polls, so by chance a run takes up to 0.6 s more.
Both runs of a difference therefore have these sleeps cut to a millisecond; all others keep them.
After the first runs of round one all files must have kept their content, and the space freed is
compared.
"""

import argparse
import itertools
import json
import os
import statistics
import subprocess
import sys
import time

import images
import mergers
import trees
from timing import processor_seconds

FILE_SYSTEMS = ("btrfs", "xfs")
TREES = {"small": trees.make_small_groups, "large": trees.make_large_groups}
CACHES = ("warm", "cold")
FREED_TOLERANCE = 0.02  # records and changed metadata take space too


def timed(merger, output):
    """Wall and processor time, in seconds, of all commands of the merger. They run beside their
    output, since some leave files in the current directory."""
    processor, start = processor_seconds(), time.perf_counter()
    with open(output, "wb") as out:
        for command in merger.commands:
            subprocess.run(command, check=True, stdout=out, stderr=subprocess.STDOUT,
                           env=merger.environment,
                           cwd=os.path.dirname(output))
    return {"wall": time.perf_counter() - start, "processor": processor_seconds() - processor}


class Comparison:
    """`place` is the file system, the tree and the state of the cache."""

    def __init__(self, arguments):
        self.workspace = arguments.workspace
        self.rounds = arguments.rounds
        root = f"{self.workspace}/tree"
        self.scan, self.apply, self.short_scan, self.short_apply = mergers.own_runs(
            arguments.tool, root, self.workspace, arguments.short_polls)
        self.peers = mergers.peers(root, self.workspace)
        self.images = {(file_system, tree): images.Image(
            file_system, f"{self.workspace}/{file_system}-{tree}", self.workspace, fill)
            for file_system in FILE_SYSTEMS for tree, fill in TREES.items()}
        self.runs = []
        self.faults = []

    def measure(self, place, number, merger, kind):
        self.images[place[:2]].set_cache(place[2])
        row = {"file system": place[0], "tree": place[1], "cache": place[2], "round": number,
               "kind": kind, "tool": merger.name, **timed(merger, f"{self.workspace}/output")}
        self.runs.append(row)
        return row

    def first_run(self, place, number, merger):
        """Leaves the file system mounted."""
        image = self.images[place[:2]]
        merger.forget()
        image.restore()
        used = image.used_bytes() if number == 0 else 0
        row = self.measure(place, number, merger, "first")
        if number > 0:
            return
        row["freed"] = used - image.used_bytes()
        if not image.is_intact():
            self.faults.append(f"{merger.name} has changed files: {place}")

    def second_runs(self, place, number, merger):
        own = {self.apply: [self.scan, self.apply],
               self.short_apply: [self.short_scan, self.short_apply]}
        again = own.get(merger, [merger])
        for other in again[number % len(again):] + again[:number % len(again)]:
            self.measure(place, number, other, "second")

    def run_in_place(self, place, number):
        """Each round begins with a different program."""
        turn = [self.scan, self.apply, self.short_scan, self.short_apply, *self.peers]
        for merger in turn[number % len(turn):] + turn[:number % len(turn)]:
            if merger.rounds is not None and (number >= merger.rounds or place[2] != "warm"):
                continue
            self.first_run(place, number, merger)
            if merger not in (self.scan, self.short_scan) and merger.rounds is None:
                self.second_runs(place, number, merger)
            self.images[place[:2]].unmount()

    def run(self):
        places = list(itertools.product(FILE_SYSTEMS, TREES, CACHES))
        for number in range(self.rounds):
            for place in places:
                self.run_in_place(place, number)
                print(f"round {number + 1}, {', '.join(place)}: " + ", ".join(
                    f"{run['tool']}{' again' if run['kind'] == 'second' else ''} {run['wall']:.2f}"
                    for run in self.runs
                    if run["round"] == number and self.place_of(run) == place), flush=True)
        return [self.row(place) for place in places]

    @staticmethod
    def place_of(run):
        return run["file system"], run["tree"], run["cache"]

    def values(self, place, kind, merger, field="wall"):
        """The values of a field, by round."""
        return {run["round"]: run[field] for run in self.runs
                if self.place_of(run) == place
                and (run["kind"], run["tool"]) == (kind, merger.name) and field in run}

    def fastest(self, place, kind, number):
        return min(values[number] for values in
                   (self.values(place, kind, peer) for peer in self.peers) if number in values)

    def median(self, place, kind, merger):
        values = self.values(place, kind, merger).values()
        return statistics.median(values) if values else None

    def added(self, place, kind):
        """What --apply adds to a scan, by round."""
        scan, apply = (self.values(place, kind, own) for own in (self.short_scan, self.short_apply))
        return {number: apply[number] - scan[number] for number in scan}

    def row(self, place):
        shown = [self.scan, self.apply, *self.peers]
        added = self.added(place, "first")
        scan_again = self.median(place, "second", self.scan)
        added_again = statistics.median(self.added(place, "second").values())
        row = {"file system": place[0], "tree": place[1], "cache": place[2],
               "seconds": {merger.name: self.median(place, "first", merger) for merger in shown},
               "merging": statistics.median(added.values()),
               "merging to fastest": statistics.median(
                   added[number] / self.fastest(place, "first", number) for number in added),
               "scan again": scan_again,
               "apply again": self.median(place, "second", self.apply),
               "added again": added_again,
               "again to scan": (scan_again + added_again) / scan_again,
               "freed": {merger.name: max(self.values(place, "first", merger, "freed").values())
                         for merger in shown[1:] if self.values(place, "first", merger)}}
        freed = row["freed"]
        if freed[self.apply.name] < max(freed.values()) * (1 - FREED_TOLERANCE):
            self.faults.append(f"velmarin frees less than others: {place}, {freed}")
        return row


def show(rows):
    """Prints the Markdown table of docs/performance.md."""
    print("| | scan | scan --apply | jdupes | duperemove | rmlint | merging "
          "| merging / fastest other | repeated: scan | scan --apply | merging | ratio |")
    print("|---|" + "---|" * 11)
    names = {"btrfs": "Btrfs", "xfs": "XFS"}
    for row in rows:
        seconds = list(row["seconds"].values()) + [row[name] for name in (
            "merging", "merging to fastest", "scan again", "apply again", "added again",
            "again to scan")]
        cells = ["" if value is None else f"{value:.2f}" for value in seconds]
        print(f"| {names[row['file system']]}, {row['tree']}, {row['cache']} "
              f"| {' | '.join(cells)} |")
    for row in rows:
        print(f"freed, {row['file system']}, {row['tree']}, {row['cache']}: " + ", ".join(
            f"{name} {freed / 2 ** 20:.0f} MiB" for name, freed in row["freed"].items()))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--result")
    for name in ("tool", "short-polls", "workspace"):
        parser.add_argument(f"--{name}", required=True)
    arguments = parser.parse_args()

    comparison = Comparison(arguments)
    rows = comparison.run()
    show(rows)
    if arguments.result:
        with open(arguments.result, "w", encoding="utf-8") as file:
            json.dump({"rounds": arguments.rounds, "rows": rows, "runs": comparison.runs}, file,
                      indent=1)
    for fault in comparison.faults:
        print(fault)
    return 1 if comparison.faults else 0


sys.exit(main())
