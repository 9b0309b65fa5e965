"""A service that is killed while it saves its settings, or whose board loses its power then.

The file on the card is replaced by a new one that is whole, and the working copy is made from it at
the very end. The next start reads the copy: it finds all of the old settings or all of the new
ones, whenever the service itself was killed, because the command that makes the copy runs to its
end without it. When the command is killed, too, the copy may be cut short; the card has the whole
file then. After a power cut there is no copy, but what had reached the card by then.
"""

import codecs
import collections
import contextlib
import json
import os
import pathlib
import re
import signal
import subprocess
import time

import pytest

from harness.board_tools import BOARD_TOOL
from harness.config_file import CARD_FILE, WORKING_COPY, with_settings, without_cr
from harness.console import Console
from harness.fixtures import orphans
from harness.timing import limit, wait_until

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
        assert self.service.process.wait(limit(10)) == -signal.SIGKILL
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
    standin = BOARD_TOOL
    for tool in ("cat", "sed"):
        (folder / tool).symlink_to(standin)
    test = SaveTest(start, join, standins, tmp_path,
                    {"PATH": f"{folder}:{os.environ['PATH']}"})
    test.answer_copy()
    return test


# --- The service alone ---------------------------------------------------------------------------

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


FRESH_FILE = pathlib.Path(f"{CARD_FILE}.new")


@contextlib.contextmanager
def strace(service, *options):
    """Traces a service from here on; it is waited for at the end."""
    tracer = subprocess.Popen(["strace", "-f", *options, "-p", str(service.pid)],
                              stderr=subprocess.PIPE)
    Console(tracer.stderr).wait(f"Process {service.pid} attached")
    yield
    tracer.wait(limit(5))


@pytest.mark.parametrize("path, call, card", [
    (CARD_FILE, "openat", OLD), (FRESH_FILE, "openat", OLD), (FRESH_FILE, "write", OLD),
    (FRESH_FILE, "fsync", OLD), (FRESH_FILE, "rename", OLD), (CARD_FILE.parent, "fsync", NEW)],
    ids=["open", "open new", "write", "sync", "rename", "sync folder"])
def test_killed_at_the_file(unsanitized, save_test, path, call, card):
    """Each call is not done any more. The copy is that of the old settings."""
    save_test.begin()
    with strace(save_test.service, "-o", "/dev/null", "-P", str(path),
                "-e", "trace=openat,write,fsync,rename", "-e", f"inject={call}:signal=KILL"):
        save_test.save()
        assert save_test.wait_killed() == (card, without_cr(OLD))
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
        assert card in (OLD, NEW) and copy in COPIES
        assert card == NEW or copy == without_cr(OLD)
        assert save_test.restart() == COPIES[copy]
        found[COPIES[copy]] += 1
    print(f"\nkilled saves: {rounds}; {found[1111]} starts with the old settings, {found[2222]} "
          "with the new ones")


# --- The service with its commands ---------------------------------------------------------------

KILL_ALL = '/bin/kill -9 -- "-$(/bin/cat "$NIMBUS_STANDINS/service")"\n'


def test_killed_with_the_command_that_copies(save_test):
    """The copy is empty; the service starts all the same, without settings. The card has them."""
    save_test.standins.answer("sed", KILL_ALL)
    save_test.begin(start_new_session=True)
    save_test.save()
    assert save_test.wait_killed() == (NEW, b"")
    assert save_test.restart() == 0


def test_killed_with_its_commands_at_any_moment(save_test, times):
    """The card's file is never spoilt; the copy is, at most, cut short."""
    rounds = times(10, 300)
    found = collections.Counter()
    for _ in moments(save_test, rounds):
        os.killpg(save_test.service.pid, signal.SIGKILL)
        card, copy = save_test.wait_killed()
        assert card == NEW or (card, copy) == (OLD, without_cr(OLD))
        assert without_cr(NEW).startswith(copy) or copy == without_cr(OLD)
        found[COPIES.get(copy, "cut")] += 1
        save_test.restart()
    print(f"\nkilled with their commands: {rounds} saves; {found[1111]} old copies, {found[2222]} "
          f"new ones, {found['cut']} cut short")


# --- The board without power ---------------------------------------------------------------------

class Card:
    """What may be on the card when the power goes, after each call of a save. What is written is
    there for certain when the file is synced, what is renamed when the folder is."""

    def __init__(self):
        self._certain = OLD
        self._written = self._synced = b""  # of the new file
        self._renamed = False

    def call(self, name, path, text=None):
        if name == "openat" and path == str(FRESH_FILE):
            self._written = b""
        if name == "write" and path == str(FRESH_FILE):
            self._written += codecs.decode(text, "unicode_escape").encode("latin-1")
        if name == "fsync" and path == str(FRESH_FILE):
            self._synced = self._written
        if name == "rename" and (path, text) == (str(FRESH_FILE), str(CARD_FILE)):
            self._renamed = True
        if name == "fsync" and path == str(CARD_FILE.parent) and self._renamed:
            self._certain = self._synced

    def possible(self):
        """All that may be in the card's file."""
        return {self._certain, self._synced} if self._renamed else {self._certain}


TEXT = r'"((?:[^"\\]|\\.)*)"'
CALLS = {name: re.compile(pattern) for name, pattern in {
    "execve": r'execve\("[^"]*/(\w+)",',
    "openat": rf"openat\(AT_FDCWD[^,]*, {TEXT}.*\) += \d",
    "write": rf"write\(\d+<([^>]+)>, {TEXT}, \d+\) += \d",
    "fsync": r"fsync\(\d+<([^>]+)>\) += 0",
    "rename": rf"rename\({TEXT}, {TEXT}\) += 0"}.items()}


def lines_of(trace):
    """Without the numbers of the threads; calls that others interrupted are whole again."""
    begun = {}
    for line in trace.splitlines():
        thread, call = line.split(maxsplit=1)
        if call.endswith(" <unfinished ...>"):
            begun[thread] = call.removesuffix(" <unfinished ...>")
            continue
        yield re.sub(r"^<\.\.\. \w+ resumed>", lambda _: begun.pop(thread), call)


def calls_of(trace):
    """The calls that succeeded: their names and texts."""
    for line in lines_of(trace):
        for name, pattern in CALLS.items():
            if match := pattern.match(line):
                yield name, *match.groups()


def test_power_cut_at_any_call(unsanitized, save_test, tmp_path):
    """The card has the old settings or the new ones, whole; and the new ones for certain before the
    partition is unmounted."""
    trace = tmp_path / "trace"
    save_test.begin()
    with strace(save_test.service, "-o", str(trace), "-y", "-s", "100000", "-e",
                "trace=openat,write,fsync,rename,execve"):
        save_test.save()
        wait_until(lambda: WORKING_COPY.read_bytes() == without_cr(NEW), 10, "the end of the save")
        save_test.service.kill()  # a tracer of threads that go on may be long in letting go of them
    card = Card()
    unmounted = False
    for name, *texts in calls_of(trace.read_text()):
        card.call(name, *texts)
        assert card.possible() <= {OLD, NEW}, (name, texts)
        if (name, *texts) == ("execve", "umount"):
            unmounted = True
            assert card.possible() == {NEW}
    assert unmounted
