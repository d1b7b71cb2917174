// The server's REST interface as the page uses it. Every call goes to this page's own server; the
// session is the HttpOnly cookie that the login sets, and calls that change something carry the
// session's CSRF token, which the server demands for cookie sessions.

export class ApiError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

let csrfToken = "";
let onSessionLost = () => {};

// Called when a call finds no valid session (401) after the page had one.
export function setSessionLostHandler(handler) {
  onSessionLost = handler;
}

async function call(method, path, body) {
  const headers = { Accept: "application/json" };
  if (body !== undefined) headers["Content-Type"] = "application/json";
  if (method !== "GET" && csrfToken) headers["X-CSRF-Token"] = csrfToken;
  let response;
  try {
    response = await fetch(path, {
      method,
      headers,
      body: body === undefined ? undefined : JSON.stringify(body),
      credentials: "same-origin",
      cache: "no-store",
    });
  } catch (e) {
    throw new ApiError(0, e.message || String(e));
  }
  let data = null;
  const text = await response.text();
  if (text) {
    try {
      data = JSON.parse(text);
    } catch {
      data = null;
    }
  }
  if (!response.ok) {
    const message = data?.error?.message || `${response.status} ${response.statusText}`;
    const error = new ApiError(response.status, message);
    if (response.status === 401 && csrfToken && path !== "/login") {
      csrfToken = "";
      onSessionLost(error);
    }
    throw error;
  }
  return data;
}

// A call that changes something on the server, with the session's CSRF token.
export function post(path, body) {
  return call("POST", path, body);
}

// A published API method: its out-parameters; a false MethodResult raises the service's error.
async function invoke(path, params) {
  const out = await call("POST", path, params);
  if (out && out.MethodResult === false) {
    const info = out.ResultInfo || {};
    throw new ApiError(info?.error?.status || 500, info?.error?.message || "failed");
  }
  return out?.ResultInfo ?? out;
}

// ---- Session

export async function login(user, password) {
  const answer = await call("POST", "/login", { user, password, session_type: 0 });
  csrfToken = answer.csrf_token;
  return answer;
}

// The current session, or null when there is none.
export async function currentSession() {
  try {
    const answer = await call("GET", "/session");
    csrfToken = answer.csrf_token;
    return answer;
  } catch (e) {
    if (e.status === 401) return null;
    throw e;
  }
}

export async function logout() {
  try {
    await call("POST", "/logout");
  } finally {
    csrfToken = "";
  }
}

// ---- Records

export function filtersOf(schema) {
  return call("GET", `/filters/${encodeURIComponent(schema)}`);
}

export function listRecords(schema, { fields, where, order, limit, offset, filter, filterValue }) {
  const q = new URLSearchParams();
  if (fields) q.set("fields", fields);
  if (where) q.set("where", where);
  if (order) q.set("order", order);
  q.set("limit", String(limit));
  q.set("offset", String(offset));
  if (filter) {
    q.set("filter", filter);
    q.set("filter_value", filterValue);
  }
  return call("GET", `/records/${encodeURIComponent(schema)}?${q}`);
}

// A LIKE condition over the given text columns; quotes are doubled, so the text stays one value.
export function containsWhere(columns, text) {
  const value = `'%${String(text).replace(/'/g, "''")}%'`;
  return columns.map((c) => `${c} LIKE ${value}`).join(" OR ");
}

// ---- Documents of a record

const storeRoot = "/services/IDocumentStore/";

export function listDocuments(record) {
  return invoke(storeRoot + "QueryRecordResourceList", {
    StorageUID: record.storageUID,
    SchemaName: record.schema,
    RecordUID: record.uid,
    Filter: "",
    Pagination: "",
  });
}

function base64ToBytes(text) {
  const binary = atob(text || "");
  const bytes = new Uint8Array(binary.length);
  for (let i = 0; i < binary.length; i++) bytes[i] = binary.charCodeAt(i);
  return bytes;
}

export function bytesToBase64(bytes) {
  let binary = "";
  const step = 0x8000;
  for (let i = 0; i < bytes.length; i += step)
    binary += String.fromCharCode.apply(null, bytes.subarray(i, i + step));
  return btoa(binary);
}

export const chunkSize = 1 << 20;

// Fetches a document chunk by chunk and calls onProgress(received, total) after each; returns
// { name, converted, blob }. With a format ("pdf") the server converts where it can. The size
// from the listing tells when the last chunk has come; a converted file's size isn't known
// beforehand, so then a short chunk ends the loop.
export async function downloadDocument(record, doc, { format, onProgress } = {}) {
  const method = format ? "DownloadRecordDocumentEx" : "DownloadRecordDocument";
  const parts = [];
  let received = 0;
  let name = doc.name;
  let converted = false;
  const total = format ? 0 : Number(doc.size) || 0;
  for (;;) {
    const params = {
      StorageUID: record.storageUID,
      SchemaName: record.schema,
      RecordUID: record.uid,
      ServerDBID: doc.server_dbid,
      Chunk: { position: received, size: chunkSize },
    };
    if (format) params.Options = { format: "." + format };
    const info = await invoke(storeRoot + method, params);
    const bytes = base64ToBytes(info.content);
    parts.push(bytes);
    received += bytes.length;
    name = info.name || name;
    converted = !!info.converted;
    onProgress?.(received, total);
    if (bytes.length < chunkSize || (total > 0 && received >= total)) break;
  }
  return { name, converted, blob: new Blob(parts) };
}

// Uploads files into a folder (comma path below the record's root, "" for the root) through the
// record service's "record_documents" detail: one request per file, so that a failure names its
// file and the files before it stay stored.
export async function uploadFiles(record, files, folderPath, onFile) {
  const stored = [];
  for (const file of files) {
    onFile?.(file);
    const content = bytesToBase64(new Uint8Array(await file.arrayBuffer()));
    await call("PUT", `/records/${encodeURIComponent(record.schema)}/${encodeURIComponent(record.uid)}`, {
      record_documents: {
        insert: [{ name: file.name, content, "content--encoding": "Base64", path: folderPath }],
      },
    });
    stored.push(file.name);
  }
  return stored;
}

// A folder path in comma text: each title quoted, quotes doubled.
export function commaPath(titles) {
  return titles.map((t) => `"${String(t).replace(/"/g, '""')}"`).join(",");
}
