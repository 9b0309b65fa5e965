"""A running service with a viewer that configures the board, and everything that follows from it.

Test files that use the fixtures say so: pytest_plugins = ["harness.configuring"].
"""

import json
import os
import shutil

import pytest

from harness.config_file import WORKING_COPY
from harness.console import BANNER
from harness.timing import wait_until

# What a save does, by the tools that it calls.
SAVE = [["mount", "-o", "rw,remount", "/boot"], ["umount", "/boot"], ["mount", "/boot"]]


def settings(file=WORKING_COPY):
    """A configuration file as a dictionary of its keys."""
    lines = file.read_text(errors="surrogateescape").splitlines()
    return dict(line.split("=", 1) for line in lines if line and not line.startswith("#"))


class Board:
    """Sends commands one by one and tells what they have led to."""

    def __init__(self, start, viewer, standins, folder, conf):
        scripts = folder / "scripts"
        scripts.mkdir()
        for name in ("hdmi-change.sh", "hdmi-mode.sh"):
            os.symlink(os.path.realpath(shutil.which("mount")), scripts / name)
        self.standins = standins
        self.service = start(conf)
        self.viewer = viewer
        viewer.keep_alive()
        self.service.out.wait(BANNER.decode())
        self.service.err.wait("New client connected")
        self._fences = 0
        self._said = [len(stream.text()) for stream in self._streams()]

    def _streams(self):
        return self.service.out, self.service.err

    def post(self, what):
        """Sends a command and waits until it has been taken. Returns its text."""
        text = what if isinstance(what, str) else json.dumps(what, ensure_ascii=False)
        line = f"config_parse_command {text}\n"
        count = self.service.out.text().count(line) + 1
        self.viewer.command(text)
        self.service.out.wait(line, 10, count)
        return text

    def send(self, what):
        """Sends a command and waits until it has been carried out. Returns what was said meanwhile
        on standard output, behind the line of the command itself, and on standard error."""
        text = self.post(what)
        self._fences += 1
        fence = self.post({"cmd": f"fence {self._fences}"})
        texts = []
        for number, stream in enumerate(self._streams()):
            said = stream.text()
            texts.append(said[self._said[number]:])
            self._said[number] = len(said)
        out, error = texts
        out = out.removeprefix(f"config_parse_command {text}\n")
        return out.removesuffix(f"config_parse_command {fence}\n"), error

    def calls(self):
        """The calls of the board's tools since the last time, the probe for hostapd left out."""
        calls = [call for call in self.standins.calls() if call[0] != "pidof"]
        new = calls[getattr(self, "_calls", 0):]
        self._calls = len(calls)
        return new

    def update(self, name, *values, **more):
        """Changes a setting. Returns what was said, as send() does."""
        arguments = {f"value{n}" if n > 1 else "value": value
                     for n, value in enumerate(values, 1)}
        return self.send({"cmd": "updateparam", "name": name, **arguments, **more})

    def texts(self):
        """The JSON texts that the viewer has received, in order."""
        return [frame.payload for frame in list(self.viewer.frames)
                if frame.payload[:1] == b"{" and not frame.video]

    def request(self, what):
        """Sends a command that is answered. Returns the answer, as it came."""
        count = len(self.texts())
        self.send(what)
        wait_until(lambda: len(self.texts()) > count, 5, "the answer")
        assert len(self.texts()) == count + 1
        return self.texts()[-1]

    def report(self):
        return json.loads(self.request({"cmd": "configrequest"}))


@pytest.fixture
def boards(start, viewers, standins, tmp_path):
    """boards(conf) makes a Board, once a test."""
    return lambda conf="": Board(start, viewers(), standins, tmp_path, conf)


@pytest.fixture
def board(boards):
    return boards()
