"""Parts of the page that can be tried one by one, in a browser."""

import pytest

# Target, patch, result: the table of RFC 7396, appendix A, as far as targets are objects.
MERGES = [
    ({"a": "b"}, {"a": "c"}, {"a": "c"}),
    ({"a": "b"}, {"b": "c"}, {"a": "b", "b": "c"}),
    ({"a": "b"}, {"a": None}, {}),
    ({"a": "b", "b": "c"}, {"a": None}, {"b": "c"}),
    ({"a": ["b"]}, {"a": "c"}, {"a": "c"}),
    ({"a": "c"}, {"a": ["b"]}, {"a": ["b"]}),
    ({"a": {"b": "c"}}, {"a": {"b": "d", "c": None}}, {"a": {"b": "d"}}),
    ({"a": [{"b": "c"}]}, {"a": [1]}, {"a": [1]}),
    (["a", "b"], ["c", "d"], ["c", "d"]),
    ({"a": "b"}, ["c"], ["c"]),
    ({"a": "foo"}, None, None),
    ({"a": "foo"}, "bar", "bar"),
    ({"e": None}, {"a": 1}, {"e": None, "a": 1}),
    ([1, 2], {"a": "b", "c": None}, {"a": "b"}),
    ({}, {"a": {"bb": {"ccc": None}}}, {"a": {"bb": {}}}),
]


@pytest.fixture
def module(browser, web):
    """module(name, body, ...) runs a body with what a module of the page exports as `m`."""
    browser.open(web.address())

    def run(name, body, *arguments):
        script = ("const done = arguments[arguments.length - 1]; const given = [...arguments];"
                  f"import('/page/{name}.js').then((m) => {{ {body} }}).then(done,"
                  " (error) => done(String(error)))")
        return browser.driver.execute_async_script(script, *arguments)

    return run


def test_merge_patch(module):
    found = module("state", "return given[0].map(([target, patch]) => m.merge(target, patch));",
                   [row[:2] for row in MERGES])
    assert found == [row[2] for row in MERGES]


def test_clock(module):
    """As cameras show how long they record."""
    found = module("bar", "return given[0].map(m.clock);", [-1, 0, 59.9, 60, 3599, 3600, 36061])
    assert found == ["00:00", "00:00", "00:59", "01:00", "59:59", "1:00:00", "10:01:01"]


def test_what_stays_is_not_written_again(module):
    """Screen readers would speak it."""
    body = """
      const line = document.createElement("p");
      const watcher = new MutationObserver(() => {});
      watcher.observe(line, { childList: true });
      const writes = (text) => { m.say(line, text); return watcher.takeRecords().length > 0; };
      return given[0].map(writes);
    """
    assert module("dom", body, ["a", "a", "b", "b", "a"]) == [True, False, True, False, True]


def test_few_lines_at_a_time(module):
    """Many refusals at once do not cover the picture."""
    body = ("given[0].forEach(m.warn); return [...document.querySelector('#alerts').children]"
            ".map((one) => one.textContent);")
    assert module("toast", body, ["1", "2", "3", "4", "5"]) == ["3", "4", "5"]


def test_curve(module):
    """The sticks' curve keeps the sign, the rest and the maximum, and never exceeds it."""
    shaped = ("return given[0].map(([x, curve, most]) => m.shaped(x, { curve, most }));", [
        [0, 0.5, 1], [1, 0.5, 0.4], [-1, 1, 0.4], [5, 0, 0.7], [0.5, 0, 1], [0.5, 1, 1]])
    assert module("drive", *shaped) == [0, 0.4, -0.4, 0.7, 0.5, 0.125]


# Plays so many pictures of 40 ms with what the module advises; answers with what is left in the
# end, and the fastest rate.
PLAY = """
const [left, jitter, pictures] = given;
const edge = new m.LiveEdge();
let [end, time, rate, fastest, jumps, now] = [left, 0, 1, 1, 0, 0];
const lefts = [];
for (let n = 0; n < pictures; ++n) {
  const wait = 40 + (n % 2 ? jitter : -jitter);
  now += wait;
  time = Math.min(end, time + (rate * wait) / 1000);
  const advice = edge.arrived(end - time, n, now);
  end += wait / 1000;
  if (advice.jump) { jumps += 1; time = end - 0.02; } else { rate = advice.rate; }
  fastest = Math.max(fastest, rate);
  lefts.push(end - time);
}
return { least: Math.min(...lefts.slice(-25)), fastest, jumps, rate };
"""


