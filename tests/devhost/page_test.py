#!/usr/bin/env python3
"""The pages of a run and of a replay in a real browser: what they say first, what a click, the filter
and the way to a boot do, print, phone, and accessibility (where axe-core is installed).

usage: page_test.py WINE_RUN PROGRAM SCENARIO AXE      AXE: axe.min.js, which may be missing
"""
import base64
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

    def device(self, command, **parameters):
        return self.call("POST", "/goog/cdp/execute", {"cmd": command, "params": parameters})

    def violations(self, axe, options):
        """What axe-core complains of on the open page."""
        self.run(axe + "; window.axe = axe")
        return self.call("POST", "/execute/async", {"args": [options], "script": """
            const [options, done] = arguments;
            axe.run(options).then(found => done(found.violations.map(v => [v.id, v.nodes[0].html])))"""})

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


def main(wine, program, scenario, axe_file):
    with tempfile.TemporaryDirectory() as folder:
        page = pathlib.Path(folder, "run.html")
        subprocess.run([wine, program, "run", "--quiet", "--log", "none", "--html", str(page), scenario],
                       check=True, stdout=subprocess.DEVNULL)
        evidence = pathlib.Path(scenario).parent / "evidence"
        case = pathlib.Path(folder, "case.html")
        subprocess.run([wine, program, "replay", "--html", str(case), "--product", "guard:guard_flt", str(evidence)],
                       check=True, stdout=subprocess.DEVNULL)
        odd = pathlib.Path(folder, "odd.html")
        subprocess.run([wine, program, "replay", "--html", str(odd), "--product", f"management:{ODD}",
                        "--events", str(evidence / "System.evtx")],
                       check=True, stdout=subprocess.DEVNULL)
        with open(pathlib.Path(folder, "driver.log"), "w") as log:
            browser = Browser(log)
            try:
                look(browser, page)
                look_at_case(browser, case)
                look_at_odd(browser, odd)
                checked = look_at_access(browser, axe_file, [page, case])
            finally:
                browser.close()
    print("the pages show what they should" + ("" if checked else "; not checked: axe-core is not installed"))


def look(browser, page):
    browser.open(page, "light")
    resources, title = browser.run(PAGE_SCRIPT)
    check(resources == 0, f"the page loads {resources} other files")
    check("default.json" in title, f"the title is {title!r}")

    # The decision of the first boot is marked in the picture and stated below it.
    check("the plug-in blames guard_flt: it is on the stack" in browser.text("#boot1 .shown"), "no decision below the picture")
    check(browser.text("#answer") == "Every expectation holds.", browser.text("#answer"))
    marked = browser.run("return document.querySelectorAll('#boot1 li.decided').length")
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
    count = "return document.querySelectorAll('#boot1 details.lines li').length"
    check(browser.run(count) == 0, "lines stand there before they are asked for")
    browser.click("#boot1 details.lines summary")
    end = time.monotonic() + 10 # the browser notifies the page a moment later
    while browser.run(count) == 0:
        check(time.monotonic() < end, "lines do not fold out")

    colour = "return getComputedStyle(document.body).backgroundColor"
    light = browser.run(colour)
    browser.open(page, "dark")
    check(browser.run(colour) != light, "dark is as light")
    errors = [entry["message"] for entry in browser.call("POST", "/se/log", {"type": "browser"})
              if entry["level"] == "SEVERE"]
    check(not errors, f"the browser complains: {errors}")


def look_at_case(browser, page):
    """The page of a customer's folder: answer first, every boot, filter, print and phone."""
    browser.open(page, "light")
    check(browser.text("#answer").startswith("Bypass: every product is ordered into bypass"), browser.text("#answer"))
    order = browser.run("return [...document.querySelectorAll('#main > section')].map(s => s.id)")
    check(order == ["evidence", "boots", "story", "timeline", "commands", "alarms", "products"], order)
    answers = browser.run("return [...document.querySelectorAll('#boots tbody tr')].map(r => r.cells[4].textContent)")
    check(answers == ["", "no bypass", "no bypass", "bypass"], answers)
    check("orders guard into bypass (blamed driver: guard_flt), delivered" in browser.text("#commands"), "no command")
    shown = """const input = document.getElementById("filter"); input.value = arguments[0] || "";
        input.dispatchEvent(new Event("input")); return [...document.querySelectorAll(".events > li")].filter(l => !l.hidden)
        .map(l => l.textContent)"""
    everything = len(browser.run(shown))
    left = browser.run(shown.replace('arguments[0] || ""', '"into bypass"'))
    check(0 < len(left) < everything and all("into bypass" in text for text in left), left)
    check(len(browser.run(shown)) == everything, "the filter does not go")
    pdf = base64.b64decode(browser.device("Page.printToPDF", preferCSSPageSize=True)["data"])
    check(1 <= pdf.count(b"/Type /Page\n") <= 3, f"{pdf.count(b'/Type /Page')} sheets")
    browser.device("Emulation.setDeviceMetricsOverride", width=390, height=844, deviceScaleFactor=1, mobile=True)
    browser.open(page, "light")
    width = browser.run("return document.documentElement.scrollWidth")
    check(width <= 390, f"a phone has to scroll to {width}")
    browser.device("Emulation.clearDeviceMetricsOverride")


def look_at_access(browser, axe_file, pages):
    if not pathlib.Path(axe_file).exists():
        return False
    axe = pathlib.Path(axe_file).read_text()
    colours = {"runOnly": ["color-contrast"]} # all else is the same in the dark
    for page in pages:
        for scheme, options in (("light", {}), ("dark", colours)):
            browser.open(page, scheme)
            check(not (found := browser.violations(axe, options)), f"{page.name} in {scheme}: {found}")
    return True


def look_at_odd(browser, page):
    """Names that would end the page's script, and a product that is called as a lane is."""
    browser.open(page, "light")
    check("Cannot tell: " in browser.text("#answer"), "odd names break the page")
    check(browser.run("return document.querySelector('#smuggled') === null"), "a name became a part of the page")
    lanes = browser.run("return [...document.querySelectorAll('#timeline svg > text')].map(t => t.textContent)")
    check(lanes.count("management") == 2, f"the product has no lane of its own: {lanes}")


if __name__ == "__main__":
    main(*sys.argv[1:])
