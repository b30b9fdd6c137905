"""Which entries a scan examines, by the tool's options."""

import json
import os
import sys
import threading

from support.script import DEADLINE, ToolCase, content, main, run

TREE = ("a.txt b.TXT .hidden .git/config .git/objects/x build/out.o build/deep/out.o src/build "
        "src/x/y/main.c src/main.c [odd] -dash ünt back\\slash src/build.d/note").split()


class Choice(ToolCase):
    def setUp(self):
        super().setUp()
        for number, name in enumerate(TREE):  # all with the same content
            self.write(name, content("same", 2000))

    def seen(self, *arguments, roots=None, **options):
        """The names below the root that the scan compared."""
        output, _ = self.run_tool("scan", "--json", "--state", self.directory / "state",
                                  "--min-size", "1K", *arguments,
                                  *([self.root] if roots is None else roots), **options)
        return {name for names in self.groups(json.loads(output)) for name in names}

    def test_excludes_prune_includes_limit_files_and_hidden_names_can_go(self):
        for globs, left in (
                (["build", "?nt", "root"], {"build/out.o", "build/deep/out.o", "src/build", "ünt"}),
                (["build/", "*.txt"], {"build/out.o", "build/deep/out.o", "a.txt"}),
                (["src/build", "*/out.o", "/*.c"], {"src/build", "build/out.o"}),
                (["src/**/main.c"], {"src/main.c", "src/x/y/main.c"}),
                (["[o[]odd]", "-dash", ".git"],
                 {"[odd]", "-dash", ".git/config", ".git/objects/x"})):
            arguments = [word for glob in globs for word in ("--exclude", glob)]
            self.assertEqual(set(TREE) - self.seen(*arguments), left, globs)
        for arguments, seen in (
                (["--include", "*.[co]", "--include=a*"], {"a.txt", "build/out.o", "build/deep/out.o",
                                                           "src/main.c", "src/x/y/main.c"}),
                (["--include", "main.c", "--include", "build", "--exclude=y"], {"src/main.c", "src/build"}),
                (["--include", "build/**", "--exclude", "deep"], set()),
                (["--no-hidden"], {name for name in TREE if name[0] != "."})):
            self.assertEqual(self.seen(*arguments), seen, arguments)

    def test_lists_come_from_files_and_standard_input(self):
        (self.directory / "globs").write_text("# not this: *\n\nsrc\n.*\n\\#\nb*\n[ob]*")
        self.assertEqual(self.seen("--exclude-from", "../globs", "--exclude", "-dash"),
                         {"a.txt", "[odd]", "ünt"} - {"back\\slash"})
        (self.directory / "roots").write_bytes(b"src/x\n\nsrc/build.d\n")
        self.assertEqual(self.seen("--roots-from", "../roots", roots=[]),
                         {"src/x/y/main.c", "src/build.d/note"})
        self.write("two\nlines/file", content("same", 2000))
        with open(self.directory / "roots", "wb+") as names:
            names.write(b"two\nlines\0src\0")
            names.seek(0)
            self.assertEqual(self.seen("-0", "--roots-from", "-", "--exclude", "/x", "--exclude",
                                       "b*", roots=["src/x/y"], stdin=names),
                             {"two\nlines/file", "src/main.c", "src/x/y/main.c"})  # a root is in
        for status, command, said in (
                (1, "--roots-from /dev/null", "nothing to scan: no directories are listed in /dev/null"),
                (1, "--roots-from missing .", "cannot read missing: No such file"),
                (1, "--exclude-from . .", "cannot read .: Is a directory"),
                (2, "--exclude-from - --roots-from -", "standard input can be read only once"),
                (2, "-0 .", "--null requires --roots-from"),
                (2, "--max-size 9K .", "--max-size is below --min-size"),
                (2, "--include src/ .", "--include: matches only files; for everything below a "
                                        "directory, use 'src/**'"),
                (2, "--exclude= .", "--exclude: an empty glob matches nothing")):
            output, errors = self.run_tool("scan", *command.split(), status=status)
            self.assertEqual((output, errors[:len(said) + 10]), ("", f"velmarin: {said}"))

    def test_what_is_excluded_is_not_read_and_keeps_its_saved_digest(self):
        for name in ("large1", "large2"):
            self.write(name, content("large", 9000))
        for limits, groups, directories, read in (
                ([], 2, 9, len(TREE) + 2), (["--exclude", "src", "--exclude", "a*"], 2, 5, 0),
                (["--max-size", "1999"], 0, 9, 0), (["--max-size", "2000"], 1, 9, 0),
                (["--include", "large?"], 1, 9, 0), ([], 2, 9, 0)):
            report = self.scan(*limits)
            self.assertEqual((len(report["groups"]), report["counters"]["nr_dir_read"],
                              report["counters"]["nr_hashed"]), (groups, directories, read), limits)


