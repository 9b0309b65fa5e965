"""Each control of the page, by pointer and by keyboard, against a camera that obeys and reports."""

import time

import pytest
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select

from harness.timing import wait_until


@pytest.fixture
def page(browser, camera, web):
    """An open page that has heard of the camera."""
    browser.open(web.address())
    browser.wait("return [...document.querySelectorAll('#values .value')]"
                 ".some((one) => !one.hidden && one.textContent.includes('ISO'))", seconds=20)
    yield browser
    # Shown when the test has failed.
    print(browser.run("return ['who', 'toasts', 'alerts'].map((id) =>"
                      " document.getElementById(id)?.textContent)"), browser.errors())


def value(page, name):
    """What the page shows under a name; None while it shows nothing."""
    return page.run(
        "const one = [...document.querySelectorAll('#values .value')].find((one) =>"
        " one.querySelector('span').textContent === arguments[0]);"
        "return one && !one.hidden ? one.querySelector('b').textContent : null", name)


def wait_value(page, name, expected, seconds=5):
    wait_until(lambda: value(page, name) == expected, seconds, f"{name} {expected}")


def open_picker(page, name):
    page.run("[...document.querySelectorAll('#values button')].find((one) =>"
             " one.querySelector('span').textContent === arguments[0]).click()", name)
    page.wait("return document.querySelector('dialog[open]')")


def close_dialog(page):
    page.keys(Keys.ESCAPE)
    page.wait("return !document.querySelector('dialog')")


# The name of the value, the word in the picker, and what is reported then.
PICKS = [
    ("ISO", "800", "800"),
    ("Shutter", "1/100", "1/100"),
    ("EV", "-0.7", "−0.7"),
    ("White bal.", "cloudy", "cloudy"),
    ("Colour", "d-log", "d-log"),
    ("Format", "3840x2160@25", "3840×2160 25"),
    ("Exposure", "manual", "M"),
    ("Photo", "jpg+raw", "JPG+RAW"),
    ("Focus", "afs", "single"),
]


def test_pickers(page):
    """Each picker sets its value, and the page shows what the camera then reports."""
    for name, word, expected in PICKS:
        open_picker(page, name)
        page.button(word, "dialog").click()
        wait_value(page, name, expected)
        page.wait("return [...document.querySelectorAll('dialog button')].find((one) =>"
                  " one.dataset.word === arguments[0])?.ariaPressed === 'true'", word)
        close_dialog(page)
    assert page.errors() == []


def test_a_picker_by_keyboard(page):
    page.run("[...document.querySelectorAll('#values button')].find((one) =>"
             " one.querySelector('span').textContent === 'ISO').focus()")
    page.keys(Keys.ENTER)
    page.wait("return document.querySelector('dialog[open]')")
    for _ in range(20):
        page.keys(Keys.TAB)
        if page.run("return document.activeElement.dataset.word === '1600'"):
            break
    page.keys(Keys.SPACE)
    wait_value(page, "ISO", "1600")
    close_dialog(page)
    focused = page.run("return document.activeElement.textContent")
    assert focused.startswith("ISO"), "the focus does not go back"


def test_fields(page):
    """What is written instead of chosen; nonsense is not sent."""
    open_picker(page, "Aperture")
    field = page.find("dialog input")
    field.clear()
    field.send_keys("4")
    page.button("Set", "dialog").click()
    wait_value(page, "Aperture", "f/4")
    field.clear()
    field.send_keys("-1")
    page.button("Set", "dialog").click()
    time.sleep(0.3)
    assert value(page, "Aperture") == "f/4"
    assert page.run("return !document.querySelector('dialog input').checkValidity()")


def test_recording(page):
    """A red border and a timer while the camera says that it records."""
    page.find("#record").click()
    page.wait("return document.body.classList.contains('recording')")
    assert page.find("#record").get_attribute("aria-pressed") == "true"
    page.wait("return /REC 00:0[1-9]/.test("
              "document.querySelector('[data-chip=recording]').textContent)")
    border = page.run("return getComputedStyle(document.querySelector('#stage'), '::after')"
                      ".borderTopColor")
    assert border == "rgb(255, 42, 32)"
    page.find("#record").click()
    page.wait("return !document.body.classList.contains('recording')")
    assert page.run("return document.querySelector('[data-chip=recording]').hidden")


