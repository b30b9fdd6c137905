"""The page of `scan --html` in a browser: it loads, sorts and maps, and no name of a file does
anything in it."""

import json
import os
import sys
import unittest

from support.script import ToolCase, content, main

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.support.wait import WebDriverWait
except ImportError:
    webdriver = None

CHROMIUM, DRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"
SWITCHES = ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
            "--disable-background-networking", "--disable-dev-shm-usage")
HOSTILE = ["<script>document.title='owned'<", "<img src=x onerror=document.title='owned'>",
           "\"><b class=owned>", "__proto__", "]]>-->", "&lt;entity&gt;", "@REPORT_DATA@",
           "$& $1", "new\nline", "turn\u202eed", "quote\\\"s"]


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

    def open_report(self, *arguments):
        """Scans and loads the page, which must go without errors and ask for nothing else."""
        page = self.directory / "report.html"
        self.scan("--html", page, *arguments)
        self.browser.get(page.as_uri())
        self.assertEqual(self.browser.get_log("browser"), [])
        events = [json.loads(entry["message"])["message"]["params"]
                  for entry in self.browser.get_log("performance")]
        self.assertEqual([event["request"]["url"] for event in events
                          if event.get("documentURL") == page.as_uri()], [page.as_uri()])

    def texts(self, selector):
        return self.browser.execute_script(
            "return [...document.querySelectorAll(arguments[0])].map((found) => found.textContent)",
            selector)

    def click(self, selector, text):
        """Clicks on the element of that kind whose text starts so, whatever lies above it."""
        self.browser.execute_script(
            """[...document.querySelectorAll(arguments[0])]
                 .find((found) => found.textContent.startsWith(arguments[1])).click()""",
            selector, text)

    def test_it_sorts_goes_into_directories_and_shows_what_was_merged(self):
        for name, size, copies in (("c", 20000, 2), ("a", 9000, 4), ("b", 300000, 3)):
            for copy in range(copies):
                self.write(f"{name}/{copy}", content(name, size))
        self.open_report()
        files = "#groups tbody td:nth-child(3)"
        self.assertEqual(self.texts(files), ["3", "4", "2"])  # most bytes first
        for title, ascending in (("Files", "234"), ("Names", "432"), ("Size of each", "423")):
            orders = []
            for _ in range(2):
                self.click("#groups th button", title)
                orders.append("".join(self.texts(files)))
            self.assertEqual(set(orders), {ascending, ascending[::-1]}, title)
        self.click("#map > button", "b")
        self.assertEqual(sorted(self.texts("#map > .tile > span:first-child")), ["0", "1", "2"])
        self.open_report("--apply")
        self.assertIn("6files merged", self.texts("#figures div"))

    def test_hostile_names_are_only_text(self):
        for name in HOSTILE:
            self.write(f"{name}/{name}", content("same", 5000))
        self.write("bad\udcff", content("same", 5000))
        self.write("end</script><b class=owned>", content("same", 5000))
        self.open_report()
        self.browser.execute_script("document.querySelector('details').open = true")
        names = [name.replace("\\", "\\\\").replace("\n", "\\n")
                 .replace("\u202e", "\\xe2\\x80\\xae") for name in HOSTILE]
        expected = {f"{self.root}/{name}/{name}" for name in names}
        expected |= {f"{self.root}/bad\\xff", f"{self.root}/end</script><b class=owned>"}
        WebDriverWait(self.browser, 10).until(lambda _: self.texts("#groups li .name"))
        self.assertEqual(set(self.texts("#groups li .name")), expected)
        self.assertEqual(self.browser.title, "Velmarin report")
        self.assertEqual(self.texts("script, img, .owned")[2:], [])  # its own two scripts


main(sys.argv[1:-1])
