"""Everybody at once, for as long as it takes: ten viewers, video at the relay's capacity, a hundred
reports and ten commands a second, sticks that never rest."""

import statistics

from harness.growth import GROWTH_BYTES, resources
from harness.neighbours import CONFIGURATION, MISSED_SHARE, House, periods
from harness.timing import TIME_SCALE, limit, wait_until
from harness.udp import PORTS, socket_queue

WARM_UP = 5


def test_soak(start, region, pytestconfig):
    seconds = pytestconfig.getoption("--soak-seconds")
    viewers = pytestconfig.getoption("--soak-viewers")
    service = start(CONFIGURATION)
    with House(service, region, viewers) as house:
        check_soak(house, service, seconds, viewers)


def check_soak(house, service, seconds, viewers):
    house.move_in()
    house.live(WARM_UP)
    before = resources(service)
    video, reports, commands, frames, first, versions = (
        house.video.sent, house.camera.reports, house.operator.sent, house.camera.frames,
        len(house.camera.speeds), list(house.audience.versions))
    house.live(seconds)
    after = resources(service)
    passed, missed, gap = periods(house.camera.speeds[first:])
    video, reports, commands, frames = (
        house.video.sent - video, house.camera.reports - reports, house.operator.sent - commands,
        house.camera.frames - frames)
    versions = [now - then for now, then in zip(house.audience.versions, versions)]
    house.move_out()
    print(f"""
{seconds:.0f} s with {viewers} viewers
video      {video / seconds:.1f} datagrams/s, all of them relayed to everybody in order
reports    {reports / seconds:.1f}/s; {sum(house.audience.messages) / viewers:.0f} messages to each viewer
commands   {commands / seconds:.1f}/s; {frames} frames to the camera, all sound
stream     {passed} periods of 30 ms, {missed} missed; longest gap {gap * 1000:.1f} ms
memory     {before[0] // 1024} KiB, then {after[0] // 1024} KiB; {after[1]} descriptors, {after[2]} threads
""")
    if TIME_SCALE == 1:  # a sanitizer keeps for a while what was freed
        assert after[0] <= before[0] + GROWTH_BYTES
    assert after[1:] == before[1:]
    assert missed <= 2 + MISSED_SHARE * passed
    # At capacity, reports wait for their turns; what still waited at the end is read soon.
    for port in PORTS:
        wait_until(lambda port=port: socket_queue(port)[0] == 0, 3, f"an empty {port}")
        assert socket_queue(port) == (0, 0), f"port {port} has lost something"
    assert house.audience.reports >= house.operator.asked * viewers - viewers
    assert min(versions) >= seconds / limit(1.3)
    assert statistics.mean(house.audience.video) == house.video.sent
