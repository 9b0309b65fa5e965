"""Steering with the page, and every way to let go: what counts is what comes out at the bridge."""

import json
import struct
import subprocess
import threading
import time
import urllib.request

import pytest
from selenium.webdriver.common.keys import Keys

from harness.bridge import Bridge
from harness.timing import limit, wait_until
from harness.udp import DATA_PORT
from conftest import PLAIN_HOST

STOPS_WITHIN = 0.4  # s from letting go to the frame of zeros
MISSED_WITHIN = 0.3 + STOPS_WITHIN  # s, when the page cannot say it and the server has to miss it


class Gimbal:
    """The bridge's end: what speeds reach the gimbal, and when."""

    def __init__(self):
        self.bridge = Bridge(DATA_PORT)
        self.bridge.keep_sending(b"\0", 0.2)
        self.speeds = []  # (wall clock, (pan, roll, tilt))
        threading.Thread(target=self._listen, daemon=True).start()

    def _listen(self):
        while True:
            try:
                data = self.bridge.socket.recv(2048)
            except OSError:
                return
            if len(data) == 20 and data[9:11] == b"\x04\x0c":
                self.speeds.append((time.time(), struct.unpack_from("<3h", data, 11)))

    def moves(self, since=0.0):
        return [speed for at, speed in self.speeds if any(speed) and at > since]

    def wait_moves(self):
        start = time.time()
        wait_until(lambda: len(self.moves(start)) > 3, 10, "a movement")

    def wait_rest(self, let_go, within=STOPS_WITHIN):
        """Waits until nothing moves; the frame that stops it must not be later than allowed after
        the moment of letting go, and none that moves must follow it."""
        self.wait_zero()
        time.sleep(0.3)
        assert not any(self.speeds[-1][1])
        moved = max(at for at, speed in self.speeds if any(speed))
        late = min(at for at, _ in self.speeds if at > moved) - let_go
        print(f"stopped {1000 * late:.0f} ms after it was let go")
        assert late < limit(within), late

    def wait_zero(self):
        wait_until(lambda: self.speeds and not any(self.speeds[-1][1]), 5, "the rest")

    def close(self):
        self.bridge.close()


@pytest.fixture
def gimbal(service):
    made = Gimbal()
    yield made
    made.close()


@pytest.fixture
def page(browser, gimbal, web):
    """An open page that nobody drives from."""
    browser.open(web.address())
    browser.wait("return document.querySelector('#who').textContent === 'Nobody drives' &&"
                 " !document.querySelector('#take').disabled")
    return browser


# Notes the first moment of each kind of event, before the page's own listeners.
NOTES = """
window.noted = {};
for (const kind of ["pointerup", "pointercancel", "blur", "keyup"]) {
  addEventListener(kind, () => { window.noted[kind] ??= Date.now() / 1000; }, true);
}
document.addEventListener("visibilitychange", () => {
  if (document.hidden) window.noted.hidden ??= Date.now() / 1000;
}, true);
"""


def hold_stick(browser, selector="#stick", right=40, down=0):
    browser.run(NOTES)
    stick = browser.find(selector)
    browser.actions.move_to_element(stick).click_and_hold().move_by_offset(right, down).perform()


def went_on(page, gimbal):
    """Whether the page has said no rest since hear(), and the gimbal moves."""
    said = page.said("speed")
    return (len(said) > 3 and all(one["pan"] or one["tilt"] or one["roll"] for one in said)
            and gimbal.moves(time.time() - 0.5))


def noted(browser, kind):
    return browser.wait("return window.noted[arguments[0]]", kind)


def test_release(page, gimbal):
    hold_stick(page)
    gimbal.wait_moves()
    pan, roll, tilt = gimbal.moves()[-1]
    assert 0 < pan <= 1000 and roll == 0 and tilt == 0
    page.actions.release().perform()
    gimbal.wait_rest(noted(page, "pointerup"))
    assert page.run("return document.querySelector('#who').textContent") == "You drive"


