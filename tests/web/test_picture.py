"""The live picture in real browsers, read back from the screen."""

import statistics
import time

import pytest

from harness.timing import limit, wait_until
from chromium import SHOWN
from conftest import PLAIN_HOST, SECURE_HOST


def shown(browser):
    return browser.run(SHOWN)


def stale(browser):
    return browser.run("return document.querySelector('#stale').textContent")


def plays(browser, web, host, player, lag=1000):
    """Opens the page; the picture must be live, advance, and come without a complaint."""
    browser.open(web.address(host))
    selector = browser.picture()
    assert browser.run("return document.querySelector('#stage').dataset.player") == player
    first = shown(browser)
    ages = browser.ages(selector, 40)
    assert shown(browser) > first + 10
    assert -1 not in ages and 0 <= min(ages), ages
    assert statistics.median(ages) < limit(lag), ages
    assert stale(browser) == ""
    assert browser.errors() == []


def test_chromium_on_plain_http(browser, web, film):
    """Without TLS there is no WebCodecs, and the page plays all the same."""
    plays(browser, web, PLAIN_HOST, "mse")
    assert not browser.run("return isSecureContext || 'VideoDecoder' in window")
    assert browser.run("return document.querySelector('#video').readyState") >= 2


# Counts how often a method of the browser's is called, in window.calls.
COUNTING = """
const { [arguments[1]]: method } = window[arguments[0]].prototype;
const name = arguments[1];
window.calls = 0;
window[arguments[0]].prototype[name] = function (...given) {
  window.calls += 1;
  return method.apply(this, given);
};
"""


def test_chromium_in_a_secure_context(browser, web, film):
    """The decoder, which may have few pictures, gets each of them back."""
    plays(browser, web, SECURE_HOST, "webcodecs")
    browser.run(COUNTING, "VideoFrame", "close")
    browser.wait("return window.calls > 10")


# What iPhones have in place of Media Source Extensions, made of these.
MANAGED = """
window.ManagedMediaSource = class extends MediaSource {
  constructor() { super(); window.managed = this; }
};
delete window.MediaSource;
Object.defineProperty(HTMLMediaElement.prototype, "srcObject", {
  set(source) { this.src = URL.createObjectURL(source); },
});
"""


def test_managed_media_source(browser, web, film):
    """It may want nothing for a while; then the picture goes on, and is never torn."""
    script = browser.cdp("Page.addScriptToEvaluateOnNewDocument", source=MANAGED)
    try:
        plays(browser, web, PLAIN_HOST, "mse")
        assert browser.run("return document.querySelector('#video').disableRemotePlayback")
        for pause in (0.3, 0.6, 1.1):
            browser.run("managed.dispatchEvent(new Event('endstreaming'))")
            time.sleep(pause)
            browser.run("managed.dispatchEvent(new Event('startstreaming'))")
            ages = browser.ages("#video", 40)
            assert -1 not in ages and 0 <= min(ages) and max(ages) < limit(4000), ages
        assert statistics.median(ages) < limit(1000), ages
        assert browser.errors() == []
    finally:
        browser.cdp("Page.removeScriptToEvaluateOnNewDocument", identifier=script["identifier"])


def test_managed_media_source_that_wants_nothing(browser, web, films):
    """Up to the next key picture it gets nothing."""
    films(keys=1000)
    script = browser.cdp("Page.addScriptToEvaluateOnNewDocument", source=MANAGED)
    try:
        browser.open(web.address())
        browser.picture()
        browser.run(COUNTING, "SourceBuffer", "appendBuffer")
        browser.wait("return window.calls > 10")
        browser.run("managed.dispatchEvent(new Event('endstreaming'))")
        browser.wait("return !managed.sourceBuffers[0].updating")
        time.sleep(0.1)
        calls = browser.run("return window.calls")
        time.sleep(0.5)
        assert browser.run("return window.calls") == calls
    finally:
        browser.cdp("Page.removeScriptToEvaluateOnNewDocument", identifier=script["identifier"])


def test_firefox(fox, web, film):
    plays(fox, web, PLAIN_HOST, "mse", lag=1500)


