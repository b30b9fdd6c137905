#!/usr/bin/env python3
"""Scans growing trees with the tool and prints time and memory for each entry.

What is the same for every scan, such as the workers' polls, is measured on an empty tree and
subtracted.
"""

import argparse
import json
import os
import shutil
import statistics
import subprocess

from timing import timed

FILES_OF_A_DIRECTORY = 1000
MINIMUM = 65536
ORDINARY_SHARE = 25  # one file in this many reaches the minimum size


def make_files(root, count, make):
    for number in range(count):
        directory = f"{root}/{number // FILES_OF_A_DIRECTORY:06}"
        if number % FILES_OF_A_DIRECTORY == 0:
            os.makedirs(directory)
        make(f"{directory}/{number:08}", number)


def make_sparse(name, size):
    with open(name, "wb") as file:
        file.truncate(size)


def make_kept(name, number):
    """A unique size and no blocks."""
    make_sparse(name, MINIMUM + number)


def make_ordinary(name, number):
    """As in a tree of programs and documents: most files are below the minimum."""
    make_sparse(name, number % MINIMUM if number % ORDINARY_SHARE else MINIMUM + number)


def make_identical(name, _number):
    with open(name, "wb") as file:
        file.write(b"x" * 4096)


def make_different(name, number):
    with open(name, "wb") as file:
        file.write(b"%08d" % number * 512)


class Growth:
    def __init__(self, arguments):
        self.arguments = arguments
        self.root = f"{arguments.workspace}/tree"
        self.state = f"{arguments.workspace}/state"

    def scan(self, minimum):
        """The first scan of a tree whose inodes are in memory; flags set by earlier scans stay."""
        shutil.rmtree(self.state, ignore_errors=True)
        command = [self.arguments.tool, "scan", "--json", "--quiet", "--min-size", str(minimum),
                   "--state", self.state, self.root]
        output = f"{self.arguments.workspace}/scan.json"
        figures = timed(command, output, f"{self.arguments.workspace}/times")
        with open(output, encoding="utf-8") as file:
            counters = json.load(file)["counters"]
        return figures, counters

    def measure(self, name, count, minimum, make, kept=None):
        """`kept`: how many of the files the scan must keep; all by default."""
        os.makedirs(self.root, exist_ok=True)
        make_files(self.root, count, make)
        subprocess.run(["sync"], check=True)
        self.scan(minimum)
        runs = [self.scan(minimum) for _ in range(self.arguments.rounds)]
        counters = runs[-1][1]
        assert counters["nr_scan_file"] == (count if kept is None else kept), counters
        row = {"tree": name, "entries": count, "hashed": counters["nr_hashed"]}
        for field in ("wall", "processor", "memory"):
            row[field] = statistics.median(figures[field] for figures, _ in runs)
        shutil.rmtree(self.root)
        return row


def show(rows, base):
    """Subtracts the processor time and memory of an empty tree. Elapsed time is not divided: the
    workers' polls add 0.2 to 0.6 s by chance."""
    print("tree        entries  hashed   wall s    cpu s     MiB  cpu us/entry  B/entry")
    for row in rows:
        entries = max(row["entries"], 1)
        print(f"{row['tree']:10} {row['entries']:8} {row['hashed']:7} {row['wall']:8.2f} "
              f"{row['processor']:8.2f} {row['memory'] / 1024:7.1f} "
              f"{(row['processor'] - base['processor']) * 1e6 / entries:13.2f} "
              f"{(row['memory'] - base['memory']) * 1024 / entries:8.0f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--result")
    parser.add_argument("--tool", required=True)
    parser.add_argument("--workspace", required=True)
    arguments = parser.parse_args()

    growth = Growth(arguments)
    rows = [growth.measure("empty", 0, MINIMUM, make_kept)]
    for count in (10_000, 100_000, 1_000_000):
        rows.append(growth.measure("ordinary", count, MINIMUM, make_ordinary,
                                   kept=count // ORDINARY_SHARE))
        rows.append(growth.measure("kept", count, MINIMUM, make_kept))
    for count in (1_000, 10_000, 50_000):
        rows.append(growth.measure("identical", count, 1, make_identical))
        rows.append(growth.measure("one size", count, 1, make_different))
    show(rows, rows[0])
    if arguments.result:
        with open(arguments.result, "w", encoding="utf-8") as file:
            json.dump(rows, file, indent=1)


main()
