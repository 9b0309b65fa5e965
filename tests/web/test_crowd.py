"""Many browsers at once, each with a script: takes control, steers, commands, lets go, comes again.
`--long` has twenty of them for ten minutes: once as the server sees them, which costs little, and
once as pages of a real browser."""

import asyncio
import contextlib
import json
import pathlib
import random
import statistics
import subprocess
import threading
import time

import websockets

from harness.timing import limit, wait_until
from conftest import PLAIN_HOST, PORT

ADDRESS = f"ws://{PLAIN_HOST}:{PORT}"
MOST_MEMORY = 40 * 1024  # KiB


class Scripted:
    """A browser as the server sees it."""

    def __init__(self, seed, until):
        self.luck = random.Random(seed)
        self.host = f"127.0.2.{seed + 1}"
        self.until = until
        self.pictures = 0
        self.results = 0

    def connect(self, path):
        """From an address of its own."""
        return websockets.connect(f"{ADDRESS}/ws/{path}", origin=f"http://{PLAIN_HOST}:{PORT}",
                                  max_size=2**22, local_addr=(self.host, 0))

    async def watch(self):
        async with self.connect("video") as socket:
            async for message in socket:
                self.pictures += not isinstance(message, str) and message[0] == 2
                if time.monotonic() > self.until:
                    return

    async def listen(self, socket):
        async for text in socket:
            self.results += json.loads(text)["type"] == "result"

    async def drive(self):
        while time.monotonic() < self.until:
            async with self.connect("control") as socket:
                ear = asyncio.create_task(self.listen(socket))
                for _ in range(self.luck.randrange(1, 4)):
                    await self.act(socket)
                await asyncio.sleep(0.2)
                ear.cancel()

    async def act(self, socket):
        async def say(**message):
            await socket.send(json.dumps(message))

        await say(type="take")
        iso = self.luck.choice(["100", "200", "400", "800"])
        await say(type="command", id=1, words=["iso", iso])
        for number in range(self.luck.randrange(1, 12)):
            await say(type="speed", pan=self.luck.uniform(-1, 1), tilt=0, roll=0, n=number + 1)
            await say(type="heartbeat")
            await asyncio.sleep(0.05)
        if self.luck.random() < 0.7:
            await say(type="release")


async def run_all(scripted):
    await asyncio.gather(*(one.watch() for one in scripted), *(one.drive() for one in scripted))


def memory(pid):
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(status.split("VmRSS:")[1].split()[0])


def test_crowd(browser, web, data, film, times):
    seconds = times(6, 600)
    data.keep_sending(b"\0", 0.2)
    browser.open(web.address())
    selector = browser.picture()
    until = time.monotonic() + seconds
    scripted = [Scripted(seed, until) for seed in range(times(6, 20))]
    thread = threading.Thread(target=lambda: asyncio.run(run_all(scripted)))
    thread.start()
    ages = browser.ages(selector, 60)
    time.sleep(max(0, until - time.monotonic() - 30))
    ages += browser.ages(selector, times(1, 600))
    thread.join(seconds + limit(30))
    assert not thread.is_alive(), "a scripted browser hangs"
    assert -1 not in ages and statistics.median(ages) < limit(1000), ages
    assert all(one.pictures > 20 * seconds for one in scripted), [one.pictures for one in scripted]
    assert all(one.results > 0 for one in scripted), "commands without an answer"
    assert memory(web.process.pid) < MOST_MEMORY
    # Whoever was the last to steer is gone: nothing moves.
    wait_until(lambda: rests(data), 5, "the rest of the gimbal")
    assert browser.errors() == []


# --- As pages of a real browser ------------------------------------------------------------------

