// The control connection: comes back when it is lost, knows the server's clock, matches results
// with what they answer.

const RETRY_MS = [300, 600, 1200, 2500];
const PING_MS = 1000;
const SILENT_MS = 3500; // pings are answered; a socket that says nothing for so long is dead
const ANSWER_MS = 4000; // the board refuses what has waited for 3 s
const CLOCK_SAMPLES = 10;
const LOG_IN_AGAIN = 4001;
const LOG_IN = "/login?ended=1"; // which says why

/** The address of a WebSocket of this server. */
export function socketAddress(path) {
  return `${location.protocol === "https:" ? "wss:" : "ws:"}//${location.host}${path}`;
}

export class Link extends EventTarget {
  #socket = null;
  #tries = 0;
  #next = 1;
  #waiting = new Map(); // results by the numbers of their requests
  #samples = []; // {offset, trip} of the last pings, in ms
  #heard = 0;
  #closedAt = performance.now(); // since when there is no connection

  constructor(path) {
    super();
    this.path = path;
    this.open = false;
    setInterval(() => this.#ping(), PING_MS);
    this.connect();
  }

  connect() {
    const socket = new WebSocket(socketAddress(this.path));
    this.#socket = socket;
    this.#heard = performance.now();
    socket.addEventListener("open", () => this.#opened());
    socket.addEventListener("message", (event) => this.#message(event.data));
    socket.addEventListener("close", (event) => this.#closed(socket, event.code));
  }

  /** Sends a message; false when there is no connection: nothing is kept for later. */
  send(message) {
    if (!this.open) return false;
    this.#socket.send(JSON.stringify(message));
    return true;
  }

  /** Sends a message with a number of its own and promises its result, {ok, text, …}. */
  request(message) {
    const id = this.#next++;
    if (!this.send({ ...message, id })) {
      return Promise.resolve({ ok: false, text: "There is no connection to the board." });
    }
    return new Promise((resolve) => {
      const late = setTimeout(() => {
        this.#waiting.delete(id);
        resolve({ ok: false, text: "The board has not answered." });
      }, ANSWER_MS);
      this.#waiting.set(id, { resolve, late });
    });
  }

  /** Milliseconds of the server's clock now; null before the first answer. */
  now() {
    if (this.#samples.length === 0) return null;
    const best = this.#samples.reduce((a, b) => (b.trip < a.trip ? b : a));
    return performance.now() + best.offset;
  }

  /** The shortest round trip of the last pings, in ms. */
  get trip() {
    return this.#samples.length === 0 ? null : Math.min(...this.#samples.map((one) => one.trip));
  }

  /** Milliseconds without a connection; 0 while there is one. */
  get missing() {
    return this.open ? 0 : performance.now() - this.#closedAt;
  }

  #opened() {
    this.open = true;
    this.#tries = 0;
    this.#samples = [];
    this.#ping();
    this.dispatchEvent(new Event("open"));
  }

  #ping() {
    if (this.open && performance.now() - this.#heard > SILENT_MS) this.#socket.close();
    this.send({ type: "ping", echo: performance.now() });
  }

  #message(text) {
    this.#heard = performance.now();
    const message = JSON.parse(text);
    if (message.type === "clock") this.#clock(message);
    else if (message.type === "result") this.#result(message);
    else this.dispatchEvent(new CustomEvent("message", { detail: message }));
  }

  #clock(message) {
    const now = performance.now();
    if (typeof message.echo !== "number") return;
    const trip = now - message.echo;
    this.#samples.push({ trip, offset: message.now + trip / 2 - now });
    if (this.#samples.length > CLOCK_SAMPLES) this.#samples.shift();
  }

  #result(message) {
    const waiting = this.#waiting.get(message.id);
    if (!waiting) return;
    clearTimeout(waiting.late);
    this.#waiting.delete(message.id);
    waiting.resolve(message);
  }

  #closed(socket, code) {
    if (socket !== this.#socket) return;
    const was = this.open;
    if (was) this.#closedAt = performance.now();
    this.open = false;
    for (const { resolve, late } of this.#waiting.values()) {
      clearTimeout(late);
      resolve({ ok: false, text: "The connection to the board was lost." });
    }
    this.#waiting.clear();
    if (was) this.dispatchEvent(new Event("close"));
    if (code === LOG_IN_AGAIN) location.assign(LOG_IN);
    else setTimeout(() => this.connect(), RETRY_MS[Math.min(this.#tries++, RETRY_MS.length - 1)]);
    if (!was) this.#look();
  }

  /** Why a socket did not open, browsers do not tell: perhaps the log-in ended with the program. */
  async #look() {
    const answer = await fetch("/api/commands", { method: "HEAD" }).catch(() => null);
    if (answer?.status === 401) location.assign(LOG_IN);
  }
}
