"""A whole session with a camera, replayed and compared message by message and field by field."""

import collections
import re
import time

import pytest

from harness import recorded_session
from harness.messages import assert_messages
from harness.recorded_session import Model, Seen, without_text_tails
from harness.region import VOLATILE, DisplayRegion, differences, place
from harness.reports import REPORTS
from harness.timing import now_ms
from harness.values import decode

pytest_plugins = ["harness.reporting"]

SEEDS = (1, 2, 3)


@pytest.mark.parametrize("seed", SEEDS)
def test_replay(desk, seed):
    """Every datagram leads to its messages, its fields, its texts and its frames to the camera, and
    to nothing else."""
    model = Model(desk.memory())
    last_sight = None  # around when a tracked subject was seen: between these two
    for number, datagram in enumerate(recorded_session.generate(seed)):
        where = f"datagram {number}: {datagram.data.hex(' ')}"
        time.sleep(datagram.pause)
        start = now_ms()
        desk.bridge.send(datagram.data)
        messages = desk.settle()
        memory, end = desk.memory(), now_ms()

        tracking = [frame for frame in Model.frames(datagram.data) if len(frame) == 36]
        said, waited = "", None
        if tracking:
            said = desk.console()
            numbers = re.findall(r"Waiting restore tracking (\d+)\.\.\.\n", said)
            waited = int(numbers[0]) if numbers else None
        effects = model.take(datagram.data, Seen(memory, waited))
        stamps = effects.stamps | model.take(desk.mark, Seen(memory)).stamps

        assert_messages(messages, effects.messages, where)
        assert said == "".join(effects.texts), where
        assert desk.frames() == effects.frames, where
        found = differences(without_text_tails(model.memory), without_text_tails(memory), VOLATILE)
        assert not found, "\n".join([where, *found])
        for name in stamps:
            stamp = decode("I", memory[place(name)])
            assert (stamp - start) % 2**32 <= end - start, f"{name} is not the time; {where}"
        if waited is not None:
            assert start - last_sight[1] <= waited <= end - last_sight[0], where
        if tracking and memory[DisplayRegion.TRACKING_ON]:
            last_sight = (start, end)


@pytest.mark.parametrize("seed", SEEDS)
def test_session_has_everything(seed):
    """The sessions are worth their name: reports of every kind by the dozen, frames that are not
    taken, and the same datagrams at every run."""
    session = recorded_session.generate(seed)
    assert session == recorded_session.generate(seed)
    assert len(session) > 400
    taken = collections.Counter(len(frame) for datagram in session
                                for frame in Model.frames(datagram.data))
    assert all(taken[report.length] > 20 for report in REPORTS.values()), taken
    assert sum(taken[length] for length in (13, 20, 40, 52, 54, 61, 63, 106, 108, 255)) > 50
    starts = sum(datagram.data.count(b"\x55") for datagram in session)
    assert starts > sum(taken.values()) + 200
