"""How the frames are found in a datagram from the bridge.

The legend of the cases:

  A B C   whole, sound reports, told apart by what they say
  .       a byte that begins no frame
  other   the bytes that the name tells

and "finds" lists the reports that are taken, in order.
"""

import dataclasses
import random

import pytest

from harness.duml import START, crc16, frame_of, sealed
from harness.reports import STATUS

pytest_plugins = ["harness.reporting"]


def letter(name, **options):
    """A whole report that says its letter."""
    return STATUS.frame(byte_11=ord(name), **options)


A, B, C = map(letter, "ABC")
SIZE = len(A)
DOT = b"."
U = bytes([START])


def letters(messages):
    """The letters in the messages that were relayed."""
    return "".join(chr(message[2]) for message in messages)


def start(length, size):
    """The first two bytes of a frame of that length, and bytes that begin none, `size` in all."""
    return (U + bytes([length])).ljust(size, DOT)


def sound(length, payload=b""):
    """A frame of that length, which no report has, that is sound all the same. Its payload, from
    the third byte on, is the given one and dots."""
    return sealed((U + bytes([length]) + payload).ljust(length - 2, DOT) + bytes(2))


def damaged(frame, offset=-1):
    """The frame with one byte changed."""
    frame = bytearray(frame)
    frame[offset] ^= 0x20
    return bytes(frame)


@dataclasses.dataclass(frozen=True)
class Case:
    datagram: bytes
    finds: str


def around(name, rubbish):
    """Rubbish before, behind and between frames; it must not hide what follows."""
    return {
        f"{name} before": Case(rubbish + A + DOT, "A"),
        f"{name} between": Case(A + rubbish + B + DOT, "AB"),
        f"{name} behind": Case(A + rubbish, "A"),
    }


