// The board's settings, grouped as a person thinks. Limits and words come from the server's table;
// here stands where the report shows a setting, and what a change ends for a moment.
import { open } from "./dialog.js";
import { el } from "./dom.js";
import { expected, field } from "./fields.js";
import { rcMap } from "./rc-map.js";
import { tell, warn } from "./toast.js";
import { wireless } from "./wireless.js";

const FOLLOWS_MS = 2500;
const STREAM = "the viewers' stream";
const TRANSCODER = "the viewers' stream and the receivers";
const PICTURE = "the picture on the HDMI output";
const DISPLAY = "the on-screen display and the picture on the HDMI output";
const RECEIVER = "the RC receiver";

const size = ({ vw, vh }) => (vw === undefined ? undefined : `${vw}x${vh}`);
const sizes = { "320x240": 1, "640x480": 1, "1280x720": 1 };

// A group's title, and its settings: name in the table, label, the members of the report that show
// its values, and what starts anew when it is changed.
const GROUPS = [
  ["Video", [
    ["video_transcode_enabled", "Transcode the stream", ["vte"], TRANSCODER],
    ["video_bitrate", "Bits a second", ["vbitrate"], STREAM],
    ["video_resolution", "Size of the stream", [(s) => sizes[size(s)] && size(s)], STREAM],
    ["video_hflip", "Mirrored", ["v_hf"], PICTURE],
    ["video_vflip", "Upside down", ["v_vf"], PICTURE],
    ["disable_video_stream", "No video to viewers", ["v_dis"], ""],
    ["internal_camera_enabled", "The board's own camera", ["ic_en"], "the board's own camera"],
    ["internal_camera_fullscreen", "The board's own camera on the whole screen", ["ic_fs"], "the board's own camera"],
  ]],
  ["On-screen display", [
    ["osd_enabled", "On-screen display", ["osd_en"], ""],
    ["osd_borders", "Borders", ["osdbrdw", "osdbrdh"], DISPLAY],
    ["osd_offset", "Offsets", ["osdtof", "osdbof"], DISPLAY],
  ]],
  ["HDMI", [
    ["hdmi_enabled", "HDMI instead of TV output", ["hdmistate"], DISPLAY],
    ["hdmimode", "Mode", [], DISPLAY],
  ]],
  ["RC receiver", [
    ["rcin_enabled", "The receiver controls the camera", ["rcin_en"], RECEIVER],
    ["rcin_mode", "Modes of the two receivers", ["rcin_mode", "rcin2_mode"], RECEIVER],
    ["rcin_speed", "Speeds in percent", ["rcin_pan", "rcin_tilt", "rcin_dutch"], ""],
    ["rcin_pan_inv", "Pan inverted (not 0)", ["rcin_paninv"], ""],
    ["rcin_tilt_inv", "Tilt inverted (not 0)", ["rcin_tiltinv"], ""],
    ["rcin_dutch_inv", "Roll inverted (not 0)", ["rcin_dutchinv"], ""],
    ["rcin_exp", "Exponential sticks", ["rcin_exp"], RECEIVER],
    ["rcin_abs", "Absolute sticks", ["rcin_abs"], ""],
  ]],
];

// Set together with others above.
const WITHIN = ["rcin_pan", "rcin_tilt", "rcin_dutch", "osd_top_offset", "osd_bottom_offset",
  "rcin_map"];

export class Settings {
  #table;
  #wifi;
  #fills = [];

  /** `tables`: "settings" and "wifi" of the server's hello. */
  constructor(link, state, lease, tables) {
    Object.assign(this, { link, state, lease });
    this.#table = new Map(tables.settings.map((row) => [row.name, row]));
    this.#wifi = tables.wifi ?? [];
  }

  row(name) {
    return this.#table.get(name);
  }

  show() {
    const known = new Set([...GROUPS.flatMap(([, rows]) => rows.map(([name]) => name)), ...WITHIN]);
    const others = [...this.#table.keys()].filter((name) => !known.has(name) && name !== "wifi")
      .map((name) => [name, this.row(name).help, [], ""]);
    const groups = others.length ? [...GROUPS, ["Others", others]] : GROUPS;
    const parts = groups.map(([title, rows]) => this.#group(title, rows));
    const receiver = parts[GROUPS.findIndex(([title]) => title === "RC receiver")];
    if (this.row("rcin_map")) receiver.append(rcMap(this));
    parts.push(wireless(this, this.#wifi));
    const dialog = open("Settings", { class: "wide", id: "settings-dialog" }, ...parts);
    let seen = this.state.get("settings", "at");
    const follow = () => {
      const at = this.state.get("settings", "at");
      if (at !== seen) this.#fills.forEach((fill) => fill());
      seen = at;
    };
    this.state.addEventListener("change", follow);
    dialog.addEventListener("close", () => this.state.removeEventListener("change", follow));
    return dialog;
  }

  /** `fill` writes into a field what the board reports: now, and again with every report until
   *  somebody has touched the field. */
  fillIn(field, fill) {
    let touched = false;
    for (const kind of ["input", "change"]) field.addEventListener(kind, () => (touched = true));
    this.#fills.push(() => touched || fill());
    fill();
  }

  /** Changes a setting, which people know by its label, and says whether the members of the
   *  board's report followed. */
  async set(name, label, values, shows = []) {
    if (!(await this.lease.need())) return warn(this.lease.refusal());
    const { ok, text } = await this.link.request({ type: "set", name, values });
    if (!ok) return warn(`${label}: ${text || "refused"}`);
    if (shows.length === 0) return tell(`${label}: sent`);
    const followed = await this.state.follows(() => this.#reads(shows, values), FOLLOWS_MS);
    if (followed) tell(`${label}: saved`);
    else warn(`${label}: sent, but the board has not reported the change.`);
    return followed;
  }

  #read(member) {
    const report = this.state.group("settings");
    return typeof member === "function" ? member(report) : report[member];
  }

  #reads(members, values) {
    return members.every((member, i) => {
      const now = this.#read(member);
      if (now === undefined) return false;
      const wanted = { on: "1", off: "0" }[values[i]] ?? values[i];
      return String(now) === String(wanted) ||
        (wanted !== "" && Number(now) === Number(wanted));
    });
  }

  #group(title, rows) {
    const known = rows.filter(([name]) => this.row(name));
    return el("details", { open: title === "Video" }, el("summary", { textContent: title }),
      ...known.map((row) => this.#line(row)));
  }

  #line([name, label, members, ends]) {
    const row = this.row(name);
    const fields = row.arguments.map((value, i) => {
      const many = row.arguments.length > 1;
      const made = field(value, many ? `${label}: ${value.name.toLowerCase()}` : label);
      if (members[i]) this.fillIn(made.element, () => made.set(this.#read(members[i])));
      return { ...made, name: value.name.toLowerCase(), many };
    });
    const send = () => {
      const values = fields.map(({ get }) => get());
      while (values.length > 1 && values.at(-1) === "") values.pop();
      const wrong = values.findIndex((value) => value === null || value === "");
      if (wrong >= 0) return warn(`${label}: expected ${expected(row.arguments[wrong])}.`);
      return this.set(name, label, values, members);
    };
    const note = ends && el("small", { textContent: `Restarts ${ends}.` });
    return el("form", { class: "setting", onsubmit: (event) => (event.preventDefault(), send()) },
      el("p", {}, label, note || null),
      el("span", { class: "inputs" }, ...fields.map(({ element, name: value, many }) => many
        ? el("label", {}, el("span", { textContent: value }), element) : element)),
      el("button", { type: "submit", "aria-label": `Set ${label}`, textContent: "Set" }));
  }
}
