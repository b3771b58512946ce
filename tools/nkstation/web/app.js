// The dashboard: one page at a time, chosen by the address's fragment (#/fleet, #/panel/ADDRESS,
// #/desired), each page a module that draws into <main> and returns its clean-up.
import { getJson } from "./api.js";
import { showFleet } from "./fleet.js";
import { showPanel } from "./panel.js";
import { showDesired } from "./desired.js";
import { message } from "./format.js";

let leave = null;

async function route() {
  const main = document.getElementById("main");
  if (leave) leave();
  leave = null;
  main.replaceChildren();
  const hash = location.hash || "#/fleet";
  const panel = hash.match(/^#\/panel\/(\d+)$/);
  for (const link of document.querySelectorAll("header nav a"))
    link.toggleAttribute("aria-current", hash.startsWith(link.getAttribute("href")));
  try {
    if (panel) leave = await showPanel(main, Number(panel[1]));
    else if (hash.startsWith("#/desired")) leave = await showDesired(main, new URLSearchParams(hash.split("?")[1]));
    else leave = await showFleet(main);
  } catch (e) {
    main.append(message("error", "This page could not be loaded: " + e.message));
  }
}

// The header tells whether the station still reaches its broker, and how many of the panels it
// dials are connected.
async function showConnection() {
  const box = document.getElementById("connection");
  try {
    const summary = await getJson("/api/summary");
    const parts = [];
    if (summary.broker) parts.push(summary.broker.connected ? "broker connected" : "broker not connected");
    if (summary.dialOut.panels > 0) parts.push(`${summary.dialOut.connected} of ${summary.dialOut.panels} dialled panels connected`);
    box.textContent = parts.join(" · ") || "no broker, no dialled panels";
    box.className = "connection " + (!summary.broker || summary.broker.connected ? "up" : "down");
  } catch {
    box.textContent = "station not reachable";
    box.className = "connection down";
  }
}

window.addEventListener("hashchange", route);
route();
showConnection();
setInterval(showConnection, 10000);
