// The RC receiver's channels: what each drives, as drop-downs, beside what it says at the moment.
import { el, mark } from "./dom.js";

const CHANNELS = 32;
const SHOWN_AT_FIRST = 16;
const LEAST = 800; // raw values of a channel, in microseconds of its pulses
const MOST = 2200;

function channel(number, words) {
  const select = el("select", { "aria-label": `Channel ${number} drives` },
    el("option", { value: "", textContent: "nothing" }),
    ...words.map((word) => el("option", { value: word, textContent: word })));
  const bar = el("meter", { min: LEAST, max: MOST, "aria-label": `Channel ${number} now` });
  return { select, bar, value: el("output", {}), number };
}

/** The map as a part of the settings. */
export function rcMap(settings) {
  const { choices } = settings.row("rcin_map").arguments[0];
  const channels = Array.from({ length: CHANNELS }, (_, i) => channel(i + 1, choices));
  const lines = channels.map(({ number, select, bar, value }) => el("li",
    { hidden: number > SHOWN_AT_FIRST }, el("span", { textContent: number }), select, bar, value));
  channels.forEach(({ select }, i) => settings.fillIn(select, () => {
    const map = String(settings.state.get("settings", "rcin_map") ?? "");
    select.value = map.split(",")[i] ?? "";
    if (select.value) lines[i].hidden = false;
  }));
  const list = el("ol", { class: "channels", "aria-label": "Channels" }, ...lines);

  const live = () => {
    const values = settings.state.get("rc", "channels") ?? [];
    channels.forEach(({ bar, value }, i) => {
      if (values[i] === undefined) return;
      mark(bar, "value", values[i]);
      bar.value = values[i];
      value.textContent = values[i];
    });
    if (list.isConnected || !list.dataset.seen) return;
    settings.state.removeEventListener("change", live);
  };
  settings.state.addEventListener("change", live);
  live();
  queueMicrotask(() => (list.dataset.seen = "1"));

  const save = () => {
    const words = channels.map(({ select }) => select.value);
    settings.set("rcin_map", "Channels", [words.join(",")], ["rcin_map"]);
  };
  return el("section", {}, el("h3", { textContent: "Channels" }), list,
    el("p", { class: "buttons" },
      el("button", { textContent: "All 32 channels",
        onclick: () => lines.forEach((line) => (line.hidden = false)) }),
      el("button", { class: "primary", onclick: save, textContent: "Save the channels" })),
    el("p", {}, el("small", { textContent: "Restarts the RC receiver." })));
}
