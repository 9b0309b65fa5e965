"""The process among others: what it inherits, what it leaves to its commands, how it ends, what it
costs."""

import contextlib
import os
import pathlib
import re
import signal
import struct
import subprocess
import threading

import pytest

from harness.console import BANNER, READY, START_TEXTS, events, time_of
from harness.growth import resources
from harness.service import SOCKETS
from harness.timing import limit, wait_until
from harness.udp import DATA_PORT, PORTS, VIDEO_PORT, VIEWER_PORT, bound_ports, udp_socket

STANDARD_DESCRIPTORS = {0, 1, 2}


def in_shell(script):
    """A command that runs the command behind it by an `exec` of that shell script."""
    return ["sh", "-c", script.replace("SERVICE", '"$0" "$@"')]


def send(port, data):
    """Sends one datagram from nobody in particular."""
    with udp_socket("127.0.0.1") as sender:
        sender.sendto(data, ("127.0.0.1", port))


# --- What it inherits ----------------------------------------------------------------------------


@pytest.mark.parametrize("closed", [(0,), (1,), (2,), (0, 1), (1, 2), (0, 1, 2)])
def test_closed_standard_descriptors(launch, region, passes, closed):
    """Nothing of the service takes their numbers: console texts go nowhere, rather than into a
    socket or a shared region."""
    region.create()
    service = launch(wrapper=in_shell("exec SERVICE " + " ".join(f"{fd}>&-" for fd in closed)))
    passes(2)
    descriptors = service.descriptors()
    assert {descriptors[fd] for fd in closed} == {"/dev/null"}
    sockets = {fd for fd, target in descriptors.items() if target.startswith("socket:")}
    assert len(sockets) == SOCKETS and sockets.isdisjoint(STANDARD_DESCRIPTORS)
    assert region.text(*region.PRODUCT_NAME) == "Tervado Nimbus"
    assert region.text(*region.VIDEO_STATUS_TEXT) == "video disconnected"


@pytest.mark.parametrize("reader_ends", ["before the start", "after the start"])
def test_console_without_reader(launch, access_point, viewers, region, data, reader_ends):
    """A pipe that nobody reads any more is no reason to end, whichever thread writes to it."""
    reader, writer = os.pipe()
    if reader_ends == "before the start":
        os.close(reader)
    service = launch(stdout=writer, stderr=writer)
    access_point.wait_probe()
    if reader_ends == "after the start":
        os.close(reader)
    os.close(writer)
    data.send(b"\0")
    wait_until(lambda: region.text(*region.TELEMETRY_STATUS_TEXT) == "", 5, "data")
    viewer = viewers()
    viewer.keep_alive()
    for _ in range(3):
        access_point.answer(1)
    assert viewer.message(11)
    wait_until(lambda: region.u8(region.DATA_CONNECTED) == 0, 5, "the loss of data")
    assert service.running()


def test_console_that_is_full(launch, passes):
    with open("/dev/full", "wb") as full:
        service = launch(stdout=full, stderr=full)
    passes(2)
    assert service.running()


@pytest.mark.parametrize("script", ["trap '' CHLD; exec SERVICE", "trap '' PIPE; exec SERVICE",
                                    "exec SERVICE"])
def test_inherited_signals(launch, access_point, join, script):
    """The status of the probe is right, whatever the parent did with its signals."""
    service = launch(wrapper=in_shell(script), stderr=subprocess.PIPE)
    viewer = join(service)
    viewer.keep_alive()
    for status in (0, 1):
        access_point.answer(status)
    flags = viewer.wait_count(lambda frame: frame.payload[0] == 6, 2)
    assert [frame.payload[1] for frame in flags] == [3, 1]


def test_boot_partition_that_cannot_be_used(launch, passes):
    """Starting needs nothing of /boot."""
    mount = "/bin/mount -t tmpfs -o ro,mode=0 none /boot && exec SERVICE"
    service = launch(wrapper=["unshare", "--mount", *in_shell(mount)])
    assert " /boot tmpfs ro" in pathlib.Path(f"/proc/{service.pid}/mounts").read_text()
    passes(2)
    assert service.running()


