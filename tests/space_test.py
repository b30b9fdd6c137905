"""Compares the space that the tool reports with what the file system reports after a sync."""

import fcntl
import os
import shutil
import struct
import subprocess
import sys
from pathlib import Path

from support.script import ToolCase, content, main, run

MIB = 1 << 20
SIZE = 6 * MIB
ALLOWED = 0.06  # relative error of a figure
FICLONERANGE = 0x4020940D
ACCESS_LIST = struct.pack("<I", 2) + b"".join(struct.pack("<HHI", *entry) for entry in (
    (1, 6, -1 % 2**32), *((2, 4, user) for user in range(6)),
    *((tag, 4, -1 % 2**32) for tag in (4, 16, 32))))  # of the owner, six users, and the others


class SpaceCase(ToolCase):
    """Each situation is a directory below the root with one group of identical files."""

    def used(self):
        run("sync", "-f", self.root)
        status = os.statvfs(self.root)
        return (status.f_blocks - status.f_bfree) * status.f_frsize

    def copies(self, folder, data, count=3, attribute=None):
        """Makes files that share nothing, with an attribute of that size if given."""
        for path in self.write_each((f"{folder}/{number}" for number in range(count)), data):
            if attribute:
                os.setxattr(path, "user.a", bytes(attribute))
            if "access list" in folder:
                os.setxattr(path, "system.posix_acl_access", ACCESS_LIST)

    def clones(self, folder, data, count=3):
        self.copies(folder, data, 1)
        for number in range(1, count):
            run("cp", "--reflink=always", self.root / folder / "0",
                self.root / folder / str(number))

    def pieces(self, folder, *places, reserve=()):
        """Makes three files with a MiB of data at each place, after reserving blocks if asked."""
        for number in range(3):
            path = self.write(f"{folder}/{number}", b"")
            if reserve:
                run("fallocate", *reserve, path)
            with open(path, "r+b") as file:
                for place in places:
                    file.seek(place)
                    file.write(content(f"{folder}{place}", MIB))

    def make_common(self):
        """The situations that Btrfs and XFS have in common."""
        self.copies("plain", content("plain", SIZE))
        self.clones("clones", content("clones", SIZE))
        self.pieces("holes", 0, 20 * MIB)
        self.copies("zeros", bytes(SIZE), 2)
        os.truncate(self.write("zeros/hole", b""), SIZE)
        for name in "partly", "cut", "repeated":
            self.clones(name, content(name, SIZE), 2)
        run("sync", "-f", self.root)
        for number in range(2):
            with open(self.root / f"partly/{number}", "r+b") as file:
                file.seek(MIB)
                file.write(content("own", 2 * MIB))
            os.truncate(self.root / f"cut/{number}", MIB)
            with open(self.root / f"repeated/{number}", "r+b") as file:
                fcntl.ioctl(file, FICLONERANGE, struct.pack("qQQQ", file.fileno(), 0, SIZE, SIZE))
        self.pieces("reserved", 0, 2 * MIB, reserve=("-l", SIZE))
        self.pieces("reserved beyond", 0, reserve=("-n", "-l", MIB + 4096))

    def summary(self, report, *fields):
        """The figures and outcomes of each situation."""
        return {names[0].split("/")[0]: ([group[field] for field in fields],
                                         {file.get("outcome") for file in group["files"]})
                for names, group in zip(self.groups(report), report["groups"], strict=True)}

    def check(self, expected, status=0):
        """Scans, merges and compares with {situation: (freed, perhaps freed, outcomes)}. Afterwards
        nothing is promised again. Returns the first scan's report."""
        run("sync", "-f", self.root)
        promised = self.scan("--skip", self.root / "old")
        before = self.used()
        done = self.scan("--apply", "--skip", self.root / "old", status=status)
        gained = before - self.used()
        promises = self.summary(promised, "reclaimable_bytes", "uncertain_bytes")
        claims = self.summary(done, "freed_bytes", "freed_uncertain_bytes")
        self.assertEqual(set(promises), set(expected))
        gains = [figures for figures, _ in promises.values()]
        self.assertEqual(gains, sorted(gains, reverse=True))
        for name, (*amounts, outcome) in expected.items():
            for figures, outcomes in (promises[name][0], {None}), claims[name]:
                for figure, amount in zip(figures, amounts, strict=True):
                    self.assertLessEqual(abs(figure - amount), ALLOWED * amount, name)
            self.assertEqual(outcomes - {"source"}, set(outcome.split(", ")), name)
        total = sum(freed for freed, _, _ in expected.values())
        self.assertAlmostEqual(gained, total, delta=max(MIB, ALLOWED * total))
        for name, (figures, _) in self.summary(promised, "saved_bytes").items():
            self.assertIn(SAVED.get(name, figures[0]), figures, name)
        left = self.scan("--skip", self.root / "old")
        self.assertEqual((left["reclaimable_bytes"], left["uncertain_bytes"]), (0, 0))
        return promised