def test_recording_of_a_camera_that_is_gone(page, camera):
    """Nobody knows whether it goes on: no border, and the timer stands, dimmed."""
    page.find("#record").click()
    page.wait("return document.body.classList.contains('recording')")
    camera.kill()
    chip = page.find("[data-chip=recording]")
    page.wait("return arguments[0].classList.contains('stale') &&"
              " /REC 00:0\\d since \\d+ s/.test(arguments[0].textContent)", chip)
    assert not page.run("return document.body.classList.contains('recording')")
    timer = "return document.querySelector('[data-chip=recording] b').textContent"
    stands = page.run(timer)
    time.sleep(2)
    assert page.run(timer) == stands


def test_keys(page):
    """Letters are commands wherever the focus is, but in a dialog."""
    page.keys("r")
    page.wait("return document.body.classList.contains('recording')")
    page.keys("r")
    page.wait("return !document.body.classList.contains('recording')")
    page.keys("l")
    page.wait("return document.querySelector('#lock').ariaPressed === 'true'")
    page.keys("l")
    page.wait("return document.querySelector('#lock').ariaPressed === 'false'")
    page.run("document.activeElement.blur()")
    page.keys(Keys.SPACE)
    page.wait("return document.body.classList.contains('recording')")
    page.keys(Keys.SPACE)
    page.wait("return !document.body.classList.contains('recording')")
    page.keys("?")
    page.wait("return document.querySelector('dialog[open]')?.ariaLabel === 'Help'")
    page.keys("r")
    time.sleep(0.3)
    assert not page.run("return document.body.classList.contains('recording')")
    close_dialog(page)


def test_gimbal_centre(page):
    """The attitude follows the gimbal; c brings it back."""
    page.wait("return !document.querySelector('#attitude').hidden")
    stick = page.find("#stick")
    page.actions.move_to_element(stick).click_and_hold().move_by_offset(60, 0).perform()
    page.wait("return parseInt(document.querySelector('#pan').textContent.slice(4)) > 3")
    page.actions.release().perform()
    page.keys("c")
    page.wait("return document.querySelector('#pan').textContent === 'pan 0°'")


def test_tap_to_focus(page):
    picture = page.find("#touch")
    box = picture.rect
    page.actions.move_to_element_with_offset(
        picture, int(box["width"] * 0.1), int(-box["height"] * 0.1)).click().perform()
    page.wait("return !document.querySelector('#focus').hidden")
    # The simulated camera reports the point as its focus values, and that it focuses once.
    wait_value(page, "Focus", "single")


def test_drag_to_track(page):
    picture = page.find("#touch")
    page.actions.move_to_element_with_offset(picture, -40, -40).click_and_hold() \
        .move_by_offset(80, 60).perform()
    assert not page.run("return document.querySelector('#drag').hidden")
    page.actions.release().perform()
    page.wait("return !document.querySelector('#tracking').hidden")
    frame = page.run("const box = document.querySelector('#tracking').getBoundingClientRect();"
                     "return [box.width, box.height]")
    assert abs(frame[0] - 80) < 6 and abs(frame[1] - 60) < 6, frame
    page.keys("t")
    page.wait("return document.querySelector('#tracking').hidden", seconds=6)


def test_what_erases_asks_first(page):
    page.find("#more").click()
    page.wait("return document.querySelector('dialog[open]')")
    page.run("document.querySelectorAll('dialog details').forEach((one) => (one.open = true))")
    page.button("format-card", "dialog").click()
    page.wait("return document.querySelector('dialog[role=alertdialog]')")
    assert page.run("return document.activeElement.textContent") == "Cancel"
    page.keys(Keys.ENTER)
    page.wait("return !document.querySelector('dialog[role=alertdialog]')")
    time.sleep(0.2)
    assert "format-card" not in page.run("return document.querySelector('#toasts').textContent")
    page.button("format-card", "dialog").click()
    page.button("format-card", "dialog[role=alertdialog]").click()
    page.wait("return document.querySelector('#toasts').textContent.includes('format-card: sent')")


ASKING = {"format-card", "reset-camera", "gimbal calibrate", "recalibrate", "restart", "reboot",
          "shutdown"}


