// Making and finding elements. Nothing here takes markup: texts come from strangers, and stay
// texts.

/** The element with that id. */
export const $ = (id) => document.getElementById(id);

/** An element with properties ("class", "data-…", "aria-…", "on…" or plain ones) and children. */
export function el(tag, properties = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (value === undefined || value === null || value === false) continue;
    if (name.startsWith("on")) made.addEventListener(name.slice(2), value);
    else if (name in made && !name.includes("-")) made[name] = value;
    else made.setAttribute(name === "class" ? "class" : name, value === true ? "" : value);
  }
  made.append(...children.filter((child) => child !== null && child !== undefined));
  return made;
}

/** An icon of index.html. */
export function icon(name) {
  const space = "http://www.w3.org/2000/svg";
  const svg = document.createElementNS(space, "svg");
  const use = document.createElementNS(space, "use");
  use.setAttribute("href", `#i-${name}`);
  svg.append(use);
  svg.setAttribute("aria-hidden", "true");
  return svg;
}

/** Writes a text only when it is another one: screen readers speak what is written. */
export function say(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

/** Sets or removes an attribute only when it changes. */
export function mark(element, name, value) {
  const text = String(value);
  if (element.getAttribute(name) !== text) element.setAttribute(name, text);
}

/** What a browser remembers of its operator; nothing where it may not. */
export const memory = {
  get(name, otherwise) {
    try {
      const text = localStorage.getItem(`nimbus.${name}`);
      return text === null ? otherwise : JSON.parse(text);
    } catch {
      return otherwise;
    }
  },
  set(name, value) {
    try {
      localStorage.setItem(`nimbus.${name}`, JSON.stringify(value));
    } catch {
      // A private window: it is forgotten.
    }
  },
};
