"""Viewers on UDP port 4242: registration, leave, commands, speeds, time-outs, what is ignored."""

import random
import socket
import struct
import time

import pytest

from harness.console import BANNER, connected, events, lost, removed, time_of
from harness.region import DisplayRegion
from harness.timing import limit, wait_until
from harness.udp import VIEWER_PORT, forge, socket_queue

MAX_VIEWERS = 10
MAX_COMMAND = 511  # characters; the mailbox holds them and a NUL
REGISTER, LEAVE, SPEED, COMMAND = 0, 1, 5, ord("{")

# What may lie in the receive buffer when a short datagram comes. None of it registers anybody.
LONG_DATAGRAMS = {
    "nothing": None,
    "no frame": b"\xff" * 60000,
    "unknown type": b"\x42" + b"\xff" * 59999,
    "command": b"\x42" + bytes(11) + b"{" + b"\x01" * 5000,
}


def frame(payload, header=bytes(11)):
    return b"\x42" + header + payload


def commands(service):
    """What the service has printed since the banner: a line for each command that it has taken out
    of the mailbox. The one place that knows where a viewer's command arrives."""
    return service.out.bytes().removeprefix(BANNER)


def wait_command(service, *texts):
    """Waits until exactly these texts have arrived as commands, and nothing else."""
    expected = b"".join(b"config_parse_command " + text + b"\n" for text in texts)
    wait_until(lambda: len(commands(service)) >= len(expected), 5, "the command")
    assert commands(service) == expected


def assert_no_command(service, region):
    """That none has arrived: what came before the call has been handled by the viewer link, and a
    command of the test's own is the first that is taken."""
    region.write(region.COMMAND_MAILBOX[0], b"{}")
    wait_command(service, b"{}")


def wait_viewer_count(region, count):
    wait_until(lambda: region.u8(region.VIEWER_COUNT) == count, 5, f"viewer count {count}")


# --- Registration and leave ----------------------------------------------------------------------


@pytest.mark.parametrize("mode, note", [(0, " "), (1, "(only data)"), (2, " "), (255, " ")])
def test_registration_is_announced(service, viewers, settled, mode, note):
    viewer = viewers("127.0.0.5")
    viewer.register(mode)
    port = viewer.address[1]
    assert settled(service) == f"New client connected from 127.0.0.5:{port} {note}\n"


def test_full_viewer_is_announced_with_two_blanks(service, viewers, settled):
    viewer = viewers()
    viewer.register()
    assert settled(service).endswith(f":{viewer.address[1]}  \n")


def test_repeated_registration_is_silent(steady, viewers, settled, region):
    """In whatever mode, and it takes no second slot."""
    viewer = viewers()
    for mode in (1, 1, 0, 255, 1, 0):
        viewer.register(mode)
    assert settled(steady) == connected(viewer, "(only data)")
    wait_viewer_count(region, 1)


def test_viewer_is_its_address_and_port(steady, viewers, settled, region):
    """Two ports of one host are two viewers, and so is one port of two hosts."""
    first = viewers("127.0.0.1")
    same_host = viewers("127.0.0.1")
    same_port = viewers("127.3.2.1", first.address[1])
    everybody = [first, same_host, same_port, viewers("127.255.0.7")]
    for viewer in everybody:
        viewer.register()
    assert settled(steady) == "".join(map(connected, everybody))
    wait_viewer_count(region, 4)
    for viewer in everybody:
        viewer.message(11)


@pytest.mark.parametrize("before", LONG_DATAGRAMS)
@pytest.mark.parametrize("length", [1, 2, 11, 12, 13])
def test_short_registration(service, viewers, settled, length, before):
    """What is missing reads as zero, whatever the datagram before it was: full viewer."""
    if LONG_DATAGRAMS[before] is not None:
        viewers().send_raw(LONG_DATAGRAMS[before])
    viewer = viewers()
    viewer.send_raw(frame(bytes([REGISTER]))[:length])
    assert settled(service) == connected(viewer)


def test_registration_without_mode_after_a_data_only_one(service, viewers, settled):
    data_only, full = viewers(), viewers()
    data_only.send(bytes([REGISTER]) + b"\x01" * 50000)
    full.send(bytes([REGISTER]))
    assert settled(service) == connected(data_only, "(only data)") + connected(full)


@pytest.mark.parametrize("tail", [b"", b"\0", b"\x01" * 7, b"\xff" * 59987],
                         ids=["alone", "one byte", "seven bytes", "long"])
def test_leave(service, viewers, settled, tail):
    """Frees the slot at once, whatever follows the type; a second one is ignored."""
    viewer = viewers()
    viewer.register()
    for _ in range(2):
        viewer.send(bytes([LEAVE]) + tail)
    assert settled(service) == connected(viewer) + removed(viewer)