def test_all_that_erases_or_ends_asks(page):
    """And does nothing when the answer is no."""
    page.find("#more").click()
    page.wait("return document.querySelector('dialog[open]')")
    page.run("document.querySelectorAll('dialog details').forEach((one) => (one.open = true))")
    asking = page.run("return [...document.querySelectorAll('dialog button.danger')]")
    assert {button.text for button in asking} == ASKING
    for button in asking:
        page.run("arguments[0].click()", button)
        page.wait("return document.querySelector('dialog[role=alertdialog]')", what=button.text)
        page.button("Cancel", "dialog[role=alertdialog]").click()
        page.wait("return !document.querySelector('dialog[role=alertdialog]')")
    time.sleep(0.3)
    assert page.run("return document.querySelectorAll('.toast').length") == 0


def test_a_camera_that_does_not_follow(page, camera):
    """What was clicked is not shown; that the camera did not follow is said after 2 s."""
    before = value(page, "Aperture")
    open_picker(page, "Aperture")
    field = page.find("dialog input")
    field.clear()
    field.send_keys("200")  # no lens does that, and the simulated camera says no
    page.button("Set", "dialog").click()
    page.wait("return document.querySelector('#alerts').textContent.includes("
              "'did not follow within 2 s')", seconds=6)
    assert value(page, "Aperture") == before


def test_all_commands_are_there(page, build):
    """Everything that nimbusctl can say."""
    table = page.wait("return fetch('/api/commands').then((answer) => answer.json())")
    page.find("#more").click()
    page.wait("return document.querySelector('dialog[open]')")
    shown = page.run("return [...document.querySelectorAll('dialog h3')].map((one) =>"
                     " one.textContent)")
    assert sorted(shown) == sorted(row["help"] for row in table["commands"])
    assert len(shown) > 30


def open_settings(page):
    """Their dialog, once the board's report stands in it: that fills what nobody has touched."""
    page.find("#settings").click()
    page.wait("return document.querySelector('dialog[open] [aria-label=\"Bits a second\"]')?.value")


def test_settings(page, standins):
    """A setting is saved on the card; what it restarts is said before."""
    open_settings(page)
    field = page.find("[aria-label='Bits a second']")
    assert "Restarts" in page.run(
        "return document.querySelector('[aria-label=\"Bits a second\"]').form.textContent")
    page.run("arguments[0].value = ''", field)
    field.send_keys("2000000")
    page.button("Set Bits a second", "dialog").click()
    page.wait("return document.querySelector('#toasts').textContent.includes("
              "'Bits a second: saved')")
    assert ["killall", "-q", "rtsp-server", "gst-launch-1.0"] in standins.calls("killall")


def test_settings_that_are_reported_later(browser, webs, start):
    """They come into the fields that nobody has touched."""
    def fields():
        return [browser.find(f"[aria-label='{name}']").get_attribute("value") for name in
                ("Bits a second", "Size of the stream", "Channel 20 drives", "Wi-Fi: Name")]

    browser.open(webs().address())
    browser.wait("return document.querySelector('#foot').textContent !== ''")
    browser.find("#settings").click()
    browser.wait("return document.querySelector('dialog[open] fieldset')")
    browser.run("document.querySelectorAll('dialog details').forEach((one) => (one.open = true))")
    assert fields() == [""] * 4
    Select(browser.find("[aria-label='Size of the stream']")).select_by_visible_text("320x240")
    start("video_bitrate=1234567\nvideo_width=1280\nvideo_height=720\n"
          f"rc_input_map={',' * 19}iso\nwifi_ssid=\"shore\"\n")
    browser.wait("return document.querySelector('[aria-label=\"Bits a second\"]').value !== ''",
                 seconds=20)
    assert fields() == ["1234567", "320x240", "iso", "shore"]
    assert browser.find("[aria-label='Channel 20 drives']").is_displayed()


def test_channel_map(page):
    open_settings(page)
    page.run("document.querySelectorAll('dialog details').forEach((one) => (one.open = true));"
             "const channel = document.querySelector('[aria-label=\"Channel 3 drives\"]');"
             "channel.value = 'record'; channel.dispatchEvent(new Event('change'))")
    page.button("Save the channels", "dialog").click()
    page.wait("return document.querySelector('#toasts').textContent.includes('Channels: saved')")
    close_dialog(page)
    page.find("#settings").click()
    page.wait("return document.querySelector('dialog[open] .channels')")
    assert page.run("return [2, 3, 4].map((n) =>"
                    " document.querySelector(`[aria-label=\"Channel ${n} drives\"]`).value)") == \
        ["", "record", ""]


