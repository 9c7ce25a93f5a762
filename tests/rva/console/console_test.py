"""The page that rva serves, in a headless Chromium, over a real bus with real services.

With KVX_PICTURE the test of the services writes the picture of the page there.
"""

import gzip
import json
import os
import pathlib
import signal
import tempfile
import time
import unittest
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from support import BIN, LONGEST, BusTest, Program

AXE = gzip.open(pathlib.Path(__file__).parent / "vendor/axe.min.js.gz", "rt", encoding="utf-8").read()
ROWS = 42_000


def browser():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                     "--window-size=1400,900"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


class ConsoleTest(BusTest):
    def setUp(self):
        super().setUp()
        self.home = tempfile.TemporaryDirectory()
        self.addCleanup(self.home.cleanup)
        self.rva = Program(self, f"{BIN}/rva", "-foreground", "-listen", "0", "-interval", "1")
        self.url = self.rva.await_line("rva ready on").split()[-1]
        self.page = browser()
        self.addCleanup(self.page.quit)
        self.page.get(self.url)

    def find(self, name):
        return self.page.find_element(By.ID, name)

    # Also what is hidden, and in the page's own case.
    def text(self, name):
        return self.find(name).get_property("textContent")

    def until(self, is_true, what):
        until = time.monotonic() + LONGEST
        while not is_true():
            if time.monotonic() > until:
                errors = [entry["message"] for entry in self.page.get_log("browser")]
                shown = self.page.find_element(By.TAG_NAME, "body").text[:2000]
                self.fail(f"never: {what}; {shown} {errors}")
            time.sleep(0.05)

    def await_text(self, name, text):
        self.until(lambda: text in self.text(name), f"'{text}' in {name}")

    def press(self, *keys):
        self.page.switch_to.active_element.send_keys(*keys)

    def show(self, view):
        self.page.execute_script("location.hash = arguments[0]", view)
        self.until(lambda: self.find(view).is_displayed(), view)

    def check(self, view):
        """The view is accessible, on a desk and on a dark phone, and without errors in the page."""
        for width, colours in ((1400, "light"), (320, "dark")):
            self.page.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
                "width": width, "height": 900, "deviceScaleFactor": 1, "mobile": False})
            self.page.execute_cdp_cmd("Emulation.setEmulatedMedia", {
                "features": [{"name": "prefers-color-scheme", "value": colours}]})
            self.page.execute_script(AXE)
            found = self.page.execute_async_script(
                "axe.run().then(({violations}) => arguments[0](violations.map("
                "({id, nodes}) => [id, nodes[0].failureSummary])))")
            self.assertEqual(found, [], f"{view}, {width} wide")
            beyond = "return document.documentElement.scrollWidth - innerWidth"
            self.assertLessEqual(self.page.execute_script(beyond), 0, view)
        self.page.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
        self.page.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})
        # A refused question is an answer with a status that Chromium logs by itself.
        errors = [entry for entry in self.page.get_log("browser")
                  if entry["level"] == "SEVERE" and "422" not in entry["message"]]
        self.assertEqual(errors, [])

    def modeld(self, name, rows):
        file = pathlib.Path(self.home.name, "vendors.csv")
        if not file.exists():
            lines = (f"{number},Maker {number % 97}" for number in range(rows))
            file.write_text("\n".join(["id,vendor", *lines, ""]), encoding="ascii")
        service = Program(self, f"{BIN}/modeld", "--db", f"{self.home.name}/{name}.db",
                          "--load", str(file), "--table", "vendors")
        service.await_line("standing by")
        return service


class Services(ConsoleTest):
    def test_a_primary_that_is_killed_and_a_bus_that_goes_and_comes(self):
        first = self.modeld("first", 3)
        first.await_line("answering on")
        self.modeld("second", 3)
        for pid in (str(first.process.pid), "backup", "modeld.Model"):
            self.await_text("services-table", pid)
        self.until(lambda: self.text("services-table").count("Model") >= 2, "both")
        self.check("services")
        if "KVX_PICTURE" in os.environ:
            self.page.save_screenshot(os.environ["KVX_PICTURE"])
        first.process.send_signal(signal.SIGKILL)
        self.await_text("happened", "silent")
        self.await_text("happened", "has become primary")
        # Both roles were taken before the agent's eyes.
        self.assertNotIn("before", self.text("services-table"))
        self.assertNotIn("not known", self.text("services-table"))
        port = self.address.split(":")[-1]
        self.daemon.process.terminate()
        self.daemon.wait()
        self.await_text("banner", "The bus is gone")
        self.page.refresh()
        self.await_text("banner", "The bus is gone")
        self.await_text("services-table", "Model")
        Program(self, f"{BIN}/rvd", "-listen", f"tcp:127.0.0.1:{port}").await_line("ready on")
        self.await_text("banner", "The bus is back")