def test_folder_that_cannot_be_written(launch, tmp_path, passes):
    """A start needs neither a file nor room for one in the working directory."""
    console = tmp_path / "console"
    with console.open("wb") as errors:
        service = launch(conf=None, folder="/proc", stderr=errors)
    passes(2)
    assert service.running()
    texts = b"".join(START_TEXTS[1:])
    assert console.read_bytes() == texts.replace(b"file... done", b"file... failed")


def test_folder_that_is_gone(launch, tmp_path, passes):
    gone = tmp_path / "gone"
    gone.mkdir()
    service = launch(conf=None, folder=gone, wrapper=in_shell('rmdir "$PWD" && exec SERVICE'))
    assert not gone.exists()
    passes(2)
    assert service.running()


@pytest.mark.parametrize("plan", ["1", "01", "001", "111", "1" * 10])
def test_threads_that_cannot_be_created(start, preload, passes, plan):
    """The links concerned are deaf; the console says what it always says, and the status goes on.
    """
    service = start(env={**preload("fail_threads"), "FAIL_THREADS": plan})
    assert service.err.text().encode() == b"".join(START_TEXTS[1:])
    passes(1)
    heard = {VIEWER_PORT: "New client", DATA_PORT: "Data found",
             VIDEO_PORT: "Video found"}
    for port in PORTS:
        send(port, b"\x42" + bytes(13))
    for port, failed in zip(PORTS, plan.ljust(len(PORTS), "0")):
        if failed == "0":
            service.err.wait(heard.pop(port))
    passes(2)
    assert not [text for text in heard.values() if text in events(service)]


# --- What it leaves to its commands --------------------------------------------------------------


@pytest.fixture
def command(standins):
    """command() is the /proc folder of a command that the service runs, and that does not end."""
    number = standins.folder / "number"
    standins.answer("pidof", f'echo $$ >"{number}.new"\nmv "{number}.new" "{number}"\n'
                             "exec sleep 1000")

    def find():
        wait_until(number.exists, 5, "the command")
        folder = pathlib.Path("/proc") / number.read_text().strip()
        wait_until(lambda: (folder / "comm").read_text() == "sleep\n", 5, "its sleep")
        return folder

    yield find
    standins.reset("pidof")
    os.kill(int(find().name), signal.SIGKILL)


def test_command_that_outlives_the_service(start, standins, command):
    """It holds nothing that the successor needs."""
    first = start()
    folder = command()
    first.kill()
    assert folder.exists()
    assert bound_ports().isdisjoint(PORTS)
    standins.reset("pidof")
    assert start().running()
    assert folder.exists()


def test_descriptors_of_a_command(start, command):
    """A command gets the standard streams and nothing else."""
    start()
    folder = command() / "fd"
    # What it opens itself while it starts, it closes again.
    wait_until(lambda: {int(fd.name) for fd in folder.iterdir()} == STANDARD_DESCRIPTORS,
               5, "nothing but the standard streams")


def test_signals_of_a_command(launch, command):
    """What the service does with its signals is its own affair: a command finds the default."""
    launch(wrapper=in_shell("trap '' CHLD; exec SERVICE"))
    status = (command() / "status").read_text()
    ignored, blocked = (int(re.search(f"^{field}:\t(.*)", status, re.MULTILINE)[1], 16)
                        for field in ("SigIgn", "SigBlk"))
    for signum in (signal.SIGCHLD, signal.SIGPIPE):
        assert not (ignored | blocked) & 1 << signum - 1


# --- How it ends ---------------------------------------------------------------------------------


@pytest.mark.parametrize("port", PORTS)
def test_receive_failure(launch, tmp_path, passes, port):
    """Status 3, with everything written."""
    output, errors = tmp_path / "output", tmp_path / "errors"
    with output.open("wb") as out, errors.open("wb") as err:
        service = launch(stdout=out, stderr=err)
    passes(1)
    send(port, b"")
    assert service.wait_exit() == 3
    assert output.read_bytes() == BANNER
    assert errors.read_bytes() == b"".join(START_TEXTS[1:]) + b"UDP read failed\n"


