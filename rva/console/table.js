// Two tables: one of few rows that change in place, and one of very many that stand still.

import { namesOf } from "./api.js";
import { count, element, setText } from "./dom.js";

// A table of at most some hundred rows. A column is { title, text(row), kind?: "number", state?(row) }; rows are
// told apart by `key(row)`, so that what has not changed is not touched.
export class SmallTable {
  constructor(parent, { label, columns, key, rowState = () => "", empty, cards = false }) {
    this.columns = columns;
    this.key = key;
    this.rowState = rowState;
    this.lines = new Map();
    const heads = columns.map(({ title, kind }) =>
      element("th", { scope: "col", className: kind ?? "", role: "columnheader" }, title));
    this.body = element("tbody", { role: "rowgroup" });
    this.table = element("table", { role: "table", "aria-label": label, className: cards ? "cards" : "" },
      element("thead", { role: "rowgroup" }, element("tr", { role: "row" }, ...heads)), this.body);
    this.frame = element("div", { className: "scroll", tabIndex: 0, role: "region", "aria-label": label }, this.table);
    this.empty = element("p", { className: "empty" }, empty);
    parent.append(this.frame, this.empty);
    this.show([]);
  }

  show(rows) {
    this.frame.hidden = rows.length === 0;
    this.empty.hidden = rows.length !== 0;
    const gone = new Set(this.lines.keys());
    let place = this.body.firstElementChild;
    for (const row of rows) {
      const key = this.key(row);
      gone.delete(key);
      let line = this.lines.get(key);
      if (!line) {
        const cells = this.columns.map(({ title, kind }, index) => element(index === 0 ? "th" : "td",
          { className: kind ?? "", "data-title": title, role: index === 0 ? "rowheader" : "cell",
            ...(index === 0 ? { scope: "row" } : {}) }));
        line = { cells, row: element("tr", { role: "row" }, ...cells) };
        this.lines.set(key, line);
      }
      this.fill(line, row);
      if (line.row !== place) this.body.insertBefore(line.row, place);
      else place = place.nextElementSibling;
    }
    for (const key of gone) {
      this.lines.get(key).row.remove();
      this.lines.delete(key);
    }
  }

  fill(line, row) {
    const state = this.rowState(row);
    if (line.row.dataset.state !== state) line.row.dataset.state = state;
    this.columns.forEach((column, index) => setText(line.cells[index], column.text(row)));
  }
}

const kRowHeight = 28;
const kMargin = 12; // rows kept above and below those in sight
const kTallest = 8_000_000; // pixels; browsers cut off taller elements

// What a value of a row shows, and what it sorts by.
export function textOf(value) {
  if (value === null || value === undefined) return "";
  if (typeof value !== "object") return String(value);
  return value.integer ?? (value.bytes === undefined ? undefined : hexOf(value.bytes)) ?? value.base64 ??
    JSON.stringify(value);
}
const hexOf = (base64) => Array.from(atob(base64), (one) => one.charCodeAt(0).toString(16).padStart(2, "0")).join("");
const isNumber = (value) => typeof value === "number" || value?.integer !== undefined;
const collator = new Intl.Collator("en", { numeric: true });

// Numbers first, then texts, at last what is missing.
export function compare(a, b) {
  const rank = (value) => (value === null || value === undefined ? 2 : isNumber(value) ? 0 : 1);
  if (rank(a) !== rank(b)) return rank(a) - rank(b);
  if (rank(a) === 2) return 0;
  if (rank(a) === 1) return collator.compare(textOf(a), textOf(b));
  if (typeof a === "number" && typeof b === "number") return a - b;
  const left = BigInt(textOf(a)), right = BigInt(textOf(b));
  return left < right ? -1 : left > right ? 1 : 0;
}

