"""The page itself: its size, its first moment, what screen readers are told, contrast, and that
nothing lies outside of a screen or over something else."""

import contextlib
import re
import signal
import time
import urllib.request

import pytest

from harness.timing import limit, wait_until
from chromium import SHOWN

SIZES = [(360, 640), (360, 740), (390, 844), (844, 390), (768, 1024), (1280, 800), (1920, 1080),
         (3840, 2160)]
THEMES = [True, False]


@pytest.fixture
def page(browser, camera, web, film):
    """An open page with everything on it."""
    browser.open(web.address())
    browser.picture()
    browser.wait("return [...document.querySelectorAll('#values .value')]"
                 ".filter((one) => !one.hidden).length > 8 &&"
                 " !document.querySelector('#attitude').hidden", seconds=20)
    return browser


def served(web, path):
    with urllib.request.urlopen(web.address().rstrip("/") + path, timeout=5) as answer:
        return answer.headers, answer.read()


def modules_of(text):
    """What a file names that the browser loads with it, and what it loads only when needed."""
    once = re.findall(r'(?:src|href)="(/[\w/.-]+)"|from "\./([\w.-]+)"', text)
    later = re.findall(r'import\("\./([\w.-]+)"\)', text)
    return [path or f"/page/{name}" for path, name in once], [f"/page/{name}" for name in later]


def test_weight(web):
    """100 kB for the first load, 150 kB in all."""
    sizes, first = {}, set()
    waiting = [("/", True)]
    while waiting:
        path, at_once = waiting.pop()
        if at_once:
            first.add(path)
        if path in sizes:
            continue
        body = served(web, path)[1]
        sizes[path] = len(body)
        now, later = modules_of(body.decode())
        waiting += [(name, at_once) for name in now] + [(name, False) for name in later]
    assert len(sizes) > 20
    assert sum(sizes[path] for path in first) < 100_000, sizes
    assert sum(sizes.values()) < 150_000, sizes


def test_policy(web):
    """Nothing from elsewhere, and no script or style within the page."""
    headers, body = served(web, "/")
    policy = headers["Content-Security-Policy"]
    assert "default-src 'self'" in policy and "unsafe" not in policy
    text = body.decode()
    assert not re.search(r"<style|style=|<script>|javascript:|\son\w+=", text)
    assert not re.search(r'(?:src|href)="(?!/|#)', text)


# Sums up what jumps, from the page's beginning on, and notes what did.
SHIFTS = """
window.shift = 0;
window.shifted = [];
new PerformanceObserver((list) => list.getEntries().forEach((one) => {
  window.shift += one.value;
  one.sources.forEach(({ node }) => window.shifted.push(node?.id || node?.className
    || node?.textContent));
})).observe({ type: "layout-shift", buffered: true });
"""


def test_first_moment(browser, web, camera, film):
    """Painted soon, and nothing jumps afterwards."""
    browser.open(web.address())
    browser.picture()
    painted = []
    for _ in range(3):
        browser.open(web.address())
        browser.run(SHIFTS)
        painted.append(browser.wait(
            "return performance.getEntriesByName('first-paint')[0]?.startTime"))
    assert min(painted) < limit(500), painted
    browser.picture()
    time.sleep(1)
    assert browser.run("return window.shift") < 0.01, browser.run("return window.shifted")
    elsewhere = browser.run("return performance.getEntriesByType('resource').map((one) => one.name)"
                            ".filter((name) => !name.startsWith(location.origin))")
    assert elsewhere == []


@pytest.fixture
def without(browser, web, camera, film):
    """without(name) opens the page while the browser does not get that file, to the end of it."""

    @contextlib.contextmanager
    def opened(name):
        browser.cdp("Network.enable")
        browser.cdp("Network.setBlockedURLs", urls=[f"*/page/{name}"])
        try:
            browser.open(web.address())
            yield browser
        finally:
            browser.cdp("Network.setBlockedURLs", urls=[])
            browser.cdp("Network.disable")

    return opened


