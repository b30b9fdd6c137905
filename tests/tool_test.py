#!/usr/bin/env python3
"""The command-line tool as its users see it: what it prints, what it does to files, how it ends."""

import hashlib
import json
import os
import pty
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "support"))
from tool_case import DEADLINE, BlockingLog, ToolCase, content, main, wait_until  # noqa: E402

COMMANDS = ["scan", "dedup", "info", "recover", "group", "copy", "revoke", "freeze", "flags"]
HOSTILE = {b"line\nbreak": r"line\nbreak", b"\x1b[31mred": r"\x1b[31mred",
           b"bad\xff\xfeutf": r"bad\xff\xfeutf", b"back\\slash": r"back\\slash",
           b"tab\there": r"tab\there", "turn\u202eed".encode(): r"turn\xe2\x80\xaeed",
           b"c1\xc2\x9b31m": r"c1\xc2\x9b31m", b"long\xc0\xaf": r"long\xc0\xaf",
           "plain äöü €".encode(): "plain äöü €"}


class CommandLine(ToolCase):
    def test_help_and_version_are_everywhere_and_bad_usage_ends_with_2(self):
        for command in [[]] + [[name] for name in COMMANDS]:
            self.assertIn("Usage: velmarin", self.run_tool(*command, "--help")[0])
            self.assertRegex(self.run_tool(*command, "--version")[0], r"^velmarin \d+\.\d+\.\d+\n$")
        for bad in ([], ["unknown"], ["scan"], ["scan", "--nonsense", "."], ["info"],
                    ["dedup", "one"], ["copy", "one", "two", "three"],
                    *(["scan", "--min-size", size, "."] for size in
                      ("", "K", "-1", "1.5K", "64KB", "99999999999999999999", "17179869184G")),
                    ["scan", "--max-depth", "-1", "."], ["scan", "--time-budget", "x", "."]):
            output, errors = self.run_tool(*bad, status=2)
            self.assertEqual(output, "", bad)
            self.assertNotEqual(errors, "", bad)

    def test_names_that_look_like_something_else_are_names(self):
        for name in ("[a,b]", "{}", "%%", "--json", "-x", "scan", "two words", '"quoted"'):
            with open(self.path(name), "wb") as file:
                file.write(b"data")
        names = ["[a,b]", "{}", "%%", "scan", "two words", '"quoted"']
        output, _ = self.run_tool("info", *names, "--", "--json", "-x")
        self.assertEqual(len(output.splitlines()), 8)
        self.assertEqual(set(re.findall(r": (.*)", output)), {"a plain file"})
        self.run_tool("info", "", status=1)

    def test_a_root_that_cannot_be_scanned_is_noticed_before_anything_is_done(self):
        self.write("file", b"data")
        for bad in ("missing", "root/file"):
            _, errors = self.run_tool("scan", "--state", "state", "root", bad, status=1)
            self.assertIn("cannot scan " + bad, errors)
        self.assertFalse(os.path.exists(self.path("state")))
        os.symlink("root", self.path("link"))
        self.assertEqual(json.loads(self.run_tool("scan", "--json", "link", "root")[0])["roots"],
                         [{"path": self.root}])

    def test_the_state_directory_is_made_with_its_parents(self):
        self.run_tool("scan", "--state", "a/b/c/", "root")
        self.run_tool("scan", "root")
        self.run_tool("scan", "root", XDG_STATE_HOME=self.path("xdg"))
        self.run_tool("scan", "root", XDG_STATE_HOME="relative")
        for made in ("a/b/c", "home/.local/state/velmarin", "xdg/velmarin"):
            self.assertEqual(os.stat(self.path(made)).st_mode & 0o777, 0o700)
            self.assertEqual(len(os.listdir(self.path(made))), 1)
        self.assertFalse(os.path.exists(self.path("relative")))
        self.write("file", b"data")
        for bad in ("root/file", "root/file/below", "x" * 4100):
            _, errors = self.run_tool("scan", "--state", bad, "root", status=1)
            self.assertIn("cannot keep digests in", errors)

    def test_output_that_cannot_be_written_is_a_failure(self):
        for arguments in (["scan", "root"], ["scan", "--json", "root"], ["info", "root"]):
            with open("/dev/full", "wb") as full:
                process = self.start(*arguments, stdout=full, stderr=subprocess.DEVNULL)
                self.assertEqual(process.wait(DEADLINE), 1)


