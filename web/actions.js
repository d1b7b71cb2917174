// Changes to a record's documents beyond uploads: new folder, replace (the old content goes to
// the archive), archived versions and delete, through the server's record-documents route.
import { post, bytesToBase64 } from "./api.js";

function target(record) {
  return { storage: record.storageUID, schema: record.schema, record: record.uid };
}

export const actions = {
  // A folder named `name` in the folder at the comma path `parentPath` ("" the record's root).
  createFolder: (record, parentPath, name) =>
    post("/record-documents/folder", { ...target(record), path: parentPath, name }),

  replace: async (record, doc, file) =>
    post("/record-documents/replace", {
      ...target(record),
      id: doc.server_dbid,
      content: bytesToBase64(new Uint8Array(await file.arrayBuffer())),
    }),

  // The current version first, then the archived ones, newest first.
  versions: async (record, doc) =>
    (await post("/record-documents/versions", { ...target(record), id: doc.server_dbid })).versions,

  remove: (record, doc) => post("/record-documents/delete", { ...target(record), id: doc.server_dbid }),
};
