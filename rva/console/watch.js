// Messages on subjects as they come: a bounded buffer, of which the page shows what the filter lets through.

import { Stream } from "./api.js";
import { byId, clock, count, element, plural, rate, setText } from "./dom.js";

const kMostMessages = 1000;
const kMostCharacters = 8_000_000; // of all messages held
const kMostShown = 200;
const kRateSpanMs = 5000;
const kShowMs = 200;

// One line of what is in the fields.
function preview(fields, room = 160) {
  let text = "";
  for (const field of fields) {
    const value = Array.isArray(field.value) ? `{${preview(field.value, room)}}` : scalar(field.value);
    text += `${text ? "  " : ""}${nameOf(field)}=${value}`;
    if (text.length > room) return `${text.slice(0, room)}...`;
  }
  return text;
}

const textOf = (one) => (typeof one === "object" && one !== null ? JSON.stringify(one) : String(one));
const nameOf = ({ name }) => textOf(name) || "(no name)";
const scalar = (value) => (typeof value === "string" ? value : JSON.stringify(value));

// The fields as a list, nested messages as lists that open and close.
export function tree(fields) {
  return element("ul", { className: "tree" }, ...fields.map((field) => {
    const name = element("span", { className: "name" }, nameOf(field));
    const type = element("span", { className: "type" }, field.type);
    if (!Array.isArray(field.value)) {
      return element("li", {}, name, " ", type, " ", element("span", { className: "value" }, scalar(field.value)));
    }
    return element("li", {}, element("details", { open: true },
      element("summary", {}, name, " ", type, " ", plural(field.value.length, "field")), tree(field.value)));
  }));
}

const subjectsTyped = () => byId("watch-subject").value.split(/\s+/).filter(Boolean);

export class WatchView {
  constructor() {
    this.kept = [];
    this.times = [];
    this.reset();
    byId("watch-form").addEventListener("submit", (event) => {
      event.preventDefault();
      const isOther = this.hasOtherSubjects();
      if (this.stream) this.stop();
      if (isOther) this.start();
    });
    byId("watch-subject").addEventListener("input", () => this.showRun());
    byId("watch-pause").addEventListener("click", () => this.pause(!this.paused));
    byId("watch-clear").addEventListener("click", () => {
      this.reset();
      this.show();
    });
    byId("watch-filter").addEventListener("input", () => this.show());
    setInterval(() => this.stream && !document.hidden && this.show(), kShowMs);
  }

  reset() {
    this.kept = [];
    this.held = 0;
    this.number = 0;
    this.letGo = 0;
    this.missed = 0;
    this.frozen = undefined;
    if (this.paused) this.frozen = [];
  }

  // Than those that it watches.
  hasOtherSubjects() {
    return !this.stream || subjectsTyped().join(" ") !== this.subjects.join(" ");
  }

  showRun() {
    setText(byId("watch-run"), this.hasOtherSubjects() ? "Watch" : "Stop");
  }

  start() {
    const subjects = subjectsTyped();
    if (subjects.length === 0) return;
    this.reset();
    this.times = [];
    this.subjects = subjects;
    this.state = "connecting";
    this.setError();
    const path = `/api/listen?${subjects.map((one) => `subject=${encodeURIComponent(one)}`).join("&")}`;
    this.stream = new Stream(path, {
      $lost: () => {
        if (this.state === "listening") this.note("The connection to the agent is lost: messages may be missing here.");
        this.state = "lost";
        this.check(path);
      },
      listening: () => {
        this.state = "listening";
        this.setError();
      },
      message: (message) => this.take({ message }),
      dropped: ({ messages }) => {
        this.missed += messages;
        this.note(`${plural(messages, "message")} left out: this page was slower than the bus.`);
      },
      bus: ({ connected }) => this.note(connected ? "The bus is back: messages may be missing here."
        : "The bus is gone."),
      end: ({ error }) => this.note(`The agent has ended the stream: ${error.text}`),
    });
    this.showRun();
    byId("watch-pause").disabled = byId("watch-clear").disabled = false;
    this.show();
  }

