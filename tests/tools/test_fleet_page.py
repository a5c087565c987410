"""The page of tools/fleet in a real browser: what it shows, sorts and filters, and what hostile texts do there."""

import contextlib
import html.parser
import os
import re
import tempfile

from fleet_support import FleetDevice, FleetTest, lines_of
from featurewatch_tools.tables import visible

HOSTILE = (
    "<script>window.hit = 1</script>",
    "</script><script>window.hit = 2</script>",
    "\"><img src=x onerror='window.hit = 3'>",
    "' onmouseover='window.hit = 4' x='",
    "</td></tr></table><svg onload=window.hit=5>",
    "<!-- &lt;b&gt; &#60;i&#62; ]]>",
    "\u202egnp.\x1b[2J\x7f",
    "<style>*{display:none}</style>",
)
BROWSER_FLAGS = (
    "--headless",
    "--no-sandbox",
    "--disable-gpu",
    "--disable-quic",
    "--no-first-run",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
    "--disable-dev-shm-usage",
    "--window-size=1400,1000",
)


@contextlib.contextmanager
def browser():
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/lib/chromium/chromium"  # /usr/bin's script does not like the sandbox's processor
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
        for flag in (*BROWSER_FLAGS, f"--user-data-dir={folder}"):
            options.add_argument(flag)
        driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        try:
            yield driver
        finally:
            driver.quit()


class PageTest(FleetTest):
    def page(self):
        self.fleet("page", "--output", self.path("fleet.html"))
        return f"file://{self.path('fleet.html')}"

    def text(self):
        with open(self.path("fleet.html"), encoding="utf-8") as stream:
            return stream.read()

    def make_fleet(self):
        """One device of each state, and three good ones."""
        made = {name: FleetDevice(name) for name in ("good 1", "good 2", "good 10", "refused", "unanswered", "retired")}
        lines = [
            {"report": it.report(), "ekDigest": it.ek_digest, "label": f"label of {it.serial}"} for it in made.values()
        ]
        self.fleet("enrol", "-", content=lines_of(lines))
        self.fleet("import", self.write("devices.csv", f"imported,{'0' * 64},\n"))
        for number in range(3):
            for serial, context in self.challenge_all("--cb-data", "x").items():
                device = made[serial]
                device.counter = {"good 1": 2**63 + 4096 * number, "good 2": 9, "good 10": 10}.get(serial, 5)
                answer = device.answer_to(context)
                if serial != "unanswered":
                    self.verify(answer if number < 2 or serial != "refused" else {**answer, "cbData": "<b>y</b>"})
        self.fleet("retire", "retired")


class WrittenPageTest(PageTest):
    def test_complete_without_script(self):
        "All rows are in the file itself, with each device's state; it asks for nothing from elsewhere."
        self.make_fleet()
        self.page()
        text = self.text()
        states = re.findall(r'<tr role="row" class="(\w+)">', text)
        self.assertEqual(states, ["refused", "unanswered", "good", "good", "good", "imported", "retired"])
        self.assertIn("&lt;b&gt;y&lt;/b&gt;", text)
        self.assertEqual(re.findall(r"\b(?:src|href|action)=[^\s>]+", text), ['href="data:,"'])
        self.assertNotIn("@import", text)
        self.assertIn("default-src 'none'", text)
        html.parser.HTMLParser().feed(text)

    def test_counters(self):
        "A counter has its value, and what it was as steps between foot and top; a device without one has neither."
        device = self.enrolled("counted")
        self.enrolled("new")
        for value in (5, 6, 9):
            device.counter = value
            self.verify(device.answer_to(self.challenge("counted")))
        self.page()
        text = self.text()
        self.assertIn('<td role="cell" data-key="9"><span class="number">9</span><svg class="plot" ', text)
        self.assertIn('aria-label="3 values, from 5 to 9"', text)
        self.assertIn('<path d="M0 22H60V17H120V2"/><circle cx="120" cy="2" r="2.5"/></svg></td>', text)
        self.assertIn('<td role="cell" data-key="-1"></td>', text)

    def test_written_in_one_step(self):
        "A page that can't be written leaves the old one, and nothing beside it."
        self.enrolled("1")
        self.page()
        before = self.text()
        os.symlink("fleet.html", self.path("link.html"))
        for path, part in (
            ("gone/fleet.html", "No such file"),
            ("link.html", "not a plain file"),
            (".", "not a plain file"),
        ):
            self.fails("page", "--output", self.path(path), part=part)
        self.assertEqual(self.text(), before)
        self.assertEqual([name for name in os.listdir(self.folder) if name.startswith(".")], [])

    def test_empty_fleet(self):
        "A registry without devices has a page as well."
        self.fleet("import", self.write("devices.csv", ""))
        self.page()
        self.assertIn("<b>0</b>", self.text())