# What a person does who wants to drive, quicker than any: takes control or asks for it, hands it
# over, centres the gimbal, holds an arrow key for a moment, gives control back.
RESTLESS = """
window.did = { drove: 0, moved: 0, told: 0, wrong: [] };
addEventListener("error", (event) => window.did.wrong.push(event.message));
addEventListener("unhandledrejection", (event) => window.did.wrong.push(String(event.reason)));
new MutationObserver(() => { window.did.told += 1; })
  .observe(document.querySelector("#toasts"), { childList: true });
const button = (text) => [...document.querySelectorAll("dialog button")].find((one) =>
  one.textContent === text);
const key = (type, name) => document.body.dispatchEvent(
  new KeyboardEvent(type, { key: name, bubbles: true, cancelable: true }));
const one = (list) => list[Math.floor(Math.random() * list.length)];
function drive() {
  window.did.drove += 1;
  key("keydown", "c");
  const arrow = one(["ArrowLeft", "ArrowRight", "ArrowUp", "ArrowDown"]);
  key("keydown", arrow);
  setTimeout(() => { key("keyup", arrow); window.did.moved += 1; }, 400);
  setTimeout(() => document.querySelector("#take").click(), 900 + 600 * Math.random());
}
(function act() {
  if (window.ended) return;
  const driver = document.body.dataset.driver;
  if (button("Hand over")) button("Hand over").click();
  else if (driver === "me") drive();
  else if (driver === "none") document.querySelector("#take").click();
  else if (Math.random() < 0.1) document.querySelector("#take").click();
  setTimeout(act, 1500 + 1000 * Math.random());
})();
"""
# Windows lie over each other, and all of them shall live.
AWAKE = ["--disable-backgrounding-occluded-windows", "--disable-renderer-backgrounding",
         "--disable-background-timer-throttling"]
RATE = 5  # pictures a second: all the browsers are one machine's


class Pages:
    """So many windows of one browser, each with the page by an address of its own: the system takes
    that for the connection's other end, too, so that the server sees as many machines."""

    def __init__(self, browser, port, count):
        self.browser = browser
        self.windows = [self._open(f"10.66.1.{number}", port) for number in range(1, count + 1)]

    def _open(self, host, port):
        subprocess.run(["ip", "address", "replace", f"{host}/32", "dev", "lo"], check=True)
        self.browser.driver.switch_to.new_window("window")
        self.browser.show((360, 640))
        self.browser.cdp("Emulation.setFocusEmulationEnabled", enabled=True)
        self.browser.open(f"http://{host}:{port}/")
        self.browser.picture()
        self.browser.run(RESTLESS)
        return self.browser.driver.current_window_handle

    def each(self, script):
        """What the script answers in each of them."""
        answers = []
        for window in self.windows:
            self.browser.driver.switch_to.window(window)
            answers.append(self.browser.run(script))
        return answers


SHOWN = "return Number(document.querySelector('#stage').dataset.shown)"


def test_crowd_of_pages(chromiums, web, data, films, times):
    """All see the picture to the end, whoever waits gets to drive, nothing goes wrong."""
    count, seconds = times((3, 10), (20, 600))
    data.keep_sending(b"\0", 0.2)
    films(rate=RATE, keys=RATE)
    pages = Pages(chromiums(flags=AWAKE), web.port, count)
    first, begun = pages.each(SHOWN), time.monotonic()
    time.sleep(seconds)
    last, watched = pages.each(SHOWN), time.monotonic() - begun
    did = pages.each("window.ended = true; return window.did")
    seen = [(b - a) / (RATE * watched) for a, b in zip(first, last)]
    print(f"parts of the pictures' numbers that passed by: {min(seen):.2f} to {max(seen):.2f};"
          f" drove {[one['drove'] for one in did]}, memory {memory(web.process.pid)} KiB")
    assert min(seen) > 0.9, seen
    assert pages.each("return document.querySelector('#stale').textContent") == [""] * count
    assert [one["wrong"] for one in did] == [[]] * count
    assert any(one["told"] for one in did), "no command was answered"
    assert sum(one["moved"] > 0 for one in did) >= min(count, seconds // 10), did
    assert memory(web.process.pid) < MOST_MEMORY
    time.sleep(2)  # whoever had begun lets go
    wait_until(lambda: rests(data), 5, "the rest of the gimbal")
    assert pages.browser.errors() == []


def rests(data):
    """Whether no speed comes for a moment, whatever has waited since the crowd was there."""
    data.socket.setblocking(False)
    with contextlib.suppress(BlockingIOError):
        while True:
            data.socket.recv(2048)
    data.socket.settimeout(0.3)
    try:
        while data.socket.recv(2048)[9:11] != b"\x04\x0c":
            pass
        return False
    except TimeoutError:
        return True
