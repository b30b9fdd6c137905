"""Which entries a scan examines, by the tool's options."""

import json
import sys

from support.script import ToolCase, content, main

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
                (1, "--roots-from /dev/null", "nothing to scan: no directory is named in /dev/null"),
                (1, "--roots-from missing .", "cannot read missing: No such file"),
                (1, "--exclude-from . .", "cannot read .: Is a directory"),
                (2, "--exclude-from - --roots-from -", "standard input can be read once only"),
                (2, "-0 .", "--null goes with --roots-from"),
                (2, "--include src/ .", "--include: names files; for all that is below a directory, "
                                        "write 'src/**'"),
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


main(sys.argv[1:-1])
