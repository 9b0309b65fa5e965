"""What Wireshark and tshark show with the dissector: of every message, report and command, of what
is damaged or cut, and of captures that hold anything.

    PYTHONPATH=tests tools/sandbox/enter python3 tests/e2e/test_dissector.py BUILD

writes anew what the recordings show (tests/e2e/golden/dissected-*); read the difference.
"""

import json
import os
import pathlib
import random
import re
import shlex
import shutil
import struct
import subprocess
import sys

import pytest

from harness import captures, duml, reports
from harness.messages import status, triple
from harness.service import EMULATOR

ROOT = pathlib.Path(__file__).resolve().parents[2]
GOLDEN = pathlib.Path(__file__).parent / "golden"
VIEWERS, DATA, VIDEO, FREE = 4242, 5000, 5001, 40_000


def tshark(build, capture, *arguments):
    """What tshark prints of a capture. A mistake in Lua shows in its tree or on its console."""
    result = subprocess.run(
        ["tshark", "-n", "-X", f"lua_script:{build}/nimbus.lua", "-o", "gui.column.format:"
         '"Protocol","%p","Info","%i"', "-r", capture, *arguments],
        capture_output=True, text=True, timeout=180, check=False)
    assert result.returncode == 0, result.stderr
    errors = [line for line in result.stderr.splitlines()
              if "Lua" in line or "lua" in line or "rror" in line]
    assert not errors, errors
    assert "Lua Error" not in result.stdout, re.findall(r"Lua Error.*", result.stdout)[:3]
    return result.stdout


def write_capture(path, datagrams):
    """Datagrams as (source port, destination port, payload), a millisecond apart."""
    path.write_bytes(captures.pcap(captures.RAW, [
        captures.Packet(n / 1000, captures.ip(captures.udp(data, to, source)))
        for n, (source, to, data) in enumerate(datagrams)]))
    return path


def header(kind=0, number=0):
    return struct.pack("<BBHIHH", 0x42, kind, 0, number, 0, 0)


def told(payload, number=7):
    """A message to a viewer."""
    return VIEWERS, FREE, header(0, number) + payload


def said(payload):
    """What a viewer says."""
    return FREE, VIEWERS, header() + payload


def reported(data):
    return FREE, DATA, data


def spoilt(frame):
    """A frame with a wrong check."""
    return frame[:-1] + bytes([frame[-1] ^ 1])


GIMBAL = reports.GIMBAL.frame(a1=-100, a2=50, a3=-1800)
LENS = reports.LENS.frame(state=0x85, zoom=1.5)

