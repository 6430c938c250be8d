"""Looks at the status page with a real browser: status_page_test.py SCENE-SERVER SCREENSHOT-FOLDER.

Leaves a screenshot of each state in the folder. Ends with 77, which the test driver reads as skipped, if there is no
Chromium.
"""
import json
import os
import shutil
import subprocess
import sys
import unittest
import urllib.request

from chromium import Browser

SCENE_SERVER = ""
FOLDER = ""


def number(text):
    """The value of a figure as the page writes it: thin spaces between thousands, k and M behind."""
    text = text.replace("<\u20090.1", "0.05")
    digits, _, unit = text.rpartition("\u2009") if text and not text[-1].isdigit() else (text, "", "")
    return float(digits.replace("\u2009", "")) * {"": 1, "k": 1e3, "M": 1e6, "G": 1e9}[unit]


class Scene:
    """The scene server with one scene."""

    def __init__(self, name):
        self.process = subprocess.Popen([SCENE_SERVER, name, "127.0.0.1:0"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)
        self.url = f"http://127.0.0.1:{int(self.process.stdout.readline())}/"

    def status(self):
        with urllib.request.urlopen(self.url + "status.json", timeout=20) as answer:
            return json.load(answer)

    def close(self):
        self.process.stdin.close()
        self.process.wait()
        self.process.stdout.close()


class StatusPageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser(shutil.which("chromium"))

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()

    def show(self, scene, view="", **size):
        """Opens the page and waits for its second look, which brings the first rates."""
        self.browser.messages.clear()
        self.scene = Scene(scene)
        self.addCleanup(self.scene.close)
        self.addCleanup(self.browser.leave)  # runs first: a page that outlives its server complains to the next test
        self.browser.open(self.scene.url + view, **size)
        self.browser.wait("typeof model == 'object' && model.total.samples.length >= 2")

    def picture(self, name, whole=False):
        self.browser.screenshot(os.path.join(FOLDER, name + ".png"), whole)
        self.assertEqual([], self.browser.messages, "the page complained")

    def text(self, selector):
        return self.browser.run(f"document.querySelector({json.dumps(selector)}).textContent")

    def keys(self):
        return self.browser.run("[...document.querySelectorAll('#rows tr.row')].map(row => row.dataset.key)")

    def column(self, name):
        return self.browser.run(f"[...document.querySelectorAll('#rows tr.row td.c-{name}')].map(c => c.textContent)")

    def sort_by(self, name):
        self.browser.run(f"document.querySelector('th[data-column={name}] button').click()")
        return self.browser.run(f"document.querySelector('th[data-column={name}]').getAttribute('aria-sort')")

    def press(self, key, text=None):
        for kind in ("keyDown", "keyUp"):
            more = {"text": text} if text and kind == "keyDown" else {}
            self.browser.call("Input.dispatchKeyEvent", type=kind, key=key, **more)

    def test_idle_gateway_says_so(self):
        self.show("idle")
        self.assertEqual("routing", self.text("#state"))
        self.assertEqual("No process has registered.", self.text("#none"))
        self.assertIn("nothing is being dropped", self.text("#attention"))
        self.picture("idle")
        self.assertEqual(
            ["No process has registered.", "Nobody has talked to anybody yet.",
             "Nobody has talked to anybody since this page was opened."],
            self.browser.run("""(() => {
              const one = (frames) => { model.list = [{}]; map.edges = []; model.snapshot.totals.frames_in = frames;
                                        showCaption(""); return byId("caption").textContent; };
              return [byId("caption").textContent, one(0), one(11892)];
            })()"""))

    def test_figures_live(self):
        self.show("load")
        self.assertEqual("50 processes", self.text("#shown"))
        before = self.browser.run("[model.snapshot.taken_ms, model.snapshot.totals.frames_in]")
        self.browser.wait(f"model.snapshot.taken_ms > {before[0]} + 4000")
        after = self.browser.run("[model.snapshot.taken_ms, model.snapshot.totals.frames_in]")
        self.assertGreater(after[1], before[1])
        # in one call, since the next look may come between two
        shown, unit, first, last = self.browser.run(
            "[figureParts.in.value.textContent, figureParts.in.unit.textContent].concat("
            "[0, model.total.samples.length - 1].map(i => "
            "[[model.total.samples[i].time, model.total.samples[i].values[0]]]).flat())")
        rate = 1000 * (last[1] - first[1]) / (last[0] - first[0])
        self.assertAlmostEqual(rate, number(shown + "\u2009" + unit[:-2] if unit != "/s" else shown), delta=0.006 * rate)
        self.assertTrue(all(number(value) >= 0 for value in self.column("in")))
        self.picture("load")
        self.browser.run("select('20.16')")
        self.assertIn("hears from 10.", self.text("#caption"))
        self.picture("load-selected")

    def test_sorts_by_every_column(self):
        self.show("load")
        pipes = self.scene.status()["pipes"]
        by_process = [f"{p['id']}.{p['handle']}" for p in sorted(pipes, key=lambda p: (p["id"], p["handle"]))]
        self.assertEqual("ascending", self.sort_by("process"))
        self.assertEqual(by_process[:10], self.keys()[:10])
        self.assertEqual("descending", self.sort_by("process"))
        self.assertEqual(by_process[::-1][:10], self.keys()[:10])
        for name in ("in", "out"):
            self.assertEqual("descending", self.sort_by(name))
            values = [number(value) for value in self.column(name)]
            self.assertEqual(sorted(values, reverse=True), values)
            self.assertGreater(values[0], values[-1])
            self.assertEqual("ascending", self.sort_by(name))
            values = [number(value) for value in self.column(name)]
            self.assertEqual(sorted(values), values)
        self.sort_by("address")
        shown = [[int(part) for part in text.replace(":", ".").split(".")] for text in self.column("address")]
        self.assertEqual(sorted(shown), shown)

    def test_filters_by_keyboard_and_keeps_the_view(self):
        self.show("load")
        self.press("/", "/")
        self.browser.call("Input.insertText", text="20.1")
        expected = sum(f"{p['id']}.{p['handle']}".startswith("20.1") for p in self.scene.status()["pipes"])
        self.assertEqual(f"{expected} of 50 processes", self.text("#shown"))
        self.assertTrue(all(key.startswith("20.1") for key in self.keys()))
        self.browser.run("window.beforeReload = true")
        self.browser.call("Page.reload")
        self.browser.wait("!window.beforeReload && typeof model == 'object' && model.snapshot != null")
        self.assertEqual(f"{expected} of 50 processes", self.text("#shown"))
        self.press("Escape")
        self.assertEqual("50 processes", self.text("#shown"))
        self.browser.run("setFilter('no-such')")
        self.assertEqual("No process matches.", self.text("#none"))

    def test_shows_what_is_slow_first(self):
        self.show("slow")
        self.assertEqual(["20.13", "36.34", "33.45", "10.4"], self.keys()[:4])
        self.assertEqual(["slow", "dropped", "silent", "held"], self.column("state")[:4])
        self.assertIn("33.45 does not answer", self.text("#attention"))
        self.assertIn("20.13 is slow", self.text("#attention"))
        self.assertIn("slow, dropped or silent", self.browser.run("document.title"))
        self.assertEqual("1", self.browser.run("figureParts.slow.value.textContent"))
        self.assertTrue(self.browser.run("document.querySelector('#map .edge.to-slow') != null"))
        self.picture("slow")
        self.browser.run("document.querySelector('#attention button').click()")
        self.assertEqual(["20.13"], self.keys())
        self.assertIn("20.13", self.text("#caption"))
        self.browser.open(self.scene.url, dark=True)
        self.browser.wait("typeof model == 'object' && model.total.samples.length >= 2")
        self.picture("slow-dark")

    def test_stays_readable_with_two_thousand(self):
        self.show("many")
        self.assertEqual("2\u2009000 processes", self.text("#shown"))
        self.assertLess(len(self.keys()), 80, "rows that nobody sees")
        self.assertEqual("2001", self.browser.run("document.querySelector('#table').getAttribute('aria-rowcount')"))
        self.sort_by("process")
        last = self.scene.status()["pipes"]
        last = max((p["id"], p["handle"]) for p in last)
        self.browser.run("document.querySelector('#scroller').scrollTop = 1e9")
        self.browser.wait(f"[...document.querySelectorAll('#rows tr.row')].pop().dataset.key == '{last[0]}.{last[1]}'")
        self.assertLessEqual(self.browser.run("document.querySelectorAll('#map .node').length"), 48)
        self.assertLessEqual(self.browser.run("document.querySelectorAll('#map .edge').length"), 240)
        self.browser.run("document.querySelector('#scroller').scrollTop = 0")
        self.sort_by("bytes")
        self.picture("many")
        busy = self.browser.run("(() => { const t = performance.now(); showAll(); return performance.now() - t; })()")
        print(f"one look at 2,000 processes keeps the browser busy for {busy:.0f} ms")

    def test_fits_a_narrow_window(self):
        for scene in ("many", "slow"):
            with self.subTest(scene):
                self.show(scene, width=420, height=860)
                self.assertEqual(420, self.browser.run("document.documentElement.scrollWidth"))
                self.assertLess(len(self.keys()), 80)
                self.assertTrue(self.browser.run("document.querySelector('td.c-queue').offsetWidth > 40"))
        self.picture("narrow", whole=True)

    def test_shows_foreign_text_as_text(self):
        self.show("hostile", dark=True)
        self.browser.wait("document.querySelectorAll('#event-rows tr').length == 4")
        events = self.browser.run("[...document.querySelectorAll('#event-rows td.text')].map(c => c.textContent)")
        self.assertEqual("<img src=x onerror=\"document.title='owned'\">", events[3])
        self.assertEqual("</script><script>document.title='owned'</script>", events[2])
        self.assertNotIn("owned", self.browser.run("document.title"))
        self.assertEqual(0, self.browser.run("document.querySelectorAll('main img, main script, #settings b').length"))
        self.picture("hostile-dark")

    def test_tells_draining_and_silence(self):
        self.show("draining")
        self.assertEqual("draining", self.text("#state"))
        self.picture("draining")
        self.scene.process.kill()
        self.browser.wait("document.querySelector('#state').textContent.startsWith('no answer')")
        self.assertTrue(self.browser.run("document.body.classList.contains('stale')"))

    def test_can_be_read_and_operated(self):
        ratio = """(() => {
          const style = getComputedStyle(document.documentElement);
          const light = (name) => {
            const hex = style.getPropertyValue(name).trim().slice(1);
            const part = (i) => { const c = parseInt(hex.substr(i, 2), 16) / 255;
                                  return c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4; };
            return 0.2126 * part(0) + 0.7152 * part(2) + 0.0722 * part(4);
          };
          const on = (ink, paper) => { const a = light(ink), b = light(paper);
                                       return (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05); };
          return [["--ink", "--panel"], ["--soft", "--panel"], ["--faint", "--panel"], ["--faint", "--ground"],
                  ["--soft", "--ground"], ["--good", "--ground"], ["--held", "--panel"], ["--bad", "--panel"],
                  ["--bad", "--bad-soft"], ["--held", "--held-soft"], ["--ink", "--select"]].map(
            ([ink, paper]) => [ink + " on " + paper, on(ink, paper)]);
        })()"""
        for dark in (False, True):
            self.show("slow", dark=dark)
            for pair, value in self.browser.run(ratio):
                with self.subTest(pair, dark=dark):
                    self.assertGreaterEqual(value, 4.5)
        self.assertEqual([], self.browser.run(
            "[...document.querySelectorAll('button, input, a')].filter(e => !(e.textContent.trim() || "
            "e.getAttribute('aria-label'))).map(e => e.outerHTML)"), "without a name for a screen reader")


if __name__ == "__main__":
    SCENE_SERVER, FOLDER = sys.argv[1:3]
    if shutil.which("chromium") is None:
        print("skipped: Chromium is not installed (package chromium), so nobody has looked at the page")
        sys.exit(77)
    os.makedirs(FOLDER, exist_ok=True)
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
