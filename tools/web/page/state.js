// What the board has reported: a tree that the server sends once and then changes by merge patches
// (RFC 7396). A group's "at" is the server's time of its last report.

/** The target with the patch merged into it. */
export function merge(target, patch) {
  if (patch === null || typeof patch !== "object" || Array.isArray(patch)) return patch;
  const result = target !== null && typeof target === "object" && !Array.isArray(target)
    ? target : {};
  for (const [name, value] of Object.entries(patch)) {
    if (value === null) delete result[name];
    else result[name] = merge(result[name], value);
  }
  return result;
}

export class State extends EventTarget {
  #fresh = true;
  #groups = {};

  constructor(link) {
    super();
    this.link = link;
    link.addEventListener("open", () => (this.#fresh = true));
    link.addEventListener("message", ({ detail }) => {
      if (detail.type === "state") this.#apply(detail);
    });
  }

  /** The first message of a connection is the whole state, the others are changes. */
  #apply({ type, ...patch }) {
    this.#groups = merge(this.#fresh ? {} : this.#groups, patch);
    this.#fresh = false;
    this.dispatchEvent(new Event("change"));
  }

  /** A member, such as get("exposure", "iso"); undefined when it has never been reported. */
  get(group, member) {
    return this.#groups[group]?.[member];
  }

  group(name) {
    return this.#groups[name] ?? {};
  }

  /** Milliseconds since the group was reported; null when it never was. */
  age(group) {
    const at = this.#groups[group]?.at;
    const now = this.link.now();
    if (at === undefined || at === null || now === null) return null;
    return Math.max(0, now - at);
  }

  /** Resolves true when the condition comes true within so many ms, else false. */
  follows(condition, milliseconds) {
    return new Promise((resolve) => {
      const end = (result) => {
        clearTimeout(late);
        this.removeEventListener("change", look);
        resolve(result);
      };
      const look = () => condition(this) && end(true);
      const late = setTimeout(() => end(condition(this)), milliseconds);
      this.addEventListener("change", look);
      look();
    });
  }
}
