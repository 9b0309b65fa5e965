"""The configuration file, by what its settings change that can be seen from outside."""

import random

import pytest

from harness.config_file import KEYS
from harness.receiver import FUNCTIONS
from harness.timing import wait_until

CHANNELS = 32
NONE = 255

# What a region holds where the service has not been.
BEFORE = b"\xa5"

LOADED = "Loading config file... done\n"
NOT_LOADED = "Loading config file... failed\n"


def codes(*assigned):
    """A whole channel map that starts with those codes."""
    return bytes(assigned).ljust(CHANNELS, bytes([NONE]))


def channel_map(start, region, conf):
    """The map that the service publishes; also, nothing around it may change."""
    region.create(BEFORE * region.SIZE)
    start(conf)
    offset, length = region.RC_CHANNEL_MAP
    end, begin, after = offset + length, region.RC_CHANNEL_VALUES[0], region.COMMAND_MAILBOX[0]
    assert region.bytes(begin, offset - begin) == BEFORE * (offset - begin)
    assert region.bytes(end, after - end) == BEFORE * (after - end)
    return region.bytes(offset, length)


# --- Flags ---------------------------------------------------------------------------------------


@pytest.mark.parametrize("value, stored", [
    ("1", 1), ("0", 0), ("", 0), ("7", 1), ("-1", 1), ("+1", 1), ("00", 0), ("010", 1),
    ("yes", 0), ("true", 0), ("on", 0), ('"1"', 0), ("12abc", 1), ("0x10", 0), ("1.9", 1),
    ("0.9", 0), ("256", 1), ("4294967296", 1), ("-2147483649", 1), ("9" * 40, 1),
    ("-" + "9" * 40, 1),
])
def test_number(start, region, value, stored):
    """The digits at the start count, in base 10. A flag is 1 for any number but 0."""
    start(f"osd_enabled={value}\n")
    assert region.u8(region.OSD_ENABLED) == stored


@pytest.mark.parametrize("conf, flags", [
    ("", 0b00001),
    ("hdmi_enabled=0", 0b00001),
    ("hdmi_enabled=1", 0b00101),
    ("hdmi_enabled=255", 0b00101),
])
def test_hdmi_enabled(start, access_point, join, conf, flags):
    """Viewers are told whether the video goes out on HDMI."""
    service = start(conf)
    viewer = join(service)
    access_point.answer(1)
    assert viewer.message(6).payload[1] == flags


@pytest.mark.parametrize("conf, relayed", [
    ("", True),
    ("disable_video_stream=0", True),
    ("disable_video_stream=1", False),
    ("disable_video_stream=2", False),
])
def test_disable_video_stream(start, region, access_point, join, video, conf, relayed):
    """Without the stream, video still counts as connected; not even a frame number is used up."""
    service = start(conf)
    access_point.wait_probe()
    viewer = join(service)
    datagrams = [b"first", b"second", b"third"]
    for datagram in datagrams:
        region.write(region.VIDEO_CONNECTED, b"\0")
        region.write(region.VIDEO_STATUS_TEXT[0], b"video disconnected")
        video.send(datagram)
        wait_until(lambda: region.text(*region.VIDEO_STATUS_TEXT) == "", 5, "the packet")
        assert region.u8(region.VIDEO_CONNECTED) == 1
    if relayed:
        frames = viewer.wait_count(lambda frame: frame.video, len(datagrams))
        assert [frame.payload for frame in frames] == datagrams
    access_point.answer(1)
    counter = viewer.message(6).counter
    assert counter == 2 + (len(datagrams) if relayed else 0)
    assert [frame.video for frame in viewer.frames].count(True) == counter - 2


# --- RC channel map ------------------------------------------------------------------------------


@pytest.mark.parametrize("code, word", enumerate(FUNCTIONS))
def test_function_word(start, region, code, word):
    channel = CHANNELS - 1 - code
    conf = "rc_input_map=" + "," * channel + word
    assert channel_map(start, region, conf) == codes(*[NONE] * channel, code)