# Each with its line, and some fields by name.
SHOWN = {
    "registration": (said(b"\0\0"), "viewer: register", {"nimbus.viewer.register.mode": "0"}),
    "registration of one byte": ((FREE, VIEWERS, b"B"), "viewer: register", {}),
    "leaving": (said(b"\1"), "viewer: leave", {"nimbus.viewer.request": "1"}),
    "speed": (said(struct.pack("<BBhhh", 5, 1, 100, -200, 300)), "viewer: speed", {
        "nimbus.viewer.speed.pan": "100", "nimbus.viewer.speed.tilt": "-200",
        "nimbus.viewer.speed.roll": "300"}),
    "speed, cut": (said(b"\5\1\0"), "viewer: speed", {"nimbus.viewer.speed.mode": "1"}),
    "command": (said(b'{"cmd":"iso","param":"400"}\0junk'), "viewer: iso 400", {
        "nimbus.viewer.command": "iso 400", "json.value.string": "iso,400"}),
    "no JSON": (said(b'{"cmd":"iso'), "viewer: JSON text", {}),
    "binary text": (said(b'{\xff\x01\x80"cmd":"\x02"'), "viewer: ?", {}),
    "unknown request": (said(b"\x09"), "viewer: unknown message 9", {}),

    "attitude": (told(triple(0, -17900, 100, 9000)), "to viewer: gimbal attitude", {
        "nimbus.viewer.type": "0", "nimbus.viewer.number": "7",
        "nimbus.viewer.gimbal_attitude.angle_1": "-17900"}),
    "connection": (told(status(5, 1, 2)), "to viewer: connection", {
        "nimbus.viewer.connection.source": "1", "nimbus.viewer.connection.state": "2"}),
    "flags": (told(status(6, 0x13, 3, 0, 0, 6)), "to viewer: flags", {
        "nimbus.viewer.flags.access_point": "1", "nimbus.viewer.flags.hdmi": "0",
        "nimbus.viewer.flags.camera_data": "1", "nimbus.viewer.flags.rc_status": "6"}),
    "version": (told(status(11, 0, 3, 7, 2)), "to viewer: version", {
        "nimbus.viewer.version.minor": "3"}),
    "tracking": (told(struct.pack("<BB4H", 21, 1, 1, 2, 3, 65535)), "to viewer: tracking", {
        "nimbus.viewer.type": "21", "nimbus.viewer.tracking.height": "65535"}),
    "histogram": (told(bytes([14, *range(64)])), "to viewer: histogram", {
        "nimbus.viewer.histogram.bins": bytes(range(64)).hex()}),
    "channels": (told(struct.pack("<BBB32H", 15, 6, 32, *range(32))), "to viewer: rc channels", {
        "nimbus.viewer.rc_channels.channels": ",".join(map(str, range(32)))}),
    "another size": (told(bytes([21, 1])), "to viewer: tracking", {
        "nimbus.viewer.tracking.on": "1", "_ws.expert.message": "2 bytes, expected 10"}),
    "unknown message": (told(bytes([99, 1])), "to viewer: unknown message 99", {
        "nimbus.viewer.type": "99"}),
    "no payload": (told(b""), "to viewer: empty", {}),
    "report": (told(b'{"app":"nimbus","vw":640}'), "to viewer: nimbus", {
        "json.member": "app,vw"}),
    "video": ((VIEWERS, FREE, header(1, 9) + b"\0\0\0\1\x65"), "to viewer: video, 5 bytes", {
        "nimbus.video": "0000000165", "nimbus.viewer.kind": "1"}),
    "video of the bridge": ((FREE, VIDEO, b"\0\0\1"), "from bridge: video, 3 bytes", {}),

    "gimbal": (reported(GIMBAL + b"\0"), "from camera: gimbal", {
        "nimbus.camera.report": "gimbal", "nimbus.camera.gimbal.angle_2": "-100",
        "nimbus.camera.gimbal.angle_1": "-1800", "nimbus.camera.crc.bad": ""}),
    "several, and what is between": (
        reported(b"\1\2" + GIMBAL + b"\3" + LENS + b"\0"), "from camera: gimbal, lens", {
            "nimbus.camera.skipped": "0102,03,00", "nimbus.camera.lens.zoom_value": "1.5",
            "nimbus.camera.lens.lens_bit_2": "1"}),
    "damaged": (reported(spoilt(GIMBAL) + LENS + b"\0"), "from camera: damaged frame, lens", {
        "nimbus.camera.crc.bad": "1", "nimbus.camera.report": "lens"}),
    "wrong header check": (
        reported(duml.sealed(GIMBAL[:3] + b"\0" + GIMBAL[4:]) + b"\0"), "from camera: gimbal", {
            "nimbus.camera.header_crc.bad": "1", "nimbus.camera.crc.bad": ""}),
    "cut": (reported(GIMBAL[:20]), "from camera: cut frame", {
        "_ws.expert.message": "The frame goes beyond the datagram"}),
    "at the very end": (reported(GIMBAL), "from camera: gimbal", {
        "_ws.expert.message": "Nothing follows this report, and the service takes none "
                                     "without"}),
    "unknown report": (reported(duml.frame_of(bytes(7)) + b"\0"),
                       "from camera: unknown report", {"nimbus.camera.payload": "00" * 7}),
    "short frame": (reported(b"\x55\x03\x04\0"), "from camera: short frame", {}),
    "no frame": (reported(b"\0\x55"), "from camera: 2 bytes", {"nimbus.camera.skipped": "0055"}),
    "ISO": ((DATA, FREE, duml.camera(0x2A, "05").frame(3)), "to camera: ISO", {
        "nimbus.camera.command": "ISO", "nimbus.camera.sequence": "3",
        "nimbus.camera.payload": "05"}),
    "gimbal speed": ((DATA, FREE, duml.speed(1, 2, 3).frame(0)), "to camera: gimbal speed", {}),
    "told by a byte": ((DATA, FREE, duml.gimbal(0x4C, "FE 08").frame(0)),
                       "to camera: gimbal position", {}),
    "another of the same id": ((DATA, FREE, duml.gimbal(0x4C, "02 00").frame(0)),
                               "to camera: gimbal mode", {}),
    "unknown command": ((DATA, FREE, duml.camera(0x99).frame(0)), "to camera: unknown command", {}),
}


