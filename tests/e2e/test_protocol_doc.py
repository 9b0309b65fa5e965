"""docs/protocol.md against the code: what the tables of the one say, the tables of the other do."""

import ast
import pathlib
import re

import pytest

from harness.camera import Camera

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENT = (ROOT / "docs" / "protocol.md").read_text()
TICKED = re.compile(r"`([^`]+)`")


# --- The document --------------------------------------------------------------------------------


def section(heading):
    """The text under a heading, up to the next one."""
    parts = re.split(r"^#+ (.+)$", DOCUMENT, flags=re.MULTILINE)
    found = [text for title, text in zip(parts[1::2], parts[2::2]) if title == heading]
    assert len(found) == 1, f"{len(found)} sections named {heading!r} in docs/protocol.md"
    return found[0]


def tables(heading):
    """The tables of a section, each a list of rows, each a dictionary by the column's title."""
    found = []
    for block in re.findall(r"(?:^\|.*\n?)+", section(heading), flags=re.MULTILINE):
        rows = [[cell.strip() for cell in line.strip().strip("|").split("|")]
                for line in block.splitlines()]
        assert all(len(row) == len(rows[0]) for row in rows), f"a ragged table in {heading!r}"
        found.append([dict(zip(rows[0], row)) for row in rows[2:]])
    return found


def table(heading, index=0):
    return tables(heading)[index]


def word(cell):
    """The one word in code quotes that a cell consists of."""
    match = re.fullmatch(r"`([^`]+)`", cell)
    assert match, f"{cell!r} is not one word in code quotes"
    return match[1]


def words(cell):
    return TICKED.findall(cell)


def no_repeats(items):
    items = list(items)
    assert len(items) == len(set(items)), f"something stands twice among {items}"
    return set(items)


# --- The code ------------------------------------------------------------------------------------


def source(path):
    """The text of a source file, its comments left out and all white space single."""
    text = re.sub(r"//.*", "", (ROOT / path).read_text())
    return re.sub(r"\s+", " ", text)


def block(path, name):
    """The braces that follow a name."""
    match = re.search(rf"\b{name}\b[^;{{]*(\{{.*?\}})\)?;", source(path))
    assert match, f"no table {name} in {path}"
    return match[1]


def constant(path, name):
    match = re.search(rf"\b{name} = ([\d']+)", source(path))
    assert match, f"no number {name} in {path}"
    return int(match[1].replace("'", ""))


def first_words(path, name):
    """The first text of each row of a table."""
    return re.findall(r'\{"([^"]+)",', block(path, name))


TYPES = {"std::uint8_t": "u8", "std::uint16_t": "u16", "std::uint32_t": "u32", "float": "f32",
         "std::int16_t": "i16", "std::int32_t": "i32", "double": "f64"}


def fields(path):
    """The fields of a region: name, offset and type, as the header has them."""
    text = source(path)
    offsets = {name: int(offset) for name, offset
               in re.findall(r"offsetof\(\w+, (\w+)\) == (\d+)", text)}
    types = {}
    for kind, count, name in re.findall(
            r"(?:std::array<)?Shared<([\w:]+)>(?:, (\d+)>)? (\w+);", text):
        types[name] = TYPES[kind] + (f"[{count}]" if count else "")
    for size, name in re.findall(r"SharedText<(\d+)> (\w+);", text):
        types[name] = f"char[{size}]"
    if "CommandMailbox command_mailbox;" in text:
        size = constant("display/command_mailbox.h", "kSize")
        types["command_mailbox"] = f"char[{size}]"
    assert types.keys() == offsets.keys(), f"fields without an asserted offset in {path}"
    return {(name, offset, types[name]) for name, offset in offsets.items()}


# --- The text ------------------------------------------------------------------------------------


def test_links():
    """Each leads to a section, or to a file."""
    anchors = {re.sub(r"[^\w -]", "", title).lower().replace(" ", "-")
               for title in re.findall(r"^#+ (.+)$", DOCUMENT, flags=re.MULTILINE)}
    links = re.findall(r"\]\(([^)]+)\)", DOCUMENT)
    assert links
    for link in links:
        known = link[1:] in anchors if link[0] == "#" else (ROOT / "docs" / link).exists()
        assert known, f"{link} leads nowhere"


