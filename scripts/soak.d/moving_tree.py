"""moving_tree.py TOOL TREE STATE SECONDS EXPECTED: writes files while the tool merges and revokes them.

This process writes and knows what each file must hold. Two threads run the tool at the same time.
All files are prefixes of a few long texts, in a few lengths, so at any moment most are identical to
others. Writes the digests of all files to EXPECTED, in the format of sha256sum.
"""

import collections
import hashlib
import json
import mmap
import os
import random
import signal
import subprocess
import sys
import threading
import time

LENGTHS = (5000, 96 << 10, (256 << 10) + 77, 1 << 20)
TEXTS = [random.Random(number).randbytes(LENGTHS[-1]) for number in range(3)]
FILES = 120
DEADLINE = 300  # seconds within which every run of the tool must end


class Writer:
    """Changes files one by one; `expected` has the content of each."""

    def __init__(self, tree, random_start):
        self.tree = tree
        self.random = random.Random(random_start)
        self.expected = {}
        self.made = 0
        self.counts = collections.Counter()
        self.operations = [self.create, self.create, self.remove, self.rename, self.replace,
                           self.cut, self.append, self.rewrite, self.rewrite, self.store, self.poke,
                           self.poke_and_put_time_back]

    def path(self, name):
        return os.path.join(self.tree, name)

    def any_name(self):
        return self.random.choice(list(self.expected))

    def any_content(self, length=None):
        return self.random.choice(TEXTS)[:length or self.random.choice(LENGTHS)]

    def new_name(self):
        self.made += 1
        return f"{self.made % 7}/{self.made}"

    def change(self):
        operation = self.random.choice(self.operations)
        if len(self.expected) < FILES // 2:
            operation = self.create
        elif len(self.expected) > FILES and operation == self.create:
            operation = self.remove
        self.counts[operation.__name__] += 1
        touched = operation()
        if touched is not None and self.random.random() < 0.3:
            self.check(touched)

    def check(self, name):
        with open(self.path(name), "rb") as file:
            if file.read() != self.expected[name]:
                raise SystemExit(f"{name} does not hold what was written")

    def write_pieces(self, file, data, offset=0):
        """Writes in pieces, with a pause now and then, so that others see the file half written."""
        while offset < len(data):
            piece = data[offset:offset + self.random.choice((1, 4096, 40000, 300000))]
            file.seek(offset)
            file.write(piece)
            offset += len(piece)
            if self.random.random() < 0.1:
                time.sleep(0.003)

    def create(self):
        name = self.new_name()
        data = self.any_content()
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        with open(self.path(name), "xb", buffering=0) as file:
            self.write_pieces(file, data)
        self.expected[name] = data
        return name

    def remove(self):
        name = self.any_name()
        os.remove(self.path(name))
        del self.expected[name]

    def rename(self):
        """Renames a file to a new name or over another file."""
        old, new = self.any_name(), self.random.choice((self.new_name(), self.any_name()))
        os.makedirs(os.path.dirname(self.path(new)), exist_ok=True)
        os.rename(self.path(old), self.path(new))
        self.expected[new] = self.expected.pop(old)
        return new

    def replace(self):
        """Replaces a file as an editor does when it saves."""
        name, data = self.any_name(), self.any_content()
        with open(self.path(name) + "~", "wb", buffering=0) as file:
            self.write_pieces(file, data)
        os.rename(self.path(name) + "~", self.path(name))
        self.expected[name] = data
        return name

    def cut(self):
        name = self.any_name()
        length = self.random.choice(LENGTHS)
        data = self.expected[name][:length]
        os.truncate(self.path(name), len(data))
        self.expected[name] = data
        return name

    def append(self):
        name = self.any_name()
        data = self.expected[name]
        whole = next((text for text in TEXTS if text.startswith(data)), data + b"end")
        longer = whole[:self.random.choice([n for n in LENGTHS if n > len(data)] or [len(whole)])]
        with open(self.path(name), "ab", buffering=0) as file:
            self.write_pieces(file, longer, len(data))
        self.expected[name] = longer
        return name

    def rewrite(self):
        """Rewrites a file in place without changing its length."""
        name = self.any_name()
        data = self.any_content(len(self.expected[name]))
        data += self.expected[name][len(data):]
        with open(self.path(name), "r+b", buffering=0) as file:
            self.write_pieces(file, data)
        self.expected[name] = data
        return name

    def store(self):
        """Writes through a shared mapping."""
        name = self.any_name()
        data = bytearray(self.expected[name])
        with open(self.path(name), "r+b") as file, mmap.mmap(file.fileno(), 0) as memory:
            for _ in range(3):
                place = self.random.randrange(len(data))
                memory[place] = data[place] = self.random.randrange(256)
                time.sleep(0.002)
        self.expected[name] = bytes(data)
        return name

    def poke(self, name=None):
        name = name or self.any_name()
        data = bytearray(self.expected[name])
        place = self.random.randrange(len(data))
        data[place] ^= 1
        with open(self.path(name), "r+b", buffering=0) as file:
            file.seek(place)
            file.write(data[place:place + 1])
        self.expected[name] = bytes(data)
        return name

    def poke_and_put_time_back(self):
        """Changes a file so that only its content shows it."""
        name = self.any_name()
        before = os.stat(self.path(name))
        self.poke(name)
        os.utime(self.path(name), ns=(before.st_atime_ns, before.st_mtime_ns))
        return name