@pytest.fixture(scope="module")
def shown(build, tmp_path_factory):
    """For each capture of the table, its line and the fields that any of them names."""
    capture = write_capture(tmp_path_factory.mktemp("shown") / "all.pcap",
                            [datagram for datagram, _, _ in SHOWN.values()])
    names = sorted({name for _, _, fields in SHOWN.values() for name in fields})
    columns = ["_ws.col.Protocol", "_ws.col.Info", *names]
    lines = tshark(build, capture, "-T", "fields", "-E", "separator=\x1f",
                   *(word for name in columns for word in ("-e", name))).splitlines()
    assert len(lines) == len(SHOWN)
    return {name: dict(zip(columns, line.split("\x1f"))) for name, line in zip(SHOWN, lines)}


@pytest.mark.parametrize("name", SHOWN)
def test_shown(shown, name):
    _, info, fields = SHOWN[name]
    found = shown[name]
    assert found["_ws.col.Protocol"] == "Nimbus"
    assert found["_ws.col.Info"] == info
    assert {field: found[field] for field in fields} == fields


def test_other_traffic_is_left_alone(build, tmp_path):
    """What the service ignores on its port."""
    capture = write_capture(tmp_path / "other.pcap", [(FREE, VIEWERS, b"hello"),
                                                      (FREE, VIEWERS + 1, header() + b"\0")])
    assert tshark(build, capture, "-T", "fields", "-e", "_ws.col.Protocol").split() == \
        ["UDP", "UDP"]


@pytest.mark.parametrize("condition, expected", [
    ("nimbus.viewer.type == 21", {"tracking", "another size"}),
    ("nimbus.camera.crc.bad", {"damaged"}),
    ('nimbus.camera.report == "gimbal"', {"gimbal", "several, and what is between",
                                          "wrong header check", "at the very end"}),
    ('nimbus.camera.command == "ISO"', {"ISO"}),
    ('nimbus.viewer.command contains "iso"', {"command"}),
])
def test_filters(build, tmp_path, condition, expected):
    capture = write_capture(tmp_path / "all.pcap", [one for one, _, _ in SHOWN.values()])
    numbers = tshark(build, capture, "-Y", condition, "-T", "fields", "-e", "frame.number").split()
    assert {list(SHOWN)[int(number) - 1] for number in numbers} == expected


@pytest.fixture(scope="module")
def known_fields(build, tmp_path_factory):
    """Of a tshark that finds the dissector by itself, among its user's plug-ins."""
    home = tmp_path_factory.mktemp("home")
    plugins = home / ".local/lib/wireshark/plugins"
    plugins.mkdir(parents=True)
    shutil.copy(build / "nimbus.lua", plugins)
    output = subprocess.run(["tshark", "-G", "fields"], env={**os.environ, "HOME": str(home)},
                            capture_output=True, text=True, timeout=180, check=True).stdout
    return set(re.findall(r"\t(nimbus\.[\w.]+)\t", output))


@pytest.mark.parametrize("path, kinds, before", [
    ("net/messages.h", r"\{ToViewer::\w+,[^}]*?\"(\w+)\",\s+(\w+)::kItems\}", "nimbus.viewer."),
    ("camera/reports.h", r"\{\"(\w+)\",[^}]*?(\w+)::kItems\}", "nimbus.camera."),
])
def test_every_item_of_the_code_is_a_field(known_fields, path, kinds, before):
    source = (ROOT / path).read_text()
    layouts = {name: set(re.findall(r"Wire\w+(?:<[^>]*>)? \w+\{[\w, ]+, \"(\w+)\"\}", body))
               for name, body in re.findall(r"struct (\w+) \{(.*?)\n\};", source, re.DOTALL)}
    rows = re.findall(kinds, source)
    assert len(rows) > 10
    expected = {f"{before}{kind}.{item}" for kind, layout in rows for item in layouts[layout]}
    assert expected <= known_fields


def infos(build, path, datagrams):
    capture = write_capture(path, datagrams)
    return tshark(build, capture, "-T", "fields", "-e", "_ws.col.Info").splitlines()