def test_scan(page, standins):
    """What the board hears becomes what the network's name can be chosen from."""
    standins.answer("iwlist", r"""printf 'x\n   ESSID:"alpha"\n  Quality=1\nESSID:"beta"\n'""")
    open_settings(page)
    page.run("document.querySelectorAll('dialog details').forEach((one) => (one.open = true))")
    Select(page.find("[aria-label='Wi-Fi: Interface']")).select_by_visible_text("wlan0")
    page.run("document.querySelector('#names-lan').parentElement.querySelector('button').click()")
    page.wait("return [...document.querySelectorAll('#names-lan option')].map((one) =>"
              " one.value).join() === 'alpha,beta'")
    assert page.find("[aria-label='Wi-Fi: Name']").get_attribute("list") == "names-lan"


def test_pass_phrases_are_write_only(page):
    open_settings(page)
    page.run("document.querySelectorAll('dialog details').forEach((one) => (one.open = true))")
    field = page.find("[aria-label='Wi-Fi: Pass phrase']")
    assert field.get_attribute("type") == "password" and field.get_attribute("value") == ""
    field.send_keys("a secret of the house")
    page.hear()
    page.button("Save the networks", "dialog").click()
    page.button("Change", "dialog[role=alertdialog]").click()
    page.wait("return document.querySelector('#toasts').textContent.includes('Networks: sent')")
    assert page.said("set")[-1]["values"] == ["lan_psk=a secret of the house"]
    assert "a secret" not in page.run(
        "return fetch('/api/state').then((answer) => answer.text())")


# --- All of them ---------------------------------------------------------------------------------

# Each button of the page, and what is true once it was pressed.
BUTTONS = {
    "take": "document.querySelector('#who').textContent === 'You drive'",
    "record": "document.body.classList.contains('recording')",
    "shot": "/shot: sent/.test(document.querySelector('#toasts').textContent)",
    "centre": "/gimbal centre: sent/.test(document.querySelector('#toasts').textContent)",
    "selfie": "/gimbal selfie: sent/.test(document.querySelector('#toasts').textContent)",
    "lock": "document.querySelector('#lock').ariaPressed === 'true'",
    "more": "document.querySelector('dialog[open]')?.ariaLabel === 'All commands'",
    "help": "document.querySelector('dialog[open]')?.ariaLabel === 'Help'",
    "settings": "document.querySelector('dialog[open]')?.ariaLabel === 'Settings'",
    "theme": "document.documentElement.dataset.theme === 'light'",
    "full": "document.fullscreenElement !== null",
    "snapshot": "/Saved nimbus-/.test(document.querySelector('#toasts').textContent)",
}


def by_pointer(page, element):
    page.actions.move_to_element(element).click().perform()


def by_keyboard(page, element):
    page.run("arguments[0].focus()", element)
    assert page.run("return document.activeElement === arguments[0]", element)
    page.keys(Keys.ENTER)


PRESSES = pytest.mark.parametrize("press", [by_pointer, by_keyboard])


@pytest.mark.parametrize("press, size", [
    (by_keyboard, (844, 390)), (by_pointer, (844, 390)), (by_pointer, (360, 640)),
    (by_pointer, (1920, 1080))])
def test_every_button(page, film, tmp_path, press, size):
    page.show(size)
    page.cdp("Browser.setDownloadBehavior", behavior="allow", downloadPath=str(tmp_path))
    page.picture()
    shown = set(page.run("return [...document.querySelectorAll('main button[id]')].filter((one) =>"
                         " one.checkVisibility()).map((one) => one.id)"))
    upright = size[0] < size[1]
    buttons = {name: done for name, done in BUTTONS.items() if not (upright and name == "theme")}
    assert shown == set(buttons)
    for name, done in buttons.items():
        assert not page.run(f"return {done}"), name
        press(page, page.find(f"#{name}"))
        page.wait(f"return {done}", what=f"what #{name} does")
        page.run("document.querySelector('dialog')?.close(); document.fullscreenElement &&"
                 " document.exitFullscreen();")
        page.wait("return !document.querySelector('dialog') && !document.fullscreenElement")
    assert page.errors() == []


