"""The relay: what arrives on UDP port 5001 goes as one frame to every viewer, among the status
messages of every second."""

import collections
import contextlib
import itertools
import pathlib
import random
import re
import socket
import statistics
import struct
import subprocess
import sys
import threading
import time

import pytest

from harness.bridge import Bridge
from harness.console import Console, connected, events, lost, removed
from harness.region import FIELDS
from harness.reports import REPORTS, TAIL
from harness.service import EMULATOR, frozen
from harness.timing import TIME_SCALE, limit, wait_until
from harness.udp import DATA_PORT, VIDEO_PORT, VIEWER_PORT, socket_queue
from harness.viewer import StampedViewer

MAX_VIEWERS = 10
MAX_DATAGRAM = 60000
NOISE = random.Random(5001).randbytes(3 * MAX_DATAGRAM)
PAUSE_NS = 1_000_000  # after every send


def numbered(number, size):
    """A payload of that size that tells where it belongs and whether it is whole."""
    start = number * 61 % MAX_DATAGRAM
    return struct.pack("<II", number, size)[:size] + NOISE[start:start + max(0, size - 8)]


def number_of(payload):
    """The number of a numbered() payload, which must be whole."""
    number, size = struct.unpack_from("<II", payload)
    assert payload == numbered(number, size), "a torn payload"
    return number


def is_status(payload):
    """Whether this is one of the messages that the status loop sends."""
    return (payload[:1] == b"\x05" and payload[1] < 2 and payload[2] in (0, 2)
            and payload[3:] == bytes(4)
            or payload[:1] == b"\x06" and payload[1] in (0x01, 0x11) and payload[2] <= MAX_VIEWERS
            and payload[3:] == bytes(4)
            or payload == b"\x0b\x00\x03\x07\x02\x00\x00")


def check_header(frame):
    """Every byte of it but the counter."""
    assert frame.header[:1] + frame.header[2:4] + frame.header[8:] == b"\x42" + bytes(6)
    assert frame.header[1] in (0, 1)


def video_of(viewer):
    return [frame for frame in viewer.frames if frame.video]


def wait_video(viewer, count, seconds=5):
    """The payloads of the first `count` video frames, once they have arrived."""
    return [f.payload for f in viewer.wait_count(lambda f: f.video, count, seconds)]


@pytest.fixture
def stamped():
    """stamped(service, count) registers viewers whose frames have exact times, in slot order."""
    with contextlib.ExitStack() as ends:

        def make(service, count):
            made = [StampedViewer(f"127.0.0.{n + 1}") for n in range(count)]
            for viewer in made:
                ends.callback(viewer.close)
                viewer.register()
                service.err.wait(connected(viewer))
            return made

        yield make


# --- Frames --------------------------------------------------------------------------------------

SIZES = [1, 2, 11, 12, 13, 1400, 1472, 59999, 60000]


def test_every_viewer_gets_every_datagram(held, crowd, video):
    """Byte for byte, in order, in one frame each, whose header is the same for all and counts the
    broadcasts."""
    everybody = crowd(held, MAX_VIEWERS)
    payloads = [numbered(n, size) for n, size in enumerate(SIZES * 2)]
    for payload in payloads:
        video.send(payload)
    for viewer in everybody:
        assert wait_video(viewer, len(payloads)) == payloads
    headers = [f.header for f in everybody[0].frames]
    first = everybody[0].frames[0].counter
    assert headers == [struct.pack("<BBHIHH", 0x42, 1, 0, first + n, 0, 0)
                       for n in range(len(payloads))]
    for viewer in everybody:
        assert [f.header for f in viewer.frames] == headers


@pytest.mark.parametrize("size", [60001, 65000, 65507])
def test_longer_datagrams_are_cut(held, join, video, size):
    """To what the largest datagram of the bridge has; the next one is whole again."""
    viewer = join(held)
    payload = numbered(1, size)
    video.send(payload)
    video.send(b"next")
    assert wait_video(viewer, 2) == [payload[:MAX_DATAGRAM], b"next"]