class Ask(ConsoleTest):
    def ask(self, text):
        question = self.find("ask-text")
        question.clear()
        question.send_keys(text, Keys.CONTROL, Keys.ENTER)

    def download(self, button, name):
        self.page.execute_cdp_cmd("Browser.setDownloadBehavior", {
            "behavior": "allow", "downloadPath": self.home.name})
        self.find(button).click()
        file = pathlib.Path(self.home.name, name)
        self.until(file.exists, name)
        return file.read_bytes()

    def answer_as_csv(self):
        question = {"service": "Model", "text": "select * from vendors", "format": "csv"}
        request = urllib.request.Request(f"{self.url}/api/query", json.dumps(question).encode(),
                                         {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=LONGEST) as answer:
            return answer.read()

    def test_a_whole_register_and_an_error_at_its_place(self):
        self.modeld("only", ROWS).await_line("answering on")
        self.show("ask")
        offered = self.find("ask-service")
        self.until(lambda: offered.get_property("value") == "Model", "the service that is there")
        self.ask("select * from vendors")
        self.await_text("ask-status", f"{ROWS:,} rows")
        self.await_text("ask-status", "packets")
        grid = self.page.find_element(By.CSS_SELECTOR, "#ask-rows .rows")
        self.assertEqual(grid.get_attribute("aria-rowcount"), str(ROWS + 1))
        drawn = "#ask-rows .row[aria-rowindex]"
        self.assertLess(len(self.page.find_elements(By.CSS_SELECTOR, drawn)), 200)
        grid.send_keys(Keys.CONTROL, Keys.END)
        self.until(lambda: self.page.find_elements(By.ID, f"row-{ROWS - 1}"), "the last row")
        self.page.find_element(By.XPATH, "//button[text()='vendor']").click()
        first = self.page.find_element(By.ID, "row-0").text
        self.assertEqual(first.split("\n"), ["0", "Maker 0"])
        rows = json.loads(self.download("ask-json", "rows.json"))
        self.assertEqual(rows[0], {"id": 0, "vendor": "Maker 0"})
        self.assertEqual(len(rows), ROWS)
        self.page.find_element(By.XPATH, "//button[text()='id']").click()
        self.assertEqual(self.download("ask-csv", "rows.csv"), self.answer_as_csv())
        self.find("ask-filter").send_keys(f"{ROWS - 1}")
        self.await_text("ask-status", "; 1 shown")
        self.check("ask")
        self.ask("select *\nfrm vendors")
        self.await_text("ask-error", "at line 2, column 1")
        mark = self.page.find_element(By.CSS_SELECTOR, "#ask-error mark")
        self.assertEqual(mark.text, "frm")
        self.ask("select * from vendors")
        self.press(Keys.ESCAPE)
        self.await_text("ask-status", "Cancelled")
        self.await_text("ask-history", "2 kept")
        # Columns whose names are numbers stay where the service has put them.
        rows = self.page.execute_async_script("""
            const [lines, done] = arguments;
            window.fetch = async () => new Response(lines);
            Promise.all([import("/console/api.js"), import("/console/table.js")]).then(async ([{ query }, { jsonOf }]) => {
                let text = "";
                await query({}, (rows) => (text += jsonOf(rows)));
                done(text);
            });""", '{"row":{"b":1,"10":"}\\"","9":null}}\n{"end":{}}\n')
        self.assertEqual(rows, '[\n{"b": 1, "10": "}\\"", "9": null}\n]\n')


class Watch(ConsoleTest):
    def test_messages_as_trees_until_it_is_paused(self):
        self.show("watch")
        self.find("watch-subject").send_keys("NEWS.>", Keys.ENTER)
        self.await_text("watch-status", "Watching")
        def send(degrees):
            sent = Program(self, f"{BIN}/kvx", "send", "NEWS.ROME", f"degrees:i32={degrees}",
                           "<b>=<img src=x>")
            self.assertEqual(sent.wait(), 0, sent.said)
        send(12)
        self.await_text("watch-messages", "NEWS.ROME")
        self.page.find_element(By.CSS_SELECTOR, "#watch-messages summary").click()
        self.await_text("watch-messages", "i32")
        self.await_text("watch-messages", "<b> string <img src=x>")
        self.assertEqual(self.page.find_elements(By.CSS_SELECTOR, "#watch-messages img"), [])
        self.check("watch")
        self.find("watch-pause").click()
        send(77)
        self.find("watch-pause").click()
        self.await_text("watch-messages", "77")
        self.find("watch-subject").send_keys(" WEATHER", Keys.ENTER)
        self.await_text("watch-status", "Watching NEWS.> WEATHER")


class Bus(ConsoleTest):
    def test_keys_alone_lead_to_sessions_and_graphs(self):
        listener = Program(self, f"{BIN}/kvx", "listen", "NEWS")
        self.find("tab-services").send_keys(Keys.ARROW_RIGHT)
        self.assertTrue(self.find("ask").is_displayed())
        self.press(Keys.ARROW_RIGHT)
        self.press(Keys.ARROW_RIGHT)
        self.assertTrue(self.find("bus").is_displayed())
        self.until(lambda: self.text("bus-sessions").count("keeps up") >= 2,
                   "the sessions of rva and kvx")
        self.until(lambda: self.page.find_elements(By.CSS_SELECTOR, "#bus-charts canvas"), "graphs")
        self.check("bus")
        self.page.execute_script("document.querySelector('.skip').focus()")
        self.press(Keys.ENTER)
        self.assertTrue(self.find("bus").is_displayed())
        listener.process.send_signal(signal.SIGSTOP)
        sent = Program(self, f"{BIN}/kvx", "send", "NEWS", "--repeat", "20000",
                       "sky=" + 1000 * "c")
        self.assertEqual(sent.wait(), 0, sent.said)
        self.await_text("bus-sessions", "messages wait for")
        self.await_text("bus-sessions", "MiB")
        listener.end()
        self.await_text("bus-losses", "the session ended before it was served")


if __name__ == "__main__":
    unittest.main()
