// One panel: its reported state beside the desired one, its events, its schedule set as a
// timeline, its statistics as charts, and the frames of its configuration.
import { getJson, onChange, debounce } from "./api.js";
import { el, fill, dateTime, statusBadge, categoryBadge, categoryOf } from "./format.js";
import { drawTimeline, wantedImages } from "./timeline.js";
import { drawCharts } from "./charts.js";

const EVENTS_PER_PAGE = 20;

export async function showPanel(main, address) {
  const heading = el("h1", {}, "Panel " + address);
  const stateBox = el("section", { "aria-labelledby": "state-heading" });
  const timelineBox = el("section", { "aria-labelledby": "timeline-heading" });
  const chartsBox = el("section", { "aria-labelledby": "charts-heading" });
  const framesBox = el("section", { "aria-labelledby": "frames-heading" });
  const eventsBox = el("section", { "aria-labelledby": "events-heading" });
  main.append(el("p", {}, el("a", { href: "#/fleet" }, "← Fleet")), heading, stateBox, eventsBox, timelineBox,
    chartsBox, framesBox);

  async function desiredForms(device) {
    const [own, group] = await Promise.all([getJson(`/api/devices/${address}/desired`),
      getJson(`/api/groups/${encodeURIComponent(device.group)}/desired`)]);
    const pick = (key) => (own[key] !== null ? own[key] : group[key]);
    return { config: pick("config"), schedules: pick("schedules"), name: pick("name"), own };
  }

  async function drawState() {
    const device = await getJson(`/api/devices/${address}`);
    const desired = await desiredForms(device);
    const reported = device.reported || {};
    heading.textContent = (reported.name || "Panel") + " · address " + address;
    const held = (reported.images || []).map((i) => i.idText);
    const imageSet = device.desired.images || null;
    const wanted = imageSet ? imageSet.map((i) => i.uidText) : [];
    const shownBySchedules = wantedImages(desired.schedules);
    const cell = (value) => el("td", {}, value === undefined || value === null || value === "" ? "—" : value);
    const row = (what, have, want) => el("tr", { class: have !== undefined && want !== undefined && want !== "—" &&
        String(have) !== String(want) ? "differs" : "" }, el("th", { scope: "row" }, what), cell(have), cell(want));
    fill(stateBox,
      el("h2", { id: "state-heading" }, "Reported and desired"),
      el("p", {}, statusBadge(device.status), " ", device.online ? "online" + (device.onlineSince ? " since " + dateTime(device.onlineSince) : "") : "offline",
        " · last seen ", dateTime(device.lastSeen), " · group ",
        el("a", { href: `#/desired?group=${encodeURIComponent(device.group)}` }, device.group),
        " · ", el("a", { href: `#/desired?panel=${address}` }, "change this panel's desired state")),
      device.error ? el("p", { class: "message error", id: "panel-error" }, device.error) : null,
      device.difference ? el("p", { class: "note" }, "Still differs in: " + device.difference) : null,
      el("div", { class: "table-wrap" }, el("table", { id: "state" },
        el("thead", {}, el("tr", {}, el("th", { scope: "col" }, ""), el("th", { scope: "col" }, "reported"),
          el("th", { scope: "col" }, "desired"))),
        el("tbody", {},
          row("name", reported.name, device.desired.name ?? "—"),
          row("configuration checksum", reported.csCfg, device.desired.csCfg ?? "—"),
          row("schedules checksum", reported.csSched, device.desired.csSched ?? "—"),
          row("images", held.join(", ") || "none", imageSet ? wanted.join(", ") || "none" : "—"),
          row("images the schedules show", undefined, shownBySchedules.join(", ") || "—"),
          row("serial", reported.serial, "—"),
          row("software version", reported.version, "—"),
          row("mobile link", reported.mobile ? `${reported.mobile.link} (${reported.mobile.active ? "up" : "down"})` : undefined, "—"),
          row("transport", device.endpoint ? `${device.transport} to ${device.endpoint}` : device.transport, "—")))),
      await drawThumbnails(reported.images || [], imageSet || []));
    timelineBox.replaceChildren(el("h2", { id: "timeline-heading" }, "Schedule timeline"),
      drawTimeline(desired.schedules, desired.config));
    framesBox.replaceChildren(el("h2", { id: "frames-heading" }, "Display configurations and frames"),
      drawDisplays(device.displays), drawFrames(desired.config));
  }

  // Events: the collected ones, newest first, filtered by category and paged.
  let events = [];
  let page = 0;
  const categoryFilter = el("select", { id: "event-category" }, el("option", { value: "" }, "all categories"));
  const eventRows = el("tbody");
  const pageInfo = el("span", { id: "event-page", role: "status" });
  const previous = el("button", { type: "button", id: "event-previous", onclick: () => { page--; drawEvents(); } }, "Newer");
  const next = el("button", { type: "button", id: "event-next", onclick: () => { page++; drawEvents(); } }, "Older");
  eventsBox.append(el("h2", { id: "events-heading" }, "Events"),
    el("div", { class: "filters" }, el("label", { for: "event-category" }, "Category"), categoryFilter),
    el("div", { class: "table-wrap" }, el("table", { id: "events" },
      el("thead", {}, el("tr", {}, ["Time", "Category", "Type", "Text"].map((h) => el("th", { scope: "col" }, h)))),
      eventRows)),
    el("div", { class: "pager" }, previous, pageInfo, next));
  categoryFilter.addEventListener("change", () => { page = 0; drawEvents(); });

  function drawEvents() {
    const chosen = categoryFilter.value;
    const shown = events.filter((e) => chosen === "" || String(e.category) === chosen);
    const pages = Math.max(1, Math.ceil(shown.length / EVENTS_PER_PAGE));
    page = Math.min(Math.max(page, 0), pages - 1);
    eventRows.replaceChildren(...shown.slice(page * EVENTS_PER_PAGE, (page + 1) * EVENTS_PER_PAGE).map((e) =>
      el("tr", { class: "event" }, el("td", {}, dateTime(e.time * 1000)), el("td", {}, categoryBadge(e.category)),
        el("td", {}, e.type), el("td", {}, e.text))));
    pageInfo.textContent = `page ${page + 1} of ${pages} (${shown.length} events)`;
    previous.disabled = page === 0;
    next.disabled = page >= pages - 1;
  }

  async function loadEvents() {
    const all = [];
    let since = 0;
    for (;;) {
      const batch = await getJson(`/api/events?address=${address}&since=${since}&limit=5000`);
      all.push(...batch);
      if (batch.length < 5000) break;
      since = batch[batch.length - 1].seq;
    }
    events = all.reverse();
    const categories = [...new Set(events.map((e) => e.category))].sort((a, b) => a - b);
    const chosen = categoryFilter.value;
    fill(categoryFilter, el("option", { value: "" }, "all categories"),
      categories.map((c) => el("option", { value: String(c) }, `${categoryOf(c).label} (${c})`)));
    categoryFilter.value = chosen;
    drawEvents();
  }

  async function loadStatistics() {
    const samples = await getJson(`/api/statistics?address=${address}&limit=100000`);
    await drawCharts(chartsBox, samples);
  }

  await drawState();
  await loadEvents();
  loadStatistics().catch((e) => chartsBox.replaceChildren(el("h2", { id: "charts-heading" }, "Statistics"),
    el("p", { class: "message error" }, "Charts unavailable: " + e.message)));

  const redrawState = debounce(() => drawState().catch(() => {}), 500);
  const reloadEvents = debounce(() => { loadEvents().catch(() => {}); loadStatistics().catch(() => {}); }, 2000);
  return onChange((change) => {
    if (change.kind === "reload") { redrawState(); reloadEvents(); }
    if (change.address !== address) return;
    if (change.kind === "device") redrawState();
    if (change.kind === "events") reloadEvents();
  });
}