class Scan(ToolCase):
    def test_groups_hold_what_is_identical(self):
        twins, triplets = content("twins", 70000), content("triplets", 9000)
        for name, data in {"a": twins, "sub/b": twins, "c": triplets, "d": triplets, "e": triplets,
                           "alone": content("alone", 70000), "small": b"x", "small2": b"x",
                           "empty": b"", "empty2": b""}.items():
            self.write(name, data)
        os.link(os.path.join(self.root, "a"), os.path.join(self.root, "zz-link-of-a"))
        report = self.scan()
        groups = {tuple(names): group for names, group in zip(self.groups(report), report["groups"])}
        self.assertEqual({len(names) for names in groups}, {2, 3})  # of the two links, one is seen
        group = groups[("c", "d", "e")]
        self.assertEqual((group["size"], group["digest"]),
                         (9000, hashlib.sha256(triplets).hexdigest()))
        status = os.stat(os.path.join(self.root, "d"))
        self.assertEqual(group["files"][1],
                         {"path": os.path.join(self.root, "d"), "inode": status.st_ino,
                          "device": status.st_dev, "status": 0, "blocks": status.st_blocks,
                          "mtime": {"sec": status.st_mtime_ns // 10**9,
                                    "nsec": status.st_mtime_ns % 10**9}})
        self.assertEqual(group["unmerged_bytes"], 2 * 512 * status.st_blocks)
        self.assertEqual(report["counters"]["nr_hashed"], 6)  # "alone" is as long as the twins
        self.assertEqual(report["counters"]["nr_error"], 0)

    def test_sizes_depth_and_skips_choose_the_files(self):
        for size in (65535, 65536):
            for place in (f"a{size}", f"sub/b{size}"):
                self.write(place, content(size, size))
        self.write("x", b"x"), self.write("sub/y", b"x"), self.write("n", b""), self.write("m", b"")

        def found(*arguments):
            output, errors = self.run_tool("scan", "--json", "--state", "state", *arguments, "root")
            return sorted(self.groups(json.loads(output))), errors

        self.assertEqual(found()[0], [["a65536", "sub/b65536"]])
        self.assertEqual(len(found("--min-size", "65535")[0]), 2)
        self.assertEqual(len(found("--min-size", "0")[0]), 3)  # empty files have nothing to share
        self.assertEqual(found("--max-depth", "1"), ([], ""))
        os.symlink("sub", self.path("link"))
        self.assertEqual(found("--skip", "root/sub", "--skip", "root/x"), ([], ""))
        _, errors = found("--skip", "missing", "--skip", "link")
        self.assertEqual(errors.count("nothing to skip at"), 2)
        self.assertEqual(found("--quiet", "--skip", "missing")[1], "")

    def test_an_unchanged_file_is_read_once_wherever_the_scan_starts(self):
        for name in "abc":
            self.write(name, content("same", 70000))
        self.assertEqual(self.scan()["counters"]["nr_hashed"], 3)
        merged = self.scan("--apply")
        self.assertEqual(merged["counters"]["nr_hashed"], 0)
        output, _ = self.run_tool("scan", "--json", "--state", "state", "root/../root/")
        self.assertEqual(json.loads(output)["counters"]["nr_hashed"], 0)

    def test_hostile_names_break_neither_form(self):
        for name in HOSTILE:
            self.write(name, content("same", 2000))
        report = self.scan()
        self.assertEqual(len(report["groups"][0]["files"]), len(HOSTILE))
        prefix = os.fsencode(self.root) + b"/"
        names = set()
        for file in report["groups"][0]["files"]:
            self.assertEqual("path_bytes" in file, "\ufffd" in file["path"])
            names.add(bytes.fromhex(file["path_bytes"]) if "path_bytes" in file
                      else file["path"].encode())
        self.assertEqual(names, {prefix + name for name in HOSTILE})
        output, _ = self.run_tool("scan", "--state", "state", "--min-size", "1K", "root")
        lines = [line for line in output.split("\n") if line.startswith("  plain ")]
        shown = {line.split(self.root + "/", 1)[1] for line in lines}
        self.assertEqual(shown, set(HOSTILE.values()))
        for name, text in HOSTILE.items():
            back = subprocess.run(["printf", "%b", text], stdout=subprocess.PIPE, check=True).stdout
            self.assertEqual(back, name)

    def test_a_file_that_cannot_be_frozen_is_said_to_be_an_error(self):
        for name in "ab":
            self.write(name, content("same", 2000))
        locked = os.path.join(self.root, "a")
        if subprocess.run(["chattr", "+i", locked], capture_output=True).returncode != 0:
            self.skipTest("files cannot be made immutable here")
        self.addCleanup(subprocess.run, ["chattr", "-i", locked])
        _, errors = self.run_tool("scan", "--min-size", "1K", "root", status=1)
        self.assertRegex(errors, r"1 error during the scan: call prep for .*/a returned ")

    def test_files_without_support_for_deduplication_are_said_to_be_left_out(self):
        root = "/proc/self/net"  # real files of a file system that cannot deduplicate
        output, errors = self.run_tool("scan", "--json", "--min-size", "0", root, status=1)
        self.assertGreater(json.loads(output)["counters"]["nr_unsupported"], 0)
        self.assertIn("do not support deduplication", errors)


