// Who lives. Rows come from the beats (`/api/events`); group, tier and the present role from the messages of the
// fault-tolerance groups, which every member sends each 1.5 s.

import { byId, clock, count, element, plural, setText, span, throttled } from "./dom.js";
import { SmallTable } from "./table.js";

const kBeatMs = 10_000;
const kToleranceMs = 1_000;
const kGroupSilentMs = 4_500; // three beats of a member
const kMostShown = 500;
const kMostHappened = 200;
const kActive = 2, kLeaving = 3;

const keyOf = ({ service, domain, host, pid }) => JSON.stringify([service, domain, host, pid]);
const nameOf = ({ service, host, pid }) => `${service} on ${host}, process ${pid}`;

// The members of all groups, from their messages.
export class Groups {
  constructor(happened) {
    this.members = new Map();
    this.happened = happened;
  }

  // Takes a message of a group; whether somebody's state has changed.
  hear({ fields }) {
    const value = Object.fromEntries(fields.map(({ name, value }) => [name, value]));
    if (typeof value.id !== "string" || typeof value.group !== "string") return false;
    const now = Date.now();
    const before = this.members.get(value.id);
    if (value.state === kLeaving) return this.members.delete(value.id);
    const isActive = value.state === kActive;
    const since = before && before.isActive === isActive ? before.since : now;
    const elements = value.group.split(".");
    this.members.set(value.id, { id: value.id, isActive, since, seenChange: before !== undefined && since === now
      ? true : before?.seenChange ?? false, heard: now, start: Number(value.start), group: value.group,
    tier: elements.at(-1) });
    return !before || before.isActive !== isActive;
  }

  // The one member that is this process. A member's name has its session's: address, process, time, number.
  of({ pid, domain }) {
    const process = pid.toString(16).toUpperCase();
    const found = [];
    for (const member of this.members.values()) {
      const rest = member.id.split(".")[1] ?? "";
      if (!rest.startsWith(process)) continue;
      const opened = parseInt(rest.slice(process.length, process.length + 8), 16) * 1000;
      if (Math.abs(opened - member.start) < 60_000 &&
          (member.group.includes(`.${domain}.`) || !domain)) found.push(member);
    }
    return found.length === 1 ? found[0] : undefined;
  }

  forget() {
    const now = Date.now();
    for (const [id, { heard }] of this.members) if (now - heard > 600_000) this.members.delete(id);
  }
}

export class ServicesView {
  constructor() {
    this.rows = new Map();
    this.connected = true;
    this.shown = new Map(); // what was last said of each: role and silence
    this.groups = new Groups();
    this.table = new SmallTable(byId("services-table"), {
      label: "Services",
      cards: true,
      key: keyOf,
      rowState: (row) => this.stateOf(row).state,
      empty: "No service has been heard.",
      columns: [
        { title: "Service", text: (row) => row.service },
        { title: "State", text: (row) => this.stateOf(row).text },
        { title: "Role", text: (row) => this.roleOf(row) },
        { title: "Since", text: (row) => this.sinceOf(row) },
        { title: "Host", text: (row) => row.host },
        { title: "Process", kind: "number", text: (row) => String(row.pid) },
        { title: "Domain", text: (row) => row.domain },
        { title: "Group", text: (row) => this.groupOf(row) },
        { title: "Tier", kind: "number", text: (row) => this.groups.of(row)?.tier ?? "" },
        { title: "Last beat", kind: "number", text: (row) => `${span(Date.now() - row.heard)} ago` },
        { title: "Missed", kind: "number", text: (row) => count(row.missedBefore + this.overdue(row)) },
      ],
    });
    this.redraw = throttled(100, () => this.draw());
    byId("services-filter").addEventListener("input", this.redraw);
    setInterval(() => this.draw(), 1000);
  }