@pytest.mark.parametrize("text, assigned", [
    ("", []),
    ("," * 31, []),
    ("pan", [0]),
    ("pan,tilt,record,,ev", [0, 1, 2, NONE, 5]),
    ("pan,pan,,pan,", [0, 0, NONE, 0]),
    ("," * 31 + "osd", [NONE] * 31 + [20]),
    ("," * 32 + "osd", []),
    ("pan," * 40, [0] * CHANNELS),
    ("," * 39 + "pan", []),
    # Words are taken exactly as they stand.
    ("Pan,PAN,pan", [NONE, NONE, 0]),
    ("tilt, pan,pan ,pan", [1, NONE, NONE, 0]),
    ("tilt,\tpan", [1]),
    ("pa,panx,record-,record-sho,record-shots", []),
    ('"pan",tilt', [NONE, 1]),
    ("0,1,255", []),
    ("pan;tilt", []),
    ("p\u00e4n,tilt", [NONE, 1]),
])
def test_channel_map(start, region, text, assigned):
    assert channel_map(start, region, f"rc_input_map={text}\n") == codes(*assigned)


@pytest.mark.parametrize("conf", ["", "osd_enabled=1", "rc_input_maps=pan", ";rc_input_map=pan",
                                  "[rc]\nrc_input_map=pan", "rc_input_map pan", None])
def test_without_a_map_the_channels_are_left_alone(start, region, conf):
    assert channel_map(start, region, conf) == BEFORE * CHANNELS


@pytest.mark.parametrize("conf, assigned", [
    ("rc_input_map=pan,tilt\nrc_input_map=ev", [5]),
    ("rc_input_map=pan,tilt\nrc_input_map=", []),
    ("rc_input_map=pan\n[rc]\nrc_input_map=tilt", [0]),
])
def test_last_map_counts(start, region, conf, assigned):
    assert channel_map(start, region, conf) == codes(*assigned)


# --- What a line is ------------------------------------------------------------------------------

BOM = b"\xef\xbb\xbf"

# Text before a last word in a line, so long that the line is 200 bytes long with its line feed.
LONG = "custom-focus-assistant," * 7 + "x" * 21 + ","
assert len(f"rc_input_map={LONG}pan\n") == 200


@pytest.mark.parametrize("conf, assigned", [
    pytest.param(b"rc_input_map=pan", [0], id="no-line-feed"),
    pytest.param(b"\n\n  \n\t\nrc_input_map=pan\n", [0], id="blank-lines"),
    pytest.param(b"rc_input_map=pan,tilt\r\n", [0, 1], id="cr-lf"),
    pytest.param(b"rc_input_map=\r\n", [], id="cr-lf-empty"),
    pytest.param(b"rc_input_map = pan\n", [0], id="spaces"),
    pytest.param(b"rc_input_map\t=\t pan \t\n", [0], id="tabs"),
    pytest.param(b"  rc_input_map=pan\n", [0], id="indented-first-line"),
    pytest.param(b"rc_input_map:pan\n", [0], id="colon"),
    pytest.param(b"rc_input_map : pan\n", [0], id="colon-spaces"),
    pytest.param(b"rc_input_map:pan=tilt\n", [], id="colon-before-equals"),
    pytest.param(b"rc_input_map=pan:tilt\n", [], id="equals-before-colon"),
    pytest.param(BOM + b"rc_input_map=pan\n", [0], id="bom"),
    pytest.param(BOM + b"\n" + b"rc_input_map=pan\n", [0], id="bom-alone"),
    pytest.param(b"rc_input_map=pan ; remark\n", [0], id="inline-comment"),
    pytest.param(b"rc_input_map=pan\t;remark\n", [0], id="inline-comment-tab"),
    pytest.param(b"rc_input_map=;pan\n", [], id="semicolon-in-value"),
    pytest.param(b"rc_input_map= ;pan\n", [], id="only-a-comment"),
    pytest.param(b"rc_input_map=pan # remark\n", [], id="no-hash-inline"),
    pytest.param(b"# remark\nrc_input_map=pan\n;remark\n", [0], id="comments-around"),
    pytest.param(b"rc_input_map=pan\n tilt\n", [1], id="continued"),
    pytest.param(b"rc_input_map=pan\n\ttilt,pan\n  ev,pan\n", [5, 0], id="continued-twice"),
    pytest.param(b"rc_input_map=pan\n\n# remark\n tilt\n", [1], id="continued-later"),
    pytest.param(b"rc_input_map=pan\n  rc_input_map=tilt\n", [], id="continued-by-a-key"),
    pytest.param(b"rc_input_map=pan\nosd_enabled=1\n tilt\n", [0], id="other-key-continued"),
    pytest.param(b"rc_input_map=pan\n ;tilt\n #tilt\n", [0], id="indented-comments"),
    pytest.param(b"rc_input_map=pan\n   \n\t\n", [0], id="indented-nothing"),
    pytest.param(b"rc_input_map=pan\n[a]\n tilt\n", [0], id="continued-after-section"),
    pytest.param(b"[a]\nx=1\n[]\nrc_input_map=pan\n", [0], id="nameless-section"),
    pytest.param(b"[a\nrc_input_map=pan\n", [0], id="section-without-end"),
    pytest.param(b"nonsense\n=\n=1\n:\nrc_input_map=pan\n", [0], id="nonsense-lines"),
    pytest.param(b"rc_input_map=pan\0,tilt\nrc_input_mapx=1\n", [0], id="nul-in-line"),
    pytest.param(b"\0rc_input_map=tilt\nrc_input_map=pan\n", [0], id="nul-first"),
    pytest.param(f"rc_input_map={LONG}pan\n".encode(), [17] * 7 + [NONE, 0], id="longest-line"),
    pytest.param(f"rc_input_map={LONG}menu\n".encode(), [17] * 7 + [NONE], id="too-long-line"),
    pytest.param(b"#" + b"x" * 1000 + b"\nrc_input_map=pan\n", [0], id="after-a-long-line"),
    pytest.param(f"rc_input_map={LONG}pan,{'x' * 1000}\nosd_enabled=1\n".encode(),
                 [17] * 7 + [NONE, 0], id="much-too-long-line"),
])
def test_line(start, region, conf, assigned):
    assert channel_map(start, region, conf) == codes(*assigned)