class Apply(ToolCase):
    def test_identical_files_are_merged_and_nothing_else_changes(self):
        for name in ("a", "sub/b", "c"):
            self.write(name, content("same", 70000))
        before = {name: os.stat(os.path.join(self.root, name)) for name in ("a", "sub/b", "c")}
        report = self.scan("--apply")
        self.assertEqual(self.outcomes(report), {"a": "source", "c": "merged", "sub/b": "merged"})
        self.assertEqual((report["merged"]["files"], report["merged"]["refused"]), (2, 0))
        for name, status in before.items():
            now = os.stat(os.path.join(self.root, name))
            self.assertEqual((now.st_mtime_ns, now.st_ino), (status.st_mtime_ns, status.st_ino))
            with open(os.path.join(self.root, name), "rb") as file:
                self.assertEqual(file.read(), content("same", 70000))
        self.write("new", content("same", 70000))  # joins those that share already
        report = self.scan("--apply")
        outcomes = self.outcomes(report)
        self.assertEqual(outcomes.pop("new"), "merged")
        self.assertEqual(sorted(outcomes.values()), ["shared", "shared", "source"])
        self.assertEqual(set(self.outcomes(self.scan("--apply")).values()), {"shared"})

    def test_the_larger_of_two_sets_that_share_takes_the_other(self):
        paths = [self.write(name, content("same", 70000)) for name in "abcde"]
        self.run_tool("group", *paths[:2])
        self.run_tool("group", *paths[2:])
        report = self.scan("--apply")
        outcomes = self.outcomes(report)
        self.assertEqual([outcomes[name] for name in "ab"], ["merged", "merged"])
        self.assertEqual(sorted(outcomes[name] for name in "cde"), ["shared", "shared", "source"])
        output, _ = self.run_tool("info", *paths)
        self.assertEqual(len(set(re.findall(r"layered inode (\d+)", output))), 1)

    def test_a_refused_file_does_not_hold_up_its_group(self):
        program = shutil.which("sleep")
        with open(program, "rb") as file:
            data = file.read()
        paths = [self.write(name, data) for name in ("a", "b", "c")]
        os.chmod(paths[0], 0o755)
        running = subprocess.Popen([paths[0], "100"])  # cannot be opened for writing meanwhile
        self.addCleanup(running.wait)
        self.addCleanup(running.kill)
        report = self.scan("--apply", status=1)
        self.assertEqual(self.outcomes(report), {"a": "refused", "b": "source", "c": "merged"})
        self.assertEqual(report["groups"][0]["files"][0]["reason"], "Text file busy")
        output, _ = self.run_tool("scan", "--apply", "--min-size", "1K", "root", status=1)
        self.assertIn(f"  refused     {paths[0]} (Text file busy)\n", output)

    def test_a_file_that_changes_between_scan_and_merging_is_left_alone(self):
        names = [f"{number:02}" for number in range(60)]
        for number, name in enumerate(names):  # the group of the smallest files comes last
            for twin in "ab":
                self.write(name + twin, content(name, 300000 - 5000 * number))
        log = BlockingLog()
        process = self.start("scan", "--apply", "--json", "--verbose", "--min-size", "1K", "root",
                             output="report", stderr=log.writer)
        log.read_until(b"creating temporary file")
        wait_until(log.is_full)
        self.write("59a", b"something else")
        self.write("58b", b"something else")
        self.assertEqual(log.drain(process), 1)
        with open(self.path("report"), "rb") as output:
            outcomes = self.outcomes(json.load(output))
        self.assertEqual((outcomes["59a"], outcomes["59b"]), ("changed", "source"))
        self.assertEqual((outcomes["58a"], outcomes["58b"]), ("source", "changed"))
        self.assertEqual((outcomes["57a"], outcomes["57b"]), ("source", "merged"))
        with open(os.path.join(self.root, "59a"), "rb") as file:
            self.assertEqual(file.read(), b"something else")

    def test_a_group_on_two_file_systems_is_merged_on_each(self):
        other = tempfile.mkdtemp(prefix="velmarin-tool-", dir="/dev/shm")
        self.addCleanup(shutil.rmtree, other)
        if os.stat(other).st_dev == os.stat(self.root).st_dev:
            self.skipTest("there is only one file system")
        for name in ("a", "b"):
            self.write(name, content("same", 70000))
        for name in ("c", "d"):
            self.write(os.path.join(other, name), content("same", 70000))
        report = self.scan("--apply", other)
        self.assertEqual(sorted(self.outcomes(report).values()),
                         ["merged", "merged", "source", "source"])
        os.remove(os.path.join(other, "d"))
        self.assertEqual(sorted(self.outcomes(self.scan("--apply", other)).values()),
                         ["alone", "shared", "shared"])


