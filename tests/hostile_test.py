"""No space, no permission, and hostile trees: whatever happens is reported, and no file loses a
byte. VELMARIN_FILES sets how many files are very many."""

import os
import shutil
import socket
import stat
import sys

from support.script import ToolCase, content, main

SAME = content("same", 2000)
FILES = int(os.environ.get("VELMARIN_FILES", 5000))


def fill_up(place):
    """Fills the file system until not even a small file fits."""
    for size in (1 << 20, 4096, 1):
        try:
            for number in range(1 << 20):
                (place / f"fill{size}-{number}").write_bytes(os.urandom(size))
        except OSError:
            pass


class NoRoom(ToolCase):
    def test_what_cannot_be_saved_is_reported_in_a_line_and_harms_no_file(self):
        self.write_each("a b")
        before = self.identities()
        nobody = self.become_nobody()
        full, read_only, of_root = (self.directory / name for name in ("full", "read-only", "own"))
        for place in (full, read_only, of_root):
            place.mkdir()
        self.mount("tmpfs", full, "size=64k")
        fill_up(full)
        self.mount("tmpfs", read_only, "ro")
        unusable = "cannot use the state directory"
        self.scan()
        [digests] = self.state.glob("*.hsh")
        digests.unlink()
        (digests / "in the way").mkdir(parents=True)
        for state, user, line in (
                (self.state, [], f"cannot save the digests for the next scan: Cannot open {digests} "
                                 "returned Is a directory"),
                (full, [], f"cannot write {full}/history: No space left on device\nvelmarin: "
                           "cannot save the digests for the next scan: "
                           f"no space left for digests in {full}"),
                (read_only, [], f"{unusable} {read_only}: Read-only file system"),
                ("a", [], f"{unusable} a: Not a directory"),
                (of_root / "new", nobody, f"{unusable} {of_root}/new: Permission denied")):
            _, errors = self.run_tool("scan", "--apply", "--state", state, ".", status=1,
                                      before=user)
            self.assertEqual(errors, f"velmarin: {line}\n")
            self.assertEqual(self.identities(), before)
        self.assertEqual(list(full.glob("*hsh*")), [])
        second = self.directory / "second"
        second.mkdir()
        self.mount("tmpfs", second, "size=1m")
        shutil.copy(self.root / "a", second)
        self.scan(roots=[".", second])
        for digests in self.state.glob("*.hsh"):
            if digests.is_file():
                digests.unlink()
                (digests / "in the way").mkdir(parents=True)
        self.assertEqual(self.run_tool("scan", "--state", self.state, ".", second, status=1)[1],
                         "velmarin: cannot save all digests for the next scan\n")

    def test_merging_frees_the_reported_space_on_a_full_file_system(self):
        self.mount_image("btrfs", "128M")
        size = 8 << 20
        data = content("large", size)
        paths = self.write_each("a b c d ../other/e ../other/f", data)
        self.run_tool("freeze", paths[0])
        fill_up(self.root)
        merged = self.scan("--apply", self.directory / "other")["merged"]
        self.assertEqual([merged[name] for name in ("files", "recorded", "freed_bytes")],
                         [3, 1, 3 * size - 4 * 344 - 3 * 400])
        fill_up(self.root)
        self.assertIn("No space left on device", self.run_tool("revoke", *paths, status=1)[1])
        self.assertEqual({path.read_bytes() for path in paths}, {data})


class HostileTree(ToolCase):
    def test_only_regular_files_are_touched_among_very_many_of_all_kinds(self):
        paths = self.write_each([(b"%d\n\xff\x1b" % number).ljust(255, b"\xc2")
                                 for number in range(FILES // 50)], SAME)
        self.write_each(map(str, range(FILES)), b"")
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
        self.assertEqual(report["merged"]["recorded"], len(paths) - 1)
        self.assertGreaterEqual(report["counters"]["nr_file_opened"], FILES + len(paths))
        self.assertEqual(self.identities(), before)


main(sys.argv[1:-1])