CASES = {
    # Whole frames and where they end.
    "one frame and a byte": Case(A + DOT, "A"),
    "one frame and a start byte": Case(A + U, "A"),
    "one frame and many bytes": Case(A + DOT * 1000, "A"),
    "one frame at the very end": Case(A, ""),
    "one frame at the very end, behind dots": Case(DOT * 100 + A, ""),
    "two frames and a byte": Case(A + B + DOT, "AB"),
    "two frames, the second at the very end": Case(A + B, "A"),
    "three frames and a byte": Case(A + B + C + DOT, "ABC"),
    "three frames with dots between": Case(A + DOT + B + DOT * 7 + C + DOT, "ABC"),
    "the same frame twice": Case(A + A + DOT, "AA"),

    # Rubbish.
    **around("dots", DOT * 333),
    **around("all bytes but the start byte", bytes(set(range(256)) - {START})),
    "nothing but dots": Case(DOT * 500, ""),
    "a single dot": Case(DOT, ""),

    # Cut short.
    **{f"a frame cut to {size} bytes": Case(A[:size], "")
       for size in (2, 3, 9, 10, 11, SIZE - 2, SIZE - 1)},
    **{f"a frame cut to {size} bytes behind another": Case(A + B[:size], "A")
       for size in (2, 3, 10, SIZE - 1)},
    "a cut frame takes the next one's bytes for its own": Case(A[:30] + B + DOT, ""),
    "a cut frame, and a frame behind the one it takes from": Case(A[:30] + B + C + DOT, "C"),
    "a cut frame, dots to its end, and a frame": Case(A[:30] + DOT * (SIZE - 30) + B + DOT, "B"),

    # Checksums.
    "a wrong header check": Case(sealed(damaged(A, 3)) + DOT, "A"),
    "another version": Case(sealed(damaged(A, 2)) + DOT, "A"),
    "higher bits of the length": Case(sealed(A[:2] + b"\x07" + A[3:]) + DOT, "A"),
    "a wrong check, its high byte": Case(damaged(A) + DOT, ""),
    "a wrong check, its low byte": Case(damaged(A, -2) + DOT, ""),
    "a wrong check, the bytes the wrong way round": Case(A[:-2] + A[:-3:-1] + DOT, ""),
    "a wrong check and a frame right behind": Case(damaged(A) + B + DOT, "B"),
    "a wrong check between frames": Case(A + damaged(B) + C + DOT, "AC"),
    "two wrong checks and a frame": Case(damaged(A) + damaged(B) + C + DOT, "C"),
    **{f"a wrong byte {offset}": Case(damaged(A, offset) + B + DOT, "B")
       for offset in (2, 3, 4, 9, 10, 11, 12, 30, SIZE - 3)},

    # Frames inside others.
    "a frame inside a sound one": Case(sound(100, A) + B + DOT, "B"),
    "a frame inside a damaged one": Case(damaged(sound(100, A)) + B + DOT, "B"),
    "a frame across the end of a damaged one": Case(start(20, 10) + A + B + DOT, "B"),
    "a frame right behind a damaged one": Case(start(20, 20) + A + DOT, "A"),
    "a start byte inside a sound frame": Case(letter("A", byte_13=START, byte_42=START) + DOT, "A"),

    # Length bytes that no frame has.
    "length 0": Case(start(0, 2) + A + DOT, "A"),
    "length 0 again and again": Case(start(0, 2) * 200 + A + DOT, "A"),
    "length 0 and a dot": Case(start(0, 3) + A + DOT, "A"),
    "length 0 between frames": Case(A + start(0, 2) + B + DOT, "AB"),
    "length 0 at the end": Case(A + start(0, 2), "A"),
    "length 0 and a dot at the end": Case(A + start(0, 3), "A"),
    "nothing but length 0": Case(start(0, 2) * 1000, ""),
    **{f"length {n}, a frame at its end": Case(start(n, max(n, 2)) + A + DOT, "A")
       for n in range(1, 10)},
    **{f"length {n}, a frame within it": Case(start(n, 2) + A + B + DOT, "B")
       for n in range(3, 10)},
    **{f"length {n} to the datagram's end": Case(A + start(n, n), "A") for n in range(2, 10)},

    # The shortest frames and the longest.
    **{f"a sound frame of {n} bytes": Case(sound(n) + A + DOT, "A") for n in (10, 11, 12, 13, 255)},
    **{f"a damaged frame of {n} bytes": Case(damaged(sound(n)) + A + DOT, "A")
       for n in (10, 11, 12, 13, 255)},
    **{f"a frame of {n} bytes at the very end": Case(A + sound(n), "A") for n in (10, 255)},
    "a frame inside the longest": Case(sound(255, A) + B + DOT, "B"),
    "the longest, cut by one byte": Case(sound(255, A)[:-1] + DOT, ""),

    # Runs of start bytes: two of them are a frame of 85 bytes.
    **{f"{n} start bytes": Case(U * n, "") for n in (2, 84, 85, 86, 87, 170, 171, 1000)},
    **{f"{n} start bytes and a frame": Case(U * n + A + DOT, "A") for n in (85, 170, 255)},
    **{f"{n} start bytes, dots and a frame": Case(U * n + DOT * 85 + A + DOT, "A")
       for n in (1, 2, 50, 84, 85, 86, 100)},
    **{f"{n} start bytes and a frame within what they take": Case(U * n + A + B + DOT, "")
       for n in (1, 2, 22)},
    "23 start bytes, which take a frame exactly": Case(U * 23 + A + B + DOT, "B"),
    "two start bytes at the end": Case(A + U + U, "A"),
    "three start bytes at the end": Case(A + U + U + U, "A"),
    "a start byte last but one": Case(A + U + DOT, "A"),
    "a start byte last but one, with length 1": Case(A + start(1, 2), "A"),
    "a start byte last but two, with length 2": Case(A + start(2, 3), "A"),
    "a start byte last but two, with length 1": Case(A + start(1, 3), "A"),
    "a start byte alone": Case(U, ""),

    # A frame that would end behind the datagram ends the scan, whatever follows its start.
    "a frame that is too long for the datagram": Case(start(200, 2) + A + DOT, ""),
    "a frame that ends with the datagram": Case(start(2 + SIZE + 1, 2) + A + DOT, ""),
    "a frame that ends before the datagram's last byte": Case(start(2 + SIZE, 2) + A + DOT, ""),
    "the same, and a frame behind it": Case(start(2 + SIZE, 2) + A + B + DOT, "B"),
}


@pytest.mark.parametrize("name", CASES)
def test_case(desk, name):
    case = CASES[name]
    desk.bridge.send(case.datagram)
    assert letters(desk.settle()) == case.finds


def test_every_length_byte(desk):
    """Whatever a length byte says, the scan moves on by it, and finds a frame right behind."""
    for length in range(256):
        skipped = start(length, max(length, 2))
        desk.bridge.send(skipped + A + DOT)
        assert (length, letters(desk.settle())) == (length, "A")


def test_every_length_of_sound_frames(desk):
    """Frames of every length are skipped as a whole, sound or damaged; what stands inside is not
    looked at, and a report right behind is found."""
    for length in range(13, 256):
        if length == SIZE:
            continue
        inside = A if length >= SIZE + 13 else b""
        frame = frame_of(inside.ljust(length - 13, DOT), 0xFF)
        if length in (30, 36, 58, 77, 107):  # reports in any set
            frame = damaged(frame, 2)
        desk.bridge.send(frame + B + damaged(frame) + C + DOT)
        assert (length, letters(desk.settle())) == (length, "BC")


def test_every_cut(desk):
    """However much is missing at the end of a datagram, what is whole before it is found."""
    whole = A + DOT + B + C + DOT
    ends = [whole.index(frame) + SIZE for frame in (A, B, C)]
    for size in range(1, len(whole) + 1):
        desk.bridge.send(whole[:size])
        finds = "ABC"[:sum(end < size for end in ends)]
        assert (size, letters(desk.settle())) == (size, finds)


