// Short lines for the person, spoken by screen readers: what happened, and what went wrong.
import { $, el } from "./dom.js";

const STAYS_MS = 4500;
const MOST = 3;

function show(place, text, kind) {
  const line = el("p", { class: `toast ${kind}` }, text);
  place.append(line);
  while (place.children.length > MOST) place.firstChild.remove();
  setTimeout(() => line.remove(), kind === "bad" ? 2 * STAYS_MS : STAYS_MS);
}

/** Something went as it was meant. */
export const tell = (text) => show($("toasts"), text, "good");

/** Something did not. */
export const warn = (text) => show($("alerts"), text, "bad");