@pytest.mark.parametrize("host", [PLAIN_HOST, SECURE_HOST], ids=["mse", "webcodecs"])
def test_no_creep(pytestconfig, browser, web, film, host):
    """After ten minutes the picture is as old as in the first one."""
    if not pytestconfig.getoption("--long"):
        pytest.skip("takes eleven minutes: --long")
    browser.open(web.address(host))
    selector = browser.picture()
    time.sleep(6)
    started = time.monotonic()
    first = statistics.median(browser.ages(selector, 1400))
    time.sleep(max(0, started + 600 - time.monotonic()))
    last = statistics.median(browser.ages(selector, 1400))
    print(f"{first:.1f} ms in the first minute, {last:.1f} ms ten minutes later")
    assert last - first < limit(30)
    assert browser.errors() == []


def test_joins_between_two_key_pictures(browser, web, films):
    """The key picture is seconds old when the page comes: it starts with what was kept."""
    films(keys=250)
    browser.open(web.address())
    browser.picture()
    time.sleep(limit(2))
    begun = time.monotonic()
    browser.open(web.address())
    browser.picture()
    assert time.monotonic() - begun < limit(4)
    assert -1 not in browser.ages("#video", 10)


# A browser that takes its time to say what it can decode.
SLOW_TO_SAY = """
const { isConfigSupported } = VideoDecoder;
VideoDecoder.isConfigSupported = async (config) => {
  await new Promise((resolve) => setTimeout(resolve, 700));
  return isConfigSupported.call(VideoDecoder, config);
};
"""


def test_what_comes_while_the_browser_thinks(browser, web, films):
    """With WebCodecs, the key picture is there before the decoder, and the next one far away."""
    films(keys=500)
    browser.open(web.address())
    browser.picture()
    time.sleep(limit(1.5))
    script = browser.cdp("Page.addScriptToEvaluateOnNewDocument", source=SLOW_TO_SAY)
    try:
        begun = time.monotonic()
        browser.open(web.address(SECURE_HOST))
        assert browser.picture() == "#canvas"
        assert time.monotonic() - begun < limit(5)

        def live():
            ages = browser.ages("#canvas", 10)
            return min(ages) >= 0 and max(ages) < limit(1000)

        wait_until(live, 5, "a live picture")
        assert browser.errors() == []
    finally:
        browser.cdp("Page.removeScriptToEvaluateOnNewDocument", identifier=script["identifier"])


def test_decoder_that_gives_up(browser, web, films):
    """The other player's picture is seen then, and what the first one left is not."""
    first = films()
    browser.open(web.address(SECURE_HOST))
    assert browser.picture() == "#canvas"
    browser.run("VideoDecoder.isConfigSupported = async () => ({ supported: false })")
    first.close()
    films(scale="1280:720")
    browser.wait("return document.querySelector('#stage').dataset.player === 'mse' &&"
                 " document.querySelector('#video').videoWidth === 1280", seconds=20)
    assert browser.run("return ['#video', '#canvas'].map((one) =>"
                       " document.querySelector(one).checkVisibility())") == [True, False]
    last = shown(browser)
    wait_until(lambda: shown(browser) > last, 10, "a picture of the other player")
    assert -1 not in browser.ages("#video", 20)


def test_whoever_watches_says_nothing(browser, web, film):
    """But what keeps the connection."""
    browser.open(web.address())
    browser.picture()
    browser.hear()
    time.sleep(2)
    assert {one["type"] for one in browser.run("return window.said")} == {"ping"}


def test_loss(browser, web, bridge, film):
    """Two datagrams of a hundred are lost: what is shown is never torn, and goes on."""
    bridge.lose = lambda number: number % 50 == 0
    browser.open(web.address())
    selector = browser.picture()
    first = shown(browser)
    ages = browser.ages(selector, 60)
    assert -1 not in ages, "a torn code was shown"
    wait_until(lambda: shown(browser) > first + 25, 20, "going on")
    assert browser.errors() == []