class Space(ToolCase):
    """On a file system that shares data, made in a file."""

    def mount(self, kind):
        if os.getuid() != 0 or shutil.which("mkfs." + kind) is None:
            self.skipTest(f"needs root and mkfs.{kind}")
        image = self.path("image")
        with open(image, "wb") as file:
            file.truncate(400 << 20)
        subprocess.run(["mkfs." + kind, "-q", image], check=True, stdout=subprocess.DEVNULL)
        if subprocess.run(["mount", "-o", "loop", image, self.root], capture_output=True).returncode:
            self.skipTest("images cannot be mounted here")
        self.addCleanup(subprocess.run, ["umount", self.root], check=True)

    def used_bytes(self):
        os.sync()
        volume = os.statvfs(self.root)
        return (volume.f_blocks - volume.f_bfree) * volume.f_frsize

    def check_that_the_freed_bytes_are_free(self, kind):
        self.mount(kind)
        for number in range(3):
            for twin in range(3):
                self.write(f"{number}/{twin}", content(number, 8 << 20))
        paths = [os.path.join(self.root, name) for name in ("0/0", "0/1", "1/0", "1/1", "1/2")]
        self.run_tool("group", *paths[:2])  # one copy of the three is saved already
        self.run_tool("group", *paths[2:4])
        self.run_tool("group", paths[4])  # shares with none as yet
        before = self.used_bytes()
        plan = self.scan()
        self.assertEqual(plan["reclaimable_bytes"], 4 * (8 << 20))
        report = self.scan("--apply")
        self.assertEqual(report["merged"]["freed_bytes"], 4 * (8 << 20))
        self.assertAlmostEqual(before - self.used_bytes(), 4 * (8 << 20), delta=2 << 20)
        self.run_tool("revoke", paths[1])
        self.assertEqual(self.scan()["reclaimable_bytes"], 8 << 20)

    def test_btrfs_gives_back_what_the_tool_says(self):
        self.check_that_the_freed_bytes_are_free("btrfs")

    def test_xfs_gives_back_what_the_tool_says(self):
        self.check_that_the_freed_bytes_are_free("xfs")


