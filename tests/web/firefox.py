"""Firefox without a screen, by WebDriver BiDi over its own debugging port: no other program is
needed."""

import asyncio
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import time

import websockets

from harness.timing import limit, wait_until
from film import READER

PREFERENCES = {
    "media.autoplay.default": 0,
    "browser.shell.checkDefaultBrowser": False,
    "datareporting.policy.dataSubmissionEnabled": False,
    "toolkit.telemetry.reportingpolicy.firstRun": False,
    "app.update.enabled": False,
    "network.captive-portal-service.enabled": False,
    "network.connectivity-service.enabled": False,
    "extensions.getAddons.cache.enabled": False,
    "browser.safebrowsing.malware.enabled": False,
    "browser.startup.homepage_override.mstone": "ignore",
}


class Firefox:
    """A browser with one page."""

    def __init__(self, size=(844, 390), port=9333):
        self.profile = pathlib.Path(tempfile.mkdtemp(prefix="firefox-"))
        (self.profile / "user.js").write_text("".join(
            f"user_pref({json.dumps(name)}, {json.dumps(value)});\n"
            for name, value in PREFERENCES.items()))
        self.process = subprocess.Popen(
            [shutil.which("firefox"), "--headless", f"--remote-debugging-port={port}",
             "--profile", str(self.profile), "--window-size", f"{size[0]},{size[1]}"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env={**os.environ, "HOME": str(self.profile)})
        self.log = []
        self._loop = asyncio.new_event_loop()
        self._number = 0
        self._socket = self._wait(self._connect(port))
        self.call("session.new", capabilities={})
        self.call("session.subscribe", events=["log.entryAdded"])
        tree = self.call("browsingContext.getTree")
        self.context = tree["contexts"][0]["context"]

    def _wait(self, coroutine):
        return self._loop.run_until_complete(asyncio.wait_for(coroutine, limit(60)))

    async def _connect(self, port):
        deadline = time.monotonic() + limit(40)
        while True:
            try:
                return await websockets.connect(f"ws://127.0.0.1:{port}/session", max_size=2**24)
            except OSError:
                assert time.monotonic() < deadline and self.process.poll() is None, "no Firefox"
                await asyncio.sleep(0.1)

    def call(self, method, **parameters):
        return self._wait(self._call(method, parameters))

    async def _call(self, method, parameters):
        self._number += 1
        number = self._number
        await self._socket.send(json.dumps(
            {"id": number, "method": method, "params": parameters}))
        while True:
            message = json.loads(await self._socket.recv())
            if message.get("method") == "log.entryAdded":
                self.log.append(message["params"])
            if message.get("id") == number:
                assert message.get("type") != "error", message
                return message["result"]

    def open(self, address):
        self.call("browsingContext.navigate", context=self.context, url=address, wait="complete")

    def run(self, body, *arguments):
        """What the body of a function answers, as JSON."""
        return self._evaluate(f"Promise.resolve((function() {{ {body} }})"
                              f".call(null, ...{json.dumps(arguments)}))")

    def run_until_done(self, body, *arguments):
        """What the body gives to its last argument, a function."""
        return self._evaluate(f"new Promise((done) => {{ (function() {{ {body} }})"
                              f".call(null, ...{json.dumps(arguments)}, done); }})")

    def _evaluate(self, promise):
        script = f"{promise}.then((one) => JSON.stringify(one ?? null))"
        result = self.call("script.evaluate", expression=script, awaitPromise=True,
                           target={"context": self.context})
        assert result["type"] == "success", result
        return json.loads(result["result"].get("value", "null"))

    def wait(self, body, *arguments, seconds=20, what=None):
        return wait_until(lambda: self.run(f"return (() => {{ {body} }})(arguments) ?? null",
                                           *arguments), seconds, what or body)

    def picture(self):
        self.wait("return Number(document.querySelector('#stage').dataset.shown) > 0",
                  what="the first picture")
        player = self.run("return document.querySelector('#stage').dataset.player")
        return {"mse": "#video", "webcodecs": "#canvas"}[player]

    def ages(self, selector, times):
        return self.run_until_done(READER, selector, times)

    def errors(self):
        return [entry["text"] for entry in self.log if entry["level"] in ("error", "warn")]

    def close(self):
        self._wait(self._socket.close())
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self._loop.close()
        shutil.rmtree(self.profile, ignore_errors=True)
