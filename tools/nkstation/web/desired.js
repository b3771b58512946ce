// Desired state of a group or one panel: a configuration or schedule set uploaded as JSON,
// checked by the station (the library's own refusals, by member) before anything is saved;
// a new name; and the push progress of every panel concerned, live.
import { getJson, sendJson, onChange, debounce, ApiRefusal } from "./api.js";
import { el, statusBadge, message, STATUSES } from "./format.js";

const MEMBERS = { config: "configuration", schedules: "schedule set" };

export async function showDesired(main, params) {
  const groups = await getJson("/api/groups");
  const targetKind = el("select", { id: "target-kind" },
    el("option", { value: "group" }, "a group"), el("option", { value: "panel" }, "one panel"));
  const targetName = el("input", { id: "target-name", list: "known-groups", required: true, autocomplete: "off",
    value: params.get("group") || params.get("panel") || groups[0] || "default" });
  if (params.get("panel")) targetKind.value = "panel";
  const member = el("select", { id: "member" },
    Object.entries(MEMBERS).map(([value, label]) => el("option", { value }, label)));
  const file = el("input", { id: "upload-file", type: "file", accept: ".json,application/json" });
  const text = el("textarea", { id: "upload-text", rows: 12, spellcheck: "false",
    "aria-describedby": "upload-help" });
  const result = el("div", { id: "upload-result", "aria-live": "polite" });
  const imageFile = el("input", { id: "image-file", type: "file", accept: "image/png,image/jpeg,application/pdf,.7z,.xml" });
  const imageUid = el("input", { id: "image-uid", inputmode: "numeric", pattern: "[0-9]+", autocomplete: "off",
    "aria-describedby": "image-help" });
  const imageResult = el("div", { id: "image-result", "aria-live": "polite" });
  const imageList = el("ul", { id: "image-set", class: "thumbnails" });
  const nameInput = el("input", { id: "desired-name", autocomplete: "off", maxlength: 255 });
  const nameResult = el("div", { id: "name-result", "aria-live": "polite" });
  const current = el("pre", { id: "current-desired", class: "json", tabindex: "0" });
  const progressSummary = el("p", { id: "progress-summary", role: "status" });
  const progressRows = el("tbody");

  main.append(
    el("h1", {}, "Desired state"),
    el("datalist", { id: "known-groups" }, groups.map((g) => el("option", { value: g }))),
    el("form", { class: "target", onsubmit: (e) => { e.preventDefault(); targetChanged(); } },
      el("fieldset", {},
        el("legend", {}, "Whose desired state"),
        el("label", { for: "target-kind" }, "For"), targetKind,
        el("label", { for: "target-name" }, "Group name or panel address"), targetName,
        el("button", { type: "submit" }, "Show"))),
    el("section", { "aria-labelledby": "upload-heading" },
      el("h2", { id: "upload-heading" }, "Upload a configuration or schedule set"),
      el("form", { id: "upload", onsubmit: (e) => { e.preventDefault(); save(); } },
        el("label", { for: "member" }, "What"), member,
        el("label", { for: "upload-file" }, "JSON file"), file,
        el("label", { for: "upload-text" }, "or its text"), text,
        el("p", { id: "upload-help", class: "note" },
          "The forms nkctl reads. The station checks the whole desired state before saving; a refusal names the member."),
        el("div", { class: "buttons" },
          el("button", { type: "button", id: "check", onclick: check }, "Check only"),
          el("button", { type: "submit", id: "save" }, "Check and save"))),
      result),
    el("section", { "aria-labelledby": "image-heading" },
      el("h2", { id: "image-heading" }, "Images"),
      el("form", { id: "image-upload", onsubmit: (e) => { e.preventDefault(); addImage(); } },
        el("label", { for: "image-file" }, "Image file"), imageFile,
        el("label", { for: "image-uid" }, "Uid on the panel"), imageUid,
        el("button", { type: "submit", id: "image-add" }, "Upload and add")),
      el("p", { id: "image-help", class: "note" },
        "The uid is the number schedules show the image by. The set is what the panels should hold: others are removed."),
      imageResult, imageList),
    el("section", { "aria-labelledby": "name-heading" },
      el("h2", { id: "name-heading" }, "Rename"),
      el("form", { id: "rename", onsubmit: (e) => { e.preventDefault(); rename(); } },
        el("label", { for: "desired-name" }, "Panel name"), nameInput,
        el("button", { type: "submit", id: "rename-button" }, "Save name")),
      nameResult),
    el("section", { "aria-labelledby": "progress-heading" },
      el("h2", { id: "progress-heading" }, "Push progress"),
      progressSummary,
      el("div", { class: "table-wrap" }, el("table", { id: "progress" },
        el("thead", {}, el("tr", {}, ["Panel", "Status", "Still differs in", "Error", "Attempts"].map(
          (h) => el("th", { scope: "col" }, h)))),
        progressRows))),
    el("section", { "aria-labelledby": "current-heading" },
      el("h2", { id: "current-heading" }, "Saved desired state"), current));

  const desiredPath = () => targetKind.value === "group"
    ? `/api/groups/${encodeURIComponent(targetName.value.trim())}/desired`
    : `/api/devices/${encodeURIComponent(targetName.value.trim())}/desired`;

  let saved = null;
  async function loadSaved() {
    saved = await getJson(desiredPath());
    const set = savedMembers();
    current.textContent = Object.keys(set).length
      ? JSON.stringify(set, null, 2) + (saved.changed ? "\n\nsaved " + new Date(saved.changed).toLocaleString() : "")
      : "Nothing is set here.";
    nameInput.value = saved.name || "";
    await drawImageSet();
  }

  function showRefusal(box, e) {
    if (!(e instanceof ApiRefusal)) {
      box.replaceChildren(message("error", "Not sent: " + e.message));
      return;
    }
    box.replaceChildren(el("div", { class: "message error refusal", role: "alert" },
      el("strong", {}, "Refused, nothing saved. "),
      e.member ? el("span", {}, "Member ", el("code", { class: "member" }, e.member), ": ") : null,
      el("span", { class: "reason" }, e.message)));
  }

  // What is set at this level now (a PUT replaces the whole, so every member is sent again).
  function savedMembers() {
    const whole = {};
    for (const [key, value] of Object.entries(saved || {}))
      if (key !== "changed" && value !== null && value !== undefined) whole[key] = value;
    return whole;
  }

  // The whole desired state as it would be saved: the saved one with the uploaded member replaced.
  function proposed() {
    let parsed;
    try {
      parsed = JSON.parse(text.value);
    } catch (e) {
      throw new Error("the text is not valid JSON (" + e.message + ")");
    }
    const whole = savedMembers();
    whole[member.value] = parsed;
    return whole;
  }

  async function check() {
    try {
      const answer = await sendJson("POST", "/api/validate", proposed());
      const sums = [answer.csCfg && `configuration checksum ${answer.csCfg}`,
        answer.csSched && `schedules checksum ${answer.csSched}`].filter(Boolean).join(", ");
      result.replaceChildren(message("ok", "Accepted by the library, not saved yet" + (sums ? ": " + sums : ".")));
      return true;
    } catch (e) {
      showRefusal(result, e);
      return false;
    }
  }

  async function save() {
    if (!(await check())) return;
    try {
      await sendJson("PUT", desiredPath(), proposed());
      result.replaceChildren(message("ok", `Saved: the ${MEMBERS[member.value]} is being pushed.`));
      await loadSaved();
      await loadProgress();
    } catch (e) {
      showRefusal(result, e);
    }
  }

  // Types the station takes, from the file's own type or its name.
  function typeOf(f) {
    if (f.type) return f.type;
    const ext = f.name.toLowerCase().split(".").pop();
    return { png: "image/png", jpg: "image/jpeg", jpeg: "image/jpeg", pdf: "application/pdf",
      "7z": "application/x-7z-compressed", xml: "application/xml" }[ext] || "application/octet-stream";
  }

  // Saves the level's desired state with another image set, checked first like an upload.
  async function saveImages(images, box, done) {
    const whole = savedMembers();
    whole.images = images;
    try {
      await sendJson("POST", "/api/validate", whole);
      await sendJson("PUT", desiredPath(), whole);
      box.replaceChildren(message("ok", done));
      await loadSaved();
      await loadProgress();
    } catch (e) {
      showRefusal(box, e);
    }
  }

  const setMembers = () => ((saved && saved.images) || []).map((i) => ({ uid: i.uidText, image: i.image }));

  async function addImage() {
    const uid = imageUid.value.trim();
    if (!imageFile.files.length || !/^[0-9]+$/.test(uid) || /^0+$/.test(uid)) {
      imageResult.replaceChildren(message("error", "Choose a file and give a uid, a whole number above 0."));
      return;
    }
    const f = imageFile.files[0];
    let uploaded;
    try {
      const response = await fetch(`/api/images?type=${encodeURIComponent(typeOf(f))}&name=${encodeURIComponent(f.name)}`,
        { method: "POST", body: f, headers: { "Content-Type": typeOf(f) } });
      uploaded = await response.json();
      if (!response.ok) throw new ApiRefusal(response.status, uploaded);
    } catch (e) {
      showRefusal(imageResult, e);
      return;
    }
    const images = setMembers().filter((i) => i.uid !== uid).concat([{ uid, image: uploaded.id }]);
    await saveImages(images, imageResult, `Saved: ${f.name} as image ${uid}; it is being pushed.`);
  }

  async function removeImage(uid) {
    await saveImages(setMembers().filter((i) => i.uid !== uid), imageResult, `Saved: image ${uid} leaves the set.`);
  }

  async function drawImageSet() {
    const set = (saved && saved.images) || null;
    if (!set) {
      imageList.replaceChildren(el("li", { class: "note" }, "No image set here: the panels' images are left alone."));
      return;
    }
    const types = new Map((await getJson("/api/images")).map((i) => [i.id, i]));
    imageList.replaceChildren(...set.map((i) => {
      const record = types.get(i.image);
      return el("li", { "data-uid": i.uidText },
        record && record.type.startsWith("image/")
          ? el("img", { src: "/api/images/" + i.image, alt: `image ${i.uidText}: ${record.name || ""}`, width: 120, height: 68 })
          : el("span", { class: "no-thumbnail" }, record ? record.type : "unknown"),
        el("span", {}, `${i.uidText}${record && record.name ? ": " + record.name : ""}`),
        el("button", { type: "button", class: "remove", onclick: () => removeImage(i.uidText) }, `Remove ${i.uidText}`));
    }));
  }

  async function rename() {
    const whole = savedMembers();
    delete whole.name;
    if (nameInput.value.trim()) whole.name = nameInput.value.trim();
    try {
      await sendJson("PUT", desiredPath(), whole);
      nameResult.replaceChildren(message("ok", whole.name ? `Saved: the name "${whole.name}".` : "Saved: no name set here."));
      await loadSaved();
      await loadProgress();
    } catch (e) {
      showRefusal(nameResult, e);
    }
  }

  file.addEventListener("change", async () => {
    if (!file.files.length) return;
    text.value = await file.files[0].text();
    result.replaceChildren();
  });

  async function loadProgress() {
    const name = targetName.value.trim();
    const devices = targetKind.value === "group"
      ? await getJson("/api/devices?group=" + encodeURIComponent(name))
      : [await getJson("/api/devices/" + encodeURIComponent(name))];
    const counts = Object.fromEntries(STATUSES.map((s) => [s, 0]));
    for (const d of devices) counts[d.status] = (counts[d.status] || 0) + 1;
    progressSummary.textContent = `${devices.length} panel(s): ` +
      STATUSES.filter((s) => counts[s]).map((s) => `${counts[s]} ${s}`).join(", ");
    progressRows.replaceChildren(...devices.map((d) => el("tr", { "data-address": d.address },
      el("td", {}, el("a", { href: "#/panel/" + d.address }, (d.reported && d.reported.name) || d.address)),
      el("td", { class: "status" }, statusBadge(d.status)),
      el("td", {}, d.difference),
      el("td", {}, d.error),
      el("td", {}, d.attempts))));
  }

  async function targetChanged() {
    result.replaceChildren();
    nameResult.replaceChildren();
    try {
      await loadSaved();
      await loadProgress();
    } catch (e) {
      saved = null;
      current.textContent = "";
      showRefusal(result, e);
    }
  }

  const reload = debounce(() => loadProgress().catch(() => {}), 500);
  const stop = onChange((change) => { if (change.kind === "device" || change.kind === "reload") reload(); });
  await targetChanged();
  return stop;
}
