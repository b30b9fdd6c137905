"""`velmarin apply`: merging the groups of a report, after the user has reviewed and perhaps trimmed
it."""

import copy
import json
import os
import re
import signal
import sys
import time

from support.script import DEADLINE, ToolCase, content, main, run

GONE = object()
LONG = "/n" * 2048


def edited(report, place, value):
    """A copy of the report with another value at that place, or with nothing there."""
    report = copy.deepcopy(report)
    target = report
    for step in place[:-1]:
        target = target[step]
    if value is GONE:
        del target[place[-1]]
    else:
        target[place[-1]] = value
    return json.dumps(report)


class ReportCase(ToolCase):
    def setUp(self):
        super().setUp()
        self.mount_image("btrfs", "256M")

    def make_groups(self, *names, size=20000):
        """Groups of three files each, the larger the earlier they are named. Returns the report."""
        for number, name in enumerate(names):
            self.write_each(f"{name}/a {name}/b {name}/c", content(name, size - 4096 * number))
        run("sync", "-f", self.root)
        return self.run_tool("scan", "--json", "--min-size", "1", ".")[0]

    def apply(self, text, *options, status=0):
        """Returns the outcome of each file in the order of the output, and the object."""
        (self.directory / "report").write_text(text, encoding="utf-8")
        output, errors = self.run_tool("apply", "--json", *options, "../report", status=status)
        self.assertEqual(errors != "", status != 0)
        report = json.loads(output)
        left = sum(report.get("merged", {}).get(name, 0) for name in ("changed", "refused"))
        self.assertTrue(left < 2 or f"velmarin: {left} files not merged: " in errors, errors)
        return self.outcomes(report), report


