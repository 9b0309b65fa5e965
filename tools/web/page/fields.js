// A field for each kind of value that the tables know. A field has an element, a text to send, and
// what it shows of the board's report.
import { el } from "./dom.js";

const SWITCH = ["on", "off"];

/** The words that a value can be chosen from; undefined where it is written. */
export function choicesOf({ kind, choices }) {
  return kind === "switch" ? SWITCH : kind === "choice" ? choices : undefined;
}

/** The word of a list that a report means, which may write numbers in another way. */
function wordFor(words, reported) {
  if (reported === undefined || reported === null) return undefined;
  const text = String(reported);
  return words.find((word) => word.toLowerCase() === text.toLowerCase()) ??
    words.find((word) => word !== "" && Number(word) === Number(text));
}

function choice(row, label) {
  const select = el("select", { "aria-label": label },
    el("option", { value: "", textContent: "—" }),
    ...row.choices.map((word) => el("option", { value: word, textContent: word })));
  return {
    element: select,
    get: () => select.value,
    set: (reported) => (select.value = wordFor(row.choices, reported) ?? ""),
  };
}

function toggle(row, label) {
  const box = el("input", { type: "checkbox", role: "switch", "aria-label": label });
  box.indeterminate = true;
  return {
    element: box,
    get: () => (box.indeterminate ? "" : box.checked ? "on" : "off"),
    set: (reported) => {
      box.indeterminate = reported === undefined;
      box.checked = ["1", "true", "on"].includes(String(reported));
    },
  };
}

function number(row, label) {
  const input = el("input", {
    type: "number", "aria-label": label, min: row.least, max: row.most,
    step: row.kind === "integer" ? 1 : "any", inputMode: row.kind === "integer" ? "numeric" : "decimal",
  });
  return {
    element: input,
    get: () => (input.checkValidity() ? input.value : null),
    set: (reported) => (input.value = reported ?? ""),
  };
}

function text(row, label) {
  const secret = row.secret === true;
  const input = el("input", {
    type: secret ? "password" : "text", "aria-label": label, maxLength: row.most ?? 255,
    autocomplete: secret ? "new-password" : "off", placeholder: secret ? "unchanged" : "",
    spellcheck: false,
  });
  return {
    element: input,
    get: () => input.value,
    set: (reported) => !secret && (input.value = reported ?? ""),
  };
}

/** What a value of a row can be, for people. */
export function expected({ kind, choices, least, most }) {
  if (kind === "switch") return "on or off";
  if (kind === "choice") return `one of ${choices.join(", ")}`;
  if (kind === "integer" || kind === "number") {
    return `a ${kind === "integer" ? "whole " : ""}number` +
      (least === undefined ? "" : ` from ${least} to ${most}`);
  }
  return most === undefined ? "a text" : `a text of at most ${most} bytes`;
}

/** The field for a row {kind, choices, least, most} of the tables; secrets are never shown. */
export function field(row, label) {
  if (row.kind === "switch") return toggle(row, label);
  if (row.kind === "choice") return choice(row, label);
  if (row.kind === "integer" || row.kind === "number") return number(row, label);
  return text(row, label);
}
