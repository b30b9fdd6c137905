#!/usr/bin/env python3
"""No room, no rights, trees that nobody wants to meet, and a few rounds of the long runs: whatever
happens is said, and no file loses a byte."""

import json
import os
import socket
import stat
import subprocess
import sys
import threading

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "support"))
from tool_case import DEADLINE, ToolCase, content, main, tool_path  # noqa: E402

SOAK = os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, "scripts", "soak.d")
NOBODY = 65534
PATH_ROOM = 4095  # the longest path, without its NUL


def read(path):
    with open(path, "rb") as file:
        return file.read()


def fill_up(place):
    """Writes to the file system until nothing more goes, not even a small file."""
    for size in (1 << 20, 4096, 1):
        try:
            for number in range(1 << 20):
                with open(os.path.join(place, f"fill{size}-{number}"), "wb", buffering=0) as file:
                    file.write(os.urandom(size))
        except OSError:
            os.sync()


class HostileCase(ToolCase):
    def write_groups(self, copies=4, groups=4):
        """Returns what each path holds."""
        return {self.write(f"{group}-{copy}", content(group, 200000 + group)): content(group, 200000 + group)
                for group in range(groups) for copy in range(copies)}

    def check(self, expected):
        for path, data in expected.items():
            self.assertEqual(read(path), data, path)

    def run_as_nobody(self, *arguments, status):
        if os.getuid() != 0:
            self.skipTest("needs root to become another user")
        os.chmod(self.directory, 0o755)
        become = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
        if subprocess.run([*become, tool_path(), "--version"], capture_output=True).returncode:
            self.skipTest("other users cannot run the tool here")
        done = subprocess.run([*become, tool_path(), *arguments], capture_output=True, text=True,
                              cwd=self.directory, timeout=DEADLINE, env=self.environment())
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return done.stdout, done.stderr


