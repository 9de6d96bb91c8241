#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""qdlogview -o html in a browser without a screen: what the page shows is what qdlogview tells, hostile texts
are texts, and 200,000 records open, zoom and filter at once. REPORT_PICTURES is a directory for pictures."""
import base64
import json
import os
import random
import shutil
import subprocess
import sys
import time
import unittest

from qdul_testing import HERE, plain_environment, program, read, string, write

BROWSER = shutil.which("chromium")
PICTURES = os.environ.get("REPORT_PICTURES")
T0 = 1709300702123
LARGE = 200000
HOSTILE = [b"</script><script>document.title='broken'</script>", b"<img src=x onerror=\"document.title='broken'\">", b"<!-- <script>",
           b"quote\" back\\slash 'single' `tick` ${1}", b"bad \xff\xfe utf-8", b"nul \x00 esc \x1b[31m", "right \u202e left".encode(),
           b"two\rlines", b"]]>&lt;&amp;", "\u2028 and \u2029".encode(), b"__proto__", b"x" * 200000]


class Browser:
    """A page that is steered through two pipes."""

    def __init__(self, path):
        to_browser, self.to = os.pipe()
        self.back, from_browser = os.pipe()

        def descriptors():
            saved = [os.dup(to_browser), os.dup(from_browser)]
            for wanted, number in zip((3, 4), [os.dup2(saved[0], 60), os.dup2(saved[1], 61)]):
                os.dup2(number, wanted)

        words = [BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--remote-debugging-pipe", f"--user-data-dir={HERE}/browser",
                 "--window-size=1300,900", "--hide-scrollbars", "--disable-dev-shm-usage", "--no-first-run", "--disable-extensions"]
        self.process = subprocess.Popen(words, preexec_fn=descriptors, close_fds=False, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env={**os.environ, "HOME": HERE, "TZ": "UTC"})
        os.close(to_browser)
        os.close(from_browser)
        self.rest = b""
        self.number = 0
        self.events = []
        self.session = None
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log", "Network", "Performance"):
            self.call(domain + ".enable")
        start = time.monotonic()
        self.call("Page.navigate", url="file://" + path)
        self.wait_for("Page.loadEventFired")
        self.evaluate("1")
        self.opened = time.monotonic() - start
        self.opened_cpu = self.cpu()  # of a process of its own

    def cpu(self):
        """The seconds that the page's process has worked."""
        return next(each["value"] for each in self.call("Performance.getMetrics")["metrics"] if each["name"] == "ProcessTime")

    def measure(self, expression):
        """Milliseconds that an expression took, and worked: a busy machine makes it wait."""
        before = self.cpu()
        took = self.evaluate(expression)
        return took, (self.cpu() - before) * 1000

    def read(self):
        while b"\0" not in self.rest:
            block = os.read(self.back, 1 << 20)
            if not block:
                raise RuntimeError("the browser ended")
            self.rest += block
        message, self.rest = self.rest.split(b"\0", 1)
        return json.loads(message)

    def call(self, method, **parameters):
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.to, json.dumps(message).encode() + b"\0")
        while True:
            answer = self.read()
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise RuntimeError(answer["error"])
                return answer["result"]
            self.events.append(answer)

    def wait_for(self, method):
        while not any(event.get("method") == method for event in self.events):
            self.events.append(self.read())

    def evaluate(self, expression):
        answer = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(answer["exceptionDetails"])
        return answer["result"].get("value")

    def set(self, id, value, event="change"):
        self.evaluate(f"(() => {{ const e = document.getElementById({json.dumps(id)}); e.value = {json.dumps(value)};"
                      f" e.dispatchEvent(new Event({json.dumps(event)})); }})()")
        if event == "input":  # filtering waits for the end of typing
            self.evaluate("new Promise((done) => setTimeout(done, 120))")

    def key(self, name, modifiers=0):
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=name, modifiers=modifiers)

    def count(self):
        return int(self.evaluate("document.getElementById('status').textContent").split()[0])

    def bars(self):
        """The histogram's table: {begin: records}."""
        return dict(self.evaluate("(() => { document.getElementById('counts').open = true;"
                                  " document.getElementById('counts').dispatchEvent(new Event('toggle'));"
                                  " return [...document.querySelectorAll('#table tbody tr')].map((row) =>"
                                  " [row.cells[0].textContent, Number(row.cells[1].textContent)]); })()"))

    def picture(self, name):
        if PICTURES:
            data = base64.b64decode(self.call("Page.captureScreenshot", format="png")["data"])
            with open(f"{PICTURES}/{name}.png", "wb") as file:
                file.write(data)

    def complaints(self):
        found = []
        for event in self.events:
            method, parameters = event.get("method"), event.get("params", {})
            if method == "Runtime.exceptionThrown" or method == "Log.entryAdded" and parameters["entry"]["level"] in ("error", "warning"):
                found.append(parameters)
            if method == "Runtime.consoleAPICalled" and parameters["type"] in ("error", "warning"):
                found.append(parameters)
            if method == "Network.requestWillBeSent" and not parameters["request"]["url"].startswith(("file:", "data:")):
                found.append(parameters)
        return found

    def close(self):
        self.process.terminate()
        self.process.wait()
        os.close(self.to)
        os.close(self.back)