class BrowserTest(PageTest):
    def serials(self, driver):
        script = (
            "return [...document.querySelectorAll('tbody tr:not([hidden])')].map((row) => row.cells[0].textContent)"
        )
        return driver.execute_script(script)

    def messages(self, driver):
        """What the console has of the page; the browser's own first page may have told something too."""
        return [it["message"] for it in driver.get_log("browser") if not it["message"].startswith("chrome:")]

    def assert_quiet(self, driver):
        self.assertEqual(self.messages(driver), [])
        self.assertEqual(driver.execute_script("return performance.getEntriesByType('resource').length"), 0)

    def test_sorting_and_filtering(self):
        "Columns sort both ways, numbers as numbers; texts and states filter; all of it works by keys alone."
        from selenium.webdriver.common.keys import Keys

        self.make_fleet()
        with browser() as driver:
            driver.get(self.page())
            count = lambda: driver.find_element("css selector", "output").text  # noqa: E731
            self.assertEqual(count(), "7 devices")
            serial, counter = driver.find_elements("css selector", "th button")[0:5:4]
            serial.send_keys(Keys.ENTER)
            ordered = ["good 1", "good 2", "good 10", "imported", "refused", "retired", "unanswered"]
            self.assertEqual(self.serials(driver), ordered)
            serial.send_keys(Keys.ENTER)
            self.assertEqual(self.serials(driver), ordered[::-1])
            counter.send_keys(Keys.SPACE)
            self.assertEqual(self.serials(driver)[-3:], ["good 2", "good 10", "good 1"])
            sorted_by = driver.find_elements("css selector", "th[aria-sort]")
            self.assertEqual([it.text.rstrip(" ↑") for it in sorted_by], ["Counter"])

            body = driver.find_element("css selector", "body")
            body.send_keys("/")
            field = driver.switch_to.active_element
            self.assertEqual(field.tag_name, "input")
            field.send_keys("LABEL good")
            self.assertEqual(set(self.serials(driver)), {"good 1", "good 2", "good 10"})
            self.assertEqual(count(), "3 of 7 devices")
            field.send_keys(" nothing")
            self.assertTrue(driver.find_element("css selector", ".none").is_displayed())
            field.send_keys(Keys.ESCAPE)
            self.assertEqual(len(self.serials(driver)), 7)
            digest = next(key for key, it in self.devices().items() if it["serial"] == "good 2")
            field.send_keys(digest)
            self.assertEqual(self.serials(driver), ["good 2"])
            field.send_keys(Keys.ESCAPE)
            refused = driver.find_elements("css selector", ".totals button")[1]
            refused.send_keys(Keys.ENTER)
            self.assertEqual(self.serials(driver), ["refused"])
            self.assertIn('it is "<b>y</b>"', driver.find_element("css selector", "tr.refused").text)
            refused.send_keys(Keys.ENTER)
            self.assertEqual(len(self.serials(driver)), 7)
            self.assert_quiet(driver)

    def test_hostile_texts(self):
        "Serials, labels and cbData of any content are shown as they are, and do nothing."
        made = {serial: FleetDevice(serial) for serial in HOSTILE}
        lines = [{"report": it.report(), "ekDigest": it.ek_digest, "label": it.serial} for it in made.values()]
        self.fleet("enrol", "-", content=lines_of(lines))
        for serial, context in self.challenge_all().items():
            self.verify({**made[serial].answer_to(context), "cbData": serial})
        with browser() as driver:
            driver.get(self.page())
            for heading in driver.find_elements("css selector", "th button"):
                heading.click()
            self.assertEqual(set(self.serials(driver)), set(map(visible, HOSTILE)))
            labels = driver.execute_script(
                "return [...document.querySelectorAll('tbody tr')].map((row) => row.cells[1].textContent)"
            )
            self.assertEqual(labels, [row for row in self.serials(driver)])
            self.assertIsNone(driver.execute_script("return window.hit ?? null"))
            self.assertEqual(driver.execute_script("return document.querySelectorAll('script, img, style').length"), 2)
            self.assert_quiet(driver)

    def test_policy(self):
        "Even a script that got into the page would not run."
        self.enrolled("1")
        url = self.page()
        text = self.text().replace('<tbody role="rowgroup">', "<tbody><tr><td><script>window.hit = 1</script>")
        self.write("fleet.html", text)
        with browser() as driver:
            driver.get(url)
            self.assertIsNone(driver.execute_script("return window.hit ?? null"))
            self.assertIn("Content Security Policy", self.messages(driver)[0])

    def test_light_dark_and_paper(self):
        "Texts can be read on a light and a dark ground, and paper has all rows and no controls."
        self.make_fleet()
        with browser() as driver:
            driver.get(self.page())
            for scheme, brightest in (("light", False), ("dark", True)):
                self.emulate(driver, features=[{"name": "prefers-color-scheme", "value": scheme}])
                for selector in (
                    "h1",
                    ".taken",
                    "tbody td",
                    "tr.good .mark",
                    "tr.refused .mark",
                    "tr.unanswered .mark",
                    "small",
                ):
                    ink, ground = self.colours(driver, selector)
                    self.assertEqual(ink > ground, brightest, (scheme, selector))
                    contrast = (max(ink, ground) + 0.05) / (min(ink, ground) + 0.05)
                    self.assertGreaterEqual(contrast, 4.5, (scheme, selector))
            self.emulate(driver, media="print")
            self.assertFalse(driver.find_element("css selector", "input").is_displayed())
            self.assertEqual(
                len([row for row in driver.find_elements("css selector", "tbody tr") if row.is_displayed()]), 7
            )
            self.assertEqual(self.colours(driver, "tbody td"), (0, 1))

    def emulate(self, driver, media="", features=()):
        driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"media": media, "features": list(features)})

    def colours(self, driver, selector):
        """How bright a text and the ground under it are (WCAG 2.1, relative luminance)."""
        script = """
            let element = document.querySelector(arguments[0]);
            const ink = getComputedStyle(element).color;
            while (getComputedStyle(element).backgroundColor === 'rgba(0, 0, 0, 0)') element = element.parentElement;
            return [ink, getComputedStyle(element).backgroundColor];
        """
        return tuple(map(luminance, driver.execute_script(script, selector)))

    def test_ten_thousand_devices(self):
        "Ten thousand devices are there, sorted and filtered in less than two seconds each."
        self.make_large_fleet(10000)
        with browser() as driver:
            url = self.page()
            times = [self.measure(driver, url) for _ in range(3)]  # other programs take turns on the same machine
            self.assertEqual(len(self.serials(driver)), 1)
            for name in times[0]:
                self.assertLess(min(it[name] for it in times), 2000, times)
            self.assert_quiet(driver)

    def make_large_fleet(self, count):
        self.fleet(
            "import", self.write("devices.csv", "".join(f"d{it:06},{it:064x},l{it % 7}\n" for it in range(count)))
        )
        with self.database() as cursor:
            cursor.execute(
                "UPDATE devices SET state = 'enrolled', report = '{}', counter = '%020d', last_good = 1" % count
            )
            row = "INSERT INTO verdicts (device_id, answer, time, ok, counter, checks) VALUES (?, ?, ?, ?, ?, ?)"
            bad = '[["nonce",false,"the attestation was made for this context"]]'
            cursor.executemany(
                row,
                (
                    (
                        it % count + 1,
                        it.to_bytes(32, "big"),
                        it,
                        it % 10 or it < 7 * count,
                        f"{it:020}",
                        "[]" if it % 10 else bad,
                    )
                    for it in range(8 * count)
                ),
            )

    def measure(self, driver, url):
        """Milliseconds until the page is there, and for sorting and filtering it with what has to be laid out again."""
        driver.get(url)
        return driver.execute_script(
            """
            const time = (work) => {
                const start = performance.now();
                work();
                document.body.getBoundingClientRect();
                return performance.now() - start;
            };
            const field = document.querySelector('input');
            return {
                load: performance.getEntriesByType('navigation')[0].loadEventEnd,
                sort: time(() => document.querySelector('th button').click()),
                counter: time(() => document.querySelectorAll('th button')[4].click()),
                filter: time(() => { field.value = 'd009123'; field.dispatchEvent(new Event('input')); }),
            };
            """
        )


def luminance(colour):
    parts = [int(part) / 255 for part in re.findall(r"\d+", colour)[:3]]
    linear = [part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4 for part in parts]
    return round(0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2], 4)
