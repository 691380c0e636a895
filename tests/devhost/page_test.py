#!/usr/bin/env python3
"""The page of a run in a real browser: the decision is found, an event is clicked, lines fold out.

usage: page_test.py WINE_RUN PROGRAM SCENARIO
"""
import contextlib
import json
import pathlib
import subprocess
import sys
import tempfile
import time
import urllib.request

ODD = "<!--<script>,</script><b id=smuggled>,'\""
PAGE_SCRIPT = "return [performance.getEntriesByType('resource').length, document.title]"


class Browser:
    """A headless browser behind its driver; the WebDriver protocol is JSON over HTTP."""

    def __init__(self, log):
        self.driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE,
                                       stderr=log, text=True)
        for line in self.driver.stdout:
            if "started successfully on port" in line:
                self.base = "http://127.0.0.1:" + line.split()[-1].rstrip(".")
                break
        options = {"args": ["--headless", "--no-sandbox", "--disable-gpu", "--window-size=1280,1000"]}
        session = self.call("POST", "/session", {"capabilities": {"alwaysMatch": {
            "goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"}}}})
        self.base += "/session/" + session["sessionId"]

    def call(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.base + path, data, {"Content-Type": "application/json"},
                                         method=method)
        with urllib.request.urlopen(request, timeout=60) as answer:
            return json.load(answer)["value"]

    def open(self, page, scheme):
        media = {"features": [{"name": "prefers-color-scheme", "value": scheme}]}
        self.call("POST", "/goog/cdp/execute", {"cmd": "Emulation.setEmulatedMedia", "params": media})
        self.call("POST", "/url", {"url": page.as_uri()})

    def run(self, script):
        return self.call("POST", "/execute/sync", {"script": script, "args": []})

    def find(self, selector):
        return list(self.call("POST", "/element",
                              {"using": "css selector", "value": selector}).values())[0]

    def click(self, selector):
        self.call("POST", f"/element/{self.find(selector)}/click", {})

    def text(self, selector):
        return self.call("GET", f"/element/{self.find(selector)}/text")

    def close(self):
        with contextlib.suppress(Exception):
            self.call("DELETE", "")
        self.driver.terminate()


def check(holds, what):
    if not holds:
        sys.exit("FAILED: " + what)


def main(wine, program, scenario):
    with tempfile.TemporaryDirectory() as folder:
        page = pathlib.Path(folder, "run.html")
        subprocess.run([wine, program, "run", "--quiet", "--log", "none", "--html", str(page), scenario],
                       check=True, stdout=subprocess.DEVNULL)
        odd = pathlib.Path(folder, "odd.html")
        subprocess.run([wine, program, "replay", "--html", str(odd), "--product", f"management:{ODD}",
                        "--events", str(pathlib.Path(scenario).parent / "evidence" / "System.json")],
                       check=True, stdout=subprocess.DEVNULL)
        with open(pathlib.Path(folder, "driver.log"), "w") as log:
            browser = Browser(log)
            try:
                look(browser, page)
                look_at_odd(browser, odd)
            finally:
                browser.close()
    print("the page shows the decision and answers clicks")


def look(browser, page):
    browser.open(page, "light")
    resources, title = browser.run(PAGE_SCRIPT)
    check(resources == 0, f"the page loads {resources} other files")
    check("default.json" in title, f"the title is {title!r}")

    # The decision of the first boot is marked in the picture and told below it.
    check("crach!" in browser.text("#boot1 .shown"), "the decision is not told below the picture")
    marked = browser.run("return document.querySelectorAll('#boot1 tr.decided').length")
    check(marked >= 2, f"{marked} rows of the first boot are marked as decisions")
    lanes = browser.run("return [...document.querySelectorAll('#boot1 svg > text')].map(t => t.textContent)")
    for lane in ("machine", "plug-in", "guard", "management"):
        check(lane in lanes, f"there is no lane {lane}: {lanes}")

    # A click on the plug-in's dot at the moment of the orders shows the orders as they stand.
    browser.run("""
        const at = data.timeline.findIndex(e => e.kind === 'command' && e.whom === 'guard');
        [...document.querySelectorAll('#boot1 .dot')].find(
            d => d.dataset.events.split(' ').includes(String(at))).id = 'wanted'""")
    browser.click("#wanted")
    shown = browser.text("#boot1 .shown")
    check('"type": "bypass"' in shown and '"reason": "guard_flt"' in shown,
          f"the click does not show the order: {shown!r}")

    # Lines of the plug-in fold out, and were not there before.
    count = "return document.querySelectorAll('#boot1 details.lines tr').length"
    check(browser.run(count) == 0, "lines stand there before they are asked for")
    browser.click("#boot1 details.lines summary")
    end = time.monotonic() + 10 # the browser tells the page a moment later
    while browser.run(count) == 0:
        check(time.monotonic() < end, "lines do not fold out")

    colour = "return getComputedStyle(document.body).backgroundColor"
    light = browser.run(colour)
    browser.open(page, "dark")
    check(browser.run(colour) != light, "dark is as light")
    errors = [entry["message"] for entry in browser.call("POST", "/se/log", {"type": "browser"})
              if entry["level"] == "SEVERE"]
    check(not errors, f"the browser complains: {errors}")


def look_at_odd(browser, page):
    """Names that would end the page's script, and a product that is called as a lane is."""
    browser.open(page, "light")
    check("Verdict: " in browser.text("#verdict"), "odd names break the page")
    check(browser.run("return document.querySelector('#smuggled') === null"), "a name became a part of the page")
    lanes = browser.run("return [...document.querySelectorAll('svg > text')].map(t => t.textContent)")
    check(lanes.count("management") == 2, f"the product has no lane of its own: {lanes}")


if __name__ == "__main__":
    main(*sys.argv[1:])
