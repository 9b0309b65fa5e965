"""The tour of the README, as a reader takes it: each command succeeds and prints what is promised.
What the README, the tests' own and the recipes name is there."""

import contextlib
import os
import pathlib
import re
import signal
import subprocess
import urllib.request

import pytest

from harness.console import Console
from harness.service import EMULATOR
from harness.timing import limit, wait_until

ROOT = pathlib.Path(__file__).resolve().parents[2]
README = (ROOT / "README.md").read_text()
OPERATIONS = (ROOT / "docs" / "operations.md").read_text()

MARK = "-- end of a step --"

MANUALS = {page.stem: page.name for page in sorted((ROOT / "docs" / "man").iterdir())}


def steps():
    """Each command of the tour with the lines that it shall print."""
    tour = README.partition("## A tour\n")[2].partition("\n## ")[0]
    found = []
    for block in re.findall(r"```console\n(.*?)```", tour, re.DOTALL):
        for line in block.splitlines():
            if line.startswith("$ "):
                found.append((line[2:], []))
            else:
                found[-1][1].append(line)
    return found


def pattern(line):
    """What a promised line stands for: anything may be where it has an ellipsis."""
    return ".*".join(re.escape(part.strip()) for part in line.split("…"))


@pytest.fixture
def live(build, processes):
    """live(OPTION...) is what `./dev run` runs, in a sandbox in the sandbox."""
    if EMULATOR:
        pytest.skip("the tools are of another processor")

    def start(*options, prefix=()):
        return processes(
            [*prefix, ROOT / "tools" / "sandbox" / "enter", ROOT / "tools" / "live", *options], text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            start_new_session=True, env={**os.environ, "NIMBUS_BUILD": str(build)})

    return start


@pytest.mark.timing  # it listens and films for three seconds, in which there must be something
def test_tour(live):
    tour = steps()
    assert len(tour) > 10
    run = live("--shell")
    script = "".join(f"{command}\necho '{MARK}'\n" for command, _ in tour)
    output, _ = run.communicate(script + f"man -w {' '.join(MANUALS)}\n", timeout=limit(60))
    *outputs, manuals = output.split(MARK)
    assert run.returncode == 0 and len(outputs) == len(tour), output
    assert [pathlib.Path(page).name for page in manuals.split()] == list(MANUALS.values())
    for (command, promised), output in zip(tour, outputs):
        lines = iter(output.splitlines())
        for line in promised:
            assert any(re.search(pattern(line), one) for one in lines), (
                f"{command!r} does not print {line!r}:\n{output}")


def test_interrupted(live):
    """Ctrl-C ends all of it at once, the viewer with its figures. What is left behind would be
    noticed: the first process of a sandbox takes all others with it."""
    run = live("--text")
    said = Console(run.stdout)
    said.wait("camera settings", 20)
    os.killpg(run.pid, signal.SIGINT)
    assert run.wait(limit(5)) == 0, said.text()
    said.wait("frame counter: ")


@pytest.mark.parametrize("options, problem", [
    (["--sideways"], "no option '--sideways'; expected --text, --shell, --seconds N or nothing"),
    (["--seconds", "soon"], "'soon' is no time; expected --seconds and a number"),
    (["--seconds"], "'' is no time; expected --seconds and a number"),
    (["--shell", "--seconds", "5"],
     "a shell ends when it is left; expected --shell or --seconds N, not both"),
])
def test_bad_options(live, options, problem):
    run = live(*options)
    output, _ = run.communicate(timeout=limit(10))
    assert (run.returncode, output) == (2, f"live: {problem}\n")


def numbers_of(name):
    """Of the processes that run that program, in this sandbox and in those inside."""
    found = []
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            if (folder / "comm").read_text().strip() == name:
                found.append(int(folder.name))
    return found


def test_browsers(live):
    """`./dev run` names the page, which the sandbox serves on a socket from outside."""
    listen = ROOT / "tools" / "listen"
    run = live(prefix=[listen, "127.0.0.1:0"])
    said = Console(run.stdout)
    wait_until(lambda: re.search(r"^open .*\n", said.text(), re.MULTILINE), 20, "the page's address")
    url = re.search(r"^open (http://localhost:\d+/)$", said.text(), re.MULTILINE)[1]

    def open_page():
        with urllib.request.urlopen(url.replace("localhost", "127.0.0.1"), timeout=limit(5)) as page:
            assert b"<title>" in page.read()

    open_page()
    # Who comes when nimbus-web has ended is served by the next.
    (web,) = numbers_of("nimbus-web")
    os.kill(web, signal.SIGKILL)
    wait_until(lambda: web not in numbers_of("nimbus-web"), 5, "the end of nimbus-web")
    open_page()
    os.killpg(run.pid, signal.SIGINT)
    assert run.wait(limit(5)) == 0, said.text()


