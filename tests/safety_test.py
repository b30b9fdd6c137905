"""What the tool must leave alone: trees that it only scans, everything outside its roots while
others rename inside them, and what users keep from each other."""

import ctypes
import itertools
import os
import re
import shutil
import struct
import sys
import threading

from support.script import ToolCase, content, main, run

EXCHANGE = 2  # RENAME_EXCHANGE
HERE = -100  # AT_FDCWD
NO_ID = 0xffffffff


def traces(directory):
    """Everything that shows a change below the directory, except access times."""
    seen = {}
    for path in (directory, *directory.rglob("*")):
        status = path.lstat()
        names = os.listxattr(path, follow_symlinks=False)
        seen[str(path)] = (status.st_ino, status.st_mode, status.st_nlink, status.st_size,
                           status.st_mtime_ns, status.st_ctime_ns, names)
    return seen


def extents(paths):
    return re.findall(r"^ +\d+:.*", run("filefrag", "-vs", *paths), re.M)


class Swapper(threading.Thread):
    """Exchanges pairs of names in turn until the context ends."""

    def __init__(self, *pairs):
        super().__init__()
        self.pairs = [(os.fsencode(left), os.fsencode(right)) for left, right in pairs]
        self.count = 0
        self.is_over = False

    def run(self):
        rename = ctypes.CDLL(None).renameat2
        for left, right in itertools.cycle(self.pairs):
            if self.is_over:
                return
            self.count += rename(HERE, left, HERE, right, EXCHANGE) == 0

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.is_over = True
        self.join()


class OnlyLooking(ToolCase):
    def make_tree(self):
        for name in ("a", "b", "sub/c"):
            self.write(name, content("same"))
        os.link(self.root / "a", self.root / "sub/link")

    def test_a_scan_leaves_no_trace_and_needs_only_read_permission(self):
        nobody = self.become_nobody()
        self.make_tree()
        before = traces(self.root)
        for setting, user in (("another user's files", nobody), ("a read-only mount", [])):
            for _ in range(2):  # the second run has digests
                self.assertEqual(len(self.scan(before=user)["groups"][0]["files"]), 3, setting)
                self.assertEqual(traces(self.root), before, setting)
            shutil.rmtree(self.directory / "state")
            self.mount("none", self.root, "bind,ro", self.root)

    def test_no_file_of_an_overlay_is_copied_up(self):
        self.make_tree()
        lower, upper = self.root, self.directory / "upper"
        self.root = self.directory / "overlay"
        for place in (upper, self.directory / "work", self.root):
            place.mkdir()
        self.mount("overlay", self.root,
                   f"lowerdir={lower},upperdir={upper},workdir={self.directory / 'work'}")
        self.assertEqual(len(self.scan()["groups"][0]["files"]), 3)
        report = self.directory / "report"
        report.write_text(self.run_tool("scan", "--json", ".")[0])
        output, _ = self.run_tool("apply", report, status=4)
        self.assertEqual(output.count("  refused "), 3)
        self.assertEqual(self.scan("--apply", status=1)["groups"], [])
        self.assertEqual(self.scan()["counters"]["nr_hashed"], 0)  # the digests are kept
        self.assertIn(": left out 4 files on an overlay: ",
                      self.run_tool("scan", "--apply", ".", status=1)[1])
        for command in ("info a b", "flags a b", "freeze a", "dedup a b", "group a b", "revoke a",
                        "recover a", "copy a new"):
            _, errors = self.run_tool(*command.split(), status=1)
            self.assertIn("velmarin: a: not opened: the overlay would copy it up\n", errors)
        self.assertEqual(list(upper.iterdir()), [])


class OutsideTheRoots(ToolCase):
    def test_nothing_there_changes_while_names_below_a_root_are_swapped(self):
        """Swaps a directory with a link to one elsewhere with the same names, and a file with a
        FIFO."""
        self.mount_btrfs("256M")
        names = [f"{twin}{number}" for number in range(40) for twin in "ab"]
        for name in names:
            for place in ("tree/d/e", "outside/e"):
                self.write(f"{place}/{name}", content(name[1:], 20000))
        for name in ("tree/file", "tree/twin"):
            self.write(name, content("same"))
        tree, outside = self.root / "tree", self.root / "outside"
        (tree / "link").symlink_to(outside)
        os.mkfifo(tree / "fifo")
        os.sync()
        victims = [outside / "e" / name for name in names]
        before, places = traces(outside), extents(victims)
        merged = 0
        with Swapper((tree / "d", tree / "link"), (tree / "file", tree / "fifo")) as swapper:
            for number in range(8):
                state = self.directory / f"state{number}"
                with self.start("scan", "--apply", "--min-size", "1", "--state", state,
                                tree) as process:
                    output, _ = process.communicate(timeout=60)
                merged += output.count(b"  merged  ")
        self.assertGreater(swapper.count, 100)
        self.assertGreater(merged, 0)
        self.assertEqual((traces(outside), extents(victims)), (before, places))
        self.assertEqual({path.name: path.read_bytes() for path in victims},
                         {name: content(name[1:], 20000) for name in names})


class OwnData(ToolCase):
    def test_a_file_that_cannot_have_a_temporary_file_beside_it_stays_shared_and_says_why(self):
        self.mount_btrfs("256M")
        shared = [self.write(name, content("same", 200000)) for name in "ab"]
        self.run_tool("dedup", "a", "b")
        before = extents(shared)
        self.assertIn("shared", "".join(before))
        elsewhere = self.directory / "elsewhere"
        elsewhere.mkdir()
        for kind in ("tmpfs", "mqueue"):  # the second cannot create temporary files
            self.mount(kind, elsewhere, "rw")
            (elsewhere / "file").touch()
            self.mount("none", elsewhere / "file", "bind", self.root / "b")
            for command in ("revoke", "recover"):
                _, errors = self.run_tool(command, elsewhere / "file", status=1)
                self.assertRegex(errors, f"cannot create a temporary file in {elsewhere}: (Inv|Op)")
                self.assertEqual(extents(shared), before, kind)
        run("chattr", "+i", shared[1])
        self.addCleanup(run, "chattr", "-i", shared[1])
        for command in ("revoke", "recover"):
            self.assertIn("Operation not permitted", self.run_tool(command, "b", status=1)[1])
        self.assertEqual(extents(shared), before)


class Secrets(ToolCase):
    def test_a_copy_never_grants_more_access_than_its_source(self):
        nobody = self.become_nobody()
        self.root.chmod(0o777)
        source = self.write("source", content("same"))
        open_to_all = [(1, 7, NO_ID), (2, 7, 65534), (4, 7, NO_ID), (16, 7, NO_ID), (32, 7, NO_ID)]
        os.setxattr(self.root, "system.posix_acl_default", struct.pack("<I", 2) + b"".join(
            struct.pack("<HHI", *entry) for entry in open_to_all))  # replaces the umask
        for mode, owner, group, user, copied in (
                (0o600, 0, 0, [], 0o600), (0o640, 0, 0, [], 0o640), (0o6755, 0, 0, [], 0o6755),
                (0o444, 0, 0, [], 0o444), (0o6755, 65534, 65534, [], 0o755),
                (0o640, 0, 65534, [], 0o640), (0o6754, 0, 0, nobody, 0o744)):
            os.chown(source, owner, group)
            source.chmod(mode)
            self.run_tool("copy", "source", "copy", before=user)
            copy = self.root / "copy"
            self.assertEqual(copy.stat().st_mode & 0o7777, copied, oct(mode))
            self.assertEqual(os.listxattr(copy), os.listxattr(source))
            copy.unlink()


main(sys.argv[1:-1])
