"""The packet filter between the board's interface and strangers who try all the time."""

import bench
import pytest
from machine import HOSTS, wait_until
from strangers import Strangers, let_through, strangers


@pytest.fixture
def board(machine):
    """Without a bridge: it would say what the strangers must not. It could answer those outside."""
    machine.run("systemctl mask --runtime --now board-sibling@usb-receiver.service;"
                f" ip route add default via {HOSTS[0]}; systemctl restart nimbus")
    bench.wait_service(machine)
    news(machine)
    return machine


def news(machine):
    """What the service has said since the last call."""
    return machine.run("journalctl -q -o cat -b -u nimbus --cursor-file=/run/news")


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
    found["the end"] = bool(let_through(news(board)))
    assert not any(found.values()), f"of {rounds} restarts of each, with somebody let in: {found}"
    assert sent > 200 * rounds
    figures["filter: restarts with strangers"] = {"restarts": rounds * len(RESTARTED),
                                                  "datagrams": sent, "let through": 0}


def test_without_the_filter_they_are_heard(board):
    """The strangers are no paper tigers: each way leads in."""
    board.run("systemctl mask --runtime nimbus-filter; nft delete table ip nimbus || true")
    for way, (_, trace) in Strangers.WAYS.items():
        if trace:
            board.run("systemctl restart nimbus")
            bench.wait_service(board)
            news(board)
            with strangers(way):
                wait_until(lambda: trace in news(board), 60, f"{trace} by {way}")
