"""The nights of scripts/soak.d/nights: TOOL DIRECTORY STATE."""

import json
import random
import subprocess
import sys
import time
from pathlib import Path

TOOL, ROOT, STATE = sys.argv[1], Path(sys.argv[2]), sys.argv[3]
NIGHTS = 5
BUDGET = 2  # seconds; the last night has as much as it needs
files = {}  # content by name


def require(condition, what):
    if not condition:
        sys.exit(f"nights: {what}")


def write(variant, size, *names):
    data = random.Random(variant).randbytes(size)
    for name in names:
        files[name] = data
        (ROOT / name).write_bytes(data)


def pass_the_day(night):
    """Files come, change and go."""
    for number in range(3):
        name = f"new-{night}-{number}"
        write(name, 300000 + 5000 * night, name + "a", name + "b")
        del files[f"{10 * night + number}b"]
        (ROOT / f"{10 * night + number}b").unlink()
        write(night, 5000, f"{10 * night + 5 + number}a")


def read_slowly(log):
    """A pipe that is read a line at a time, like a slow disk, holds merging up."""
    end = time.monotonic() + BUDGET
    for line in log:
        if b"done deduplication" in line and time.monotonic() < end:
            time.sleep(BUDGET / 20)


def run_at_night(budget):
    """Returns the report."""
    command = [TOOL, "scan", "--apply", "--idle", "--json", "--verbose", "--min-size", "1K",
               "--time-budget", str(budget), "--state", STATE, ROOT]
    output = Path(STATE, "report")
    with (output.open("w", encoding="utf-8") as report,
          subprocess.Popen(command, stdout=report, stderr=subprocess.PIPE, bufsize=0,
                           pipesize=4096) as process):
        if budget == BUDGET:
            read_slowly(process.stderr)
        process.communicate()
    require(process.returncode == 0, f"the run ended with {process.returncode}")
    return json.loads(output.read_text(encoding="utf-8"))


def blocks(data):
    return -(-len(data) // 4096)  # as they are freed


def check_night(report, budget, shared):
    """Returns the names and contents of the files merged, and how many were left."""
    outcomes = {Path(file["path"]).name: file["outcome"]
                for group in report["groups"] for file in group["files"]}
    merged, left = ({name: files[name] for name in outcomes if outcomes[name] == outcome}
                    for outcome in ("merged", "not tried"))
    late = report["elapsed_ms"] / 1000 - budget
    require(late < 1, f"ended {late:.2f} s after its budget")
    require({path.name: path.read_bytes() for path in ROOT.iterdir()} == files, "a content changed")
    require(merged.items().isdisjoint(shared.items()), "merged again what shared its data")
    sizes = sorted(set(map(blocks, left.values())))[:-1]  # one thread may be ahead
    require(max(sizes, default=0) <= min(map(blocks, merged.values()), default=sys.maxsize),
            "merged a smaller file before a larger one")
    require(report["out_of_time"] == (left != {}), "says wrongly whether there was time for all")
    return merged, len(left)


def main():
    for number in range(100):
        write(number, 200000 - 1000 * number, f"{number}a", f"{number}b")
    shared, records, read = {}, [], len(files)
    for night in range(NIGHTS):
        budget = BUDGET if night < NIGHTS - 1 else 60
        report = run_at_night(budget)
        merged, left = check_night(report, budget, shared)
        require(report["counters"]["nr_hashed"] == read, "read a file again")
        shared |= merged
        records.append([report["merged"]["freed_bytes"], len(merged), left, report["out_of_time"]])
        print(f"night {night + 1}: {report['elapsed_ms'] / 1000:.1f} s, {len(merged)} files merged, "
              f"{left} left")
        pass_the_day(night)
        read = 6 + 3  # those that came or changed
    require(records[0][2] > 0 and records[-1][2] == 0, "the budget ended no night, or every night")
    history = subprocess.run([TOOL, "history", "--json", "--state", STATE], check=True,
                             capture_output=True, text=True).stdout
    require(records == [[run[name] for name in ("freed_bytes", "merged", "not_tried", "out_of_time")]
                        for run in json.loads(history)["runs"]], "the history differs")


main()
