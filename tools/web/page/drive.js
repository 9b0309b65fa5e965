// A dead man's switch: sticks, keys and levers move the gimbal only while somebody holds them on a
// live page. Twenty times a second the newest speeds are sent; once nobody holds anything, zeros,
// at once.
import { memory } from "./dom.js";

const PERIOD_MS = 50;
const ZEROS = 3; // messages of rest after a movement: each of them alone suffices
const AXES = ["pan", "tilt", "roll"];

/** A deflection from -1 to 1 by the operator's curve (0 straight, 1 cubic) and maximum. */
export function shaped(deflection, { curve, most }) {
  const x = Math.max(-1, Math.min(1, deflection));
  return ((1 - curve) * x + curve * x * x * x) * most;
}

export class Drive extends EventTarget {
  #sources = new Map(); // what each source holds, {pan, tilt, roll} from -1 to 1
  #polls = []; // sources that are asked at each tick
  #zeros = 0;
  #counter = 0;
  #asks = false;
  #timer = null;

  constructor(link, lease) {
    super();
    this.link = link;
    this.lease = lease;
    this.feel = { curve: 0.6, most: 0.6, ...memory.get("feel", {}) };
    this.speeds = { pan: 0, tilt: 0, roll: 0 };
    this.#timer = setInterval(() => this.#tick(), PERIOD_MS);
    const stop = () => this.stop();
    for (const event of ["blur", "pagehide", "freeze"]) addEventListener(event, stop);
    document.addEventListener("visibilitychange", () => document.hidden && stop());
    lease.addEventListener("lost", stop);
  }

  /** What the operator wants of the sticks: {curve, most}, kept in this browser. */
  set tuning(feel) {
    this.feel = feel;
    memory.set("feel", feel);
  }

  /** A source that is read at each tick: returns deflections, or null while it is at rest. */
  poll(name, read) {
    this.#polls.push(() => this.hold(name, read()));
  }

  /** What a source holds now; null lets go. */
  hold(name, axes) {
    const held = axes && AXES.some((axis) => axes[axis]);
    if (held) this.#sources.set(name, axes);
    else if (this.#sources.delete(name)) this.#rest();
  }

  /** Everybody lets go. Sources that are still pressed count again after they were released. It is
   *  said when something moved, or in any case: a command may move the gimbal, too. */
  stop(said = this.moving) {
    this.#sources.clear();
    this.dispatchEvent(new Event("stop"));
    if (said) this.#rest();
  }

  get moving() {
    return this.#sources.size > 0;
  }

  #rest() {
    if (this.#sources.size > 0) return;
    this.#zeros = ZEROS;
    this.#send();
  }

  #sum() {
    const sum = { pan: 0, tilt: 0, roll: 0 };
    for (const axes of this.#sources.values()) {
      for (const axis of AXES) sum[axis] += axes[axis] ?? 0;
    }
    for (const axis of AXES) sum[axis] = Math.round(1000 * shaped(sum[axis], this.feel)) / 1000;
    return sum;
  }

  #tick() {
    if (document.hidden || !document.hasFocus()) {
      if (this.moving) this.stop();
    } else {
      for (const read of this.#polls) read();
    }
    if (this.moving) {
      if (this.lease.mine) this.#send();
      else this.#want();
    } else if (this.#zeros > 0) {
      this.#send();
    }
  }

  #send() {
    this.speeds = this.#sum();
    if (this.moving) this.#zeros = ZEROS;
    else --this.#zeros;
    if (this.lease.mine) {
      this.link.send({ type: "speed", ...this.speeds, n: ++this.#counter });
    }
    this.dispatchEvent(new Event("speed"));
  }

  /** A stick is moved by somebody who does not drive yet. */
  async #want() {
    if (this.#asks) return;
    this.#asks = true;
    const may = await this.lease.need();
    if (!may && this.moving) {
      this.dispatchEvent(new CustomEvent("refused", { detail: this.lease.refusal() }));
      this.stop();
    }
    this.#asks = false;
  }
}