def test_frames_that_are_named():
    """Every frame is sent by some command, the speed frame by speeds."""
    commands = " ".join(" ".join(row.values()) for row in table("Camera and gimbal commands"))
    for row in table("Frames to the camera"):
        name = row["Frame"].split(" again")[0]
        assert re.sub(r"calibration (2|3)", "calibration 1", name).lower() in commands.lower()


# --- Regions and keys ----------------------------------------------------------------------------


@pytest.mark.parametrize("heading, path", [("The display region", "display/region.h"),
                                           ("The configuration region", "config/config.h")])
def test_regions(heading, path):
    """Every field, at its offset and of its type; and the size."""
    described = [(word(row["Field"]), int(row["Offset"]), row["Type"]) for row in table(heading)]
    assert no_repeats(described) == fields(path)
    assert [offset for _, offset, _ in described] == sorted(offset for _, offset, _ in described)
    size = re.search(r"sizeof\(\w+\) == (\d+)", source(path))[1]
    assert f", {size} bytes" in section(heading)


def test_keys():
    """The keys are the fields with a kind that is read."""
    macros = {"FLAG": "flag", "BYTE": "byte", "NUMBER": "number", "TEXT": "text",
              "CHANNEL_MAP": "channel map", "QUOTED_TEXT": "quoted text"}
    code = {(key, macros[macro]) for macro, key
            in re.findall(r"(\w+)\((\w+), \"", block("config/fields.h", "kConfigFields"))}
    described = no_repeats((word(row["Field"]), row["Kind"])
                           for row in table("The configuration region")
                           if row["Kind"] != "runtime")
    assert described == code
    assert len(described) == 39
    assert {row["Kind"] for row in table("The configuration file")} == set(macros.values())


def test_rc_functions():
    codes = dict(re.findall(r"(\w+) = (\d+),", source("control/rc_map.h")))
    code = {(name, int(codes[function])) for name, function
            in re.findall(r'\{"([^"]+)", RcFunction::(\w+)\}', source("control/rc_map.h"))}
    described = no_repeats((word(row["Word"]), int(row["Code"])) for row in table("The RC reader"))
    assert described == code


# --- Commands ------------------------------------------------------------------------------------


def test_camera_commands():
    """Every row of the interpreter, and no other."""
    code = set(re.findall(r'\{"(\w+)", ("\w+"|kAny), ', block("control/interpreter.cpp", "kRows")))
    described = set()
    for row in table("Camera and gimbal commands"):
        param = f'"{word(row["param"])}"' if re.fullmatch(r"`\w+`", row["param"]) else "kAny"
        assert (word(row["cmd"]), param) not in described
        described.add((word(row["cmd"]), param))
    assert described == code


def accepted(cmd, param=None):
    """The words that the table names for a command."""
    rows = [row for row in table("Camera and gimbal commands") if word(row["cmd"]) == cmd
            and (param is None or words(row["param"]) == [param])]
    assert len(rows) == 1
    return no_repeats(words(rows[0]["Values" if param else "param"]))


def test_words_of_camera_commands():
    path = "camera/words.h"
    values = block("camera/codes.h", "kIsoValues")
    assert accepted("iso") == set(re.findall(r'\{\d+, \d+, "(\w+)"\}', values))
    assert accepted("camera", "mode") == set(first_words(path, "kCameraModes"))
    assert accepted("video_mode") == set(first_words(path, "kExposureModes"))
    assert accepted("video_aspect") == set(first_words(path, "kAspectRatios"))
    assert accepted("antiflicker") == set(first_words(path, "kAntiFlickers"))
    assert accepted("shotmode") == set(first_words(path, "kShotModes"))
    balances = re.findall(r'\{"(\w+)", \d+, 0x', block("camera/codes.h", "kWhiteBalances"))
    assert accepted("wb") == {*balances, "custom"}
    assert accepted("focus", "type") == set(first_words(path, "kFocusTypes"))
    assert accepted("gimbal", "mode") == set(first_words(path, "kGimbalModes"))
    formats = no_repeats(words(section("Video formats")))
    assert formats == set(first_words(path, "kVideoFormats"))
    times = re.findall(r'"([^"]+)"', block("camera/codes.h", "kShutterTexts"))
    assert words(section("Shutter times"))[1:] == times  # the first is the "s" that is explained


