// The camera's settings as a row of buttons: each shows what the camera reports and opens a picker
// of what the table of commands allows.
import { open } from "./dialog.js";
import { $, el, mark, say } from "./dom.js";
import { choicesOf, field } from "./fields.js";
import { resolution } from "./commands.js";

const signed = (ev) => (Number(ev) > 0 ? `+${ev}` : String(ev)).replace("-", "−");
const kelvin = (s) => s.get("exposure", "colour_temperature");

// Name, group of the state, what is shown, and the commands behind the button.
const VALUES = [
  ["Mode", "camera", (s) => s.get("camera", "mode"), ["mode"]],
  ["Format", "exposure", (s) => resolution(s)?.replace("@", " ")?.replace("x", "×"), ["resolution"]],
  ["Exposure", "exposure", (s) => s.get("exposure", "mode"),
    ["exposure mode", "exposure lock", "exposure unlock", "exposure center", "exposure point"]],
  ["ISO", "exposure", (s) => s.get("exposure", "iso"), ["iso"]],
  ["Shutter", "exposure", (s) => s.get("exposure", "shutter")?.replace(" s", ""), ["shutter"]],
  ["Aperture", "exposure", (s) => s.get("exposure", "aperture") &&
    `f/${s.get("exposure", "aperture")}`, ["aperture"]],
  ["EV", "exposure", (s) => s.get("exposure", "ev") !== undefined &&
    signed(s.get("exposure", "ev")), ["ev"]],
  ["White bal.", "exposure", (s) => s.get("exposure", "white_balance") === "custom"
    ? `${kelvin(s)} K` : s.get("exposure", "white_balance"), ["wb", "wb custom"]],
  ["Colour", "exposure", (s) => s.get("exposure", "colour"), ["color"]],
  ["Photo", "exposure", (s) => s.get("exposure", "photo_format"), ["shotmode", "aspect"]],
  ["Focus", "lens", (s) => ({ 1: "single", 2: "continuous" })[s.get("lens", "focus_mode")],
    ["focus type"]],
  ["Zoom", "lens", (s) => s.get("lens", "zoom") && `${s.get("lens", "zoom")}×`, []],
];

const STALE_MS = 3000;

/** How long ago, for people. */
export function since(milliseconds) {
  const seconds = Math.round(milliseconds / 1000);
  return seconds < 120 ? `${seconds} s` : `${Math.round(seconds / 60)} min`;
}

export class Values {
  #buttons = [];

  constructor(state, commands) {
    this.state = state;
    this.commands = commands;
    for (const [name, group, text, words] of VALUES) this.#add({ name, group, text, words });
    state.addEventListener("change", () => this.show());
  }

  show() {
    for (const one of this.#buttons) {
      const text = one.text(this.state);
      const age = this.state.age(one.group);
      const stale = age !== null && age > STALE_MS;
      one.button.hidden = !text;
      say(one.value, text || "");
      say(one.age, stale ? `since ${since(age)}` : "");
      one.button.classList.toggle("stale", stale);
    }
  }

  #add(one) {
    one.value = el("b");
    one.age = el("small");
    const content = [el("span", { textContent: one.name }), " ", one.value, " ", one.age];
    one.button = one.words.length
      ? el("button", { class: "value", "aria-haspopup": "dialog", hidden: true,
        onclick: () => this.#pick(one) }, ...content)
      : el("p", { class: "value", hidden: true }, ...content);
    $("values").append(one.button);
    this.#buttons.push(one);
  }

  #pick(one) {
    const parts = one.words.map((words) => this.commands.row(words)).filter(Boolean)
      .map((row) => picker(row, this.commands));
    open(one.name, { class: "picker" }, ...parts);
  }
}

/** What a command can be told, from its row: buttons for words, fields for everything else. */
export function picker(row, commands) {
  const [first] = row.arguments;
  const title = el("h3", { textContent: row.help });
  const choices = row.arguments.length === 1 && choicesOf(first);
  if (choices) return words(row, choices, title, commands);
  const fields = row.arguments.map((argument) => ({ argument, ...field(argument, argument.name) }));
  const send = el("button", { type: "submit", class: commands.question(row) ? "danger" : undefined,
    textContent: row.arguments.length ? "Set" : row.words });
  const form = el("form", { class: "fields", onsubmit: (event) => {
    event.preventDefault();
    const values = fields.map(({ get }) => get());
    while (values.length && values.at(-1) === "") values.pop(); // optional ones are the last
    if (!values.includes(null)) commands.run(row.words, values);
  } }, title, ...fields.map(({ argument, element }) => {
    element.required = !argument.optional;
    return el("label", {}, el("span", { textContent: argument.name.toLowerCase() }), element);
  }), send);
  if (fields.length === 1) fields[0].set(commands.reported(row.words));
  return form;
}

function words(row, choices, title, commands) {
  const list = el("div", { class: "words", role: "group", "aria-label": row.help });
  const light = () => {
    for (const button of list.children) {
      const is = commands.reported(row.words) !== undefined &&
        commands.agrees(row.words, [button.dataset.word]);
      mark(button, "aria-pressed", is);
    }
  };
  for (const word of choices) {
    list.append(el("button", { "data-word": word, textContent: word, "aria-pressed": "false",
      onclick: async ({ target }) => {
        mark(target, "aria-busy", true);
        await commands.run(row.words, [word]);
        target.removeAttribute("aria-busy");
        light();
      } }));
  }
  light();
  commands.state.addEventListener("change", function look() {
    if (list.isConnected || !list.dataset.seen) light();
    else commands.state.removeEventListener("change", look);
    if (list.isConnected) list.dataset.seen = "1";
  });
  return el("section", {}, title, list);
}
