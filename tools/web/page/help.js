// What the page can do, and how its sticks feel.
import { open } from "./dialog.js";
import { el, memory } from "./dom.js";

const KEYS = [
  ["Arrows", "pan and tilt, for as long as they are down (with Shift: slowly)"],
  [", and .", "roll"],
  ["Space", "photo, or start and stop recording, by the camera's mode"],
  ["r", "start and stop recording"],
  ["c", "gimbal to the centre"],
  ["b", "gimbal looks back"],
  ["l", "lock the gimbal's orientation"],
  ["t", "stop tracking"],
  ["Esc", "stop the gimbal"],
  ["f", "full screen"],
  ["p", "save the picture"],
  ["i", "hide and show the instruments"],
  ["d", "dark or light"],
  ["m", "all commands"],
  ["?", "this help"],
];

function slider(label, value, on) {
  const output = el("output", { textContent: `${Math.round(100 * value)} %` });
  const input = el("input", { type: "range", min: 0, max: 100, value: Math.round(100 * value),
    "aria-label": label, oninput: () => {
      output.textContent = `${input.value} %`;
      on(input.valueAsNumber / 100);
    } });
  return el("label", { class: "slider" }, el("span", { textContent: label }), input, output);
}

/** The dialog. */
export function showHelp(drive, keys, theme, password) {
  const letters = el("input", { type: "checkbox", role: "switch", checked: keys.letters,
    onchange: () => {
      keys.letters = letters.checked;
      memory.set("letters", keys.letters);
    } });
  open("Help", { class: "wide" },
    el("p", { textContent: "Tap the picture to focus, drag a rectangle to track what is in it; " +
      "without a pointer, all commands (m) have both. " +
      "The gimbal moves only while a stick, a key or a lever is held, or as a command has told " +
      "it to: Esc stops that, or a stick that is let go." }),
    el("h3", { textContent: "Sticks, keys and gamepad" }),
    slider("Fastest speed", drive.feel.most, (most) => (drive.tuning = { ...drive.feel, most })),
    slider("Curve (slow around rest)", drive.feel.curve,
      (curve) => (drive.tuning = { ...drive.feel, curve })),
    el("label", { class: "slider" }, el("span", { textContent: "Letters are commands" }), letters),
    el("p", {}, el("button", { onclick: theme, textContent: "Dark or light" })),
    password && el("form", { method: "post", action: "/logout" },
      el("button", { type: "submit", textContent: "Log out" })),
    el("h3", { textContent: "Keys" }),
    el("dl", { class: "keys" }, ...KEYS.flatMap(([key, text]) =>
      [el("dt", {}, el("kbd", { textContent: key })), el("dd", { textContent: text })])));
}
