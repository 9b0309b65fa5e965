"""Command texts that nobody means well with, and far too many of them."""

import os
import random
import threading
import time

import pytest

from harness.duml import camera, command, gimbal, parse, speed
from harness.growth import resources
from harness.timing import limit

pytest_plugins = ["harness.commanding"]

NOTHING = []
SHOT = ["Camera shot\n", camera(0x01, "01")]
LONGEST = 511

# How long the floods last; the longer, the more they show.
FLOOD_SECONDS = float(os.environ.get("NIMBUS_FLOOD_SECONDS", "2"))
PER_SECOND = 1000


def shutter(text):
    """The effects of a shutter text that the camera does not know."""
    return [f"Camera set shutter {text}\n", camera(0x28, "01 00 00 00")]


# --- Texts with known effects --------------------------------------------------------------------

WHOLE = '{"cmd":"record","param":"start"}'

TEXTS = {
    "no JSON": [(text, NOTHING) for text in (
        "{", "{{", "{}}", "{]", "{,}", "{:}", '{"', '{"cmd', '{"cmd"', '{"cmd":', '{"cmd":}',
        '{"cmd":"shot",}', '{"cmd":"shot" "param":""}', '{"cmd" "shot"}', "{'cmd':'shot'}",
        '{cmd:"shot"}', '{"cmd":shot}', '{"cmd":"shot"]', "{shot}", "{" * LONGEST, '{"' * 255,
        "{\x01\x02\x03}", "{\x7f}")],
    "cut short": [(WHOLE[:length], NOTHING) for length in range(1, len(WHOLE))],
    "nothing that begins like an object": [(text, NOTHING) for text in (
        '[{"cmd":"shot"}]', '"shot"', ' {"cmd":"shot"}', '\ufeff{"cmd":"shot"}', "shot")],
    "something behind the object": [(text, SHOT) for text in (
        '{"cmd":"shot"}{"cmd":"shot"}', '{"cmd":"shot"}}', '{"cmd":"shot"}\n%n%s',
        '{"cmd":"shot"}"', b'{"cmd":"shot"}\0{"cmd":"shot"}', b'{"cmd":"shot"}\xff\xff')],
    "unfinished texts": [(text, NOTHING) for text in (
        '{"cmd":"shot}', r'{"cmd":"shot\"}', r'{"cmd":"shot\\\"}', '{"cmd":"shot', '{"cmd:"shot"}',
        '{"cmd":"' + "x" * (LONGEST - 8), '{"' + "cmd" * 169)],
    "escapes": [
        (r'{"cmd":"\x"}', NOTHING),
        (r'{"cmd":"\u"}', NOTHING),
        (r'{"cmd":"\u12"}', NOTHING),
        (r'{"cmd":"shot","x":"\uD800"}', NOTHING),
        (r'{"cmd":"shot","x":"\uDC00"}', NOTHING),
        (r'{"cmd":"shot","x":"\uD800A"}', NOTHING),
        (r'{"cmd":"shot","x":"\uD83D\uDE00"}', SHOT),
        (r'{"cmd":"shutter","param":"\uD83D\uDE00"}', shutter("\U0001F600")),
        (r'{"cmd":"shutter","param":"\u00e9\u20ac"}', shutter("\u00e9\u20ac")),
        # The character NUL ends a text.
        (r'{"cmd":"shot\u0000s"}', SHOT),
        (r'{"cmd":"\u0000shot"}', NOTHING),
        (r'{"cmd":"shutter","param":"100\u0000"}', ["Camera set shutter 100\n",
                                                    camera(0x28, "01 64 80 00")]),
        (r'{"cmd":"shutter","param":"a\u0000b"}', shutter("a")),
        (r'{"\u0000cmd":"shot"}', NOTHING),
    ],
    "nesting": [
        ('{"cmd":"shot","x":' + "[" * 200 + "]" * 200 + "}", SHOT),
        ('{"x":' + "[" * 240 + "]" * 240 + ',"cmd":"shot"}', SHOT),
        ('{"x":' * 80 + "1" + "}" * 80, NOTHING),
        ('{"x":' * 100, NOTHING),
        ('{"cmd":' + "[" * (LONGEST - 7), NOTHING),
        ('{"cmd":' * 60 + '"shot"' + "}" * 60, NOTHING),
        ('{"cmd":"shot","x":[' + "[]," * 150 + "0]}", SHOT),
    ],
    "numbers": [
        *((f'{{"cmd":"shot","x":{number}}}', SHOT) for number in (
            "1e999", "-1e999", "1e-999", "0", "-0", "9" * 60, "0." + "9" * 58, "2147483648",
            "-9223372036854775809")),
        *((f'{{"cmd":"shot","x":{number}}}', NOTHING) for number in (
            "nan", "Infinity", "--1", "0x10", "1,000", "e5", ".5.")),
        ('{"cmd":1e999}', NOTHING),
        ('{"cmd":-1e999,"param":1e999,"value1":1e999}', NOTHING),
    ],
    "members": [
        ('{"cmd":null,"param":null,"value1":null}', NOTHING),
        ('{"cmd":[],"param":{},"value1":[[]]}', NOTHING),
        ('{"cmd":false}', NOTHING),
        ("{" + '"cmd":"shot",' * 38 + '"x":0}', SHOT),
        ("{" + '"cmd":"",' * 55 + '"x":0}', NOTHING),
        ('{"cmd":"shot",' + '"x":0,' * 80 + '"x":0}', SHOT),
        ("{" + '"":"",' * 80 + '"cmd":"shot"}', SHOT),
    ],
    "words": [
        *((f'{{"cmd":"shutter","param":"{word}"}}', shutter(word)) for word in (
            "%n", "%s%s%s%s", "%n%s%x", "%1000000d", "%", "%%", "%*.*s", "$(reboot)", "`reboot`",
            ";reboot", "../../etc/passwd", "%" * 480, "%n" * 240, "\x01\x1b[2J\x7f", "a\nb\rc\td")),
        ('{"cmd":"%n%s%x","param":"%n%s%x","value1":"%n%s%x"}', NOTHING),
        ('{"%n%s%x":"%n%s%x"}', NOTHING),
    ],
    "no UTF-8": [
        (b'{"cmd":"shutter","param":"' + word + b'"}', shutter(word.decode("utf-8",
                                                                          "surrogateescape")))
        for word in (b"\xff", b"\xc3", b"\x80\x80", b"\xf8\x88\x80\x80\x80", b"\xed\xa0\x80",
                     b"\xc0\x80", bytes(range(0x80, 0x100)))
    ] + [
        (b'{"\xff\xfe":"\xff\xfe","cmd":"shot"}', SHOT),
        (b'{"cmd":"sh\xc3\xb6t"}', NOTHING),
        (b"{" + b"\xff" * 510, NOTHING),
    ],
}


