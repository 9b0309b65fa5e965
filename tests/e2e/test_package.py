"""The package: made, listed, unpacked into an empty root, and started from there."""

import json
import os
import pathlib
import re
import shutil
import subprocess

import pytest

import nimbus

ROOT = pathlib.Path(__file__).resolve().parents[2]
INSTALL = ROOT / "install"
UNITS = ("nimbus.service", "nimbus-filter.service")
HOME = "usr/lib/nimbus"

FILES = {
    "etc/nimbus/filter.nft": 0o644,
    "lib/systemd/system/nimbus.service": 0o644,
    "lib/systemd/system/nimbus-filter.service": 0o644,
    f"{HOME}/nimbus": 0o755,
    f"{HOME}/tervado-nimbus.conf": 0o644,
    f"{HOME}/bin/wlanstatus": 0o755,
    f"{HOME}/scripts/before-start.sh": 0o755,
    f"{HOME}/scripts/hdmi-change.sh": 0o755,
    f"{HOME}/scripts/hdmi-mode.sh": 0o755,
    f"{HOME}/scripts/card.sh": 0o644,
    f"{HOME}/scripts/config-txt.sh": 0o644,
    "usr/share/man/man8/nimbus.8.gz": 0o644,
    "usr/share/man/man5/tervado-nimbus.conf.5.gz": 0o644,
    "usr/share/doc/nimbus/changelog.gz": 0o644,
    "usr/share/doc/nimbus/copyright": 0o644,
    "usr/share/lintian/overrides/nimbus": 0o644,
}
# There when the tools for people are built.
TOOLS = re.compile("usr/(bin/|share/man/man1/|share/bash-completion/|lib/[^/]+/wireshark/)")


def output_of(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=120,
                          **options).stdout


@pytest.fixture(scope="module")
def package(build, tmp_path_factory):
    """The file of the package."""
    if re.search(r"^NIMBUS_SANITIZE:\w+=.", (build / "CMakeCache.txt").read_text(), re.MULTILINE):
        pytest.skip("the build is sanitized")
    architecture = output_of("dpkg", "--print-architecture").strip()
    output = tmp_path_factory.mktemp("package")
    return pathlib.Path(output_of(INSTALL / "package", build, architecture, output).strip())


@pytest.fixture
def root(package, tmp_path):
    """An empty root with the package in it."""
    folder = tmp_path / "root"
    output_of("dpkg-deb", "-x", package, folder)
    return folder


def field(package, name):
    return output_of("dpkg-deb", "-f", package, name).strip()


def test_fields(package):
    version = nimbus.BANNER.decode().partition("v.")[2].partition("\x1b")[0]
    assert field(package, "Version") == version
    assert package.name == f"nimbus_{version}_{field(package, 'Architecture')}.deb"
    depends = {re.match(r"[\w.+-]+", entry)[0] for entry in field(package, "Depends").split(", ")}
    assert {"libc6", "libcjson1", "libinih1", "mount", "psmisc"} <= depends


def test_files(root):
    files = {str(file.relative_to(root)): file for file in root.rglob("*")
             if file.is_file() and not file.is_symlink()}
    modes = {name: file.stat().st_mode & 0o7777 for name, file in files.items()}
    assert {name: mode for name, mode in modes.items() if not TOOLS.match(name)} == FILES
    assert os.readlink(root / HOME / "tervado.conf") == "/run/tervado.conf"


def test_every_file_is_root_s(package):
    rows = output_of("dpkg-deb", "-c", package).splitlines()
    assert rows and all(row.split()[1] == "root/root" for row in rows)


def test_configuration_files_are_kept(package):
    assert output_of("dpkg-deb", "-I", package, "conffiles") == "/etc/nimbus/filter.nft\n"


def test_programs_are_stripped(root):
    assert b".debug_info" not in (root / HOME / "nimbus").read_bytes()


def test_same_build_same_package(package, build, tmp_path):
    again = output_of(INSTALL / "package", build, field(package, "Architecture"), tmp_path)
    assert pathlib.Path(again.strip()).read_bytes() == package.read_bytes()


@pytest.mark.parametrize("arguments", [(), ("x",), ("/nowhere", "amd64", "/tmp")])
def test_bad_arguments(arguments):
    result = subprocess.run([INSTALL / "package", *arguments], capture_output=True, text=True)
    assert result.returncode != 0
    assert result.stderr.count("\n") == 1


