// The fleet at a glance: counts by status, and the panels with filters and search, kept live
// by the station's stream of changes.
import { getJson, onChange, debounce } from "./api.js";
import { el, dateTime, statusBadge, STATUSES } from "./format.js";

const SHOWN_AT_MOST = 500;

export async function showFleet(main) {
  const state = { devices: new Map(), status: "", group: "", search: "" };

  const counts = el("section", { class: "counts", "aria-label": "Panels by status" });
  const groupSelect = el("select", { id: "filter-group" }, el("option", { value: "" }, "all groups"));
  const statusSelect = el("select", { id: "filter-status" }, el("option", { value: "" }, "all statuses"),
    STATUSES.map((s) => el("option", { value: s }, s)));
  const search = el("input", { id: "filter-search", type: "search", placeholder: "name or address", autocomplete: "off" });
  const rows = el("tbody");
  const footer = el("p", { class: "note", role: "status" });

  main.append(
    el("h1", {}, "Fleet"),
    counts,
    el("form", { class: "filters", role: "search", onsubmit: (e) => e.preventDefault() },
      el("label", { for: "filter-group" }, "Group"), groupSelect,
      el("label", { for: "filter-status" }, "Status"), statusSelect,
      el("label", { for: "filter-search" }, "Search"), search),
    el("div", { class: "table-wrap" },
      el("table", { id: "devices" },
        el("caption", { class: "visually-hidden" }, "Panels"),
        el("thead", {}, el("tr", {}, ["Panel", "Address", "Group", "Online since / last seen", "Status", "Reason"].map(
          (h) => el("th", { scope: "col" }, h)))),
        rows)),
    footer);

  function drawCounts() {
    const byStatus = Object.fromEntries(STATUSES.map((s) => [s, 0]));
    let online = 0;
    for (const d of state.devices.values()) {
      byStatus[d.status] = (byStatus[d.status] || 0) + 1;
      if (d.online) online++;
    }
    counts.replaceChildren(
      el("div", { class: "count total", "data-status": "all" },
        el("span", { class: "number" }, state.devices.size), el("span", {}, "panels"),
        el("span", { class: "sub" }, `${online} online`)),
      ...STATUSES.map((s) => el("button", {
        type: "button", class: "count status-" + s.replace(" ", "-"), "data-status": s,
        "aria-pressed": state.status === s ? "true" : "false",
        onclick: () => { statusSelect.value = state.status === s ? "" : s; filtersChanged(); },
      }, el("span", { class: "number" }, byStatus[s]), el("span", {}, s))));
  }

  function matches(d) {
    if (state.status && d.status !== state.status) return false;
    if (state.group && d.group !== state.group) return false;
    if (!state.search) return true;
    const name = (d.reported && d.reported.name) || "";
    return name.toLowerCase().includes(state.search) || String(d.address).includes(state.search);
  }

  function row(d) {
    const name = (d.reported && d.reported.name) || "panel " + d.address;
    return el("tr", { "data-address": d.address },
      el("td", {}, el("a", { href: "#/panel/" + d.address }, name)),
      el("td", {}, d.address),
      el("td", {}, d.group),
      el("td", {}, d.online
        ? [el("span", { class: "online" }, "online"), d.onlineSince ? " since " + dateTime(d.onlineSince) : ""]
        : [el("span", { class: "offline" }, "offline"), " · last seen " + dateTime(d.lastSeen)]),
      el("td", { class: "status" }, statusBadge(d.status)),
      el("td", { class: "reason" }, d.error || d.difference || ""));
  }

  function drawRows() {
    const shown = [...state.devices.values()].filter(matches).sort((a, b) => a.address - b.address);
    rows.replaceChildren(...shown.slice(0, SHOWN_AT_MOST).map(row));
    footer.textContent = shown.length > SHOWN_AT_MOST
      ? `${shown.length} panels match; the first ${SHOWN_AT_MOST} are shown. Narrow the search to see others.`
      : `${shown.length} of ${state.devices.size} panels shown.`;
  }

  function drawGroups(groups) {
    const known = new Set([...state.devices.values()].map((d) => d.group).concat(groups));
    const chosen = groupSelect.value;
    groupSelect.replaceChildren(el("option", { value: "" }, "all groups"),
      [...known].sort().map((g) => el("option", { value: g }, g)));
    groupSelect.value = chosen;
  }

  function filtersChanged() {
    state.status = statusSelect.value;
    state.group = groupSelect.value;
    state.search = search.value.trim().toLowerCase();
    drawCounts();
    drawRows();
  }

  async function load() {
    const [devices, groups] = await Promise.all([getJson("/api/devices"), getJson("/api/groups")]);
    state.devices = new Map(devices.map((d) => [d.address, d]));
    drawGroups(groups);
    filtersChanged();
  }

  // A change names the device and its new status at once; the rest (reported state, last
  // seen) follows from a reload of the list, at most once a second.
  const reload = debounce(() => load().catch(() => {}), 1000);
  const stop = onChange((change) => {
    if (change.kind === "device") {
      const known = state.devices.get(change.address);
      if (known) Object.assign(known, { status: change.status, online: change.online, error: change.error });
      drawCounts();
      drawRows();
      reload();
    } else if (change.kind === "reload") {
      reload();
    }
  });

  for (const control of [groupSelect, statusSelect]) control.addEventListener("change", filtersChanged);
  search.addEventListener("input", filtersChanged);
  await load();
  return stop;
}
