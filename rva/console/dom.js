// Small helpers of all views. Text comes into the page by textContent only.

export const byId = (id) => document.getElementById(id);

// An element with properties and children: element("td", { className: "number" }, "12").
export function element(name, properties = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(properties)) {
    if (key in made) made[key] = value;
    else made.setAttribute(key, value);
  }
  made.append(...children.filter((child) => child !== undefined && child !== null));
  return made;
}

// Sets a text only when it is another one, so that screen readers and selections are left alone.
export function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

const grouped = new Intl.NumberFormat("en-GB");
export const count = (number) => (number === undefined || number === null ? "" : grouped.format(number));
export const plural = (number, one, many = `${one}s`) => `${count(number)} ${number === 1 ? one : many}`;

function scaled(number, base, units) {
  let unit = 0;
  while (Math.abs(number) >= base && unit + 1 < units.length) {
    number /= base;
    ++unit;
  }
  const digits = unit === 0 && Number.isInteger(number) ? 0 : number >= 99.5 ? 0 : number >= 9.95 ? 1 : 2;
  return { text: number.toFixed(digits), unit: units[unit] };
}

export function bytes(number) {
  if (number === undefined || number === null) return "";
  const { text, unit } = scaled(Number(number), 1024, ["B", "KiB", "MiB", "GiB", "TiB"]);
  return `${text} ${unit}`;
}

export function rate(number) {
  if (number === undefined || number === null) return "";
  if (number === 0) return "0";
  const { text, unit } = scaled(Number(number), 1000, ["", "k", "M", "G"]);
  return unit ? `${text} ${unit}` : text;
}

export function nanoseconds(number) {
  if (number === undefined || number === null) return "";
  const { text, unit } = scaled(Number(number), 1000, ["ns", "µs", "ms", "s"]);
  return `${text} ${unit}`;
}

// How long something lasts: two units at most.
export function span(milliseconds) {
  const seconds = Math.max(0, Math.floor(milliseconds / 1000));
  if (seconds < 60) return `${seconds} s`;
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min ${seconds % 60} s`;
  if (seconds < 86400) return `${Math.floor(seconds / 3600)} h ${Math.floor(seconds / 60) % 60} min`;
  return `${Math.floor(seconds / 86400)} d ${Math.floor(seconds / 3600) % 24} h`;
}

const two = (number) => String(number).padStart(2, "0");

// The time of day here, with the date when it is another day.
export function clock(time, withMilliseconds = false) {
  const at = new Date(time);
  let text = `${two(at.getHours())}:${two(at.getMinutes())}:${two(at.getSeconds())}`;
  if (withMilliseconds) text += `.${String(at.getMilliseconds()).padStart(3, "0")}`;
  if (at.toDateString() === new Date().toDateString()) return text;
  return `${at.getFullYear()}-${two(at.getMonth() + 1)}-${two(at.getDate())} ${text}`;
}

// Calls `work` at the end of a pause of `milliseconds`, or every so often, however often it is asked for.
export function throttled(milliseconds, work) {
  let timer;
  return () => {
    timer ??= setTimeout(() => {
      timer = undefined;
      work();
    }, milliseconds);
  };
}