@pytest.mark.parametrize("missing", ["toast.js", "main.js"])
def test_module_that_does_not_come(without, missing):
    """The page says so, and lives as soon as it can, without anybody's help."""
    with without(missing) as browser:
        browser.wait("return document.querySelector('#stale')?.textContent ==="
                     " 'Part of this page is missing: loading again'")
    browser.picture()
    browser.wait("return document.querySelector('#stale').textContent === ''")


def test_page_waits_for_what_does_not_come(without):
    with without("main.js") as browser:
        browser.wait("return document.querySelector('#stale')?.textContent !== ''")
        browser.run("window.same = true")
        time.sleep(4)
        assert browser.run("return window.same")
    browser.picture()


@pytest.mark.parametrize("button, part", [("settings", "settings.js"), ("settings", "rc-map.js"),
                                          ("help", "help.js"), ("more", "all-commands.js"),
                                          ("snapshot", "snapshot.js")])
def test_later_part_that_does_not_come(without, button, part):
    """Who asked for it is told, and the rest goes on."""
    with without(part) as browser:
        browser.picture()
        browser.wait("return document.querySelector('#foot').textContent !== ''")
        browser.run(f"document.querySelector('#{button}').click()")
        browser.wait("return document.querySelector('#alerts').textContent ==="
                     " 'This part of the page did not come. Load the page again.'")
        last = browser.run(SHOWN)
        wait_until(lambda: browser.run(SHOWN) > last, 5, "the next picture")


def test_what_others_put_into_the_page(page):
    """As a browser's extensions do: that it does not come is nothing to the page."""
    page.run("window.same = true; for (const [kind, where] of [['script', 'src'], ['link', 'href']])"
             " document.head.append(Object.assign(document.createElement(kind),"
             " { rel: 'stylesheet', [where]: '/none/of/ours' }))")
    time.sleep(4)
    assert page.run("return window.same")


def test_style_that_does_not_come(without):
    laid_out = "return getComputedStyle(document.querySelector('main')).display === 'grid'"
    with without("layout.css") as browser:
        assert not browser.run(laid_out)
    browser.wait(laid_out)


def test_nothing_unreported_is_shown(browser, service, web):
    """Without a camera the page says so, and makes no value up."""
    browser.open(web.address())
    browser.wait("return !document.querySelector('#take').disabled")
    wait_reason(browser, SILENT_CAMERA)
    assert browser.run("return [...document.querySelectorAll('#values .value')]"
                       ".filter((one) => !one.hidden).length") == 0
    assert browser.run("return document.querySelector('#attitude').hidden")
    shown = browser.run("return [...document.querySelectorAll('.chip')].filter((one) =>"
                        " !one.hidden).map((one) => one.dataset.chip)")
    assert set(shown) <= {"camera", "video", "viewers"}, shown


VALUES = {"Mode", "Format", "Exposure", "ISO", "Shutter", "Aperture", "EV", "White bal.", "Colour",
          "Photo", "Focus", "Zoom"}


def test_everything_reported_is_shown(page):
    for word, hidden in (("off", True), ("on", False)):
        page.wait("return fetch('/api/command', { method: 'POST', body: JSON.stringify("
                  "{ words: ['histogram', arguments[0]] }) }).then((answer) => answer.ok)", word)
        page.wait("return document.querySelector('#histogram').hidden === arguments[0]", hidden)
    seen = page.run("return [...document.querySelectorAll('#values .value')].filter((one) =>"
                    " !one.hidden).map((one) => one.querySelector('span').textContent)")
    assert set(seen) == VALUES
    page.wait("return [...document.querySelectorAll('.chip')].filter((one) => !one.hidden).map("
              "(one) => one.dataset.chip).sort().join() ==="
              " 'camera,latency,loss,rate,video,viewers'")


# --- Why there is no picture ---------------------------------------------------------------------

SILENT_CAMERA = \
    "The board hears nothing of the camera: switch it on, and see whether it is connected."
NO_SERVICE = ("The service at 127.0.0.1:4242 does not answer: see whether it runs (systemctl status"
              " nimbus), and whether ten viewers are there already.")
NO_VIDEO = "The camera is there, but sends no video: see whether another application has it."
NO_RELAY = "The board sends no video to viewers: change that in the settings, under Video."
NO_BOARD = "There is no connection to the board: see whether it is on, and you in its network."


