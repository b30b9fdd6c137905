"""What the tool must leave alone: trees that it only scans, everything outside its roots while
others rename inside them, and what users keep from each other."""

import ctypes
import os
import shutil
import struct
import sys

from support.script import DEADLINE, ToolCase, content, main, meanwhile, run

EXCHANGE = 2  # RENAME_EXCHANGE
HERE = -100  # AT_FDCWD
NO_ID = 0xffffffff


class OnlyLooking(ToolCase):
    def make_tree(self):
        self.write_each("a b sub/c")
        os.link(self.root / "a", self.root / "sub/link")

    def test_a_scan_leaves_no_trace_and_needs_only_read_permission(self):
        nobody = self.become_nobody()
        self.make_tree()
        before = self.traces()
        for setting, user in (("another user's files", nobody), ("a read-only mount", [])):
            for _ in range(2):  # the second run has digests
                self.assertEqual(len(self.scan(before=user)["groups"][0]["files"]), 3, setting)
                self.assertEqual(self.traces(), before, setting)
            shutil.rmtree(self.state)
            self.mount("none", self.root, "bind,ro", self.root)

    def test_no_file_of_an_overlay_is_copied_up(self):
        self.make_tree()
        lower = self.root
        upper, work, self.root = (self.directory / name for name in ("upper", "work", "overlay"))
        for place in (upper, work, self.root):
            place.mkdir()
        self.mount("overlay", self.root, f"lowerdir={lower},upperdir={upper},workdir={work}")
        (self.directory / "report").write_text(self.run_tool("scan", "--json", ".")[0])
        reason = "it is on an overlay, where a change may copy it up"
        refusal = rf"\Avelmarin: a: not opened: {reason}\n"
        self.check_runs(
            ("scan --state ../state .", 0, rf"(  refused .* \({reason}\)\n){{3}}"),
            ("apply ../report", 4, "(  refused .*\n){3}"),
            ("scan --apply --state ../state .", 1, "identical files  0 in 0",
             ": left out 4 files on an overlay: "),
            *((command, 1, refusal) for command in (
                "info a b", "flags a b", "freeze a", "dedup a b", "group a b", "revoke a",
                "recover a", "copy a new")))
        self.assertEqual(self.scan()["counters"]["nr_hashed"], 0)  # the digests are kept
        self.assertEqual(list(upper.iterdir()), [])


class OutsideTheRoots(ToolCase):
    def test_nothing_there_changes_while_names_below_a_root_are_swapped(self):
        """Swaps a directory with a link to one elsewhere with the same names, and a file with a
        FIFO."""
        self.mount_image("btrfs", "256M")
        for number in range(40):
            self.write_each((f"{place}/{number}{twin}" for twin in "ab"
                             for place in ("tree/d/e", "outside/e")), content(number, 20000))
        self.write_each("tree/file tree/twin")
        tree, outside = self.root / "tree", self.root / "outside"
        (tree / "link").symlink_to(outside)
        os.mkfifo(tree / "fifo")
        run("sync", "-f", self.root)
        victims = list((outside / "e").iterdir())
        before = self.traces(outside), self.extents(victims)
        swaps = merged = 0

        def swap():
            nonlocal swaps
            for left, right in (("d", "link"), ("file", "fifo")):
                swaps += rename(HERE, os.fsencode(tree / left), HERE, os.fsencode(tree / right),
                                EXCHANGE) == 0

        rename = ctypes.CDLL(None).renameat2
        with meanwhile(swap):
            for number in range(8):
                with self.start("scan", "--apply", "--min-size", "1", "--state",
                                f"{self.state}{number}", tree) as process:
                    output, _ = process.communicate(timeout=DEADLINE)
                merged += output.count(b"  merged  ")
        self.assertGreater(swaps, 100)
        self.assertGreater(merged, 0)
        self.assertEqual((self.traces(outside), self.extents(victims)), before)


class OwnData(ToolCase):
    def test_a_file_that_cannot_have_a_temporary_file_beside_it_stays_shared_and_says_why(self):
        self.mount_image("btrfs", "256M")
        shared = self.write_each("a b")
        self.run_tool("dedup", "a", "b")
        before = self.extents(shared)
        self.assertIn("shared", "".join(before))
        elsewhere = self.directory / "elsewhere"
        elsewhere.mkdir()
        said = f"cannot create a temporary file in {elsewhere}: (it is on another file system|Op)"
        for kind in ("tmpfs", "mqueue"):  # the second cannot create temporary files
            self.mount(kind, elsewhere, "rw")
            (elsewhere / "file").touch()
            self.mount("none", elsewhere / "file", "bind", self.root / "b")
            self.check_runs(("revoke ../elsewhere/file", 1, said),
                            ("recover ../elsewhere/file", 1, said))
            self.assertEqual(self.extents(shared), before, kind)
        self.write_each("gone/x gone/y")
        self.run_tool("dedup", "gone/x", "gone/y")
        with open(self.root / "gone/y", "rb") as file:
            (self.root / "gone/y").unlink()
            for gone, commands, said in (
                    (False, ["recover"], "has no name in its directory {} any more"),
                    (True, ["recover", "revoke"], "its directory {} is gone")):
                if gone:
                    shutil.rmtree(self.root / "gone")
                for command in commands:
                    _, errors = self.run_tool(command, f"/proc/self/fd/{file.fileno()}", status=1,
                                              pass_fds=[file.fileno()])
                    self.assertIn(said.format(self.root / "gone"), errors)


class Secrets(ToolCase):
    def test_a_copy_never_grants_more_access_than_its_source(self):
        nobody = self.become_nobody()
        self.root.chmod(0o777)
        source = self.write("source", content("same"))
        open_to_all = [(1, 7, NO_ID), (2, 7, 65534), *((tag, 7, NO_ID) for tag in (4, 16, 32))]
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
