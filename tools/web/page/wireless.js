// The three networks of the board, which are set together: the camera's, the one that the board
// joins, and its own access point. Pass phrases can be set and never read.
import { confirm } from "./dialog.js";
import { el } from "./dom.js";
import { expected, field } from "./fields.js";
import { warn } from "./toast.js";

const INTERFACES = { 0: "none", 1: "wifi0", 2: "wlan0" };
const BANDS = { 2: "2.4", 5: "5" };
const SCAN_MS = 20000;

const NETWORKS = [
  ["cam", "The camera's network", "joins"],
  ["lan", "Wi-Fi", "joins"],
  ["ap", "Access point", "opens"],
];
const LABELS = {
  iface: "Interface", ssid: "Name", psk: "Pass phrase", mode: "Band in GHz", channel: "Channel",
  country: "Country",
};

/** What the report says of a value, in the words of its setting. */
function reported(settings, name) {
  const value = settings.state.get("settings", name);
  if (name.endsWith("_iface")) return INTERFACES[value];
  return name === "ap_mode" ? BANDS[value] : value;
}

/** Looks for networks with the chosen interface, and offers their names. */
async function scan(settings, iface, list, button) {
  if (!iface || iface === "none") return warn("Choose the interface that shall look around.");
  if (!(await settings.lease.need())) return warn(settings.lease.refusal());
  const before = settings.state.get("wifi_scan", "at");
  button.setAttribute("aria-busy", "true");
  const { ok, text } = await settings.link.request({ type: "scan", interface: iface });
  const came = ok && await settings.state.follows(
    (state) => state.get("wifi_scan", "at") !== before, SCAN_MS);
  button.removeAttribute("aria-busy");
  if (!ok) return warn(text);
  if (!came) return warn("No networks were reported.");
  const networks = settings.state.get("wifi_scan", "networks") ?? [];
  const names = [...new Set(networks.filter(Boolean))].sort();
  return list.replaceChildren(...names.map((name) => el("option", { value: name })));
}

function network(settings, rows, [prefix, title, verb]) {
  const fields = new Map();
  const lines = rows.filter(({ name }) => name.startsWith(`${prefix}_`)).map((row) => {
    const kind = row.name.slice(prefix.length + 1);
    const label = LABELS[kind] ?? kind;
    const made = field({ ...row, secret: kind === "psk" }, `${title}: ${label}`);
    settings.fillIn(made.element, () => made.set(reported(settings, row.name)));
    fields.set(row.name, { ...made, label: `${title}: ${label}`, row });
    return el("label", {}, el("span", { textContent: label }), made.element);
  });
  const names = el("datalist", { id: `names-${prefix}` });
  const ssid = fields.get(`${prefix}_ssid`);
  const look = el("button", { type: "button", textContent: "Scan",
    onclick: () => scan(settings, fields.get(`${prefix}_iface`)?.get(), names, look) });
  if (ssid && verb === "joins") ssid.element.setAttribute("list", names.id);
  const element = el("fieldset", {}, el("legend", { textContent: title }), ...lines,
    verb === "joins" ? look : null, names);
  return { element, fields };
}

/** The networks as a part of the settings. */
export function wireless(settings, rows) {
  const networks = NETWORKS.map((one) => network(settings, rows, one));
  const save = async () => {
    const values = [];
    for (const { fields } of networks) {
      for (const [name, { get, label, row }] of fields) {
        const value = get();
        if (value === null) return warn(`${label}: expected ${expected(row)}.`);
        if (value !== "" && value !== String(reported(settings, name) ?? "")) {
          values.push(`${name}=${value}`);
        }
      }
    }
    if (values.length === 0) return warn("Nothing has been changed.");
    const text = "The board joins its networks anew. If you are connected through one of them, " +
      "this page loses the board.";
    if (!(await confirm("Change the networks?", text, "Change"))) return undefined;
    return settings.set("wifi", "Networks", values);
  };
  const submit = (event) => {
    event.preventDefault();
    save();
  };
  return el("details", {}, el("summary", { textContent: "Wi-Fi and access point" }),
    el("form", { onsubmit: submit, autocomplete: "off" },
      ...networks.map(({ element }) => element),
      el("p", { class: "buttons" },
        el("button", { class: "primary", type: "submit", textContent: "Save the networks" }))));
}
