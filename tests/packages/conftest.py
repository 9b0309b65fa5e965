"""`./dev test-packages` makes the packages and runs these tests, as root and in namespaces of their
own (mounts, network, processes): the packages in roots of their architectures, by their own dpkg
and systemd."""

import pathlib
import subprocess

import pytest

import roots

ROOT = pathlib.Path(__file__).resolve().parents[2]


def pytest_addoption(parser):
    parser.addoption("--packages", default=str(ROOT / "build" / "package"),
                     help="folder of the packages (default: build/package)")
    parser.addoption("--roots", default=str(ROOT / "build" / "roots"),
                     help="folder in which roots are kept (default: build/roots)")
    parser.addoption("--long", action="store_true", help="hundreds of rounds instead of a few")
    parser.addoption("--times", type=int, help="how often, instead of what each test says")


@pytest.fixture(scope="session")
def times(pytestconfig):
    """times(short, long): how often."""
    option = pytestconfig.getoption
    return lambda short, long: option("--times") or (long if option("--long") else short)


class Packages:
    """The packages of one architecture, which their folder has one version of."""

    def __init__(self, folder, architecture):
        self.files = {file.name.split("_")[0]: file
                      for file in pathlib.Path(folder).glob(f"*_{architecture}.deb")}
        assert {"nimbus", "nimbus-workbench"} <= self.files.keys()

    def all(self):
        return list(self.files.values())

    def field(self, name, key):
        return subprocess.run(["dpkg-deb", "-f", self.files[name], key], check=True,
                              capture_output=True, text=True).stdout.strip()

    def altered(self, name, folder, version):
        """The same package as another version."""
        content = folder / name
        subprocess.run(["dpkg-deb", "-R", self.files[name], content], check=True)
        control = content / "DEBIAN/control"
        lines = [f"Version: {version}" if line.startswith("Version:") else line
                 for line in control.read_text().splitlines()]
        control.write_text("\n".join(lines) + "\n")
        file = folder / f"{name}_{version}.deb"
        subprocess.run(["dpkg-deb", "--root-owner-group", "-Zgzip", "-b", content, file],
                       check=True, capture_output=True)
        return file


@pytest.fixture(scope="session")
def packages_of(pytestconfig):
    """packages_of(architecture)"""
    return lambda architecture: Packages(pytestconfig.getoption("--packages"), architecture)


@pytest.fixture
def fresh_root(pytestconfig, tmp_path):
    """fresh_root(name) is that root of roots.py as it was made."""
    made = []

    def make(name):
        base = roots.base(pytestconfig.getoption("--roots"), name)
        made.append(roots.Root(base, tmp_path / name))
        return made[-1]

    yield make
    for root in made:
        root.close()