def test_rest_is_said(page, gimbal):
    """By the page itself, at once, and three times: the server need not miss it first."""
    page.hear()
    page.actions.key_down(Keys.ARROW_RIGHT).perform()
    gimbal.wait_moves()
    at_once = page.run("document.body.dispatchEvent(new KeyboardEvent('keyup', { code:"
                       " 'ArrowRight', bubbles: true })); return window.said.at(-1)")
    assert (at_once["type"], at_once["pan"]) == ("speed", 0)
    page.actions.key_up(Keys.ARROW_RIGHT).perform()

    def rests():
        last = [(one["pan"], one["tilt"], one["roll"]) for one in page.said("speed")[-3:]]
        return last == [(0, 0, 0)] * 3

    wait_until(rests, 5, "three words of rest")


def test_escape(page, gimbal):
    """It stops the gimbal while a key is still held."""
    page.actions.key_down(Keys.ARROW_RIGHT).perform()
    gimbal.wait_moves()
    page.keys(Keys.ESCAPE)
    gimbal.wait_rest(time.time())
    page.actions.key_up(Keys.ARROW_RIGHT).perform()


def wait_linked(page):
    page.wait("return fetch('/api/state').then((answer) => answer.json()).then(({ service }) =>"
              " service.linked)")


def command_speed(page):
    """As a person does who has found it among all commands; their dialog stays open."""
    wait_linked(page)
    page.find("#more").click()
    page.wait("return document.querySelector('dialog[open]')")
    page.run("const form = [...document.querySelectorAll('dialog form')].find((one) =>"
             " one.textContent.includes('0 0 0 ends it'));"
             "['1', '0', '0'].forEach((value, i) =>"
             " (form.querySelectorAll('input')[i].value = value)); form.requestSubmit()")


def test_escape_ends_what_a_command_moves(page, gimbal):
    """Also in the dialog in which it was commanded."""
    command_speed(page)
    gimbal.wait_moves()
    page.keys(Keys.ESCAPE)
    gimbal.wait_rest(time.time())


# Notes that the page has heard of a movement: behind the page's own listener, of the connection on
# which it says something each second.
HEARS_OF_MOVING = """
const { send } = WebSocket.prototype;
WebSocket.prototype.send = function (text) {
  WebSocket.prototype.send = send;
  this.addEventListener("message", ({ data }) => {
    window.moving ||= JSON.parse(data).driving?.moving;
  });
  window.hears = true;
  return send.call(this, text);
};
"""


def test_escape_ends_what_a_program_moves(page, web, gimbal):
    """Nobody drives then."""
    wait_linked(page)
    page.run(HEARS_OF_MOVING)
    page.wait("return window.hears")
    order = json.dumps({"words": ["gimbal", "speed", "1", "0", "0"]}).encode()
    with urllib.request.urlopen(urllib.request.Request(
            web.address() + "api/command", data=order,
            headers={"Content-Type": "application/json"}), timeout=5) as answer:
        assert answer.status == 200
    gimbal.wait_moves()
    page.wait("return window.moving")
    assert page.run("return document.body.dataset.driver") == "none"
    page.keys(Keys.ESCAPE)
    gimbal.wait_rest(time.time())


def test_stick_ends_what_a_command_moves(page, gimbal):
    """Whoever has no Escape key touches a stick, and lets it go."""
    command_speed(page)
    gimbal.wait_moves()
    page.run("document.querySelector('dialog').close()")
    hold_stick(page, right=-60)
    page.actions.release().perform()
    gimbal.wait_rest(noted(page, "pointerup"))


def test_escape_is_said_by_whoever_drives(page, gimbal):
    """Though the page itself moves nothing."""
    page.hear()
    page.keys(Keys.ESCAPE)
    time.sleep(0.3)
    page.find("#take").click()
    page.wait("return document.body.dataset.driver === 'me'")
    assert page.said("speed") == []
    page.keys(Keys.ESCAPE)
    page.wait("return window.said.some(({ type }) => type === 'speed')")
    assert {(one["pan"], one["tilt"], one["roll"]) for one in page.said("speed")} == {(0, 0, 0)}


