"""Which entries a scan examines, by the tool's options."""

import os
import subprocess
import sys

from support.script import ToolCase, content, main, meanwhile

TREE = ("a.txt #1 b.TXT .hidden .git/config .git/objects/x build/out.o build/deep/out.o src/build "
        "src/x/y/main.c src/main.c [odd] -dash ünt back\\slash src/build.d/note").split()


class Choice(ToolCase):
    def setUp(self):
        super().setUp()
        self.write_each(TREE, content("same", 2000))

    def seen(self, *arguments, **options):
        """The names below the root that the scan compared."""
        return {name for names in self.groups(self.scan(*arguments, **options)) for name in names}

    def test_excludes_prune_includes_limit_files_and_hidden_names_can_go(self):
        for options, directories, left_out in (
                ("--exclude build --exclude ?nt --exclude root", 7,
                 "build/out.o build/deep/out.o src/build ünt"),
                ("--exclude src/build --exclude */out.o --exclude /*.c", 9,
                 "src/build build/out.o"),
                ("--no-hidden --max-depth 2047", 7, ".hidden .git/config .git/objects/x"),
                ("--max-depth 0 --max-size 2000", 9, ""), ("--max-size 1999", 9, " ".join(TREE)),
                ("--exclude deep --include build/**", 8, " ".join(TREE)),
                ("--include main.c --include=a* --include build --exclude=y", 8, " ".join(
                    {*TREE} - {"src/main.c", "src/build", "a.txt"}))):
            report = self.scan(*options.split())
            names = {name for names in self.groups(report) for name in names}
            self.assertEqual((report["counters"]["nr_dir_read"], set(TREE) - names),
                             (directories, set(left_out.split())), options)

    def test_lists_come_from_files_and_standard_input(self):
        (self.directory / "globs").write_text(
            "\ufeffsrc\n#1\r\n\r\n.*\r\n\\#\nb*\n[ob]*", encoding="utf-8")
        self.assertEqual(self.seen("--exclude-from", "../globs", "--exclude", "-dash"),
                         {"a.txt", "#1", "[odd]", "ünt"})
        names = self.directory / "roots"
        names.write_bytes(b"\xef\xbb\xbfsrc/x\r\n\r\nsrc/build.d\n")
        self.assertEqual(self.seen("--roots-from", names, roots=[]),
                         {"src/x/y/main.c", "src/build.d/note"})
        self.write("src\nlines/file", content("same", 2000))
        names.write_bytes(b"src\0src\nlines\0")
        with open(names, "rb") as file:
            self.assertEqual(self.seen("-0", "--roots-from", "-", "--exclude", "/x", "--exclude",
                                       "b*", roots=["src/x/y"], stdin=file),
                             {"src\nlines/file", "src/main.c", "src/x/y/main.c"})  # a root is in
        for status, command, said in (
                (1, "--roots-from /dev/null", "nothing to scan: no directories are listed in /"),
                (1, "--roots-from -", "nothing to scan: no directories are listed on standard input"),
                *((1, f"--{option}-from . .", "cannot read .: Is a directory")
                  for option in ("exclude", "roots")),
                (2, "--exclude-from - --roots-from -", "standard input can be read only once"),
                (2, "--max-size 9K .", "--max-size is below --min-size"),
                (2, "--include src/ .",
                 "--include: matches only files; for everything below a directory, use 'src/**'"),
                (2, "--exclude= .", "--exclude needs a value that is not empty")):
            output, errors = self.run_tool("scan", *command.split(), status=status,
                                           stdin=subprocess.DEVNULL)
            self.assertEqual((output, errors[:len(said) + 10]), ("", f"velmarin: {said}"))


class LeftOut(ToolCase):
    def test_what_could_not_be_looked_at_is_counted_listed_and_explained(self):
        nobody = self.become_nobody()
        self.write_each("a b secret closed/c skipped/d no/e no/f unlisted")
        self.write("small", b"")
        for name in ("secret", "closed", "skipped", "small", "unlisted"):
            (self.root / name).chmod(0)
        (self.root / "no").chmod(0o444)  # shows names, and opens nothing
        (self.root / "link").symlink_to("secret")
        os.mkfifo(self.root / "pipe", 0)
        limits = ["--skip", "skipped", "--exclude", "unl*"]
        left_out = [("closed", "directory not read"),
                    *((name, "not opened") for name in ("no/e", "no/f", "secret"))]
        report = self.scan(*limits, min_size="70000", before=nobody, status=4)
        self.assertEqual(report["errors"], [{"path": str(self.root / name), "cause": cause,
                                             "errno": "EACCES"} for name, cause in left_out])
        self.assertEqual(report["error_counts"], {"directory not read": 1, "not opened": 3,
                                                  "not marked": 0, "not read": 0,
                                                  "state unknown": 0, "changed": 0})
        denied = [f"{self.root}/{name}: {cause}, Permission denied" for name, cause in left_out]
        counts = ["1 directory could not be read", "3 files could not be opened"]
        for option, lines in (("-v", [f"left out: {line}" for line in denied]),
                              ("-x", [f"{', '.join(counts)}; the first: {denied[0]}"])):
            output, errors = self.run_tool(
                "scan", "--apply", option, "--min-size", "1K", "--state", "../other", *limits, ".",
                "closed/..", "--html", "../page", before=nobody, status=4)
            self.assertIn("".join(f"\n                   {count}" for count in counts), output)
            self.assertEqual([line for line in errors.splitlines() if line.startswith("velmarin:")],
                             [f"velmarin: {line}" for line in
                              [*lines, "2 files not merged: 2 refused"]])
            self.assertEqual(output.count(" (Permission denied)\n"), 2)
        self.assertRegex((self.directory / "page").read_text(),
                         r'/closed","directory not read, Permission denied"\],(.|\n)*"unlisted":0,')

    def test_a_file_that_changes_while_it_is_read_is_named(self):
        self.write_each("a b", content("same", 30_000_000))
        with (open(self.root / "b", "rb+") as file,
              meanwhile(lambda: os.pwrite(file.fileno(), b"x", 10_000_000))):
            for options in ([], ["--apply"]):
                errors = self.scan(*options, status=4)["errors"]
                self.assertEqual([(error["path"], error["cause"]) for error in errors],
                                 [(str(self.root / "b"), "changed")])
                digests, = self.state.glob("*.hsh")
                self.assertEqual(digests.stat().st_size, 64)


main(sys.argv[1:-1])