def test_leave_of_a_stranger_is_ignored(steady, viewers, settled, region):
    viewer = viewers("127.0.0.1")
    viewer.register()
    viewers("127.0.0.1").leave()
    viewers("127.0.0.2", viewer.address[1]).leave()
    assert settled(steady) == connected(viewer)
    wait_viewer_count(region, 1)


def test_viewer_that_left_may_come_back(service, viewers, settled):
    viewer = viewers()
    for mode in (0, 1, 0):
        viewer.register(mode)
        viewer.leave()
    assert settled(service) == "".join(
        connected(viewer, note) + removed(viewer) for note in (" ", "(only data)", " "))


def test_eleventh_viewer_is_served_when_another_has_left(steady, crowd, viewers, region):
    """Until then it is ignored without a word."""
    ten = crowd(steady, MAX_VIEWERS)
    eleventh = viewers()
    eleventh.register()
    eleventh.register(1)
    wait_viewer_count(region, MAX_VIEWERS)
    before = ten[9].message(11, start=len(ten[9].frames))
    ten[3].leave()
    steady.err.wait(removed(ten[3]))
    assert eleventh.frames == []
    eleventh.register()
    steady.err.wait(connected(eleventh))
    assert events(steady) == "".join([*map(connected, ten), removed(ten[3]), connected(eleventh)])
    assert eleventh.message(11).counter > before.counter
    wait_viewer_count(region, MAX_VIEWERS)


def test_table_by_a_model(held, viewers, settled):
    """Thousands of registrations and leaves of 30 viewers are announced as a table of ten says."""
    chance = random.Random(4242)
    everybody = [viewers(f"127.0.{n % 3}.{n % 7 + 1}") for n in range(30)]
    table, expected = set(), []
    for number in range(4000):
        if number % 250 == 0:  # the service's queue holds some hundreds at the least
            wait_until(lambda: socket_queue(VIEWER_PORT)[0] == 0, 5, "the service")
        viewer = chance.choice(everybody)
        if chance.random() < 0.5:
            mode = chance.randrange(3)
            viewer.register(mode)
            if viewer not in table and len(table) < MAX_VIEWERS:
                table.add(viewer)
                expected.append(connected(viewer, "(only data)" if mode == 1 else " "))
        else:
            viewer.leave()
            if viewer in table:
                table.remove(viewer)
                expected.append(removed(viewer))
    for viewer in table:
        viewer.leave()
        expected.append(removed(viewer))
    assert settled(held).splitlines() == "".join(expected).splitlines()


# --- What is ignored -----------------------------------------------------------------------------


@pytest.mark.parametrize("payload", [bytes([REGISTER, 0]), b'{"cmd":"x"}'],
                         ids=["register", "command"])
def test_wrong_magic_is_ignored(service, viewers, settled, region, payload):
    viewer = viewers()
    for magic in set(range(256)) - {0x42}:
        viewer.send_raw(bytes([magic]) + bytes(11) + payload)
        viewer.send_raw(bytes([magic]))
    assert settled(service) == ""
    assert_no_command(service, region)


def test_unknown_types_are_ignored(service, viewers, settled, region):
    viewer = viewers()
    viewer.register()
    for kind in set(range(256)) - {REGISTER, LEAVE, SPEED, COMMAND}:
        viewer.send(bytes([kind]))
        viewer.send(bytes([kind]) + b"{\x01\x05" * 100)
    assert settled(service) == connected(viewer)
    assert_no_command(service, region)


@pytest.mark.parametrize("header", [b"\xff" * 11, b"\x01" * 11, b"{" * 11],
                         ids=["ones", "leave", "brace"])
def test_inbound_header_is_ignored_behind_the_magic(service, viewers, settled, region, header):
    viewer = viewers()
    for payload in (bytes([REGISTER, 1]), b"{text", bytes([LEAVE])):
        viewer.send_raw(frame(payload, header))
    assert settled(service) == connected(viewer, "(only data)") + removed(viewer)
    wait_command(service, b"{text")


@pytest.mark.parametrize("length", [*range(10), 100, 60000 - 13])
@pytest.mark.parametrize("fill", [b"\0", b"\xff"], ids=["zeros", "ones"])
def test_speed_of_any_length_is_harmless(service, viewers, settled, region, length, fill):
    viewer = viewers()
    viewer.register()
    viewers().send_raw(b"\xff" * 60000)
    viewer.send(bytes([SPEED]) + fill * length)
    assert settled(service) == connected(viewer)
    assert_no_command(service, region)


# The service's frames to a viewer at port 4242 of its own host come back to it, from this address.
OWN_ADDRESS = ("127.0.0.1", 4242)


