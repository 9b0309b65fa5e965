"""The packages: made, listed, unpacked into an empty root, and started from there. What a system of
their architecture does with them is seen by `./dev test-packages`."""

import json
import os
import pathlib
import re
import shutil
import subprocess

import pytest

from harness.console import BANNER
from harness.region import DisplayRegion
from harness.service import EMULATOR, Service
from harness.timing import wait_until
from harness.viewer import Viewer

ROOT = pathlib.Path(__file__).resolve().parents[2]
INSTALL = ROOT / "install"
UNITS = ("nimbus.service", "nimbus-filter.service")
SERVICE, WEB, WORKBENCH = "nimbus", "nimbus-web", "nimbus-workbench"
CONFIG_REGION_SIZE = 2336
HOME = "usr/lib/nimbus"

DOCUMENTS = {"usr/share/doc/{}/changelog.Debian.gz": 0o644, "usr/share/doc/{}/copyright": 0o644}
FILES = {
    SERVICE: {
        "etc/avahi/services/nimbus.service": 0o644,
        "etc/nimbus/filter.nft": 0o644,
        "lib/systemd/system/nimbus.service": 0o644,
        "lib/systemd/system/nimbus-filter.service": 0o644,
        "lib/systemd/system/nftables.service.d/nimbus.conf": 0o644,
        f"{HOME}/nimbus": 0o755,
        f"{HOME}/tervado-nimbus.conf": 0o644,
        f"{HOME}/bin/wlanstatus": 0o755,
        f"{HOME}/regions/hud_mem": 0o644,
        f"{HOME}/regions/config_mem": 0o644,
        f"{HOME}/scripts/before-start.sh": 0o755,
        f"{HOME}/scripts/hdmi-change.sh": 0o755,
        f"{HOME}/scripts/hdmi-mode.sh": 0o755,
        f"{HOME}/scripts/system-rules.sh": 0o755,
        f"{HOME}/scripts/card.sh": 0o644,
        f"{HOME}/scripts/config-txt.sh": 0o644,
        "usr/bin/nimbusctl": 0o755,
        "usr/lib/tmpfiles.d/nimbus.conf": 0o644,
        "usr/share/bash-completion/completions/nimbusctl": 0o644,
        "usr/share/man/man1/nimbusctl.1.gz": 0o644,
        "usr/share/man/man5/tervado-nimbus.conf.5.gz": 0o644,
        "usr/share/man/man8/nimbus.8.gz": 0o644,
        "usr/share/lintian/overrides/nimbus": 0o644,
    },
    WEB: {
        "etc/avahi/services/nimbus-web.service": 0o644,
        "lib/systemd/system/nimbus-web.service": 0o644,
        "lib/systemd/system/nimbus-web.socket": 0o644,
        "usr/bin/nimbus-web": 0o755,
        "usr/share/man/man8/nimbus-web.8.gz": 0o644,
    },
    WORKBENCH: {
        "usr/bin/nimbus-sim": 0o755,
        "usr/lib/*/wireshark/plugins/nimbus.lua": 0o644,
        "usr/share/man/man1/nimbus-sim.1.gz": 0o644,
    },
}


def output_of(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=120,
                          **options).stdout


@pytest.fixture(scope="module")
def packages(build, tmp_path_factory):
    """The files of the packages, by name."""
    if re.search(r"^NIMBUS_SANITIZE:\w+=.", (build / "CMakeCache.txt").read_text(), re.MULTILINE):
        pytest.skip("the build is sanitized")
    return made(build, tmp_path_factory.mktemp("package"))


def made(build, folder, *names):
    if EMULATOR:
        architecture = "armhf" if EMULATOR[0].endswith("qemu-arm-static") else "arm64"
    else:
        architecture = output_of("dpkg", "--print-architecture").strip()
    files = output_of(INSTALL / "package", build, architecture, folder, *names).splitlines()
    return {file.split("/")[-1].split("_")[0]: pathlib.Path(file) for file in files}


@pytest.fixture(scope="module")
def package(packages):
    """The file of the service's."""
    return packages[SERVICE]


@pytest.fixture
def root(package, tmp_path):
    """An empty root with the package in it."""
    folder = tmp_path / "root"
    output_of("dpkg-deb", "-x", package, folder)
    return folder


def field(package, name):
    return output_of("dpkg-deb", "-f", package, name).strip()


def names_in(text):
    return {re.match(r"[\w.+-]+", entry)[0] for entry in text.split(", ")}


def test_fields(packages):
    version = BANNER.decode().partition("v.")[2].partition("\x1b")[0]
    for name, file in packages.items():
        full = field(file, "Version")
        assert re.fullmatch(rf"{re.escape(version)}-\d{{8}}\.\d{{6}}", full)
        assert file.name == f"{name}_{full}_{field(file, 'Architecture')}.deb"
    depends = names_in(field(packages[SERVICE], "Depends"))
    assert {"libc6", "libcjson1", "libinih1", "mount", "nftables", "psmisc"} <= depends


