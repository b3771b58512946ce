// The fleet at a glance: counts by status, and the panels with filters and search, kept live
// by the station's stream of changes.
import { getJson, onChange, debounce } from "./api.js";
import { el, fill, dateTime, statusBadge, STATUSES } from "./format.js";

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

  // The tiles are made once and updated in place, so that a live change never takes the
  // keyboard focus away from the one an operator is on.
  const total = el("div", { class: "count total", "data-status": "all" });
  const tiles = new Map(STATUSES.map((s) => [s, el("button", {
    type: "button", class: "count status-" + s.replace(" ", "-"), "data-status": s,
    onclick: () => { statusSelect.value = state.status === s ? "" : s; filtersChanged(); },
  })]));
  counts.append(total, ...tiles.values());

  function drawCounts() {
    const byStatus = Object.fromEntries(STATUSES.map((s) => [s, 0]));
    let online = 0;
    for (const d of state.devices.values()) {
      byStatus[d.status] = (byStatus[d.status] || 0) + 1;
      if (d.online) online++;
    }
    total.replaceChildren(el("span", { class: "number" }, state.devices.size), el("span", {}, "panels"),
      el("span", { class: "sub" }, `${online} online`));
    for (const [s, tile] of tiles) {
      tile.replaceChildren(el("span", { class: "number" }, byStatus[s]), el("span", {}, s));
      tile.setAttribute("aria-pressed", state.status === s ? "true" : "false");
    }
  }

  function matches(d) {
    if (state.status && d.status !== state.status) return false;
    if (state.group && d.group !== state.group) return false;
    if (!state.search) return true;
    const name = (d.reported && d.reported.name) || "";
    return name.toLowerCase().includes(state.search) || String(d.address).includes(state.search);
  }

  // Rows are kept per panel and their cells rewritten, so that the focus stays on a link while
  // the list changes live; rows move only when the list's order or membership changes.
  const rowOf = new Map();
  function row(d) {
    let tr = rowOf.get(d.address);
    if (!tr) {
      tr = el("tr", { "data-address": d.address }, el("td", {}, el("a", { href: "#/panel/" + d.address })),
        el("td", {}, d.address), el("td", {}), el("td", {}), el("td", { class: "status" }), el("td", { class: "reason" }));
      rowOf.set(d.address, tr);
    }
    const [name, , group, presence, status, reason] = tr.children;
    name.firstChild.textContent = (d.reported && d.reported.name) || "panel " + d.address;
    group.textContent = d.group;
    presence.replaceChildren(...(d.online
      ? [el("span", { class: "online" }, "online"), d.onlineSince ? " since " + dateTime(d.onlineSince) : ""]
      : [el("span", { class: "offline" }, "offline"), " · last seen " + dateTime(d.lastSeen)]));
    status.replaceChildren(statusBadge(d.status));
    reason.textContent = d.error || d.difference || "";
    return tr;
  }

  function drawRows() {
    const shown = [...state.devices.values()].filter(matches).sort((a, b) => a.address - b.address)
      .slice(0, SHOWN_AT_MOST).map(row);
    const same = shown.length === rows.children.length && shown.every((tr, i) => rows.children[i] === tr);
    if (!same) rows.replaceChildren(...shown);
    const matching = [...state.devices.values()].filter(matches).length;
    footer.textContent = matching > SHOWN_AT_MOST
      ? `${matching} panels match; the first ${SHOWN_AT_MOST} are shown. Narrow the search to see others.`
      : `${matching} of ${state.devices.size} panels shown.`;
  }

  function drawGroups(groups) {
    const known = new Set([...state.devices.values()].map((d) => d.group).concat(groups));
    const chosen = groupSelect.value;
    fill(groupSelect, el("option", { value: "" }, "all groups"),
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