def record(id, time_, kind, product, originator, pid, context, text, tail):
    return b"%d,%d,%d,7,%d,%d,%d,43,%s%s%s\n" % (kind, product, originator, id, time_, pid, string(context), string(text), tail)


def tail_of(kind, who, number):
    if kind == 0:
        return string(who) + b"%d" % number
    if kind == 3:
        return string(who) + b"(0|)"
    return string(who) + b"%d,(0|)" % number


def make_log(count):
    chance = random.Random(count)
    lines = [b"$Header 65543,5,7,%d,0,hostA\n" % (T0 // 1000)]
    when = T0
    words = [b"disk", b"full", b"request", b"answered", b"Error", b"cache", b"miss", b"user", b"login", b"timeout"]
    for id in range(1, count + 1):
        when += chance.choice((0, 3, 20, 200)) + (1800000 if id % 50021 == 0 else 0)
        kind = chance.choices((0, 1, 2, 3, 4), (20, 10, 60, 3, 7))[0]
        context = b"job-%d" % chance.randrange(40) if chance.random() < 0.3 else b""
        who = {3: context or b"job-1", 4: chance.choice((b"alice", b"bob"))}.get(kind, chance.choice((b"mgr", b"net", b"net.tcp", b"store")))
        text = b" ".join(chance.choice(words) for _ in range(chance.randrange(4, 12)))
        if id <= len(HOSTILE):
            text = HOSTILE[id - 1]
            kind, who = 2, b"<b>who</b>"
        number = chance.randrange(5) if kind == 2 else chance.randrange(1, 5)
        lines.append(record(id, when, kind, chance.choice((5, 6)), chance.choice((7, 8)), chance.randrange(40, 44), context, text,
                            tail_of(kind, who, number)))
    with open(f"{HERE}/all-{count}.log", "wb") as file:
        file.write(b"".join(lines))
    return f"{HERE}/all-{count}.log"


ENVIRONMENT = plain_environment(ZOLTLOG_CFG_LOC="zoltlog.conf")


def view(*words):
    done = subprocess.run([program("qdlogview"), *words], capture_output=True, env=ENVIRONMENT)
    if done.returncode not in (0, 1):
        raise RuntimeError(done.stderr)
    return done.stdout


# Drags over a fifth of the histogram.
ZOOM = """
    const canvas = document.getElementById('histogram'), box = canvas.getBoundingClientRect();
    for (const [name, part] of [['pointerdown', 0.3], ['pointermove', 0.4], ['pointerup', 0.5]])
        canvas.dispatchEvent(new PointerEvent(name, { pointerId: 1, button: 0, bubbles: true, clientX: box.left + box.width * part, clientY: box.top + 20 }))"""


class Report(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        write("zoltlog.conf", f"5.Configuration={HERE}/a.conf\n5.Names=server\n6.Configuration={HERE}/b.conf\n6.Names=</script>\n")
        write("a.conf", "7.OIDNames=disk\n")
        write("b.conf", "8.OIDNames=net\n")
        cls.log = make_log(LARGE)
        start = time.monotonic()
        page = view("-o", "html", cls.log)
        cls.made = time.monotonic() - start
        with open("report.html", "wb") as file:
            file.write(page)
        cls.browser = Browser(f"{HERE}/report.html")

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()

    def setUp(self):
        self.browser.evaluate("document.getElementById('clear').click()")

    def told(self, *words):
        return int(view("--count", *words, self.log))

    def test_a_it_opens_and_answers_at_once(self):
        self.assertEqual(self.browser.count(), LARGE)
        self.browser.picture("light")
        timed = """(() => { const start = performance.now(); %s; document.body.offsetHeight; return performance.now() - start; })()"""
        change = "(e => { e.value = %s; e.dispatchEvent(new Event('change')); })(document.getElementById('%s'))"
        spent = {"severity": self.browser.measure(timed % (change % ("6", "severity")))}
        spent["product"] = self.browser.measure(timed % (change % ("0", "product")))
        self.browser.evaluate("document.getElementById('clear').click()")
        # Filters that wait for the end of typing are asked through one that does not.
        for name, id, value in (("text", "text", "timeout"), ("component", "component", "net*"), ("context", "context", "job-1?")):
            self.browser.evaluate(f"document.getElementById('{id}').value = {json.dumps(value)}")
            spent[name] = self.browser.measure(timed % (change % ("0", "severity")))
            self.browser.evaluate("document.getElementById('clear').click()")
        spent["zoom"] = self.browser.measure(timed % ZOOM)
        self.browser.evaluate("document.getElementById('clear').click()")
        scroll = "new Promise((done) => { const start = performance.now(); const view = document.getElementById('records'); view.scrollTop = %d;" \
                 " requestAnimationFrame(() => requestAnimationFrame(() => done(performance.now() - start))); })"
        spent["scroll"] = max(self.browser.measure(scroll % place) for place in (100000, 4000000, 300))
        size = os.path.getsize("report.html")
        print(f"{LARGE} records: page of {size / 1e6:.1f} MB made in {self.made:.2f} s, opened in {self.browser.opened:.2f} s "
              f"({self.browser.opened_cpu:.2f} s of processor); milliseconds (of processor):",
              ", ".join(f"{name} {took:.0f} ({cpu:.0f})" for name, (took, cpu) in spent.items()), file=sys.stderr)
        self.assertLess(min(self.browser.opened, self.browser.opened_cpu), 2)
        for name, both in spent.items():
            self.assertLess(min(both), 100, name)

    def test_the_histogram_is_what_stats_tells(self):
        for unit, length, shown in (("minute", 60000, 16), ("hour", 3600000, 13), ("day", 86400000, 10)):
            stats = json.loads(view("--stats", f"--per={unit}", "--utc", "-o", "json", self.log))[f"per_{unit}"]
            self.browser.set("unit", str(length))
            bars = self.browser.bars()
            self.assertEqual({begin[:shown]: count for begin, count in bars.items()},
                             {row["begin"].replace("T", " ")[:shown]: row["records"] for row in stats})
            self.assertEqual(sum(bars.values()), LARGE)

    def test_filters_find_what_count_tells(self):
        cases = [({"severity": "6"}, ["-p", "error"]), ({"severity": "2"}, ["-p", "info"]), ({"severity": "4"}, ["-p", "audit"]),
                 ({"product": "5(server)"}, ["-P", "5"]), ({"originator": "7(disk)", "product": "5(server)"}, ["-P", "5", "-u", "7"]),
                 ({"component": "net"}, ["-t", "net"]), ({"component": "net*"}, ["-t", "net*"]), ({"component": "<b>who</b>"}, ["-t", "<b>who</b>"]),
                 ({"context": "job-7"}, ["-c", "job-7"]), ({"context": "job-1?"}, ["-c", "job-1?"]), ({"text": "timeout"}, ["-g", "timeout", "-i"]),
                 ({"text": "Error", "case": True}, ["-g", "Error"]), ({"text": "^disk.*(full|miss)$", "regex": True, "case": True}, ["-g", "^disk.*(full|miss)$"]),
                 ({"severity": "5", "context": "job-3", "text": "cache"}, ["-p", "warning", "-c", "job-3", "-g", "cache"]),
                 ({"text": "nothing like this"}, ["-g", "nothing like this"])]
        for filters, words in cases:
            with self.subTest(filters):
                self.browser.evaluate("document.getElementById('clear').click()")
                for id, value in filters.items():
                    if value is True:
                        self.browser.evaluate(f"document.getElementById('{id}').click()")
                        continue
                    if id in ("product", "originator"):
                        value = self.browser.evaluate(f"[...document.getElementById('{id}').options].find((o) => o.label === {json.dumps(value)}).value")
                    self.browser.set(id, value, "input" if id in ("component", "context", "text") else "change")
                self.assertEqual(self.browser.count(), self.told(*words))

    def test_dragging_zooms_to_whole_bars(self):
        self.browser.set("unit", "3600000")
        before = self.browser.bars()
        self.browser.evaluate("(() => { %s; })()" % ZOOM)
        inside = self.browser.bars()
        self.assertTrue(0 < len(inside) < len(before))
        self.assertEqual(inside, {begin: before[begin] for begin in inside})
        self.assertEqual(self.browser.count(), sum(inside.values()))
        self.browser.picture("zoomed")
        self.browser.set("unit", "0")
        self.assertEqual(sum(self.browser.bars().values()), sum(inside.values()))
        self.browser.evaluate("document.getElementById('out').click()")
        self.assertEqual(self.browser.count(), LARGE)

    def test_the_keyboard_zooms_selects_and_shows(self):
        self.browser.set("unit", "3600000")
        before = list(self.browser.bars().items())
        self.browser.evaluate("document.getElementById('histogram').focus()")
        for _ in range(2):
            self.browser.key("ArrowRight")
        self.browser.key("ArrowRight", modifiers=8)
        self.browser.key("Enter")
        self.assertEqual(self.browser.count(), before[1][1] + before[2][1])
        self.browser.key("Escape")
        self.assertEqual(self.browser.count(), LARGE)
        self.browser.evaluate("document.getElementById('records').focus()")
        self.browser.key("End")
        self.assertEqual(self.browser.evaluate("document.querySelector('.row.chosen').getAttribute('aria-rowindex')"), str(LARGE + 1))
        self.browser.key("ArrowUp")
        self.browser.key("Enter")
        detail = self.browser.evaluate("document.getElementById('detail').textContent")
        last = json.loads(view("-o", "json", self.log).splitlines()[-2])
        self.assertIn(f"{last['file']}@{last['offset']}", detail)
        self.assertIn(last["text"], detail)
        self.browser.key("Home")
        self.assertEqual(self.browser.evaluate("document.querySelector('.row.chosen').getAttribute('aria-rowindex')"), "2")

    def test_hostile_texts_are_texts(self):
        self.browser.evaluate("document.getElementById('records').focus()")
        for number, text in enumerate(HOSTILE):
            self.browser.key("Home" if number == 0 else "ArrowDown")
            self.browser.key("Enter")
            shown = self.browser.evaluate("[...document.querySelectorAll('#detail dd')].pop().textContent")
            self.assertEqual(len(shown) >= len(text.decode(errors="replace")), True)
            for part in (b"</script><script>", b"onerror", b"<!--", b"quote\"", b"&lt;"):
                if part in text:
                    self.assertIn(part.decode(), shown)
            self.assertNotRegex(shown, "[\x00-\x09\x0b-\x1f\u202a-\u202e\u2028\u2029]")
        self.browser.picture("hostile")
        self.assertEqual(self.browser.evaluate("[document.title, document.images.length, [...document.scripts].filter((s) => !s.type).length, document.querySelectorAll('#records b b').length]"),
                         ["Log records", 0, 1, 0])

    def test_it_is_printable_dark_and_for_screen_readers(self):
        self.browser.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "dark"}])
        self.assertEqual(self.browser.evaluate("getComputedStyle(document.body).backgroundColor"), "rgb(13, 17, 23)")
        self.browser.picture("dark")
        self.browser.call("Emulation.setEmulatedMedia", media="", features=[])
        pdf = base64.b64decode(self.browser.call("Page.printToPDF", printBackground=True)["data"])
        self.assertGreater(len(pdf), 50000)  # with two thousand records
        if PICTURES:
            with open(f"{PICTURES}/report.pdf", "wb") as file:
                file.write(pdf)
        nodes = self.browser.call("Accessibility.getFullAXTree")["nodes"]
        roles = {node["role"]["value"] for node in nodes if "role" in node}
        self.assertLessEqual({"table", "row", "cell", "columnheader", "status", "combobox", "searchbox", "button", "heading"}, roles)
        nameless = [node["role"]["value"] for node in nodes if node.get("role", {}).get("value") in ("combobox", "searchbox", "textbox", "button", "checkbox")
                    and not node.get("name", {}).get("value")]
        self.assertEqual(nameless, [])

    def test_z_nothing_was_complained_about_or_fetched(self):
        self.assertEqual(self.browser.complaints(), [])


if __name__ == "__main__":
    if BROWSER is None:
        print("skipped: no browser (Debian: chromium)")
        sys.exit(77)
    unittest.main()
