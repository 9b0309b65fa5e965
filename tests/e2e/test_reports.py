"""What each of the camera's reports leaves in the display region and sends to the viewers."""

import dataclasses
import math
import random
import struct
import time

import pytest

from harness.duml import crc16, crc8, frame_of
from harness.messages import assert_messages, low16, status, triple
from harness.region import FIELDS, NOW, TEXTS, VOLATILE, differences, place, stored
from harness.reports import (
    FLAGS_30, FLAG_17, GIMBAL, HISTOGRAM, LENS, RECORDING, REPORTS, SETTINGS, STATUS, TAIL,
    TRACKING, Report)
from harness.timing import limit, now_ms, wait_until

pytest_plugins = ["harness.reporting"]

INFINITY = math.inf
NAN = math.nan
FLOAT_MAX = 3.4028234663852886e38
I32_MAX = 2**31 - 1
I32_MIN = -2**31


def widened(value):
    """The double that a float becomes."""
    return struct.unpack("<f", struct.pack("<f", value))[0]


# --- The yardstick -------------------------------------------------------------------------------


def test_checksums_of_a_published_frame():
    """The tests' own checksums are right."""
    frame = bytes.fromhex("55 0E 04 66 02 01 19 28 40 02 01 01 12 33")
    assert crc8(frame[:3]) == frame[3]
    assert crc16(frame[:-2]) == int.from_bytes(frame[-2:], "little")
    assert frame_of(frame[11:-2], 0x02, 0x01, 0x02, 0x01, 0x2819, 0x40) == frame


# --- Every kind in full --------------------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Row:
    """A report, the fields that it fills and the messages that it becomes, in hexadecimal."""

    frame: bytes
    stores: dict
    messages: tuple = ()


# Every byte that is not named in a report is this, so that none is zero by chance.
FILLER = b"\xd3" * 100


def gimbal_row(length):
    return Row(
        GIMBAL.with_length(length).frame(FILLER, a1=-1795, a2=12, a3=900, flag=0),
        {"gimbal_angle_1": 90, "gimbal_angle_2": -179, "gimbal_angle_3": 1, "byte_628": 1},
        ("00 28 23 14 BA 64 00", "0A 5A 00 4D FF 01 00", "08 00 00 00 00 00 00"))


def recording_row(length):
    return Row(
        RECORDING.with_length(length).frame(FILLER, state=0x21, reset=1),
        {"recording_state": 0x21, "recording_reset": 1,
         "timer_state": 0, "timer_start_ms": 0, "timer_elapsed_ms": 0},
        ("13 21 00 01 00 00 00",))


ROWS = {
    "flag 17": Row(FLAG_17.frame(FILLER, flags=0x02), {"byte_631": 1}),
    "flags 30": Row(FLAGS_30.frame(FILLER, busy=0, state=0x7B), {"byte_629": 1, "byte_630": 0x7B}),
    "tracking": Row(
        TRACKING.frame(FILLER, on_1=1, on_2=1, x=0.5, y=0.25, width=0.125, height=1.0),
        {"tracking_on": 1, "tracking_ms": NOW, "tracking_x": 0.5, "tracking_y": 0.25,
         "tracking_width": 0.125, "tracking_height": 1.0},
        ("15 01 FF 7F FF 3F FF 1F FF FF",)),
    "gimbal 53": gimbal_row(53),
    "gimbal 57": gimbal_row(57),
    "recording 53": recording_row(53),
    "recording 57": recording_row(57),
    "lens": Row(
        LENS.frame(FILLER, state=0x85, base=200, value=250, zoom=1.25, focus_1=0.5, focus_2=-0.25,
                   flag=1, byte_42=0xE7),
        {"lens_known": 1, "lens_bit_0": 1, "lens_bit_2": 1, "focus_mode": 1, "zoom_ratio": 125,
         "zoom": 1.25, "focus_1": 0.5, "focus_2": -0.25, "lens_flag": 1},
        ("10 01 00 00 00 00 00", "14 01 00 7D 00 7D 00", "0D 88 13 3C F6 E7 00")),
    "status": Row(
        STATUS.frame(FILLER, byte_11=0x11, byte_13=0x13, mode=1, word_20=0x23222120,
                     word_24=0xA7A6A5A4, word_28=0x2B2A2928, word_40=0x4140, byte_42=0x42,
                     byte_44=0x44),
        {"byte_792": 0x11, "byte_793": 0x42, "byte_794": 0x13, "camera_mode": 1,
         "camera_mode_text": "video", "word_796": 0x23222120, "word_800": 0xA7A6A5A4,
         "word_804": 0x2B2A2928, "word_808": 0x4140},
        ("07 01 11 20 21 22 23 A4 A5 A6 A7 28 29 2A 2B 40 41 00 00 00 00 42 13 44",)),
    "settings": Row(
        SETTINGS.frame(FILLER, word_13=0xCFCECD, iso=3, ev=8, byte_21=0x21, photo_format=2,
                       resolution=22, frame_rate=7, exposure_mode=4, white_balance=6,
                       temperature=56, colour=52, byte_43=0x43, aperture=280,
                       shutter=bytes([125, 0x80, 5]), word_54=0x5554, byte_67=0x67),
        {"exposure_mode": 4, "exposure_mode_text": "M",
         "resolution": 22, "resolution_text": "4K", "resolution_width": 4096,
         "resolution_height": 2160, "frame_rate_code": 7, "frame_rate": 120,
         "white_balance": 6, "white_balance_text": "custom", "temperature": 5600,
         "aperture": 280 * 0.01, "word_728": 0x5554, "iso": 100, "iso_code": 3,
         "word_736": 0x00CFCECD, "shutter": 0x0005807D, "shutter_text": "1/125.5 ",
         "ev_code": 8, "ev": -2.7, "colour": 52, "colour_text": "d-clike",
         "byte_789": 0x67, "byte_790": 0x21, "byte_791": 0x43,
         "photo_format": 2, "photo_format_text": "JPG+RAW"},
        ("02 04 21 00 34 E5 06 16 07 38 54 55 CD CE CF 67 03 18 01 00 43 7D 80 05 02"
         " 00 00 00 00 00 00",)),
}


