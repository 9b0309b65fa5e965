"""A display region that a sibling has filled with anything, or goes on filling."""

import random
import struct
import time

from harness.duml import parse
from harness.neighbours import Neighbour
from harness.receiver import FUNCTIONS, RcReader
from harness.region import DisplayRegion
from harness.reports import GIMBAL, SETTINGS, STATUS, TAIL, TRACKING
from harness.timing import wait_until

CONF = "rc_input_enabled=1\nrc_input_map=pan,tilt\nrc_input_speed_pan=50\nrc_input_speed_tilt=50\n"
RC_DOUBLES = [*(offset + 8 * code for offset, _ in (DisplayRegion.RC_CENTRED, DisplayRegion.RC_POSITION)
                for code in range(len(FUNCTIONS))),
              DisplayRegion.FOCUS_POINT_X, DisplayRegion.FOCUS_POINT_Y]
NO_NUMBERS = (b"\0\0\0\0\0\0\xf8\x7f", b"\xff" * 8, struct.pack("<d", float("inf")),
              struct.pack("<d", float("-inf")), struct.pack("<d", 1e308), struct.pack("<Q", 1))


def contents(chance):
    """Anything, with the RC in charge of NaNs and a command without an end."""
    size = DisplayRegion.SIZE + chance.choice((0, 1, 4096, 1_000_000))
    memory = bytearray(chance.randbytes(size))
    for offset in RC_DOUBLES:
        memory[offset:offset + 8] = chance.choice(NO_NUMBERS)
    memory[DisplayRegion.MENU_ACTIVE], memory[DisplayRegion.RC_STATUS] = 0, RcReader.LIVE
    offset = DisplayRegion.RC_ASSIGNED[0]
    memory[offset:offset + 2 * len(FUNCTIONS)] = b"\1" * (2 * len(FUNCTIONS))
    offset, length = DisplayRegion.COMMAND_MAILBOX
    text = b'{"cmd":"iso","param":"%s"}' % chance.choice((b"100", b"\xff\xfe", b"%n%s"))
    memory[offset:offset + length] = (text * length)[:length]
    return bytes(memory)


def assert_in_order(service, region, join, camera, video):
    """Once its sibling behaves, the service does all of its work."""
    region.write(0, bytes(region.SIZE))
    reader = RcReader(region)
    reader.cycle()
    viewer = join(service)
    viewer.message(11)
    video.send(b"the last picture")
    viewer.wait(lambda frame: frame.payload == b"the last picture")
    camera.send(GIMBAL.frame(a1=100, a2=200, a3=300) + TAIL)
    wait_until(lambda: region.value("h", region.GIMBAL_ANGLE_2) == 10, 5, "the gimbal's angle")
    shots = service.err.text().count("Camera shot\n")
    viewer.command('{"cmd":"shot"}')
    service.err.wait("Camera shot\n", count=shots + 1)
    viewer.leave()
    for event in camera.frames():
        parse(event.data)
    assert service.running()


def test_contents_of_a_sibling(start, region, join, cameras, video, times):
    """The service starts with whatever it finds, and no frame that it sends is unsound."""
    rounds = times(3, 200)
    frames = 0
    for seed in range(rounds):
        region.close()
        region.create(contents(random.Random(seed)))
        service = start(CONF)
        camera = cameras()
        camera.send(b"\0")
        wait_until(lambda: region.u8(region.DATA_CONNECTED) == 1, 5, "the camera")
        camera.wait_frames(3)
        assert_in_order(service, region, join, camera, video)
        frames += len(camera.frames())
        camera.close()
        service.stop()
    print(f"\nscribbled regions: {rounds}, {frames} frames to the camera, all sound")


def test_sibling_that_never_stops_scribbling(start, region, join, cameras, video, times):
    """Bytes of any kind, all over the region, hundreds of times a second, while all work."""
    seconds = times(2, 60)
    chance = random.Random(2672)
    service = start(CONF)
    camera = cameras()
    viewer = join(service)
    viewer.keep_alive()

    def scribble():
        offset = chance.randrange(region.SIZE)
        region.write(offset, chance.randbytes(chance.randrange(region.SIZE - offset)))
        region.write(region.RC_STATUS, bytes([RcReader.LIVE, 0]))
        region.write(region.MENU_ACTIVE, b"\0")

    def work():
        kind = chance.choice((GIMBAL, SETTINGS, STATUS, TRACKING))
        camera.send(kind.frame(chance.randbytes(200)) + TAIL)
        video.send(b"picture")
        viewer.speed(1, chance.randrange(-4000, 4000), 0, 0)

    busy = [Neighbour(scribble, 0.003), Neighbour(work, 0.01)]
    end = time.monotonic() + seconds
    try:
        while time.monotonic() < end:
            viewer.message(11, start=len(viewer.frames))
            assert service.running()
    finally:
        for neighbour in busy:
            neighbour.stop()
    frames = len(camera.frames())
    viewer.speed(1, 0, 0, 0)
    assert_in_order(service, region, join, camera, video)
    print(f"\nscribbling sibling: {seconds} s, {frames} frames to the camera, all sound")
    assert frames > 10
