// The page: sign in, find a record, and work with the record's documents.
import * as api from "./api.js";
import { actions } from "./actions.js";
import { lang, t, translatePage, formatSize, formatDate } from "./i18n.js";

const $ = (id) => document.getElementById(id);
const pageSize = 20;

const state = {
  tables: [],
  table: null, // the chosen entry of tables.json
  docFilter: "", // identifier of the module's document search filter, "" when it has none
  offset: 0,
  total: 0,
  record: null, // { schema, uid, storageUID, label }
  tree: null,
  open: new Set(), // server_uid of open folders
  busy: false,
};

// ---- Messages

function say(text) {
  $("status").textContent = text;
}

function showError(error) {
  const box = $("error");
  if (!error) {
    box.hidden = true;
    box.textContent = "";
    return;
  }
  box.textContent = t("failed", error.message || String(error));
  box.hidden = false;
}

// Runs an action with its failure shown; the busy flag keeps one write at a time.
async function guarded(work) {
  showError(null);
  try {
    return await work();
  } catch (e) {
    if (e.status !== 401) showError(e);
    return undefined;
  }
}

function progress(label, done, total) {
  const box = $("progress-box");
  if (label === null) {
    box.hidden = true;
    return;
  }
  box.hidden = false;
  $("progress-label").textContent = label;
  const bar = $("progress");
  if (total > 0) {
    bar.max = total;
    bar.value = Math.min(done, total);
  } else {
    bar.removeAttribute("value"); // indeterminate
  }
}

// ---- Session

function showLogin(message) {
  $("app-view").hidden = true;
  $("who").hidden = true;
  $("login-view").hidden = false;
  $("login-message").textContent = message || "";
  $("login-password").value = "";
  $("login-user").focus();
}

async function showApp(session) {
  sessionStorage.setItem("signedIn", "1");
  $("login-view").hidden = true;
  $("app-view").hidden = false;
  $("who").hidden = false;
  $("whoami").textContent = t("loggedInAs", session.user);
  await chooseTable(state.table?.schema || state.tables[0]?.schema);
  $("filter-text").focus();
}

api.setSessionLostHandler(() => {
  state.record = null;
  showLogin(t("sessionExpired"));
});

$("login-form").addEventListener("submit", async (event) => {
  event.preventDefault();
  $("login-message").textContent = "";
  try {
    const session = await api.login($("login-user").value.trim(), $("login-password").value);
    await showApp(session);
  } catch (e) {
    $("login-message").textContent = e.status === 401 ? t("wrongPassword") : t("failed", e.message);
    $("login-password").value = "";
    $("login-password").focus();
  }
});

$("logout").addEventListener("click", async () => {
  await guarded(api.logout);
  sessionStorage.removeItem("signedIn");
  state.record = null;
  showDocuments(null);
  showLogin(t("loggedOut"));
});

// ---- Records

async function chooseTable(schema) {
  state.table = state.tables.find((x) => x.schema === schema) || state.tables[0];
  $("table").value = state.table.schema;
  state.offset = 0;
  // The module's document search, when the table offers it.
  state.docFilter = "";
  await guarded(async () => {
    const filters = (await api.filtersOf(state.table.schema)).filters || [];
    const search = filters[0];
    state.docFilter = search ? search.identifier : "";
  });
  $("doc-search").disabled = !state.docFilter;
  const head = $("records-head");
  head.replaceChildren(
    ...state.table.columns.map((c, i) => {
      const th = document.createElement("th");
      th.scope = "col";
      th.textContent = state.table.captions?.[c]?.[lang] || c;
      if (i > 1) th.className = "secondary";
      return th;
    }),
  );
  await loadRecords();
}

async function loadRecords() {
  const text = $("filter-text").value.trim();
  const docText = $("doc-search").value.trim();
  const answer = await guarded(() =>
    api.listRecords(state.table.schema, {
      fields: ["globalrecuid", ...state.table.columns].join(","),
      where: text ? api.containsWhere(state.table.search, text) : "",
      order: state.table.columns[0],
      limit: pageSize,
      offset: state.offset,
      filter: docText && state.docFilter ? state.docFilter : "",
      filterValue: docText,
    }),
  );
  if (!answer) return;
  state.total = answer.total;
  const body = $("records-body");
  body.replaceChildren();
  for (const row of answer.records) {
    const tr = document.createElement("tr");
    const label = state.table.columns.map((c) => row[c]).filter((v) => v !== null && v !== "").join(" ");
    state.table.columns.forEach((c, i) => {
      const td = document.createElement("td");
      if (i === 0) {
        const b = document.createElement("button");
        b.type = "button";
        b.className = "link";
        b.textContent = row[c] ?? "—";
        b.dataset.uid = row.globalrecuid;
        b.addEventListener("click", () => openRecord(row.globalrecuid, label || row.globalrecuid, tr));
        td.append(b);
      } else {
        td.textContent = row[c] ?? "";
        if (i > 1) td.className = "secondary";
      }
      tr.append(td);
    });
    if (state.record?.uid === row.globalrecuid) tr.setAttribute("aria-current", "true");
    body.append(tr);
  }
  $("no-records").hidden = answer.records.length > 0;
  const pages = Math.max(1, Math.ceil(state.total / pageSize));
  $("page-info").textContent = t("pageOf", Math.floor(state.offset / pageSize) + 1, pages, state.total);
  $("prev-page").disabled = state.offset === 0;
  $("next-page").disabled = state.offset + pageSize >= state.total;
}

