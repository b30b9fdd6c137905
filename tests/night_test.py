"""The tool run at night, unattended: what it records, how it shares the machine, when it ends."""

import json
import os
import subprocess
import sys
import time

from support.script import DEADLINE, ToolCase, content, main, run

SLACK = 4000 * DEADLINE // 60  # milliseconds; a busy machine needs more than the second promised


class NightCase(ToolCase):
    def setUp(self):
        super().setUp()
        self.state = self.directory / "state"

    def history(self, errors=""):
        output, said = self.run_tool("history", "--json", "--state", self.state)
        self.assertRegex(said, f"^{errors}$")
        return json.loads(output)["runs"]


class History(NightCase):
    def test_each_merging_run_is_recorded_whatever_happens_to_the_lines(self):
        self.mount_btrfs("256M")
        record = self.state / "history"
        self.assertEqual(self.history(), [])
        for name in "ab":
            self.write(name, content("same"))
        self.scan()
        self.assertEqual(self.history(), [])
        merged = self.scan("--apply")["merged"]
        first, = self.history()
        self.assertEqual((first["freed_bytes"], first["merged"], first["left_bytes"],
                          first["out_of_time"], first["stopped"]),
                         (merged["freed_bytes"], 1, 0, False, False))
        self.assertEqual((record.stat().st_mode & 0o777, first["freed_bytes"] >= 70000),
                         (0o600, True))
        line = record.read_bytes()
        record.write_bytes(line + line.replace(b":1,", b':"1",') + b"[" * 1000 + b"\n\n" + line[:-9])
        self.scan("--apply")  # after a truncated line
        damaged = "".join(f"velmarin: ignoring damaged line {number} of {record}\n"
                          for number in range(2, 6))
        self.assertEqual([run["merged"] for run in self.history(damaged)], [1, 0])
        table, _ = self.run_tool("history", "--state", self.state)
        self.assertRegex(table, r"run .*\n(\d{4}-\d\d-\d\d \d\d:\d\d .* done\n){2}"
                                r"2 runs +(\d+(\.\d)? KiB) +1\n$")
        many = 2**20 // len(line) + 1
        record.write_bytes(line * many)
        self.scan("--apply")
        runs = self.history()
        self.assertEqual((len(runs), runs[0], runs[-1]["merged"]), ((many + 1) // 2, first, 0))
        record.unlink()
        record.mkdir()
        self.run_tool("history", "--state", self.state, status=1)
        self.scan("--apply", status=1)


class Configured(NightCase):
    def test_a_file_stands_for_options_and_roots(self):
        for name in ("a", "b", "left out/c", "-x[1]"):
            self.write(f"two words/{name}", content("same"))
            self.write(f"other/{name}", content("other"))
        config = self.directory / "night.conf"
        top = self.root
        for lines, words, seen, status in (
                (f"# comment\n\n root = {top}/two words \nexclude=left out/\nmin-size\t=\t1K\n",
                 "", "two words/-x[1] two words/a two words/b", 0),
                (f"root = {top}/other\r\nskip = {top}/other/left out\nexclude = -x*\nquiet",
                 "--max-depth 1", "other/a other/b", 0),
                (f"root = {top}/other\nexclude = [ab]\nno-hidden = no",
                 "", "other/-x[1] other/left out/c", 0),
                ("root = other", "", "'root = /DIRECTORY': root = other", 2),
                (f"root = {top}\nmin-size =", "", "invalid line in ", 2),
                (f"root = {top}\nconfig = {config}", "", "invalid line in ", 2),
                (f"root = {top}\nnonsense = 1", "", "unknown option '--nonsense=1'", 2),
                (f"root = {top}\n= 1", "", "invalid line in ", 2)):
            config.write_text(lines, encoding="utf-8")
            output, errors = self.run_tool("scan", "--json", "--state", self.state,
                                           *words.split(), "--config", config, status=status)
            if status == 0:
                group, = self.groups(json.loads(output))
                self.assertEqual(" ".join(group), seen, lines)
            else:
                self.assertIn(seen, errors, lines)
        config.unlink()
        self.assertIn("No such file", self.run_tool("scan", f"--config={config}", status=2)[1])


class Neighbours(NightCase):
    def stand_still(self, *arguments):
        """Starts a run whose threads soon block until its log is read."""
        for number in range(200):
            self.write(f"{number}", content("same", 2000))
        self.mount("none", self.root, "bind,ro", self.root)  # a line for each file
        process = self.start("scan", "--apply", "--verbose", "--min-size", "1K", "--state",
                             self.state, *arguments, self.root)
        self.addCleanup(process.communicate)
        self.assertTrue(any(b"call prep for" in line for line in process.stderr))
        return process

    def test_one_run_at_a_time_has_a_state_directory(self):
        process = self.stand_still()
        page, report = self.directory / "page", self.directory / "report"
        report.write_text(self.run_tool("scan", "--json", "--min-size", "1K", "--state",
                                        self.directory / "other", ".")[0])
        for command in (["scan", "--html", page, "."], ["apply", report]):
            output, errors = self.run_tool(*command, "--state", self.state, status=3)
            self.assertEqual((output, errors, page.exists()),
                             ("", "velmarin: another run is using the state directory "
                                  f"{self.state}: try again later\n", False))
        self.run_tool("apply", "--dry-run", "--state", self.state, report)
        process.kill()
        process.communicate(timeout=DEADLINE)
        self.assertEqual(self.history(), [])
        self.run_tool("apply", "--state", self.state, report, status=4)  # on a read-only mount
        self.assertEqual([(run["merged"], run["refused"]) for run in self.history()], [(0, 200)])

    def test_every_thread_of_an_idle_run_is_idle(self):
        process = self.stand_still("--idle")
        threads = os.listdir(f"/proc/{process.pid}/task")
        self.assertGreater(len(threads), 1)
        self.assertEqual({(run("ionice", "-p", thread).strip(),
                           os.getpriority(os.PRIO_PROCESS, int(thread))) for thread in threads},
                         {("idle", 19)})
        process.communicate(timeout=DEADLINE)


class Budget(NightCase):
    BUDGET = 5 * DEADLINE // 60  # seconds

    def test_a_scan_out_of_time_reads_no_further_file_and_keeps_what_it_read(self):
        self.mount_btrfs("256M")
        for number in range(640):
            with open(self.root / str(number), "wb") as file:
                file.truncate(2**25)  # reading a hole takes time too
        report = self.scan("--time-budget", "1")
        counters = report["counters"]
        self.assertLess(counters["nr_hashed"], 640)
        self.assertEqual((report["out_of_time"], counters["nr_error"]), (True, 0))
        self.assertLess(report["elapsed_ms"], 1000 + SLACK)
        digests, = self.state.glob("*.hsh")
        self.assertEqual(digests.stat().st_size, 64 * counters["nr_hashed"])

    def work_slowly(self, budget, pause):
        """One night's run, held up by a slow reader of its log while it merges."""
        report = self.directory / "report"
        with (open(report, "wb") as file,
              self.start("scan", "--apply", "--idle", "--json", "--verbose", "--min-size", "1K",
                         "--time-budget", str(budget), "--state", self.state, self.root,
                         stdout=file) as process):
            end = time.monotonic() + budget
            for line in process.stderr:
                if b"done deduplication" in line and time.monotonic() < end:
                    time.sleep(pause)
        self.assertEqual(process.returncode, 0)
        return json.loads(report.read_bytes())

    def write_pair(self, variant, size):
        for twin in "ab":
            name = f"{variant}{twin}"
            self.files[self.write(name, content(variant, size))] = content(variant, size)

    def disturb(self, night):
        """What the day does: files come, change and go."""
        for number in range(3):
            self.write_pair(f"new-{night}-{number}", 300000 + 5000 * night)
            self.files.pop(self.root / f"{10 * night + number}b")
            (self.root / f"{10 * night + number}b").unlink()
            changed = self.root / f"{10 * night + 5 + number}a"
            self.files[self.write(changed, content(night, 5000))] = content(night, 5000)

    def test_five_nights_free_everything_in_the_order_of_size(self):
        self.mount_btrfs("512M")
        self.files = {}
        for number in range(100):
            self.write_pair(number, 200000 - 1000 * number)
        reports = []
        read = len(self.files)
        shared = set()
        for night in range(5):
            budget = self.BUDGET if night < 4 else DEADLINE
            report = self.work_slowly(budget, pause=self.BUDGET / 20 if night < 4 else 0)
            self.assertEqual({path: path.read_bytes() for path in self.root.iterdir()}, self.files)
            self.assertLess(report["elapsed_ms"], 1000 * budget + SLACK)
            self.assertEqual(report["counters"]["nr_hashed"], read)
            outcomes = self.outcomes(report)
            merged, left = ({name for name in outcomes if outcomes[name] == outcome}
                            for outcome in ("merged", "not tried"))
            self.assertTrue(merged.isdisjoint(shared))
            sizes = sorted({self.size(name) for name in left})[:-1]  # one thread may be ahead
            self.assertLessEqual(max(sizes, default=0),
                                 min((self.size(name) for name in merged), default=2**30))
            self.assertEqual((report["out_of_time"], left != set()), (night < 4,) * 2)
            shared |= merged
            reports.append(report)
            before = set(self.files.values())
            self.disturb(night)
            shared -= {path.name for path in self.files if self.files[path] not in before}
            read = 6 + 3
        self.assertEqual([(run["freed_bytes"], run["merged"], run["not_tried"], run["out_of_time"])
                          for run in self.history()],
                         [(report["merged"]["freed_bytes"], report["merged"]["files"],
                           report["merged"]["not_tried"], report["out_of_time"])
                          for report in reports])
        self.assertEqual(self.history()[-1]["left_bytes"], 0)

    def size(self, name):
        return -(-(self.root / name).stat().st_size // 4096)  # as it is freed, in blocks


main(sys.argv[1:-1])