def wait_reason(browser, sentence):
    browser.wait("return document.querySelector('#stale').textContent.endsWith(arguments[0])",
                 sentence, seconds=15)


def test_no_service_is_said(browser, webs, start):
    """And no longer once it is there."""
    browser.open(webs().address())
    wait_reason(browser, NO_SERVICE)
    start()
    wait_reason(browser, SILENT_CAMERA)


def test_no_video_of_the_camera_is_said(browser, web, camera):
    browser.open(web.address())
    wait_reason(browser, NO_VIDEO)


def test_no_video_by_the_settings_is_said(browser, start, webs):
    start("disable_video_stream=1\n")
    browser.open(webs().address())
    wait_reason(browser, NO_RELAY)


@pytest.mark.parametrize("size", [(360, 640), (844, 390)])
def test_no_board_is_said(browser, web, film, size):
    """Within the stage, however long it is."""
    browser.show(size)
    browser.open(web.address())
    browser.picture()
    web.close()
    wait_reason(browser, NO_BOARD)
    text, stage = browser.run("return ['#stale', '#stage'].map((one) =>"
                              " document.querySelector(one).getBoundingClientRect().toJSON())")
    for least, most in (("left", "right"), ("top", "bottom")):
        assert stage[least] <= text[least] and text[most] <= stage[most], (text, stage)
    web.start()
    browser.wait("return document.querySelector('#stale').textContent === ''", seconds=20)


def test_a_board_that_falls_silent_is_given_up(browser, web, film):
    """Its connection stands, and nothing comes any more: a new one is tried."""
    browser.open(web.address())
    browser.picture()
    browser.run("const { close } = WebSocket.prototype; WebSocket.prototype.close = function () {"
                " window.gaveUp ||= this.url.endsWith('/ws/control'); close.call(this); }")
    web.process.send_signal(signal.SIGSTOP)
    try:
        browser.wait("return window.gaveUp")
    finally:
        web.process.send_signal(signal.SIGCONT)
    browser.wait("return document.querySelector('#stale').textContent === ''", seconds=20)


def test_nothing_of_before_is_shown(page, camera, web):
    """A nimbus-web that starts anew has not heard of the camera that was there."""
    camera.kill()
    camera.wait()
    web.close()
    web.start()
    page.wait("return [...document.querySelectorAll('#values .value')].every((one) => one.hidden)",
              seconds=20)


def test_old_reports_are_dimmed(page, camera):
    camera.kill()
    page.wait("return [...document.querySelectorAll('#values .value.stale')].some((one) =>"
              " /since \\d+ s/.test(one.textContent))", seconds=10)
    page.wait("return /since \\d+ s/.test(document.querySelector('#attitude').textContent)")


# --- What is where -------------------------------------------------------------------------------

# What can be pressed: what is cut off or too small for a thumb, and pairs that lie over each other;
# and rows of which a part lies beyond an edge.
LAYOUT = """
const controls = [...document.querySelectorAll("button, #stick, #rollstick")].filter((one) =>
  one.checkVisibility() && !one.closest("dialog"));
const boxes = controls.map((one) => [one.id || one.textContent, one.getBoundingClientRect()]);
const out = boxes.filter(([, box]) => box.left < 0 || box.top < 0 || box.right > innerWidth + 0.5
  || box.bottom > innerHeight + 0.5 || box.width < 44 || box.height < 44).map(([id]) => id);
const over = [];
boxes.forEach(([a, one], i) => boxes.slice(i + 1).forEach(([b, two]) => {
  if (one.left < two.right - 1 && two.left < one.right - 1 && one.top < two.bottom - 1
    && two.top < one.bottom - 1) over.push(`${a}/${b}`);
}));
const cut = ["html", "#state", "#values"].filter((name) => {
  const one = document.querySelector(name);
  return one.scrollWidth > one.clientWidth + 1 || one.scrollHeight > one.clientHeight + 1;
});
return { out, over, cut, count: boxes.length };
"""


