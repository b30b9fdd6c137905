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
        self.mount_btrfs("256M")

    def make_groups(self, *names, size=20000):
        """Groups of three files each, the larger the earlier they are named. Returns the report."""
        for number, name in enumerate(names):
            for twin in "abc":
                self.write(f"{name}/{twin}", content(name, size - 4096 * number))
        return self.print_report()

    def print_report(self):
        os.sync()
        return self.run_tool("scan", "--json", "--min-size", "1", ".")[0]

    def apply(self, text, *options, status=0):
        """Returns the outcome of each file in the order of the output, and the object."""
        (self.directory / "report").write_text(text, encoding="utf-8")
        output, errors = self.run_tool("apply", "--json", *options, self.directory / "report",
                                       status=status)
        self.assertEqual(errors != "", status != 0)
        report = json.loads(output)
        return {os.path.relpath(file["path"], self.root): file.get("outcome")
                for group in report["groups"] for file in group["files"]}, report

    def traces(self):
        """All by which merging shows."""
        os.sync()
        files = [path for path in sorted(self.root.rglob("*")) if path.is_file()]
        return (re.findall(r"^ +\d+:.*", run("filefrag", "-vs", *files), re.M),
                [(path, path.stat().st_ctime_ns) for path in files])


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
                (("roots",), "root 1: ", ((0, "/", "not an object"),)),
                (("roots", 0), "root 1: ", (("path", "srv", "path is not absolute"),)),
                (("groups",), "group 2: ", ((1, 5, "not an object"), (1, [], "not an object"))),
                (("groups", 1), "group 2: ", (
                    ("size", GONE, "size is missing"), ("size", 1.5, f"size {number}"),
                    ("size", 0, "size is out of range"), ("size", 1 << 63, "size is out of range"),
                    ("digest", "0f" * 31, "digest does not have 64 digits"),
                    ("digest", "0g" * 32, f"digest {digits}"),
                    ("digest", None, "digest is not a string"),
                    ("files", [first], few), ("files", {}, few))),
                (("groups", 1, "files"), "group 2, file 3: ", ((2, None, "not an object"),)),
                (("groups", 1, "files", 2), "group 2, file 3: ", (
                    ("path", ["/"], "path is not a string"), ("path", "b/c", "path is not absolute"),
                    *(("path", name, outside)
                      for name in ("/etc/passwd", "/", str(self.root), f"{self.root}x/c")),
                    *(("path", f"{self.root}/{name}", parts)
                      for name in ("b/../b/c", "b//c", "./b/c", "b/c/", "..")),
                    ("path", f"{path}\0", "path contains a NUL byte"),
                    *(("path", name, "path is too long") for name in (f"{path}{'n' * 256}", LONG)),
                    *(("path", name, "duplicate path") for name in (first["path"], twin)),
                    *(("path_bytes", name, f"path_bytes {digits}")
                      for name in ("2f6", "2f 6", "2fx0", "-1-1")),
                    ("path_bytes", os.fsencode(first["path"]).hex(),
                     "path and path_bytes do not match"),
                    ("inode", -1, "inode is out of range"), ("inode", 1 << 64, f"inode {number}"),
                    ("status", 4, "status is out of range"),
                    ("status", -4096, "status is out of range"),
                    ("blocks", GONE, "blocks is missing"))),
                (("groups", 1, "files", 2), "group 2, file 3, mtime: ",
                 (("mtime", 5, "not an object"),)),
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
            (text + "}", f"line {len(lines) + 1}, column 1: not valid JSON"),
            (text.replace('"size":', '"size":,'), f"line {start + 1}, column 13: not valid JSON"),
            (text.replace('},\n', '},,\n'), f"line {start + 1}, column {len(lines[start]) + 1}: "
                                            "not valid JSON"),
            (text.replace('"groups": [', '"groups": [,'),
             f"line {start}, column 14: not valid JSON"),
            (text.replace('"size":', '"size":7,"size":'), "group 1: duplicate size"),
            (text.replace('"velmarin"', '"format"'), "duplicate format"),
            (text.replace('"stopped": false', '"stopped": 1e999'), "a number is out of range"),
            ("[" * 10**6, "lists and objects are nested too deeply"),
            (text.replace('"size":', '"more":' + "[" * 32 + '0,"size":'),
             "group 1: lists and objects are nested too deeply"))

    def test_a_damaged_or_hostile_report_is_refused_whole(self):
        text = self.make_groups("a", "b")
        before = self.traces()
        for data, said in (*self.rows(json.loads(text)),
                           *((data.encode(), said) for data, said in self.damaged(text)),
                           (text.replace('/a"', '/\udcff"').encode(errors="surrogateescape"),
                            r"line \d+, column \d+: not valid JSON")):
            (self.directory / "report").write_bytes(data)
            output, errors = self.run_tool("apply", "--json", self.directory / "report", status=1)
            self.assertEqual(output, "", said)
            said = said if "\\d" in said else re.escape(said)
            self.assertRegex(errors, f"^velmarin: cannot use the report .*/report: {said}\n$")
        os.truncate(self.directory / "report", 1 + (512 << 20))
        for name, said in (("report", "larger than 512 MiB"), ("missing", "No such file"),
                           ("root", "Is a directory")):
            self.assertIn(said, self.run_tool("apply", self.directory / name, status=1)[1])
        self.assertEqual(self.traces(), before)

    def test_a_root_must_be_where_it_was(self):
        for name in "ab":
            self.write(f"tree/{name}", content("same"))
        report = self.directory / "report"
        report.write_text(self.run_tool("scan", "--json", "tree")[0])
        tree = (self.root / "tree").rename(self.root / "moved")
        before = self.traces()
        self.assertIn("No such file", self.run_tool("apply", report, status=1)[1])
        (self.root / "tree").symlink_to(tree)
        self.assertIn("through a symbolic link", self.run_tool("apply", report, status=1)[1])
        self.assertEqual(self.traces(), before)