def files_of(package, folder):
    """The files of a package with their modes; * is a folder of its architecture."""
    output_of("dpkg-deb", "-x", package, folder)
    files = [file for file in folder.rglob("*") if file.is_file() and not file.is_symlink()]
    return {re.sub("^usr/lib/[^/]+-linux-gnu[^/]*/", "usr/lib/*/", str(file.relative_to(folder))):
            file.stat().st_mode & 0o7777 for file in files}


@pytest.mark.parametrize("name", FILES)
def test_files(packages, tmp_path, name):
    documents = {file.format(name): mode for file, mode in DOCUMENTS.items()}
    assert files_of(packages[name], tmp_path / name) == {**FILES[name], **documents}


def test_link_to_the_working_copy(root):
    assert os.readlink(root / HOME / "tervado.conf") == "/run/tervado.conf"


def test_no_file_is_in_two_packages(packages, tmp_path):
    seen = {}
    for name, file in packages.items():
        for one in files_of(file, tmp_path / name):
            assert seen.setdefault(one, name) == name


def test_regions(root):
    """What the board's start makes of them is what the service would."""
    sizes = {"hud_mem": DisplayRegion.SIZE, "config_mem": CONFIG_REGION_SIZE}
    for name, size in sizes.items():
        assert (root / HOME / "regions" / name).read_bytes() == bytes(size)
    rows = [line.split() for line in
            (root / "usr/lib/tmpfiles.d/nimbus.conf").read_text().splitlines()
            if not line.startswith("#")]
    assert rows == [["C", f"/dev/shm/{name}", "0600", "root", "root", "-",
                     f"/{HOME}/regions/{name}"] for name in sizes]


def test_every_file_is_root_s(packages):
    for package in packages.values():
        rows = output_of("dpkg-deb", "-c", package).splitlines()
        assert rows and all(row.split()[1] == "root/root" for row in rows)


def test_configuration_files_are_kept(package):
    assert output_of("dpkg-deb", "-I", package, "conffiles").split() == [
        "/etc/avahi/services/nimbus.service", "/etc/nimbus/filter.nft"]


def test_programs_are_stripped(root):
    assert b".debug_info" not in (root / HOME / "nimbus").read_bytes()


def test_same_build_same_package(packages, build, tmp_path):
    again = made(build, tmp_path)
    assert {name: file.read_bytes() for name, file in again.items()} == {
        name: file.read_bytes() for name, file in packages.items()}


def test_one_of_them(build, packages, tmp_path):
    assert made(build, tmp_path, WORKBENCH).keys() == {WORKBENCH}


def test_a_changed_tree_makes_a_later_build(tmp_path):
    """Committed or not."""
    tree = tmp_path / "tree"
    (tree / "install").mkdir(parents=True)
    shutil.copytree(INSTALL, tree / "install", dirs_exist_ok=True)
    functions = (INSTALL / "package").read_text()
    begin, end = functions.index("source_time() {"), functions.index("SOURCE_DATE_EPOCH=")

    def revision():
        return int(output_of("bash", "-euc", f"source={tree}\n{functions[begin:end]}\nsource_time"))

    os.utime(tree / "install/filter.nft", (4_000_000_000, 4_000_000_000))
    assert revision() == 4_000_000_000
    git = ["git", "-C", tree, "-c", "user.name=a", "-c", "user.email=a@b"]
    output_of(*git, "init", "-q")
    output_of(*git, "add", "-A")
    output_of(*git, "commit", "-q", "-m", "one", env={
        **os.environ, "GIT_COMMITTER_DATE": "2030-01-01T00:00:00Z"})
    committed = revision()
    assert committed == 1_893_456_000
    (tree / "install/filter.nft").write_text("changed")
    os.utime(tree / "install/filter.nft", (3_000_000_000, 3_000_000_000))
    assert revision() == 3_000_000_000
    output_of(*git, "add", "-A")
    assert revision() == 3_000_000_000
    output_of(*git, "rm", "-q", "-f", "install/filter.nft")
    assert revision() == committed
    (tree / "new").touch()
    os.utime(tree / "new", (3_100_000_000, 3_100_000_000))
    assert revision() == 3_100_000_000


MAINS = {SERVICE: {"app/main.cpp", "tools/ctl/main.cpp"}, WEB: {"tools/web/main.cpp"},
         WORKBENCH: {"tools/sim/main.cpp"}}
ALL_MAINS = set().union(*MAINS.values())


