"""The screen of nimbusctl top, in tmux."""

import os
import re
import subprocess

import pytest

from harness.service import EMULATOR
from harness.timing import limit, wait_until


class Screen:
    """A terminal of tmux with a shell command in it."""

    def __init__(self, folder, command, size=(100, 40), term="screen-256color"):
        self._tmux = ["tmux", "-S", str(folder / "tmux"), "-f", "/dev/null"]
        self("start-server", ";", "set-option", "-g", "default-terminal", term, ";", "new-session", "-d",
             "-x", size[0], "-y", size[1], command, ";", "set-option", "-g", "window-size", "manual")

    def __call__(self, *words):
        environment = {**os.environ, "LC_ALL": "C.UTF-8"}
        environment.pop("TMUX", None)
        return subprocess.run([*self._tmux, *map(str, words)], capture_output=True, text=True,
                              check=True, env=environment, timeout=limit(10)).stdout

    def text(self):
        return self("capture-pane", "-p")

    def wait(self, pattern, seconds=10):
        try:
            return wait_until(lambda: re.search(pattern, self.text(), re.MULTILINE), seconds, pattern)
        except AssertionError as error:
            raise AssertionError(f"{error}:\n{self.text()}") from None

    def keys(self, *keys):
        self("send-keys", *keys)

    def close(self):
        subprocess.run([*self._tmux, "kill-server"], capture_output=True, check=False)


@pytest.fixture
def screen(build, tmp_path):
    screens = []

    def make(arguments="", term="screen-256color", prefix="", **options):
        """top between two words of the shell, which tells the terminal's settings at both ends."""
        tool = f"{prefix} {' '.join(EMULATOR)} {build}/nimbusctl --timeout {limit(3)}s top {arguments}"
        command = (f"trap : INT; echo before; stty -a >{tmp_path}/first; {tool}; echo status $?; "
                   f"stty -a >{tmp_path}/last; echo behind; sleep 1000")
        screens.append(Screen(tmp_path, f"sh -c '{command}'", term=term, **options))
        return screens[-1]

    yield make
    for one in screens:
        one.close()


@pytest.fixture
def camera(build, service):
    run = subprocess.Popen([*EMULATOR, build / "nimbus-sim"], stdout=subprocess.DEVNULL)
    service.err.wait("Data found")
    yield run
    run.kill()
    run.wait()


def test_everything_is_there(screen, camera):
    one = screen()
    for pattern in (r"^Nimbus 0\.3\.7 at 127\.0\.0\.1:4242   viewers 1", r"^camera data +found +\d+\.\d/s",
                    r"^video +lost +0\.0/s", r"^frames +\d+ received, \d+ missing",
                    r"^camera +video, exposure auto, ISO auto, 1/50 s, f/2.8, EV 0",
                    r"^gimbal +0, 0, 0 degrees; orientation locked no", r"^histogram\n(.*\n){5}.*#"):
        one.wait(pattern)


def test_changes_are_told(screen, camera, build):
    one = screen()
    one.wait("ISO auto")
    subprocess.run([*EMULATOR, build / "nimbusctl", "--timeout", f"{limit(3)}s", "iso", "400"],
                   check=True)
    one.wait("ISO 400")
    one.wait(r"^ +\d s ago  iso: auto -> 400")


def test_commands_are_overheard(screen, camera, build):
    """Those of all viewers, and what the service makes of them for the camera."""
    one = screen()
    one.wait("ISO auto")
    ctl = [*EMULATOR, build / "nimbusctl", "--timeout", f"{limit(3)}s"]
    subprocess.run([*ctl, "iso", "400"], check=True)
    one.wait(r"^ +\d s ago  to the camera: ISO: 400\n +\d s ago  127\.0\.0\.1: {\"cmd\":\"iso\"")
    subprocess.run([*ctl, "speed", "1000", "0", "0", "--for", "1s"], check=True)
    one.wait(r"^ +\d s ago  to the camera: gimbal speed: pan 0\.000, ")
    assert one.text().count("gimbal speed") == 1


def test_who_may_not_listen_sees_the_rest(screen, camera, build):
    one = screen(prefix="setpriv --bounding-set=-net_raw")
    one.wait("ISO auto")
    subprocess.run([*EMULATOR, build / "nimbusctl", "--timeout", f"{limit(3)}s", "iso", "400"],
                   check=True)
    one.wait(r"^ +\d s ago  iso: auto -> 400")
    assert "to the camera" not in one.text()


@pytest.mark.parametrize("term", ["screen-256color", "vt100", "linux"])
def test_q_leaves_the_terminal_as_it_was(term, screen, service, tmp_path):
    one = screen(term=term)
    one.wait("Nimbus 0.3.7")
    one.keys("q")
    one.wait("^behind")
    assert "status 0" in one.text()
    assert (tmp_path / "first").read_text() == (tmp_path / "last").read_text()
    service.err.wait("removed")


def test_ctrl_c(screen, service):
    one = screen()
    one.wait("Nimbus 0.3.7")
    one.keys("C-c")
    one.wait("^behind")
    assert "status 0" in one.text()
    service.err.wait("removed")


@pytest.mark.parametrize("term, look", [("screen-256color", "31"), ("vt100", "7")])
def test_what_is_wrong_stands_out(term, look, screen, service):
    """Red; where there are no colours, reversed."""
    one = screen(term=term)
    one.wait("^video +lost")
    shown = one("capture-pane", "-p", "-e")
    before = shown.partition("camera data")[0].rpartition("end")[2]
    codes = {code for codes in re.findall(r"\x1b\[([\d;]*)m", before) for code in codes.split(";")}
    assert look in codes, shown
    if term == "vt100":
        assert not re.search(r"\x1b\[(\d+;)*[34][0-7]m", shown), shown


def test_sizes(screen, camera):
    """It follows the terminal, down to one that has hardly any room."""
    one = screen()
    one.wait("histogram")
    one("resize-window", "-x", 40, "-y", 5)
    wait_until(lambda: len(one.text().rstrip("\n").split("\n")) == 5, 5, "five lines")
    one.wait("^camera data +found")
    assert all(len(line) <= 40 for line in one.text().split("\n"))
    one("resize-window", "-x", 2, "-y", 1)
    one.wait("^Ni")
    one("resize-window", "-x", 120, "-y", 50)
    one.wait("histogram")


def test_a_service_that_has_gone(screen, service):
    one = screen()
    one.wait("viewers 1")
    service.kill()
    one.wait(r"silent for \d s")


def run(build, *arguments, **options):
    return subprocess.run([*EMULATOR, build / "nimbusctl", *arguments], capture_output=True,
                          text=True, check=False, timeout=limit(20), **options)


def test_no_terminal(build, service):
    done = run(build, "--timeout", f"{limit(3)}s", "top", stdin=subprocess.DEVNULL)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == ("nimbusctl: top shows a screen; expected a terminal (watch goes without)\n")


def test_unknown_terminal(screen, service):
    one = screen(term="no-such-terminal")
    one.wait("terminal 'no-such-terminal' has no screen; expected TERM to name one")
    one.wait("status 1")


def test_nobody_answers(screen):
    one = screen("--port 4999")
    one.wait("status 1")
    assert "nobody answers at 127.0.0.1:4999" in one.text().replace("\n", "")
