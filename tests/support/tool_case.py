"""What every test of the command-line tool uses: a tree of files, and runs of the tool in it."""

import json
import os
import random
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from support import script

TOOL = os.path.abspath(sys.argv[-1])  # the last argument of the test script
DEADLINE = int(os.environ.get("VELMARIN_DEADLINE", 60))  # seconds for one run of the tool


def main():
    script.main(sys.argv[1:-1])


def content(variant, size=70000):
    """Bytes that are the same for the same variant."""
    return random.Random(variant).randbytes(size)


class ToolCase(unittest.TestCase):
    def setUp(self):
        self.directory = Path(tempfile.mkdtemp(prefix="velmarin-tool-"))
        self.addCleanup(subprocess.run, ["rm", "-rf", self.directory])  # however deep it is
        self.root = self.directory / "root"
        self.root.mkdir()

    def write(self, name, data):
        """Makes a file below the root, with the directories above it. Returns its path."""
        path = self.root / os.fsdecode(name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)
        return path

    def mount(self, kind, place, options, source="none"):
        """Mounts until the test ends, or skips the test where that is not possible."""
        command = ["mount", "-t", kind, "-o", options, source, place]
        if os.getuid() != 0 or subprocess.run(command, capture_output=True).returncode:
            self.skipTest(f"{kind} cannot be mounted here")
        self.addCleanup(subprocess.run, ["umount", place], check=True)

    def mount_image(self, kind, size, *make_options):
        """Mounts a new file system, made in a file, on the root."""
        image = self.directory / "image"
        script.run("truncate", "-s", size, image)
        make = shutil.which("mkfs." + kind, path=os.environ["PATH"] + ":/usr/sbin:/sbin")
        if make is None:
            self.skipTest(f"needs mkfs.{kind}")
        script.run(make, "-q", *make_options, image)
        self.mount(kind, self.root, "loop", image)

    def start(self, *arguments, before=(), **options):
        """Starts the tool in the root, with pipes that take few lines before somebody reads."""
        pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "pipesize": 4096}
        variables = {"PATH": os.environ["PATH"], "HOME": str(self.directory), "TERM": "xterm"}
        return subprocess.Popen([*before, TOOL, *arguments], cwd=self.root, bufsize=0,
                                env=variables, **pipes | options)

    def run_tool(self, *arguments, status=0, **options):
        """Runs the tool to its end and checks its exit status. Returns its two outputs as text."""
        with self.start(*arguments, **options) as process:
            output, errors = (os.fsdecode(text or b"")
                              for text in process.communicate(timeout=DEADLINE))
        self.assertEqual(process.returncode, status, output + errors)
        return output, errors

    def scan(self, *arguments, min_size="1K", **options):
        """Returns the JSON object."""
        output, _ = self.run_tool("scan", "--json", "--state", self.directory / "state",
                                  "--min-size", min_size, *arguments, self.root, **options)
        return json.loads(output)

    def groups(self, report):
        return [[os.path.relpath(file["path"], self.root) for file in group["files"]]
                for group in report["groups"]]

    def outcomes(self, report):
        return {os.path.relpath(file["path"], self.root): file["outcome"]
                for group in report["groups"] for file in group["files"]}