def test_every_damaged_bit(desk):
    """A report with any bit wrong behind its length byte is not taken, and the next one is."""
    for bit in range(16, 8 * SIZE):
        frame = bytearray(A)
        frame[bit // 8] ^= 1 << bit % 8
        desk.bridge.send(bytes(frame) + B + DOT)
        assert (bit, letters(desk.settle())) == (bit, "B")


def test_datagrams_are_scanned_alone(desk):
    """Nothing of a datagram is left for the next one: a frame in two pieces is none, and a frame at
    the end of a datagram, or a cut one, does not take what an earlier datagram has left in the
    buffer."""
    for size in (1, 2, 10, SIZE // 2, SIZE - 1, SIZE):
        desk.bridge.send(A[:size])
        desk.bridge.send(A[size:] + DOT)
        assert letters(desk.settle()) == ""
    for size in (1, 2, 10, SIZE // 2, SIZE - 1, SIZE):
        desk.bridge.send(A + B + C + DOT)
        assert letters(desk.settle()) == "ABC"
        # The marks are datagrams too: this one lies in the buffer when the cut one comes.
        desk.bridge.send(B + A + DOT)
        desk.bridge.send(B[:size])
        desk.bridge.send(C + DOT)
        assert letters(desk.settle()) == "BAC"


def test_bytes_of_an_earlier_datagram_are_not_read(desk):
    """A frame whose first half ends a datagram and whose second half lies behind it in the buffer,
    from the datagram before, is not taken."""
    for size in range(2, SIZE + 1):
        desk.bridge.send(DOT * size + A[size:] + DOT * 100)
        desk.bridge.send(A[:size])
        assert (size, letters(desk.settle())) == (size, "")


# --- The longest datagrams -----------------------------------------------------------------------

MAX_DATAGRAM = 60_000
COUNT = (MAX_DATAGRAM - 1) // SIZE


@pytest.mark.parametrize("before, finds", [
    pytest.param(b"", COUNT, id="from the first byte"),
    pytest.param(DOT * (MAX_DATAGRAM - 1 - COUNT * SIZE), COUNT, id="to the last byte but one"),
    pytest.param(DOT * (MAX_DATAGRAM - COUNT * SIZE), COUNT - 1, id="to the last byte"),
    pytest.param(DOT * (MAX_DATAGRAM - 1 - COUNT * SIZE) + damaged(A), COUNT - 1,
                 id="behind a damaged one"),
])
def test_longest_datagram_full_of_frames(desk, before, finds):
    """Every frame of the longest datagram is found, also the last."""
    frames = [STATUS.frame(word_20=number) for number in range(COUNT)]
    datagram = (before + b"".join(frames))[:MAX_DATAGRAM].ljust(MAX_DATAGRAM, DOT)
    desk.bridge.send(datagram)
    numbers = [int.from_bytes(message[3:7], "little") for message in desk.settle()]
    assert numbers == list(range(finds))


@pytest.mark.parametrize("content", [U, DOT, start(0, 2), start(1, 2), start(9, 9), start(10, 10),
                                     start(255, 255), sound(10), A[:-1]],
                         ids=lambda content: content[:2].hex() + f"x{len(content)}")
def test_longest_datagram_of_rubbish(desk, content):
    """The longest datagram of anything is done with, and the next one is scanned."""
    desk.bridge.send((content * MAX_DATAGRAM)[:MAX_DATAGRAM])
    desk.bridge.send(B + DOT)
    assert letters(desk.settle()).endswith("B")


# --- Anything at all -----------------------------------------------------------------------------


def scan(datagram):
    """The frames that are to be found in a datagram."""
    frames, at = [], 0
    while at + 2 < len(datagram):
        length = datagram[at + 1]
        if datagram[at] != START:
            at += 1
            continue
        if at + length >= len(datagram):
            break
        frame = datagram[at:at + length]
        if length > 9 and crc16(frame[:-2]) == int.from_bytes(frame[-2:], "little"):
            frames.append(frame)
        at += max(length, 1)
    return frames


@pytest.mark.parametrize("seed", range(8))
def test_random_mixtures(desk, seed):
    """Pieces in any order lead to the reports that the rules of the scan find in them."""
    rng = random.Random(seed)
    pieces = [A, B, C, damaged(A), damaged(B, 20), U, DOT, DOT * 10, A[:20], sound(40, A)[:50],
              sound(100, A), *(start(n, max(n, 2)) for n in (0, 1, 2, 5, 9, 10, 60, 61, 85, 255))]
    for _ in range(60):
        datagram = b"".join(rng.choices(pieces, k=rng.randrange(1, 12)))
        desk.bridge.send(datagram)
        expected = "".join(chr(frame[11]) for frame in scan(datagram) if len(frame) == SIZE)
        assert letters(desk.settle()) == expected, datagram.hex(" ")


def test_noise(desk):
    """Random bytes, among them many start bytes, disturb nothing."""
    rng = random.Random(55)
    for _ in range(100):
        noise = bytes(rng.choice((START, rng.randrange(256))) for _ in range(rng.randrange(1, 500)))
        desk.bridge.send(noise)
        desk.bridge.send(B + DOT)
        assert letters(desk.settle()) == "B"
