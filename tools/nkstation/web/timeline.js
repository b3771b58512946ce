// When a schedule set shows which image: each schedule runs from its start; one of type 0, 2
// or 4 ends one pass of its entries later (looping or not), one of type 6 at its stop time, and
// any other type counts as expired. Entries follow each other in play order; a looping
// schedule starts over after its last entry until it ends.
import { el } from "./format.js";

const DAY = 86400e3;

// Seconds since 1970, or the text forms nkctl reads ("2024-03-01 08:30:00", with "T", "Z" or
// an offset); text without a zone is UTC. Gives milliseconds, or NaN.
export function timeOf(value) {
  if (typeof value === "number") return value * 1000;
  if (typeof value !== "string") return NaN;
  if (/^\d+$/.test(value)) return Number(value) * 1000;
  let text = value.trim().replace(" ", "T");
  if (!/(Z|[+-]\d\d:?\d\d)$/.test(text)) text += "Z";
  return Date.parse(text);
}

export function scheduleSpan(schedule) {
  const start = timeOf(schedule.startTime);
  const type = (schedule.flags || 0) & 0x0e;
  const entries = schedule.entries || [];
  const pass = entries.reduce((sum, e) => sum + (e.duration || 0), 0) * 1000;
  let end;
  if (type === 0 || type === 2 || type === 4) end = start + pass;
  else if (type === 6) end = timeOf(schedule.stopTime);
  else end = -Infinity;
  return { start, end, pass, type, loops: ((schedule.flags || 0) & 1) === 1, entries };
}

// The entries shown between from and to (milliseconds), as {start, end, entry}; at most limit.
export function entriesBetween(schedule, from, to, limit = 400) {
  const span = scheduleSpan(schedule);
  const out = [];
  if (!(span.end > span.start) || span.pass <= 0) return out;
  const first = Math.max(from, span.start);
  const last = Math.min(to, span.end);
  if (first >= last) return out;
  let t = span.start;
  if (span.loops && first > span.start) t += Math.floor((first - span.start) / span.pass) * span.pass;
  while (t < last && out.length < limit) {
    for (const entry of span.entries) {
      const end = t + (entry.duration || 0) * 1000;
      if (end > first && t < last) out.push({ start: Math.max(t, first), end: Math.min(end, last), entry });
      t = end;
      if (t >= last) break;
    }
    if (!span.loops) break;
  }
  return out;
}

function describeEnd(span) {
  if (span.end === -Infinity) return "expired (its type has no running time)";
  return "until " + new Date(span.end).toLocaleString() + (span.end < Date.now() ? " (expired)" : "");
}

// One row of bars from `from` to `from + length`: the schedule's entries, each titled with its image.
function bar(schedule, from, length, label) {
  const track = el("div", { class: "track", role: "img", "aria-label": label });
  for (const part of entriesBetween(schedule, from, from + length)) {
    const left = ((part.start - from) / length) * 100;
    const width = Math.max(((part.end - part.start) / length) * 100, 0.3);
    const block = el("span", { class: "slot image-" + (Number(part.entry.imageUid) % 6),
      title: `${part.entry.name}: image ${part.entry.imageUid}, ${part.entry.duration} s` });
    block.style.left = left + "%";
    block.style.width = width + "%";
    track.append(block);
  }
  return track;
}

function slotBar(slots, label) {
  const track = el("div", { class: "track", role: "img", "aria-label": label });
  for (const slot of slots) {
    const block = el("span", { class: "slot timeslot", title: `${slot.name}: ${clock(slot.start)}–${clock(slot.stop)}` });
    block.style.left = (slot.start / 864) + "%";
    block.style.width = Math.max((Math.min(slot.stop, 86400) - slot.start) / 864, 0.3) + "%";
    track.append(block);
  }
  return track;
}

function clock(seconds) {
  const h = String(Math.floor(seconds / 3600)).padStart(2, "0");
  const m = String(Math.floor((seconds % 3600) / 60)).padStart(2, "0");
  return `${h}:${m}`;
}

// Today and the coming week for a schedule set and the configuration's time slots.
export function drawTimeline(schedules, config, now = Date.now()) {
  const list = (schedules && schedules.schedules) || [];
  const box = el("div", { class: "timeline" });
  const dayStart = new Date(now);
  dayStart.setHours(0, 0, 0, 0);
  const today = dayStart.getTime();

  if (config) {
    box.append(el("p", {}, `Slideshow: each image for ${config.slideshowInterval_sec ?? 5} s outside schedules.`));
    const slots = config.timeslots || [];
    if (slots.length)
      box.append(el("div", { class: "row" }, el("span", { class: "row-label" }, "time slots"),
        slotBar(slots, "time slots: " + slots.map((s) => `${s.name} ${clock(s.start)}–${clock(s.stop)}`).join(", "))));
  }
  if (!list.length) {
    box.append(el("p", { class: "note" }, "No schedule set is desired for this panel."));
    return box;
  }
  box.append(el("h3", {}, "Today"),
    el("div", { class: "hours", "aria-hidden": "true" }, ["00", "06", "12", "18", "24"].map((h) => el("span", {}, h))));
  for (const s of list) {
    const label = `${s.name} today`;
    box.append(el("div", { class: "row" }, el("span", { class: "row-label" }, s.name), bar(s, today, DAY, label)));
  }
  box.append(el("h3", {}, "This week"));
  for (let d = 0; d < 7; d++) {
    const from = today + d * DAY;
    const dayName = new Date(from).toLocaleDateString(undefined, { weekday: "short", day: "numeric", month: "short" });
    const row = el("div", { class: "row week" }, el("span", { class: "row-label" }, dayName));
    const stack = el("div", { class: "stack" });
    for (const s of list) stack.append(bar(s, from, DAY, `${s.name} on ${dayName}`));
    row.append(stack);
    box.append(row);
  }
  // The same in words, for screen readers and for entries too short to see as bars.
  box.append(el("h3", {}, "Schedules"), el("ul", { class: "schedules" }, list.map((s) => {
    const span = scheduleSpan(s);
    return el("li", {},
      el("strong", {}, s.name), ` (id ${s.uid}, type ${span.type}, logical display ${s.frame ?? "?"}${span.loops ? ", loops" : ""}): from `,
      Number.isNaN(span.start) ? "an unreadable time" : new Date(span.start).toLocaleString(), " ", describeEnd(span), ". ",
      (s.entries || []).map((e) => `${e.name} shows image ${e.imageUid} for ${e.duration} s`).join("; "), ".");
  })));
  return box;
}

export function wantedImages(schedules) {
  const ids = new Set();
  for (const s of (schedules && schedules.schedules) || [])
    for (const e of s.entries || []) ids.add(String(e.imageUid));
  return [...ids];
}