def test_every_message_has_its_name(build, tmp_path):
    source = (ROOT / "net/messages.h").read_text()
    types = re.search(r"enum class ToViewer .*?\{(.*?)\};", source, re.DOTALL)[1]
    numbers = {name: int(number) for name, number in re.findall(r"(\w+) = (\d+),", types)}
    assert len(numbers) > 10
    shown = infos(build, tmp_path / "messages.pcap",
                  [told(bytes([number]) + bytes(20)) for number in numbers.values()])
    assert shown == [f"to viewer: {name.replace('_', ' ')}" for name in numbers]


# A message that the code does not have, as somebody would add it to net/messages.h: lines, and what
# stands behind each.
NEW_MESSAGE = (
    ("  novelty = 99,\n", "  text = '{',"),
    ("""struct NoveltyMessage {
  static constexpr WireField<std::uint16_t> wonder{1, "wonder"};
  static constexpr std::array<WireItem, 1> kItems{wonder};
};
""", "// --- All of them"),
    ('    {ToViewer::novelty, kShortMessageSize, "novelty", NoveltyMessage::kItems},\n',
     "    // clang-format on"),
)


@pytest.fixture
def build_with_new_message(build, tmp_path):
    """The dissector as the build makes it, but for that header."""
    changed = tmp_path / "net/messages.h"
    changed.parent.mkdir()
    text = re.sub(r"MessageKind, (\d+)>", lambda m: f"MessageKind, {int(m[1]) + 1}>",
                  (ROOT / "net/messages.h").read_text())
    for lines, behind in NEW_MESSAGE:
        assert text.count(behind) == 1
        text = text.replace(behind, lines + behind)
    changed.write_text(text)
    commands = subprocess.run(["ninja", "-t", "commands", "wireshark_tables"], cwd=build,
                              capture_output=True, text=True, check=True).stdout.splitlines()
    for command in commands:
        if "wireshark_tables.cpp.o" not in command:
            continue
        command = re.sub(r"\S+/wireshark_tables\.cpp\.o", f"{tmp_path}/tables.o", command)
        command = command.replace(" -o tools/wireshark/wireshark_tables", f" -o {tmp_path}/tables")
        command = command.replace(f" -I{ROOT}", f" -I{tmp_path} -I{ROOT}", 1)
        subprocess.run(command.removeprefix("ccache "), shell=True, cwd=build, check=True)
    subprocess.run([*EMULATOR, tmp_path / "tables", ROOT / "install/wireshark/nimbus.lua",
                    tmp_path / "nimbus.lua"], check=True)
    return tmp_path


def test_a_new_message_appears_by_itself(build_with_new_message, tmp_path):
    """With its name and its fields, for whoever has only added it to the code."""
    capture = write_capture(tmp_path / "new.pcap", [told(struct.pack("<BH4x", 99, 515))])
    shown = tshark(build_with_new_message, capture, "-T", "fields", "-e", "_ws.col.Info", "-e",
                   "nimbus.viewer.novelty.wonder", "-Y", "nimbus.viewer.type == 99")
    assert shown == "to viewer: novelty\t515\n"


def test_every_command_has_its_name(build, tmp_path):
    source = (ROOT / "tools/sim/commands.cpp").read_text()
    rows = re.findall(r"^    \{\d, (\d), (0x\w+), +(\d+), (\d), (\w+), +\"([^\"]+)\"", source, re.MULTILINE)
    assert len(rows) > 30
    frames = []
    for command_set, number, size, at, byte, _ in rows:
        payload = bytearray(int(size))
        if byte != "any":
            payload[int(at)] = int(byte, 0)
        frames.append(duml.Command(int(command_set), int(number, 0), bytes(payload)).frame(1))
    shown = infos(build, tmp_path / "commands.pcap", [(DATA, FREE, frame) for frame in frames])
    assert shown == [f"to camera: {row[-1]}" for row in rows]


def test_readme(build, tmp_path):
    """The frame that it shows, line by line."""
    text = (ROOT / "README.md").read_text()
    promised = re.search(r"```\ntshark -r flight.pcapng (.*)\n((?:.*\n)*?)```", text)
    capture = write_capture(tmp_path / "flight.pcap", [
        told(struct.pack("<BB4H", 21, 1, 26214, 19661, 6554, 9830), 512), told(b"\0\0", 513)])
    shown = tshark(build, capture, *shlex.split(promised[1]))
    assert promised[2] in shown, shown