@pytest.mark.parametrize("port", PORTS)
def test_receive_that_fails(start, preload, passes, port):
    """By an error of the system, not by an empty datagram."""
    service = start(env={**preload("fail_receives"), "FAIL_RECEIVE": "no memory"})
    passes(1)
    send(port, b"no memory")
    service.err.wait("UDP read failed\n")
    assert service.process.wait(limit(5)) == 3


@contextlib.contextmanager
def traffic():
    """All ports are kept busy."""
    stop = threading.Event()

    def run():
        with udp_socket("127.0.0.1") as sender:
            while not stop.wait(0.0005):
                for port in PORTS:
                    sender.sendto(b"\x42" + bytes(1000), ("127.0.0.1", port))

    threads = [threading.Thread(target=run) for _ in range(2)]
    for thread in threads:
        thread.start()
    try:
        yield
    finally:
        stop.set()
        for thread in threads:
            thread.join()


@pytest.mark.parametrize("port", PORTS)
def test_receive_failure_at_work(start, port):
    """The other threads do not notice; they must not turn the end into a crash."""
    service = start()
    with traffic():
        service.err.wait("New client", count=2)
        send(port, b"")
        assert service.wait_exit() == 3
    assert service.err.text().count("UDP read failed\n") == 1


# --- What it costs -------------------------------------------------------------------------------


@pytest.fixture
def everything(viewers, data, video):
    """everything(times) does all that neighbours do, so many times: ten viewers come, speak and
    go, the bridge sends, and strangers send what nobody should."""

    def make(times, commands=True):
        for number in range(times):
            guests = [viewers(f"127.0.0.{host}") for host in range(2, 12)]
            for guest in guests:
                guest.register(number % 2)
            payload = struct.pack("<I", number) + bytes((0, 1400, 50000)[number % 3])
            data.send(b"\x55" + payload)
            wait_until(lambda: repeat(payload, guests), 5, "the relayed video")
            for guest in guests:
                guest.speed(1, 100, -100, 0)
                if commands:
                    guest.command('{"cmd":"nothing","param":"at all"}')
                guest.send_raw(b"\x42")
                guest.send_raw(bytes(range(64)))
                guest.leave()
                guest.close()

    def repeat(payload, guests):
        """Sends the video again until every viewer, the last registered too, has received it."""
        video.send(payload)
        return all(any(frame.payload == payload for frame in list(guest.frames))
                   for guest in guests)

    return make


def test_no_allocation_after_the_start(start, preload, passes, everything, tmp_path):
    """Whatever the neighbours do, the heap is left alone, but while a command is parsed."""
    file = tmp_path / "allocations"
    service = start(env={**preload("count_allocations"), "ALLOCATION_COUNT": str(file)})

    def count():
        return struct.unpack("=Q", file.read_bytes())[0]

    passes(1)
    at_the_start = count()
    assert at_the_start > 0
    everything(6, commands=False)
    service.err.wait("Data lost", count=2)
    passes(3)
    assert count() == at_the_start


def test_nothing_grows(launch, access_point, everything):
    """Descriptors and threads are those of the start: the standard streams and the sockets."""
    service = launch()
    access_point.wait_probe()
    descriptors, threads = service.descriptors(), service.threads()
    assert len(descriptors) == len(STANDARD_DESCRIPTORS) + SOCKETS
    everything(6)
    access_point.answer(1)
    access_point.wait_probe()
    assert service.descriptors() == descriptors
    assert service.threads() == threads


def test_resident_memory(unsanitized, launch, passes, everything):
    """Under 4 MiB, also when the largest datagrams have passed through."""
    service = launch()
    everything(3)
    for port in PORTS:
        send(port, b"\xff" * 60000)
    passes(2)
    assert resources(service)[0] < 4 * 1024 * 1024


@pytest.mark.timing
def test_time_to_ready(unsanitized, start, standins, passes):
    """Under 20 ms. The best of several starts: the others tell of the machine's other work."""
    best = float("inf")
    for _ in range(20):
        service = start()
        best = min(best, time_of(service.err, READY) - service.started)
        # Until its first command runs as a program of its own, that command shares the ports.
        passes(1)
        service.kill()
        standins.clear()
        if best < 0.010:
            break
    assert best < limit(0.020)