def test_service_restarts(browser, start, webs, film):
    """The picture comes back by itself, and nobody takes the old one for live meanwhile."""
    service = start()
    browser.open(webs().address())
    selector = browser.picture()
    service.stop()
    browser.wait("return document.querySelector('#stale').textContent.includes('stale since')")
    assert browser.run("return !document.querySelector('#curtain').hidden")
    start()
    browser.wait("return document.querySelector('#stale').textContent === ''", seconds=20)
    last = shown(browser)
    wait_until(lambda: shown(browser) > last, 10, "new pictures")
    assert -1 not in browser.ages(selector, 10)


def test_bridge_pauses(browser, web, bridge, film, times):
    """A bridge that stops, for longer than a browser keeps patience with a stalled element."""
    browser.open(web.address())
    selector = browser.picture()
    bridge.silent = True
    browser.wait("return document.querySelector('#stale').textContent.includes('stale since')")
    time.sleep(times(4, 10))
    bridge.silent = False
    browser.wait("return document.querySelector('#stale').textContent === ''", seconds=20)
    ages = browser.ages(selector, 40)[20:]
    assert -1 not in ages and statistics.median(ages) < limit(1000), ages


def test_other_resolution(browser, web, films):
    """Another size of the stream starts without a reload."""
    first = films()
    browser.open(web.address())
    browser.picture()
    browser.run("window.same = true")
    first.close()
    films(scale="1280:720")
    browser.wait("const { videoWidth: w, videoHeight: h } = document.querySelector('#video');"
                 "return w === 1280 && h === 720", seconds=20, what="the larger picture")
    assert -1 not in browser.ages("#video", 20)
    assert browser.run("return window.same")
    assert browser.errors() == []


def test_snapshot(browser, web, film, tmp_path):
    """The picture is saved as PNG, in its own size."""
    browser.cdp("Browser.setDownloadBehavior", behavior="allow", downloadPath=str(tmp_path))
    browser.open(web.address())
    browser.picture()
    browser.find("#snapshot").click()
    wait_until(lambda: list(tmp_path.glob("nimbus-*.png")), 10, "the file")
    file = next(tmp_path.glob("nimbus-*.png"))
    wait_until(lambda: file.stat().st_size > 1000, 5, "its content")
    data = file.read_bytes()
    assert data.startswith(b"\x89PNG")
    assert (int.from_bytes(data[16:20], "big"), int.from_bytes(data[20:24], "big")) == (640, 360)


def test_transport_stream(browser, web, bridge):
    """What no browser plays is named instead of a black picture."""
    packet = b"\x47\x00\x11\x10" + bytes(184)

    def named():
        bridge.take(packet * 7)
        return "MPEG-TS" in stale(browser)

    browser.open(web.address())
    wait_until(named, 10, "the name of the stream")
    browser.open(web.address())  # it is known already
    browser.wait("return document.querySelector('#foot').textContent !== ''")
    wait_until(named, 10, "the name of the stream")
    time.sleep(1.5)  # and silent for a second
    wait_until(named, 10, "the name of the stream")


@pytest.mark.parametrize("host", [PLAIN_HOST, SECURE_HOST])
def test_h265_and_back(browser, web, films, host):
    """H.265 is played where the browser can, and else named; H.264 after it plays without a
    reload."""
    first = films(codec="hevc")
    browser.open(web.address(host))
    named = ("The video is H.265, which this browser does not play: choose H.264 on the camera, or"
             " open the page in a browser that plays H.265.")
    found = browser.wait("const stage = document.querySelector('#stage');"
                         "return Number(stage.dataset.shown) > 0 ? 'plays' :"
                         " document.querySelector('#stale').textContent === arguments[0]"
                         " ? 'named' : null", named, seconds=20)
    if found == "plays":
        assert -1 not in browser.ages(browser.picture(), 10)
    browser.run("window.same = true")
    first.close()
    films()
    browser.wait("return document.querySelector('#stale').textContent === '' &&"
                 " Number(document.querySelector('#stage').dataset.shown) > 0", seconds=20)
    assert -1 not in browser.ages(browser.picture(), 20)
    assert browser.run("return window.same")
    assert browser.errors() == []