def test_up_is_up_and_roll_is_roll(page, gimbal):
    hold_stick(page, down=-40, right=0)
    gimbal.wait_moves()
    pan, roll, tilt = gimbal.moves()[-1]
    assert (pan, roll) == (0, 0) and tilt > 0
    page.actions.release().perform()
    gimbal.wait_rest(noted(page, "pointerup"))
    hold_stick(page, "#rollstick")
    gimbal.wait_moves()
    pan, roll, tilt = gimbal.moves()[-1]
    assert (pan, tilt) == (0, 0) and roll > 0
    page.actions.release().perform()
    gimbal.wait_rest(noted(page, "pointerup"))


def test_pointer_cancelled(page, gimbal):
    """A call comes in, the system takes the finger."""
    page.run(NOTES)
    box = page.find("#stick").rect
    x, y = box["x"] + box["width"] / 2, box["y"] + box["height"] / 2
    page.cdp("Emulation.setTouchEmulationEnabled", enabled=True)
    try:
        page.cdp("Input.dispatchTouchEvent", type="touchStart", touchPoints=[{"x": x, "y": y}])
        page.cdp("Input.dispatchTouchEvent", type="touchMove", touchPoints=[{"x": x, "y": y - 50}])
        gimbal.wait_moves()
        page.cdp("Input.dispatchTouchEvent", type="touchCancel", touchPoints=[])
        gimbal.wait_rest(noted(page, "pointercancel"))
    finally:
        page.cdp("Emulation.setTouchEmulationEnabled", enabled=False)


def test_window_loses_the_focus(page, gimbal):
    hold_stick(page)
    gimbal.wait_moves()
    page.run("dispatchEvent(new Event('blur'))")
    gimbal.wait_rest(noted(page, "blur"))
    page.actions.release().perform()


def test_hidden_tab(page, gimbal):
    """Another tab comes to the front."""
    hold_stick(page)
    gimbal.wait_moves()
    own = page.driver.current_window_handle
    page.driver.switch_to.new_window("tab")
    try:
        gimbal.wait_zero()
    finally:
        page.driver.close()
        page.driver.switch_to.window(own)
    gimbal.wait_rest(noted(page, "hidden"))
    page.actions.release().perform()


def test_closed_tab(page, gimbal):
    own = page.driver.current_window_handle
    address = page.driver.current_url
    page.driver.switch_to.new_window("tab")
    try:
        page.open(address)
        page.wait("return !document.querySelector('#take').disabled")
        hold_stick(page)
        gimbal.wait_moves()
    finally:
        page.driver.close()
        let_go = time.time()
        page.driver.switch_to.window(own)
    gimbal.wait_rest(let_go)


def test_busy_page(page, gimbal):
    """The page's thread does nothing for a second: the server notices."""
    hold_stick(page)
    gimbal.wait_moves()
    busy = page.run("const start = Date.now(); while (Date.now() - start < 1000); return start")
    at = busy / 1000
    while_busy = [(t, speed) for t, speed in gimbal.speeds if at < t < at + 0.95]
    stopped = min(t for t, speed in while_busy if not any(speed)) - at
    print(f"stopped {1000 * stopped:.0f} ms after the page had stopped")
    assert stopped < MISSED_WITHIN, stopped
    assert not [t for t, speed in while_busy if any(speed) and t > at + stopped]
    page.actions.release().perform()
    gimbal.wait_rest(noted(page, "pointerup"))


@pytest.fixture
def own_page(gimbal, web, chromiums):
    """A page in a browser that will not survive the test."""
    made = chromiums()
    made.open(web.address())
    made.wait("return !document.querySelector('#take').disabled")
    return made


def test_killed_browser(own_page, gimbal):
    hold_stick(own_page)
    gimbal.wait_moves()
    let_go = time.time()
    own_page.process.kill()
    gimbal.wait_rest(let_go, MISSED_WITHIN)


