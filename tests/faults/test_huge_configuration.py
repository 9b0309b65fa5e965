"""Configuration files that nobody should have written, ten megabytes long."""

import random
import time

import pytest

from harness.console import READY
from harness.timing import limit

SIZE = 10_000_000
LOADED = "Loading config file... done\n"
LINE = b"rc_input_map=pan,tilt,record\nvideo_bitrate=1000\n"


def lines_by_chance():
    chance = random.Random(10)
    return b"".join(chance.randbytes(chance.randrange(300)) + b"\n" for _ in range(SIZE // 150))


FILES = {
    "random bytes": lambda: random.Random(1).randbytes(SIZE),
    "random lines": lines_by_chance,
    "one endless line": lambda: b"x" * SIZE,
    "one endless value": lambda: b"ap_ssid=" + b"x" * SIZE,
    "one endless comment": lambda: b";" * SIZE,
    "nothing but NUL": lambda: bytes(SIZE),
    "nothing but line ends": lambda: b"\r\n" * (SIZE // 2),
    "sound lines": lambda: LINE * (SIZE // len(LINE)),
    "a sound line behind": lambda: b"#" * (SIZE - 1) + b"\n" + LINE,
}


def assert_serves(viewer):
    assert viewer.message(11).payload == b"\x0b\x00\x03\x07\x02\x00\x00"


@pytest.mark.parametrize("content", FILES.values(), ids=FILES)
def test_ten_megabytes(start, join, region, content):
    conf = content()
    service = start(conf, wait_ready=False)
    service.err.wait(READY, 60)
    passed = time.monotonic() - service.started
    assert service.err.text().startswith(LOADED)
    assert_serves(join(service))
    if conf.endswith(LINE):
        assert region.bytes(region.RC_CHANNEL_MAP[0], 4) == b"\x00\x01\x02\xff"
    print(f"\nconfiguration of {len(conf) / 1e6:.0f} MB: ready after {1000 * passed:.0f} ms")
    assert passed < limit(10)


def test_folder(start, join, tmp_path):
    """It can be opened, and has no lines."""
    (tmp_path / "tervado.conf").mkdir()
    service = start(conf=None)
    assert service.err.text().startswith(LOADED)
    assert_serves(join(service))