# Whether the page has the window's size and colours: it learns of both with its next frame.
FOLLOWED = """
const [width, theme] = arguments;
const stage = document.querySelector("#stage");
const box = document.querySelector("#picture").getBoundingClientRect();
const room = Math.min(stage.clientWidth / box.width, stage.clientHeight / box.height);
return innerWidth === width && document.documentElement.dataset.theme === theme
  && Math.abs(room - 1) < 0.01;
"""


def show(page, size, dark=True):
    page.show(size, dark)
    page.wait(FOLLOWED, size[0], "dark" if dark else "light", what=f"a page of {size}")


@pytest.mark.parametrize("size", SIZES, ids=lambda size: f"{size[0]}x{size[1]}")
def test_layout(page, size):
    show(page, size)
    page.run("document.querySelector('#take').click()")
    page.wait("return document.querySelector('#take').textContent === 'Release'")
    page.wait("return [...document.querySelectorAll('.chip')].filter((one) => !one.hidden)"
              ".length >= 6", seconds=20)
    page.wait(FOLLOWED, size[0], "dark")
    found = page.run(LAYOUT)
    assert found["count"] > 20, found
    assert (found["out"], found["over"], found["cut"]) == ([], [], [])
    picture = page.run("const box = document.querySelector('#picture').getBoundingClientRect();"
                       "return [box.width, box.height]")
    # Edge to edge: it touches both sides, or top and bottom.
    assert abs(picture[0] - size[0]) < 2 or abs(picture[1] - size[1]) < 2, picture
    assert abs(picture[0] / picture[1] - 16 / 9) < 0.02


# What can be pressed in a dialog, and is too small for a thumb.
SMALL = """
return [...document.querySelectorAll("dialog :is(button, input, select, summary)")].filter((one) =>
  one.checkVisibility()).map((one) => [one.ariaLabel || one.textContent,
  one.getBoundingClientRect()]).filter(([, box]) => box.width < 44 || box.height < 44)
  .map(([name, box]) => `${name}: ${box.width} x ${box.height}`);
"""


@pytest.mark.parametrize("opened", ["#settings", "#help", "#more"])
def test_dialogs_are_for_thumbs(page, opened):
    show(page, (360, 640))
    page.run("document.querySelector(arguments[0]).click()", opened)
    page.wait("return document.querySelector('dialog[open]')")
    page.run("document.querySelectorAll('dialog details').forEach((one) => (one.open = true))")
    assert page.run(SMALL) == []
    assert page.run("const one = document.querySelector('dialog');"
                    "return one.scrollWidth <= one.clientWidth")


# The smallest letters that are seen, in pixels.
SMALLEST = """
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
let smallest = Infinity;
for (let node; (node = walker.nextNode());) {
  const element = node.parentElement;
  if (!node.data.trim() || !element.checkVisibility({ checkVisibilityCSS: true })) continue;
  smallest = Math.min(smallest, parseFloat(getComputedStyle(element).fontSize));
}
return smallest;
"""


@pytest.mark.parametrize("size, least", [((360, 640), 12), ((1920, 1080), 12), ((3840, 2160), 18)])
def test_letters(page, size, least):
    """Large enough to be read, also on a screen across the room."""
    show(page, size)
    for opened in (None, "#settings"):
        if opened:
            page.find(opened).click()
            page.wait("return document.querySelector('dialog[open]')")
        assert page.run(SMALLEST) >= least, opened


