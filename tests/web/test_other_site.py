"""A page of another site in the operator's browser must not reach the board: not record, not steer,
not read. It is tried with everything that a browser lets a page try."""

import http.server
import json
import subprocess
import threading

import pytest

from harness.timing import wait_until
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
  const frame = document.createElement("iframe");
  frame.src = board;
  document.body.append(frame);
  await new Promise((resolve) => { frame.onload = resolve; setTimeout(resolve, 1500); });
  try { results.frame = frame.contentDocument ? "readable" : "closed"; }
  catch { results.frame = "closed"; }
  document.title = JSON.stringify(results);
})();
</script>"""


@pytest.fixture
def other_site(web):
    """A site of somebody else, with that page."""
    subprocess.run(["ip", "address", "replace", f"{OTHER_HOST}/32", "dev", "lo"], check=True)
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


def test_other_site(browser, data, other_site):
    data.keep_sending(b"\0", 0.2)
    browser.open(other_site)
    browser.wait("return document.title.startsWith('{')", seconds=20)
    results = json.loads(browser.run("return document.title"))
    assert results.pop("frame") == "closed"
    assert results.pop("simple post") in ("empty", "refused")  # opaque: whatever it was, unreadable
    assert set(results.values()) == {"refused"}, results
    # Nothing of all that has become a frame to the camera.
    data.socket.setblocking(False)
    with pytest.raises(BlockingIOError):
        print(data.socket.recv(2048).hex())


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