class NoRoom(HostileCase):
    def test_digests_that_cannot_be_saved_are_said_and_cost_only_the_next_scan(self):
        expected = self.write_groups()
        os.mkdir(self.path("state"))
        for options in ("size=64k", "size=64k,nr_inodes=1"):  # fails the write, or the creation
            self.mount("tmpfs", self.path("state"), options)
            fill_up(self.path("state"))
            output, errors = self.run_tool("scan", "--apply", "--json", "--state", "state", "root",
                                           status=1)
            self.assertEqual(len(json.loads(output)["groups"]), 4)
            self.assertIn("the digests were not kept for the next scan: ", errors)
            self.assertFalse([name for name in os.listdir(self.path("state")) if "hsh" in name])
            self.unmount(self.path("state"))
        self.assertEqual(self.scan()["counters"]["nr_hashed"], len(expected))
        self.assertEqual(self.run_tool("scan", "--state", "state", "root")[1], "")
        self.check(expected)

    def test_a_state_directory_without_rights_is_noticed_before_anything_is_done(self):
        expected = self.write_groups()
        os.mkdir(self.path("state"))
        os.chmod(self.path("state"), 0o755)
        _, errors = self.run_as_nobody("scan", "--apply", "--state", "state", "root", status=1)
        self.assertIn("cannot keep digests in state: Permission denied", errors)
        self.mount("tmpfs", self.path("state"), "ro")
        _, errors = self.run_tool("scan", "--apply", "--state", "state", "root", status=1)
        self.assertIn("cannot keep digests in state: Read-only file system", errors)
        self.assertIn("a plain file", self.run_tool("info", *expected)[0])

    def check_on_a_full_btrfs(self, *make_options):
        """Returns what a scan with merging says there: its exit status, report and errors."""
        self.mount_image("btrfs", self.root, "128M", *make_options)
        expected = self.write_groups()
        os.sync()
        fill_up(self.root)
        process = self.start("scan", "--apply", "--json", "--state", "state", "root",
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        output, errors = process.communicate(timeout=DEADLINE)
        self.check(expected)
        return expected, process.returncode, json.loads(output), os.fsdecode(errors)

    def test_merging_makes_room_where_there_is_none_for_data(self):
        expected, status, report, errors = self.check_on_a_full_btrfs()
        self.assertEqual((status, errors), (0, ""))
        self.assertEqual(report["merged"]["files"], 12)
        fill_up(self.root)
        _, errors = self.run_tool("revoke", *expected, status=1)
        self.assertIn("cannot be revoked: No space left on device", errors)
        self.check(expected)

    def test_nothing_is_lost_where_there_is_no_room_at_all(self):
        expected, status, report, errors = self.check_on_a_full_btrfs("--mixed")
        self.assertEqual((status, report["merged"]["files"]), (1, 0), errors)
        self.assertIn("No space left on device", errors)
        subprocess.run(f"rm {self.root}/fill*", shell=True, check=True)
        self.assertEqual(self.scan("--apply")["merged"]["files"], 12)
        self.check(expected)


class HostileTree(HostileCase):
    def test_what_is_no_file_is_neither_waited_for_nor_changed(self):
        same = content("same", 70000)
        for name in (b"n" * 255, b"line\nbreak", b"\xff\xfe", b"sub/" + b"\xe2\x82\xac" * 85):
            self.write(name, same)
        before = {}
        os.mkfifo(self.path("root", "fifo"))
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.bind(self.path("root", "socket"))
        for name, target in (("loop", "loop"), ("up", ".."), ("self", "."), ("link", "line\nbreak"),
                             ("nowhere", "missing"), ("device", "/dev/zero")):
            os.symlink(target, self.path("root", name))
        if os.getuid() == 0:
            os.mknod(self.path("root", "null"), stat.S_IFCHR | 0o600, os.makedev(1, 3))
            os.mknod(self.path("root", "disk"), stat.S_IFBLK | 0o600, os.makedev(240, 200))
        for name in os.listdir(self.root):
            before[name] = os.lstat(self.path("root", name))
        report = self.scan("--apply")
        self.assertEqual([len(group["files"]) for group in report["groups"]], [4])
        self.assertEqual(report["merged"]["files"], 3)
        for name, status in before.items():
            now = os.lstat(self.path("root", name))
            self.assertEqual((now.st_mode, now.st_rdev, now.st_ino, now.st_mtime_ns, now.st_size),
                             (status.st_mode, status.st_rdev, status.st_ino, status.st_mtime_ns,
                              status.st_size), name)

    def test_a_deep_tree_is_read_as_far_as_paths_reach(self):
        """Down to 6,000 bytes below the root, with a pair of files in every 60th directory and a
        second pair whose paths have exactly the room there is, and one byte more."""
        data = content("same", 2000)
        self.addCleanup(subprocess.run, ["rm", "-rf", self.root])  # too deep for others
        home = os.open(".", os.O_RDONLY)
        self.addCleanup(os.close, home)
        self.addCleanup(os.fchdir, home)
        os.chdir(self.root)
        length = len(self.root)
        reachable = 0
        for depth in range(3000):
            if depth % 60 == 0:
                names = ["p", "q"]
                if 250 > PATH_ROOM - length - 1 > 120:
                    names += ["m" * (PATH_ROOM - length - 1), "m" * (PATH_ROOM - length)]
                for name in names:
                    reachable += length + 1 + len(name) <= PATH_ROOM
                    with open(name, "wb") as file:
                        file.write(data)
            os.mkdir("d")
            os.chdir("d")
            length += 2
        os.fchdir(home)
        report = self.scan("--apply")
        paths = [file["path"] for file in report["groups"][0]["files"]]
        self.assertEqual(len(paths), reachable)
        self.assertEqual(max(map(len, paths)), PATH_ROOM)
        self.assertEqual(report["merged"]["files"], reachable - 1)

    def test_a_directory_of_very_many_files_is_read(self):
        count = 20000
        for number in range(count):
            os.close(os.open(self.path("root", str(number)), os.O_CREAT | os.O_WRONLY))
        for name in "ab":
            self.write(name, content("same", 2000))
        report = self.scan()
        self.assertEqual(report["counters"]["nr_file_opened"], count + 2 + 2)  # two are read whole
        self.assertEqual(self.groups(report), [["a", "b"]])

    def test_a_sparse_file_stays_sparse(self):
        self.mount_image("btrfs", self.root, "300M")
        paths = [self.write(name, b"") for name in "ab"]
        for path in paths:
            with open(path, "r+b") as file:
                file.truncate(64 << 20)
                file.seek(32 << 20)
                file.write(content("same", 100000))
        os.sync()
        self.assertEqual(self.scan("--apply")["merged"]["files"], 1)
        self.run_tool("revoke", *paths)
        os.sync()
        for path in paths:
            self.assertLess(os.stat(path).st_blocks * 512, 1 << 20)
        self.assertEqual(read(paths[0]), read(paths[1]))
        self.assertEqual(read(paths[0])[32 << 20:][:100000], content("same", 100000))

    def test_files_that_grow_while_they_are_read_keep_what_was_appended(self):
        paths = [self.write(name, b"") for name in "ab"]
        stop = threading.Event()

        def grow():
            while not stop.is_set():
                for path in paths:
                    with open(path, "ab") as file:
                        file.write(b"more" * 2000)
                stop.wait(0.002)

        grower = threading.Thread(target=grow)
        grower.start()
        try:
            for _ in range(3):
                process = self.start("scan", "--apply", "--min-size", "1K", "root",
                                     stderr=subprocess.DEVNULL)
                self.assertIn(process.wait(DEADLINE), (0, 1))
        finally:
            stop.set()
            grower.join()
        self.assertEqual(set(read(paths[0])), set(b"more"))
        self.assertEqual(read(paths[0]), read(paths[1]))
        self.assertEqual(self.scan("--apply")["merged"]["files"], 1)

    def test_what_its_user_may_not_read_is_left_out_and_what_he_may_not_freeze_is_said(self):
        expected = self.write_groups(groups=1)
        hidden = self.write("hidden/file", content(0, 200000))
        closed = self.write("closed", content(0, 200000))
        os.chmod(os.path.dirname(hidden), 0)
        os.chmod(closed, 0)
        os.chmod(self.root, 0o755)
        arguments = ["scan", "--apply", "--json", "--state", "/tmp/velmarin-of-nobody", "root"]
        self.addCleanup(subprocess.run, ["rm", "-rf", "/tmp/velmarin-of-nobody"])
        output, errors = self.run_as_nobody(*arguments, status=1)
        self.assertRegex(errors, r"4 errors during the scan: call prep for .* Permission denied")
        self.assertEqual(json.loads(output)["groups"], [])
        for path in (self.root, *expected):
            os.chown(path, NOBODY, NOBODY)
        output, _ = self.run_as_nobody(*arguments, status=0)
        self.assertEqual(json.loads(output)["merged"]["files"], 3)
        self.check(expected)


class ShortSoak(HostileCase):
    """A few seconds of what runs for hours in scripts/soak."""

    def run_soak(self, script, amount):
        self.mount_image("btrfs", self.root, "400M")
        done = subprocess.run([sys.executable, os.path.join(SOAK, script), tool_path(), self.root,
                               self.path("state"), str(amount), self.path("expected")],
                              capture_output=True, text=True, timeout=250)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_a_tree_that_changes_while_it_is_merged(self):
        self.run_soak("moving_tree.py", 4)

    def test_a_kill_while_merging(self):
        self.run_soak("kill_rounds.py", 4)


if __name__ == "__main__":
    main()
