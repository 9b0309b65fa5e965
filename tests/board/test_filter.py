"""The packet filter between the board's interface and strangers who try all the time."""

import bench
import pytest
from machine import wait_until
from strangers import strangers


@pytest.fixture
def board(machine):
    """Without a bridge: it would say what the strangers must not."""
    machine.run("systemctl mask --runtime --now board-sibling@usb-receiver.service;"
                " systemctl restart nimbus")
    bench.wait_service(machine)
    news(machine)
    return machine


def news(machine):
    """What the service has said since the last call."""
    return machine.run("journalctl -q -o cat -b -u nimbus --cursor-file=/run/news")


def let_through(said):
    """What only a stranger can have brought about: the end of the service, or a camera."""
    return [text for text in ("UDP read failed", "Data found", "Video found", "status=3")
            if text in said]


RESTARTED = {
    "nftables": "restart nftables",
    "the filter": "restart nimbus-filter",
    "the filter's rules": "reload nimbus-filter",
    "the service": "restart nimbus",
    "both": "restart nimbus nftables",
}


def test_never_a_moment_with_open_ports(board, viewer, times, figures):
    """Whatever is restarted."""
    rounds = times(2, 50)
    board.run("systemctl start nftables")
    viewer.keep_alive()
    found = dict.fromkeys(RESTARTED, 0)
    with strangers() as some:
        for _ in range(rounds):
            for what, command in RESTARTED.items():
                board.run(f"systemctl {command}", 120)
                bench.wait_service(board)
                found[what] += bool(let_through(news(board)))
        viewer.join()
        assert viewer.settings()["vbitrate"] == 1111
        sent = some.sent
    assert not any(found.values()), f"of {rounds} restarts of each, with somebody let in: {found}"
    figures["filter: restarts with strangers"] = {"restarts": rounds * len(RESTARTED),
                                                  "datagrams": sent, "let through": 0}


def test_without_the_filter_they_are_heard(board):
    """The strangers are no paper tigers."""
    with strangers():
        board.run("systemctl mask --runtime nimbus-filter; nft delete table ip nimbus || true")
        wait_until(lambda: let_through(news(board)), 60, "their success")
