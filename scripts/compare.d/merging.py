#!/usr/bin/env python3
"""Measures merging: `velmarin scan --apply` beside whole runs of other programs, on Btrfs and XFS.

Every first run starts on a fresh copy of one image, with the files in the page cache (warm) or with
neither files nor image in it (cold). A second run follows on the files, which share data by then.
The cost of merging beyond the scan is the difference from a scan without --apply in the same round.
After each first run all files must have kept their content; the space freed is compared.
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
                           cwd=os.path.dirname(output))
    return {"wall": time.perf_counter() - start, "processor": processor_seconds() - processor}


class Comparison:
    """`place` is the file system, the tree and the state of the cache."""

    def __init__(self, arguments):
        self.workspace = arguments.workspace
        self.rounds = arguments.rounds
        root = f"{self.workspace}/tree"
        self.scan, self.apply = mergers.own_runs(arguments.tool, root, self.workspace)
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
        used = image.used_bytes()
        row = self.measure(place, number, merger, "first")
        row["freed"] = used - image.used_bytes()
        if not image.is_intact():
            self.faults.append(f"{merger.name} has changed files: {place}")

    def second_runs(self, place, number, merger):
        again = [self.scan, self.apply] if merger is self.apply else [merger]
        for other in again[number % len(again):] + again[:number % len(again)]:
            self.measure(place, number, other, "second")

    def run_in_place(self, place, number):
        """Each round begins with a different program."""
        turn = [self.scan, self.apply, *self.peers]
        for merger in turn[number % len(turn):] + turn[:number % len(turn)]:
            if merger.rounds is not None and (number >= merger.rounds or place[2] != "warm"):
                continue
            self.first_run(place, number, merger)
            if merger is not self.scan and merger.rounds is None:
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

    def row(self, place):
        scan, apply = (self.values(place, "first", own) for own in (self.scan, self.apply))
        scan_again, apply_again = (self.values(place, "second", own)
                                   for own in (self.scan, self.apply))
        beyond = [apply[number] - scan[number] for number in scan]
        medians = {merger.name: statistics.median(self.values(place, "first", merger).values())
                   for merger in [self.scan, self.apply, *self.peers]
                   if self.values(place, "first", merger)}
        row = {"file system": place[0], "tree": place[1], "cache": place[2], "seconds": medians,
               "beyond the scan": statistics.median(beyond),
               "beyond to fastest": statistics.median(
                   beyond[number] / self.fastest(place, "first", number) for number in scan),
               "whole to fastest": statistics.median(
                   apply[number] / self.fastest(place, "first", number) for number in scan),
               "scan again": statistics.median(scan_again.values()),
               "apply again": statistics.median(apply_again.values()),
               "again to scan": statistics.median(
                   apply_again[number] / scan_again[number] for number in scan_again),
               "freed": {merger.name: max(self.values(place, "first", merger, "freed").values())
                         for merger in [self.apply, *self.peers]
                         if self.values(place, "first", merger)}}
        freed = row["freed"]
        if freed[self.apply.name] < max(freed.values()) * (1 - FREED_TOLERANCE):
            self.faults.append(f"velmarin frees less than others: {place}, {freed}")
        return row


def show(rows):
    """Prints a Markdown table."""
    print("| | scan | scan --apply | jdupes | duperemove | rmlint | beyond the scan | to the fastest "
          "| repeated: scan | scan --apply | ratio |")
    print("|---|" + "---|" * 10)
    for row in rows:
        seconds = row["seconds"]
        cells = [f"{seconds[name]:.2f}" if name in seconds else ""
                 for name in ("scan", "scan --apply", "jdupes", "duperemove", "rmlint")]
        cells += [f"{row[name]:.2f}" for name in ("beyond the scan", "beyond to fastest",
                                                  "scan again", "apply again", "again to scan")]
        print(f"| {row['file system']}, {row['tree']}, {row['cache']} | {' | '.join(cells)} |")
    for row in rows:
        print(f"freed, {row['file system']}, {row['tree']}, {row['cache']}: " + ", ".join(
            f"{name} {freed / 2 ** 20:.0f} MiB" for name, freed in row["freed"].items()))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--result")
    for name in ("tool", "workspace"):
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