def test_configuration_commands():
    described = {word(row["cmd"]) for row in table("Configuration commands")}
    assert described == set(first_words("config/commands.cpp", "kCommands"))


def test_interface_codes():
    described = {(word(row["Code"]), "".join(words(row["Interface"])))
                 for row in table("Configuration commands", 1)}
    text = block("config/interface_codes.h", "kInterfaceCodes").replace("kNoInterfaceCode", '"0"')
    assert described == set(re.findall(r'\{"(\w+)", "(\w*)"\}', text))


def test_settings():
    """Each with the fields that it stores, how it reads them, and what it ends."""
    path = "config/commands.cpp"
    constants = dict(re.findall(r'const char\* (kEnd\w+) = "([^"]+)"',
                                source("config/commands.h") + source(path)))
    code = {}
    for row in block(path, "kSettings").split("{.name = ")[1:]:
        name, rest = re.match(r'"(\w+)", (.*)', row).groups()
        stores = re.findall(r'\{"(\w+)"(, kYesOrNo)?\}', rest)
        code[name] = ([key for key, _ in stores], any(yes for _, yes in stores),
                      [constants[found] for found in re.findall(r"\.then = (kEnd\w+)", rest)],
                      ".resets_receiver = true" in rest)
    described = {}
    for row in table("Settings"):
        described[word(row["name"])] = (words(row["Stores"]), "(yes or no)" in row["Stores"],
                                        words(row["Then"]), row["Then"].endswith("; receiver"))
    assert described == code


def test_settings_with_steps_of_their_own():
    rows = tables("Settings with steps of their own")
    described = no_repeats(word(row["name"]) for row in rows[0])
    assert described == set(first_words("config/commands.cpp", "kOwnSteps"))
    assert [word(row["Value"]) for row in rows[1]] == \
        ["value"] + [f"value{n}" for n in range(2, 13)]
    resolution, = [row for row in rows[0] if word(row["name"]) == "video_resolution"]
    assert set(words(resolution["Values"])) == \
        set(first_words("config/stream_sizes.h", "kStreamSizes"))


def test_hdmi_modes():
    code = set(re.findall(r'\{"([^"]+)", \{HdmiGroup::\w+, ([1-9]\d*)\}\}',
                          block("config/hdmi_modes.h", "kHdmiModes")))
    described = set()
    for row in table("Settings with steps of their own", 2):
        pairs = re.findall(r"`([^`]+)` (\d+)", row["Modes"])
        assert all(name.endswith(f" {row['Group']}") for name, _ in pairs)
        described |= no_repeats(pairs)
    assert described == code


def test_members_of_the_report():
    """In their order."""
    kinds = dict(re.findall(r'\{"(\w+)", "\w+"(?:, ReportAs::(\w+))?\}',
                            block("config/report_items.h", "kReportItems")))
    code = re.findall(r'\{"(\w+)", "(\w+)"', block("config/report_items.h", "kReportItems"))
    rows = table("The configuration report")
    assert [(word(row["Member"]), word(row["Field"])) for row in rows] == code
    types = {name: kind for name, _, kind in fields("config/config.h")}
    for row in rows:
        expected = "text" if types[word(row["Field"])].startswith("char") else "number"
        if kinds[word(row["Member"])]:
            expected = "interface code, in quotes"
        assert row["As"] == expected, row["Member"]


# --- Messages and limits -------------------------------------------------------------------------


def test_types_of_messages():
    """Each with its size."""
    types = {name: ord("{") if number == "'{'" else int(number) for name, number
             in re.findall(r"(\w+) = (\d+|'\{')", block("net/messages.h", "ToViewer"))}
    kinds = dict(re.findall(r"\{ToViewer::(\w+), +(\w+(?:::kSize)?),",
                            block("net/messages.h", "kMessageKinds")))
    assert kinds.keys() == types.keys() - {"text"}

    def size(text):
        if "::" not in text:
            return constant("net/messages.h", text)
        record = source("net/messages.h").split(f"struct {text.split('::')[0]} ")[1]
        return int(re.search(r"kSize = (\d+)", record)[1])

    code = {(types[name], str(size(text))) for name, text in kinds.items()}
    described = no_repeats((int(row["Type"]), row["Length"])
                           for row in table("Messages to viewers"))
    assert described == code | {(types["text"], "its own")}


