// The agent's HTTP interface (docs/http.md), and nothing else of it.

// An error of the interface; `position` is in bytes of the question, from 1, where the service says it.
export class ApiError extends Error {
  constructor({ code = "Failed", text = "", position } = {}) {
    super(text || code);
    this.code = code;
    this.position = position;
  }
}

const kGetMs = 8000;
const json = { "Content-Type": "application/json" };

async function fail(answer) {
  let error;
  try {
    error = (await answer.json()).error;
  } catch {
    error = { code: String(answer.status), text: `the agent answers ${answer.status}` };
  }
  throw new ApiError(error);
}

export async function get(path) {
  const answer = await fetch(path, { cache: "no-store", signal: AbortSignal.timeout(kGetMs) });
  return answer.ok ? answer.json() : fail(answer);
}

export async function post(path, body, signal) {
  const answer = await fetch(path, { method: "POST", headers: json, body: JSON.stringify(body), signal });
  return answer.ok ? answer.json() : fail(answer);
}

// An object of JavaScript has names such as "7" first, wherever they came: the names of such a row as they came.
const kNames = Symbol("names");
export const namesOf = (row) => row[kNames] ?? Object.keys(row);
const isIndex = (name) => /^(0|[1-9]\d{0,9})$/.test(name);

// The keys of the object in an object of one key.
function namesIn(line) {
  const names = [];
  let depth = 0;
  for (const [token] of line.matchAll(/"(?:[^"\\]|\\.)*":?|[{}]/g)) {
    if (token === "{") ++depth;
    else if (token === "}") --depth;
    else if (depth === 2 && token.endsWith(":")) names.push(JSON.parse(token.slice(0, -1)));
  }
  return names;
}

function rowOf(line, row) {
  // A column may be called "constructor": a row has the names that came, and no others.
  Object.setPrototypeOf(row, null);
  for (const first in row) {
    if (isIndex(first)) row[kNames] = namesIn(line);
    break;
  }
  return row;
}

// Asks a service. Calls `take(rows, bytes)` as rows arrive, of which it takes no more while a call's promise is
// pending; returns the answer's end. Rejects with an ApiError when the answer is an error or breaks off.
export async function query({ service, text, timeout_ms = 15000 }, take, signal) {
  const body = JSON.stringify({ service, text, timeout_ms, format: "ndjson" });
  const answer = await fetch("/api/query", { method: "POST", headers: json, body, signal });
  if (!answer.ok) await fail(answer);
  const reader = answer.body.getReader();
  const decoder = new TextDecoder();
  let rest = "";
  for (;;) {
    const { done, value } = await reader.read();
    if (done) throw new ApiError({ code: "Partial", text: "the answer has broken off" });
    const lines = (rest + decoder.decode(value, { stream: true })).split("\n");
    rest = lines.pop();
    const rows = [];
    let end;
    for (const line of lines) {
      if (line === "") continue;
      const one = JSON.parse(line);
      if (one.row) rows.push(rowOf(line, one.row));
      else if (one.error || one.end) end = one;
    }
    await take(rows, value.length);
    if (end?.error) throw new ApiError(end.error);
    if (end) return end.end;
  }
}

// Server-sent events of `path`, for as long as the page is open: the browser resumes a short break by itself
// (Last-Event-ID); where it gives up, and after the computer has slept, the stream is opened anew and the agent
// sends the whole state. `handlers` has a function for each event, and `$open`, `$lost` for the connection: what
// comes between them may be missing.
export class Stream {
  constructor(path, handlers) {
    this.path = path;
    this.handlers = handlers;
    this.wait = 500;
    this.ticked = Date.now();
    this.wake = () => {
      // A timer that comes late by more than this means that the computer slept, and that the connection may be
      // one that only this end still knows.
      const slept = Date.now() - this.ticked > 15000;
      this.ticked = Date.now();
      if (slept && document.visibilityState === "visible") this.open();
    };
    this.timer = setInterval(this.wake, 2000);
    this.online = () => this.open();
    this.shown = (event) => event.persisted && this.open();
    document.addEventListener("visibilitychange", this.wake);
    window.addEventListener("online", this.online);
    window.addEventListener("pageshow", this.shown);
    this.open();
  }

  open() {
    clearTimeout(this.again);
    if (this.source && this.source.readyState !== EventSource.CLOSED) {
      this.source.close();
      this.handlers.$lost?.();
    }
    const source = (this.source = new EventSource(this.path));
    source.onopen = () => {
      this.wait = 500;
      this.handlers.$open?.();
    };
    source.onerror = () => {
      this.handlers.$lost?.();
      if (source.readyState === EventSource.CLOSED) this.retry();
    };
    for (const [name, handle] of Object.entries(this.handlers)) {
      if (!name.startsWith("$")) source.addEventListener(name, (event) => handle(JSON.parse(event.data)));
    }
    source.addEventListener("end", () => this.retry());
  }

  // The browser does not try again when it was refused: too many streams, no token, a proxy's error page.
  retry() {
    this.source.close();
    clearTimeout(this.again);
    this.again = setTimeout(() => this.open(), this.wait);
    this.wait = Math.min(this.wait * 2, 5000);
  }

  close() {
    clearInterval(this.timer);
    clearTimeout(this.again);
    document.removeEventListener("visibilitychange", this.wake);
    window.removeEventListener("online", this.online);
    window.removeEventListener("pageshow", this.shown);
    this.source.close();
  }
}
