"""What a newcomer does with the page, in both browsers."""

import pytest

from harness.timing import wait_until
from conftest import PLAIN_HOST


@pytest.fixture(params=["browser", "fox"])
def either(request):
    """Chromium, then Firefox."""
    return request.getfixturevalue(request.param)


def click(browser, selector):
    browser.run("document.querySelector(arguments[0]).click()", selector)


def test_tour(either, camera, film, web):
    """Watches, takes control, sets the ISO value, records, centres the gimbal, looks for help."""
    browser = either
    browser.open(web.address(PLAIN_HOST))
    browser.picture()
    browser.wait("return document.querySelector('#take').textContent === 'Drive' &&"
                 " !document.querySelector('#take').disabled")
    click(browser, "#take")
    browser.wait("return document.querySelector('#who').textContent === 'You drive'")
    browser.wait("return [...document.querySelectorAll('#values button')].some((one) =>"
                 " one.textContent.startsWith('ISO') && !one.hidden)")
    browser.run("[...document.querySelectorAll('#values button')].find((one) =>"
                " one.textContent.startsWith('ISO')).click()")
    browser.wait("return document.querySelector('dialog [data-word=\"400\"]') !== null")
    click(browser, "dialog [data-word='400']")
    browser.wait("return [...document.querySelectorAll('#values button')].some((one) =>"
                 " one.textContent.trim() === 'ISO 400')")
    browser.run("document.querySelector('dialog').close()")
    click(browser, "#record")
    browser.wait("return document.body.classList.contains('recording')")
    click(browser, "#record")
    browser.wait("return !document.body.classList.contains('recording')")
    click(browser, "#centre")
    browser.wait("return document.querySelector('#toasts').textContent.includes("
                 "'gimbal centre: sent')")
    click(browser, "#help")
    browser.wait("return document.querySelector('dialog[open] .keys') !== null")
    browser.run("document.querySelector('dialog').close()")
    first = int(browser.run("return document.querySelector('#stage').dataset.shown"))
    wait_until(lambda: int(browser.run(
        "return document.querySelector('#stage').dataset.shown")) > first, 10, "a live picture")
    click(browser, "#take")
    browser.wait("return document.querySelector('#who').textContent === 'Nobody drives'")
    assert browser.errors() == []
