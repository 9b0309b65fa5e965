"""The life of the packages in a root of their architecture, by its own dpkg: installed, upgraded,
removed, installed again, purged. Other architectures than the machine's are emulated."""

import pathlib
import shutil
import subprocess

import pytest

import roots
from harness.console import Console

ROOT = pathlib.Path(__file__).resolve().parents[2]
ARCHITECTURES = [roots.HOST, "arm64", "armhf"]
UNITS = {"nimbus.service", "nimbus-filter.service", "nimbus-web.service"}
OTHERS = ["nimbus-web.socket", "nftables.service"]  # the second for what is added to it
WANTS = "etc/systemd/system/multi-user.target.wants/nimbus.service"
FILTER_WANTS = "etc/systemd/system/nimbus.service.wants/nimbus-filter.service"
FILTER = "etc/nimbus/filter.nft"


@pytest.fixture(params=ARCHITECTURES)
def architecture(request):
    return request.param


@pytest.fixture
def packages(packages_of, architecture):
    return packages_of(architecture)


@pytest.fixture
def root(fresh_root, architecture):
    return fresh_root(architecture)


def started(root):
    """What the installed service says until it is ready."""
    root.succeed("/usr/lib/nimbus/scripts/before-start.sh")
    process = subprocess.Popen(
        ["chroot", root.path, "sh", "-c", "cd /usr/lib/nimbus && exec ./nimbus"],
        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    try:
        return Console(process.stderr).wait("Init control\n", 30)
    finally:
        process.kill()
        process.wait()


def test_life(root, packages, architecture, tmp_path):
    files = root.bring(*packages.all())
    version = packages.field("nimbus", "Version")
    root.dpkg("-i", *files)
    for name in packages.files:
        assert root.state(name) == f"installed {version}"
    assert root.exists(WANTS) and root.exists(FILTER_WANTS)
    assert "Loading config file... done\n" in started(root)

    # Its units are what this systemd understands, and its programs find their libraries.
    folder = root.path / "lib/systemd/system"
    units = sorted(path.name for path in folder.glob("nimbus*.service"))
    assert UNITS <= set(units)
    assert root.succeed("systemd-analyze", "verify", "--man=no", *units, *OTHERS) == ""
    expected = "native arm" if architecture == "armhf" else "native"
    for unit in units:
        lines = (folder / unit).read_text().splitlines()
        assert f"SystemCallArchitectures={expected}" in lines
    for program in ("nimbusctl", "nimbus-sim"):
        assert root.succeed(program, "--help")

    # The next version replaces it; what its owner has changed stays.
    root.succeed("sed", "-i", "s/10.0.0.0\\/8, //", f"/{FILTER}")
    changed = (root.path / FILTER).read_text()
    root.dpkg("-i", *root.bring(packages.altered("nimbus", tmp_path, f"{version}+1")))
    assert root.state("nimbus") == f"installed {version}+1"
    assert (root.path / FILTER).read_text() == changed

    root.dpkg("-r", *packages.files)
    assert root.state("nimbus") == f"config-files {version}+1"
    assert not root.exists("usr/lib/nimbus") and root.exists(FILTER)

    root.dpkg("-i", *files)
    assert root.state("nimbus") == f"installed {version}" and root.exists(WANTS)
    assert (root.path / FILTER).read_text() == changed

    passwords = root.path / "var/lib/private/nimbus-web/passwords"
    passwords.parent.mkdir(parents=True)
    passwords.touch()
    root.dpkg("-P", *packages.files)
    assert root.state("nimbus") in ("unknown", "not-installed ")
    left = root.succeed("find", "/etc", "/usr", "/lib/systemd", "/var/lib", "/run", "-name",
                        "*nimbus*", "-o", "-name", "tervado*")
    assert left == ""


def test_from_the_single_package_of_before(fresh_root, packages_of, tmp_path):
    """nimbus-sim was part of the service's package, whose versions had no revision."""
    packages = packages_of(roots.HOST)
    root = fresh_root(roots.HOST)
    folder = tmp_path / "before"
    folder.mkdir()
    content = folder / "nimbus"
    before = packages.altered("nimbus", folder, "0.3.7")
    (content / "usr/bin/nimbus-sim").write_text("#!/bin/sh\n")
    subprocess.run(["dpkg-deb", "--root-owner-group", "-Zgzip", "-b", content, before], check=True)
    root.dpkg("-i", *root.bring(before))
    # In the order in which both have it for a moment.
    files = [packages.files[name] for name in ("nimbus-workbench", "nimbus")]
    root.dpkg("--auto-deconfigure", "-i", *root.bring(*files))
    owner = root.succeed("dpkg", "-S", "/usr/bin/nimbus-sim")
    assert owner == "nimbus-workbench: /usr/bin/nimbus-sim\n"


def later_build(folder):
    """The service's package of sources that have been changed since."""
    sources = folder / "sources"
    shutil.copytree(ROOT / "install", sources / "install")
    (sources / "install/filter.nft").touch()
    made = subprocess.run([sources / "install/package", ROOT / "build/release", roots.HOST, folder,
                           "nimbus"], check=True, capture_output=True, text=True)
    return pathlib.Path(made.stdout.strip())


def test_apt_replaces_the_last_build(fresh_root, packages_of, tmp_path):
    """`apt install ./...` of the next one, with nothing said about it."""
    packages = packages_of(roots.HOST)
    root = fresh_root(roots.HOST)
    (file,) = root.bring(packages.files["nimbus"])
    root.succeed("apt-get", "install", "-y", file)
    later = later_build(tmp_path)
    (file,) = root.bring(later)
    root.succeed("apt-get", "install", "-y", file)
    version = later.name.split("_")[1]
    assert version != packages.field("nimbus", "Version")
    assert root.state("nimbus") == f"installed {version}"


# --- Boards of old -------------------------------------------------------------------------------

OLD_BOARD = {"QEMU_CPU": "arm1176"}


@pytest.mark.parametrize("name", ["nimbus", "nimbus-web", "nimbus-workbench"])
def test_refused_on_the_oldest_boards(fresh_root, packages_of, name):
    root = fresh_root("armel")
    (file,) = root.bring(packages_of("armhf").files[name])
    assert root.run("uname", "-m", environment=OLD_BOARD).stdout.startswith("armv6")
    for folder in ("var/lib/dpkg/info", "var/lib/dpkg/updates"):
        (root.path / folder).mkdir(parents=True, exist_ok=True)
    (root.path / "var/lib/dpkg/status").touch()
    (root.path / "var/lib/dpkg/arch").write_text("armel\narmhf\n")
    result = root.run("dpkg", "--force-depends", "--force-bad-path", "-i", file,
                      environment=OLD_BOARD)
    assert result.returncode != 0
    own = [line for line in result.stdout.splitlines() if line.startswith(f"{name}:")]
    assert len(own) == 1, result.stdout
    assert "ARMv6" in own[0] and "./dev package" in own[0]
    for file in ("usr/lib/nimbus", "usr/bin/nimbus-web", "usr/bin/nimbus-sim"):
        assert not root.exists(file)


def test_why_it_is_refused(fresh_root, packages_of):
    """The same root, but for its processor, runs the program; the old one dies of an
    instruction."""
    root = fresh_root("armhf")
    root.dpkg("-i", *root.bring(*packages_of("armhf").all()))
    assert root.run("/usr/bin/nimbusctl", "--help").returncode == 0
    result = subprocess.run(
        ["qemu-arm-static", "-cpu", "arm1176", "-L", root.path, root.path / "usr/bin/nimbusctl",
         "--help"], capture_output=True, text=True)
    assert result.returncode == -4 or "Illegal instruction" in result.stderr
