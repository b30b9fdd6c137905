"""The tool as it works at night, by itself: what it records, how it shares the machine, when it ends."""

import json
import sys

from support.script import ToolCase, content, main


class History(ToolCase):
    def history(self, errors=""):
        output, said = self.run_tool("history", "--json", "--state", self.directory / "state")
        self.assertRegex(said, f"^{errors}$")
        return json.loads(output)["runs"]

    def test_each_run_that_merges_is_on_record_whatever_happened_to_its_lines(self):
        self.mount_btrfs("256M")
        record = self.directory / "state/history"
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
        self.scan("--apply")  # after a line that was cut
        damaged = "".join(f"velmarin: line {number} left out of {record}: damaged\n"
                          for number in range(2, 6))
        self.assertEqual([run["merged"] for run in self.history(damaged)], [1, 0])
        table, _ = self.run_tool("history", "--state", self.directory / "state")
        self.assertRegex(table, r"run .*\n(\d{4}-\d\d-\d\d \d\d:\d\d .* done\n){2}"
                                r"2 runs +(\d+(\.\d)? KiB) +1\n$")
        many = 2**20 // len(line) + 1
        record.write_bytes(line * many)
        self.scan("--apply")
        runs = self.history()
        self.assertEqual((len(runs), runs[0], runs[-1]["merged"]), ((many + 1) // 2, first, 0))
        record.unlink()
        record.mkdir()
        self.run_tool("history", "--state", self.directory / "state", status=1)
        self.scan("--apply", status=1)


main(sys.argv[1:-1])
