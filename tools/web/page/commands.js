// Sending commands, and holding what the camera reports afterwards to what was asked. The table of
// commands comes from the server; here stands only which report tells of which command.
import { confirm } from "./dialog.js";
import { tell, warn } from "./toast.js";

const FOLLOWS_MS = 2000;

const same = (a, b) => String(a).toLowerCase() === String(b).toLowerCase();
const sameNumber = (a, b) => Math.abs(Number(a) - Number(b)) < 0.005;
const EXPOSURE = { auto: "auto", shutter: "S", aperture: "A", manual: "M" };

/** By a command's words: what the reports say of it, and whether that is what was asked. */
const REPORTS = {
  mode: { of: (s) => s.get("camera", "mode") },
  shotmode: { of: (s) => s.get("exposure", "photo_format") },
  "record start": { of: (s) => s.get("recording", "on"), is: (on) => on === true },
  "record stop": { of: (s) => s.get("recording", "on"), is: (on) => on === false },
  iso: { of: (s) => s.get("exposure", "iso") },
  shutter: {
    of: (s) => s.get("exposure", "shutter"),
    is: (now, [time]) => same(now.replace(" ", ""), time.endsWith("s") ? time : `${time}s`),
  },
  aperture: { of: (s) => s.get("exposure", "aperture"), is: (now, [f]) => sameNumber(now, f) },
  ev: { of: (s) => s.get("exposure", "ev"), is: (now, [ev]) => sameNumber(now, ev) },
  "wb custom": {
    of: (s) => s.get("exposure", "colour_temperature"),
    is: (now, [kelvin]) => Math.abs(now - kelvin) < 100,
  },
  wb: { of: (s) => s.get("exposure", "white_balance") },
  color: { of: (s) => s.get("exposure", "colour") },
  "exposure mode": {
    of: (s) => s.get("exposure", "mode"), is: (now, [mode]) => same(now, EXPOSURE[mode]),
  },
  resolution: { of: resolution },
  "focus type": {
    of: (s) => ({ 1: "afs", 2: "afc" })[s.get("lens", "focus_mode")],
  },
  "tracking start": { of: (s) => s.get("tracking", "on"), is: (on) => on === true },
  "orientation lock": { of: (s) => s.get("gimbal", "locked"), is: (is) => is === true },
  "orientation unlock": { of: (s) => s.get("gimbal", "locked"), is: (is) => is === false },
};

/** The video format as its command has it; undefined before the camera's first report. */
export function resolution(state) {
  const { resolution: size, frame_rate: rate } = state.group("exposure");
  return size === undefined ? undefined : `${size}@${rate}`;
}

// What moves by itself asks, too, beside what the table says of.
const ASKS = {
  "gimbal calibrate": "The gimbal will turn by itself: leave it alone, and on level ground.",
};

export class Commands {
  #table = new Map();

  constructor(link, state, lease) {
    this.link = link;
    this.state = state;
    this.lease = lease;
    link.addEventListener("message", ({ detail }) => {
      if (detail.type !== "hello") return;
      this.#table = new Map(detail.commands.map((row) => [row.words, row]));
    });
  }

  /** Every command of the table, in its order. */
  all() {
    return [...this.#table.values()];
  }

  /** The row of a command; undefined when the service has none of that name. */
  row(words) {
    return this.#table.get(words);
  }

  /** What is asked before a command of that row; undefined when nothing is. */
  question(row) {
    return row?.asks ? `This will ${row.help}.` : ASKS[row?.words];
  }

  /** What the camera reports of what a command sets; undefined when it never did, or cannot. */
  reported(words) {
    return REPORTS[words]?.of(this.state);
  }

  /** Whether that is what those values ask for. */
  agrees(words, values) {
    const { of, is = (now, [value]) => same(now, value) } = REPORTS[words];
    const now = of(this.state);
    return now !== undefined && is(now, values);
  }

  /** Sends a command; asks first where it erases or ends something. Promises whether it was taken
   *  and, where the camera reports of it, followed. */
  async run(words, values = []) {
    const row = this.row(words);
    const name = [words, ...values].join(" ");
    const question = this.question(row);
    if (question && !(await confirm(`${name}?`, question, name))) return false;
    if (!(await this.lease.need())) {
      warn(this.lease.refusal());
      return false;
    }
    const typed = [...words.split(" "), ...values.map(String)];
    const message = { type: "command", words: typed, ...(row?.asks && { confirmed: true }) };
    const { ok, text } = await this.link.request(message);
    if (!ok) warn(text || `${name}: refused`);
    return ok && this.#followed(words, values, name);
  }

  async #followed(words, values, name) {
    if (!REPORTS[words]) {
      tell(`${name}: sent`);
      return true;
    }
    if (await this.state.follows(() => this.agrees(words, values), FOLLOWS_MS)) {
      tell(`${name}: done`);
      return true;
    }
    const now = this.reported(words);
    warn(`${name}: the camera did not follow within 2 s` +
      (now === undefined ? "; it reports nothing." : `; it still reports ${now}.`));
    return false;
  }
}
