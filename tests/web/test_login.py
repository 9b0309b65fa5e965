"""The log-in in a real browser: what a person sees who has the password, another's, or none."""

import subprocess

import pytest
from selenium.webdriver.common.keys import Keys


WRONG = ("that is not the password: try again, or set a new one on the board with sudo nimbus-web"
         " --set-password and sudo systemctl reload nimbus-web.")


@pytest.fixture
def guarded(service, webs, build, tmp_path):
    """A nimbus-web with a password for the operator and one for viewers."""
    file = tmp_path / "passwords"
    for password, role in (("boat", "operator"), ("shore", "viewer")):
        subprocess.run([build / "nimbus-web", "--passwords", file, "--set-password", role],
                       input=password + "\n", text=True, check=True)
    return webs("--passwords", file)


def log_in(browser, password):
    field = browser.wait("return document.querySelector('#password')")
    browser.wait("return document.activeElement === arguments[0]", field,
                 what="a field to type into")
    browser.run("window.before = true")
    browser.keys(password, Keys.ENTER)
    browser.wait("return !window.before && document.readyState === 'complete'")


def problem(browser):
    return browser.find("#problem").text


def path(browser):
    return browser.run("return location.pathname")


def who(browser, label):
    browser.wait("const take = document.querySelector('#take');"
                 " return take?.textContent === arguments[0] && !take.disabled", label)


def test_the_operator_logs_in_and_out(browser, guarded, camera, film):
    browser.open(guarded.address())
    assert path(browser) == "/login" and problem(browser) == ""
    log_in(browser, "wave")
    assert problem(browser) == WRONG
    assert browser.find("#problem").get_attribute("role") == "alert"
    log_in(browser, "boat")
    assert path(browser) == "/"
    browser.picture()
    who(browser, "Drive")
    assert "Protected by a password" in browser.find("#foot").text
    assert browser.run("return document.cookie") == "", "a script can read the log-in"
    browser.find("#help").click()
    browser.button("Log out", "dialog").click()
    browser.wait("return location.pathname === '/login'")
    browser.open(guarded.address())
    assert path(browser) == "/login"


def test_a_log_in_that_ends_asks_again(browser, guarded):
    """The board was restarted while the page was open: the page leads to the log-in by itself."""
    browser.open(guarded.address())
    log_in(browser, "boat")
    who(browser, "Drive")
    guarded.close()
    guarded.start()
    browser.wait("return location.pathname === '/login'", seconds=20)
    assert problem(browser) == "your log-in has ended: log in again."
    log_in(browser, "boat")
    who(browser, "Drive")


def test_viewers_watch(browser, guarded, camera, film):
    """The viewers' password shows the picture, and drives nothing."""
    browser.open(guarded.address())
    log_in(browser, "shore")
    browser.picture()
    browser.wait("return document.querySelector('#foot').textContent !== ''")
    assert not browser.run("return document.querySelector('#take').checkVisibility() &&"
                           " !document.querySelector('#take').disabled")
    browser.find("#record").click()
    browser.wait("return /watch/.test(document.querySelector('#alerts').textContent)")
    assert not browser.run("return document.body.classList.contains('recording')")


def test_guessing(browser, guarded):
    """After five tries in a minute even the right password is not looked at."""
    browser.open(guarded.address())
    for _ in range(5):
        log_in(browser, "guess")
        assert problem(browser) == WRONG
    log_in(browser, "boat")
    assert problem(browser) == "too many tries in a minute: wait a minute, then try again."
    assert path(browser) == "/login"


@pytest.mark.parametrize("size", [(360, 640), (844, 390), (1920, 1080)])
@pytest.mark.parametrize("dark", [True, False], ids=["dark", "light"])
def test_looks(browser, guarded, size, dark):
    """In the page's own style, large enough for a thumb, and all on one screen."""
    browser.show(size, dark)
    browser.open(guarded.address())
    browser.wait("return document.documentElement.dataset.theme === arguments[0]",
                 "dark" if dark else "light")
    for box in browser.run("return [...document.querySelectorAll('input, button')].map((one) =>"
                           " one.getBoundingClientRect().toJSON())"):
        assert box["height"] >= 44 and box["width"] >= 200, box
        assert box["left"] >= 0 and box["right"] <= size[0] and box["bottom"] <= size[1], box
    assert browser.errors() == []


def test_nothing_else_without_the_password(browser, guarded):
    """A page of the board that nobody has logged in to holds no socket and no state."""
    browser.open(guarded.address())
    for what in ("/api/state", "/api/commands", "/metrics"):
        status = browser.run("return fetch(arguments[0]).then((answer) => answer.status)", what)
        assert status == 401
    refused = ("const done = arguments[arguments.length - 1];"
               "const socket = new WebSocket('ws://' + location.host + arguments[0]);"
               "socket.onopen = () => done('open'); socket.onerror = () => done('refused');")
    for socket in ("/ws/video", "/ws/control"):
        assert browser.driver.execute_async_script(refused, socket) == "refused"


def test_firefox_logs_in(fox, guarded, film):
    """Another browser's idea of what a form tells of its origin."""
    fox.open(guarded.address())
    for password, lands in (("wave", "/login"), ("boat", "/")):
        fox.run("window.before = true; const [password] = arguments;"
                "document.querySelector('#password').value = password;"
                "document.querySelector('form').requestSubmit();", password)
        fox.wait("return !window.before && document.readyState === 'complete'")
        assert fox.run("return location.pathname") == lands
    fox.picture()
