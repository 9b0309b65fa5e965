"""A service that is killed while it saves its settings, and starts again.

The file on the card is rewritten in place, and the working copy is made from it at the very end.
The next start reads the copy: it finds all of the old settings or all of the new ones, whenever the
service itself was killed, because the command that makes the copy runs to its end without it. When
the command is killed, too, the copy may be cut short; the card has the whole file then.
"""

import collections
import json
import os
import pathlib
import signal
import subprocess
import time

import pytest

import nimbus
from board import CARD_FILE, WORKING_COPY
from nimbus import wait_until
from service_fixtures import orphans
from test_save import with_settings, without_cr

# The report does not escape what is in it.
OLD, NEW = (with_settings(video_bitrate=rate, wifi_psk='"plain"') for rate in (1111, 2222))
COPIES = {without_cr(OLD): 1111, without_cr(NEW): 2222}
COMMAND = json.dumps({"cmd": "updateparam", "name": "video_bitrate", "value": "2222"})


class SaveTest:
    """A service that has the old settings, and is told the new one."""

    def __init__(self, start, join, standins, folder, env):
        self.standins = standins
        self._start, self._join, self._env = start, join, env
        self._folder = folder
        (folder / "tervado.conf").symlink_to(WORKING_COPY)

    def begin(self, **popen):
        CARD_FILE.write_bytes(OLD)
        WORKING_COPY.write_bytes(without_cr(OLD))
        self._before = orphans().keys()
        self.service = self._start(conf=None, env=self._env, **popen)
        (self.standins.folder / "service").write_text(str(self.service.pid))
        self.viewer = self._join(self.service)

    def save(self):
        self.viewer.command(COMMAND)

    def wait_killed(self):
        """Waits for the end of the service and of all that it has begun. Returns what is in the two
        files."""
        assert self.service.process.wait(nimbus.limit(10)) == -signal.SIGKILL
        wait_until(lambda: not orphans().keys() - self._before, 10, "the end of its commands")
        return CARD_FILE.read_bytes(), WORKING_COPY.read_bytes()

    def restart(self):
        """The bit rate that the next start finds. The region is a new one: a command that was left
        in the old one would be done by the next service."""
        pathlib.Path("/dev/shm/hud_mem").unlink()
        for tool in ("mount", "umount", "cat", "sed", "killall"):
            self.standins.reset(tool)
        self.answer_copy()
        service = self._start(conf=None, env=self._env)
        assert "Loading config file... done\n" in service.err.text()
        viewer = self._join(service)
        viewer.command('{"cmd":"configrequest"}')
        report = json.loads(viewer.wait(lambda frame: frame.payload[:1] == b"{").payload)
        service.stop()
        return report["vbitrate"]

    def answer_copy(self):
        """The tools of the copy do their work."""
        for tool in ("cat", "sed"):
            self.standins.answer(tool, f'exec /bin/{tool} "$@"')


@pytest.fixture
def save_test(start, join, standins, tmp_path):
    folder = tmp_path / "tools"
    folder.mkdir()
    standin = pathlib.Path(nimbus.__file__).parents[2] / "tools" / "sandbox" / "bin" / "board-tool"
    for tool in ("cat", "sed"):
        (folder / tool).symlink_to(standin)
    WORKING_COPY.unlink(missing_ok=True)
    test = SaveTest(start, join, standins, tmp_path,
                    {"PATH": f"{folder}:{os.environ['PATH']}"})
    test.answer_copy()
    yield test
    WORKING_COPY.unlink(missing_ok=True)


# --- The service alone ----------------------------------------------------------------------------

KILL = 'kill -9 "$(/bin/cat "$NIMBUS_STANDINS/service")"\n'
THEN_COPY = 'exec "/bin/${0##*/}" "$@"'