  take({ whole, services = [], gone = [] }) {
    if (whole) {
      const present = new Set(services.map(keyOf));
      for (const key of [...this.rows.keys()]) if (!present.has(key)) this.rows.delete(key);
    }
    for (const row of services) {
      const now = Date.now();
      this.rows.set(keyOf(row), { ...row, heard: now - row.age_seconds * 1000,
        known: now - row.known_seconds * 1000, missedBefore: row.missed - row.overdue });
    }
    for (const row of gone) {
      this.rows.delete(keyOf(row));
      this.shown.delete(keyOf(row));
      this.tell("gone", `${nameOf(row)} is forgotten after ten minutes of silence`);
    }
    this.isFirst = whole && !this.hasBegun;
    this.hasBegun = true;
    this.draw();
  }

  hearGroup(message) {
    if (this.groups.hear(message)) this.redraw();
  }

  // While the bus is away nobody is heard, which says nothing about a service.
  setConnected(connected) {
    if (connected && !this.connected) for (const row of this.rows.values()) row.heard = Math.max(row.heard, Date.now());
    if (connected && !this.connected) for (const one of this.groups.members.values()) one.heard = Date.now();
    this.connected = connected;
    this.draw();
  }

  overdue(row) {
    const silence = Date.now() - row.heard - kToleranceMs;
    return silence <= 0 ? 0 : Math.floor(silence / kBeatMs);
  }

  stateOf(row) {
    if (!this.connected) return { state: "unknown", text: "not known" };
    const member = this.groups.of(row);
    if (this.overdue(row) > 0) return { state: "silent", text: "silent" };
    if (member && Date.now() - member.heard > kGroupSilentMs) return { state: "silent", text: "silent" };
    return { state: "alive", text: "alive" };
  }

  roleOf(row) {
    const member = this.groups.of(row);
    if (!member) return row.role;
    return member.isActive ? "primary" : "backup";
  }

  // When a role was taken is known when it happened before our eyes; else the process's start bounds it.
  sinceOf(row) {
    const member = this.groups.of(row);
    if (!member) return `${clock(row.known)} or before`;
    return member.seenChange ? clock(member.since) : `${clock(member.since)} or before`;
  }

  groupOf(row) {
    const member = this.groups.of(row);
    if (!member) return "";
    const elements = member.group.split(".").slice(0, -1);
    if (elements.at(-1) === row.domain) elements.pop();
    return elements.join(".");
  }

  draw() {
    this.groups.forget();
    this.note();
    const filter = byId("services-filter").value.toLowerCase();
    const isSilent = (row) => this.stateOf(row).state === "silent";
    const rows = [...this.rows.values()]
      .filter((row) => `${row.service} ${row.host} ${row.pid} ${row.domain} ${this.roleOf(row)} ${this.groupOf(row)}`
        .toLowerCase().includes(filter))
      .sort((a, b) => isSilent(b) - isSilent(a) || a.service.localeCompare(b.service) ||
        a.domain.localeCompare(b.domain) || this.roleOf(b).localeCompare(this.roleOf(a)) || a.pid - b.pid);
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
      const role = this.roleOf(row);
      const isMember = this.groups.of(row) !== undefined;
      const before = this.shown.get(key);
      this.shown.set(key, { state, role, isMember });
      if (!before) {
        if (!this.isFirst) this.tell("new", `${nameOf(row)} is new, ${role}`);
        continue;
      }
      if (before.state !== state && state === "silent") this.tell("silent", `${nameOf(row)} is silent`);
      if (before.state === "silent" && state === "alive") this.tell("alive", `${nameOf(row)} is heard again`);
      // Not when only the source has changed that tells the role.
      if (before.role !== role && before.isMember === isMember) this.tell(role, `${nameOf(row)} has become ${role}`);
    }
    this.isFirst = false;
  }

  tell(kind, text) {
    const list = byId("happened");
    list.prepend(element("li", { "data-kind": kind }, element("time", {}, clock(Date.now())), " ", text));
    while (list.children.length > kMostHappened) list.lastElementChild.remove();
  }
}