class Merger(threading.Thread):
    """Scans and merges without pause."""

    def __init__(self, tool, tree, state):
        super().__init__()
        self.tool, self.tree, self.state = tool, tree, state
        self.outcomes = collections.Counter()
        self.reasons = collections.Counter()
        self.scans = 0
        self.failure = None
        self.stop = threading.Event()

    def run(self):
        while not self.stop.is_set() and self.failure is None:
            self.merge_once(self.state)

    def merge_once(self, state):
        command = [self.tool, "scan", "--apply", "--json", "--quiet", "--min-size", "1K",
                   "--state", state, self.tree]
        try:
            done = subprocess.run(command, capture_output=True, timeout=DEADLINE)
            report = json.loads(done.stdout)
        except (subprocess.TimeoutExpired, ValueError) as error:
            self.failure = f"the scan did not end with a report: {error}"
            return None
        if done.returncode not in (0, 4):
            self.failure = f"the scan ended with {done.returncode}: {done.stderr}"
        self.scans += 1
        files = [file for group in report["groups"] for file in group["files"]]
        self.outcomes.update(file["outcome"] for file in files)
        self.reasons.update(file["reason"] for file in files if "reason" in file)
        return report


class Revoker(threading.Thread):
    """Gives whatever files exist their own data back."""

    def __init__(self, tool, tree):
        super().__init__()
        self.tool, self.tree = tool, tree
        self.revoked = 0
        self.failure = None
        self.stop = threading.Event()

    def run(self):
        while not self.stop.wait(0.5) and self.failure is None:
            paths = [os.path.join(place, name)
                     for place, _, names in os.walk(self.tree) for name in names]
            chosen = random.sample(paths, min(10, len(paths)))
            done = subprocess.run([self.tool, "revoke", *chosen], capture_output=True, text=True,
                                  timeout=DEADLINE)
            if done.returncode not in (0, 1):
                self.failure = f"revoke ended with {done.returncode}: {done.stderr}"
            self.revoked += done.stdout.count("has its own data")


def require(holds, what):
    if not holds:
        raise SystemExit(f"moving tree: {what}")


def move(writer, others, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end and all(other.failure is None for other in others):
        writer.change()
        time.sleep(writer.random.choice((0, 0, 0.001, 0.02)))


def check_all(writer):
    for name in writer.expected:
        writer.check(name)
    found = {os.path.relpath(os.path.join(place, name), writer.tree)
             for place, _, names in os.walk(writer.tree) for name in names}
    require(found == set(writer.expected), f"other files than expected: "
                                           f"{sorted(found ^ set(writer.expected))[:5]}")


def main():
    tool, tree, state, seconds, expected = sys.argv[1:]
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("ended by a signal"))
    random_start = time.time_ns()
    print("random start:", random_start)
    writer = Writer(tree, random_start)
    merger, revoker = Merger(tool, tree, state), Revoker(tool, tree)
    others = (merger, revoker)
    for _ in range(FILES):
        writer.create()
    for other in others:
        other.start()
    try:
        move(writer, others, float(seconds))
    finally:
        for other in others:
            other.stop.set()
        for other in others:
            other.join()
    for other in others:
        require(other.failure is None, other.failure)
    check_all(writer)
    print("changes:", sum(writer.counts.values()), dict(writer.counts))
    print(f"while they went on: {merger.scans} scans, files {dict(merger.outcomes)}, "
          f"{revoker.revoked} revoked")
    print("reasons given:", dict(merger.reasons))
    require(merger.outcomes["merged"] > 0, "nothing was merged, so nothing was tried")

    # At rest, with no digest of a file whose time was restored, a scan merges everything identical.
    report = merger.merge_once(state + "/fresh")
    require(merger.failure is None, merger.failure)
    print(f"at rest: {report['merged']}")
    require(report["merged"]["refused"] + report["merged"]["changed"] == 0, "not all could be merged")
    check_all(writer)
    with open(expected, "w", encoding="utf-8") as file:
        for name, data in writer.expected.items():
            file.write(f"{hashlib.sha256(data).hexdigest()}  {name}\n")


main()
