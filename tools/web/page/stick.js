// A virtual joystick for a finger or a mouse: springs back when it is let go, in whatever way.
import { mark } from "./dom.js";

const DEAD = { in: 0.07, out: 0.04 }; // enters and leaves rest, in parts of the way: hysteresis
const STRAIGHT = 0.04; // an axis that hardly moves does not: straight on is easy to hold
const NUDGE = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, 1], ArrowDown: [0, -1] };

export class Stick {
  #pointer = null;
  #moved = false;
  #nudge = null; // the place of the key that is down

  /** `axes`: two names, right and up, or one. `on(axes or null)` is told of every change. */
  constructor(element, axes, on) {
    this.element = element;
    this.knob = element.querySelector("i");
    this.axes = axes;
    this.on = on;
    element.addEventListener("pointerdown", (event) => this.#down(event));
    element.addEventListener("pointermove", (event) => this.#move(event));
    for (const end of ["pointerup", "pointercancel", "lostpointercapture"]) {
      element.addEventListener(end, (event) => this.#up(event));
    }
    element.addEventListener("contextmenu", (event) => event.preventDefault());
    element.addEventListener("keydown", (event) => this.#key(event));
    element.addEventListener("keyup", (event) => event.code === this.#nudge && this.release());
    element.addEventListener("blur", () => this.release());
  }

  release() {
    if (this.#pointer !== null && this.element.hasPointerCapture?.(this.#pointer)) {
      this.element.releasePointerCapture(this.#pointer);
    }
    this.#pointer = null;
    this.#nudge = null;
    this.#moved = false;
    this.#show(0, 0);
    this.on(null);
  }

  #down(event) {
    if (this.#pointer !== null || event.button !== 0) return;
    event.preventDefault();
    this.element.focus({ preventScroll: true });
    this.#pointer = event.pointerId;
    this.element.setPointerCapture(event.pointerId);
    this.#move(event);
  }

  #move(event) {
    if (event.pointerId !== this.#pointer) return;
    const box = this.element.getBoundingClientRect();
    let x = (event.clientX - box.left - box.width / 2) / (box.width / 2);
    let y = this.axes.length < 2 ? 0
      : -(event.clientY - box.top - box.height / 2) / (box.height / 2);
    const far = Math.hypot(x, y);
    if (far > 1) {
      x /= far;
      y /= far;
    }
    [x, y] = [x, y].map((way) => (Math.abs(way) < STRAIGHT ? 0 : way));
    this.#moved = far > (this.#moved ? DEAD.out : DEAD.in);
    this.#show(x, y);
    this.on(this.#moved ? this.#named(x, y) : null);
  }

  #up(event) {
    if (event.pointerId === this.#pointer) this.release();
  }

  /** The keyboard on the focused stick: half way, for as long as the key is down. */
  #key(event) {
    const way = NUDGE[event.key];
    if (!way || event.ctrlKey || event.altKey || event.metaKey) return;
    event.preventDefault();
    event.stopPropagation();
    this.#nudge = event.code;
    const [x, y] = this.axes.length < 2 ? [way[0] || way[1], 0] : way;
    this.#show(x / 2, y / 2);
    this.on(this.#named(x / 2, y / 2));
  }

  #named(x, y) {
    const [right, up] = this.axes;
    return up ? { [right]: x, [up]: y } : { [right]: x };
  }

  #show(x, y) {
    this.knob.style.setProperty("--x", x);
    this.knob.style.setProperty("--y", -y);
    const percent = (value) => Math.round(100 * value);
    const words = this.axes.map((axis, i) => `${axis} ${percent(i ? y : x)}`).join(", ");
    mark(this.element, "aria-valuenow", percent(x));
    mark(this.element, "aria-valuetext", x || y ? words : "at rest");
    this.element.classList.toggle("held", Boolean(x || y));
  }
}
