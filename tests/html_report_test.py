#!/usr/bin/env python3
"""The page of `scan --html` in a browser: it loads, sorts and maps, and no name of a file does
anything in it."""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "support"))
import browser  # noqa: E402
from tool_case import ToolCase, content, main  # noqa: E402

HOSTILE = ["<script>document.title='owned'<", "<img src=x onerror=document.title='owned'>",
           "\"><b class=owned>", "__proto__", "]]>-->", "&lt;entity&gt;", "@REPORT_DATA@",
           "$& $1", "new\nline", "turn\u202eed", "quote\\\"s"]


class HtmlReport(ToolCase):
    def setUp(self):
        super().setUp()
        if browser.program() is None:
            self.skipTest("chromium is not installed")
        self.browser = browser.Browser()
        self.addCleanup(self.browser.close)

    def open_report(self, *arguments, status=0):
        """Scans, and loads the page. Returns the addresses that it asked for."""
        self.scan("--html", "report.html", *arguments, status=status)
        events = self.browser.open(self.path("report.html"))
        problems = [event for event in events if event.get("method") in
                    ("Runtime.exceptionThrown", "Log.entryAdded")]
        self.assertEqual(problems, [])
        return [event["params"]["request"]["url"] for event in events
                if event.get("method") == "Network.requestWillBeSent"]

    def texts(self, selector):
        return self.browser.evaluate(
            f"[...document.querySelectorAll('{selector}')].map((element) => element.textContent)")

    def click(self, selector, text):
        """Clicks on the element of that kind whose text starts so."""
        self.assertTrue(self.browser.evaluate(
            f"""(() => {{
              const found = [...document.querySelectorAll({selector!r})]
                .find((element) => element.textContent.startsWith({text!r}));
              found?.click();
              return found !== undefined;
            }})()"""), text)

    def column(self, number):
        return self.texts(f"#groups tbody td:nth-child({number})")

    def test_it_loads_by_itself_and_sorts_by_every_column(self):
        for name, size, copies in (("c", 20000, 2), ("a", 9000, 4), ("b", 300000, 3)):
            for copy in range(copies):
                self.write(f"{name}/{copy}", content(name, size))
        self.assertEqual(self.open_report(), ["file://" + self.path("report.html")])
        self.assertEqual(self.column(3), ["3", "4", "2"])  # most bytes first
        by_name = [os.path.join(self.root, name, "0") for name in "abc"]
        for title, column, ascending in (
                ("Files", 3, ["2", "3", "4"]), ("Names", 4, by_name),
                ("Size of each", 2, ["8.8 KiB", "19.5 KiB", "293 KiB"])):
            self.click("#groups th button", title)
            once = self.column(column)
            self.click("#groups th button", title)
            again = self.column(column)
            self.assertEqual(sorted([once, again]), sorted([ascending, ascending[::-1]]))
            self.assertEqual(len(self.texts("#groups th[aria-sort]")), 1)

    def test_the_map_shows_directories_and_goes_into_them(self):
        for place in ("large/one", "large/two", "small/deep/deeper/three", "small/deep/deeper/four"):
            self.write(place, content(place.split("/")[0], 40000 if "large" in place else 20000))
        self.open_report()
        areas = self.browser.evaluate(
            """Object.fromEntries([...document.querySelectorAll('#map > button')].map((tile) =>
                 [tile.title.split('\\n')[0], tile.offsetWidth * tile.offsetHeight]))""")
        self.assertEqual(set(areas), {"large", "small/deep/deeper"})
        self.assertAlmostEqual(areas["large"] / areas["small/deep/deeper"], 2, delta=0.1)
        self.assertIn("60 KiB in 4 files", self.texts("#trail")[0])
        self.click("#map button", "small/deep/deeper")
        self.assertEqual(sorted(self.texts("#map > .tile > span:first-child")), ["four", "three"])
        self.assertIn("deeper/", self.texts("#trail")[0])
        self.click("#trail button", "root/")
        self.assertEqual(len(self.texts("#map > button")), 2)

    def test_hostile_names_are_only_text(self):
        for name in HOSTILE:
            self.write(f"{name}/{name}", content("same", 5000))
        self.write("bad\udcff", content("same", 5000))
        ending = "end<", "script><b class=owned>"  # the slash between them ends a script element
        self.write("/".join(ending), content("same", 5000))
        self.open_report()
        self.browser.evaluate("document.querySelector('details').open = true; 0")
        self.browser.evaluate("new Promise((done) => setTimeout(done, 0))")
        names = [name.replace("\\", "\\\\").replace("\n", "\\n")
                 .replace("\u202e", "\\xe2\\x80\\xae") for name in HOSTILE]
        prefix = self.root + "/"
        expected = {f"{prefix}{name}/{name}" for name in names}
        expected |= {prefix + "bad\\xff", prefix + "/".join(ending)}
        wait = "document.querySelectorAll('#groups li').length"
        self.assertEqual(self.browser.evaluate(wait), len(expected))
        self.assertEqual(set(self.texts("#groups li .name")), expected)
        self.assertEqual(self.browser.evaluate("document.title"), "Velmarin report")
        self.assertEqual(self.texts("script, img, .owned")[2:], [])  # its own two scripts
        tiles = set(self.texts("#map > .tile > span:first-child"))
        self.assertTrue({name + "/" for name in names} <= tiles, tiles)

    def test_it_shows_what_was_merged_and_what_is_none(self):
        self.open_report()
        self.assertIn("No identical files were found.", self.texts("section")[1])
        self.assertIn("Nothing is left to merge.", self.texts("section")[0])
        for name in "abc":
            self.write(name, content("same", 5000))
        self.open_report("--apply")
        figures = self.texts("#figures div")
        self.assertIn("2files merged", figures)
        self.assertIn("3identical files", figures)
        rows = self.texts("#lists tr")
        self.assertTrue({"merged2", "refused0", "candidates3"} <= set(rows), rows)


class Writing(ToolCase):
    def test_a_page_that_cannot_be_written_is_noticed_before_the_scan(self):
        _, errors = self.run_tool("scan", "--state", "state", "--html", "missing/page", "root",
                                  status=1)
        self.assertIn("cannot write missing/page", errors)
        self.assertEqual(os.listdir(self.path("state")), [])

    def test_a_longer_page_from_before_is_replaced(self):
        with open(self.path("page"), "w", encoding="utf-8") as page:
            page.write("x" * 1000000)
        self.scan("--html", "page")
        with open(self.path("page"), encoding="utf-8") as page:
            text = page.read()
        self.assertTrue(text.startswith("<!DOCTYPE html>") and text.endswith("</html>\n"))


if __name__ == "__main__":
    main()
