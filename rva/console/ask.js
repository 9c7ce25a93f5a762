// Asking a service: the question, its rows as they arrive, and what becomes of them.

import { ApiError, query } from "./api.js";
import { byId, bytes, count, element, plural, setText, throttled } from "./dom.js";
import { RowTable, jsonOf, separated } from "./table.js";

const kMostRows = 500_000; // held by the page
const kMostHistory = 50;
const kStore = "console.questions";

// What to ask a service that has not been asked yet.
const kExamples = {
  Model: "select * from vendors limit 100",
  Links: "SELECT * FROM Links",
};
const kAnyExample = "select * from services limit 0";

// The place in `text` that is `position` bytes (from 1) into its UTF-8 form.
export function placeOf(text, position) {
  const before = new TextEncoder().encode(text).slice(0, Math.max(0, position - 1));
  return Math.min(text.length, new TextDecoder().decode(before).length);
}

export class AskView {
  constructor() {
    this.table = new RowTable(byId("ask-rows"), { label: "Rows of the answer" });
    this.history = readHistory();
    this.service = byId("ask-service");
    this.text = byId("ask-text");
    this.showHistory();
    if (this.history[0]) [this.service.value, this.text.value] = [this.history[0].service, this.history[0].text];
    byId("ask-form").addEventListener("submit", (event) => {
      event.preventDefault();
      this.run();
    });
    byId("ask-form").addEventListener("keydown", (event) => {
      if (event.key === "Enter" && (event.ctrlKey || event.metaKey)) byId("ask-form").requestSubmit();
      if (event.key === "Escape") this.cancel();
    });
    this.text.addEventListener("input", () => this.showError());
    byId("ask-cancel").addEventListener("click", () => this.cancel());
    byId("ask-example").addEventListener("click", () => this.offerExample());
    byId("ask-history").addEventListener("change", (event) => {
      const chosen = this.history[event.target.value];
      if (chosen) [this.service.value, this.text.value] = [chosen.service, chosen.text];
      this.showError();
    });
    const filter = throttled(150, () => {
      this.table.setFilter(byId("ask-filter").value);
      this.showStatus();
    });
    byId("ask-filter").addEventListener("input", filter);
    byId("ask-copy").addEventListener("click", () => this.copy());
    byId("ask-csv").addEventListener("click", () =>
      download("rows.csv", "text/csv", separated(this.table.columns, this.table.visible)));
    byId("ask-json").addEventListener("click", () =>
      download("rows.json", "application/json", jsonOf(this.table.visible)));
    this.showSoon = throttled(100, () => this.showStatus());
  }

  setServices(names) {
    const list = byId("ask-services");
    if (names.join() === [...list.children].map(({ value }) => value).join()) return;
    list.replaceChildren(...names.map((name) => element("option", { value: name })));
    if (!this.service.value && names.length > 0) {
      this.service.value = names[0];
      if (!this.text.value) this.text.value = kExamples[names[0]] ?? "";
    }
  }

  offerExample() {
    const service = this.service.value.trim();
    const asked = this.history.find((one) => one.service === service);
    this.text.value = kExamples[service] ?? asked?.text ?? kAnyExample;
    this.showError();
    this.text.focus();
  }

  async run() {
    this.cancel();
    const service = this.service.value.trim();
    const text = this.text.value.trim();
    if (!service || !text) return;
    const running = (this.running = new AbortController());
    this.progress = { state: "asking", rows: 0, bytes: 0, began: performance.now() };
    this.asked = this.text.value;
    this.lead = this.text.value.indexOf(text);
    this.remember(service, text);
    byId("ask-filter").value = "";
    this.table.clear();
    this.showError();
    this.showSoon();
    this.setRunning(true);
    try {
      const end = await query({ service, text }, (rows, size) => this.take(running, rows, size), running.signal);
      if (running === this.running) Object.assign(this.progress, { state: "whole", end });
    } catch (error) {
      if (running !== this.running) return;
      this.progress.state = error.name === "AbortError" ? this.progress.why ?? "cancelled" : "failed";
      if (error.name !== "AbortError") this.showError(error);
    }
    this.progress.took = performance.now() - this.progress.began;
    this.setRunning(false);
    this.showStatus();
  }

  async take(running, rows, size) {
    if (running !== this.running) return;
    this.progress.bytes += size;
    const room = kMostRows - this.table.all.length;
    this.table.add(rows.slice(0, room));
    this.progress.rows = this.table.all.length;
    this.showSoon();
    if (rows.length > room) {
      this.progress.why = "full";
      running.abort();
    }
    // Lets the page draw before the next rows are taken.
    if (rows.length > 0) await new Promise((resolve) => setTimeout(resolve));
  }

