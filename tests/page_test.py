#!/usr/bin/python3
"""The local service's page in a real browser, with the quick start as its application.

    page_test.py SERVICE QUICKSTART

With a folder in QUORVA_SCREENSHOTS, pictures of the page are left there. Ends with 77 if there is
no browser.
"""

import json
import os
import shutil
import ssl
import subprocess
import sys
import tempfile
import unittest
import urllib.request

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service as Driver
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import Select, WebDriverWait
except ImportError:
    webdriver = None

HOSTILE = "<script>document.title = 'owned'</script><img src=x onerror=\"document.title = 'owned'\">"
SERVICE, QUICKSTART = sys.argv[1:3]


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        options = webdriver.ChromeOptions()
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                         "--window-size=1200,900",
                         "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.browser = webdriver.Chrome(service=Driver(shutil.which("chromedriver")), options=options)
        cls.addClassCleanup(cls.browser.quit)

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.service = subprocess.Popen(
            [SERVICE, "--state", self.folder + "/state", "--port", "0", "--print-ready"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(self.stop)
        self.ready = json.loads(self.service.stdout.readline())
        self.browser.get(self.ready["page"])
        self.browser.get_log("browser")

    def stop(self):
        self.service.terminate()
        self.assertEqual(self.service.wait(timeout=60), 0)
        self.service.stdout.close()

    def quickstart(self, *arguments, succeeds=True):
        done = subprocess.run(
            [QUICKSTART, "--port", self.ready["service"].rsplit(":")[-1], "--ca", self.ready["ca"],
             *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=120,
            env={**os.environ, "XDG_DATA_HOME": self.folder + "/data"})
        self.assertEqual(done.returncode == 0, succeeds, done.stdout)
        return done.stdout

    def post(self, endpoint, **body):
        request = urllib.request.Request(
            self.ready["service"] + "/app/api/v1/" + endpoint, json.dumps(body).encode())
        trust = ssl.create_default_context(cafile=self.ready["ca"])
        with urllib.request.urlopen(request, context=trust) as answer:
            return json.load(answer)

    def wait(self, happened):
        return WebDriverWait(self.browser, 60, 0.05).until(lambda _: happened())

    def all(self, selector):
        return self.browser.find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector):
        return self.wait(lambda: self.all(selector))[0]

    # Of a row that may be another in the next moment.
    def click(self, selector):
        self.wait(lambda: self.browser.execute_script(
            "const found = document.querySelector(arguments[0]); found?.click(); return !!found",
            selector))

    def texts(self, selector):
        return self.browser.execute_script(
            "return [...document.querySelectorAll(arguments[0])]"
            ".filter((e) => e.checkVisibility()).map((e) => e.textContent)", selector)

    def endpoints(self):
        return self.texts("#requests .endpoint")

    def choose(self, selector, text):
        Select(self.one(selector)).select_by_visible_text(text)

    def test_requests_appear_as_they_come_and_stay(self):
        self.quickstart()
        self.wait(lambda: "retrieveDeviceId" in self.endpoints() and self.endpoints()[0] == "resolve")
        seen = self.endpoints()
        self.one("#requests li summary").send_keys(Keys.ENTER)
        self.assertIn('"short_url": "https://go.shop.example/spring"', self.texts(".sent")[0])
        self.assertNotIn("qk_quickstart", self.browser.page_source)

        self.choose("#filter [name=endpoint]", "create_link")
        self.assertEqual(set(self.endpoints()), {"create_link"})
        self.choose("#filter [name=device]", self.texts("#devices .id")[0])
        self.assertEqual(set(self.endpoints()), {"create_link"})
        self.browser.refresh()
        self.wait(lambda: self.endpoints() == seen)
        self.assertEqual(self.browser.get_log("browser"), [])
        self.assertTrue(self.browser.execute_script(
            "return performance.getEntriesByType('resource')"
            ".every((e) => e.name.startsWith(location.origin))"))

    def test_a_fault_is_switched_on_and_the_application_hears_of_it(self):
        self.choose("#new-fault [name=endpoint]", "create_link")
        self.one("#new-fault [name=value]").clear()
        self.one("#new-fault [name=value]").send_keys("99", Keys.ENTER)
        self.wait(lambda: "from 200 to 599" in self.one(".problem").text)
        self.one("#new-fault [name=value]").clear()
        self.one("#new-fault [name=value]").send_keys("503")
        self.one("#new-fault [name=once]").click()
        self.one("#new-fault button").click()
        self.wait(lambda: self.texts("#faults-on") == ["1 on"])
        self.assertEqual(self.texts("#faults .what"), ["create_link: another status (503), once"])
        self.quickstart(succeeds=False)
        self.wait(lambda: self.texts("#faults-on") == [] and "503" in self.texts(".status"))
        self.quickstart()

        self.choose("#new-fault [name=kind]", "half a body")
        self.one("#new-fault button").click()
        self.one("#faults .rows button").click()
        self.wait(lambda: self.texts("#faults-on") == [])

    def test_a_tap_before_the_installation_reaches_it(self):
        self.quickstart()
        self.wait(lambda: len(self.texts(".link")) == 2)
        spring = self.wait(lambda: next(link for link in self.all(".link") if "/spring" in link.text))
        for expected in ("https://shop.example/shoes", "newsletter", "New in", "Tapped\n0 times"):
            self.assertIn(expected, spring.text)
        spring.find_element(By.CSS_SELECTOR, ".qr summary").click()
        self.wait(lambda: self.browser.execute_script(
            "return [...document.images].some((image) => image.naturalWidth > 0)"))
        self.screenshots()
        spring.find_element(By.CSS_SELECTOR, ".tap").click()
        self.wait(lambda: "hears of it" in self.one("#state").text)
        self.wait(lambda: "Tapped1 time" in "".join(self.texts(".link")))
        self.assertTrue(spring.find_element(By.CSS_SELECTOR, ".qr").get_attribute("open"))
        self.assertEqual(self.browser.switch_to.active_element.text, "Tap before the installation")
        self.assertIn("tapped before install:   https://go.shop.example/spring\n",
                      self.quickstart("--application", "com.example.other"))

    def test_what_was_sent_is_text(self):
        device = self.post("retrieveDeviceId", api_key="my secret key", ref_id="",
                           data={"app_id": HOSTILE})["uuid"]
        self.post("create_link", api_key="my secret key", device_id=device, android_behavior=1,
                  ios_behavior=2, destination_url="javascript:" + HOSTILE, domain="go.shop.example",
                  selected_path=HOSTILE, link_name=HOSTILE, social_description=HOSTILE,
                  social_image_url=HOSTILE, utm_source=HOSTILE)
        self.wait(lambda: len(self.endpoints()) == 2 and self.texts(".card-title") == [HOSTILE])
        self.click("#devices summary")
        self.assertIn(HOSTILE, self.texts("#devices dd"))
        self.assertEqual(self.browser.title, "QuorvaSDK local service")
        self.assertEqual(len(self.all("script")), 1)
        self.assertEqual(self.all("main img"), [])
        self.browser.get(self.one(".open").get_attribute("href"))
        self.assertEqual(self.texts("h1"), [HOSTILE])
        self.assertNotEqual(self.browser.title, "owned")

    def test_a_forgotten_device_is_a_new_one(self):
        self.quickstart()
        self.wait(lambda: "; 1 ping;" in "".join(self.texts("#devices .seen")))
        device = self.texts("#devices .id")
        self.click("#devices .forget")
        self.wait(lambda: self.texts("#devices .id") == [])
        self.quickstart("--application", "com.example.quickstart", "https://go.shop.example/spring")
        self.wait(lambda: self.texts("#devices .id") == device)

    def test_a_narrow_window_needs_no_scrolling_sideways(self):
        self.quickstart()
        self.wait(lambda: len(self.texts(".link")) == 2)
        self.addCleanup(self.browser.set_window_size, 1200, 900)
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": 360, "height": 740, "deviceScaleFactor": 1, "mobile": True})
        self.addCleanup(self.browser.execute_cdp_cmd, "Emulation.clearDeviceMetricsOverride", {})
        self.picture("narrow")
        self.assertEqual(self.browser.execute_script(
            "return [...document.querySelectorAll('body *')].filter("
            "(e) => e.getBoundingClientRect().right > innerWidth).map((e) => e.outerHTML)"), [])

    def picture(self, name):
        folder = os.environ.get("QUORVA_SCREENSHOTS")
        if folder:
            self.browser.save_screenshot("%s/local-service-%s.png" % (folder, name))

    def screenshots(self):
        self.click("#requests li summary")
        height = self.browser.execute_script("return document.documentElement.scrollHeight")
        self.browser.set_window_size(1200, min(height + 100, 2400))
        self.browser.execute_script("scrollTo(0, 0)")
        for scheme in ("light", "dark"):
            self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
                "features": [{"name": "prefers-color-scheme", "value": scheme}]})
            self.picture(scheme)
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})
        self.browser.set_window_size(1200, 900)


if __name__ == "__main__":
    if not webdriver or not shutil.which("chromedriver"):
        print("Left out: there is no browser (chromium, chromium-driver, python3-selenium)")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
