"""A headless Chromium, spoken to through its debugging pipe."""

import json
import os
import select
import shutil
import subprocess
import tempfile
import time

DEADLINE = 60  # seconds for an answer

SWITCHES = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
            "--disable-background-networking", "--no-first-run", "--remote-debugging-pipe",
            "--window-size=1200,900"]


def program():
    """The path of Chromium, or None."""
    return shutil.which("chromium") or shutil.which("chromium-browser")


class Browser:
    """One page. Messages are JSON objects, each ended by a zero byte; the browser reads them from its
    descriptor 3 and writes to 4."""

    def __init__(self):
        self.profile = tempfile.mkdtemp(prefix="velmarin-browser-")
        to_browser, self.writer = os.pipe()
        self.reader, from_browser = os.pipe()
        script = f'exec "$0" "$@" 3<&{to_browser} 4>&{from_browser}'
        self.process = subprocess.Popen(
            ["sh", "-c", script, program(), *SWITCHES, "--user-data-dir=" + self.profile],
            pass_fds=(to_browser, from_browser), stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self.received = b""
        self.last_id = 0
        self.session = None
        self.events = []
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Network", "Log"):
            self.call(domain + ".enable")

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self.writer)
        os.close(self.reader)
        shutil.rmtree(self.profile, ignore_errors=True)

    def receive(self):
        end = time.monotonic() + DEADLINE
        while b"\0" not in self.received:
            if not select.select([self.reader], [], [], max(0, end - time.monotonic()))[0]:
                raise AssertionError("the browser does not answer")
            part = os.read(self.reader, 65536)
            if not part:
                raise AssertionError("the browser has ended")
            self.received += part
        message, self.received = self.received.split(b"\0", 1)
        return json.loads(message)

    def call(self, method, **parameters):
        self.last_id += 1
        message = {"id": self.last_id, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.writer, json.dumps(message).encode() + b"\0")
        while True:
            answer = self.receive()
            if answer.get("id") == self.last_id:
                if "error" in answer:
                    raise AssertionError(f"{method}: {answer['error']}")
                return answer["result"]
            self.events.append(answer)

    def open(self, path):
        """Loads a page and waits until it is complete. Returns what happened meanwhile."""
        self.events.clear()
        self.call("Page.navigate", url="file://" + path)
        while not any(event.get("method") == "Page.loadEventFired" for event in self.events):
            self.events.append(self.receive())
        return self.events

    def evaluate(self, script):
        """The value of a script in the page."""
        answer = self.call("Runtime.evaluate", expression=script, returnByValue=True,
                           awaitPromise=True)
        if "exceptionDetails" in answer:
            raise AssertionError(answer["exceptionDetails"])
        return answer["result"].get("value")