class Refused(ReportCase):
    def rows(self, report):
        """Pairs of a report and what is said of it."""
        path, twin = (report["groups"][1]["files"][number]["path"] for number in (2, 0))
        first = report["groups"][0]["files"][0]
        outside = "path is not below any root"
        parts = 'path has an empty, "." or ".." component'
        digits, number = "is not an even number of hexadecimal digits", "is not a whole number"
        few = "files is not a list of two or more files"
        for place, prefix, rows in (
                ((), "", (
                    ("format", 2, "format is not 1"), ("format", GONE, "format is missing"),
                    ("roots", GONE, "roots is missing"), ("roots", [], "roots is empty"),
                    ("roots", {}, "roots is not a list"), ("groups", GONE, "groups is missing"),
                    ("groups", "x", "groups is not a list"))),
                (("roots", 0), "root 1: ", (("path", "srv", "path is not absolute"),)),
                (("groups",), "group 2: ", ((1, [], "not an object"),)),
                (("groups", 1), "group 2: ", (
                    ("size", GONE, "size is missing"), ("size", 1.5, f"size {number}"),
                    ("size", 0, "size is out of range"), ("size", 1 << 63, "size is out of range"),
                    ("digest", "0f" * 31, "digest does not have 64 digits"),
                    ("digest", "0g" * 32, f"digest {digits}"),
                    ("files", [first], few), ("files", {}, few))),
                (("groups", 1, "files", 2), "group 2, file 3: ", (
                    ("path", ["/"], "path is not a string"),
                    ("path", "b/c", "path is not absolute"),
                    *(("path", name, outside)
                      for name in ("/etc/passwd", "/", str(self.root), f"{self.root}x/c")),
                    *(("path", f"{self.root}/{name}", parts)
                      for name in ("b/../b/c", "b//c", "./b/c", "b/c/", "..")),
                    ("path", f"{path}\0", "path contains a NUL byte"),
                    *(("path", name, "path is too long") for name in (f"{path}{'n' * 255}", LONG)),
                    *(("path", name, "duplicate path") for name in (first["path"], twin)),
                    *(("path_bytes", name, f"path_bytes {digits}")
                      for name in ("2f6", "2f 6", "2fx0", "-1-1")),
                    ("path_bytes", os.fsencode(first["path"]).hex(),
                     "path and path_bytes do not match"),
                    ("inode", -1, "inode is out of range"), ("inode", 1 << 64, f"inode {number}"),
                    ("status", 4, "status is out of range"),
                    ("status", -4096, "status is out of range"),
                    ("blocks", GONE, "blocks is missing"))),
                (("groups", 1, "files", 2, "mtime"), "group 2, file 3, mtime: ", (
                    ("sec", "0", f"sec {number}"), ("nsec", 10**9, "nsec is out of range")))):
            for name, value, said in rows:
                yield edited(report, (*place, name), value).encode(), prefix + said

    def damaged(self, text):
        """As above, of a text that is no JSON or has something else about it."""
        lines = text.splitlines()
        start = next(number for number, line in enumerate(lines) if '"size"' in line)
        yield from (
            ("", "line 1, column 1: unexpected end"), ("[]", "not an object"),
            ("\n".join(lines[:start]), f"line {start}, column {len(lines[start - 1]) + 1}: "
                                       "unexpected end"),
            (text.replace('"size":', '"size":,'), f"line {start + 1}, column 13: not valid JSON"),
            (text.replace('"size":', '"size":7,"size":'), "group 1: duplicate size"),
            (text.replace('"velmarin"', '"format"'), "duplicate format"),
            (text.replace('"stopped": false', '"stopped": 1e999'), "a number is out of range"),
            ("{x", "line 1, column 2: not valid JSON"),
            ("[" * 33, "lists and objects are nested too deeply"))

    def test_a_damaged_or_hostile_report_is_refused_whole(self):
        text = self.make_groups("a", "b")
        report = self.directory / "report"
        (self.root / "link").symlink_to(self.root)
        before = self.traces()
        for data, said in (*self.rows(json.loads(text)),
                           *((data.encode(), said) for data, said in self.damaged(text)),
                           (text.replace('/a"', '/\udcff"').encode(errors="surrogateescape"),
                            r"line \d+, column \d+: not valid JSON")):
            report.write_bytes(data)
            said = said if "\\d" in said else re.escape(said)
            self.check_runs(("apply --json ../report", 1,
                             rf"\Avelmarin: cannot use the report \.\./report: {said}\n\Z"))
        for place, said in (("link", "through a symbolic link"), (
                "moved", r"\Avelmarin: cannot use the root .*: No such file or directory\n\Z")):
            report.write_text(text.replace(str(self.root), f"{self.root}/{place}"))
            self.check_runs(("apply ../report", 1, said))
        os.truncate(report, 1 + (512 << 20))
        self.check_runs(("apply ../report", 1, "larger than 512 MiB"),
                        ("apply missing", 1, "No such file"), ("apply .", 1, "Is a directory"))
        self.assertEqual(self.traces(), before)