@pytest.mark.parametrize("name", ROWS)
def test_row(desk, name):
    """A report fills its fields and no others, and becomes its messages, byte for byte, in
    order."""
    row = ROWS[name]
    desk.scribble()
    desk.check(row.frame, messages=list(map(bytes.fromhex, row.messages)), **row.stores)


def test_histogram(desk):
    """A histogram is stored and passed on as it is."""
    bins = bytes(range(192, 256))
    desk.scribble()
    before, start = desk.memory(), now_ms()
    desk.send(HISTOGRAM.frame(bins=bins))
    message = b"\x0e" + bins
    desk.viewer.wait(lambda frame: frame.payload == message)
    after, end = desk.memory(), now_ms()
    stamp = desk.value("histogram_ms")
    assert (stamp - start) % 2**32 <= (end - start) % 2**32
    expected, _ = stored(before, {"histogram": bins, "histogram_ms": stamp})
    assert differences(expected, after, VOLATILE) == []
    assert_messages(desk.settle(), [message])


def test_reports_of_one_datagram(desk):
    """The reports of one datagram are decoded in their order, one wholly before the next."""
    names = random.Random(4).choices(sorted(ROWS), k=60)
    messages = [message for name in names for message in ROWS[name].messages]
    stores = {}
    for name in names:
        stores.update(ROWS[name].stores)
    desk.check(*(ROWS[name].frame for name in names), messages=list(map(bytes.fromhex, messages)),
               **stores)


def test_reports_reach_every_viewer(desk, viewers):
    """Ten viewers are sent the same messages in the same order."""
    others = [viewers(f"127.0.0.{n}") for n in range(11, 20)]
    for viewer in others:
        viewer.register()
        desk.service.err.wait("New client connected from {}:{} ".format(*viewer.address))
    messages = desk.exchange(*(row.frame for row in ROWS.values()))
    assert_messages(messages, [bytes.fromhex(message) for row in ROWS.values()
                               for message in row.messages])
    for viewer in others:
        wait_until(lambda: len(desk.messages(viewer.frames)) >= len(messages), 5, "the messages")
        assert_messages(desk.messages(viewer.frames), messages)


def test_reports_without_viewers(service, data, region):
    """The display is kept current also when nobody watches."""
    data.send(b"".join(row.frame for row in ROWS.values()) + TAIL)
    stores = {}
    for row in ROWS.values():
        stores.update(row.stores)
    del stores["tracking_ms"]

    def is_stored():
        memory = bytes(region.bytes())
        expected, left_out = stored(memory, stores)
        return not differences(expected, memory, left_out)

    wait_until(is_stored, 5, "what the reports say, and nothing else,")


# --- Which frames are reports --------------------------------------------------------------------


def test_unknown_lengths(desk):
    """Frames of other lengths than the reports' are skipped, whatever their command set."""
    known = {report.length for report in REPORTS.values()}
    desk.scribble()
    for command_set in (0, 2, 4, 5, 255):
        desk.check(*(frame_of(bytes(length - 13), command_set) for length in range(13, 256)
                     if length not in known))


@pytest.mark.parametrize("length, sets", [(17, [4]), (53, [4, 5]), (57, [4, 5])])
def test_command_sets(desk, length, sets):
    """A 17-byte frame is the gimbal's or nothing; 53 and 57 bytes are the gimbal's angles or the
    recording timer's or nothing."""
    desk.scribble()
    frames = [frame_of(bytes(length - 13), command_set, command_id)
              for command_set in range(256) if command_set not in sets
              for command_id in (0, 4, 5)]
    desk.check(*frames)


@pytest.mark.parametrize("name", [name for name, report in REPORTS.items()
                                  if report.command_set == 0])
def test_any_command_set(desk, name):
    """The other lengths are their reports in every command set."""
    messages = {tuple(desk.exchange(REPORTS[name].frame(command_set=command_set)))
                for command_set in range(256)}
    assert len(messages) == 1
    assert (messages == {()}) == (name == "flags 30")


@pytest.mark.parametrize("name", REPORTS)
def test_the_rest_of_the_header_is_not_looked_at(desk, name):
    """Version, header check, sender, receiver, number, type and command id may be anything."""
    report = REPORTS[name]
    plain = report.frame()
    expected = desk.exchange(plain)
    rng = random.Random(name)
    for _ in range(20):
        frame = bytearray(plain)
        frame[2:9], frame[10] = rng.randbytes(7), rng.randrange(256)
        frame[-2:] = struct.pack("<H", crc16(frame[:-2]))
        assert desk.exchange(bytes(frame)) == expected