  cancel() {
    this.running?.abort();
  }

  setRunning(isRunning) {
    if (!isRunning) this.running = undefined;
    if (!isRunning && document.activeElement === byId("ask-cancel")) byId("ask-run").focus();
    byId("ask-cancel").disabled = !isRunning;
    const nothing = this.table.all.length === 0;
    for (const id of ["ask-copy", "ask-csv", "ask-json"]) byId(id).disabled = isRunning || nothing;
  }

  showStatus() {
    const { state, rows, bytes: size, began, took, end } = this.progress ?? {};
    if (!state) return;
    const seconds = (((took ?? performance.now() - began)) / 1000).toFixed(2);
    const figures = `${plural(rows, "row")}, ${bytes(size)}, ${seconds} s`;
    const texts = {
      asking: rows === 0 ? `Asking, ${seconds} s` : `${figures} so far`,
      whole: `${figures}${end ? `, ${plural(end.packets, "packet")}` : ""}${end?.remark ? ` - ${end.remark}` : ""}`,
      cancelled: `Cancelled: ${figures}`,
      full: `${figures}: the page holds no more rows, the rest was not taken`,
      failed: rows === 0 ? "No answer." : `Not whole: ${figures}`,
    };
    const shown = this.table.summary();
    setText(byId("ask-status"), texts[state] + (shown ? `; ${shown}` : ""));
    if (state === "asking") this.showSoon();
  }

  // An error, with the question and a mark under the place that the service has named.
  showError(error) {
    const box = byId("ask-error");
    box.replaceChildren();
    this.text.toggleAttribute("aria-invalid", error !== undefined);
    if (error === undefined) return;
    if (this.text.hasAttribute("aria-invalid")) this.text.setAttribute("aria-invalid", "true");
    const text = `${error instanceof ApiError ? `${error.code}: ` : ""}${error.message}`;
    box.append(element("p", {}, text));
    if (error.position === undefined) return;
    const place = this.lead + placeOf(this.asked.slice(this.lead), error.position);
    const line = place === 0 ? 0 : this.asked.lastIndexOf("\n", place - 1) + 1;
    const before = this.asked.slice(line, place);
    const [rest] = this.asked.slice(place).split("\n", 1);
    const [wrong] = /^[\p{L}\p{N}_]+|^[^]|$/u.exec(rest);
    setText(box.firstChild, `${text}, at line ${this.asked.slice(0, line).split("\n").length}, column ` +
      `${[...before].length + 1}`);
    box.append(element("pre", {}, before, element("mark", {}, wrong || " "), rest.slice(wrong.length)));
    if (this.text.value !== this.asked) return;
    this.text.focus();
    this.text.setSelectionRange(place, place + wrong.length);
  }

  async copy() {
    const rows = this.table.visible;
    const text = `${this.table.columns.join("\t")}\n${separated(this.table.columns, rows, "\t")}\n`;
    try {
      await navigator.clipboard.writeText(text);
      setText(byId("ask-status"), `${plural(rows.length, "row")} copied`);
    } catch {
      setText(byId("ask-status"), "The browser does not let this page copy.");
    }
  }

  remember(service, text) {
    this.history = [{ service, text },
      ...this.history.filter((one) => one.service !== service || one.text !== text)].slice(0, kMostHistory);
    try {
      localStorage.setItem(kStore, JSON.stringify(this.history));
    } catch { /* without storage the history lasts as long as the page */ }
    this.showHistory();
  }

  showHistory() {
    byId("ask-history").replaceChildren(element("option", { value: "" }, `${count(this.history.length)} kept`),
      ...this.history.map(({ service, text }, index) =>
        element("option", { value: String(index) }, `${service}: ${text.slice(0, 100)}`)));
  }
}

function readHistory() {
  try {
    const kept = JSON.parse(localStorage.getItem(kStore) ?? "[]");
    const isQuestion = (one) => typeof one?.service === "string" && typeof one?.text === "string";
    return Array.isArray(kept) ? kept.filter(isQuestion).slice(0, kMostHistory) : [];
  } catch {
    return [];
  }
}

function download(name, type, text) {
  const url = URL.createObjectURL(new Blob([text], { type }));
  element("a", { href: url, download: name }).click();
  setTimeout(() => URL.revokeObjectURL(url), 10_000);
}