class LeftOut(ToolCase):
    def test_what_could_not_be_looked_at_is_counted_listed_and_explained(self):
        nobody = self.become_nobody()
        for name in ("a", "b", "secret", "closed/c", "skipped/d", "no/e", "no/f", "unlisted"):
            self.write(name, content("same", 2000))
        self.write("small", b"")
        for name in ("secret", "closed", "skipped", "small", "unlisted"):
            (self.root / name).chmod(0)
        (self.root / "no").chmod(0o444)  # shows names, and opens nothing
        (self.root / "link").symlink_to("secret")
        os.mkfifo(self.root / "pipe", 0)
        limits = ["--skip", self.root / "skipped", "--exclude", "unl*"]
        left_out = [("closed", "directory not read"), ("no/e", "not opened"), ("no/f", "not opened"),
                    ("secret", "not opened")]
        report = self.scan(*limits, before=nobody, status=4)
        self.assertEqual(report["errors"], [{"path": str(self.root / name), "cause": cause,
                                             "errno": "EACCES"} for name, cause in left_out])
        self.assertEqual(report["error_counts"], {"directory not read": 1, "not opened": 3,
                                                  "not marked": 0, "not read": 0,
                                                  "state unknown": 0, "changed": 0})
        marked = [("a", "not marked"), ("b", "not marked"), *left_out]
        output, errors = self.run_tool("scan", "--apply", "-v", "--min-size", "1K", "--state",
                                       self.directory / "other", *limits, ".", self.root / "closed/..",
                                       before=nobody, status=4)
        self.assertIn("\n                   1 directory could not be read"
                      "\n                   3 files could not be opened"
                      "\n                   2 files could not be marked\n", output)
        self.assertEqual([line for line in errors.splitlines() if "left out" in line],
                         [f"velmarin: left out: {self.root}/{name}: {cause}, Permission denied"
                          for name, cause in marked])

    def test_a_file_that_changes_while_it_is_read_is_named(self):
        for name in "ab":
            self.write(name, content("same", 30_000_000))
        over = threading.Event()

        def write_on():
            with open(self.root / "b", "rb+", buffering=0) as file:
                while not over.is_set():
                    os.pwrite(file.fileno(), b"x", 10_000_000)

        writer = threading.Thread(target=write_on)
        writer.start()
        self.addCleanup(writer.join)
        self.addCleanup(over.set)
        for options in ([], ["--apply"]):
            report = self.scan(*options, status=4)
            self.assertEqual(([(error["path"], error["cause"]) for error in report["errors"]],
                              report["counters"]["nr_error"]),
                             ([(str(self.root / "b"), "changed")], 0))


class Refusals(ToolCase):
    def test_each_refusal_says_in_words_what_is_wrong(self):
        for name in ("a", "b", "c"):
            self.write(name, content("other" if name == "c" else "same"))
        os.link(self.root / "a", self.root / "link")
        os.mkfifo(self.root / "pipe")
        before = self.identities()
        for command, said in (
                ("revoke .", ".: is a directory"), ("info pipe", "pipe: is not a regular file"),
                ("copy . new", ".: is a directory"), ("dedup a .", ".: is a directory"),
                ("group a b pipe", "pipe: is not a regular file"),
                ("group a", "a: a group needs at least two files"),
                ("group b a link", "link: same file as a"), ("dedup a a", "a: same file as a"),
                ("dedup a link", "link: same file as a")):
            self.assertEqual(self.run_tool(*command.split(), status=1), ("", f"velmarin: {said}\n"))
            self.assertEqual(self.identities(), before)
        _, errors = self.run_tool("dedup", "a", "c", status=1)
        self.assertEqual(errors, "velmarin: c: cannot share the data of a: contents differ\n")
        _, errors = self.run_tool("group", "a", "b", "c", status=1)
        self.assertEqual(errors,
                         "velmarin: a: not all files of the group were merged: contents differ\n")

    def test_files_of_which_one_is_not_copied_on_write_are_refused_in_words(self):
        self.mount_btrfs("128M")
        (self.root / "a").touch()
        run("chattr", "+C", self.root / "a")
        for name in "abc":
            self.write(name, content("same"))
        reason = "copy-on-write is off for one of the two"
        for command in ("dedup a b", "group b c a"):
            self.assertIn(reason, self.run_tool(*command.split(), status=1)[1])
        report = self.scan("--apply", status=4)
        self.assertEqual({file["path"][-1]: file.get("reason") for file in
                          report["groups"][0]["files"]}, {"a": reason, "b": None, "c": None})


main(sys.argv[1:-1])