@pytest.mark.parametrize("where, problem", [
    ("somewhere", "cannot listen on 'somewhere'; expected ADDRESS:PORT such as 0.0.0.0:8080"),
    ("127.0.0.1:soon", "cannot listen on '127.0.0.1:soon'; expected ADDRESS:PORT such as 0.0.0.0:8080"),
    ("127.0.0.1:65536", "cannot listen on '127.0.0.1:65536'; expected ADDRESS:PORT such as 0.0.0.0:8080"),
    ("127.0.0.1:-1", "cannot listen on '127.0.0.1:-1'; expected ADDRESS:PORT such as 0.0.0.0:8080"),
])
def test_bad_listening(where, problem):
    run = subprocess.run([ROOT / "tools" / "listen", where, "true"], capture_output=True, text=True,
                         check=False)
    assert (run.returncode, run.stderr) == (1, f"listen: {problem}\n")


def test_links():
    """What the README links to and lists is there."""
    for link in re.findall(r"\]\(([^)#]+)", README):
        assert (ROOT / link).exists(), link
    for folder in re.findall(r"^\| `(\w+/)` \|", README, re.MULTILINE):
        assert (ROOT / folder).is_dir(), folder


def test_commands():
    """The README's commands are those of ./dev, and the other way round."""
    usage = subprocess.run([ROOT / "dev", "help"], capture_output=True, text=True, check=True).stdout
    known = set(re.findall(r"^  ([a-z-]+) ", usage, re.MULTILINE))
    named = set(re.findall(r"\./dev ([a-z-]+)", README))
    assert named <= known
    assert known - named == {"clean"}


def test_every_line_of_the_console():
    """Operations has them all, and what they mean: each begins like one of them."""
    section = OPERATIONS.partition("## What the console says\n")[2].partition("\n## ")[0]
    told = [text.partition("...")[0].rstrip("\n") for text in re.findall(r"`([^`]+)`", section)]
    said = []
    for room in ("app", "base", "camera", "config", "control", "display", "net"):
        for file in (ROOT / room).glob("*.cpp"):
            for call in re.findall(r"\b(?:log_text|log_parts|print_parts|expire)\((.*?)\);",
                                   file.read_text(), re.DOTALL):
                said += re.findall(r'(?:^\{?|\? |: |, )"(?:\\n)?([A-Za-z][^"%\\]+)', call)
    assert len(said) > 60
    words = {"done", "failed", "fail", "photo", "video", "lock", "unlock", "enable", "disable"}
    missing = [text for text in said if text.strip() not in words and not any(
        text.startswith(one) or one.startswith(text) for one in told)]
    assert missing == []


def test_every_test_has_its_row():
    """tests/README.md lists every file of tests from outside, and every module of the harness."""
    text = (ROOT / "tests" / "README.md").read_text()
    files = {str(file.relative_to(ROOT / "tests"))
             for folder in ("e2e", "faults", "board", "packages", "web")
             for file in (ROOT / "tests" / folder).glob("test_*.py")}
    assert set(re.findall(r"^\| `(\w+/test_\w+\.py)` \|", text, re.MULTILINE)) == files
    rows = re.findall(r"^\| (.*?) \|", text.partition("## Harness")[2], re.MULTILINE)
    modules = {file.stem for file in (ROOT / "tests" / "harness").glob("*.py")} - {"__init__"}
    assert set(re.findall(r"`(\w+)`", " ".join(rows))) == modules


def test_every_file_has_its_place():
    """In the architecture: the files of a room in the room's row, nimbus-web's among its own."""
    text = (ROOT / "docs" / "architecture.md").read_text()
    places = dict(re.findall(r"^\| `(\w+)/` \| (.*?) \|", text, re.MULTILINE))
    del places["base"]  # what has nothing to do with cameras
    web = re.search(r"^`nimbus-web` \(`tools/web/`\)(.*?)\n\n", text, re.MULTILINE | re.DOTALL)
    places["tools/web"] = web[1]
    for folder, told in places.items():
        files = {file.stem for file in (ROOT / folder).iterdir() if file.suffix in (".cpp", ".h")}
        named = set(re.findall(r"[a-z]\w+", told))
        assert files - {"bytes", "main", "without_tls"} - named == set(), folder


def test_recipes_name_files():
    """And no recipe takes more than eight of them before its tests."""
    recipes = (ROOT / "CONTRIBUTING.md").read_text().partition("## Three recipes")[2]
    recipes = re.split(r"^### ", recipes.partition("\n## ")[0], flags=re.MULTILINE)[1:]
    assert len(recipes) == 3
    for recipe in recipes:
        rows = re.findall(r"^\| (.*?) \|", recipe, re.MULTILINE)[2:]
        assert 0 < len(rows) <= 8
        for name in re.findall(r"`([\w.-]+/[\w./-]+)`", recipe):
            assert (ROOT / name).exists(), name


def test_license():
    """What the package says, the file for a reader of the sources says, too."""
    package = (ROOT / "install" / "debian" / "copyright").read_text()
    for line in filter(None, (ROOT / "LICENSE").read_text().splitlines()):
        assert line.removeprefix("Copyright ") in package
