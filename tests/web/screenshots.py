"""`./dev screenshots`: the page as phones and desks show it, on a service with a simulated camera,
to be looked at. The README's pictures are among them.

usage: tests/web/screenshots.py --build FOLDER OUTPUT_FOLDER"""

import argparse
import contextlib
import pathlib
import subprocess
import sys
import tempfile
import time

from selenium.common.exceptions import WebDriverException

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from harness.service import Service  # noqa: E402
from harness.timing import wait_until  # noqa: E402
from chromium import Chromium  # noqa: E402

SIZES = {"phone": (360, 640), "phone-across": (844, 390), "desk": (1920, 1080)}
# Of those, with their themes, the README shows these; small ones of 256 colours.
SHOWN = {"phone-dark": "page-phone.png", "phone-across-light": "page-across.png",
         "desk-dark": "page-desk.png"}
CONFIGURATION = "rc_input_enabled=1\nrc_input_map=pan,tilt,record,,ev\n"


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--readme", type=pathlib.Path, help="where the README's pictures go")
    return parser.parse_args()


@contextlib.contextmanager
def running(*command, **options):
    process = subprocess.Popen([str(word) for word in command], stderr=subprocess.DEVNULL,
                               **{"stdin": subprocess.DEVNULL, **options})
    try:
        yield process
    finally:
        process.kill()
        process.wait()


def start(build, ends):
    """A service with its camera, picture and page."""
    folder = pathlib.Path(ends.enter_context(tempfile.TemporaryDirectory()))
    service = Service(build / "nimbus", folder, CONFIGURATION)
    ends.callback(service.kill)
    ends.enter_context(running(build / "nimbus-sim", "--scene", stdout=subprocess.DEVNULL))
    ends.enter_context(running(build / "nimbus-web", "--service", "127.0.0.1", "--listen",
                               "127.0.0.1:8080"))


def operate(browser):
    """What somebody may have done before the picture was taken."""
    browser.wait("return !document.querySelector('#take').disabled", seconds=20)
    browser.picture()
    browser.run("document.querySelector('#take').click()")
    browser.wait("return document.body.dataset.driver === 'me'")
    stick = browser.find("#stick")
    browser.actions.move_to_element(stick).click_and_hold().move_by_offset(30, -25).perform()
    time.sleep(0.8)
    browser.actions.release().perform()
    browser.run("document.querySelector('#record').click()")
    browser.wait("return document.body.classList.contains('recording')")
    touch = browser.find("#touch")
    browser.actions.move_to_element_with_offset(touch, 50, -60).click_and_hold() \
        .move_by_offset(70, 60).perform()
    browser.actions.release().perform()
    browser.wait("return !document.querySelector('#tracking').hidden")
    time.sleep(6)  # what was told has gone


def take(browser, folder):
    for name, size in SIZES.items():
        for dark in (True, False):
            browser.show(size, dark)
            time.sleep(0.6)
            file = folder / f"{name}-{'dark' if dark else 'light'}.png"
            browser.driver.save_screenshot(str(file))
            print(file)


# What opens over the page, by what is pressed for it.
DIALOGS = {"settings": "#settings", "help": "#help", "more": "#more",
           "picker": "#values button:nth-of-type(4)"}


def dialogs(browser, folder):
    for name, button in DIALOGS.items():
        for size, dark in (("phone", True), ("phone", False), ("phone-across", False)):
            browser.show(SIZES[size], dark)
            browser.run("document.querySelector(arguments[0]).click()", button)
            browser.wait("return document.querySelector('dialog[open]')")
            time.sleep(0.4)
            file = folder / f"{name}-{size}-{'dark' if dark else 'light'}.png"
            browser.driver.save_screenshot(str(file))
            browser.run("document.querySelector('dialog').close()")


def small(file, target):
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-i", file, "-vf",
                    "scale='min(iw,1280)':-1,split[a][b];[a]palettegen=max_colors=128[p];"
                    "[b][p]paletteuse=dither=none", "-frames:v", "1", target], check=True)


def main():
    options = arguments()
    options.folder.mkdir(parents=True, exist_ok=True)
    with contextlib.ExitStack() as ends:
        start(options.build.resolve(), ends)
        browser = Chromium(size=SIZES["phone-across"])
        ends.callback(browser.close)
        wait_until(lambda: opens(browser), 20, "nimbus-web")
        operate(browser)
        take(browser, options.folder)
        dialogs(browser, options.folder)
    if options.readme:
        options.readme.mkdir(parents=True, exist_ok=True)
        for source, target in SHOWN.items():
            small(options.folder / f"{source}.png", options.readme / target)


def opens(browser):
    with contextlib.suppress(WebDriverException):  # refused: not yet
        browser.open("http://127.0.0.1:8080/")
    return browser.driver.title == "Nimbus"


if __name__ == "__main__":
    main()
