#!/usr/bin/env python3
"""The collector's page in headless Chromium, driven by Selenium. velto-collector runs with a fresh
database and the page open; only then does the library (libVelto through ctypes in a child process)
upload records, and the test reads the page: rows appear without a reload, markup in labels shows as
text, the counts, the chart and the exports match the API and what was sent, the uploads are listed.
A screenshot goes to BUILD/browser/collector.png.

    browser_test.py BUILD_DIR LIBVELTO [unittest arguments]

Exits 77 (skipped) when chromium, chromedriver or Debian's python3-selenium is missing."""
import collections
import csv
import ctypes
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

CHROMIUM, CHROMEDRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"
SCRIPT = "<script>window.velto_injected=1</script>"  # category and label: they must show as text
IMAGE = "<img src=x onerror=velto_injected=2>"
BUILD, LIBRARY = (sys.argv[1:3] + ["", ""])[:2]


def record_host(root, records):
    """The library in this process: starts, records [call, *args] for each record, stops and waits
    (bounded) for its last upload. Runs in a child process, a session of its own."""
    lib = ctypes.CDLL(LIBRARY)
    text, number = ctypes.c_char_p, ctypes.c_longlong
    lib.data_base_info.argtypes = [text, number, text, ctypes.c_int] + [text] * 4 + [ctypes.c_int, text, number,
                                                                                      text, text]
    lib.data_event.argtypes, lib.data_count.argtypes = [text] * 3 + [number], [text, number, text]
    os.makedirs(root, exist_ok=True)
    assert lib.data_init(root.encode(), b"browser-test") == 0
    assert lib.data_base_info(b"tid", 42, b"1.0", 60, b"127.0.0.1", b"en", b"Linux", b"12", 64, b"en_US", 0,
                              b"src", b"u1") == 0
    for call, *args in records:
        assert getattr(lib, call)(*[a.encode() if isinstance(a, str) else a for a in args]) == 0, (call, args)
    lib.data_stop()
    log = os.path.join(root, "sdk.log")
    stopped = lambda: os.path.exists(log) and "back thread stop ..." in open(log, errors="replace").read()
    return 0 if CollectorPage.settle(stopped, True, 60) else 1


