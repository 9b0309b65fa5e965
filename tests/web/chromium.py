"""Chromium without a screen, by Selenium. Browser and driver are reached by their address: left to
themselves, they would ask the system for the name localhost, which not every system knows."""

import contextlib
import json
import os
import pathlib
import shutil
import subprocess
import tempfile

from selenium import webdriver
from selenium.common.exceptions import TimeoutException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.utils import is_connectable
from selenium.webdriver.support.ui import WebDriverWait

from harness.timing import limit, wait_until
from film import READER

FLAGS = ("--headless=new --no-sandbox --disable-gpu --disable-quic --no-first-run "
         "--disable-background-networking --disable-component-update --disable-sync "
         "--disable-dev-shm-usage --hide-scrollbars --mute-audio "
         # What the driver gives to a browser that it starts itself.
         "--allow-pre-commit-input --disable-client-side-phishing-detection --disable-default-apps "
         "--disable-hang-monitor --disable-popup-blocking --disable-prompt-on-repost "
         "--enable-automation --no-service-autorun --password-store=basic --test-type=webdriver "
         "--remote-debugging-port=0").split()
# Nothing offers itself to whoever types.
PREFERENCES = {"credentials_enable_service": False, "profile": {"password_manager_enabled": False},
               "autofill": {"enabled": False}, "translate": {"enabled": False}}
HOST = "127.0.0.1"


# The number of the picture that the page shows; the server counts them.
SHOWN = "return Number(document.querySelector('#stage').dataset.shown)"

# Notes what the page says to the server.
HEARING = """
const send = WebSocket.prototype.send;
window.said = [];
WebSocket.prototype.send = function (text) {
  window.said.push(JSON.parse(text));
  return send.call(this, text);
};
"""


class Driver(Service):
    """Chromedriver."""

    @property
    def service_url(self):
        return f"http://{HOST}:{self.port}"

    def is_connectable(self):
        return is_connectable(self.port, HOST)


class Chromium:
    """A browser with one page. Console errors of the page fail the test that looks at them."""

    def __init__(self, size=(844, 390), dark=True, flags=()):
        self.profile = pathlib.Path(tempfile.mkdtemp(prefix="chromium-"))
        (self.profile / "Default").mkdir()
        (self.profile / "Default/Preferences").write_text(json.dumps(PREFERENCES))
        self.process = subprocess.Popen(
            [shutil.which("chromium"), *FLAGS, f"--user-data-dir={self.profile}",
             "--window-size=1200,900", *flags, "about:blank"], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        options = webdriver.ChromeOptions()
        options.debugger_address = f"{HOST}:{self._debugging_port()}"
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(options=options,
                                       service=Driver(shutil.which("chromedriver")))
        self.driver.set_script_timeout(limit(60))
        self.show(size, dark)

    def _debugging_port(self):
        """Which the browser has chosen."""
        file = self.profile / "DevToolsActivePort"

        def said():
            assert self.process.poll() is None, "Chromium has ended"
            return file.exists() and "\n" in file.read_text()

        wait_until(said, 30, "Chromium")
        return file.read_text().split()[0]

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
        try:
            return WebDriverWait(self.driver, limit(seconds), poll_frequency=0.02).until(
                lambda _: self.run(script, *arguments))
        except TimeoutException:
            raise AssertionError(
                f"{what or script} did not come true: {self.errors()}") from None

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

    def hear(self):
        """From now on said() tells what the page says to the server."""
        self.run(HEARING)

    def said(self, kind):
        """The messages of that type, in their order."""
        return self.run("return window.said.filter(({ type }) => type === arguments[0])", kind)

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

    def close(self):
        with contextlib.suppress(OSError):  # killed by the test
            self.driver.quit()
        self.process.kill()
        self.process.wait()
        shutil.rmtree(self.profile, ignore_errors=True)


def environment_is_fit():
    """Why there can be no browser; empty when there can."""
    missing = [name for name in ("chromium", "chromedriver") if shutil.which(name) is None]
    return f"{', '.join(missing)} missing" if missing else ""


# Selenium asks nobody outside for a driver.
os.environ.setdefault("SE_OFFLINE", "true")