// Any number of rows, of which only those in sight are in the document. Sorts by a click on a heading, shows the
// rows that contain a text; the arrow keys move a current row, Ctrl+C copies it.
export class RowTable {
  constructor(parent, { label }) {
    this.head = element("div", { className: "row head", role: "row" });
    this.body = element("div", { className: "body", role: "rowgroup" });
    this.grid = element("div", { className: "rows", role: "grid", tabIndex: 0, "aria-label": label },
      element("div", { className: "heads", role: "rowgroup" }, this.head), this.body);
    this.empty = element("p", { className: "empty" }, "No rows.");
    parent.append(this.grid, this.empty);
    this.grid.addEventListener("scroll", () => this.draw(), { passive: true });
    this.grid.addEventListener("keydown", (event) => this.press(event));
    this.body.addEventListener("click", (event) => {
      const line = event.target.closest("[aria-rowindex]");
      if (line) this.move(Number(line.getAttribute("aria-rowindex")) - 2);
    });
    new ResizeObserver(() => this.draw()).observe(this.grid);
    this.clear();
  }

  clear() {
    this.all = [];
    this.columns = [];
    this.widths = new Map();
    this.filter = "";
    this.sort = undefined;
    this.visible = this.all;
    this.current = -1;
    this.grid.scrollTop = 0;
    this.drawn = undefined;
    this.layout();
  }

  add(rows) {
    if (rows.length === 0) return;
    const first = this.all.length;
    const known = this.columns.length;
    for (const row of rows) {
      this.all.push(row);
      for (const name of namesOf(row)) {
        if (!this.widths.has(name)) {
          this.columns.push(name);
          this.widths.set(name, name.length + 3);
        }
        // What the first rows need; later ones are cut, and whole in a copy.
        if (this.all.length <= 300) {
          this.widths.set(name, Math.max(this.widths.get(name), Math.min(textOf(row[name]).length, 48)));
        }
      }
    }
    if (this.sort) this.arrange();
    else if (this.filter) this.visible.push(...this.all.slice(first).filter((row) => this.matches(row)));
    if (known !== this.columns.length || first < 300) this.layout();
    else this.resize();
  }

  setFilter(text) {
    this.filter = text.toLowerCase();
    this.grid.scrollTop = 0;
    this.arrange();
    this.resize();
  }

  setSort(name) {
    const same = this.sort?.name === name;
    if (same && this.sort.down) this.sort = undefined;
    else this.sort = { name, down: same };
    this.grid.scrollTop = 0;
    this.arrange();
    this.layout();
  }

  matches(row) {
    for (const name in row) if (textOf(row[name]).toLowerCase().includes(this.filter)) return true;
    return false;
  }

  arrange() {
    this.visible = this.filter ? this.all.filter((row) => this.matches(row)) : this.all;
    if (this.sort) {
      const { name, down } = this.sort;
      const sign = down ? -1 : 1;
      const isMissing = (value) => value === null || value === undefined;
      // What is missing stays last in either order.
      this.visible = [...this.visible].sort((a, b) => isMissing(a[name]) || isMissing(b[name])
        ? isMissing(a[name]) - isMissing(b[name]) : sign * compare(a[name], b[name]));
    }
    this.current = -1;
  }

  layout() {
    this.head.replaceChildren(...this.columns.map((name, index) => {
      const sorted = this.sort?.name === name ? (this.sort.down ? "descending" : "ascending") : "none";
      const button = element("button", { type: "button", tabIndex: 0 }, name);
      button.addEventListener("click", () => {
        this.setSort(name);
        this.head.children[index]?.firstElementChild.focus();
      });
      return element("div", { role: "columnheader", "aria-sort": sorted, "aria-colindex": index + 1 }, button);
    }));
    const widths = this.columns.map((name) => `minmax(${this.widths.get(name) + 2}ch, ${this.widths.get(name) + 2}fr)`);
    this.grid.style.setProperty("--columns", widths.join(" "));
    this.grid.setAttribute("aria-colcount", this.columns.length);
    this.head.setAttribute("aria-rowindex", 1);
    this.resize();
  }

  resize() {
    this.grid.hidden = this.all.length === 0;
    this.empty.hidden = this.visible.length !== 0;
    setText(this.empty, this.all.length === 0 ? "No rows." : "No row contains this text.");
    this.grid.setAttribute("aria-rowcount", this.visible.length + 1);
    this.height = Math.min(this.visible.length * kRowHeight, kTallest);
    this.body.style.height = `${this.height}px`;
    this.drawn = undefined;
    this.draw();
  }

