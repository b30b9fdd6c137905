"""What the tool must leave alone: trees that it only looks at, what lies outside its roots while
others rename in them, and what users keep from each other."""

import ctypes
import itertools
import os
import re
import shutil
import sys
import threading

from support.script import ToolCase, content, main, run

EXCHANGE = 2  # RENAME_EXCHANGE
HERE = -100  # AT_FDCWD


def traces(directory):
    """All by which a change of anything below the directory shows, but for times of access."""
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
    """Exchanges pairs of names in turn, until it is left."""

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

    def test_a_scan_leaves_no_trace_and_needs_no_right_but_to_read(self):
        nobody = self.become_nobody()
        self.make_tree()
        before = traces(self.root)
        for setting, user in (("another user's files", nobody), ("a read-only mount", [])):
            for _ in range(2):  # the second has digests
                self.assertEqual(len(self.scan(before=user)["groups"][0]["files"]), 3, setting)
                self.assertEqual(traces(self.root), before, setting)
            shutil.rmtree(self.directory / "state")
            self.mount("none", self.root, "bind,ro", self.root)

class OutsideTheRoots(ToolCase):
    def test_nothing_there_changes_while_names_below_a_root_are_swapped(self):
        """A directory with a link to one of the same names elsewhere, a file with a FIFO."""
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
        self.assertGreater(swapper.count, 1000)
        self.assertGreater(merged, 0)
        self.assertEqual((traces(outside), extents(victims)), (before, places))
        self.assertEqual({path.name: path.read_bytes() for path in victims},
                         {name: content(name[1:], 20000) for name in names})


main(sys.argv[1:-1])