# --- Unpacked ------------------------------------------------------------------------------------


def test_start_from_the_unpacked_package(root, build, tmp_path, standins, region):
    """The start step, the service and a script, where the unit would find them."""
    home = root / HOME
    pathlib.Path("/run/tervado.conf").unlink(missing_ok=True)
    output_of(home / "scripts" / "before-start.sh", cwd=home)
    service = nimbus.Service(home / "nimbus", home)
    try:
        service.err.wait("Loading config file... done\n")
        assert region.u8(region.OSD_ENABLED) == 1
        pathlib.Path("/boot/config.txt").write_text("a=1\n")
        viewer = nimbus.Viewer()
        viewer.register()
        viewer.command('{"cmd":"updateparam","name":"hdmi_enabled","value":"1"}')
        nimbus.wait_until(lambda: standins.calls("killall"), 5, "the end of the command")
        viewer.close()
        text = "a=1\nhdmi_force_hotplug=1\n"
        assert pathlib.Path("/boot/config.txt").read_text() == text
    finally:
        service.stop()


def test_mode_and_link_status_from_the_unpacked_package(root):
    home = root / HOME
    pathlib.Path("/boot/config.txt").write_text("a=1\n")
    output_of("./scripts/hdmi-mode.sh", "2", "82", cwd=home)
    assert pathlib.Path("/boot/config.txt").read_text() == "a=1\nhdmi_group=2\nhdmi_mode=82\n"
    assert json.loads(output_of("./bin/wlanstatus", "lo", cwd=home))["ssid"] == ""


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="systemd-analyze is missing")
def test_units(root):
    """systemd finds nothing to say of them, where their files are installed."""
    folder = root / "lib/systemd/system"
    targets = ("sysinit basic shutdown multi-user network local-fs local-fs-pre sockets timers paths"
               " slices remote-fs").split()
    for target in targets:
        (folder / f"{target}.target").write_text("[Unit]\n")
    for unit, needed in (("system.slice", "[Unit]\n"), ("-.slice", "[Unit]\n")):
        (folder / unit).write_text(needed)
    nft = root / "usr/sbin/nft"
    nft.parent.mkdir(parents=True)
    nft.write_text("#!/bin/sh\n")
    nft.chmod(0o755)
    result = subprocess.run(
        ["systemd-analyze", "verify", "--man=no", f"--root={root}", *UNITS],
        capture_output=True, text=True, timeout=60)
    assert (result.returncode, result.stderr) == (0, "")
    for unit in UNITS:
        subprocess.run(["systemd-analyze", "security", "--offline=true", f"--root={root}",
                        f"--threshold={50 if unit == UNITS[0] else 25}", unit],
                       check=True, capture_output=True, timeout=60)


def test_pages_read_well(root):
    for page in (root / "usr/share/man").rglob("*.gz"):
        result = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page],
                                capture_output=True, text=True,
                                env={**os.environ, "LC_ALL": "C.UTF-8", "MANROFFSEQ": ""})
        assert result.stderr == ""


def test_every_key_has_its_line_in_the_page():
    """With the kind and the value on a fresh card that the service's table has."""
    page = (ROOT / "docs/man/tervado-nimbus.conf.5").read_text()
    rows = {row[0]: row[1:] for row in re.findall(r"^(\w+)\|([^|]+)\|([^|]+)\|T{$", page,
                                                 re.MULTILINE)}
    table = (ROOT / "config/fields.h").read_text().partition("kConfigFields =")[2]
    kinds = {"FLAG": "flag", "BYTE": "byte", "NUMBER": "number", "CHANNEL_MAP": r"text\(511\)",
             "TEXT": r"text\((5|9)\)|interface", "QUOTED_TEXT": "quoted"}
    words = {"": "empty", "," * 31: "31 commas"}
    keys = re.findall(r'^    ([A-Z_]+)\((\w+), "([^"]*)",$', table, re.MULTILINE)
    assert len(keys) == len(rows) == 39
    for kind, key, fresh in keys:
        assert re.fullmatch(kinds[kind], rows[key][0]), key
        assert rows[key][1] == words.get(fresh, fresh), key
