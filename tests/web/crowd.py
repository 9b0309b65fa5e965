"""Many who have the page open, each with a script of what to do there."""

import asyncio
import json
import pathlib
import random
import subprocess
import time

import websockets

from conftest import PLAIN_HOST, PORT

ADDRESS = f"ws://{PLAIN_HOST}:{PORT}"


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


async def run_all(scripted, driving):
    """All of them watch, these drive."""
    await asyncio.gather(*(one.watch() for one in scripted), *(one.drive() for one in driving))


# --- As pages of a real browser ------------------------------------------------------------------

# What a person does who wants to drive, quicker than any: takes control or asks for it, hands it
# over, centres the gimbal, holds an arrow key for a moment, gives control back.
RESTLESS = """
window.did = { drove: 0, moved: 0, told: 0, wrong: [] };
addEventListener("error", (event) => window.did.wrong.push(event.message));
addEventListener("unhandledrejection", (event) => window.did.wrong.push(String(event.reason)));
new MutationObserver(() => { window.did.told += 1; })
  .observe(document.querySelector("#toasts"), { childList: true });
const asked = () => !document.querySelector("#ask").hidden;
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
  if (asked()) document.querySelector("#grant").click();
  else if (driver === "me") drive();
  else if (driver === "none") document.querySelector("#take").click();
  else if (Math.random() < 0.1) document.querySelector("#take").click();
  setTimeout(act, 1500 + 1000 * Math.random());
})();
"""
# Windows lie over each other, and all of them shall live.
AWAKE = ["--disable-backgrounding-occluded-windows", "--disable-renderer-backgrounding",
         "--disable-background-timer-throttling"]


class Pages:
    """So many windows of one browser, each with the page by an address of its own: the system takes
    that for the connection's other end, too, so that the server sees as many machines. A browser
    gives up what it loads when an address comes or goes: they are there before it is."""

    def __init__(self, start, port, count):
        hosts = [f"10.66.1.{number}" for number in range(1, count + 1)]
        for host in hosts:
            subprocess.run(["ip", "address", "replace", f"{host}/32", "dev", "lo"], check=True)
        self.browser = start(flags=AWAKE)
        self.windows = [self._open(host, port) for host in hosts]

    def _open(self, host, port):
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

    def ages(self, times):
        """How old what each shows is, in ms, at so many moments; -1 for what cannot be read."""
        ages = []
        for window in self.windows:
            self.browser.driver.switch_to.window(window)
            ages += self.browser.ages(self.browser.picture(), times)
        return ages


def memory(pid):
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(status.split("VmRSS:")[1].split()[0])