def test_pulled_cable(page, gimbal, plain_host):
    """The network between browser and board swallows everything."""
    hold_stick(page)
    gimbal.wait_moves()
    try:
        subprocess.run(["ip", "address", "del", f"{PLAIN_HOST}/32", "dev", "lo"], check=True)
        gimbal.wait_rest(time.time(), MISSED_WITHIN)
    finally:
        subprocess.run(["ip", "address", "replace", f"{PLAIN_HOST}/32", "dev", "lo"], check=True)
        page.actions.release().perform()


def test_arrow_keys(page, gimbal):
    """For as long as they are down; two at a time are a diagonal."""
    page.run(NOTES)
    page.actions.key_down(Keys.ARROW_LEFT).key_down(Keys.ARROW_UP).perform()
    gimbal.wait_moves()
    pan, _, tilt = gimbal.moves()[-1]
    assert pan < 0 < tilt
    page.actions.key_up(Keys.ARROW_LEFT).key_up(Keys.ARROW_UP).perform()
    gimbal.wait_rest(time.time() if not page.run("return window.noted.keyup")
                     else page.run("return window.noted.keyup") + 0.05)


# What is held, by its name, its name with Shift, and its place; and what has the focus.
SHIFTED = [(",", "<", "Comma", "body"), (",", ";", "Comma", "body"),
           ("ArrowLeft", "4", "Numpad4", "body"), ("ArrowLeft", "4", "Numpad4", "#stick")]


@pytest.mark.parametrize("key, shifted, place, focus", SHIFTED)
def test_key_let_go_under_shift(page, gimbal, key, shifted, place, focus):
    """It has another name then, and is the same key."""
    def press(kind, name, code, shift):
        page.cdp("Input.dispatchKeyEvent", type=kind, key=name, code=code, modifiers=8 * shift)

    page.run("document.querySelector(arguments[0]).focus()", focus)
    press("rawKeyDown", key, place, 0)
    gimbal.wait_moves()
    press("rawKeyDown", "Shift", "ShiftLeft", 1)
    press("keyUp", shifted, place, 1)
    gimbal.wait_rest(time.time())
    let_go = time.time()
    press("keyUp", "Shift", "ShiftLeft", 0)
    time.sleep(0.3)
    assert not gimbal.moves(let_go)


# A pad whose axes the test moves; browsers have no other way to be given one.
PAD = """
window.pad = { index: 0, connected: true, axes: [0, 0, 0, 0], buttons: [], timestamp: 1,
  mapping: "standard", id: "pad" };
window.looks = 0;
navigator.getGamepads = () => { window.looks += 1; return [window.pad]; };
const event = new Event("gamepadconnected");
event.gamepad = window.pad;
dispatchEvent(event);
window.push = (pan, tilt) => { pad.axes = [pan, tilt, 0, 0]; pad.timestamp += 1; };
window.tremble = setInterval(() => { if (!window.frozen) pad.timestamp += 1; }, 10);
"""


def looked_at(page):
    """Waits until the page, which has the focus, has seen where the pad's sticks are."""
    page.cdp("Page.bringToFront")
    before = page.run("return window.looks")
    page.wait("return window.looks > arguments[0] + 1", before, what="a look at the pad")


def test_gamepad(page, gimbal):
    page.run(PAD)
    looked_at(page)
    page.run("push(0.8, 0)")
    gimbal.wait_moves()
    let_go = time.time()
    page.run("pad.connected = false")
    gimbal.wait_rest(let_go + 0.1)


# How far a stick is when its pad falls silent, for how many seconds it still counts, and for how
# many at most: a hand trembles, but not at the end of a stick's way.
@pytest.mark.parametrize("far, counts, most", [(0.6, 2, 8), (1, 7, 15)])
def test_gamepad_that_froze(page, gimbal, far, counts, most):
    """After a lost radio link browsers go on with the last axes: nothing moves by them before the
    stick was at rest."""
    page.run(PAD.replace("axes: [0, 0, 0, 0]", "axes: [0.9, 0, 0, 0]"))
    looked_at(page)
    time.sleep(0.5)
    assert not gimbal.moves()
    page.run("push(0, 0)")
    looked_at(page)
    page.run("push(arguments[0], 0)", far)
    gimbal.wait_moves()
    page.run("window.frozen = true")
    time.sleep(counts)
    assert any(gimbal.speeds[-1][1]), "a pad that is held still is given up too soon"
    wait_until(lambda: not any(gimbal.speeds[-1][1]), most - counts, "rest of a silent pad")
    page.wait("return document.querySelector('#toasts').textContent.includes('centre its sticks')")


