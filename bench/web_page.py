"""Measures the page of nimbus-web in a real browser: glass to glass by the time in the picture, and
from a pointer to the frame at the bridge. Prints rows of the table that all benchmarks share; runs
in the sandbox. Fails when a limit is missed.

usage: bench/web_page.py --build FOLDER [--samples N]"""

import argparse
import contextlib
import pathlib
import statistics
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
for folder in ("tests", "tests/web", "bench"):
    sys.path.insert(0, str(ROOT / folder))

from harness.bridge import Bridge  # noqa: E402
from harness.service import Service  # noqa: E402
from harness.udp import DATA_PORT  # noqa: E402
from chromium import Chromium  # noqa: E402
from film import Film, VideoBridge  # noqa: E402
from remux import Remux  # noqa: E402
from rows import print_row  # noqa: E402

PLAIN_HOST = "10.66.0.1"

# What the page must hold, in ms.
GLASS_BY_MSE = 80
GLASS_BY_WEBCODECS = 60
COMMAND = 100
JOYSTICK = 250


def row(what, figure, limit, beside="", ratio=""):
    """Prints a row; returns whether its limit holds."""
    return print_row(what, f"{figure:.1f} ms", beside, ratio, f"{limit} ms", figure <= limit)


class Rig:
    """A service, nimbus-web and a browser; `film` begins when it is asked for."""

    def __init__(self, build):
        self.build = build
        self.ends = contextlib.ExitStack()
        folder = pathlib.Path(self.ends.enter_context(tempfile.TemporaryDirectory()))
        subprocess.run(["ip", "address", "replace", f"{PLAIN_HOST}/32", "dev", "lo"], check=True)
        service = Service(build / "nimbus", folder, "")
        self.ends.callback(service.kill)
        web = subprocess.Popen([build / "nimbus-web", "--service", "127.0.0.1",
                                "--listen", "0.0.0.0:8080"])
        self.ends.callback(web.wait)
        self.ends.callback(web.terminate)
        self.browser = Chromium()
        self.ends.callback(self.browser.close)

    @contextlib.contextmanager
    def scene(self):
        """A simulated camera with its picture."""
        camera = subprocess.Popen([self.build / "nimbus-sim", "--scene"], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.DEVNULL)
        try:
            yield
        finally:
            camera.terminate()
            camera.wait()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.ends.close()


def ages(browser, selector, samples):
    found = [age for age in browser.ages(selector, samples) if age >= 0]
    assert len(found) > 0.9 * samples, "the code in the picture cannot be read"
    return found


def glass(browser, address, samples):
    """The median age of what the page shows, once it has settled."""
    browser.open(address)
    selector = browser.picture()
    time.sleep(6)
    return statistics.median(ages(browser, selector, samples))


def remuxed(browser, samples):
    """The same by the plain way."""
    remux = Remux(PLAIN_HOST, 8090)
    film = Film(remux.take)
    try:
        browser.open(remux.address)
        browser.wait("return document.querySelector('video').readyState > 2", seconds=20)
        time.sleep(6)
        return statistics.median(ages(browser, "video", samples))
    finally:
        film.close()
        remux.close()


def measure_glass(rig, samples):
    beside = remuxed(rig.browser, samples)
    bridge = VideoBridge()
    film = Film(bridge.take)
    try:
        mse = glass(rig.browser, f"http://{PLAIN_HOST}:8080/", samples)
        codecs = glass(rig.browser, "http://127.0.0.1:8080/", samples)
    finally:
        film.close()
        bridge.close()
    text = f"{beside:.1f} ms, FFmpeg's remux"
    return [row("glass to glass, Media Source Extensions", mse, GLASS_BY_MSE, text,
                f"{mse / beside:.3f}"),
            row("glass to glass, WebCodecs", codecs, GLASS_BY_WEBCODECS, text,
                f"{codecs / beside:.3f}")]


# Notes when the pointer pressed.
PRESSED = "addEventListener('pointerup', () => { window.pressed = Date.now(); }, true);"


def measure_command(rig, times=25):
    """From the pointer on a word of a picker to the frame at the bridge."""
    data = Bridge(DATA_PORT)
    data.keep_sending(b"\0", 0.2)
    browser = rig.browser
    browser.open("http://127.0.0.1:8080/")
    browser.wait("return !document.querySelector('#take').disabled")
    browser.find("#take").click()
    browser.wait("return document.body.dataset.driver === 'me'")
    browser.find("#more").click()
    browser.wait("return document.querySelector('dialog [data-word=\"jpg+raw\"]')")
    browser.run(PRESSED)
    data.socket.settimeout(5)
    found = []
    for number in range(times):
        word = ("raw", "jpg")[number % 2]
        # Moments that have no rhythm with the service's own.
        time.sleep(0.1 + 0.013 * (number % 7))
        browser.find(f"dialog [data-word='{word}']").click()
        while (frame := data.socket.recv(2048))[9:11] != b"\x02\x16":
            pass
        arrived = time.time() * 1000
        assert frame[11] == number % 2
        found.append(arrived - browser.run("return window.pressed"))
    data.close()
    return [row("pointer to the frame at the bridge", statistics.median(found), COMMAND)]


