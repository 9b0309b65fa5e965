// A field for each kind of value that the tables know. A field has an element, a text to send, and
// what it shows of the board's report.
import { el } from "./dom.js";

const isSwitch = (words) => words.length === 2 && words.includes("on") && words.includes("off");

/** The word of a list that a report means: reports have 1 for on, and numbers as numbers. */
function wordFor(words, reported) {
  if (reported === undefined || reported === null) return undefined;
  const text = String(reported);
  if (isSwitch(words)) return ["1", "true", "on"].includes(text) ? "on" : "off";
  return words.find((word) => word.toLowerCase() === text.toLowerCase()) ??
    words.find((word) => word !== "" && Number(word) === Number(text));
}

function choice(row, label) {
  const select = el("select", { "aria-label": label },
    el("option", { value: "", textContent: "—" }),
    ...row.words.map((word) => el("option", { value: word, textContent: word })));
  return {
    element: select,
    get: () => select.value,
    set: (reported) => (select.value = wordFor(row.words, reported) ?? ""),
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
      box.checked = wordFor(row.words, reported) === "on";
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
    type: secret ? "password" : "text", "aria-label": label, maxLength: row.longest ?? 255,
    autocomplete: secret ? "new-password" : "off", placeholder: secret ? "unchanged" : "",
    spellcheck: false,
  });
  return {
    element: input,
    get: () => input.value,
    set: (reported) => !secret && (input.value = reported ?? ""),
  };
}

/** The field for a row {kind, words, least, most, longest, secret} of the tables. */
export function field(row, label) {
  if (row.words) return isSwitch(row.words) ? toggle(row, label) : choice(row, label);
  if (row.kind === "integer" || row.kind === "number") return number(row, label);
  return text(row, label);
}
