"""The tool run at night, unattended: what it records, how it shares the machine, when it ends."""

import json
import os
import sys

from support.script import DEADLINE, ToolCase, content, main, run

SLACK = 4000 * DEADLINE // 60  # milliseconds; a busy machine needs more than the second promised


class NightCase(ToolCase):
    def history(self, errors=""):
        output, said = self.run_tool("history", "--json", "--state", self.state)
        self.assertRegex(said, f"^{errors}$")
        return json.loads(output)["runs"]


class History(NightCase):
    def test_each_merging_run_is_recorded_whatever_happens_to_the_lines(self):
        self.mount_image("btrfs", "256M")
        record = self.state / "history"
        self.write_each("a b")
        self.scan()
        self.assertEqual(self.history(), [])
        merged = self.scan("--apply")["merged"]
        first, = self.history()
        self.assertLessEqual({"freed_bytes": merged["freed_bytes"], "merged": 1, "left_bytes": 0,
                              "out_of_time": False, "stopped": False,
                              "left_is_minimum": False}.items(), first.items())
        self.assertEqual((record.stat().st_mode & 0o777, first["freed_bytes"] >= 70000),
                         (0o600, True))
        line = record.read_bytes()
        record.write_bytes(line + line.replace(b":1,", b':"1",') +
                           line.replace(b'd":false', b'd":0') + b"[" * 1000 + b"\n\n" + line[:-9])
        self.scan("--apply")  # after a truncated line
        damaged = "".join(f"velmarin: ignoring damaged line {number} of {record}\n"
                          for number in range(2, 7))
        self.assertEqual([run["merged"] for run in self.history(damaged)], [1, 0])
        self.check_runs((f"history --state {self.state}", 0,
                         r"run .*\n(\d{4}-\d\d-\d\d \d\d:\d\d .* done\n){2}"
                         r"2 runs +(\d+(\.\d)? KiB) +1\n"))
        older = line.replace(b',"left_is_minimum":false', b"")
        late = [text.replace(b'time":false', b'time":true')
                for text in (older, line, line.replace(b'm":false', b'm":1'))]
        record.write_bytes(older + b"".join(late))
        self.check_runs((f"history --state {self.state}", 0,
                         r" 1 +0 B .* done\n.* 1 +- .* time\n.* 1 +0 B .* time\n.* 1 +- .* time\n"))
        many = 2**20 // len(line) + 1
        record.write_bytes(line * many)
        record.with_suffix(".new").touch()
        self.scan("--apply")
        runs = self.history()
        self.assertEqual((len(runs), runs[0], runs[-1]["merged"]), ((many + 1) // 2, first, 0))
        os.chown(record, 65534, 65534)
        self.check_runs((f"scan --apply --state {self.state} .", 1, f"cannot write {record}: Perm"))
        record.unlink()
        os.mkfifo(record)
        self.check_runs((f"history --state {self.state}", 1, f"cannot read {record}: Invalid arg"))
        self.scan("--apply", status=1)


class Configured(NightCase):
    def test_a_file_stands_for_options_and_roots(self):
        for name in ("a", "b", "left out/c", "-x[1]"):
            self.write_each([f"two words/{name}"])
            self.write(f"other/{name}", content("other"))
        config = self.directory / "night.conf"
        top = self.root
        for lines, words, seen in (
                (f"# comment\n\n root = {top}/two words \nmax-depth\t=\t1\n",
                 "", "two words/-x[1] two words/a two words/b"),
                (f"root = {top}/other\r\nskip = {top}/other/left out\nexclude = -x*\nquiet",
                 "--max-depth 1 --config /dev/null", "other/a other/b"),
                (f"root = {top}/other\nexclude=[ab]\nmin-size = 1M",
                 "", "other/-x[1] other/left out/c")):
            config.write_text(lines, encoding="utf-8")
            group, = self.groups(self.scan(*words.split(), "--config", config, roots=[]))
            self.assertEqual(" ".join(group), seen, lines)
        for line, said in (
                ("root = other", "2: expected .* 'root = /DIRECTORY', not 'root = other'"),
                ("= 1", "2: expected "), ("min-size =", "2: 'min-size' needs a value"),
                (f"html\nroot = {top}/other/a", "2: 'html' needs a value"),
                ("no-hidden =", "2: 'no-hidden' takes no value"),
                ("\nskip = a\nidle\nskip = b\nstate = a\n#\nstate=b", "8: 'state' is given twice"),
                *((f"{name} = 1", f"2: unknown option '{name}'")
                  for name in ("config", "help", "x", "nonsense"))):
            config.write_text(f"root = {top}\n{line}")
            self.check_runs((f"scan --config {config}", 2, rf"\Avelmarin: {config}, line {said}"))
        config.unlink()
        self.check_runs((f"scan --config={config}", 2, "No such file"))


class Neighbours(NightCase):
    def stand_still(self, *arguments):
        """Starts a run whose threads soon block until its log is read."""
        self.mount("tmpfs", self.root, "nr_inodes=201")  # no room for a mark: a line for each file
        self.write_each(map(str, range(200)))
        process = self.start("scan", "--apply", "--verbose", "--min-size", "1K", "--state",
                             self.state, *arguments, self.root)
        self.addCleanup(process.communicate)
        self.assertTrue(any(b"call prep for" in line for line in process.stderr))
        return process

    def test_an_idle_run_has_idle_threads_and_its_state_directory_for_itself(self):
        old = self.write("../old", b"old")
        process = self.stand_still("--idle", "--html", old)
        threads = os.listdir(f"/proc/{process.pid}/task")
        self.assertGreater(len(threads), 1)
        self.assertEqual({(run("ionice", "-p", thread).strip(),
                           os.getpriority(os.PRIO_PROCESS, int(thread))) for thread in threads},
                         {("idle", 19)})
        page, report = self.directory / "page", self.directory / "report"
        report.write_text(self.run_tool("scan", "--json", "--min-size", "1K", "--state", "../other",
                                        ".")[0])
        busy = (r"\Avelmarin: another run is using the state directory "
                rf"{self.state}: try again later\n\Z")
        self.check_runs((f"scan --state {self.state} --html {page} .", 3, busy),
                        (f"apply --state {self.state} {report}", 3, busy),
                        (f"apply --state {self.state} -n {report}", 0))
        self.assertFalse(page.exists())
        process.kill()
        process.communicate(timeout=DEADLINE)
        self.assertEqual((self.history(), old.read_bytes()), ([], b"old"))
        self.check_runs((f"apply --state {self.state} {report}", 4,
                         r" \(No space left on device\)\n"))  # no room either
        self.assertEqual([(run["merged"], run["refused"]) for run in self.history()], [(0, 200)])
        self.check_runs((f"scan --apply --json --state {self.state} .", 4, r'"nr_error":20\d,',
                         "velmarin: 200 files could not be marked; the first: "))


class Budget(NightCase):
    def test_a_scan_out_of_time_reads_no_further_file_and_keeps_what_it_read(self):
        for number in range(640):
            os.truncate(self.write(str(number), b""), 2**25)  # reading a hole takes time too
        page = self.directory / "page"
        report = self.scan("--time-budget", "1", "--html", page)
        counters = report["counters"]
        self.assertLess(counters["nr_hashed"], 640)
        self.assertEqual((report["out_of_time"], counters["nr_error"]), (True, 0))
        self.assertIn(report["elapsed_ms"], range(1000, 1000 + SLACK))
        self.assertIn('"Stopped early: the findings are incomplete."', page.read_text())
        digests, = self.state.glob("*.hsh")
        self.assertEqual(digests.stat().st_size, 64 * counters["nr_hashed"])


main(sys.argv[1:-1])
