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


@pytest.mark.parametrize("file", sorted(MAN.iterdir()), ids=lambda file: file.name)
def test_title(file):
    """Its own name and section, and the version of this build."""
    header = (MAN.parents[1] / "app/version.h").read_text()
    version = ".".join(re.findall(r"kVersion\w+ = (\d+);", header))
    name, section = file.name.rsplit(".", 1)
    title = re.search(r'^\.TH (\S+) (\d) \d{4}-\d\d-\d\d "Tervado Nimbus ([^"]+)" "',
                      file.read_text(), re.MULTILINE)
    assert title is not None
    assert title.groups() == (name.upper().replace("-", "\\-"), section, version)


def test_neighbours():
    """A page that another names is there, but for those of the system."""
    pages = {file.name for file in MAN.iterdir()}
    of_the_system = {"avahi-daemon.8", "ffmpeg.1", "journalctl.1", "nft.8", "systemd.1",
                     "tcpdump.8"}
    named = {f"{name}.{section}" for file in MAN.iterdir() for name, section in
             re.findall(r"^\.BR (\S+) \((\d)\)", page(file.stem), re.MULTILINE)}
    assert named - pages - of_the_system == set()
    assert pages - named == set()


def test_commands(build):
    """Each has its place in the page: at the head of a paragraph, or in a list of them."""
    listed = commands(helped(build, "nimbusctl"))
    assert len(listed) > 30
    text = page("nimbusctl")
    heads = " ".join(bold or tagged for bold, tagged in
                     re.findall(r"^\.(?:B|BI|BR|RB) (.*)|^\.TP\n(?:\.\w+ )?(.*)", text, re.MULTILINE))
    assert [word for word in listed if not re.search(rf"(?<![\w-]){word}(?![\w-])", heads)] == []
