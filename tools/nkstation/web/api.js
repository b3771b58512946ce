// The station's HTTP/JSON API and its stream of changes, as the pages use them.

export async function getJson(path) {
  const response = await fetch(path, { headers: { Accept: "application/json" } });
  const body = await response.json().catch(() => null);
  if (!response.ok) throw new ApiRefusal(response.status, body);
  return body;
}

// Sends a JSON body; resolves to the answer, or throws ApiRefusal with the member to blame.
export async function sendJson(method, path, body) {
  const response = await fetch(path, {
    method,
    headers: { "Content-Type": "application/json", Accept: "application/json" },
    body: JSON.stringify(body),
  });
  const answer = await response.json().catch(() => null);
  if (!response.ok) throw new ApiRefusal(response.status, answer);
  return answer;
}

export class ApiRefusal extends Error {
  constructor(status, body) {
    super((body && body.error) || `the station answered ${status}`);
    this.status = status;
    this.member = (body && body.member) || "";
  }
}

// One EventSource for the whole page; pages add and remove listeners as they come and go.
// On "overflow" (the reader fell behind) every listener is told to reload in full.
const listeners = new Set();
let source = null;

export function onChange(listener) {
  listeners.add(listener);
  if (!source) {
    source = new EventSource("/api/stream");
    source.addEventListener("change", (message) => {
      let change;
      try {
        change = JSON.parse(message.data);
      } catch {
        return;
      }
      for (const l of listeners) l(change);
    });
    source.addEventListener("overflow", () => {
      for (const l of listeners) l({ kind: "reload" });
    });
  }
  return () => listeners.delete(listener);
}

// Calls f at most once per interval, after the last of a burst of calls.
export function debounce(f, interval) {
  let timer = null;
  return () => {
    if (timer) return;
    timer = setTimeout(() => {
      timer = null;
      f();
    }, interval);
  };
}