# --- Flags ---------------------------------------------------------------------------------------


def test_flag_631(desk):
    """The second bit of the byte, alone."""
    for flags in range(256):
        desk.check(FLAG_17.frame(flags=flags), byte_631=flags // 2 % 2)


def test_flag_629_and_byte_630(desk):
    """The one byte counts as zero or not, the other is kept as it is."""
    for value in range(256):
        desk.check(FLAGS_30.frame(busy=value, state=255 - value),
                   byte_629=1 if value == 0 else 0, byte_630=255 - value)


# --- Gimbal angles -------------------------------------------------------------------------------

# Tenths of a degree, and whole degrees: cut toward zero.
ANGLES = [(0, 0), (9, 0), (10, 1), (12, 1), (19, 1), (900, 90), (1800, 180), (-9, 0), (-10, -1),
          (-19, -1), (-1795, -179), (-1800, -180), (3276, 327), (3277, 327), (3280, 328),
          (32767, 3276), (-32768, -3276)]


@pytest.mark.parametrize("length", (53, 57))
def test_gimbal_angles(desk, length):
    """Each angle goes to its own field and places. The attitude is in hundredths, of which the
    messages keep 16 bits."""
    report = GIMBAL.with_length(length)
    for index, (tenths, degrees) in enumerate(ANGLES):
        for turn in range(3):
            wire, whole = [70, 80, 90], [7, 8, 9]
            wire[turn], whole[turn] = tenths, degrees
            a1, a2, a3 = whole
            flag = (0, 1, 0x80, 0xFF)[index % 4]
            desk.check(
                report.frame(a1=wire[0], a2=wire[1], a3=wire[2], flag=flag),
                messages=[triple(0, a3 * 100, a1 * 100, a2 * 100), triple(10, a3, a1, a2),
                          triple(8, 0, 0, 0)],
                gimbal_angle_1=a3, gimbal_angle_2=a1, gimbal_angle_3=a2,
                byte_628=1 if flag == 0 else 0)


def test_gimbal_angle_overflow(desk):
    """-3276 degrees in hundredths are 80 in 16 bits, 3276 degrees are -80."""
    messages = desk.exchange(GIMBAL.frame(a1=-32768, a2=32767, a3=3277))
    assert messages[0] == triple(0, 32700, 80, -80)


@pytest.mark.parametrize("lock", (0, 1, 200))
def test_orientation_lock(desk, lock):
    """A gimbal report tells the viewers the orientation lock as it stands in the region."""
    desk.preset(orientation_lock=lock)
    assert desk.exchange(GIMBAL.frame())[2] == struct.pack("<B3H", 8, lock, 0, 0)


# --- Codes and their names -----------------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Codes:
    """A code in a report and what it fills: where the code itself goes, and by code what goes into
    other fields. Codes without an entry fill them with `other`."""

    report: Report
    code: str
    stored: str
    message: int  # the code's place in the report's message
    fields: tuple
    entries: dict
    other: tuple


CODES = {
    "camera mode": Codes(STATUS, "mode", "camera_mode", 1, ("camera_mode_text",),
                         {0: ("photo",), 1: ("video",), 7: ("play",)}, ("",)),
    "resolution": Codes(
        SETTINGS, "resolution", "resolution", 7,
        ("resolution_text", "resolution_width", "resolution_height"),
        {4: ("720p", 1280, 720), 10: ("1080p", 1920, 1080), 16: ("3.8K", 3840, 2160),
         22: ("4K", 4096, 2160), 24: ("2.7K", 2704, 1520)}, ("", 0, 0)),
    "frame rate": Codes(
        SETTINGS, "frame_rate", "frame_rate_code", 8, ("frame_rate",),
        {1: (24,), 2: (25,), 3: (30,), 4: (48,), 5: (50,), 6: (60,), 7: (120,)}, (0,)),
    "white balance": Codes(
        SETTINGS, "white_balance", "white_balance", 6, ("white_balance_text",),
        {0: ("auto",), 1: ("sunny",), 2: ("cloudy",), 3: ("unknown",), 4: ("incandescent",),
         5: ("neon",), 6: ("custom",)}, ("",)),
    "photo format": Codes(
        SETTINGS, "photo_format", "photo_format", 24, ("photo_format_text",),
        {0: ("RAW",), 1: ("JPG",), 2: ("JPG+RAW",)}, ("",)),
    "ISO": Codes(
        SETTINGS, "iso", "iso_code", 16, ("iso",),
        {1: (25,), 2: (50,), 3: (100,), 4: (200,), 5: (400,), 6: (800,), 7: (1600,), 8: (3200,),
         9: (6400,)}, (0,)),
    "colour": Codes(
        SETTINGS, "colour", "colour", 4, ("colour_text",),
        {0: ("none",), 1: ("art",), 4: ("black white",), 5: ("vivid",), 6: ("d-cinelike",),
         7: ("portrait",), 14: ("beach",), 16: ("dream",), 18: ("classic",), 19: ("nostalgia",),
         23: ("d-log",), 52: ("d-clike",)}, ("",)),
    "exposure mode": Codes(
        SETTINGS, "exposure_mode", "exposure_mode", 1, ("exposure_mode_text",),
        {1: ("auto",), 2: ("S",), 3: ("A",), 4: ("M",)}, ("",)),
}


@pytest.mark.parametrize("name", CODES)
def test_codes(desk, name):
    """Every code fills its fields with what it stands for, and with nothing where it stands for
    nothing. The viewers are sent the code."""
    codes = CODES[name]
    desk.exchange(codes.report.frame())
    for code in range(256):
        # What the last code left must go.
        desk.preset(**{field: "rubbish" if field in TEXTS else 0xABCD for field in codes.fields})
        frame = codes.report.frame(**{codes.code: code})
        [message] = desk.exchange(frame)
        entry = codes.entries.get(code, codes.other)
        actual = tuple(desk.text(field) if field in TEXTS else desk.value(field)
                       for field in codes.fields)
        assert (code, *actual) == (code, *entry)
        assert desk.value(codes.stored) == code
        assert message[codes.message] == code


# By code, from 7 on.
EVS = [-3.0, -2.7, -2.3, -2.0, -1.7, -1.3, -1.0, -0.7, -0.3, 0.0,
       0.3, 0.7, 1.0, 1.3, 1.7, 2.0, 2.3, 2.7, 3.0]


def test_ev_codes(desk):
    """Every EV code becomes the number, and ten times the number as a signed byte."""
    desk.exchange(SETTINGS.frame())
    for code in range(256):
        desk.preset(ev=99.0)
        ev = EVS[code - 7] if 7 <= code < 7 + len(EVS) else 0.0
        [message] = desk.exchange(SETTINGS.frame(ev=code))
        assert (code, desk.value("ev"), desk.value("ev_code")) == (code, ev, code)
        assert struct.unpack_from("b", message, 5) == (round(ev * 10),)


# --- Numbers of the settings ---------------------------------------------------------------------


@pytest.mark.parametrize("hundredths", (0, 1, 170, 280, 560, 1100, 2200, 32768, 65535))
def test_aperture(desk, hundredths):
    [message] = desk.exchange(SETTINGS.frame(aperture=hundredths))
    assert desk.value("aperture") == hundredths * 0.01
    assert message[17:19] == struct.pack("<H", hundredths)


def test_colour_temperature(desk):
    for hundreds in range(256):
        [message] = desk.exchange(SETTINGS.frame(temperature=hundreds))
        assert desk.value("temperature") == hundreds * 100
        assert message[9] == hundreds


# --- The shutter ---------------------------------------------------------------------------------


# Its three bytes: low, mid, high.
SHUTTER_TEXTS = [
    ((0, 0, 0), '0"'), ((8, 0, 0), '8"'), ((30, 0, 0), '30"'), ((255, 0, 0), '255"'),
    ((1, 0, 6), '1.6"'), ((3, 0, 2), '3.2"'), ((255, 0, 255), '255.255"'),
    ((0, 128, 0), "1/0 "), ((1, 128, 25), "1/1.25 "), ((6, 128, 25), "1/6.25 "),
    ((50, 128, 0), "1/50 "), ((244, 129, 0), "1/500 "), ((244, 129, 5), "1/500.5 "),
    ((0x40, 0x9F, 0), "1/8000 "),
    # One too many for the field, and two.
    ((0x40, 0x9F, 2), "1/8000.2 "), ((0x40, 0x9F, 25), "1/8000.25"),
    ((0xFF, 0xFF, 0), "1/32767 "), ((0xFF, 0xFF, 255), "1/32767.2"),
]


@pytest.mark.parametrize("code, text", SHUTTER_TEXTS)
def test_shutter_text(desk, code, text):
    """Seconds end in a quote, fractions in a blank. A text that is too long is cut and ends in its
    NUL, and the field behind it is whole."""
    desk.scribble()
    [message] = desk.exchange(SETTINGS.frame(FILLER, shutter=bytes(code), ev=25))
    assert desk.text("shutter_text") == text
    assert desk.value("shutter_text")[len(text)] == 0
    assert desk.value("ev_code") == 25
    assert desk.value("shutter") == int.from_bytes(bytes(code), "little")
    assert message[21:24] == bytes(code)


def shutter_text(low, mid, high, last):
    """What stands in the field after that code, and after the text `last`."""
    if 0 < mid < 128:
        return last
    number = f"{low + (mid - 128) * 256}" if mid else f"{low}"
    if high:
        number += f".{high}"
    return (f"1/{number} " if mid else f'{number}"')[:9]


def test_every_shutter_byte(desk):
    """Every value of each byte, among others that vary."""
    rng = random.Random(744)
    last = "last"
    desk.preset(shutter_text=last)
    for place_of_value in range(3):
        for value in range(256):
            code = [rng.randrange(256), rng.choice((0, 0x80, 0x9F, 0xFF)), rng.choice((0, 5, 255))]
            code[place_of_value] = value
            desk.exchange(SETTINGS.frame(shutter=bytes(code)))
            last = shutter_text(*code, last)
            assert (code, desk.text("shutter_text")) == (code, last)
            assert desk.value("shutter") == int.from_bytes(bytes(code), "little")


def test_shutter_code_that_is_neither(desk):
    """A mid byte from 1 to 127 is neither seconds nor a fraction: the text stays, the code is
    stored."""
    desk.exchange(SETTINGS.frame(shutter=bytes([244, 129, 0])))
    for mid in (1, 2, 64, 127):
        [message] = desk.exchange(SETTINGS.frame(shutter=bytes([9, mid, 3]), ev=16))
        assert desk.text("shutter_text") == "1/500 "
        assert desk.value("shutter") == 9 | mid << 8 | 3 << 16
        assert message[21:24] == bytes([9, mid, 3])


# --- The lens ------------------------------------------------------------------------------------


def test_lens_states(desk):
    """0x85 and 0x86 have a mode of their own; two of the bits are kept apart."""
    for state in range(256):
        messages = desk.exchange(LENS.frame(state=state))
        mode = {0x85: 1, 0x86: 2}.get(state, 0)
        assert desk.value("focus_mode") == mode
        assert desk.value("lens_bit_0") == state & 1
        assert desk.value("lens_bit_2") == state >> 2 & 1
        assert messages[1] == triple(20, mode, 0, 0)


def test_lens_flag(desk):
    """The first bit of the byte, alone, in the region and in a status message."""
    for flag in range(256):
        messages = desk.exchange(LENS.frame(flag=flag, byte_42=255 - flag))
        assert desk.value("lens_flag") == flag & 1
        assert_messages(messages, [status(16, flag & 1), triple(20, 0, 0, 0),
                                   triple(13, 0, 0, 255 - flag)])


# Value, what it is compared with, percent. 29/100 in double precision is a little too small.
RATIOS = [(0, 1, 0), (1, 1, 100), (1, 2, 50), (1, 3, 33), (2, 3, 66), (29, 100, 28), (57, 100, 56),
          (255, 100, 254), (51, 20, 254), (256, 100, 256), (3, 1, 300), (1, 65535, 0),
          (65535, 65535, 100), (65534, 65535, 99), (1000, 3, 33333), (65535, 2, 3276750),
          (65535, 1, 6553500), (32768, 1, 3276800)]


@pytest.mark.parametrize("value, base, percent", RATIOS)
def test_zoom_ratio(desk, value, base, percent):
    """The ratio in percent, cut toward zero; its low byte is stored, its low word sent."""
    assert int(value / base * 100.0) == percent
    messages = desk.exchange(LENS.frame(base=base, value=value))
    assert desk.value("zoom_ratio") == percent % 256
    assert messages[1] == triple(20, 0, percent, 0)


@pytest.mark.parametrize("value", (0, 1, 100, 65535))
def test_zoom_ratio_to_nothing(desk, value):
    """Nothing to compare with is a ratio of 0."""
    messages = desk.exchange(LENS.frame(base=0, value=value))
    assert desk.value("zoom_ratio") == 0
    assert messages[1] == triple(20, 0, 0, 0)


# The number in the report, and in hundredths: rounded in double precision, halves away from zero.
# The float nearest to 0.005 is a little too small, and multiplied as a float it would be a half.
ZOOMS = [(0.0, 0), (1.0, 100), (3.5, 350), (1.25, 125), (0.125, 13), (0.375, 38), (0.625, 63),
         (-0.125, -13), (-0.375, -38), (-1.25, -125), (0.004, 0), (0.005, 0), (0.006, 1),
         (-0.004, 0), (327.67, 32767), (327.68, 32768), (655.36, 65536), (1e6, 100_000_000),
         (1e9, I32_MAX), (-1e9, I32_MIN), (FLOAT_MAX, I32_MAX), (-FLOAT_MAX, I32_MIN),
         (INFINITY, I32_MAX), (-INFINITY, I32_MIN), (NAN, 0)]


@pytest.mark.parametrize("zoom, hundredths", ZOOMS)
def test_zoom(desk, zoom, hundredths):
    """The zoom is rounded to hundredths and saturates at 32 bits, of which a message keeps 16."""
    messages = desk.exchange(LENS.frame(zoom=zoom))
    assert desk.value("zoom") == hundredths * 0.01
    assert messages[1] == triple(20, 0, 0, hundredths)


# The number in the report, and in ten-thousandths: cut toward zero, in double precision. The float
# nearest to 0.29 is a little too small, and multiplied as a float it would give 2900.
FOCUSES = [(0.0, 0), (1.0, 10000), (0.5, 5000), (-0.5, -5000), (0.25, 2500), (0.29, 2899),
           (0.005, 49), (-0.005, -49), (3.2768, 32767), (-3.2769, -32769), (6.55375, 65537),
           (0.00009, 0), (-0.00009, 0), (214748.0, 2147480000), (214749.0, I32_MAX),
           (-214749.0, I32_MIN), (FLOAT_MAX, I32_MAX), (-FLOAT_MAX, I32_MIN),
           (INFINITY, I32_MAX), (-INFINITY, I32_MIN), (NAN, 0)]


@pytest.mark.parametrize("focus, wire", FOCUSES)
@pytest.mark.parametrize("turn", (0, 1))
def test_focus_values(desk, focus, wire, turn):
    """The numbers are stored as they are; in the message they saturate at 32 bits and are cut to
    16."""
    values, wires = [0.5, 0.5], [5000, 5000]
    values[turn], wires[turn] = focus, wire
    messages = desk.exchange(LENS.frame(focus_1=values[0], focus_2=values[1]))
    for field, value in zip(("focus_1", "focus_2"), values, strict=True):
        actual = desk.value(field)
        assert actual == widened(value) or math.isnan(actual) and math.isnan(value)
    assert messages[2] == triple(13, *wires, 0)


# --- Tracking ------------------------------------------------------------------------------------


@pytest.mark.parametrize("on_1, on_2, on", [(0, 0, 0), (0, 1, 0), (1, 0, 0), (1, 1, 1),
                                            (255, 128, 1), (0, 255, 0), (255, 0, 0), (2, 4, 1)])
def test_tracking_is_on_with_both_bytes(desk, on_1, on_2, on):
    [message] = desk.exchange(TRACKING.frame(on_1=on_1, on_2=on_2))
    assert desk.value("tracking_on") == on
    assert message == bytes([21, on]) + bytes(8)


# A coordinate, and what the message carries of it.
COORDINATES = [(0.0, 0), (-0.0, 0), (1.0, 65535), (0.5, 32767), (0.1, 6553), (0.68, 44563),
               (0.2757, 18067), (1 / 65535, 0), (2 / 65535, 1), (0.99999, 65534),
               (1.00001, 65535), (2.0, 65535), (-1e-6, 0), (-0.5, 0), (-1.0, 0),
               (FLOAT_MAX, 65535), (-FLOAT_MAX, 0), (INFINITY, 65535), (-INFINITY, 0), (NAN, 0),
               (1e-45, 0)]


@pytest.mark.parametrize("coordinate, wire", COORDINATES)
def test_tracking_rectangle(desk, coordinate, wire):
    """The rectangle is stored as it is, bit by bit; in the message it is cut toward zero and
    saturates."""
    bits = struct.pack("<f", coordinate)
    for turn, name in enumerate(("x", "y", "width", "height")):
        values = [struct.pack("<f", value) for value in (0.125, 0.25, 0.375, 0.75)]
        wires = [8191, 16383, 24575, 49151]
        values[turn], wires[turn] = bits, wire
        frame = TRACKING.frame(**dict(zip(("x", "y", "width", "height"), values, strict=True)))
        [message] = desk.exchange(frame)
        memory = desk.memory()
        assert memory[place("tracking_x").start:place("tracking_height").stop] == b"".join(values), name
        assert message == struct.pack("<BB4H", 21, 0, *wires), name


def test_signalling_nan_is_stored_as_it_is(desk):
    """No bit of a NaN is changed on its way."""
    bits = bytes.fromhex("01 00 A0 FF")
    [message] = desk.exchange(TRACKING.frame(x=bits, y=bits))
    assert desk.memory()[place("tracking_x").start:place("tracking_y").stop] == bits + bits
    assert message == bytes([21, 0]) + bytes(8)


# --- Lost tracking -------------------------------------------------------------------------------

ON = {"on_1": 1, "on_2": 1}


def camera_frame(payload, sequence):
    """A frame of the service to the camera."""
    return frame_of(payload, 0x02, 0xA6, 0x02, 0x01, sequence, 0x40)


def tracking_frames(x, y, sequence):
    """What stops tracking and starts it at that point."""
    rectangle = struct.pack("<4f", x, y, 0.1, 0.2)
    return [camera_frame(bytes(21), sequence),
            camera_frame(bytes.fromhex("01 00 00 0E 00") + rectangle, sequence + 1)]


def waited(text, at_least, at_most):
    """Takes the waiting line off the text; the milliseconds in it must lie between the two."""
    line, _, rest = text.partition("\n")
    prefix = "Waiting restore tracking "
    assert line.startswith(prefix) and line.endswith("..."), text
    milliseconds = line[len(prefix):-3]
    assert milliseconds == str(int(milliseconds))
    assert at_least <= int(milliseconds) <= at_most
    return rest


def test_nothing_to_restore(desk):
    """Without a tracked subject before it, a report of none leads to nothing."""
    desk.exchange(TRACKING.frame(x=0.5, y=0.5))
    desk.exchange(TRACKING.frame(on_1=1, x=0.5, y=0.5))
    assert desk.console() == ""
    assert desk.frames() == []


@pytest.mark.timing
def test_restore(desk):
    """A subject that has been lost for more than two seconds is tracked again where it was seen
    last, in a small rectangle. Until it is found that is said and done at every report; before two
    seconds it is only said."""
    desk.exchange(TRACKING.frame(x=0.9, y=0.9, **ON))
    before = now_ms()
    desk.exchange(TRACKING.frame(x=0.68, y=0.4583, width=0.3, height=0.4, **ON))
    after = now_ms()
    assert desk.console() == ""
    sequence = 0

    def lose():
        """Reports the subject lost; returns the console with its waiting line taken off."""
        at_least = now_ms() - after
        messages = desk.exchange(TRACKING.frame(x=0.2, y=0.3, width=0.1, height=0.1))
        at_most = now_ms() - before
        assert_messages(messages, [struct.pack("<BB4H", 21, 0, 13107, 19660, 6553, 6553)])
        return waited(desk.console(), at_least, at_most)

    for _ in range(3):
        assert lose() == ""
    assert now_ms() - before < 2000, "the machine is too slow for this test"
    assert desk.frames() == []

    while now_ms() - after <= 2000:
        time.sleep(0.01)
    for _ in range(3):
        assert lose() == ("Restore tracking...\nStop tracking\n"
                          "Start tracking 0.7 0.5 0.1 0.2\n")
        assert desk.frames() == tracking_frames(0.68, 0.4583, sequence)
        sequence += 2


@pytest.mark.timing
def test_restore_begins_anew_with_every_sight(desk):
    """Every report of a tracked subject begins the two seconds again, and moves the point; also
    after a restore."""
    for point, sequence in ((0.25, 0), (0.75, 2)):
        desk.exchange(TRACKING.frame(x=point, y=0.5, **ON))
        desk.exchange(TRACKING.frame())
        assert waited(desk.console(), 0, 2000) == ""
        time.sleep(1.05)
        desk.exchange(TRACKING.frame(x=point, y=point, **ON))
        time.sleep(1.05)  # more than two seconds after the first sight
        after = now_ms()
        desk.exchange(TRACKING.frame(on_2=7))
        assert waited(desk.console(), 1050, 2000) == ""
        assert desk.frames() == []
        while now_ms() - after <= 1000:
            time.sleep(0.01)
        desk.exchange(TRACKING.frame(on_1=7))
        rest = waited(desk.console(), 2001, limit(5000))
        assert rest.startswith("Restore tracking...\n")
        assert desk.frames() == tracking_frames(point, point, sequence)


def test_restore_outlasts_lost_reports(desk):
    """Nothing disarms it: not even reports that stop coming."""
    desk.exchange(TRACKING.frame(x=0.25, y=0.75, **ON))
    desk.service.err.wait("Tracking lost\n", 6)
    desk.console()
    desk.exchange(TRACKING.frame())
    said = desk.console().replace("Histogram lost\n", "")
    assert waited(said, 3001, limit(8000)) == ("Restore tracking...\nStop tracking\n"
                                               "Start tracking 0.2 0.8 0.1 0.2\n")
    assert desk.frames() == tracking_frames(0.25, 0.75, 0)


def test_restore_at_no_point(desk):
    """A point of NaNs goes back to the camera as it came."""
    desk.exchange(TRACKING.frame(x=bytes.fromhex("00 00 C0 7F"), y=-INFINITY, **ON))
    time.sleep(2.1)
    desk.exchange(TRACKING.frame())
    assert waited(desk.console(), 2001, limit(5000)) == (
        "Restore tracking...\nStop tracking\nStart tracking nan -inf 0.1 0.2\n")
    assert desk.frames() == tracking_frames(NAN, -INFINITY, 0)


# --- The recording timer -------------------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Step:
    """One report of the recording timer: what the timer remembers before it, what it says, and what
    follows. The start is in milliseconds before now; None is 0, no start."""

    state: int
    start_ago: int | None
    elapsed: int
    reported: int
    new_state: int
    restarted: bool = False  # the start becomes now
    measured: bool = False  # the elapsed time becomes the reported state times the time since start
    relayed: bool = True


STEPS = {
    "nothing to remember": Step(0, None, 0, 0, 0, relayed=False),
    "the first state": Step(0, None, 0, 3, 3, relayed=False),
    "the first state, with times left": Step(0, 5000, 7000, 3, 3, relayed=False),
    "the same state": Step(3, None, 0, 3, 3),
    "the same state, with times": Step(3, 5000, 7654, 3, 3),
    "another state": Step(3, None, 0, 5, 5, restarted=True),
    "another state, elapsed kept": Step(3, None, 7654, 5, 5, restarted=True),
    "a third state": Step(3, 10_000, 7654, 5, 5, restarted=True, measured=True),
    "state 1": Step(2, 12_345, 0, 1, 1, restarted=True, measured=True),
    "the highest state": Step(1, 2000, 0, 255, 255, restarted=True, measured=True),
    "state 0 after another": Step(3, 10_000, 7654, 0, 0, restarted=True, measured=True),
    "state 0 after the first": Step(3, None, 7654, 0, 0, restarted=True),
    "more than 16 bits of seconds": Step(3, None, 70_000_000, 3, 3),
    "more than 15 bits of seconds": Step(3, None, 40_000_999, 3, 3),
    "more than 32 bits of milliseconds": Step(1, 2_000_000_000, 0, 3, 3, restarted=True,
                                              measured=True),
}


@pytest.mark.parametrize("length", (53, 57))
@pytest.mark.parametrize("name", STEPS)
def test_recording_timer(desk, name, length):
    """A remembered state of 0 only takes the new one; any other is relayed with the elapsed seconds
    at every report. A change of state starts the measuring, or ends it and starts it again."""
    step = STEPS[name]
    start = 0 if step.start_ago is None else (now_ms() - step.start_ago) % 2**32
    desk.preset(timer_state=step.state, timer_start_ms=start, timer_elapsed_ms=step.elapsed)
    at_least = now_ms()
    messages = desk.exchange(RECORDING.with_length(length).frame(state=step.reported))
    at_most = now_ms()

    assert desk.value("recording_state") == step.reported
    assert desk.value("recording_reset") == 0
    assert desk.value("timer_state") == step.new_state
    new_start, elapsed = desk.value("timer_start_ms"), desk.value("timer_elapsed_ms")
    if step.restarted:
        assert (new_start - at_least) % 2**32 <= (at_most - at_least) % 2**32
    else:
        assert new_start == start
    if step.measured:
        assert elapsed == step.reported * (new_start - start) % 2**32
    else:
        assert elapsed == step.elapsed
    assert_messages(messages, [triple(19, step.reported, 0, elapsed // 1000)] * step.relayed)


@pytest.mark.parametrize("reset", (1, 2, 0x80, 0xFF))
@pytest.mark.parametrize("state", (0, 1, 7, 255))
def test_recording_timer_reset(desk, reset, state):
    """A reset forgets everything, tells the viewers so every time, and the next report begins
    anew."""
    desk.preset(timer_state=3, timer_start_ms=now_ms() - 5000, timer_elapsed_ms=7000)
    for _ in range(2):
        desk.check(RECORDING.frame(state=state, reset=reset), messages=[triple(19, state, 1, 0)],
                   recording_state=state, recording_reset=1,
                   timer_state=0, timer_start_ms=0, timer_elapsed_ms=0)
    desk.check(RECORDING.frame(state=9), recording_state=9, recording_reset=0, timer_state=9)


def test_recording_timer_as_a_story(desk):
    """A whole recording: it begins, goes on, pauses for a moment, and ends."""
    desk.check(RECORDING.frame(state=1), recording_state=1, recording_reset=0, timer_state=1)
    for _ in range(3):
        desk.check(RECORDING.frame(state=1), messages=[triple(19, 1, 0, 0)])
    desk.check(RECORDING.frame(state=2), messages=[triple(19, 2, 0, 0)], recording_state=2,
               timer_state=2, timer_start_ms=NOW)
    began = desk.value("timer_start_ms")
    time.sleep(1.1)
    messages = desk.exchange(RECORDING.frame(state=1))
    paused, elapsed = desk.value("timer_start_ms"), desk.value("timer_elapsed_ms")
    assert elapsed == paused - began >= 1100
    assert_messages(messages, [triple(19, 1, 0, elapsed // 1000)])
    # The same state: the same time again.
    desk.check(RECORDING.frame(state=1), messages=[triple(19, 1, 0, elapsed // 1000)])
    desk.check(RECORDING.frame(state=1, reset=1), messages=[triple(19, 1, 1, 0)],
               recording_reset=1, timer_state=0, timer_start_ms=0, timer_elapsed_ms=0)


def test_both_lengths_share_one_timer(desk):
    desk.exchange(RECORDING.frame(state=4))
    messages = desk.exchange(REPORTS["recording 57"].frame(state=4))
    assert_messages(messages, [triple(19, 4, 0, 0)])


# --- Time-outs and the bridge --------------------------------------------------------------------


def test_lost_reports(desk):
    """Tracking and histogram reports that stop are said to be lost, once each, three to four
    seconds later; the other reports go on. When they come back their time is kept again."""
    texts = ("Tracking lost\n", "Histogram lost\n")
    for count in (1, 2):
        start = time.monotonic()
        desk.check(TRACKING.frame(), messages=[bytes([21]) + bytes(9)], tracking_on=0,
                   tracking_ms=NOW, tracking_x=0.0, tracking_y=0.0, tracking_width=0.0,
                   tracking_height=0.0)  # a histogram comes behind it
        assert desk.value("histogram_ms") != 0
        for text in texts:
            desk.service.err.wait(text, 6, count)
            assert time.monotonic() - start >= 3
        assert desk.value("tracking_ms") == desk.value("histogram_ms") == 0
    rounds = len(desk.viewer.frames)
    for _ in range(2):
        frame = desk.viewer.message(11, 5, rounds)
        rounds = desk.viewer.frames.index(frame) + 1
    said = desk.service.err.text()
    assert [said.count(text) for text in texts] == [2, 2]


def test_first_report_after_silence(service, viewer, data, region):
    """A source is found before its report is decoded, so the report's own values stay; a source
    that is lost forgets the timer, and nothing else of what the camera said."""
    viewer.keep_alive()
    for state in (3, 4):
        data.send(RECORDING.frame(state=state) + TAIL)
        wait_until(lambda: region.u8(region.TIMER_STATE) == state, 5, "the report")
        assert region.u8(region.DATA_CONNECTED) == 1
        assert region.text(*region.TELEMETRY_STATUS_TEXT) == ""
        wait_until(lambda: region.u8(region.DATA_CONNECTED) == 0, 5, "the loss")
        # The status loop tells the viewers of it once it has wholly dealt with it.
        viewer.wait(lambda frame: frame.payload == status(5, 0, 0), 5, "the message of the loss",
                    len(viewer.frames))
        assert region.text(*region.TELEMETRY_STATUS_TEXT) == "telemetry disconnected"
        assert region.bytes(region.TIMER_STATE, 10) == bytes(10)
        assert region.u8(FIELDS["recording_state"][0]) == state
    said = service.err.wait("Data lost\n", 5, 3)
    links = [line for line in said.splitlines() if line.startswith("Data ")]
    assert links == ["Data lost", *["Data found", "Data lost"] * 2]


def test_rubbish_keeps_the_source_found(desk):
    """Datagrams without a single report keep the source connected and lose no timer."""
    desk.exchange(RECORDING.frame(state=3))
    time.sleep(2.5)  # the desk's bridge sends nothing but zeros
    assert desk.console().replace("Histogram lost\n", "") == ""  # the desk's own mark
    assert desk.value("timer_state") == 3
    assert desk.region.u8(desk.region.DATA_CONNECTED) == 1
    assert desk.region.text(*desk.region.TELEMETRY_STATUS_TEXT) == ""


def test_low16_is_that_of_a_processor():
    """The tests' own cutting is right."""
    for value in (0, 1, -1, 32767, 32768, -32768, -32769, 65535, 65536, I32_MAX, I32_MIN):
        assert struct.pack("<h", low16(value)) == struct.pack("<q", value)[:2]
