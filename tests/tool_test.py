"""The command-line tool as its users see it: what it prints, what it does to files, how it ends."""

import base64
import hashlib
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
from pathlib import Path

from support.script import TOOL, ToolCase, content, main, run

SOURCE = Path(__file__).resolve().parents[1]


class CommandLine(ToolCase):
    def test_bad_usage_ends_with_2_and_says_what_is_accepted(self):
        size, time = "is not a size such as 6", "is not a time such as 9"
        depth = "is not a number from 0 to 2047"
        for command, expected in (
                ("", "no command given"), ("foo", "unknown command 'foo'"),
                ("scan --nonsense .", "unknown option '--nonsense'"), ("scan", "ROOT is missing"),
                ("copy a b c", "unexpected argument 'c'"),
                *((words, "--state needs a value") for words in (
                    "scan . --state", "scan --state -x .", "scan --state= .")),
                ("scan --state a --state=a .", "--state is given twice"),
                ("scan --json=true .", "--json takes no value"),
                ("scan -q=5 .", "-q takes no value"), ("apply --foo", "unknown option '--foo'"),
                ("scan --apply -n .", "--apply and --dry-run cannot be combined"),
                ("scan --min-size 1.5 .", f"--min-size: '1.5' {size}"),
                ("scan --max-depth 2048 .", f"--max-depth: '2048' {depth}"),
                ("scan --max-depth 1x .", f"--max-depth: '1x' {depth}"),
                ("scan --time-budget 5m1h .", f"--time-budget: '5m1h' {time}")):
            output, errors = self.run_tool(*command.split(), status=2)
            self.assertRegex(errors, r"\Avelmarin: .*\nTry 'velmarin( \w+)? --help'\.\n")
            self.assertEqual((output, errors.count(f"velmarin: {expected}")), ("", 1), errors)

    def test_unusable_arguments_end_with_1_before_anything_is_done(self):
        self.write("file", b"data")
        (self.root / "lock").mkdir()
        self.check_runs(*((command, 1, r"\Avelmarin: .*(missing|file|lock)\S*: (No|Is|Not)")
                          for command in ("scan --apply missing", "scan . file", "info missing",
                                          "scan --html missing/page .", "scan --state . .")),
                        ("history --state missing", 1, r"\Avelmarin: .* missing: No such file"),
                        ("history --state file", 1, r"\Avelmarin: .* file: Not a directory"),
                        ("history", 0, r"\ANo merging run is recorded in /.*/velmarin\n\Z"))
        for command, name in (("info", "velmarin: ''"), ("scan", "root ''"), ("apply", "report ''")):
            self.assertIn(f"{name}: No such file", self.run_tool(command, "", status=1)[1])
        for command in ("scan .", "scan --json .", "info file"):
            with open("/dev/full", "wb") as full:
                said = self.run_tool(*command.split(), stdout=full, status=1)[1]
                self.assertIn("velmarin: cannot write to standard output\n", said)

    def test_names_and_options_are_told_apart(self):
        names = ("[a,b]", "{}", "%%", "scan", "two words", '"quoted"', "--", "--json", "-x")
        output, _ = self.run_tool("info", *[self.write(name, b"").name for name in names])
        self.assertEqual(output.count(": a plain file"), 8)
        self.check_runs(("--help", 0, r"\nUsage: velmarin \[OPTIONS\] SUBCOMMAND\n"),
                        ("--version", 0, r"\Avelmarin \d+\.\d+\.\d+\n\Z"),
                        ("scan -nq .", 0, r"freed +0 B\n  already saved .*\n(.*\n)*  time .*\n\Z"),
                        ("scan -n .", 0, "velmarin: --dry-run is the default: "),
                        ("scan --skip no .", 0, "nothing to skip at no: No such file"),
                        ("scan --html /dev/full .", 1, "cannot write /dev/full: No space"),
                        ("scan --html /dev/stdout .", 0, r"\A<!DOCTYPE html>(.|\n)*</html>\nS"),
                        (f"scan --html {self.write('page', bytes(10**6))} .", 0, r"\A\n?Summary"))
        self.assertRegex((self.root / "page").read_text(), r"</html>\n\Z")

    def test_completions_and_man_page_name_every_command_and_option(self):
        help_text = self.run_tool("--help")[0].split("Subcommands:")[1]
        options = {command: set(re.findall(r"(?:^  |,)(--[a-z-]+)",
                                           self.run_tool(command, "--help")[0], re.M))
                   for command in re.findall(r"^  (\w+)  ", help_text, re.M)}
        for page in ("docs/velmarin.1", "tools/velmarin/completion/_velmarin"):
            text = (SOURCE / page).read_text(encoding="utf-8").replace("\\-", "-")
            self.assertEqual(set(re.findall(r"--[a-z][a-z-]+", text)), set.union(*options.values()))
            for command in options:
                self.assertRegex(text, rf"\b{command}\b")
        bash = SOURCE / "tools/velmarin/completion/velmarin.bash"
        script = ('. "$0"; COMP_WORDS=(velmarin "$@"); COMP_CWORD=$#; _velmarin; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        self.write("two words", b"")
        for words, offered in [
                ([""], {*options, "--help", "--version"}), (["info", "t"], {"two words"}),
                *(([command, "--"], options[command]) for command in options)]:
            output = run("bash", "-uc", script, bash, *words, cwd=self.root)
            self.assertEqual(set(output.splitlines()), offered, words)

    def test_progress_and_colours_are_for_terminals_whose_user_wants_them(self):
        for name in "ab":
            os.truncate(self.write(name, b"same"), 500 << 20)
        merging = r"(?m)^\x1b\[K(?=.{49}$).*  merging  0 of 1 file,"  # cut to the terminal's width
        for options, term, refusal, progress, colour in (
                ("", "xterm", "", r"walking  3 files examined, [12] read \(\d+(\.\d)? MiB\)"
                 r"(.|\n)*found  [01] of 1 group\b",
                 "\n\x1b[K\x1b[1m2 files"),
                ("--quiet", "xterm", "1", "", ""), ("--quiet --no-color", "xterm", "", "", ""),
                ("--apply", "xterm", "", merging, "\x1b[32m  "), ("", "dumb", "", "", "")):
            command = shlex.join([TOOL, "scan", *options.split(), str(self.root)])
            width = "stty cols 50; " * (progress is merging)
            shown = run("script", "-qec", width + command, "/dev/null",
                        env={**os.environ, "TERM": term, "NO_COLOR": refusal,
                             "XDG_STATE_HOME": self.directory})
            self.assertRegex(shown, progress or "Summary")
            self.assertIn(colour, shown)
            self.assertEqual(("examined" in shown, "\x1b[1m" in shown),
                             (progress != "", colour != ""), options)
        output, errors = self.run_tool("scan", "--idle", "--state", "../velmarin", ".")
        self.assertEqual((errors, "\x1b" in output), ("", False))


class Scan(ToolCase):
    def test_groups_hold_what_is_identical(self):
        for names, size in (("a sub/b", 70000), ("c d e", 9000), ("x y", 1), ("none empty", 0)):
            self.write_each(names, content(size, size))
        self.write("other", content("other"))
        os.link(self.root / "c", self.root / "zz-link-of-c")
        report = self.scan("--max-depth", "1")
        self.assertEqual([len(names) for names in self.groups(report)], [3])
        self.assertEqual(report["groups"][0]["digest"],
                         hashlib.sha256(content(9000, 9000)).hexdigest())
        status = os.stat(self.root / "d")
        self.assertEqual((report["unmerged_bytes"], report["compressed"],
                          set(report["statistics"].values())), (1024 * status.st_blocks, [], {0}))
        self.assertIn({"path": str(self.root / "d"), "inode": status.st_ino, "status": 0,
                       "device": status.st_dev, "blocks": status.st_blocks,
                       "mtime": dict(zip(("sec", "nsec"), divmod(status.st_mtime_ns, 10**9)))},
                      report["groups"][0]["files"])
        self.assertEqual(self.groups(self.scan("--max-size", "70000", min_size="70000")),
                         [["a", "sub/b"]])
        self.assertEqual(len(self.groups(self.scan(min_size="0"))), 3)  # none of empty files

    def test_hostile_names_break_neither_output_format(self):
        escaped = {b"line\nbreak": r"line\nbreak", b"\x1b[31mred": r"\x1b[31mred",
                   b"x\xff": r"x\xff", b"x\xfe": r"x\xfe", b'quote"\\': r'quote"\\',
                   b"z,]".ljust(255, b"n"): "z,]".ljust(255, "n"),
                   b"\xef\xbf\xbd": "\ufffd"}
        self.write_each(escaped)
        output, _ = self.run_tool("scan", ".")
        self.assertEqual(set(re.findall(rf"^  plain +{self.root}/(.*)$", output, re.M)),
                         set(escaped.values()))
        (self.directory / "report").write_text(self.run_tool("scan", "--json", ".")[0])
        self.check_runs(("apply ../report", 0, " 6 files, 0 "))


class Apply(ToolCase):
    def test_digests_are_kept_where_users_programs_do_for_nobody_else(self):
        self.addCleanup(os.umask, os.umask(0))
        state = self.directory / ".local/state/velmarin"
        self.write_each("a ../.local/state/velmarin/" + "0" * 64 + ".hsh")
        os.link(self.root / "a", state / ("1" * 64 + ".hsh"))  # which is not the tool's to change
        self.run_tool("scan", "--html", "../page", "..")
        self.assertEqual(sorted(path.stat().st_mode & 0o777 for path in
                                (*state.iterdir(), self.directory / "page")),
                         [0o600] * 4 + [0o666] * 2)

    def test_what_a_scan_read_stays_in_memory_only_for_merging(self):
        self.mount_image("btrfs", "256M")
        for arguments, kept in (((), 0), (("--apply",), 2 * 73728)):
            paths = [self.write(name, content(f"{name}{kept}")) for name in "ab"]
            run("sync", "-f", self.root)
            self.scan(*arguments)
            resident = run("fincore", "--bytes", "--noheadings", "--output", "RES", *paths)
            self.assertEqual(sum(map(int, resident.split())), kept)

    def test_a_page_holds_the_figures_and_files_of_its_run(self):
        self.mount_image("btrfs", "256M", "-L", "a label", "-m", "single", "-d", "dup")
        self.write("other/x", b"")
        (self.directory / "other").write_bytes(bytes(16 << 20))
        run("mkfs.ext4", "-q", "-b", "4096", "-I", "512", self.directory / "other")
        self.mount("ext4", self.root / "other", "loop", self.directory / "other")
        files = self.write_each("a b c </script> other/x other/y")
        run("chattr", "+i", files[1])
        self.write("d", os.urandom(70000))
        (self.root / "held").mkdir()
        run("cp", "--reflink=always", files[0], files[2], self.root / "held")
        page = self.directory / "page"
        freed = 73728 - 3 * 86  # less the records, in metadata that is kept once, data twice
        for shares, figures, counts, words, notes in (
                ([[0, freed, 0, 0], [0, 0, 0, 73728]],
                 [[1, freed - 4 * 100], [0, 0], 73728, [2, 0], [3, 73728], 2, 1, 6],  # less marks
                 [221184, 2, 0, 1, 0, 0, 0, 1, 0], "merged source refused recorded", 2),
                ([[0, 0, 2 * 73728, 0], [0, 0, 0, 0]], [[1, 0], [0, 0], [2, 2 * 73728], 0, 1, 6],
                 [0, 0, 3, 0, 2, 0, 0, 1, 0], "shared refused recorded", 0)):
            self.scan("--apply", "--exclude", "held", "--html", page, status=4)
            data = json.loads(re.search(r'id="data">(.*?)</script>', page.read_text(), re.S)[1])
            (size, shown_shares, shown), = data["groups"]
            self.assertEqual((size, shown_shares), (70000, shares))
            self.assertEqual([[name, share, *reason] for _, name, _, share, *reason in shown], [
                ["script>", 0], ["a", 0], ["b", 0, "Operation not permitted"], ["c", 0], ["x", 1],
                ["y", 1]])
            self.assertEqual([[row["kind"], row["size"]] if "kind" in row else
                              row.get("count", row.get("size")) for row in data["figures"]],
                             figures)
            self.assertEqual([row.get("count", row.get("size")) for row in data["lists"][1]], counts)
            self.assertEqual((data["words"], len(data["notes"])), (words.split(), notes))
            about = re.escape(f"Scan of {self.root} on the host {os.uname()[1]}, ")
            self.assertRegex(data["about"], about + r"\d{4}(-\d\d){2} \d\d(:\d\d){2}, \d")
            self.assertEqual([name[len(str(self.root)):] for name in data["directories"]],
                             ["/</", "/", "/other/"])
        for element in ("style", "script"):  # the policy names the text of each
            text = re.search(f"<{element}>(.*?)</{element}>", page.read_text(), re.S)[1]
            digest = base64.b64encode(hashlib.sha256(text.encode()).digest()).decode()
            self.assertIn(f"{element}-src 'sha256-{digest}'; ", page.read_text())
        self.assertEqual([(system["type"], system["label"], system["sharing"])
                          for system in data["systems"]],
                         [("btrfs", "a label", True), ("ext4", "", False)])
        self.assertEqual([run["merged"] for run in data["history"]], [2, 0])

    def test_files_that_cannot_change_are_a_source_if_merged_before_and_hold_up_nothing(self):
        self.mount_image("btrfs", "256M")
        merged = self.write_each("a b")
        self.run_tool("dedup", "a", "b")
        run("chattr", "+i", *merged)
        for new, status, outcomes in (("c", 0, ["source", "shared", "merged"]),
                                      ("d", 4, ["shared", "shared", "shared", "refused"])):
            run("chattr", "+i" if new == "d" else "-i", *self.write_each(new))
            report = self.scan("--apply", status=status)
            self.assertEqual([*self.outcomes(report).values()], outcomes)
        self.check_runs(("revoke a", 1, "a: cannot be revoked: Operation not permitted\n"))

    def test_a_refused_file_does_not_hold_up_its_group(self):
        paths = self.write_each("a b c", Path(shutil.which("sleep")).read_bytes())
        run("chmod", "755", *paths)
        running = subprocess.Popen([paths[0], "100"])  # cannot be opened for writing meanwhile
        self.addCleanup(running.wait)
        self.addCleanup(running.kill)
        report = self.scan("--apply", status=4)
        self.assertEqual(self.outcomes(report), {"a": "refused", "b": "source", "c": "merged"})
        self.assertEqual(self.outcomes(report, "reason")["a"], "Text file busy")
        self.check_runs(("scan --apply --min-size 1K .", 4,
                         rf"\n  refused     {paths[0]} \(Text file busy\)\n",
                         "velmarin: 1 file not merged: 1 refused\n"),
                        *((command, 1, "velmarin: a: Text file busy\n")
                          for command in ("flags a", "recover a", "dedup a b", "group b a")))


class Files(ToolCase):
    def test_the_life_of_a_file(self):
        self.write_each("a b c")
        os.link(self.write("other", content("other")), self.root / "link")
        os.mkfifo(self.root / "pipe")
        comm, unmarkable = "/proc/self/comm", "this file system cannot mark files"
        elsewhere = ": they are on different file systems"
        self.check_runs(
            ("info a missing b", 1,
             r"\Aa: a plain file.*\nvelmarin: missing: No such.*\nb: a plain file"),
            ("dedup a b", 0, " the data of a"),
            ("info a b", 0, "a: attached to layered", "b: deduplicated onto layered"),
            ("dedup a other", 1, "other: cannot share the data of a: "),
            ("freeze missing a c", 1, "missing: No such", "a: is attached", "c: frozen"),
            ("flags missing c other", 1, r"c: frozen \(flags 0x2\)", "other: not frozen"),
            ("recover missing a a", 1, "a: has its own data", "a: was already a plain file"),
            ("revoke missing b c", 1, "b: has its own data", "c: was already a plain file"),
            ("dedup c other", 1, "other: cannot share the data of c: "),
            ("group c other", 1, "c: a plain file"),  # so the refused dedup left it plain too
            ("group a b other", 1, "other: a plain file", "not all files of the group"),
            ("group a b c", 0, "c: deduplicated onto layered inode"),
            ("copy a new", 0, "new: a new file "),
            ("copy a other", 1, "other: cannot copy a: File exists\n"),
            ("copy missing d", 1, "d: cannot copy missing: No such file"),
            ("info . pipe", 1, r"\.: is a directory", "pipe: is not a regular file"),
            ("copy . d", 1, r"\.: is a directory"), ("dedup a .", 1, r"\.: is a directory"),
            ("group a", 1, "a: a group needs at least two files"),
            ("group other link", 1, "link: same file as other"),
            ("dedup missing a", 1, "velmarin: missing: No such file"),
            *((f"{command} {comm}", 1, rf"{comm}: (cannot be revoked: )?{unmarkable}\n\Z")
              for command in ("info", "freeze", "flags", "revoke", "recover")),
            (f"group a {comm}", 1, f"comm: cannot be examined: {unmarkable}\n", elsewhere),
            (f"dedup a {comm}", 1, elsewhere),
            (f"copy {comm} d", 1, elsewhere + "; the new file remains, empty\n"))
        for name, variant in (("a", "same"), ("new", "same"), ("other", "other")):
            self.assertEqual((self.root / name).read_bytes(), content(variant))


main(sys.argv[1:-1])