@pytest.mark.parametrize("conf, osd, camera", [
    pytest.param("osd_enabled=1\nosd_enabled=0", 0, 0, id="last-counts"),
    pytest.param("osd_enabled=1\n 0", 0, 0, id="continued"),
    pytest.param("OSD_ENABLED=1\nOsd_enabled=1", 0, 0, id="capitals"),
    pytest.param("osd_enable=1\nosd_enabled2=1\nosd enabled=1", 0, 0, id="unknown-keys"),
    pytest.param("unknown=1\nosd_enabled=1", 1, 0, id="after-unknown-key"),
    pytest.param("\n\ufeffosd_enabled=1", 0, 0, id="bom-in-second-line"),
    pytest.param("osd_enabled=1\n[net]\ninternal_camera_enabled=1", 1, 0, id="section"),
    pytest.param("[net]\nosd_enabled=1\n[]\ninternal_camera_enabled=1", 0, 1, id="sections"),
    pytest.param("[ ]\nosd_enabled=1", 0, 0, id="blank-section"),
    pytest.param("osd_enabled\n=1\ninternal_camera_enabled=1", 0, 1, id="broken-line"),
])
def test_lines(start, region, conf, osd, camera):
    start(conf)
    assert region.u8(region.OSD_ENABLED) == osd
    assert region.u8(region.INTERNAL_CAMERA_ENABLED) == camera


# --- Files that nobody should have written -------------------------------------------------------


def hostile_files():
    for seed in range(4):
        yield f"random-{seed}", random.Random(seed).randbytes(100_000)
    alphabet = b"=:;#[]\n\n\n \t\r\0" + b"rc_input_map=pan,osd_enabled=1"
    for seed in range(4):
        yield f"syntax-{seed}", bytes(random.Random(seed).choices(alphabet, k=100_000))
    yield "one-line", b"x" * 1_000_000
    yield "one-value", b"rc_input_map=" + b"pan," * 250_000
    yield "nothing-but-nul", bytes(100_000)
    yield "brackets", b"[" * 100_000
    yield "no-keys", b"=\n" * 50_000
    yield "many-keys", b"osd_enabled=1\nrc_input_map=pan\n" * 5_000
    yield "continuations", b"rc_input_map=pan\n" + b" tilt\n" * 10_000
    values = {"format": b"%n%s%1000000d", "long": b"x" * 180, "huge": b"-" + b"9" * 150,
              "quotes": b'"' * 180, "not-utf-8": b"\xff" * 180, "empty": b""}
    for name, value in values.items():
        yield name, b"".join(key.encode() + b"=" + value + b"\n" for key in KEYS)


