"""Trees that span several file systems and subvolumes, and the digests that scans of them keep."""

import os
import re
import shutil
import signal
import sys

from support.script import ToolCase, content, main, run

ENTRY = 64  # bytes of a digest file


class SavedDigests(ToolCase):
    PAIRS = 20

    def setUp(self):
        super().setUp()
        for number in range(self.PAIRS):
            self.write_each(f"{number}a sub/{number}b", content(number, 2000 + number))
        self.scan()
        shutil.copytree(self.state, self.directory / "saved")
        (self.file,) = self.state.glob("*.hsh*")

    def stop(self):
        skips = [word for number in range(100) for word in ("--skip", f"missing{number}")]
        status, report = self.disturb(lambda process: process.send_signal(signal.SIGTERM), "scan",
                                      "--apply", "--state", self.state, *skips, self.root,
                                      text=b"missing")
        self.assertEqual((status, report["stopped"], report["counters"]["nr_file_opened"]),
                         (4, True, 0))  # the walk had to wait for the log's reader
        self.check_runs((f"history --json --state {self.state}", 0, '"left_is_minimum":true'))

    def give_away(self):
        if os.getuid() == 0:
            for name, read in (self.file, 40), (f"{self.file}.wide", 0):
                os.close(os.open(name, os.O_CREAT))
                os.chown(name, 65534, 65534)
                self.check_runs((f"scan --state {self.state} --min-size 1K {self.root}", 0,
                                 f" {read} read in full\n", "velmarin: did not use all saved d"))

    def die(self, left=None):
        """Leaves what a killed scan leaves: the second name, and what it had saved by then."""
        self.file.rename(f"{self.file}.kept")
        os.makedirs(f"{self.file}.runs/left")
        if left is not None:
            self.file.write_bytes(left)

    def touch_one_and_remove_another(self):
        os.utime(self.root / "0a")
        (self.root / "1a").unlink()
        self.file.with_suffix(".hsh.kept").write_bytes(b"damaged")
        self.scan(min_size="1G")

    def scan_without_sub(self):
        (self.root / "sub").chmod(0)
        self.scan(status=4, before=[] if os.getuid() else [
            "setpriv", "--bounding-set=-dac_override,-dac_read_search"])
        (self.root / "sub").chmod(0o755)

    def lose_a_twin(self):
        (self.root / "3a").unlink()
        self.scan()
        self.write("3a", content(3, 2003))

    def test_what_a_scan_did_not_reach_or_compare_is_not_read_again_by_the_next(self):
        every = self.file.read_bytes()
        rows = (
            ("size", lambda: self.scan(min_size="1G"), 0, 40),
            ("depth", lambda: self.scan("--max-depth", "1"), 0, 40),
            ("skip", lambda: self.scan("--skip", "sub"), 0, 40),
            ("exclude", lambda: self.scan("--exclude", "sub"), 0, 40),
            ("unreadable", self.scan_without_sub, 0, 40),
            ("another user's", self.give_away, 0, 40),
            ("stopped", self.stop, 0, 40),
            ("killed", self.die, 0, 40),
            ("killed while it saved", lambda: self.die(every[-10 * ENTRY:]), 0, 40),
            ("killed, damaged", lambda: self.die(every[:ENTRY] + b"\0" * ENTRY), 0, 40),
            ("killed, cut", lambda: self.die(every[:ENTRY + 8]), 0, 40),
            ("one alone for a while", self.lose_a_twin, 1, 40),
            ("changed and gone, after that", self.touch_one_and_remove_another, 2, 39))
        for name, disturb, read_again, entries in rows:
            with self.subTest(name):
                shutil.rmtree(self.state)
                shutil.copytree(self.directory / "saved", self.state)
                disturb()
                self.assertEqual(
                    (self.scan()["counters"]["nr_hashed"],
                     [(file, file.stat().st_size) for file in self.state.glob("*.hsh*")]),
                    (read_again, [(self.file, entries * ENTRY)]))
        os.mkdir(f"{self.file}.wide")  # is neither read nor removed
        self.scan()