def test_maximum_and_curve(page, gimbal):
    """The operator's maximum holds at the gimbal, and is remembered by the browser."""
    page.find("#help").click()
    page.wait("return document.querySelector('dialog [aria-label=\"Fastest speed\"]')")
    page.run("const fastest = document.querySelector('dialog [aria-label=\"Fastest speed\"]');"
             "fastest.value = 20; fastest.dispatchEvent(new Event('input'))")
    page.driver.refresh()
    page.wait("return !document.querySelector('#take').disabled")
    hold_stick(page, right=90)
    gimbal.wait_moves()
    wait_until(lambda: [abs(pan) for pan, _, _ in gimbal.moves()[-3:]] == [200] * 3, 5,
               "the maximum")
    assert max(abs(pan) for pan, _, _ in gimbal.moves()) == 200
    page.actions.release().perform()
    gimbal.wait_rest(noted(page, "pointerup"))


def test_two_browsers_and_one_lease(page, gimbal, web, chromiums):
    """One drives, the other sees who, asks, and gets it by consent."""
    other = chromiums()
    other.open(web.address())
    other.wait("return !document.querySelector('#take').disabled")
    hold_stick(page)
    gimbal.wait_moves()
    other.wait("return document.querySelector('#who').textContent.endsWith(' drives') &&"
               " document.querySelector('#take').textContent === 'Ask'")
    page.actions.release().perform()
    gimbal.wait_rest(noted(page, "pointerup"))
    start = time.time()
    hold_stick(other)
    other.wait("return document.querySelector('#alerts').textContent.includes('Ask for control')")
    other.actions.release().perform()
    assert not gimbal.moves(start), "moved without the lease"
    other.find("#take").click()
    page.button("Hand over", "#ask").click()
    other.wait("return document.querySelector('#who').textContent === 'You drive'")
    page.wait("return document.body.dataset.driver === 'other'")
    hold_stick(other)
    gimbal.wait_moves()
    other.actions.release().perform()
    gimbal.wait_rest(noted(other, "pointerup"))


def test_whoever_drives_may_rest(page, gimbal):
    """A driver that does nothing for longer than 3 s is asked before another one gets the lease."""
    page.run("window.other = new WebSocket(`ws://${location.host}/ws/control`)")
    page.find("#take").click()
    page.wait("return document.body.dataset.driver === 'me'")
    time.sleep(3.5)
    page.run("other.send('{\"type\":\"take\"}')")
    assert page.button("Hand over", "#ask")
    assert page.run("return document.body.dataset.driver") == "me"


@pytest.fixture
def asked(page, gimbal):
    """asked() has one more ask the page, which drives, for control."""
    def ask():
        page.run("window.other = new WebSocket(`ws://${location.host}/ws/control`);"
                 "other.onopen = () => other.send('{\"type\":\"take\"}')")
        page.wait("return document.querySelector('#ask').checkVisibility() &&"
                  " document.querySelector('#asks').textContent === arguments[0]",
                  f"{PLAIN_HOST} asks for control.")

    return ask


def test_question_stops_nothing(page, gimbal, asked):
    """Whoever pans goes on, and answers with a hand that is free."""
    hold_stick(page)
    gimbal.wait_moves()
    page.hear()
    asked()
    time.sleep(1)
    assert went_on(page, gimbal)
    page.actions.release().perform()
    gimbal.wait_rest(noted(page, "pointerup"))


@pytest.mark.parametrize("times, driver", [(1, "other"), (2, "me")], ids=["gives", "keeps"])
def test_question_by_keyboard(page, gimbal, asked, times, driver):
    page.find("#take").click()
    page.wait("return document.body.dataset.driver === 'me'")
    asked()
    page.run("document.querySelector('#take').focus()")
    page.keys(*[Keys.TAB] * times, Keys.ENTER)
    page.wait("return document.querySelector('#ask').hidden")
    assert page.run("return document.body.dataset.driver") == driver


