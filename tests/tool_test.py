"""The command-line tool as its users see it: what it prints, what it does to files, how it ends."""

import hashlib
import json
import os
import re
import shlex
import shutil
import signal
import subprocess
import sys
import time
import unittest
from pathlib import Path

from support.script import DEADLINE, TOOL, ToolCase, content, main, run

SOURCE = Path(__file__).resolve().parents[1]
HOSTILE = {b"line\nbreak": r"line\nbreak", b"\x1b[31mred": r"\x1b[31mred",
           b"bad\xff\xfeutf": r"bad\xff\xfeutf", b"back\\slash": r"back\\slash",
           b"quote\"tab\there": r'quote"tab\there', b"c1\xc2\x9b31m": r"c1\xc2\x9b31m",
           "turn\u202eed".encode(): r"turn\xe2\x80\xaeed", b"long\xc0\xaf": r"long\xc0\xaf",
           "plain äöü €".encode(): "plain äöü €"}


class CommandLine(ToolCase):
    def test_bad_usage_ends_with_2_and_says_what_is_accepted(self):
        size, time = "is not a size such as 6", "is not a time such as 9"
        depth = "is not a number from 0 to 2047"
        for command, expected in (
                ("", "no command given"), ("foo .", "unknown command 'foo'"),
                ("--foo", "unknown option '--foo'"), ("scan", "ROOT is missing"),
                ("scan --nonsense .", "unknown option '--nonsense'"), ("info", "FILE is missing"),
                ("dedup one", "FILE2 is missing"), ("copy a b c", "unexpected argument 'c'"),
                ("scan . --state", "--state needs a value"),
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
        for command in ("scan --apply missing", "scan . file", "scan --html missing/page .",
                        "info missing"):
            output, errors = self.run_tool(*command.split(), status=1)
            self.assertEqual((output, errors != ""), ("", True), command)
        for command in ("scan .", "scan --json .", "info ."):
            with open("/dev/full", "wb") as full:
                self.run_tool(*command.split(), stdout=full, status=1)

    def test_a_dry_run_says_that_it_is_the_default(self):
        for options, said in (("-n", "velmarin: --dry-run is the default: "), ("-nq", "")):
            errors = self.run_tool("scan", options, ".")[1]
            self.assertEqual((errors[:len(said)], errors != ""), (said, said != ""))

    def test_names_that_look_like_something_else_are_names(self):
        names = ("[a,b]", "{}", "%%", "scan", "two words", '"quoted"', "--", "--json", "-x")
        output, _ = self.run_tool("info", *[self.write(name, b"").name for name in names])
        self.assertEqual(output.count(": a plain file"), 8)

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

    @unittest.skipUnless(shutil.which("zsh"), "needs zsh")
    def test_zsh_completes_commands_and_options(self):
        run("zsh", "-fc", '''zmodload zsh/zpty; zpty shell zsh -fi
            zpty -w shell "fpath=($0 \\$fpath); autoload -U compinit; compinit -uD"
            zpty -w -n shell $'velmarin app\\t--st\\t'; zpty -r -m shell _ '*ate*=*' ''',
            SOURCE / "tools/velmarin/completion", env={**os.environ, "TERM": "xterm"},
            stdin=subprocess.DEVNULL, timeout=DEADLINE)

    def test_progress_and_colours_are_for_terminals_whose_user_wants_them(self):
        def on_terminal(*arguments, **environment):
            command = shlex.join([TOOL, "scan", *arguments, str(self.root)])
            shown = run("script", "-qec", command, self.directory / "shown",
                        env={**os.environ, "TERM": "xterm", **environment,
                             "XDG_STATE_HOME": self.directory})
            return "examined" in shown, "\x1b[1m" in shown

        for name in "ab":
            os.truncate(self.write(name, b"same"), 500 << 20)
        self.assertEqual(on_terminal(), (True, True))
        self.assertRegex((self.directory / "shown").read_text(),
                         r"walking  3 files examined, [12] read \(\d+(\.\d)? MiB\)")
        self.assertEqual(on_terminal("--apply"), (True, True))
        self.assertRegex((self.directory / "shown").read_text(),
                         r"merging  0 of 1 file, 0 B of \d+ [KM]?i?B, 0 B freed")
        self.assertEqual((on_terminal(), on_terminal("--quiet")), ((True, True), (False, True)))
        self.assertEqual(on_terminal("--no-color"), (True, False))
        self.assertEqual(on_terminal(TERM="dumb"), (False, False))
        output, errors = self.run_tool("scan", ".")
        self.assertEqual((errors, "\x1b" in output), ("", False))


class Scan(ToolCase):
    def test_groups_hold_what_is_identical(self):
        for names, size in (("a sub/b", 70000), ("c d e", 9000), ("x y", 1), ("none empty", 0)):
            for name in names.split():
                self.write(name, content(size, size))
        self.write("other", content("other"))
        os.link(self.root / "c", self.root / "zz-link-of-c")
        report = self.scan("--max-depth", "1")
        self.assertEqual([len(names) for names in self.groups(report)], [3])
        self.assertEqual(report["groups"][0]["digest"],
                         hashlib.sha256(content(9000, 9000)).hexdigest())
        status = os.stat(self.root / "d")
        self.assertIn({"path": str(self.root / "d"), "inode": status.st_ino, "status": 0,
                       "device": status.st_dev, "blocks": status.st_blocks,
                       "mtime": dict(zip(("sec", "nsec"), divmod(status.st_mtime_ns, 10**9)))},
                      report["groups"][0]["files"])
        self.assertEqual(self.groups(self.scan(min_size="10K")), [["a", "sub/b"]])
        self.assertEqual(len(self.groups(self.scan(min_size="0"))), 3)  # none of empty files
        self.assertEqual(self.groups(self.scan("--skip", "sub", min_size="64K")), [])
        self.assertIn("nothing to skip at", self.run_tool("scan", "--skip", "missing", ".")[1])

    def test_hostile_names_break_neither_output_format(self):
        for name in HOSTILE:
            self.write(name, content("same"))
        self.assertEqual({bytes.fromhex(file["path_bytes"]) if "\ufffd" in file["path"]
                          else file["path"].encode() for file in self.scan()["groups"][0]["files"]},
                         {os.fsencode(self.root) + b"/" + name for name in HOSTILE})
        output, _ = self.run_tool("scan", self.root)
        self.assertEqual(set(re.findall(rf"^  plain +{self.root}/(.*)$", output, re.M)),
                         set(HOSTILE.values()))


class Apply(ToolCase):
    def test_identical_files_are_merged_and_join_earlier_merges(self):
        paths = [self.write(name, content("same")) for name in ("a", "c", "sub/b")]
        before = self.identities()
        report = self.scan("--apply")
        self.assertEqual(self.outcomes(report), {"a": "source", "c": "merged", "sub/b": "merged"})
        self.assertEqual((report["merged"]["files"], report["merged"]["refused"]), (2, 0))
        self.assertEqual(self.identities(), before)
        self.assertEqual({path.read_bytes() for path in paths}, {content("same")})
        self.write("new", content("same"))  # joins those that already share
        report = self.scan("--apply")
        self.assertEqual((self.outcomes(report)["new"], report["counters"]["nr_hashed"]),
                         ("merged", 1))
        self.assertEqual(set(self.outcomes(self.scan("--apply")).values()), {"shared"})

    def test_digests_are_kept_where_users_programs_do_for_nobody_else(self):
        self.write("a", content("same"))
        self.addCleanup(os.umask, os.umask(0))
        state = self.directory / ".local/state/velmarin"
        self.run_tool("scan", ".")
        self.assertEqual(state.stat().st_mode & 0o777, 0o700)
        state.chmod(0o777)
        (state / ("0" * 64 + ".hsh")).touch(0o755)
        self.run_tool("scan", ".")
        self.assertEqual([path.stat().st_mode & 0o777 for path in state.iterdir()], [0o600] * 3)

    def test_what_a_scan_read_stays_in_memory_only_for_merging(self):
        self.mount_btrfs("256M")
        for arguments, kept in (((), 0), (("--apply",), 2 * 73728)):
            paths = [self.write(name, content(f"{name}{kept}")) for name in "ab"]
            run("sync", "-f", self.root)
            self.scan(*arguments)
            resident = run("fincore", "--bytes", "--noheadings", "--output", "RES", *paths)
            self.assertEqual(sum(map(int, resident.split())), kept)

    def test_a_refused_file_does_not_hold_up_its_group(self):
        paths = [self.write(name, Path(shutil.which("sleep")).read_bytes()) for name in "abc"]
        paths[0].chmod(0o755)
        running = subprocess.Popen([paths[0], "100"])  # cannot be opened for writing meanwhile
        self.addCleanup(running.wait)
        self.addCleanup(running.kill)
        report = self.scan("--apply", status=4)
        self.assertEqual(self.outcomes(report), {"a": "refused", "b": "source", "c": "merged"})
        self.assertEqual(report["groups"][0]["files"][0]["reason"], "Text file busy")
        output, errors = self.run_tool("scan", "--apply", "-q", "--min-size", "1K", ".", status=4)
        self.assertIn(f"  refused     {paths[0]} (Text file busy)\n", output)
        self.assertEqual(errors, "velmarin: 1 file not merged: 1 refused\n")


class Interrupted(ToolCase):
    def wait_for(self, process, text):
        """Reads the log up to `text`; soon after, the tool blocks until more is read."""
        self.assertTrue(any(text in line for line in process.stderr), text)

    def test_a_signal_leaves_the_rest_untried_and_what_changed_meanwhile_is_left_alone(self):
        for stops in (True, False):
            for number in range(90):  # the largest pair is merged first
                for twin in "ab":
                    data = content(f"{number}{stops}", 200000 - 1000 * number)
                    self.write(f"{number:02}{twin}", data)
            with self.start("scan", "--apply", "--json", "--verbose", ".") as process:
                self.wait_for(process, b"done deduplication")
                changed = [self.write(name, b"something else") for name in ("40b", "41a")]
                time = (self.root / "42b").stat().st_mtime_ns
                os.utime(self.root / "42b", ns=(time, time ^ 1))
                self.wait_for(process, b"45b")
                process.send_signal(signal.SIGINT if stops else 0)
                report = json.loads(process.communicate(timeout=DEADLINE)[0])
            outcomes = self.outcomes(report)
            last = "not tried" if stops else "merged"
            expected = {"00b": "merged", "40a": "source", "40b": "changed", "41a": "changed",
                        "41b": "source", "42b": "changed", "45b": "merged", "89b": last}
            self.assertLessEqual(expected.items(), outcomes.items())
            self.assertEqual((process.returncode, report["stopped"], report["out_of_time"],
                              report["merged"]["not_tried"]),
                             (4, stops, False, list(outcomes.values()).count("not tried")))
            self.assertEqual({path.read_bytes() for path in changed}, {b"something else"})

    def test_the_time_budget_ends_merging_after_the_current_file(self):
        for number in range(60):
            for twin in "ab":
                self.write(f"{number:02}{twin}", content(number, 90000 - 1000 * number))
        budget = DEADLINE // 15  # seconds: enough for the scan alone
        with self.start("scan", "--apply", "--json", "--verbose", "--time-budget", str(budget),
                        "--min-size", "1K", ".") as process:
            end = time.monotonic() + budget
            self.wait_for(process, b"done deduplication")  # merging blocks soon after
            while time.monotonic() < end:
                time.sleep(0.1)
            report = json.loads(process.communicate(timeout=DEADLINE)[0])
        outcomes = self.outcomes(report)
        self.assertEqual((outcomes["00b"], outcomes["59b"]), ("merged", "not tried"))
        self.assertEqual((process.returncode, report["stopped"], report["out_of_time"]),
                         (0, False, True))

    def test_a_signal_while_walking_ends_the_walk_and_digests_are_saved(self):
        self.write("a", content("same"))
        skips = [word for number in range(100) for word in ("--skip", f"missing{number}")]
        with self.start("scan", "--json", "--verbose", "--state", "new", *skips, ".") as process:
            self.wait_for(process, b"missing")  # the walk blocks on the rest of these lines
            process.send_signal(signal.SIGTERM)
            report = json.loads(process.communicate(timeout=DEADLINE)[0])
        self.assertEqual((process.returncode, report["stopped"]), (4, True))
        self.assertEqual(report["counters"]["nr_file_opened"], 0)
        self.assertEqual(len(os.listdir(self.root / "new")), 2)


class Files(ToolCase):
    def test_the_life_of_a_file(self):
        for name in ("a", "b", "c", "other"):
            self.write(name, content("other" if name == "other" else "same"))
        for command, status, *expected in (
                ("info a missing b", 1, "a: a plain file", "missing: No such", "b: a plain file"),
                ("dedup a b", 0, " the data of a"),
                ("info a b", 0, "a: attached to layered", "b: deduplicated onto layered"),
                ("dedup a other", 1, "other: cannot share the data of a: "),
                ("freeze missing a c", 1, "missing: No such", "a: is attached", "c: frozen"),
                ("flags missing c other", 1, "c: frozen (flags 0x2)", "other: not frozen"),
                ("recover missing a a", 1, "a: has its own data", "a: was already a plain file"),
                ("revoke missing b c", 1, "b: has its own data", "c: was already a plain file"),
                ("group a b other", 1, "other: a plain file", "not all files of the group"),
                ("group a b c", 0, "c: deduplicated onto layered inode"),
                ("copy a new", 0, "new: a new file "),
                ("copy a other", 1, "other: cannot copy a: File exists"),
                ("copy missing d", 1, "d: cannot copy missing: No such file")):
            output, errors = self.run_tool(*command.split(), status=status)
            for text in expected:
                self.assertIn(text, output + errors, command)
        for name, variant in (("a", "same"), ("new", "same"), ("other", "other")):
            self.assertEqual((self.root / name).read_bytes(), content(variant))


main(sys.argv[1:-1])