def test_own_address_is_ignored(service, viewers, settled, region):
    """Whatever a datagram from there holds."""
    viewer = viewers()
    viewer.register()
    service.err.wait(connected(viewer))
    for payload in (bytes([REGISTER, 0]), bytes([REGISTER, 1]), bytes([SPEED]) + bytes(7),
                    b'{"cmd":"x"}'):
        forge(OWN_ADDRESS, frame(payload))
    forge(OWN_ADDRESS, b"\x42")
    assert settled(service) == connected(viewer)
    assert_no_command(service, region)


@pytest.mark.parametrize("host, port", [("127.0.0.1", 4241), ("127.0.0.1", 4243),
                                        ("127.0.0.2", 4242), ("127.0.1.1", 4242)])
def test_neighbours_of_the_own_address_are_handled(service, settled, region, host, port):
    for payload in (bytes([REGISTER, 0]), b"{text", bytes([LEAVE])):
        forge((host, port), frame(payload))
    assert settled(service) == (f"New client connected from {host}:{port}  \n"
                                f"Client {host}:{port} removed\n")
    wait_command(service, b"{text")


def test_own_frames_that_loop_back_are_ignored(held, access_point, viewers, settled, video, region):
    """A viewer at port 4242 of the service's own host makes it hear itself: video that looks like
    the payloads of viewers, and status messages."""
    forge(("127.0.0.2", 4242), frame(bytes([REGISTER, 0])))
    witness = viewers()
    witness.register()
    held.err.wait(connected(witness))
    for payload in (bytes([REGISTER, 0]), b'{"cmd":"x"}', bytes([LEAVE]), bytes([SPEED] * 8)):
        video.send(payload)
        witness.wait(lambda f, payload=payload: f.video and f.payload == payload)
    access_point.answer(1)
    witness.message(11)
    assert settled(held).replace("Video found\n", "") == (
        "New client connected from 127.0.0.2:4242  \n" + connected(witness))
    assert_no_command(held, region)


def test_sender_without_a_port_is_ignored(service, settled):
    """It could never be sent to."""
    forge(("127.0.0.9", 0), frame(bytes([REGISTER, 0])))
    forge(("127.0.0.9", 0), b"\x42")
    assert settled(service) == ""


def broadcast_without_an_address(port, data):
    """Sends a datagram as a host does that has no address yet: from 0.0.0.0 to everybody."""
    datagram = struct.pack(">4H", port, VIEWER_PORT, 8 + len(data), 0) + data
    header = [0x4500, 20 + len(datagram), 0, 0, 64 << 8 | socket.IPPROTO_UDP, 0, 0, 0,
              0xFFFF, 0xFFFF]
    header[5] = 0xFFFF - sum(header) % 0xFFFF
    with socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM) as wire:
        wire.sendto(struct.pack(">10H", *header) + datagram, ("lo", 0x0800, 0, 0, b"\xff" * 6))


def test_sender_without_an_address_is_ignored(steady, viewers, settled):
    """It could never be sent to either, and no other viewer may get its port."""
    bystander = viewers()
    for payload in (bytes([REGISTER, 0]), bytes([LEAVE]), bytes([REGISTER, 1])):
        broadcast_without_an_address(bystander.address[1], frame(payload))
    witness = viewers()
    witness.register()
    assert settled(steady) == connected(witness)
    witness.message(11, start=len(witness.frames))
    assert bystander.frames == []


# --- Keep-alive ----------------------------------------------------------------------------------


def assert_lost_in_time(service, keeper, registered):
    """In each round, and by its count of viewers. `registered`: when each was, in order."""
    # The round that the last registration may have come in the middle of does not count.
    rounds = [f for f in keeper.frames if f.payload[:1] == b"\x06"
              and f.time > list(registered.values())[-1]][1:]
    present = dict.fromkeys((round.counter for round in rounds), 1)
    for viewer, time_registered in registered.items():
        assert events(service).count(lost(viewer)) == 1
        assert time_of(service.err, lost(viewer)) - time_registered > 5
        served = {f.counter for f in viewer.frames}
        for round in rounds:
            present[round.counter] += round.counter in served
            age = round.time - time_registered
            # What is on its way for longer than the margin is told too late to be judged.
            assert round.counter in served or age > 5
            assert round.counter not in served or age < 5 + limit(0.25)
    assert {round.counter: round.payload[2] for round in rounds} == present