// The images held and wanted by uid, with a thumbnail of the content the station keeps for it
// (pictures only; other types are named).
async function drawThumbnails(held, wanted) {
  const byUid = new Map();
  for (const i of held) byUid.set(i.idText, { uid: i.idText, held: true, content: i.image });
  for (const i of wanted) {
    const known = byUid.get(i.uidText) || { uid: i.uidText, held: false };
    byUid.set(i.uidText, Object.assign(known, { wanted: true, content: i.image }));
  }
  if (!byUid.size) return null;
  const types = new Map((await getJson("/api/images")).map((i) => [i.id, i]));
  return el("div", {}, el("h3", {}, "Images"), el("ul", { class: "thumbnails", id: "thumbnails" }, [...byUid.values()].map((i) => {
    const record = i.content && types.get(i.content);
    const picture = record && record.type.startsWith("image/")
      ? el("img", { src: "/api/images/" + i.content, alt: `image ${i.uid}: ${record.name || record.type}`, width: 120, height: 68 })
      : el("span", { class: "no-thumbnail" }, record ? record.type : "not pushed from here");
    return el("li", { "data-uid": i.uid }, picture,
      el("span", {}, `${i.uid}: ${i.held ? "held" : "not held"}${i.wanted ? ", wanted" : ""}`));
  })));
}

// Ids travel as a 16-bit word whose bit 15 marks the current configuration or logical display.
const idOf = (word) => (word || 0) & 0x7fff;
const current = (word) => ((word || 0) & 0x8000) !== 0;

function drawDisplays(displays) {
  if (!displays) return el("p", { class: "note" }, "The panel has not reported its display configurations yet.");
  const rows = [];
  for (const c of displays.dispConfigs || [])
    for (const d of c.logDisps || [])
      rows.push(el("tr", { class: current(c.id) ? "current" : "" },
        el("td", {}, `${c.name} (${idOf(c.id)})${current(c.id) ? ", current" : ""}`),
        el("td", {}, `${d.name} (${idOf(d.id)})${current(d.id) ? ", current" : ""}`),
        el("td", {}, `${d.w} × ${d.h}`), el("td", {}, `${d.l}, ${d.t}`)));
  return el("div", {},
    el("p", {}, `Display "${displays.name}", rotation ${displays.rot}°.`),
    el("div", { class: "table-wrap" }, el("table", { id: "displays" },
      el("thead", {}, el("tr", {}, ["Display configuration", "Logical display", "Size", "Left, top"].map(
        (h) => el("th", { scope: "col" }, h)))),
      el("tbody", {}, rows))));
}

function drawFrames(config) {
  if (!config) return el("p", { class: "note" }, "No configuration is desired for this panel.");
  const frames = config.frames || [];
  return el("div", {}, el("h3", {}, "Frames of the desired configuration"),
    el("p", {}, `Default logical display ${config.defaultLogicalDisplay ?? "—"}, display software configuration ${config.curDispSwCfg ?? "—"}.`),
    frames.length ? el("div", { class: "table-wrap" }, el("table", { id: "frames" },
      el("thead", {}, el("tr", {}, ["Frame", "Id", "Logical display", "Left", "Top", "Width", "Height"].map(
        (h) => el("th", { scope: "col" }, h)))),
      el("tbody", {}, frames.map((f) => el("tr", {}, el("td", {}, f.name), el("td", {}, f.id), el("td", {}, f.logDisp),
        el("td", {}, f.left), el("td", {}, f.top), el("td", {}, f.width), el("td", {}, f.height))))))
      : el("p", { class: "note" }, "The configuration has no frames."));
}