class Stopping(ToolCase):
    def start_blocked(self, *arguments):
        self.log = BlockingLog()
        return self.start("scan", "--json", "--verbose", "--state", "state", "--min-size", "1K",
                          *arguments, "root", output="report", stderr=self.log.writer)

    def report(self):
        with open(self.path("report"), "rb") as output:
            return json.load(output)

    def many_skips(self):
        """Options that fill the log before the walk: each unusable skip path is logged."""
        return ["--quiet"] + [part for number in range(100) for part in ("--skip", f"no{number}")]

    def test_a_signal_before_the_walk_stops_the_walk(self):
        for number in range(50):
            self.write(str(number), content("same", 2000))
        for stop in (signal.SIGINT, signal.SIGTERM):
            process = self.start_blocked(*self.many_skips())
            wait_until(self.log.is_full)
            process.send_signal(stop)
            self.assertEqual(self.log.drain(process), 0)
            report = self.report()
            self.assertEqual((report["stopped"], report["groups"]), (True, []))
            self.assertEqual(report["counters"]["nr_file_opened"], 0)
            self.assertEqual(len(os.listdir(self.path("state"))), 1)
        report = self.scan()
        self.assertEqual((report["stopped"], len(report["groups"][0]["files"])), (False, 50))

    def test_a_signal_while_merging_leaves_the_rest_untried(self):
        for number in range(60):
            for twin in "ab":
                self.write(f"{number:02}{twin}", content(number, 300000 - 5000 * number))
        process = self.start_blocked("--apply")
        self.log.read_until(b"creating temporary file")
        wait_until(self.log.is_full)
        process.send_signal(signal.SIGINT)
        self.assertEqual(self.log.drain(process), 1)
        report = self.report()
        self.assertTrue(report["stopped"])
        outcomes = self.outcomes(report)
        self.assertEqual((outcomes["00b"], outcomes["59a"], outcomes["59b"]),
                         ("merged", "not tried", "not tried"))
        self.assertEqual(report["merged"]["not_tried"],
                         sum(outcome == "not tried" for outcome in outcomes.values()))
        self.assertEqual(self.scan("--apply")["merged"]["not_tried"], 0)

    def test_a_time_budget_that_is_spent_before_the_walk_stops_the_walk(self):
        for name in "ab":
            self.write(name, content("same", 2000))
        start = time.monotonic()
        process = self.start_blocked("--time-budget", "1", *self.many_skips())
        wait_until(self.log.is_full)
        wait_until(lambda: time.monotonic() > start + 1.5)
        self.assertEqual(self.log.drain(process), 0)
        report = self.report()
        self.assertEqual((report["out_of_time"], report["stopped"]), (True, False))
        self.assertEqual(report["counters"]["nr_file_opened"], 0)
        self.assertFalse(self.scan("--time-budget", "100")["out_of_time"])