def test_is_found_without_settings(build):
    """It is installed where both programs look for plug-ins of everybody."""
    folders = subprocess.run(["tshark", "-G", "folders"], capture_output=True, text=True,
                             timeout=60, check=True).stdout
    plugins = pathlib.Path(re.search(r"Global Lua Plugins:\s+(\S+)", folders)[1])
    rules = (build / "cmake_install.cmake").read_text()
    installed = re.search(r'/(lib/[^/"]+/wireshark/plugins)"', rules)[1]
    own = subprocess.run(["dpkg-architecture", "-qDEB_HOST_MULTIARCH"], capture_output=True,
                         text=True, check=True).stdout.strip()
    assert re.sub(r"^lib/[^/]+/", "lib/x/", installed) == \
        str(plugins.relative_to("/usr")).replace(f"lib/{own}/", "lib/x/")


# --- Recordings ----------------------------------------------------------------------------------

RECORDINGS = ("camera.pcap", "faults.pcapng")


def dissected(build, name):
    """A recording as text and as JSON: its first packets, without what surrounds them."""
    path = ROOT / "tests" / "recordings" / name
    text = tshark(build, path, "-c", "25", "-O", "nimbus", "-V")
    keep = "\n".join(line for line in text.splitlines()
                     if not re.match(r"(Frame \d|Raw|Linux|Ethernet|Internet|User|Packet)", line))
    packets = json.loads(tshark(build, path, "-c", "6", "-T", "json", "-J", "nimbus"))
    return {f"dissected-{name}.txt": keep.strip() + "\n",
            f"dissected-{name}.json": json.dumps(
                [packet["_source"]["layers"].get("nimbus") for packet in packets], indent=1) + "\n"}


@pytest.mark.parametrize("name", RECORDINGS)
def test_recordings(build, name):
    for golden, text in dissected(build, name).items():
        assert text == (GOLDEN / golden).read_text(), golden


def test_whole_recordings(build):
    """Without a mistake, to their end, fragments put together."""
    for path in sorted((ROOT / "tests" / "recordings").glob("*.pcap*")):
        assert "Nimbus" in tshark(build, path, "-V") or "nimbus" in tshark(build, path, "-V")


# --- Captures that hold anything -----------------------------------------------------------------


def mutated(chance, data):
    data = bytearray(data)
    for _ in range(chance.randrange(1, 6)):
        if not data:
            break
        at = chance.randrange(len(data))
        what = chance.randrange(4)
        if what == 0:
            data[at] = chance.randrange(256)
        elif what == 1:
            data[at] ^= 1 << chance.randrange(8)
        elif what == 2:
            del data[at:]
        else:
            data[at:at] = bytes(chance.randrange(256) for _ in range(chance.randrange(9)))
    return bytes(data)


@pytest.mark.parametrize("seed", range(2))
def test_anything(build, tmp_path, seed):
    """Spoilt, cut short and pure noise, on every port, in both directions."""
    chance = random.Random(seed)
    sound = [one for one, _, _ in SHOWN.values()]
    datagrams = [(source, to, mutated(chance, data))
                 for source, to, data in (chance.choice(sound) for _ in range(700))]
    for _ in range(300):
        ports = [chance.choice([VIEWERS, DATA, VIDEO]), FREE]
        chance.shuffle(ports)
        datagrams.append((*ports, chance.choice([b"", b"B", header(), b"\x55"]) +
                          chance.randbytes(chance.randrange(120))))
    capture = write_capture(tmp_path / "anything.pcap", datagrams)
    assert tshark(build, capture, "-V").count("Tervado Nimbus") > 500


def test_captures_that_are_cut(build, tmp_path):
    """Each packet has lost its end when it was captured."""
    packets = []
    for n, ((source, to, data), _, _) in enumerate(SHOWN.values()):
        whole = captures.ip(captures.udp(data, to, source))
        packets += [captures.Packet(n, whole[:size], len(whole))
                    for size in range(28, len(whole))]
    path = tmp_path / "cut.pcap"
    path.write_bytes(captures.pcap(captures.RAW, packets))
    tshark(build, path, "-V")


if __name__ == "__main__":
    for recording in RECORDINGS:
        for file, content in dissected(pathlib.Path(sys.argv[1]).resolve(), recording).items():
            (GOLDEN / file).write_text(content)