# Waits for the lamp, and answers how long after the pointer moved it was seen.
LAMP = """
const done = arguments[arguments.length - 1];
const source = document.querySelector("#canvas");
const canvas = document.createElement("canvas");
[canvas.width, canvas.height] = [1, 1];
const context = canvas.getContext("2d", { willReadFrequently: true });
(function look() {
  context.drawImage(source, 32, 48, 1, 1, 0, 0, 1, 1);
  if (context.getImageData(0, 0, 1, 1).data[1] > 128) return done(Date.now() - window.pushed);
  requestAnimationFrame(look);
})();
"""
PUSHED = ("addEventListener('pointermove', (event) => {"
          " if (event.buttons) window.pushed ??= Date.now(); }, true);")


def push(browser, right):
    """Presses the pointer on the stick and moves it so far; the page notes when, if it was told
    to."""
    browser.run("window.pushed = undefined; window.changes = [];")
    browser.actions.move_to_element(browser.find("#stick")).click_and_hold() \
        .move_by_offset(right, 0).perform()


class Lamp:
    """A camera that switches its lamp on as soon as its gimbal is to move, off when it rests."""

    def __init__(self, film):
        self.data = Bridge(DATA_PORT)
        self.data.keep_sending(b"\0", 0.2)
        self.film = film
        threading.Thread(target=self._watch, daemon=True).start()

    def _watch(self):
        with contextlib.suppress(OSError):
            while True:
                frame = self.data.socket.recv(2048)
                if frame[9:11] == b"\x04\x0c":
                    self.film.lamp = any(frame[11:17])


def measure_joystick(rig, times=15):
    """From the pointer on the stick to the changed picture on the page."""
    bridge = VideoBridge()
    film = Film(bridge.take)
    lamp = Lamp(film)
    browser = rig.browser
    found = []
    try:
        browser.open("http://127.0.0.1:8080/")
        browser.picture()
        browser.find("#take").click()
        browser.wait("return document.body.dataset.driver === 'me'")
        browser.run(PUSHED)
        for number in range(times):
            push(browser, 50)
            found.append(browser.driver.execute_async_script(LAMP))
            browser.actions.release().perform()
            time.sleep(0.3 + 0.017 * (number % 5))
    finally:
        film.close()
        bridge.close()
        lamp.data.close()
    return [row("joystick to the changed picture", statistics.median(found), JOYSTICK)]


# Notes each new picture on the page: when it was seen, and how far it is from the one before it.
CHANGES = """
const source = document.querySelector("#canvas");
const canvas = document.createElement("canvas");
[canvas.width, canvas.height] = [64, 36];
const context = canvas.getContext("2d", { willReadFrequently: true });
let last = null;
window.changes = [];
(function look() {
  context.drawImage(source, 0, 0, 64, 36);
  const { data } = context.getImageData(0, 0, 64, 36);
  const by = last ? data.reduce((sum, value, i) => sum + Math.abs(value - last[i]), 0) : 0;
  if (by > 0) window.changes.push({ at: Date.now(), by });
  last = data;
  requestAnimationFrame(look);
})();
"""
TURNED = """
const one = window.changes.find(({ at, by }) => at > window.pushed && by > arguments[0]);
return one && one.at - window.pushed;
"""


def turn(browser, way, least):
    """How long the picture takes to turn after the stick was pushed that way."""
    push(browser, 60 * way)
    took = browser.wait(TURNED, least)
    browser.actions.release().perform()
    return took


def measure_turning(rig, times=16):
    """From the pointer on the stick to the turned picture of the simulated camera's panorama."""
    browser = rig.browser
    with rig.scene():
        browser.open("http://127.0.0.1:8080/")
        browser.picture()
        browser.wait("return !document.querySelector('#attitude').hidden", seconds=30)
        browser.find("#take").click()
        browser.wait("return document.body.dataset.driver === 'me'")
        # What was shown first may be the film before this one.
        shown = "return Number(document.querySelector('#stage').dataset.shown)"
        browser.wait(f"{shown} > arguments[0]", browser.run(shown) + 50, seconds=30)
        browser.run(PUSHED + CHANGES)
        time.sleep(3)
        # At rest only the ball moves, and the coder trembles: turning is more than that.
        rest = browser.run("return Math.max(...window.changes.map(({ by }) => by))")
        found = []
        for number in range(times):
            found.append(turn(browser, 1 - 2 * (number % 2), 2 * rest))
            time.sleep(0.8 + 0.017 * (number % 5))
    return [row("joystick to the turned panorama", statistics.median(found), JOYSTICK)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release")
    parser.add_argument("--samples", type=int, default=400)
    options = parser.parse_args()
    with Rig(options.build.resolve()) as rig:
        held = measure_glass(rig, options.samples)
        held += measure_command(rig)
        held += measure_joystick(rig)
        held += measure_turning(rig)
    return 0 if all(held) else 1


if __name__ == "__main__":
    sys.exit(main())