def test_types_from_viewers():
    code = set(re.findall(r"\w+ = ([^,\s]+)", block("net/messages.h", "FromViewer")))
    described = {row["First byte"] for row in table("From viewers")}
    assert described == {str(ord(value[1])) if value[0] == "'" else value for value in code}


def test_limits():
    code = {
        "viewer port": constant("net/messages.h", "kViewerPort"),
        "camera data port": constant("net/sources.h", "kDataPort"),
        "video port": constant("net/sources.h", "kVideoPort"),
        "viewers": constant("net/viewers.h", "kMaxViewers"),
        "viewer time-out": constant("net/viewers.h", "kViewerTimeoutMs"),
        "source time-out": constant("net/udp_link.h", "kLinkTimeoutMs"),
        "telemetry time-out": constant("control/control.cpp", "kTelemetryTimeoutMs"),
        "datagram": constant("net/udp_link.h", "kMaxDatagram"),
        "command text": constant("display/command_mailbox.h", "kSize") - 1,
        "mailbox period": constant("control/control.cpp", "kControlPauseUs") // 1000,
        "speed period": constant("control/control.cpp", "kSpeedStreamPeriodNs") // 1_000_000,
        "status period": constant("app/status_loop.cpp", "kPauseS") * 1000,
        "RC report period": constant("control/control.cpp", "kRcReportPeriodMs"),
        "send pause": constant("net/viewers.cpp", "kPauseAfterSendUs") // 1000,
    }
    assert {row["What"]: int(row["Value"].split()[0]) for row in table("Limits")} == code


# --- Camera frames and reports -------------------------------------------------------------------


def payload(cell):
    """The payload that a cell stands for, with zeros for what varies."""
    data = b""
    for times, fixed, kind in re.findall(r"(?:(\d+) × )?(?:`([^`]+)`|(\w+))", cell):
        one = bytes.fromhex(fixed) if fixed else bytes({"u16": 2, "i16": 2, "f32": 4}.get(kind, 1))
        data += one * int(times or 1)
    return data


def test_frames_to_the_camera():
    """Set, id and payload of every template."""
    code = []
    for path in ("camera/camera.cpp", "camera/gimbal.cpp"):
        for size, rest in re.findall(r"DumlTemplate<(\d+)> k\w+\((.*?)\);", source(path)):
            target, number = re.search(r"(camera|gimbal).*?0x(\w\w)", rest).groups()
            numbers = re.search(r"\{((?:\w+, )*\d\w*)\}$", rest)
            data = bytes(int(each, 0) for each in numbers[1].split(", ")) if numbers else b""
            if rest == "camera(0x28)":
                data = b"\1"  # of the shutter's frame, which its operation fills in whole
            code.append((target, number, data.ljust(int(size), b"\0")))
    described = [({"2": "camera", "4": "gimbal"}[row["Set"]], row["Id"], payload(row["Payload"]))
                 for row in table("Frames to the camera")]
    assert sorted(described) == sorted(code)
    for row in table("Frames to the camera"):
        assert len(payload(row["Payload"])) == int(row["Size"]), row["Frame"]


CODES = {
    "Aspect ratio": ("camera/words.h", "kAspectRatios"),
    "Anti-flicker": ("camera/words.h", "kAntiFlickers"),
    "Focus type": ("camera/words.h", "kFocusTypes"),
    "Exposure mode": ("camera/words.h", "kExposureModes"),
    "Exposure mode, shown": ("camera/codes.h", "kExposureModeNames"),
    "Camera mode, shown": ("camera/codes.h", "kCameraModeNames"),
    "Photo format": ("camera/words.h", "kShotModes"),
    "Photo format, shown": ("camera/codes.h", "kPhotoFormatNames"),
    "White balance": ("camera/codes.h", "kWhiteBalances"),
    "White balance tint": ("camera/codes.h", "kWhiteBalances"),
    "Colour": ("camera/codes.h", "kColours"),
    "ISO": ("camera/codes.h", "kIsoValues"),
    "Exposure compensation": ("camera/codes.h", "kEvSteps"),
    "Resolution": ("camera/codes.h", "kResolutions"),
    "Frame rate": ("camera/codes.h", "kFrameRates"),
}


