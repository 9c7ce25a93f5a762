// The daemon's figures: what it says of itself now, and the last hour as the agent has kept it.

import { get } from "./api.js";
import { byId, bytes, clock, count, element, nanoseconds, plural, rate, setText, span } from "./dom.js";
import { SmallTable } from "./table.js";

const kCauses = {
  dropped_queue: "queue full: the session reads too slowly",
  dropped_memory: "the daemon's memory is full",
  dropped_ended: "the session ended before it was served",
  dropped_shutdown: "the daemon ended",
};
const kBurstMs = 3000; // for which messages may wait without anybody being slow
const kChartHeight = 150;

const kCharts = [
  { title: "Messages per second", format: rate, series: [["messages_in_rate", "in"], ["messages_out_rate", "out"]] },
  { title: "Bytes per second", format: bytes, series: [["bytes_in_rate", "in"], ["bytes_out_rate", "out"]] },
  { title: "Lost messages per second", format: rate, series: [["dropped_rate", "lost"]], alarm: true },
  { title: "Waiting messages", format: rate, series: [["waiting_messages", "waiting"]] },
  { title: "Sessions and services", format: rate, series: [["sessions", "sessions"], ["services", "services"],
    ["silent_services", "silent"]] },
  { title: "Daemon's memory", format: bytes, series: [["memory_bytes", "used"]] },
];

const whoIs = (session) => session.program ? `${session.program} [${session.pid}]` : session.name || "(not yet named)";
const lossesOf = (session) => Object.keys(kCauses).reduce((sum, cause) => sum + Number(session[cause] ?? 0), 0);

const isBehind = (session) => session.behind_ms !== undefined;
const stateOfSession = (session) => isBehind(session) ? `behind for ${span(session.behind_ms)}`
  : session.waiting > 0 ? `messages wait for ${span(session.waiting_ms ?? 0)}`
  : lossesOf(session) > 0 ? "has lost" : "keeps up";

const stateOfHost = ({ self, up }) => self ? (up ? "this host" : "this host, no engine") : up ? "up" : "gone";
const trafficOf = ({ messages = 0, bytes: size = 0 } = {}) => `${plural(messages, "message")}, ${bytes(size)}`;

// The last hour of some series as a line chart; a picture for those who see it, and its figures in words.
class Chart {
  constructor(parent, { title, series, format, alarm }) {
    Object.assign(this, { title, series, format, alarm });
    this.caption = element("figcaption", {}, title);
    this.numbers = element("span", { className: "numbers" });
    this.caption.append(this.numbers);
    this.frame = element("div", { className: "plot", role: "img", "aria-label": title });
    this.figure = element("figure", {}, this.caption, this.frame);
    parent.append(this.figure);
  }

  draw(time, columns) {
    const data = [time, ...this.series.map(([name]) => columns[name] ?? [])];
    this.describe(data);
    const width = this.frame.clientWidth;
    if (width === 0) return;
    if (this.plot && this.width === width) return this.plot.setData(data);
    this.plot?.destroy();
    this.width = width;
    const style = getComputedStyle(document.documentElement);
    const colour = (name) => style.getPropertyValue(name).trim();
    const axis = { stroke: colour("--faint"), grid: { stroke: colour("--line"), width: 1 },
      ticks: { show: false }, font: "11px system-ui, sans-serif" };
    const colours = this.alarm ? ["--bad"] : ["--series-1", "--series-2", "--series-3"];
    this.plot = new window.uPlot({
      width, height: kChartHeight, legend: { show: false },
      scales: { y: { range: (_, least, most) => [Math.min(0, least ?? 0), Math.max(1, most ?? 1) * 1.1] } },
      axes: [{ ...axis, space: 60, values: (_, at) => at.map((one) => clock(one * 1000).slice(-8, -3)) },
        { ...axis, size: 62, values: (_, at) => at.map((one) => this.format(one)) }],
      series: [{}, ...this.series.map(([, label], index) => ({ label, stroke: colour(colours[index]), width: 1.6,
        dash: index === 1 ? [5, 3] : index === 2 ? [2, 2] : undefined,
        value: (_, value) => this.format(value), points: { show: time.length < 3 } }))],
      cursor: { y: false, drag: { x: false, y: false } },
    }, data, this.frame);
  }