COMMON = {"plain": (2 * SIZE, 0, "merged"), "clones": (0, 0, "shared"),
          "holes": (4 * MIB, 0, "merged"), "zeros": (2 * SIZE, 0, "merged"),
          "partly": (2 * MIB, 0, "merged"), "cut": (0, 0, "shared"),
          "repeated": (0, 0, "shared")}
SAVED = {"clones": 2 * SIZE, "partly": SIZE - 2 * MIB, "cut": MIB, "repeated": 3 * SIZE}


class Xfs(SpaceCase):
    def test_figures_match_the_file_system(self):
        self.mount_image("xfs", "320M")
        self.make_common()
        self.copies("room for a record", content("room", 4096), 600, attribute=199)
        self.copies("no room", content("no room", 8192), 600, attribute=200)
        self.copies("access list", content("access list", 4096), 600, attribute=60)
        self.copies("access list in pairs", content("pairs", 4096), 2, attribute=61)
        self.check(COMMON | {"reserved": (4 * MIB, 0, "merged"),
                             "reserved beyond": (2 * MIB, 0, "merged"),
                             "room for a record": (599 * 4096, 0, "merged"),
                             "access list": (599 * 4096, 0, "merged"),
                             "no room": (599 * 8192 - 600 * 4096, 0, "merged"),
                             "access list in pairs": (0, 0, "no gain")})

    def test_a_block_for_the_attributes_of_each_file_is_not_counted_as_freed(self):
        self.mount_image("xfs", "320M")
        self.copies("mark and record", content("both", 8192), 600, attribute=150)
        self.copies("mark", content("mark", 8192), 600, attribute=220)
        before = self.used()
        freed = self.scan("--apply")["merged"]["freed_bytes"]
        self.assertAlmostEqual(before - self.used(), freed, delta=MIB)
        self.assertAlmostEqual(freed, 2 * (599 * 8192 - 600 * 4096), delta=MIB // 4)


class Btrfs(SpaceCase):
    def setUp(self):
        super().setUp()
        self.mount_image("btrfs", "1G")

    def make_compressed(self):
        """Returns the space that two of the files occupy."""
        (self.root / "compressed").mkdir()
        run("btrfs", "property", "set", self.root / "compressed", "compression", "zstd")
        before = self.used()
        self.copies("compressed", content("compressed", 2 * SIZE).hex().encode())
        return (self.used() - before) * 2 // 3

    def make_snapshot(self):
        run("btrfs", "subvolume", "create", self.root / "kept")
        self.copies("kept", content("kept", SIZE))
        run("btrfs", "subvolume", "snapshot", "-r", self.root / "kept", self.root / "old")

    def test_figures_match_the_file_system(self):
        compressed = self.make_compressed()
        self.make_common()
        self.make_snapshot()
        self.clones("pairs", content("pairs", SIZE), 2)
        self.clones("pairs/more", content("pairs", SIZE), 2)
        self.copies("inline", content("inline", 1500), 3000)
        self.copies("small", content("small", 4096), 3000)
        self.check(COMMON | {"reserved": (2 * SIZE, 0, "merged"),
                             "reserved beyond": (0, 0, "no gain"),
                             "kept": (0, 2 * SIZE, "merged"), "pairs": (SIZE, 0, "merged, shared"),
                             "inline": (0, 0, "no gain"),
                             "small": (3000 * (4096 - 345), 0, "merged"),  # less the records
                             "compressed": (compressed, 0, "merged")})
        saved = self.summary(self.scan("--skip", self.root / "old"), "saved_bytes")["compressed"]
        self.assertAlmostEqual(saved[0][0], compressed, delta=ALLOWED * compressed)

    def test_what_cannot_be_merged_is_not_promised(self):
        for name in ("read-only", "snapshot"):
            (self.root / name).mkdir()
            run("btrfs", "subvolume", "create", self.root / name / "x")
            self.copies(f"{name}/x", content(name, SIZE), 1 if name == "read-only" else 3)
        run("sync", "-f", self.root)
        run("btrfs", "property", "set", self.root / "read-only/x", "ro", "true")
        self.copies("read-only", content("read-only", SIZE), 1)
        run("btrfs", "subvolume", "snapshot", "-r", self.root / "snapshot/x",
            self.root / "snapshot/y")
        for name, count in (("one each", 1), ("two each", 2), ("append-only", 3), ("busy", 3)):
            for number in range(count * (2 if "each" in name else 0)):
                path = self.write(f"{name}/{number}", b"")
                run("chattr", "+C" if number % 2 else "-C", path)
                path.write_bytes(content(name, SIZE))
            if "each" not in name:
                self.copies(name, Path(shutil.which("sleep")).read_bytes() + content(name, SIZE))
        run("chattr", "+a", self.root / "append-only/0")
        (self.root / "busy/0").chmod(0o755)
        busy = subprocess.Popen([self.root / "busy/0", "600"])
        self.addCleanup(busy.wait)
        self.addCleanup(busy.kill)
        self.copies("sums", content("sums", SIZE), 1)
        run("mount", "-o", "remount,nodatasum", self.root)
        self.write("sums/1", content("sums", SIZE))
        run("mount", "-o", "remount,datasum", self.root)
        report = self.check({"read-only": (0, 0, "refused, alone"), "one each": (0, 0, "refused"),
                             "snapshot": (0, 2 * SIZE, "merged, shared, refused"),
                             "two each": (2 * SIZE, 0, "merged"), "sums": (0, 0, "refused"),
                             "append-only": (SIZE, 0, "merged, refused"),
                             "busy": (SIZE, 0, "merged, refused")}, status=4)
        written = "copy-on-write is off for one of the two"
        reasons = self.outcomes(report, "reason")
        self.assertEqual({name: reason for name, reason in reasons.items() if reason},
                         {**dict.fromkeys(("sums/0", "sums/1"),
                                          "checksums are off for one of the two"),
                          "read-only/x/0": "Read-only file system", "one each/0": written,
                          "snapshot/y/1": "Read-only file system", "one each/1": written,
                          "snapshot/y/2": "Read-only file system", "busy/0": "Text file busy",
                          "append-only/0": "Operation not permitted"})

    def test_a_range_that_two_groups_let_go_of_at_once_is_counted_once(self):
        for number in range(30):
            whole = self.write(f"{number}/range", content(f"range {number}", MIB))
            for name in "ab":  # the first file of each group becomes the source
                target, source = self.root / f"{number}/{name}2", self.root / f"{number}/{name}1"
                run("cp", "--reflink=always", whole, target)
                with open(target, "r+b") as file:
                    file.write(content(name, 4096))
                run("cp", "--reflink=never", target, source)
                run("cp", "--reflink=always", source, self.root / f"{number}/{name} longer")
                os.truncate(self.root / f"{number}/{name} longer", MIB + 1)
            whole.unlink()
        self.copies("inline", content("inline", 1500), 3000)
        self.copies("small", content("small", 4096), 4000)
        before = self.used()
        freed = self.scan("--apply")["merged"]["freed_bytes"]  # less 345 a record and 400 a mark
        self.assertAlmostEqual(before - self.used(), freed, delta=MIB)
        self.assertAlmostEqual(freed, 30 * MIB + 4000 * (4096 - 745), delta=MIB)

    def test_messages_say_what_the_extents_say(self):
        whole = self.write("whole", b"")
        run("chattr", "+C", whole)
        whole.write_bytes(content("whole", MIB))
        self.write("twin", content("whole", MIB))
        self.clones(".", content("clones", SIZE), 2)
        with open(self.root / "1", "r+b") as file:
            file.seek(3 * MIB)
            file.write(content("own", 2 * MIB))
        self.write_each("a b", content("small", 1500))
        run("truncate", "-s", MIB, self.root / "x", self.root / "y")
        run("sync", "-f", self.root)
        self.check_runs(
            ("info 1", 0, "a plain file; 4 MiB of its 6 MiB are in shared extents\n"),
            ("recover 1", 0, "plain file; 4 MiB of its 6 MiB are in shared extents\n"),
            ("copy 1 copy1", 0, "a new file that shares the data of 1\n"),
            ("dedup x y", 0, "identical to the data of x\n"),
            ("copy 0 copy", 0, "a new file that shares the data of 0\n"),
            ("info copy", 0, "a plain file; all its extents are shared\n"),
            *((f"{command} whole", 0, "whole: (was already )?a plain file\n")
              for command in ("info", "recover", "revoke")),
            *((f"{command} twin whole", 1, "copy-on-write is off for one of the two\n")
              for command in ("dedup", "group")),
            ("copy whole c", 0, "a copy of the data of whole, which takes 1 MiB more\n"),
            ("copy a d", 0, "a copy of the data of a, which takes up to 4 KiB more\n"),
            ("dedup a b", 0, "identical to the data of a; none of its extents is shared\n"),
            ("info b", 0, "; none of its extents is shared\n"),
            ("scan --apply --min-size 1 .", 4, r"\n3 files of 1.5 KiB, 0 B freed\n",
             r"\n  merged +\d files?, \d already shared, \d with no gain, 1 refused\n"))

    def test_what_a_user_may_not_query_is_given_as_an_upper_bound(self):
        self.make_compressed()
        self.make_snapshot()
        self.copies("plain", content("plain", SIZE))
        self.clones("pair", content("two pairs", SIZE), 2)
        self.clones("pair/more", content("two pairs", SIZE), 2)
        self.copies("overwritten", content("overwritten", SIZE), 2)
        self.pieces("continued", 0, reserve=("-n", "-l", MIB + 4096))
        run("sync", "-f", self.root)
        for number in range(2):
            with open(self.root / f"overwritten/{number}", "r+b") as file:
                file.seek(MIB)
                file.write(content("own", 2 * MIB))
        for number in range(3):
            with open(self.root / f"continued/{number}", "r+b") as file:
                file.seek(MIB - 4096)
                file.write(content("end", 4096))
        with open(self.root / "pair/more/1", "r+b") as file:
            file.seek(MIB)
            file.write(content("two pairs", SIZE)[MIB:3 * MIB])
        run("chmod", "-R", "a+rwX", self.root / "kept", *self.root.glob("[cp]*"),
            *self.root.glob("over*"))
        self.copies("not writable", content("not writable", SIZE))
        self.copies("in such a directory", content("in such a directory", SIZE))
        run("chmod", "a+w", *self.root.glob("in*/*"))
        self.write("unwritable/plain", content("plain", SIZE)).chmod(0o666)
        nobody = self.become_nobody()
        report = self.scan("--skip", self.root / "old", before=nobody)
        self.assertEqual([(os.path.relpath(file["path"], self.root), file["device"])
                          for file in report["compressed"]],
                         [(f"compressed/{number}", self.root.stat().st_dev) for number in range(3)])
        self.assertEqual({name: figures for name, (figures, _) in self.summary(
                              report, "reclaimable_bytes", "uncertain_bytes").items()},
                         {"compressed": [0, 8 * SIZE], "kept": [0, 2 * SIZE],
                          "continued": [2 * 4096 - 3 * 344, 2 * (MIB - 4096)],
                          "plain": [3 * SIZE - 4 * 344, 0], "pair": [2 * MIB - 3 * 344, SIZE],
                          "overwritten": [SIZE - 2 * 344, 2 * MIB], "not writable": [0, 0],
                          "in such a directory": [0, 0]})
        said, _ = self.run_tool("scan", "--skip", self.root / "old", "--state", self.state, ".",
                                before=nobody)
        self.assertEqual([line.split(" files of ")[1] for line in said.split("\n")
                          if " files of " in line],
                         ["6 MiB, 18 MiB can be freed",
                          "6 MiB, 6 MiB can be freed, up to 2 MiB more",
                          "6 MiB, 2 MiB can be freed, up to 6 MiB more",
                          "1 MiB, 7 KiB can be freed, up to 2 MiB more",
                          "24 MiB, up to 48 MiB can be freed", "6 MiB, up to 12 MiB can be freed",
                          *["6 MiB, nothing left to free"] * 2])
        self.assertRegex(said, r"\n\n3 compressed files\n(  compressed  .*\n){3}\nSummary\n")

    def test_the_summary_says_what_there_is_what_was_done_and_what_was_looked_at(self):
        self.clones("a", content("a", SIZE), 2)
        self.copies("a/more", content("a", SIZE), 2)
        self.write("alone", b"alone")
        self.write("tiny", b"t")
        saved = "  already saved    6 MiB by sharing data\n  directories      3 read of 3 tried\n"
        for command, figures, files in (
                ("scan", "not merged yet   12 MiB\n  can be freed     12 MiB (with --apply)",
                 "10 opened, 5 candidates, 4 read in full"),
                ("scan --apply", "merged           2 files, 1 already shared\n"
                                 "  freed            12 MiB",
                 "6 opened, 5 candidates, 0 read in full")):
            output, _ = self.run_tool(*command.split(), "--min-size", "2", ".")
            self.assertIn(f"Summary\n  identical files  4 in 1 group\n  {figures}\n"
                          f"{saved}  files            {files}\n  errors           0\n", output)

    def test_only_files_that_share_extents_are_reported_as_shared(self):
        self.copies("merged", content("merged", MIB))
        self.check({"merged": (2 * MIB, 0, "merged")})
        before = self.traces()
        self.check({"merged": (0, 0, "shared")})
        self.assertEqual((self.scan()["saved_bytes"], self.traces()), (2 * MIB, before))
        run("btrfs", "filesystem", "defragment", "-czstd", "-r", self.root / "merged")
        self.assertEqual(self.scan("--apply")["saved_bytes"], 0)
        self.assertEqual(self.scan()["saved_bytes"], 2 * MIB)


class Unsharable(SpaceCase):
    def check_words(self):
        self.write_each("a b c", content("same", SIZE))
        for command in ("scan .", "scan --apply .", "info a", "dedup a b", "copy a d"):
            before = self.used()
            output, _ = self.run_tool(*command.split())
            self.assertIn(" cannot share data" + ": nothing can" * ("scan" in command), output)
            self.assertNotRegex(output, r"shares|shared|sharing|can be freed +[1-9]", command)
            self.assertLess(abs(before - self.used()), MIB + SIZE * (command == "copy a d"))
        self.assertEqual(self.check({"a": (0, 0, "shared")})["groups"][0]["unmerged_bytes"], 0)

    def test_xfs_without_reflinks_says_so(self):
        self.mount_image("xfs", "320M", "-m", "reflink=0")
        self.check_words()

    def test_tmpfs_says_so(self):
        self.mount("tmpfs", self.root, "size=64M")
        self.check_words()

    def test_files_without_state_are_counted_by_what_they_lack(self):
        self.mount("ramfs", self.root, "rw")
        self.write("full", content("full"))
        for name in "ab":
            os.truncate(self.write(name, b""), 70000)
        self.check_runs(("scan .", 1, "left out         1 without deduplication, 2 in an unknown ",
                         "velmarin: 2 files with an unknown state; the first: "))


main(sys.argv[1:-1])