class Volumes(ToolCase):
    def setUp(self):
        super().setUp()
        self.mount_image("btrfs", "200M")
        self.state.mkdir()
        self.mount("tmpfs", self.state, "size=8m")  # no waiting for a disk

    def fill(self, *places):
        """Makes the same files in each place. In new volumes they also get the same inode
        numbers."""
        for place in places:
            self.write_each(f"{place}/a {place}/b {place}/c", content("same", 200000))
            self.write(f"{place}/alone", content(place, 90000))
            self.write(f"{place}/small", b"below the smallest size")

    def test_identical_files_of_two_subvolumes_are_one_group_and_share_their_data(self):
        for name in ("one", "two"):
            run("btrfs", "-q", "subvolume", "create", self.root / name)
        self.fill("one", "two")
        self.write_each("one/only two/only", content("pair", 2 << 20))
        self.write("two/size", content("none", 2 << 20))
        for name in "xy":
            self.write(name, content(name, 90000))  # the size of the two alone
        groups = [["one/only", "two/only"],
                  ["one/a", "one/b", "one/c", "two/a", "two/b", "two/c"]]
        # Six, two of equal size, and the pair: larger files are first compared by pattern.
        for arguments, read, freed in ((["-x"], 12, 0), (["--apply"], 0, 5 * 200704 + (2 << 20))):
            report = self.scan(*arguments)
            self.assertEqual(self.groups(report), groups)
            self.assertEqual(report["counters"]["nr_hashed"], read)
            self.assertAlmostEqual(report.get("merged", {"freed_bytes": 0})["freed_bytes"], freed,
                                   delta=4096)
        report = self.scan("--apply")
        self.assertEqual({(file["outcome"], file["status"] > 0, file["blocks"] > 0,
                           group["digest"] is None)
                          for group in report["groups"] for file in group["files"]},
                         {("shared", True, True, False)})
        self.scan("--skip", self.root / "two")  # and remembers its device all the same
        run("umount", self.root)
        (self.directory / "other").mkdir()
        self.mount("tmpfs", self.directory / "other", "rw")  # takes a device number
        run("mount", "-o", "loop", self.directory / "image", self.root)
        for name in ("two", "one"):  # which so exchange theirs
            (self.root / name / "a").stat()
        self.assertEqual(self.scan()["counters"]["nr_hashed"], 0)
        devices, = self.state.glob("*.devices")
        known = devices.read_text()
        other = re.sub(" [0-9]+ ", " 1 ", known)  # other file systems, under the same numbers
        for text, owner, is_read in ((other, 0, True), (re.sub("(?m)^[0-9]+", "1", known), 0, True),
                                     (other, 65534, False)):
            devices.write_text(text)
            os.chown(devices, owner, owner)
            self.assertEqual(self.scan()["counters"]["nr_hashed"] > 0, is_read, text)

    def test_a_tree_of_several_file_systems_is_compared_as_a_whole_within_its_limits(self):
        for name in ("one", "two"):
            (self.root / name).mkdir()
            self.mount("tmpfs", self.root / name, "size=16m")
        self.fill(".", "one", "two")
        self.write_each("longer/deep two/sub/deep two/sub/twin", content("deep"))
        for place, other in ((self.write("bound", b""), "one/a"),
                             (self.write("again/x", b"").parent, "one")):
            self.mount("none", place, "bind", self.root / other)
        top, one, two = (["a", "b", "c"], ["one/a", "one/b", "one/c"], ["two/a", "two/b", "two/c"])
        deep = ["longer/deep", "two/sub/deep", "two/sub/twin"]

        def own_name(path):
            return path.replace("again/", "one/").replace("bound", "one/a")

        for arguments, *groups in (
                ((), top + one + two, deep),
                (("--max-depth", "2", self.root / "longer"), top + one + two),
                (("--max-depth", "1"), [*top, "one/a"]),
                (("--skip", self.root / "two"), top + one),
                (("-x",), top),
                (("-x", self.root / "two"), top + two, deep)):
            for _ in range(2):
                report = self.scan(*arguments)
                self.assertEqual(
                    sorted(sorted(map(own_name, group)) for group in self.groups(report)),
                    sorted(groups), arguments)
            self.assertEqual(report["counters"]["nr_hashed"], 0, arguments)
        self.assertEqual({name.suffix for name in self.state.iterdir()}, {".hsh", ".devices", ""})
        self.check_runs((f"scan --apply --state {self.state} --min-size 1K {self.root}", 0,
                         r"\n  merged +2 files, 0 already shared\n  recorded +5 files, 0 already "
                         r"recorded\n(.*\n)* .*, 20 candidates, 0 read in full\n"))


class WideInodes(ToolCase):
    def test_files_whose_inode_numbers_agree_in_their_low_half_are_told_apart(self):
        self.mount_image("xfs", "8T", "-l", "size=64m")
        files = [self.write_each((f"{place}/{kind}" for place in range(16)), content(kind))
                 for kind in range(5)]
        files.append(self.write_each(("0/pair", "2/pair"), content("pair", 80000)))
        for place, path in enumerate(files[0]):
            os.link(path, self.root / f"{15 - place}" / "link")
        for path in self.root.glob("*/*"):
            os.utime(path, (0, 0))
        inodes = [sorted(path.stat().st_ino for path in paths) for paths in files]
        low = [inode % 2**32 for inode in sum(inodes, [])]
        self.assertLess(len(set(low)), 60)
        skip = next(path for path in files[4] if low.count(path.stat().st_ino % 2**32) > 1)
        rest = [[inode for inode in group if inode != skip.stat().st_ino] for group in inodes]
        for arguments, candidates, read, merged, groups in (
                ((), 98, 82, None, inodes), ((), 98, 0, None, inodes),
                (("--skip", skip), 97, 0, None, rest), (("--apply",), 98, 0, 76, inodes)):
            for digests in self.state.glob("*.wide"):
                os.symlink(skip, f"{digests}.new")  # is not followed
            report = self.scan(*arguments, min_size="70000")
            self.assertEqual(
                (sorted(sorted(file["inode"] for file in group["files"])
                        for group in report["groups"]),
                 [report["counters"][f"nr_{name}"] for name in
                  ("dir_read", "file_opened", "scan_file", "hashed", "error")],
                 report.get("merged", {}).get("files")),
                (sorted(groups), [17, 98 + read, candidates, read, 0], merged), arguments)
        [wide] = self.state.glob("*.wide")
        wide.unlink()
        wide.mkdir()
        self.check_runs((f"scan --min-size 70000 --state {self.state} {self.root}", 1,
                         "velmarin: cannot save all digests for the next scan\n"))


main(sys.argv[1:-1])
