// What lies over the picture: its place on the screen, the attitude, the histogram, the tracked
// rectangle, the point of focus, and the curtain over a picture that is old.
import { $, mark, say } from "./dom.js";
import { sentence } from "./reason.js";
import { since } from "./values.js";

const STALE_MS = 1500; // a picture's age from which it must not pass for live
const SILENT_MS = 3000; // reports
const TAP = 0.02; // parts of the picture: less is no rectangle

/** Puts a box at parts of its parent. */
function place(element, { x, y, width = 0, height = 0 }) {
  for (const [name, part] of Object.entries({ left: x, top: y, width, height })) {
    element.style[name] = `${100 * part}%`;
  }
}

const clamp = (value) => Math.min(1, Math.max(0, value));

/** Four decimals, as commands carry them. */
const part = (value) => String(Math.round(1e4 * clamp(value)) / 1e4);

export class Overlay {
  #from = null; // where a pointer went down, and which

  constructor(link, state, video, commands) {
    this.link = link;
    this.state = state;
    this.video = video;
    this.commands = commands;
    new ResizeObserver(() => this.#fit()).observe($("stage"));
    video.addEventListener("picture", () => this.#picture());
    video.addEventListener("reason", () => this.#age());
    state.addEventListener("change", () => this.#reports());
    setInterval(() => this.#age(), 250);
    const touch = $("touch");
    touch.addEventListener("pointerdown", (event) => this.#down(event));
    touch.addEventListener("pointermove", (event) => this.#move(event));
    touch.addEventListener("pointerup", (event) => this.#up(event));
    for (const end of ["pointercancel", "lostpointercapture"]) {
      touch.addEventListener(end, (event) => this.#is(event) && this.#end());
    }
    this.#fit();
    this.#age();
  }

  /** The largest box of the picture's shape within the stage. */
  #fit() {
    const { clientWidth: width, clientHeight: height } = $("stage");
    const size = this.video.size ?? { width: 16, height: 9 };
    const scale = Math.min(width / size.width, height / size.height);
    $("picture").style.width = `${Math.round(size.width * scale)}px`;
    $("picture").style.height = `${Math.round(size.height * scale)}px`;
    this.shape = size;
  }

  #picture() {
    const { size, shown } = this.video;
    if (size.width !== this.shape.width || size.height !== this.shape.height) this.#fit();
    mark($("stage"), "data-shown", shown.number);
    if (!$("curtain").hidden) this.#age();
  }

  #age() {
    const { shown } = this.video;
    const age = shown ? performance.now() - shown.at : null;
    const stale = age === null || age > STALE_MS;
    const why = stale ? sentence(this.video, this.link, this.state) : "";
    const old = age !== null && stale ? `Picture stale since ${since(age)}. ` : "";
    $("curtain").hidden = !stale;
    say($("stale"), stale ? old + why || "Waiting for the picture …" : "");
    mark($("stage"), "data-player", this.video.kind);
    this.#reports();
  }

  #fresh(group) {
    const age = this.state.age(group);
    return age !== null && age < SILENT_MS;
  }

  #reports() {
    this.#attitude();
    this.#histogram();
    const tracking = this.state.group("tracking");
    $("tracking").hidden = !(tracking.on && this.#fresh("tracking"));
    if (tracking.on) place($("tracking"), tracking);
  }

  #attitude() {
    const { angle_1: pan, angle_2: tilt, angle_3: roll } = this.state.group("gimbal");
    const box = $("attitude");
    box.hidden = pan === undefined;
    if (pan === undefined) return;
    const stale = !this.#fresh("gimbal");
    box.classList.toggle("stale", stale);
    say($("attitude-age"), stale ? `since ${since(this.state.age("gimbal"))}` : "");
    $("horizon").setAttribute("transform", `rotate(${-roll}) translate(0 ${tilt})`);
    $("heading").setAttribute("transform", `rotate(${pan})`);
    const texts = { pan: `pan ${Math.round(pan)}°`, tilt: `tilt ${Math.round(tilt)}°`,
      roll: `roll ${Math.round(roll)}°` };
    for (const [id, text] of Object.entries(texts)) say($(id), text.replace("-", "−"));
    mark(box, "aria-label", `Gimbal: ${Object.values(texts).join(", ")}`);
  }

  #histogram() {
    const { bins } = this.state.group("histogram");
    const canvas = $("histogram");
    canvas.hidden = !(bins && this.#fresh("histogram"));
    if (canvas.hidden || bins === this.bins) return;
    this.bins = bins;
    const { width, height } = canvas;
    const context = canvas.getContext("2d");
    context.clearRect(0, 0, width, height);
    context.fillStyle = getComputedStyle(canvas).color;
    bins.forEach((bin, i) => {
      const high = (bin / 255) * height;
      context.fillRect((i * width) / bins.length, height - high, width / bins.length - 0.5, high);
    });
  }

  // --- Tap to focus, drag to track ---------------------------------------------------------------

  #at(event) {
    const box = $("touch").getBoundingClientRect();
    return { x: clamp((event.clientX - box.left) / box.width),
      y: clamp((event.clientY - box.top) / box.height) };
  }

  #rectangle(event) {
    const to = this.#at(event);
    return { x: Math.min(this.#from.x, to.x), y: Math.min(this.#from.y, to.y),
      width: Math.abs(this.#from.x - to.x), height: Math.abs(this.#from.y - to.y) };
  }

  #is(event) {
    return this.#from?.pointer === event.pointerId;
  }

  #down(event) {
    if (event.button !== 0 || this.#from) return;
    $("touch").setPointerCapture(event.pointerId);
    this.#from = { ...this.#at(event), pointer: event.pointerId };
  }

  #move(event) {
    if (!this.#is(event)) return;
    const rectangle = this.#rectangle(event);
    $("drag").hidden = rectangle.width < TAP || rectangle.height < TAP;
    place($("drag"), rectangle);
  }

  #up(event) {
    if (!this.#is(event)) return;
    const { x, y, width, height } = this.#rectangle(event);
    this.#end();
    if (width < TAP && height < TAP) this.focus(x, y);
    else if (width >= TAP && height >= TAP) {
      this.commands.run("tracking start", [x, y, width, height].map(part));
    }
  }

  #end() {
    this.#from = null;
    $("drag").hidden = true;
  }

  /** Focuses on a point of the picture, and shows for a moment which. */
  async focus(x, y) {
    const ring = $("focus");
    place(ring, { x, y });
    ring.hidden = false;
    await this.commands.run("focus", [part(x), part(y)]);
    setTimeout(() => (ring.hidden = true), 1000);
  }
}
