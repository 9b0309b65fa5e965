// The page: who is there, and who listens to whom.
import { Bar } from "./bar.js";
import { Commands } from "./commands.js";
import { $, mark, memory, say } from "./dom.js";
import { Drive } from "./drive.js";
import { Keys } from "./keys.js";
import { Lease } from "./lease.js";
import { Link } from "./link.js";
import { Overlay } from "./overlay.js";
import { State } from "./state.js";
import { Stick } from "./stick.js";
import { tell, warn } from "./toast.js";
import { Values } from "./values.js";
import { Video } from "./video.js";

const link = new Link("/ws/control");
const state = new State(link);
const lease = new Lease(link, state);
const commands = new Commands(link, state, lease);
const video = new Video({ video: $("video"), canvas: $("canvas") }, () => link.now());
const drive = new Drive(link, lease);
let tables = null; // of the server's hello
new Bar(state, link, video);
new Values(state, commands);
new Overlay(link, state, video, commands);

// --- Driving -------------------------------------------------------------------------------------

let gamepad = null; // fetched with the first
const sticks = [
  new Stick($("stick"), ["pan", "tilt"], (axes) => drive.hold("stick", axes)),
  new Stick($("rollstick"), ["roll"], (axes) => drive.hold("rollstick", axes)),
];
drive.poll("gamepad", () => gamepad?.read());
drive.addEventListener("refused", ({ detail }) => warn(detail));

// --- What buttons and keys do --------------------------------------------------------------------

const recording = () => state.get("recording", "on") === true;
const record = () => commands.run(recording() ? "record stop" : "record start");
const shoot = () => (state.get("camera", "mode") === "photo" ? commands.run("shot") : record());
const lock = () =>
  commands.run(state.get("gimbal", "locked") ? "orientation unlock" : "orientation lock");

function fullScreen() {
  const done = document.fullscreenElement
    ? document.exitFullscreen() : document.documentElement.requestFullscreen?.();
  done?.catch(() => warn("The browser allows no full screen here."));
}

function theme() {
  const next = document.documentElement.dataset.theme === "dark" ? "light" : "dark";
  memory.set("theme", next);
  document.documentElement.dataset.theme = next;
}

// What is fetched when it is first asked for. A browser may not ask again for what failed once.
const missing = () => warn("This part of the page did not come. Load the page again.");
const settings = () => tables && import("./settings.js")
  .then(({ Settings }) => new Settings(link, state, lease, tables).show(), missing);
const help = () => import("./help.js")
  .then(({ showHelp }) => showHelp(drive, keys, theme, tables?.password), missing);
const all = () => import("./all-commands.js")
  .then(({ showCommands }) => showCommands(commands), missing);
const save = () => import("./snapshot.js").then((one) => one.save(video), missing);
addEventListener("gamepadconnected", ({ gamepad: pad }) => import("./gamepad.js")
  .then(({ Gamepad }) => (gamepad = new Gamepad(tell, pad)), missing), { once: true });

function stop() {
  // What a program moves ends when somebody takes control.
  if (state.get("driving", "moving")) lease.need();
  drive.stop(true);
}

const keys = new Keys((axes) => drive.hold("keys", axes), {
  " ": shoot, r: record, c: () => commands.run("gimbal centre"), f: fullScreen, "?": help, d: theme,
  b: () => commands.run("gimbal selfie"), l: lock, t: () => commands.run("tracking stop"), m: all,
  p: save, i: () => document.body.classList.toggle("bare"), Escape: stop,
});

drive.addEventListener("stop", () => {
  sticks.forEach((stick) => stick.release());
  keys.release();
  gamepad?.disarm();
});

const CLICKS = {
  record, shot: () => commands.run("shot"), centre: () => commands.run("gimbal centre"),
  selfie: () => commands.run("gimbal selfie"), lock, more: all, help, theme, full: fullScreen,
  snapshot: save, settings, play: () => video.play(),
};
for (const [id, act] of Object.entries(CLICKS)) $(id).addEventListener("click", act);

// A tap beside a finger that is down, as on a stick, is no click for browsers.
addEventListener("pointerup", ({ isPrimary, target, clientX, clientY }) => {
  const button = !isPrimary && target.closest("button");
  if (button && button.contains(document.elementFromPoint(clientX, clientY))) button.click();
});

// --- What follows the state ----------------------------------------------------------------------

state.addEventListener("change", () => {
  mark($("record"), "aria-pressed", recording());
  mark($("record"), "aria-label", recording() ? "Stop recording" : "Record");
  mark($("lock"), "aria-pressed", state.get("gimbal", "locked") === true);
});

link.addEventListener("message", ({ detail }) => {
  if (detail.type === "notice") tell(detail.text);
  if (detail.type !== "hello") return;
  tables = detail;
  const who = detail.password ? "Protected by a password."
    : "No password: everybody here can drive.";
  say($("foot"), `Nimbus ${detail.version} · ${who}`);
});

// The screen of a phone stays on while the page is looked at, where the browser allows that.
const stayOn = () => !document.hidden && navigator.wakeLock?.request("screen").catch(() => {});
document.addEventListener("visibilitychange", stayOn);
stayOn();

video.addEventListener("blocked", ({ detail }) => ($("play").hidden = !detail));