$("table").addEventListener("change", () => chooseTable($("table").value));
$("record-search").addEventListener("submit", (event) => {
  event.preventDefault();
  state.offset = 0;
  loadRecords();
});
$("prev-page").addEventListener("click", () => {
  state.offset = Math.max(0, state.offset - pageSize);
  loadRecords();
});
$("next-page").addEventListener("click", () => {
  state.offset += pageSize;
  loadRecords();
});

// ---- A record's documents

function storageUIDFor(table) {
  return table.storage || "";
}

async function openRecord(uid, label, row) {
  for (const tr of $("records-body").children) tr.removeAttribute("aria-current");
  row?.setAttribute("aria-current", "true");
  state.record = { schema: state.table.schema, uid, storageUID: storageUIDFor(state.table), label };
  state.open.clear();
  $("documents-heading").textContent = t("documentsOf", label);
  showDocuments(state.record);
  await reloadTree();
  // Keyboard and screen reader users continue at the record's documents.
  $("documents-heading").focus();
}

function showDocuments(record) {
  $("documents").hidden = !record;
  $("choose-record").hidden = !!record;
  if (!record) {
    $("documents-heading").textContent = t("storedDocuments");
    $("tree").replaceChildren();
  }
}

async function reloadTree() {
  const record = state.record;
  const tree = await guarded(() => api.listDocuments(record));
  if (!tree || state.record !== record) return;
  state.tree = tree;
  renderTree();
}

// The folders of the tree with their comma paths, depth first.
function folders(level, titles = [], out = []) {
  for (const dir of level.directories || []) {
    const path = [...titles, dir.name];
    out.push({ dir, path });
    folders(dir, path, out);
  }
  return out;
}

// Marks the folders along a path of titles as open.
function openPath(titles) {
  let level = state.tree;
  for (const title of titles) {
    const dir = (level?.directories || []).find((d) => d.name === title);
    if (!dir) return;
    state.open.add(dir.server_uid);
    level = dir;
  }
}

function renderTree() {
  const root = $("tree");
  root.replaceChildren(...renderLevel(state.tree, []));
  const empty = !(state.tree.directories?.length || state.tree.documents?.length);
  $("no-documents").hidden = !empty;
  const select = $("target-folder");
  const chosen = select.value;
  select.replaceChildren(new Option(t("rootFolder"), ""));
  for (const { path } of folders(state.tree)) select.append(new Option(path.join(" / "), api.commaPath(path)));
  select.value = [...select.options].some((o) => o.value === chosen) ? chosen : "";
}

function renderLevel(level, titles) {
  const items = [];
  for (const dir of level.directories || []) items.push(renderFolder(dir, [...titles, dir.name]));
  for (const doc of level.documents || []) items.push(renderDocument(doc, titles));
  return items;
}

function renderFolder(dir, path) {
  const li = document.createElement("li");
  li.className = "folder";
  li.dataset.path = api.commaPath(path);
  const open = state.open.has(dir.server_uid);
  const toggle = document.createElement("button");
  toggle.type = "button";
  toggle.className = "toggle";
  toggle.setAttribute("aria-expanded", String(open));
  toggle.innerHTML = `<span class="icon" aria-hidden="true"></span>`;
  toggle.append(document.createTextNode(dir.name));
  toggle.title = open ? t("closeFolder") : t("openFolder");
  const meta = document.createElement("span");
  meta.className = "meta";
  meta.textContent = formatDate(dir.createdate);
  const group = document.createElement("ul");
  group.hidden = !open;
  if (open) group.append(...renderLevel(dir, path));
  toggle.addEventListener("click", () => {
    const nowOpen = toggle.getAttribute("aria-expanded") !== "true";
    toggle.setAttribute("aria-expanded", String(nowOpen));
    toggle.title = nowOpen ? t("closeFolder") : t("openFolder");
    if (nowOpen) {
      state.open.add(dir.server_uid);
      group.replaceChildren(...renderLevel(dir, path));
    } else {
      state.open.delete(dir.server_uid);
    }
    group.hidden = !nowOpen;
  });
  acceptDrops(li, () => api.commaPath(path));
  li.append(toggle, meta, group);
  return li;
}