def test_counter_counts_all_broadcasts(held, access_point, join, video, region):
    """Status messages and video alike, from 0 on, and also those that nobody received."""
    viewer = join(held)  # after the first two status messages
    video.send(b"a")
    assert viewer.wait(lambda f: f.payload == b"a").counter == 2
    viewer.leave()
    held.err.wait(removed(viewer))
    for _ in range(3):
        region.write(region.VIDEO_STATUS_TEXT[0], b"x")
        video.send(b"nobody")
        wait_until(lambda: region.u8(region.VIDEO_STATUS_TEXT[0]) == 0, 5)
    viewer.register()
    held.err.wait(connected(viewer), count=2)
    access_point.answer(1)
    assert viewer.message(6).counter == 6
    assert viewer.message(11).counter == 7
    access_point.wait_probe()
    video.send(b"b")
    assert viewer.wait(lambda f: f.payload == b"b").counter == 10
    for frame in viewer.frames:
        check_header(frame)


def test_source_address_of_the_bridge_does_not_matter(held, join):
    viewer = join(held)
    for n in range(4):
        bridge = Bridge(VIDEO_PORT, f"127.0.{n}.9")
        bridge.send(bytes([n]))
        bridge.close()
        viewer.wait(lambda f, n=n: f.payload == bytes([n]))


def receive_buffer_of(port):
    """What the system has granted the socket bound to that port, in bytes."""
    text = subprocess.run(["ss", "-uanm", "sport", "=", f":{port}"], check=True,
                          capture_output=True, text=True).stdout
    return int(text.partition(",rb")[2].split(",")[0])


