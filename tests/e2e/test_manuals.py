"""The man pages against the programs: what one names, the other has."""

import pathlib
import re
import subprocess

import pytest

from harness.service import EMULATOR
from harness.timing import limit

MAN = pathlib.Path(__file__).resolve().parents[2] / "docs/man"


def page(name):
    """Its text without what troff means for the printer."""
    text = next(MAN.glob(f"{name}.*")).read_text()
    return re.sub(r"\\f.|\\&", "", text).replace("\\-", "-")


def helped(build, *words):
    return subprocess.run([*EMULATOR, build / words[0], *words[1:], "--help"], capture_output=True,
                          text=True, check=True, timeout=limit(10)).stdout


def options(text):
    return set(re.findall(r"(?<![\w-])--[a-z][a-z0-9-]*", text))


def commands(text):
    """Those that a help lists."""
    listed = re.search(r"^Subcommands:\n(.*?)\n\S", text + "\nend", re.MULTILINE | re.DOTALL)
    return re.findall(r"^  ([\w-]+)", listed[1], re.MULTILINE) if listed else []


@pytest.fixture(scope="module")
def helps(build):
    """The help of each program; nimbusctl's with those of all of its commands."""
    texts = {name: helped(build, name) for name in ("nimbus-sim", "nimbus-web", "nimbusctl")}
    for command in commands(texts["nimbusctl"]):
        more = helped(build, "nimbusctl", command)
        texts["nimbusctl"] += more
        for second in commands(more):
            texts["nimbusctl"] += helped(build, "nimbusctl", command, second)
    return texts


@pytest.mark.parametrize("name", ["nimbus-sim", "nimbus-web", "nimbusctl"])
def test_options(name, helps):
    """Each is explained, and none that is explained is unknown."""
    assert options(helps[name]) - options(page(name)) == set()
    others = {"--replay"} if name == "nimbusctl" else set()  # of nimbus-sim, which it names
    assert options(page(name)) - options(helps[name]) - others == set()


def test_commands(build):
    """Each has its place in the page: at the head of a paragraph, or in a list of them."""
    listed = commands(helped(build, "nimbusctl"))
    assert len(listed) > 30
    text = page("nimbusctl")
    heads = " ".join(re.findall(r"^\.(?:B|BI|BR|RB) (.*)|^\.TP\n(?:\.\w+ )?(.*)", text, re.MULTILINE)
                     and [a or b for a, b in
                          re.findall(r"^\.(?:B|BI|BR|RB) (.*)|^\.TP\n(?:\.\w+ )?(.*)", text,
                                     re.MULTILINE)])
    assert [word for word in listed if not re.search(rf"(?<![\w-]){word}(?![\w-])", heads)] == []