@pytest.mark.parametrize("left, jumps", [(0.04, 0), (0.3, 0), (0.9, 0), (3, 1)])
def test_live_edge(module, left, jumps):
    """From wherever it starts, playing comes to the live edge, never faster than a tenth more."""
    found = module("live-edge", PLAY, left, 5, 600)
    assert found["jumps"] == jumps and found["fastest"] <= 1.1
    assert found["least"] < 0.1, found
    assert found["rate"] == 1


def test_live_edge_bears_jitter(module):
    """Pictures that come in pairs are no reason to hurry."""
    assert module("live-edge", PLAY, 0.08, 35, 300)["fastest"] == 1


# A decoder that notes what it is given, behind a browser that thinks until answer() is called.
DECODER = """
window.fed = [];
window.answers = [];
window.answer = async (supported) => {
  answers.shift()({ supported });
  await new Promise((resolve) => setTimeout(resolve));
};
window.EncodedVideoChunk = class { constructor(init) { Object.assign(this, init); } };
window.VideoDecoder = class {
  static isConfigSupported = () => new Promise((resolve) => answers.push(resolve));
  state = "unconfigured";
  decodeQueueSize = 0;
  configure({ codec }) { this.state = "configured"; this.codec = codec; }
  decode({ timestamp }) {
    this.decodeQueueSize += 1;
    fed.push(`${this.codec}${timestamp / 1000}`);
  }
  close() { this.state = "closed"; }
};
const player = new m.CodecsPlayer({ canvas: document.createElement("canvas") }, {});
const push = (number, key = false) => player.push({ number, key, bytes: new Uint8Array(1) });
"""


def decoded(module, body):
    return module("video-webcodecs", f"{DECODER} return (async () => {{ {body}; return fed; }})()")


def test_pictures_wait_for_the_decoder(module):
    """From the key picture on, in their order."""
    assert decoded(module, "player.configure({ codec: 'a' }); push(1); push(2, true); push(3);"
                           "await answer(true); push(4)") == ["a2", "a3", "a4"]


def test_many_pictures_wait_for_the_decoder(module):
    """All that is kept for who joins; of too many, those from the next key picture on."""
    pushes = ("player.configure({ codec: 'a' }); push(0, true);"
              "for (let n = 1; n < count; ++n) push(n);")
    all_kept = decoded(module, "const count = 600;" + pushes + "await answer(true)")
    assert all_kept == [f"a{number}" for number in range(600)]
    assert decoded(module, "const count = 601;" + pushes + "push(700, true); push(701);"
                           "await answer(true)") == ["a700", "a701"]


def test_pictures_of_another_stream(module):
    """Neither the decoder nor the pictures of the one before it come into it."""
    assert decoded(module, "player.configure({ codec: 'a' }); await answer(true); push(1, true);"
                           "player.configure({ codec: 'b' }); push(2, true);"
                           "player.configure({ codec: 'c' }); push(3, true); await answer(false);"
                           "await answer(true); push(4)") == ["a1", "c3", "c4"]


def test_player_that_is_closed_while_the_browser_thinks(module):
    assert decoded(module, "player.configure({ codec: 'a' }); push(1, true); player.close();"
                           "await answer(true); push(2, true)") == []


def test_boxes(module):
    """Times are found in both versions of their boxes, and nothing in what is cut short."""
    long = [0, 0, 0, 20, *b"tfdt", 1, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 2]
    short = [0, 0, 0, 16, *b"tfdt", 0, 0, 0, 0, 0, 0, 0, 7]
    header = [0, 0, 0, 32, *b"mdhd", *[0] * 12, 0, 1, 0x5F, 0x90, *[0] * 8]
    body = "return given[0].map((bytes) => m[given[1]](new Uint8Array(bytes)));"
    assert module("boxes", body, [long, short, long[:10], []], "decodeTimeOf") == \
        [2**32 + 2, 7, None, None]
    assert module("boxes", body, [header, header[:20]], "timescaleOf") == [90000, None]