  describe(data) {
    const texts = this.series.map(([, label], index) => {
      const known = data[index + 1].filter((value) => value !== null && value !== undefined);
      if (known.length === 0) return { label, now: "-", most: "-" };
      return { label, now: this.format(known.at(-1)), most: this.format(Math.max(...known)) };
    });
    const words = texts.map(({ label, now, most }) => `${label} ${now}, at most ${most}`).join("; ");
    this.frame.setAttribute("aria-label", `${this.title} over the last hour: ${words}`);
    this.numbers.replaceChildren(...texts.flatMap(({ label, now, most }, index) => [
      element("span", { className: this.alarm ? "key alarm" : `key key-${index + 1}` }, `${label} `,
        element("b", {}, now), ` (at most ${most})`), " "]));
  }
}

export class BusView {
  constructor() {
    this.series = {};
    this.time = [];
    this.charts = kCharts.map((chart) => new Chart(byId("bus-charts"), chart));
    this.losses = new SmallTable(byId("bus-losses"), {
      label: "Losses by cause", key: (row) => row.cause, empty: "No message has been lost since the daemon's start.",
      rowState: () => "bad",
      columns: [
        { title: "Cause", text: (row) => row.meaning },
        { title: "Messages", kind: "number", text: (row) => count(row.messages) },
        { title: "Whose", text: (row) => row.culprits },
      ],
    });
    this.sessions = new SmallTable(byId("bus-sessions"), {
      label: "Sessions", key: (row) => row.number, empty: "No sessions are known.",
      rowState: (row) => (isBehind(row) ? "bad" : row.waiting_ms > kBurstMs || lossesOf(row) > 0 ? "warn" : ""),
      columns: [
        { title: "Who", text: whoIs },
        { title: "State", text: stateOfSession },
        { title: "User", text: (row) => row.user ?? "" },
        { title: "Address", text: (row) => row.address ?? "" },
        { title: "Waiting", kind: "number", text: (row) => count(row.waiting) },
        { title: "Waiting bytes", kind: "number", text: (row) => bytes(row.waiting_bytes) },
        { title: "Lost", kind: "number", text: (row) => count(lossesOf(row)) },
        { title: "Received/s", kind: "number", text: (row) => rate(row.delivered_rate) },
        { title: "Sent/s", kind: "number", text: (row) => rate(row.published_rate) },
        { title: "Listens", kind: "number", text: (row) => count(row.listens) },
        { title: "Age", kind: "number", text: (row) => span(row.age_ms) },
      ],
    });
    this.subjects = new SmallTable(byId("bus-subjects"), {
      label: "Busiest subjects", key: (row) => `${row.subject} ${row.service} ${row.network}`,
      empty: "No subjects are known.",
      columns: [
        { title: "Subject", text: (row) => this.nameOf(row) },
        { title: "Messages/s", kind: "number", text: (row) => rate(row.rate) },
        { title: "Bytes/s", kind: "number", text: (row) => bytes(row.byte_rate) },
        { title: "Messages", kind: "number", text: (row) => count(row.messages) },
        { title: "Listeners", kind: "number", text: (row) => count(row.listeners) },
        { title: "Senders", kind: "number", text: (row) => `${count(row.senders)}${row.more_senders ? "+" : ""}` },
      ],
    });
    this.hosts = new SmallTable(byId("bus-hosts"), {
      label: "Hosts", key: (row) => String(row.host),
      rowState: (row) => (row.up ? "" : "bad"),
      empty: "No bridge joins this host to others.",
      columns: [
        { title: "Host", text: (row) => String(row.host) },
        { title: "State", text: stateOfHost },
        { title: "Since", text: (row) => (row.since ? clock(Date.parse(row.since)) : "") },
        { title: "Round trip", kind: "number", text: (row) => (row.rtt_us == null ? "" : nanoseconds(row.rtt_us * 1000)) },
        { title: "In", kind: "number", text: (row) => trafficOf(row.in) },
        { title: "Out", kind: "number", text: (row) => trafficOf(row.out) },
        { title: "Lost", text: (row) => Object.entries(row.lost ?? {}).map(([cause, lost]) => `${count(lost)} ${cause}`).join(", ") },
      ],
    });
    new ResizeObserver(() => this.drawCharts()).observe(byId("bus-charts"));
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
      for (const chart of this.charts) chart.width = undefined;
      this.drawCharts();
    });
  }

  async fetchHistory() {
    const { interval_s, time, series } = await get("/api/history");
    this.most = Math.ceil(3600 / Math.max(1, interval_s));
    this.time = time;
    this.series = series;
    this.drawCharts();
  }

  addHistory({ time, values }) {
    if (time <= (this.time.at(-1) ?? 0)) return;
    this.time.push(time);
    for (const name of new Set([...Object.keys(values), ...Object.keys(this.series)])) {
      const column = (this.series[name] ??= this.time.slice(1).map(() => null));
      column.push(values[name] ?? null);
    }
    while (this.time.length > (this.most ?? 360)) {
      this.time.shift();
      for (const column of Object.values(this.series)) column.shift();
    }
    this.drawCharts();
  }

  drawCharts() {
    for (const chart of this.charts) chart.draw(this.time, this.series);
  }

  take(traffic) {
    const { figures, age_seconds, status = {}, sessions = [], subjects = [], hosts = [] } = traffic;
    const causes = { "not yet": "The daemon has not answered yet.", silent: "The daemon does not answer.",
      refuses: "The daemon tells this host nothing (its -status-for names who may ask).",
      lost: "The bus is gone: there are no figures." };
    setText(byId("bus-summary"), causes[figures] ?? `Daemon ${status.version ?? ""}, process ${status.pid ?? ""}, up ` +
      `${span(status.age_ms ?? 0)} since ${clock(status.started_ms ?? 0)}; figures of ${span((age_seconds ?? 0) * 1000)} ago.`);
    this.owners = new Map(sessions.map((session) => [`_INBOX.${session.name}.>`, whoIs(session)]));
    this.showFigures(status);
    this.showLosses(status, sessions);
    this.sessions.show(sessions);
    this.subjects.show(subjects);
    this.hosts.show(hosts);
    setText(byId("sessions-title"), titled("Sessions", sessions.length, traffic.more_sessions));
    setText(byId("subjects-title"), titled("Busiest subjects", subjects.length, traffic.more_subjects));
  }

  nameOf({ subject }) {
    return this.owners.has(subject) ? `answers to ${this.owners.get(subject)}` : String(subject);
  }

  showFigures({ rates, counters, memory, latency, connection_limit }) {
    const figures = rates && counters && memory ? [
      ["In", `${rate(rates.received)}/s`, `${bytes(rates.received_bytes)}/s, ${count(counters.messages_received)} in all`],
      ["Out", `${rate(rates.delivered)}/s`, `${bytes(rates.delivered_bytes)}/s, ${count(counters.messages_delivered)} in all`],
      ["Lost", `${rate(rates.dropped)}/s`, `${count(lossesOf(counters))} in all`, lossesOf(counters) > 0],
      ["Waiting", count(counters.messages_waiting), "messages in the daemon's queues"],
      ["Latency", latency?.copies ? nanoseconds(latency.p50_ns) : "-",
        latency?.copies ? `p99 ${nanoseconds(latency.p99_ns)}, max ${nanoseconds(latency.max_ns)}` : "nothing was handed over lately"],
      ["Sessions", count(counters.sessions_open), `${count(counters.listens_open)} listens, ${count(connection_limit)} connections possible`],
      ["Memory", bytes(memory.used), `of ${bytes(memory.limit)}`],
    ] : [];
    byId("bus-figures").replaceChildren(...figures.map(([name, value, more, isBad]) => element("div",
      { className: isBad ? "figure bad" : "figure" }, element("dt", {}, name), element("dd", { className: "big" }, value),
      element("dd", { className: "more" }, more))));
  }

  showLosses({ counters = {} }, sessions) {
    this.losses.show(Object.entries(kCauses).filter(([cause]) => Number(counters[cause] ?? 0) > 0)
      .map(([cause, meaning]) => {
        const own = sessions.filter((session) => Number(session[cause] ?? 0) > 0)
          .sort((a, b) => b[cause] - a[cause]);
        const named = own.slice(0, 3).map((session) => `${whoIs(session)}: ${count(session[cause])}`);
        if (own.length > 3) named.push(`${plural(own.length - 3, "more session")}`);
        return { cause, meaning, messages: counters[cause], culprits: named.join(", ") || "sessions that have ended" };
      }));
  }
}

const titled = (name, shown, more) => more > 0 ? `${name} (${count(shown)} of ${count(shown + more)})` : name;
