"""No space, no permission, and hostile trees: whatever happens is reported, and no file loses a
byte. VELMARIN_FILES sets how many files are very many."""

import os
import shutil
import socket
import stat
import sys
from pathlib import Path

from support.script import ToolCase, content, main

SAME = content("same", 200000)
FILES = int(os.environ.get("VELMARIN_FILES", 20000))
PATH_ROOM = 4095  # the longest path, without its NUL


def fill_up(place):
    """Fills the file system until not even a small file fits."""
    os.sync()
    for size in (1 << 20, 4096, 1):
        try:
            for number in range(1 << 20):
                (place / f"fill{size}-{number}").write_bytes(os.urandom(size))
        except OSError:
            os.sync()


class NoRoom(ToolCase):
    def test_what_cannot_be_saved_is_reported_in_a_line_and_harms_no_file(self):
        paths = [self.write(name, SAME) for name in "ab"]
        before = self.identities()
        nobody = self.become_nobody()
        for name in ("full", "read-only", "of-root"):
            (self.directory / name).mkdir()
        self.mount("tmpfs", self.directory / "full", "size=64k")
        fill_up(self.directory / "full")
        self.mount("tmpfs", self.directory / "read-only", "ro")
        for state, user, line in (
                ("../full", [], "cannot write .*/history: No space left on device\nvelmarin: "
                                "cannot save the digests for the next scan: "
                                f"no space left for digests in {self.directory}/full"),
                ("../read-only", [], "cannot use the state directory .*: Read-only file system"),
                ("a/below", [], "cannot use the state directory .*: Not a directory"),
                ("../of-root", nobody, "cannot use the state directory .*: Permission denied")):
            _, errors = self.run_tool("scan", "--apply", "--state", state, ".", status=1,
                                      before=user)
            self.assertRegex(errors, rf"\Avelmarin: {line}\n\Z")
            self.assertEqual(self.identities(), before)
            self.assertEqual({path.read_bytes() for path in paths}, {SAME})
        self.assertEqual(list((self.directory / "full").glob("*hsh*")), [])

    def test_merging_on_two_file_systems_frees_the_reported_space_on_the_full_one(self):
        self.mount_btrfs("128M")
        data = content("large", 8 << 20)
        names = ("a", "b", "c", "d", "../other/e", "../other/f")
        paths = [self.write(name, data) for name in names]
        fill_up(self.root)
        before = shutil.disk_usage(self.root).used
        merged = self.scan("--apply", self.directory / "other")["merged"]
        os.sync()
        freed = before - shutil.disk_usage(self.root).used
        self.assertEqual((merged["files"], merged["freed_bytes"]), (4, 3 * (8 << 20) - 4 * 344))
        self.assertAlmostEqual(freed, 3 * (8 << 20), delta=2 << 20)
        fill_up(self.root)
        self.assertIn("No space left on device", self.run_tool("revoke", *paths, status=1)[1])
        self.assertEqual({path.read_bytes() for path in paths}, {data})

    def test_nothing_is_lost_without_any_free_space(self):
        self.mount_btrfs("128M", "--mixed")
        paths = [self.write(name, SAME) for name in "abcd"]
        fill_up(self.root)
        self.assertEqual(self.scan("--apply", status=4)["merged"]["files"], 0)
        self.assertEqual({path.read_bytes() for path in paths}, {SAME})


class HostileTree(ToolCase):
    def test_only_regular_files_are_touched_among_very_many_of_all_kinds(self):
        names = [(b"%d\n\xff\x1b" % number).ljust(255, b"\xc2") for number in range(FILES // 50)]
        paths = [self.write(name, SAME[:2000]) for name in names]
        for number in range(FILES):
            (self.root / str(number)).touch()
        os.mkfifo(self.root / "fifo")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(self.root / "socket"))
        for name, target in (("loop", "loop"), ("up", ".."), ("self", "."), ("link", paths[0].name),
                             ("nowhere", "missing"), ("device", "/dev/zero")):
            (self.root / name).symlink_to(target)
        if os.getuid() == 0:
            os.mknod(self.root / "null", stat.S_IFCHR | 0o600, os.makedev(1, 3))

        before = self.identities()
        report = self.scan("--apply", min_size="0")
        self.assertEqual(report["merged"]["files"], len(paths) - 1)
        self.assertGreaterEqual(report["counters"]["nr_file_opened"], FILES + len(paths))
        self.assertEqual(self.identities(), before)
        self.assertEqual({path.read_bytes() for path in paths}, {SAME[:2000]})

    def test_a_deep_tree_is_read_up_to_the_longest_path(self):
        """One file's path has exactly the maximum length, another's is a byte longer."""
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(self.root)
        for depth in range(3000):
            room = PATH_ROOM - len(str(self.root)) - 2 * depth - 1
            for name in ("n" * room, "n" * (room + 1)) if room in (201, 202) else ("p", "q"):
                Path(name).write_bytes(SAME[:2000])
            os.mkdir("d")
            os.chdir("d")
        report = self.scan("--apply")
        lengths = [len(file["path"]) for file in report["groups"][0]["files"]]
        reached = (PATH_ROOM - len(str(self.root)) - 2) // 2 + 1
        self.assertEqual((len(lengths), max(lengths)), (2 * reached - 1, PATH_ROOM))
        self.assertEqual(report["merged"]["files"], len(lengths) - 1)

    def test_unreadable_files_are_skipped_and_files_that_cannot_be_frozen_are_reported(self):
        nobody = self.become_nobody()
        for name in ("a", "b", "closed", "hidden/c"):
            self.write(name, SAME)
        (self.root / "closed").chmod(0)
        (self.root / "hidden").chmod(0)
        _, errors = self.run_tool("scan", "--apply", "--state", "../state", ".", status=4,
                                  before=nobody)
        self.assertEqual(errors, "velmarin: 1 directory could not be read, 1 file could not be "
                                 "opened, 2 files could not be marked; the first: "
                                 f"{self.root}/a: not marked, Permission denied\n")


main(sys.argv[1:-1])