# Every text that is seen, with its contrast to what is behind it. Grounds that are see-through are
# laid over white and over black, whichever is worse.
CONTRAST = """
const parse = (text) => { const n = text.match(/[\\d.]+/g).map(Number);
  return [n[0], n[1], n[2], n[3] ?? 1]; };
const over = ([r, g, b, a], [x, y, z]) =>
  [r * a + x * (1 - a), g * a + y * (1 - a), b * a + z * (1 - a)];
const light = (rgb) => { const [r, g, b] = rgb.map((c) => { c /= 255;
  return c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4; });
  return 0.2126 * r + 0.7152 * g + 0.0722 * b; };
const ratio = (a, b) => { const [x, y] = [light(a), light(b)].sort((m, n) => n - m);
  return (x + 0.05) / (y + 0.05); };
const overPicture = innerWidth >= innerHeight;
const faint = (element) => {
  for (let one = element; one; one = one.parentElement) {
    if (getComputedStyle(one).opacity < 1) return true;
  }
  return false;
};
function grounds(element) {
  const layers = [];
  for (let one = element; one; one = one.parentElement) {
    const colour = parse(getComputedStyle(one).backgroundColor);
    if (colour[3] > 0) layers.push(colour);
    if (colour[3] === 1) break;
    if (one.id === "stage" || (one.tagName === "MAIN" && overPicture)) {
      return [[255, 255, 255], [0, 0, 0]].map((base) =>
        layers.reduceRight((below, layer) => over(layer, below), base));
    }
  }
  return [layers.reduceRight((below, layer) => over(layer, below), [255, 255, 255])];
}
const bad = [];
let count = 0;
function judge(text, element, colour) {
  count += 1;
  const worst = Math.min(...grounds(element).map((ground) => ratio(over(colour, ground), ground)));
  if (worst < 4.5 || faint(element)) bad.push(`${text.trim()}: ${worst.toFixed(2)}`);
}
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
for (let node; (node = walker.nextNode());) {
  const element = node.parentElement;
  if (!node.data.trim() || !element.checkVisibility({ checkVisibilityCSS: true })) continue;
  if (element.closest("noscript, option, .hidden")) continue;
  judge(node.data, element, parse(getComputedStyle(element).color));
}
for (const field of document.querySelectorAll("input, select")) {
  if (!field.checkVisibility({ checkVisibilityCSS: true })) continue;
  const part = field.value || !field.placeholder ? null : "::placeholder";
  const style = getComputedStyle(field, part);
  judge(field.value || field.placeholder || "", field, parse(style.color));
}
return { bad, count };
"""


def contrast(page):
    """Judges the colours once they stand: a button's ground changes over a tenth of a second."""
    page.wait("return document.getAnimations().length === 0")
    return page.run(CONTRAST)


# Of the question to whoever drives: whether all of it can be read, what of it is cut off or too
# small for a thumb, and what it lies over.
QUESTION = """
const box = (one) => one.getBoundingClientRect();
const ask = document.querySelector("#ask");
const small = [...ask.querySelectorAll("button")].filter((one) =>
  box(one).width < 44 || box(one).height < 44).map(({ id }) => id);
const { left, top, right, bottom } = box(ask);
const out = left < 0 || top < 0 || right > innerWidth || bottom > innerHeight ||
  ask.scrollWidth > ask.clientWidth || ask.scrollHeight > ask.clientHeight;
const upright = innerHeight > innerWidth;
const others = "#stick, #rollstick, #right button, #values > *" + (upright ? ", #picture" : "");
const over = [...document.querySelectorAll(others)].filter((one) => one.checkVisibility() &&
  box(one).left < right && left < box(one).right && box(one).top < bottom &&
  top < box(one).bottom).map((one) => one.id || one.textContent);
return { small, out, over };
"""


@pytest.mark.parametrize("dark", THEMES, ids=["dark", "light"])
@pytest.mark.parametrize("size", SIZES, ids=lambda size: f"{size[0]}x{size[1]}")
def test_question_is_in_nobodys_way(page, size, dark):
    show(page, size, dark)
    page.run("document.querySelector('#take').click();"
             "window.other = new WebSocket(`ws://${location.host}/ws/control`)")
    page.wait("return document.body.dataset.driver === 'me' && other.readyState === 1")
    page.run("other.send('{\"type\":\"take\"}')")
    page.wait("return document.querySelector('#ask').checkVisibility()")
    assert page.run(QUESTION) == {"small": [], "out": False, "over": []}
    assert contrast(page)["bad"] == []


@pytest.mark.parametrize("dark", THEMES, ids=["dark", "light"])
def test_contrast(page, dark):
    for size in ((360, 640), (844, 390), (1920, 1080)):
        show(page, size, dark)
        for opened in (None, "#settings", "#help", "#more", "#values button:nth-of-type(4)"):
            if opened:
                page.run("document.querySelector(arguments[0]).click()", opened)
                page.wait("return document.querySelector('dialog[open]')")
                page.run("document.querySelectorAll('dialog details').forEach("
                         "(one) => (one.open = true))")
            found = contrast(page)
            assert found["count"] > 10 and found["bad"] == [], (size, opened, found["bad"])
            page.run("document.querySelector('dialog')?.close()")
            page.wait("return !document.querySelector('dialog')")


