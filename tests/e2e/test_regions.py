"""The shared regions: who creates them, what the service leaves alone in them, how they outlive it.
"""

import re
import stat
import struct

import pytest

from harness.region import SharedMemory, place
from harness.timing import wait_until

# Everything that a start without a configuration file sets in the display region.
OWN_BYTES = {
    "product_name": b"Tervado Nimbus\0",
    "version_text": b"v.0.3.7\0",
    "viewer_count": b"\0",
    "data_connected": b"\0",
    "video_connected": b"\0",
    "telemetry_status_text": b"telemetry disconnected\0",
    "video_status_text": b"video disconnected\0",
    "timer_state": b"\0",
    "timer_start_ms": bytes(4),
    "timer_elapsed_ms": bytes(4),
    "osd_enabled": b"\0",
    "internal_camera_enabled": b"\0",
    "internal_camera_fullscreen": b"\0",
    "focus_point_x": struct.pack("<d", 0.5),
    "focus_point_y": struct.pack("<d", 0.5),
    # Time stamps of telemetry long gone, and a command that was never taken.
    "tracking_ms": bytes(4),
    "histogram_ms": bytes(4),
    "command_mailbox": bytes(512),
}

CONFIG_SIZE = 2336
PATTERNS = (b"\xa5" * 8192, b"\xff" * 8192, bytes(i * 7 % 251 for i in range(8192)))


@pytest.fixture
def config_region():
    shared = SharedMemory("config_mem", CONFIG_SIZE)
    yield shared
    shared.close()


def with_own_bytes(before):
    """The region after a start."""
    after = bytearray(before)
    for name, value in OWN_BYTES.items():
        offset = place(name).start
        after[offset:offset + len(value)] = value
    return bytes(after)


def wait_for_own_bytes(region, before):
    """Waits until the region is as it is after a start: each thread of the service has written its
    own."""
    wait_until(lambda: region.path.read_bytes() == with_own_bytes(before), 5, "the region")


def mode(shared):
    return stat.S_IMODE(shared.path.stat().st_mode)


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077])
def test_display_region_is_created(start, region, passes, umask):
    start(umask=umask)
    passes(1)
    assert mode(region) == 0o600
    wait_for_own_bytes(region, bytes(region.SIZE))


@pytest.mark.parametrize("conf", ["", None])
@pytest.mark.parametrize("pattern", PATTERNS, ids=["a5", "ff", "mixed"])
def test_existing_display_region_is_kept(start, region, passes, pattern, conf):
    """Not one byte changes but the service's own, also while it runs."""
    before = pattern[:region.SIZE]
    region.create(before)
    start(conf)
    passes(2)
    wait_for_own_bytes(region, before)


@pytest.mark.parametrize("size", [2673, 4096, 8192])
def test_longer_display_region_keeps_its_size(start, region, passes, size):
    before = PATTERNS[2][:size]
    region.create(before)
    start()
    passes(1)
    wait_for_own_bytes(region, before)


def test_existing_display_region_keeps_its_mode(start, region):
    region.create()
    region.path.chmod(0o666)
    start()
    assert mode(region) == 0o666


@pytest.mark.parametrize("size", [0, 1, 2671])
def test_display_region_that_is_too_short(start, region, config_region, size):
    """It has no room for the fields: the start ends before its first step, in a line that says why.
    """
    before = PATTERNS[2][:size]
    region.create(before)
    service = start(wait_ready=False)
    assert service.wait_exit() == 1
    assert service.err.text() == (f"Cannot map shared memory /hud_mem: it has {size} bytes, "
                                  f"expected at least {region.SIZE}\n")
    assert service.out.bytes() == b""
    assert region.path.read_bytes() == before
    assert not config_region.path.exists()


def test_display_region_that_cannot_be_opened(start, region):
    region.path.mkdir()
    service = start(wait_ready=False)
    assert service.wait_exit() == 1
    assert re.fullmatch("Cannot map shared memory /hud_mem: .+\n", service.err.text())
    assert service.out.bytes() == b""


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077])
def test_config_region_is_created(start, config_region, passes, umask):
    start(umask=umask)
    passes(1)
    assert mode(config_region) == 0o600
    assert config_region.path.read_bytes() == bytes(CONFIG_SIZE)


@pytest.mark.parametrize("size", [0, 1, 2335, 2336, 2337, 8192])
def test_existing_config_region_is_sized(start, config_region, passes, size):
    """Its content is kept, as far as it goes; what is added is zero."""
    before = PATTERNS[2][:size]
    config_region.create(before)
    start()
    passes(1)
    assert config_region.path.read_bytes() == before[:CONFIG_SIZE].ljust(CONFIG_SIZE, b"\0")


def test_config_region_without_configuration_file(start, config_region):
    start(conf=None)
    assert config_region.path.read_bytes() == bytes(CONFIG_SIZE)


def test_config_region_is_never_written(start, region, config_region, access_point, data, join):
    """Neither settings nor runtime flags reach it: its content belongs to the siblings."""
    before = PATTERNS[2][:CONFIG_SIZE]
    config_region.create(before)
    service = start("hdmi_enabled=1\nvideo_bitrate=1\nrc_input_map=pan,tilt\nap_ssid=\"a\"")
    viewer = join(service)
    data.send(b"\0")
    wait_until(lambda: region.u8(region.DATA_CONNECTED), 5, "camera data")
    access_point.answer(0)
    viewer.message(11)
    assert config_region.path.read_bytes() == before


def test_config_region_that_cannot_be_opened(start, config_region, passes):
    """The service has no use for the region itself, and goes on without."""
    config_region.path.mkdir()
    service = start("osd_enabled=1")
    passes(2)
    assert service.running()


def test_regions_outlive_the_service(start, region, config_region, standins, passes):
    """The last values stay, and the next start attaches to the same regions."""
    first = start("osd_enabled=1\nrc_input_map=pan")
    passes(1)
    first.kill()
    left = region.path.read_bytes()
    assert left[region.OSD_ENABLED] == 1 and left[place("rc_channel_map")][:2] == b"\x00\xff"
    identities = [shared.path.stat().st_ino for shared in (region, config_region)]

    before = PATTERNS[2][:region.SIZE]
    region.write(0, before)
    config_region.write(0, before[:CONFIG_SIZE])
    standins.clear()
    start()
    passes(1)
    assert [shared.path.stat().st_ino for shared in (region, config_region)] == identities
    wait_for_own_bytes(region, before)
    assert config_region.path.read_bytes() == before[:CONFIG_SIZE]


def test_region_is_shared_live(start, region, data):
    """A sibling that mapped the region before the service sees its changes."""
    region.create()
    assert region.u8(region.OSD_ENABLED) == 0
    start("osd_enabled=1")
    assert region.u8(region.OSD_ENABLED) == 1
    data.send(b"\0")
    wait_until(lambda: region.u8(region.DATA_CONNECTED) == 1, 5, "camera data")