def may_force_buffers():
    """Whether the system lets this user pass its limit on socket buffers."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        try:
            probe.setsockopt(socket.SOL_SOCKET, 33, 1 << 20)  # SO_RCVBUFFORCE
        except PermissionError:
            return False
    return True


def test_burst(held, crowd, video):
    """64 of the largest datagrams back to back, faster than ten viewers can be served: all arrive.
    An ordinary user's service is granted a smaller buffer, which holds a smaller burst."""
    everybody = crowd(held, MAX_VIEWERS)
    count = 64
    if not may_force_buffers():
        count = max(1, min(count, receive_buffer_of(VIDEO_PORT) // (2 * 65536)))
    payloads = [numbered(n, MAX_DATAGRAM) for n in range(count)]
    for payload in payloads:
        video.send(payload)
    for viewer in everybody:
        assert wait_video(viewer, count, 10) == payloads
    assert socket_queue(VIDEO_PORT) == (0, 0)


def test_buffers_without_privilege(launch, video, viewers):
    """The system's limit holds then, if it is less than what the bursts need."""
    service = launch(wrapper=["setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin"])
    limit = int(pathlib.Path("/proc/sys/net/core/rmem_max").read_text())
    for port, wanted in (VIEWER_PORT, 1), (DATA_PORT, 1), (VIDEO_PORT, 4):
        assert receive_buffer_of(port) == 2 * min(limit, wanted * 1024 * 1024)
    viewer = viewers()
    viewer.keep_alive()
    wait_until(lambda: viewer.frames, 5, "the registration")
    video.send(b"anything")
    viewer.wait(lambda frame: frame.payload == b"anything")
    assert service.running()


# --- Pace and order ------------------------------------------------------------------------------


# A process that does nothing but pause: how long ten pauses take this machine at the moment, in
# nanoseconds.
TEN_PAUSES = """import time
ends = [(time.sleep(0.001), time.monotonic_ns())[1] for _ in range(400)]
print(min(end - begin for begin, end in zip(ends, ends[10:])))"""


def test_pace(held, stamped, video):
    """A pause of a millisecond after every send, including the last viewer's; ten viewers take
    10 ms and little more."""
    everybody = stamped(held, MAX_VIEWERS)
    rounds = 40
    with subprocess.Popen([sys.executable, "-c", TEN_PAUSES], stdout=subprocess.PIPE) as beside:
        for n in range(rounds):
            video.send(numbered(n, 1400))
        for viewer in everybody:
            wait_video(viewer, rounds)
        pauses = int(beside.stdout.read())
    sends = [video_of(viewer)[n].time for n in range(rounds) for viewer in everybody]
    # The pause is measured by another clock than the times are.
    gaps = [after - before for before, after in itertools.pairwise(sends)]
    assert min(gaps) >= 0.999 * PAUSE_NS
    # The machine may be busy: the fastest ten in a row tell what the service itself makes of it.
    fastest = min(sends[n + MAX_VIEWERS] - sends[n] for n in range(len(sends) - MAX_VIEWERS))
    alone = (1.1 + 0.1 * (TIME_SCALE - 1)) * MAX_VIEWERS * PAUSE_NS
    assert fastest < max(alone, 1.05 * pauses)


@pytest.mark.skipif(bool(EMULATOR), reason="the emulator has a timer slack of its own")
def test_pauses_are_not_stretched(held):
    """By default the system lets any pause last 50 us longer, 5 % of this one."""
    for thread in pathlib.Path(f"/proc/{held.pid}/task").iterdir():
        assert int(pathlib.Path(f"/proc/{thread.name}/timerslack_ns").read_text()) <= 1000


def served_in_order(viewers, video, payload):
    """The viewers in the order in which they are sent that payload."""
    video.send(payload)
    times = {v: v.wait(lambda f: f.video and f.payload == payload).time for v in viewers}
    return sorted(viewers, key=times.get)


def test_lowest_free_slot_is_filled_first(held, stamped, video):
    """As seen by the order of service, which is the order of the slots."""
    first, second, third, fourth, fifth, sixth = stamped(held, 6)
    everybody = [first, second, third, fourth, fifth, sixth]
    assert served_in_order(everybody, video, b"1") == everybody
    for viewer in (fifth, second, first):
        viewer.leave()
        held.err.wait(removed(viewer))
    assert served_in_order([third, fourth, sixth], video, b"2") == [third, fourth, sixth]
    for viewer in (fifth, first, second):
        viewer.register()
        held.err.wait(connected(viewer), count=2)
    now = [fifth, first, third, fourth, second, sixth]
    assert served_in_order(everybody, video, b"3") == now


# --- What a broadcast costs ----------------------------------------------------------------------

FLAG_OF_THE_LAST = FIELDS["byte_631"][0]

# Reading the clock is no call where the kernel lends it to the process.
CLOCK_CALLS = {"clock_gettime", "clock_gettime64", "gettimeofday"}


@contextlib.contextmanager
def traced(service, file):
    """Records every system call of all threads in the file."""
    tracer = subprocess.Popen(["strace", "-f", "-o", str(file), "-p", str(service.pid)],
                              stderr=subprocess.PIPE)
    console = Console(tracer.stderr)
    try:
        console.wait(f"Process {service.pid} attached")
        yield
    finally:
        tracer.terminate()
        tracer.wait()


def calls_of_receivers(file, senders):
    """The system calls of the threads that received something from one of those, by name."""
    threads, receivers = collections.defaultdict(set), set()
    ports = tuple(f"sin_port=htons({sender.address[1]})" for sender in senders)
    for thread, text in (line.split(maxsplit=1) for line in file.read_text().splitlines()):
        # One that another thread's interrupts is shown in two pieces, both with its name.
        if call := re.match(r"(?:<\.\.\. )?(\w+)", text):
            threads[thread].add(call[1])
        if "recvmsg" in text and any(port in text for port in ports):
            receivers.add(thread)
    assert len(receivers) == len(senders), "not every sender was heard"
    return set().union(*(threads[thread] for thread in receivers)) - CLOCK_CALLS


def test_broadcast_to_nobody_is_no_system_call(unsanitized, held, join, video, data, region,
                                               tmp_path):
    """Without a viewer, the threads that relay only receive: they neither send nor sleep. With one
    they do both, as the same trace shows."""
    viewer = join(held)

    def relay():
        """Sends one report of every kind and a video datagram; returns when both are done with."""
        region.write(FLAG_OF_THE_LAST, b"\xa5")
        region.write(region.VIDEO_STATUS_TEXT[0], b"x")
        for _ in range(20):
            data.send(b"".join(report.frame() for report in REPORTS.values()) + TAIL)
            video.send(b"video")
        data.send(REPORTS["flag 17"].frame(flags=2) + TAIL)
        wait_until(lambda: region.u8(FLAG_OF_THE_LAST) == 1, 5, "the last report")
        wait_until(lambda: region.u8(region.VIDEO_STATUS_TEXT[0]) == 0, 5, "the video")

    data.send(TAIL)
    video.send(b"found")  # which is said on the console
    viewer.wait(lambda frame: frame.payload == b"found")
    held.err.wait("Data found\n")
    with traced(held, tmp_path / "with"):
        relay()
    calls = calls_of_receivers(tmp_path / "with", (data, video))
    assert calls & {"nanosleep", "clock_nanosleep", "clock_nanosleep_time64"}
    assert calls & {"sendmsg", "sendto"}

    viewer.leave()
    held.err.wait(removed(viewer))
    with traced(held, tmp_path / "without"):
        relay()
    assert calls_of_receivers(tmp_path / "without", (data, video)) == {"recvmsg"}


# --- Comings and goings --------------------------------------------------------------------------


class Stream:
    """Sends numbered datagrams to the video port as fast as `witness` gets them relayed, from a
    thread of its own. `sent` is how many there were."""

    WINDOW = 8  # datagrams on their way

    def __init__(self, video, witness, sizes):
        self._video, self._witness, self._sizes = video, witness, sizes
        self._stop = threading.Event()
        self.sent = 0
        self._thread = threading.Thread(target=self._run)

    def _run(self):
        frames, received, seen = self._witness.frames, 0, 0
        while not self._stop.is_set():
            while seen < len(frames):
                received += frames[seen].video
                seen += 1
            if self.sent - received < self.WINDOW:
                self._video.send(numbered(self.sent, next(self._sizes)))
                self.sent += 1
            else:
                time.sleep(0.0005)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._stop.set()
        self._thread.join()


def sizes_at_random(seed):
    chance = random.Random(seed)
    while True:
        yield chance.choice([8, 9, 1400, 1400, chance.randrange(8, MAX_DATAGRAM + 1), MAX_DATAGRAM])


def check_frames(viewer, stays=True):
    """Whatever a viewer has received is whole, and its video is in order. Returns the numbers of
    the video datagrams. Who does not stay may leave one slot and take a later one while a broadcast
    goes from the one to the other, and gets it twice."""
    numbers = []
    for frame in viewer.frames:
        check_header(frame)
        if frame.video:
            numbers.append(number_of(frame.payload))
        else:
            assert is_status(frame.payload), frame
    assert numbers == (sorted(set(numbers)) if stays else sorted(numbers))
    return numbers


def test_frames_stay_whole_under_all_kinds_of_traffic(steady, crowd, viewers, video, data):
    """With nine viewers, video never pauses, so that status messages run out of patience and go in
    between; meanwhile a crowd registers, leaves, commands and sends rubbish. Nobody ever gets a
    torn frame, and those who stay miss nothing."""
    stayers = crowd(steady, MAX_VIEWERS - 1)
    comers = [viewers(f"127.1.{n}.1") for n in range(4)]
    chance = random.Random(4242)
    seconds = 4

    def trouble(comer):
        acts = [comer.register, comer.register, comer.leave,
                lambda: comer.speed(1, -1, 300, -300),
                lambda: comer.command("{" + "x" * chance.randrange(2000)),
                lambda: comer.send_raw(chance.randbytes(chance.randrange(1, 100))),
                lambda: comer.send(bytes([chance.randrange(2, 256)]) + b"\xff" * 3000)]
        chance.choice(acts)()

    with Stream(video, stayers[0], sizes_at_random(1)) as stream:
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            trouble(chance.choice(comers))
            for stayer in stayers:
                if chance.random() < 0.01:
                    stayer.register()
            data.send(chance.randbytes(50))
            time.sleep(0.002)
    for stayer in stayers:
        wait_video(stayer, stream.sent)
        assert check_frames(stayer) == list(range(stream.sent))
    assert sum(len(check_frames(comer, stays=False)) for comer in comers) > 0
    # A round a second, each a little longer for waiting its turn, but none lost.
    rounds = sum(f.payload[:1] == b"\x0b" for f in stayers[-1].frames)
    assert rounds >= (seconds - 1) / limit(1.3)
    assert stream.sent > 30 * seconds / limit(1)


def test_stuck_broadcast_does_not_stop_the_others(held, access_point, crowd, video):
    """A broadcast waits for the one before it, but not for long; when that goes on at last, its
    frames are whole."""
    everybody = crowd(held, MAX_VIEWERS)
    payloads = [numbered(n, 1400) for n in range(40)]
    for payload in payloads:
        video.send(payload)
    wait_video(everybody[0], 3)
    with frozen(held):  # some viewers have got the frame that others lack
        answered = time.monotonic()
        access_point.answer(1)
        waited = everybody[0].message(6, 1).time - answered
        assert 0.05 <= waited < 0.05 + limit(0.4)
        for viewer in everybody:
            viewer.message(6, 1)
            viewer.message(11, 1)
    for viewer in everybody:
        wait_video(viewer, len(payloads))
        assert check_frames(viewer) == list(range(len(payloads)))


def test_nothing_for_a_viewer_that_left(held, stamped, video):
    """Only a frame that is on its way at that moment may still arrive."""
    leaver, stayer = stamped(held, 2)
    with Stream(video, stayer, itertools.repeat(1400)) as stream:
        wait_video(leaver, 20)
        leaver.leave()
        held.err.wait(removed(leaver))
        gone = time.time_ns()
        wait_video(stayer, stream.sent + 100)
    numbers = check_frames(leaver)
    assert numbers == list(range(len(numbers)))
    assert sum(frame.time > gone for frame in leaver.frames) <= 1


def test_no_frame_for_a_third_party(held, viewers, join, video):
    """Viewers come and go so fast that slots change hands in the middle of a broadcast. Nobody at
    the address of one and the port of another ever gets a frame."""
    stayer = join(held)
    comers = [viewers(f"127.0.5.{n + 1}") for n in range(4)]
    bystanders = [viewers(host.address[0], port.address[1])
                  for host, port in itertools.permutations(comers, 2)]
    chance = random.Random(5)
    with Stream(video, stayer, itertools.repeat(1400)) as stream:
        deadline = time.monotonic() + 3
        while time.monotonic() < deadline:
            comer = chance.choice(comers)
            comer.register()
            comer.leave()
    wait_video(stayer, stream.sent)
    assert check_frames(stayer) == list(range(stream.sent))
    assert sum(len(check_frames(comer, stays=False)) for comer in comers) > 0
    assert [b.address for b in bystanders if b.frames] == []


# --- A real encoder ------------------------------------------------------------------------------


def encode(file, seconds):
    """Runs a video encoder on a moving picture in real time: its stream goes to the video port and
    to the file."""
    subprocess.run(
        ["ffmpeg", "-v", "error", "-nostdin", "-re",
         "-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25", "-t", str(seconds), "-map", "0:v",
         "-c:v", "libx264", "-preset", "veryfast", "-tune", "zerolatency", "-threads", "1",
         "-g", "25", "-b:v", "300k", "-maxrate", "300k", "-bufsize", "100k",
         "-pix_fmt", "yuv420p", "-f", "tee",
         f"[f=h264]{file}|[f=h264]udp://127.0.0.1:{VIDEO_PORT}?pkt_size=1400"],
        check=True, timeout=limit(4 * seconds))


def decode(file):
    """A checksum of every picture in a stream, whose beginning may be missing."""
    out = subprocess.run(["ffmpeg", "-v", "quiet", "-nostdin", "-f", "h264", "-i", str(file),
                          "-f", "framemd5", "-"], check=True, capture_output=True, text=True)
    return [line.split()[-1] for line in out.stdout.splitlines() if not line.startswith("#")]


def probe(file):
    """The codec and the number of pictures that a media prober finds in a stream."""
    out = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-of", "csv=p=0",
                          "-show_entries", "stream=codec_name,nb_read_frames", str(file)],
                         check=True, capture_output=True, text=True)
    codec, count = out.stdout.strip().split(",")
    return codec, int(count)