class Terminal(ToolCase):
    def on_terminal(self, *arguments, **environment):
        """What a terminal shows on which both outputs of the tool go."""
        for name in "ab":
            self.write(name, content("same", 70000))
        controller, terminal = pty.openpty()
        process = self.start("scan", *arguments, "root", stdout=terminal, stderr=terminal,
                             env=self.environment(**environment))
        os.close(terminal)
        shown = b""
        try:
            while True:
                shown += os.read(controller, 4096)
        except OSError:  # the tool has ended
            os.close(controller)
        self.assertEqual(process.wait(DEADLINE), 0)
        return shown

    def test_progress_and_colours_are_for_terminals_whose_user_wants_them(self):
        progress, colour = b"looked at", b"\x1b[1m"
        shown = self.on_terminal("--apply")
        self.assertIn(colour, shown)
        self.assertRegex(shown, rb"\r\x1b\[K\d+\.\d s  [a-z ]+  \d+ files? looked at, \d read")
        self.assertRegex(shown, rb"merging  \d of 1 file, 0 B freed")
        self.assertIn(b"\r\x1b[K" + colour, shown)  # the line is gone before the report comes
        self.assertNotIn(progress, self.on_terminal("--quiet"))
        for arguments, environment in ((["--no-color"], {}), ([], {"NO_COLOR": "1"})):
            shown = self.on_terminal(*arguments, **environment)
            self.assertNotIn(colour, shown)
            self.assertIn(progress, shown)
        shown = self.on_terminal(TERM="dumb")
        self.assertNotIn(b"\x1b", shown)
        self.assertEqual(self.run_tool("scan", "root")[1], "")
        self.assertNotIn("\x1b", self.run_tool("scan", "root")[0])
        self.assertIn("save_usable_hash(2 entries)", self.run_tool("scan", "--verbose", "root")[1])


class Files(ToolCase):
    def test_the_life_of_a_file(self):
        for name in ("a", "b", "c"):
            self.write(name, content("same", 5000))
        self.write("other", content("other", 5000))
        os.chdir(self.root)
        steps = [
            (["info", "a", "b"], 0, ["a: a plain file", "b: a plain file"]),
            (["dedup", "a", "b"], 0, ["b: shares the data of a"]),
            (["info", "a", "b"], 0, ["a: attached to layered", "b: deduplicated onto layered"]),
            (["dedup", "a", "other"], 1, ["other: cannot share the data of a: "]),
            (["freeze", "a", "c"], 1, ["a: is attached to a layered inode", "c: frozen"]),
            (["flags", "c", "other"], 0, ["c: frozen (flags 0x2)", "other: not frozen (flags 0x0)"]),
            (["recover", "a", "a"], 0, ["a: has its own data", "a: was a plain file already"]),
            (["revoke", "b", "c"], 0, ["b: has its own data", "c: was a plain file already"]),
            (["group", "a", "b", "other"], 1, ["other: a plain file", "not merged completely"]),
            (["group", "a", "b", "c"], 0, ["c: deduplicated onto layered inode"]),
            (["copy", "a", "new"], 0, ["new: a new file that shares the data of a"]),
            (["copy", "a", "other"], 1, ["other: cannot copy a: File exists"]),
            (["copy", ".", "d"], 1, ["d: cannot copy .: ", "the new file is left, empty"]),
        ]
        self.directory, directory = self.root, self.directory
        self.addCleanup(setattr, self, "directory", directory)
        for arguments, status, expected in steps:
            output, errors = self.run_tool(*arguments, status=status)
            for text in expected:
                self.assertIn(text, output + errors, arguments)
        for name, variant in (("a", "same"), ("new", "same"), ("other", "other")):
            with open(os.path.join(self.root, name), "rb") as file:
                self.assertEqual(file.read(), content(variant, 5000))

    def test_what_went_wrong_is_said_and_the_rest_is_done(self):
        self.write("file", content("same", 5000))
        for command in ("info", "recover", "revoke", "freeze", "flags"):
            output, errors = self.run_tool(command, "root/missing", "root/file", status=1)
            self.assertIn("root/missing: ", errors)
            self.assertIn("No such file or directory", errors)
            self.assertIn("root/file: ", output)
        for arguments in (["dedup", "root/missing", "root/file"], ["dedup", "root/file", "root/missing"],
                          ["group", "root/file", "root/missing"], ["copy", "root/missing", "new"]):
            self.assertIn("No such file or directory", self.run_tool(*arguments, status=1)[1])
        self.assertFalse(os.path.exists(self.path("new")))


if __name__ == "__main__":
    main()
