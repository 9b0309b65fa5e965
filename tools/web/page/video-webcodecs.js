// Pictures by WebCodecs: access units as they come, drawn as soon as they are decoded. Exists in
// secure contexts only.

const MOST_WAITING = 12; // pictures in the decoder before it counts as stuck
const MOST_HELD = 600; // pictures: as many as the board keeps
const JOINS_MS = 3000; // in which what was before is decoded

export class CodecsPlayer {
  static kind = "webcodecs";
  static form = "raw";
  static available = () => typeof VideoDecoder === "function";

  #decoder = null;
  #held = null; // what comes while the browser says whether it can
  #joins = 0; // until when
  #needsKey = true;
  #pending = new Map(); // what belongs to a decoded picture, by its time stamp

  constructor({ canvas }, { shown, failed }) {
    this.element = canvas;
    this.context = canvas.getContext("2d", { alpha: false, desynchronized: true });
    this.shown = shown;
    this.failed = failed;
  }

  /** Begins a stream; false when the browser cannot decode it. */
  async configure({ codec }) {
    this.#end(); // the pictures from here on are not for it
    const held = (this.#held = []);
    const config = { codec, optimizeForLatency: true };
    const { supported } = await VideoDecoder.isConfigSupported(config).catch(() => ({}));
    if (held !== this.#held) return true; // closed, or another stream has begun
    this.#held = null;
    if (!supported) return false;
    this.#needsKey = true;
    this.#joins = performance.now() + JOINS_MS;
    this.#decoder = new VideoDecoder({
      output: (frame) => this.#draw(frame),
      error: () => this.failed(false),
    });
    this.#decoder.configure(config);
    held.forEach((picture) => this.push(picture));
    return true;
  }

  initialise() {}

  push(picture) {
    if (this.#held?.length === MOST_HELD) this.#held.length = 0; // on with the next key picture
    if (this.#held) return void this.#held.push(picture);
    if (this.#decoder?.state !== "configured") return;
    if (this.#needsKey && !picture.key) return;
    if (this.#decoder.decodeQueueSize > MOST_WAITING && performance.now() > this.#joins) {
      // Slower than the camera: on with the next key picture instead of later and later.
      this.#needsKey = true;
      return;
    }
    this.#needsKey = false;
    const timestamp = picture.number * 1000;
    this.#pending.set(timestamp, picture);
    this.#decoder.decode(new EncodedVideoChunk({
      type: picture.key ? "key" : "delta", timestamp, data: picture.bytes,
    }));
  }

  #draw(frame) {
    const picture = this.#pending.get(frame.timestamp);
    for (const timestamp of this.#pending.keys()) {
      if (timestamp <= frame.timestamp) this.#pending.delete(timestamp);
    }
    const { displayWidth: width, displayHeight: height } = frame;
    if (this.element.width !== width) this.element.width = width;
    if (this.element.height !== height) this.element.height = height;
    this.context.drawImage(frame, 0, 0, width, height);
    frame.close();
    if (picture) this.shown({ number: picture.number, time: picture.time, width, height });
  }

  #end() {
    if (this.#decoder && this.#decoder.state !== "closed") this.#decoder.close();
    this.#decoder = null;
    this.#held = null;
    this.#pending.clear();
  }

  close() {
    this.#end();
  }
}