@pytest.mark.timing
def test_only_registrations_keep_a_viewer(steady, viewers, region):
    """The first round more than 5 s after its last registration loses a viewer, whatever else it
    sends, and the count drops in that round. Others stay."""
    keeper = viewers("127.0.0.1")
    keeper.keep_alive(1)
    keeper.message(11)
    # Between two rounds, so that every loss comes at another age.
    silent = [viewers("127.0.0.2") for _ in range(5)]
    registered = {}
    for viewer in silent:
        registered[viewer] = time.monotonic()
        viewer.register()
        steady.err.wait(connected(viewer))
        time.sleep(0.2)
    talker = silent[2]

    def talk():
        talker.speed(1, 2, 3, 4)
        talker.command('{"cmd":"x"}')
        talker.send_raw(b"\x41")
        talker.send(b"\x02")
        time.sleep(0.1)
        return all(lost(viewer) in events(steady) for viewer in silent)

    wait_until(talk, 10, "the loss of all")
    wait_viewer_count(region, 1)
    assert_lost_in_time(steady, keeper, registered)
    assert lost(keeper) not in events(steady)


def test_viewer_count(steady, crowd, region):
    """The region shows it within a round."""
    wait_viewer_count(region, 0)
    everybody = crowd(steady, MAX_VIEWERS)
    wait_viewer_count(region, MAX_VIEWERS)
    for viewer in everybody[:9]:
        viewer.leave()
    wait_viewer_count(region, 1)
    everybody[9].wait(lambda f: f.payload[:1] == b"\x06" and f.payload[2] == 1)
    everybody[9].leave()
    wait_viewer_count(region, 0)


# --- What a viewer is served ---------------------------------------------------------------------


@pytest.mark.parametrize("mode", [0, 1])
def test_data_only_viewer_gets_video_as_well(held, access_point, viewers, video, mode):
    viewer = viewers()
    viewer.register(mode)
    held.err.wait("New client")
    video.send(b"video")
    assert viewer.wait(lambda f: f.video).payload == b"video"
    access_point.answer(1)
    viewer.message(6)
    viewer.message(11)


# --- Commands ------------------------------------------------------------------------------------

COMMANDS = {
    "a text": b'{"cmd":"x"}',
    "lone brace": b"{",
    "NUL-terminated": b'{"cmd":"x"}\0',
    "text behind a NUL": b'{"cmd":"x"}\0{"cmd":"hidden"}',
    "every byte": b"{" + bytes(range(1, 256)),
    "conversions": b"{%n%s%x%d%1000000d",
    "not UTF-8": b"{\xc3\x28\xa0\xa1\xf8\x88\x80\xed\xa0\x80",
    "510 characters": b"{" + b"a" * 509,
    "511 characters": b"{" + b"b" * 510,
    "512 characters": b"{" + b"c" * 511,
    "513 characters": b"{" + b"d" * 512,
    "5000 characters": b"{" + b"efg" * 1666 + b"h",
    "all of the largest datagram": b"{" + b"ijk" * 19995 + b"lm",
    "more than is received": b"{" + b"n" * 65000,
}


@pytest.mark.parametrize("name", COMMANDS)
@pytest.mark.parametrize("before", LONG_DATAGRAMS)
def test_command(service, viewers, settled, region, name, before):
    """Arrives up to its NUL or its end, cut to 511 characters, with nothing of an earlier datagram
    behind it. Its sender need not be registered, and nothing beside the mailbox changes."""
    taken = []
    if LONG_DATAGRAMS[before] is not None:
        viewers().send_raw(LONG_DATAGRAMS[before])
    if before == "command":  # or the next one might replace it
        taken.append(LONG_DATAGRAMS[before][12:][:MAX_COMMAND])
        wait_command(service, *taken)
    text = COMMANDS[name]
    viewers().command(text)
    wait_command(service, *taken, text.split(b"\0")[0][:MAX_COMMAND])
    offset, size = DisplayRegion.COMMAND_MAILBOX
    assert region.u8(offset - 1) == 0
    assert not any(region.bytes(offset + size))
    assert settled(service) == ""


@pytest.mark.parametrize("first, second", [(511, 200), (200, 511), (5000, 1), (30, 31), (31, 29)])
def test_new_command_replaces_the_last_one(service, viewers, first, second):
    """While the control thread is busy, here with a change of the HDMI mode that takes a second."""
    viewer = viewers()
    viewer.command('{"cmd":"updateparam","name":"hdmimode","value":"default"}')
    busy = service.out.wait("Need to update param hdmimode to default, \n").encode()
    viewer.command(b"{" + b"a" * (first - 1))
    text = b"{" + b"b" * (second - 1)
    viewer.command(text)
    expected = busy + b"config_parse_command " + text[:MAX_COMMAND] + b"\n"
    wait_until(lambda: len(service.out.bytes()) >= len(expected), 5, "the command")
    assert service.out.bytes() == expected
