"""Chromium without a screen, by Selenium."""

import os
import shutil
import tempfile

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

from harness.timing import limit
from film import READER

FLAGS = ("--headless=new --no-sandbox --disable-gpu --disable-quic --no-first-run "
         "--disable-background-networking --disable-component-update --disable-sync "
         "--disable-dev-shm-usage --hide-scrollbars --mute-audio").split()


class Chromium:
    """A browser with one page. Console errors of the page fail the test that looks at them."""

    def __init__(self, size=(844, 390), dark=True, flags=()):
        self.profile = tempfile.mkdtemp(prefix="chromium-")
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        for flag in (*FLAGS, f"--user-data-dir={self.profile}", "--window-size=1200,900", *flags):
            options.add_argument(flag)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(options=options,
                                       service=Service(shutil.which("chromedriver")))
        self.driver.set_script_timeout(limit(60))
        self.show(size, dark)

    def show(self, size, dark=True):
        """The window's size in CSS pixels, and the theme that the system prefers."""
        self.cdp("Emulation.setDeviceMetricsOverride", width=size[0], height=size[1],
                 deviceScaleFactor=1, mobile=False)
        theme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self.cdp("Emulation.setEmulatedMedia", features=[theme])

    def cdp(self, method, **parameters):
        return self.driver.execute_cdp_cmd(method, parameters)

    def open(self, address):
        self.driver.get(address)

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def wait(self, script, *arguments, seconds=10, what=None):
        """Waits until the script answers with something, and returns it."""
        message = what or script
        return WebDriverWait(self.driver, limit(seconds), poll_frequency=0.02).until(
            lambda _: self.run(script, *arguments), f"{message} did not come true: "
            f"{self.errors()}")

    def find(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def button(self, text, within="body"):
        """The button that a person reads as that."""
        return self.wait(
            "return [...document.querySelectorAll(arguments[0] + ' button')].find("
            "(one) => one.checkVisibility() && (one.textContent.trim() === arguments[1] ||"
            " one.ariaLabel === arguments[1]))", within, text, what=f"a button {text!r}")

    def keys(self, *keys):
        """Presses keys one after the other, wherever the focus is."""
        chain = ActionChains(self.driver)
        for key in keys:
            chain.send_keys(key)
        chain.perform()

    @property
    def actions(self):
        return ActionChains(self.driver, duration=20)

    def picture(self):
        """Waits for the picture and returns the selector of the element that shows it."""
        self.wait("return Number(document.querySelector('#stage').dataset.shown) > 0", seconds=20,
                  what="the first picture")
        player = self.run("return document.querySelector('#stage').dataset.player")
        return {"mse": "#video", "webcodecs": "#canvas"}[player]

    def ages(self, selector, times):
        """How old what is shown is, in ms, at so many moments."""
        ages = []
        while len(ages) < times:
            # A script has no more than a minute.
            many = min(times - len(ages), 200)
            ages += self.driver.execute_async_script(READER, selector, many)
        return ages

    def errors(self):
        """What the page's console has said since the last call, but for remarks."""
        return [entry["message"] for entry in self.driver.get_log("browser")
                if entry["level"] in ("SEVERE", "WARNING")]

    @property
    def pid(self):
        return self.driver.service.process.pid

    def close(self):
        try:
            self.driver.quit()
        except OSError:
            pass  # killed by the test
        shutil.rmtree(self.profile, ignore_errors=True)


def environment_is_fit():
    """Why there can be no browser; empty when there can."""
    missing = [name for name in ("chromium", "chromedriver") if shutil.which(name) is None]
    return f"{', '.join(missing)} missing" if missing else ""


# Selenium asks nobody outside for a driver.
os.environ.setdefault("SE_OFFLINE", "true")