@pytest.mark.parametrize("rows", TEXTS.values(), ids=TEXTS)
def test_texts(station, rows):
    """Each does what its row says, to the letter, and nothing else."""
    station.check(rows)


# --- Texts by chance -----------------------------------------------------------------------------

CHANCE_TEXTS = 60


def random_bytes(chance):
    return b"{" + chance.randbytes(LONGEST - 1)


def random_characters(chance):
    return "{" + "".join(chance.choices('{}[]":,\\u0123456789eE+-. truefalsn', k=LONGEST - 1))


def random_changes(chance):
    """A good command with a few of its bytes changed."""
    text = bytearray(b'{"cmd":"wb","param":"custom","value1":"5600","value2":"0.5","x":[1,{}]}')
    for _ in range(chance.randint(1, 4)):
        text[chance.randrange(1, len(text))] = chance.randrange(256)
    return bytes(text)


CMDS = ["camera", "horizont", "exposure", "focus", "position", "gimbal", "tracking", "color", "wb",
        "shot", "shotmode", "record", "hystogram", "video_mode", "shutter", "aperture", "iso", "ev",
        "video_resolution", "video_aspect", "antiflicker", "formatmicrosd", "resetcamera", "?"]
PARAMS = ["mode", "calibrate", "auto", "type", "point", "normal", "selfie", "follow", "start",
          "stop", "custom", "none", "1", "nan", "1e999", "", "%n"]
VALUES = ["video", "lock", "afs", "fpv", "slow", "0.5", "-1e999", "nan", "99999999999999", "", "%s"]


def random_members(chance):
    """The words of real commands, put together by chance, with members of every kind."""
    def value(words):
        return chance.choice(words) if chance.random() < 0.9 else chance.choice(
            [None, True, 0, -1.5e300, [], {}, [{"cmd": "shot"}]])

    members = {"cmd": value(CMDS), "param": value(PARAMS)}
    members.update({f"value{n}": value(VALUES) for n in range(1, 5) if chance.random() < 0.8})
    return members


@pytest.mark.parametrize("text", [random_bytes, random_characters, random_changes, random_members],
                         ids=lambda text: text.__name__)
def test_texts_by_chance(station, text):
    """Whatever they do: every frame is sound and has its number, and the next command is done."""
    chance = random.Random(text.__name__)
    for _ in range(CHANCE_TEXTS):
        station.send(text(chance))
    station.fence()
    frames = station.camera.frames()
    assert [parse(event.data)[1] for event in frames] == list(range(len(frames)))
    station.effects()
    station.sequence = len(frames)
    station.check([(command("shot"), SHOT)])


# --- Floods --------------------------------------------------------------------------------------


