// The page: its tabs, the state of the bus, the login, and the events that all views share.

import { Stream, get, post } from "./api.js";
import { AskView } from "./ask.js";
import { BusView } from "./bus.js";
import { byId, clock, setText, span } from "./dom.js";
import { ServicesView } from "./services.js";
import { WatchView } from "./watch.js";

const kViews = ["services", "ask", "watch", "bus"];
const kBackMs = 30_000; // for which the page says that the bus is back
const kPatientMs = 1500; // before a broken connection is worth a word

const tabs = kViews.map((name) => byId(`tab-${name}`));

function show(name, focus = false) {
  for (const view of kViews) {
    const chosen = view === name;
    byId(view).hidden = !chosen;
    byId(`tab-${view}`).setAttribute("aria-selected", String(chosen));
    byId(`tab-${view}`).tabIndex = chosen ? 0 : -1;
  }
  document.title = `${byId(`tab-${name}`).textContent} - bus console`;
  if (focus) byId(`tab-${name}`).focus();
}

function viewOfAddress() {
  const name = location.hash.slice(1);
  return kViews.includes(name) ? name : kViews[0];
}

function setUpTabs() {
  for (const [index, tab] of tabs.entries()) {
    tab.addEventListener("click", () => (location.hash = kViews[index]));
    tab.addEventListener("keydown", (event) => {
      const to = { ArrowRight: index + 1, ArrowLeft: index - 1, Home: 0, End: tabs.length - 1 }[event.key];
      if (to === undefined) return;
      event.preventDefault();
      const name = kViews[(to + tabs.length) % tabs.length];
      location.hash = name;
      show(name, true);
    });
  }
  window.addEventListener("hashchange", () => {
    show(viewOfAddress());
    scrollTo(0, 0); // the browser has scrolled to the element of that name, beyond the tabs
  });
  document.querySelector(".skip").addEventListener("click", (event) => {
    event.preventDefault();
    document.querySelector("main > :not([hidden])").focus();
  });
  show(viewOfAddress());
}

// What the page knows of the way from here to the bus, and how it says it.
class Link {
  constructor() {
    this.agent = "waiting"; // waiting, there, lost
    this.bus = undefined;
    setInterval(() => this.draw(), 1000);
  }

  setAgent(state) {
    if (state === this.agent) return;
    if (state === "lost") this.agentLost = Date.now();
    if (state === "there" && this.agent === "lost") this.back = { what: "agent", at: Date.now(), away: Date.now() - this.agentLost };
    this.agent = state;
    this.draw();
  }

  setBus(bus) {
    const now = Date.now();
    if (bus.connected && this.bus?.connected === false) {
      this.back = { what: "bus", at: now, away: bus.since_ms - this.bus.since_ms };
    }
    this.bus = bus;
    this.draw();
  }

  draw() {
    const [state, text] = this.short();
    byId("link").dataset.state = state;
    setText(byId("link-text"), text);
    const [kind, words] = this.long();
    byId("banner").dataset.kind = kind;
    setText(byId("banner"), words);
  }

  short() {
    if (this.agent === "lost") return ["gone", "agent away"];
    if (this.agent === "waiting" || !this.bus) return ["waiting", "connecting"];
    return this.bus.connected ? ["there", `bus ${this.bus.daemon}`] : ["gone", "bus gone"];
  }

  long() {
    const now = Date.now();
    if (this.agent === "lost" && now - this.agentLost > kPatientMs) {
      return ["gone", `The agent does not answer since ${clock(this.agentLost)}. What you see is what was last known; the page tries again by itself.`];
    }
    if (this.agent === "there" && this.bus?.connected === false) {
      return ["gone", `The bus is gone since ${clock(this.bus.since_ms)}${this.bus.why ? `: ${this.bus.why}` : ""}. What you see is what was last known.`];
    }
    if (this.agent === "there" && this.back && now - this.back.at < kBackMs && this.back.away > kPatientMs / 2) {
      return ["back", `The ${this.back.what} is back since ${clock(this.back.at)}; it was away for ${span(this.back.away)}.`];
    }
    return ["", ""];
  }
}

class Page {
  constructor() {
    this.link = new Link();
    this.services = new ServicesView();
    this.ask = new AskView();
    this.watch = new WatchView();
    this.bus = new BusView();
  }

  open() {
    this.events = new Stream("/api/events", {
      $open: () => {
        this.link.setAgent("there");
        this.bus.fetchHistory().catch(() => {});
      },
      $lost: () => {
        // While the bus is away the agent opens no stream.
        if (this.link.bus?.connected !== false) this.link.setAgent("lost");
        this.check();
      },
      bus: (bus) => this.setBus(bus),
      services: (change) => this.takeServices(change),
      traffic: (traffic) => this.bus.take(traffic),
      history: (entry) => this.bus.addHistory(entry),
    });
  }

  close() {
    this.events?.close();
    if (this.watch.stream) this.watch.stop();
    this.events = undefined;
  }

  // Shows the form when the agent wants a token that this browser does not have; else opens the streams.
  async start() {
    let login = { needed: false, in: true };
    try {
      login = await get("/api/login");
    } catch { /* the streams will say what is wrong */ }
    this.setIn(!login.needed || login.in);
    byId("logout").hidden = !login.needed || !login.in;
    if (!login.needed || login.in) this.open();
    else byId("token").focus();
  }

  // Why there are no events: no agent, no token any more, or no bus.
  async check() {
    try {
      const login = await get("/api/login");
      if (!this.events) return;
      if (login.needed && !login.in) {
        this.close();
        this.start();
        return;
      }
      const [bus, { services }] = await Promise.all([get("/api/bus"), get("/api/services")]);
      if (bus.connected || !this.events) return;
      this.link.setAgent("there");
      this.setBus(bus);
      this.bus.take(bus);
      this.takeServices({ whole: true, services });
    } catch {
      this.link.setAgent("lost");
    }
  }

  setBus(bus) {
    this.link.setBus(bus);
    this.services.setConnected(bus.connected);
  }

  takeServices(change) {
    this.services.take(change);
    const names = new Set([...this.services.rows.values()].map(({ service }) => service));
    this.ask.setServices([...names].sort());
  }

  setIn(isIn) {
    byId("login").hidden = isIn;
    document.querySelector(".tabs").hidden = !isIn;
    if (isIn) show(viewOfAddress());
    else for (const name of kViews) byId(name).hidden = true;
  }
}

setUpTabs();
const page = new Page();
byId("login").addEventListener("submit", async (event) => {
  event.preventDefault();
  try {
    await post("/api/login", { token: byId("token").value });
    byId("token").value = "";
    setText(byId("login-error"), "");
    page.start();
  } catch (error) {
    setText(byId("login-error"), error.message);
  }
});
byId("logout").addEventListener("click", async () => {
  await post("/api/logout", {}).catch(() => {});
  page.close();
  page.start();
});
page.start();