def test_codes():
    rows = {row["What"]: row["Codes"] for row in table("Codes")}
    assert rows.keys() == CODES.keys()
    for what, (path, name) in CODES.items():
        described = {(value, int(code)) for value, code
                     in re.findall(r"`([^`]+)` (\d+)", rows[what])}
        source_rows = block(path, name)
        if what == "White balance tint":  # the third column, where it is not 0
            source_rows = re.sub(r'\{"\w+", \d+, 0\}', "", source_rows)
            source_rows = re.sub(r", \d+, (0x\w+)\}", r", \1}", source_rows)
        # Behind the code there may be one more column.
        pairs = re.findall(r"\{(?:\{([^{}]*)\}|\"([^\"]*)\"|([-\d.]+)), (\w+)"
                           r"(?:, \"?\w*\"?)?\}", source_rows)
        code = {(struct or text or number, ast.literal_eval(value))
                for struct, text, number, value in pairs}
        assert code and described == code, what


def test_reports():
    code = set()
    for report, length in re.findall(r"(\w+)::(k\w*Length), ", block("camera/reports.h", "kReportKinds")):
        layout = source("camera/reports.h").split(f"struct {report} ")[1]
        numbers = dict(re.findall(r" (k\w+) = (\w+);", layout.split("};")[0]))
        code.add((numbers[length], numbers["kSet"].replace("kAnySet", "any")))
    rows = tables("Camera reports")
    assert no_repeats((row["Length"], row["Set"]) for row in rows[0]) == code
    assert {row["Report"] for row in rows[1]} == {row["Report"] for row in rows[0]}


def test_fields_of_reports():
    """Every telemetry field of the region is filled by some report, or said to be kept by time."""
    known = {name: offset for name, offset, _ in fields("display/region.h")}
    named = set(words(section("Camera reports"))) & known.keys()
    for row in table("Camera reports", 1):
        assert not row["Field"] or word(row["Field"]) in known
    telemetry = {name for name, offset in known.items() if 622 <= offset <= 1012}
    assert telemetry - named == {"lens_known", "histogram_ms"}


# --- Checksums and the session -------------------------------------------------------------------


@pytest.fixture(scope="module")
def printed():
    """The functions that the document prints."""
    functions = {}
    exec(re.search(r"```python\n(.*?)```", section("Checks"), re.DOTALL)[1], functions)
    return functions


def test_examples_of_the_checks(printed):
    for row in table("Checks"):
        polynomial, start, result = (int(row[title], 16) for title
                                     in ("Reflected", "Register at the start", "Result"))
        bits = 8 * (len(row["Polynomial"]) // 2)
        assert f"{int(row['Polynomial'], 16):0{bits}b}"[::-1] == f"{polynomial:0{bits}b}"
        assert printed["crc"](bytes.fromhex(word(row["Example"])), polynomial, start) == result
        turned = int(f"{start:0{bits}b}"[::-1], 2)
        assert f"`{turned:0{bits // 4}X}`" in section("Checks")
    frame = bytes.fromhex(re.search(r"whole it is `([^`]+)`", section("Checks"))[1])
    assert printed["seal"](frame[:3] + b"\0" + frame[4:-2] + b"\0\0") == frame


def test_header_checks_of_all_lengths(printed):
    (row,) = table("Checks", 1)
    described = {title: value for title, value in row.items() if title != "Length"}
    sizes = {str(int(row["Size"]) + 13) for row in table("Frames to the camera")}
    assert described.keys() == sizes
    for length, value in described.items():
        assert printed["crc"]([0x55, int(length), 0x04], 0x8C, 0x77) == int(value, 16)


def test_the_session(start, viewers):
    """The session in bytes, played to the service. A byte "xx" may be any."""
    camera = Camera()
    try:
        service = start()
        camera.send(b"\0")
        service.err.wait("Data found")
        viewer = viewers()
        frames = 0
        for row in table("A session in bytes"):
            datagram = word(row["Datagram"])
            if row["From"] == "viewer":
                viewer.send_raw(bytes.fromhex(datagram))
            elif row["To"] == "viewer":
                pattern = re.compile(datagram.replace("xx", "[0-9A-F]{2}"))
                viewer.wait(lambda frame: pattern.fullmatch(frame.data.hex(" ").upper()),
                            what=row["What it is"])
            else:
                frames += 1
                sent = camera.wait_frames(frames)[frames - 1].data
                assert sent == bytes.fromhex(datagram), row["What it is"]
        service.err.wait("removed")
    finally:
        camera.close()
