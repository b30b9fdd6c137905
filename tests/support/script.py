"""Shared by the test scripts: trees of files, and runs of the tool in them."""

import contextlib
import ctypes
import json
import os
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from pathlib import Path

os.environ["PATH"] += ":/usr/sbin:/sbin"  # where file system programs are
TOOL = os.path.abspath(sys.argv[-1])  # for scripts that test it
DEADLINE = int(os.environ.get("VELMARIN_DEADLINE", 60))  # seconds for one run of the tool


def run(*command, **options):
    """Returns standard output; a failing command fails the test and shows all that it printed."""
    done = subprocess.run(list(map(str, command)), capture_output=True, text=True,
                          timeout=DEADLINE, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def content(variant, size=70000):
    """Bytes that are the same for the same variant."""
    return random.Random(variant).randbytes(size)


@contextlib.contextmanager
def meanwhile(act):
    """Repeats the action in another thread until the context ends."""
    def repeat():
        while not is_over.is_set():
            act()

    is_over = threading.Event()
    thread = threading.Thread(target=repeat)
    thread.start()
    try:
        yield
    finally:
        is_over.set()
        thread.join()


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

    def write_each(self, names, data=content("same")):
        """Makes identical files, named in a list or by words. Returns their paths."""
        return [self.write(name, data)
                for name in (names.split() if isinstance(names, str) else names)]

    def identities(self):
        """What merging must preserve of everything below the root."""
        return {(path, path.lstat().st_mode, path.lstat().st_ino, path.lstat().st_mtime_ns,
                 path.is_file() and hash(path.read_bytes())) for path in self.root.rglob("*")}

    def traces(self, top=None):
        """All that shows a change to the directory, which is the root if not given."""
        top = top or self.root
        seen = {}
        for path in (top, *top.rglob("*")):
            status = path.lstat()
            seen[str(path)] = (*status[:7], status.st_mtime_ns, status.st_ctime_ns,
                               os.listxattr(path, follow_symlinks=False),
                               path.is_file() and path.read_bytes())
        return seen

    def extents(self, paths):
        return re.findall(r"^ +\d+:.*", run("filefrag", "-vs", *sorted(paths)), re.M)

    def mount(self, kind, place, options, source="none"):
        """Mounts until the test ends, or skips the test if that is not possible."""
        command = ["mount", "-t", kind, "-o", options, source, place]
        if os.getuid() != 0 or subprocess.run(command, capture_output=True).returncode:
            self.skipTest(f"{kind} cannot be mounted here")
        self.addCleanup(subprocess.run, ["umount", place], check=True)

    def mount_image(self, kind, size, *make_options):
        """Mounts a new file system, made in a file, on the root. XFS wants at least 300 MiB."""
        if shutil.which(f"mkfs.{kind}") is None:
            self.skipTest(f"needs mkfs.{kind}")
        image = self.directory / "image"
        run("truncate", "-s", size, image)
        run(f"mkfs.{kind}", "-q", *make_options, image)
        self.mount(kind, self.root, "loop", image)


class Tool(subprocess.Popen):
    """Does not wait for a program that hangs after the test has failed."""
    def __exit__(self, failure, *details):
        if failure:
            self.kill()
        super().__exit__(failure, *details)


class ToolCase(TreeCase):
    def setUp(self):
        super().setUp()
        self.state = self.directory / "state"
        self.tool = TOOL
        self.variables = {"PATH": os.environ["PATH"], "HOME": str(self.directory), "TERM": "xterm",
                          "LD_PRELOAD": os.environ.get("VELMARIN_PRELOAD", "")}

    def start(self, *arguments, before=(), **options):
        """Starts the tool in the root, with pipes that fill up after a few lines."""
        pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "pipesize": 4096}
        return Tool([*before, self.tool, *arguments], cwd=self.root, bufsize=0,
                    env=self.variables, **pipes | options)

    def run_tool(self, *arguments, status=0, **options):
        """Runs the tool to its end and checks its exit status. Returns its two outputs as text."""
        with self.start(*arguments, **options) as process:
            output, errors = (os.fsdecode(text or b"")
                              for text in process.communicate(timeout=DEADLINE))
        self.assertEqual(process.returncode, status, output + errors)
        return output, errors

    def check_runs(self, *rows):
        """Runs each row's command. Its exit status and what it says, as a whole or in part, follow
        in the row."""
        for command, status, *texts in rows:
            said, _ = self.run_tool(*command.split(), status=status, stderr=subprocess.STDOUT)
            for text in texts:
                self.assertRegex(said, text, command)

    def disturb(self, act, *arguments, text=b"done deduplication"):
        """Acts on a run whose log has come to the text; it blocks soon unless more of it is read.
        Returns its exit status and the JSON object."""
        with (tempfile.TemporaryFile() as output,
              self.start(*arguments, "--json", "--verbose", stdout=output) as process):
            self.assertTrue(any(text in line for line in process.stderr), text)
            self.assertEqual(os.getpriority(os.PRIO_PROCESS, process.pid), os.nice(0))
            act(process)
            process.communicate(timeout=DEADLINE)
            output.seek(0)
            return process.returncode, json.load(output)

    def catch(self, path):
        """Makes programs that open the file wait. Returns a function that waits for one of them,
        acts, and lets them go on after some seconds."""
        libc = ctypes.CDLL(None)
        watch = libc.fanotify_init(4, 0)  # asks for a decision
        event = ctypes.c_uint64(0x10000)  # before opening
        self.assertEqual(libc.fanotify_mark(watch, 1, event, -100, bytes(path)), 0)

        def hold(seconds, act=lambda: None):
            os.close(struct.unpack_from("IIQi", os.read(watch, 4096))[3])
            act()
            time.sleep(seconds)
            os.close(watch)

        return hold

    def become_nobody(self):
        """Returns the command prefix that runs the tool as a user who owns none of the files."""
        if os.getuid():
            self.skipTest("needs root to become another user")
        self.directory.chmod(0o777)
        nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
        if subprocess.run([*nobody, TOOL, "--version"], capture_output=True,
                          timeout=DEADLINE).returncode:
            self.copy_tool()  # others may not enter the directory where it was built
        return nobody

    def copy_tool(self):
        """Makes the following runs use a copy of the tool, which everyone may run."""
        libraries = re.findall(r"=> (\S+/libvelmarin\S+)", run("ldd", TOOL))
        preload = self.variables["LD_PRELOAD"]
        place = self.directory / "tool"
        place.mkdir()
        copies = [shutil.copy(file, place) for file in (TOOL, *libraries, preload) if file]
        self.tool = copies[0]
        self.variables |= {"LD_LIBRARY_PATH": place, "LD_PRELOAD": copies[-1] if preload else ""}

    def scan(self, *arguments, min_size="1K", roots=None, **options):
        """Returns the JSON object."""
        output, _ = self.run_tool("scan", "--json", "--state", self.state, "--min-size", min_size,
                                  *arguments, *([self.root] if roots is None else roots), **options)
        return json.loads(output)

    def groups(self, report):
        return [[os.path.relpath(file["path"], self.root) for file in group["files"]]
                for group in report["groups"]]

    def outcomes(self, report, field="outcome"):
        """That field of each file."""
        return {os.path.relpath(file["path"], self.root): file.get(field)
                for group in report["groups"] for file in group["files"]}


def main(names):
    """Runs the named tests of the calling script, or all. Ends with 77 when all were skipped."""
    result = unittest.main(argv=[sys.argv[0], *names], exit=False).result
    all_skipped = result.skipped and len(result.skipped) >= result.testsRun
    if all_skipped:
        print("skipped:", *{reason for _, reason in result.skipped})
    sys.exit(1 if not result.wasSuccessful() else 77 if all_skipped else 0)
