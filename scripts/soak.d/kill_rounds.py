"""kill_rounds.py TOOL TREE STATE ROUNDS EXPECTED: kills the tool while it merges and checks what is
left. Writes the digests of all files to EXPECTED, in the format of sha256sum."""

import collections
import hashlib
import json
import os
import random
import re
import shutil
import signal
import struct
import subprocess
import sys
import time

GROUPS, COPIES = 12, 12
DEADLINE = 300  # seconds within which every run of the tool must end
ENTRY, CRC = 64, 8
PHASE_STARTS = {"load_usable_hash(": "walking", "scan_directory:": "grouping",
                "fetch_all_sis_file:": "saving", "save_usable_hash(": "reporting",
                "full scan process": "looking at the files found",
                "creating temporary file": "merging"}


def crc64(data):
    """CRC-64/NVME."""
    crc = 2**64 - 1
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0x9A6C9329AC4BC9B5 if crc & 1 else 0)
    return crc ^ 2**64 - 1


def require(holds, what):
    if not holds:
        raise SystemExit(f"kill: {what}")


class Rounds:
    def __init__(self, tool, tree, state):
        self.tool, self.tree, self.state = tool, tree, state
        self.random_start = time.time_ns()
        self.random = random.Random(self.random_start)
        self.expected = {}
        self.phases = collections.Counter()
        self.digest_files = collections.Counter()
        self.merged = 0
        self.longest_wait = 1.0  # seconds until the kill; follows what a whole run takes
        for group in range(GROUPS):
            for copy in range(COPIES):
                self.write(group, copy)

    def path(self, name):
        return os.path.join(self.tree, name)

    def write(self, group, copy):
        """Rewrites the file, so that its data is its own."""
        data = random.Random(group).randbytes(4096 + 20000 * group)
        name = f"{group}-{copy}"
        with open(self.path(name), "wb") as file:
            file.write(data)
        self.expected[name] = hashlib.sha256(data).hexdigest()

    def make_work(self):
        """Undoes some of the sharing, and sometimes removes the digests, so that every phase has
        work."""
        chosen = self.random.sample(sorted(self.expected), len(self.expected) // 3)
        kind = self.random.randrange(4)
        if kind in (0, 1):
            for name in chosen:
                self.write(*map(int, name.split("-")))
        elif kind == 2:
            self.run("revoke", *map(self.path, chosen), statuses=(0,))
        if self.random.randrange(4) == 0:
            shutil.rmtree(self.state, ignore_errors=True)

    def run(self, *arguments, statuses):
        done = subprocess.run([self.tool, *arguments], capture_output=True, text=True,
                              errors="surrogateescape", timeout=DEADLINE)
        require(done.returncode in statuses, f"{arguments[0]} ended with {done.returncode}: "
                                             f"{done.stderr[-2000:]}")
        return done

    def scan_command(self, *options):
        return ["scan", "--json", "--verbose", "--min-size", "1K", "--state", self.state, *options,
                self.tree]

    def kill_one(self, log_name):
        """Returns the phase in which the tool was killed, or None if it had already ended."""
        with open(log_name, "wb") as log:
            process = subprocess.Popen([self.tool, *self.scan_command("--apply")], stderr=log,
                                       stdout=subprocess.DEVNULL)
            try:
                process.wait(self.random.random() * self.longest_wait)
            except subprocess.TimeoutExpired:
                process.kill()
        if process.wait() != -signal.SIGKILL:
            require(process.returncode == 0, f"an unhindered scan ended with {process.returncode}")
            self.longest_wait *= 0.9
            return None
        self.longest_wait *= 1.02  # so that about one run in six completes
        phase = "starting"
        with open(log_name, encoding="utf-8", errors="surrogateescape") as log:
            for line in log:
                phase = next((name for text, name in PHASE_STARTS.items() if text in line), phase)
        return phase

    def state_of_digest_file(self):
        """What the next scan will find, besides the digests kept under the second name."""
        names = os.listdir(self.state) if os.path.isdir(self.state) else []
        kept = [name for name in names if name.endswith(".kept")]
        found = sorted(set(names) - set(kept) - {"lock", "history"})
        require(len(found) <= 1 and len(kept) <= 1, f"more than one digest file: {names}")
        if not found:
            return "absent"
        with open(os.path.join(self.state, found[0]), "rb") as file:
            data = file.read()
        for place in range(0, len(data) - ENTRY + 1, ENTRY):
            (crc,) = struct.unpack_from("<Q", data, place)
            require(crc == crc64(data[place + CRC:place + ENTRY]), "a saved digest is damaged")
        require(len(data) % ENTRY in (0, CRC), f"the digest file has {len(data)} bytes")
        if len(data) % ENTRY == 0:
            return "whole entries"
        return "cut behind a checksum, kept" if kept else "cut behind a checksum"

    def check_files(self):
        require(sorted(os.listdir(self.tree)) == sorted(self.expected), "other files than before")
        for name, digest in self.expected.items():
            with open(self.path(name), "rb") as file:
                require(hashlib.sha256(file.read()).hexdigest() == digest, f"{name} has changed")

    def check_next_scan(self, digest_file):
        """The scan must find all groups and log no error, except for a truncated digest file
        without a second name."""
        done = self.run(*self.scan_command(), statuses=(0,))
        report = json.loads(done.stdout)
        require(sorted(len(group["files"]) for group in report["groups"]) == [COPIES] * GROUPS,
                "the next scan finds other groups")
        errors = re.findall(r"^\[ERRO .*", done.stderr, re.MULTILINE)
        expected = ["fail to read hash on "] if digest_file == "cut behind a checksum" else []
        require(len(errors) == len(expected) and
                all(text in line for text, line in zip(expected, errors)), f"error lines: {errors}")

    def go(self, rounds):
        log_name = self.state + ".log"
        killed = 0
        while killed < rounds:
            self.make_work()
            phase = self.kill_one(log_name)
            self.check_files()
            if phase is None:
                continue
            killed += 1
            self.phases[phase] += 1
            digest_file = self.state_of_digest_file()
            self.digest_files[digest_file] += 1
            self.check_next_scan(digest_file)
            self.check_files()
        done = self.run(*self.scan_command("--apply"), statuses=(0,))
        self.check_files()
        return json.loads(done.stdout)


def main():
    tool, tree, state, rounds, expected = sys.argv[1:]
    test = Rounds(tool, tree, state)
    print("random start:", test.random_start)
    report = test.go(int(rounds))
    print(f"killed {rounds} times, while:", dict(test.phases))
    print("digest file afterwards:", dict(test.digest_files))
    print("at the end:", report["merged"])
    require(len(test.phases) > 1, "every kill came in the same phase")
    with open(expected, "w", encoding="utf-8") as file:
        for name, digest in test.expected.items():
            file.write(f"{digest}  {name}\n")


main()