class Flood:
    """Calls send(n) for n = 0, 1, ..., PER_SECOND times a second, for FLOOD_SECONDS."""

    def __init__(self, send):
        self._send = send
        self.sent = 0
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def _run(self):
        begin = time.monotonic()
        while (passed := time.monotonic() - begin) < FLOOD_SECONDS:
            while self.sent < passed * PER_SECOND:
                self._send(self.sent)
                self.sent += 1
            time.sleep(0.001)

    def join(self):
        self._thread.join()
        assert self.sent > 0.9 * PER_SECOND * FLOOD_SECONDS


def assert_answers(station, viewer):
    """The service does one command after the other as ever, and streams nothing."""
    viewer.speed(1, 0, 0, 0)
    station.fence()
    time.sleep(limit(0.05))  # the stream's last cycle
    station.effects()
    station.sequence = (parse(station.camera.frames()[-1].data)[1] + 1) % 0x10000
    station.check([
        (command("shot"), SHOT),
        (command("record", "stop"), ["Record stop\n", camera(0x02, "00")]),
        (command("horizont", "calibrate"), [
            "Gimbal calibrate\n", gimbal(0x07, "00"),
            gimbal(0x01, "00 04 00 04 00 04 80 00", sender=0x09, type=0x20), gimbal(0x08)])])


@pytest.mark.timing
def test_flood_of_commands_and_speeds(station, viewers):
    """A thousand commands and a thousand speeds a second: the commands that are done are done
    whole, every frame is sound, the last speed counts, and all goes on as if nothing was."""
    known = {camera(0x2A, "03"): '{"cmd":"iso","param":"100"}',
             camera(0x2E, "11"): '{"cmd":"ev","param":"0.3"}',
             camera(0x16, "01"): '{"cmd":"shotmode","param":"jpg"}'}
    texts = [*known.values(), '{"cmd":"nothing"}']
    commander, driver = viewers(), viewers()
    begin = time.monotonic()
    commands = Flood(lambda n: commander.command(texts[n % len(texts)]))
    speeds = Flood(lambda n: driver.speed(1, 4000 * (n % 3), -4000, n % 7))
    commands.join()
    speeds.join()
    driver.speed(1, 4000, 8000, -4000)
    # Behind everything that the flood has left in the service's socket.
    station.post(command("nothing"))
    last = speed(pan=1000, roll=-1000, tilt=2000)
    station.camera.wait(lambda events: sum(
        event.is_frame and parse(event.data)[0] == last for event in events) >= 3,
        what="the last speed")

    passed = time.monotonic() - begin
    said = [parse(event.data)[0] for event in station.camera.frames()]
    # The mailbox holds one command and is looked at every 50 ms; the stream runs every 30 ms.
    done = sum(one in known for one in said)
    assert 0.2 * FLOOD_SECONDS / 0.05 < done < passed / 0.05 + 2
    assert sum(one.id == last.id for one in said) > 0.2 * FLOOD_SECONDS / 0.03
    assert_answers(station, driver)


@pytest.mark.timing
def test_flood_of_nonsense(station, viewers):
    """A thousand texts a second that are no commands, the longest that there are."""
    chance = random.Random(11)
    texts = [random_bytes(chance) for _ in range(20)] + ["{" * 60_000, "{" + '"x":[' * 12_000]
    sender = viewers()
    Flood(lambda n: sender.command(texts[n % len(texts)])).join()
    station.post(command("nothing"))
    assert_answers(station, sender)


# --- Memory --------------------------------------------------------------------------------------


def bush(members):
    """The longest text with those members and a tree of some 200 more."""
    return "{" + members + ',"x":[' + "0," * ((LONGEST - 10 - len(members)) // 2) + "0]}"


BUSHES = [
    bush('"cmd":"shot"'),
    bush('"cmd":"none"'),
    bush('"cmd":"position","param":"move"'),
    bush('"cmd":"position","param":"moverel","value1":"0"'),
    bush('"cmd":"position","param":"speed","value1":"0","value2":"0","value3":"0"'),
    bush('"cmd":"tracking","param":"start"'),
    bush('"cmd":"wb","param":"custom"'),
    bush('"cmd":"position","param":"move"')[:-2],
]


@pytest.mark.parametrize("text", BUSHES, ids=lambda text: text[1:].partition(',"x"')[0])
def test_texts_leave_no_memory_behind(unsanitized, station, text):
    """The trees of parsed texts are released on every way out. Kept ones are 16 KiB each."""
    assert len(text) <= LONGEST
    for _ in range(10):
        station.send(text)
    station.fence()
    before, *_ = resources(station.service)
    for _ in range(40):
        station.send(text)
    station.fence()
    assert resources(station.service)[0] - before < 300 * 1024