const previewable = /\.(pdf|png|jpe?g|gif|webp|bmp)$/i;
const mimeOf = (name) => {
  const ext = (name.match(/\.([^.]+)$/)?.[1] || "").toLowerCase();
  return (
    { pdf: "application/pdf", png: "image/png", jpg: "image/jpeg", jpeg: "image/jpeg", gif: "image/gif", webp: "image/webp", bmp: "image/bmp" }[ext] ||
    "application/octet-stream"
  );
};

function actionButton(text, label, handler, className = "") {
  const b = document.createElement("button");
  b.type = "button";
  b.textContent = text;
  b.setAttribute("aria-label", `${text}: ${label}`);
  if (className) b.className = className;
  b.addEventListener("click", handler);
  return b;
}

function renderDocument(doc, titles) {
  const li = document.createElement("li");
  li.className = "document";
  li.dataset.id = doc.server_dbid;
  const name = document.createElement("span");
  name.className = "name";
  name.textContent = doc.name;
  const meta = document.createElement("span");
  meta.className = "meta";
  meta.textContent = [
    formatSize(doc.size),
    `${t("version")} ${doc.version}`,
    `${t("modified")} ${formatDate(doc.lastmodified)}`,
  ].join(" · ");
  meta.title = `${t("created")} ${formatDate(doc.createdate)}`;
  const buttons = document.createElement("span");
  buttons.className = "actions";
  buttons.append(
    actionButton(t("download"), doc.name, () => download(doc)),
    actionButton(t("downloadPdf"), doc.name, () => download(doc, "pdf")),
    actionButton(t("preview"), doc.name, () => preview(doc)),
  );
  if (actions.replace) buttons.append(actionButton(t("replace"), doc.name, () => replace(doc)));
  if (actions.versions) buttons.append(actionButton(t("versions"), doc.name, () => showVersions(doc)));
  if (actions.remove) buttons.append(actionButton(t("delete"), doc.name, () => remove(doc), "danger"));
  li.append(name, meta, buttons);
  return li;
}

async function fetchDocument(doc, format) {
  progress(t("downloading", doc.name), 0, format ? 0 : doc.size);
  try {
    return await api.downloadDocument(state.record, doc, {
      format,
      onProgress: (done, total) => progress(t("downloading", doc.name), done, total),
    });
  } finally {
    progress(null);
  }
}

function saveBlob(blob, name) {
  const url = URL.createObjectURL(blob);
  const a = document.createElement("a");
  a.href = url;
  a.download = name;
  document.body.append(a);
  a.click();
  a.remove();
  setTimeout(() => URL.revokeObjectURL(url), 60000);
}

async function download(doc, format) {
  await guarded(async () => {
    const file = await fetchDocument(doc, format);
    if (format && !file.converted) {
      say(t("notConverted", doc.name));
      return;
    }
    saveBlob(file.blob, file.name);
    say(file.name);
  });
}

let previewURL = "";
async function preview(doc) {
  await guarded(async () => {
    const direct = previewable.test(doc.name);
    const file = await fetchDocument(doc, direct ? undefined : "pdf");
    if (!direct && !file.converted) {
      say(t("notConverted", doc.name));
      return;
    }
    if (previewURL) URL.revokeObjectURL(previewURL);
    previewURL = URL.createObjectURL(new Blob([file.blob], { type: mimeOf(file.name) }));
    const body = $("preview-body");
    let view;
    if (/\.pdf$/i.test(file.name)) {
      view = document.createElement("iframe");
      view.title = file.name;
    } else {
      view = document.createElement("img");
      view.alt = file.name;
    }
    view.src = previewURL;
    body.replaceChildren(view);
    $("preview-title").textContent = file.name;
    $("preview-dialog").showModal();
  });
}

// ---- Changes

async function upload(files, folderPath) {
  if (!files.length || !state.record) return;
  const record = state.record;
  let done = 0;
  await guarded(async () => {
    try {
      await api.uploadFiles(record, files, folderPath, (file) => {
        progress(t("uploading", file.name), done++, files.length);
      });
      say(t("uploaded", files.length));
    } finally {
      progress(null);
      // Files stored before a failure are shown too, in their opened folder.
      openPath(parsePath(folderPath));
      await reloadTree();
    }
  });
}

