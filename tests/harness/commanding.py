"""A running service with the whole of its surroundings: a camera, a viewer and the display region.

Test files that use the fixtures say so: pytest_plugins = ["harness.commanding"].
"""

import json
import re

import pytest

from harness.camera import Camera
from harness.console import removed
from harness.duml import Command, command
from harness.making import making
from harness.service import wait_for_ports
from harness.timing import wait_until

# What the links say of themselves, at moments of their own.
LINK_TEXTS = re.compile(r"(Data|Video) (found|lost)\n|"
                        r"New client connected from .*\n|Client .* (removed|lost)\n")


def show(effect):
    """A text or a frame, for a person to read."""
    return repr(effect) if isinstance(effect, str) else effect.hex(" ")


class Station:
    """A running service with its camera, a viewer that is not registered, and its region."""

    def __init__(self, start, viewer, region, conf="", introduce=True, env=None):
        self.camera = Camera()
        self.viewer = viewer
        self.region = region
        self.sequence = 0  # of the next frame
        wait_for_ports()
        self.service = start(conf, env=env, wait_ready=False,
                             preexec_fn=self.camera.take_console)
        self.camera.wait_text("Init control\n", 10)
        # The last that is done before the control threads run.
        wait_until(lambda: region.value("d", region.FOCUS_POINT_Y) == 0.5, 5, "the centred focus point")
        if introduce:
            self.camera.introduce()
        self._seen = self.camera.count()
        self._fences = 0

    def post(self, what):
        """Sends a command, an object or a text of any bytes, and waits until it lies in the mailbox
        or has been taken from there."""
        self.viewer.command(json.dumps(what) if isinstance(what, dict) else what)
        self.wait_handled()

    def wait_handled(self):
        """Waits until the viewer's datagrams so far have been handled."""
        start = self.camera.count()
        # They are handled one by one, and the second of these is announced.
        self.viewer.register()
        self.viewer.leave()
        self.camera.wait_text(removed(self.viewer), start=start)

    def send(self, what):
        """Posts a command and waits until it has been taken, so that another can follow."""
        self.post(what)
        self.wait_taken()

    def wait_taken(self):
        """Waits until the command in the mailbox, if there is one, has been taken."""
        wait_until(lambda: self.region.u8(self.region.COMMAND_MAILBOX[0]) == 0, 5, "the command")

    def effects(self):
        """What the service said and sent since the last call, in order: texts and whole frames."""
        events = self.camera.events(self._seen)
        self._seen += len(events)
        return [event.data if event.is_frame else event.text for event in events
                if event.is_frame or not LINK_TEXTS.fullmatch(event.text)]

    def numbered(self, effects):
        """The effects with the frames that their commands become, if nothing else is sent."""
        result = []
        for effect in effects:
            if isinstance(effect, Command):
                effect = effect.frame(self.sequence)
                self.sequence = (self.sequence + 1) % 0x10000
            result.append(effect)
        return result

    def fence(self):
        """Sends a command that has a text of its own and no frame, and waits for the text:
        everything that was sent before is done. Returns it as a row of check()."""
        self._fences += 1
        word = f"fence {self._fences}"
        text = f"Gimbal set mode {word}\n"
        what = command("gimbal", "mode", word)
        start = self.camera.count()
        self.send(what)
        self.camera.wait_text(text, start=start)
        return what, [text]

    def check(self, rows):
        """Sends the command of every row, one after the other, and holds what the service says and
        sends to the effects of all rows: texts and Commands, in order, and nothing else."""
        rows = list(rows)
        for what, _ in rows:
            self.send(what)
        rows.append(self.fence())
        actual = self.effects()
        for what, effects in rows:
            expected = self.numbered(effects)
            found, actual = actual[:len(expected)], actual[len(expected):]
            assert found == expected, (
                f"{what!r} should have led to\n" + "\n".join(map(show, expected)) +
                "\nnot to\n" + "\n".join(map(show, found)))
        assert not actual, "more than expected:\n" + "\n".join(map(show, actual))

    def close(self):
        print(LINK_TEXTS.sub("", self.camera.console()))  # shown when the test has failed
        self.camera.close()


@pytest.fixture
def stations(start, viewers, region):
    """stations(conf="", introduce=True, env=None) makes a Station, one at a time."""
    with making(lambda **options: Station(start, viewers(), region, **options)) as make:
        yield make


@pytest.fixture
def station(stations):
    """A Station whose service knows the camera."""
    return stations()


@pytest.fixture
def cameras():
    """cameras(host="127.0.0.1") makes one more camera, closed at the end of the test."""
    with making(Camera) as make:
        yield make
