"""A page of another site in the operator's browser must not reach the board: not record, not steer,
not read. It is tried with everything that a browser lets a page try."""

import http.server
import json
import subprocess
import threading
import urllib.request

import pytest

from harness import duml
from harness.timing import limit, wait_until
from conftest import PLAIN_HOST

OTHER_HOST = "10.66.0.2"
OTHER_PORT = 9090

# Each attempt says what came of it.
ATTACK = """<!DOCTYPE html><title>Other</title><script>
const board = "%s";
const results = {};
const command = JSON.stringify({ words: ["record", "start"] });
async function tried(name, attempt) {
  try { results[name] = await attempt(); } catch (error) { results[name] = "refused"; }
}
function socket(path) {
  return new Promise((resolve, reject) => {
    const made = new WebSocket(board.replace("http", "ws") + path);
    made.onopen = () => { made.send('{"type":"take"}');
      made.send('{"type":"command","id":1,"words":["record","start"]}'); resolve("open"); };
    made.onmessage = () => resolve("read");
    made.onerror = reject;
  });
}
const text = (answer) => answer.text().then((body) => (body ? "read" : "empty"));
const send = (mode, type) => fetch(board + "api/command", { method: "POST", mode, body: command,
  credentials: "include", headers: type ? { "Content-Type": type } : {} }).then(text);
(async () => {
  await tried("control", () => socket("ws/control"));
  await tried("video", () => socket("ws/video"));
  await tried("state", () => fetch(board + "api/state", { credentials: "include" }).then(text));
  await tried("post", () => send("cors", "application/json"));
  await tried("simple post", () => send("no-cors"));
  const form = document.createElement("form");
  Object.assign(form, { action: board + "api/command", method: "POST", enctype: "text/plain",
    target: "sink" });
  form.innerHTML = '<input name=\\'{"words":["record","start"],"x":"\\' value=\\'"}\\'>';
  document.body.append(Object.assign(document.createElement("iframe"), { name: "sink" }), form);
  form.submit();
  const frame = Object.assign(document.createElement("iframe"), { id: "framed", src: board });
  document.body.append(frame);
  await new Promise((resolve) => { frame.onload = resolve; setTimeout(resolve, 1500); });
  document.title = JSON.stringify(results);
})();
</script>"""


@pytest.fixture(scope="session")
def other_host(sandbox):
    """It stays: a browser gives up what it loads when an address goes."""
    subprocess.run(["ip", "address", "replace", f"{OTHER_HOST}/32", "dev", "lo"], check=True)


@pytest.fixture
def other_site(other_host, web):
    """A site of somebody else, with that page."""
    body = (ATTACK % web.address()).encode()

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):  # noqa: N802
            self.send_response(200)
            self.send_header("Content-Type", "text/html")
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *_):
            pass

    server = http.server.ThreadingHTTPServer((OTHER_HOST, OTHER_PORT), Handler)
    server.daemon_threads = True
    threading.Thread(target=server.serve_forever, daemon=True).start()
    yield f"http://{OTHER_HOST}:{OTHER_PORT}/"
    server.shutdown()
    server.server_close()


def ask(web, path, body=None):
    """What the board answers to a program, which is no browser and names no site."""
    with urllib.request.urlopen(web.address() + path, body, timeout=limit(5)) as answer:
        return json.load(answer)


def white_balance(web, word):
    """An honest order."""
    assert ask(web, "api/command", json.dumps({"words": ["wb", word]}).encode())["ok"]


CLOUDY, SUNNY = duml.camera(0x2C, "02 40"), duml.camera(0x2C, "01 30")


def test_other_site(browser, service, data, web, other_site):
    data.keep_sending(b"\0", 0.2)
    service.err.wait("Data found\n")
    wait_until(lambda: ask(web, "api/state")["service"]["linked"], 5, "the service's voice")
    white_balance(web, "cloudy")
    while duml.parse(data.receive())[0] != CLOUDY:
        pass  # what nimbus-web begins with
    browser.open(other_site)
    browser.wait("return document.title.startsWith('{')", seconds=20)
    results = json.loads(browser.run("return document.title"))
    assert results.pop("simple post") in ("empty", "refused")  # opaque: whatever it was, unreadable
    assert set(results.values()) == {"refused"}, results
    # Nothing of all that has become a frame to the camera: the next is that of an honest order.
    white_balance(web, "sunny")
    assert duml.parse(data.receive())[0] == SUNNY
    # And in the page's frame is the browser's word that it shows nothing.
    browser.driver.switch_to.frame(browser.find("#framed"))
    try:
        browser.wait("return location.href.startsWith('chrome-error:')")
    finally:
        browser.driver.switch_to.default_content()


def test_rebinding(chromiums, web):
    """A name of somebody else that has come to mean the board's address."""
    browser = chromiums(flags=[f"--host-resolver-rules=MAP board.example {PLAIN_HOST}"])
    browser.open(f"http://board.example:{web.port}/")
    assert browser.run("return document.querySelector('#stage') === null")
    status = browser.run("return performance.getEntriesByType('navigation')[0].responseStatus")
    assert status == 421
    browser.open(web.address())
    wait_until(lambda: browser.run("return document.querySelector('#stage') !== null"), 5,
               "the page by its own name")