def test_question_over_a_dialog(page, gimbal, asked):
    """It can be read and answered there, and asked again."""
    page.find("#take").click()
    page.wait("return document.body.dataset.driver === 'me'")
    page.find("#help").click()
    page.wait("return document.querySelector('dialog[open]')")
    for _ in range(2):
        asked()
        page.button("Keep", "#ask").click()
        page.wait("return document.querySelector('#ask').hidden")
    assert page.run("return document.querySelector('dialog[open]') !== null")
    asked()
    page.run("document.querySelector('dialog').close()")
    page.wait("return !document.querySelector('dialog')")
    page.run("other.close()")
    page.wait("return document.querySelector('#ask').hidden")


def test_control_that_comes_late(page, gimbal):
    """What the page hears before, that nobody has it, is no refusal."""
    page.run("window.other = new WebSocket(`ws://${location.host}/ws/control`)")
    page.wait("return other.readyState === 1")
    page.run("const { send } = WebSocket.prototype; WebSocket.prototype.send = function (text) {"
             " if (!text.includes('\"take\"')) return send.call(this, text);"
             " other.close(); setTimeout(() => send.call(this, text), 200); }")
    hold_stick(page)
    gimbal.wait_moves()
    page.actions.release().perform()
    gimbal.wait_rest(noted(page, "pointerup"))


def test_control_when_the_connection_goes(page, gimbal):
    """It is said at once, before there is another one."""
    page.run("const { send } = WebSocket.prototype; WebSocket.prototype.send = function (text) {"
             " if (text.includes('\"take\"')) this.close(); else send.call(this, text); }")
    hold_stick(page)
    page.wait("return document.querySelector('#alerts').textContent ==="
              " 'There is no connection to the board.'")
    page.actions.release().perform()


def test_control_that_does_not_come(page, gimbal):
    """Nobody has it, and the board says nothing: the page makes nobody up."""
    page.run("const { send } = WebSocket.prototype; WebSocket.prototype.send = function (text) {"
             " if (!text.includes('\"take\"')) send.call(this, text); }")
    hold_stick(page)
    page.wait("return document.querySelector('#alerts').textContent ==="
              " 'The board has not given you control yet: try again.'")
    page.actions.release().perform()


# --- Two fingers ---------------------------------------------------------------------------------

class Thumb:
    """A thumb that holds the stick of a page, and another finger beside it."""

    def __init__(self, page, gimbal):
        self.page = page
        page.cdp("Emulation.setTouchEmulationEnabled", enabled=True, maxTouchPoints=5)
        x, y = self._middle("#stick")
        self.held = [{"x": x + 40, "y": y, "id": 0}]
        self._touch("touchStart", {"x": x, "y": y, "id": 0})
        self._touch("touchMove", *self.held)
        gimbal.wait_moves()
        page.hear()

    def _middle(self, selector):
        return self.page.run("const box = document.querySelector(arguments[0])"
                             ".getBoundingClientRect(); return [box.x + box.width / 2,"
                             " box.y + box.height / 2]", selector)

    def _touch(self, kind, *points):
        self.page.cdp("Input.dispatchTouchEvent", type=kind, touchPoints=list(points))

    def tap(self, selector, right=0, down=0):
        """The other finger's tap; it is lifted so far from where it landed."""
        x, y = self._middle(selector)
        self._touch("touchStart", *self.held, {"x": x, "y": y, "id": 1})
        landed = {"x": x + right, "y": y + down, "id": 1}
        if right or down:
            self._touch("touchMove", *self.held, landed)
        time.sleep(0.1)
        self._touch("touchEnd", landed)

    def let_go(self):
        self._touch("touchEnd", *self.held)
        self.held = []

    def commanded(self, count=1):
        """The page's commands once there are so many, and no more come."""
        self.page.wait("return window.said.filter(({ type }) => type === 'command').length >="
                       " arguments[0]", count)
        time.sleep(0.5)
        return [" ".join(one["words"]) for one in self.page.said("command")]