class Merged(ReportCase):
    def test_what_is_left_in_the_report_is_merged_and_nothing_else(self):
        text = self.make_groups("first", "second", "third", "last")
        lines = text.splitlines(keepends=True)

        def only(*names):
            return "".join(line for line in lines if '/a"' not in line or
                           any(f"/{name}/a" in line for name in names))

        before = self.traces()
        self.assertEqual(self.apply(only())[0], {})
        unknown = text.replace('"status":0', '"status":-13', 1)
        looked = self.apply(unknown, "--dry-run")[1]
        self.assertEqual(looked["groups"], json.loads(unknown)["groups"])
        self.check_runs(("apply -n ../report", 0, r"\n  can be freed +[\d.]+ KiB\n",
                         r"\n  unknown     /.* \(Permission denied\)\n"))
        self.assertEqual(self.traces(), before)
        for name in ("second", "first", "last"):
            outcomes, report = self.apply(only(name))
            self.assertEqual(outcomes, {f"{name}/a": "source", f"{name}/b": "merged",
                                        f"{name}/c": "merged"})
            self.assertEqual((report["merged"]["files"], "counters" in report), (2, False))
            self.assertIn(f'"digest":"{report["groups"][0]["digest"]}"', text)
        third = json.loads(text)
        third["groups"] = [group for group in third["groups"] if "third" in str(group)]
        del third["groups"][0]["files"][1]
        self.assertEqual(self.apply(json.dumps(third, sort_keys=True))[0],
                         {"third/a": "source", "third/c": "merged"})
        self.assertEqual(self.apply(text, "-n")[1]["reclaimable_bytes"], 12288 - 344)
        with open(self.directory / "report", "rb") as file:
            output, _ = self.run_tool("apply", "-", stdin=file)
        self.assertIn(", 11.7 KiB freed\n", output)
        self.assertEqual([output.count(f"  {word:12}/") for word in ("source", "merged", "shared")],
                         [1, 1, 10])
        self.assertNotIn("directories", output)

    def test_a_file_that_is_no_longer_what_the_scan_saw_is_left_alone(self):
        def keep_times(path, change):
            status = path.stat()
            change(path)
            os.utime(path, ns=(status.st_atime_ns, status.st_mtime_ns))

        def replace(path, make):
            path.rename(path.with_name("aside"))
            make(path)

        def write_equal_size(path):
            path.write_bytes(bytes(path.with_name("a").stat().st_size))

        rows = {  # what is done to c, what apply says of it, and whether a look notices
            "behind": (lambda c: keep_times(c, write_equal_size), "refused", ".+", False),
            "fifo": (lambda c: replace(c, os.mkfifo), "changed", "changed since", True),
            "gone": (os.remove, "changed", "removed since", True),
            "grown": (lambda c: os.truncate(c, 70000), "changed", "changed since", True),
            "later": (os.utime, "changed", "changed since", True),
            "link": (lambda c: replace(c, lambda path: path.symlink_to("a")), "changed",
                     "^replaced by a symbolic link", True),
            "other": (lambda c: c.write_bytes(b"other"), "changed", "changed since", True),
            "swapped": (lambda c: keep_times(c, lambda c: replace(c, write_equal_size)), "changed",
                        "changed since", True)}
        text = self.make_groups(*rows, "way", "lone", size=60000)
        outside = self.root / "outside"
        run("cp", "-rp", self.root / "way", outside)
        for name, (change, *_) in rows.items():
            change(self.root / name / "c")
        for twin in "bc":
            keep_times(self.root / "lone" / twin, write_equal_size)
        (self.root / "way").rename(self.root / "aside")
        (self.root / "way").symlink_to("outside")
        before, identities = self.traces(), self.identities()
        places = self.extents(outside.iterdir())
        looked, _ = self.apply(text, "-n", status=4)
        self.assertEqual(self.traces(), before)
        outcomes, report = self.apply(text, status=4)
        reasons = self.outcomes(report, "reason")
        for name, (_, outcome, reason, is_noticed) in rows.items():
            self.assertEqual([outcomes[f"{name}/{twin}"] for twin in "abc"],
                             ["source", "merged", outcome], name)
            self.assertRegex(reasons[f"{name}/c"], reason, name)
            self.assertEqual([looked[f"{name}/{twin}"] for twin in "abc"],
                             [None, None, outcome if is_noticed else None], name)
        self.assertEqual({(outcomes[f"way/{twin}"], reasons[f"way/{twin}"]) for twin in "abc"},
                         {("changed", "a directory of its path was replaced by a symbolic link")})
        self.check_runs(("apply ../report", 4, r"  merged +0 files, \d+ already shared, 10 changed "
                         r"since the scan, 3 refused\n"),
                        ("info lone/a", 0, r"\Alone/a: a plain file\n\Z"))
        self.assertEqual((self.extents(outside.iterdir()), self.identities()), (places, identities))


