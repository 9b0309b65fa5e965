// A gamepad's sticks. Browsers go on reporting the last axes of a pad that has been lost, so a pad
// counts only after it has been at rest once, and no longer than it shows signs of life.
const DEAD = { in: 0.16, out: 0.1 };
const SILENT_MS = 4000; // a stick held in a hand trembles
const FULL = 0.98; // from there on it may stand still,
const FULL_MS = 10_000; // for longer than the gimbal needs from one end of pan to the other

export class Gamepad {
  #index = null;
  #armed = false;
  #moved = false;
  #alive = { stamp: -1, at: 0 };

  /** `told` is told of news in words; `pad` is the first one. */
  constructor(told, pad) {
    this.told = told;
    addEventListener("gamepadconnected", ({ gamepad }) => this.#connected(gamepad));
    addEventListener("gamepaddisconnected", ({ gamepad }) => {
      if (gamepad.index === this.#index) this.#lost("The gamepad is gone.");
    });
    this.#connected(pad);
  }

  /** Its sticks as {pan, tilt, roll}; null while they rest or nothing is known of them. */
  read() {
    if (this.#index === null) return null;
    const pad = navigator.getGamepads()[this.#index];
    if (!pad?.connected) return this.#lost("The gamepad is gone.");
    const [pan = 0, tilt = 0, roll = 0] = pad.axes;
    const far = Math.max(Math.hypot(pan, tilt), Math.abs(roll));
    this.#moved = far > (this.#moved ? DEAD.out : DEAD.in);
    if (!this.#moved) this.#armed = true;
    if (!this.#moved || !this.#armed || !this.#lives(pad, far)) return null;
    return { pan, tilt: -tilt, roll };
  }

  /** After somebody stopped everything: it counts again once it was at rest. */
  disarm() {
    this.#armed = false;
  }

  #lives(pad, far) {
    const now = performance.now();
    if (pad.timestamp !== this.#alive.stamp) this.#alive = { stamp: pad.timestamp, at: now };
    if (now - this.#alive.at < (far < FULL ? SILENT_MS : FULL_MS)) return true;
    this.#armed = false;
    this.told("The gamepad says nothing new: centre its sticks.");
    return false;
  }

  #connected(pad) {
    this.#index = pad.index;
    this.#armed = false;
    this.#alive = { stamp: -1, at: performance.now() };
    this.told("A gamepad is there: left stick pan and tilt, right stick roll.");
  }

  #lost(text) {
    this.#index = null;
    this.#armed = false;
    this.told(text);
    return null;
  }
}