@pytest.mark.parametrize("tool, script, card, copy", [
    pytest.param("mount", KILL, OLD, OLD, id="as the partition is made writable"),
    pytest.param("umount", KILL, NEW, OLD, id="as the partition is unmounted"),
    pytest.param("mount", f'[ "$1" = -o ] || {KILL}', NEW, OLD, id="as it is mounted again"),
    pytest.param("cat", KILL + THEN_COPY, NEW, NEW, id="as the copy begins"),
    pytest.param("sed", KILL + THEN_COPY, NEW, NEW, id="as the copy is made"),
    pytest.param("cat", f'/bin/cat "$@"\n{KILL}', NEW, NEW, id="as the copy ends"),
    pytest.param("killall", KILL, NEW, NEW, id="behind the save"),
])
def test_killed_by_the_tool(save_test, tool, script, card, copy):
    save_test.standins.answer(tool, script)
    save_test.begin()
    save_test.save()
    assert save_test.wait_killed() == (card, without_cr(copy))
    assert save_test.restart() == COPIES[without_cr(copy)]


@pytest.mark.parametrize("call, card", [("openat", OLD), ("write", b""), ("close", NEW)],
                         ids=["openat", "write", "close"])
def test_killed_at_the_file(unsanitized, save_test, call, card):
    """Before it is opened, while it is empty, and when it is whole. The copy is that of the old
    settings."""
    save_test.begin()
    tracer = subprocess.Popen(
        ["strace", "-f", "-o", "/dev/null", "-P", str(CARD_FILE), "-e", "trace=openat,write,close",
         "-e", f"inject={call}:signal=KILL", "-p", str(save_test.service.pid)],
        stderr=subprocess.PIPE)
    nimbus.Console(tracer.stderr).wait(f"Process {save_test.service.pid} attached")
    save_test.save()
    assert save_test.wait_killed() == (card, without_cr(OLD))
    tracer.wait(nimbus.limit(5))
    assert save_test.restart() == 1111


def moments(save_test, rounds):
    """Lets a service save so many times, and waits each time until another moment of the save. Each
    yields once it is time."""
    save_test.begin()
    save_test.save()
    save_test.service.err.wait("Save config\n")
    begin = time.monotonic()
    wait_until(lambda: WORKING_COPY.read_bytes() == without_cr(NEW), 5, "the end of a save")
    whole = 1.1 * (time.monotonic() - begin)
    save_test.service.kill()
    save_test.wait_killed()
    for number in range(rounds):
        save_test.begin(start_new_session=True)
        save_test.save()
        save_test.service.err.wait("Save config\n")
        time.sleep(whole * number / rounds)
        yield


def test_killed_at_any_moment(save_test, times):
    """Old or new, and nothing between them."""
    rounds = times(10, 300)
    found = collections.Counter()
    for _ in moments(save_test, rounds):
        save_test.service.kill()
        card, copy = save_test.wait_killed()
        assert card in (OLD, NEW, b"") and copy in COPIES
        assert card == NEW or copy == without_cr(OLD)
        assert save_test.restart() == COPIES[copy]
        found[COPIES[copy]] += 1
    print(f"\nkilled saves: {rounds}; {found[1111]} starts with the old settings, {found[2222]} "
          "with the new ones")


# --- The service with its commands ----------------------------------------------------------------

KILL_ALL = '/bin/kill -9 -- "-$(/bin/cat "$NIMBUS_STANDINS/service")"\n'


def test_killed_with_the_command_that_copies(save_test):
    """The copy is empty; the service starts all the same, without settings. The card has them."""
    save_test.standins.answer("sed", KILL_ALL)
    save_test.begin(start_new_session=True)
    save_test.save()
    assert save_test.wait_killed() == (NEW, b"")
    assert save_test.restart() == 0


def test_killed_with_its_commands_at_any_moment(save_test, times):
    """At no moment are both files spoilt."""
    rounds = times(10, 300)
    found = collections.Counter()
    for _ in moments(save_test, rounds):
        os.killpg(save_test.service.pid, signal.SIGKILL)
        card, copy = save_test.wait_killed()
        assert card == NEW or copy == without_cr(OLD)
        assert without_cr(NEW).startswith(copy) or copy == without_cr(OLD)
        found[COPIES.get(copy, "cut")] += 1
        save_test.restart()
    print(f"\nkilled with their commands: {rounds} saves; {found[1111]} old copies, {found[2222]} "
          f"new ones, {found['cut']} cut short")
