// The bar of state: links, recording, viewers, loss, latency, gimbal's receiver. A chip appears
// with its first report; one that is old is dimmed and says since when.
import { $, el, mark, say } from "./dom.js";
import { since } from "./values.js";

const STALE_MS = 3500; // the service speaks each second

const yes = (text) => ({ text, tone: "good" });
const no = (text) => ({ text, tone: "bad" });
const plain = (text) => ({ text, tone: "" });

/** Seconds as a camera shows them. */
export function clock(seconds) {
  const whole = Math.max(0, Math.floor(seconds));
  const two = (number) => String(number).padStart(2, "0");
  const minutes = `${two(Math.floor(whole / 60) % 60)}:${two(whole % 60)}`;
  return whole < 3600 ? minutes : `${Math.floor(whole / 3600)}:${minutes}`;
}

const isOld = (state) => state.age("recording") > STALE_MS;

/** Since when is told by the server; not for a recording that is older than the server. */
function recording(state, link) {
  const { on, since: began, at } = state.group("recording");
  if (!on) return null;
  const until = isOld(state) ? at : link.now();
  const ran = began === undefined ? "" : ` ${clock((until - began) / 1000)}`;
  return { text: `REC${ran}`, tone: "rec" };
}

function loss(state) {
  const { connected: on, loss: part } = state.group("video");
  if (!on || part === undefined) return null; // nothing can be lost
  const text = `${(100 * part).toFixed(part < 0.1 ? 1 : 0)} %`;
  return part > 0.005 ? no(text) : plain(text);
}

function viewers(state) {
  const { service, browsers } = state.group("viewers");
  if (service === undefined && browsers === undefined) return null;
  return plain(browsers === undefined ? `${service}` : `${service ?? "?"} · ${browsers} here`);
}

function rc(state) {
  const status = state.get("rc", "status");
  if (status === undefined || status === 0) return null;
  return status === 6 ? yes("live") : no("not live");
}

const connected = (group) => (state) => {
  const is = state.get(group, "connected");
  return is === undefined ? null : is ? yes("on") : no("lost");
};

// Name, what it is called in the bar, the group whose age counts (null: none), and its value.
const CHIPS = [
  ["recording", "", "recording", recording],
  ["camera", "Camera", "camera", connected("camera")],
  ["video", "Video", "video", connected("video")],
  ["latency", "Latency", null, null],
  ["loss", "Loss", "video", loss],
  ["rate", "Rate", "video", (s) => s.get("video", "rate") > 0
    ? plain(`${Math.round(s.get("video", "rate"))} fps`) : null],
  ["viewers", "Viewers", "viewers", viewers],
  ["rc", "RC", "rc", rc],
];

export class Bar {
  #chips = [];

  constructor(state, link, video) {
    this.state = state;
    this.link = link;
    this.video = video;
    this.server = el("p", { class: "chip bad", "data-chip": "server", role: "status" });
    $("state").append(this.server);
    for (const [name, label, group, value] of CHIPS) this.#add({ name, label, group, value });
    state.addEventListener("change", () => this.show());
    link.addEventListener("open", () => this.show());
    link.addEventListener("close", () => this.show());
    setInterval(() => this.show(), 500);
  }

  show() {
    this.server.hidden = this.link.open;
    say(this.server, this.link.open ? "" : "no connection to the board");
    for (const chip of this.#chips) this.#update(chip);
    const records = this.state.get("recording", "on") === true && !isOld(this.state);
    document.body.classList.toggle("recording", records);
  }

  #add(chip) {
    chip.text = el("b");
    chip.old = el("small");
    chip.element = el("p", { class: "chip", "data-chip": chip.name, hidden: true },
      chip.label && el("span", { textContent: chip.label }), " ", chip.text, " ", chip.old);
    this.#chips.push(chip);
  }

  #update(chip) {
    const value = chip.name === "latency" ? this.#latency() : chip.value(this.state, this.link);
    const age = chip.group ? this.state.age(chip.group) : 0;
    const known = value !== null && age !== null;
    chip.element.hidden = !known;
    if (!known) return;
    // In the order in which they come to be known: what is there never moves.
    if (!chip.element.isConnected) $("state").append(chip.element);
    const stale = age > STALE_MS || !this.link.open;
    say(chip.text, value.text);
    say(chip.old, age > STALE_MS ? `since ${since(age)}` : "");
    mark(chip.element, "class", `chip ${value.tone} ${stale ? "stale" : ""}`);
  }

  #latency() {
    const ms = this.video.latency;
    if (ms === null) return null;
    return ms > 500 ? no(`${Math.round(ms)} ms`) : plain(`${Math.round(ms)} ms`);
  }
}
