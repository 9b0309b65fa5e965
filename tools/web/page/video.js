// The picture: its connection, the player that the browser allows, and what is known of it. A
// message of the server is a text, or a header of 16 bytes with a piece for the player behind it.
import { socketAddress } from "./link.js";
import { CodecsPlayer } from "./video-webcodecs.js";
import { MsePlayer } from "./video-mse.js";

const HEADER = 16;
const INITIALISATION = 1;
const PICTURE = 2;
const RETRY_MS = [300, 600, 1200, 2500];

/** One binary message; `time` in ms of the server's clock. */
function parse(buffer) {
  const view = new DataView(buffer);
  return {
    what: view.getUint8(0),
    key: (view.getUint8(1) & 1) !== 0,
    number: view.getUint32(4, true),
    time: Number(view.getBigUint64(8, true)) / 1000,
    bytes: new Uint8Array(buffer, HEADER),
  };
}

export class Video extends EventTarget {
  #all = [CodecsPlayer, MsePlayer].filter((player) => player.available());
  #players = [...this.#all]; // those that have not been found unable to play this stream
  #player = null;
  #socket = null;
  #tries = 0;
  #late = []; // latencies of the pictures of the last second, in ms

  /** `elements`: the video and the canvas of the page; `clock()`: the server's time in ms. */
  constructor(elements, clock) {
    super();
    this.elements = elements;
    this.clock = clock;
    this.stream = null;
    this.reason = "connecting"; // why there is no picture, or null: see reason.js
    this.shown = null; // {number, time, at} of the picture on the screen
    this.size = null; // {width, height} of it
    this.connect();
  }

  /** Which player it is: "webcodecs", "mse", or "none". */
  get kind() {
    return this.#players[0]?.kind ?? "none";
  }

  /** The median of the last second's latencies, in ms; null when there was no picture. */
  get latency() {
    const now = performance.now();
    const recent = this.#late.filter(({ at }) => now - at < 1000).map(({ ms }) => ms);
    if (recent.length === 0) return null;
    return recent.sort((a, b) => a - b)[recent.length >> 1];
  }

  connect() {
    const Player = this.#players[0];
    if (!Player) return this.#because("unable");
    const socket = new WebSocket(socketAddress(`/ws/video?form=${Player.form}`));
    socket.binaryType = "arraybuffer";
    this.#socket = socket;
    this.#player?.close();
    this.#player = new Player(this.elements, {
      shown: (picture) => this.#show(picture),
      failed: (fatal) => socket === this.#socket && this.#fail(fatal),
      blocked: (is) => this.dispatchEvent(new CustomEvent("blocked", { detail: is })),
    });
    socket.addEventListener("message", ({ data }) => this.#message(socket, data));
    socket.addEventListener("close", () => this.#closed(socket));
    return undefined;
  }

  /** Plays on after the browser wanted a person's consent. */
  play() {
    this.#player?.play?.();
  }

  #message(socket, data) {
    if (socket !== this.#socket) return;
    this.#tries = 0;
    if (typeof data === "string") return this.#text(JSON.parse(data));
    if (this.#players.length === 0) return undefined; // only the next stream counts
    const piece = parse(data);
    if (piece.what === INITIALISATION) this.#player.initialise(piece.bytes);
    else if (piece.what === PICTURE) this.#player.push(piece);
    return undefined;
  }

  async #text(message) {
    if (message.type === "waiting") {
      // A stream that cannot be played has no pictures to wait for.
      const { kind, codec } = this.stream ?? { kind: "none" };
      const unable = this.#players.length === 0 || (kind !== "none" && !codec);
      return unable ? undefined : this.#because(message.reason);
    }
    if (message.type !== "stream") return undefined;
    const another = message.codec !== this.stream?.codec;
    this.stream = message;
    if (another && this.#players.length < this.#all.length) return this.#retry();
    if (message.kind === "none") return this.#because("none");
    if (!message.codec) return this.#because("kind");
    const socket = this.#socket;
    const able = await this.#player.configure(message);
    if (socket !== this.#socket) return undefined;
    if (!able) return this.#fail(true);
    for (const one of Object.values(this.elements)) one.hidden = one !== this.#player.element;
    return undefined;
  }

  #show(picture) {
    const now = performance.now();
    this.shown = { ...picture, at: now };
    this.size = { width: picture.width, height: picture.height };
    const clock = this.clock();
    if (clock !== null) this.#late.push({ at: now, ms: Math.max(0, clock - picture.time) });
    if (this.#late.length > 200) this.#late.splice(0, 100);
    this.#because(null);
    this.dispatchEvent(new Event("picture"));
  }

  #because(reason) {
    if (reason === this.reason) return;
    this.reason = reason;
    this.dispatchEvent(new Event("reason"));
  }

  /** A player that cannot go on: another, or the same from the last key picture on. With none
   *  left the connection stays, for a stream that can be played. */
  #fail(fatal) {
    if (fatal) this.#players.shift();
    if (this.#players.length === 0) this.#because("unable");
    else this.#socket.close();
  }

  /** All players try again. */
  #retry() {
    this.#players = [...this.#all];
    this.#socket.close();
  }

  #closed(socket) {
    if (socket !== this.#socket) return;
    this.#because(this.#players.length === 0 ? "unable" : "connecting");
    this.#player.close();
    setTimeout(() => this.connect(), RETRY_MS[Math.min(this.#tries++, RETRY_MS.length - 1)]);
  }
}