@pytest.mark.parametrize("conf", [pytest.param(conf, id=name) for name, conf in hostile_files()])
def test_hostile_file(start, access_point, join, conf):
    """Whatever the file holds, the service starts and serves its viewers."""
    service = start(conf)
    assert LOADED in service.err.text()
    viewer = join(service)
    access_point.answer(0)
    assert viewer.message(11).payload == b"\x0b\x00\x03\x07\x02\x00\x00"


def test_folder_instead_of_a_file(start, region, tmp_path):
    (tmp_path / "tervado.conf").mkdir()
    service = start(conf=None)
    assert service.running()
    assert region.u8(region.OSD_ENABLED) == 0


# Also for root, a file without permissions cannot be read then.
WITHOUT_PRIVILEGE = ["setpriv", "--bounding-set", "-dac_override,-dac_read_search"]


@pytest.mark.parametrize("prepare, wrapper", [
    pytest.param(lambda file: file.chmod(0o000), WITHOUT_PRIVILEGE, id="unreadable"),
    pytest.param(lambda file: file.unlink(), [], id="missing"),
    pytest.param(lambda file: (file.unlink(), file.symlink_to(file)), [], id="endless-link"),
    pytest.param(lambda file: file.rename(file.with_suffix(".CONF")), [], id="misspelt"),
])
def test_file_that_cannot_be_opened(launch, region, tmp_path, prepare, wrapper):
    """The service starts all the same, and knows that there was no file."""
    region.create(BEFORE * region.SIZE)
    file = tmp_path / "tervado.conf"
    file.write_text("osd_enabled=1\nrc_input_map=pan\n")
    prepare(file)
    console = tmp_path / "console"
    with console.open("wb") as output:
        launch(conf=None, wrapper=wrapper, stderr=output)
    assert console.read_text().startswith(NOT_LOADED)
    assert region.u8(region.OSD_ENABLED) == 0
    assert region.bytes(*region.RC_CHANNEL_MAP) == BEFORE * CHANNELS


def test_link_to_the_file(start, region, tmp_path):
    """An installation may link the file to where it is written."""
    target = tmp_path / "elsewhere"
    target.write_text("osd_enabled=1\n")
    (tmp_path / "tervado.conf").symlink_to(target)
    service = start(conf=None)
    assert LOADED in service.err.text()
    assert region.u8(region.OSD_ENABLED) == 1


def test_file_is_not_changed(start, tmp_path):
    conf = b"osd_enabled=1\r\nrc_input_map=pan\r\n"
    start(conf)
    assert (tmp_path / "tervado.conf").read_bytes() == conf
    assert sorted(entry.name for entry in tmp_path.iterdir()) == ["tervado.conf"]


def test_file_is_read_from_the_working_directory(launch, region, tmp_path):
    """Not from where the program stands, nor from the boot partition."""
    elsewhere = tmp_path / "elsewhere"
    elsewhere.mkdir()
    (tmp_path / "tervado.conf").write_text("osd_enabled=1\n")
    launch("internal_camera_enabled=1\n", folder=elsewhere)
    assert region.u8(region.OSD_ENABLED) == 0
    assert region.u8(region.INTERNAL_CAMERA_ENABLED) == 1


def test_file_is_read_once(start, region, passes, tmp_path):
    """A change while the service runs is for the next start."""
    first = start("osd_enabled=0")
    (tmp_path / "tervado.conf").write_text("osd_enabled=1\nrc_input_map=pan\n")
    passes(2)
    assert region.u8(region.OSD_ENABLED) == 0
    assert region.bytes(*region.RC_CHANNEL_MAP) == bytes(CHANNELS)
    first.kill()
    start(conf=None)
    assert region.u8(region.OSD_ENABLED) == 1
    assert region.bytes(*region.RC_CHANNEL_MAP) == codes(0)
