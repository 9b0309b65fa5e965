"""Many browsers at once, each with a script: takes control, steers, commands, lets go, comes again.
`--long` has twenty of them for ten minutes."""

import asyncio
import contextlib
import json
import pathlib
import random
import statistics
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
    ages = browser.ages(selector, times(60, 600))
    thread.join(seconds + limit(30))
    assert not thread.is_alive(), "a scripted browser hangs"
    assert -1 not in ages and statistics.median(ages) < limit(1000), ages
    assert all(one.pictures > 20 * seconds for one in scripted), [one.pictures for one in scripted]
    assert all(one.results > 0 for one in scripted), "commands without an answer"
    assert memory(web.process.pid) < MOST_MEMORY
    # Whoever was the last to steer is gone: nothing moves.
    wait_until(lambda: rests(data), 5, "the rest of the gimbal")
    assert browser.errors() == []


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
