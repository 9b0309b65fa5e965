"""The tour of the README, as a reader takes it: each command succeeds and prints what is promised."""

import os
import pathlib
import re
import subprocess

import pytest

import nimbus

ROOT = pathlib.Path(__file__).resolve().parents[2]
README = (ROOT / "README.md").read_text()

MARK = "-- end of a step --"


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


@pytest.mark.skipif(bool(nimbus.EMULATOR), reason="the tools are of another processor")
def test_tour(build):
    tour = steps()
    assert len(tour) > 10
    script = "".join(f"{command}\necho '{MARK}'\n" for command, _ in tour)
    # A sandbox in the sandbox: whatever the tour starts ends with it.
    run = subprocess.run(
        [ROOT / "tools" / "sandbox" / "enter", ROOT / "tools" / "live", "--shell"], input=script,
        text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
        timeout=nimbus.limit(60), env={**os.environ, "NIMBUS_BUILD": str(build)})
    outputs = run.stdout.split(MARK)[:-1]
    assert run.returncode == 0 and len(outputs) == len(tour), run.stdout
    for (command, promised), output in zip(tour, outputs):
        lines = iter(output.splitlines())
        for line in promised:
            assert any(re.search(pattern(line), one) for one in lines), (
                f"{command!r} does not print {line!r}:\n{output}")


def test_links():
    """What the README links to and lists is there."""
    for link in re.findall(r"\]\(([^)#]+)", README):
        assert (ROOT / link).exists(), link
    for folder in re.findall(r"^\| `(\w+/)` \|", README, re.MULTILINE):
        assert (ROOT / folder).is_dir(), folder


def test_commands():
    """The README's commands are those of ./dev, and the other way round."""
    usage = subprocess.run([ROOT / "dev", "help"], capture_output=True, text=True, check=True).stdout
    known = set(re.findall(r"^  ([a-z]+) ", usage, re.MULTILINE))
    named = set(re.findall(r"\./dev ([a-z]+)", README))
    assert named <= known
    assert known - named == {"setup", "clean"}