class Merged(ReportCase):
    def test_what_is_left_in_the_report_is_merged_and_nothing_else(self):
        text = self.make_groups("first", "second", "third", "last")
        merged = {"a": "source", "b": "merged", "c": "merged"}
        lines = text.splitlines(keepends=True)

        def without(*names):
            return "".join(line for line in lines if not any(f"/{name}/a" in line
                                                             for name in names))

        before = self.traces()
        self.assertEqual(self.apply(without("first", "second", "third", "last"))[0], {})
        outcomes, report = self.apply(text, "--dry-run")
        self.assertEqual((set(outcomes.values()), len(outcomes)), ({None}, 12))
        self.assertEqual(self.traces(), before)
        for removed, kept in ((("first", "third", "last"), ["second"]),
                              (("second", "third", "last"), ["first"]),
                              (("first", "second", "third"), ["last"])):
            outcomes, report = self.apply(without(*removed))
            self.assertEqual(outcomes, {f"{name}/{twin}": outcome for name in kept
                                        for twin, outcome in merged.items()}, removed)
            self.assertEqual((report["merged"]["files"], "counters" in report), (2, False))
            self.assertIn(f'"digest":"{report["groups"][0]["digest"]}"', text)
        third = json.loads(text)
        third["groups"] = [group for group in third["groups"] if "third" in str(group)]
        del third["groups"][0]["files"][1]
        self.assertEqual(self.apply(json.dumps(third, sort_keys=True))[0],
                         {"third/a": "source", "third/c": "merged"})
        with open(self.directory / "report", "rb") as file:
            output, _ = self.run_tool("apply", "-", stdin=file)
        self.assertEqual((output.count("  shared "), "directories" in output), (2, False))
        outcomes, _ = self.apply(text)
        self.assertEqual({name: outcome for name, outcome in outcomes.items()
                          if outcome != "shared"}, {"third/a": "source", "third/b": "merged"})
        self.assertEqual(self.apply(self.print_report())[1]["merged"]["already_shared"], 12)

    def test_names_that_are_no_text_are_known_by_their_bytes(self):
        for name in (b"x\xff", b"x\xfe", b"\xef\xbf\xbd", b"line\nbreak", b'quote"\\', b",]"):
            self.write(name, content("same"))
        _, report = self.apply(self.print_report())
        self.assertEqual(report["merged"]["files"], 5)

    def test_a_file_that_is_no_longer_what_the_scan_saw_is_left_alone(self):
        outside = self.root / "outside"
        text = self.make_groups("behind", "fifo", "gone", "grown", "later", "link", "other",
                                "swapped", "way", size=60000)
        run("cp", "-rp", self.root / "way", outside)

        def replace(path, make):
            path.rename(path.with_name("aside"))
            make(path)

        def behind(path):
            self.keep_times(path, lambda: path.write_bytes(bytes(path.stat().st_size)))

        def swapped(path):
            self.keep_times(path, lambda: replace(path, lambda path: path.write_bytes(
                content("swapped", path.with_name("aside").stat().st_size))))

        changes = {  # what is done to c, what apply says of it, and whether a look notices
            "behind": (behind, "refused", ".+", False),
            "fifo": (lambda path: replace(path, os.mkfifo), "changed", "changed since", True),
            "gone": (os.remove, "refused", "No such file", True),
            "grown": (lambda path: os.truncate(path, 70000), "changed", "changed since", True),
            "later": (lambda path: os.utime(path), "changed", "changed since", True),
            "link": (lambda path: replace(path, lambda link: link.symlink_to("a")), "refused",
                     "symbolic link", True),
            "other": (lambda path: path.write_bytes(b"other"), "changed", "changed since", True),
            "swapped": (swapped, "changed", "changed since", True)}
        for name, (change, *_) in changes.items():
            change(self.root / name / "c")
        (self.root / "way").rename(self.root / "aside")
        (self.root / "way").symlink_to("outside")
        seen = {path: path.read_bytes() for path in self.root.rglob("*") if path.is_file()}
        before, outside_before = self.traces(), run("filefrag", "-v", *sorted(outside.iterdir()))
        looked, _ = self.apply(text, "-n", status=4)
        self.assertEqual(self.traces(), before)
        outcomes, report = self.apply(text, status=4)
        reasons = {os.path.relpath(file["path"], self.root): file.get("reason", "")
                   for group in report["groups"] for file in group["files"]}
        for name, (_, outcome, reason, is_noticed) in changes.items():
            self.assertEqual([outcomes[f"{name}/{twin}"] for twin in "abc"],
                             ["source", "merged", outcome], name)
            self.assertRegex(reasons[f"{name}/c"], reason, name)
            self.assertEqual([looked[f"{name}/{twin}"] for twin in "abc"],
                             [None, None, outcome if is_noticed else None], name)
        self.assertEqual({outcomes[f"way/{twin}"] for twin in "abc"}, {"refused"})
        self.assertEqual(run("filefrag", "-v", *sorted(outside.iterdir())), outside_before)
        self.assertEqual({path: path.read_bytes() for path in seen}, seen)

    def keep_times(self, path, change):
        status = path.stat()
        change()
        os.utime(path, ns=(status.st_atime_ns, status.st_mtime_ns))

    def test_stopping_leaves_the_rest_for_another_time(self):
        text = self.make_groups(*(f"{number:02}" for number in range(40)), size=200000)
        (self.directory / "report").write_text(text)
        for limit, stop in ((["--time-budget", "2"], None), ([], signal.SIGINT)):
            with self.start("apply", "--json", "--verbose", *limit,
                            self.directory / "report") as process:
                end = time.monotonic() + 2
                merging = any(b"done deduplication" in line for line in process.stderr)
                while stop is None and time.monotonic() < end:
                    time.sleep(0.1)
                if stop is not None:
                    process.send_signal(stop)
                report = json.loads(process.communicate(timeout=DEADLINE)[0])
            outcomes = list(self.outcomes(report).values())
            self.assertTrue(merging)
            self.assertEqual((process.returncode, report["stopped"], report["out_of_time"]),
                             (4 if stop else 0, stop is not None, stop is None))
            self.assertEqual(report["merged"]["not_tried"], outcomes.count("not tried"))
            self.assertIn("not tried", outcomes)
        self.assertLessEqual(set(self.apply(text)[0].values()), {"source", "merged", "shared"})


main(sys.argv[1:-1])
