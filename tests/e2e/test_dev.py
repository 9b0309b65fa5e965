"""The script ./dev, in a folder of the test's with stand-ins around it: what it starts, what it leaves
behind, what it finds in the sources. And the agent by which it asks an emulated board."""

import base64
import os
import pathlib
import signal
import socket
import subprocess

import pytest

from harness.timing import limit

ROOT = pathlib.Path(__file__).resolve().parents[2]
# Its functions, without the line that chooses one.
FUNCTIONS, CHOICE, _ = (ROOT / "dev").read_text().partition("\ncommand=${1-help}\n")


@pytest.fixture
def dev(tmp_path, processes):
    """dev(LINES) starts them behind the functions of ./dev; their output and errors are one."""
    assert CHOICE

    def start(lines):
        (tmp_path / "dev").write_text(f"{FUNCTIONS}\n{lines}\n")
        return processes(["bash", tmp_path / "dev"], text=True, stdin=subprocess.DEVNULL,
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)

    return start


def result_of(process):
    output, _ = process.communicate(timeout=limit(10))
    return process.returncode, output


def write_program(file, *lines):
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text("\n".join(["#!/bin/bash", *lines, ""]))
    file.chmod(0o755)


# --- ./dev run -----------------------------------------------------------------------------------

@pytest.mark.parametrize("options, started", [
    ("", "listen 127.0.0.1:8080 tools/sandbox/enter tools/live"),
    ("--listen 0.0.0.0:80 --seconds 3",
     "listen 0.0.0.0:80 tools/sandbox/enter tools/live --seconds 3"),
    ("--text --seconds 3", "enter tools/live --text --seconds 3"),
    ("--shell", "enter tools/live --shell"),
])
def test_a_port_is_opened_for_browsers_only(dev, tmp_path, options, started):
    for name in ("listen", "sandbox/enter"):
        write_program(tmp_path / "tools" / name, 'echo "${0##*/} $*"')
    run = dev(f"need() {{ :; }}\nbuild_targets() {{ :; }}\ncmd_run {options}")
    assert result_of(run) == (0, started + "\n")


# --- What it leaves behind -----------------------------------------------------------------------

@pytest.fixture
def policy(tmp_path):
    return tmp_path / "policy-rc.d"


@pytest.fixture
def install(dev, policy):
    """install(COMMAND) starts it as ./dev does an installation."""
    return lambda command: dev(f'start_policy={policy}\nas_root() {{ "$@"; }}\nwithout_starts {command}')


def test_policy_is_there_for_an_installation_only(install, policy):
    assert result_of(install(f"sh -c 'test -x {policy} && exit 7'")) == (7, "")
    assert not policy.exists()


def test_policy_of_the_machine_stays(install, policy):
    policy.write_text("its own\n")
    assert result_of(install(f"cat {policy}")) == (0, "its own\n")
    assert policy.exists()


@pytest.mark.parametrize("name", ["SIGHUP", "SIGINT", "SIGTERM"])
def test_policy_goes_with_an_interruption(install, policy, name):
    run = install("sh -c 'echo begun; exec sleep 60'")
    assert run.stdout.readline() == "begun\n"
    assert policy.exists()
    number = signal.Signals[name]
    os.killpg(run.pid, number)
    status, _ = result_of(run)
    assert not policy.exists()
    assert status == 128 + number


def test_clean_by_an_ordinary_user(dev, tmp_path):
    """The test is root, or the sandbox says so: what cannot be removed is a stand-in's."""
    write_program(tmp_path / "bin/id", "echo 1000")
    write_program(tmp_path / "bin/sudo", 'BY_SUDO=1 exec "$@"')
    write_program(tmp_path / "bin/rm", '[ -n "${BY_SUDO-}" ] || exit 1', 'exec /usr/bin/rm "$@"')
    (tmp_path / "build/roots").mkdir(parents=True)
    assert result_of(dev(f"PATH={tmp_path}/bin:$PATH\ncmd_clean")) == (0, "")
    assert not (tmp_path / "build").exists()


# --- The rooms of the sources --------------------------------------------------------------------

ROOMS = ("base", "display", "config", "net", "camera", "control", "app")


@pytest.fixture
def rooms(dev, tmp_path):
    """rooms(ROOM, INCLUDED) is what ./dev lint says to that include in a file of the room."""
    for room in ROOMS:
        (tmp_path / room).mkdir()
        for name in ("a.h", "a.cpp"):
            (tmp_path / room / name).write_text('#include "base/a.h"\n' if room == "app" else "")

    def check(room, included):
        (tmp_path / room / "b.cpp").write_text(f'#include "{included}/a.h"\n')
        return result_of(dev("check_rooms"))

    return check


@pytest.mark.parametrize("room", range(len(ROOMS)))
def test_includes_that_point_upwards(rooms, room):
    for above in (*ROOMS[room + 1:], "tools", "tests", "bench"):
        status, output = rooms(ROOMS[room], above)
        assert status == 1 and f'{ROOMS[room]}/b.cpp:1:#include "{above}/a.h"' in output, output
    for below in ROOMS[:room + 1]:
        assert rooms(ROOMS[room], below) == (0, "")


# --- The agent of an emulated board --------------------------------------------------------------

AGENT = ROOT / "tools/board/root/usr/local/lib/board/agent"


def test_agent_on_a_board(processes):
    """A script's status and every byte of what it said, with or without the end of the last line."""
    _, found, loop = AGENT.read_text().partition('\necho "0 0 " >&3\n')
    assert found
    here, there = socket.socketpair()
    here.settimeout(limit(10))
    agent = processes(["bash", "-c", f"exec 3<&{there.fileno()} {there.fileno()}<&-\n{loop}"],
                      pass_fds=[there.fileno()])
    there.close()
    with here, here.makefile("rw") as wire:
        for number, (script, status, said) in enumerate((
                ("true", 0, ""), ("echo foo", 0, "foo\n"), ("printf foo", 0, "foo"),
                ("printf 'foo\n3'; exit 12", 12, "foo\n3"), ("printf '\n\n'; exit 1", 1, "\n\n"),
                ("echo foo >&2; exit 255", 255, "foo\n"))):
            wire.write(f"{number} {base64.b64encode(script.encode()).decode()}\n")
            wire.flush()
            answer = wire.readline().rstrip("\n").split(" ")
            assert answer[:2] == [str(number), str(status)], script
            assert base64.b64decode(answer[2]).decode() == said, script
        here.shutdown(socket.SHUT_WR)
        assert agent.wait(limit(10)) == 0
