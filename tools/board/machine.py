"""An emulated board: a QEMU machine with a root disk, a card, a network interface, a serial
console, and a port by which its agent is told what to do.

It runs in the sandbox only (tools/sandbox/enter): its interface is a tap of the sandbox's own
network, with nothing behind it. The board is BOARD there, the sandbox has HOSTS.
"""

import base64
import contextlib
import itertools
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import time

BOARD = "10.77.0.1"
HOSTS = tuple(f"10.77.0.{n}" for n in range(2, 12))

# Emulated on a machine that does other work, too, a second lasts; nothing here measures by these.
TIME_SCALE = float(os.environ.get("NIMBUS_TIME_SCALE", "1"))

# Emulated beside other work, a board may find its card late, and the start of its network may take
# longer than the system bears.
PATIENCE = ",x-systemd.device-timeout=600s"
PATIENT_SYSTEM = "systemd.default_timeout_start_sec=600"

KINDS = {
    "amd64": ("qemu-system-x86_64", ["-M", "q35"], "ttyS0"),
    "armhf": ("qemu-system-arm", ["-M", "virt,highmem=off", "-cpu", "cortex-a15"], "ttyAMA0"),
    "arm64": ("qemu-system-aarch64", ["-M", "virt", "-cpu", "cortex-a57"], "ttyAMA0"),
}


def wait_until(condition, seconds, what):
    """Waits until condition() is true and returns its value; fails after the time limit."""
    deadline = time.monotonic() + seconds * TIME_SCALE
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise TimeoutError(f"{what}: not within {seconds * TIME_SCALE:.0f} s")
        time.sleep(0.01)
    return value


class Failed(Exception):
    """A command on the board ended with another status than 0."""


class Image:
    """What tools/board/make-image has made for an architecture."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder).resolve()
        self.architecture = self.folder.name
        self.root = self.folder / "root.img"
        self.kernel, self.initrd = self.folder / "kernel", self.folder / "initrd"

    def processor(self):
        """Options that choose the processor: the machine's own where the kernel starts on it."""
        if self.architecture != "amd64":
            return ["-accel", "tcg,thread=multi", "-smp", "2"]
        if self.runs_by_kvm():
            return ["-accel", "kvm", "-smp", "2", "-cpu", "host,-arch-capabilities"]
        # One core: of two emulated ones, one has been seen waiting for the other for good, on a
        # machine with more work than it could do.
        return ["-accel", "tcg", "-smp", "1", "-cpu", "qemu64,+ssse3,+sse4.1,+sse4.2,+popcnt"]

    def runs_by_kvm(self):
        """Whether /dev/kvm runs this kernel: there are machines on which it opens and does not."""
        answer = self.folder / "kvm"
        if not answer.exists():
            works = os.access("/dev/kvm", os.R_OK | os.W_OK) and self._starts_by_kvm()
            answer.write_text("yes" if works else "no")
        return answer.read_text() == "yes"

    def _starts_by_kvm(self):
        probe = subprocess.Popen(
            ["qemu-system-x86_64", "-M", "q35", "-accel", "kvm", "-cpu", "host,-arch-capabilities",
             "-m", "256", "-display", "none", "-nodefaults", "-no-reboot", "-serial", "stdio",
             "-kernel", self.kernel, "-append", "console=ttyS0 earlyprintk=ttyS0 panic=-1"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        try:
            said, _ = probe.communicate(timeout=20)
        except subprocess.TimeoutExpired:
            probe.kill()
            said, _ = probe.communicate()
        return b"Linux version" in said


def make_disk(base, file):
    """A root disk that has what `base` has, and takes what is written itself."""
    form = "raw" if pathlib.Path(base).suffix == ".img" else "qcow2"
    subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", form, "-b",
                    pathlib.Path(base).resolve(), file], check=True)
    return file


