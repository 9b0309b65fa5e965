// How a player that has a clock of its own stays at the live edge. What counts is the least that
// was left to play whenever a picture arrived: as much of it as never runs out is latency for
// nothing.

const WINDOW = 20; // pictures
const RELAXED = 0.02; // s of reserve that jitter may have
const EAGER = 0.06; // s of reserve above which playing is hurried
const FAR = 1; // s behind: jump
const JUMP_MS = 2000; // not more than one in this time
const FASTEST = 1.1;

export class LiveEdge {
  #left = [];
  #jumped = -Infinity;
  #decoded = -1;
  #hurried = false;

  /** `left`: seconds still to play when a picture arrives; `decoded`: pictures decoded so far.
   *  Returns {rate} to play with, or {jump: true}. */
  arrived(left, decoded, now) {
    this.#left.push(left);
    if (this.#left.length > WINDOW) this.#left.shift();
    const advances = decoded > this.#decoded;
    this.#decoded = decoded;
    if (left > FAR && advances && now - this.#jumped > JUMP_MS) {
      this.#jumped = now;
      this.#left = [];
      return { jump: true };
    }
    return { rate: this.#rate() };
  }

  #rate() {
    if (this.#left.length < WINDOW / 2) return 1;
    const reserve = Math.min(...this.#left);
    this.#hurried = reserve > (this.#hurried ? RELAXED : EAGER);
    if (!this.#hurried) return 1;
    return Math.min(FASTEST, 1.03 + reserve);
  }
}