def compiled_for(build, target):
    """The sources of it."""
    names = output_of("ninja", "-C", build, "-t", "inputs", target).splitlines()
    return {name.removeprefix(f"{ROOT}/") for name in names if name.startswith(f"{ROOT}/")}


def are_of_programs_only(sources):
    return not any(source.startswith(("tests/", "bench/")) for source in sources)


@pytest.mark.parametrize("name", MAINS)
def test_a_package_builds_only_the_programs_it_holds(build, name):
    sources = compiled_for(build, f"{name}-programs")
    assert sources & ALL_MAINS == MAINS[name] and are_of_programs_only(sources)


def test_all_packages_build_only_programs(build):
    sources = compiled_for(build, "programs")
    assert ALL_MAINS <= sources and are_of_programs_only(sources)


def test_a_build_without_the_web_console(tmp_path):
    """What it shares with nimbusctl is there all the same."""
    output_of("cmake", "-G", "Ninja", "-S", ROOT, "-B", tmp_path, "-DNIMBUS_WEB=OFF",
              "-DNIMBUS_TESTS=OFF")
    assert compiled_for(tmp_path, "all") & ALL_MAINS == ALL_MAINS - MAINS[WEB]
    assert "tools/web/stream.cpp" in compiled_for(tmp_path, "nimbusctl")


@pytest.mark.parametrize("arguments, problem", [
    (["mips"], "no packages for 'mips'; expected host, arm64 or armhf"),
    (["host", "nimbus", "nimbus-x"],
     "no package 'nimbus-x'; expected one of: nimbus nimbus-web nimbus-workbench"),
])
def test_no_such_packages(arguments, problem):
    """Said before anything is installed or built."""
    result = subprocess.run([ROOT / "dev", "package", *arguments], capture_output=True, text=True)
    assert (result.returncode, result.stderr) == (1, f"dev: {problem}\n")


@pytest.mark.parametrize("arguments", [(), ("x",), ("/nowhere", "amd64", "/tmp")])
def test_bad_arguments(arguments):
    result = subprocess.run([INSTALL / "package", *arguments], capture_output=True, text=True)
    assert result.returncode != 0
    assert result.stderr.count("\n") == 1


def test_no_such_package(build, tmp_path):
    result = subprocess.run([INSTALL / "package", build, "amd64", tmp_path, "nimbus-x"],
                            capture_output=True, text=True)
    assert result.returncode == 1
    assert result.stderr.startswith("package: no package 'nimbus-x'; expected one of: nimbus ")


def test_scripts(packages, tmp_path):
    """Each is for its own package, and nothing is left to be filled in."""
    for name, file in packages.items():
        content = tmp_path / name
        output_of("dpkg-deb", "-e", file, content)
        for script in ("preinst", "postinst", "prerm", "postrm"):
            if (content / script).exists():
                assert not re.search("@[A-Z]+@", (content / script).read_text())
                assert os.access(content / script, os.X_OK)
    assert (tmp_path / SERVICE / "postinst").exists()
    assert not (tmp_path / WORKBENCH / "postinst").exists()
    # 32-bit boards: what a cross compiler brings along is too new for some.
    assert (tmp_path / SERVICE / "preinst").exists() == (
        field(packages[SERVICE], "Architecture") == "armhf")


# --- Unpacked ------------------------------------------------------------------------------------


def test_start_from_the_unpacked_package(root, build, tmp_path, standins, region):
    """The start step, the service and a script, where the unit would find them."""
    home = root / HOME
    pathlib.Path("/run/tervado.conf").unlink(missing_ok=True)
    output_of(home / "scripts" / "before-start.sh", cwd=home)
    service = Service(home / "nimbus", home)
    try:
        service.err.wait("Loading config file... done\n")
        assert region.u8(region.OSD_ENABLED) == 1
        pathlib.Path("/boot/config.txt").write_text("a=1\n")
        viewer = Viewer()
        viewer.register()
        viewer.command('{"cmd":"updateparam","name":"hdmi_enabled","value":"1"}')
        wait_until(lambda: standins.calls("killall"), 5, "the end of the command")
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


def test_no_line_of_a_viewer_is_an_emergency(root):
    """Texts of viewers reach the console with their line ends; journald takes "<0>" at the beginning
    of a line for a message to every terminal, unless it is told not to."""
    unit = (root / "lib/systemd/system/nimbus.service").read_text()
    assert "\nSyslogLevelPrefix=no\n" in unit


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="systemd-analyze is missing")
def test_units_of_the_web_console(packages, tmp_path):
    """Nothing that systemd can take away is left to a program that strangers talk to."""
    root = tmp_path / "web"
    output_of("dpkg-deb", "-x", packages[WEB], root)
    result = subprocess.run(
        ["systemd-analyze", "security", "--offline=true", f"--root={root}", "--threshold=15",
         "nimbus-web.service"], capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stdout


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