@pytest.mark.parametrize("dark", THEMES, ids=["dark", "light"])
def test_contrast_of_what_is_old(page, camera, film, dark):
    """Dimmed is not unreadable."""
    page.find("#record").click()
    page.wait("return document.body.classList.contains('recording')")
    camera.kill()
    film.close()
    page.wait("return document.querySelector('#attitude').classList.contains('stale') &&"
              " document.querySelector('.value.stale') && document.querySelector('.rec.stale') &&"
              " document.querySelector('#stale').textContent",
              seconds=15)
    for size in ((360, 640), (844, 390)):
        show(page, size, dark)
        found = contrast(page)
        assert found["count"] > 10 and found["bad"] == [], (size, found["bad"])


def test_theme_is_chosen_and_kept(page):
    page.keys("d")
    page.wait("return document.documentElement.dataset.theme === 'light'")
    page.driver.refresh()
    assert page.run("return document.documentElement.dataset.theme") == "light"


# --- What screen readers are told ----------------------------------------------------------------

# Roles of what can be operated.
OPERATED = {"button", "checkbox", "switch", "slider", "combobox", "textbox", "spinbutton", "link",
            "DisclosureTriangle", "searchbox"}


def operated(page):
    """What can be operated, as (role, name, properties), from the tree that the browser builds."""
    nodes = page.cdp("Accessibility.getFullAXTree")["nodes"]
    found = []
    for node in nodes:
        role = node.get("role", {}).get("value")
        if node.get("ignored") or role not in OPERATED:
            continue
        properties = {one["name"]: one["value"].get("value") for one in node.get("properties", [])}
        found.append((role, node.get("name", {}).get("value", ""), properties))
    return found


@pytest.mark.parametrize("opened", [None, "#settings", "#help", "#more"])
def test_accessibility_tree(page, opened):
    """Every control has a role, a name and, where it has one, a state."""
    if opened:
        page.find(opened).click()
        page.wait("return document.querySelector('dialog[open]')")
        page.run("document.querySelectorAll('dialog details').forEach((one) => (one.open = true))")
    controls = operated(page)
    assert len(controls) > 4
    assert [one for one in controls if not one[1].strip()] == []
    states = {"checkbox": "checked", "switch": "checked", "DisclosureTriangle": "expanded"}
    for role, name, properties in controls:
        if role in states:
            assert states[role] in properties, (role, name, properties)
    if opened is None:
        names = {name for _, name, _ in controls}
        assert {"Record", "Take a photo", "Pan and tilt", "Roll", "Settings"} <= names
        pressed = {name for _, name, properties in controls if "pressed" in properties}
        assert {"Record", "Lock the orientation"} <= pressed


def test_live_regions(page):
    """What happens is spoken: politely what went well, at once what did not."""
    assert page.run("return document.querySelector('#toasts').getAttribute('aria-live')") == \
        "polite"
    for selector, role in (("#alerts", "alert"), ("#asks", "alert"), ("#stale", "status"),
                           ("#who", "status")):
        assert page.find(selector).get_attribute("role") == role


def test_keyboard_reaches_everything(page):
    """The Tab key comes by every control, and what has the focus can be seen."""
    from selenium.webdriver.common.keys import Keys
    wanted = set(page.run("return [...document.querySelectorAll('button, [tabindex]')].filter("
                          "(one) => one.checkVisibility() && !one.disabled).map((one) =>"
                          " one.id || one.textContent)"))
    reached = set()
    page.run("document.activeElement.blur()")
    for _ in range(len(wanted) + 5):
        page.keys(Keys.TAB)
        name, seen = page.run(
            "const one = document.activeElement; return [one.id || one.textContent,"
            " one === document.body || getComputedStyle(one).outlineStyle !== 'none']")
        assert seen, name
        reached.add(name)
    assert wanted <= reached, wanted - reached