$("upload-button").addEventListener("click", () => $("file-input").click());
$("file-input").addEventListener("change", async () => {
  const files = [...$("file-input").files];
  $("file-input").value = "";
  await upload(files, $("target-folder").value);
});

function acceptDrops(element, pathOf) {
  element.addEventListener("dragover", (event) => {
    if (!event.dataTransfer?.types?.includes("Files")) return;
    event.preventDefault();
    event.stopPropagation();
    element.classList.add("drag-over");
  });
  element.addEventListener("dragleave", () => element.classList.remove("drag-over"));
  element.addEventListener("drop", (event) => {
    event.preventDefault();
    event.stopPropagation();
    element.classList.remove("drag-over");
    upload([...(event.dataTransfer?.files || [])], pathOf());
  });
}
acceptDrops($("drop-zone"), () => $("target-folder").value);

function closeOnButton(dialog) {
  for (const b of dialog.querySelectorAll("[data-close]")) b.addEventListener("click", () => dialog.close("cancel"));
}
for (const d of document.querySelectorAll("dialog")) closeOnButton(d);
$("preview-dialog").addEventListener("close", () => $("preview-body").replaceChildren());

// Asks in a modal dialog; resolves true only when confirmed (not on Cancel or Escape).
function confirmDialog(text) {
  const dialog = $("confirm-dialog");
  $("confirm-text").textContent = text;
  dialog.returnValue = "";
  dialog.showModal();
  $("confirm-ok").focus();
  return new Promise((resolve) => dialog.addEventListener("close", () => resolve(dialog.returnValue === "ok"), { once: true }));
}

$("new-folder").hidden = !actions.createFolder;
$("new-folder").addEventListener("click", () => {
  $("folder-name").value = "";
  $("folder-dialog").showModal();
  $("folder-name").focus();
});
$("folder-form").addEventListener("submit", async (event) => {
  const name = $("folder-name").value.trim();
  if (!name) {
    event.preventDefault();
    return;
  }
  const parent = $("target-folder").value;
  await guarded(async () => {
    await actions.createFolder(state.record, parent, name);
    await reloadTree();
    say(t("folderCreated", name));
    $("target-folder").value = api.commaPath([...parsePath(parent), name]);
  });
});

function parsePath(comma) {
  return comma ? [...comma.matchAll(/"((?:[^"]|"")*)"/g)].map((m) => m[1].replace(/""/g, '"')) : [];
}

function pickFile() {
  return new Promise((resolve) => {
    const input = document.createElement("input");
    input.type = "file";
    input.className = "visually-hidden";
    input.id = "replace-input";
    input.addEventListener("change", () => {
      resolve(input.files[0] || null);
      input.remove();
    });
    document.body.append(input);
    input.click();
  });
}

async function replace(doc) {
  const file = await pickFile();
  if (!file) return;
  await guarded(async () => {
    progress(t("uploading", file.name), 0, 0);
    try {
      await actions.replace(state.record, doc, file);
    } finally {
      progress(null);
    }
    await reloadTree();
    say(t("archivedMessage", doc.name));
  });
}

async function showVersions(doc) {
  await guarded(async () => {
    const list = await actions.versions(state.record, doc);
    $("versions-title").textContent = t("versionsOf", doc.name);
    const body = $("versions-body");
    body.replaceChildren();
    for (const v of list) {
      const tr = document.createElement("tr");
      const label = v.current ? `${v.version} (${t("currentVersion")})` : v.version;
      for (const text of [label, formatDate(v.lastmodified), formatSize(v.size)]) {
        const td = document.createElement("td");
        td.textContent = text;
        tr.append(td);
      }
      body.append(tr);
    }
    $("versions-dialog").showModal();
  });
}

async function remove(doc) {
  if (!(await confirmDialog(t("confirmDelete", doc.name)))) return;
  await guarded(async () => {
    await actions.remove(state.record, doc);
    await reloadTree();
    say(t("deleted", doc.name));
  });
}

// ---- Start

async function start() {
  translatePage();
  document.title = t("appTitle");
  const response = await fetch("tables.json", { cache: "no-cache" });
  state.tables = await response.json();
  $("table").replaceChildren(...state.tables.map((x) => new Option(x.caption[lang] || x.schema, x.schema)));
  const session = await api.currentSession().catch(() => null);
  if (session) await showApp(session);
  // A page that was signed in when it was last open finds its session ended.
  else showLogin(sessionStorage.getItem("signedIn") ? t("sessionExpired") : "");
}

start();
