// Changes to a record's documents beyond uploads: new folder, replace, archived versions, delete.
// Each entry is present only when the server offers it; the page shows the matching buttons only
// then.
export const actions = {};