@pytest.fixture
def thumb(own_page, gimbal):
    """In a browser of its own: touch emulation that was switched off does not come back."""
    return Thumb(own_page, gimbal)


def test_button_beside_a_held_stick(gimbal, thumb):
    """Each tap counts once, and the stick goes on."""
    thumb.tap("#shot")
    assert thumb.commanded() == ["shot"]
    thumb.tap("#shot")
    assert thumb.commanded(2) == ["shot"] * 2
    assert went_on(thumb.page, gimbal)
    thumb.let_go()
    gimbal.wait_zero()
    thumb.tap("#shot")
    assert thumb.commanded(3) == ["shot"] * 3


def test_finger_that_leaves_a_button(thumb):
    thumb.tap("#shot", down=-120)
    time.sleep(0.5)
    assert thumb.commanded(0) == []


def test_picture_beside_a_held_stick(film, gimbal, thumb):
    """Tap to focus, drag to track."""
    thumb.page.picture()
    thumb.page.wait("return document.querySelector('#stale').textContent === ''")
    thumb.tap("#touch")
    assert thumb.commanded() == ["focus 0.5 0.5"]
    thumb.tap("#touch", right=80, down=-60)
    start, = thumb.commanded(2)[1:]
    assert start.startswith("tracking start 0.5 "), start
    assert went_on(thumb.page, gimbal)


# What two people do who both want it: they take, drive, and let go, on and on.
FIGHT = """
window.drove = 0;
const mine = () => document.body.dataset.driver === "me";
const other = () => document.body.dataset.driver === "other";
window.fight = setInterval(() => {
  if (!document.querySelector("#ask").hidden) document.querySelector("#grant").click();
  else {
    if (mine()) window.drove += 1;
    document.querySelector("#take").click();
  }
}, arguments[0]);
"""


def test_two_browsers_fight_for_the_lease(page, gimbal, web, chromiums):
    """Both get it again and again, never both at once, and it is free when they have gone."""
    other = chromiums()
    other.open(web.address())
    other.wait("return !document.querySelector('#take').disabled")
    page.run(FIGHT, 70)
    other.run(FIGHT, 90)
    drove = "return window.drove > 8"
    page.wait(drove, seconds=30)
    other.wait(drove, seconds=30)
    for one in (page, other):
        one.run("clearInterval(window.fight)")
    wait_until(lambda: sum(one.run("return document.body.dataset.driver === 'me'")
                           for one in (page, other)) <= 1, 5, "one driver at most")
    other.close()
    page.wait("return document.body.dataset.driver !== 'other'")
    page.run("document.body.dataset.driver !== 'me' && document.querySelector('#take').click()")
    page.wait("return document.body.dataset.driver === 'me'")
    hold_stick(page)
    gimbal.wait_moves()
    page.actions.release().perform()
    gimbal.wait_rest(noted(page, "pointerup"))
    assert page.errors() == []


def test_a_silent_driver_can_be_replaced(page, gimbal, web, chromiums):
    """A page that stands still for longer than 3 s loses the lease to the next that wants it."""
    frozen = chromiums()
    frozen.open(web.address())
    frozen.wait("return !document.querySelector('#take').disabled")
    frozen.find("#take").click()
    page.wait("return document.querySelector('#take').textContent === 'Ask'")
    begun = time.time()
    frozen.run("setTimeout(() => { const start = Date.now();"
               " while (Date.now() - start < 6500); }, 300)")
    page.find("#take").click()
    assert page.run("return document.body.dataset.driver") != "me", "before it was silent"
    while page.run("return document.body.dataset.driver") != "me":
        assert time.time() - begun < limit(6)
        time.sleep(0.3)
        if page.run("return document.body.dataset.driver") == "other":
            page.find("#take").click()
    assert time.time() - begun > 1.9, "it had not been silent for 3 s"
    hold_stick(page)
    gimbal.wait_moves()
    page.actions.release().perform()
    gimbal.wait_rest(noted(page, "pointerup"))