def check_rounds(viewer):
    """From the first whole round on, a viewer got the status messages of every second in their
    order. Returns what they told of the video source, each change once."""
    messages = list(itertools.dropwhile(lambda f: f.payload[:2] != b"\x05\0",
                                        (f for f in viewer.frames if not f.video)))
    assert all(is_status(f.payload) for f in messages)
    kinds = [f.payload[0] for f in messages]
    assert kinds == [kind for kind, _ in zip(itertools.cycle([5, 5, 6, 11]), kinds)]
    times = [f.time for f in messages if f.payload[0] == 11]
    periods = [after - before for before, after in itertools.pairwise(times)]
    assert 0.99 < statistics.median(periods) < limit(1.3)
    states = [f.payload[2] for f in messages if f.payload[:2] == b"\x05\x01"]
    return [state for state, _ in itertools.groupby(states)]


@pytest.mark.timing  # an encoder that the machine stops for a second is a lost link
def test_real_encoder(steady, crowd, viewers, tmp_path):
    """Ten viewers get the stream of a real encoder and decode from it what was encoded; one of them
    falls silent and gets its beginning; an eleventh takes over the slot and gets its end."""
    everybody = crowd(steady, MAX_VIEWERS)
    silent = everybody.pop(4)
    for viewer in everybody:
        viewer.keep_alive()
    eleventh = viewers("127.7.7.7")
    eleventh.keep_alive(0.2)
    wait_until(lambda: everybody[-1].frames, 5, "the first status message")
    assert eleventh.frames == []
    original = tmp_path / "original.h264"
    encode(original, 8)
    steady.err.wait("Video lost\n", 5, count=2)
    said = "".join(map(connected, [*everybody[:4], silent, *everybody[4:]]))
    said += "Video found\n" + lost(silent) + connected(eleventh) + "Video lost\n"
    assert events(steady) == said

    stream = original.read_bytes()
    collected = {viewer: b"".join(f.payload for f in video_of(viewer))
                 for viewer in [*everybody, silent, eleventh]}
    for viewer in everybody:
        assert collected[viewer] == stream
        viewer.wait(lambda f: f.payload[:3] == b"\x05\x01\0", start=viewer.frames.index(
            video_of(viewer)[-1]))
        assert check_rounds(viewer) == [0, 2, 0]
    beginning, end = collected[silent], collected[eleventh]
    assert 0 < len(beginning) < len(stream) and stream.startswith(beginning)
    assert 0 < len(end) < len(stream) and stream.endswith(end)

    pictures = decode(original)
    assert len(pictures) == 8 * 25
    received = tmp_path / "received.h264"
    received.write_bytes(collected[everybody[0]])
    assert probe(received) == ("h264", len(pictures))
    assert decode(received) == pictures
    received.write_bytes(end)
    assert decode(received)[-25:] == pictures[-25:]