  // An EventSource does not say why it was refused; a second request does.
  async check(path) {
    const stop = new AbortController();
    try {
      const answer = await fetch(path, { signal: stop.signal });
      if (!answer.ok) {
        const { error } = await answer.json();
        this.setError(`${error.code}: ${error.text}`);
        if (answer.status < 429) this.stop();
      }
    } catch { /* the agent does not answer: the page says so above */ }
    stop.abort();
  }

  stop() {
    this.stream.close();
    this.stream = undefined;
    this.state = "stopped";
    this.pause(false);
    byId("watch-pause").disabled = true;
    this.showRun();
    this.show();
  }

  setError(text = "") {
    setText(byId("watch-error"), text);
  }

  pause(paused) {
    this.paused = paused;
    this.frozen = paused ? [...this.kept] : undefined;
    byId("watch-pause").setAttribute("aria-pressed", String(paused));
    this.show();
  }

  note(text) {
    this.take({ note: text });
  }

  take(entry) {
    entry.at = Date.now();
    entry.number = ++this.number;
    entry.size = entry.message ? JSON.stringify(entry.message).length : entry.note.length;
    if (entry.message) this.times.push(entry.at);
    this.kept.push(entry);
    this.held += entry.size;
    let over = 0;
    while (this.kept.length - over > kMostMessages || (this.held > kMostCharacters && this.kept.length - over > 1)) {
      this.held -= this.kept[over].size;
      if (this.kept[over].message) ++this.letGo;
      ++over;
    }
    if (over > 0) this.kept.splice(0, over);
  }

  show() {
    const now = Date.now();
    const old = this.times.findIndex((time) => now - time < kRateSpanMs);
    this.times.splice(0, old === -1 ? this.times.length : old);
    const filter = byId("watch-filter").value.toLowerCase();
    const matches = ({ message, note }) => note || !filter || JSON.stringify(message).toLowerCase().includes(filter);
    const entries = (this.frozen ?? this.kept).filter(matches);
    const shown = entries.slice(-kMostShown).reverse();
    const list = byId("watch-messages");
    const present = new Map([...list.children].map((item) => [item.entry, item]));
    const wanted = new Set(shown);
    for (const [entry, item] of present) if (!wanted.has(entry)) item.remove();
    let place = list.firstElementChild;
    for (const entry of shown) {
      const item = present.get(entry);
      if (item) place = item.nextElementSibling;
      else list.insertBefore(this.item(entry), place);
    }
    this.showStatus(entries.length, shown.length);
  }

  showStatus(matching, shown) {
    const words = { undefined: "Not watching.", connecting: "Connecting.", stopped: "Stopped.",
      lost: "Connection lost, trying again.", listening: `Watching ${this.subjects?.join(" ")}.` };
    const held = this.kept.filter(({ message }) => message).length;
    let text = words[this.state];
    if (this.state !== undefined) {
      text += ` ${rate(this.times.length / (kRateSpanMs / 1000))}/s; ${plural(held, "message")} held`;
      if (matching > shown) text += `, the newest ${shown} shown`;
      else if (byId("watch-filter").value) text += `, ${count(shown)} shown`;
      if (this.letGo > 0) text += `; ${count(this.letGo)} older let go`;
      if (this.missed > 0) text += `; ${count(this.missed)} left out by the agent`;
      if (this.paused) text += `; paused, ${count(this.number - (this.frozen.at(-1)?.number ?? 0))} more since`;
    }
    setText(byId("watch-status"), text);
  }

  item(entry) {
    const time = element("time", {}, clock(entry.at, true));
    const item = element("li", {});
    item.entry = entry;
    if (entry.note) {
      item.className = "note";
      item.append(time, " ", entry.note);
      return item;
    }
    const { subject, reply, type, fields, value } = entry.message;
    const all = fields ?? [{ name: "(value)", type, value }];
    const details = element("details", {}, element("summary", {}, time, " ",
      element("strong", {}, textOf(subject)), " ", element("span", { className: "preview" }, preview(all))));
    // Most are never opened: the tree is made when one is.
    details.addEventListener("toggle", () => {
      if (details.children.length > 1) return;
      if (reply) details.append(element("p", { className: "reply" }, `Reply subject ${textOf(reply)}`));
      details.append(tree(all));
    });
    item.append(details);
    return item;
  }
}
