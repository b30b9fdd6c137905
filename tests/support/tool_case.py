"""What every test of the command-line tool uses: a tree of files, and runs of the tool in it."""

import fcntl
import json
import os
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest

DEADLINE = 60  # seconds within which a run, or a condition that is waited for, must come about


def tool_path():
    """The tool's path is the last argument of the test script."""
    return os.path.abspath(sys.argv[-1])


def main():
    """Runs the tests of the calling script."""
    if len(sys.argv) < 2 or not os.access(tool_path(), os.X_OK):
        sys.exit("usage: test.py [TEST]... TOOL")
    unittest.main(argv=sys.argv[:-1])


def content(variant, size):
    """Bytes that are the same for the same variant."""
    return random.Random(variant).randbytes(size)


def wait_until(condition):
    """Waits for a condition that must come about."""
    end = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("what was waited for did not come about")
        time.sleep(0.005)


class BlockingLog:
    """A pipe for the tool's standard error that takes 4 KiB: when nobody reads, the tool stands still
    at its next log line."""

    def __init__(self):
        self.reader, self.writer = os.pipe()
        fcntl.fcntl(self.writer, fcntl.F_SETPIPE_SZ, 4096)

    def is_full(self):
        size = struct.unpack("i", fcntl.ioctl(self.reader, termios.FIONREAD, b"\0" * 4))[0]
        return size > 3500

    def read_until(self, text):
        """Reads up to the first occurrence of `text`."""
        seen = b""
        while text not in seen:
            seen += os.read(self.reader, 64)

    def drain(self, process):
        """Lets the tool go on to its end."""
        os.close(self.writer)
        with os.fdopen(self.reader, "rb") as log:
            log.read()
        return process.wait(DEADLINE)


class ToolCase(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="velmarin-tool-")
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)
        self.root = self.path("root")
        os.mkdir(self.root)

    def path(self, *names):
        return os.path.join(self.directory, *names)

    def write(self, name, data):
        """Makes a file below the root, with the directories above it. Returns its path."""
        path = os.path.join(os.fsencode(self.root), os.fsencode(name))
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(data)
        return os.fsdecode(path)

    def mount(self, kind, place, options, source="none"):
        """Mounts until the test ends, or skips the test where that is not possible."""
        if os.getuid() != 0:
            self.skipTest("needs root to mount")
        command = ["mount", "-t", kind, "-o", options, source, place]
        if subprocess.run(command, capture_output=True).returncode:
            self.skipTest(f"{kind} cannot be mounted here")
        self.addCleanup(self.unmount, place)

    def unmount(self, place):
        if os.path.ismount(place):
            subprocess.run(["umount", place], check=True)

    def mount_image(self, kind, place, size, *make_options):
        """Mounts a file system of its own, made in a file."""
        image = self.path("image")
        subprocess.run(["truncate", "-s", size, image], check=True)
        make = shutil.which("mkfs." + kind, path=os.environ["PATH"] + ":/usr/sbin:/sbin")
        if make is None:
            self.skipTest(f"needs mkfs.{kind}")
        subprocess.run([make, "-q", *make_options, image], check=True, capture_output=True)
        self.mount(kind, place, "loop", image)

    def environment(self, **changes):
        return {"PATH": os.environ["PATH"], "HOME": self.path("home"), "TERM": "xterm", **changes}

    def start(self, *arguments, output=None, **options):
        """Starts the tool, with its standard output in the file `output` if one is named."""
        options.setdefault("env", self.environment())
        with open(self.path(output) if output else os.devnull, "wb") as file:
            options.setdefault("stdout", file)
            return subprocess.Popen([tool_path(), *arguments], cwd=self.directory, **options)

    def run_tool(self, *arguments, status=0, **environment):
        """Runs the tool to its end and checks its exit status. Returns its two outputs as text."""
        process = self.start(*arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             env=self.environment(**environment))
        output, errors = (os.fsdecode(text) for text in process.communicate(timeout=DEADLINE))
        self.assertEqual(process.returncode, status, output + errors)
        return output, errors

    def scan(self, *arguments, status=0):
        """Scans the root with small files included. Returns the JSON object."""
        output, _ = self.run_tool("scan", "--json", "--state", "state", "--min-size", "1K",
                                  *arguments, self.root, status=status)
        return json.loads(output)

    def names(self, files):
        return [os.path.relpath(file["path"], self.root) for file in files]

    def groups(self, report):
        return [self.names(group["files"]) for group in report["groups"]]

    def outcomes(self, report):
        return {name: file["outcome"] for group in report["groups"]
                for name, file in zip(self.names(group["files"]), group["files"])
}
