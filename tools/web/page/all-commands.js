// Every command of the board's table, for what has no button of its own.
import { open } from "./dialog.js";
import { el } from "./dom.js";
import { picker } from "./values.js";

const GROUPS = [
  ["Camera", ["mode", "shot", "shotmode", "record", "resolution", "aspect", "focus", "tracking"]],
  ["Exposure", ["iso", "shutter", "aperture", "ev", "wb", "color", "antiflicker", "exposure",
    "histogram"]],
  ["Gimbal", ["gimbal", "orientation"]],
];

/** The dialog with all commands. */
export function showCommands(commands) {
  const left = new Set(commands.all());
  const of = (firsts) => [...left].filter((row) => firsts.includes(row.words.split(" ")[0]));
  const sections = GROUPS.map(([title, firsts]) => {
    const rows = of(firsts);
    rows.forEach((row) => left.delete(row));
    return [title, rows];
  });
  sections.push(["Board", [...left]]);
  return open("All commands", { class: "wide" }, ...sections.map(([title, rows], i) =>
    el("details", { open: i === 0 }, el("summary", { textContent: title }),
      ...rows.map((row) => picker(row, commands)))));
}