class Disturbed(ReportCase):
    def test_a_stop_leaves_the_rest_for_another_time_and_what_changed_meanwhile_is_left_alone(self):
        def change(_):
            self.write_each("40/b 41/a 43/a 43/b 43/c", b"something else")
            status = (self.root / "42/b").stat()
            os.utime(self.root / "42/b", ns=(status.st_atime_ns, status.st_mtime_ns ^ 1))

        def stop(process):
            process.send_signal(signal.SIGINT)

        def wait_for_the_budget(_):
            time.sleep(budget)

        budget = DEADLINE // 20  # seconds
        text = self.make_groups(*(f"{number:02}" for number in range(90)), size=400000)
        (self.directory / "report").write_text(text)
        apply, scan = ["apply", "../report"], ["scan", "--apply", "."]
        limit = ["--time-budget", str(budget)]
        records = []
        for command, act, expected in (
                (apply + limit, wait_for_the_budget, (0, False, True)),
                (scan + limit, wait_for_the_budget, (0, False, True)),
                (apply, stop, (4, True, False)), (scan, change, (4, False, False))):
            status, report = self.disturb(act, *command)
            outcomes = self.outcomes(report)
            places = {name[:2]: place for place, name in enumerate(outcomes)}  # of the groups
            merged, left = ([places[name[:2]] for name in outcomes if outcomes[name] == outcome]
                            for outcome in ("merged", "not tried"))
            counts = report["merged"]
            self.assertEqual((status, report["stopped"], report["out_of_time"]), expected)
            self.assertEqual((left != [], len(left)), (act != change, counts["not_tried"]))
            self.assertLessEqual(max(merged), sorted({*left, 998, 999})[1])  # one thread is ahead
            records.append([*expected[1:], counts["files"], len(left), counts["freed_bytes"], True])
        self.assertEqual([[run["stopped"], run["out_of_time"], run["merged"], run["not_tried"],
                           run["freed_bytes"], run["left_bytes"] > 0 and run["start"] +
                           run["elapsed_ms"] // 1000 <= time.time()] for run in
                          json.loads(self.run_tool("history", "--json")[0])["runs"]], records)
        self.assertLessEqual({"40/a": "source", "40/b": "changed", "41/a": "changed",
                              "41/b": "source", "42/b": "changed"}.items(), outcomes.items())
        self.assertEqual((self.root / "41/a").read_bytes(), b"something else")

    def test_groups_that_a_run_had_no_time_to_examine_are_said_to_be_so(self):
        report = json.loads(self.make_groups("a", "b", "c"))
        (self.directory / "report").write_text(edited(report, ("groups",), report["groups"][::-1]))
        flags = r'"stopped": {},\n  "out_of_time": {},(.|\n)*"unexamined_groups": {},(.|\n)*'
        look = '(.|\n)*"reclaimable_bytes":0,.*,"examined":false' * 2 + '(.|\n)*"not_tried":6,'
        spent, stopped = flags.format("false", "true", 2), flags.format("true", "false", 2)
        for command, held, act, status, *expected in (
                ("-n --time-budget 1", {"a": 1}, 0, 0, r"\A3 .* can be freed\n(.*\n){4}"
                 r"(3 files .*, not examined\n(.*\n){4}){2}Summary\n(.*\n){3}  left alone .*, 6 not"
                 r" examined\n +2 of 3 groups not .*\n.*\n  time +[1-9].*, the time budget was used up"),
                ("-n --time-budget 1 --json", {"a": 1}, 0, 0, spent + look),
                ("-n --json", {"a": 1}, signal.SIGTERM, 4, stopped + look,
                 "not all groups were examined"),
                ("--time-budget 4", {"a": 2.4, "b": 2}, 0, 0,
                 " +merged +2 files, 0 already shared, 6 not tried\n",
                 " 1 of 3 groups not examined", ", the time budget was used up")):
            holds = [(self.catch(self.root / name / "a"), held[name]) for name in held]
            with self.start("apply", *command.split(), "../report") as process:
                for hold, seconds in holds:
                    hold(seconds, lambda: process.send_signal(act))
                said = "".join(map(os.fsdecode, process.communicate(timeout=DEADLINE)))
            self.assertEqual(process.returncode, status, said)
            for text in expected:
                self.assertRegex(said, text)
        self.check_runs(("history --json", 0, '"out_of_time":true,"left_is_minimum":true'))

    def test_a_look_names_a_file_that_changed_after_it_was_compared(self):
        self.make_groups("a", "last/z")  # whose digests are known from now on
        hold = self.catch(self.root / "last/z/a")
        with self.start("scan", "--verbose", "--min-size", "1", ".") as process:
            hold(0, lambda: (time.sleep(1), os.utime(self.root / "a/a")))
            output, errors = map(os.fsdecode, process.communicate(timeout=DEADLINE))
        self.assertEqual(process.returncode, 4)
        self.assertRegex(output, "\n +1 file changed")
        self.assertRegex(errors, rf"success\n(.|\n)*velmarin: left out: {self.root}/a/a: changed")


main(sys.argv[1:-1])
