"""The page over TLS, with the certificate that nimbus-web makes itself: a browser that was told to
trust it has a secure context, and all that comes with one."""

import signal
import statistics

import pytest

from harness.timing import limit
from conftest import PLAIN_HOST


@pytest.fixture
def secured(service, webs, tmp_path):
    """A nimbus-web that speaks TLS only."""
    return webs("--tls", "--state", str(tmp_path), secure=True)


@pytest.fixture
def trusting(browser):
    """A person who has read the browser's warning and gone on."""
    browser.cdp("Security.setIgnoreCertificateErrors", ignore=True)
    yield browser
    browser.open("about:blank")
    browser.cdp("Security.setIgnoreCertificateErrors", ignore=False)


def test_webcodecs_away_from_localhost(trusting, secured, camera, film):
    """What plain http cannot have: the faster player, and the screen that stays on."""
    trusting.open(secured.address(PLAIN_HOST))
    selector = trusting.picture()
    assert selector == "#canvas"
    assert trusting.run("return isSecureContext && 'wakeLock' in navigator")
    ages = trusting.ages(selector, 40)
    assert -1 not in ages and statistics.median(ages) < limit(1000), ages
    trusting.button("Drive").click()
    trusting.wait("return document.querySelector('#who').textContent === 'You drive'")
    trusting.find("#record").click()
    trusting.wait("return document.body.classList.contains('recording')")
    assert trusting.errors() == []


def test_reload_of_the_certificate(trusting, secured, film):
    """The picture of those who watch goes on, whoever comes gets the new one."""
    trusting.open(secured.address(PLAIN_HOST))
    trusting.picture()
    trusting.run("window.same = true")
    secured.process.send_signal(signal.SIGHUP)
    secured.err.wait("are read anew")
    first = int(trusting.run("return document.querySelector('#stage').dataset.shown"))
    trusting.wait("return Number(document.querySelector('#stage').dataset.shown) > arguments[0]",
                  first + 10)
    assert trusting.run("return window.same")
    trusting.open(secured.address(PLAIN_HOST))
    trusting.picture()
