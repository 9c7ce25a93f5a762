// Who lives: rows as the agent knows them from beats, of which it sends each change.

import { byId, clock, count, element, plural, setText, span, throttled } from "./dom.js";
import { SmallTable } from "./table.js";

const kMostShown = 500;
const kMostHappened = 200;

const keyOf = ({ service, domain, host, pid }) => JSON.stringify([service, domain, host, pid]);
const nameOf = ({ service, host, pid }) => `${service} on ${host}, process ${pid}`;

// Since when it has its role, where the agent has seen it take it.
function sinceOf({ role_since_ms, role_seen }) {
  if (role_since_ms === null) return "not known";
  return role_seen ? clock(role_since_ms) : `before ${clock(role_since_ms)}`;
}

export class ServicesView {
  constructor() {
    this.rows = new Map();
    this.began = Date.now();
    this.connected = true;
    this.shown = new Map(); // what was last said of each: role and silence
    this.table = new SmallTable(byId("services-table"), {
      label: "Services",
      cards: true,
      key: keyOf,
      rowState: (row) => this.stateOf(row).state,
      empty: "No service has been heard.",
      columns: [
        { title: "Service", text: (row) => row.service },
        { title: "State", text: (row) => this.stateOf(row).text },
        { title: "Role", text: (row) => row.role },
        { title: "Since", text: sinceOf },
        { title: "Host", text: (row) => row.host },
        { title: "Process", kind: "number", text: (row) => String(row.pid) },
        { title: "Domain", text: (row) => row.domain },
        { title: "Group", text: (row) => row.group ?? "" },
        { title: "Tier", kind: "number", text: (row) => String(row.tier ?? "") },
        { title: "Last beat", kind: "number", text: (row) => `${span(Date.now() - row.heard)} ago` },
        { title: "Missed", kind: "number", text: (row) => count(row.missed) },
      ],
    });
    this.redraw = throttled(100, () => this.draw());
    byId("services-filter").addEventListener("input", this.redraw);
    setInterval(() => this.draw(), 1000);
  }

  take({ whole, services = [], gone = [] }) {
    if (whole) {
      const present = new Set(services.map(keyOf));
      for (const key of this.rows.keys()) if (!present.has(key)) this.rows.delete(key);
    }
    for (const row of services) {
      const now = Date.now();
      this.rows.set(keyOf(row), { ...row, heard: now - row.age_seconds * 1000,
        known: now - row.known_seconds * 1000 });
    }
    for (const row of gone) {
      this.rows.delete(keyOf(row));
      this.shown.delete(keyOf(row));
      this.tell("gone", `${nameOf(row)} is forgotten after ten minutes of silence`);
    }
    this.hasBegun = true;
    this.draw();
  }

  // While the bus is away nobody is heard, which says nothing about a service.
  setConnected(connected) {
    this.connected = connected;
    this.draw();
  }

  stateOf(row) {
    if (!this.connected) return { state: "unknown", text: "not known" };
    return row.silent ? { state: "silent", text: "silent" } : { state: "alive", text: "alive" };
  }

  draw() {
    this.note();
    const filter = byId("services-filter").value.toLowerCase();
    const isSilent = (row) => this.stateOf(row).state === "silent";
    const rows = [...this.rows.values()]
      .filter((row) => `${row.service} ${row.host} ${row.pid} ${row.domain} ${row.role} ${row.group ?? ""}`
        .toLowerCase().includes(filter))
      .sort((a, b) => isSilent(b) - isSilent(a) || a.service.localeCompare(b.service) ||
        a.domain.localeCompare(b.domain) || b.role.localeCompare(a.role) || a.pid - b.pid);
    this.table.show(rows.slice(0, kMostShown));
    const silent = [...this.rows.values()].filter(isSilent).length;
    const names = new Set([...this.rows.values()].map(({ service }) => service)).size;
    let summary = `${plural(this.rows.size, "process", "processes")} of ${plural(names, "service")}`;
    summary += silent > 0 ? `, ${count(silent)} silent` : this.rows.size > 0 ? ", none silent" : "";
    if (rows.length > kMostShown) summary += `; the first ${kMostShown} of ${count(rows.length)} are shown`;
    if (!this.connected) summary += "; the bus is gone, this is what was last known";
    setText(byId("services-summary"), this.hasBegun ? summary : "Waiting for the agent.");
  }

  // Tells what has changed since the last time.
  note() {
    if (!this.connected) return;
    for (const [key, row] of this.rows) {
      const { state } = this.stateOf(row);
      const { role } = row;
      const isMember = row.group !== null;
      const before = this.shown.get(key);
      this.shown.set(key, { state, role, isMember });
      if (!before) {
        if (row.known > this.began) this.tell("new", `${nameOf(row)} is new, ${role}`);
        continue;
      }
      if (before.state !== state && state === "silent") this.tell("silent", `${nameOf(row)} is silent`);
      if (before.state === "silent" && state === "alive") this.tell("alive", `${nameOf(row)} is heard again`);
      // Not when only the source has changed that tells the role.
      if (before.role !== role && before.isMember === isMember) {
        this.tell(role, `${nameOf(row)} has become ${role}`, row.role_seen ? row.role_since_ms : undefined);
      }
    }
  }

  tell(kind, text, at = Date.now()) {
    const list = byId("happened");
    list.prepend(element("li", { "data-kind": kind }, element("time", {}, clock(at)), " ", text));
    while (list.children.length > kMostHappened) list.lastElementChild.remove();
  }
}
