"""Shared by the test scripts: trees of files, and runs of the tool in them."""

import json
import os
import random
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

os.environ["PATH"] += ":/usr/sbin:/sbin"  # where file system programs are
TOOL = os.path.abspath(sys.argv[-1])  # for scripts that test it
DEADLINE = int(os.environ.get("VELMARIN_DEADLINE", 60))  # seconds for one run of the tool


def run(*command, **options):
    """Returns standard output; a failing command fails the test and shows all that it printed."""
    done = subprocess.run(list(map(str, command)), capture_output=True, text=True, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def content(variant, size=70000):
    """Bytes that are the same for the same variant."""
    return random.Random(variant).randbytes(size)


class TreeCase(unittest.TestCase):
    def setUp(self):
        self.directory = Path(tempfile.mkdtemp(prefix="velmarin-test-"))
        self.addCleanup(subprocess.run, ["rm", "-rf", self.directory])  # however deep it is
        if "overlayfs" in run("stat", "-f", "-c", "%T", self.directory):
            self.skipTest("TMPDIR is on an overlay, whose files are not merged")
        self.root = self.directory / "root"
        self.root.mkdir()

    def write(self, name, data):
        """Makes a file below the root and its parent directories. Returns its path."""
        path = self.root / os.fsdecode(name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)
        return path

    def identities(self):
        """What merging must preserve of everything below the root, besides content."""
        return {(path, path.lstat().st_mode, path.lstat().st_ino, path.lstat().st_mtime_ns)
                for path in self.root.rglob("*")}

    def mount(self, kind, place, options, source="none"):
        """Mounts until the test ends, or skips the test if that is not possible."""
        command = ["mount", "-t", kind, "-o", options, source, place]
        if os.getuid() != 0 or subprocess.run(command, capture_output=True).returncode:
            self.skipTest(f"{kind} cannot be mounted here")
        self.addCleanup(subprocess.run, ["umount", place], check=True)

    def mount_btrfs(self, size, *make_options):
        """Mounts a new file system, made in a file, on the root."""
        self.mount_image("btrfs", size, *make_options)

    def mount_xfs(self, size, *make_options):
        """As above; XFS wants at least 300 MiB."""
        self.mount_image("xfs", size, *make_options)

    def mount_image(self, kind, size, *make_options):
        if shutil.which(f"mkfs.{kind}") is None:
            self.skipTest(f"needs mkfs.{kind}")
        image = self.directory / "image"
        run("truncate", "-s", size, image)
        run(f"mkfs.{kind}", "-q", *make_options, image)
        self.mount(kind, self.root, "loop", image)


class ToolCase(TreeCase):
    def start(self, *arguments, before=(), **options):
        """Starts the tool in the root, with pipes that fill up after a few lines."""
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

    def become_nobody(self):
        """Returns the command prefix that runs the tool as a user who owns none of the files."""
        self.directory.chmod(0o777)
        nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
        if subprocess.run([*nobody, TOOL, "--version"], capture_output=True).returncode:
            self.skipTest("needs root to become another user")
        return nobody

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


def main(names):
    """Runs the named tests of the calling script, or all. Ends with 77 when all were skipped."""
    result = unittest.main(argv=[sys.argv[0], *names], exit=False).result
    all_skipped = result.skipped and len(result.skipped) >= result.testsRun
    if all_skipped:
        print("skipped:", *{reason for _, reason in result.skipped})
    sys.exit(1 if not result.wasSuccessful() else 77 if all_skipped else 0)
