#!/usr/bin/env python3
"""The commands and options of the tool, as its help gives them, are those of its completions and of
its documents."""

import json
import os
import re
import shutil
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "support"))
from tool_case import ToolCase, content, main  # noqa: E402

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
COMPLETION = os.path.join(SOURCE, "tools", "velmarin", "completion")


def read(*names):
    with open(os.path.join(SOURCE, *names), encoding="utf-8") as file:
        return file.read()


class Words(ToolCase):
    def setUp(self):
        super().setUp()
        self.write("file", b"")
        os.mkdir(self.path("root", "two words"))
        help_text, _ = self.run_tool("--help")
        self.commands = re.findall(r"^  (\w+)  ", help_text.split("Subcommands:")[1], re.M)
        self.options = {command: self.options_of(self.run_tool(command, "--help")[0])
                        for command in self.commands}

    @staticmethod
    def options_of(help_text):
        return set(re.findall(r"(?:^  |,)(--[a-z-]+)", help_text, re.M))

    def check_completion(self, complete):
        """`complete` gives the words that a shell offers for the last of a list of words."""
        self.assertEqual(complete("") - {"--help", "--version"}, set(self.commands))
        self.assertEqual(complete("re"), {"recover", "revoke"})
        for command in self.commands:
            self.assertEqual(complete(command, "--"), self.options[command])
        self.assertEqual(complete("info", "--verbose", "root/"), {"root/file", "root/two words"})
        self.assertEqual(complete("scan", "root/"), {"root/two words"})
        self.assertEqual(complete("scan", "--skip", "root/f"), {"root/file"})
        self.assertEqual(complete("scan", "--state", "root/"), {"root/two words"})
        self.assertEqual(complete("info", "--", "--"), set())

    def test_bash_offers_every_command_and_option(self):
        def complete(*words):
            script = ('. "$0"; COMP_WORDS=(velmarin "$@"); COMP_CWORD=$#; _velmarin; '
                      'printf "%s\\n" "${COMPREPLY[@]}"')
            run = subprocess.run(
                ["bash", "-uc", script, os.path.join(COMPLETION, "velmarin.bash"), *words],
                cwd=self.directory, capture_output=True, check=True, text=True)
            self.assertEqual(run.stderr, "")
            return set(run.stdout.split("\n")) - {""}

        self.check_completion(complete)

    def test_the_zsh_completion_parses_and_names_every_command_and_option(self):
        text = read("tools", "velmarin", "completion", "_velmarin")
        known = set.union(*self.options.values())
        self.assertEqual(set(re.findall(r"--[a-z][a-z-]+", text)), known)
        for command in self.commands:
            self.assertRegex(text, rf"\b{command}\b")
        if shutil.which("zsh"):
            script = os.path.join(COMPLETION, "_velmarin")
            run = subprocess.run(["zsh", "-n", script], capture_output=True, text=True)
            self.assertEqual((run.stderr, run.returncode), ("", 0))

    def test_the_man_page_names_every_command_and_option(self):
        page = read("docs", "velmarin.1").replace("\\-", "-")
        for command in self.commands:
            self.assertRegex(page, rf"(?m)^\.SS velmarin {command} ")
        for option in set.union(*self.options.values()):
            self.assertRegex(page, rf"(?m)^\.(B|BI|BR) (.* )?{option}\b")
        known = set.union(*self.options.values())
        self.assertEqual(set(re.findall(r"--[a-z][a-z-]+", page)), known)
        if shutil.which("man"):
            run = subprocess.run(["man", "--warnings", "-l", os.path.join(SOURCE, "docs", "velmarin.1")],
                                 capture_output=True, text=True)
            self.assertEqual(run.stderr, "")

    def test_the_json_object_has_the_fields_that_its_document_shows(self):
        for name in (b"a", b"b\xff"):
            self.write(name, content("same", 70000))
        document = read("docs", "json.md")
        shown = json.loads(re.search(r"```json\n(.*?)```", document, re.S).group(1))
        report = self.scan()
        for real, example in ((report, shown), (report["groups"][0], shown["groups"][0]),
                              (report["groups"][0]["files"][1], shown["groups"][0]["files"][1]),
                              (report["counters"], shown["counters"]),
                              (report["statistics"], shown["statistics"])):
            self.assertEqual(list(real), list(example))
        merged = self.scan("--apply")
        for field in [*merged["merged"], *merged["groups"][0]["files"][0], *merged["groups"][0]]:
            self.assertIn(f"`{field}`", document)


if __name__ == "__main__":
    main()
