// Pictures by Media Source Extensions, or ManagedMediaSource on iPhones: one fragment for each
// picture, played at the live edge. Works in insecure contexts, too.
import { decodeTimeOf, timescaleOf } from "./boxes.js";
import { LiveEdge } from "./live-edge.js";

const Source = window.ManagedMediaSource ?? window.MediaSource;
const MOST_WAITING = 64; // fragments that wait for the buffer before it counts as stuck
const KEPT = 10; // s behind the picture that stay in the buffer
const STALLED_MS = 3000;
const SAFARI = /^((?!chrome|android).)*safari/i.test(navigator.userAgent);

/** The pieces as one. */
function joined(pieces) {
  if (pieces.length === 1) return pieces[0];
  const whole = new Uint8Array(pieces.reduce((sum, piece) => sum + piece.length, 0));
  let at = 0;
  for (const piece of pieces) {
    whole.set(piece, at);
    at += piece.length;
  }
  return whole;
}

export class MsePlayer {
  static kind = "mse";
  static form = "fmp4";
  static available = () => Boolean(Source);

  #source = null;
  #buffer = null;
  #waiting = [];
  #pictures = []; // {start, number, time} of what was pushed, start in s of the element's time
  #timescale = null;
  #edge = new LiveEdge();
  #wanted = true; // ManagedMediaSource says when it wants more
  #torn = false; // a picture was left out, and those up to the next key picture refer to it
  #codec = "";
  #progress = { time: -1, at: 0 };
  #watch = null;
  #url = null;

  constructor({ video }, callbacks) {
    this.element = video;
    this.callbacks = callbacks;
    this.#watch = setInterval(() => this.#look(), 250);
    this.#whenShown();
  }

  /** Begins a stream; false when the browser cannot decode it. */
  async configure({ codec }) {
    const type = `video/mp4; codecs="${codec}"`;
    if (!Source.isTypeSupported(type)) return false;
    this.#codec = type;
    if (this.#buffer) {
      this.#buffer.changeType?.(type);
      return true;
    }
    this.#begin();
    return true;
  }

  #begin() {
    const source = new Source();
    this.#source = source;
    source.addEventListener("startstreaming", () => (this.#wanted = true));
    source.addEventListener("endstreaming", () => (this.#wanted = false));
    source.addEventListener("sourceopen", () => this.#opened(source), { once: true });
    this.element.disableRemotePlayback = true;
    if (window.ManagedMediaSource) {
      this.element.srcObject = source;
    } else {
      this.#url = URL.createObjectURL(source);
      this.element.src = this.#url;
    }
  }

  #opened(source) {
    if (source !== this.#source) return;
    if (this.#url) URL.revokeObjectURL(this.#url);
    this.#buffer = source.addSourceBuffer(this.#codec);
    this.#buffer.mode = "segments";
    this.#buffer.addEventListener("updateend", () => this.#updated());
    this.#buffer.addEventListener("error", () => this.callbacks.failed(false));
    this.#append();
  }

  initialise(bytes) {
    this.#timescale = timescaleOf(bytes);
    this.#waiting.push(bytes);
    this.#append();
  }

  push(picture) {
    this.#torn = !picture.key && (this.#torn || !this.#wanted);
    if (this.#torn) return;
    if (this.#waiting.length > MOST_WAITING) return this.callbacks.failed(false);
    const start = decodeTimeOf(picture.bytes);
    if (start !== null && this.#timescale) {
      const { number, time } = picture;
      this.#pictures.push({ start: start / this.#timescale, number, time });
      if (this.#pictures.length > 500) this.#pictures.splice(0, 250);
    }
    this.#follow();
    this.#waiting.push(picture.bytes);
    return this.#append();
  }

  #append() {
    if (!this.#buffer || this.#buffer.updating || this.#waiting.length === 0) return;
    if (this.#source.readyState !== "open") return;
    const pieces = this.#waiting;
    this.#waiting = [];
    try {
      this.#buffer.appendBuffer(joined(pieces));
    } catch {
      this.callbacks.failed(false); // the buffer is full, or the element broken
    }
  }

  #updated() {
    const { element } = this;
    if (element.error) return this.callbacks.failed(false);
    if (this.#end() !== null && (element.paused || this.#isBefore())) this.#start();
    this.#forget();
    return this.#append();
  }

  /** Where what was received ends, in the element's time; null when nothing was. */
  #end() {
    const ranges = this.#buffer?.buffered;
    return ranges?.length ? ranges.end(ranges.length - 1) : null;
  }

  /** Whether the element stands where nothing will ever come: before the last range. */
  #isBefore() {
    const ranges = this.#buffer.buffered;
    return this.element.currentTime < ranges.start(ranges.length - 1);
  }

  #start() {
    const ranges = this.#buffer.buffered;
    const last = ranges.length - 1;
    if (this.#isBefore()) {
      this.element.currentTime = Math.max(ranges.start(last), ranges.end(last) - 0.04);
    }
    this.play();
  }

  play() {
    this.element.play().then(
      () => this.callbacks.blocked(false),
      (error) => error.name === "NotAllowedError" && this.callbacks.blocked(true));
  }

  #follow() {
    const end = this.#end();
    if (end === null || this.element.paused) return;
    const decoded = this.element.getVideoPlaybackQuality?.().totalVideoFrames ?? 0;
    const left = end - this.element.currentTime;
    const advice = this.#edge.arrived(left, decoded, performance.now());
    if (advice.jump) this.element.currentTime = end - 0.02;
    else if (!SAFARI && this.element.playbackRate !== advice.rate) {
      this.element.playbackRate = advice.rate;
    }
  }

  #forget() {
    const { buffered, updating } = this.#buffer;
    const until = this.element.currentTime - KEPT;
    if (!updating && buffered.length && buffered.start(0) < until - KEPT) {
      this.#buffer.remove(0, until);
    }
  }

  /** Once a picture is on the screen, says which. */
  #whenShown() {
    const { element } = this;
    if (element.requestVideoFrameCallback) {
      const shown = (_, { mediaTime, width, height }) => {
        this.#show(mediaTime, width, height);
        if (this.#watch) element.requestVideoFrameCallback(shown);
      };
      element.requestVideoFrameCallback(shown);
      return;
    }
    const look = () => {
      if (element.readyState > 1) {
        this.#show(element.currentTime, element.videoWidth, element.videoHeight);
      }
      if (this.#watch) requestAnimationFrame(look);
    };
    look();
  }

  #show(mediaTime, width, height) {
    if (!this.#watch) return;
    let found = null;
    for (const picture of this.#pictures) {
      if (picture.start <= mediaTime + 0.002) found = picture;
      else break;
    }
    if (!found || found === this.last) return;
    this.last = found;
    this.#progress = { time: mediaTime, at: performance.now() };
    this.callbacks.shown({ number: found.number, time: found.time, width, height });
  }

  /** An element that gets pictures and shows none is replaced. */
  #look() {
    const end = this.#end();
    if (end === null || this.element.paused) return;
    const behind = end - this.element.currentTime;
    const stands = performance.now() - this.#progress.at > STALLED_MS;
    if (stands && behind > 1) this.callbacks.failed(false);
  }

  close() {
    clearInterval(this.#watch);
    this.#watch = null;
    this.#source = null;
    this.#buffer = null;
    this.#waiting = [];
  }
}
