// Who drives. One browser at a time has the lease; the others watch, see who has it and can ask.
import { $, mark, say } from "./dom.js";
import { tell } from "./toast.js";

const HEARTBEAT_MS = 900;

export class Lease extends EventTarget {
  #asked = null; // who wants it from whoever has it

  constructor(link, state) {
    super();
    this.link = link;
    this.state = state;
    this.me = null;
    this.role = "viewer";
    this.mine = false;
    this.holder = null;
    this.name = "";
    link.addEventListener("message", ({ detail }) => this.#message(detail));
    link.addEventListener("close", () => this.#holds({ holder: null, name: "" }));
    setInterval(() => this.mine && link.send({ type: "heartbeat" }), HEARTBEAT_MS);
    $("take").addEventListener("click", () => this.toggle());
    $("grant").addEventListener("click", () => link.send({ type: "grant", to: this.#asked }));
    $("keep").addEventListener("click", () => link.send({ type: "deny" }));
    this.#show();
  }

  /** Takes the lease when it is free or already ours; promises whether we may act. */
  async need() {
    if (this.mine) return true;
    if (this.holder !== null || this.role !== "operator") {
      return false;
    }
    return this.link.send({ type: "take" }) && this.#comes(1000);
  }

  /** Why nothing can be done, for people. */
  refusal() {
    if (!this.link.open) return "There is no connection to the board.";
    if (this.role !== "operator") return "You are logged in to watch only.";
    if (this.holder === null) return "The board has not given you control yet: try again.";
    return `${this.name || this.holder} drives. Ask for control first.`;
  }

  toggle() {
    this.link.send({ type: this.mine ? "release" : "take" });
  }

  #comes(milliseconds) {
    return new Promise((resolve) => {
      const end = () => {
        clearTimeout(late);
        this.removeEventListener("change", look);
        resolve(this.mine);
      };
      // That it is free may be older news.
      const look = () => (this.holder !== null || !this.link.open) && end();
      const late = setTimeout(end, milliseconds);
      this.addEventListener("change", look);
    });
  }

  #message(message) {
    if (message.type === "hello") {
      this.me = message.you;
      this.role = message.role;
      this.#show();
    }
    if (message.type === "lease") this.#holds(message);
    if (message.type === "state" && message.driving) this.#holds(message.driving);
  }

  /** From a lease message, or from what changed in the group "driving". */
  #holds(news) {
    const before = this.mine;
    if ("holder" in news) this.holder = news.holder ?? null;
    if ("name" in news) this.name = news.name ?? "";
    this.mine = this.holder !== null && this.holder === this.me;
    if (before && !this.mine) {
      tell("You no longer drive.");
      this.dispatchEvent(new Event("lost"));
    }
    if ("asked_name" in news) {
      if (news.asked_by === this.me && this.#asked !== this.me) {
        tell(`Asked ${this.name || this.holder} for control.`);
      }
      this.#asked = news.asked_by;
      say($("asks"), this.#asked ? `${news.asked_name || this.#asked} asks for control.` : "");
    }
    this.#show();
    this.dispatchEvent(new Event("change"));
  }

  #show() {
    const free = this.holder === null;
    const watches = this.role !== "operator";
    say($("who"), this.mine ? "You drive"
      : free ? "Nobody drives" : `${this.name || this.holder} drives`);
    say($("take"), this.mine ? "Release" : free ? "Drive" : "Ask");
    $("ask").hidden = !(this.mine && this.#asked); // takes no focus: whoever pans goes on
    $("take").disabled = watches || !this.link.open;
    mark(document.body, "data-driver", this.mine ? "me" : free ? "none" : "other");
  }
}
