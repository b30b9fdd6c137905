"""The page of `scan --html` in a browser: it loads, sorts, searches and draws its map, its figures
are those of the report, and no file name has any effect in it."""

import json
import os
import platform
import re
import sys
import unittest

from support.script import DEADLINE, ToolCase, content, main, run

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.support.wait import WebDriverWait
except ImportError:
    webdriver = None

CHROMIUM, DRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"
SWITCHES = ("--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
            "--disable-background-networking", "--disable-dev-shm-usage")
NARROW = 420  # pixels
HOSTILE = ("<script>document.title='owned'<", "<img src=x onerror=document.title='owned'>",
           "\"><b class=owned>", "__proto__", "]]>-->", "&lt;entity&gt;", "@REPORT_DATA@", "$& $1")


def size_text(size):
    for unit in ("B", "KiB", "MiB", "GiB"):
        if size < 1023.95:
            return f"{size:.1f}".removesuffix(".0") + " " + unit
        size /= 1024


@unittest.skipUnless(webdriver and os.path.exists(CHROMIUM) and os.path.exists(DRIVER),
                     "needs chromium, chromium-driver and python3-selenium")
class HtmlReport(ToolCase):
    def setUp(self):
        super().setUp()
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for switch in (*SWITCHES, f"--user-data-dir={self.directory}/profile"):
            options.add_argument(switch)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        self.browser = webdriver.Chrome(service=Service(DRIVER), options=options)
        self.addCleanup(self.browser.quit)
        self.browser.set_page_load_timeout(DEADLINE)
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": NARROW, "height": 900, "deviceScaleFactor": 1, "mobile": False})

    def load(self, page):
        """Loads a page, which must show no errors, request nothing else and fit a narrow screen."""
        self.browser.get(page.as_uri())
        self.assertEqual(self.browser.get_log("browser"), [])
        events = [json.loads(entry["message"])["message"]["params"]
                  for entry in self.browser.get_log("performance")]
        self.assertEqual([event["request"]["url"] for event in events
                          if event.get("documentURL") == page.as_uri()], [page.as_uri()])
        self.assertLessEqual(self.browser.execute_script(
            "document.querySelectorAll('details').forEach((found) => { found.open = true; });"
            "return document.documentElement.scrollWidth"), NARROW)

    def open_report(self, *arguments, **options):
        """Scans and loads the page. Returns the JSON object."""
        report = self.scan("--html", self.directory / "report.html", *arguments, **options)
        self.load(self.directory / "report.html")
        return report

    def of_each(self, selector, field="textContent"):
        return self.browser.execute_script(
            "return [...document.querySelectorAll(arguments[0])].map((found) => "
            "found[arguments[1]])", selector, field)

    def click(self, selector, text):
        """Clicks the matching element whose text starts with `text`, even if another covers it."""
        self.browser.execute_script(
            "[...document.querySelectorAll(arguments[0])]"
            ".find((found) => found.textContent.startsWith(arguments[1])).click()", selector, text)

    def search(self, text):
        """Types into the field. Returns what the page says about the groups found."""
        self.browser.execute_script(
            """const field = document.getElementById("search");
               document.getElementById("found").textContent = "";
               field.value = arguments[0];
               field.dispatchEvent(new Event("input"));""", text)
        return WebDriverWait(self.browser, DEADLINE).until(lambda _: self.of_each("#found")[0])

    def test_it_sorts_searches_and_opens_directories(self):
        for name, size, copies in (("c", 20000, "01"), ("a", 9000, "0123"), ("b", 300000, "012")):
            self.write_each([f"{name}/{copy}" for copy in copies], content(name, size))
        self.open_report()
        files = "#groups tbody td:nth-last-child(2)"
        self.assertEqual(self.of_each(files), ["3", "4", "2"])  # most bytes first
        for title, ascending in (("files", "234"), ("names", "432"), ("size of each", "423")):
            orders = []
            for _ in range(2):
                self.click("#groups th button", title)
                orders.append("".join(self.of_each(files)))
            self.assertEqual(set(orders), {ascending, ascending[::-1]}, title)
        self.click("#map > button", "b")
        self.assertEqual(sorted(self.of_each("#map > .tile > span:first-child")), list("012"))
        for text, found, shown in (("/B/2", 1, "b/2"), ("/c/", 1, "c/0"), ("no such", 0, None)):
            self.assertEqual(self.search(text), f"{found} of 3 groups")
            self.assertEqual(self.of_each("#groups summary"), [f"{self.root}/{shown}"][:found])

    def test_it_says_what_the_report_says(self):
        self.mount_image("btrfs", "256M", "-L", "a label")
        self.write_each("a/1 a/2", content("a", 300000))
        self.write_each("b/1 b/2", content("b", 5000000))
        run("cp", "--reflink=always", self.root / "b/1", self.root / "b/3")
        run("sync", "-f", self.root)
        found = self.open_report()
        self.assertGreater(min(found["reclaimable_bytes"], found["saved_bytes"]), 4000000)
        self.assertEqual(self.of_each("#figures div"), [
            size_text(found["reclaimable_bytes"]) + "can be freed",
            size_text(found["saved_bytes"]) + "already shared", "2groups", "5identical files"])
        self.assertEqual(self.of_each("#shares span", "className"), ["free", "shared"])
        self.click("#map > button", "b")  # whose files bear equal parts
        part = "\n" + size_text(found["groups"][0]["reclaimable_bytes"] / 3)
        self.assertEqual([part in title for title in self.of_each("#map > .tile", "title")],
                         [True] * 3)
        self.assertIn(f"btrfs “a label” at {self.root} on ", self.of_each("#systems li")[0])
        self.assertIn(f"on the host {platform.node()}, ", self.of_each("#about")[0])
        self.assertEqual(len(self.of_each("#history[hidden], #omissions[hidden]")), 2)
        merged = self.open_report("--apply")["merged"]
        self.assertEqual(self.of_each("#figures div"), [
            size_text(merged["freed_bytes"]) + "freed by this run", "0 Bcould still be freed",
            size_text(found["saved_bytes"]) + "shared before", f"{merged['files']}files merged",
            "2groups", "5identical files"])
        left_out = self.write_each("c/x c/y c/z", content("c", 900000))[2]
        left_out.chmod(0)
        more = self.open_report("--apply", status=4, before=[
            "setpriv", "--bounding-set=-dac_override,-dac_read_search"])["merged"]
        self.assertEqual(self.of_each("#omissions > :not([hidden])")[1:], [
            "1 file could not be opened", f"{left_out} (not opened, Permission denied)"])
        freed = [run["freed_bytes"] for run in (more, merged)]
        self.assertEqual(self.of_each("#curve div"), [size_text(sum(freed)) + " freed by 2 runs"])
        self.assertEqual(self.of_each("#history tbody td:nth-child(2)"), [*map(size_text, freed)])

    def test_names_are_only_text_and_very_many_groups_are_shown_in_pages(self):
        escaped = {"new\nline": r"new\nline", "turn\u202eed": r"turn\xe2\x80\xaeed",
                   "quote\\\"s": r"quote\\"+'"s', "bad\udcff": r"bad\xff",
                   "end</script><b class=owned>": "end</script><b class=owned>"}
        names = escaped | {f"{name}/{name}": f"{name}/{name}" for name in HOSTILE}
        self.write_each(names)
        self.open_report()
        WebDriverWait(self.browser, DEADLINE).until(lambda _: self.of_each("#groups li .name"))
        self.assertEqual(set(self.of_each("#groups li .name")),
                         {f"{self.root}/{name}" for name in names.values()})
        self.assertEqual(self.browser.title, "Velmarin report")
        self.assertEqual(len(self.of_each("script, img, .owned")), 2)  # its own two scripts

        page = self.directory / "report.html"
        before, data, after = re.split(r'(?<=id="data">)(.*?)(?=</script>)', page.read_text(),
                                       maxsplit=1, flags=re.S)
        data = json.loads(data)
        data["directories"] = [f"/srv/{place}/some/more/" for place in range(5000)]
        data["words"] = ["plain"]
        data["groups"] = [[70000, [[70000 + group, 0, 0, 0]],
                           [[group % 5000, f"{group} {copy}", 0, 0] for copy in "abc"]]
                          for group in range(100000)]
        page.write_text(before + json.dumps(data) + after)
        self.load(page)
        for button, rows, last in (("First", "1–100", "/srv/4900/some/more/99900 a"),
                                   ("Last", "99,901–100,000", "/srv/0/some/more/0 a")):
            self.click(".pages button", button)
            summaries = self.of_each("#groups summary")
            self.assertEqual((self.of_each("#tools .pages span"), len(summaries), summaries[-1]),
                             ([f"{rows} of 100,000"], 100, last))


main(sys.argv[1:-1])