class Machine:
    """A board that is switched on when it is made.

    `disk` is its root, which is changed; `card` a Card or None; `log` a file for everything that is
    written to the card; `luggage` an image that is there read-only. `mount` and `options` say how
    the board's fstab has the card. A machine with `hold` stops in its boot, before it looks at the
    card, until go(). One with `state` goes on from where save_state() has left another.
    """

    def __init__(self, image, disk, folder, card=None, log=None, luggage=None,
                 mount="/boot/firmware", options="defaults", hold=False, state=None, clock=None):
        self.image, self.folder = image, pathlib.Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.began = time.monotonic()
        self._numbers = itertools.count(1)
        self._rest = b""
        self.agent, agent = socket.socketpair()
        self.qmp, qmp = socket.socketpair()
        self.console_file = self.folder / "console"
        self.console_file.write_bytes(b"")
        # An emulated timer may be late when the kernel tries it.
        if "device-timeout" not in options:
            options += PATIENCE
        command = [
            *self._computer(f"board.mount={mount} board.options={options}" + " board.hold" * hold),
            *self._ports(agent, qmp), *self._disks(disk, card, log, luggage)]
        if clock is not None:
            command += ["-rtc", f"base={clock}"]
        if state is not None:
            command += ["-incoming", f"exec:cat {state}"]
        self._errors = (self.folder / "qemu.log").open("wb")
        make_tap()
        self.process = subprocess.Popen([str(word) for word in command], pass_fds=(
            agent.fileno(), qmp.fileno()), stdin=subprocess.DEVNULL, stderr=self._errors)
        agent.close()
        qmp.close()
        try:
            self._begin(state)
        except BaseException:
            self.kill()
            raise

    def _begin(self, state):
        """Waits until the machine runs."""
        self._qmp_line()
        self.monitor("qmp_capabilities")
        if state is not None:
            wait_until(lambda: self.monitor("query-status")["status"] != "inmigrate", 60,
                       "the machine's memory")
            self.monitor("cont")

    def _computer(self, words):
        """What runs, and what its kernel is told."""
        program, kind, terminal = KINDS[self.image.architecture]
        return [program, *kind, *self.image.processor(), "-m", "512",
                "-nodefaults", "-display", "none", "-kernel", self.image.kernel, "-initrd",
                self.image.initrd, "-append",
                f"console={terminal} root=/dev/vda rw quiet loglevel=4 no_timer_check "
                f"{PATIENT_SYSTEM} {words}"]

    def _ports(self, agent, qmp):
        """Its ways to the outside."""
        return ["-device", "virtio-rng-pci", "-serial", f"file:{self.console_file}",
                "-netdev", "tap,id=net,ifname=board,script=no,downscript=no",
                "-device", "virtio-net-pci,netdev=net,mac=52:54:00:10:77:01,romfile=",
                "-device", "virtio-serial-pci", "-chardev",
                f"socket,id=agent,fd={agent.fileno()}",
                "-device", "virtserialport,chardev=agent,name=board",
                "-chardev", f"socket,id=qmp,fd={qmp.fileno()}", "-mon", "chardev=qmp,mode=control"]

    def _disks(self, disk, card, log, luggage):
        # Only the card is cut off: what the root is told to keep may wait in this machine.
        disks = ["-blockdev", f"qcow2,node-name=root,cache.no-flush=on,file.driver=file,"
                              f"file.cache.no-flush=on,file.filename={disk}",
                 "-device", "virtio-blk-pci,drive=root"]
        if card is not None:
            disks += ["-blockdev", self.card_node(card, log), "-device",
                      "virtio-blk-pci,drive=card,serial=card,id=slot"]
        if luggage is not None:
            disks += ["-blockdev", f"raw,node-name=luggage,read-only=on,file.driver=file,"
                      f"file.filename={luggage}", "-device",
                      "virtio-blk-pci,drive=luggage,serial=luggage"]
        return disks

    @staticmethod
    def card_node(card, log=None):
        """How QEMU is told of the card."""
        if log is None:
            return f"raw,node-name=card,file.driver=file,file.filename={card.file}"
        pathlib.Path(log).write_bytes(b"")
        return ("blklogwrites,node-name=card,log-super-update-interval=1,"
                f"file.driver=file,file.filename={card.file},"
                f"log.driver=file,log.filename={log}")

    def said_by_qemu(self):
        return (self.folder / "qemu.log").read_text(errors="replace")

    def held_up(self):
        """How long its processors were ready to run while the host's were not free, in seconds."""
        tasks = pathlib.Path(f"/proc/{self.process.pid}/task")
        threads = (tasks / str(one["thread-id"]) for one in self.monitor("query-cpus-fast"))
        return sum(int((one / "schedstat").read_text().split()[1]) for one in threads) / 1e9

    @contextlib.contextmanager
    def until_a_failure(self):
        """A machine that fails in there is off behind it, and shows what it has said."""
        try:
            yield
        except BaseException:
            print(self.console()[-3000:])
            self.kill()
            raise

    # --- The monitor -----------------------------------------------------------------------------

    def _qmp_line(self):
        while b"\n" not in self._rest:
            data = self.qmp.recv(65536)
            if not data:
                raise ConnectionError(f"QEMU has ended: {self.said_by_qemu()}")
            self._rest += data
        line, _, self._rest = self._rest.partition(b"\n")
        return json.loads(line)

    def monitor(self, what, **arguments):
        """A command of QEMU's monitor, and its answer."""
        self.qmp.settimeout(60 * TIME_SCALE)
        self.qmp.sendall(json.dumps({"execute": what, "arguments": arguments}).encode())
        while True:
            answer = self._qmp_line()
            if "error" in answer:
                raise Failed(f"{what}: {answer['error']['desc']}")
            if "return" in answer:
                return answer["return"]

    # --- The board -------------------------------------------------------------------------------

    def console(self):
        """What the serial console has shown."""
        return self.console_file.read_text(errors="replace")

    def wait_agent(self, seconds=300):
        """Waits until the agent takes commands."""
        deadline = time.monotonic() + seconds * TIME_SCALE
        while self._answer(deadline)[0] != "0":
            pass
        return self

    def _answer(self, deadline):
        line = b""
        while not line.endswith(b"\n"):
            self.agent.settimeout(max(0.01, deadline - time.monotonic()))
            data = self.agent.recv(1 << 20)
            if not data:
                raise ConnectionError(f"the board is off: {self.said_by_qemu()}")
            line += data
        number, status, text = line.decode().splitlines()[-1].split(" ", 2)
        return number, int(status), base64.b64decode(text).decode(errors="replace")

    def ask(self, script, seconds=60):
        """Runs a script on the board: (its exit status, what it said)."""
        number = str(next(self._numbers))
        text = base64.b64encode(script.encode()).decode()
        self.agent.sendall(f"{number} {text}\n".encode())
        deadline = time.monotonic() + seconds * TIME_SCALE
        while True:
            answer = self._answer(deadline)
            if answer[0] == number:
                return answer[1:]

    def run(self, script, seconds=60):
        """What a script on the board says; it must succeed."""
        status, said = self.ask(script, seconds)
        if status != 0:
            raise Failed(f"{script!r} ended with {status}: {said}")
        return said

    def wait(self, script, seconds=60, what=None):
        """Waits until a script on the board succeeds; returns what it says."""
        deadline = time.monotonic() + seconds * TIME_SCALE
        while (result := self.ask(script, seconds))[0] != 0:
            if time.monotonic() > deadline:
                raise TimeoutError(f"{what or script}: not within {seconds * TIME_SCALE:.0f} s")
            time.sleep(0.5)  # each try takes the board's own time
        return result[1]

    def go(self):
        """Lets a held boot go on. What the board has read of the card before is forgotten: the
        card may be another one now."""
        self.run("for d in /dev/vd?1 /dev/vd?; do blockdev --flushbufs $d; done;"
                 " echo 3 >/proc/sys/vm/drop_caches; touch /run/board-go")

    def save_state(self, file):
        """Writes the machine's memory to a file. The machine has ended then; its root disk belongs
        to the state."""
        self.monitor("stop")
        self.monitor("migrate", uri=f"exec:cat >{file}")
        wait_until(lambda: self.monitor("query-migrate").get("status") == "completed", 120,
                   "the machine's memory in a file")
        self.kill()

    def kill(self):
        """Pulls the plug."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        for sock in (self.agent, self.qmp):
            sock.close()
        self._errors.close()

    def wait_off(self, seconds=120):
        """Waits until the board has switched itself off."""
        self.process.wait(seconds * TIME_SCALE)
        self.kill()

    def switch_off(self, seconds=120):
        """Shuts the board down as a person does."""
        with contextlib.suppress(ConnectionError):
            self.agent.sendall(b"1 " + base64.b64encode(b"systemctl --no-block poweroff") + b"\n")
        self.wait_off(seconds)


def make_tap():
    """The interface of the sandbox by which the board is reached, if it is not there yet."""
    if os.environ.get("NIMBUS_SANDBOX") != "1":
        raise RuntimeError("a board runs in the sandbox only: use ./dev board")
    # In the sandbox /sys shows another network's interfaces.
    if re.search(r"^\s*board:", pathlib.Path("/proc/net/dev").read_text(), re.MULTILINE):
        return
    run = lambda text: subprocess.run(text.split(), check=True)  # noqa: E731
    run("ip tuntap add dev board mode tap")
    for host in HOSTS:
        run(f"ip addr add {host}/24 dev board")
    run("ip link set board up")
