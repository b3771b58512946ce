// Small shared pieces of presentation: elements, dates, status and event-category labels.

export const STATUSES = ["in sync", "pending", "pushing", "failed", "offline"];

// Builds an element: el("td", {class: "x"}, "text", child, ...).
export function el(tag, attributes = {}, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(attributes)) {
    if (value === undefined || value === null || value === false) continue;
    if (key.startsWith("on")) node.addEventListener(key.slice(2), value);
    else node.setAttribute(key, value === true ? "" : value);
  }
  for (const child of children.flat()) {
    if (child === undefined || child === null) continue;
    node.append(child instanceof Node ? child : String(child));
  }
  return node;
}

export function dateTime(ms) {
  if (!ms) return "never";
  const d = new Date(ms);
  return d.toLocaleString(undefined, { dateStyle: "medium", timeStyle: "medium" });
}

// A status as a badge: its name is always written out, the colour only repeats it.
export function statusBadge(status) {
  return el("span", { class: "badge status-" + status.replace(" ", "-") }, status);
}

// Event categories: 0 and 1 have colours of their own (#FF6600 and #FFFF66), the others none.
// The label is always written beside the colour.
const CATEGORIES = {
  0: { label: "error", colour: "#FF6600" },
  1: { label: "notice", colour: "#FFFF66" },
};

export function categoryOf(category) {
  return CATEGORIES[category] || { label: category === 2 ? "info" : "category " + category, colour: "" };
}

export function categoryBadge(category) {
  const { label, colour } = categoryOf(category);
  const badge = el("span", { class: "badge category" }, `${label} (${category})`);
  if (colour) badge.style.background = colour;
  return badge;
}

// Replaces a node's children, leaving out the absent ones (null or undefined).
export function fill(node, ...children) {
  node.replaceChildren(...children.flat().filter((c) => c !== null && c !== undefined));
  return node;
}

export function message(kind, text) {
  return el("p", { class: "message " + kind, role: kind === "error" ? "alert" : "status" }, text);
}