class CollectorPage(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="velto-browser-")
        self.downloads = os.path.join(self.dir, "downloads")
        socks = [socket.socket() for _ in range(2)]
        self.http_port, self.https_port = [s.bind(("127.0.0.1", 0)) or s.getsockname()[1] for s in socks]
        [s.close() for s in socks]
        self.log = open(os.path.join(self.dir, "collector.log"), "w")
        self.collector = subprocess.Popen(
            [BUILD + "/tools/velto-collector", "--https-port", str(self.https_port), "--http-port",
             str(self.http_port), "--db", self.dir + "/collector.db", "--cert-dir", self.dir + "/cert"],
            stdout=self.log, stderr=subprocess.STDOUT, start_new_session=True)
        self.addCleanup(self.stop_collector)
        self.assertTrue(self.settle(lambda: self.api("/api/stats") is not None, True, 20))
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for arg in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                    "--hide-scrollbars", "--window-size=1400,1000", "--user-data-dir=" + self.dir + "/p"):
            options.add_argument(arg)
        options.add_experimental_option("prefs", {"download.default_directory": self.downloads,
                                                  "download.prompt_for_download": False})
        self.driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
        self.addCleanup(self.driver.quit)
        self.driver.set_page_load_timeout(30)
        self.driver.set_script_timeout(10)
        self.driver.get("http://127.0.0.1:%d/" % self.http_port)
        self.assertEqual("open", self.settle(lambda: self.js("document.getElementById('live').dataset.state"),
                                             "open"))
        self.js("window.velto_marker = 'same page'")  # any reload of the page would drop it

    def stop_collector(self):
        self.collector.terminate()
        try:
            self.collector.wait(20)
        except subprocess.TimeoutExpired:
            self.collector.kill()
        self.log.close()
        with open(os.path.join(self.dir, "collector.log"), errors="replace") as f:
            print("--- collector output:\n" + f.read())  # CTest shows it when the test fails
        shutil.rmtree(self.dir, ignore_errors=True)

    def api(self, path):
        """The JSON answer to a GET on the collector's API; None when it did not answer 200."""
        try:
            with urllib.request.urlopen("http://127.0.0.1:%d%s" % (self.http_port, path), timeout=5) as res:
                return json.load(res)
        except OSError:
            return None

    def js(self, expression, *args):
        return self.driver.execute_script("return " + expression, *args)

    @staticmethod
    def settle(get, want, timeout=30):
        """Polls get() until it gives want (bounded); its last value."""
        end = time.monotonic() + timeout
        while True:
            got = get()
            if got == want or time.monotonic() > end:
                return got
            time.sleep(0.1)

    def rows(self, column):
        """The table's rows, one value per row: column is a cell class or "kind"/"id"."""
        value = "tr.dataset." + column if column in ("kind", "id") else \
            "tr.querySelector('td.%s').textContent" % column
        return self.js("Array.from(document.querySelectorAll('#records tbody tr[data-id]'))"
                       ".map(tr => %s)" % value)

    def export(self, button, name):
        """Clicks an export button; the downloaded file's text."""
        self.driver.find_element(By.ID, button).click()
        path = os.path.join(self.downloads, name)
        self.assertTrue(self.settle(lambda: os.path.exists(path), True), os.listdir(self.dir))
        with open(path, newline="") as f:
            return f.read()

    def test_records_arrive_live_with_their_counts_as_text(self):
        home = os.path.join(self.dir, "home")  # the library runs in a child process, in a home of its own
        records = [["data_screen", "MainWindow"], ["data_event", "toolbar", "click", "save", 1],
                   ["data_event", SCRIPT, "paste", IMAGE, 2], ["data_count", "export", 1520, "pdf"]]
        subprocess.run([sys.executable, __file__, BUILD, LIBRARY, json.dumps(records), "--host", home + "/root"],
                       env=dict(os.environ, HOME=home, VELTO_COLLECT_HOST="127.0.0.1:%d" % self.https_port),
                       timeout=90, check=True, stdout=subprocess.DEVNULL)
        ids = [str(r["id"]) for r in self.api("/api/records")["records"]]
        self.assertEqual(ids, self.settle(lambda: self.rows("id"), ids))  # newest first, without a reload
        self.assertEqual("same page", self.js("window.velto_marker"))
        shown = list(zip(*(self.rows(column) for column in ("kind", "category", "label", "value"))))
        # The initial record goes on its own, or with the batch when the host stops during its
        # attempts: its place in the list varies, the others keep theirs.
        self.assertEqual([("init", "", "", "")], [row for row in shown if row[0] == "init"])
        self.assertEqual([("timing", "export", "pdf", "1520 ms"), ("event", SCRIPT, IMAGE, "2"),
                          ("event", "toolbar", "save", "1"), ("screenview", "MainWindow", "", "")],
                         [row for row in shown if row[0] != "init"])
        self.assertTrue(self.js("Array.from(document.querySelectorAll('#records tbody td.ostime'))"
                                ".every(td => /^\\d\\d:\\d\\d:\\d\\d$/.test(td.textContent))"))
        self.assertEqual(0, self.js("document.querySelectorAll('#records tbody :is(script, img)').length"))
        self.assertEqual("undefined", self.js("typeof window.velto_injected"))

        # The panel's counts are the API's and what was sent; the chart's bars the records by minute.
        sent = {"event": 2, "init": 1, "screenview": 1, "timing": 1}
        self.assertEqual(sent, self.api("/api/stats?minutes=10")["recent"]["kinds"])
        panel = lambda: self.js(
            "Object.fromEntries(Array.from(document.querySelectorAll('#stats tr[data-kind]'))"
            ".map(tr => [tr.dataset.kind, Number(tr.querySelector('td.recent').textContent)]))")
        self.assertEqual(sent, self.settle(panel, sent))
        want = collections.Counter("%d %s" % (r["time"] // 60000 * 60000, r["kind"])
                                   for r in self.api("/api/records?limit=5000")["records"])
        bars = lambda: collections.Counter(self.js(
            "Object.fromEntries(Array.from(document.querySelectorAll('#chart-svg rect.bar'))"
            ".map(r => [r.dataset.time + ' ' + r.dataset.kind, Number(r.dataset.count)]))"))
        self.assertEqual(want, self.settle(bars, want))

        # The exports are the records the API lists: one object per line, and the same as CSV.
        listed = self.api("/api/records?limit=5000")["records"]
        self.assertEqual(listed, [json.loads(line) for line in
                                  self.export("export-jsonl", "velto-records.jsonl").splitlines()])
        table = list(csv.DictReader(self.export("export-csv", "velto-records.csv").splitlines(True)))
        self.assertEqual([(str(r["id"]), r["kind"], r["label"], r["sid"]) for r in listed],
                         [(r["id"], r["kind"], r["label"], r["sid"]) for r in table])
        self.assertEqual(self.rows("value"), [r["value"] for r in table])

        # Every upload is listed, with its result; a click shows the whole record.
        total = self.api("/api/requests")["total"]
        listed = lambda: self.js("document.querySelectorAll('#requests tbody tr').length")
        self.assertEqual(total, self.settle(listed, total))
        self.assertEqual("ok", self.js("document.querySelector('#requests tbody tr td.result').textContent"))
        self.driver.find_element(By.CSS_SELECTOR, "#records tbody tr[data-kind=timing]").click()
        detail = json.loads(self.driver.find_element(By.ID, "detail-json").text)
        self.assertEqual(("timing", "1520", "pdf"), (detail["dtype"], detail["ttime"], detail["label"]))

        os.makedirs(BUILD + "/browser", exist_ok=True)
        self.driver.save_screenshot(BUILD + "/browser/collector.png")


if __name__ == "__main__":
    if "--host" in sys.argv:
        sys.exit(record_host(sys.argv[5], json.loads(sys.argv[3])))
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        from selenium.webdriver.common.by import By
    except ImportError:
        print("python3-selenium is not installed (.ci/install-deps.sh installs it): the page is not tested")
        sys.exit(77)
    if not (os.access(CHROMIUM, os.X_OK) and os.access(CHROMEDRIVER, os.X_OK)):
        print("chromium or chromium-driver is not installed (.ci/install-deps.sh installs them): "
              "the page is not tested")
        sys.exit(77)
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
