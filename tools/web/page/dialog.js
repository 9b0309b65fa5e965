// Dialogs: one element each, made when it is opened and gone when it is closed. Escape, the close
// button and a click beside it close it; the focus goes back to where it was.
import { $, el, icon } from "./dom.js";

/** What is asked and told stands where the person is: outside of an open dialog all is dead. */
function hear(place) {
  place.append($("ask"), $("toasts"), $("alerts"));
}

/** Opens a dialog with a title and that content; returns the element. */
export function open(title, properties, ...content) {
  const dialog = el("dialog", { "aria-label": title, ...properties },
    el("header", {},
      el("h2", { textContent: title }),
      el("button", { class: "icon", "aria-label": "Close", onclick: () => dialog.close() },
        icon("close"))),
    el("div", { class: "content" }, ...content.filter(Boolean)));
  // A question comes over whatever is open, everything else in its place.
  if (!properties.role) document.querySelectorAll("dialog").forEach((other) => other.close());
  dialog.addEventListener("close", () => {
    hear([...document.querySelectorAll("dialog[open]")].at(-1) ?? document.body);
    dialog.remove();
  });
  dialog.addEventListener("click", (event) => event.target === dialog && dialog.close());
  document.body.append(dialog);
  dialog.showModal();
  hear(dialog);
  return dialog;
}

/** Asks whether it is meant; promises true or false. `verb` is what the button says. */
export function confirm(title, text, verb) {
  return new Promise((resolve) => {
    const answer = (value) => {
      resolve(value);
      dialog.close();
    };
    const no = el("button", { onclick: () => answer(false), textContent: "Cancel" });
    const dialog = open(title, { class: "small", role: "alertdialog" },
      el("p", { textContent: text }),
      el("p", { class: "buttons" }, no,
        el("button", { class: "danger", onclick: () => answer(true), textContent: verb })));
    dialog.addEventListener("close", () => resolve(false));
    no.focus(); // what erases is never one key away
  });
}

/** Whether a dialog has the keyboard. */
export const isOpen = () => document.querySelector("dialog[open]") !== null;
