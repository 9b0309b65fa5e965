"""docs/web.md against the program: every path, message, member and limit that it names."""

import json
import pathlib
import re
import subprocess
import sys

import pytest

from harness.timing import limit

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOC = (ROOT / "docs/web.md").read_text()
SOURCES = {path.name: path.read_text() for path in (ROOT / "tools/web").glob("*.*")}


def section(title):
    return re.search(rf"^#+ {re.escape(title)}\n(.*?)(?=^#+ |\Z)", DOC, re.MULTILINE | re.DOTALL)[1]


def rows(title):
    """The rows of the tables of a section, without their heads."""
    found = []
    for line in section(title).splitlines():
        if line.startswith("| ") and not line.startswith("|--"):
            found.append([cell.strip() for cell in line.strip("|").split(" | ")])
    return found


def words(text):
    return re.findall(r"`([\w.-]+)`", text)


def test_paths(web):
    listed = {(method, words_in) for path, method, _ in rows("Paths")[1:]
              for words_in in [path.strip("` ")]}
    for method, path in listed:
        if "WebSocket" in method or "NAME" in path:
            continue
        status = web.request(method, path, b"{}" if method == "POST" else None)[0]
        assert status not in (404, 405), (method, path, status)
    in_code = set(re.findall(r'path [!=]= "(/[\w/.]*)"', SOURCES["site.cpp"]))
    assert in_code - {"/page/favicon.svg"} <= {path for _, path in listed}


def test_messages(web, film):
    """What the server says has the members that the document gives, and no others."""
    said = {cells[0].strip("`"): set(words(cells[1])) for cells in rows("From the server")[1:]}
    with web.control() as browser:
        for message in ({"type": "take"}, {"type": "ping", "echo": 1},
                        {"type": "command", "id": 1, "words": ["wb", "sunny"]}):
            browser.send(**message)
        heard = {}
        for _ in range(100):
            message = json.loads(browser.read()[1])
            heard.setdefault(message["type"], message)
            if not set(said) - {"notice"} - set(heard):
                break
    assert set(said) - {"notice"} == set(heard)
    for kind, message in heard.items():
        if kind != "state":
            assert set(message) - {"type"} == said[kind], kind


def test_what_browsers_say():
    listed = {cells[0].strip("`") for cells in rows("From the browser")[1:]}
    in_code = set(re.findall(r'\{"(\w+)", +&ControlPeer::', SOURCES["peers.cpp"]))
    assert listed == in_code


def test_groups(web, service):
    listed = {cells[0].strip("`"): set(words(cells[1])) for cells in rows("Groups of the state")[1:]}
    state = web.state()
    assert set(state) == set(listed)
    for group in ("video", "service", "driving"):
        known = set(state[group]) - {"at", "connected"}
        assert known <= listed[group], (group, known - listed[group])


def test_metrics(web):
    """Each with its type and its words."""
    listed = {cells[0].strip("`"): (cells[1], cells[2]) for cells in rows("Metrics")[1:]}
    text = web.get("/metrics")[2].decode()
    types = dict(re.findall(r"^# TYPE (\w+) (\w+)$", text, re.MULTILINE))
    helps = dict(re.findall(r"^# HELP (\w+) (.*)\.$", text, re.MULTILINE))
    assert listed == {name: (types[name], what[0].lower() + what[1:]) for name, what in helps.items()}


# What the document says, and the lines of the code that make it so.
LIMITS = {
    "header of a request": ("8 KiB", [("connection_on.h", "kHeaderLimit = 8 * 1024")]),
    "body of a request": ("64 KiB", [("connection_on.h", "kBodyLimit = std::uint64_t{64} * 1024")]),
    "message of a browser": ("4 KiB", [
        ("connection_on.h", "kMessageLimit = std::size_t{4} * 1024")]),
    "time for a request": ("10 s", [("connection_on.h", "seconds kRequestTime{10}")]),
    "rest between two requests of a connection": ("15 s", [
        ("connection_on.h", "seconds kRestTime{15}")]),
    "connections": ("200", [("guests.h", "kMost = 200")]),
    "connections of one address": ("20", [("guests.h", "kMostOfOne = 20")]),
    "pictures that wait for one browser": ("8, or 256 KiB", [
        ("reader.h", "kMostPictures = 8"), ("reader.h", "kMostBytes = std::size_t{256} * 1024")]),
    "pictures that wait for one that has just joined": ("600, or 4 MiB", [
        ("stream.h", "kMostKept = 600"),
        ("stream.h", "kMostKeptBytes = std::size_t{4} * 1024 * 1024")]),
    "no byte accepted by a browser's network": ("5 s", [
        ("connection_on.h", "seconds kStandstill{5}")]),
    "state messages": ("10 a second", [("server.cpp", "milliseconds kTellPeriod{100}")]),
    "commands that wait": ("32, 55 ms apart", [
        ("command_queue.h", "kMost = 32"), ("command_queue.h", "milliseconds kPeriod{55}")]),
    "a browser's command waits": ("3 s", [("command_queue.h", "seconds kPatience{3}")]),
    "a wish for the lease that was denied": ("5 s", [("lease.h", "seconds kDenied{5}")]),
    "tries of a password": ("5 a minute from one address; of all, 60 first ones and 30 more", [
        ("sessions.h", "kMostOfOne = 5"), ("sessions.h", "kMostFirst = 60"),
        ("sessions.h", "kMostAgain = 30"), ("sessions.cpp", "minutes kMinute{1}")]),
    "rest of a log-in": ("12 h", [("sessions.h", "hours kRest{12}")]),
}


def test_limits():
    for what, (_, lines) in LIMITS.items():
        for file, line in lines:
            assert re.search(rf"\b{re.escape(line)};", SOURCES[file]), what
    limits = {cells[0]: cells[1] for cells in rows("Limits")[1:]}
    assert limits == {what: said for what, (said, _) in LIMITS.items()}


def examples(language):
    return re.findall(rf"```{language}\n(.*?)```", section("For programs"), re.DOTALL)


@pytest.mark.parametrize("language, runner", [("python", [sys.executable]), ("sh", ["sh", "-eu"])])
def test_examples(web, service, tmp_path, language, runner):
    """They do what they say, in ten lines."""
    example, = examples(language)
    assert len(example.splitlines()) <= 10
    script = tmp_path / "script"
    script.write_text(example.replace("board.local:8080", web.host))
    result = subprocess.run([*runner, script], capture_output=True, text=True,
                            timeout=limit(20), check=False)
    assert result.returncode == 0, result.stderr
    service.err.wait("Camera set WB sunny")
    assert "linked" in result.stdout