@PRESSES
def test_every_picker(page, press):
    """Every value that has a button opens its picker, and Escape leads back to it."""
    for value_button in page.run("return [...document.querySelectorAll('#values button')].filter("
                                 "(one) => one.checkVisibility())"):
        page.run("arguments[0].scrollIntoView({ inline: 'center' })", value_button)
        press(page, value_button)
        name = page.run("return arguments[0].querySelector('span').textContent", value_button)
        page.wait("return document.querySelector('dialog[open]')?.ariaLabel === arguments[0]", name)
        close_dialog(page)
        assert page.run("return document.activeElement === arguments[0]", value_button)


# What can be pressed in "All commands" without filling anything in, and what then is said.
PRESSABLE = """
return [...document.querySelectorAll("dialog section, dialog form")].map((part) => {
  const fields = part.querySelectorAll("input, select").length;
  const button = part.querySelector("button:not(.danger)");
  return fields || !button ? null : [button, part.querySelector("h3").textContent];
}).filter(Boolean);
"""


@PRESSES
def test_every_command_without_values(page, press):
    """Each answers in words, and none with a refusal of the board."""
    page.find("#more").click()
    page.wait("return document.querySelector('dialog[open]')")
    page.run("document.querySelectorAll('dialog details').forEach((one) => (one.open = true))")
    pressable = page.run(PRESSABLE)
    assert len(pressable) > 15
    for button, name in pressable:
        page.run("document.querySelectorAll('.toast').forEach((one) => one.remove());"
                 "arguments[0].scrollIntoView({ block: 'center' })", button)
        press(page, button)
        said = page.wait("return document.querySelector('.toast')?.textContent", what=name)
        assert said.endswith((": sent", ": done")) or "did not follow" in said, (name, said)
    assert page.errors() == []


def fill(page, field, press):
    """Gives a field of the settings a value that is allowed, as a hand or a keyboard does."""
    kind = field.get_attribute("type")
    if press is by_keyboard:
        page.run("arguments[0].focus()", field)
    if kind == "checkbox":
        page.keys(Keys.SPACE) if press is by_keyboard else field.click()
    elif kind == "select-one":
        if press is by_keyboard:
            page.keys(Keys.ARROW_DOWN)
        else:
            Select(field).select_by_index(1)
        assert field.get_attribute("value")
    else:
        if press is by_pointer:
            field.click()
        value = field.get_attribute("value") or field.get_attribute("min") or "1"
        page.actions.key_down(Keys.CONTROL).send_keys("a").key_up(Keys.CONTROL).perform()
        page.keys(value)


@PRESSES
def test_every_setting(page, press):
    """Each is filled in and set, and the board takes it."""
    open_settings(page)
    page.run("document.querySelectorAll('dialog details').forEach((one) => (one.open = true))")
    forms = page.run("return [...document.querySelectorAll('dialog form.setting')]")
    assert len(forms) > 20
    for form in forms:
        page.run("document.querySelectorAll('.toast').forEach((one) => one.remove());"
                 "arguments[0].scrollIntoView({ block: 'center' })", form)
        for field in form.find_elements("css selector", "input, select"):
            fill(page, field, press)
        button = form.find_element("css selector", "button")
        press(page, button)
        name = button.get_attribute("aria-label")
        said = page.wait("return document.querySelector('.toast')?.textContent", what=name)
        assert said.endswith((": saved", ": sent")), (name, said)
    assert page.errors() == []


@pytest.mark.parametrize("stick, part", [("#stick", "#pan"), ("#rollstick", "#roll")])
def test_sticks_by_keyboard(page, stick, part):
    """With the focus on a stick the arrows move it, for as long as they are down."""
    page.wait("return !document.querySelector('#attitude').hidden")
    page.run("document.querySelector(arguments[0]).focus()", stick)
    page.actions.key_down(Keys.ARROW_RIGHT).perform()
    page.wait("return parseInt(document.querySelector(arguments[0]).textContent.slice("
              "arguments[0].length)) >= 2", part)
    assert page.find(stick).get_attribute("aria-valuenow") == "50"
    page.actions.key_up(Keys.ARROW_RIGHT).perform()
    page.wait("return document.querySelector(arguments[0]).ariaValueNow === '0'", stick)
