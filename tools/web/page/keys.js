// The keyboard: arrows drive while they are down, letters are commands. Nothing of it while a
// dialog is open or somebody types.
import { isOpen } from "./dialog.js";
import { memory } from "./dom.js";

const DRIVES = {
  ArrowLeft: { pan: -1 }, ArrowRight: { pan: 1 }, ArrowUp: { tilt: 1 }, ArrowDown: { tilt: -1 },
  ",": { roll: -1 }, ".": { roll: 1 },
};
const SLOW = 0.3; // with Shift

const types = (target) => target.closest?.("input, select, textarea, [contenteditable]") !== null;

export class Keys {
  #down = new Map(); // what is down, by its place: what a key is called changes with Shift
  #slow = false;

  /** `hold(axes or null)` drives; `actions` are functions by their keys. */
  constructor(hold, actions) {
    this.hold = hold;
    this.actions = actions;
    this.letters = memory.get("letters", true);
    addEventListener("keydown", (event) => this.#pressed(event));
    addEventListener("keyup", (event) => this.#released(event));
  }

  release() {
    this.#down.clear();
    this.hold(null);
  }

  #pressed(event) {
    if (event.key === "Escape") return this.actions.Escape(); // whatever is open
    if (event.ctrlKey || event.altKey || event.metaKey || isOpen() || types(event.target)) return;
    this.#slow = event.shiftKey;
    if (DRIVES[event.key]) {
      event.preventDefault();
      if (!event.repeat) this.#down.set(event.code, event.key);
      this.#sum();
    } else if (!event.repeat && this.#acts(event)) {
      event.preventDefault();
    }
  }

  #acts(event) {
    if (!this.letters) return false;
    // The space bar belongs to the button that has the focus.
    if (event.key === " " && event.target.closest("button, a, [tabindex]")) return false;
    const action = this.actions[event.key];
    action?.();
    return Boolean(action);
  }

  #released(event) {
    if (event.key === "Shift") this.#slow = false;
    this.#down.delete(event.code);
    this.#sum();
  }

  #sum() {
    if (this.#down.size === 0) return this.hold(null);
    const axes = { pan: 0, tilt: 0, roll: 0 };
    for (const key of this.#down.values()) {
      for (const [axis, way] of Object.entries(DRIVES[key])) {
        axes[axis] += way * (this.#slow ? SLOW : 1);
      }
    }
    return this.hold(axes);
  }
}
