"""The page of nimbus-web in real browsers, on the real service. They live on what the end-to-end
tests know of the service's neighbours."""

import ssl
import subprocess
import urllib.request

import pytest

pytest_plugins = ["harness.fixtures"]

import chromium
import firefox
from harness.console import Console
from harness.making import making
from harness.timing import limit, wait_until
from film import Film, VideoBridge

# Every address that begins with 127 counts as secure in a browser, and hides what happens without
# TLS; this one of the sandbox's own does not.
PLAIN_HOST = "10.66.0.1"
SECURE_HOST = "127.0.0.1"
PORT = 8080
ANY_CERTIFICATE = ssl._create_unverified_context()


@pytest.fixture(scope="session", autouse=True)
def plain_host(sandbox):
    """An address of this world that browsers do not trust."""
    subprocess.run(["ip", "address", "replace", f"{PLAIN_HOST}/32", "dev", "lo"], check=True)
    return PLAIN_HOST


class Web:
    """A running nimbus-web."""

    def __init__(self, binary, *options, port=PORT, secure=False):
        self.port = port
        self.scheme = "https" if secure else "http"
        self.command = [str(binary), "--service", "127.0.0.1", "--listen", f"0.0.0.0:{port}",
                        *options]
        self.start()

    def start(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE)
        self.err = Console(self.process.stderr)
        wait_until(self.healthy, 10, "nimbus-web")

    def healthy(self):
        assert self.process.poll() is None, self.err.text()
        try:
            with urllib.request.urlopen(self.address(SECURE_HOST) + "healthz", timeout=2,
                                        context=ANY_CERTIFICATE) as answer:
                return answer.status == 200
        except OSError:
            return False

    def address(self, host=PLAIN_HOST):
        return f"{self.scheme}://{host}:{self.port}/"

    def close(self):
        self.process.terminate()
        assert self.process.wait(limit(5)) == 0, self.err.text()


@pytest.fixture
def webs(build):
    """webs(OPTION...) runs nimbus-web; it must still be running at the end of the test."""
    with making(lambda *options, **more: Web(build / "nimbus-web", *options, **more)) as make:
        yield make


@pytest.fixture
def web(service, webs):
    """nimbus-web beside a service that nobody has spoken to."""
    return webs()


@pytest.fixture
def bridge():
    """Carries video to the service."""
    made = VideoBridge()
    yield made
    made.close()


@pytest.fixture
def films(bridge):
    """films(OPTIONS...) sends a live film over the bridge until the end of the test."""
    with making(lambda **options: Film(bridge.take, **options)) as make:
        yield make


@pytest.fixture
def film(films):
    """A live film."""
    return films()


@pytest.fixture
def camera(build, service):
    """nimbus-sim without video: a camera that obeys and reports."""
    process = subprocess.Popen([build / "nimbus-sim"], stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL)
    yield process
    process.kill()
    process.wait()


@pytest.fixture(scope="session")
def shared_chromium(sandbox):
    """One browser for all tests that leave it as it was."""
    made = chromium.Chromium()
    yield made
    made.close()


@pytest.fixture
def browser(shared_chromium):
    """A Chromium with an empty page and nothing remembered, as large as a phone held across."""
    shared_chromium.open("about:blank")
    shared_chromium.errors()
    shared_chromium.show((844, 390))
    yield shared_chromium
    shared_chromium.cdp("Storage.clearDataForOrigin", origin="*", storageTypes="all")
    shared_chromium.open("about:blank")


@pytest.fixture
def chromiums():
    """chromiums(...) starts one more Chromium."""
    with making(chromium.Chromium) as make:
        yield make


@pytest.fixture
def fox():
    """A Firefox."""
    made = firefox.Firefox()
    yield made
    made.close()