  // Of an element that is cut at kTallest, a pixel of scrolling stands for more than a pixel of rows.
  get stretch() {
    const room = this.grid.clientHeight - this.head.offsetHeight;
    const real = this.visible.length * kRowHeight;
    return real > this.height ? (real - room) / (this.height - room) : 1;
  }

  draw() {
    if (this.grid.clientHeight === 0) return;
    const top = this.grid.scrollTop;
    const offset = top * this.stretch;
    const first = Math.max(0, Math.floor(offset / kRowHeight) - kMargin);
    const last = Math.min(this.visible.length,
      Math.ceil((offset + this.grid.clientHeight) / kRowHeight) + kMargin);
    const drawn = `${first} ${last} ${this.stretch > 1 ? top : ""}`;
    if (drawn === this.drawn) return;
    this.drawn = drawn;
    const lines = [];
    for (let index = first; index < last; ++index) {
      const row = this.visible[index];
      const line = element("div", { className: "row", role: "row", id: `row-${index}`, "aria-rowindex": index + 2,
        "aria-selected": index === this.current },
      ...this.columns.map((name, column) => element("div", { role: "gridcell", "aria-colindex": column + 1,
        className: isNumber(row[name]) ? "number" : "", title: textOf(row[name]).slice(0, 1000) },
      textOf(row[name]))));
      line.style.transform = `translateY(${index * kRowHeight - offset + top}px)`;
      lines.push(line);
    }
    this.body.replaceChildren(...lines);
    if (this.current >= first && this.current < last) {
      this.grid.setAttribute("aria-activedescendant", `row-${this.current}`);
    } else {
      this.grid.removeAttribute("aria-activedescendant");
    }
  }

  move(to) {
    if (this.visible.length === 0) return;
    this.current = Math.max(0, Math.min(this.visible.length - 1, to));
    const room = this.grid.clientHeight - this.head.offsetHeight - kRowHeight;
    const at = this.current * kRowHeight;
    const offset = this.grid.scrollTop * this.stretch;
    if (at < offset) this.grid.scrollTop = at / this.stretch;
    else if (at > offset + room) this.grid.scrollTop = (at - room) / this.stretch;
    this.drawn = undefined;
    this.draw();
  }

  press(event) {
    if (event.target !== this.grid) return;
    const page = Math.max(1, Math.floor(this.grid.clientHeight / kRowHeight) - 2);
    const moves = { ArrowDown: this.current + 1, ArrowUp: this.current - 1, PageDown: this.current + page,
      PageUp: this.current - page, Home: 0, End: this.visible.length - 1 };
    if (event.key in moves && !event.altKey) {
      event.preventDefault();
      this.move(moves[event.key]);
    } else if (event.key === "c" && (event.ctrlKey || event.metaKey) && this.current >= 0 &&
               getSelection().isCollapsed) {
      event.preventDefault();
      navigator.clipboard?.writeText(separated(this.columns, [this.visible[this.current]], "\t"));
    }
  }

  summary() {
    return this.visible.length === this.all.length ? "" : `${count(this.visible.length)} shown`;
  }
}

// Rows as text: RFC 4180 with commas, or with tabs for spreadsheets and terminals.
export function separated(columns, rows, separator = ",") {
  const needsQuotes = separator === "," ? /[",\r\n]/ : /["\t\r\n]/;
  const quoted = (text) => (needsQuotes.test(text) ? `"${text.replaceAll('"', '""')}"` : text);
  const line = (values) => values.map(quoted).join(separator);
  const body = rows.map((row) => line(columns.map((name) => textOf(row[name]))));
  return (separator === "," ? [line(columns), ...body].join("\r\n") + "\r\n" : body.join("\n"));
}

// Rows as JSON, their fields in the order in which they came.
export function jsonOf(rows) {
  const json = (row) => namesOf(row).map((name) => `${JSON.stringify(name)}: ${JSON.stringify(row[name])}`).join(", ");
  return `[\n${rows.map((row) => `{${json(row)}}`).join(",\n")}\n]\n`;
}
